#include "qutils/formats/psd/psd_layers.h"

#include "qutils/formats/psd/psd_descriptor.h"

#include <cstdlib>
#include <iterator>

namespace QUtils {

namespace {

// Flags of a layer, and of a mask.
constexpr unsigned layerHidden = 1u << 1;
constexpr unsigned maskDisabled = 1u << 1, maskHasParameters = 1u << 4;
constexpr unsigned parameterDensity = 1u << 0, parameterFeather = 1u << 1;
constexpr unsigned parameterVectorDensity = 1u << 2, parameterVectorFeather = 1u << 3;
/// What a mask's own rectangle and flags take when they follow those of the rendered one.
constexpr std::uint64_t ownMaskBytes = 18;

bool isAdjustment(std::uint32_t key)
{
    static constexpr std::uint32_t keys[] = { psdKey("levl"), psdKey("curv"), psdKey("brit"), psdKey("blnc"),
        psdKey("hue "), psdKey("hue2"), psdKey("selc"), psdKey("mixr"), psdKey("grdm"), psdKey("phfl"),
        psdKey("expA"), psdKey("vibA"), psdKey("nvrt"), psdKey("post"), psdKey("thrs"), psdKey("blwh"),
        psdKey("clrL"), psdKey("CgEd") };
    return std::find(std::begin(keys), std::end(keys), key) != std::end(keys);
}

/// Vector contents (vscg) are fills of shapes.
bool isFill(std::uint32_t key)
{
    return key == psdKey("SoCo") || key == psdKey("GdFl") || key == psdKey("PtFl") || key == psdKey("vscg");
}

PsdRect readRect(PsdSource& source)
{
    PsdRect rect;
    rect.top = source.i32();
    rect.left = source.i32();
    rect.bottom = source.i32();
    rect.right = source.i32();
    return rect;
}

std::uint64_t bytesTo(const PsdSource& source, std::uint64_t end)
{
    return end > source.position() ? end - source.position() : 0;
}

// --- Parts of a record -----------------------------------------------------------------------------------

/// A mask that is switched off needs neither.
void readMaskParameters(PsdSource& source, std::uint64_t end, bool isVectorDisabled, PsdLayer& layer)
{
    const unsigned which = source.u8();
    const auto has = [&](unsigned parameter, std::uint64_t bytes) {
        return (which & parameter) != 0 && bytesTo(source, end) >= bytes;
    };
    if (has(parameterDensity, 1))
        layer.mask.density = float(source.u8()) / 255.0f;
    if (has(parameterFeather, 8) && source.f64() > 0 && !layer.mask.isDisabled)
        layer.omissions |= PSD_OMITS_FEATHER;
    if (has(parameterVectorDensity, 1) && source.u8() != 255 && !isVectorDisabled)
        layer.omissions |= PSD_OMITS_VECTOR_DENSITY;
    if (has(parameterVectorFeather, 8) && source.f64() > 0 && !isVectorDisabled)
        layer.omissions |= PSD_OMITS_FEATHER;
}

bool hasChannel(const PsdLayer& layer, int id)
{
    return std::any_of(layer.channels.begin(), layer.channels.end(),
        [&](const PsdLayerChannel& channel) { return channel.id == id; });
}

/// The layer's own mask, where it has a vector mask besides: it counts alone when that one is switched off.
/// When it is the one switched off, it may still be in the mask that is made of both.
void readOwnMask(PsdSource& source, PsdLayer& layer)
{
    PsdMask own = layer.mask;
    own.isDisabled = (source.u8() & maskDisabled) != 0;
    own.outside = float(source.u8()) / 255.0f;
    own.rect = readRect(source);
    own.channel = PsdLayerChannel::ownMask;
    if (!hasChannel(layer, own.channel))
        return;
    if (layer.mask.isDisabled && !own.isDisabled)
        layer.mask = own;
    else if (!layer.mask.isDisabled && own.isDisabled)
        layer.omissions |= PSD_OMITS_DISABLED_MASK;
}

/// The first rectangle is that of the mask as it works, with a vector mask in it where there is one.
void readMask(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    if (bytesTo(source, end) < 18)
        return;
    layer.mask.exists = true;
    layer.mask.rect = readRect(source);
    layer.mask.outside = float(source.u8()) / 255.0f;
    const unsigned flags = source.u8();
    layer.mask.isDisabled = (flags & maskDisabled) != 0;
    if (bytesTo(source, end) >= ownMaskBytes)
        readOwnMask(source, layer);
    if ((flags & maskHasParameters) != 0 && bytesTo(source, end) >= 1)
        readMaskParameters(source, end, (flags & maskDisabled) != 0, layer);
}

/// Ranges of brightness in which the layer, or what is below, counts: mostly all of it.
void readBlendRanges(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    constexpr std::uint32_t everything = 0x0000FFFF;
    while (bytesTo(source, end) >= 4)
        if (source.u32() != everything)
            layer.omissions |= PSD_OMITS_BLEND_RANGES;
}

/// The name as older programs have it; a Unicode one may follow.
void readName(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    if (bytesTo(source, end) == 0)
        return;
    const std::size_t length = source.u8();
    const std::size_t padded = ((length + 4) & ~std::size_t(3)) - 1; // With its length a multiple of 4.
    const std::uint64_t next = source.position() + std::min<std::uint64_t>(padded, bytesTo(source, end));
    const std::size_t there = std::size_t(std::min<std::uint64_t>(length, bytesTo(source, end)));
    if (const std::uint8_t* const bytes = source.take(there))
        layer.name = psdTextOfBytes(bytes, there);
    source.seek(next);
}

void readUnicodeName(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    const std::uint64_t length = source.u32();
    if (length > bytesTo(source, end) / 2)
        return;
    if (const std::uint8_t* const bytes = source.take(std::size_t(length) * 2))
        layer.name = psdText(bytes, std::size_t(length));
}

void readSection(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    const std::uint32_t type = source.u32();
    layer.section = type == 1 || type == 2 ? PsdSection::Folder
        : type == 3                        ? PsdSection::End
                                           : PsdSection::None;
    if (bytesTo(source, end) < 8)
        return;
    source.skip(4); // A signature.
    layer.blendMode = source.u32();
}

/// Styles may all be switched off; what cannot be understood counts as one that is not.
void readStyles(PsdSource& source, std::uint64_t end, PsdLayer& layer)
{
    layer.omissions |= PSD_HAS_STYLES;
    PsdDescriptor styles;
    source.skip(std::min<std::uint64_t>(4, bytesTo(source, end))); // The version of styles.
    const bool isWhole = styles.read(source, end);
    double isOn = 1;
    styles.find("masterFXSwitch", isOn);
    if (isOn != 0 && (!isWhole || styles.hasTrue("enab")))
        layer.omissions |= PSD_OMITS_STYLES;
}

/// Finds the components of the document's own colours; other ones are not converted.
bool readSolidColor(const PsdDescriptor& fill, const PsdHeader& header, float* color)
{
    static constexpr const char* rgbKeys[] = { "Rd  ", "Grn ", "Bl  " };
    static constexpr const char* inkKeys[] = { "Cyn ", "Mgnt", "Ylw ", "Blck" };
    static constexpr const char* greyKeys[] = { "Gry " };
    const bool isRgb = header.mode == PsdMode::Rgb, isGrey = header.isGrey();
    const char* const* const keys = isRgb ? rgbKeys : isGrey ? greyKeys : inkKeys;
    if (!isRgb && !isGrey && header.mode != PsdMode::Cmyk)
        return false;
    for (std::size_t c = 0; c < header.colorChannels(); ++c) {
        double value = 0;
        if (!fill.find(keys[c], value))
            return false;
        // Light from 0 to 255, or hundredths of ink.
        color[c] = float(std::clamp(isRgb ? value / 255 : 1 - value / 100, 0.0, 1.0));
    }
    return true;
}

void readFill(
    PsdSource& source, std::uint32_t key, std::uint64_t end, const PsdHeader& header, PsdLayer& layer)
{
    layer.omissions |= PSD_OMITS_FILL;
    if (key != psdKey("SoCo"))
        return;
    PsdDescriptor fill;
    layer.isSolid = fill.read(source, end) && readSolidColor(fill, header, layer.solidColor);
}

/// One tagged block. Those that are not known change nothing that is shown.
void readBlock(
    PsdSource& source, std::uint32_t key, std::uint64_t end, const PsdHeader& header, PsdLayer& layer)
{
    const std::uint64_t bytes = bytesTo(source, end);
    if (key == psdKey("luni") && bytes >= 4)
        readUnicodeName(source, end, layer);
    else if ((key == psdKey("lsct") || key == psdKey("lsdk")) && bytes >= 4)
        readSection(source, end, layer);
    else if (key == psdKey("iOpa") && bytes >= 1)
        layer.fill = float(source.u8()) / 255.0f;
    else if (key == psdKey("clbl") && bytes >= 1)
        layer.clipsAsGroup = source.u8() != 0;
    else if (key == psdKey("knko") && bytes >= 1)
        layer.omissions |= source.u8() != 0 ? PSD_OMITS_KNOCKOUT : 0u;
    else if (key == psdKey("brst") && bytes >= 4)
        layer.omissions |= PSD_OMITS_CHANNEL_CHOICE;
    else if (key == psdKey("lfx2") || key == psdKey("lmfx"))
        readStyles(source, end, layer);
    else if (key == psdKey("lrFX"))
        layer.omissions |= PSD_HAS_OLD_STYLES;
    else if (key == psdKey("vmsk") || key == psdKey("vsms"))
        layer.omissions |= PSD_OMITS_VECTOR_MASK;
    else if (isFill(key))
        readFill(source, key, end, header, layer);
    else if (isAdjustment(key))
        layer.omissions |= PSD_OMITS_ADJUSTMENT;
}

void readBlocks(PsdSource& source, std::uint64_t end, const PsdHeader& header, PsdLayer& layer)
{
    while (bytesTo(source, end) >= 12) {
        const std::uint32_t signature = source.u32();
        if (signature != psdKey("8BIM") && signature != psdKey("8B64"))
            return;
        const std::uint32_t key = source.u32();
        const std::uint64_t bytes = source.length(header.isLarge() && hasLongLength(key));
        const std::uint64_t begin = source.position();
        if (begin > end || bytes > end - begin)
            return;
        readBlock(source, key, begin + bytes, header, layer);
        source.seek(begin + std::min((bytes + 1) & ~std::uint64_t(1), end - begin));
    }
}

/// Runs `read(end)` on a part with its length in front, inside of a whole that ends at `end`.
template <typename Read> void readPart(PsdSource& source, std::uint64_t end, Read read)
{
    if (bytesTo(source, end) < 4)
        return;
    const std::uint64_t length = source.u32();
    const std::uint64_t partEnd = source.position() + std::min(length, bytesTo(source, end));
    read(partEnd);
    source.seek(partEnd);
}

// --- Records ---------------------------------------------------------------------------------------------

PSD_Error readRecord(PsdSource& source, std::uint64_t end, const PsdHeader& header, PsdLayer& layer)
{
    const bool isLarge = header.isLarge();
    layer.rect = readRect(source);
    const std::size_t count = source.u16();
    if (count > bytesTo(source, end) / (isLarge ? 10 : 6))
        return PSD_ERROR_READ;
    for (std::size_t i = 0; i < count; ++i) {
        PsdLayerChannel channel;
        channel.id = source.i16();
        channel.bytes = source.length(isLarge);
        layer.channels.push_back(channel);
    }
    if (source.u32() != psdKey("8BIM"))
        return source.ok() ? PSD_ERROR_FORMAT : PSD_ERROR_READ;
    layer.blendMode = source.u32();
    layer.opacity = float(source.u8()) / 255.0f;
    layer.isClipped = source.u8() != 0;
    layer.isHidden = (source.u8() & layerHidden) != 0;
    source.skip(1);

    const std::uint64_t extraBytes = source.u32();
    if (!source.ok() || extraBytes > bytesTo(source, end))
        return PSD_ERROR_READ;
    const std::uint64_t extraEnd = source.position() + extraBytes;
    readPart(source, extraEnd, [&](std::uint64_t partEnd) { readMask(source, partEnd, layer); });
    readPart(source, extraEnd, [&](std::uint64_t partEnd) { readBlendRanges(source, partEnd, layer); });
    readName(source, extraEnd, layer);
    readBlocks(source, extraEnd, header, layer);
    source.seek(extraEnd);
    return PSD_ERROR_NONE;
}

/// What is there in pixels need not be made up: fills, with the shapes that they are cut out by, mostly are.
void dropNeedlessOmissions(PsdLayer& layer)
{
    const bool isFill = (layer.omissions & PSD_OMITS_FILL) != 0, hasPixels = !layer.rect.isEmpty();
    if (hasPixels)
        layer.omissions &= ~unsigned(PSD_OMITS_FILL);
    if ((layer.mask.exists && hasChannel(layer, PsdLayerChannel::mask))
        || (isFill && hasPixels && hasChannel(layer, PsdLayerChannel::transparency)))
        layer.omissions &= ~unsigned(PSD_OMITS_VECTOR_MASK);
    if ((layer.omissions & PSD_HAS_OLD_STYLES) != 0 && (layer.omissions & PSD_HAS_STYLES) == 0)
        layer.omissions |= PSD_OMITS_STYLES;
    // All of the canvas in the colour of a shape would be worse than nothing.
    layer.isSolid = layer.isSolid && !hasPixels && (layer.omissions & PSD_OMITS_VECTOR_MASK) == 0;
    if (layer.isSolid)
        layer.omissions &= ~unsigned(PSD_OMITS_FILL);
}

/// The data of all channels follow the records in their order.
void placeChannels(std::uint64_t position, std::uint64_t end, std::vector<PsdLayer>& layers)
{
    for (PsdLayer& layer : layers)
        for (PsdLayerChannel& channel : layer.channels) {
            channel.offset = position;
            channel.bytes = std::min(channel.bytes, end - position);
            position += channel.bytes;
        }
}

} // namespace

PSD_Error readPsdLayers(PsdSource& source, const PsdDocument& document, std::vector<PsdLayer>& layers)
{
    layers.clear();
    if (document.layerInfo == 0)
        return PSD_ERROR_NONE;
    source.seek(document.layerInfo);
    const int count = std::abs(int(source.i16()));
    for (int i = 0; i < count; ++i) {
        PsdLayer layer;
        PSD_TRY(readRecord(source, document.layerInfoEnd, document.header, layer));
        dropNeedlessOmissions(layer);
        layers.push_back(std::move(layer));
    }
    if (!source.ok() || source.position() > document.layerInfoEnd)
        return PSD_ERROR_READ;
    placeChannels(source.position(), document.layerInfoEnd, layers);
    return PSD_ERROR_NONE;
}

std::string toUtf8(const UTF32String& text)
{
    std::string result;
    for (int i = 0; i < text.length(); ++i) {
        const char32_t c = text.c_str()[i];
        const int more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        constexpr unsigned char first[] = { 0, 0xC0, 0xE0, 0xF0 };
        result += char(first[more] | c >> (6 * more));
        for (int j = more - 1; j >= 0; --j)
            result += char(0x80 | (c >> (6 * j) & 0x3F));
    }
    return result;
}

} // namespace QUtils
