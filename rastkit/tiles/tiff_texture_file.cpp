#include "rastkit/tiles/tiff_texture_file.h"

#include "rastkit/codecs/tiff.h"
#include "rastkit/model/result.h"
#include "rastkit/tiles/wrap_names.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <new>
#include <tiffio.h>

namespace QUtils {

namespace {

int compressionOf(TextureCompression compression)
{
    switch (compression) {
    case TextureCompression::None: return COMPRESSION_NONE;
    case TextureCompression::Lzw: return COMPRESSION_LZW;
    default: return COMPRESSION_ADOBE_DEFLATE;
    }
}

int predictorOf(TextureSample sample)
{
    return sample == TextureSample::Float ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL;
}

int sampleFormatOf(TextureSample sample)
{
    return sample == TextureSample::Float ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT;
}

// --- Tiles -----------------------------------------------------------------------------------------------

/// A file in memory that forgets what was written to it once that was taken.
struct MemoryFile {
    std::vector<std::uint8_t> bytes;
    std::uint64_t position = 0, size = 0;
    bool isFull = false; ///< Memory was refused.
};

MemoryFile& memoryOf(thandle_t handle)
{
    return *static_cast<MemoryFile*>(handle);
}

tmsize_t readNothing(thandle_t, void*, tmsize_t)
{
    return 0;
}

tmsize_t writeToMemory(thandle_t handle, void* from, tmsize_t count)
{
    MemoryFile& file = memoryOf(handle);
    const auto* const bytes = static_cast<const std::uint8_t*>(from);
    try {
        file.bytes.insert(file.bytes.end(), bytes, bytes + count);
    } catch (const std::exception&) { // No exception may pass through libtiff.
        file.isFull = true;
        return -1;
    }
    file.position += std::uint64_t(count);
    file.size = std::max(file.size, file.position);
    return count;
}

toff_t seekInMemory(thandle_t handle, toff_t offset, int whence)
{
    MemoryFile& file = memoryOf(handle);
    file.position = offset + (whence == SEEK_CUR ? file.position : whence == SEEK_END ? file.size : 0);
    return file.position;
}

int closeNothing(thandle_t)
{
    return 0;
}

toff_t sizeOfMemory(thandle_t handle)
{
    return memoryOf(handle).size;
}

struct CloseTiff {
    void operator()(TIFF* tiff) const
    {
        // The file is not wanted, so that nothing is to be completed; what could not be set up is not met.
        TIFFSetMode(tiff, O_RDONLY);
        TIFFClose(tiff);
    }
};

/// Writes tile after tile to a file in memory, which is one tile wide, and takes the bytes that come out.
class TiffTileEncoder : public TileEncoder {
public:
    TiffTileEncoder(const TextureLayout& layout, TextureCompression compression)
        : m_layout(layout), m_compression(compression)
    {
    }

    ImgErrorCode encode(const TilePixels& tile, std::vector<std::uint8_t>& bytes) override
    {
        const TextureLevel& level = m_layout.levels[std::size_t(tile.level)];
        m_tile.resize(std::size_t(level.tileWidth) * std::size_t(level.tileHeight) * m_layout.pixelBytes());
        fill(tile, level);
        if (m_compression == TextureCompression::None) {
            bytes.assign(m_tile.begin(), m_tile.end());
            return IMGERR_NONE;
        }
        RASTKIT_TRY(prepare(level));
        m_file.bytes.clear();
        const tmsize_t done
            = TIFFWriteEncodedTile(m_tiff.get(), m_nextTile++, m_tile.data(), tmsize_t(m_tile.size()));
        if (done < 0 || m_file.isFull)
            return IMGERR_MEMORY; // Nothing else can be wrong.
        bytes.assign(m_file.bytes.begin(), m_file.bytes.end());
        return IMGERR_NONE;
    }

private:
    static constexpr std::uint32_t tilesOfFile = 1024;

    /// Copies the pixels. Beyond the edge of the level the last ones are repeated, which takes the least
    /// room.
    void fill(const TilePixels& tile, const TextureLevel& level)
    {
        const std::size_t pixelBytes = m_layout.pixelBytes();
        const std::size_t rowBytes = std::size_t(level.tileWidth) * pixelBytes;
        const std::size_t usedBytes = std::size_t(tile.width) * pixelBytes;
        std::uint8_t* to = m_tile.data();
        for (int y = 0; y < level.tileHeight; ++y, to += rowBytes) {
            if (y >= tile.height) {
                std::memcpy(to, to - rowBytes, rowBytes);
                continue;
            }
            std::memcpy(to, tile.pixels + std::size_t(y) * tile.rowBytes, usedBytes);
            for (std::size_t i = usedBytes; i < rowBytes; ++i)
                to[i] = to[i - pixelBytes];
        }
    }

