#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/codecs/png_fence.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <cstring>
#include <memory>
#include <new>
#include <zlib.h>

namespace QUtils {

namespace {

/// Of compressed pixels in each chunk of the file.
constexpr std::size_t chunkBytes = std::size_t(64) << 10;

/// An encoder of libpng's that writes to a file. After a failure it is of no more use.
class PngWriter {
public:
    PngWriter(std::FILE* file, Conventions conventions)
        : m_out(file), m_conventions(conventions),
          m_png(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, jumpToPngFence, ignorePngWarning)),
          m_info(m_png ? png_create_info_struct(m_png) : nullptr)
    {
    }
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;
    ~PngWriter() { png_destroy_write_struct(&m_png, &m_info); }

    /// False when libpng could not be set up.
    bool isValid() const { return m_info != nullptr; }

    /// Writes all that stands in front of the pixels. libpng refuses what the format cannot have.
    ImgErrorCode begin(int width, int height, int bits, int colorType, int compression)
    {
        const bool done = fencePng(m_png, [&] {
            png_set_write_fn(m_png, this, writeBytes, flushNothing);
            png_set_user_limits(m_png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
            png_set_compression_level(m_png, compression);
            // libpng would take Z_FILTERED, which on rendered frames is slower and packs no better.
            png_set_compression_strategy(m_png, Z_DEFAULT_STRATEGY);
            png_set_compression_buffer_size(m_png, chunkBytes);
            png_set_IHDR(m_png, m_info, png_uint_32(width), png_uint_32(height), bits, colorType,
                PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
            png_set_bgr(m_png);
            png_write_info(m_png, m_info);
            if (bits == 16)
                png_set_swap(m_png); // The rows have the less significant byte first.
        });
        return done ? IMGERR_NONE : failure();
    }

    /// Blue, green, red and, in RGBA images, alpha.
    ImgErrorCode writeRow(const void* row)
    {
        const bool done
            = fencePng(m_png, [this, row] { png_write_row(m_png, static_cast<png_const_bytep>(row)); });
        return done ? IMGERR_NONE : failure();
    }

    /// To be called after the last row.
    ImgErrorCode end()
    {
        const bool done = fencePng(m_png, [this] { png_write_end(m_png, m_info); });
        return done ? m_out.flush() : failure();
    }

    /// Brings to the file what is encoded, as well as that goes: libpng cannot end an image without its rows.
    void stop() { static_cast<void>(m_out.flush()); }

private:
    static void writeBytes(png_structp png, png_bytep bytes, std::size_t count)
    {
        PngWriter& writer = *static_cast<PngWriter*>(png_get_io_ptr(png));
        writer.m_result = writer.m_out.reserve(count);
        if (writer.m_result != IMGERR_NONE)
            png_error(png, "no room");
        std::memcpy(writer.m_out.next(), bytes, count);
        writer.m_out.advance(count);
    }
    /// The block is flushed when it is full and at the end.
    static void flushNothing(png_structp) { }

    /// To the renderer a file that cannot be written to is an error of libpng's, as all are that libpng
    /// meets.
    ImgErrorCode failure() const
    {
        const bool isOurs = m_result == IMGERR_MEMORY
            || (m_result != IMGERR_NONE && m_conventions == Conventions::Standard);
        return isOurs ? m_result : IMGERR_LIBRARY;
    }

    BlockWriter m_out;
    Conventions m_conventions;
    ImgErrorCode m_result = IMGERR_NONE; // Of the last bytes that libpng wrote.
    png_structp m_png;
    png_infop m_info;
};

/// What cannot be written.
ImgErrorCode checkWritable(const RowSource& rows, int compression, int bits)
{
    if (rows.width() < 1 || rows.height() < 1 || !rows.isAskable())
        return IMGERR_UNSUPPORTED;
    if (compression < Z_DEFAULT_COMPRESSION || compression > Z_BEST_COMPRESSION)
        return IMGERR_UNSUPPORTED;
    return bits == 8 || bits == 16 ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

ImgErrorCode writeRows(PngWriter& writer, RowSource& rows)
{
    const std::unique_ptr<std::uint8_t[]> row(
        rows.isAskable() ? new (std::nothrow) std::uint8_t[rows.rowBytes()] : nullptr);
    if (!row)
        return IMGERR_MEMORY;
    for (int y = 0; y < rows.height(); ++y) {
        if (!rows.fetch(y, row.get())) {
            writer.stop();
            return IMGERR_WRITE;
        }
        RASTKIT_TRY(writer.writeRow(row.get()));
    }
    return writer.end();
}

/// Whether an array of that description has one word for each pixel: 8 bits of four channels. libpng takes
/// no other depth than 8 and 16, and rows of 16 bits would be wider than their words.
bool isPacked(const IMGINFO& info)
{
    return info.numChannels != 0 && std::int64_t(info.bitsPerPixel) / info.numChannels == 8;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError savePng(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    int compression, int bits, Conventions conventions)
{
    const bool alpha = alphaChannel >= 0;
    const RowQuery query { channel, alphaChannel,
        bits == 8 ? (alpha ? PIXELFORMAT_BGRA_UINT8 : PIXELFORMAT_BGR_UINT8)
                  : (alpha ? PIXELFORMAT_BGRA_UINT16 : PIXELFORMAT_BGR_UINT16) };
    RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(checkWritable(rows, compression, bits));
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();

    PngWriter writer(file, conventions);
    if (!writer.isValid())
        return IMGERR_LIBRARY;
    const int colorType = alpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB;
    RASTKIT_TRY(writer.begin(rows.width(), rows.height(), bits, colorType, compression));
    RASTKIT_TRY(writeRows(writer, rows));
    return closeWritten(file);
}

} // namespace QUtils

ImgError SavePNGFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    PngWriter writer(file, Conventions::Renderer);
    if (!writer.isValid() || !isPacked(*info))
        return IMGERR_LIBRARY;
    RASTKIT_TRY(writer.begin(info->width, info->height, 8, PNG_COLOR_TYPE_RGB_ALPHA, Z_DEFAULT_COMPRESSION));
    for (int y = 0; y < info->height; ++y)
        RASTKIT_TRY(writer.writeRow(pixels + std::size_t(y) * std::size_t(info->width)));
    RASTKIT_TRY(writer.end());
    return closeWritten(file);
}

ImgError SavePNGFile(const char*, IMGINFO*, float*)
{
    return IMGERR_UNSUPPORTED;
}

ImgError SavePNGFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int rgbChannel, int alphaChannel, int flags)
{
    return QUtils::savePng(fileName, pixels, rgbChannel, alphaChannel, flags, QUtils::pngCompression,
        QUtils::pngBitsPerChannel, QUtils::Conventions::Renderer);
}
