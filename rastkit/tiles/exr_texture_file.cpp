#include "rastkit/tiles/exr_texture_file.h"

#include "rastkit/exr/exr_library.h"
#include "rastkit/tiles/wrap_names.h"

#include <Iex.h>
#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfIO.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfTiledOutputFile.h>
#include <ImfVecAttribute.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace QUtils {

namespace {

constexpr const char* tableChannels[][4] = {
    { "Y" },
    { "Y", "A" },
    { "R", "G", "B" },
    { "R", "G", "B", "A" },
};

const char* const* channelsOf(const TextureLayout& layout)
{
    return tableChannels[layout.channels - 1];
}

/// What OpenEXR throws becomes a code.
template <typename Work> ImgErrorCode fenced(const Work& work)
{
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return IMGERR_MEMORY;
    } catch (...) {
        return IMGERR_LIBRARY;
    }
}

/// Takes what OpenEXR writes and forgets where: everything comes one after the other.
class MemoryStream : public Imf::OStream {
public:
    MemoryStream() : OStream("texture") { }

    void write(const char* bytes, int count) override
    {
        m_bytes.insert(m_bytes.end(), bytes, bytes + count);
        m_position += std::uint64_t(count);
    }
    std::uint64_t tellp() override { return m_position; }
    void seekp(std::uint64_t position) override { m_position = position; }

    std::vector<std::uint8_t>& bytes() { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
    std::uint64_t m_position = 0;
};

Imf::Compression compressionOf(TextureCompression compression)
{
    switch (compression) {
    case TextureCompression::None: return Imf::NO_COMPRESSION;
    case TextureCompression::Piz: return Imf::PIZ_COMPRESSION;
    case TextureCompression::Dwaa: return Imf::DWAA_COMPRESSION;
    default: return Imf::ZIP_COMPRESSION;
    }
}

/// The header of an image of such a size that says all of its tiles that there is to their bytes.
Imf::Header makeTilesHeader(const TextureLayout& layout, const TextureSettings& settings, int width,
    int height, const Imf::TileDescription& tiles)
{
    Imf::Header header(
        width, height, 1.0f, Imath::V2f(0, 0), 1.0f, Imf::RANDOM_Y, compressionOf(settings.compression));
    header.setTileDescription(tiles);
    const Imf::PixelType type = layout.sample == TextureSample::Half ? Imf::HALF : Imf::FLOAT;
    for (int c = 0; c < layout.channels; ++c)
        header.channels().insert(channelsOf(layout)[c], Imf::Channel(type));
    if (settings.compression == TextureCompression::Dwaa)
        header.dwaCompressionLevel() = settings.dwaLevel;
    return header;
}

/// A file in memory of tiles of one size below each other, from which their bytes are taken. OpenEXR takes
/// each tile of a file once.
class ExrTileFile {
public:
    static constexpr int mostTiles = 256;

    ExrTileFile(const TextureLayout& layout, const TextureSettings& settings, int width, int height)
        : m_layout(layout), m_width(width), m_height(height),
          m_file(m_stream,
              makeTilesHeader(layout, settings, width, height * mostTiles,
                  { unsigned(width), unsigned(height), Imf::ONE_LEVEL, Imf::ROUND_DOWN }),
              0)
    {
    }

    bool isUsedUp() const { return m_nextTile == mostTiles; }
    std::size_t pixels() const { return std::size_t(m_width) * std::size_t(m_height); }
    bool isFor(const TilePixels& tile) const { return m_width == tile.width && m_height == tile.height; }

    void encode(const TilePixels& tile, std::vector<std::uint8_t>& bytes)
    {
        m_stream.bytes().clear();
        attach(tile);
        m_file.writeTile(0, m_nextTile++);
        bytes.assign(m_stream.bytes().begin(), m_stream.bytes().end());
        // Where the tile is in the texture, as four numbers with the least significant byte first.
        const std::int32_t place[] = { tile.tx, tile.ty, tile.level, tile.level };
        if (bytes.size() < sizeof place)
            throw Iex::LogicExc("no tile");
        std::memcpy(bytes.data(), place, sizeof place);
    }

private:
    void attach(const TilePixels& tile)
    {
        const Imf::PixelType type = m_layout.sample == TextureSample::Half ? Imf::HALF : Imf::FLOAT;
        // OpenEXR only reads through it.
        char* const origin = const_cast<char*>(reinterpret_cast<const char*>(tile.pixels));
        Imf::FrameBuffer slices;
        for (int c = 0; c < m_layout.channels; ++c)
            slices.insert(channelsOf(m_layout)[c],
                Imf::Slice(type, origin + std::size_t(c) * bytesOf(m_layout.sample), m_layout.pixelBytes(),
                    tile.rowBytes, 1, 1, 0.0, true, true));
        m_file.setFrameBuffer(slices);
    }

    const TextureLayout& m_layout;
    int m_width, m_height; ///< Of a tile.
    MemoryStream m_stream;
    int m_nextTile = 0;
    Imf::TiledOutputFile m_file;
};

/// Has a file for each size of tiles that was met lately: whole ones, and those cut at the edges of levels.
/// Their memory does not depend on how many tiles the texture has.
class ExrTileEncoder : public TileEncoder {
public:
    ExrTileEncoder(const TextureLayout& layout, const TextureSettings& settings)
        : m_layout(layout), m_settings(settings)
    {
    }

    ImgErrorCode encode(const TilePixels& tile, std::vector<std::uint8_t>& bytes) override
    {
        return fenced([&] {
            fileFor(tile).encode(tile, bytes);
            return IMGERR_NONE;
        });
    }

private:
    using Files = std::vector<std::unique_ptr<ExrTileFile>>;

    static constexpr std::size_t mostFiles = 16, mostWholeTiles = 4;

