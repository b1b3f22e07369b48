#include "rastkit/codecs/bmp_layout.h"

#include "rastkit/model/result.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace QUtils {

namespace {

constexpr std::uint32_t opaque = 0xFF000000u;
constexpr std::size_t entryBytes = 4; // Of a palette: blue, green, red, reserved.

// --- The renderer's reading ------------------------------------------------------------------------------

struct RendererHeaders {
    BmpFileHeader file;
    BmpInfoHeader info;
};

/// The information header always counts as one of 40 bytes, whatever it says.
ImgErrorCode readRendererHeaders(BmpInput& in, RendererHeaders& headers)
{
    std::uint8_t bytes[BmpInfoHeader::byteSize];
    // One by one: memory that is no bitmap may end behind the first.
    if (in.read(bytes, BmpFileHeader::byteSize) < BmpFileHeader::byteSize)
        return IMGERR_READ;
    headers.file = parseBmpFileHeader(bytes);
    if (headers.file.magic != bmpMagic)
        return IMGERR_FORMAT;
    if (in.read(bytes, sizeof bytes) < sizeof bytes)
        return IMGERR_READ;
    headers.info = parseBmpInfoHeader(bytes);
    return headers.info.compression == BMP_RGB ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

/// Entries as they stand, so that alpha is their reserved byte, mostly 0. The renderer has always done so.
ImgErrorCode readRendererPalette(BmpInput& in, const BmpInfoHeader& header, BmpPalette& palette)
{
    const std::uint32_t count = header.colorsUsed != 0 ? header.colorsUsed : 1u << header.bits;
    if (count > bmpPaletteSize)
        return IMGERR_UNSUPPORTED;
    std::uint8_t bytes[bmpPaletteSize * entryBytes];
    if (in.read(bytes, count * entryBytes) != count * entryBytes)
        return IMGERR_READ;
    ByteReader entries(bytes, count * entryBytes);
    std::generate_n(palette.begin(), count, [&] { return entries.u32le(); });
    return IMGERR_NONE;
}

/// Existing scenes depend on this reading. Its oddities are deliberate:
/// - the fourth byte of 32 bits is alpha as it stands;
/// - the lowest bit of a byte is the leftmost of its eight pixels;
/// - of a row of 1 or 4 bits, a byte that is filled in part does not count when its size is rounded up, so
///   that the last pixels of some widths are not in the row: they get index 0;
/// - a negative height, that of a top-down file, stores nothing.
ImgErrorCode readRendererLayout(BmpInput& in, BmpLayout& layout)
{
    RendererHeaders headers;
    RASTKIT_TRY(readRendererHeaders(in, headers));
    const BmpInfoHeader& info = headers.info;
    switch (info.bits) {
    case 1: layout.encoding = BmpEncoding::Index1LowestFirst; break;
    case 4: layout.encoding = BmpEncoding::Index4; break;
    case 8: layout.encoding = BmpEncoding::Index8; break;
    case 24: layout.encoding = BmpEncoding::Color24; break;
    case 32: layout.encoding = BmpEncoding::Color32; break;
    default: return IMGERR_UNSUPPORTED;
    }
    if (info.bits <= 8)
        RASTKIT_TRY(readRendererPalette(in, info, layout.palette));

    layout.width = info.width;
    layout.height = info.height;
    layout.bits = info.bits;
    layout.rowBytes = paddedBmpRow(std::uint64_t(std::max(info.width, 0)) * info.bits / 8);
    layout.neededBytes = layout.rowBytes;
    layout.dataOffset = headers.file.dataOffset;
    layout.info = describeBmpForRenderer(info);
    return IMGERR_NONE;
}

// --- The format's own reading ----------------------------------------------------------------------------

/// Both headers, and the masks, which stand at the same place in a header of 52 bytes and behind one of 40.
struct StandardHeaders {
    BmpFileHeader file;
    BmpInfoHeader info;
    BmpMasks masks;
    std::uint64_t end = 0; ///< Where they end.

    bool isCore() const { return info.headerSize == BMP_HEADER_CORE; }
    bool hasMasks() const
    {
        return info.compression == BMP_BITFIELDS || info.compression == BMP_ALPHABITFIELDS;
    }
    std::size_t paletteEntryBytes() const { return isCore() ? 3 : entryBytes; }
};

bool isWindowsHeader(std::uint32_t size)
{
    switch (size) {
    case BMP_HEADER_INFO:
    case BMP_HEADER_V2:
    case BMP_HEADER_V3:
    case BMP_HEADER_V4:
    case BMP_HEADER_V5: return true;
    default: return false;
    }
}

bool isHeaderSize(std::uint32_t size)
{
    return size == BMP_HEADER_CORE || isWindowsHeader(size)
        || (size >= BMP_HEADER_SHORTEST_OS2 && size <= BMP_HEADER_OS2);
}

/// How many bytes of masks follow a header of 40 bytes.
std::size_t masksBehind(const BmpInfoHeader& info)
{
    if (info.headerSize != BMP_HEADER_INFO)
        return 0;
    return info.compression == BMP_BITFIELDS ? 12 : info.compression == BMP_ALPHABITFIELDS ? 16 : 0;
}

/// `bytes` has zeros where the file has no masks.
BmpMasks parseMasks(const std::uint8_t* bytes, const BmpInfoHeader& info)
{
    ByteReader in(bytes, 16);
    BmpMasks masks;
    masks.red = in.u32le();
    masks.green = in.u32le();
    masks.blue = in.u32le();
    masks.alpha = info.headerSize == BMP_HEADER_V2 ? 0 : in.u32le(); // Others follow the three there.
    return masks;
}

ImgErrorCode readStandardHeaders(BmpInput& in, StandardHeaders& headers)
{
    constexpr std::size_t sizeBytes = 4;
    std::uint8_t fileBytes[BmpFileHeader::byteSize + sizeBytes];
    const std::size_t got = in.read(fileBytes, sizeof fileBytes);
    if (got < BmpFileHeader::byteSize)
        return IMGERR_READ;
    headers.file = parseBmpFileHeader(fileBytes);
    if (headers.file.magic != bmpMagic)
        return IMGERR_FORMAT;
    if (got < sizeof fileBytes)
        return IMGERR_READ;

    std::uint8_t bytes[BMP_HEADER_V5 + 16] = {};
    std::memcpy(bytes, fileBytes + BmpFileHeader::byteSize, sizeBytes);
    const std::uint32_t size = ByteReader(bytes, sizeBytes).u32le();
    if (!isHeaderSize(size))
        return IMGERR_FORMAT;
    if (in.read(bytes + sizeBytes, size - sizeBytes) != size - sizeBytes)
        return IMGERR_READ;
    // What a short OS/2 header leaves out is 0.
    headers.info = size == BMP_HEADER_CORE ? parseBmpCoreHeader(bytes) : parseBmpInfoHeader(bytes);
    const std::size_t more = masksBehind(headers.info);
    if (in.read(bytes + size, more) != more)
        return IMGERR_READ;
    if (isWindowsHeader(size))
        headers.masks = parseMasks(bytes + BMP_HEADER_INFO, headers.info);
    headers.end = BmpFileHeader::byteSize + size + more;
    return IMGERR_NONE;
}

/// Without masks 16 bits are five of each colour, and the fourth byte of 32 bits counts for nothing, also
/// where a header has room for masks: they mean something only with their compression.
BmpMasks masksOf(const StandardHeaders& headers)
{
    if (headers.hasMasks())
        return headers.masks;
    if (headers.info.bits == 16)
        return { 0x7C00, 0x03E0, 0x001F, 0 };
    return { 0x00FF0000, 0x0000FF00, 0x000000FF, 0 };
}

ImgErrorCode standardEncoding(const StandardHeaders& headers, BmpEncoding& encoding)
{
    const int bits = headers.info.bits;
    switch (headers.info.compression) {
    case BMP_RGB: break;
    case BMP_RLE8: encoding = BmpEncoding::Runs8; return bits == 8 ? IMGERR_NONE : IMGERR_FORMAT;
    case BMP_RLE4: encoding = BmpEncoding::Runs4; return bits == 4 ? IMGERR_NONE : IMGERR_FORMAT;
    case BMP_BITFIELDS:
    case BMP_ALPHABITFIELDS:
        // OS/2 gives the numbers to other compressions.
        if (!isWindowsHeader(headers.info.headerSize))
            return IMGERR_UNSUPPORTED;
        encoding = bits == 16 ? BmpEncoding::Masked16 : BmpEncoding::Masked32;
        return bits == 16 || bits == 32 ? IMGERR_NONE : IMGERR_FORMAT;
    default: return IMGERR_UNSUPPORTED; // Whole JPEG and PNG files, codes of printers.
    }
    switch (bits) {
    case 1: encoding = BmpEncoding::Index1; return IMGERR_NONE;
    case 2: encoding = BmpEncoding::Index2; return IMGERR_NONE;
    case 4: encoding = BmpEncoding::Index4; return IMGERR_NONE;
    case 8: encoding = BmpEncoding::Index8; return IMGERR_NONE;
    case 16: encoding = BmpEncoding::Masked16; return IMGERR_NONE;
    case 24: encoding = BmpEncoding::Color24; return IMGERR_NONE;
    case 32: encoding = BmpEncoding::Masked32; return IMGERR_NONE;
    default: return IMGERR_UNSUPPORTED;
    }
}

/// A palette has an entry for each index unless it says that it has fewer. One that says more, or that
/// reaches into the pixels, counts as far as it can. Indices without an entry are opaque black.
ImgErrorCode readStandardPalette(BmpInput& in, const StandardHeaders& headers, BmpPalette& palette)
{
    palette.fill(opaque);
    const std::size_t size = headers.paletteEntryBytes();
    std::uint64_t count = std::uint64_t(1) << headers.info.bits;
    if (headers.info.colorsUsed != 0)
        count = std::min<std::uint64_t>(count, headers.info.colorsUsed);
    if (headers.file.dataOffset >= headers.end)
        count = std::min(count, (headers.file.dataOffset - headers.end) / size);

    std::uint8_t bytes[bmpPaletteSize * entryBytes];
    if (in.read(bytes, count * size) != count * size)
        return IMGERR_READ;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* const bgr = bytes + i * size;
        palette[i] = opaque | std::uint32_t(bgr[2]) << 16 | std::uint32_t(bgr[1]) << 8 | bgr[0];
    }
    return IMGERR_NONE;
}

/// Pixels that are said to begin inside the headers follow the palette: some writers leave the field 0.
std::uint64_t standardDataOffset(const StandardHeaders& headers)
{
    if (headers.file.dataOffset >= headers.end)
        return headers.file.dataOffset;
    const std::uint32_t entries = headers.info.bits > 8 ? headers.info.colorsUsed
        : headers.info.colorsUsed != 0                  ? headers.info.colorsUsed
                                                        : 1u << headers.info.bits;
    return headers.end + entries * std::uint64_t(headers.paletteEntryBytes());
}

IMGINFO describeForStandard(const BmpLayout& layout)
{
    const bool isIndexed = layout.bits <= 8;
    IMGINFO info {};
    info.width = layout.width;
    info.height = layout.height;
    info.bitsPerPixel = isIndexed ? 24 : layout.bits;
    info.numChannels = info.bytesPerPixel = layout.masks.alpha != 0 ? 4 : 3;
    return info;
}

ImgErrorCode layOutStandard(const StandardHeaders& headers, BmpLayout& layout)
{
    const BmpInfoHeader& info = headers.info;
    RASTKIT_TRY(standardEncoding(headers, layout.encoding));
    if (info.width < 1 || info.height == 0 || info.height == INT_MIN)
        return IMGERR_FORMAT;
    layout.width = info.width;
    layout.height = std::abs(info.height);
    layout.firstRowIsTop = info.height < 0;
    layout.bits = info.bits;
    layout.masks = masksOf(headers);
    layout.neededBytes = (std::uint64_t(info.width) * info.bits + 7) / 8;
    layout.rowBytes = paddedBmpRow(layout.neededBytes);
    layout.dataOffset = standardDataOffset(headers);
    layout.info = describeForStandard(layout);
    return IMGERR_NONE;
}

ImgErrorCode readStandardLayout(BmpInput& in, BmpLayout& layout)
{
    StandardHeaders headers;
    RASTKIT_TRY(readStandardHeaders(in, headers));
    RASTKIT_TRY(layOutStandard(headers, layout));
    return layout.bits <= 8 ? readStandardPalette(in, headers, layout.palette) : IMGERR_NONE;
}

} // namespace

IMGINFO describeBmpForRenderer(const BmpInfoHeader& header)
{
    IMGINFO info {};
    // The renderer's readers keep 16 bits of each size, with their sign.
    info.width = std::int16_t(header.width);
    info.height = std::int16_t(header.height);
    info.bitsPerPixel = header.bits;
    info.numChannels = header.bits / 8;
    return info;
}

ImgErrorCode readBmpLayout(BmpInput& in, Conventions conventions, BmpLayout& layout)
{
    return conventions == Conventions::Standard ? readStandardLayout(in, layout)
                                                : readRendererLayout(in, layout);
}

ImgErrorCode readBmpDescription(BmpInput& in, Conventions conventions, IMGINFO* info)
{
    IMGINFO described {};
    if (conventions == Conventions::Standard) {
        BmpLayout layout;
        RASTKIT_TRY(readStandardLayout(in, layout));
        described = layout.info;
    } else {
        RendererHeaders headers;
        RASTKIT_TRY(readRendererHeaders(in, headers));
        if (headers.info.bits != 24 && headers.info.bits != 32)
            return IMGERR_UNSUPPORTED;
        described = describeBmpForRenderer(headers.info);
    }
    if (info)
        *info = described;
    return IMGERR_NONE;
}

} // namespace QUtils
