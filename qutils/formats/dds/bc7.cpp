#include "qutils/formats/dds/block_levels.h"
#include "qutils/formats/dds/bptc_tables.h"

#include <array>
#include <bit>
#include <immintrin.h>
#include <utility>

// Source: ARB_texture_compression_bptc, the fixed-point format. A block is unpacked into endpoints and
// indices by code that is written once and compiled for each mode, then its pixels are interpolated, by each
// level.

#define TARGET_SSE41 [[gnu::target("sse4.1")]]
#define INLINE [[gnu::always_inline]] inline

namespace QUtils {

namespace {

struct Mode {
    int subsets, partitionBits, rotationBits, selectionBits, colorBits, alphaBits;
    bool hasEndpointBits, hasSharedBits; ///< Lowest bits that the channels have in common.
    int indexBits, secondBits;
};

// clang-format off
constexpr Mode modes[8] = {
    { 3, 4, 0, 0, 4, 0, true,  false, 3, 0 },
    { 2, 6, 0, 0, 6, 0, false, true,  3, 0 },
    { 3, 6, 0, 0, 5, 0, false, false, 2, 0 },
    { 2, 6, 0, 0, 7, 0, true,  false, 2, 0 },
    { 1, 0, 2, 1, 5, 6, false, false, 2, 3 },
    { 1, 0, 2, 0, 7, 8, false, false, 2, 2 },
    { 1, 0, 0, 0, 7, 7, true,  false, 4, 0 },
    { 2, 6, 0, 0, 5, 5, true,  false, 2, 0 },
};
// clang-format on

/// For each index the two shares, in 64ths, once for each channel: bytes { 64 - w, w } four times over.
template <int bits> constexpr std::array<std::uint64_t, 1 << bits> makeShares()
{
    std::array<std::uint64_t, 1 << bits> shares {};
    for (std::size_t i = 0; i < shares.size(); ++i) {
        const std::uint64_t weight = indexWeights(bits)[i];
        shares[i] = (64 - weight + (weight << 8)) * 0x0001000100010001u;
    }
    return shares;
}

template <int bits> constexpr auto sharesOf = makeShares<bits>();
constexpr std::uint64_t alphaShares = 0xFFFF000000000000u;

/// A block with all that was packed away undone.
struct Unpacked {
    std::uint64_t endpoints[3]; ///< Bytes blue 0, blue 1, green 0, green 1, red ..., alpha ...; by subset.
    std::uint64_t indices, secondIndices; ///< All of the same length, the first pixel's in the lowest bits.
    std::uint32_t subsets; ///< Two bits for each pixel.
    unsigned rotation;
    bool swapsIndices;
};

struct Bits128 {
    std::uint64_t low, high;