    ExrTileFile& fileFor(const TilePixels& tile)
    {
        const auto found = std::find_if(
            m_files.begin(), m_files.end(), [&](const auto& file) { return file->isFor(tile); });
        if (found != m_files.end() && !(*found)->isUsedUp())
            return **found;
        if (found != m_files.end())
            m_files.erase(found);
        makeRoom(std::size_t(tile.width) * std::size_t(tile.height));
        m_files.push_back(std::make_unique<ExrTileFile>(m_layout, m_settings, tile.width, tile.height));
        return *m_files.back();
    }

    /// Lets go of the oldest files until those that are left and one more have few pixels.
    void makeRoom(std::size_t pixels)
    {
        const TextureLevel& largest = m_layout.levels.front();
        const std::size_t most
            = mostWholeTiles * std::size_t(largest.tileWidth) * std::size_t(largest.tileHeight);
        for (const auto& file : m_files)
            pixels += file->pixels();
        while (!m_files.empty() && (m_files.size() >= mostFiles || pixels > most)) {
            pixels -= m_files.front()->pixels();
            m_files.erase(m_files.begin());
        }
    }

    const TextureLayout& m_layout;
    const TextureSettings& m_settings;
    Files m_files; // The oldest first.
};

} // namespace

ExrTextureFile::ExrTextureFile(
    const TextureLayout& layout, const TextureSettings& settings, const std::string& comment)
    : m_layout(layout), m_settings(settings), m_comment(comment)
{
}

Imf::Header ExrTextureFile::makeHeader(const TextureRange& range) const
{
    const TextureLevel& largest = m_layout.levels.front();
    Imf::Header header = makeTilesHeader(m_layout, m_settings, largest.width, largest.height,
        { unsigned(largest.tileWidth), unsigned(largest.tileHeight), Imf::MIPMAP_LEVELS, Imf::ROUND_DOWN });
    if (!m_comment.empty())
        Imf::addComments(header, m_comment);
    header.insert("wrapmodes", Imf::StringAttribute(wrapModes(m_settings)));
    float smallest = range.smallest[0], greatest = range.greatest[0];
    Imath::V3f smallestVec(smallest), greatestVec(greatest); // Grey counts for all three.
    for (int c = 1; c < m_layout.colours(); ++c) {
        smallest = std::min(smallest, smallestVec[c] = range.smallest[c]);
        greatest = std::max(greatest, greatestVec[c] = range.greatest[c]);
    }
    header.insert("minValue", Imf::FloatAttribute(smallest));
    header.insert("maxValue", Imf::FloatAttribute(greatest));
    header.insert("minValueVec", Imf::V3fAttribute(smallestVec));
    header.insert("maxValueVec", Imf::V3fAttribute(greatestVec));
    return header;
}

/// Everything in front of the tiles as OpenEXR writes it, the table of offsets too.
std::vector<char> ExrTextureFile::makeHead(const Imf::Header& header) const
{
    MemoryStream stream;
    std::vector<char> head;
    {
        const Imf::TiledOutputFile file(stream, header, 0);
        head.assign(stream.bytes().begin(), stream.bytes().end());
    }
    return head;
}

ImgErrorCode ExrTextureFile::begin(const char* name)
{
    const ImgErrorCode code = fenced([&] {
        startExrLibrary();
        std::size_t first = 0;
        for (const TextureLevel& level : m_layout.levels) {
            m_firstOffsets.push_back(first);
            first += std::size_t(level.tilesX()) * std::size_t(level.tilesY());
        }
        m_offsets.assign(first, 0);
        m_headBytes = makeHead(makeHeader({})).size();
        return IMGERR_NONE;
    });
    if (code != IMGERR_NONE)
        return code;
    if (!m_output.open(name))
        return IMGERR_OPEN;
    // The head comes last: what is not finished must not look like a texture.
    constexpr char zeros[1 << 14] = {};
    for (std::size_t left = m_headBytes, count = 0; left != 0; left -= count) {
        count = std::min(left, sizeof zeros);
        if (!m_output.append(zeros, count))
            return IMGERR_WRITE;
    }
    return IMGERR_NONE;
}

std::unique_ptr<TileEncoder> ExrTextureFile::makeEncoder() const
{
    return std::make_unique<ExrTileEncoder>(m_layout, m_settings);
}

ImgErrorCode ExrTextureFile::append(int level, int tx, int ty, const std::vector<std::uint8_t>& bytes)
{
    const std::size_t tilesX = std::size_t(m_layout.levels[std::size_t(level)].tilesX());
    m_offsets[m_firstOffsets[std::size_t(level)] + std::size_t(ty) * tilesX + std::size_t(tx)]
        = m_output.size();
    return m_output.append(bytes.data(), bytes.size()) ? IMGERR_NONE : IMGERR_WRITE;
}

/// Writes the head into the room that is left for it.
ImgErrorCode ExrTextureFile::writeHead(const TextureRange& range)
{
    return fenced([&] {
        std::vector<char> head = makeHead(makeHeader(range));
        const std::size_t offsetBytes = m_offsets.size() * sizeof(std::uint64_t);
        if (head.size() != m_headBytes || head.size() < offsetBytes)
            return IMGERR_LIBRARY;
        // As the file has them: with the least significant byte first.
        std::memcpy(head.data() + head.size() - offsetBytes, m_offsets.data(), offsetBytes);
        return m_output.replace(0, head.data(), head.size()) ? IMGERR_NONE : IMGERR_WRITE;
    });
}

ImgErrorCode ExrTextureFile::finish(const TextureRange& range)
{
    if (const ImgErrorCode code = writeHead(range))
        return code;
    return m_output.close() ? IMGERR_NONE : IMGERR_WRITE;
}

} // namespace QUtils
