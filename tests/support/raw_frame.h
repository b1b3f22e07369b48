#pragma once

#include "qutils/raw/records.h"

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

/// A channel of raw output with plain fields.
struct RawChannelDouble : QUtils::RegionChannelCallback {
    RawChannelDouble(std::string name_, int id_, int sampleType_, int components_, int kind_ = 0)
        : name(std::move(name_)), id(id_), sampleType(sampleType_), components(components_), kind(kind_)
    {
    }
    const char* getName() override { return name.c_str(); }
    int getChannelId() override { return id; }
    int getSampleType() override { return sampleType; }
    int getNumComponents() override { return components; }
    int getKind() override { return kind; }

    std::string name;
    int id, sampleType, components, kind;
};

/// A list of channels with the table that the raw writers take.
class RawChannels {
public:
    RawChannelDouble& add(const std::string& name, int id, int sampleType, int components, int kind = 0)
    {
        m_channels.emplace_back(name, id, sampleType, components, kind);
        m_table.add(&m_channels.back());
        return m_channels.back();
    }
    QUtils::RegionChannelTable* table() { return &m_table; }
    int count() const { return int(m_channels.size()); }
    const RawChannelDouble& operator[](int index) const { return m_channels[std::size_t(index)]; }

private:
    std::deque<RawChannelDouble> m_channels;
    QUtils::RegionChannelTable m_table;
};

/// A frame whose every sample tells its place: channel, column, row and component. Floats are small numbers
/// that a half float holds exactly.
class RawFrameDouble : public QUtils::QURegionData {
public:
    RawFrameDouble(const RawChannels& channels, QUtils::RIRegionInfo region)
        : m_channels(channels), m_region(region)
    {
    }

    static float number(int channel, int x, int y, int component)
    {
        return float((x * 7 + y * 13 + component * 3 + channel * 29) % 1024) / 8 - 16;
    }
    static std::uint32_t integer(int channel, int x, int y, int component)
    {
        return 4000000000u - std::uint32_t(x + y * 4099 + component * 31 + channel * 65537);
    }

    QUtils::RIRegionInfo getRegion() override { return m_region; }
    const void* getRow(int channel, int y) override
    {
        if (onRow && !onRow(channel, y))
            return nullptr;
        const RawChannelDouble& format = m_channels[channel];
        m_row.clear();
        for (int x = m_region.left; x < m_region.right; ++x)
            for (int i = 0; i < format.components; ++i)
                append(channel, format.sampleType, x, y, i);
        return m_row.data();
    }

    /// Called for every row; false refuses it.
    std::function<bool(int channel, int y)> onRow;

private:
    template <typename Sample> void append(const Sample& sample)
    {
        m_row.resize(m_row.size() + sizeof sample);
        std::memcpy(m_row.data() + m_row.size() - sizeof sample, &sample, sizeof sample);
    }
    void append(int channel, int sampleType, int x, int y, int component)
    {
        if (sampleType == QUtils::RISAMPLE_UINT)
            append(integer(channel, x, y, component));
        else if (sampleType == QUtils::RISAMPLE_FLOAT)
            append(number(channel, x, y, component));
        else
            append(toHalf(number(channel, x, y, component)));
    }
    /// Exact for the numbers above: they have at most eleven significant bits.
    static std::uint16_t toHalf(float value)
    {
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        if ((bits & 0x7FFFFFFFu) == 0)
            return std::uint16_t(bits >> 16);
        const std::uint32_t exponent = (bits >> 23 & 0xFF) - 127 + 15;
        return std::uint16_t((bits >> 16 & 0x8000u) | exponent << 10 | (bits >> 13 & 0x3FFu));
    }

    const RawChannels& m_channels;
    QUtils::RIRegionInfo m_region;
    std::vector<std::uint8_t> m_row;
};

} // namespace testing_support