    /// `count` bits from `first` on; at most 64.
    template <int first, int count> INLINE std::uint64_t get() const
    {
        constexpr std::uint64_t mask
            = count == 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << (count % 64)) - 1;
        if constexpr (count == 0)
            return 0;
        else if constexpr (first >= 64)
            return high >> (first - 64) & mask;
        else if constexpr (first + count <= 64)
            return low >> first & mask;
        else
            return (low >> first | high << (64 - first)) & mask;
    }
};

/// Repeats the top bits of numbers of `bits` bits, one in each byte, below them.
template <int bits> INLINE std::uint64_t widen(std::uint64_t numbers)
{
    if constexpr (bits == 8)
        return numbers;
    constexpr std::uint64_t kept = (1u << (8 - bits)) - 1;
    return numbers << (8 - bits) | (numbers >> (2 * bits - 8) & kept * 0x0101010101010101u);
}

/// Where the fields of a mode begin.
template <int mode> struct Places {
    static constexpr Mode m = modes[mode];
    static constexpr int rotation = mode + 1 + m.partitionBits, selection = rotation + m.rotationBits,
                         color = selection + m.selectionBits, alpha = color + 6 * m.subsets * m.colorBits,
                         shared = alpha + 2 * m.subsets * m.alphaBits,
                         indices
        = shared + (m.hasEndpointBits ? 2 * m.subsets : 0) + (m.hasSharedBits ? m.subsets : 0),
                         secondIndices = indices + 16 * m.indexBits - m.subsets;
    static_assert(secondIndices + (m.secondBits == 0 ? 0 : 16 * m.secondBits - 1) == 128);
};

/// Two numbers of `bits` bits, one behind the other, into two bytes.
template <int bits> INLINE std::uint64_t spread(std::uint64_t two)
{
    constexpr std::uint64_t mask = (1u << bits) - 1;
    return (two & mask) | (two >> bits & mask) << 8;
}

template <int mode, int subset> INLINE std::uint64_t endpointsOf(const Bits128& in)
{
    using P = Places<mode>;
    constexpr Mode m = P::m;
    constexpr int pair = 2 * m.colorBits, channel = pair * m.subsets;
    const std::uint64_t red = spread<m.colorBits>(in.get<P::color + subset * pair, pair>());
    const std::uint64_t green = spread<m.colorBits>(in.get<P::color + channel + subset * pair, pair>());
    const std::uint64_t blue = spread<m.colorBits>(in.get<P::color + 2 * channel + subset * pair, pair>());
    std::uint64_t all = blue | green << 16 | red << 32;
    if constexpr (m.alphaBits == m.colorBits)
        all |= spread<m.alphaBits>(in.get<P::alpha + subset * 2 * m.alphaBits, 2 * m.alphaBits>()) << 48;

    constexpr bool hasLowest = m.hasEndpointBits || m.hasSharedBits;
    if constexpr (m.hasEndpointBits)
        all = all << 1 | spread<1>(in.get<P::shared + 2 * subset, 2>()) * 0x0001000100010001u;
    if constexpr (m.hasSharedBits)
        all = all << 1 | in.get<P::shared + subset, 1>() * 0x0101010101010101u;
    all = widen<m.colorBits + (hasLowest ? 1 : 0)>(all);

    if constexpr (m.alphaBits == 0)
        all |= alphaShares;
    else if constexpr (m.alphaBits != m.colorBits)
        all = (all & ~alphaShares)
            | widen<m.alphaBits>(
                  spread<m.alphaBits>(in.get<P::alpha + subset * 2 * m.alphaBits, 2 * m.alphaBits>()))
                << 48;
    return all;
}

template <int mode> INLINE Unpacked unpack(const Bits128& in)
{
    using P = Places<mode>;
    constexpr Mode m = P::m;
    Unpacked out {};
    out.endpoints[0] = endpointsOf<mode, 0>(in);
    if constexpr (m.subsets > 1)
        out.endpoints[1] = endpointsOf<mode, 1>(in);
    if constexpr (m.subsets > 2)
        out.endpoints[2] = endpointsOf<mode, 2>(in);
    out.rotation = unsigned(in.get<P::rotation, m.rotationBits>());
    out.swapsIndices = in.get<P::selection, m.selectionBits>() != 0;

    out.indices = completeIndex(in.get<P::indices, 16 * m.indexBits - m.subsets>(), 0, m.indexBits);
    const std::size_t partition = std::size_t(in.get<mode + 1, m.partitionBits>());
    if constexpr (m.subsets == 2) {
        out.subsets = twoSubsets[partition];
        out.indices = completeIndex(out.indices, anchorOfTwo[partition], m.indexBits);
    }
    if constexpr (m.subsets == 3) {
        out.subsets = threeSubsets[partition];
        const int a = secondAnchorOfThree[partition], b = thirdAnchorOfThree[partition];
        out.indices = completeIndex(out.indices, a < b ? a : b, m.indexBits);
        out.indices = completeIndex(out.indices, a < b ? b : a, m.indexBits);
    }
    if constexpr (m.secondBits != 0)
        out.secondIndices = completeIndex(in.get<P::secondIndices, 16 * m.secondBits - 1>(), 0, m.secondBits);
    return out;
}

/// The shares of pixel `i`.
template <int mode, bool swapsIndices> INLINE std::uint64_t sharesAt(const Unpacked& block, unsigned i)
{
    constexpr Mode m = modes[mode];
    constexpr unsigned mask = (1u << m.indexBits) - 1, secondMask = (1u << m.secondBits) - 1;
    const std::uint64_t first = sharesOf<m.indexBits>[block.indices >> (i * m.indexBits) & mask];
    if constexpr (m.secondBits == 0)
        return first;
    else {
        const std::uint64_t second
            = sharesOf<m.secondBits>[block.secondIndices >> (i * m.secondBits) & secondMask];
        return swapsIndices ? (second & ~alphaShares) | (first & alphaShares)
                            : (first & ~alphaShares) | (second & alphaShares);
    }
}

template <int mode> INLINE std::uint64_t endpointsAt(const Unpacked& block, unsigned i)
{
    return modes[mode].subsets == 1 ? block.endpoints[0] : block.endpoints[block.subsets >> (2 * i) & 3];
}

/// Calls `decode.run<mode>(block)` for the mode of a block; false for the reserved one.
template <typename Decode> bool dispatch(const std::uint8_t* bytes, const Decode& decode)
{
    const Bits128 in = { loadLong(bytes), loadLong(bytes + 8) };
    switch (std::countr_zero(bytes[0])) {
    case 0: decode.template run<0>(in); return true;
    case 1: decode.template run<1>(in); return true;
    case 2: decode.template run<2>(in); return true;
    case 3: decode.template run<3>(in); return true;
    case 4: decode.template run<4>(in); return true;
    case 5: decode.template run<5>(in); return true;
    case 6: decode.template run<6>(in); return true;
    case 7: decode.template run<7>(in); return true;
    default: return false;
    }
}

/// Blocks of the reserved mode are transparent black.
void storeNothing(std::uint32_t* const* rows, std::size_t block)
{
    for (int y = 0; y < 4; ++y)
        std::memset(rows[y] + block * 4, 0, 4 * sizeof(std::uint32_t));
}

// --- Plain -----------------------------------------------------------------------------------------------

/// One channel has changed places with alpha.
std::uint32_t rotate(std::uint32_t argb, unsigned rotation)
{
    if (rotation == 0)
        return argb;
    const unsigned shift = 24 - 8 * rotation; // Of red, green or blue.
    const std::uint32_t difference = (argb >> 24 ^ argb >> shift) & 0xFF;
    return argb ^ difference << 24 ^ difference << shift;
}

struct ScalarBlock {
    std::uint32_t* const* rows;
    std::size_t block;

