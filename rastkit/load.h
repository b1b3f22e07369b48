#pragma once

#include "rastkit/types.h"

// Reading whole images. All functions may run on several threads at once, each with its own sink.
//
// Sinks get pixels with row 0 at the top. A failed load keeps the pixels that were stored before the
// failure, unless the sink itself threw.

/// Fills `info` (not null) with the description of an image, its pixels unread. The reader is picked by
/// the name's extension, and by the contents when that reader fails or the extension is unknown.
/// Errors: IMGERR_OPEN "Failed to open file: no such file"; IMGERR_FORMAT when the contents are none that are
/// recognised, whatever a reader picked by extension answered before; else the answer of the reader that
/// the contents name, IMGERR_UNSUPPORTED for one that this build lacks.
RASTKIT_API ImgError LoadImageHeader(const char* fileName, IMGINFO* info);

/// Loads an image into `buffer`; the reader is picked as in `LoadImageHeader`. `info` may be null.
/// `psdLayer` and `psdAlpha` go to the Photoshop reader; every other reader ignores them.
/// Errors: as `LoadImageHeader`, and IMGERR_MEMORY when the sink is not valid after `init`.
RASTKIT_API ImgError LoadImageFile(
    const char* fileName, const char* psdLayer, const char* psdAlpha, ImgBuffer& buffer, IMGINFO* info);

/// The same with both Photoshop texts null.
RASTKIT_API ImgError LoadImageFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// Copies a content hash, stored as "SHA-1=..." in the file's comment, to `out`: at most 39 characters and
/// a terminator. 1 when there is one; 0 when there is none, when `fileName` or `out` is null, or when
/// `outSize` is at most 40.
RASTKIT_API int getImageSHATag(const char* fileName, char* out, int outSize);

/// A wait in milliseconds that falls linearly from 5000 to just above 300 over each second of the clock,
/// for hosts that retry a texture.
RASTKIT_API int getTextureWait();

/// Fills width, height, bitsPerPixel, numChannels and bytesPerPixel of `info` (not null) from a PNG file, the
/// pixels unread: as the file has them, so that a 1-bit image has 0 bytes.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT not a PNG file or a broken header; IMGERR_UNSUPPORTED an image with a
/// palette; IMGERR_MEMORY; IMGERR_LIBRARY.
RASTKIT_API ImgError LoadPNGHeader(const char* fileName, IMGINFO* info);

/// Decodes a PNG file into `buffer`: images of 16 bits a channel as float pixels, 0 to 1, all others as
/// packed ones. Palettes, transparent values and depths below 8 are expanded; gamma and profiles are ignored.
/// `info` may be null and is filled on success, as the expanded image is.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT not a PNG file, or broken in front of the pixels; IMGERR_READ cut or
/// broken later: the rows that were complete are stored; IMGERR_MEMORY; IMGERR_LIBRARY.
/// Source: PNG Specification, Second Edition.
RASTKIT_API ImgError LoadPNGFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// `LoadPNGHeader` and `LoadPNGFile` for a file of `size` bytes in memory. Of sizes the low 31 bits and a
/// sign count, less the eight bytes of the signature. Errors: as those, but for IMGERR_OPEN; and
/// IMGERR_MEMORY "Can't read NULL PNG data" when `data` is null or `size` 0.
RASTKIT_API ImgError LoadPNGArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info);
RASTKIT_API ImgError LoadPNGArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info);

/// Fills width, height, bitsPerPixel, numChannels and bytesPerPixel (not null) from a Targa file's first 18
/// bytes; nothing else is checked, not even the image type. Sizes of 32768 and above come out negative.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT short header.
RASTKIT_API ImgError LoadTGAHeader(const char* fileName, IMGINFO* info);

/// Decodes a Targa file into `buffer` as packed pixels; `info` may be null and is filled on success
/// (for colour-mapped files bitsPerPixel is the size of a colour-map entry).
/// 15- and 16-bit values are not decoded: they give transparent black.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT short header or an image type other than 1, 2, 3, 9, 10, 11;
/// IMGERR_MEMORY; IMGERR_READ cut data. Source: Truevision TGA 2.0.
RASTKIT_API ImgError LoadTGAFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// Fills width, height and, whatever the file's components are, bitsPerPixel 128, numChannels 4 and
/// bytesPerPixel 16 (`info` is not null) from the header of a JPEG file.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT; IMGERR_MEMORY.
RASTKIT_API ImgError LoadJPGHeader(const char* fileName, IMGINFO* info);

/// Decodes a baseline or progressive JPEG file into `buffer` as packed pixels: grey and coloured ones opaque,
/// of four components (CMYK, YCCK) the first three as red, green and blue and the fourth as alpha, without
/// conversion. A file that is cut behind its header gives all its rows, with what libjpeg makes of the
/// missing ones, and is a success; IMGERR_FORMAT only where so little is left of a large file of several
/// scans that it cannot fill their memory. `info` may be null and is filled on success, and when the sink or
/// the number of components is refused: numChannels counts components, bytesPerPixel is four times as much.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT; IMGERR_MEMORY.
/// Source: ITU-T T.81, as libjpeg reads it.
RASTKIT_API ImgError LoadJPGFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// The same from `size` bytes of memory. Data that is cut is an error here, also behind the header.
/// Errors: IMGERR_MEMORY, for null or empty data with "Can't read NULL JPEG data"; IMGERR_FORMAT.
RASTKIT_API ImgError LoadJPGArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info);
RASTKIT_API ImgError LoadJPGArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info);

/// Fills width, height, bitsPerPixel, numChannels and bytesPerPixel (not null) from the first directory of a
/// TIFF file. Bits per sample count as 8 and samples per pixel as 4 where the file does not say.
/// Errors: IMGERR_OPEN, also for what is no TIFF file; IMGERR_FORMAT no width or height, no samples.
RASTKIT_API ImgError LoadTIFHeader(const char* fileName, IMGINFO* info);

/// Decodes the first image of a TIFF file into `buffer` as float pixels; `info` (may be null) is filled as
/// by `LoadTIFHeader`, before the pixels are read. Grey, RGB with or without alpha, palette and LogLuv
/// images keep the precision of the file: integers of up to 32 and of 64 bits, floats of 32 and 64. All
/// others are converted to 8 bits: alpha is 0, and blue is 1 unless the file has four samples. Orientations 5
/// to 8 are taken for 1 to 4. After a failed strip or tile the sink is released. Errors: IMGERR_OPEN and
/// IMGERR_FORMAT as above; IMGERR_FORMAT no colour map; IMGERR_MEMORY; IMGERR_READ cut or broken data;
/// IMGERR_UNSUPPORTED; an ImgErrorCode that the sink throws. Source: TIFF 6.0.
RASTKIT_API ImgError LoadTIFFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// The content hash in a TIFF file's image description (tag 270), as `getImageSHATag` copies it; 0 when
/// there is none.
RASTKIT_API int LoadTIFSHA(const char* fileName, char* out, int outSize);
