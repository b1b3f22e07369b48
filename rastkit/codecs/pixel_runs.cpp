#include "rastkit/codecs/pixel_runs.h"

#include <bit>
#include <cstring>

namespace QUtils {

namespace {

static_assert(std::endian::native == std::endian::little, "the first byte in memory is the lowest of a word");

std::uint64_t wordAt(const std::uint8_t* bytes)
{
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

/// How many of the first bytes of `a` and `b` are equal.
std::size_t equalBytes(const std::uint8_t* a, const std::uint8_t* b, std::size_t count)
{
    std::size_t i = 0;
    for (; count - i >= sizeof(std::uint64_t); i += sizeof(std::uint64_t))
        if (const std::uint64_t difference = wordAt(a + i) ^ wordAt(b + i))
            return i + std::size_t(std::countr_zero(difference)) / 8;
    while (i < count && a[i] == b[i])
        ++i;
    return i;
}

// Whether a pixel and the two after it are equal: the bytes of the first two equal those of the last two.

struct AnyPixel {
    static constexpr std::size_t spareBytes = 0;
    static bool repeats(const std::uint8_t* pixel, std::size_t pixelBytes)
    {
        return std::memcmp(pixel, pixel + pixelBytes, 2 * pixelBytes) == 0;
    }
};

struct Pixel24 {
    static constexpr std::size_t spareBytes = 2; // Read behind the three pixels.
    static bool repeats(const std::uint8_t* pixel, std::size_t)
    {
        return (wordAt(pixel) ^ wordAt(pixel + 3)) << 16 == 0;
    }
};

struct Pixel32 {
    static constexpr std::size_t spareBytes = 0;
    static bool repeats(const std::uint8_t* pixel, std::size_t) { return wordAt(pixel) == wordAt(pixel + 4); }
};

template <typename Pixel>
std::size_t findRepeat(const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count)
{
    std::size_t i = 0;
    for (; (count - i) * pixelBytes >= 3 * pixelBytes + Pixel::spareBytes; ++i)
        if (Pixel::repeats(pixels + i * pixelBytes, pixelBytes))
            return i;
    for (; count - i >= 3; ++i)
        if (AnyPixel::repeats(pixels + i * pixelBytes, pixelBytes))
            return i;
    return count;
}

/// The same for pixels of one or two bytes, as many of which as fill a word are looked at together. `lowest`
/// has the lowest bit of each pixel in a word set, `highest` the highest.
template <std::size_t bytes, std::uint64_t lowest, std::uint64_t highest>
std::size_t findNarrowRepeat(const std::uint8_t* pixels, std::size_t count)
{
    constexpr std::size_t wordPixels = sizeof(std::uint64_t) / bytes;
    std::size_t i = 0;
    for (; count - i >= wordPixels + 2; i += wordPixels) {
        const std::uint8_t* const at = pixels + i * bytes;
        const std::uint64_t next = wordAt(at + bytes);
        const std::uint64_t difference = (wordAt(at) ^ next) | (next ^ wordAt(at + 2 * bytes));
        // The lowest bit that is set belongs to the first pixel of no difference.
        if (const std::uint64_t same = (difference - lowest) & ~difference & highest)
            return i + std::size_t(std::countr_zero(same)) / (8 * bytes);
    }
    return i + findRepeat<AnyPixel>(pixels + i * bytes, bytes, count - i);
}

} // namespace

std::size_t runLength(const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count)
{
    if (count == 0)
        return 0;
    return 1 + equalBytes(pixels, pixels + pixelBytes, (count - 1) * pixelBytes) / pixelBytes;
}

std::size_t rawLength(const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count)
{
    switch (pixelBytes) {
    case 1: return findNarrowRepeat<1, 0x0101010101010101, 0x8080808080808080>(pixels, count);
    case 2: return findNarrowRepeat<2, 0x0001000100010001, 0x8000800080008000>(pixels, count);
    case 3: return findRepeat<Pixel24>(pixels, pixelBytes, count);
    case 4: return findRepeat<Pixel32>(pixels, pixelBytes, count);
    default: return findRepeat<AnyPixel>(pixels, pixelBytes, count);
    }
}

} // namespace QUtils
