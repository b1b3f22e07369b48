#include "qutils/formats/dds/block_levels.h"

#include <array>
#include <immintrin.h>

// BC1 to BC5 with SSE4.1, a block at a time: what a pixel can be lies in one register, and an index picks
// from it by a byte shuffle. The results are those of the plain code, bit by bit: each multiplication by a
// rounded reciprocal was chosen so that no sum of shares comes out differently.

#define TARGET_SSE41 [[gnu::target("sse4.1")]]
#define INLINE [[gnu::always_inline]] inline

namespace QUtils {

namespace {

struct alignas(16) Register {
    std::uint8_t bytes[16];
};

struct alignas(16) Lanes {
    std::int16_t lanes[8];
};

TARGET_SSE41 INLINE __m128i load(const Register& constant)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(constant.bytes));
}

TARGET_SSE41 INLINE __m128i load(const Lanes& constant)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(constant.lanes));
}

TARGET_SSE41 INLINE __m128i loadBlock(const std::uint8_t* eightBytes)
{
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(eightBytes));
}

TARGET_SSE41 INLINE void store(std::uint32_t* argb, __m128i pixels)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(argb), pixels);
}

constexpr std::uint8_t none = 0x80; // A shuffle makes it 0.

// --- Colours ---------------------------------------------------------------------------------------------

/// For a byte of four 2-bit indices the shuffle that fetches their words.
constexpr std::array<Register, 256> makeFourWords()
{
    std::array<Register, 256> shuffles {};
    for (std::size_t byte = 0; byte < 256; ++byte)
        for (std::size_t i = 0; i < 16; ++i)
            shuffles[byte].bytes[i] = std::uint8_t((byte >> (i / 4 * 2) & 3) * 4 + i % 4);
    return shuffles;
}

constexpr auto fourWords = makeFourWords();

// 32768 x 255 / divisor for sums that are 4 times (thirds) and 8 times (halves) too large.
constexpr Lanes thirds = { { 22462, 11053, 22462, 0, 22462, 11053, 22462, 0 } };
constexpr Lanes halves = { { 16847, 8290, 16847, 0, 0, 0, 0, 0 } };
constexpr Register allOpaque = { { 0, 0, 0, 0xFF, 0, 0, 0, 0xFF, 0, 0, 0, 0xFF, 0, 0, 0, 0xFF } };
constexpr Register threeOpaque = { { 0, 0, 0, 0xFF, 0, 0, 0, 0xFF, 0, 0, 0, 0xFF, 0, 0, 0, 0 } };

/// Blue, green and red of an endpoint in 16 bits each.
INLINE std::uint64_t lanesOf565(std::uint64_t color)
{
    return (color & 31) | (color & 63 << 5) << (16 - 5) | (color & 31 << 11) << (32 - 11);
}

/// The four colours of a block, with alpha 0.
TARGET_SSE41 INLINE __m128i fourColors(__m128i ends, __m128i turned)
{
    const __m128i twice = _mm_add_epi16(ends, ends);
    const __m128i outer = _mm_slli_epi16(_mm_add_epi16(twice, ends), 2);
    const __m128i inner = _mm_slli_epi16(_mm_add_epi16(twice, turned), 2);
    return _mm_packus_epi16(_mm_mulhrs_epi16(outer, load(thirds)), _mm_mulhrs_epi16(inner, load(thirds)));
}

/// The two endpoints, the colour between them, and black.
TARGET_SSE41 INLINE __m128i threeColors(__m128i ends, __m128i turned)
{
    const __m128i outer = _mm_slli_epi16(_mm_add_epi16(_mm_add_epi16(ends, ends), ends), 2);
    const __m128i middle = _mm_slli_epi16(_mm_add_epi16(ends, turned), 3);
    return _mm_packus_epi16(_mm_mulhrs_epi16(outer, load(thirds)), _mm_mulhrs_epi16(middle, load(halves)));
}

TARGET_SSE41 INLINE __m128i endsOf(std::uint32_t endpoints)
{
    return _mm_set_epi64x(static_cast<long long>(lanesOf565(endpoints >> 16)),
        static_cast<long long>(lanesOf565(endpoints & 0xFFFF)));
}

TARGET_SSE41 INLINE __m128i swapHalves(__m128i value)
{
    return _mm_shuffle_epi32(value, 0x4E);
}

