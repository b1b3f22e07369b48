#include "qutils/formats/dds/block_levels.h"

#include <algorithm>
#include <array>

// BC1 to BC5, one pixel after the other. All steps between two endpoints are the exact fractions, rounded to
// the nearest byte; the published formats leave decoders some freedom here.

namespace QUtils {

namespace {

constexpr std::uint32_t opaque = 0xFF000000u;

/// round(255 k / divisor), halves up, for k from 0 to divisor.
template <std::size_t divisor> constexpr std::array<std::uint8_t, divisor + 1> makeSteps()
{
    std::array<std::uint8_t, divisor + 1> steps {};
    for (std::size_t k = 0; k <= divisor; ++k)
        steps[k] = std::uint8_t((510 * k + divisor) / (2 * divisor));
    return steps;
}

// Endpoints of 5 and 6 bits in thirds, for blocks of four colours, and in halves, for blocks of three.
constexpr auto thirdsOf5 = makeSteps<93>();
constexpr auto thirdsOf6 = makeSteps<189>();
constexpr auto halvesOf5 = makeSteps<62>();
constexpr auto halvesOf6 = makeSteps<126>();

struct Color565 {
    std::uint32_t r, g, b;

    explicit Color565(std::uint32_t bits) : r(bits >> 11), g(bits >> 5 & 63), b(bits & 31) { }
};

std::uint32_t third(const Color565& a, std::uint32_t shareA, const Color565& b, std::uint32_t shareB)
{
    return std::uint32_t(thirdsOf5[a.r * shareA + b.r * shareB]) << 16
        | std::uint32_t(thirdsOf6[a.g * shareA + b.g * shareB]) << 8 | thirdsOf5[a.b * shareA + b.b * shareB];
}

std::uint32_t half(const Color565& a, const Color565& b)
{
    return std::uint32_t(halvesOf5[a.r + b.r]) << 16 | std::uint32_t(halvesOf6[a.g + b.g]) << 8
        | halvesOf5[a.b + b.b];
}

struct Colors {
    std::uint32_t bgr[4];
    bool lastIsTransparent;
};

/// Blocks with an alpha of their own always have four colours.
Colors colorsOf(std::uint32_t endpoints, bool alwaysFour)
{
    const std::uint32_t first = endpoints & 0xFFFF, second = endpoints >> 16;
    const Color565 a(first), b(second);
    const bool isFour = alwaysFour || first > second;
    return { { third(a, 3, b, 0), third(a, 0, b, 3), isFour ? third(a, 2, b, 1) : half(a, b),
                 isFour ? third(a, 1, b, 2) : 0 },
        !isFour };
}

/// The eight values that a block of single bytes chooses from.
std::array<std::uint8_t, 8> valuesOf(std::uint32_t a, std::uint32_t b)
{
    std::array<std::uint8_t, 8> values { std::uint8_t(a), std::uint8_t(b), 0, 0, 0, 0, 0, 0xFF };
    const std::uint32_t steps = a > b ? 7 : 5;
    for (std::uint32_t i = 1; i < steps; ++i)
        values[i + 1] = std::uint8_t((2 * (a * (steps - i) + b * i) + steps) / (2 * steps));
    return values;
}

/// The same of signed bytes, moved up by 128: -1 is 1, 0 is 128, 1 is 255.
std::array<std::uint8_t, 8> signedValuesOf(std::uint8_t first, std::uint8_t second)
{
    // The lowest number has no counterpart: it stands for -1 as well.
    const int a = std::max(int(std::int8_t(first)), -127), b = std::max(int(std::int8_t(second)), -127);
    std::array<std::uint8_t, 8> values { std::uint8_t(a + 128), std::uint8_t(b + 128), 0, 0, 0, 0, 1, 0xFF };
    const int steps = a > b ? 7 : 5;
    for (int i = 1; i < steps; ++i) {
        // From -127 up all sums are positive, so that dividing rounds one way.
        const int sum = (a + 127) * (steps - i) + (b + 127) * i;
        values[std::size_t(i) + 1] = std::uint8_t((2 * sum + steps) / (2 * steps) + 1);
    }
    return values;
}

using Bytes16 = std::array<std::uint8_t, 16>;

Bytes16 pick(const std::array<std::uint8_t, 8>& values, const std::uint8_t* block)
{
    const std::uint64_t indices = loadLong(block) >> 16;
    Bytes16 bytes;
    for (std::size_t i = 0; i < 16; ++i)
        bytes[i] = values[indices >> (3 * i) & 7];
    return bytes;
}

Bytes16 channelOf(const std::uint8_t* block)
{
    return pick(valuesOf(block[0], block[1]), block);
}

Bytes16 signedChannelOf(const std::uint8_t* block)
{
    return pick(signedValuesOf(block[0], block[1]), block);
}

/// `pixel(i)` is pixel 0 to 15 of the block.
template <typename Pixel> void store(std::uint32_t* const* rows, std::size_t block, const Pixel& pixel)
{
    for (std::size_t i = 0; i < 16; ++i)
        rows[i / 4][block * 4 + i % 4] = pixel(i);
}

void storeGrey(std::uint32_t* const* rows, std::size_t block, const Bytes16& grey)
{
    store(rows, block, [&](std::size_t i) { return grey[i] * 0x010101u | opaque; });
}

/// Two channels; `blue` is what stands for the third one.
void storeTwo(std::uint32_t* const* rows, std::size_t block, const Bytes16& red, const Bytes16& green,
    std::uint32_t blue)
{
    store(rows, block, [&](std::size_t i) {
        return opaque | std::uint32_t(red[i]) << 16 | std::uint32_t(green[i]) << 8 | blue;
    });
}

void storeColors(
    std::uint32_t* const* rows, std::size_t block, const std::uint8_t* colorBlock, const Bytes16& alpha)
{
    const Colors colors = colorsOf(loadWord(colorBlock), true);
    const std::uint32_t indices = loadWord(colorBlock + 4);
    store(rows, block,
        [&](std::size_t i) { return colors.bgr[indices >> (2 * i) & 3] | std::uint32_t(alpha[i]) << 24; });
}

} // namespace

namespace scalar_blocks {

void bc1(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 8) {
        const Colors colors = colorsOf(loadWord(blocks), false);
        const std::uint32_t indices = loadWord(blocks + 4);
        const std::uint32_t argb[4] = { colors.bgr[0] | opaque, colors.bgr[1] | opaque,
            colors.bgr[2] | opaque, colors.lastIsTransparent ? 0 : colors.bgr[3] | opaque };
        store(rows, n, [&](std::size_t i) { return argb[indices >> (2 * i) & 3]; });
    }
}

void bc2(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16) {
        const std::uint64_t nibbles = loadLong(blocks);
        Bytes16 alpha;
        for (std::size_t i = 0; i < 16; ++i)
            alpha[i] = std::uint8_t((nibbles >> (4 * i) & 15) * 17);
        storeColors(rows, n, blocks + 8, alpha);
    }
}

void bc3(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        storeColors(rows, n, blocks + 8, channelOf(blocks));
}

void bc4(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 8)
        storeGrey(rows, n, channelOf(blocks));
}

void bc5(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        storeTwo(rows, n, channelOf(blocks), channelOf(blocks + 8), 0);
}

void arrange(
    const ByteArrangement& arrangement, const std::uint8_t* pixels, std::size_t count, std::uint32_t* argb)
{
    for (std::size_t i = 0; i < count; ++i, pixels += arrangement.pixelBytes) {
        std::uint32_t word = arrangement.fill;
        for (unsigned c = 0; c < 4; ++c)
            if (arrangement.source[c] != ByteArrangement::none)
                word |= std::uint32_t(pixels[arrangement.source[c]]) << (8 * c);
        argb[i] = word;
    }
}

} // namespace scalar_blocks

void decodeBc4Signed(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 8)
        storeGrey(rows, n, signedChannelOf(blocks));
}

void decodeBc5Signed(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    // Blue is 0, which is in the middle.
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        storeTwo(rows, n, signedChannelOf(blocks), signedChannelOf(blocks + 8), 0x80);
}

} // namespace QUtils
