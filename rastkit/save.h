#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/types.h"

namespace QUtils {

class RawImageSettingsInterface;

/// Bits of the `flags` that travel from the image writer to every file writer.
enum SaveFlags {
    SAVE_SKIP_ALPHA_CHANNELS = 0x2, ///< Writing every channel: leave out the channels 2 and 125.
    SAVE_ADD_FRAME_NUMBER = 0x4,
    SAVE_NO_ALPHA_PAIRING = 0x8, ///< Do not pair an alpha channel with the others.
    SAVE_SKIP_COLOR_126 = 0x20, ///< Writing every channel: leave out the channels 126.
    SAVE_EXR_INTEGER = 0x40, ///< OpenEXR: an integer channel becomes one UINT channel.
    SAVE_EXR_CORRECTED = 0x80, ///< OpenEXR: take colour-corrected pixels where the frame offers them.
    SAVE_EXR_MULTI_CHANNEL = 0x100, ///< OpenEXR: all channels in one file.
    SAVE_CORRECTION_MODE_0 = 0x200, ///< Others: ask for corrected pixels with mode 0 instead of 3.
};

} // namespace QUtils

// Writing images. The functions write in place: a failed one leaves a partial file behind.
//
// Packed pixels are width x height values 0xAARRGGBB, float pixels width x height x 4 values R, G, B, A,
// both row after row from the top.

/// Writes packed pixels in the format of the name's extension.
/// Errors: IMGERR_UNSUPPORTED unknown extension, or a format that takes no packed pixels; else the
/// writer's own.
RASTKIT_API ImgError SaveImageFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes float pixels: unclamped to a name that ends in .exr or .hdr, converted by `CreateUInt32FromFloat`
/// to all others. OpenEXR's writer takes the first of them for blue: red and blue are exchanged in the file.
/// Errors: as for packed pixels, IMGERR_MEMORY, the writers' own.
RASTKIT_API ImgError SaveImageFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes the channel at position `channel` of a frame; a negative `alphaChannel` means no alpha.
/// `formatIndex` is a row of the format list, or -1 for the name's own.
/// Errors: IMGERR_UNSUPPORTED; else the writer's own.
RASTKIT_API ImgError SaveImageFile(const char* fileName, QUtils::PixelBufferInterface& buffer, int channel,
    int alphaChannel, int formatIndex, int flags);

/// The same with no flags.
RASTKIT_API ImgError SaveImageFile(const char* fileName, QUtils::PixelBufferInterface& buffer, int channel,
    int alphaChannel, int formatIndex);

/// Writes every channel of a frame to a file of its own, named by `SaveImageFile_getFilename`; folders are
/// made where names ask for them. A channel that fails does not stop the others.
/// Errors: IMGERR_WRITE when any channel failed.
RASTKIT_API ImgError SaveImageFile_allChannels(const char* fileName, QUtils::PixelBufferInterface& buffer,
    int formatIndex, int frame, char divider, int numDigits, bool separateFolder, int flags,
    bool nameColorChannel);

/// Writes all raw channels to one quimg or OpenEXR file; everything comes from `settings`, and `buffer`
/// is not used. The name, with its frame number, is cut to 511 bytes.
/// Errors: IMGERR_UNSUPPORTED unless the name is one of those formats'; else `SaveQUIMGFile`'s or
/// `SaveEXRFile`'s.
RASTKIT_API ImgError SaveImageFile_multiChannel(const char* fileName,
    QUtils::RawImageSettingsInterface* settings, QUtils::PixelBufferInterface* buffer, bool addFrameNumber,
    int frame, int numDigits);

/// Writes the raw output that `settings` (not null) holds, all channels, as a quimg, which keeps every sample
/// as it was rendered (RIFile), or as one multi-channel OpenEXR file (ExrFile). Without region data the file
/// has its headers only; OpenEXR's lines are zero then. Errors, each with a text: -3 the file, resolution,
/// regions or scene; -4 channels or pixels, when a row is refused too; -5 the camera.
RASTKIT_API ImgError SaveQUIMGFile(const char* fileName, QUtils::RawImageSettingsInterface* settings);
RASTKIT_API ImgError SaveEXRFile(const char* fileName, QUtils::RawImageSettingsInterface* settings);

/// Copies `fileName` to `out` (at most `outSize` bytes), with the frame number if asked for.
RASTKIT_API void SaveImageFile_getFilename(
    const char* fileName, bool addFrameNumber, int frame, int numDigits, char* out, int outSize);

