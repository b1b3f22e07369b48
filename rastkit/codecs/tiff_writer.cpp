#include "rastkit/codecs/tiff.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/codecs/tiff_file.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <tiffio.h>

namespace QUtils {

namespace {

// --- Directory -------------------------------------------------------------------------------------------

/// The pixels of a file as its tags describe them.
struct Layout {
    std::uint32_t width, height;
    int bitsPerSample, samples;
    bool isFloat, isInterleaved;
    std::uint32_t rowsPerStrip;
    bool saysAlpha; ///< Whether the file says what its fourth sample is.

    std::size_t sampleBytes() const { return bitsPerSample == 8 ? 1 : bitsPerSample == 16 ? 2 : 4; }
    /// Of one strip of one row: the samples of all channels, or of one.
    std::size_t rowBytes() const
    {
        return std::size_t(width) * sampleBytes() * (isInterleaved ? std::size_t(samples) : 1);
    }
    std::uint64_t imageBytes() const
    {
        return std::uint64_t(width) * height * sampleBytes() * std::uint64_t(samples);
    }
};

/// False when libtiff refuses a tag.
bool writeTags(TIFF* tiff, const Layout& layout)
{
    const int planes = layout.isInterleaved ? PLANARCONFIG_CONTIG : PLANARCONFIG_SEPARATE;
    const int format = layout.isFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT;
    const std::uint16_t alpha[] = { EXTRASAMPLE_UNASSALPHA };
    return TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, layout.width)
        && TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, layout.height)
        && TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB)
        && TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, planes)
        && TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, format)
        && TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, layout.bitsPerSample)
        && TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, layout.samples)
        && TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE)
        && TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, layout.rowsPerStrip)
        && (!layout.saysAlpha || TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, alpha));
}

/// Uncompressed strips go to the file as they are. libtiff takes them as changeable, but changes none.
ImgErrorCode writeStrip(TIFF* tiff, std::uint32_t strip, const void* data, std::size_t bytes)
{
    return TIFFWriteEncodedStrip(tiff, strip, const_cast<void*>(data), tmsize_t(bytes)) < 0 ? IMGERR_WRITE
                                                                                            : IMGERR_NONE;
}

ImgErrorCode close(TiffFile& tiff)
{
    return tiff.close() ? IMGERR_NONE : IMGERR_WRITE;
}

// --- Packed pixels ---------------------------------------------------------------------------------------

constexpr std::uint32_t packedRowsPerStrip = 8;

/// Red and blue are exchanged in the file, deliberately: words go out as they lie in memory, blue first, into
/// samples that the tags call red, green, blue and alpha. Renderers' tools expect it so.
ImgErrorCode writePackedRows(TIFF* tiff, const Layout& layout, const unsigned int* pixels)
{
    std::uint32_t strip = 0;
    for (std::uint32_t y = 0; y < layout.height; y += layout.rowsPerStrip) {
        const std::size_t rows = std::min(layout.rowsPerStrip, layout.height - y);
        RASTKIT_TRY(
            writeStrip(tiff, strip++, pixels + std::size_t(y) * layout.width, rows * layout.rowBytes()));
    }
    return IMGERR_NONE;
}

// --- Rows of a frame -------------------------------------------------------------------------------------

void storeFloats(const float* samples, void* stored, std::size_t count)
{
    std::memcpy(stored, samples, count * sizeof *samples);
}

void storeBytes(const float* samples, void* stored, std::size_t count)
{
    pixelKernels().floatToByte(samples, static_cast<std::uint8_t*>(stored), count);
}

void storeNumbers(const float* samples, void* stored, std::size_t count)
{
    pixelKernels().floatToUInt16(samples, static_cast<std::uint16_t*>(stored), count);
}

/// How the bytes of whole pixels become those of the result: `places` are those of its bytes in a pixel.
PixelArrangement arrangementOf(std::size_t pixelBytes, const std::uint8_t* places, std::size_t resultBytes)
{
    PixelArrangement arrangement {};
    arrangement.pixels = std::uint8_t(sizeof arrangement.source / pixelBytes);
    arrangement.sourceBytes = std::uint8_t(pixelBytes);
    arrangement.resultBytes = std::uint8_t(resultBytes);
    for (std::size_t i = 0; i < arrangement.pixels * resultBytes; ++i)
        arrangement.source[i] = std::uint8_t(i / resultBytes * pixelBytes + places[i % resultBytes]);
    return arrangement;
}

