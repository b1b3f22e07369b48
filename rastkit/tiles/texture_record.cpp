#include "rastkit/tiles/texture_record.h"

#include "rastkit/exr/exr_input.h"
#include "rastkit/tiles.h"
#include "rastkit/tiles/tile_table.h"

#include <ImfCompression.h>
#include <ImfPixelType.h>
#include <ImfThreading.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <utility>

namespace QUtils {

namespace {

enum class Format { Unknown, Exr, Tiff };

// --- Which format ----------------------------------------------------------------------------------------

Format formatOfName(const char* fileName)
{
    const char* const dot = std::strrchr(fileName, '.');
    if (dot && strcasecmp(dot, ".exr") == 0)
        return Format::Exr;
    if (dot && (strcasecmp(dot, ".tif") == 0 || strcasecmp(dot, ".tiff") == 0))
        return Format::Tiff;
    return Format::Unknown;
}

Format formatOfContents(const char* fileName, ImgErrorCode& error)
{
    using namespace std::string_view_literals;
    const FilePtr file(my_fopen(fileName, "rb"));
    char bytes[4] = {};
    error = file ? IMGERR_FORMAT : IMGERR_OPEN;
    if (!file || std::fread(bytes, 1, sizeof bytes, file) != sizeof bytes)
        return Format::Unknown;
    const std::string_view start(bytes, sizeof bytes);
    if (start == "\x76\x2f\x31\x01"sv)
        return Format::Exr;
    for (const std::string_view tiff : { "II*\0"sv, "MM\0*"sv, "II+\0"sv, "MM\0+"sv })
        if (start == tiff)
            return Format::Tiff;
    return Format::Unknown;
}

bool isTexture(const MipMapTileLoaderParams& params)
{
    if (!params.isMipmapped || params.numLevels < 1 || params.numLevels >= 1 << TileKey::levelBits
        || !params.levels || params.tileWidth < 1 || params.tileHeight < 1 || params.numChannels < 1)
        return false;
    return std::all_of(params.levels, params.levels + params.numLevels, [](const MipLevel& level) {
        return level.width > 0 && level.height > 0 && level.tilesX > 0 && level.tilesY > 0;
    });
}

template <typename Params, typename Describe>
DescribedFile describeAs(const char* fileName, bool isExr, Describe describe)
{
    DescribedFile file;
    file.isExr = isExr;
    std::unique_ptr<Params> params(new (std::nothrow) Params);
    if (!params) {
        file.error = IMGERR_MEMORY;
        return file;
    }
    file.error = ImgErrorCode(describe(fileName, *params).code());
    if (file.error == IMGERR_NONE && !isTexture(*params))
        file.error = IMGERR_FORMAT;
    if (file.error == IMGERR_NONE)
        file.params = std::move(params);
    return file;
}

DescribedFile describeAs(const char* fileName, Format format)
{
    return format == Format::Exr ? describeAs<EXRTileLoaderParams>(fileName, true, LoadEXRHeaderEx)
                                 : describeAs<TIFTileLoaderParams>(fileName, false, LoadTIFHeaderEx);
}

} // namespace

FileIdentity FileIdentity::of(const char* fileName)
{
    struct stat status { };
    if (stat(fileName, &status) != 0)
        return {};
    return { true, S_ISREG(status.st_mode), std::uint64_t(status.st_dev), std::uint64_t(status.st_ino),
        std::uint64_t(status.st_size), std::int64_t(status.st_mtim.tv_sec),
        std::int64_t(status.st_mtim.tv_nsec) };
}

DescribedFile describeFile(const char* fileName)
{
    const Format expected = formatOfName(fileName);
    DescribedFile file;
    if (expected != Format::Unknown) {
        file = describeAs(fileName, expected);
        if (file.error == IMGERR_NONE || file.error == IMGERR_MEMORY)
            return file;
    }
    ImgErrorCode error = IMGERR_NONE;
    const Format found = formatOfContents(fileName, error);
    if (found != Format::Unknown && found != expected)
        return describeAs(fileName, found);
    if (expected == Format::Unknown)
        file.error = error;
    return file;
}

std::unique_ptr<MipMapTileLoaderParams> newLoader(
    const char* fileName, const TextureDescription& description, ImgErrorCode& error)
{
    error = IMGERR_NONE;
    if (!FileIdentity::of(fileName).mayBeOpened()) {
        error = IMGERR_READ;
        return nullptr;
    }
    if (!description.isExr) {
        DescribedFile file = describeAs(fileName, Format::Tiff);
        if (file.params && !description.isLike(*file.params))
            file.params.reset();
        if (file.params)
            file.params->fileName = fileName;
        else
            error = file.error == IMGERR_MEMORY ? IMGERR_MEMORY : IMGERR_READ;
        return std::move(file.params);
    }
    // The loader compares the file with these fields itself.
    std::unique_ptr<MipMapTileLoaderParams> params(new (std::nothrow) EXRTileLoaderParams);
    if (!params) {
        error = IMGERR_MEMORY;
        return nullptr;
    }
    static_cast<IMGINFO&>(*params) = description.info;
    params->fileName = fileName;
    params->tileWidth = description.tileWidth;
    params->tileHeight = description.tileHeight;
    params->isMipmapped = 1;
    return params;
}

// --- Descriptions ----------------------------------------------------------------------------------------

void FreeDescription::operator()(TextureDescription* description) const
{
    // One by one: a long chain must not be freed recursively.
    while (description) {
        TextureDescription* const older = description->older.release();
        description->~TextureDescription();
        std::free(description);
        description = older;
    }
}

std::uint64_t TextureDescription::bytesFor(int levelCount)
{
    return heapBytes(sizeof(TextureDescription) + std::uint64_t(levelCount) * sizeof(Level));
}

DescriptionPointer TextureDescription::make(
    const MipMapTileLoaderParams& params, bool isExr, const FileNeeds& needs)
{
    const auto count = std::size_t(params.numLevels);
    void* const block = std::malloc(sizeof(TextureDescription) + count * sizeof(Level));
    if (!block)
        return nullptr;
    DescriptionPointer made(new (block) TextureDescription);
    made->isExr = isExr;
    made->needs = needs;
    if (!isExr)
        made->needs.planes = tilePlanesOf(static_cast<const TIFTileLoaderParams&>(params));
    made->info = static_cast<const IMGINFO&>(params);
    made->tileWidth = params.tileWidth;
    made->tileHeight = params.tileHeight;
    made->levelCount = params.numLevels;
    made->levels = reinterpret_cast<Level*>(made.get() + 1);
    for (std::size_t i = 0; i < count; ++i) {
        const MipLevel& shape = params.levels[i];
        new (made->levels + i) Level { shape, -std::log2(float(std::max(shape.width, shape.height))) };
    }
    return made;
}

const TextureDescription* TextureDescription::failed(ImgErrorCode error)
{
    static const auto descriptions = [] {
        std::array<TextureDescription, IMGERR_WRITE + 1> made;
        for (std::size_t i = 0; i < made.size(); ++i)
            made[i].error = ImgErrorCode(i);
        return made;
    }();
    return &descriptions[std::min(std::size_t(error), descriptions.size() - 1)];
}

bool TextureDescription::isLike(const MipMapTileLoaderParams& params) const
{
    if (params.tileWidth != tileWidth || params.tileHeight != tileHeight || params.numLevels != levelCount
        || params.numChannels != info.numChannels || params.bitsPerPixel != info.bitsPerPixel)
        return false;
    return std::equal(levels, levels + levelCount, params.levels, [](const Level& a, const MipLevel& b) {
        return a.shape.width == b.width && a.shape.height == b.height && a.shape.tilesX == b.tilesX
            && a.shape.tilesY == b.tilesY;
    });
}

bool TextureDescription::isLike(const TextureDescription& other) const
{
    if (isExr != other.isExr || !(needs == other.needs) || levelCount != other.levelCount
        || tileWidth != other.tileWidth || tileHeight != other.tileHeight
        || std::memcmp(&info, &other.info, sizeof info) != 0)
        return false;
    return std::memcmp(levels, other.levels, std::size_t(levelCount) * sizeof(Level)) == 0;
}

bool TextureDescription::hasTile(int tx, int ty, int level) const
{
    if (level < 0 || level >= levelCount || tx < 0 || ty < 0)
        return false;
    // The level may begin tiles that it does not say: the loader knows only its tile size.
    const MipLevel& shape = levels[level].shape;
    return tx < shape.tilesX && ty < shape.tilesY && std::int64_t(tx) * tileWidth < shape.width
        && std::int64_t(ty) * tileHeight < shape.height;
}

// --- What reading takes ----------------------------------------------------------------------------------

namespace {

// Measured with OpenEXR 3.1 and libtiff 4.5, and rounded up.
/// Read ahead by our own streams.
constexpr std::uint64_t exrAheadBytes = ExrInput::smallBlock, tiffAheadBytes = std::uint64_t(256) << 10;
constexpr std::uint64_t exrHandleBytes = std::uint64_t(48) << 10; ///< With its header.
constexpr std::uint64_t tiffHandleBytes = std::uint64_t(96) << 10; ///< And the state of its decompressor.
constexpr std::uint64_t pizBytes = std::uint64_t(208) << 10; ///< Tables of a code, and of values.
constexpr std::uint64_t dwaBytes = std::uint64_t(832) << 10;
/// As large as a tile: one to read into, and those of the compressors. RLE may make it half as large again.
constexpr std::uint64_t usualBuffers = 3, rleBuffers = 4, dwaBuffers = 4;
constexpr std::uint64_t headerCopies = 2;
constexpr std::uint64_t channelBytes = 1024; ///< Of a channel, wherever OpenEXR keeps something of it.
/// OpenEXR keeps 8 bytes for each tile; libtiff 16, and as many again while it reads them.
constexpr std::uint64_t tileOffsetBytes = 32;

/// Sizes are cut to what nobody has room for, so that no sum wraps round.
constexpr std::uint64_t mostPixels = std::uint64_t(1) << 40, mostPixelBytes = std::uint64_t(1) << 20,
                        mostTileBytes = std::uint64_t(1) << 48;

/// All buffers of OpenEXR, each as large as a tile as stored.
std::uint64_t exrBufferBytes(std::uint64_t pixels, const FileNeeds& needs)
{
    const std::uint64_t tileBytes = std::min(mostTileBytes, std::min(mostPixels, pixels) * needs.pixelBytes);
    return needs.buffers * tileBytes * std::uint64_t(std::max(1, 2 * Imf::globalThreadCount()));
}

/// Walks through the attributes of an OpenEXR file. Of what comes several times, as in several parts, it
/// takes the sum, or the largest.
class ExrHeaderLook {
public:
    /// `file` stands behind the first four bytes.
    explicit ExrHeaderLook(std::FILE* file) : m_file(file)
    {
        constexpr std::uint8_t multiPart = 0x10;
        std::uint8_t version[4] = {};
        if (!read(version, sizeof version))
            return;
        const bool hasParts = (version[1] & multiPart) != 0;
        while (readPart() && hasParts) { }
        m_bytes = position();
        if (std::fseek(m_file, 0, SEEK_END) == 0)
            m_fileBytes = position();
    }

