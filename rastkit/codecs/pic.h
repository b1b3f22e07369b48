#pragma once

#include "qutils/core/table.h"
#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <cstdio>

namespace QUtils {

/// One packet of a Softimage PIC file: some channels of all pixels, row by row.
struct PICChannel {
    unsigned char bitsPerChannel; ///< 8.
    unsigned char compressionType; ///< 0 none, 1 runs, 2 runs and literal pixels.
    unsigned char channelMask; ///< 0x80 red, 0x40 green, 0x20 blue, 0x10 alpha.
};

/// Reads a header and its packets and leaves the stream at the first pixel's byte. Fills width and height of
/// `info` (not null) and, when the packets name channels that there are, numChannels, bitsPerPixel and
/// bytesPerPixel. Errors: IMGERR_READ the file ends; IMGERR_FORMAT; IMGERR_UNSUPPORTED; IMGERR_MEMORY.
ImgErrorCode LoadPICHeader_common(std::FILE* file, IMGINFO* info, Table<PICChannel, 100>& channels);

/// Writes a packet's row of `width` words as runs and literal pixels. `shifts` are the places in a word of
/// the bytes that each pixel has in the file, in their order. Throws IMGERR_WRITE or IMGERR_MEMORY, an
/// ImgErrorCode.
void write_pic_line_mixed_rle(std::FILE* file, unsigned int* row, int width, int* shifts, int numShifts);

// The codec with the conventions said. LoadPICHeader, LoadPICFile and SavePICFile_pb are these with
// Conventions::Renderer.

ImgError loadPicHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadPic(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
/// The standard conventions write alpha only where `alphaChannel` is not negative, and answer
/// IMGERR_UNSUPPORTED, before the file is touched, to sizes that the format has no place for.
ImgError savePic(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    Conventions conventions);

} // namespace QUtils
