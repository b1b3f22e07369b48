#pragma once

#include "rastkit/types.h"

#include <ImfHeader.h>

namespace QUtils {

/// Fills all fields of `info` (null: nothing happens) from a header, by the renderer's conventions: colour
/// channels are R, G and B, alpha is A and luminance Y, in upper or lower case.
void loadExrHeader_common(const Imf::Header& header, IMGINFO* info);

} // namespace QUtils