    template <int mode> void run(const Bits128& bits) const
    {
        const Unpacked in = unpack<mode>(bits);
        for (unsigned i = 0; i < 16; ++i) {
            const std::uint64_t shares
                = in.swapsIndices ? sharesAt<mode, true>(in, i) : sharesAt<mode, false>(in, i);
            rows[i / 4][block * 4 + i % 4]
                = rotate(interpolate(endpointsAt<mode>(in, i), shares), in.rotation);
        }
    }

private:
    static std::uint32_t interpolate(std::uint64_t endpoints, std::uint64_t shares)
    {
        std::uint32_t argb = 0;
        for (unsigned c = 0; c < 4; ++c, endpoints >>= 16, shares >>= 16) {
            const std::uint64_t sum
                = (endpoints & 0xFF) * (shares & 0xFF) + (endpoints >> 8 & 0xFF) * (shares >> 8 & 0xFF);
            argb |= std::uint32_t((sum + 32) >> 6) << (8 * c);
        }
        return argb;
    }
};

// --- SSE4.1 ----------------------------------------------------------------------------------------------

TARGET_SSE41 INLINE __m128i twoLongs(std::uint64_t low, std::uint64_t high)
{
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
}

/// What brings the channels of four pixels back to their places.
alignas(16) constexpr std::uint8_t rotations[4][16] = {
    { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15 },
    { 0, 1, 3, 2, 4, 5, 7, 6, 8, 9, 11, 10, 12, 13, 15, 14 },
    { 0, 3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13 },
    { 3, 1, 2, 0, 7, 5, 6, 4, 11, 9, 10, 8, 15, 13, 14, 12 },
};

/// Pixels i and i + 1, their channels in 16 bits.
template <int mode, bool swapsIndices> TARGET_SSE41 INLINE __m128i twoPixels(const Unpacked& in, unsigned i)
{
    const __m128i shares
        = twoLongs(sharesAt<mode, swapsIndices>(in, i), sharesAt<mode, swapsIndices>(in, i + 1));
    const __m128i endpoints = twoLongs(endpointsAt<mode>(in, i), endpointsAt<mode>(in, i + 1));
    const __m128i sums = _mm_maddubs_epi16(endpoints, shares);
    return _mm_srli_epi16(_mm_add_epi16(sums, _mm_set1_epi16(32)), 6);
}

struct Sse41Block {
    std::uint32_t* const* rows;
    std::size_t block;

    template <int mode> TARGET_SSE41 void run(const Bits128& bits) const
    {
        const Unpacked in = unpack<mode>(bits);
        if constexpr (modes[mode].selectionBits != 0)
            if (in.swapsIndices)
                return store<mode, true>(in);
        store<mode, false>(in);
    }

private:
    template <int mode, bool swapsIndices> TARGET_SSE41 INLINE void store(const Unpacked& in) const
    {
        for (unsigned y = 0; y < 4; ++y) {
            __m128i argb = _mm_packus_epi16(
                twoPixels<mode, swapsIndices>(in, 4 * y), twoPixels<mode, swapsIndices>(in, 4 * y + 2));
            if constexpr (modes[mode].rotationBits != 0)
                argb = _mm_shuffle_epi8(
                    argb, _mm_load_si128(reinterpret_cast<const __m128i*>(rotations[in.rotation])));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(rows[y] + block * 4), argb);
        }
    }
};

} // namespace

void scalar_blocks::bc7(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        if (!dispatch(blocks, ScalarBlock { rows, n }))
            storeNothing(rows, n);
}

TARGET_SSE41 void sse41_blocks::bc7(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        if (!dispatch(blocks, Sse41Block { rows, n }))
            storeNothing(rows, n);
}

} // namespace QUtils
