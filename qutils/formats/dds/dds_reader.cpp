#include "qutils/formats/dds/dds_reader.h"

#include "qutils/core/block_reader.h"
#include "qutils/formats/dds/dds_format.h"
#include "qutils/formats/dds/dds_pixels.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#define DDS_TRY(expression)                                                                                  \
    do {                                                                                                     \
        if (const DDS_Error tryCode = (expression))                                                          \
            return tryCode;                                                                                  \
    } while (0)

namespace QUtils {

namespace {

// --- Header ----------------------------------------------------------------------------------------------

DDS_Error readHeader(std::FILE* file, DdsHeader& header)
{
    std::uint8_t bytes[DdsHeader::byteSize] = {};
    const std::size_t got = std::fread(bytes, 1, sizeof bytes, file);
    if (std::memcmp(bytes, "DDS ", std::min<std::size_t>(got, 4)) != 0)
        return DDS_ERR_FORMAT;
    if (got != sizeof bytes)
        return DDS_ERR_READ;
    header = parseDdsHeader(bytes);
    if (header.hasExtension()) {
        std::uint8_t extension[DdsHeader::extensionBytes];
        if (std::fread(extension, sizeof extension, 1, file) != 1)
            return DDS_ERR_READ;
        parseDdsExtension(extension, header);
    }
    return DDS_ERR_NONE;
}

bool fitsInt(std::uint32_t number)
{
    return number <= std::uint32_t(INT_MAX);
}

DDS_Error checkHeader(const DdsHeader& header)
{
    if (header.size != DdsHeader::structureSize || header.pixelFormat.size != DdsHeader::pixelFormatSize)
        return DDS_ERR_FORMAT;
    if (header.width == 0 || !fitsInt(header.width) || header.height == 0 || !fitsInt(header.height))
        return DDS_ERR_FORMAT;
    if (header.isVolume() && !fitsInt(header.depth))
        return DDS_ERR_FORMAT;
    return fitsInt(header.arraySize) ? DDS_ERR_NONE : DDS_ERR_FORMAT;
}

/// Halvings until nothing is left to halve.
int mostLevels(const DdsDescription& picture)
{
    return int(std::bit_width(unsigned(std::max({ picture.width, picture.height, picture.depth }))));
}

int facesOf(const DdsHeader& header)
{
    if (!header.isCube())
        return 1;
    // Cubes of the extended header are complete.
    const int faces = header.hasExtension() ? 6 : std::popcount(header.caps2 & DDSCAPS2_CUBEMAP_ALLFACES);
    return faces == 0 ? 6 : faces;
}

int alphaModeOf(const DdsHeader& header, const DdsFormat& format)
{
    if (!format.hasAlpha)
        return DDS_ALPHA_OPAQUE;
    return format.isPremultiplied ? int(DDS_ALPHA_PREMULTIPLIED)
                                  : int(header.miscFlags2 & DDS_MISC_FLAGS2_ALPHA_MODE_MASK);
}

DdsDescription describe(const DdsHeader& header, const DdsFormat& format)
{
    DdsDescription picture {};
    picture.width = int(header.width);
    picture.height = int(header.height);
    picture.depth = header.isVolume() ? std::max(int(header.depth), 1) : 1;
    // Counts of 0 mean 1; some writers leave more levels than there can be.
    picture.levels = int(std::clamp(header.mipMapCount, 1u, unsigned(mostLevels(picture))));
    picture.elements = std::max(int(header.arraySize), 1);
    picture.faces = facesOf(header);
    picture.isFloat = format.isFloat;
    picture.isSrgb = format.isSrgb;
    picture.alphaMode = alphaModeOf(header, format);
    picture.dxgiFormat = fitsInt(header.dxgiFormat) ? int(header.dxgiFormat) : 0;
    return picture;
}

DDS_Error readDescription(std::FILE* file, DdsFormat& format, DdsDescription& description)
{
    DdsHeader header {};
    DDS_TRY(readHeader(file, header));
    DDS_TRY(checkHeader(header));
    format = ddsFormatOf(header);
    if (format.coding == DdsCoding::Unknown)
        return DDS_ERR_UNSUPPORTED;
    description = describe(header, format);
    return DDS_ERR_NONE;
}

// --- Where surfaces are ----------------------------------------------------------------------------------

int halved(int size, int level)
{
    return std::max(size >> level, 1);
}

/// Sums and products that stay at the largest number once they are too large.
class Bytes {
public:
    explicit Bytes(std::uint64_t count) : m_count(count) { }

