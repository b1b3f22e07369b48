#pragma once

#include "qutils/formats/psd/psd_document.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// The most components that a colour has: cyan, magenta, yellow, black.
constexpr std::size_t psdMostComponents = 4;

/// A stretch of pixels, component by component. Alpha stands apart.
struct PsdComponents {
    float* color[psdMostComponents] = {};
    float* alpha = nullptr;

    PsdComponents from(std::size_t x) const
    {
        PsdComponents moved;
        for (std::size_t c = 0; c < psdMostComponents; ++c)
            moved.color[c] = color[c] ? color[c] + x : nullptr;
        moved.alpha = alpha + x;
        return moved;
    }
};

/// `count` samples of a row from sample `first` on: 8 and 16 bits divided by their maximum, bits 0 or 1, 32
/// bits as they are.
void psdSamplesToFloat(
    unsigned depth, const std::uint8_t* row, std::size_t first, std::size_t count, float* samples);

/// What `component` of white is, as the mode stores it: every picture with transparency is stored over that.
float psdWhite(PsdMode mode, unsigned depth, std::size_t component);

/// Frees colours from the white that they were mixed with by their transparency: what they were before. Where
/// nothing is left of a colour it stays white. `isBounded`: whole numbers, which end at 0 and 1.
void freeFromWhite(float* samples, const float* transparency, float white, bool isBounded, std::size_t count);

/// Pixels in the components of the file's mode to R, G, B, A, floats between each other. Bitmap: 1 is black.
/// Inks: 1 is none, as they are stored; each takes its part of white light, whatever the profile. Lab: D50,
/// to sRGB. Indexed pictures have no components.
void psdComponentsToRgba(
    const PsdHeader& header, const PsdComponents& components, float* rgba, std::size_t count);

/// Bytes of three planes, and of a fourth one for alpha (null: opaque), between each other; divided by 255,
/// or packed as 0xAARRGGBB.
void psdBytesToRgba(const std::uint8_t* const (&planes)[4], float* rgba, std::size_t count);
void psdBytesToPacked(const std::uint8_t* const (&planes)[4], std::uint32_t* argb, std::size_t count);

} // namespace QUtils
