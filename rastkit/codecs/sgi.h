#pragma once

#include "rastkit/export.h"

#include <cstdio>

namespace QUtils {

/// The header of an SGI image file: the first 512 bytes, fields in file order. Stored integers have the most
/// significant byte first.
struct sgi_header_info {
    unsigned short magic; ///< 474.
    char storage; ///< 1: run-length packets.
    char bytesPerChannel;
    unsigned short dimension;
    unsigned short xsize, ysize, zsize; ///< Width, height and channels.
    long minValue, maxValue, dummy; ///< Without sign, 0 to 4294967295, as is the next but one.
    char name[80];
    long colormapId;
};

/// Describes a verbatim file of four channels of 8 bits, whose name field holds the first 80 bytes of `name`,
/// without a terminator when these are not enough for one. Of sizes the low 16 bits count.
RASTKIT_API void initSGIHeaderInfo(sgi_header_info& header, int xsize, int ysize, const char* name);

/// Reads a header from where the stream stands. Bytes that are missing read as 0, and so does `magic` then.
/// 0, and the stream stays as it is, when it is null or at its end; else 1.
RASTKIT_API int readSGIHeaderInfo(std::FILE* file, sgi_header_info& header);

/// Writes a header to where the stream stands. 0 when the stream is null or at its end, else 1, whether or
/// not the bytes could be written.
RASTKIT_API int writeSGIHeaderInfo(std::FILE* file, const sgi_header_info& header);

/// Decode one row of one channel, which is stored from `offset` in the file on, to `xsize` samples of 0 to
/// 255: of 16-bit samples the first byte. Bytes past the end of the file read as 0xFF. The second function
/// decodes run-length packets, which all have one control byte; a packet that goes past the row is cut, and
/// what a row lacks that ends early is 0. The stream is left behind what was read.
RASTKIT_API void readSGIrow(
    std::FILE* file, const sgi_header_info& header, int offset, unsigned int* samples);
RASTKIT_API void readSGIrowCompressed(
    std::FILE* file, const sgi_header_info& header, int offset, unsigned int* samples);

} // namespace QUtils

using QUtils::initSGIHeaderInfo;
using QUtils::readSGIHeaderInfo;
using QUtils::readSGIrow;
using QUtils::readSGIrowCompressed;
using QUtils::sgi_header_info;
using QUtils::writeSGIHeaderInfo;
