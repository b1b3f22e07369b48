#pragma once

#include "qutils/formats/psd/psd_source.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QUtils {

/// Colour modes, by their numbers in the file.
enum class PsdMode : std::uint16_t {
    Bitmap = 0,
    Grey = 1,
    Indexed = 2,
    Rgb = 3,
    Cmyk = 4,
    Multichannel = 7,
    Duotone = 8,
    Lab = 9,
};

/// The first 26 bytes.
struct PsdHeader {
    static constexpr std::size_t byteSize = 26;

    std::uint32_t signature = 0;
    std::uint16_t version = 0;
    std::uint16_t channels = 0;
    std::uint32_t height = 0, width = 0;
    std::uint16_t depth = 0; ///< Bits per sample: 1, 8, 16 or 32, the last ones floats.
    PsdMode mode = PsdMode::Bitmap;

    bool isLarge() const { return version == 2; } ///< PSB: many lengths have 64 bits.
    /// How many channels make the colour; those behind them are extra ones.
    std::size_t colorChannels() const;
    bool isGrey() const { return colorChannels() == 1 && mode != PsdMode::Indexed; }
    std::uint64_t rowBytes(std::uint64_t count) const { return (count * depth + 7) / 8; }
};

PsdHeader parsePsdHeader(const std::uint8_t (&bytes)[PsdHeader::byteSize]);
/// PSD_ERROR_FORMAT for what no Photoshop file can have.
PSD_Error checkPsdHeader(const PsdHeader& header);

/// What stands in front of the merged picture, layers excepted.
struct PsdDocument {
    PsdHeader header;
    std::uint8_t palette[3][256] = {}; ///< Indexed: all reds, all greens, all blues.
    int transparentIndex = -1;
    std::vector<UTF32String> channelNames; ///< Of the extra channels, as far as they have any.
    bool hasRealMergedPicture = true; ///< As the file says.
    std::uint64_t layerInfo = 0; ///< Where the number of layers stands; 0 when there are none.
    std::uint64_t layerInfoEnd = 0;
    /// The first extra channel is the transparency of the merged picture.
    bool mergedIsTransparent = false;
    std::uint64_t pictureData = 0; ///< Where the merged picture begins.

    std::size_t extraChannels() const { return header.channels - header.colorChannels(); }
    /// Number of the channel of that name in the file, or -1.
    int findExtraChannel(const UTF32String& name) const;
};

/// Errors: PSD_ERROR_FORMAT; PSD_ERROR_READ a section goes past the end of the file. Throws std::bad_alloc.
PSD_Error readPsdDocument(PsdSource& source, PsdDocument& document);

/// Whether lengths of tagged blocks with this key have 64 bits in a PSB file.
bool hasLongLength(std::uint32_t key);

/// A text of `length` UTF-16 units as the file has it. Throws std::bad_alloc where UTF32String would be
/// empty: a name that was lost must not look like one that is not there.
UTF32String psdText(const std::uint8_t* units, std::size_t length);
/// The same of bytes, each of which is a character.
UTF32String psdTextOfBytes(const std::uint8_t* bytes, std::size_t length);

/// Four characters as a number, as they compare in the file.
constexpr std::uint32_t psdKey(const char (&text)[5])
{
    return std::uint32_t(std::uint8_t(text[0])) << 24 | std::uint32_t(std::uint8_t(text[1])) << 16
        | std::uint32_t(std::uint8_t(text[2])) << 8 | std::uint8_t(text[3]);
}

} // namespace QUtils
