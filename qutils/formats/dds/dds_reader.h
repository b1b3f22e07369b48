#pragma once

#include "qutils/export.h"

#include <cstdio>

namespace QUtils {

/// What the reader of DirectDraw Surface files answers.
enum DDS_Error {
    DDS_ERR_NONE = 0,
    DDS_ERR_READ = 1, ///< The file ends too soon, or cannot be read.
    DDS_ERR_FORMAT = 2, ///< No DDS file, a header or size that cannot be, or a surface that is not there.
    DDS_ERR_UNSUPPORTED = 3, ///< A pixel format that is not decoded.
    DDS_ERR_SINK = 4, ///< The rows were refused.
    DDS_ERR_MEMORY = 5
};

/// What the fourth channel means. The numbers are those of the file's extended header.
enum DdsAlphaMode {
    DDS_ALPHA_UNKNOWN = 0, ///< The file does not say.
    DDS_ALPHA_STRAIGHT = 1,
    DDS_ALPHA_PREMULTIPLIED = 2, ///< The colours are multiplied by it; they are delivered as stored.
    DDS_ALPHA_OPAQUE = 3,
    DDS_ALPHA_CUSTOM = 4 ///< No transparency at all.
};

/// What a file holds.
struct DdsDescription {
    int width, height, depth; ///< Of the largest level; depth is 1 unless the file is a volume.
    int levels; ///< Mip levels, the largest one included.
    int elements; ///< Of an array, else 1.
    int faces; ///< Of each element: 6 of a cube (fewer of old, incomplete ones), else 1.
    int isFloat; ///< Delivered as floats, else as bytes: a channel has more than 8 bits.
    int isSrgb; ///< The file says that its bytes are sRGB. They are delivered as stored.
    int alphaMode; ///< DdsAlphaMode
    int dxgiFormat; ///< Of the extended header, else 0.
};

/// Which of a file's pictures to read. All count from 0.
struct DdsSurface {
    int element;
    int face; ///< In the file's order: +X, -X, +Y, -Y, +Z, -Z.
    int level;
    int slice; ///< Of a volume, whose level n has depth / 2^n slices.
};

/// Takes the rows of a picture. Packed pixels are words 0xAARRGGBB, floats come as red, green, blue and
/// alpha.
class QUTILS_API DdsRows {
public:
    virtual ~DdsRows();

    /// Called once, before all others. False refuses the picture.
    virtual bool begin(int width, int height, bool isFloat) = 0;
    /// Where the pixels of row `y` may be written to, all `width` of them, or null. Rows that are written
    /// there are not put.
    virtual unsigned int* storage(int y);
    virtual float* storageF(int y);
    /// The first `count` pixels of row `y`: all, but for rows that the end of the file cuts off.
    virtual void put(int y, const unsigned int* argb, int count) = 0;
    virtual void putF(int y, const float* rgba, int count) = 0;
};

/// Reads the header of the DDS file that begins where `file` stands. Answers DDS_Error.
QUTILS_API int DDS_ReadDescription(std::FILE* file, DdsDescription& description);

/// Reads the header and one picture. `description` (may be null) is filled once the header is read. Of a file
/// that ends too soon, the pixels before the cut are delivered. Memory: a block of 256 KiB, and some rows,
/// but never more than the file can fill. Exceptions of `rows` pass through. Answers DDS_Error. Source:
/// Microsoft, DDS file layout and Direct3D 11 block compression; ARB_texture_compression_bptc.
QUTILS_API int DDS_ReadSurface(
    std::FILE* file, const DdsSurface& surface, DdsRows& rows, DdsDescription* description);

} // namespace QUtils
