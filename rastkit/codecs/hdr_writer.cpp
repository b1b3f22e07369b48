#include "qutils/formats/rgbe_codec.h"
#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/hdr.h"
#include "rastkit/codecs/hdr_core.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"

#include <algorithm>
#include <memory>
#include <new>

namespace QUtils {

namespace {

/// Appends pixels, a block at a time.
ImgErrorCode writePixels(BlockWriter& out, const float* rgb, std::size_t count)
{
    constexpr std::size_t mostPixels = 1 << 14;
    while (count != 0) {
        const std::size_t piece = std::min(count, mostPixels);
        RASTKIT_TRY(out.reserve(piece * rgbePixelBytes));
        rgbeKernels().fromRgb(rgb, out.next(), piece);
        out.advance(piece * rgbePixelBytes);
        rgb += 3 * piece;
        count -= piece;
    }
    return IMGERR_NONE;
}

ImgErrorCode writeRows(BlockWriter& out, RowSource& rows, float* row)
{
    for (int y = 0; y < rows.height(); ++y) {
        if (!rows.fetch(y, row)) {
            static_cast<void>(out.flush()); // The rows before go to the file; this failure is the first.
            return IMGERR_WRITE;
        }
        RASTKIT_TRY(writePixels(out, row, std::size_t(rows.width())));
    }
    return out.flush();
}

} // namespace

ImgError PrepareAndWriteHDRHeader(std::FILE* file, int width, int height)
{
    rgbe_header_info info {};
    info.valid = RGBE_VALID_PROGRAMTYPE | RGBE_VALID_GAMMA | RGBE_VALID_EXPOSURE;
    std::memcpy(info.programtype, "RGBE", 4);
    info.gamma = info.exposure = 1;
    return RGBE_WriteHeader(file, width, height, &info) == 0 ? IMGERR_NONE : IMGERR_WRITE;
}

ImgError saveHdr(const char* fileName, PixelBufferInterface& frame, int channel, Conventions conventions)
{
    // No alpha, and never corrected pixels: the format keeps what was rendered.
    RowSource rows(frame, RowQuery { channel, -1, PIXELFORMAT_RGB_FLOAT });
    if (conventions == Conventions::Standard && (rows.width() < 1 || rows.height() < 1))
        return IMGERR_UNSUPPORTED;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    ImgError header = PrepareAndWriteHDRHeader(file, rows.width(), rows.height());
    if (header.code() != IMGERR_NONE)
        return header;
    if (!rows.isAskable())
        return IMGERR_MEMORY;
    const std::unique_ptr<float[]> row(new (std::nothrow) float[3 * std::size_t(rows.width())]);
    if (!row)
        return IMGERR_MEMORY;
    // The renderer's writers do not look at whether pixels reach the file.
    BlockWriter out(file, lossOf(conventions));
    RASTKIT_TRY(writeRows(out, rows, row.get()));
    const ImgErrorCode closed = closeWritten(file);
    return conventions == Conventions::Renderer ? IMGERR_NONE : closed;
}

} // namespace QUtils

ImgError SaveHDRFile(const char* fileName, IMGINFO* info, float* pixels)
{
    using namespace QUtils;
    const FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    ImgError header = PrepareAndWriteHDRHeader(file, info->width, info->height);
    if (header.code() != IMGERR_NONE)
        return header;
    BlockWriter out(file, BlockWriter::Loss::IsIgnored);
    const std::size_t width = std::size_t(std::max(info->width, 0));
    for (int y = 0; y < info->height && width != 0; ++y, pixels += 3 * width)
        RASTKIT_TRY(writePixels(out, pixels, width));
    return out.flush();
}

ImgError SaveHDRFile_pb(const char* fileName, QUtils::PixelBufferInterface& pixels, int channel, int, int)
{
    return QUtils::saveHdr(fileName, pixels, channel, QUtils::Conventions::Renderer);
}
