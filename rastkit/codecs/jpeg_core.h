#pragma once

#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The JPEG codec with the conventions said. The functions of load.h are these with Conventions::Renderer.

ImgError loadJpegHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadJpeg(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
ImgError loadJpegArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions);
ImgError loadJpegArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

} // namespace QUtils
