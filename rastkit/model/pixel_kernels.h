#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// The instruction sets that the row conversions are written for.
enum class SimdLevel { Scalar, Sse41, Avx2 };

/// How the bytes of pixels are picked, put in order and completed: for a group of `pixels` pixels, whose
/// source and whose result have at most sixteen bytes each.
struct PixelArrangement {
    static constexpr std::uint8_t none = 0x80;

    alignas(16) std::uint8_t source[16]; ///< For each byte of the result its place in the source, or `none`.
    alignas(16) std::uint8_t fill[16]; ///< Bits that each byte of the result has besides.
    std::uint8_t pixels; ///< As many as fit.
    std::uint8_t sourceBytes, resultBytes; ///< Of one pixel.
};

/// Conversions of rows of pixels. Every level gives the same result to the bit, NaN and infinities
/// included. Source and destination do not overlap; neither needs an alignment beyond its type's.
/// Counts are pixels, or samples where said. Packed pixels are words 0xAARRGGBB.
struct PixelKernels {
    /// Floats RGBA to packed: v x 255, clamped to 0..255 (NaN 0), truncated.
    void (*packTruncated)(const float* rgba, std::uint32_t* argb, std::size_t count);
    /// Floats RGBA to packed: clamped to 0..1 (NaN 0), x 255, rounded to nearest, halves to even.
    void (*packRounded)(const float* rgba, std::uint32_t* argb, std::size_t count);
    /// Packed to floats RGBA: each byte divided by 255.
    void (*unpackToFloat)(const std::uint32_t* argb, float* rgba, std::size_t count);
    /// Three bytes blue, green, red to packed with alpha 0xFF.
    void (*bgr24ToPacked)(const std::uint8_t* bgr, std::uint32_t* argb, std::size_t count);
    /// Packed to three bytes blue, green, red.
    void (*packedToBgr24)(const std::uint32_t* argb, std::uint8_t* bgr, std::size_t count);
    /// One byte to packed: the same blue, green and red, alpha 0xFF.
    void (*greyToPacked)(const std::uint8_t* grey, std::uint32_t* argb, std::size_t count);
    /// 16-bit floats to 32-bit ones; counts samples.
    void (*halfToFloat)(const std::uint16_t* half, float* samples, std::size_t count);
    /// 32-bit floats to 16-bit ones, rounded to nearest, halves to even; counts samples.
    void (*floatToHalf)(const float* samples, std::uint16_t* half, std::size_t count);
    /// Bytes to floats: divided by 255; counts samples.
    void (*byteToFloat)(const std::uint8_t* bytes, float* samples, std::size_t count);
    /// Floats to bytes, as `packRounded` does it; counts samples.
    void (*floatToByte)(const float* samples, std::uint8_t* bytes, std::size_t count);
    /// Floats to 16-bit numbers: clamped to 0..1 (NaN 0), x 65535, rounded to nearest, halves to even;
    /// counts samples.
    void (*floatToUInt16)(const float* samples, std::uint16_t* numbers, std::size_t count);
    /// Bytes to floats: multiplied by `scale`; counts samples.
    void (*scaledByteToFloat)(const std::uint8_t* bytes, float scale, float* samples, std::size_t count);
    /// 16-bit numbers to floats: multiplied by `scale`; counts samples.
    void (*uint16ToFloat)(const std::uint16_t* numbers, float scale, float* samples, std::size_t count);
    /// The same of numbers that are stored with the most significant byte first.
    void (*bigUint16ToFloat)(const std::uint8_t* numbers, float scale, float* samples, std::size_t count);
    /// Floats grey to floats RGBA, alpha 1.
    void (*greyToRgba)(const float* grey, float* rgba, std::size_t count);
    /// Floats grey and alpha to floats RGBA.
    void (*greyAlphaToRgba)(const float* greyAlpha, float* rgba, std::size_t count);
    /// Floats RGB to floats RGBA, alpha 1.
    void (*rgbToRgba)(const float* rgb, float* rgba, std::size_t count);
    /// 16-bit numbers with their two bytes exchanged; counts numbers.
    void (*swapBytes16)(const std::uint16_t* numbers, std::uint16_t* swapped, std::size_t count);
    /// Pixels in another order of bytes.
    void (*arrange)(const PixelArrangement& arrangement, const std::uint8_t* source, std::uint8_t* result,
        std::size_t count);
};

/// The conversions of the best level that this processor has, found out once.
const PixelKernels& pixelKernels();

/// The conversions of one level, or null when this processor lacks it.
const PixelKernels* pixelKernels(SimdLevel level);

} // namespace QUtils
