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

/// Fills width, height, bitsPerPixel (32), numChannels (4) and bytesPerPixel (4) of `info` (may be null) from
/// the header of a Photoshop file, PSD or PSB.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT no such header.
RASTKIT_API ImgError LoadPSDHeader(const char* fileName, IMGINFO* info);

/// Decodes a Photoshop file into `buffer` as float pixels, alpha not multiplied in. `psdLayerArg1` names what
/// to show: nothing (or null) the merged picture, else `Name` or `Group/Name` that layer or group alone;
/// `psdLayerArg2` an extra channel that replaces alpha: see PSD_LoadFile. `info` (may be null) is filled on
/// success, as by `LoadPSDHeader`. What the sink answers from `isValid` is not looked at.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT no Photoshop file, or no layer or channel of that name; IMGERR_READ cut
/// or broken data; IMGERR_UNSUPPORTED; IMGERR_LIBRARY memory was refused. The sink is untouched then.
/// Source: Adobe's published Photoshop file format.
RASTKIT_API ImgError LoadPSDFile(const char* fileName, const char* psdLayerArg1, const char* psdLayerArg2,
    ImgBuffer& buffer, IMGINFO* info);

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

/// Fills width, height, bitsPerPixel and numChannels from the headers of a bitmap of 24 or 32 bits; all else
/// in `info` (may be null) becomes 0. Sizes are the low 16 bits of the file's, with their sign. Errors:
/// IMGERR_OPEN; IMGERR_READ short headers; IMGERR_FORMAT no bitmap; IMGERR_UNSUPPORTED encoded pixels, any
/// other depth, also those that have a palette and are loaded.
RASTKIT_API ImgError LoadBMPHeader(const char* fileName, IMGINFO* info);

/// Decodes an uncompressed Windows bitmap of 1, 4, 8, 24 or 32 bits into `buffer` as packed pixels. Palette
/// entries keep their reserved byte as alpha, which is mostly 0, and 32 bits their fourth byte. The lowest
/// bit of a byte is the leftmost of its eight pixels. A file with the top row first stores nothing. `info`
/// (may be null) is filled before the pixels are read, as by `LoadBMPHeader`; numChannels is bits / 8.
/// Errors: as `LoadBMPHeader`; IMGERR_UNSUPPORTED also for palettes of more than 256 colours; IMGERR_READ cut
/// off, the rows before that are stored; IMGERR_MEMORY.
RASTKIT_API ImgError LoadBMPFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// The same into an array of width x height words 0xAARRGGBB of the caller's, by an older reader: compression
/// is not looked at, 24 and 32 bits are opaque, 8 bits too where the reserved byte is 0; files of 1 and 4
/// bits are IMGERR_READ. `info` (may be null) is filled on success. Errors: as above, but none for
/// compression; IMGERR_UNSUPPORTED also for a number of planes other than 1.
RASTKIT_API ImgError LoadBMPFile(const char* fileName, unsigned int* pixels, IMGINFO* info);

/// These answer IMGERR_READ to every bitmap: the renderer does not load them from memory.
/// Errors: IMGERR_READ; IMGERR_MEMORY "Can't read NULL BMP data" when `data` is null or `size` 0.
RASTKIT_API ImgError LoadBMPArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info);
RASTKIT_API ImgError LoadBMPArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info);

/// Fills width, height, bitsPerPixel 32, numChannels 4 and bytesPerPixel 16 (`info` may be null) from the
/// header of a Radiance HDR file. Errors: IMGERR_OPEN; IMGERR_READ for all that is wrong with the header;
/// IMGERR_MEMORY.
RASTKIT_API ImgError LoadHDRHeader(const char* fileName, IMGINFO* info);

/// Decodes a Radiance HDR file, run-length encoded in either form or flat, into `buffer` as opaque float
/// pixels. Every file is taken for one that goes from the top left to the right; one with columns first is
/// IMGERR_FORMAT. XYZ is not converted. `info` is filled before the pixels are read.
/// Errors: IMGERR_OPEN; IMGERR_FORMAT; IMGERR_READ cut or broken, the scanlines before that are stored;
/// IMGERR_MEMORY. Source: Radiance File Formats.
RASTKIT_API ImgError LoadHDRFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

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

/// Fills width, height, numChannels and bitsPerPixel of `info` (may be null) from the header of an SGI file
/// and clears the others. Nothing but the magic number is checked, and what is missing of the header counts
/// as 0. Errors: IMGERR_OPEN; IMGERR_FORMAT.
RASTKIT_API ImgError LoadSGIHeader(const char* fileName, IMGINFO* info);