    std::uint64_t tilePixels() const { return m_tilePixels; }
    /// Of all levels: twice as many as the largest has, but no more than the file has room for.
    std::uint64_t tileCount() const
    {
        const std::uint64_t mostOfFile = m_fileBytes / sizeof(std::uint64_t);
        return m_tilePixels == 0 ? 0 : std::min(2 * (m_windowPixels / m_tilePixels) + fewTiles, mostOfFile);
    }
    /// With the worst of all compressions where there is none.
    FileNeeds needs() const
    {
        FileNeeds needs;
        const bool isDwa = !m_hasCompression || has(Imf::DWAA_COMPRESSION) || has(Imf::DWAB_COMPRESSION);
        needs.buffers = isDwa ? dwaBuffers : has(Imf::RLE_COMPRESSION) ? rleBuffers : usualBuffers;
        needs.decompressorBytes = isDwa ? dwaBytes : has(Imf::PIZ_COMPRESSION) ? pizBytes : 0;
        needs.pixelBytes = std::min(mostPixelBytes, m_pixelBytes != 0 ? m_pixelBytes : usualPixelBytes);
        needs.headerBytes = m_bytes * headerCopies + m_channels * channelBytes;
        return needs;
    }

private:
    static constexpr std::uint64_t usualPixelBytes = 16;
    static constexpr std::uint64_t fewTiles = 1024; ///< Rows and columns of them that are not complete.
    static constexpr int mostAttributes = 65535;
    using Name = std::array<char, 256>;