    Bytes& operator+=(Bytes other)
    {
        if (__builtin_add_overflow(m_count, other.m_count, &m_count))
            m_count = UINT64_MAX;
        return *this;
    }
    Bytes operator*(std::uint64_t factor) const
    {
        std::uint64_t product = 0;
        return Bytes(__builtin_mul_overflow(m_count, factor, &product) ? UINT64_MAX : product);
    }
    std::uint64_t count() const { return m_count; }

private:
    std::uint64_t m_count;
};

std::uint64_t unitsAcross(int pixels, unsigned unit)
{
    return (std::uint64_t(pixels) + unit - 1) / unit;
}

/// Of one slice.
Bytes levelBytes(const DdsDescription& picture, const DdsFormat& format, int level)
{
    return Bytes(unitsAcross(halved(picture.width, level), format.unitWidth) * format.unitBytes)
        * unitsAcross(halved(picture.height, level), format.unitHeight);
}

/// From the end of the headers.
std::uint64_t offsetOf(const DdsSurface& surface, const DdsDescription& picture, const DdsFormat& format)
{
    Bytes chain(0), before(0);
    for (int level = 0; level < picture.levels; ++level) {
        if (level == surface.level)
            before = chain;
        chain += levelBytes(picture, format, level) * std::uint64_t(halved(picture.depth, level));
    }
    Bytes offset = chain
        * (std::uint64_t(surface.element) * std::uint64_t(picture.faces) + std::uint64_t(surface.face));
    offset += before;
    offset += levelBytes(picture, format, surface.level) * std::uint64_t(surface.slice);
    return offset.count();
}

bool isBelow(int number, int count)
{
    return number >= 0 && number < count;
}

bool isThere(const DdsSurface& surface, const DdsDescription& picture)
{
    return isBelow(surface.element, picture.elements) && isBelow(surface.face, picture.faces)
        && isBelow(surface.level, picture.levels)
        && isBelow(surface.slice, halved(picture.depth, surface.level));
}

// --- Pixels ----------------------------------------------------------------------------------------------

constexpr unsigned mostUnitRows = 4, mostUnitPixels = 16;

/// What differs between words and floats.
struct PackedPixels {
    using Element = std::uint32_t;
    static constexpr std::size_t perPixel = 1;

    static Element* storage(DdsRows& rows, int y) { return rows.storage(y); }
    static void put(DdsRows& rows, int y, const Element* row, int count) { rows.put(y, row, count); }
    static void decode(
        const DdsDecoder& decoder, const std::uint8_t* units, std::size_t count, Element* const* rows)
    {
        decoder.packed(units, count, rows);
    }
};

struct FloatPixels {
    using Element = float;
    static constexpr std::size_t perPixel = 4;

