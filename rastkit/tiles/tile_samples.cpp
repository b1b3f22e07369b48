#include "rastkit/tiles/tile_samples.h"

#include "rastkit/model/pixel_kernels.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace QUtils {

namespace {

using ByteTable = std::array<float, 256>;

constexpr float scale255 = float(1 / 255.0);
constexpr float scale256 = 1 / 256.0f;
constexpr float paletteScale = 1.5259022e-05f; // As the TIFF reader has it.

template <typename Value> constexpr ByteTable makeTable(Value value)
{
    ByteTable table {};
    for (int b = 0; b < 256; ++b)
        table[std::size_t(b)] = value(b);
    return table;
}

constexpr ByteTable table255 = makeTable([](int b) { return float(b) * scale255; });
constexpr ByteTable table256 = makeTable([](int b) { return float(b) * scale256; });
constexpr ByteTable tableInverted = makeTable([](int b) { return 1 - float(255 - b) * scale255; });
constexpr ByteTable tablePalette = makeTable([](int b) { return float(b * 257) * paletteScale; });

/// Of an encoding in bytes.
const ByteTable& tableOf(TileEncoding encoding)
{
    switch (encoding) {
    case TileEncoding::Byte256: return table256;
    case TileEncoding::ByteInverted: return tableInverted;
    case TileEncoding::BytePalette: return tablePalette;
    default: return table255;
    }
}

/// Samples that are converted at a time: both forms stay in the first-level cache.
constexpr std::size_t blockSamples = 1024;

bool isSame(const float* a, const float* b, std::size_t count)
{
    return std::memcmp(a, b, count * sizeof *a) == 0;
}

void toBytes(TileEncoding encoding, const float* samples, std::uint8_t* bytes, std::size_t count)
{
    if (encoding != TileEncoding::Byte256) {
        pixelKernels().floatToByte(samples, bytes, count);
        return;
    }
    float scaled[blockSamples];
    std::transform(samples, samples + count, scaled, [](float v) { return v * (256 / 255.0f); });
    pixelKernels().floatToByte(scaled, bytes, count);
}

void fromBytes(TileEncoding encoding, const std::uint8_t* bytes, float* samples, std::size_t count)
{
    if (encoding == TileEncoding::Byte255)
        return pixelKernels().scaledByteToFloat(bytes, scale255, samples, count);
    if (encoding == TileEncoding::Byte256)
        return pixelKernels().scaledByteToFloat(bytes, scale256, samples, count);
    const ByteTable& table = tableOf(encoding);
    std::transform(bytes, bytes + count, samples, [&table](std::uint8_t byte) { return table[byte]; });
}

bool encodeBlock(TileEncoding encoding, const float* samples, void* stored, std::size_t count)
{
    float again[blockSamples];
    if (encoding == TileEncoding::Half) {
        auto* const halfs = static_cast<std::uint16_t*>(stored);
        pixelKernels().floatToHalf(samples, halfs, count);
        pixelKernels().halfToFloat(halfs, again, count);
    } else {
        auto* const bytes = static_cast<std::uint8_t*>(stored);
        toBytes(encoding, samples, bytes, count);
        fromBytes(encoding, bytes, again, count);
    }
    return isSame(samples, again, count);
}

} // namespace

TileSample sampleOf(TileEncoding encoding)
{
    switch (encoding) {
    case TileEncoding::Half: return TileSample::Half;
    case TileEncoding::Float: return TileSample::Float;
    default: return TileSample::Byte;
    }
}

std::size_t sampleBytes(TileEncoding encoding)
{
    switch (encoding) {
    case TileEncoding::Half: return sizeof(std::uint16_t);
    case TileEncoding::Float: return sizeof(float);
    default: return sizeof(std::uint8_t);
    }
}

// The description of a TIFF does not tell who will decode it, and to what; the first tile does.
TileEncoding firstEncoding(bool isExr, int bitsPerSample)
{
    if (!isExr)
        return bitsPerSample < 32 ? TileEncoding::Byte255 : TileEncoding::Float;
    return bitsPerSample <= 16 ? TileEncoding::Half : TileEncoding::Float;
}

TileEncoding nextEncoding(TileEncoding encoding)
{
    switch (encoding) {
    case TileEncoding::Byte255: return TileEncoding::Byte256;
    case TileEncoding::Byte256: return TileEncoding::ByteInverted;
    case TileEncoding::ByteInverted: return TileEncoding::BytePalette;
    default: return TileEncoding::Float;
    }
}

const float* byteValues(TileEncoding encoding)
{
    return sampleOf(encoding) == TileSample::Byte ? tableOf(encoding).data() : nullptr;
}

bool encodeSamples(TileEncoding encoding, const float* samples, void* stored, std::size_t count)
{
    if (encoding == TileEncoding::Float) {
        std::memcpy(stored, samples, count * sizeof *samples);
        return true;
    }
    auto* to = static_cast<std::uint8_t*>(stored);
    const std::size_t bytes = sampleBytes(encoding);
    while (count != 0) {
        const std::size_t block = std::min(count, blockSamples);
        if (!encodeBlock(encoding, samples, to, block))
            return false;
        samples += block;
        to += block * bytes;
        count -= block;
    }
    return true;
}

void decodeSamples(
    TileEncoding encoding, const void* stored, std::size_t first, float* samples, std::size_t count)
{
    const auto* const from = static_cast<const std::uint8_t*>(stored) + first * sampleBytes(encoding);
    if (encoding == TileEncoding::Float)
        std::memcpy(samples, from, count * sizeof *samples);
    else if (encoding == TileEncoding::Half)
        pixelKernels().halfToFloat(reinterpret_cast<const std::uint16_t*>(from), samples, count);
    else
        fromBytes(encoding, from, samples, count);
}

} // namespace QUtils