/// Turns rows of a frame into strips of one row.
class RowWriter {
public:
    /// Rows of bytes have the order blue, green, red, alpha, rows of floats that of the file.
    RowWriter(TIFF* tiff, const Layout& layout, bool takesBytes)
        : m_tiff(tiff), m_layout(layout), m_takesBytes(takesBytes),
          m_store(tiffSampleStore(layout.bitsPerSample))
    {
        chooseArrangements();
        m_row.reset(new (std::nothrow) std::uint8_t[samplesInRow() * (takesBytes ? 1 : sizeof(float))]);
        m_stored.reset(new (std::nothrow) std::uint8_t[samplesInRow() * layout.sampleBytes()]);
        m_spare.reset(new (std::nothrow) std::uint8_t[layout.rowBytes()]);
    }

    bool isValid() const { return m_row && m_stored && m_spare; }
    /// Room for a row of the frame.
    void* row() { return m_row.get(); }

    /// Writes the row that was stored there.
    ImgErrorCode write(std::uint32_t y)
    {
        return m_layout.isInterleaved ? writeInterleaved(y) : writePlanes(y);
    }

private:
    static constexpr std::uint8_t placesInBytes[4] = { 2, 1, 0, 3 };

    void chooseArrangements()
    {
        const std::size_t sampleBytes = m_layout.sampleBytes(), samples = std::size_t(m_layout.samples);
        m_exchange = arrangementOf(samples, placesInBytes, samples);
        for (std::size_t s = 0; s < samples; ++s) {
            std::uint8_t places[sizeof(float)];
            const std::size_t first = m_takesBytes ? placesInBytes[s] : s * sampleBytes;
            for (std::size_t i = 0; i < sampleBytes; ++i)
                places[i] = std::uint8_t(first + i);
            m_planes[s] = arrangementOf(samples * sampleBytes, places, sampleBytes);
        }
    }

    std::size_t samplesInRow() const { return std::size_t(m_layout.width) * std::size_t(m_layout.samples); }
    const float* floats() const { return reinterpret_cast<const float*>(m_row.get()); }
    /// Where the bytes of the next strip are made.
    void* strip()
    {
        void* const room = tiffRoom(m_tiff, m_layout.rowBytes());
        return room ? room : m_spare.get();
    }

    ImgErrorCode writeInterleaved(std::uint32_t y)
    {
        if (m_takesBytes)
            return writeArranged(y, m_exchange, m_row.get());
        void* const bytes = strip();
        m_store(floats(), bytes, samplesInRow());
        return writeStrip(m_tiff, y, bytes, m_layout.rowBytes());
    }

    ImgErrorCode writePlanes(std::uint32_t y)
    {
        if (!m_takesBytes)
            m_store(floats(), m_stored.get(), samplesInRow());
        const std::uint8_t* const samples = m_takesBytes ? m_row.get() : m_stored.get();
        for (std::uint32_t s = 0; s < std::uint32_t(m_layout.samples); ++s)
            RASTKIT_TRY(writeArranged(s * m_layout.height + y, m_planes[s], samples));
        return IMGERR_NONE;
    }

    ImgErrorCode writeArranged(
        std::uint32_t number, const PixelArrangement& arrangement, const std::uint8_t* pixels)
    {
        void* const bytes = strip();
        pixelKernels().arrange(arrangement, pixels, static_cast<std::uint8_t*>(bytes), m_layout.width);
        return writeStrip(m_tiff, number, bytes, m_layout.rowBytes());
    }

    TIFF* m_tiff;
    const Layout& m_layout;
    bool m_takesBytes;
    TiffSampleStore m_store;
    PixelArrangement m_exchange {}, m_planes[4] {};
    std::unique_ptr<std::uint8_t[]> m_row, m_stored, m_spare;
};

ImgErrorCode writeRows(TIFF* tiff, const Layout& layout, RowSource& rows, bool takesBytes)
{
    RowWriter writer(tiff, layout, takesBytes);
    if (!writer.isValid())
        return IMGERR_MEMORY;
    for (std::uint32_t y = 0; y < layout.height; ++y) {
        if (!rows.fetch(int(y), writer.row()))
            return IMGERR_WRITE;
        RASTKIT_TRY(writer.write(y));
    }
    return IMGERR_NONE;
}

/// 8, 16 or 32; every other number means 8.
int bitsOf(const TiffSaveOptions& options)
{
    const bool isKnown = options.bitsPerChannel == 16 || options.bitsPerChannel == 32;
    return isKnown ? options.bitsPerChannel : 8;
}

