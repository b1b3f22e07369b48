#pragma once

#include "rastkit/codecs/bmp_format.h"
#include "rastkit/codecs/bmp_input.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace QUtils {

/// How stored pixels become packed ones.
enum class BmpEncoding {
    Index1LowestFirst, ///< The lowest bit of a byte is its leftmost pixel.
    Index1,
    Index2,
    Index4,
    Index8,
    Color24,
    Color32, ///< Blue, green, red, alpha.
    Masked16, ///< Colours where the masks say.
    Masked32,
    Runs4, ///< Run-length encoded indices.
    Runs8,
};

/// Where the samples of a pixel are; 0 for one that is not there.
struct BmpMasks {
    std::uint32_t red = 0, green = 0, blue = 0, alpha = 0;
};

using BmpPalette = std::array<std::uint32_t, bmpPaletteSize>; ///< Packed.

/// How an image is stored, as the conventions read its headers.
struct BmpLayout {
    int width = 0, height = 0; ///< What the sink is sized with.
    bool firstRowIsTop = false;
    BmpEncoding encoding = BmpEncoding::Color24;
    int bits = 0;
    BmpMasks masks;
    /// Of a row of the file; the bytes of it that must be there for the row to be whole.
    std::uint64_t rowBytes = 0, neededBytes = 0;
    std::uint64_t dataOffset = 0;
    BmpPalette palette {};
    /// What the description of the image says.
    IMGINFO info {};
};

/// Reads and checks what stands in front of the pixels.
/// Errors: IMGERR_READ cut off; IMGERR_FORMAT; IMGERR_UNSUPPORTED.
ImgErrorCode readBmpLayout(BmpInput& in, Conventions conventions, BmpLayout& layout);

/// The same for the description alone. The renderer's header reader refuses files with a palette, although
/// their pixels are loaded.
ImgErrorCode readBmpDescription(BmpInput& in, Conventions conventions, IMGINFO* info);

/// The fields that all of the renderer's readers fill, of an image of `bits` bits per pixel.
IMGINFO describeBmpForRenderer(const BmpInfoHeader& header);

} // namespace QUtils