/// Decodes an SGI file of 1, 3 or 4 channels into `buffer` as packed pixels, opaque where there is no fourth
/// channel; of 16-bit samples the upper byte. Files of 2 or more than 4 channels give transparent black.
/// Missing bytes are 0xFF, and no failure. `info` (may be null) is filled as by `LoadSGIHeader`, before the
/// pixels are read, but sizes of 32768 and above come out negative. Errors: IMGERR_OPEN; IMGERR_FORMAT;
/// IMGERR_MEMORY. Source: The SGI Image File Format, 1.00.
RASTKIT_API ImgError LoadSGIFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// Fills width, height, numChannels, bitsPerPixel and bytesPerPixel of `info` (may be null) from the header
/// of a Softimage PIC file: as many channels as its packets name, of 8 bits. When the packets are refused,
/// the first two alone. Errors: as `LoadPICFile`.
RASTKIT_API ImgError LoadPICHeader(const char* fileName, IMGINFO* info);

/// Decodes a Softimage PIC file of 8-bit channels into `buffer` as packed pixels. A channel that no packet
/// has is 0, alpha included: such files are transparent. A sink that is not valid after `init` is not an
/// error here. `info` (may be null) is filled as by `LoadPICHeader`, before the pixels are read. After a
/// failure the rows before it are stored. Errors: IMGERR_OPEN; IMGERR_FORMAT; IMGERR_READ the file ends in
/// the header or later, or a run does not fit into its row; IMGERR_UNSUPPORTED other depths, compressions or
/// channels; IMGERR_MEMORY; an ImgErrorCode that the sink throws.
RASTKIT_API ImgError LoadPICFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);
/// Fills width, height, bitsPerPixel, numChannels and bytesPerPixel of `info` (may be null) from the header
/// of a DirectDraw Surface file, as `LoadDDSFile` does. Errors: IMGERR_OPEN; IMGERR_READ cut header;
/// IMGERR_FORMAT no DDS file or a size that cannot be; IMGERR_UNSUPPORTED a pixel format that is not decoded.
RASTKIT_API ImgError LoadDDSHeader(const char* fileName, IMGINFO* info);

/// Decodes the largest level of the first face or slice of a DirectDraw Surface file into `buffer`: formats
/// of up to 8 bits a channel as packed pixels (32 bits, 4 channels and 4 bytes a pixel in `info`), all
/// others, BC6H among them, as float pixels (128, 4 and 16). Signed bytes are moved up by 128. sRGB bytes and
/// premultiplied colours are delivered as stored. `info` may be null and is filled on success.
/// Errors: as `LoadDDSHeader`; IMGERR_READ cut data, the pixels before the cut are stored; IMGERR_LIBRARY the
/// sink is not valid, or memory was refused. Source: Microsoft, DDS file layout and Direct3D 11 block
/// compression; ARB_texture_compression_bptc.
RASTKIT_API ImgError LoadDDSFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// Fills all fields of `info` (may be null) from an OpenEXR file's header; they are all 0 when it cannot be
/// read. Channels named R, G, B, A and Y count, in either case: numChannels is 1 or 2 (with A) for Y without
/// colours, else 3 or 4; bitsPerPixel is 16 or 32 times as much; bytesPerPixel is 0. The size is that of the
/// data window. Of a file of several parts it is the first.
/// Errors: IMGERR_READ for everything, with one line on standard error that says what it is.
RASTKIT_API ImgError LoadEXRHeader(const char* fileName, IMGINFO* info);

/// Decodes an OpenEXR file into `buffer` as float pixels, (0, 0) being the corner of the data window: R, G, B
/// and A, or Y, Y, Y and A. Only upper-case names are read; a channel that the file has not is 0, A is 1. Of
/// mip-mapped files it is the largest level. `info` (may be null) is filled as by `LoadEXRHeader`, before the
/// pixels are read; it stays as it is when the file cannot be opened.
/// Errors: IMGERR_READ with one line on standard error, also when the sink throws, whose storage is released
/// then; deep files too. IMGERR_MEMORY.
RASTKIT_API ImgError LoadEXRFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info);

/// The same into an array of width x height words 0xAARRGGBB of the caller's: colours times 256, cut to 255;
/// alpha is its whole number, so that an opaque pixel has 1 in the top byte. Files of luminance and chroma
/// become coloured here.
RASTKIT_API ImgError LoadEXRFile(const char* fileName, unsigned int* pixels, IMGINFO* info);

/// Decodes a level of a tiled OpenEXR file (0 is the largest) into `buffer` as float pixels, as a square: its
/// height is cut to its width, or filled up with zeros. `info` (may be null) gets the size (its low 16
/// bits), 32 bits per pixel and 4 channels once the level is read.
/// Errors: as `LoadEXRFile`, IMGERR_READ also for a file without tiles or without that level.
RASTKIT_API ImgError LoadEXRLevel(const char* fileName, ImgBuffer& buffer, IMGINFO* info, int level);

/// The content hash in an OpenEXR file's attribute "comments", as `getImageSHATag` copies it; 0 when there
/// is none. Prints nothing.
RASTKIT_API int LoadEXRSHA(const char* fileName, char* out, int outSize);
