#pragma once

#include "qutils/core/char_string.h"
#include "qutils/core/table.h"
#include "qutils/core/utf32_string.h"
#include "qutils/export.h"

#include <cstdio>

namespace QUtils {

/// What the Photoshop reader answers.
enum PSD_Error : int {
    PSD_ERROR_NONE = 0,
    PSD_ERROR_OPEN = 1, ///< The file cannot be opened.
    PSD_ERROR_READ = 2, ///< Its data end too soon, or are damaged.
    PSD_ERROR_WRITE = 3, ///< Not an answer of the reader.
    PSD_ERROR_FORMAT = 4, ///< No Photoshop file, or it has no layer or channel of the name asked for.
    PSD_ERROR_UNSUPPORTED = 5, ///< More or deeper groups and fills than any program makes; no seekable file.
    PSD_ERROR_MEMORY = 6, ///< Memory was refused.
};

/// A decoded Photoshop picture: rows of pixels R, G, B, A, alpha not multiplied in, row 0 at the top.
///
/// Holds what the file stores, as compactly as the file's samples are, and turns it into pixels row by row as
/// they are asked for. One thread at a time for one image.
class QUTILS_API PSD_Image {
public:
    PSD_Image() noexcept;
    PSD_Image(const PSD_Image&) = delete;
    PSD_Image& operator=(const PSD_Image&) = delete;
    ~PSD_Image();

    /// 0 before an image was loaded, and after one that failed.
    int width() const noexcept;
    int height() const noexcept;

    /// One pixel. Outside the image it is transparent black.
    void getComponent(int row, int column, float* rgba) const noexcept;
    /// All pixels of a row (0 to height - 1), four floats each: the same values.
    void getRow(int row, float* rgba) const noexcept;

    /// Whether every sample is a byte of the file, so that `getPackedRow` loses nothing: each float is then
    /// that byte / 255.
    bool hasPackedRows() const noexcept;
    /// All pixels of a row as words 0xAARRGGBB. Only where `hasPackedRows` says so.
    void getPackedRow(int row, unsigned int* argb) const noexcept;

    /// 1, 8, 16 or 32: how the file stores samples.
    int bitsPerSample() const noexcept;
    /// Whether red, green and blue are always the same.
    bool isGrey() const noexcept;
    /// Whether alpha is not always 1.
    bool hasAlpha() const noexcept;

    /// What could not be shown as the program that wrote the file shows it, a line for each kind of thing and
    /// layer, at most 32: layer styles, adjustment layers and the like. Empty: all is shown.
    const Table<CharString, 8>& warnings() const noexcept;

    /// Releases everything.
    void clear() noexcept;

    struct State;

private:
    friend struct PSD_Access;
    State* m_state;
};

/// Reads the header of a Photoshop file, PSD or PSB, from the present position of `file`.
/// Errors: PSD_ERROR_OPEN for null; PSD_ERROR_FORMAT no such header.
QUTILS_API PSD_Error PSD_LoadHeader(std::FILE* file, int& width, int& height) noexcept;

/// The same with all that can be known of the merged picture without decoding it. `image` has its size and
/// kind, and no pixels: rows are transparent black.
QUTILS_API PSD_Error PSD_LoadDescription(const char* fileName, PSD_Image& image) noexcept;

/// Decodes a Photoshop file.
///
/// `layer` names what to show: nothing = the picture of all layers that the file holds ready; `Name` or
/// `Group/Name` = that layer or group alone, at its place, over transparency, hidden or not. What it has
/// itself counts (opacity, masks, layers that are clipped to it), what its groups have does not. Of several
/// with that name it is the topmost; a name with all its groups goes first.
/// `alphaChannel` names an extra channel of the file that replaces alpha; nothing = the picture's own
/// transparency, else its first extra channel, else 1 (of a layer its own transparency).
///
/// Samples of 8 and 16 bits are divided by 255 and 65535, those of 32 bits are passed on.
/// Errors: as PSD_Error says; `image` is empty then.
/// Source: Adobe's published Photoshop file format.
QUTILS_API PSD_Error PSD_LoadFile(
    const char* fileName, UTF32String layer, UTF32String alphaChannel, PSD_Image& image) noexcept;

/// The same for all visible layers together, composed here instead of taken from the file; of a file without
/// layers its picture.
QUTILS_API PSD_Error PSD_ComposeFile(
    const char* fileName, UTF32String alphaChannel, PSD_Image& image) noexcept;

} // namespace QUtils

using QUtils::PSD_ComposeFile;
using QUtils::PSD_Error;
using QUtils::PSD_Image;
using QUtils::PSD_LoadDescription;
using QUtils::PSD_LoadFile;
using QUtils::PSD_LoadHeader;
