#pragma once

#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The DirectDraw Surface reader with the conventions said. LoadDDSHeader and LoadDDSFile are these with
// Conventions::Renderer.

ImgError loadDdsHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadDds(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);

} // namespace QUtils
