#pragma once

#include "qutils/raw/records.h"
#include "qutils/raw/ri_reader.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tool {

/// Opens a quimg, after asking the system about it. Why it cannot be read; empty when it is open.
std::string openRaw(QUtils::RIReader& reader, const std::string& name);

/// "RENDERED of ALL regions".
std::string doneText(const QUtils::RIReader& reader);

/// The channels of a quimg, as the writers of raw output ask for them.
class RawChannelList {
public:
    explicit RawChannelList(const QUtils::RIReader& reader);
    RawChannelList(const RawChannelList&) = delete;
    RawChannelList& operator=(const RawChannelList&) = delete;

    QUtils::RegionChannelTable* table() { return &m_table; }

private:
    std::vector<std::unique_ptr<QUtils::RegionChannelCallback>> m_channels;
    QUtils::RegionChannelTable m_table;
};

/// How many rows of a channel are read at once: a row of regions where that is not too much.
int rowsAtOnce(const QUtils::RIReader& reader, std::uint64_t rowBytes);

/// All rows of a quimg from top to bottom, as one region. Regions are decoded once where memory allows it.
class RawRows : public QUtils::QURegionData {
public:
    explicit RawRows(QUtils::RIReader& reader);

    QUtils::RIRegionInfo getRegion() override;
    /// Null when the file cannot be read; see `obstacle`. Rows of regions that are missing, or turn out to be
    /// damaged, are zero; see `damage`.
    const void* getRow(int channel, int y) override;

    const std::string& obstacle() const { return m_obstacle; }
    /// Empty when no region turned out to be damaged.
    const std::string& damage() const { return m_damage; }

private:
    struct Band {
        int top = 0, bottom = 0;
        std::vector<std::uint8_t> samples;
    };
    std::size_t rowBytes(int channel) const;
    bool load(Band& band, int channel, int y);

    QUtils::RIReader& m_reader;
    std::vector<Band> m_bands; // One for each channel.
    std::string m_obstacle, m_damage;
};

} // namespace tool
