#include "qutils/formats/pbuf_stream.h"
#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/codecs/png_fence.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <utility>

namespace QUtils {

namespace {

constexpr std::size_t signatureBytes = 8;
/// What a file of unknown length, a pipe for instance, counts as when memory is taken for its rows.
constexpr std::uint64_t lengthOfPipes = std::uint64_t(512) << 10;
/// Most bytes that one byte of deflated data becomes (258 in two bits).
constexpr std::uint64_t deflateMostTimes = 1032;
/// Of compressed pixels that libpng takes at a time.
constexpr std::size_t mostCompressedBytes = std::size_t(64) << 10;
constexpr int interlacePasses = PNG_INTERLACE_ADAM7_PASSES;

/// Channels by colour type; -1 for what is not one, and for the palette.
constexpr int channelsOfColorType[] = { 1, -1, 3, -1, 2, -1, 4 };
/// 16-bit samples to floats. 65535 becomes 1.
constexpr float scale16 = 1.5259022e-05f;

// --- Where the bytes come from ---------------------------------------------------------------------------

/// The bytes behind the signature.
class PngSource {
public:
    PngSource() = default;
    PngSource(const PngSource&) = delete;
    PngSource& operator=(const PngSource&) = delete;
    virtual ~PngSource() = default;

    /// Stores the next `count` bytes; false when libpng is to give up.
    virtual bool read(std::uint8_t* dest, std::size_t count) = 0;
    /// How many there were at first, or are taken for granted where nobody knows.
    virtual std::uint64_t length() const = 0;
    /// How many libpng may ask for next, at most, without meeting the end: at least 1.
    virtual std::uint64_t bytesReady() = 0;
    /// Whether they seem to end for want of memory.
    virtual bool isStarved() const = 0;
};

class FileSource : public PngSource {
public:
    explicit FileSource(std::FILE* file) : m_length(lengthOf(file)), m_left(m_length), m_in(file) { }

    ImgErrorCode readSignature()
    {
        std::uint8_t bytes[signatureBytes];
        const bool isWhole = read(bytes, signatureBytes);
        if (isStarved())
            return IMGERR_MEMORY;
        return isWhole && png_sig_cmp(bytes, 0, signatureBytes) == 0 ? IMGERR_NONE : IMGERR_FORMAT;
    }

    bool read(std::uint8_t* dest, std::size_t count) override
    {
        std::size_t got = 0;
        const std::uint8_t* const bytes = m_in.take(count, got);
        if (got != count)
            return false;
        std::memcpy(dest, bytes, count);
        m_left -= std::min<std::uint64_t>(count, m_left);
        return true;
    }
    std::uint64_t length() const override { return m_length != 0 ? m_length : lengthOfPipes; }
    std::uint64_t bytesReady() override
    {
        // Of a pipe what has arrived already, so that nothing is lost of one that is cut.
        const std::uint64_t ready = m_length != 0 ? m_left : m_in.ready(1);
        return std::max<std::uint64_t>(ready, 1);
    }
    bool isStarved() const override { return !m_in.isValid(); }

private:
    /// 0: not known, as of what is no regular file, and of the system's own files, which say so themselves.
    static std::uint64_t lengthOf(std::FILE* file)
    {
        struct stat status;
        const bool isKnown
            = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
        return isKnown ? std::uint64_t(status.st_size) : 0;
    }

    std::uint64_t m_length, m_left;
    BlockReader m_in;
};

class MemorySource : public PngSource {
public:
    /// `data` and `size` without the signature.
    MemorySource(const unsigned char* data, unsigned long size, Conventions conventions)
        : m_reportsEnd(conventions == Conventions::Standard)
    {
        // The renderer's sizes have 31 bits and a sign; what a larger one has above them is lost.
        const int length = m_reportsEnd ? int(std::min<unsigned long>(size, INT_MAX)) : int(size);
        m_stream.SetBuf(const_cast<unsigned char*>(data), length);
        m_length = m_left = std::uint64_t(std::max(length, 0));
    }

