#include "rastkit/exr/exr_input.h"

#include "qutils/raw/exr_compression.h"
#include "rastkit/codecs/unbuffered_file.h"

#include <IexBaseExc.h>
#include <IexThrowErrnoExc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace QUtils {

namespace {

[[noreturn]] void refuse(const Imf::IStream& in, const char* why)
{
    throw Iex::InputExc(std::string("Cannot read image file \"") + in.fileName() + "\". " + why);
}

std::uint32_t littleEndian32(const char* bytes)
{
    std::uint32_t number = 0;
    for (int byte = 0; byte < 4; ++byte)
        number |= std::uint32_t(std::uint8_t(bytes[byte])) << (8 * byte);
    return number;
}

} // namespace

// --- The file --------------------------------------------------------------------------------------------

ExrInput::ExrInput(const char* name, std::size_t blockBytes)
    : IStream(name ? name : ""), m_blockBytes(blockBytes)
{
    struct stat facts { };
    // Asked by its name first: to open a pipe that nobody writes to would wait for ever.
    if (name && stat(name, &facts) == 0 && !S_ISREG(facts.st_mode))
        refuse(*this, "It is not a regular file.");
    m_file = FilePtr(openUnbuffered(name, "rb"));
    if (!m_file)
        Iex::throwErrnoExc(std::string("Cannot open image file \"") + fileName() + "\". %T.");
    if (fstat(fileno(m_file), &facts) != 0 || !S_ISREG(facts.st_mode))
        refuse(*this, "It is not a regular file.");
    m_size = std::uint64_t(facts.st_size);
    m_block.reset(new char[std::size_t(std::min<std::uint64_t>(m_blockBytes, m_size))]);
}

ExrInput::~ExrInput() = default;

std::size_t ExrInput::readAt(std::uint64_t position, char* bytes, std::size_t count) const
{
    if (position > std::uint64_t(std::numeric_limits<off_t>::max()))
        return 0;
    for (;;) {
        const ssize_t got = pread(fileno(m_file), bytes, count, off_t(position));
        if (got >= 0)
            return std::size_t(got);
        if (errno != EINTR)
            Iex::throwErrnoExc(std::string("Cannot read image file \"") + fileName() + "\". %T.");
    }
}

void ExrInput::fillBlock()
{
    // Whoever goes back in what is read one after the other will go back again (rows that are stored from the
    // bottom up): most of the block then lies in front.
    const bool goesBack = m_blockBytes == largeBlock && m_position < m_blockBegin;
    const std::uint64_t before = goesBack ? std::min<std::uint64_t>(m_position, m_blockBytes / 4 * 3) : 0;
    const std::uint64_t begin = m_position - before;
    const std::size_t wanted = std::size_t(std::min<std::uint64_t>(m_blockBytes, m_size - begin));
    m_blockBegin = m_blockEnd = begin;
    m_blockEnd += readAt(begin, m_block.get(), wanted);
}

void ExrInput::readBytes(char* bytes, std::size_t count)
{
    std::size_t left = count;
    while (left > 0) {
        if (m_position >= m_size)
            throw Iex::InputExc("Unexpected end of file.");
        std::size_t got = 0;
        if (m_position >= m_blockBegin && m_position < m_blockEnd) {
            got = std::size_t(std::min<std::uint64_t>(left, m_blockEnd - m_position));
            std::memcpy(bytes, m_block.get() + (m_position - m_blockBegin), got);
        } else if (left >= m_blockBytes) {
            got = readAt(m_position, bytes, left);
            if (got == 0) // Cut short by somebody since it was opened.
                throw Iex::InputExc("Unexpected end of file.");
        } else {
            fillBlock();
            if (m_position >= m_blockEnd)
                throw Iex::InputExc("Unexpected end of file.");
        }
        bytes += got;
        left -= got;
        m_position += got;
    }
}

