#pragma once

#include "qutils/raw/ri_file.h"
#include "qutils/raw/ri_reader.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>
#include <half.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace testing_support {

inline std::uint32_t mixBits(std::uint32_t a, std::uint32_t b)
{
    std::uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u) * 0x85EBCA77u;
    h = (h ^ h >> 15) * 0x2C1B3C6Du;
    return h ^ h >> 13;
}

/// A channel as a renderer describes it.
class RawTestChannel : public QUtils::RegionChannelCallback {
public:
    RawTestChannel(std::string name, int id, int type, int components, int kind = 0)
        : m_name(std::move(name)), m_id(id), m_type(type), m_components(components), m_kind(kind)
    {
    }
    const char* getName() override { return m_name.c_str(); }
    int getChannelId() override { return m_id; }
    int getSampleType() override { return m_type; }
    int getNumComponents() override { return m_components; }
    int getKind() override { return m_kind; }

    int type() const { return m_type; }
    int components() const { return m_components; }
    std::size_t pixelBytes() const
    {
        return std::size_t(m_components) * (m_type == QUtils::RISAMPLE_HALF ? 2 : 4);
    }

private:
    std::string m_name;
    int m_id, m_type, m_components, m_kind;
};

/// A frame whose every sample is known: some of it smooth, some of it noise.
struct RawTestFrame {
    int width = 0, height = 0, bits = 0;
    RIRegionInfo region = {}; ///< As it is handed over.
    int regWidth = 0, regHeight = 0;
    std::vector<RawTestChannel> channels;

    RIRegionInfo resolved() const
    {
        return region.right == 0 ? RIRegionInfo { 0, 0, width, height } : region;
    }
    QUtils::RegionChannelTable table()
    {
        QUtils::RegionChannelTable list;
        for (RawTestChannel& channel : channels)
            list.add(&channel);
        return list;
    }

    void store(std::uint8_t* out, int type, std::uint32_t bitsOfIt) const
    {
        const float value = float(int(bitsOfIt % 4001) - 2000) / 16;
        const std::uint16_t halfBits = half(value).bits();
        if (type == QUtils::RISAMPLE_HALF)
            std::memcpy(out, &halfBits, 2);
        else if (type == QUtils::RISAMPLE_FLOAT)
            std::memcpy(out, &value, 4);
        else
            std::memcpy(out, &bitsOfIt, 4);
    }
    std::uint32_t sampleBits(int channel, int component, int x, int y) const
    {
        const bool smooth = (x / 5 + channel) % 2 == 0;
        return smooth ? std::uint32_t(x + 3 * y + 7 * component)
                      : mixBits(std::uint32_t(channel * 4 + component), std::uint32_t(y * 65536 + x));
    }
    /// Pixels `left` to `right` of a row, in samples of `type`.
    Bytes row(int channel, int type, int y, int left, int right) const
    {
        const int components = channels[std::size_t(channel)].components();
        const std::size_t sample = type == QUtils::RISAMPLE_HALF ? 2 : 4;
        Bytes bytes(std::size_t(right - left) * std::size_t(components) * sample);
        std::uint8_t* out = bytes.data();
        for (int x = left; x < right; ++x)
            for (int c = 0; c < components; ++c, out += sample)
                store(out, type, sampleBits(channel, c, x, y));
        return bytes;
    }
};

/// What the renderer hands over of it. Rows can be refused, or throw.
class RawTestData : public QUtils::QURegionData {
public:
    RawTestData(const RawTestFrame& frame, const RIRegionInfo& rect) : m_frame(frame), m_rect(rect) { }

    RIRegionInfo getRegion() override { return m_rect; }
    const void* getRow(int channel, int y) override
    {
        if (y == throwingRow)
            throw std::runtime_error("no such luck");
        if (y == refusedRow && (refusedChannel < 0 || channel == refusedChannel))
            return nullptr;
        asked.push_back(y);
        const bool whole = m_rect.right == 0;
        const RIRegionInfo rect = whole ? m_frame.resolved() : m_rect;
        m_row = m_frame.row(channel, m_frame.channels[std::size_t(channel)].type(), y, rect.left, rect.right);
        return m_row.data();
    }

    int refusedRow = -1, refusedChannel = -1, throwingRow = -1;
    std::vector<int> asked;

private:
    const RawTestFrame& m_frame;
    RIRegionInfo m_rect;
    Bytes m_row;
};

