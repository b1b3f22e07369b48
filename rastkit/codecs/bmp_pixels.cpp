#include "rastkit/codecs/bmp_pixels.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace QUtils {

namespace {

static_assert(std::endian::native == std::endian::little, "pixels are stored least significant byte first");

enum class BitOrder { HighestFirst, LowestFirst };

template <std::size_t bits, BitOrder order>
void decodeIndices(
    const std::uint8_t* bytes, const BmpPalette& palette, std::uint32_t* argb, std::size_t count)
{
    constexpr std::size_t perByte = 8 / bits, most = perByte - 1;
    for (std::size_t x = 0; x < count; ++x) {
        const std::size_t place = order == BitOrder::LowestFirst ? x % perByte : most - x % perByte;
        argb[x] = palette[std::size_t(bytes[x / perByte] >> place * bits) & ((1u << bits) - 1)];
    }
}

/// The position of a mask that is a whole byte, -1 for any other.
int byteOf(std::uint32_t mask)
{
    for (int i = 0; i < 4; ++i)
        if (mask == 0xFFu << 8 * i)
            return i;
    return -1;
}

/// False when the masks are not all whole bytes; alpha may be missing.
bool arrange(const BmpMasks& masks, PixelArrangement& arrangement)
{
    const int places[4] = { byteOf(masks.blue), byteOf(masks.green), byteOf(masks.red), byteOf(masks.alpha) };
    const bool hasAlpha = masks.alpha != 0;
    if (std::any_of(places, places + (hasAlpha ? 4 : 3), [](int place) { return place < 0; }))
        return false;
    for (int i = 0; i < 16; ++i) {
        const int place = places[i % 4];
        arrangement.source[i] = place < 0 ? PixelArrangement::none : std::uint8_t(i / 4 * 4 + place);
        arrangement.fill[i] = place < 0 ? 0xFF : 0;
    }
    arrangement.pixels = arrangement.sourceBytes = arrangement.resultBytes = 4;
    return true;
}

} // namespace

BmpSample::BmpSample(std::uint32_t mask, std::uint8_t absent)
    : m_mask(mask), m_greatest(mask != 0 ? mask >> std::countr_zero(mask) : 0),
      m_shift(mask != 0 ? std::countr_zero(mask) : 0)
{
    m_bytes[0] = mask != 0 ? 0 : absent;
    for (std::uint32_t i = 1; i <= m_greatest && i < m_bytes.size(); ++i)
        m_bytes[i] = std::uint8_t((std::uint64_t(i) * 255 + m_greatest / 2) / m_greatest);
}

BmpPixelDecoder::BmpPixelDecoder(const BmpLayout& layout)
    : m_layout(layout), m_red(layout.masks.red, 0), m_green(layout.masks.green, 0),
      m_blue(layout.masks.blue, 0), m_alpha(layout.masks.alpha, 0xFF),
      m_arranges(layout.encoding == BmpEncoding::Masked32 && arrange(layout.masks, m_arrangement))
{
}

void BmpPixelDecoder::decode(
    const std::uint8_t* bytes, std::size_t byteCount, std::uint32_t* argb, std::size_t count) const
{
    const std::size_t stored = std::min(count, byteCount * 8 / std::size_t(m_layout.bits));
    decodeStored(bytes, argb, stored);
    // Only the renderer's rows of indices can be too short for their pixels.
    std::fill(argb + stored, argb + count, m_layout.palette[0]);
}

void BmpPixelDecoder::decodeStored(const std::uint8_t* bytes, std::uint32_t* argb, std::size_t count) const
{
    const BmpPalette& palette = m_layout.palette;
    switch (m_layout.encoding) {
    case BmpEncoding::Index1LowestFirst:
        return decodeIndices<1, BitOrder::LowestFirst>(bytes, palette, argb, count);
    case BmpEncoding::Index1: return decodeIndices<1, BitOrder::HighestFirst>(bytes, palette, argb, count);
    case BmpEncoding::Index2: return decodeIndices<2, BitOrder::HighestFirst>(bytes, palette, argb, count);
    case BmpEncoding::Index4: return decodeIndices<4, BitOrder::HighestFirst>(bytes, palette, argb, count);
    case BmpEncoding::Index8: return decodeIndices<8, BitOrder::HighestFirst>(bytes, palette, argb, count);
    case BmpEncoding::Color24: return pixelKernels().bgr24ToPacked(bytes, argb, count);
    case BmpEncoding::Color32: std::memcpy(argb, bytes, 4 * count); return;
    case BmpEncoding::Masked16: return decodeMasked<2>(bytes, argb, count);
    case BmpEncoding::Masked32:
        if (m_arranges)
            return pixelKernels().arrange(m_arrangement, bytes, reinterpret_cast<std::uint8_t*>(argb), count);
        return decodeMasked<4>(bytes, argb, count);
    case BmpEncoding::Runs4:
    case BmpEncoding::Runs8: break; // See bmp_runs.h.
    }
}

template <std::size_t pixelBytes>
void BmpPixelDecoder::decodeMasked(const std::uint8_t* bytes, std::uint32_t* argb, std::size_t count) const
{
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t pixel = 0;
        std::memcpy(&pixel, bytes + i * pixelBytes, pixelBytes);
        argb[i] = m_alpha.of(pixel) << 24 | m_red.of(pixel) << 16 | m_green.of(pixel) << 8 | m_blue.of(pixel);
    }
}

} // namespace QUtils
