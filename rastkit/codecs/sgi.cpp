#include "rastkit/codecs/sgi.h"

#include "rastkit/codecs/sgi_core.h"
#include "rastkit/codecs/sgi_format.h"
#include "rastkit/codecs/sgi_rows.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/planar_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace QUtils {

namespace {

// --- Header ----------------------------------------------------------------------------------------------

/// The standard conventions want all of it. The renderer's take what is missing for 0.
ImgErrorCode readHeader(std::FILE* file, Conventions conventions, sgi_header_info& header)
{
    std::uint8_t bytes[sgiHeaderBytes] = {};
    const std::size_t got = std::fread(bytes, 1, sizeof bytes, file);
    if (got < sizeof bytes && conventions == Conventions::Standard)
        return IMGERR_FORMAT;
    header = parseSgiHeader(bytes);
    return checkSgiHeader(header, conventions);
}

void describeRenderer(const sgi_header_info& header, IMGINFO& info)
{
    info.width = header.xsize;
    info.height = header.ysize;
    info.numChannels = header.zsize;
    info.bitsPerPixel = header.bytesPerChannel * header.zsize * 8;
}

void describeStandard(const SgiLayout& layout, IMGINFO& info)
{
    info.width = layout.width;
    info.height = layout.height;
    info.numChannels = layout.pixels == SgiPixels::Dithered ? 3 : layout.channels;
    info.bytesPerPixel = info.numChannels * int(layout.coding.sampleBytes);
    info.bitsPerPixel = layout.pixels == SgiPixels::Dithered ? 8 : info.bytesPerPixel * 8;
}

void describe(const sgi_header_info& header, const SgiLayout& layout, Conventions conventions, IMGINFO* info)
{
    if (!info)
        return;
    *info = IMGINFO {};
    if (conventions == Conventions::Renderer)
        describeRenderer(header, *info);
    else
        describeStandard(layout, *info);
}

// --- Pixels ----------------------------------------------------------------------------------------------

using Planes = const std::uint8_t * [SgiRowReader::mostChannels];

/// The bits of a dithered pixel, scaled to bytes and rounded.
void packDithered(const std::uint8_t* values, std::uint32_t* argb, std::size_t count)
{
    const auto scaled = [](unsigned int value, unsigned int most) { return (value * 255 + most / 2) / most; };
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned int red = values[i] & 7u, green = values[i] >> 3 & 7u, blue = values[i] >> 6;
        argb[i] = 0xFF000000u | scaled(red, 7) << 16 | scaled(green, 7) << 8 | scaled(blue, 3);
    }
}

void packBytes(SgiPixels pixels, const Planes& planes, std::uint32_t* argb, std::size_t count)
{
    const PlanarKernels& kernels = planarKernels();
    switch (pixels) {
    case SgiPixels::Nothing: std::fill_n(argb, count, 0u); break;
    case SgiPixels::Grey: pixelKernels().greyToPacked(planes[0], argb, count); break;
    case SgiPixels::GreyAlpha:
        kernels.planesToPacked(planes[0], planes[0], planes[0], planes[1], argb, count);
        break;
    case SgiPixels::Dithered: packDithered(planes[0], argb, count); break;
    case SgiPixels::Rgb: kernels.planesToPacked(planes[0], planes[1], planes[2], nullptr, argb, count); break;
    case SgiPixels::Rgba:
        kernels.planesToPacked(planes[0], planes[1], planes[2], planes[3], argb, count);
        break;
    }
}

/// Of 16-bit samples the upper bytes, in pieces that stay in the nearest cache.
void packUpperBytes(const SgiLayout& layout, const Planes& planes, std::uint32_t* argb, std::size_t count)
{
    constexpr std::size_t piecePixels = 1024;
    std::uint8_t upper[SgiRowReader::mostChannels][piecePixels];
    const Planes pieces = { upper[0], upper[1], upper[2], upper[3] };
    for (std::size_t x = 0; x < count; x += piecePixels) {
        const std::size_t piece = std::min(piecePixels, count - x);
        for (int c = 0; c < layout.channels; ++c)
            planarKernels().firstBytes(planes[c] + 2 * x, upper[c], piece);
        packBytes(layout.pixels, pieces, argb + x, piece);
    }
}

