#include "rastkit/codecs/tiff.h"

#include "rastkit/codecs/tiff_core.h"
#include "rastkit/codecs/tiff_file.h"
#include "rastkit/codecs/tiff_palette.h"
#include "rastkit/codecs/tiff_rows.h"
#include "rastkit/codecs/tiff_samples.h"
#include "rastkit/codecs/tiff_tags.h"
#include "rastkit/load.h"
#include "rastkit/model/content_tag.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <tiffio.h>

namespace QUtils {

namespace {

// --- What a file can fill --------------------------------------------------------------------------------

/// Whether decompressing all strips or tiles is work in proportion to the file or to the picture. Tiles may
/// share their bytes, as blank ones do; but shared tiles far larger than the picture, or thousands of samples
/// in a pixel, could keep a reader busy for hours with a few kilobytes.
bool isInProportion(TIFF* tiff, const TiffTags& tags)
{
    constexpr std::uint64_t allowance = std::uint64_t(256) << 20, mostBytesOfPixel = 64;
    const bool isTiled = TIFFIsTiled(tiff) != 0;
    const std::uint64_t count = isTiled ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
    const std::uint64_t bytesEach = isTiled ? TIFFTileSize64(tiff) : TIFFStripSize64(tiff);
    std::uint64_t bytes = 0;
    if (__builtin_mul_overflow(count, bytesEach, &bytes))
        return false;
    const std::uint64_t pixels = std::uint64_t(tags.width) * std::uint64_t(tags.height);
    return bytes <= allowance || (bytes - allowance) / mostBytesOfPixel <= pixels
        || tiffCanFill(tiff, tiffExpansion(tags.compression), bytes);
}

// --- Strips and tiles ------------------------------------------------------------------------------------

/// The planes of an image that are needed, by their numbers in the file. One without planes has number 0.
struct Planes {
    unsigned numbers[5] = { 0, 1, 2, 3, 4 };
    unsigned count = 1;
};

/// Leaves planes that are not needed out of the layout too.
Planes pickPlanes(TiffPixelLayout& layout)
{
    Planes planes;
    if (!layout.isPlanar)
        return planes;
    planes.count = layout.colorSamples();
    if (layout.alphaSample >= 0) {
        planes.numbers[planes.count] = unsigned(layout.alphaSample);
        layout.alphaSample = int(planes.count++);
    }
    layout.samples = planes.count;
    return planes;
}

/// The decompressed bytes of a strip or a tile, plane after plane.
class Chunk {
public:
    /// `planeBytes` is the most that a plane has.
    ImgErrorCode init(TIFF* tiff, unsigned compression, std::uint64_t planeBytes, const Planes& planes)
    {
        std::uint64_t bytes = 0;
        if (planeBytes == 0 || __builtin_mul_overflow(planeBytes, std::uint64_t(planes.count), &bytes))
            return IMGERR_FORMAT;
        if (!tiffCanFill(tiff, tiffExpansion(compression), bytes))
            return IMGERR_READ;
        // Zeros, so that nothing but the file shows in the picture whatever a decompressor leaves out.
        m_bytes = allocateZeroPixels(std::size_t(bytes));
        m_planeBytes = planeBytes;
        m_planes = planes;
        return m_bytes ? IMGERR_NONE : IMGERR_MEMORY;
    }

    /// Fills all planes: `read(number, bytes)` answers how many bytes it stored of a plane.
    template <typename Read> ImgErrorCode fill(std::uint64_t wanted, Read read)
    {
        if (wanted > m_planeBytes)
            return IMGERR_FORMAT;
        for (unsigned i = 0; i < m_planes.count; ++i) {
            const tmsize_t got = read(m_planes.numbers[i], m_bytes.get() + i * m_planeBytes);
            if (got < 0 || std::uint64_t(got) != wanted)
                return IMGERR_READ;
        }
        return IMGERR_NONE;
    }

    /// `size` bytes from `offset` on, in each plane.
    TiffDecodedBytes bytes(std::uint64_t offset, std::uint64_t size) const
    {
        return { m_bytes.get() + offset, std::size_t(size), std::size_t(m_planeBytes) };
    }

private:
    PixelMemory m_bytes;
    std::uint64_t m_planeBytes = 0;
    Planes m_planes;
};

/// An image that is decoded here.
struct Image {
    TIFF* tiff;
    const TiffTags& tags;
    Conventions conventions;
    Planes planes;
    TiffPixelDecoder& decoder;
};

template <typename Pixel> TiffRows<Pixel> rowsOf(const Image& image, RowSink& sink, int longestRun)
{
    return TiffRows<Pixel>(sink, TiffOrientation::of(image.tags.orientation, image.conventions),
        image.tags.width, image.tags.height, longestRun);
}

template <typename Pixel> ImgErrorCode readStrips(const Image& image, RowSink& sink)
{
    TIFF* const tiff = image.tiff;
    const auto height = std::uint32_t(image.tags.height);
    std::uint32_t stripRows = 0;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &stripRows);
    stripRows = std::min(stripRows, height);
    const std::uint64_t rowBytes = TIFFScanlineSize64(tiff);
    if (stripRows == 0 || rowBytes == 0)
        return IMGERR_FORMAT;

