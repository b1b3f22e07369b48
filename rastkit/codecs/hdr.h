#pragma once

#include "rastkit/types.h"

#include <cstdio>

namespace QUtils {

/// Writes the header that all of this library's Radiance files have: program type RGBE, gamma and exposure 1.
/// Errors: IMGERR_WRITE.
RASTKIT_API ImgError PrepareAndWriteHDRHeader(std::FILE* file, int width, int height);

} // namespace QUtils

using QUtils::PrepareAndWriteHDRHeader;