    static Element* storage(DdsRows& rows, int y) { return rows.storageF(y); }
    static void put(DdsRows& rows, int y, const Element* row, int count) { rows.putF(y, row, count); }
    static void decode(
        const DdsDecoder& decoder, const std::uint8_t* units, std::size_t count, Element* const* rows)
    {
        decoder.floats(units, count, rows);
    }
};

/// Decodes a surface, a row of units at a time, into the storage of the rows' taker or into rows of its own.
template <typename Pixels> class SurfaceDecoder {
public:
    SurfaceDecoder(const DdsFormat& format, const DdsDecoder& decoder, DdsRows& rows, int width, int height)
        : m_format(format), m_decoder(decoder), m_rows(rows), m_width(width), m_height(height)
    {
    }

    DDS_Error run(BlockReader& in)
    {
        const std::uint64_t units = unitsAcross(m_width, m_format.unitWidth);
        const std::uint64_t rowBytes = units * m_format.unitBytes;
        for (std::int64_t y = 0; y < m_height; y += m_format.unitHeight) {
            std::size_t got = 0;
            const std::uint8_t* const bytes = in.take(rowBytes, got);
            if (!in.isValid())
                return DDS_ERR_MEMORY;
            // Not before these bytes have come is memory taken for so many pixels.
            const std::uint64_t whole = got / m_format.unitBytes;
            DDS_TRY(decodeRow(bytes, whole, int(y), whole == units));
            if (whole != units)
                return DDS_ERR_READ;
        }
        return DDS_ERR_NONE;
    }

private:
    using Element = typename Pixels::Element;

    /// Decodes `units` units into rows y and below; into storage only when these are all.
    DDS_Error decodeRow(const std::uint8_t* bytes, std::size_t units, int y, bool isWhole)
    {
        const std::size_t pixels = std::min(units * m_format.unitWidth, std::size_t(m_width));
        if (pixels == 0)
            return DDS_ERR_NONE;
        const int rowCount = std::min(int(m_format.unitHeight), m_height - y);
        Element* target[mostUnitRows] = {};
        bool isStored[mostUnitRows] = {};
        for (int k = 0; k < int(m_format.unitHeight); ++k) {
            target[k] = isWhole && k < rowCount ? Pixels::storage(m_rows, y + k) : nullptr;
            isStored[k] = target[k] != nullptr;
            if (!isStored[k] && !(target[k] = ownRow(k, pixels)))
                return DDS_ERR_MEMORY;
        }
        decodePixels(bytes, pixels, target);
        for (int k = 0; k < rowCount; ++k)
            if (!isStored[k])
                Pixels::put(m_rows, y + k, target[k], int(pixels));
        return DDS_ERR_NONE;
    }

    void decodePixels(const std::uint8_t* bytes, std::size_t pixels, Element* const* target)
    {
        const std::size_t fit = pixels / m_format.unitWidth, rest = pixels % m_format.unitWidth;
        Pixels::decode(m_decoder, bytes, fit, target);
        if (rest == 0)
            return;
        // The last unit reaches beyond the row.
        Element unit[mostUnitPixels * Pixels::perPixel];
        Element* unitRows[mostUnitRows];
        for (std::size_t k = 0; k < mostUnitRows; ++k)
            unitRows[k] = unit + k * 4 * Pixels::perPixel;
        Pixels::decode(m_decoder, bytes + fit * m_format.unitBytes, 1, unitRows);
        for (std::size_t k = 0; k < m_format.unitHeight; ++k)
            std::copy_n(unitRows[k], rest * Pixels::perPixel,
                target[k] + fit * m_format.unitWidth * Pixels::perPixel);
    }

    /// Memory for as many pixels as the first call asks for; later ones ask for no more.
    Element* ownRow(int k, std::size_t pixels)
    {
        if (!m_own[k])
            m_own[k].reset(new (std::nothrow) Element[pixels * Pixels::perPixel]);
        return m_own[k].get();
    }

    const DdsFormat& m_format;
    const DdsDecoder& m_decoder;
    DdsRows& m_rows;
    int m_width, m_height;
    std::unique_ptr<Element[]> m_own[mostUnitRows];
};

DDS_Error readPixels(
    std::FILE* file, const DdsFormat& format, const DdsDecoder& decoder, DdsRows& rows, int width, int height)
{
    BlockReader in(file);
    if (!in.isValid())
        return DDS_ERR_MEMORY;
    return format.isFloat ? SurfaceDecoder<FloatPixels>(format, decoder, rows, width, height).run(in)
                          : SurfaceDecoder<PackedPixels>(format, decoder, rows, width, height).run(in);
}

DDS_Error readPalette(std::FILE* file, const DdsFormat& format, DdsPalette& palette)
{
    if (format.coding != DdsCoding::Palette8)
        return DDS_ERR_NONE;
    return std::fread(palette.bytes, sizeof palette.bytes, 1, file) == 1 ? DDS_ERR_NONE : DDS_ERR_READ;
}

DDS_Error skip(std::FILE* file, std::uint64_t bytes)
{
    if (bytes == 0)
        return DDS_ERR_NONE;
    return bytes <= std::uint64_t(INT64_MAX) && fseeko(file, off_t(bytes), SEEK_CUR) == 0 ? DDS_ERR_NONE
                                                                                          : DDS_ERR_READ;
}

DDS_Error readSurface(std::FILE* file, const DdsSurface& surface, DdsRows& rows, DdsDescription* description)
{
    DdsFormat format;
    DdsDescription picture {};
    DDS_TRY(readDescription(file, format, picture));
    if (description)
        *description = picture;
    if (!isThere(surface, picture))
        return DDS_ERR_FORMAT;

    const int width = halved(picture.width, surface.level), height = halved(picture.height, surface.level);
    if (!rows.begin(width, height, format.isFloat))
        return DDS_ERR_SINK;
    DdsPalette palette;
    DDS_TRY(readPalette(file, format, palette));
    const std::unique_ptr<DdsDecoder> decoder = makeDdsDecoder(format, palette);
    if (!decoder)
        return DDS_ERR_MEMORY;
    DDS_TRY(skip(file, offsetOf(surface, picture, format)));
    return readPixels(file, format, *decoder, rows, width, height);
}

} // namespace

DdsRows::~DdsRows() = default;

unsigned int* DdsRows::storage(int)
{
    return nullptr;
}

float* DdsRows::storageF(int)
{
    return nullptr;
}

int DDS_ReadDescription(std::FILE* file, DdsDescription& description)
{
    DdsFormat format;
    return readDescription(file, format, description);
}

int DDS_ReadSurface(std::FILE* file, const DdsSurface& surface, DdsRows& rows, DdsDescription* description)
{
    return readSurface(file, surface, rows, description);
}

} // namespace QUtils
