#pragma once

#include "rastkit/types.h"

#include <cstdio>

/// Decodes the DirectDraw Surface file that begins where `file` stands: the largest level of its first face
/// or slice. Formats of up to 8 bits a channel become packed pixels, all others float ones. With a null
/// `buffer` only `info` is filled; `info` may be null and is filled on success: 32 bits, 4 channels and 4
/// bytes a pixel for packed pixels, 128, 4 and 16 for floats. The rest of a file is read by
/// `DDS_ReadSurface`.
/// Returns 0; 1 the file ends too soon, the pixels before are stored; 2 a header or size that cannot be; 3 a
/// pixel format that is not decoded; 4 the sink is not valid after `init`; 5 no memory.
RASTKIT_API int DDS_LoadFile(std::FILE* file, ImgBuffer* buffer, IMGINFO* info);

namespace QUtils {
using ::DDS_LoadFile;
} // namespace QUtils
