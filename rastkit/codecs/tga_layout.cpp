#include "rastkit/codecs/tga_layout.h"

namespace QUtils {

namespace {

// --- Both conventions ------------------------------------------------------------------------------------

bool isKnownType(std::uint8_t imageType)
{
    switch (imageType) {
    case TGA_COLOR_MAPPED:
    case TGA_TRUE_COLOR:
    case TGA_GREY:
    case TGA_COLOR_MAPPED_RLE:
    case TGA_TRUE_COLOR_RLE:
    case TGA_GREY_RLE: return true;
    default: return false;
    }
}

TgaEncoding indexOf(std::size_t bytes)
{
    switch (bytes) {
    case 1: return TgaEncoding::Index8;
    case 2: return TgaEncoding::Index16;
    case 3: return TgaEncoding::Index24;
    case 4: return TgaEncoding::Index32;
    default: return TgaEncoding::None;
    }
}

TgaLayout commonLayout(const TgaHeader& header)
{
    TgaLayout layout;
    layout.isRunLength = header.isRunLength();
    layout.firstRowIsTop = header.firstRowIsTop();
    layout.firstPixelIsRight = header.firstPixelIsRight();
    layout.dataOffset = header.idEnd();
    return layout;
}

// --- The renderer's reading ------------------------------------------------------------------------------

TgaEncoding rendererColor(std::size_t bytes)
{
    switch (bytes) {
    case 1: return TgaEncoding::Grey8;
    case 3: return TgaEncoding::Color24;
    case 4: return TgaEncoding::Color32;
    default: return TgaEncoding::None; // Two bytes too: 16 bits give transparent black.
    }
}

/// Existing scenes depend on this reading. Its oddities are deliberate:
/// - sizes are signed, so that 32768 and above turn negative and store nothing;
/// - bytes are bits / 8 as they stand, so that 15 bits are one byte;
/// - a colour map makes the pixels indices, whatever the image type says;
/// - a first index skips that much of the data in front of the map, and indices count from the first
///   stored entry all the same.
TgaLayout rendererLayout(const TgaHeader& header)
{
    TgaLayout layout = commonLayout(header);
    layout.width = std::int16_t(header.width);
    layout.height = std::int16_t(header.height);
    layout.pixelBytes = header.pixelBits / 8;
    layout.pixel = rendererColor(layout.pixelBytes);
    layout.bitsPerPixel = header.pixelBits;
    if (header.hasColorMap()) {
        layout.pixel = indexOf(layout.pixelBytes);
        layout.entryBytes = header.colorMapBits / 8;
        layout.entry = rendererColor(layout.entryBytes);
        layout.entryCount = header.colorMapLength;
        layout.dataOffset += std::uint64_t(header.colorMapBits) * header.colorMapFirst / 8;
        layout.bitsPerPixel = header.colorMapBits;
    }
    layout.numChannels = layout.bytesPerPixel = layout.bitsPerPixel / 8;
    return layout;
}

// --- The format's own reading ----------------------------------------------------------------------------

/// Whole bytes that hold so many bits: 15 bits are two bytes.
std::size_t wholeBytes(int bits)
{
    return std::size_t(bits + 7) / 8;
}

TgaEncoding standardColor(int bits, bool alpha)
{
    switch (bits) {
    case 8: return TgaEncoding::Grey8;
    case 15: return TgaEncoding::Color15;
    case 16: return alpha ? TgaEncoding::Color16 : TgaEncoding::Color15;
    case 24: return TgaEncoding::Color24;
    case 32: return alpha ? TgaEncoding::Color32 : TgaEncoding::Color32Opaque;
    default: return TgaEncoding::None;
    }
}

TgaEncoding standardGrey(int bits, bool alpha)
{
    switch (bits) {
    case 8: return TgaEncoding::Grey8;
    case 16: return alpha ? TgaEncoding::GreyAlpha : TgaEncoding::Grey16;
    default: return TgaEncoding::None;
    }
}

TgaEncoding standardIndex(int bits)
{
    return bits % 8 == 0 ? indexOf(wholeBytes(bits)) : TgaEncoding::None;
}

TgaEncoding standardPixel(const TgaHeader& header, bool alpha)
{
    if (header.isColorMapped())
        return standardIndex(header.pixelBits);
    return header.isGrey() ? standardGrey(header.pixelBits, alpha) : standardColor(header.pixelBits, alpha);
}

int channelsOf(TgaEncoding encoding)
{
    switch (encoding) {
    case TgaEncoding::Grey8:
    case TgaEncoding::Grey16: return 1;
    case TgaEncoding::GreyAlpha: return 2;
    case TgaEncoding::Color16:
    case TgaEncoding::Color32: return 4;
    default: return 3;
    }
}

/// Whether the attribute bits of `bits` wide values are alpha. An extension area knows. Type 0 in it may be
/// a field that nobody filled; the header decides then, as it does without the area. A 16-bit colour has
/// one attribute bit, so that a header with another number does not mean it; where its meaning is undefined
/// nothing is lost with it, while taken for alpha it would hide the picture.
bool attributesAreAlpha(const TgaHeader& header, int bits, TgaAttributesType type)
{
    const bool isColor16 = bits == 16 && !header.isGrey();
    if (isColor16 && (header.attributeBits() != 1 || type == TGA_ATTRIBUTES_RETAINED))
        return false;
    switch (type) {
    case TGA_ATTRIBUTES_IGNORABLE: return false;
    case TGA_ATTRIBUTES_RETAINED:
    case TGA_ATTRIBUTES_ALPHA:
    case TGA_ATTRIBUTES_PREMULTIPLIED: return true;
    default: return header.attributeBits() != 0;
    }
}

ImgErrorCode checkStandard(const TgaHeader& header)
{
    if (header.width == 0 || header.height == 0)
        return IMGERR_FORMAT;
    if (standardPixel(header, false) == TgaEncoding::None)
        return IMGERR_FORMAT;
    if (header.isColorMapped() && (!header.hasColorMap() || header.colorMapLength == 0))
        return IMGERR_FORMAT;
    if (header.isColorMapped() && standardColor(header.colorMapBits, false) == TgaEncoding::None)
        return IMGERR_FORMAT;
    return IMGERR_NONE;
}

/// A colour map belongs to colour-mapped images; others may carry one along.
TgaLayout standardLayout(const TgaHeader& header, TgaAttributesType attributes)
{
    const int bits = header.isColorMapped() ? header.colorMapBits : header.pixelBits;
    const bool alpha = attributesAreAlpha(header, bits, attributes);

    TgaLayout layout = commonLayout(header);
    layout.width = header.width;
    layout.height = header.height;
    layout.pixel = standardPixel(header, alpha);
    layout.pixelBytes = wholeBytes(header.pixelBits);
    if (header.isColorMapped()) {
        layout.entry = standardColor(header.colorMapBits, alpha);
        layout.entryBytes = wholeBytes(header.colorMapBits);
        layout.entryCount = header.colorMapLength;
        layout.firstIndex = header.colorMapFirst;
    } else if (header.hasColorMap()) {
        layout.dataOffset += header.colorMapLength * wholeBytes(header.colorMapBits);
    }
    layout.bitsPerPixel = bits;
    layout.numChannels = channelsOf(header.isColorMapped() ? layout.entry : layout.pixel);
    layout.bytesPerPixel = layout.numChannels;
    return layout;
}

} // namespace

ImgErrorCode checkTgaHeader(const TgaHeader& header, Conventions conventions)
{
    if (!isKnownType(header.imageType))
        return IMGERR_FORMAT;
    return conventions == Conventions::Standard ? checkStandard(header) : IMGERR_NONE;
}

TgaLayout layOutTga(const TgaHeader& header, Conventions conventions, TgaAttributesType attributes)
{
    return conventions == Conventions::Standard ? standardLayout(header, attributes) : rendererLayout(header);
}

} // namespace QUtils
