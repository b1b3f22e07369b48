#include "qutils/core/critical_section.h"
#include "rastkit/codecs/tiff.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/codecs/tiff_file.h"
#include "rastkit/codecs/tiff_palette.h"
#include "rastkit/codecs/tiff_tags.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"
#include "rastkit/tiles.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <tiffio.h>
#include <utility>

namespace QUtils {

namespace {

/// What the directory of a level says.
struct LevelTags {
    std::uint32_t width = 0, height = 0, tileWidth = 0, tileHeight = 0;

    /// False when one of them is missing, or is none that anybody can have.
    [[nodiscard]] bool read(TIFF* tiff)
    {
        const auto size = [tiff](std::uint32_t tag, std::uint32_t& value) {
            return TIFFGetField(tiff, tag, &value) && value != 0 && value <= std::uint32_t(INT_MAX);
        };
        return size(TIFFTAG_IMAGEWIDTH, width) && size(TIFFTAG_IMAGELENGTH, height)
            && size(TIFFTAG_TILEWIDTH, tileWidth) && size(TIFFTAG_TILELENGTH, tileHeight);
    }

    MipLevel level() const
    {
        const auto tiles = [](std::uint32_t pixels, std::uint32_t tile) {
            return int(pixels / tile + (pixels % tile != 0 ? 1 : 0));
        };
        return { tiles(width, tileWidth), tiles(height, tileHeight), int(width), int(height) };
    }
};

struct TileSize {
    std::int64_t width, height;

    bool operator==(const TileSize&) const = default;
};

/// How the tiles of a directory are stored, in the values of the tags.
struct TileCoding {
    unsigned compression = COMPRESSION_NONE, predictor = PREDICTOR_NONE, fillOrder = FILLORDER_MSB2LSB;

    static TileCoding of(TIFF* tiff, unsigned compression)
    {
        std::uint16_t predictor = PREDICTOR_NONE, fillOrder = FILLORDER_MSB2LSB;
        TIFFGetField(tiff, TIFFTAG_PREDICTOR, &predictor);
        TIFFGetFieldDefaulted(tiff, TIFFTAG_FILLORDER, &fillOrder);
        return { compression, predictor, fillOrder };
    }

    bool operator==(const TileCoding&) const = default;

    /// Whether a tile's bytes, and these three, are all that it takes to decode it.
    bool isPlain() const
    {
        return compression == COMPRESSION_NONE || compression == COMPRESSION_LZW
            || compression == COMPRESSION_PACKBITS || compression == COMPRESSION_DEFLATE
            || compression == COMPRESSION_ADOBE_DEFLATE;
    }
};

/// Where the tiles of a level lie in the file, plane by plane.
struct TilePlaces {
    struct Place {
        std::uint64_t offset, bytes;
    };

    int width = 0, height = 0; ///< Of the level.
    std::unique_ptr<Place[]> places; ///< Null where they are not known.

    bool areKnownOf(const MipLevel& shape) const
    {
        return places && width == shape.width && height == shape.height;
    }
};

/// Writers of textures mark them with this tag, which the library has as a text.
bool isMarkedTexture(TIFF* tiff)
{
    const char* text = nullptr;
    return TIFFGetField(tiff, TIFFTAG_PIXAR_TEXTUREFORMAT, &text) && text && *text != 0
        && std::strcmp(text, "0") != 0;
}

/// A texture has levels down to one of a single pixel, at most.
int countLevels(TIFF* tiff, int width, int height)
{
    const int size = std::max(width, height);
    if (size < 2)
        return 1;
    for (int k = 1;; ++k) {
        if (!TIFFSetDirectory(tiff, tdir_t(k)))
            return k;
        if (size >> (k + 1) == 0)
            return k + 1;
    }
}

// --- Tiles -----------------------------------------------------------------------------------------------

/// An open texture, and memory for one tile of it.
///
/// To move libtiff to the directory of another level takes longer than to decode a small tile. So the places
/// of a level's tiles are noted when it is met first; from then on its tiles are read from there, and decoded
/// in whatever directory libtiff is at, as long as that stores its tiles in the same way.
class TiffTiles {
public:
    explicit TiffTiles(const char* name) : m_file(name, "r") { }