void pack(const SgiLayout& layout, const Planes& planes, std::uint32_t* argb, std::size_t count)
{
    if (layout.coding.sampleBytes == 1)
        packBytes(layout.pixels, planes, argb, count);
    else
        packUpperBytes(layout, planes, argb, count);
}

/// 16-bit samples times the float nearest to 1 / 65535, which makes the greatest exactly 1.
void toFloats(const SgiLayout& layout, const Planes& planes, float* rgba, std::size_t count)
{
    constexpr std::size_t piecePixels = 256;
    constexpr float scale = 1 / 65535.0f;
    float samples[SgiRowReader::mostChannels][piecePixels];
    const bool isGrey = layout.channels < 3;
    const float* const green = samples[isGrey ? 0 : 1];
    const float* const blue = samples[isGrey ? 0 : 2];
    const float* const alpha = layout.channels % 2 == 0 ? samples[layout.channels - 1] : nullptr;
    for (std::size_t x = 0; x < count; x += piecePixels) {
        const std::size_t piece = std::min(piecePixels, count - x);
        for (int c = 0; c < layout.channels; ++c)
            pixelKernels().bigUint16ToFloat(planes[c] + 2 * x, scale, samples[c], piece);
        planarKernels().planesToRgba(samples[0], green, blue, alpha, rgba + 4 * x, piece);
    }
}

// --- Rows ------------------------------------------------------------------------------------------------

ImgErrorCode storeRow(const SgiLayout& layout, const Planes& planes, RowSink& sink, int y)
{
    const std::size_t width = std::size_t(layout.width);
    if (layout.keepsNumbers) {
        float* const row = sink.beginRowF(y);
        if (!row)
            return IMGERR_MEMORY;
        toFloats(layout, planes, row, width);
        sink.endRowF(y, row);
        return IMGERR_NONE;
    }
    std::uint32_t* const row = sink.beginRow(y);
    if (!row)
        return IMGERR_MEMORY;
    pack(layout, planes, row, width);
    sink.endRow(y, row);
    return IMGERR_NONE;
}

/// Stores the first pixels of a row that lacks others.
void storeBeginning(const SgiLayout& layout, const Planes& planes, RowSink& sink, int y, std::size_t count)
{
    constexpr std::size_t piecePixels = 256;
    for (std::size_t x = 0; x < count; x += piecePixels) {
        const std::size_t piece = std::min(piecePixels, count - x);
        Planes rest;
        for (int c = 0; c < layout.channels; ++c)
            rest[c] = planes[c] + x * layout.coding.sampleBytes;
        if (layout.keepsNumbers) {
            float rgba[piecePixels * 4];
            toFloats(layout, rest, rgba, piece);
            sink.putF(int(x), y, rgba, int(piece));
        } else {
            std::uint32_t argb[piecePixels];
            pack(layout, rest, argb, piece);
            sink.put(int(x), y, argb, int(piece));
        }
    }
}

/// Rows are stored bottom row first. What is missing or broken of one does no harm to the next.
ImgErrorCode readRows(std::FILE* file, const SgiLayout& layout, RowSink& sink)
{
    if (layout.width == 0 || layout.height == 0)
        return IMGERR_NONE;
    SgiRowReader reader(file, layout);
    RASTKIT_TRY(reader.setUp());
    const std::size_t width = std::size_t(layout.width);
    ImgErrorCode result = IMGERR_NONE;
    for (int stored = 0; stored < layout.height; ++stored) {
        const int y = layout.height - 1 - stored;
        Planes planes = {};
        std::size_t count = width;
        for (int c = 0; c < layout.channels; ++c) {
            const SgiRow row = reader.row(c, stored);
            planes[c] = row.samples;
            count = std::min(count, row.count);
            if (!row.isIntact)
                result = IMGERR_READ;
        }
        if (count == width)
            RASTKIT_TRY(storeRow(layout, planes, sink, y));
        else
            storeBeginning(layout, planes, sink, y, count);
    }
    return result;
}

// --- Single rows -----------------------------------------------------------------------------------------

/// What the row functions decode by: the renderer's reading of any header.
SgiCoding codingOf(const sgi_header_info& header, bool isRunLength)
{
    SgiCoding coding;
    coding.sampleBytes = header.bytesPerChannel == 1 ? 1 : 2;
    coding.controlBytes = isRunLength ? 1 : 0;
    return coding;
}