/// Until the file is read from another place, where a chunk begins again.
void ExrInput::refuseChunk(const char* why)
{
    m_chunkNumbers = std::numeric_limits<std::size_t>::max();
    refuse(*this, why);
}

/// OpenEXR reads the numbers of a chunk one by one, then its data at once.
void ExrInput::followChunk(const char* bytes, int count)
{
    const std::size_t placeEnd = m_chunks.skippedNumbers + m_chunks.placeNumbers;
    const bool isNumber = m_chunkNumbers <= placeEnd;
    if (m_chunkNumbers > placeEnd + 1
        || std::uint64_t(count) != (isNumber ? sizeof(std::int32_t) : m_chunkBytes))
        refuseChunk("Its chunks are out of step.");
    const std::size_t index = m_chunkNumbers++;
    if (!isNumber) {
        m_chunkNumbers = 0;
        return;
    }
    const std::uint32_t number = littleEndian32(bytes);
    if (index == placeEnd) {
        m_chunkBytes = m_chunks.size(m_chunkPlace);
        if (number != m_chunkBytes)
            refuseChunk("An uncompressed chunk has not the size of its pixels.");
    } else if (index >= m_chunks.skippedNumbers) {
        m_chunkPlace[index - m_chunks.skippedNumbers] = std::int32_t(number);
    }
}

bool ExrInput::read(char* bytes, int count)
{
    readBytes(bytes, count > 0 ? std::size_t(count) : 0);
    if (m_chunks.size)
        followChunk(bytes, count);
    return m_position < m_size;
}

// --- What the headers ask for ----------------------------------------------------------------------------

