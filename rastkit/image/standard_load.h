#pragma once

#include "rastkit/types.h"

namespace QUtils {

// Reading as every other program does (Conventions::Standard). The reader is picked as in `LoadImageFile`,
// and so are the errors, but for a file whose contents no reader knows: the reader that its extension names
// tells better what is wrong than "no reader fits".
//
// Exported for the programs of this project; the header is not installed.

/// Fills `info` (not null), the pixels unread, and `type` (may be null) with the format of the reader that
/// succeeded, else IMGTYPE_UNKNOWN.
RASTKIT_API ImgError loadHeaderStandard(const char* fileName, IMGINFO* info, ImgType* type);

/// Loads an image into `buffer`; `info` may be null.
RASTKIT_API ImgError loadStandard(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// Whether this build reads the format.
RASTKIT_API bool readsStandard(ImgType type);

} // namespace QUtils