    Chunk chunk;
    RASTKIT_TRY(chunk.init(tiff, image.tags.compression, TIFFVStripSize64(tiff, stripRows), image.planes));
    TiffRows<Pixel> rows = rowsOf<Pixel>(image, sink, image.tags.width);
    for (std::uint32_t first = 0; first < height; first += std::min(stripRows, height - first)) {
        const std::uint32_t rowCount = std::min(stripRows, height - first);
        const std::uint64_t wanted = TIFFVStripSize64(tiff, rowCount);
        if (wanted / rowBytes < rowCount)
            return IMGERR_FORMAT;
        RASTKIT_TRY(chunk.fill(wanted, [&](unsigned plane, std::uint8_t* bytes) {
            const std::uint32_t strip = TIFFComputeStrip(tiff, first, std::uint16_t(plane));
            return TIFFReadEncodedStrip(tiff, strip, bytes, tmsize_t(wanted));
        }));
        for (std::uint32_t row = 0; row < rowCount; ++row)
            RASTKIT_TRY(rows.store(image.decoder, chunk.bytes(row * rowBytes, rowBytes), 0,
                { 0, int(first + row), image.tags.width }));
    }
    rows.finish();
    return IMGERR_NONE;
}

/// The rows of a tile are whole bytes by the format's rules, and each begins with a new one. Where a tile's
/// width breaks those rules the renderer takes its pixels as one row without end, deliberately.
TiffDecodedBytes rowOfTile(const Image& image, const Chunk& chunk, std::uint64_t tileBytes,
    std::uint64_t rowBytes, std::uint64_t rowPixels, std::uint64_t row, std::uint64_t& firstBit)
{
    if (image.conventions == Conventions::Renderer) {
        firstBit = row * rowPixels * image.decoder.pixelBits();
        return chunk.bytes(0, tileBytes);
    }
    firstBit = 0;
    return chunk.bytes(row * rowBytes, rowBytes);
}

template <typename Pixel> ImgErrorCode readTiles(const Image& image, RowSink& sink)
{
    TIFF* const tiff = image.tiff;
    const auto width = std::uint32_t(image.tags.width), height = std::uint32_t(image.tags.height);
    std::uint32_t tileWidth = 0, tileLength = 0;
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileLength);
    const std::uint64_t tileBytes = TIFFTileSize64(tiff), rowBytes = TIFFTileRowSize64(tiff);
    if (tileWidth == 0 || tileLength == 0 || rowBytes == 0 || tileBytes / rowBytes < tileLength)
        return IMGERR_FORMAT;

    Chunk chunk;
    RASTKIT_TRY(chunk.init(tiff, image.tags.compression, tileBytes, image.planes));
    const int longestRun = int(std::min(tileWidth, width));
    TiffRows<Pixel> rows = rowsOf<Pixel>(image, sink, longestRun);
    for (std::uint64_t y = 0; y < height; y += tileLength)
        for (std::uint64_t x = 0; x < width; x += tileWidth) {
            RASTKIT_TRY(chunk.fill(tileBytes, [&](unsigned plane, std::uint8_t* bytes) {
                const std::uint32_t tile
                    = TIFFComputeTile(tiff, std::uint32_t(x), std::uint32_t(y), 0, std::uint16_t(plane));
                return TIFFReadEncodedTile(tiff, tile, bytes, tmsize_t(tileBytes));
            }));
            const std::uint64_t rowCount = std::min<std::uint64_t>(tileLength, height - y);
            for (std::uint64_t row = 0; row < rowCount; ++row) {
                std::uint64_t firstBit = 0;
                const TiffDecodedBytes bytes
                    = rowOfTile(image, chunk, tileBytes, rowBytes, tileWidth, row, firstBit);
                RASTKIT_TRY(rows.store(image.decoder, bytes, firstBit, { int(x), int(y + row), longestRun }));
            }
        }
    rows.finish();
    return IMGERR_NONE;
}

template <typename Pixel> ImgErrorCode readChunks(const Image& image, RowSink& sink)
{
    if (!isInProportion(image.tiff, image.tags))
        return IMGERR_READ;
    return TIFFIsTiled(image.tiff) ? readTiles<Pixel>(image, sink) : readStrips<Pixel>(image, sink);
}

// --- Images that are decoded here ------------------------------------------------------------------------

