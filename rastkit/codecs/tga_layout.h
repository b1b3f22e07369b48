#pragma once

#include "rastkit/codecs/tga_format.h"
#include "rastkit/codecs/tga_values.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// What the extension area says about the attribute bits of a pixel (TGA 2.0, field 24).
enum TgaAttributesType : std::uint8_t {
    TGA_ATTRIBUTES_NONE = 0, ///< Also for a file without the area.
    TGA_ATTRIBUTES_IGNORABLE = 1,
    TGA_ATTRIBUTES_RETAINED = 2, ///< Undefined, but to be kept.
    TGA_ATTRIBUTES_ALPHA = 3,
    TGA_ATTRIBUTES_PREMULTIPLIED = 4,
};

/// How an image is stored, as the conventions read its header.
struct TgaLayout {
    int width = 0, height = 0;
    bool isRunLength = false, firstRowIsTop = false, firstPixelIsRight = false;
    TgaEncoding pixel = TgaEncoding::None;
    std::size_t pixelBytes = 0;
    /// The colour map that the pixels need; no entries without one.
    TgaEncoding entry = TgaEncoding::None;
    std::size_t entryBytes = 0;
    std::uint32_t entryCount = 0, firstIndex = 0;
    /// Where the map begins, or the pixels if none is needed.
    std::uint64_t dataOffset = 0;
    /// What the description of the image says.
    int bitsPerPixel = 0, numChannels = 0, bytesPerPixel = 0;
};

/// Whether the image can be read at all. Errors: IMGERR_FORMAT.
ImgErrorCode checkTgaHeader(const TgaHeader& header, Conventions conventions);

/// For headers that were checked. The renderer's conventions do not look at `attributes`.
TgaLayout layOutTga(const TgaHeader& header, Conventions conventions, TgaAttributesType attributes);

} // namespace QUtils
