#pragma once

#include "rastkit/export.h"
#include "rastkit/types.h"

#include <cstdint>

namespace QUtils {

/// What an image's samples are. Whole numbers that fit in none of the first two are Float.
enum class SourceSample : std::uint8_t { Byte, Short, Half, Float };

/// The pixels that loadStandard delivers of an image: what holds all that is in them.
struct SourcePixels {
    SourceSample sample = SourceSample::Float;
    int channels = 4; ///< 1 grey, 2 grey and alpha, 3 colour, 4 colour and alpha.
    /// Colours are not multiplied by alpha, as a rule of the format: PNG, TGA, BMP, PSD, DDS.
    bool isStraight = false;

    /// Whole numbers of up to 16 bits, as pictures for screens have them.
    bool isInteger() const { return sample == SourceSample::Byte || sample == SourceSample::Short; }
};

/// Looks at an image's header. The errors of loadHeaderStandard.
///
/// Exported for the programs of this project; the header is not installed.
RASTKIT_API ImgError describeSourcePixels(const char* fileName, SourcePixels& pixels);

} // namespace QUtils