    /// Makes a new file when the tiles of the present one are used up or of another size.
    ImgErrorCode prepare(const TextureLevel& level)
    {
        const bool fits = m_tiff && level.tileWidth == m_width && level.tileHeight == m_height;
        if (fits && m_nextTile < tilesOfFile)
            return IMGERR_NONE;
        m_tiff.reset(); // Before its file.
        m_file = MemoryFile();
        m_width = level.tileWidth;
        m_height = level.tileHeight;
        m_nextTile = 0;
        m_tiff.reset(TIFFClientOpen("texture", "w8m", &m_file, readNothing, writeToMemory, seekInMemory,
            closeNothing, sizeOfMemory, nullptr, nullptr));
        if (m_tiff && setTags())
            return IMGERR_NONE;
        m_tiff.reset();
        return IMGERR_MEMORY;
    }

    bool setTags()
    {
        TIFF* const tiff = m_tiff.get();
        const int photometric = m_layout.channels < 3 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB;
        return TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, std::uint32_t(m_width))
            && TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, std::uint32_t(m_height) * tilesOfFile)
            && TIFFSetField(tiff, TIFFTAG_TILEWIDTH, std::uint32_t(m_width))
            && TIFFSetField(tiff, TIFFTAG_TILELENGTH, std::uint32_t(m_height))
            && TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, int(bytesOf(m_layout.sample)) * 8)
            && TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, m_layout.channels)
            && TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, sampleFormatOf(m_layout.sample))
            && TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG)
            && TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric)
            && TIFFSetField(tiff, TIFFTAG_COMPRESSION, compressionOf(m_compression))
            && TIFFSetField(tiff, TIFFTAG_PREDICTOR, predictorOf(m_layout.sample));
    }

    const TextureLayout& m_layout;
    TextureCompression m_compression;
    std::vector<std::uint8_t> m_tile;
    MemoryFile m_file;
    std::unique_ptr<TIFF, CloseTiff> m_tiff;
    int m_width = 0, m_height = 0;
    std::uint32_t m_nextTile = 0;
};

// --- Directories -----------------------------------------------------------------------------------------

/// Everything but tiles begins at whole words.
std::uint64_t alignTiff(std::uint64_t position)
{
    return (position + 7) / 8 * 8;
}

/// The bytes of a directory and of all that it points to, with the least significant byte first.
class TiffDirectory {
public:
    TiffDirectory(bool isBig, std::uint64_t position) : m_isBig(isBig), m_position(position) { }

    // In the order of tags, from the lowest.

    void addShorts(std::uint16_t tag, const std::vector<std::uint16_t>& values)
    {
        add(tag, TIFF_SHORT, values.size(), values.data(), values.size() * sizeof(std::uint16_t));
    }
    void addShort(std::uint16_t tag, int value) { addShorts(tag, { std::uint16_t(value) }); }
    void addLongs(std::uint16_t tag, const std::vector<std::uint32_t>& values)
    {
        add(tag, TIFF_LONG, values.size(), values.data(), values.size() * sizeof(std::uint32_t));
    }
    void addLong(std::uint16_t tag, std::int64_t value) { addLongs(tag, { std::uint32_t(value) }); }
    void addText(std::uint16_t tag, const std::string& text)
    {
        add(tag, TIFF_ASCII, text.size() + 1, text.c_str(), text.size() + 1);
    }
    void addOffsets(std::uint16_t tag, const std::vector<std::uint64_t>& values)
    {
        if (m_isBig)
            add(tag, TIFF_LONG8, values.size(), values.data(), values.size() * sizeof(std::uint64_t));
        else
            addLongs(tag, std::vector<std::uint32_t>(values.begin(), values.end()));
    }

    /// Where its entries begin, behind the data that they point to.
    std::uint64_t entriesPosition() const { return m_position + m_data.size(); }

    std::uint64_t endPosition() const
    {
        return alignTiff(entriesPosition() + m_entries.size() + (m_isBig ? 16 : 6));
    }
    /// All of it, given where the entries of the next directory begin; 0 for none.
    std::vector<std::uint8_t> bytes(std::uint64_t nextDirectory) const
    {
        std::vector<std::uint8_t> all(m_data);
        append(all, m_count, m_isBig ? 8 : 2);
        all.insert(all.end(), m_entries.begin(), m_entries.end());
        append(all, nextDirectory, m_isBig ? 8 : 4);
        all.resize(std::size_t(endPosition() - m_position));
        return all;
    }

private:
    static void append(std::vector<std::uint8_t>& bytes, std::uint64_t number, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            bytes.push_back(std::uint8_t(number >> 8 * i));
    }

