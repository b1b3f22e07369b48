#include "rastkit/codecs/bmp.h"

#include "rastkit/codecs/bmp_core.h"
#include "rastkit/codecs/bmp_input.h"
#include "rastkit/codecs/bmp_layout.h"
#include "rastkit/codecs/bmp_pixels.h"
#include "rastkit/codecs/bmp_runs.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <memory>
#include <new>

namespace QUtils {

namespace {

// --- Rows that are not encoded ---------------------------------------------------------------------------

/// The answer to a row that the file does not have. The standard's conventions keep its whole pixels.
ImgErrorCode putCutRow(const std::uint8_t* bytes, std::size_t byteCount, const BmpLayout& layout,
    const BmpPixelDecoder& decoder, RowSink& sink, int y)
{
    const std::size_t width = std::size_t(layout.width);
    const std::size_t count = std::min(width, byteCount * 8 / std::size_t(layout.bits));
    const std::unique_ptr<std::uint32_t[]> pixels(new (std::nothrow) std::uint32_t[count]);
    if (!pixels)
        return IMGERR_MEMORY;
    decoder.decode(bytes, byteCount, pixels.get(), count);
    sink.put(0, y, pixels.get(), int(count));
    return IMGERR_READ;
}

ImgErrorCode readRows(BmpInput& in, const BmpLayout& layout, Conventions conventions, RowSink& sink)
{
    // The renderer's rows of narrow pictures of 1 and 4 bits have no bytes, so that no file is too short for
    // them: what is beyond any such picture counts as cut.
    constexpr int mostRowsOfNothing = 1 << 16;
    const BmpPixelDecoder decoder(layout);
    for (int stored = 0; stored < sink.height(); ++stored) {
        if (layout.rowBytes == 0 && stored == mostRowsOfNothing)
            return IMGERR_READ;
        const int y = layout.firstRowIsTop ? stored : sink.height() - 1 - stored;
        std::size_t got = 0;
        const std::uint8_t* const bytes = in.take(layout.rowBytes, got);
        if (got < layout.neededBytes) {
            if (in.isStarved())
                return IMGERR_MEMORY;
            return conventions == Conventions::Standard ? putCutRow(bytes, got, layout, decoder, sink, y)
                                                        : IMGERR_READ;
        }
        std::uint32_t* const row = sink.beginRow(y);
        if (!row)
            return IMGERR_MEMORY;
        decoder.decode(bytes, got, row, std::size_t(sink.width()));
        sink.endRow(y, row);
    }
    return IMGERR_NONE;
}

ImgErrorCode load(BmpInput& in, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    BmpLayout layout;
    RASTKIT_TRY(readBmpLayout(in, conventions, layout));
    if (info)
        *info = layout.info;

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(layout.width, layout.height));
    if (!in.seek(layout.dataOffset))
        return IMGERR_READ;
    if (sink.width() == 0) // A negative width stores nothing, like a negative height.
        return IMGERR_NONE;
    const bool isRuns = layout.encoding == BmpEncoding::Runs4 || layout.encoding == BmpEncoding::Runs8;
    return isRuns ? readBmpRuns(in, layout, sink) : readRows(in, layout, conventions, sink);
}

// --- Memory ----------------------------------------------------------------------------------------------

/// The renderer's reader never attaches the data that it is given, so that its first read fails. Hosts rely
/// on bitmaps being no picture that they can load from memory.
BmpInput attach(const unsigned char* data, unsigned long size, Conventions conventions)
{
    return conventions == Conventions::Standard ? BmpInput(data, size) : BmpInput(nullptr, 0);
}

ImgError noDataError(const char* function)
{
    return { function, IMGERR_MEMORY, "Can't read NULL BMP data" };
}

BmpInput inputOf(const DataReader& reader)
{
    return reader.file ? BmpInput(reader.file) : BmpInput(reader.data, UINT64_MAX, reader.position);
}

// --- Arrays of the caller's ------------------------------------------------------------------------------

// This reader is older than the other and differs from it in what it checks, in how it counts the bytes of a
// row, and in the alpha of its pixels. Scenes depend on each of these.

struct ArrayFile {
    BmpFileHeader file;
    BmpInfoHeader info;
    BmpPalette palette {};
};

ImgErrorCode readArrayPalette(std::FILE* file, ArrayFile& image, std::int64_t& count)
{
    constexpr std::size_t entryBytes = 4;
    const std::uint32_t entries = image.info.colorsUsed != 0 ? image.info.colorsUsed : 1u << image.info.bits;
    if (entries > bmpPaletteSize)
        return IMGERR_UNSUPPORTED;
    std::uint8_t bytes[bmpPaletteSize * entryBytes] = {};
    // One entry is enough.
    if (std::fread(bytes, 1, entries * entryBytes, file) < entryBytes)
        return IMGERR_READ;
    ByteReader in(bytes, sizeof bytes);
    // A reserved byte of 0 becomes 0xFF, and so alpha is full.
    for (std::uint32_t& entry : image.palette)
        entry = in.u32le() - 0x01000000u;
    count = entries;
    return IMGERR_NONE;
}

ImgErrorCode readArrayHeaders(std::FILE* file, ArrayFile& image)
{
    constexpr std::size_t magicBytes = 2;
    std::uint8_t bytes[BmpFileHeader::byteSize + BmpInfoHeader::byteSize] = {};
    const std::size_t got = std::fread(bytes, 1, sizeof bytes, file);
    if (got < magicBytes)
        return IMGERR_READ;
    image.file = parseBmpFileHeader(bytes);
    if (image.file.magic != bmpMagic)
        return IMGERR_FORMAT;
    if (got < sizeof bytes)
        return IMGERR_READ;
    image.info = parseBmpInfoHeader(bytes + BmpFileHeader::byteSize);
    if (image.info.planes != 1)
        return IMGERR_UNSUPPORTED;
    switch (image.info.bits) { // The compression is not looked at.
    case 1:
    case 4:
    case 8:
    case 24:
    case 32: return IMGERR_NONE;
    default: return IMGERR_UNSUPPORTED;
    }
}

/// Nothing happens at the end of the file, nor where `count` is not positive.
void skipForward(std::FILE* file, std::int64_t count)
{
    if (count <= 0 || fseeko(file, off_t(count), SEEK_CUR) == 0)
        return;
    std::uint8_t bytes[4096];
    std::size_t got = 1;
    for (; count > 0 && got != 0; count -= std::int64_t(got))
        got = std::fread(bytes, 1, std::size_t(std::min<std::int64_t>(count, sizeof bytes)), file);
}

/// The pixels of one row. Of one that is cut, what is missing counts as 0.
void decodeArrayRow(const ArrayFile& image, const std::uint8_t* bytes, std::size_t byteCount,
    unsigned int* argb, std::size_t count)
{
    constexpr std::uint32_t opaque = 0xFF000000u;
    const std::size_t pixelBytes = image.info.bits / 8;
    const auto pixelAt = [&](const std::uint8_t* at, std::size_t left) {
        if (pixelBytes == 1)
            return image.palette[left != 0 ? *at : 0];
        std::uint32_t color = 0;
        for (std::size_t i = 0; i < std::min<std::size_t>(left, 3); ++i)
            color |= std::uint32_t(at[i]) << 8 * i;
        return opaque | color;
    };

    const std::size_t whole = std::min(count, byteCount / pixelBytes);
    if (pixelBytes == 3)
        pixelKernels().bgr24ToPacked(bytes, argb, whole);
    else if (pixelBytes == 1)
        std::transform(bytes, bytes + whole, argb, [&](std::uint8_t index) { return image.palette[index]; });
    else
        for (std::size_t i = 0; i < whole; ++i)
            argb[i] = opaque | ByteReader(bytes + 4 * i, 4).u32le();
    for (std::size_t i = whole; i < count; ++i) {
        const std::size_t begin = std::min(byteCount, i * pixelBytes);
        argb[i] = pixelAt(bytes + begin, byteCount - begin);
    }
}

ImgErrorCode readArrayRows(std::FILE* file, const ArrayFile& image, unsigned int* pixels)
{
    const std::size_t width = std::size_t(std::max(image.info.width, 0));
    // 0 for 1 and 4 bits, whose files end here although their depths were accepted.
    const std::size_t rowBytes = paddedBmpRow(image.info.bits / 8 * width);
    BlockReader in(file);
    for (int y = image.info.height - 1; y >= 0; --y) {
        std::size_t got = 0;
        const std::uint8_t* const bytes = in.take(rowBytes, got);
        if (got == 0)
            return in.isValid() ? IMGERR_READ : IMGERR_MEMORY;
        decodeArrayRow(image, bytes, got, pixels + std::size_t(y) * width, width);
    }
    return IMGERR_NONE;
}

ImgErrorCode loadIntoArray(std::FILE* file, unsigned int* pixels, IMGINFO* info)
{
    ArrayFile image;
    std::int64_t entries = 0;
    RASTKIT_TRY(readArrayHeaders(file, image));
    if (image.info.bits <= 8)
        RASTKIT_TRY(readArrayPalette(file, image, entries));
    constexpr std::int64_t headersBytes = BmpFileHeader::byteSize + BmpInfoHeader::byteSize;
    skipForward(file, std::int64_t(image.file.dataOffset) - headersBytes - 4 * entries);
    if (image.info.height > 0)
        RASTKIT_TRY(readArrayRows(file, image, pixels));
    if (info)
        *info = describeBmpForRenderer(image.info);
    return IMGERR_NONE;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError _loadBMPHeaderCommon(DataReader& reader, IMGINFO* info)
{
    BmpInput in = inputOf(reader);
    const ImgErrorCode code = readBmpDescription(in, Conventions::Renderer, info);
    if (!reader.file)
        reader.position = in.position();
    return code;
}

ImgError _loadBMPCommon(DataReader& reader, ImgBuffer& buffer, IMGINFO* info)
{
    BmpInput in = inputOf(reader);
    const ImgErrorCode code = load(in, buffer, info, Conventions::Renderer);
    if (!reader.file)
        reader.position = in.position();
    return code;
}

ImgError loadBmpHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    BmpInput in(file);
    return readBmpDescription(in, conventions, info);
}

ImgError loadBmp(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    BmpInput in(file);
    return load(in, buffer, info, conventions);
}

ImgError loadBmpArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return noDataError("LoadBMPArrayHeader");
    BmpInput in = attach(data, size, conventions);
    return readBmpDescription(in, conventions, info);
}

ImgError loadBmpArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return noDataError("LoadBMPArray");
    BmpInput in = attach(data, size, conventions);
    return load(in, buffer, info, conventions);
}

} // namespace QUtils

ImgError LoadBMPHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadBmpHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadBMPFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadBmp(fileName, buffer, info, QUtils::Conventions::Renderer);
}

ImgError LoadBMPFile(const char* fileName, unsigned int* pixels, IMGINFO* info)
{
    const QUtils::FilePtr file = QUtils::openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    return QUtils::loadIntoArray(file, pixels, info);
}

ImgError LoadBMPArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info)
{
    return QUtils::loadBmpArrayHeader(data, size, info, QUtils::Conventions::Renderer);
}

ImgError LoadBMPArray(const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadBmpArray(data, size, buffer, info, QUtils::Conventions::Renderer);
}
