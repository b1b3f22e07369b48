#pragma once

#include "rastkit/buffers.h"
#include "rastkit/types.h"

namespace QUtils {

// Writing as every other program reads it (Conventions::Standard), with every failure reported.
//
// Exported for the programs of this project; the header is not installed.

/// Writes an image in the format with that index (see `getSupportedFormatsList`), whatever the name's
/// extension. Alpha is written where the format has it and a pixel is not opaque. A failure leaves a
/// partial file behind; see AtomicFile.
/// The samples of an ImageF keep as much as the format can hold: 16 bits where that is the most it has, or
/// where they are all multiples of 1 / 65535; else floats. 8-bit formats round.
/// Errors: IMGERR_UNSUPPORTED this build does not write the format, or the format has no place for the
/// image's size; else the writer's own.
RASTKIT_API ImgError saveStandard(const char* fileName, int formatIndex, const Image8& image);
RASTKIT_API ImgError saveStandard(const char* fileName, int formatIndex, const ImageF& image);

/// Whether this build writes the format with that index.
RASTKIT_API bool writesStandard(int formatIndex);

} // namespace QUtils