TARGET_SSE41 INLINE __m128i rowOf(__m128i colors, std::uint32_t indices, int y)
{
    return _mm_shuffle_epi8(colors, load(fourWords[indices >> (8 * y) & 0xFF]));
}

/// For row y of a block the shuffle that brings its four bytes to the top of the pixels' words.
constexpr std::array<Register, 4> makeAlphaOfRow()
{
    std::array<Register, 4> shuffles {};
    for (std::size_t y = 0; y < 4; ++y)
        for (std::size_t i = 0; i < 16; ++i)
            shuffles[y].bytes[i] = i % 4 == 3 ? std::uint8_t(y * 4 + i / 4) : none;
    return shuffles;
}

constexpr auto alphaOfRow = makeAlphaOfRow();

TARGET_SSE41 INLINE void storeColors(
    std::uint32_t* const* rows, std::size_t block, const std::uint8_t* colorBlock, __m128i alpha)
{
    const __m128i ends = endsOf(loadWord(colorBlock));
    const __m128i colors = fourColors(ends, swapHalves(ends));
    const std::uint32_t indices = loadWord(colorBlock + 4);
    for (int y = 0; y < 4; ++y)
        store(rows[y] + block * 4,
            _mm_or_si128(
                rowOf(colors, indices, y), _mm_shuffle_epi8(alpha, load(alphaOfRow[std::size_t(y)]))));
}

// --- Single channels -------------------------------------------------------------------------------------

/// What the eight values of a block are made of: shares of both endpoints, the reciprocal of their sum, and
/// what stands there besides.
struct Steps {
    Lanes first, second, reciprocal, fixed;
};

constexpr Steps steps[2] = {
    { { { 5, 0, 4, 3, 2, 1, 0, 0 } }, { { 0, 5, 1, 2, 3, 4, 0, 0 } },
        { { 6554, 6554, 6554, 6554, 6554, 6554, 6554, 6554 } }, { { 0, 0, 0, 0, 0, 0, 0, 255 } } },
    { { { 7, 0, 6, 5, 4, 3, 2, 1 } }, { { 0, 7, 1, 2, 3, 4, 5, 6 } },
        { { 4681, 4681, 4681, 4681, 4681, 4681, 4681, 4681 } }, { { 0, 0, 0, 0, 0, 0, 0, 0 } } },
};

TARGET_SSE41 INLINE __m128i valuesOf(std::uint8_t a, std::uint8_t b)
{
    const Steps& s = steps[a > b ? 1 : 0];
    const __m128i sums = _mm_add_epi16(_mm_mullo_epi16(_mm_set1_epi16(a), load(s.first)),
        _mm_mullo_epi16(_mm_set1_epi16(b), load(s.second)));
    const __m128i values = _mm_or_si128(_mm_mulhrs_epi16(sums, load(s.reciprocal)), load(s.fixed));
    return _mm_packus_epi16(values, values);
}

// The two bytes in which each of eight 3-bit indices lies, of the first and of the last eight; and the
// factors that bring the index to the top of their 16 bits.
constexpr Register firstEight = { { 2, 3, 2, 3, 2, 3, 3, 4, 3, 4, 3, 4, 4, 5, 4, 5 } };
constexpr Register lastEight = { { 5, 6, 5, 6, 5, 6, 6, 7, 6, 7, 6, 7, 7, none, 7, none } };
constexpr Lanes toTheTop = { { 1 << 13, 1 << 10, 1 << 7, 1 << 12, 1 << 9, 1 << 6, 1 << 11, 1 << 8 } };

/// The sixteen bytes of a channel.
TARGET_SSE41 INLINE __m128i channelOf(const std::uint8_t* bytes)
{
    const __m128i block = loadBlock(bytes);
    const __m128i factors = load(toTheTop);
    const __m128i first
        = _mm_srli_epi16(_mm_mullo_epi16(_mm_shuffle_epi8(block, load(firstEight)), factors), 13);
    const __m128i last
        = _mm_srli_epi16(_mm_mullo_epi16(_mm_shuffle_epi8(block, load(lastEight)), factors), 13);
    return _mm_shuffle_epi8(valuesOf(bytes[0], bytes[1]), _mm_packus_epi16(first, last));
}