TiffPixelLayout layoutOf(const TiffTags& tags)
{
    TiffPixelLayout layout;
    layout.photometric = tags.photometric;
    layout.sampleFormat = tags.sampleFormat;
    layout.bits = tags.bits;
    layout.samples = tags.samples;
    layout.alphaSample = tags.alphaSample;
    layout.isPlanar = tags.isPlanar();
    return layout;
}

ImgErrorCode loadSamples(TIFF* tiff, const TiffTags& tags, Conventions conventions, ImgBuffer& buffer)
{
    if (tags.isLog())
        TIFFSetField(tiff, TIFFTAG_SGILOGDATAFMT, SGILOGDATAFMT_FLOAT);
    Table<Color, 100> palette;
    RASTKIT_TRY(readTiffPalette(tiff, tags, conventions, palette));
    TiffPixelLayout layout = layoutOf(tags);
    const Planes planes = pickPlanes(layout);
    TiffPixelDecoder decoder;
    RASTKIT_TRY(decoder.setUp(layout, palette));

    RowSink sink(buffer);
    IMGINFO info {};
    describeTiff(tags, conventions, &info);
    RASTKIT_TRY(sink.init(info.width, info.height));
    const Image image { tiff, tags, conventions, planes, decoder };
    const bool packs = decoder.isPackable() && sink.roundsToBytes();
    const ImgErrorCode code = packs ? readChunks<unsigned int>(image, sink) : readChunks<float>(image, sink);
    if (code != IMGERR_NONE)
        buffer.freeMem();
    return code;
}

// --- Images that libtiff converts to 8 bits --------------------------------------------------------------

/// Memory for the whole image, a word of bytes alpha, blue, green, red for each pixel.
ImgErrorCode makeRaster(TIFF* tiff, const TiffTags& tags, PixelMemory& raster)
{
    // A file that is cut short gives what there is of the picture, so that an uncompressed one need not
    // have all of it, and a small picture none.
    constexpr std::uint64_t leastExpansion = 64, bytesOfPixel = sizeof(std::uint32_t);
    constexpr std::size_t allowance = std::size_t(16) << 20;
    const std::uint64_t expansion = std::max(tiffExpansion(tags.compression) * bytesOfPixel, leastExpansion);
    std::size_t bytes = 0;
    if (!multiply(std::size_t(tags.width), std::size_t(tags.height), bytesOfPixel, bytes)
        || (bytes > allowance && !tiffCanFill(tiff, expansion, bytes)) || !isInProportion(tiff, tags))
        return IMGERR_READ;
    raster = allocateZeroPixels(bytes);
    return raster ? IMGERR_NONE : IMGERR_MEMORY;
}

/// The renderer's reading of a row: alpha is 0, and blue is full unless the file has four samples. Scenes
/// depend on it.
void rendererPixels(const std::uint32_t* words, bool hasFourSamples, float* rgba, std::size_t count)
{
    constexpr float scale = 0.003921569f;
    const std::uint32_t blueBits = hasFourSamples ? 0 : 0xFF;
    for (std::size_t i = 0; i < count; ++i) {
        rgba[i * 4] = float(TIFFGetR(words[i])) * scale;
        rgba[i * 4 + 1] = float(TIFFGetG(words[i])) * scale;
        rgba[i * 4 + 2] = float(TIFFGetB(words[i]) | blueBits) * scale;
        rgba[i * 4 + 3] = 0;
    }
}

ImgErrorCode loadRasterRenderer(TIFF* tiff, const TiffTags& tags, ImgBuffer& buffer)
{
    PixelMemory raster;
    const ImgErrorCode made = makeRaster(tiff, tags, raster);
    if (made != IMGERR_NONE) // A renderer knows one answer to pixels that cannot be converted.
        return made == IMGERR_READ ? IMGERR_UNSUPPORTED : made;
    auto* const words = reinterpret_cast<std::uint32_t*>(raster.get());
    const auto width = std::size_t(tags.width);
    if (!TIFFReadRGBAImage(tiff, std::uint32_t(tags.width), std::uint32_t(tags.height), words, 0))
        return IMGERR_UNSUPPORTED;
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(tags.width, tags.height));
    for (int r = 0; r < tags.height; ++r) { // The raster's first row is the lowest.
        const int y = tags.height - 1 - r;
        float* const row = sink.beginRowF(y);
        if (!row)
            return IMGERR_MEMORY;
        rendererPixels(words + std::size_t(r) * width, tags.samples == 4, row, width);
        sink.endRowF(y, row);
    }
    return IMGERR_NONE;
}

/// Words of alpha, blue, green, red become packed pixels where they are.
void packWords(std::uint32_t* words, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t word = words[i];
        words[i] = (word & 0xFF00FF00u) | (word & 0xFFu) << 16 | (word >> 16 & 0xFFu);
    }
}