    ImgErrorCode setUp(const MipMapTileLoaderParams& params)
    {
        if (!m_file)
            return IMGERR_OPEN;
        LevelTags level;
        RASTKIT_TRY(readTiffTags(m_file, Conventions::Renderer, m_tags));
        if (!level.read(m_file) || !isAs(params))
            return IMGERR_READ;
        m_tile = { level.tileWidth, level.tileHeight };
        m_isDecodedHere = isDecodedHere(m_tags, Conventions::Renderer);
        return m_isDecodedHere ? setUpDecoder() : setUpConversion();
    }

    /// `size` is that of the level's tiles.
    ImgErrorCode load(const MipMapTileLoaderParams& params, int level, TileSize size, std::int64_t tx,
        std::int64_t ty, ImgBuffer& buffer)
    {
        if (!isAs(params) || m_tile.width != params.tileWidth || m_tile.height != params.tileHeight)
            return IMGERR_READ;
        const MipLevel& shape = params.levels[level];
        if (!m_isAtCommonCoding || !m_places[level].areKnownOf(shape))
            RASTKIT_TRY(select(level, shape, size));
        const std::int64_t x = m_tile.width * tx, y = m_tile.height * ty;
        const bool isSmall = size.width < m_tile.width || size.height < m_tile.height;
        if (m_isDecodedHere
            && ((isSmall && (x != 0 || y != 0)) || params.bytesPerPixel % params.numChannels != 0))
            return IMGERR_FORMAT;
        if (x < 0 || y < 0 || x >= shape.width || y >= shape.height || x + m_tile.width > INT_MAX
            || y + m_tile.height > INT_MAX)
            return IMGERR_READ;
        return m_isDecodedHere ? decode(level, shape, size, std::uint32_t(x), std::uint32_t(y), buffer)
                               : convert(size, std::uint32_t(x), std::uint32_t(y), buffer);
    }

private:
    bool isAs(const MipMapTileLoaderParams& params) const
    {
        IMGINFO info {};
        describeTiff(m_tags, Conventions::Renderer, &info);
        return info.numChannels == params.numChannels && info.bitsPerPixel == params.bitsPerPixel;
    }

    /// `expansion` is what becomes of a byte of the file at most.
    ImgErrorCode takeMemory(std::uint64_t bytes, std::uint64_t expansion)
    {
        // The decoder counts in int.
        if (bytes == 0 || bytes > std::uint64_t(INT_MAX) || !tiffCanFill(m_file, expansion, bytes))
            return IMGERR_READ;
        // Zeros, so that nothing but the file shows in the picture whatever a decompressor leaves out.
        m_memory = allocateZeroPixels(std::size_t(bytes));
        return m_memory ? IMGERR_NONE : IMGERR_MEMORY;
    }

    ImgErrorCode setUpDecoder()
    {
        RASTKIT_TRY(readTiffPalette(m_file, m_tags, Conventions::Renderer, m_palette));
        chooseFloats();
        m_planes = m_tags.isPlanar() ? m_tags.samples : 1;
        m_planeBytes = TIFFTileSize64(m_file);
        m_coding = TileCoding::of(m_file, m_tags.compression);
        std::uint64_t bytes = 0;
        if (__builtin_mul_overflow(m_planeBytes, std::uint64_t(m_planes), &bytes))
            return IMGERR_READ;
        return takeMemory(bytes, tiffExpansion(m_tags.compression));
    }

    ImgErrorCode setUpConversion()
    {
        std::uint64_t pixels = 0;
        if (__builtin_mul_overflow(std::uint64_t(m_tile.width), std::uint64_t(m_tile.height), &pixels)
            || pixels > std::uint64_t(INT_MAX) / sizeof(std::uint32_t))
            return IMGERR_READ;
        m_row = allocatePixels(std::size_t(m_tile.width) * 4 * sizeof(float));
        // A word a pixel, which is one bit at least.
        constexpr std::uint64_t mostOfByte = 8 * sizeof(std::uint32_t);
        return m_row
            ? takeMemory(pixels * sizeof(std::uint32_t), tiffExpansion(m_tags.compression) * mostOfByte)
            : IMGERR_MEMORY;
    }

    /// Colours of luminance are decompressed to floats. The library forgets it with every other directory.
    void chooseFloats()
    {
        if (m_tags.isLog())
            TIFFSetField(m_file, TIFFTAG_SGILOGDATAFMT, SGILOGDATAFMT_FLOAT);
    }

