#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/bmp_core.h"
#include "rastkit/codecs/bmp_format.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace QUtils {

namespace {

constexpr std::size_t headersBytes = BmpFileHeader::byteSize + BmpInfoHeader::byteSize;
constexpr std::size_t pixelBytes = 3;

std::uint64_t rowBytesOf(int width)
{
    return paddedBmpRow(std::uint64_t(std::max(width, 0)) * pixelBytes);
}

/// The renderer is not told of a file that cannot be closed either.
ImgErrorCode close(BlockWriter& out, FilePtr& file, Conventions conventions)
{
    const ImgErrorCode written = out.flush();
    const ImgErrorCode closed = closeWritten(file);
    return written != IMGERR_NONE || conventions == Conventions::Renderer ? written : closed;
}

/// Room for the headers is reserved. Of a larger file the low 32 bits of its size are written.
void putHeaders(BlockWriter& out, int width, int height)
{
    const std::uint64_t rowCount = std::uint64_t(std::max(height, 0));
    BmpFileHeader file;
    file.fileSize = std::uint32_t(rowBytesOf(width) * rowCount + headersBytes);
    file.dataOffset = headersBytes;
    BmpInfoHeader info;
    info.width = width;
    info.height = height;
    info.bits = 8 * pixelBytes;
    storeBmpHeaders(file, info, out.next());
    out.advance(headersBytes);
}

/// The zeros that pad a row; room for them is reserved.
void putPadding(BlockWriter& out, std::uint64_t rowBytes, std::uint64_t usedBytes)
{
    const std::size_t count = std::size_t(rowBytes - usedBytes);
    std::memset(out.next(), 0, count);
    out.advance(count);
}

/// A row at a time, but never more than a block, however wide the picture is.
ImgErrorCode writePackedRow(BlockWriter& out, const unsigned int* argb, std::size_t width)
{
    constexpr std::size_t mostPixels = 1 << 16;
    for (std::size_t x = 0; x < width;) {
        const std::size_t count = std::min(width - x, mostPixels);
        RASTKIT_TRY(out.reserve(count * pixelBytes + bmpRowAlignment));
        pixelKernels().packedToBgr24(argb + x, out.next(), count);
        out.advance(count * pixelBytes);
        x += count;
    }
    putPadding(out, paddedBmpRow(width * pixelBytes), width * pixelBytes);
    return IMGERR_NONE;
}

/// Rows are fetched to where they are written from.
ImgErrorCode writeRows(BlockWriter& out, RowSource& rows)
{
    const std::size_t rowBytes = std::size_t(rowBytesOf(rows.width()));
    for (int y = rows.height() - 1; y >= 0; --y) {
        RASTKIT_TRY(out.reserve(rowBytes));
        if (!rows.fetch(y, out.next()))
            return IMGERR_WRITE;
        out.advance(rows.rowBytes());
        putPadding(out, rowBytes, rows.rowBytes());
    }
    return IMGERR_NONE;
}

/// What the format has no place for: its sizes have 31 bits, that of the file 32.
ImgErrorCode checkWritable(int width, int height)
{
    if (width < 1 || height < 1)
        return IMGERR_UNSUPPORTED;
    const std::uint64_t pixels = rowBytesOf(width) * std::uint64_t(height);
    return pixels <= UINT32_MAX - headersBytes ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError saveBmp(
    const char* fileName, PixelBufferInterface& frame, int channel, int flags, Conventions conventions)
{
    const RowQuery query { channel, -1, PIXELFORMAT_BGR_UINT8 };
    RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(checkWritable(rows.width(), rows.height()));
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();

    if (!rows.isAskable())
        return IMGERR_MEMORY;
    BlockWriter out(file, lossOf(conventions));
    RASTKIT_TRY(out.reserve(std::size_t(rowBytesOf(rows.width())) + headersBytes));
    putHeaders(out, rows.width(), rows.height());
    const ImgErrorCode fetched = writeRows(out, rows);
    const ImgErrorCode closed
        = close(out, file, conventions); // A refused row leaves those before it in the file.
    return fetched != IMGERR_NONE ? fetched : closed;
}

} // namespace QUtils

ImgError SaveBMPFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    BlockWriter out(file, BlockWriter::Loss::IsIgnored);
    RASTKIT_TRY(out.reserve(headersBytes));
    putHeaders(out, info->width, info->height);
    const std::size_t width = std::size_t(std::max(info->width, 0));
    for (int y = width != 0 ? info->height - 1 : -1; y >= 0; --y)
        RASTKIT_TRY(writePackedRow(out, pixels + std::size_t(y) * width, width));
    return close(out, file, Conventions::Renderer);
}

ImgError SaveBMPFile(const char*, IMGINFO*, float*)
{
    return IMGERR_UNSUPPORTED;
}

ImgError SaveBMPFile_pb(
    const char* fileName, QUtils::PixelBufferInterface& pixels, int rgbChannel, int, int flags)
{
    return QUtils::saveBmp(fileName, pixels, rgbChannel, flags, QUtils::Conventions::Renderer);
}