    bool read(std::uint8_t* dest, std::size_t count) override
    {
        int got = 0;
        m_stream.read(dest, int(std::min<std::size_t>(count, INT_MAX)), got);
        m_left -= std::uint64_t(got);
        const std::size_t missing = count - std::size_t(got);
        if (missing == 0)
            return true;
        // The renderer's reader leaves it to libpng's own checks to find out that bytes are missing, which
        // are zero. What libpng goes on to ask for is refused: it might ask for gigabytes.
        std::memset(dest + got, 0, missing);
        return !std::exchange(m_reportsEnd, true);
    }
    std::uint64_t length() const override { return m_length; }
    std::uint64_t bytesReady() override { return std::max<std::uint64_t>(m_left, 1); }
    bool isStarved() const override { return false; }

private:
    PBufStream m_stream;
    std::uint64_t m_length, m_left;
    bool m_reportsEnd;
};

// --- libpng ----------------------------------------------------------------------------------------------

/// How the samples of an image are kept.
struct PngSamples {
    int bitDepth = 0, colorType = 0;

    int channels() const
    {
        return colorType < int(std::size(channelsOfColorType)) ? channelsOfColorType[colorType] : -1;
    }
    bool isSupported() const { return channels() > 0; }
    int bitsPerPixel() const { return bitDepth * channels(); }
};

/// What the loader's samples become: a byte at least, colours for indices, alpha for transparent values.
PngSamples expanded(PngSamples samples, bool hasTransparency)
{
    const bool isPalette = samples.colorType == PNG_COLOR_TYPE_PALETTE;
    samples.bitDepth = isPalette ? 8 : std::max(samples.bitDepth, 8);
    if (isPalette)
        samples.colorType = PNG_COLOR_TYPE_RGB;
    if (hasTransparency)
        samples.colorType |= PNG_COLOR_MASK_ALPHA;
    return samples;
}

/// A decoder of libpng's, which reads from a source that outlives it. After a failure it is of no more use.
class PngReader {
public:
    explicit PngReader(PngSource& source)
        : m_source(source), m_byteCount(source.length()),
          m_png(png_create_read_struct_2(PNG_LIBPNG_VER_STRING, nullptr, jumpToPngFence, ignorePngWarning,
              &m_isStarved, allocate, release)),
          m_info(m_png ? png_create_info_struct(m_png) : nullptr)
    {
    }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;
    ~PngReader() { png_destroy_read_struct(&m_png, &m_info, nullptr); }

    /// False when libpng could not be set up.
    bool isValid() const { return m_info != nullptr; }