    /// Moves to the directory of a level, which must be as it was described: the memory was taken for that.
    ImgErrorCode select(int level, const MipLevel& shape, TileSize size)
    {
        if (m_level == level)
            return IMGERR_NONE;
        m_level = -1;
        m_isAtCommonCoding = false;
        LevelTags found;
        TiffTags tags;
        if (!TIFFSetDirectory(m_file, tdir_t(level)) || !found.read(m_file)
            || readTiffTags(m_file, Conventions::Renderer, tags) != IMGERR_NONE)
            return IMGERR_READ;
        if (int(found.width) != shape.width || int(found.height) != shape.height
            || found.tileWidth != size.width || found.tileHeight != size.height || !areAlike(tags))
            return IMGERR_READ;
        chooseFloats();
        if (m_isDecodedHere && TIFFTileSize64(m_file) > m_planeBytes)
            return IMGERR_READ;
        m_level = level;
        m_isAtCommonCoding = m_isDecodedHere && m_coding.isPlain() && size == m_tile
            && TileCoding::of(m_file, tags.compression) == m_coding;
        if (m_isAtCommonCoding)
            notePlaces(shape, m_places[level]);
        return IMGERR_NONE;
    }

    /// Only where each tile is there, and has no more bytes than a tile can need: libtiff is left to say what
    /// is wrong with others. Nor where memory is refused, since tiles can be read without.
    void notePlaces(const MipLevel& shape, TilePlaces& level)
    {
        level.places.reset();
        const std::uint64_t count = TIFFNumberOfTiles(m_file), fileBytes = tiffFileBytes(m_file);
        const std::uint64_t most = std::min(fileBytes, m_planeBytes * 2 + smallTileBytes);
        if (count != tilesAcross(shape) * tilesDown(shape) * m_planes || count > fileBytes / bytesOfPlace)
            return;
        std::unique_ptr<TilePlaces::Place[]> places(new (std::nothrow) TilePlaces::Place[count]);
        std::uint64_t longest = 0;
        for (std::uint64_t i = 0; places && i < count; ++i) {
            const auto tile = std::uint32_t(i);
            places[i] = { TIFFGetStrileOffset(m_file, tile), TIFFGetStrileByteCount(m_file, tile) };
            if (places[i].bytes == 0 || places[i].bytes > most)
                return;
            longest = std::max(longest, places[i].bytes);
        }
        if (places && reserveStored(std::size_t(longest)))
            level = { shape.width, shape.height, std::move(places) };
    }

    bool reserveStored(std::size_t bytes)
    {
        if (bytes <= m_storedCapacity)
            return true;
        PixelMemory larger = allocatePixels(bytes);
        if (!larger) // The levels before can do with what there is.
            return false;
        m_stored = std::move(larger);
        m_storedCapacity = bytes;
        return true;
    }

    std::uint64_t tilesAcross(const MipLevel& shape) const
    {
        return (std::uint64_t(shape.width) + std::uint64_t(m_tile.width) - 1) / std::uint64_t(m_tile.width);
    }
    std::uint64_t tilesDown(const MipLevel& shape) const
    {
        return (std::uint64_t(shape.height) + std::uint64_t(m_tile.height) - 1)
            / std::uint64_t(m_tile.height);
    }

    /// Decodes a plane of the tile with the pixel (x, y).
    bool readPlane(int level, const MipLevel& shape, std::uint32_t x, std::uint32_t y, unsigned plane)
    {
        std::uint8_t* const to = m_memory.get() + plane * m_planeBytes;
        const TilePlaces& known = m_places[level];
        if (!m_isAtCommonCoding || !known.areKnownOf(shape))
            return TIFFReadTile(m_file, to, x, y, 0, std::uint16_t(plane)) >= 0;
        const std::uint64_t tx = x / std::uint64_t(m_tile.width), ty = y / std::uint64_t(m_tile.height);
        const std::uint64_t row = plane * tilesDown(shape) + ty;
        const TilePlaces::Place& place = known.places[row * tilesAcross(shape) + tx];
        return tiffReadAt(m_file, place.offset, m_stored.get(), std::size_t(place.bytes))
            && TIFFReadFromUserBuffer(
                m_file, 0, m_stored.get(), tmsize_t(place.bytes), to, tmsize_t(m_planeBytes));
    }

    bool areAlike(const TiffTags& tags) const
    {
        return tags.bits == m_tags.bits && tags.samples == m_tags.samples
            && tags.sampleFormat == m_tags.sampleFormat && tags.photometric == m_tags.photometric
            && tags.hasPhotometric == m_tags.hasPhotometric && tags.isPlanar() == m_tags.isPlanar();
    }

