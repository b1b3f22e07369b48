#pragma once

#include "qutils/core/table.h"
#include "rastkit/codecs/tiff_strip_decoder.h"
#include "rastkit/types.h"

/// libtiff's handle, as its own header declares it.
typedef struct tiff TIFF;

namespace QUtils {

/// Opens a TIFF file: TIFFOpen without mapping the file into memory, with reads and writes in large blocks
/// and, for reading, with a limit on what libtiff allocates at once. Modes are libtiff's ("r", "w", "w8" …).
/// The handle is closed by TIFFClose. Null on failure, with the reason in errno: EINVAL for what is no TIFF
/// file.
RASTKIT_API TIFF* my_TIFFOpen(const char* name, const char* mode);

/// Silences libtiff's messages for the whole process, once. Every TIFF function of this library calls it.
RASTKIT_API void LibTIFF_StopWarnings();

/// Fills `palette` with the colours that sample values of `bits` bits stand for: black and white for one
/// channel of one bit, a ramp for grey photometrics (falling for 0), the file's colour map for photometric 3.
/// 1 when there are such colours or none are needed, 0 for more than 16 bits and for RGB.
///
/// A file without the colour map that it needs is closed: `tiff` is gone then, although the answer is 1.
/// Whoever wants to keep the handle asks for tag 320 before.
RASTKIT_API int setupTIFPalette(TIFF* tiff, unsigned short photometric, unsigned short bits,
    unsigned short channels, Table<Color, 100>& palette);

} // namespace QUtils

using QUtils::LibTIFF_StopWarnings;
using QUtils::my_TIFFOpen;
using QUtils::setupTIFPalette;
