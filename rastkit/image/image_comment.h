#pragma once

#include "rastkit/export.h"

#include <string>

namespace QUtils {

/// The comment in an OpenEXR file (attribute "comments") or a TIFF file (tag 270); empty when there is none,
/// or no such file.
///
/// Exported for the programs of this project; the header is not installed. Throws std::bad_alloc.
RASTKIT_API std::string readImageComment(const char* fileName);

} // namespace QUtils
