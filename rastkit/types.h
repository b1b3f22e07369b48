#pragma once

#include "qutils/core/error_code.h"
#include "qutils/core/exception_msg.h"
#include "qutils/core/file_ptr.h"
#include "qutils/core/paths.h"
#include "rastkit/export.h"

/// Description of an image. Clear it before calling a codec's own function: several set only the fields
/// that they know. The dispatchers (`LoadImageFile`, `LoadImageHeader`) clear it themselves.
struct IMGINFO {
    int width; ///< Pixels; OpenEXR: of the data window.
    int height; ///< Pixels; OpenEXR: of the data window.
    int bitsPerPixel; ///< As stored in the file.
    int numChannels;
    int bytesPerPixel; ///< Of the pixels handed back; 0 from the OpenEXR header reader.
    int dataWindowX, dataWindowY, dataWindowWidth, dataWindowHeight; ///< OpenEXR only, 0 elsewhere.
    int displayWindowX, displayWindowY, displayWindowWidth, displayWindowHeight; ///< OpenEXR only.
};

/// The pixel sink that a caller implements; loaders size it with `init` and store into it. (0, 0) is the
/// top left pixel. See QUtils::ImgRowBuffer for a sink that takes whole rows, and QUtils::Image8 and
/// QUtils::ImageF for ready-made ones.
///
/// An exception that an operation throws, `init` included, ends the load, closes the file, calls `freeMem`
/// and reaches the caller of the loader. (Loaders of OpenEXR files answer it with IMGERR_READ instead:
/// nothing that is thrown leaves them.)
class RASTKIT_API ImgBuffer {
public:
    virtual ~ImgBuffer();

    /// Makes storage for width x height pixels. A failure shows in `isValid`.
    virtual void init(int width, int height) = 0;
    /// Nonzero when there is storage; a loader that sees 0 right after `init` gives IMGERR_MEMORY.
    virtual int isValid() = 0;
    /// Releases the storage.
    virtual void freeMem() = 0;
    /// Stores one pixel given as red, green, blue and alpha (floating-point formats).
    virtual void setPixelF(int x, int y, const float* rgba) = 0;
    /// Stores one packed pixel, 0xAARRGGBB; alpha is 0xFF where the file has none.
    virtual void setPixel(int x, int y, unsigned int argb) = 0;
};

/// Numbers of the readable formats. Not the rows of the list of writable formats
/// (`getSupportedFormatsList`), which count differently.
enum ImgType {
    IMGTYPE_UNKNOWN = -1,
    IMGTYPE_BMP = 0,
    IMGTYPE_EXR = 1,
    IMGTYPE_HDR = 2,
    IMGTYPE_JPEG = 3,
    IMGTYPE_PIC = 4,
    IMGTYPE_PNG = 5,
    IMGTYPE_SGI = 6,
    IMGTYPE_TGA = 7,
    IMGTYPE_TIFF = 8,
    IMGTYPE_PSD = 9,
    IMGTYPE_DDS = 10,
};

/// What can go wrong.
enum ImgErrorCode {
    IMGERR_NONE = 0, ///< Success.
    IMGERR_OPEN = 1, ///< A file cannot be opened for reading or writing.
    IMGERR_READ = 2, ///< The pixel data broke off or broke part-way; pixels before that stay stored.
    IMGERR_FORMAT = 3, ///< Not a valid file of the expected format, or no reader fits the file.
    IMGERR_MEMORY = 4, ///< Memory could not be had, the sink's included.
    IMGERR_UNSUPPORTED = 5, ///< The format, or a feature of it, is not supported.
    IMGERR_LIBRARY = 6, ///< A codec library reported an error.
    IMGERR_WRITE = 7, ///< Writing failed, or the frame refused a row.
};

namespace QUtils {

using ::ImgBuffer;
using ::ImgErrorCode;
using ::IMGINFO;
using ::ImgType;

inline namespace RASTKIT_ABI {

/// A sink that takes whole rows. Loaders find out with one dynamic_cast per image and then make a call
/// per row instead of one per pixel. A sink class that is compiled without run-time type information
/// still works, pixel by pixel.
///
/// A loader may use any mixture of the operations, `setPixel` and `setPixelF` included, on one image.
class RASTKIT_API ImgRowBuffer : public ImgBuffer {
public:
    ~ImgRowBuffer() override;

    /// Stores `count` packed pixels at (x, y) to (x + count - 1, y).
    virtual void setRow(int x, int y, int count, const unsigned int* argb) = 0;
    /// Stores `count` pixels of four floats R, G, B, A.
    virtual void setRowF(int x, int y, int count, const float* rgba) = 0;
    /// The storage of row `y`, one word 0xAARRGGBB per pixel, or null. Whoever takes it stores the whole
    /// row; what it held before is not defined.
    virtual unsigned int* rowData(int y);
    /// The storage of row `y`, four floats R, G, B, A per pixel, or null. As above.
    virtual float* rowDataF(int y);
};

} // namespace RASTKIT_ABI

/// The result of every loader and writer: an ErrorCode whose code is an ImgErrorCode (the raw-output
/// writers use negative codes of their own).
class [[nodiscard]] RASTKIT_API ImgError : public ErrorCode {
public:
    ImgError() noexcept = default;
    /// An error with that code and no message; IMGERR_NONE means no error.
    ImgError(ImgErrorCode code) noexcept;
    /// An error with a printf-style message of at most 1023 bytes, raised by `function`.
    ImgError(const char* function, int code, const char* format, ...) noexcept QUTILS_PRINTF(4, 5);
    /// Replaces the error by `code`, with no function name and an empty message.
    ImgError& operator=(ImgErrorCode code) noexcept;
};

/// The answer to a failed open: code IMGERR_OPEN, function "makeOpenError", "Failed to open file: %i" with
/// the present errno.
RASTKIT_API ImgError makeOpenError() noexcept;

/// Opens a file through qutils_fopen. Null on failure, with the reason in errno.
RASTKIT_API std::FILE* my_fopen(const char* name, const char* mode) noexcept;

} // namespace QUtils

using QUtils::ImgError;
using QUtils::makeOpenError;
using QUtils::my_fopen;