/// The bytes from `offset` on that a row may take, completed by 0xFF. Null without memory.
std::unique_ptr<std::uint8_t[]> readRowBytes(std::FILE* file, long offset, std::size_t mostBytes)
{
    std::unique_ptr<std::uint8_t[]> bytes(new (std::nothrow) std::uint8_t[mostBytes]);
    if (!bytes)
        return bytes;
    const bool isThere = std::fseek(file, offset, SEEK_SET) == 0;
    const std::size_t got = isThere ? std::fread(bytes.get(), 1, mostBytes, file) : 0;
    std::memset(bytes.get() + got, 0xFF, mostBytes - got);
    return bytes;
}

/// The first byte of each sample as a number.
void widen(const std::uint8_t* samples, std::size_t sampleBytes, unsigned int* out, std::size_t count)
{
    for (std::size_t x = 0; x < count; ++x)
        out[x] = samples[x * sampleBytes];
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

void initSGIHeaderInfo(sgi_header_info& header, int xsize, int ysize, const char* name)
{
    header = sgi_header_info {};
    header.magic = sgiMagic;
    header.storage = char(SGI_VERBATIM);
    header.bytesPerChannel = 1;
    header.dimension = 3;
    header.xsize = static_cast<unsigned short>(xsize);
    header.ysize = static_cast<unsigned short>(ysize);
    header.zsize = 4;
    header.maxValue = 255;
    if (name)
        std::memcpy(header.name, name, strnlen(name, sizeof header.name));
}

int readSGIHeaderInfo(std::FILE* file, sgi_header_info& header)
{
    if (!file || std::feof(file))
        return 0;
    std::uint8_t bytes[sgiHeaderBytes] = {};
    static_cast<void>(std::fread(bytes, 1, sizeof bytes, file)); // A short header is one of zeros.
    header = parseSgiHeader(bytes);
    return 1;
}

void readSGIrow(std::FILE* file, const sgi_header_info& header, int offset, unsigned int* samples)
{
    const SgiCoding coding = codingOf(header, false);
    const auto bytes = readRowBytes(file, offset, coding.mostBytes(header.xsize));
    if (bytes)
        widen(bytes.get(), coding.sampleBytes, samples, header.xsize);
    else
        std::fill_n(samples, header.xsize, 0xFFu);
}

void readSGIrowCompressed(std::FILE* file, const sgi_header_info& header, int offset, unsigned int* samples)
{
    const SgiCoding coding = codingOf(header, true);
    const std::size_t width = header.xsize, mostBytes = coding.mostBytes(width);
    const std::unique_ptr<std::uint8_t[]> row(
        new (std::nothrow) std::uint8_t[width * coding.sampleBytes + sgiRowSlack]);
    const auto bytes = readRowBytes(file, offset, mostBytes);
    if (!row || !bytes) {
        std::fill_n(samples, width, 0xFFu);
        return;
    }
    const SgiPacketRow packets = decodeSgiPackets(coding, bytes.get(), mostBytes, row.get(), width);
    widen(row.get(), coding.sampleBytes, samples, packets.samples);
    std::fill_n(samples + packets.samples, width - packets.samples, 0u);
    static_cast<void>(std::fseek(file, long(offset) + long(packets.bytes), SEEK_SET));
}

ImgError loadSgiHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    sgi_header_info header;
    RASTKIT_TRY(readHeader(file, conventions, header));
    describe(header, layOutSgi(header, conventions), conventions, info);
    return IMGERR_NONE;
}

ImgError loadSgi(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    sgi_header_info header;
    RASTKIT_TRY(readHeader(file, conventions, header));
    const SgiLayout layout = layOutSgi(header, conventions);
    describe(header, layout, conventions, info);
    if (info && conventions == Conventions::Renderer) {
        // Deliberately other than in the header reader: this one's sizes are signed.
        info->width = std::int16_t(header.xsize);
        info->height = std::int16_t(header.ysize);
    }

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(layout.width, layout.height));
    return readRows(file, layout, sink);
}

} // namespace QUtils

ImgError LoadSGIHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadSgiHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadSGIFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadSgi(fileName, buffer, info, QUtils::Conventions::Renderer);
}
