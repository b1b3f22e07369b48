#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The JPEG codec with the conventions said. The functions of load.h and save.h are these with
// Conventions::Renderer.

ImgError loadJpegHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadJpeg(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
ImgError loadJpegArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions);
ImgError loadJpegArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

/// `quality`: 1 to 100, cut to that. The format has no alpha. The standard conventions answer
/// IMGERR_UNSUPPORTED, before the file is touched, to sizes that libjpeg does not write.
ImgError saveJpeg(const char* fileName, PixelBufferInterface& frame, int channel, int flags, int quality,
    Conventions conventions);

} // namespace QUtils