    void add(std::uint16_t tag, int type, std::uint64_t count, const void* values, std::size_t byteCount)
    {
        const std::size_t wordBytes = m_isBig ? 8 : 4;
        const auto* const bytes = static_cast<const std::uint8_t*>(values);
        append(m_entries, tag, 2);
        append(m_entries, std::uint64_t(type), 2);
        append(m_entries, count, wordBytes);
        ++m_count;
        if (byteCount <= wordBytes) { // It stands in the entry itself.
            m_entries.insert(m_entries.end(), bytes, bytes + byteCount);
            m_entries.resize(m_entries.size() + wordBytes - byteCount);
            return;
        }
        append(m_entries, m_position + m_data.size(), wordBytes);
        m_data.insert(m_data.end(), bytes, bytes + byteCount);
        m_data.resize(std::size_t(alignTiff(m_data.size())));
    }

    bool m_isBig;
    std::uint64_t m_position, m_count = 0;
    std::vector<std::uint8_t> m_data, m_entries;
};

/// The first bytes of a file.
std::vector<std::uint8_t> headerOf(bool isBig, std::uint64_t firstDirectory)
{
    std::vector<std::uint8_t> bytes(isBig ? 16 : 8);
    const std::size_t offsetBytes = bytes.size() / 2;
    bytes[0] = bytes[1] = 'I'; // The least significant byte first.
    bytes[2] = isBig ? 43 : 42;
    if (isBig)
        bytes[4] = 8; // Bytes of an offset.
    for (std::size_t i = 0; i < offsetBytes; ++i)
        bytes[offsetBytes + i] = std::uint8_t(firstDirectory >> 8 * i);
    return bytes;
}

} // namespace

