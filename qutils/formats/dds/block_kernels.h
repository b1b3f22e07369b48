#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// The instruction sets that the decoders of pixels and blocks are written for.
enum class DdsSimd { Scalar, Sse41 };

/// Rows of a block row: `count` blocks fill 4 x count pixels of each of the four rows. Packed pixels are
/// words 0xAARRGGBB.
using PackedBlocks = void (*)(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
using FloatBlocks = void (*)(const std::uint8_t* blocks, std::size_t count, float* const* rows);

/// Where the bytes of packed pixels come from.
struct ByteArrangement {
    std::uint8_t pixelBytes; ///< Of a stored pixel, 1 to 4.
    std::uint8_t source[4]; ///< The place of blue, green, red and alpha in it, or `none`.
    std::uint32_t fill; ///< Bits that every result has besides.

    static constexpr std::uint8_t none = 0x80;
};

/// Decoders of whole rows. Every level gives the same result to the bit.
struct BlockKernels {
    PackedBlocks bc1, bc2, bc3, bc4, bc5, bc7;
    void (*arrange)(const ByteArrangement& arrangement, const std::uint8_t* pixels, std::size_t count,
        std::uint32_t* argb);
};

/// The decoders of the best level that this processor has, found out once.
const BlockKernels& blockKernels();
/// The decoders of one level, or null when this processor lacks it.
const BlockKernels* blockKernels(DdsSimd level);

/// Decoders that there is one of: signed numbers, and what is rare.
void decodeBc4Signed(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void decodeBc5Signed(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void decodeBc6(const std::uint8_t* blocks, std::size_t count, float* const* rows);
void decodeBc6Signed(const std::uint8_t* blocks, std::size_t count, float* const* rows);

} // namespace QUtils