namespace {

// Bits of the number behind the magic number.
constexpr std::uint32_t versionMask = 0xFF, tiledFlag = 0x200, deepFlag = 0x800, multiPartFlag = 0x1000;
constexpr std::uint32_t magicNumber = 20000630, knownVersion = 2;

constexpr std::size_t mostNameBytes = 255;
// Of all parts together. Each costs OpenEXR some hundred bytes, however few it has in the file.
constexpr int mostAttributes = 65535, mostChannels = 65535;

// So much is granted in any case: small pictures may have large tiles, and chunks of many rows.
constexpr std::uint64_t grantedBytes = std::uint64_t(64) << 20;

// The most bytes of pixels that a byte of the file can stand for. Deflate turns a byte into 1032 at most, a
// run of RLE two bytes into 128. PIZ codes a run of 256 samples in ten bits, behind a table. PXR24 deflates
// three bytes of four. B44A has three bytes for 16 samples. DWA deflates runs.
constexpr std::uint64_t expansions[] = {
    1, // None.
    64, // RLE.
    1032, // ZIPS.
    1032, // ZIP.
    1032, // PIZ.
    1376, // PXR24.
    11, // B44.
    11, // B44A.
    66048, // DWAA: 64 times as much.
    66048, // DWAB.
};

/// Attributes of a fixed size. OpenEXR reads as much as the type has, whatever size the file says: with
/// another one it would lose its way.
struct FixedType {
    std::string_view name;
    std::uint32_t bytes;
};
constexpr FixedType fixedTypes[] = {
    { "box2f", 16 },
    { "box2i", 16 },
    { "chromaticities", 32 },
    { "compression", 1 },
    { "deepImageState", 1 },
    { "double", 8 },
    { "envmap", 1 },
    { "float", 4 },
    { "int", 4 },
    { "keycode", 28 },
    { "lineOrder", 1 },
    { "m33d", 72 },
    { "m33f", 36 },
    { "m44d", 128 },
    { "m44f", 64 },
    { "rational", 8 },
    { "tiledesc", 9 },
    { "timecode", 8 },
    { "v2d", 16 },
    { "v2f", 8 },
    { "v2i", 8 },
    { "v3d", 24 },
    { "v3f", 12 },
    { "v3i", 12 },
};

/// The product, or the largest number when it does not fit.
std::uint64_t cappedProduct(std::uint64_t a, std::uint64_t b)
{
    std::uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max() : product;
}

std::uint64_t cappedSum(std::uint64_t a, std::uint64_t b)
{
    std::uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

std::uint64_t dividedUp(std::uint64_t a, std::uint64_t b)
{
    return a / b + (a % b != 0);
}

struct Channel {
    std::uint64_t xSampling;
    std::int64_t ySampling;
    std::uint64_t sampleBytes;
};

struct Tiles {
    std::uint64_t width = 0, height = 0;
    unsigned int mode = 0;

    static constexpr unsigned int oneLevel = 0, mipmap = 1, ripmap = 2;
    unsigned int levels() const { return mode & 0xF; }
    bool roundsUp() const { return mode >> 4 != 0; }
};

/// What the memory for a part follows from.
struct Part {
    bool hasWindow = false, hasChannels = false, hasCompression = false, hasTiles = false, hasType = false;
    std::int64_t minX = 0, minY = 0, maxX = 0, maxY = 0;
    std::vector<Channel> channels;
    unsigned int compression = 0;
    Tiles tiles;
    std::string type;
    std::uint64_t chunkCount = 0; ///< As the attribute of that name says.

    std::uint64_t width() const { return std::uint64_t(maxX - minX + 1); }
    std::uint64_t height() const { return std::uint64_t(maxY - minY + 1); }
    bool isDeep() const { return type == "deepscanline" || type == "deeptile"; }
    std::uint64_t chunkRows() const { return std::uint64_t(exrLinesPerChunk(Imf::Compression(compression))); }

    std::uint64_t rowBytes(std::uint64_t rowWidth) const
    {
        std::uint64_t bytes = 0;
        for (const Channel& channel : channels)
            bytes = cappedSum(
                bytes, cappedProduct(dividedUp(rowWidth, channel.xSampling), channel.sampleBytes));
        return bytes;
    }
    /// Of the row at `y`, where not every channel has samples.
    std::uint64_t rowBytesAt(std::int64_t y) const
    {
        std::uint64_t bytes = 0;
        for (const Channel& channel : channels)
            if (y % channel.ySampling == 0)
                bytes = cappedSum(
                    bytes, cappedProduct(dividedUp(width(), channel.xSampling), channel.sampleBytes));
        return bytes;
    }
    std::uint64_t chunkBytes() const
    {
        return hasTiles ? cappedProduct(rowBytes(tiles.width), tiles.height)
                        : cappedProduct(rowBytes(width()), chunkRows());
    }
    std::uint64_t tileCount() const;
    std::uint64_t tileBytes(const std::int32_t* place) const;
};

/// Width or height of a level.
std::uint64_t levelSize(std::uint64_t size, int level, bool roundsUp)
{
    const std::uint64_t unit = std::uint64_t(1) << level;
    return std::max<std::uint64_t>(roundsUp ? dividedUp(size, unit) : size / unit, 1);
}

int levelCount(std::uint64_t size, bool roundsUp)
{
    int count = 1;
    while (levelSize(size, count - 1, roundsUp) > 1)
        ++count;
    return count;
}

std::uint64_t Part::tileCount() const
{
    const bool up = tiles.roundsUp();
    const auto across = [&](int level) { return dividedUp(levelSize(width(), level, up), tiles.width); };
    const auto down = [&](int level) { return dividedUp(levelSize(height(), level, up), tiles.height); };
    if (tiles.levels() == Tiles::oneLevel)
        return cappedProduct(across(0), down(0));

    const bool isMipmap = tiles.levels() == Tiles::mipmap;
    const int xLevels = levelCount(isMipmap ? std::max(width(), height()) : width(), up);
    const int yLevels = levelCount(height(), up);
    std::uint64_t count = 0;
    for (int x = 0; x < xLevels; ++x) {
        if (isMipmap) {
            count = cappedSum(count, cappedProduct(across(x), down(x)));
            continue;
        }
        for (int y = 0; y < yLevels; ++y)
            count = cappedSum(count, cappedProduct(across(x), down(y)));
    }
    return count;
}

/// Of a tile without compression; 0 where there is none. The place is x, y, x level and y level.
std::uint64_t Part::tileBytes(const std::int32_t* place) const
{
    constexpr int mostLevels = 32; // Sizes are ints.
    const auto clipped = [&](int at, int level, std::uint64_t size, std::uint64_t tile) -> std::uint64_t {
        if (at < 0 || level < 0 || level >= mostLevels)
            return 0;
        const std::uint64_t whole = levelSize(size, level, tiles.roundsUp());
        const std::uint64_t begin = cappedProduct(std::uint64_t(at), tile);
        return begin < whole ? std::min(tile, whole - begin) : 0;
    };
    return cappedProduct(rowBytes(clipped(place[0], place[2], width(), tiles.width)),
        clipped(place[1], place[3], height(), tiles.height));
}

/// The sizes of a part's chunks, where they follow from the header alone.
ExrInput::Chunks chunksOf(Part part, bool isMultiPart, bool isTiled)
{
    ExrInput::Chunks chunks;
    if (part.compression != Imf::NO_COMPRESSION)
        return chunks;
    chunks.skippedNumbers = isMultiPart ? 1 : 0; // The number of the part.
    chunks.placeNumbers = isTiled ? 4 : 1;
    if (isTiled)
        chunks.size = [part = std::move(part)](const std::int32_t* place) { return part.tileBytes(place); };
    else
        chunks.size = [part = std::move(part)](const std::int32_t* place) { return part.rowBytesAt(*place); };
    return chunks;
}

/// Takes the headers apart as far as memory follows from them.
class HeaderWalk {
public:
    explicit HeaderWalk(ExrInput& in) : m_in(in) { }

    ExrInput::Chunks walk();

private:
    std::uint64_t left() const { return m_in.size() - std::min(m_in.size(), m_in.tellg()); }
    std::uint8_t u8();
    std::uint32_t u32();
    std::int32_t i32() { return std::int32_t(u32()); }
    std::string name();
    void skip(std::uint64_t bytes);

    Part readPart();
    void readAttribute(const std::string& attribute, Part& part);
    void readStructure(
        const std::string& attribute, const std::string& type, std::uint32_t bytes, Part& part);
    void readChannels(Part& part);
    void checkSize(const std::string& type, std::uint32_t bytes);
    void checkPreview(std::uint32_t bytes);
    void checkTexts(std::uint64_t end);
    void claim(bool& seen);

    void checkPart(Part& part, std::uint32_t flags);
    std::uint64_t chunkCount(const Part& part) const;
    void checkChunkMemory(const Part& part) const;

    ExrInput& m_in;
    int m_attributes = 0, m_channels = 0;
};

std::uint8_t HeaderWalk::u8()
{
    char byte = 0;
    m_in.read(&byte, 1);
    return std::uint8_t(byte);
}

std::uint32_t HeaderWalk::u32()
{
    char bytes[4];
    m_in.read(bytes, sizeof bytes);
    return littleEndian32(bytes);
}

std::string HeaderWalk::name()
{
    std::string text;
    for (std::uint8_t letter = u8(); letter != 0; letter = u8()) {
        if (text.size() == mostNameBytes)
            refuse(m_in, "A name in the header is too long.");
        text.push_back(char(letter));
    }
    return text;
}

void HeaderWalk::skip(std::uint64_t bytes)
{
    if (bytes > left())
        refuse(m_in, "The header ends too soon.");
    m_in.seekg(m_in.tellg() + bytes);
}

/// What memory follows from may be said once.
void HeaderWalk::claim(bool& seen)
{
    if (seen)
        refuse(m_in, "The header has an attribute twice.");
    seen = true;
}

void HeaderWalk::readChannels(Part& part)
{
    constexpr std::uint32_t half = 1;
    while (!name().empty()) {
        if (++m_channels > mostChannels)
            refuse(m_in, "There are too many channels.");
        const std::uint32_t type = u32();
        skip(4); // pLinear and three unused bytes.
        const std::int32_t xSampling = i32();
        const std::int32_t ySampling = i32();
        part.channels.push_back(
            { std::uint64_t(std::max(xSampling, 1)), std::max(ySampling, 1), type == half ? 2u : 4u });
    }
}

void HeaderWalk::checkSize(const std::string& type, std::uint32_t bytes)
{
    const auto* const fixed = std::find_if(std::begin(fixedTypes), std::end(fixedTypes),
        [&](const FixedType& candidate) { return candidate.name == type; });
    if (fixed != std::end(fixedTypes) && fixed->bytes != bytes)
        refuse(m_in, "An attribute has not the size of its type.");
    if (bytes > left())
        refuse(m_in, "An attribute is larger than the file.");
}

void HeaderWalk::checkPreview(std::uint32_t bytes)
{
    const std::uint64_t width = bytes >= 8 ? u32() : 0, height = bytes >= 8 ? u32() : 0;
    if (bytes < 8 || cappedProduct(cappedProduct(width, height), 4) != std::uint64_t(bytes) - 8)
        refuse(m_in, "The preview has not the size that it says.");
}

void HeaderWalk::checkTexts(std::uint64_t end)
{
    while (m_in.tellg() < end) {
        const std::uint32_t bytes = u32();
        if (m_in.tellg() > end || bytes > end - m_in.tellg())
            refuse(m_in, "A list of texts has not the size that it says.");
        skip(bytes);
    }
}

/// Reads the attributes that count here; the caller goes on behind them.
void HeaderWalk::readStructure(
    const std::string& attribute, const std::string& type, std::uint32_t bytes, Part& part)
{
    if (attribute == "dataWindow" && type == "box2i") {
        claim(part.hasWindow);
        part.minX = i32();
        part.minY = i32();
        part.maxX = i32();
        part.maxY = i32();
    } else if (attribute == "compression" && type == "compression") {
        claim(part.hasCompression);
        part.compression = u8();
    } else if (attribute == "tiles" && type == "tiledesc") {
        claim(part.hasTiles);
        part.tiles.width = u32();
        part.tiles.height = u32();
        part.tiles.mode = u8();
    } else if (attribute == "type" && type == "string" && bytes <= mostNameBytes) {
        claim(part.hasType);
        part.type.resize(bytes);
        m_in.read(part.type.data(), int(bytes));
    } else if (attribute == "chunkCount" && type == "int") {
        const std::int32_t count = i32();
        if (count < 0)
            refuse(m_in, "The number of chunks is negative.");
        part.chunkCount = std::max(part.chunkCount, std::uint64_t(count));
    } else if (type == "chlist") {
        // Whatever its name: OpenEXR reads such a list to its own end.
        if (attribute == "channels")
            claim(part.hasChannels);
        readChannels(part);
    } else if (type == "preview") {
        checkPreview(bytes);
    } else if (type == "stringvector") {
        checkTexts(m_in.tellg() + bytes);
    }
}

void HeaderWalk::readAttribute(const std::string& attribute, Part& part)
{
    if (++m_attributes > mostAttributes)
        refuse(m_in, "The header has too many attributes.");
    const std::string type = name();
    const std::uint32_t bytes = u32();
    checkSize(type, bytes);

    const std::uint64_t end = m_in.tellg() + bytes;
    readStructure(attribute, type, bytes, part);
    if (type == "chlist" && m_in.tellg() != end)
        refuse(m_in, "The list of channels has not the size that it says.");
    m_in.seekg(end);
}

Part HeaderWalk::readPart()
{
    Part part;
    for (std::string attribute = name(); !attribute.empty(); attribute = name())
        readAttribute(attribute, part);
    return part;
}

std::uint64_t HeaderWalk::chunkCount(const Part& part) const
{
    std::uint64_t count = part.chunkCount;
    if (part.hasTiles)
        count = std::max(count, part.tileCount());
    if (!part.hasTiles || part.type == "scanlineimage" || part.type == "deepscanline")
        count = std::max(count, dividedUp(part.height(), part.chunkRows()));
    return count;
}

/// The memory of one chunk, as OpenEXR takes it several times over when it opens the file.
void HeaderWalk::checkChunkMemory(const Part& part) const
{
    const std::uint64_t most = mostExrPixelBytes(m_in.size(), int(part.compression));
    // Of tiles a whole row of them is kept.
    const std::uint64_t tileRow
        = part.hasTiles ? cappedProduct(part.rowBytes(part.width()), part.tiles.height) : 0;
    if (part.chunkBytes() > most || tileRow > most)
        refuse(m_in, "It is too small for the pixels that it should have.");
}

void HeaderWalk::checkPart(Part& part, std::uint32_t flags)
{
    if (!part.hasWindow || !part.hasChannels || !part.hasCompression)
        refuse(m_in, "The header lacks a required attribute.");
    if (part.minX > part.maxX || part.minY > part.maxY)
        refuse(m_in, "The data window is empty.");
    if (std::max(part.width(), part.height()) > std::uint64_t(std::numeric_limits<int>::max()))
        refuse(m_in, "The data window is too large.");
    if (part.compression >= std::size(expansions))
        refuse(m_in, "Its compression is not known.");
    if (part.hasTiles
        && (part.tiles.width == 0 || part.tiles.height == 0 || part.tiles.levels() > Tiles::ripmap))
        refuse(m_in, "Its tiles are not valid.");
    if ((flags & tiledFlag) != 0 && (flags & multiPartFlag) == 0 && !part.hasTiles)
        refuse(m_in, "Its tiles are not described.");
}

ExrInput::Chunks HeaderWalk::walk()
{
    if (u32() != magicNumber)
        refuse(m_in, "It is not an OpenEXR file.");
    const std::uint32_t flags = u32();
    if ((flags & versionMask) != knownVersion)
        refuse(m_in, "Its version is not known.");

    const bool isMultiPart = (flags & multiPartFlag) != 0;
    ExrInput::Chunks firstChunks;
    std::uint64_t chunks = 0;
    for (bool isFirst = true; isFirst || isMultiPart; isFirst = false) {
        if (isMultiPart && !isFirst) { // An empty header ends the list.
            const std::uint64_t begin = m_in.tellg();
            if (u8() == 0)
                break;
            m_in.seekg(begin);
        }
        Part part = readPart();
        checkPart(part, flags);
        chunks = cappedSum(chunks, chunkCount(part));
        if (!isFirst)
            continue;
        if (part.isDeep() || (!isMultiPart && (flags & deepFlag) != 0))
            refuse(m_in, "Deep pictures are not read.");
        checkChunkMemory(part);
        const bool isTiled = isMultiPart ? part.type == "tiledimage" : (flags & tiledFlag) != 0;
        firstChunks = chunksOf(std::move(part), isMultiPart, isTiled);
    }
    if (cappedProduct(chunks, sizeof(std::uint64_t)) > left())
        refuse(m_in, "It is too small for the table of its chunks.");
    return firstChunks;
}

} // namespace

std::uint64_t mostExrPixelBytes(std::uint64_t fileBytes, int compression)
{
    const bool isKnown = compression >= 0 && std::size_t(compression) < std::size(expansions);
    return std::max(grantedBytes, isKnown ? cappedProduct(fileBytes, expansions[compression]) : 0);
}

ExrInput::Chunks checkExrHeaders(ExrInput& in)
{
    in.seekg(0);
    ExrInput::Chunks chunks = HeaderWalk(in).walk();
    in.seekg(0);
    return chunks;
}

} // namespace QUtils
