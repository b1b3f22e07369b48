#include "tools/raw_frame.h"

#include "tools/input.h"

#include <algorithm>

namespace tool {

namespace {

int sampleBytes(int sampleType)
{
    return sampleType == QUtils::RISAMPLE_HALF ? 2 : 4;
}

class ListedChannel : public QUtils::RegionChannelCallback {
public:
    explicit ListedChannel(const QUtils::RIChannelInfo& info) : m_info(info) { }
    const char* getName() override { return m_info.name.c_str(); }
    int getChannelId() override { return m_info.channelId; }
    int getSampleType() override { return m_info.sampleType; }
    int getNumComponents() override { return m_info.numComponents; }
    int getKind() override { return m_info.kind; }

private:
    QUtils::RIChannelInfo m_info;
};

} // namespace

std::string openRaw(QUtils::RIReader& reader, const std::string& name)
{
    const InputFile file = examineInput(name);
    if (!file.obstacle.empty())
        return file.obstacle;
    const ErrorCode error = reader.Open(name.c_str());
    return error.code() == 0 ? std::string() : error.message();
}

std::string doneText(const QUtils::RIReader& reader)
{
    const int count = reader.getNumRegions();
    return std::to_string(count - reader.countMissingRegions()) + " of " + std::to_string(count)
        + (count == 1 ? " region" : " regions");
}

RawChannelList::RawChannelList(const QUtils::RIReader& reader)
{
    for (int i = 0; i < reader.getNumChannels(); ++i) {
        m_channels.push_back(std::make_unique<ListedChannel>(reader.getChannel(i)));
        m_table.add(m_channels.back().get());
    }
}

int rowsAtOnce(const QUtils::RIReader& reader, std::uint64_t rowBytes)
{
    constexpr std::uint64_t mostBytes = std::uint64_t(64) << 20;
    const QUtils::RIHeader& header = reader.header();
    const std::uint64_t rows = header.regHeight > 0 ? std::uint64_t(header.regHeight) : mostBytes;
    const std::uint64_t fitting = mostBytes / std::max<std::uint64_t>(rowBytes, 1);
    return int(std::clamp<std::uint64_t>(std::min(rows, fitting), 1, std::uint64_t(header.height)));
}

RawRows::RawRows(QUtils::RIReader& reader) : m_reader(reader), m_bands(std::size_t(reader.getNumChannels()))
{
}

QUtils::RIRegionInfo RawRows::getRegion()
{
    return m_reader.header().renderRegion;
}

std::size_t RawRows::rowBytes(int channel) const
{
    const QUtils::RIRegionInfo& region = m_reader.header().renderRegion;
    const QUtils::RIChannelInfo& info = m_reader.getChannel(channel);
    return std::size_t(region.right - region.left) * std::size_t(info.numComponents)
        * std::size_t(sampleBytes(info.sampleType));
}

/// The rows from `y` on, to the end of the regions there. False when they cannot be read.
bool RawRows::load(Band& band, int channel, int y)
{
    const QUtils::RIRegionInfo& rendered = m_reader.header().renderRegion;
    const int regionRows = m_reader.header().regHeight > 0 ? m_reader.header().regHeight : rendered.bottom;
    const int leftInRegion = regionRows - (y - rendered.top) % regionRows;
    // All channels together keep no more than one alone may.
    const int most = rowsAtOnce(m_reader, rowBytes(channel) * m_bands.size());
    band.top = band.bottom = y; // Nothing, in case that memory is refused.
    const int rows = std::min({ leftInRegion, most, rendered.bottom - y });
    band.samples.resize(rowBytes(channel) * std::size_t(rows));
    const ErrorCode error = m_reader.readPixels(
        channel, { rendered.left, y, rendered.right, y + rows }, band.samples.data(), rowBytes(channel));
    if (error.code() != 0 && error.code() != QUtils::RIERR_READ) {
        m_obstacle = error.message();
        return false;
    }
    if (error.code() != 0 && m_damage.empty())
        m_damage = error.message();
    band.bottom = y + rows;
    return true;
}

const void* RawRows::getRow(int channel, int y)
{
    Band& band = m_bands[std::size_t(channel)];
    if ((y < band.top || y >= band.bottom) && !load(band, channel, y))
        return nullptr;
    return band.samples.data() + rowBytes(channel) * std::size_t(y - band.top);
}

} // namespace tool