    std::uint64_t position() const { return std::uint64_t(std::max(std::ftell(m_file), 0L)); }
    bool read(void* to, std::size_t bytes) { return std::fread(to, 1, bytes, m_file) == bytes; }
    bool has(Imf::Compression compression) const { return m_compressions[std::size_t(compression)]; }

    /// False at the end of the file, or for one that is too long.
    bool readName(Name& name)
    {
        for (char& character : name) {
            const int read = std::getc(m_file);
            if (read == EOF)
                return false;
            character = char(read);
            if (read == 0)
                return true;
        }
        return false;
    }

    /// False for one without attributes, and at the end of the file.
    bool readPart()
    {
        for (int count = 0;; ++count) {
            Name name, type;
            std::uint32_t bytes = 0;
            if (!readName(name))
                return false;
            if (name[0] == 0)
                return count != 0;
            if (++m_attributes > mostAttributes) // OpenEXR is not let near such a file.
                return false;
            if (!readName(type) || !read(&bytes, sizeof bytes))
                return false;
            const long start = std::ftell(m_file);
            readValue(name.data());
            if (start < 0 || std::fseek(m_file, start + long(bytes), SEEK_SET) != 0)
                return false;
        }
    }

    void readValue(const std::string_view name)
    {
        if (name == "channels") {
            readChannels();
        } else if (name == "compression") {
            std::uint8_t number = 0;
            m_hasCompression |= read(&number, 1);
            m_compressions[std::min(std::size_t(number), m_compressions.size() - 1)] = true;
        } else if (name == "tiles") {
            std::uint32_t size[2] = {};
            if (read(size, sizeof size))
                m_tilePixels = std::max(m_tilePixels, std::uint64_t(size[0]) * size[1]);
        } else if (name == "dataWindow") {
            std::int32_t window[4] = {}; // Smallest and greatest x and y.
            if (!read(window, sizeof window))
                return;
            const std::int64_t width = std::int64_t(window[2]) - window[0] + 1,
                               height = std::int64_t(window[3]) - window[1] + 1;
            if (width > 0 && height > 0)
                m_windowPixels = std::max(
                    m_windowPixels, std::min(mostPixels, std::uint64_t(width) * std::uint64_t(height)));
        }
    }