    /// Reads all that stands in front of the pixels.
    ImgErrorCode readHeader()
    {
        const bool done = fencePng(m_png, [this] {
            png_set_read_fn(m_png, &m_source, readBytes);
            png_set_sig_bytes(m_png, int(signatureBytes));
            // No limit but the format's own: memory is compared with what the file can fill.
            png_set_user_limits(m_png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
            // Texts, profiles and the like are not used; inflated, they could be large.
            png_set_keep_unknown_chunks(m_png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
            png_read_info(m_png, m_info);
        });
        return done ? IMGERR_NONE : failure(IMGERR_FORMAT);
    }

    /// Lets libpng expand what has less than a byte a sample, palettes and transparent values.
    ImgErrorCode expand()
    {
        const bool done = fencePng(m_png, [this] {
            png_set_packing(m_png);
            png_set_expand(m_png);
            png_set_interlace_handling(m_png);
            png_read_update_info(m_png, m_info);
        });
        return done ? IMGERR_NONE : failure(IMGERR_FORMAT);
    }

    /// Reads the next row; of an interlaced image the pixels of the present pass, while the others stay as
    /// they are. `isWhole` says whether the row is there, also after a failure: with the last one libpng
    /// reads on to the end of the compressed data.
    ImgErrorCode readRow(std::uint8_t* row, bool& isWhole)
    {
        const auto rowBefore = png_get_current_row_number(m_png);
        const auto passBefore = png_get_current_pass_number(m_png);
        const bool done = fencePng(m_png, [this, row] { png_read_row(m_png, row, nullptr); });
        isWhole = done || png_get_current_row_number(m_png) != rowBefore
            || png_get_current_pass_number(m_png) != passBefore;
        return done ? IMGERR_NONE : failure(IMGERR_READ);
    }

    /// What follows the pixels.
    ImgErrorCode readEnd()
    {
        const bool done = fencePng(m_png, [this] { png_read_end(m_png, nullptr); });
        return done ? IMGERR_NONE : failure(IMGERR_READ);
    }

    int width() const { return int(png_get_image_width(m_png, m_info)); }
    int height() const { return int(png_get_image_height(m_png, m_info)); }
    bool isInterlaced() const { return png_get_interlace_type(m_png, m_info) != PNG_INTERLACE_NONE; }
    bool hasTransparency() const { return png_get_valid(m_png, m_info, PNG_INFO_tRNS) != 0; }
    /// As the file has them, and after `expand` as the rows do.
    PngSamples samples() const
    {
        return { png_get_bit_depth(m_png, m_info), png_get_color_type(m_png, m_info) };
    }
    std::size_t rowBytes() const { return png_get_rowbytes(m_png, m_info); }

    /// Before `expand`: whether there can be data for what is kept in memory at once, a row or, interlaced,
    /// the image.
    bool canBeFilled() const
    {
        const std::uint64_t rows = isInterlaced() ? std::uint64_t(height()) : 1;
        std::uint64_t mostBytes = 0;
        return __builtin_mul_overflow(m_byteCount, deflateMostTimes, &mostBytes)
            || rowBytes() <= mostBytes / rows;
    }

private:
    static void readBytes(png_structp png, png_bytep dest, std::size_t count)
    {
        PngSource& source = *static_cast<PngSource*>(png_get_io_ptr(png));
        if (!source.read(dest, count))
            png_error(png, "the data ends here");
        // No more compressed pixels at a time than there are: so a cut file yields all that it has.
        png_set_compression_buffer_size(
            png, std::size_t(std::min<std::uint64_t>(source.bytesReady(), mostCompressedBytes)));
    }
    static png_voidp allocate(png_structp png, png_alloc_size_t bytes)
    {
        void* const memory = std::malloc(bytes);
        if (!memory)
            *static_cast<bool*>(png_get_mem_ptr(png)) = true;
        return memory;
    }
    static void release(png_structp, png_voidp memory) { std::free(memory); }

    /// libpng has one kind of error only.
    ImgErrorCode failure(ImgErrorCode code) const
    {
        return m_isStarved || m_source.isStarved() ? IMGERR_MEMORY : code;
    }

    PngSource& m_source;
    std::uint64_t m_byteCount;
    bool m_isStarved = false; // Memory was refused to libpng.
    png_structp m_png;
    png_infop m_info;
};

void describe(const PngReader& reader, const PngSamples& samples, IMGINFO* info)
{
    if (!info)
        return;
    info->width = reader.width();
    info->height = reader.height();
    info->bitsPerPixel = samples.bitsPerPixel();
    info->numChannels = samples.channels();
    info->bytesPerPixel = samples.bitsPerPixel() / 8;
}

// --- Rows ------------------------------------------------------------------------------------------------

/// Pixels of `sourceBytes` bytes to packed ones, whose blue, green, red and alpha stand at those places.
constexpr PixelArrangement arrangementOf(int sourceBytes, int blue, int green, int red, int alpha)
{
    constexpr int pixels = 4;
    PixelArrangement arrangement {};
    const int places[] = { blue, green, red, alpha };
    for (int i = 0; i < pixels * 4; ++i) {
        const int place = places[i % 4];
        const bool isNone = place == PixelArrangement::none;
        arrangement.source[i] = std::uint8_t(isNone ? place : i / 4 * sourceBytes + place);
        arrangement.fill[i] = isNone ? 0xFF : 0;
    }
    arrangement.pixels = pixels;
    arrangement.sourceBytes = std::uint8_t(sourceBytes);
    arrangement.resultBytes = 4;
    return arrangement;
}

constexpr PixelArrangement fromGreyAlpha = arrangementOf(2, 0, 0, 0, 1);
constexpr PixelArrangement fromRgb = arrangementOf(3, 2, 1, 0, PixelArrangement::none);
constexpr PixelArrangement fromRgba = arrangementOf(4, 2, 1, 0, 3);

void pack(const std::uint8_t* row, int channels, std::uint32_t* argb, std::size_t count)
{
    const PixelKernels& kernels = pixelKernels();
    auto* const result = reinterpret_cast<std::uint8_t*>(argb);
    switch (channels) {
    case 1: return kernels.greyToPacked(row, argb, count);
    case 2: return kernels.arrange(fromGreyAlpha, row, result, count);
    case 3: return kernels.arrange(fromRgb, row, result, count);
    default: return kernels.arrange(fromRgba, row, result, count);
    }
}

/// Pieces whose floats stay in the nearest cache between the two steps.
void toFloats(const std::uint8_t* row, int channels, float* rgba, std::size_t count)
{
    constexpr std::size_t piecePixels = 256;
    const PixelKernels& kernels = pixelKernels();
    if (channels == 4)
        return kernels.bigUint16ToFloat(row, scale16, rgba, count * 4);

    const auto toRgba = channels == 1 ? kernels.greyToRgba
        : channels == 2               ? kernels.greyAlphaToRgba
                                      : kernels.rgbToRgba;
    float samples[piecePixels * 3];
    while (count != 0) {
        const std::size_t piece = std::min(count, piecePixels);
        const std::size_t pieceSamples = piece * std::size_t(channels);
        kernels.bigUint16ToFloat(row, scale16, samples, pieceSamples);
        toRgba(samples, rgba, piece);
        row += pieceSamples * 2;
        rgba += piece * 4;
        count -= piece;
    }
}

/// Takes whole rows as libpng expands them and stores them in the sink, 16-bit samples as floats.
class ExpandedRows {
public:
    ExpandedRows(RowSink& sink, const PngSamples& samples)
        : m_sink(sink), m_channels(samples.channels()), m_isFloat(samples.bitDepth == 16)
    {
    }

    int count() const { return m_sink.height(); }

    ImgErrorCode store(int y, const std::uint8_t* bytes)
    {
        const std::size_t width = std::size_t(m_sink.width());
        if (m_isFloat) {
            float* const row = m_sink.beginRowF(y);
            if (!row)
                return IMGERR_MEMORY;
            toFloats(bytes, m_channels, row, width);
            m_sink.endRowF(y, row);
        } else {
            std::uint32_t* const row = m_sink.beginRow(y);
            if (!row)
                return IMGERR_MEMORY;
            pack(bytes, m_channels, row, width);
            m_sink.endRow(y, row);
        }
        return IMGERR_NONE;
    }

private:
    RowSink& m_sink;
    int m_channels;
    bool m_isFloat;
};

ImgErrorCode readRows(PngReader& reader, ExpandedRows& rows)
{
    const std::unique_ptr<std::uint8_t[]> row(new (std::nothrow) std::uint8_t[reader.rowBytes()]);
    if (!row)
        return IMGERR_MEMORY;
    for (int y = 0; y < rows.count(); ++y) {
        bool isWhole = false;
        const ImgErrorCode result = reader.readRow(row.get(), isWhole);
        if (isWhole)
            RASTKIT_TRY(rows.store(y, row.get()));
        RASTKIT_TRY(result);
    }
    return IMGERR_NONE;
}

// --- Interlaced images -----------------------------------------------------------------------------------

/// How far an interlaced image was read: so many passes, and so many rows of the next one.
struct Progress {
    int passes = 0, rows = 0;
};

/// The pass that brings the last pixels of row `y`.
int lastPassOf(int y, int width)
{
    int pass = interlacePasses - 1;
    while (pass > 0 && !(PNG_ROW_IN_INTERLACE_PASS(y, pass) && PNG_PASS_COLS(width, pass) > 0))
        --pass;
    return pass;
}

bool isComplete(int y, int width, const Progress& progress)
{
    const int last = lastPassOf(y, width);
    return last < progress.passes || (last == progress.passes && y < progress.rows);
}

ImgErrorCode readPasses(PngReader& reader, std::uint8_t* image, Progress& progress)
{
    const std::size_t rowBytes = reader.rowBytes();
    const int height = reader.height();
    for (progress.passes = 0; progress.passes < interlacePasses; ++progress.passes)
        for (progress.rows = 0; progress.rows < height;) {
            bool isWhole = false;
            const ImgErrorCode result
                = reader.readRow(image + std::size_t(progress.rows) * rowBytes, isWhole);
            progress.rows += isWhole ? 1 : 0;
            RASTKIT_TRY(result);
        }
    return IMGERR_NONE;
}

ImgErrorCode readInterlaced(PngReader& reader, ExpandedRows& rows)
{
    const std::size_t rowBytes = reader.rowBytes();
    std::size_t imageBytes = 0;
    if (!multiply(rowBytes, std::size_t(rows.count()), 1, imageBytes))
        return IMGERR_MEMORY;
    const PixelMemory image = allocateZeroPixels(imageBytes);
    if (!image)
        return IMGERR_MEMORY;

    Progress progress;
    const ImgErrorCode result = readPasses(reader, image.get(), progress);
    // Of rows that the first pass has not come to there is nothing.
    const int reached = progress.passes == 0 ? progress.rows : rows.count();
    for (int y = 0; y < reached; ++y)
        if (isComplete(y, reader.width(), progress))
            RASTKIT_TRY(rows.store(y, image.get() + std::size_t(y) * rowBytes));
    return result;
}

// --- Images ----------------------------------------------------------------------------------------------

ImgErrorCode readHeader(PngSource& source, IMGINFO* info, Conventions conventions)
{
    PngReader reader(source);
    if (!reader.isValid())
        return IMGERR_LIBRARY;
    RASTKIT_TRY(reader.readHeader());
    PngSamples samples = reader.samples();
    if (conventions == Conventions::Standard)
        samples = expanded(samples, reader.hasTransparency());
    // The renderer is told the samples of the file and nothing of images with a palette, although their
    // pixels are loaded.
    if (!samples.isSupported())
        return IMGERR_UNSUPPORTED;
    describe(reader, samples, info);
    return IMGERR_NONE;
}

ImgErrorCode readImage(PngSource& source, ImgBuffer& buffer, IMGINFO* info)
{
    PngReader reader(source);
    if (!reader.isValid())
        return IMGERR_LIBRARY;
    RASTKIT_TRY(reader.readHeader());
    if (!expanded(reader.samples(), reader.hasTransparency()).isSupported())
        return IMGERR_UNSUPPORTED;

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(reader.width(), reader.height()));
    if (!reader.canBeFilled())
        return IMGERR_READ;
    RASTKIT_TRY(reader.expand()); // libpng takes memory for its rows here, after the sink has had its say.
    const PngSamples samples = reader.samples();
    ExpandedRows rows(sink, samples);
    RASTKIT_TRY(reader.isInterlaced() ? readInterlaced(reader, rows) : readRows(reader, rows));
    RASTKIT_TRY(reader.readEnd());
    describe(reader, samples, info);
    return IMGERR_NONE;
}

/// The answer to memory without a file in it.
ImgError noDataError(const char* function)
{
    return ImgError(function, IMGERR_MEMORY, "Can't read NULL PNG data");
}

bool hasSignature(const unsigned char* data, unsigned long size)
{
    return size >= signatureBytes && png_sig_cmp(data, 0, signatureBytes) == 0;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError loadPngHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    FileSource source(file);
    RASTKIT_TRY(source.readSignature());
    return readHeader(source, info, conventions);
}

ImgError loadPng(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    FileSource source(file);
    RASTKIT_TRY(source.readSignature());
    return readImage(source, buffer, info);
}

ImgError loadPngArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return noDataError("LoadPNGArrayHeader");
    if (!hasSignature(data, size))
        return IMGERR_FORMAT;
    MemorySource source(data + signatureBytes, size - signatureBytes, conventions);
    return readHeader(source, info, conventions);
}

ImgError loadPngArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return noDataError("LoadPNGArray");
    if (!hasSignature(data, size))
        return IMGERR_FORMAT;
    MemorySource source(data + signatureBytes, size - signatureBytes, conventions);
    return readImage(source, buffer, info);
}

} // namespace QUtils

ImgError LoadPNGHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadPngHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadPNGFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadPng(fileName, buffer, info, QUtils::Conventions::Renderer);
}

ImgError LoadPNGArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info)
{
    return QUtils::loadPngArrayHeader(data, size, info, QUtils::Conventions::Renderer);
}

ImgError LoadPNGArray(const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadPngArray(data, size, buffer, info, QUtils::Conventions::Renderer);
}
