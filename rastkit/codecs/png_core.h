#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The PNG codec with the conventions said. The functions of load.h and save.h are these with
// Conventions::Renderer, the writer with the compression and the bits of the process-wide settings.

ImgError loadPngHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadPng(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// The same from memory.
ImgError loadPngArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions);
ImgError loadPngArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// `compression`: zlib's level, -1 to 9. `bits`: of each channel, 8 or 16. The standard conventions answer
/// IMGERR_UNSUPPORTED, before the file is touched, to other values and to sizes that cannot be written.
ImgError savePng(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    int compression, int bits, Conventions conventions);

} // namespace QUtils
