#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The bitmap codec with the conventions said. The functions of load.h and save.h are these with
// Conventions::Renderer.

ImgError loadBmpHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadBmp(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// The same from memory, which only the standard conventions ever read.
ImgError loadBmpArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions);
ImgError loadBmpArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// The standard conventions answer IMGERR_UNSUPPORTED, before the file is touched, to sizes that the format
/// has no place for, and report what cannot be written.
ImgError saveBmp(
    const char* fileName, PixelBufferInterface& frame, int channel, int flags, Conventions conventions);

} // namespace QUtils