    ImgErrorCode decode(
        int level, const MipLevel& shape, TileSize size, std::uint32_t x, std::uint32_t y, ImgBuffer& buffer)
    {
        std::uint8_t* const memory = m_memory.get();
        for (unsigned plane = 0; plane < m_planes; ++plane)
            if (!readPlane(level, shape, x, y, plane))
                return IMGERR_READ;
        // The whole tile with the overhang, so that its rows are found; what is outside the level is skipped.
        OrientedPixelBuffer target { &buffer, shape.width, shape.height, m_tags.orientation, 1,
            int(size.width), int(size.height), int(x), int(y) };
        BitStreamReader reader { memory, memory, memory[0], 8, int(m_planeBytes * m_planes) };
        IMGINFO info {};
        describeTiff(m_tags, Conventions::Renderer, &info);
        try {
            tiff_read_data_chunk(&reader, std::uint16_t(m_tags.sampleFormat),
                std::uint16_t(m_tags.planarConfig), std::uint16_t(m_tags.photometric), !m_palette.empty(),
                m_palette, info, target);
        } catch (const ImgErrorCode code) { // The decoder's, or the buffer's own.
            return code;
        }
        return IMGERR_NONE;
    }

    /// The library hands the tile over with its lowest row first. A byte is divided by 256, on purpose:
    /// scenes have been made with it.
    ImgErrorCode convert(TileSize size, std::uint32_t x, std::uint32_t y, ImgBuffer& buffer)
    {
        constexpr float scale = 0.00390625f;
        auto* const words = reinterpret_cast<std::uint32_t*>(m_memory.get());
        auto* const rgba = reinterpret_cast<float*>(m_row.get());
        if (!TIFFReadRGBATile(m_file, x, y, words))
            return IMGERR_READ;
        RowSink sink(buffer);
        sink.adopt(INT_MAX, INT_MAX); // The buffer has the size of the level, which it alone knows.
        try {
            for (std::int64_t row = 0; row < size.height; ++row) {
                const std::uint32_t* const from = words + row * size.width;
                for (std::int64_t i = 0; i < size.width * 4; ++i)
                    rgba[i] = float(from[i / 4] >> i % 4 * 8 & 0xFF) * scale;
                sink.putF(int(x), int(y + size.height - 1 - row), rgba, int(size.width));
            }
        } catch (const ImgErrorCode code) {
            return code;
        }
        return IMGERR_NONE;
    }

    static constexpr int mostLevels = 32; ///< countLevels has no more.
    static constexpr std::uint64_t bytesOfPlace = 6; ///< At least, in the file.
    static constexpr std::uint64_t smallTileBytes = 4096;

    TiffFile m_file;
    TiffTags m_tags; ///< Of the first directory.
    TileSize m_tile { 0, 0 };
    bool m_isDecodedHere = false;
    Table<Color, 100> m_palette;
    unsigned m_planes = 1;
    std::uint64_t m_planeBytes = 0;
    PixelMemory m_memory, m_row;
    int m_level = -1; ///< The directory that the file is at, when it is known and as it should be.
    TileCoding m_coding; ///< Of the first directory.
    /// Whether the directory that the file is at has the same, and as large tiles.
    bool m_isAtCommonCoding = false;
    TilePlaces m_places[mostLevels];
    PixelMemory m_stored; ///< A tile as it is in the file.
    std::size_t m_storedCapacity = 0;
};

} // namespace

} // namespace QUtils

struct TIFTileLoaderParams::State {
    QUtils::CriticalSection mutex;
    bool isOpened = false; ///< Whether the first tile was asked for.
    std::unique_ptr<QUtils::TiffTiles> tiles; ///< Null where that could not be opened.
    std::unique_ptr<QUtils::TileSize[]> tileSizes; ///< Of each level.
    int levelCount = 0;
    unsigned planes = 1;

    /// Fills the levels from the file's directories. IMGERR_FORMAT when these are no levels of one texture.
    ImgErrorCode readLevels(TIFF* tiff, TIFTileLoaderParams& params);

    /// Leaves `tiles` null when anything is wrong.
    void open(const MipMapTileLoaderParams& params)
    {
        isOpened = true;
        if (!params.isMipmapped || !params.fileName)
            return;
        QUtils::LibTIFF_StopWarnings();
        tiles.reset(new (std::nothrow) QUtils::TiffTiles(params.fileName));
        if (tiles && tiles->setUp(params) != IMGERR_NONE)
            tiles.reset();
    }
};