/// Three or four floats a pixel, or as many bytes.
RowQuery queryOf(int channel, int alphaChannel, bool takesBytes)
{
    const bool alpha = alphaChannel >= 0;
    const int bytes = alpha ? PIXELFORMAT_BGRA_UINT8 : PIXELFORMAT_BGR_UINT8;
    const int floats = alpha ? PIXELFORMAT_RGBA_FLOAT : PIXELFORMAT_RGB_FLOAT;
    return { channel, alpha ? alphaChannel : -1, takesBytes ? bytes : floats };
}

Layout frameLayout(const RowSource& rows, int samples, const TiffSaveOptions& options)
{
    Layout layout {};
    layout.width = std::uint32_t(rows.width());
    layout.height = std::uint32_t(rows.height());
    layout.bitsPerSample = bitsOf(options);
    layout.samples = samples;
    layout.isFloat = layout.bitsPerSample == 32;
    layout.isInterleaved = options.isInterleaved;
    layout.rowsPerStrip = 1;
    return layout;
}

/// Offsets of a classic TIFF have 32 bits. What a directory needs besides the pixels is 16 bytes a strip.
bool needsBigTiff(const Layout& layout)
{
    constexpr std::uint64_t classicBytes = UINT32_MAX, tagBytes = 4096;
    const std::uint64_t strips
        = std::uint64_t(layout.height) * (layout.isInterleaved ? 1 : std::uint64_t(layout.samples));
    return layout.imageBytes() + strips * 16 + tagBytes > classicBytes;
}

ImgErrorCode writeFrame(TiffFile& tiff, const Layout& layout, RowSource& rows, bool takesBytes)
{
    if (rows.width() < 1 || rows.height() < 1)
        return IMGERR_WRITE;
    if (!rows.isAskable())
        return IMGERR_MEMORY;
    if (!writeTags(tiff, layout))
        return IMGERR_WRITE;
    RASTKIT_TRY(writeRows(tiff, layout, rows, takesBytes));
    return close(tiff);
}

} // namespace

TiffSampleStore tiffSampleStore(int bits)
{
    switch (bits) {
    case 8: return storeBytes;
    case 16: return storeNumbers;
    case 32: return storeFloats;
    default: throw ExceptionMsg("How did you get here?!?!");
    }
}

// --- Public functions ------------------------------------------------------------------------------------

ImgError saveTiff(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const TiffSaveOptions& options, Conventions conventions)
{
    LibTIFF_StopWarnings();
    try {
        ColorCorrectedPixelsInterface* const corrected = findCorrectedPixels(frame);
        const bool takesBytes
            = bitsOf(options) == 8 && !corrected && keepsBytes(frame, channel, alphaChannel);
        RowSource rows(frame, queryOf(channel, alphaChannel, takesBytes), corrected, getIntent(flags));
        Layout layout = frameLayout(rows, alphaChannel >= 0 ? 4 : 3, options);
        const char* mode = "w";
        if (conventions == Conventions::Standard) {
            if (rows.width() < 1 || rows.height() < 1)
                return IMGERR_UNSUPPORTED;
            layout.saysAlpha = alphaChannel >= 0;
            mode = needsBigTiff(layout) ? "w8" : "w";
        }
        TiffFile tiff(fileName, mode);
        if (!tiff)
            return makeOpenError();
        return writeFrame(tiff, layout, rows, takesBytes);
    } catch (ImgErrorCode code) {
        return code;
    } catch (...) {
        return IMGERR_WRITE; // The frame's own exceptions too: this writer lets none through.
    }
}

} // namespace QUtils

ImgError SaveTIFFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    LibTIFF_StopWarnings();
    TiffFile tiff(fileName, "w");
    if (!tiff)
        return makeOpenError();
    if (info->width < 1 || info->height < 1)
        return IMGERR_WRITE;
    Layout layout {};
    layout.width = std::uint32_t(info->width);
    layout.height = std::uint32_t(info->height);
    layout.bitsPerSample = 8;
    layout.samples = 4;
    layout.isInterleaved = true;
    layout.rowsPerStrip = packedRowsPerStrip;
    if (!writeTags(tiff, layout))
        return IMGERR_WRITE;
    RASTKIT_TRY(writePackedRows(tiff, layout, pixels));
    return close(tiff);
}

ImgError SaveTIFFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int channel, int alphaChannel, int flags)
{
    const QUtils::TiffSaveOptions options { QUtils::tiffBitsPerChannel, QUtils::tiffInterleaved != 0 };
    return QUtils::saveTiff(
        fileName, pixels, channel, alphaChannel, flags, options, QUtils::Conventions::Renderer);
}
