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

    std::size_t sampleBytes() const { return std::size_t(bitsPerSample) / 8; }
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

/// Every `samples`-th of the stored samples, beginning with the first.
template <typename Sample> void takePlane(const void* stored, int samples, void* plane, std::size_t count)
{
    const auto* const from = static_cast<const Sample*>(stored);
    auto* const to = static_cast<Sample*>(plane);
    for (std::size_t i = 0; i < count; ++i)
        to[i] = from[i * std::size_t(samples)];
}

/// Turns rows of floats into strips of one row.
class RowWriter {
public:
    RowWriter(TIFF* tiff, const Layout& layout)
        : m_tiff(tiff), m_layout(layout), m_store(tiffSampleStore(layout.bitsPerSample))
    {
        const std::size_t count = samplesInRow();
        // What is stored as it comes needs no second row; planes are taken from the second row to a third.
        const bool converts = !layout.isFloat || !layout.isInterleaved;
        m_floats.reset(new (std::nothrow) float[count]);
        if (converts)
            m_stored.reset(new (std::nothrow) std::uint8_t[rowBytes() + layout.rowBytes()]);
        m_isValid = m_floats && (m_stored || !converts);
    }

    bool isValid() const { return m_isValid; }
    float* floats() { return m_floats.get(); }

    ImgErrorCode write(std::uint32_t y)
    {
        const void* row = m_floats.get();
        if (m_stored) {
            m_store(m_floats.get(), m_stored.get(), samplesInRow());
            row = m_stored.get();
        }
        return m_layout.isInterleaved ? writeStrip(m_tiff, y, row, m_layout.rowBytes()) : writePlanes(y, row);
    }

private:
    std::size_t samplesInRow() const { return std::size_t(m_layout.width) * std::size_t(m_layout.samples); }
    std::size_t rowBytes() const { return samplesInRow() * m_layout.sampleBytes(); }

    ImgErrorCode writePlanes(std::uint32_t y, const void* row)
    {
        void* const plane = m_stored.get() + rowBytes();
        for (int s = 0; s < m_layout.samples; ++s) {
            const auto* const first
                = static_cast<const std::uint8_t*>(row) + std::size_t(s) * m_layout.sampleBytes();
            switch (m_layout.bitsPerSample) {
            case 8: takePlane<std::uint8_t>(first, m_layout.samples, plane, m_layout.width); break;
            case 16: takePlane<std::uint16_t>(first, m_layout.samples, plane, m_layout.width); break;
            default: takePlane<float>(first, m_layout.samples, plane, m_layout.width); break;
            }
            const std::uint32_t strip = std::uint32_t(s) * m_layout.height + y;
            RASTKIT_TRY(writeStrip(m_tiff, strip, plane, m_layout.rowBytes()));
        }
        return IMGERR_NONE;
    }

    TIFF* m_tiff;
    const Layout& m_layout;
    TiffSampleStore m_store;
    std::unique_ptr<float[]> m_floats;
    std::unique_ptr<std::uint8_t[]> m_stored;
    bool m_isValid;
};

ImgErrorCode writeRows(TIFF* tiff, const Layout& layout, RowSource& rows)
{
    RowWriter writer(tiff, layout);
    if (!writer.isValid())
        return IMGERR_MEMORY;
    for (std::uint32_t y = 0; y < layout.height; ++y) {
        if (!rows.fetch(int(y), writer.floats()))
            return IMGERR_WRITE;
        RASTKIT_TRY(writer.write(y));
    }
    return IMGERR_NONE;
}

Layout frameLayout(const RowSource& rows, int samples, const TiffSaveOptions& options)
{
    Layout layout {};
    layout.width = std::uint32_t(rows.width());
    layout.height = std::uint32_t(rows.height());
    const bool isKnown = options.bitsPerChannel == 16 || options.bitsPerChannel == 32;
    layout.bitsPerSample = isKnown ? options.bitsPerChannel : 8;
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

ImgErrorCode writeFrame(TiffFile& tiff, const Layout& layout, RowSource& rows)
{
    if (rows.width() < 1 || rows.height() < 1)
        return IMGERR_WRITE;
    if (!rows.isAskable())
        return IMGERR_MEMORY;
    if (!writeTags(tiff, layout))
        return IMGERR_WRITE;
    RASTKIT_TRY(writeRows(tiff, layout, rows));
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
    const bool alpha = alphaChannel >= 0;
    const RowQuery query { channel, alpha ? alphaChannel : -1,
        alpha ? PIXELFORMAT_RGBA_FLOAT : PIXELFORMAT_RGB_FLOAT };
    LibTIFF_StopWarnings();
    try {
        RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
        Layout layout = frameLayout(rows, alpha ? 4 : 3, options);
        const char* mode = "w";
        if (conventions == Conventions::Standard) {
            if (rows.width() < 1 || rows.height() < 1)
                return IMGERR_UNSUPPORTED;
            layout.saysAlpha = alpha;
            mode = needsBigTiff(layout) ? "w8" : "w";
        }
        TiffFile tiff(fileName, mode);
        if (!tiff)
            return makeOpenError();
        return writeFrame(tiff, layout, rows);
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
