#pragma once

#include "qutils/export.h"

#include <cstdio>

namespace QUtils {

/// Bits of `rgbe_header_info::valid`.
enum {
    RGBE_VALID_PROGRAMTYPE = 0x01,
    RGBE_VALID_GAMMA = 0x02,
    RGBE_VALID_EXPOSURE = 0x04,
};

/// What the text header of a Radiance picture says besides its size.
struct rgbe_header_info {
    int valid; ///< Which of the others it says.
    char programtype[16]; ///< What follows "#?" in the first line.
    float gamma, exposure;
};

// Radiance pictures: a text header, then scanlines of pixels of three mantissas and a common exponent e. The
// value of a sample is mantissa x 2^(e - 136), nothing added; e = 0 is black. Pixels are three floats red,
// green, blue. The routines leave the stream behind what they read or wrote. All give 0 on success, -1 else.
// Source: Radiance File Formats, "Picture File Format".

/// Reads the text header and the resolution line. Any signs are accepted, Y first; X first is a failure.
/// The format may be 32-bit_rle_rgbe, which is also what no format means, or 32-bit_rle_xyze. `info` may be
/// null.
QUTILS_API int RGBE_ReadHeader(std::FILE* file, int* width, int* height, rgbe_header_info* info);

/// Writes "#?" and the program type (RGBE where there is none), gamma and exposure if valid, the format, an
/// empty line and "-Y height +X width". `info` may be null.
QUTILS_API int RGBE_WriteHeader(std::FILE* file, int width, int height, rgbe_header_info* info);

/// Reads `numScanlines` scanlines of `scanlineWidth` pixels into `data`, run-length encoded in the new or the
/// old form, or flat. The last argument means nothing.
QUTILS_API int RGBE_ReadPixels_RLE(
    std::FILE* file, float* data, int scanlineWidth, int numScanlines, int reserved);

/// Writes pixels flat: mantissas are truncated; negative samples and NaN are 0, too large ones the largest,
/// and a pixel without a sample of at least 1e-32 is black.
QUTILS_API int RGBE_WritePixels(std::FILE* file, float* data, int numPixels);

} // namespace QUtils

using QUtils::rgbe_header_info;
using QUtils::RGBE_ReadHeader;
using QUtils::RGBE_ReadPixels_RLE;
using QUtils::RGBE_WriteHeader;
using QUtils::RGBE_WritePixels;
