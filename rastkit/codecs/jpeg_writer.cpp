#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/codecs/jpeg_fence.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <cstdint>
#include <memory>
#include <new>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;
/// Deliberately not the setting, which frames are written with: what saves packed pixels relies on it.
constexpr int packedQuality = 85;

/// The file that a compressor writes to, in large blocks.
struct JpegDestination : jpeg_destination_mgr {
    explicit JpegDestination(std::FILE* file);

    /// Writes what libjpeg has stored in the block so far. Nothing may be stored after that.
    ImgErrorCode flush()
    {
        blocks.advance(blockBytes - free_in_buffer);
        return blocks.flush();
    }

    BlockWriter blocks;
};

JpegDestination& destinationOf(j_compress_ptr coder)
{
    return *static_cast<JpegDestination*>(coder->dest);
}

void require(j_compress_ptr coder, ImgErrorCode code)
{
    if (code != IMGERR_NONE)
        raiseJpegError(reinterpret_cast<j_common_ptr>(coder),
            code == IMGERR_MEMORY ? JERR_OUT_OF_MEMORY : JERR_FILE_WRITE);
}

void beginBlock(j_compress_ptr coder)
{
    JpegDestination& out = destinationOf(coder);
    require(coder, out.blocks.reserve(blockBytes));
    out.next_output_byte = out.blocks.next();
    out.free_in_buffer = blockBytes;
}

/// libjpeg calls this when the block is full, whatever the counts say.
boolean writeFullBlock(j_compress_ptr coder)
{
    destinationOf(coder).blocks.advance(blockBytes);
    beginBlock(coder);
    return TRUE;
}

void writeLastBlock(j_compress_ptr coder)
{
    require(coder, destinationOf(coder).flush());
}

JpegDestination::JpegDestination(std::FILE* file) : jpeg_destination_mgr(), blocks(file)
{
    init_destination = beginBlock;
    empty_output_buffer = writeFullBlock;
    term_destination = writeLastBlock;
}

/// The pixels as they come, which libjpeg takes in these orders too: the samples are the same as those of
/// red, green and blue, without another pass over the row.
struct JpegInput {
    int width, height;
    J_COLOR_SPACE order;
    int bytesPerPixel;
};

/// libjpeg's compressor and all that must outlive an error in it.
struct JpegWriter {
    JpegWriter(std::FILE* file, const JpegInput& in, int q) : destination(file), input(in), quality(q)
    {
        cinfo.err = &errors;
    }
    JpegWriter(const JpegWriter&) = delete;
    JpegWriter& operator=(const JpegWriter&) = delete;
    ~JpegWriter() { jpeg_destroy_compress(&cinfo); }

    /// What an error of libjpeg means to the caller.
    ImgErrorCode failure() const
    {
        return errors.msg_code == JERR_OUT_OF_MEMORY ? IMGERR_MEMORY : IMGERR_WRITE;
    }

    jpeg_compress_struct cinfo {};
    SilentJpegErrors errors;
    JpegDestination destination;
    const JpegInput input;
    const int quality;
    // One of the two has the pixels.
    unsigned int* pixels = nullptr;
    RowSource* rows = nullptr;
    std::uint8_t* row = nullptr; ///< Room for one of `rows`.
};

// --- Steps behind the fence --------------------------------------------------------------------------------

/// Sizes below 1 and above 65500 are errors of libjpeg.
ImgErrorCode startCoding(JpegWriter& jpeg)
{
    jpeg_compress_struct& cinfo = jpeg.cinfo;
    jpeg_create_compress(&cinfo);
    cinfo.dest = &jpeg.destination;
    cinfo.image_width = JDIMENSION(jpeg.input.width);
    cinfo.image_height = JDIMENSION(jpeg.input.height);
    cinfo.input_components = jpeg.input.bytesPerPixel;
    cinfo.in_color_space = jpeg.input.order;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, jpeg.quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    return IMGERR_NONE;
}

ImgErrorCode writePackedRows(JpegWriter& jpeg)
{
    jpeg_compress_struct& cinfo = jpeg.cinfo;
    while (cinfo.next_scanline < cinfo.image_height) {
        unsigned int* const pixels = jpeg.pixels + std::size_t(cinfo.next_scanline) * cinfo.image_width;
        JSAMPROW samples = reinterpret_cast<JSAMPROW>(pixels);
        jpeg_write_scanlines(&cinfo, &samples, 1);
    }
    jpeg_finish_compress(&cinfo);
    return IMGERR_NONE;
}

ImgErrorCode writeFrameRows(JpegWriter& jpeg)
{
    jpeg_compress_struct& cinfo = jpeg.cinfo;
    while (cinfo.next_scanline < cinfo.image_height) {
        if (!jpeg.rows->fetch(int(cinfo.next_scanline), jpeg.row)) {
            // libjpeg cannot end a file without all its rows. What it has made of them still goes to the
            // file.
            static_cast<void>(jpeg.destination.flush());
            return IMGERR_WRITE;
        }
        JSAMPROW samples = jpeg.row;
        jpeg_write_scanlines(&cinfo, &samples, 1);
    }
    jpeg_finish_compress(&cinfo);
    return IMGERR_NONE;
}

// --- Files -------------------------------------------------------------------------------------------------

bool isWritable(int size)
{
    return size >= 1 && size <= JPEG_MAX_DIMENSION;
}

ImgErrorCode writeFrame(std::FILE* file, RowSource& rows, int quality)
{
    JpegWriter jpeg(file, { rows.width(), rows.height(), JCS_EXT_BGR, 3 }, quality);
    RASTKIT_TRY(fenceJpeg(jpeg, startCoding));
    const std::unique_ptr<std::uint8_t[]> row(new (std::nothrow) std::uint8_t[rows.rowBytes()]);
    if (!row)
        return IMGERR_MEMORY;
    jpeg.rows = &rows;
    jpeg.row = row.get();
    return fenceJpeg(jpeg, writeFrameRows);
}

ImgErrorCode writePacked(std::FILE* file, const IMGINFO& info, unsigned int* pixels)
{
    JpegWriter jpeg(file, { info.width, info.height, JCS_EXT_BGRX, 4 }, packedQuality);
    RASTKIT_TRY(fenceJpeg(jpeg, startCoding));
    jpeg.pixels = pixels;
    return fenceJpeg(jpeg, writePackedRows);
}

} // namespace

// --- Public functions --------------------------------------------------------------------------------------

ImgError saveJpeg(const char* fileName, PixelBufferInterface& frame, int channel, int flags, int quality,
    Conventions conventions)
{
    constexpr int noAlpha = -1; // The format has none.
    RowSource rows(
        frame, { channel, noAlpha, PIXELFORMAT_BGR_UINT8 }, findCorrectedPixels(frame), getIntent(flags));
    if (conventions == Conventions::Standard && !(isWritable(rows.width()) && isWritable(rows.height())))
        return IMGERR_UNSUPPORTED;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    RASTKIT_TRY(writeFrame(file, rows, quality));
    return closeWritten(file);
}

} // namespace QUtils

ImgError SaveJPGFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    RASTKIT_TRY(writePacked(file, *info, pixels));
    return closeWritten(file);
}

ImgError SaveJPGFile(const char*, IMGINFO*, float*)
{
    return IMGERR_UNSUPPORTED;
}

ImgError SaveJPGFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int rgbChannel, int /*alphaChannel*/, int flags)
{
    return QUtils::saveJpeg(
        fileName, pixels, rgbChannel, flags, QUtils::jpegQuality, QUtils::Conventions::Renderer);
}
