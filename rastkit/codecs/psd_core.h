#pragma once

#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The Photoshop codec with the conventions said. LoadPSDHeader and LoadPSDFile are these with
// Conventions::Renderer.

ImgError loadPsdHeader(const char* fileName, IMGINFO* info, Conventions conventions);
/// The merged picture.
ImgError loadPsd(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
/// `layer` and `alphaChannel` as in LoadPSDFile.
ImgError loadPsd(const char* fileName, const char* layer, const char* alphaChannel, ImgBuffer& buffer,
    IMGINFO* info, Conventions conventions);

} // namespace QUtils
