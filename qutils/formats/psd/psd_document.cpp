#include "qutils/formats/psd/psd_document.h"

#include <algorithm>
#include <climits>
#include <new>
#include <string>

namespace QUtils {

namespace {

constexpr std::uint32_t fileSignature = psdKey("8BPS");
constexpr std::uint32_t largestSize = 30000, largestLargeSize = 300000;
constexpr std::uint16_t mostChannels = 56;
constexpr std::size_t paletteBytes = 768; // Reds, greens, blues.

// Image resources.
constexpr std::uint16_t channelNamesResource = 1006;
constexpr std::uint16_t unicodeChannelNamesResource = 1045;
constexpr std::uint16_t transparentIndexResource = 1047;
constexpr std::uint16_t versionResource = 1057;

bool isKnownMode(PsdMode mode)
{
    switch (mode) {
    case PsdMode::Bitmap:
    case PsdMode::Grey:
    case PsdMode::Indexed:
    case PsdMode::Rgb:
    case PsdMode::Cmyk:
    case PsdMode::Multichannel:
    case PsdMode::Duotone:
    case PsdMode::Lab: return true;
    }
    return false;
}

} // namespace

// --- Header ----------------------------------------------------------------------------------------------

/// Inks of a multichannel picture: three are cyan, magenta and yellow, which is what RGB and Lab pictures
/// become, four have black besides; of one or two, the first is shown as grey.
std::size_t PsdHeader::colorChannels() const
{
    switch (mode) {
    case PsdMode::Bitmap:
    case PsdMode::Grey:
    case PsdMode::Duotone:
    case PsdMode::Indexed: return 1;
    case PsdMode::Rgb:
    case PsdMode::Lab: return 3;
    case PsdMode::Cmyk: return 4;
    case PsdMode::Multichannel: return channels < 3 ? 1 : std::min<std::size_t>(channels, 4);
    }
    return 1;
}

PsdHeader parsePsdHeader(const std::uint8_t (&bytes)[PsdHeader::byteSize])
{
    std::size_t pos = 0;
    const auto u16 = [&] {
        pos += 2;
        return std::uint16_t(bytes[pos - 2] << 8 | bytes[pos - 1]);
    };
    const auto u32 = [&] {
        const std::uint32_t high = u16();
        return high << 16 | u16();
    };
    PsdHeader h;
    h.signature = u32();
    h.version = u16();
    pos += 6; // Reserved.
    h.channels = u16();
    h.height = u32();
    h.width = u32();
    h.depth = u16();
    h.mode = PsdMode(u16());
    return h;
}

PSD_Error checkPsdHeader(const PsdHeader& header)
{
    if (header.signature != fileSignature || (header.version != 1 && header.version != 2))
        return PSD_ERROR_FORMAT;
    const std::uint32_t largest = header.isLarge() ? largestLargeSize : largestSize;
    if (header.width < 1 || header.width > largest || header.height < 1 || header.height > largest)
        return PSD_ERROR_FORMAT;
    if (header.depth != 1 && header.depth != 8 && header.depth != 16 && header.depth != 32)
        return PSD_ERROR_FORMAT;
    if (!isKnownMode(header.mode) || (header.mode == PsdMode::Bitmap && header.depth != 1)
        || (header.mode == PsdMode::Indexed && header.depth != 8))
        return PSD_ERROR_FORMAT;
    if (header.channels < header.colorChannels() || header.channels > mostChannels)
        return PSD_ERROR_FORMAT;
    return PSD_ERROR_NONE;
}

// --- Image resources -------------------------------------------------------------------------------------

namespace {

/// Names that follow each other, each with its length in front.
void readChannelNames(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    if (!document.channelNames.empty())
        return; // The Unicode names, which say more.
    while (source.ok() && source.position() < end && document.channelNames.size() < mostChannels) {
        const std::size_t length = std::min<std::uint64_t>(source.u8(), end - source.position());
        const std::uint8_t* const bytes = source.take(length);
        if (!bytes)
            return;
        // Bytes of an alphabet that the file does not name; those of ASCII are the same in all.
        document.channelNames.push_back(psdTextOfBytes(bytes, length));
    }
}

void readUnicodeChannelNames(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    document.channelNames.clear();
    while (end - source.position() >= 4 && document.channelNames.size() < mostChannels) {
        const std::uint64_t length = source.u32();
        if (length > (end - source.position()) / 2)
            return;
        const std::uint8_t* const bytes = source.take(std::size_t(length) * 2);
        if (!bytes)
            return;
        document.channelNames.push_back(psdText(bytes, std::size_t(length)));
    }
}

void readResource(PsdSource& source, std::uint16_t id, std::uint64_t end, PsdDocument& document)
{
    const std::uint64_t bytes = end - source.position();
    if (id == channelNamesResource)
        readChannelNames(source, end, document);
    else if (id == unicodeChannelNamesResource)
        readUnicodeChannelNames(source, end, document);
    else if (id == transparentIndexResource && bytes >= 2)
        document.transparentIndex = source.i16();
    else if (id == versionResource && bytes >= 5) {
        source.skip(4);
        document.hasRealMergedPicture = source.u8() != 0;
    }
}

/// Resources that are damaged lose what follows them, which no picture depends on.
void readResources(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    while (end - source.position() >= 12) {
        source.skip(4); // A signature; several programs have one of their own.
        const std::uint16_t id = source.u16();
        const std::uint64_t nameBytes = source.u8();
        source.skip(nameBytes | 1); // With its length an even number.
        if (source.position() > end || end - source.position() < 4)
            return;
        const std::uint64_t bytes = source.u32();
        const std::uint64_t begin = source.position();
        if (bytes > end - begin)
            return;
        readResource(source, id, begin + bytes, document);
        source.seek(begin + std::min((bytes + 1) & ~std::uint64_t(1), end - begin));
    }
}

// --- Layer and mask information: where things are --------------------------------------------------------

/// Notes a list of layers, if there are any.
void noteLayers(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    const std::uint64_t begin = source.position();
    if (end - begin < 2)
        return;
    const int count = source.i16();
    if (count < 0)
        document.mergedIsTransparent = true;
    if (count == 0)
        return;
    document.layerInfo = begin;
    document.layerInfoEnd = end;
}

/// Tagged blocks at the end of the section: layers of 16 and 32 bits stand there.
void readGlobalBlocks(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    while (end - source.position() >= 12) {
        const std::uint32_t signature = source.u32();
        if (signature != psdKey("8BIM") && signature != psdKey("8B64"))
            return;
        const std::uint32_t key = source.u32();
        const bool isLong = document.header.isLarge() && hasLongLength(key);
        if (isLong && end - source.position() < 8)
            return;
        const std::uint64_t bytes = source.length(isLong);
        const std::uint64_t begin = source.position();
        if (begin > end || bytes > end - begin)
            return;
        if (key == psdKey("Lr16") || key == psdKey("Lr32") || key == psdKey("Layr"))
            noteLayers(source, begin + bytes, document);
        if (key == psdKey("Mtrn") || key == psdKey("Mt16") || key == psdKey("Mt32"))
            document.mergedIsTransparent = true;
        source.seek(begin + std::min((bytes + 3) & ~std::uint64_t(3), end - begin));
    }
}

void readLayerSection(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    const bool isLarge = document.header.isLarge();
    if (end - source.position() < (isLarge ? 8u : 4u))
        return;
    const std::uint64_t infoBytes = source.length(isLarge);
    const std::uint64_t infoBegin = source.position();
    const std::uint64_t infoEnd = infoBegin + std::min(infoBytes, end - infoBegin);
    noteLayers(source, infoEnd, document);

    source.seek(infoEnd);
    if (end - infoEnd < 4)
        return;
    source.skip(source.u32()); // Global layer mask information: how masks are shown while editing.
    if (source.position() < end)
        readGlobalBlocks(source, end, document);
}

/// Runs `read(end)` on a section with its length in front, and goes to its end.
template <typename Read> PSD_Error readSection(PsdSource& source, bool isLong, Read read)
{
    const std::uint64_t bytes = source.length(isLong);
    if (!source.ok() || bytes > source.left())
        return PSD_ERROR_READ;
    const std::uint64_t end = source.position() + bytes;
    read(end);
    source.seek(end);
    return PSD_ERROR_NONE;
}

void readColorData(PsdSource& source, std::uint64_t end, PsdDocument& document)
{
    if (document.header.mode == PsdMode::Indexed && end - source.position() >= paletteBytes)
        source.read(document.palette, paletteBytes);
}

} // namespace

UTF32String psdText(const std::uint8_t* units, std::size_t length)
{
    UTF32String text;
    text.setFromUTF16BE(units, int(std::min<std::size_t>(length, INT_MAX)));
    if (text.empty() && std::any_of(units, units + length * 2, [](std::uint8_t byte) { return byte != 0; }))
        throw std::bad_alloc();
    return text;
}

UTF32String psdTextOfBytes(const std::uint8_t* bytes, std::size_t length)
{
    std::vector<std::uint8_t> units;
    for (std::size_t i = 0; i < length; ++i)
        units.insert(units.end(), { 0, bytes[i] });
    return psdText(units.data(), length);
}

bool hasLongLength(std::uint32_t key)
{
    static constexpr std::uint32_t keys[] = { psdKey("LMsk"), psdKey("Lr16"), psdKey("Lr32"), psdKey("Layr"),
        psdKey("Mt16"), psdKey("Mt32"), psdKey("Mtrn"), psdKey("Alph"), psdKey("FMsk"), psdKey("lnk2"),
        psdKey("FEid"), psdKey("FXid"), psdKey("PxSD") };
    return std::find(std::begin(keys), std::end(keys), key) != std::end(keys);
}

PSD_Error readPsdDocument(PsdSource& source, PsdDocument& document)
{
    std::uint8_t bytes[PsdHeader::byteSize];
    if (!source.read(bytes, sizeof bytes))
        return PSD_ERROR_FORMAT;
    document.header = parsePsdHeader(bytes);
    PSD_TRY(checkPsdHeader(document.header));

    PSD_TRY(readSection(source, false, [&](std::uint64_t end) { readColorData(source, end, document); }));
    PSD_TRY(readSection(source, false, [&](std::uint64_t end) { readResources(source, end, document); }));
    PSD_TRY(readSection(source, document.header.isLarge(),
        [&](std::uint64_t end) { readLayerSection(source, end, document); }));
    document.pictureData = source.position();
    if (document.extraChannels() == 0)
        document.mergedIsTransparent = false;
    return PSD_ERROR_NONE;
}

/// Names belong to the last extra channels: the transparency may have none. A channel without a name of its
/// own is called as programs call a new one.
int PsdDocument::findExtraChannel(const UTF32String& name) const
{
    const std::size_t colors = header.colorChannels(), extra = extraChannels();
    const std::size_t named = std::min(channelNames.size(), extra);
    for (std::size_t i = 0; i < named; ++i)
        if (channelNames[i] == name)
            return int(colors + extra - named + i);
    for (std::size_t i = 0; i < extra - named; ++i) {
        const std::string usual = std::string("Alpha ") += std::to_string(i + 1);
        if (psdTextOfBytes(reinterpret_cast<const std::uint8_t*>(usual.data()), usual.size()) == name)
            return int(colors + i);
    }
    return -1;
}

} // namespace QUtils