/// Builds the name of one channel's file: the divider and the channel's name before the extension (not for
/// the colour channels 1 and 126, unless `separateFolder` and `nameColorChannel` ask for "rgba"), a folder
/// named after the channel, a frame number. Returns 1 when the name may hold a folder that the caller must
/// make, else 0.
RASTKIT_API int SaveImageFile_getFilename(const char* fileName, const QUtils::PixelBufferChannelInfo& channel,
    char divider, bool addFrameNumber, int frame, int numDigits, char* out, int outSize, bool separateFolder,
    bool nameColorChannel);

/// Turns float pixels into packed ones: v x 255, clamped to 0..255 (NaN is 0) and truncated.
/// `out` becomes a copy of `in` with 32 bits, 4 channels and 4 bytes a pixel. The caller releases the
/// array with `free`. Null, with `out` untouched, when memory is refused or a size is negative.
RASTKIT_API unsigned int* CreateUInt32FromFloat(IMGINFO in, float* pixels, IMGINFO& out);

/// Writes an RGBA PNG file of 8 bits a channel. `info` is not null; its bitsPerPixel must be 8 for each of
/// its numChannels, whatever their number: `pixels` has one word a pixel. Errors: IMGERR_OPEN; IMGERR_LIBRARY
/// another depth, a size below 1, or a failure that libpng met; IMGERR_WRITE what shows only at the end;
/// IMGERR_MEMORY.
RASTKIT_API ImgError SavePNGFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes nothing: this writer takes no float pixels.
/// Errors: IMGERR_UNSUPPORTED, always.
RASTKIT_API ImgError SavePNGFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes one channel of a frame as a PNG file, RGB or with alpha RGBA, in the bits a channel and with the
/// compression level that `PngSettingsInterface` sets (8 or 16, 0 to 9).
/// Errors: IMGERR_OPEN; IMGERR_LIBRARY other settings, a size below 1, or a failure that libpng met;
/// IMGERR_MEMORY; IMGERR_WRITE the frame refused a row, or what shows only at the end.
RASTKIT_API ImgError SavePNGFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int rgbChannel, int alphaChannel, int flags);

/// Writes an uncompressed Targa file: `pixels` goes out as it lies in memory, `info->bytesPerPixel` bytes a
/// pixel (3: packed blue, green, red; 4: packed 0xAARRGGBB words). `info` is not null. The format keeps 16
/// bits of each size: larger ones lose the others, without an error.
/// Errors: IMGERR_OPEN; IMGERR_WRITE. Source: Truevision TGA 2.0, image type 2.
RASTKIT_API ImgError SaveTGAFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes nothing: Targa takes no float pixels.
/// Errors: IMGERR_UNSUPPORTED, always.
RASTKIT_API ImgError SaveTGAFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes one channel of a frame as a Targa file of 24 bits, or 32 with alpha; uncompressed or run-length
/// encoded as `TgaSettingsInterface::setTgaCompression` says (2 or 10; any other value writes the header
/// alone).
/// Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE.
RASTKIT_API ImgError SaveTGAFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);

/// Writes packed pixels as an uncompressed bitmap of 24 bits; alpha is left out. Of `info` (not null) width
/// and height count. What cannot be written is not reported. Errors: IMGERR_OPEN; IMGERR_MEMORY.
RASTKIT_API ImgError SaveBMPFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes nothing: bitmaps take no float pixels.
/// Errors: IMGERR_UNSUPPORTED, always.
RASTKIT_API ImgError SaveBMPFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes one channel of a frame as an uncompressed bitmap of 24 bits; `alphaChannel` is ignored, and what
/// cannot be written is not reported. Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE the frame refused a
/// row.
RASTKIT_API ImgError SaveBMPFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int rgbChannel, int alphaChannel, int flags);

/// Writes pixels of three floats red, green, blue as a flat Radiance HDR file; mantissas are truncated. Of
/// `info` (not null) width and height count. What cannot be written of the pixels is not reported.
/// `SaveImageFile` hands its pixels of four floats over as they are, which this function does not know.
/// Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE the header.
RASTKIT_API ImgError SaveHDRFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes the colours of one channel of a frame in the same way; `alphaChannel` and `flags` are ignored.
/// Errors: as above; IMGERR_WRITE also when the frame refused a row.
RASTKIT_API ImgError SaveHDRFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);