/// libtiff's conversion, which stops at the first error.
class RasterReader {
public:
    RasterReader() = default;
    RasterReader(const RasterReader&) = delete;
    RasterReader& operator=(const RasterReader&) = delete;
    ~RasterReader()
    {
        if (m_isOpen)
            TIFFRGBAImageEnd(&m_image);
    }

    /// IMGERR_UNSUPPORTED: pixels that libtiff cannot convert.
    ImgErrorCode begin(TIFF* tiff, int orientation)
    {
        constexpr int stopAtErrors = 1;
        char message[1024];
        m_isOpen
            = TIFFRGBAImageOK(tiff, message) && TIFFRGBAImageBegin(&m_image, tiff, stopAtErrors, message);
        // Asked for the orientation that the file has, it leaves the rows as they are stored.
        m_image.req_orientation = std::uint16_t(orientation);
        return m_isOpen ? IMGERR_NONE : IMGERR_UNSUPPORTED;
    }

    ImgErrorCode read(std::uint32_t* words, const TiffTags& tags)
    {
        const bool isRead
            = TIFFRGBAImageGet(&m_image, words, std::uint32_t(tags.width), std::uint32_t(tags.height));
        return isRead ? IMGERR_NONE : IMGERR_READ;
    }

private:
    TIFFRGBAImage m_image {};
    bool m_isOpen = false;
};

ImgErrorCode loadRasterStandard(TIFF* tiff, const TiffTags& tags, ImgBuffer& buffer)
{
    RasterReader reader;
    RASTKIT_TRY(reader.begin(tiff, tags.orientation));
    PixelMemory raster;
    RASTKIT_TRY(makeRaster(tiff, tags, raster));
    auto* const words = reinterpret_cast<std::uint32_t*>(raster.get());
    RASTKIT_TRY(reader.read(words, tags));

    RowSink sink(buffer);
    IMGINFO info {};
    describeTiff(tags, Conventions::Standard, &info);
    RASTKIT_TRY(sink.init(info.width, info.height));
    TiffRows<unsigned int> rows(sink, TiffOrientation::of(tags.orientation, Conventions::Standard),
        tags.width, tags.height, tags.width);
    for (int y = 0; y < tags.height; ++y) {
        std::uint32_t* const row = words + std::size_t(y) * std::size_t(tags.width);
        packWords(row, std::size_t(tags.width));
        RASTKIT_TRY(rows.store(row, { 0, y, tags.width }));
    }
    rows.finish();
    return IMGERR_NONE;
}

ImgErrorCode loadPixels(TIFF* tiff, const TiffTags& tags, Conventions conventions, ImgBuffer& buffer)
{
    if (isDecodedHere(tags, conventions))
        return loadSamples(tiff, tags, conventions, buffer);
    return conventions == Conventions::Standard ? loadRasterStandard(tiff, tags, buffer)
                                                : loadRasterRenderer(tiff, tags, buffer);
}

/// The renderer takes whatever libtiff refuses for a file that cannot be opened.
ImgError openError(Conventions conventions)
{
    if (conventions == Conventions::Standard && errno == EINVAL)
        return IMGERR_FORMAT;
    return makeOpenError();
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError loadTiffHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    LibTIFF_StopWarnings();
    const TiffFile file(fileName, "r");
    if (!file)
        return openError(conventions);
    TiffTags tags;
    RASTKIT_TRY(readTiffTags(file, conventions, tags));
    describeTiff(tags, conventions, info);
    return IMGERR_NONE;
}

ImgError loadTiff(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    LibTIFF_StopWarnings();
    const TiffFile file(fileName, "r");
    if (!file)
        return openError(conventions);
    TiffTags tags;
    RASTKIT_TRY(readTiffTags(file, conventions, tags));
    describeTiff(tags, conventions, info);
    try {
        const FreeOnThrow guard(buffer);
        return loadPixels(file, tags, conventions, buffer);
    } catch (const ImgErrorCode code) { // A sink's own.
        return code;
    }
}

} // namespace QUtils

ImgError LoadTIFHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadTiffHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadTIFFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadTiff(fileName, buffer, info, QUtils::Conventions::Renderer);
}

int LoadTIFSHA(const char* fileName, char* out, int outSize)
{
    if (!fileName || !QUtils::hasRoomForContentTag(out, outSize))
        return 0;
    QUtils::LibTIFF_StopWarnings();
    const QUtils::TiffFile file(fileName, "r");
    const char* text = nullptr;
    if (!file || !TIFFGetField(file, TIFFTAG_IMAGEDESCRIPTION, &text))
        return 0;
    return QUtils::extractContentTag(text, out, outSize);
}