/// For row y of a block the shuffle that repeats its four bytes as blue, green and red.
constexpr std::array<Register, 4> makeGreyOfRow()
{
    std::array<Register, 4> shuffles {};
    for (std::size_t y = 0; y < 4; ++y)
        for (std::size_t i = 0; i < 16; ++i)
            shuffles[y].bytes[i] = i % 4 == 3 ? none : std::uint8_t(y * 4 + i / 4);
    return shuffles;
}

constexpr auto greyOfRow = makeGreyOfRow();

} // namespace

// --- Formats ---------------------------------------------------------------------------------------------

namespace sse41_blocks {

TARGET_SSE41 void bc1(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 8) {
        const std::uint32_t endpoints = loadWord(blocks), indices = loadWord(blocks + 4);
        const __m128i ends = endsOf(endpoints), turned = swapHalves(ends);
        const bool isFour = (endpoints & 0xFFFF) > endpoints >> 16;
        const __m128i colors = isFour ? _mm_or_si128(fourColors(ends, turned), load(allOpaque))
                                      : _mm_or_si128(threeColors(ends, turned), load(threeOpaque));
        for (int y = 0; y < 4; ++y)
            store(rows[y] + n * 4, rowOf(colors, indices, y));
    }
}

TARGET_SSE41 void bc2(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    const __m128i lowNibbles = _mm_set1_epi8(15);
    for (std::size_t n = 0; n < count; ++n, blocks += 16) {
        const __m128i stored = loadBlock(blocks);
        const __m128i nibbles = _mm_unpacklo_epi8(
            _mm_and_si128(stored, lowNibbles), _mm_and_si128(_mm_srli_epi16(stored, 4), lowNibbles));
        storeColors(rows, n, blocks + 8, _mm_or_si128(nibbles, _mm_slli_epi16(nibbles, 4)));
    }
}

TARGET_SSE41 void bc3(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        storeColors(rows, n, blocks + 8, channelOf(blocks));
}

TARGET_SSE41 void bc4(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 8) {
        const __m128i grey = channelOf(blocks);
        for (int y = 0; y < 4; ++y)
            store(rows[y] + n * 4,
                _mm_or_si128(_mm_shuffle_epi8(grey, load(greyOfRow[std::size_t(y)])), load(allOpaque)));
    }
}

TARGET_SSE41 void bc5(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    const __m128i zero = _mm_setzero_si128();
    for (std::size_t n = 0; n < count; ++n, blocks += 16) {
        const __m128i red = channelOf(blocks), green = channelOf(blocks + 8);
        const __m128i upper = _mm_unpacklo_epi8(green, red), lower = _mm_unpackhi_epi8(green, red);
        const __m128i pixels[4] = { _mm_unpacklo_epi16(upper, zero), _mm_unpackhi_epi16(upper, zero),
            _mm_unpacklo_epi16(lower, zero), _mm_unpackhi_epi16(lower, zero) };
        for (int y = 0; y < 4; ++y)
            store(rows[y] + n * 4, _mm_or_si128(_mm_slli_epi32(pixels[y], 8), load(allOpaque)));
    }
}

TARGET_SSE41 void arrange(
    const ByteArrangement& arrangement, const std::uint8_t* pixels, std::size_t count, std::uint32_t* argb)
{
    Register shuffle;
    for (unsigned i = 0; i < 16; ++i) {
        const std::uint8_t source = arrangement.source[i % 4];
        shuffle.bytes[i]
            = source == ByteArrangement::none ? none : std::uint8_t(i / 4 * arrangement.pixelBytes + source);
    }
    const __m128i order = load(shuffle), fill = _mm_set1_epi32(static_cast<int>(arrangement.fill));
    const std::size_t bytes = count * arrangement.pixelBytes;
    std::size_t done = 0;
    // Sixteen bytes are read for four pixels, also where these have fewer.
    for (; done * arrangement.pixelBytes + 16 <= bytes && done + 4 <= count; done += 4) {
        const __m128i stored
            = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels + done * arrangement.pixelBytes));
        store(argb + done, _mm_or_si128(_mm_shuffle_epi8(stored, order), fill));
    }
    scalar_blocks::arrange(arrangement, pixels + done * arrangement.pixelBytes, count - done, argb + done);
}

} // namespace sse41_blocks

} // namespace QUtils
