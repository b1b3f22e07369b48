#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/pixel_runs.h"
#include "rastkit/codecs/tga.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/codecs/tga_format.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace QUtils {

namespace {

constexpr std::size_t shortestRun = 3;
constexpr int alphaBits = 8;

// --- Run-length packets ----------------------------------------------------------------------------------

/// Most bytes that a row takes: a packet for each pixel.
std::size_t mostPacketBytes(std::size_t pixelBytes, std::size_t width)
{
    return (1 + pixelBytes) * width;
}

std::uint8_t* putRun(std::uint8_t* out, const std::uint8_t* pixel, std::size_t pixelBytes, std::size_t count)
{
    *out = std::uint8_t(count - 1 + tgaRunPacket);
    std::memcpy(out + 1, pixel, pixelBytes);
    return out + 1 + pixelBytes;
}

std::uint8_t* putRaw(std::uint8_t* out, const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count)
{
    while (count != 0) {
        const std::size_t piece = std::min(count, tgaPacketPixels);
        *out = std::uint8_t(piece - 1);
        std::memcpy(out + 1, pixels, piece * pixelBytes);
        out += 1 + piece * pixelBytes;
        pixels += piece * pixelBytes;
        count -= piece;
    }
    return out;
}

/// Stores a row's packets at `out` and returns their end. A pair of equal pixels stays raw: as a run it
/// would cut a raw packet in two.
std::uint8_t* encodeRow(const std::uint8_t* row, std::size_t pixelBytes, std::size_t width, std::uint8_t* out)
{
    for (std::size_t x = 0; x < width;) {
        const std::uint8_t* const pixels = row + x * pixelBytes;
        const std::size_t left = width - x;
        const std::size_t run = runLength(pixels, pixelBytes, std::min(left, tgaPacketPixels));
        if (run >= shortestRun) {
            out = putRun(out, pixels, pixelBytes, run);
            x += run;
        } else {
            const std::size_t raw = rawLength(pixels, pixelBytes, left);
            out = putRaw(out, pixels, pixelBytes, raw);
            x += raw;
        }
    }
    return out;
}

// --- Parts of a file -------------------------------------------------------------------------------------

/// The format has 16 bits for each size; of larger ones the low bits are written.
ImgErrorCode writeHeader(std::FILE* file, int imageType, int width, int height, int pixelBits)
{
    TgaHeader header;
    header.imageType = std::uint8_t(imageType);
    header.width = std::uint16_t(width);
    header.height = std::uint16_t(height);
    header.pixelBits = std::uint8_t(pixelBits);
    header.descriptor = std::uint8_t(TgaHeader::topDown | (pixelBits == 32 ? alphaBits : 0));
    std::uint8_t bytes[TgaHeader::byteSize];
    storeTgaHeader(header, bytes);
    return std::fwrite(bytes, sizeof bytes, 1, file) == 1 ? IMGERR_NONE : IMGERR_WRITE;
}

/// All of the array or a failure. Sizes below 0 have no pixels that could be written.
ImgErrorCode writeArray(std::FILE* file, const IMGINFO& info, const unsigned int* pixels)
{
    if (info.width < 0 || info.height < 0)
        return IMGERR_WRITE;
    if (info.width == 0 || info.height == 0)
        return IMGERR_NONE;
    std::size_t bytes = 0;
    if (info.bytesPerPixel <= 0
        || !multiply(
            std::size_t(info.width), std::size_t(info.height), std::size_t(info.bytesPerPixel), bytes))
        return IMGERR_WRITE;
    return std::fwrite(pixels, 1, bytes, file) == bytes ? IMGERR_NONE : IMGERR_WRITE;
}

/// The answer to a refused row. Those before it still go to the file.
ImgErrorCode refusedRow(BlockWriter& out)
{
    RASTKIT_TRY(out.flush());
    return IMGERR_WRITE;
}

/// Uncompressed rows are fetched to where they are written from.
ImgErrorCode writeRawRows(BlockWriter& out, RowSource& rows)
{
    const std::size_t rowBytes = rows.rowBytes();
    for (int y = 0; y < rows.height(); ++y) {
        RASTKIT_TRY(out.reserve(rowBytes));
        if (!rows.fetch(y, out.next()))
            return refusedRow(out);
        out.advance(rowBytes);
    }
    return out.flush();
}

ImgErrorCode writePacketRows(BlockWriter& out, RowSource& rows)
{
    const std::size_t width = std::size_t(rows.width()), pixelBytes = rows.pixelBytes();
    const auto row = newBytes(rows.rowBytes());
    if (!row)
        return IMGERR_MEMORY;
    for (int y = 0; y < rows.height(); ++y) {
        if (!rows.fetch(y, row.get()))
            return refusedRow(out);
        RASTKIT_TRY(out.reserve(mostPacketBytes(pixelBytes, width)));
        out.advance(std::size_t(encodeRow(row.get(), pixelBytes, width, out.next()) - out.next()));
    }
    return out.flush();
}

/// For image types that this writer does not make: the frame is asked for its rows, none is written.
ImgErrorCode fetchRows(RowSource& rows)
{
    const auto row = newBytes(rows.rowBytes());
    if (!row)
        return IMGERR_MEMORY;
    for (int y = 0; y < rows.height(); ++y)
        if (!rows.fetch(y, row.get()))
            return IMGERR_WRITE;
    return IMGERR_NONE;
}

ImgErrorCode writeRows(std::FILE* file, RowSource& rows, int imageType)
{
    BlockWriter out(file);
    switch (imageType) {
    case TGA_TRUE_COLOR: return writeRawRows(out, rows);
    case TGA_TRUE_COLOR_RLE: return writePacketRows(out, rows);
    default: return fetchRows(rows);
    }
}

/// What the format has no place for.
ImgErrorCode checkWritable(int width, int height, int imageType)
{
    if (width < 1 || width > UINT16_MAX || height < 1 || height > UINT16_MAX)
        return IMGERR_UNSUPPORTED;
    if (imageType != TGA_TRUE_COLOR && imageType != TGA_TRUE_COLOR_RLE)
        return IMGERR_UNSUPPORTED;
    return IMGERR_NONE;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError writeTgaRleEncodedRow(std::FILE* file, unsigned char* row, int bytesPerPixel, int width)
{
    if (width < 1)
        return IMGERR_NONE;
    if (bytesPerPixel < 1)
        return IMGERR_WRITE;
    const std::size_t pixelBytes = std::size_t(bytesPerPixel);
    const auto packets = newBytes(mostPacketBytes(pixelBytes, std::size_t(width)));
    if (!packets)
        return IMGERR_MEMORY;
    const std::uint8_t* const end = encodeRow(row, pixelBytes, std::size_t(width), packets.get());
    const std::size_t bytes = std::size_t(end - packets.get());
    return std::fwrite(packets.get(), 1, bytes, file) == bytes ? IMGERR_NONE : IMGERR_WRITE;
}

ImgError saveTga(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    int imageType, Conventions conventions)
{
    const bool alpha = alphaChannel >= 0;
    const RowQuery query { channel, alphaChannel, alpha ? PIXELFORMAT_BGRA_UINT8 : PIXELFORMAT_BGR_UINT8 };
    RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(checkWritable(rows.width(), rows.height(), imageType));
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();

    RASTKIT_TRY(writeHeader(file, imageType, rows.width(), rows.height(), int(rows.pixelBytes()) * 8));
    if (!rows.isAskable())
        return IMGERR_MEMORY;
    RASTKIT_TRY(writeRows(file, rows, imageType));
    return closeWritten(file);
}

} // namespace QUtils

ImgError SaveTGAFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    RASTKIT_TRY(writeHeader(file, TGA_TRUE_COLOR, info->width, info->height, info->bitsPerPixel));
    RASTKIT_TRY(writeArray(file, *info, pixels));
    return closeWritten(file);
}

ImgError SaveTGAFile(const char*, IMGINFO*, float*)
{
    return IMGERR_UNSUPPORTED;
}

ImgError SaveTGAFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int channel, int alphaChannel, int flags)
{
    return QUtils::saveTga(fileName, pixels, channel, alphaChannel, flags, QUtils::tgaCompression,
        QUtils::Conventions::Renderer);
}
