#pragma once

#include "qutils/core/table.h"
#include "rastkit/types.h"

namespace QUtils {

/// A colour of a palette, each component 0 to 1.
struct Color {
    float r, g, b;
};

/// Reads numbers of any size in bits from the decoded bytes of a strip or a tile. Starts as
/// `{ bytes, bytes, bytes[0], 8, size }`. Past the end the last byte repeats for ever; a size of 0 or less
/// makes that `curByte`.
struct RASTKIT_API BitStreamReader {
    const unsigned char* cur; ///< The byte being consumed.
    const unsigned char* start; ///< The first one.
    unsigned int curByte; ///< The value of the byte at `cur`.
    int bitsLeft; ///< Bits of `curByte` that are not consumed yet, from the most significant one on.
    int size; ///< Bytes from `start` on.

    /// The next `n` bits. Multiples of 8 are whole bytes in the computer's own order, whatever `bitsLeft` is,
    /// and leave it; other counts go from the most significant bit on. Of more than 32 bits the low 32.
    unsigned int nextBits(int n);
    /// The next floating-point number, of 32 or 64 bits. Throws IMGERR_UNSUPPORTED, an ImgErrorCode, for
    /// others.
    float nextFloatDetermineSize(int bits);
};

/// Where the pixels of a chunk, which is a tile or one row of a strip, go. Pixel i of it belongs at column
/// originX + i % chunkWidth and row originY + i / chunkWidth; what lies outside the image is skipped. The
/// orientation then says where that is in the picture: 2 and 6 mirror left and right, 4 and 8 top and bottom,
/// 3 and 7 both. 5 to 8 exchange no rows and columns, and 0 or numbers above 8 put all at (0, 0).
struct OrientedPixelBuffer {
    ImgBuffer* buffer; ///< Sized already.
    int width, height; ///< Of the image.
    int orientation; ///< TIFF's tag 274.
    int isTile; ///< Nonzero: chunkWidth x chunkHeight pixels; else as many as the image is wide.
    int chunkWidth, chunkHeight;
    int originX, originY;
};

/// Decodes all pixels of a chunk into `target`, as floats, and moves `reader` on behind them. `info` gives
/// `numChannels`, the samples of a pixel, and `bitsPerPixel`. Samples of 1 to 32 and of 64 bits, floats
/// of 32 and 64 bits.
///
/// Integers are divided by the greatest unsigned number of their size, so that negative ones (sample format
/// 2) stay negative. A fourth RGB sample is alpha; everything else is opaque. Of grey and palette pixels the
/// first sample counts. A palette index without a colour is black, with or without `hasPalette`. Photometric
/// values other than 0 to 3, 32844 and 32845 store nothing.
///
/// With separate planes (planar configuration 2) `reader` holds all planes, number s from byte
/// s * (size / numChannels) on; the place of `cur` is a place in the first one, and in every other.
///
/// Throws an ImgErrorCode: IMGERR_UNSUPPORTED samples of another size; IMGERR_FORMAT no samples or no
/// bits in `info`; IMGERR_MEMORY.
RASTKIT_API void tiff_read_data_chunk(BitStreamReader* reader, unsigned short sampleFormat,
    unsigned short planarConfig, unsigned short photometric, bool hasPalette,
    const Table<Color, 100>& palette, IMGINFO& info, OrientedPixelBuffer& target);

/// The colour-correction mode that writers ask for: 3, or 0 when bit 0x200 of `flags` is set.
RASTKIT_API int getIntent(int flags); // NOLINT(readability-redundant-declaration)

} // namespace QUtils

using QUtils::BitStreamReader;
using QUtils::Color;
using QUtils::getIntent;
using QUtils::OrientedPixelBuffer;
using QUtils::tiff_read_data_chunk;
