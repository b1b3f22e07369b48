#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The Radiance codec with the conventions said. The functions of load.h and save.h are these with
// Conventions::Renderer.

ImgError loadHdrHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadHdr(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// The standard conventions answer IMGERR_UNSUPPORTED to sizes below 1, before the file is touched, and
/// report what cannot be written.
ImgError saveHdr(const char* fileName, PixelBufferInterface& frame, int channel, Conventions conventions);

} // namespace QUtils
