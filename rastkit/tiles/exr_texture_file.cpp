#include "rastkit/tiles/exr_texture_file.h"

#include "rastkit/exr/exr_library.h"
#include "rastkit/tiles/wrap_names.h"

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

/// A file of the same header in memory, from which the bytes of tiles are taken.
class ExrTileEncoder : public TileEncoder {
public:
    ExrTileEncoder(const TextureLayout& layout, const Imf::Header& header)
        : m_layout(layout), m_file(m_stream, header, 0)
    {
    }

    ImgErrorCode encode(const TilePixels& tile, std::vector<std::uint8_t>& bytes) override
    {
        return fenced([&] {
            m_stream.bytes().clear();
            attach(tile);
            m_file.writeTile(tile.tx, tile.ty, tile.level);
            bytes.assign(m_stream.bytes().begin(), m_stream.bytes().end());
            return IMGERR_NONE;
        });
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
    MemoryStream m_stream;
    Imf::TiledOutputFile m_file;
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

} // namespace

ExrTextureFile::ExrTextureFile(
    const TextureLayout& layout, const TextureSettings& settings, const std::string& comment)
    : m_layout(layout), m_settings(settings), m_comment(comment)
{
}

Imf::Header ExrTextureFile::makeHeader(const TextureRange& range) const
{
    const TextureLevel& largest = m_layout.levels.front();
    Imf::Header header(largest.width, largest.height, 1.0f, Imath::V2f(0, 0), 1.0f, Imf::RANDOM_Y,
        compressionOf(m_settings.compression));
    header.setTileDescription(Imf::TileDescription(
        unsigned(largest.tileWidth), unsigned(largest.tileHeight), Imf::MIPMAP_LEVELS, Imf::ROUND_DOWN));
    const Imf::PixelType type = m_layout.sample == TextureSample::Half ? Imf::HALF : Imf::FLOAT;
    for (int c = 0; c < m_layout.channels; ++c)
        header.channels().insert(channelsOf(m_layout)[c], Imf::Channel(type));
    if (m_settings.compression == TextureCompression::Dwaa)
        header.dwaCompressionLevel() = m_settings.dwaLevel;
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
        m_header = makeHeader({});
        m_headBytes = makeHead(m_header).size();
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
    return std::make_unique<ExrTileEncoder>(m_layout, m_header);
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
