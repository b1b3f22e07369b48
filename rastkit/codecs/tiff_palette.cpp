#include "rastkit/codecs/tiff_palette.h"

#include "qutils/core/critical_section.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <tiffio.h>

namespace QUtils {

namespace {

constexpr int growth = 100; // Of a palette.
constexpr unsigned mostIndexBits = 16;

CriticalSection& getPaletteCS()
{
    static CriticalSection section;
    return section;
}

/// The three columns of a colour map, as the library keeps them with the handle.
struct ColorMap {
    const std::uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
    int length = 0;

    /// Whether all numbers are below 256.
    bool isOf8Bits() const
    {
        const auto small = [&](const std::uint16_t* column) {
            return std::all_of(column, column + length, [](std::uint16_t number) { return number < 256; });
        };
        return small(red) && small(green) && small(blue);
    }
};

/// False when there is none. The library's own number of bits says how long it is.
bool findColorMap(TIFF* tiff, ColorMap& map)
{
    std::uint16_t bits = 0;
    std::uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
    if (!TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits) || bits > mostIndexBits
        || !TIFFGetField(tiff, TIFFTAG_COLORMAP, &red, &green, &blue) || !red || !green || !blue)
        return false;
    map = { red, green, blue, 1 << bits };
    return true;
}

/// Makes the palette one of `count` black colours, grown in its own steps.
bool setCount(Table<Color, growth>& palette, int count)
{
    palette.clear();
    if (!palette.reserve((count + growth - 1) / growth * growth))
        return false;
    for (int i = 0; i < count; ++i)
        palette.add({ 0, 0, 0 });
    return true;
}

Color grey(float value)
{
    return { value, value, value };
}

void setRamp(Table<Color, growth>& palette, bool falls)
{
    const float last = float(std::max(palette.count() - 1, 1));
    for (int i = 0; i < palette.count(); ++i)
        palette[i] = grey(falls ? 1 - float(i) / last : float(i) / last);
}

constexpr float colorScale = 1.5259022e-05f; // 1 / 65535

} // namespace

bool hasTiffColorMap(TIFF* tiff)
{
    ColorMap map;
    return findColorMap(tiff, map);
}

ImgErrorCode readTiffColorMap(TIFF* tiff, unsigned bits, Conventions conventions, Table<Color, 100>& palette)
{
    const std::lock_guard lock(getPaletteCS());
    ColorMap map;
    if (bits > mostIndexBits || !findColorMap(tiff, map))
        return IMGERR_FORMAT;
    if (!setCount(palette, 1 << bits))
        return IMGERR_MEMORY;
    const bool isScaled = conventions == Conventions::Standard && map.isOf8Bits();
    const float scale = isScaled ? colorScale * 257 : colorScale;
    for (int i = 0; i < std::min(palette.count(), map.length); ++i)
        palette[i] = { float(map.red[i]) * scale, float(map.green[i]) * scale, float(map.blue[i]) * scale };
    return IMGERR_NONE;
}

int setupTIFPalette(TIFF* tiff, unsigned short photometric, unsigned short bits, unsigned short channels,
    Table<Color, 100>& palette)
{
    LibTIFF_StopWarnings();
    if (bits > mostIndexBits)
        return 0;
    const bool hasRoom = setCount(palette, 1 << bits);
    if (channels == 1 && bits == 1) {
        // A colour map of two colours is not looked at, deliberately.
        const bool isBlackZero = photometric == PHOTOMETRIC_MINISBLACK;
        if (hasRoom) {
            palette[0] = grey(isBlackZero ? 0.0f : 1.0f);
            palette[1] = grey(isBlackZero ? 1.0f : 0.0f);
        }
        return 1;
    }
    switch (photometric) {
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_MINISBLACK: setRamp(palette, photometric == PHOTOMETRIC_MINISWHITE); return 1;
    case PHOTOMETRIC_RGB: return 0;
    case PHOTOMETRIC_PALETTE:
        // Closing the caller's handle is deliberate: that is how it has always been.
        if (readTiffColorMap(tiff, bits, Conventions::Renderer, palette) == IMGERR_FORMAT)
            TIFFClose(tiff);
        return 1;
    default: return 1;
    }
}

ImgErrorCode readTiffPalette(
    TIFF* tiff, const TiffTags& tags, Conventions conventions, Table<Color, 100>& palette)
{
    if (tags.photometric != PHOTOMETRIC_PALETTE)
        return IMGERR_NONE;
    if (conventions == Conventions::Standard)
        return readTiffColorMap(tiff, tags.bits, conventions, palette);
    // Without a map the handle would be closed in there.
    const bool asksForMap = tags.bits <= 16 && !(tags.bits == 1 && tags.samples == 1);
    if (asksForMap && !hasTiffColorMap(tiff))
        return IMGERR_FORMAT;
    const int isSetUp = setupTIFPalette(tiff, std::uint16_t(tags.photometric), std::uint16_t(tags.bits),
        std::uint16_t(tags.samples), palette);
    return isSetUp && palette.empty() ? IMGERR_MEMORY : IMGERR_NONE;
}

} // namespace QUtils
