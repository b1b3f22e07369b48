#pragma once

#include "rastkit/tiles/srgb_curve.h"
#include "rastkit/tiles/texture_layout.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace QUtils {

/// Samples of a texture in three forms: as a loader hands them over (packed, or floats R, G, B, A), as the
/// file holds them, and as floats that are filtered: linear light for colour of sRGB. Rows of stored and of
/// filtered samples have the channels of the texture, pixel by pixel. Alpha is never put through the curve.
class TexelCodec {
public:
    /// Throws std::bad_alloc.
    TexelCodec(const TextureLayout& layout, const TextureSettings& settings);

    void store(const unsigned int* argb, std::uint8_t* stored, std::size_t pixels) const;
    void store(const float* rgba, std::uint8_t* stored, std::size_t pixels) const;
    /// Stored samples as floats, as loaders deliver them.
    void toFloats(const std::uint8_t* stored, float* samples, std::size_t pixels) const;
    /// Stored samples as what is filtered.
    void toLinear(const std::uint8_t* stored, float* linear, std::size_t pixels) const;
    /// What was filtered as stored samples; whole numbers are clamped and rounded to nearest.
    void fromLinear(const float* linear, std::uint8_t* stored, std::size_t pixels) const;

private:
    void pick(const float* rgba, float* samples, std::size_t pixels) const;
    void multiply(float* samples, std::size_t pixels) const;
    void storeSamples(const float* samples, std::uint8_t* stored, std::size_t count) const;
    template <typename Curve> void bend(float* samples, std::size_t pixels, const Curve& curve) const;
    template <typename T> void lookUp(const T* stored, float* linear, std::size_t pixels) const;
    template <typename T> void encode(const float* linear, T* stored, std::size_t pixels) const;

    std::size_t m_channels, m_colours;
    TextureSample m_sample;
    bool m_isCurved; ///< Stored by the curve.
    bool m_decodes; ///< Handed over by the curve, stored in linear light.
    bool m_multiplies; ///< Colour is multiplied by alpha when it is stored.
    std::vector<float> m_byteLight; ///< For each byte of sRGB its light.
    std::vector<float> m_light; ///< For each stored number its light, where it has two bytes.
    std::unique_ptr<SrgbNumbers> m_numbers;
};

} // namespace QUtils
