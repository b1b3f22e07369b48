#pragma once

#include "rastkit/types.h"

#include <cstdint>
#include <cstdio>

namespace QUtils {

/// Where the renderer's reader of bitmaps takes its bytes from: the file, or without one the memory. With
/// neither every read fails.
struct DataReader {
    std::FILE* file;
    /// Has no end: whoever attaches memory vouches for all that its headers ask for.
    const unsigned char* data;
    std::uint64_t position; ///< Of the next read in `data`.
};

/// What LoadBMPHeader and LoadBMPFile do once the file is open; see there. Nothing is closed.
RASTKIT_API ImgError _loadBMPHeaderCommon(DataReader& reader, IMGINFO* info);
RASTKIT_API ImgError _loadBMPCommon(DataReader& reader, ImgBuffer& buffer, IMGINFO* info);

} // namespace QUtils

using QUtils::DataReader;
