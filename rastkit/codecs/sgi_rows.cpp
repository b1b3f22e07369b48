#include "rastkit/codecs/sgi_rows.h"

#include "rastkit/codecs/sgi_format.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(64) << 10; // One for each channel.
constexpr std::size_t tableEntryBytes = 4;
constexpr std::uint8_t missingByte = 0xFF;

} // namespace

// --- What a header means ---------------------------------------------------------------------------------

namespace {

/// Files of one or two dimensions have one channel, whatever else the header says.
int channelsOf(const sgi_header_info& h)
{
    return h.dimension < 3 ? 1 : h.zsize;
}

bool isDithered(const sgi_header_info& h)
{
    return h.colormapId == SGI_DITHERED && h.bytesPerChannel == 1 && channelsOf(h) == 1;
}

/// The renderer has no use for two channels or for more than four: such pixels are transparent black, and
/// scenes depend on it.
SgiPixels rendererPixels(int zsize)
{
    switch (zsize) {
    case 1: return SgiPixels::Grey;
    case 3: return SgiPixels::Rgb;
    case 4: return SgiPixels::Rgba;
    default: return SgiPixels::Nothing;
    }
}

SgiPixels standardPixels(const sgi_header_info& h)
{
    switch (channelsOf(h)) {
    case 1: return isDithered(h) ? SgiPixels::Dithered : SgiPixels::Grey;
    case 2: return SgiPixels::GreyAlpha;
    case 3: return SgiPixels::Rgb;
    default: return SgiPixels::Rgba;
    }
}

int channelsOf(SgiPixels pixels)
{
    switch (pixels) {
    case SgiPixels::Nothing: return 0;
    case SgiPixels::Grey:
    case SgiPixels::Dithered: return 1;
    case SgiPixels::GreyAlpha: return 2;
    case SgiPixels::Rgb: return 3;
    case SgiPixels::Rgba: break;
    }
    return 4;
}

} // namespace

ImgErrorCode checkSgiHeader(const sgi_header_info& h, Conventions conventions)
{
    if (h.magic != sgiMagic)
        return IMGERR_FORMAT;
    if (conventions == Conventions::Renderer)
        return IMGERR_NONE;
    if (h.storage != SGI_VERBATIM && h.storage != SGI_RUN_LENGTH)
        return IMGERR_FORMAT;
    if (h.bytesPerChannel != 1 && h.bytesPerChannel != 2)
        return IMGERR_FORMAT;
    if (h.dimension < 1 || h.dimension > 3)
        return IMGERR_FORMAT;
    if (h.xsize == 0 || (h.dimension > 1 && h.ysize == 0) || channelsOf(h) == 0)
        return IMGERR_FORMAT;
    if (channelsOf(h) == 1 && (h.colormapId == SGI_SCREEN || h.colormapId == SGI_MAP))
        return IMGERR_UNSUPPORTED;
    return IMGERR_NONE;
}

SgiLayout layOutSgi(const sgi_header_info& h, Conventions conventions)
{
    const bool isStandard = conventions == Conventions::Standard;
    SgiLayout layout;
    layout.width = h.xsize;
    layout.height = isStandard && h.dimension == 1 ? 1 : h.ysize;
    layout.pixels = isStandard ? standardPixels(h) : rendererPixels(h.zsize);
    layout.channels = channelsOf(layout.pixels);
    layout.coding.sampleBytes = h.bytesPerChannel == 1 ? 1 : 2;
    // Packets of 16-bit samples begin with 16 bits. The renderer takes one byte all the same: its scenes know
    // such rows as black ones, that end with the upper byte of their first packet.
    layout.coding.controlBytes
        = h.storage != SGI_RUN_LENGTH ? 0 : (isStandard ? layout.coding.sampleBytes : 1);
    const auto step = static_cast<unsigned char>(h.bytesPerChannel);
    layout.stepBytes = step < 128 ? step : step - 256; // The field is a signed one.
    layout.keepsNumbers = isStandard && layout.coding.sampleBytes == 2;
    layout.missingIsFull = !isStandard;
    return layout;
}

// --- Packets -------------------------------------------------------------------------------------------