namespace {

/// What a level's directory says of it, but for its tiles.
struct LevelFacts {
    const TextureLayout& layout;
    const TextureSettings& settings;
    const std::string& comment;
    std::size_t number;
};

template <typename Tiles>
TiffDirectory makeDirectory(const LevelFacts& facts, const Tiles& tiles, bool isBig, std::uint64_t position)
{
    const auto& [layout, settings, comment, number] = facts;
    const TextureLevel& level = layout.levels[number];
    const auto eachChannel = [&layout = layout](int value) {
        return std::vector<std::uint16_t>(std::size_t(layout.channels), std::uint16_t(value));
    };
    TiffDirectory directory(isBig, position);
    directory.addLong(TIFFTAG_SUBFILETYPE, number == 0 ? 0 : FILETYPE_REDUCEDIMAGE);
    directory.addLong(TIFFTAG_IMAGEWIDTH, level.width);
    directory.addLong(TIFFTAG_IMAGELENGTH, level.height);
    directory.addShorts(TIFFTAG_BITSPERSAMPLE, eachChannel(int(bytesOf(layout.sample)) * 8));
    directory.addShort(TIFFTAG_COMPRESSION, compressionOf(settings.compression));
    directory.addShort(TIFFTAG_PHOTOMETRIC, layout.channels < 3 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    if (number == 0 && !comment.empty())
        directory.addText(TIFFTAG_IMAGEDESCRIPTION, comment);
    directory.addShort(TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    directory.addShort(TIFFTAG_SAMPLESPERPIXEL, layout.channels);
    directory.addShort(TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    if (settings.compression != TextureCompression::None)
        directory.addShort(TIFFTAG_PREDICTOR, predictorOf(layout.sample));
    directory.addLong(TIFFTAG_TILEWIDTH, level.tileWidth);
    directory.addLong(TIFFTAG_TILELENGTH, level.tileHeight);
    directory.addOffsets(TIFFTAG_TILEOFFSETS, tiles.offsets);
    directory.addLongs(TIFFTAG_TILEBYTECOUNTS, tiles.byteCounts);
    if (layout.hasAlpha())
        directory.addShort(TIFFTAG_EXTRASAMPLES, EXTRASAMPLE_ASSOCALPHA);
    directory.addShorts(TIFFTAG_SAMPLEFORMAT, eachChannel(sampleFormatOf(layout.sample)));
    directory.addText(TIFFTAG_PIXAR_TEXTUREFORMAT, "Plain Texture");
    directory.addText(TIFFTAG_PIXAR_WRAPMODES, wrapModes(settings));
    return directory;
}

} // namespace

bool needsBigTiff(const TextureLayout& layout, TextureCompression compression)
{
    std::uint64_t bytes = std::uint64_t(1) << 20; // Directories, and the little that deflate may add.
    for (const TextureLevel& level : layout.levels) {
        const std::uint64_t tiles = std::uint64_t(level.tilesX()) * std::uint64_t(level.tilesY());
        const std::uint64_t pixels = std::uint64_t(level.tileWidth) * std::uint64_t(level.tileHeight);
        const std::uint64_t tileBytes = pixels * layout.pixelBytes();
        // LZW makes 12 bits of 8 at worst.
        const std::uint64_t most
            = compression == TextureCompression::Lzw ? tileBytes * 3 / 2 : tileBytes + tileBytes / 256;
        bytes += tiles * (most + 64);
    }
    return bytes > std::numeric_limits<std::uint32_t>::max();
}

TiffTextureFile::TiffTextureFile(
    const TextureLayout& layout, const TextureSettings& settings, const std::string& comment, bool isBig)
    : m_layout(layout), m_settings(settings), m_comment(comment), m_isBig(isBig)
{
}

ImgErrorCode TiffTextureFile::begin(const char* name)
{
    LibTIFF_StopWarnings();
    try {
        m_tiles.resize(m_layout.levels.size());
        for (std::size_t k = 0; k < m_tiles.size(); ++k) {
            const TextureLevel& level = m_layout.levels[k];
            const std::size_t count = std::size_t(level.tilesX()) * std::size_t(level.tilesY());
            m_tiles[k].offsets.resize(count);
            m_tiles[k].byteCounts.resize(count);
        }
        if (!m_output.open(name))
            return IMGERR_OPEN;
        const std::vector<std::uint8_t> header = headerOf(m_isBig, 0);
        return m_output.append(header.data(), header.size()) ? IMGERR_NONE : IMGERR_WRITE;
    } catch (const std::bad_alloc&) {
        return IMGERR_MEMORY;
    }
}

std::unique_ptr<TileEncoder> TiffTextureFile::makeEncoder() const
{
    return std::make_unique<TiffTileEncoder>(m_layout, m_settings.compression);
}

ImgErrorCode TiffTextureFile::append(int level, int tx, int ty, const std::vector<std::uint8_t>& bytes)
{
    const std::uint64_t end = m_output.size() + bytes.size();
    if (!m_isBig && end > std::numeric_limits<std::uint32_t>::max())
        return IMGERR_LIBRARY; // Never, by what needsBigTiff knows of the compressions.
    Tiles& tiles = m_tiles[std::size_t(level)];
    const std::size_t tilesX = std::size_t(m_layout.levels[std::size_t(level)].tilesX());
    const std::size_t tile = std::size_t(ty) * tilesX + std::size_t(tx);
    tiles.offsets[tile] = m_output.size();
    tiles.byteCounts[tile] = std::uint32_t(bytes.size());
    return m_output.append(bytes.data(), bytes.size()) ? IMGERR_NONE : IMGERR_WRITE;
}

/// Writes the directories behind the tiles, then where the first one is.
ImgErrorCode TiffTextureFile::writeDirectories()
{
    const std::vector<std::uint8_t> padding(std::size_t(alignTiff(m_output.size()) - m_output.size()));
    if (!m_output.append(padding.data(), padding.size()))
        return IMGERR_WRITE;
    std::vector<TiffDirectory> directories;
    std::uint64_t position = m_output.size();
    for (std::size_t k = 0; k < m_tiles.size(); ++k) {
        const LevelFacts facts { m_layout, m_settings, m_comment, k };
        directories.push_back(makeDirectory(facts, m_tiles[k], m_isBig, position));
        position = directories.back().endPosition();
    }
    if (!m_isBig && position > std::numeric_limits<std::uint32_t>::max())
        return IMGERR_LIBRARY;
    for (std::size_t k = 0; k < directories.size(); ++k) {
        const bool isLast = k + 1 == directories.size();
        const std::vector<std::uint8_t> bytes
            = directories[k].bytes(isLast ? 0 : directories[k + 1].entriesPosition());
        if (!m_output.append(bytes.data(), bytes.size()))
            return IMGERR_WRITE;
    }
    const std::vector<std::uint8_t> header = headerOf(m_isBig, directories.front().entriesPosition());
    if (!m_output.replace(0, header.data(), header.size()) || !m_output.close())
        return IMGERR_WRITE;
    return IMGERR_NONE;
}

ImgErrorCode TiffTextureFile::finish(const TextureRange&)
{
    try {
        return writeDirectories();
    } catch (const std::bad_alloc&) {
        return IMGERR_MEMORY;
    }
}

} // namespace QUtils
