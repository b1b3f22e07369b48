#pragma once

#include "rastkit/codecs/tiff.h"
#include "rastkit/codecs/tiff_tags.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

/// Whether readTiffColorMap finds a map, and setupTIFPalette therefore leaves the handle open.
bool hasTiffColorMap(TIFF* tiff);

/// The file's colour map as the colours of indices of `bits` bits, at most 16. Those that the map lacks are
/// black. IMGERR_FORMAT: there is no map; IMGERR_MEMORY.
///
/// Maps of 8-bit numbers, which some writers put where 16 bits belong, are black to the renderer. By the
/// standard's conventions they are told by having no other numbers and are scaled.
ImgErrorCode readTiffColorMap(TIFF* tiff, unsigned bits, Conventions conventions, Table<Color, 100>& palette);

/// The colours of an image with a palette; nothing for all others. IMGERR_FORMAT: it has no map;
/// IMGERR_MEMORY.
ImgErrorCode readTiffPalette(
    TIFF* tiff, const TiffTags& tags, Conventions conventions, Table<Color, 100>& palette);

} // namespace QUtils