    /// Each has a name, its type, and twelve bytes more.
    void readChannels()
    {
        Name name;
        std::uint8_t value[16];
        while (readName(name) && name[0] != 0 && read(value, sizeof value)) {
            m_pixelBytes += value[0] == Imf::HALF ? sizeof(std::uint16_t) : sizeof(float);
            ++m_channels;
        }
    }

    std::FILE* m_file;
    std::array<bool, Imf::NUM_COMPRESSION_METHODS + 1> m_compressions {};
    bool m_hasCompression = false;
    std::uint64_t m_bytes = 0, m_channels = 0, m_pixelBytes = 0, m_tilePixels = 0, m_windowPixels = 0,
                  m_fileBytes = 0;
    int m_attributes = 0;
};

} // namespace

FileNeeds FileNeeds::of(const char* fileName)
{
    using namespace std::string_view_literals;
    char start[4] = {};
    const FilePtr file(my_fopen(fileName, "rb"));
    FileNeeds needs;
    if (!file) { // Perhaps for want of memory: the worst is taken.
        needs = { exrAheadBytes + exrHandleBytes, dwaBytes, 0, 16, dwaBuffers };
        return needs;
    }
    const std::size_t length = std::fread(start, 1, sizeof start, file);
    if (std::string_view(start, length) != "\x76\x2f\x31\x01"sv) {
        needs.describingBytes = tiffAheadBytes + tiffHandleBytes;
        return needs;
    }
    const ExrHeaderLook look(file);
    needs = look.needs();
    needs.describingBytes = exrAheadBytes + exrHandleBytes + needs.headerBytes
        + look.tileCount() * tileOffsetBytes
        + std::min(needs.decompressorBytes, pizBytes) // Others take theirs later.
        + exrBufferBytes(look.tilePixels(), needs);
    return needs;
}

std::uint64_t TextureDescription::loaderBytes() const
{
    std::uint64_t tiles = 0;
    for (int i = 0; i < levelCount; ++i)
        tiles += std::min(
            mostPixels, std::uint64_t(levels[i].shape.tilesX) * std::uint64_t(levels[i].shape.tilesY));
    const std::uint64_t pixels = std::min(mostPixels, std::uint64_t(tileWidth) * std::uint64_t(tileHeight));
    const std::uint64_t row = std::uint64_t(tileWidth) * 4 * sizeof(float);
    const std::uint64_t all = tiles * needs.planes * tileOffsetBytes + row + needs.decompressorBytes;
    if (!isExr) { // Compressed, decoded, and converted to words where libtiff does that.
        const std::uint64_t pixelBits = std::uint64_t(std::clamp(info.bitsPerPixel, 8, 4096));
        return all + tiffAheadBytes + tiffHandleBytes + 2 * pixels * pixelBits / 8
            + pixels * sizeof(std::uint32_t);
    }
    const std::uint64_t own = pixels * 4 * (info.bitsPerPixel / info.numChannels > 16 ? 4 : 2);
    return all + exrAheadBytes + exrHandleBytes + needs.headerBytes + exrBufferBytes(pixels, needs) + own;
}

} // namespace QUtils
