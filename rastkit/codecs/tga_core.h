#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The Targa codec with the conventions said. LoadTGAHeader, LoadTGAFile and SaveTGAFile_pb are these with
// Conventions::Renderer, the last one with the image type of the process-wide settings.

ImgError loadTgaHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadTga(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
/// `imageType`: 2 uncompressed, 10 run-length packets. The standard conventions answer IMGERR_UNSUPPORTED,
/// before the file is touched, to other types and to sizes that the format has no place for.
ImgError saveTga(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    int imageType, Conventions conventions);

} // namespace QUtils
