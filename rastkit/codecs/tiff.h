#pragma once

#include "rastkit/types.h"

/// libtiff's handle, as its own header declares it.
typedef struct tiff TIFF;

namespace QUtils {

/// Opens a TIFF file: TIFFOpen without mapping the file into memory, with reads and writes in large blocks
/// and with a limit on what libtiff allocates at once. Modes are libtiff's ("r", "w", "w8" …). The handle is
/// closed by TIFFClose. Null on failure, with the reason in errno: EINVAL for what is no TIFF file.
RASTKIT_API TIFF* my_TIFFOpen(const char* name, const char* mode);

/// Silences libtiff's messages for the whole process, once. Every TIFF function of this library calls it.
RASTKIT_API void LibTIFF_StopWarnings();

} // namespace QUtils

using QUtils::LibTIFF_StopWarnings;
using QUtils::my_TIFFOpen;
