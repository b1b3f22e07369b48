#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The TIFF codec with the conventions said. LoadTIFHeader and LoadTIFFile are these with
// Conventions::Renderer; SaveTIFFile_pb is saveTiff with it and the process-wide settings.

ImgError loadTiffHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadTiff(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

struct TiffSaveOptions {
    int bitsPerChannel = 8; ///< 8 or 16 unsigned, 32 float; every other number means 8.
    bool isInterleaved = true; ///< All samples of a pixel together; else each row plane by plane.
};

/// The standard conventions answer IMGERR_UNSUPPORTED, before the file is touched, to sizes below 1; they say
/// in the file that a fourth sample is alpha, and go on to BigTIFF where 4 GiB are too small.
ImgError saveTiff(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const TiffSaveOptions& options, Conventions conventions);

/// Stores a row of `count` floats as TIFF samples of `bits` bits: clamped to 0..1 (NaN 0), scaled and rounded
/// for 8 and 16, unchanged for 32. Throws ExceptionMsg "How did you get here?!?!" for every other number.
using TiffSampleStore = void (*)(const float* samples, void* stored, std::size_t count);
TiffSampleStore tiffSampleStore(int bits);

} // namespace QUtils
