#include "qutils/raw/quimg_strip.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <zlib.h>

namespace QUtils::quimg {

static std::size_t givenPixelBytes(const RIChannelInfo& channel)
{
    return sampleBytes(channel.givenType) * std::size_t(channel.numComponents);
}

/// Makes room for `count` entries and keeps those that are there.
template <typename T> static void grow(std::vector<T>& entries, std::size_t count)
{
    if (entries.size() < count)
        entries.resize(count);
}

void Strip::begin(int row, int firstColumn, int endColumn)
{
    m_row = row;
    m_firstColumn = firstColumn;
    m_endColumn = endColumn;
    const RIRegionInfo first = m_frame.grid.cell(firstColumn, row);
    m_strip = first;
    m_strip.right = m_frame.grid.cell(endColumn - 1, row).right;
    // None of the cells is wider than the first one, so that its bands suit all.
    m_bandRows = chooseBandRows(m_frame, first);

    const auto cells = std::size_t(cellCount()), channels = m_frame.channels.size();
    const std::size_t blocks = std::size_t(bandCount(first, m_bandRows)) * channels;
    grow(m_buffers.pixels, channels);
    grow(m_buffers.packed, blockCount());
    grow(m_buffers.chunks, cells);
    grow(m_buffers.heads, cells);
    for (std::size_t i = 0; i < cells; ++i) {
        m_buffers.chunks[i].resize(chunkHeaderBytes + RegionHead::byteSizeOf(blocks));
        RegionHead& head = m_buffers.heads[i];
        head.cell = cellAt(int(i));
        head.bandRows = m_bandRows;
        head.blocks.clear();
        head.blocks.reserve(blocks);
    }
}

bool Strip::encode()
{
    const int bands = bandCount(m_strip, m_bandRows);
    for (int band = 0; band < bands; ++band) {
        m_band = m_strip;
        m_band.top = m_strip.top + band * m_bandRows;
        m_band.bottom = int(std::min<std::int64_t>(std::int64_t(m_band.top) + m_bandRows, m_strip.bottom));
        if (!fetchBand())
            return false;
        encodeBand();
        appendBlocks();
    }
    return true;
}

bool Strip::fetchBand()
{
    const auto width = std::size_t(m_band.right - m_band.left);
    const auto skipped = std::size_t(std::int64_t(m_band.left) - m_rect.left);
    for (int y = m_band.top; y < m_band.bottom; ++y) {
        for (std::size_t channel = 0; channel < m_frame.channels.size(); ++channel) {
            const std::size_t bytes = givenPixelBytes(m_frame.channels[channel]);
            if (y == m_band.top)
                grow(m_buffers.pixels[channel], width * bytes * std::size_t(m_band.bottom - m_band.top));
            const void* const row = m_data.getRow(int(channel), y);
            if (!row)
                return false;
            std::memcpy(m_buffers.pixels[channel].data() + std::size_t(y - m_band.top) * width * bytes,
                static_cast<const std::uint8_t*>(row) + skipped * bytes, width * bytes);
        }
    }
    return true;
}

void Strip::encodeBand()
{
    runWork(*this, blockCount());
    const auto failed = [](const PackedBlock& block) { return block.failed; };
    const auto begin = m_buffers.packed.begin();
    if (std::any_of(begin, begin + std::ptrdiff_t(blockCount()), failed))
        throw std::bad_alloc();
}

void Strip::run(std::size_t number) noexcept
{
    const std::size_t channel = number % m_frame.channels.size();
    const RIChannelInfo& info = m_frame.channels[channel];
    const RIRegionInfo cell = m_frame.grid.cell(cellAt(int(number / m_frame.channels.size())));
    const std::size_t bytes = givenPixelBytes(info);
    const BlockShape shape { cell.right - cell.left, m_band.bottom - m_band.top, info.numComponents,
        info.sampleType };
    PackedBlock& packed = m_buffers.packed[number];
    packed.failed = false;
    try {
        std::unique_ptr<BlockEncoder> encoder = m_buffers.encoders.take();
        encoder->encode(m_buffers.pixels[channel].data() + std::size_t(cell.left - m_band.left) * bytes,
            std::size_t(m_band.right - m_band.left) * bytes, info.givenType, shape, packed);
        m_buffers.encoders.giveBack(std::move(encoder));
    } catch (const std::bad_alloc&) {
        packed.failed = true;
    }
}

void Strip::appendBlocks()
{
    const std::size_t channels = m_frame.channels.size();
    for (std::size_t i = 0; i < blockCount(); ++i) {
        const PackedBlock& packed = m_buffers.packed[i];
        Bytes& bytes = m_buffers.chunks[i / channels];
        const std::size_t end = bytes.size();
        bytes.resize(end + packed.entry.length);
        std::memcpy(bytes.data() + end, packed.bytes.data(), packed.entry.length);
        m_buffers.heads[i / channels].blocks.push_back(packed.entry);
    }
}

std::uint32_t Strip::finishChunk(int number)
{
    const RegionHead& head = m_buffers.heads[std::size_t(number)];
    std::uint8_t* const bytes = chunk(number).data() + chunkHeaderBytes;
    storeRegionHead(head, m_frame, bytes);
    // The blocks have been gone over already.
    uLong sum = checksum(bytes, head.byteSize());
    for (const Block& block : head.blocks)
        sum = crc32_combine(sum, block.checksum, z_off_t(block.length));
    return std::uint32_t(sum);
}

} // namespace QUtils::quimg