namespace {

/// Copies or fills whole steps of sixteen bytes, since packets are short: up to fifteen bytes more than asked
/// for.
void copySteps(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    for (std::size_t i = 0; i < count; i += 16)
        std::memcpy(to + i, from + i, 16);
}

template <std::size_t sampleBytes>
void fillSteps(std::uint8_t* to, const std::uint8_t* sample, std::size_t count)
{
    std::uint8_t step[16];
    for (std::size_t i = 0; i < sizeof step; ++i)
        step[i] = sample[i % sampleBytes];
    for (std::size_t i = 0; i < count; i += sizeof step)
        std::memcpy(to + i, step, sizeof step);
}

template <std::size_t sampleBytes, std::size_t controlBytes>
SgiPacketRow decode(const std::uint8_t* bytes, std::size_t size, std::uint8_t* samples, std::size_t width)
{
    SgiPacketRow row;
    std::size_t pos = 0, done = 0;
    while (done < width && size - pos >= controlBytes) {
        const unsigned int control = bytes[pos + controlBytes - 1]; // The upper byte of two means nothing.
        pos += controlBytes;
        const std::size_t count = control & sgiPacketCount;
        if (count == 0) {
            row.isEnded = true;
            break;
        }
        std::size_t wanted = std::min(count, width - done);
        row.isOverrun = row.isOverrun || wanted < count;
        const bool isLiteral = (control & sgiLiteralPacket) != 0;
        const std::size_t ready = std::min((size - pos) / sampleBytes, isLiteral ? wanted : 1);
        if (isLiteral) {
            const std::size_t got = ready * sampleBytes;
            if (size - pos >= got + 15)
                copySteps(samples + done * sampleBytes, bytes + pos, got);
            else
                std::memcpy(samples + done * sampleBytes, bytes + pos, got);
        } else if (ready != 0) {
            fillSteps<sampleBytes>(samples + done * sampleBytes, bytes + pos, wanted * sampleBytes);
        }
        pos += ready * sampleBytes;
        done += isLiteral ? ready : wanted * ready;
        if (ready < (isLiteral ? wanted : 1))
            break;
    }
    row.samples = done;
    row.bytes = pos;
    return row;
}

} // namespace

SgiPacketRow decodeSgiPackets(const SgiCoding& coding, const std::uint8_t* bytes, std::size_t size,
    std::uint8_t* samples, std::size_t width)
{
    if (coding.sampleBytes == 1)
        return decode<1, 1>(bytes, size, samples, width);
    return coding.controlBytes == 1 ? decode<2, 1>(bytes, size, samples, width)
                                    : decode<2, 2>(bytes, size, samples, width);
}

// --- The rows of a file ----------------------------------------------------------------------------------

namespace {

std::uint64_t sizeOf(std::FILE* file)
{
    struct stat status;
    return fstat(fileno(file), &status) == 0 && status.st_size > 0 ? std::uint64_t(status.st_size) : 0;
}

constexpr std::uint64_t unknownPosition = UINT64_MAX;

} // namespace

SgiFile::SgiFile(std::FILE* file)
    : m_file(file), m_size(sizeOf(file)), m_position(unknownPosition),
      m_aheadLeft(m_size * SgiRowReader::mostChannels)
{
}

std::size_t SgiFile::read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count)
{
    if (offset >= m_size || (offset != m_position && fseeko(m_file, off_t(offset), SEEK_SET) != 0))
        return 0;
    const std::size_t wanted = std::size_t(std::min<std::uint64_t>(count, m_size - offset));
    const std::size_t got = std::fread(bytes, 1, wanted, m_file);
    m_position = offset + got;
    if (got < wanted) // The file has become shorter.
        m_size = m_position;
    return got;
}

std::size_t SgiFile::grantAhead(std::size_t wanted)
{
    const std::size_t granted = std::size_t(std::min<std::uint64_t>(wanted, m_aheadLeft));
    m_aheadLeft -= granted;
    return granted;
}

ImgErrorCode SgiWindow::setUp(std::size_t mostBytes, std::uint64_t fileSize)
{
    // Whole rows, so that none is left over in a file that has them one after the other.
    const std::size_t rows = std::max<std::size_t>(blockBytes / std::max<std::size_t>(mostBytes, 1), 1);
    const std::uint64_t useful = std::max<std::uint64_t>(mostBytes, fileSize);
    m_capacity = std::size_t(std::min<std::uint64_t>(rows * mostBytes, useful));
    m_block = newBytes(m_capacity);
    return m_block ? IMGERR_NONE : IMGERR_MEMORY;
}

std::uint8_t* SgiWindow::at(SgiFile& file, std::uint64_t offset, std::size_t wanted, std::size_t& got)
{
    if (offset < m_begin || offset > m_end || m_end - offset < wanted)
        move(file, offset, wanted);
    got = std::size_t(std::min<std::uint64_t>(wanted, m_end - offset));
    return m_block.get() + (offset - m_begin);
}

