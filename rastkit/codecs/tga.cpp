#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/codecs/tga_format.h"
#include "rastkit/codecs/tga_layout.h"
#include "rastkit/codecs/tga_values.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/byte_reader.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace QUtils {

namespace {

// The footer of a TGA 2.0 file: the offsets of the extension and the developer area, then a signature.
constexpr std::size_t footerBytes = 26;
constexpr std::string_view footerSignature = "TRUEVISION-XFILE";
// The last byte of the extension area. Some writers do not count it in the area's size.
constexpr std::size_t attributesTypeOffset = 494;

// --- Header and extension area ---------------------------------------------------------------------------

bool seekTo(std::FILE* file, std::uint64_t offset)
{
    return fseeko(file, off_t(offset), SEEK_SET) == 0;
}

ImgErrorCode readHeader(std::FILE* file, TgaHeader& header)
{
    std::uint8_t bytes[TgaHeader::byteSize];
    if (std::fread(bytes, sizeof bytes, 1, file) != 1)
        return IMGERR_FORMAT;
    header = parseTgaHeader(bytes);
    return IMGERR_NONE;
}

/// What does not look like a footer or an extension area counts as none.
TgaAttributesType readAttributesType(std::FILE* file)
{
    std::uint8_t footer[footerBytes];
    if (fseeko(file, -off_t(footerBytes), SEEK_END) != 0 || std::fread(footer, footerBytes, 1, file) != 1
        || std::memcmp(footer + 8, footerSignature.data(), footerSignature.size()) != 0)
        return TGA_ATTRIBUTES_NONE;

    const std::uint32_t areaOffset = ByteReader(footer, footerBytes).u32le();
    std::uint8_t area[attributesTypeOffset + 1];
    if (areaOffset == 0 || !seekTo(file, areaOffset) || std::fread(area, sizeof area, 1, file) != 1
        || ByteReader(area, sizeof area).u16le() < attributesTypeOffset)
        return TGA_ATTRIBUTES_NONE;
    return TgaAttributesType(area[attributesTypeOffset]);
}

TgaLayout readLayout(std::FILE* file, const TgaHeader& header, Conventions conventions)
{
    const bool asks = conventions == Conventions::Standard;
    return layOutTga(header, conventions, asks ? readAttributesType(file) : TGA_ATTRIBUTES_NONE);
}

void describe(const TgaLayout& layout, IMGINFO* info)
{
    if (!info)
        return;
    info->width = layout.width;
    info->height = layout.height;
    info->bitsPerPixel = layout.bitsPerPixel;
    info->numChannels = layout.numChannels;
    info->bytesPerPixel = layout.bytesPerPixel;
}

// --- Where pixels go -------------------------------------------------------------------------------------

/// Takes rows in the order in which the file stores them and puts them at their place in the picture.
class StoredRows {
public:
    StoredRows(RowSink& sink, const TgaLayout& layout)
        : m_sink(sink), m_topDown(layout.firstRowIsTop), m_rightToLeft(layout.firstPixelIsRight)
    {
    }

    int count() const { return m_sink.height(); }
    int width() const { return m_sink.width(); }

    /// Room for all pixels of a row; `end` follows when they are stored. Null when memory is refused.
    std::uint32_t* begin(int stored) { return m_sink.beginRow(y(stored)); }
    void end(int stored, std::uint32_t* row)
    {
        if (m_rightToLeft)
            std::reverse(row, row + width());
        m_sink.endRow(y(stored), row);
    }

    /// Takes the first `count` pixels of a row whose end is missing; their order at `pixels` is lost.
    void putFirst(int stored, std::uint32_t* pixels, int count)
    {
        if (m_rightToLeft)
            std::reverse(pixels, pixels + count);
        m_sink.put(m_rightToLeft ? width() - count : 0, y(stored), pixels, count);
    }

private:
    int y(int stored) const { return m_topDown ? stored : count() - 1 - stored; }

    RowSink& m_sink;
    bool m_topDown, m_rightToLeft;
};

// --- Pixel data ------------------------------------------------------------------------------------------

/// What to answer when the reader has fewer bytes than are needed.
ImgErrorCode shortRead(const BlockReader& in)
{
    return in.isValid() ? IMGERR_READ : IMGERR_MEMORY;
}

std::unique_ptr<std::uint32_t[]> newPixels(std::size_t count)
{
    return std::unique_ptr<std::uint32_t[]>(new (std::nothrow) std::uint32_t[count]);
}

ImgErrorCode readColorMap(BlockReader& in, const TgaLayout& layout, TgaColorMap& map)
{
    if (layout.entryCount == 0)
        return IMGERR_NONE;
    if (layout.entryBytes == 0)
        return IMGERR_READ;

    const std::size_t mapBytes = layout.entryCount * layout.entryBytes;
    std::size_t got = 0;
    const std::uint8_t* const bytes = in.take(mapBytes, got);
    if (got != mapBytes)
        return shortRead(in);
    map.entries = newPixels(layout.entryCount);
    if (!map.entries)
        return IMGERR_MEMORY;
    TgaValueDecoder(layout.entry, layout.entryBytes, map).many(bytes, map.entries.get(), layout.entryCount);
    map.length = layout.entryCount;
    map.firstIndex = layout.firstIndex;
    return IMGERR_NONE;
}

/// Hands over the whole pixels in front of the cut.
ImgErrorCode putCutRow(const std::uint8_t* bytes, std::size_t byteCount, const TgaValueDecoder& decoder,
    StoredRows& rows, int stored)
{
    const std::size_t count = byteCount / decoder.valueBytes();
    const auto pixels = newPixels(count);
    if (!pixels)
        return IMGERR_MEMORY;
    decoder.many(bytes, pixels.get(), count);
    rows.putFirst(stored, pixels.get(), int(count));
    return IMGERR_READ;
}

ImgErrorCode readRows(BlockReader& in, const TgaValueDecoder& decoder, StoredRows& rows)
{
    const std::size_t width = std::size_t(rows.width());
    const std::size_t rowBytes = width * decoder.valueBytes();
    for (int stored = 0; stored < rows.count(); ++stored) {
        std::size_t got = 0;
        const std::uint8_t* const bytes = in.take(rowBytes, got);
        if (got != rowBytes)
            return in.isValid() ? putCutRow(bytes, got, decoder, rows, stored) : IMGERR_MEMORY;
        std::uint32_t* const row = rows.begin(stored);
        if (!row)
            return IMGERR_MEMORY;
        decoder.many(bytes, row, width);
        rows.end(stored, row);
    }
    return IMGERR_NONE;
}

// --- Run-length packets ----------------------------------------------------------------------------------

/// Decodes packets, which may go on from row to row.
class PacketDecoder {
public:
    explicit PacketDecoder(const TgaValueDecoder& values) : m_values(values) { }