ImgErrorCode TIFTileLoaderParams::State::readLevels(TIFF* tiff, TIFTileLoaderParams& params)
{
    levelCount = 0;
    const int count = QUtils::countLevels(tiff, params.width, params.height);
    tileSizes.reset(new (std::nothrow) QUtils::TileSize[std::size_t(count)]);
    if (((count != params.numLevels || !params.levels) && !params.replaceLevels(count)) || !tileSizes)
        return IMGERR_FORMAT;
    const bool isWholeBytes
        = params.bitsPerPixel % 8 == 0 && params.bitsPerPixel / params.numChannels % 8 == 0;
    for (int k = 0; k < count; ++k) {
        QUtils::LevelTags found;
        if (!TIFFSetDirectory(tiff, tdir_t(k)) || !found.read(tiff))
            return IMGERR_FORMAT;
        const MipLevel level = found.level();
        const QUtils::TileSize size { found.tileWidth, found.tileHeight };
        const bool isSmall = size.width < params.tileWidth || size.height < params.tileHeight;
        if (size.width > params.tileWidth || size.height > params.tileHeight
            || (isSmall && (level.tilesX != 1 || level.tilesY != 1 || !isWholeBytes)))
            return IMGERR_FORMAT;
        params.levels[k] = level;
        tileSizes[std::size_t(k)] = size;
    }
    levelCount = count;
    return IMGERR_NONE;
}

TIFTileLoaderParams::TIFTileLoaderParams() : m_state(new (std::nothrow) State) { }

TIFTileLoaderParams::~TIFTileLoaderParams()
{
    TIFTileLoaderParams::freeMem();
}

void TIFTileLoaderParams::freeMem()
{
    m_state.reset();
}

ImgError TIFTileLoaderParams::loadTile(int tx, int ty, int level, ImgBuffer& buffer)
{
    if (!m_state)
        return IMGERR_READ;
    const std::lock_guard lock(m_state->mutex);
    if (!m_state->isOpened)
        m_state->open(*this);
    if (!m_state->tiles || level < 0 || level >= std::min(numLevels, m_state->levelCount))
        return IMGERR_READ;
    return m_state->tiles->load(*this, level, m_state->tileSizes[std::size_t(level)], tx, ty, buffer);
}

ImgError LoadTIFHeaderEx(const char* fileName, TIFTileLoaderParams& params)
{
    QUtils::LibTIFF_StopWarnings();
    const QUtils::TiffFile file(fileName, "r");
    if (!file)
        return makeOpenError();
    QUtils::TiffTags tags;
    RASTKIT_TRY(readTiffTags(file, QUtils::Conventions::Renderer, tags));
    describeTiff(tags, QUtils::Conventions::Renderer, &params);
    params.dataWindowX = params.dataWindowY = params.displayWindowX = params.displayWindowY = 0;
    // 1 more than there are pixels, on purpose: renderers' texture code subtracts it again.
    params.dataWindowWidth = params.displayWindowWidth
        = int(std::min<std::int64_t>(tags.width + 1LL, INT_MAX));
    params.dataWindowHeight = params.displayWindowHeight
        = int(std::min<std::int64_t>(tags.height + 1LL, INT_MAX));

    std::uint32_t tileWidth = 0, tileHeight = 0;
    if (!TIFFGetField(file, TIFFTAG_TILEWIDTH, &tileWidth)
        || !TIFFGetField(file, TIFFTAG_TILELENGTH, &tileHeight))
        return IMGERR_NONE;
    params.tileWidth = int(std::min<std::uint32_t>(tileWidth, INT_MAX));
    params.tileHeight = int(std::min<std::uint32_t>(tileHeight, INT_MAX));
    params.isMipmapped = QUtils::isMarkedTexture(file) && TIFFIsTiled(file) ? 1 : 0;
    if (!params.isMipmapped)
        return IMGERR_NONE;
    if (!params.m_state)
        return IMGERR_FORMAT;
    params.m_state->planes = tags.isPlanar() ? std::max(tags.samples, 1u) : 1;
    return params.m_state->readLevels(file, params);
}

unsigned QUtils::tilePlanesOf(const TIFTileLoaderParams& params)
{
    return params.m_state ? params.m_state->planes : 1;
}
