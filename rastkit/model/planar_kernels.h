#pragma once

#include "rastkit/model/pixel_kernels.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// Conversions between planes, a row of one component each, and pixels that have all of them together. As
/// those of PixelKernels: the same at every level to the bit, nothing overlaps, nothing needs an alignment
/// beyond its type's. Counts are pixels. Planes may be one and the same, and a null alpha is opaque.
struct PlanarKernels {
    /// Four planes of bytes to packed pixels 0xAARRGGBB.
    void (*planesToPacked)(const std::uint8_t* red, const std::uint8_t* green, const std::uint8_t* blue,
        const std::uint8_t* alpha, std::uint32_t* argb, std::size_t count);
    /// Four planes of floats to floats RGBA.
    void (*planesToRgba)(const float* red, const float* green, const float* blue, const float* alpha,
        float* rgba, std::size_t count);
    /// The first of each two bytes.
    void (*firstBytes)(const std::uint8_t* pairs, std::uint8_t* bytes, std::size_t count);
    /// Byte `component` (0 to 3) of each four.
    void (*oneOfFour)(
        const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count);
    /// 16-bit number `component` (0 to 3) of each four, its two bytes exchanged.
    void (*swappedOneOfFour16)(
        const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count);
};

/// The conversions of the best level that this processor has.
const PlanarKernels& planarKernels();

/// The conversions of one level, or null when this processor lacks it.
const PlanarKernels* planarKernels(SimdLevel level);

} // namespace QUtils