    /// Most bytes that `count` pixels take: each in a packet of its own.
    std::size_t mostBytes(std::size_t count) const { return count * (1 + m_values.valueBytes()); }

    /// Decodes the next `count` pixels from the bytes at `pos`, which it moves on; fewer when the bytes end
    /// before. Returns how many.
    std::size_t decode(
        const std::uint8_t*& pos, const std::uint8_t* end, std::uint32_t* argb, std::size_t count)
    {
        std::size_t done = 0;
        while (done < count && (m_left != 0 || beginPacket(pos, end))) {
            const std::size_t wanted = std::min(m_left, count - done);
            const std::size_t got
                = m_isRun ? wanted : std::min(wanted, std::size_t(end - pos) / m_values.valueBytes());
            if (m_isRun) {
                std::fill_n(argb + done, got, m_runPixel);
            } else {
                m_values.many(pos, argb + done, got);
                pos += got * m_values.valueBytes();
            }
            done += got;
            m_left -= got;
            if (got < wanted)
                break;
        }
        return done;
    }

private:
    bool beginPacket(const std::uint8_t*& pos, const std::uint8_t* end)
    {
        if (pos == end)
            return false;
        const std::uint8_t first = *pos;
        m_isRun = (first & tgaRunPacket) != 0;
        if (m_isRun) {
            if (std::size_t(end - pos) < 1 + m_values.valueBytes())
                return false;
            m_runPixel = m_values.one(pos + 1);
            pos += m_values.valueBytes();
        }
        ++pos;
        m_left = std::size_t(first & ~tgaRunPacket) + 1;
        return true;
    }

    const TgaValueDecoder& m_values;
    std::size_t m_left = 0; // Pixels of the present packet.
    bool m_isRun = false;
    std::uint32_t m_runPixel = 0;
};

ImgErrorCode readPackets(BlockReader& in, const TgaValueDecoder& values, StoredRows& rows)
{
    const std::size_t width = std::size_t(rows.width());
    PacketDecoder decoder(values);
    std::unique_ptr<std::uint32_t[]> spare; // For rows that may be cut: the sink's room must be filled.
    for (int stored = 0; stored < rows.count(); ++stored) {
        const std::size_t ready = in.ready(decoder.mostBytes(width));
        const bool isWhole = ready >= decoder.mostBytes(width);
        if (!isWhole && !spare)
            spare = newPixels(width);
        std::uint32_t* const row = isWhole ? rows.begin(stored) : spare.get();
        if (!row)
            return IMGERR_MEMORY;

        const std::uint8_t* pos = in.data();
        const std::size_t count = decoder.decode(pos, pos + ready, row, width);
        in.skip(std::size_t(pos - in.data()));
        if (isWhole)
            rows.end(stored, row);
        else
            rows.putFirst(stored, row, int(count));
        if (count != width)
            return shortRead(in);
    }
    return IMGERR_NONE;
}

ImgErrorCode readPixels(BlockReader& in, const TgaLayout& layout, const TgaColorMap& map, RowSink& sink)
{
    if (layout.pixelBytes == 0)
        return IMGERR_READ;
    const TgaValueDecoder decoder(layout.pixel, layout.pixelBytes, map);
    StoredRows rows(sink, layout);
    return layout.isRunLength ? readPackets(in, decoder, rows) : readRows(in, decoder, rows);
}

ImgErrorCode readData(std::FILE* file, const TgaLayout& layout, RowSink& sink)
{
    if (!seekTo(file, layout.dataOffset))
        return IMGERR_READ;
    BlockReader in(file);
    if (!in.isValid())
        return IMGERR_MEMORY;
    TgaColorMap map;
    RASTKIT_TRY(readColorMap(in, layout, map));
    return readPixels(in, layout, map, sink);
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError loadTgaHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    TgaHeader header;
    RASTKIT_TRY(readHeader(file, header));
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(checkTgaHeader(header, conventions));
    else
        header.colorMapType = 0; // The renderer is told the depth of the pixels, map or not.
    describe(readLayout(file, header, conventions), info);
    return IMGERR_NONE;
}

ImgError loadTga(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    TgaHeader header;
    RASTKIT_TRY(readHeader(file, header));
    if (!seekTo(file, header.idEnd()))
        return IMGERR_READ;
    RASTKIT_TRY(checkTgaHeader(header, conventions));
    const TgaLayout layout = readLayout(file, header, conventions);

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(layout.width, layout.height));
    RASTKIT_TRY(readData(file, layout, sink));
    describe(layout, info);
    return IMGERR_NONE;
}

} // namespace QUtils

ImgError LoadTGAHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadTgaHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadTGAFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadTga(fileName, buffer, info, QUtils::Conventions::Renderer);
}