/// Of every sample type, number of components and kind.
inline std::vector<RawTestChannel> allKindsOfChannels()
{
    using namespace QUtils;
    return {
        { "beauty", 1, RISAMPLE_FLOAT, 4 },
        { "diffuse", 10, RISAMPLE_HALF, 3 },
        { "motion", 11, RISAMPLE_FLOAT, 2 },
        { "depth", 12, RISAMPLE_FLOAT, 1, 3 },
        { "ids \xC3\xA9", 13, RISAMPLE_UINT, 1 },
        { "", 14, RISAMPLE_UINT, 4, 1 },
        { "normal", 15, RISAMPLE_HALF, 3, 2 },
        { "data", 16, RISAMPLE_HALF, 1, 4 },
    };
}

inline RawTestFrame smallFrame()
{
    return { 23, 14, 32, {}, 8, 6,
        { { "beauty", 1, QUtils::RISAMPLE_FLOAT, 3 }, { "id", 2, QUtils::RISAMPLE_UINT, 1 } } };
}

inline RICameraInfo testCamera()
{
    RICameraInfo camera {};
    camera.valid = 1;
    for (int i = 0; i < 16; ++i)
        camera.transform[i / 4][i % 4] = float(i) * 0.5f;
    camera.projection = 3;
    camera.aperture = 1.5f;
    camera.fov = 45;
    camera.targetDistance = 12;
    camera.nearRange = 0.25f;
    camera.farRange = 100;
    camera.nearClip = 0.125f;
    camera.farClip = 1000;
    camera.focalLength = 50;
    camera.fNumber = 5.6f;
    return camera;
}

/// All header calls in their order; the first error, if there is one.
inline ErrorCode writeHeaders(QUtils::RIFile& file, RawTestFrame& frame)
{
    QUtils::RegionChannelTable list = frame.table();
    char text[] = "a scene\nof two lines";
    RISceneInfo scene { -7, text };
    for (const ErrorCode& error :
        { file.WriteHeader(frame.bits), file.WTResolution(frame.width, frame.height, 1.5f),
            file.WTRenderRegion(frame.region), file.WTRegionsInfo(frame.regWidth, frame.regHeight, 9),
            file.WTChannelInfo(&list), file.WTCameraInfo(testCamera()), file.WTSceneInfo(scene) }) {
        if (error.code() != 0)
            return error;
    }
    return {};
}

/// Hands over one cell.
inline ErrorCode writeCell(QUtils::RIFile& file, const RawTestFrame& frame, int cell)
{
    RawTestData data(frame, file.getRegion(cell));
    return file.WTRegion(&data, -1, 0, 0);
}

/// The whole file, cell by cell.
inline void writeWhole(const std::string& path, RawTestFrame& frame)
{
    QUtils::RIFile file;
    ASSERT_EQ(file.Create(path.c_str(), nullptr).code(), 0);
    const ErrorCode error = writeHeaders(file, frame);
    ASSERT_EQ(error.code(), 0) << error.message();
    for (int cell = 0; cell < file.getNumRegions(); ++cell)
        ASSERT_EQ(writeCell(file, frame, cell).code(), 0) << cell;
    ASSERT_EQ(file.Close().code(), 0);
}

/// How many cells that are done hold something else than the frame; those that turn out to be damaged when
/// they are read are no longer done.
inline int countWrongCells(QUtils::RIReader& reader, const RawTestFrame& frame)
{
    int wrong = 0;
    for (int cell = 0; cell < reader.getNumRegions(); ++cell) {
        const RIRegionInfo rect = reader.getRegion(cell);
        for (int channel = 0; channel < reader.getNumChannels() && reader.isRegionDone(cell); ++channel) {
            Bytes expected;
            const int type = reader.getChannel(channel).sampleType;
            for (int y = rect.top; y < rect.bottom; ++y) {
                const Bytes row = frame.row(channel, type, y, rect.left, rect.right);
                expected.insert(expected.end(), row.begin(), row.end());
            }
            Bytes pixels(expected.size(), 0xCD);
            const ErrorCode error = reader.readPixels(
                channel, rect, pixels.data(), pixels.size() / std::size_t(rect.bottom - rect.top));
            if (error.code() == 0 ? pixels != expected : reader.isRegionDone(cell))
                ++wrong;
        }
    }
    return wrong;
}

} // namespace testing_support
