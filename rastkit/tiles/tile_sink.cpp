#include "rastkit/tiles/tile_sink.h"

#include "rastkit/model/pixel_kernels.h"
#include "rastkit/tiles/tile_memory.h"

#include <algorithm>

namespace QUtils {

namespace {

std::uint64_t samplesOf(const TileSink::Area& area)
{
    return std::uint64_t(area.width) * std::uint64_t(area.height) * 4;
}

} // namespace

std::uint64_t TileSink::bytesOf(const Area& area, TileEncoding encoding)
{
    return TileMemory::bytesOf(samplesOf(area) * sampleBytes(encoding));
}

TileSink::TileSink(const Area& area, TileEncoding encoding, MemoryGrant& grant)
    : m_area(area), m_grant(grant), m_encoding(encoding), m_granted(bytesOf(area, encoding))
{
}

TileSink::~TileSink()
{
    if (m_tile)
        m_grant.freeTile(m_tile, tileBytes());
    if (m_granted != 0)
        m_grant.giveBack(m_granted);
}

std::uint8_t* TileSink::release()
{
    std::uint8_t* const tile = m_tile;
    if (tile)
        m_granted = 0;
    m_tile = nullptr;
    return tile;
}

std::size_t TileSink::tileBytes() const
{
    return std::size_t(samplesOf(m_area)) * sampleBytes(m_encoding);
}

// A loader whose file cannot fill a tile has found that out before the first row comes: memory is not taken
// by what a header says alone. Zeros, since a loader may leave pixels out.
bool TileSink::hasTile()
{
    if (!m_tile && m_error == IMGERR_NONE) {
        m_tile = m_grant.allocateTile(tileBytes());
        if (!m_tile)
            m_error = IMGERR_MEMORY;
    }
    return m_error == IMGERR_NONE;
}

bool TileSink::isOutside(int x, int y, int count) const
{
    const std::int64_t right = std::int64_t(x) + count;
    return x < m_area.left || right > std::int64_t(m_area.left) + m_area.wholeWidth || y < m_area.top
        || std::int64_t(y) >= std::int64_t(m_area.top) + m_area.wholeHeight;
}

void TileSink::setRow(int x, int y, int count, const unsigned int* argb)
{
    float rgba[4];
    for (int i = 0; i < count; ++i) {
        pixelKernels().unpackToFloat(argb + i, rgba, 1);
        setRowF(x + i, y, 1, rgba);
    }
}

/// How many samples of a run lie in the tile, and the place of the first one.
std::size_t TileSink::samplesInside(int x, int y, int count, std::size_t& first)
{
    if (isOutside(x, y, count))
        m_error = m_error != IMGERR_NONE ? m_error : IMGERR_UNSUPPORTED;
    if (!hasTile())
        return 0;
    x -= m_area.left;
    y -= m_area.top;
    count = std::min(count, m_area.width - x); // Beyond the edges of the level is nothing.
    if (y >= m_area.height || count <= 0)
        return 0;
    first = (std::size_t(y) * std::size_t(m_area.width) + std::size_t(x)) * 4;
    return std::size_t(count) * 4;
}

void TileSink::setRowHalf(int x, int y, int count, const std::uint16_t* rgba)
{
    if (m_encoding == TileEncoding::Half) {
        std::size_t first = 0;
        if (const std::size_t samples = samplesInside(x, y, count, first))
            std::copy_n(rgba, samples, reinterpret_cast<std::uint16_t*>(m_tile) + first);
        return;
    }
    constexpr int blockPixels = 256;
    float floats[blockPixels * 4];
    for (int done = 0; done < count; done += blockPixels) {
        const int block = std::min(count - done, blockPixels);
        pixelKernels().halfToFloat(rgba + std::ptrdiff_t(done) * 4, floats, std::size_t(block) * 4);
        setRowF(x + done, y, block, floats);
    }
}

void TileSink::setRowF(int x, int y, int count, const float* rgba)
{
    std::size_t first = 0;
    const std::size_t samples = samplesInside(x, y, count, first);
    if (samples == 0)
        return;
    while (!encodeSamples(m_encoding, rgba, m_tile + first * sampleBytes(m_encoding), samples)) {
        // What failed must not be taken for something that is stored.
        std::fill_n(
            m_tile + first * sampleBytes(m_encoding), samples * sampleBytes(m_encoding), std::uint8_t(0));
        chooseNext();
        if (m_error != IMGERR_NONE)
            return;
    }
}

void TileSink::chooseNext()
{
    for (TileEncoding next = nextEncoding(m_encoding);; next = nextEncoding(next)) {
        if (next == TileEncoding::Float) {
            if (!widen())
                m_error = IMGERR_MEMORY;
            return;
        }
        if (recodeBytes(next))
            return;
    }
}

/// Bytes that stand for the same floats as those that are stored, where all of them have one.
bool TileSink::recodeBytes(TileEncoding encoding)
{
    const float* const values = byteValues(m_encoding);
    std::uint8_t codes[256];
    bool isKnown[256];
    for (std::size_t b = 0; b < 256; ++b)
        isKnown[b] = encodeSamples(encoding, values + b, codes + b, 1);
    std::uint8_t* const end = m_tile + samplesOf(m_area);
    if (!std::all_of(m_tile, end, [&](std::uint8_t byte) { return isKnown[byte]; }))
        return false;
    std::transform(m_tile, end, m_tile, [&](std::uint8_t byte) { return codes[byte]; });
    m_encoding = encoding;
    return true;
}

bool TileSink::widen()
{
    const std::uint64_t bytes = bytesOf(m_area, TileEncoding::Float);
    if (!m_grant.take(bytes)) {
        m_lackedRoom = true;
        return false;
    }
    const auto samples = std::size_t(samplesOf(m_area));
    auto* const floats = reinterpret_cast<float*>(m_grant.allocateTile(samples * sizeof(float)));
    if (!floats) {
        m_grant.giveBack(bytes);
        return false;
    }
    decodeSamples(m_encoding, m_tile, 0, floats, samples);
    m_grant.freeTile(m_tile, tileBytes());
    m_grant.giveBack(m_granted);
    m_granted = bytes;
    m_tile = reinterpret_cast<std::uint8_t*>(floats);
    m_encoding = TileEncoding::Float;
    return true;
}

} // namespace QUtils