/// Writes packed pixels as a JPEG file of three components and quality 85; alpha is left out. Of `info` (not
/// null) width and height count, 1 to 65500 each.
/// Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE, other sizes included. Source: ITU-T T.81.
RASTKIT_API ImgError SaveJPGFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes nothing: JPEG takes no float pixels.
/// Errors: IMGERR_UNSUPPORTED, always.
RASTKIT_API ImgError SaveJPGFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes one channel of a frame as a JPEG file of three components, of the quality that
/// `JpegSettingsInterface::setJpegQuality` says; `alphaChannel` is ignored.
/// Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE, sizes below 1 and above 65500 included.
RASTKIT_API ImgError SaveJPGFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int rgbChannel, int alphaChannel, int flags);

/// Writes packed pixels as a verbatim SGI file of four channels of 8 bits, bottom row first. Of `info` (not
/// null) width and height count, their low 16 bits in the header. A file that cannot be written to is not
/// told of. Errors: IMGERR_OPEN; IMGERR_MEMORY. Source: The SGI Image File Format, 1.00.
RASTKIT_API ImgError SaveSGIFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes one channel of a frame as a verbatim SGI file of three channels, or four with alpha, of 16 bits if
/// `SgiSettingsInterface` says so, else of 8. The frame is asked for every row once for each of them. A file
/// that cannot be written to is not told of. Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE a refused row.
RASTKIT_API ImgError SaveSGIFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);

/// Writes packed pixels as a Softimage PIC file of two packets of runs, colours and alpha. Red and blue are
/// exchanged in the file. Of `info` (not null) width and height count, their low 16 bits in the header.
/// Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE.
RASTKIT_API ImgError SavePICFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes one channel of a frame as a Softimage PIC file: like packed pixels, always with alpha, and with red
/// and blue exchanged. Errors: as those, IMGERR_WRITE also for a refused row, and an ImgErrorCode that the
/// frame throws.
RASTKIT_API ImgError SavePICFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);

/// Writes packed pixels as an uncompressed TIFF file of four 8-bit samples. Red and blue are exchanged in the
/// file: its samples are blue, green, red and alpha of each pixel. `info` is not null; its width and height
/// count. Errors: IMGERR_OPEN; IMGERR_WRITE, also for a size below 1 and for files over 4 GiB. Source:
/// TIFF 6.0.
RASTKIT_API ImgError SaveTIFFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// Writes one channel of a frame as an uncompressed TIFF file of three samples, or four with alpha: unsigned
/// of 8 or 16 bits, or floats, plane by plane or interleaved, as `TiffSettingsInterface` says. No exception
/// of the frame passes through. Errors: IMGERR_OPEN; IMGERR_MEMORY; IMGERR_WRITE, also for exceptions, a size
/// below 1 and files over 4 GiB.
RASTKIT_API ImgError SaveTIFFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);

/// Writes packed pixels as an OpenEXR file of four half channels with PIZ compression: each byte times 1/255.
/// Of `info` (not null) width and height count. No exception passes through.
/// Errors: IMGERR_MEMORY; IMGERR_WRITE, also for a file that cannot be made and for sizes below 1.
RASTKIT_API ImgError SaveEXRFile(const char* fileName, IMGINFO* info, unsigned int* pixels);

/// The same of float pixels, whose order here is blue, green, red, alpha, as that of a packed word's bytes:
/// through `SaveImageFile`, which takes red first, red and blue come out exchanged.
RASTKIT_API ImgError SaveEXRFile(const char* fileName, IMGINFO* info, float* pixels);

/// Writes one channel of a frame as an OpenEXR file of the channels R, G, B, and A where `alphaChannel` is
/// not negative, of floats or halfs, compressed and with the attributes as `ExrSettingsInterface` says.
/// `flags`: SAVE_EXR_INTEGER writes an integer channel as one of 32-bit numbers, under its own name;
/// SAVE_EXR_CORRECTED takes a channel of the type 113 colour-corrected where the frame's plug-in offers that.
/// With threads (`setThreadCount`) some more rows are held; they are asked for one by one, in order. When one
/// is refused the file has all chunks that were complete before it.
/// No exception passes through, the frame's included; what it says goes to standard error.
/// Errors: IMGERR_MEMORY; IMGERR_WRITE, also for a file that cannot be made and for sizes below 1.
RASTKIT_API ImgError SaveEXRFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int alphaChannel, int flags);
