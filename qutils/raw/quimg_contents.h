#pragma once

#include "qutils/core/error_code.h"
#include "qutils/raw/quimg_file.h"
#include "qutils/raw/quimg_format.h"

#include <cstdint>

namespace QUtils::quimg {

/// What a file holds.
struct Contents {
    Frame frame;
    bool isClosed = false; ///< It ends with a valid index.
    std::uint64_t dataEnd = 0; ///< Behind the last complete chunk, and before the index of a closed file.
};

/// Reads the headers and finds the regions: by the index where the file has a valid one, else chunk by chunk,
/// and then only regions count whose checksums hold. `name` and `function` are for the error. Errors:
/// RIERR_FORMAT, RIERR_READ.
ErrorCode readContents(const InputFile& file, const char* name, const char* function, Contents& contents);

/// Reads all regions that the frame has, and takes those that are damaged or cannot be read out of it. 0, or
/// the error number of the first that the system could not read.
int verifyRegions(const InputFile& file, Frame& frame);

/// Reads what a region chunk says of its blocks. False when the chunk is damaged or belongs to another cell,
/// or when it cannot be read (with the reason in errno; else that is 0).
bool readRegionHead(const InputFile& file, const Place& place, int cell, const Frame& frame, RegionHead& head,
    Bytes& scratch);

} // namespace QUtils::quimg
