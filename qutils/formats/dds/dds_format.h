#pragma once

#include "qutils/formats/dds/dds_header.h"

#include <cstdint>

namespace QUtils {

/// How pixels are stored.
enum class DdsCoding : std::uint8_t {
    Unknown,
    Masked, ///< A word of 1 to 4 bytes, its channels told by masks.
    YuvMasked, ///< The same with luma, blue and red difference in place of red, green and blue.
    Samples, ///< 1 to 4 numbers of 16 or 32 bits.
    Palette8, ///< A byte that counts the entries of a palette of 256.
    R11G11B10F,
    R9G9B9E5,
    R10G10B10XrA2, ///< Extended range: 510 steps from 0 to 1, from -0.75 on.
    CxV8U8, ///< Two signed bytes; the third completes a vector of length 1.
    D24, ///< Depth of 24 bits and 8 more.
    RGBG,
    GRGB,
    YUY2,
    UYVY, ///< Pairs of pixels that share two of their bytes.
    Bc1,
    Bc2,
    Bc3,
    Bc3Rxgb,
    Bc4,
    Bc4Signed,
    Bc5,
    Bc5Signed,
    Bc6,
    Bc6Signed,
    Bc7,
};

/// What the bits of a channel or sample mean.
enum class DdsNumber : std::uint8_t { Unorm, Snorm, Uint, Sint, Float };

/// Everything that decoding needs to know.
struct DdsFormat {
    DdsCoding coding = DdsCoding::Unknown;
    std::uint8_t unitBytes = 0; ///< Of a pixel, a pair or a block.
    std::uint8_t unitWidth = 1, unitHeight = 1; ///< Pixels of a unit.
    bool isFloat = false; ///< Delivered as floats: a channel has more than 8 bits.
    bool isGrey = false; ///< The first channel stands for red, green and blue.
    bool hasAlpha = false;
    bool isSrgb = false, isPremultiplied = false;
    // Palette8:
    bool isPaletteAlphaSaid = false; ///< Otherwise the palette must tell whether it has alpha.
    // Masked:
    std::uint32_t masks[4] = {};
    DdsNumber numbers[4] = {}; ///< Of each channel; the first one counts for Samples.
    // Samples:
    std::uint8_t sampleBytes = 0, sampleCount = 0; ///< In a pixel. Samples behind those are skipped.
};

/// Coding Unknown when the format is none that is decoded.
DdsFormat ddsFormatOf(const DdsHeader& header);

} // namespace QUtils
