#pragma once

#include "rastkit/types.h"

#include <cstdio>

namespace QUtils {

/// Turns one stored Targa value into a packed pixel: 1 byte grey, 3 bytes blue-green-red, 4 bytes with
/// alpha, everything else 0; with a `palette`, the entry whose number is the 1 to 4 bytes, least significant
/// first. 0 for null `bytes`. The number is not compared with the length of the palette: decoders call
/// this only with numbers that are inside it.
RASTKIT_API unsigned int readTGAPixel(
    const unsigned char* bytes, unsigned int bytesPerPixel, const unsigned int* palette);

/// Writes one row of `width` pixels as Targa run-length packets. Runs of three and more become run packets,
/// everything else raw ones, both of at most 128 pixels. A width below 1 writes nothing.
/// Errors: IMGERR_WRITE; IMGERR_MEMORY.
RASTKIT_API ImgError writeTgaRleEncodedRow(std::FILE* file, unsigned char* row, int bytesPerPixel, int width);

} // namespace QUtils

using QUtils::readTGAPixel;
using QUtils::writeTgaRleEncodedRow;