/// Keeps what the window has of the bytes from `offset` on, which come first then, and reads on behind them:
/// a whole block where rows follow each other, else no more than is wanted.
void SgiWindow::move(SgiFile& file, std::uint64_t offset, std::size_t wanted)
{
    const bool goesOn = m_begin == m_end || (offset >= m_begin && offset <= m_end);
    const std::size_t kept = offset >= m_begin && offset < m_end ? std::size_t(m_end - offset) : 0;
    if (kept != 0)
        std::memmove(m_block.get(), m_block.get() + (offset - m_begin), kept);
    m_begin = offset;
    m_end = offset + kept;
    if (m_end >= file.size())
        return;
    const std::size_t ahead = goesOn ? file.grantAhead(m_capacity - wanted) : 0;
    m_end += file.read(m_end, m_block.get() + kept, wanted + ahead - kept);
}

ImgErrorCode SgiRowReader::setUp()
{
    const std::size_t width = std::size_t(m_layout.width), mostBytes = m_layout.coding.mostBytes(width);
    if (m_layout.coding.isRunLength()) {
        RASTKIT_TRY(readTable());
        m_sharesWindow = areRowsTogether();
    }
    for (int c = 0; c < m_layout.channels; ++c) {
        if (c == 0 || !m_sharesWindow)
            RASTKIT_TRY(m_windows[c].setUp(mostBytes, m_file.size()));
        if (!m_layout.coding.isRunLength())
            continue;
        m_rows[c] = newBytes(width * m_layout.coding.sampleBytes + sgiRowSlack);
        if (!m_rows[c])
            return IMGERR_MEMORY;
    }
    return IMGERR_NONE;
}

/// The offsets of the channels that are decoded. The table of lengths behind them all is not needed.
ImgErrorCode SgiRowReader::readTable()
{
    const std::uint64_t entries = std::uint64_t(m_layout.channels) * std::uint64_t(m_layout.height);
    const std::uint64_t there = m_file.size() - std::min<std::uint64_t>(m_file.size(), sgiHeaderBytes);
    const std::size_t bytes = std::size_t(std::min<std::uint64_t>(entries * tableEntryBytes, there));
    m_table = newBytes(bytes);
    if (!m_table)
        return IMGERR_MEMORY;
    m_tableBytes = m_file.read(sgiHeaderBytes, m_table.get(), bytes);
    return IMGERR_NONE;
}

/// Bytes that the table lacks are 0xFF, as all missing ones: no file has its rows there.
std::uint64_t SgiRowReader::packetOffset(int channel, int stored) const
{
    const std::size_t first
        = (std::size_t(channel) * std::size_t(m_layout.height) + std::size_t(stored)) * tableEntryBytes;
    std::uint32_t offset = 0;
    for (std::size_t i = first; i < first + tableEntryBytes; ++i)
        offset = offset << 8 | (i < m_tableBytes ? m_table[i] : missingByte);
    return offset;
}

/// Of a negative place, in front of the file, nothing can be read: it turns into one past every end.
std::uint64_t SgiRowReader::offset(int channel, int stored) const
{
    if (m_layout.coding.isRunLength())
        return packetOffset(channel, stored);
    const std::int64_t rowBytes = std::int64_t(m_layout.stepBytes) * m_layout.width;
    const std::int64_t row = std::int64_t(channel) * m_layout.height + stored;
    return std::uint64_t(std::int64_t(sgiHeaderBytes) + rowBytes * row);
}

/// Whether the channels of a row follow each other, as writers do that have the picture row by row. Else the
/// planes do.
bool SgiRowReader::areRowsTogether() const
{
    return m_layout.channels > 1 && m_layout.height > 1 && packetOffset(0, 0) <= packetOffset(1, 0)
        && packetOffset(1, 0) < packetOffset(0, 1);
}

SgiRow SgiRowReader::row(int channel, int stored)
{
    const SgiCoding& coding = m_layout.coding;
    const std::size_t width = std::size_t(m_layout.width), most = coding.mostBytes(width);
    SgiWindow& window = m_windows[m_sharesWindow ? 0 : channel];
    std::size_t got = 0;
    std::uint8_t* const bytes = window.at(m_file, offset(channel, stored), most, got);
    if (m_layout.missingIsFull)
        std::memset(bytes + got, missingByte, most - got);
    const std::size_t size = m_layout.missingIsFull ? most : got;
    if (!coding.isRunLength())
        return { bytes, size / coding.sampleBytes, size == most };

    std::uint8_t* const samples = m_rows[channel].get();
    const SgiPacketRow packets = decodeSgiPackets(coding, bytes, size, samples, width);
    if (!m_layout.missingIsFull)
        return { samples, packets.samples, packets.samples == width && !packets.isOverrun };
    // What a row lacks that ends early would be what was there before.
    std::memset(
        samples + packets.samples * coding.sampleBytes, 0, (width - packets.samples) * coding.sampleBytes);
    return { samples, width, true };
}

} // namespace QUtils
