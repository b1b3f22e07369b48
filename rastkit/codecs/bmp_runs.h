#pragma once

#include "rastkit/codecs/bmp_input.h"
#include "rastkit/codecs/bmp_layout.h"
#include "rastkit/model/row_sink.h"

namespace QUtils {

/// Reads run-length encoded indices of 4 or 8 bits (BI_RLE4, BI_RLE8) from where `in` stands. What runs leave
/// out has the palette's first colour, what goes past the end of a row is cut, and an end that is missing
/// behind the last pixel does no harm.
/// Memory: one row, at most 256 KiB.
/// Errors: IMGERR_READ cut off; the pixels before that are stored. IMGERR_MEMORY.
ImgErrorCode readBmpRuns(BmpInput& in, const BmpLayout& layout, RowSink& sink);

} // namespace QUtils
