#include "qutils/raw/quimg_format.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <utility>
#include <zlib.h>

namespace QUtils::quimg {

namespace {

/// Takes fields from a block of memory. A read past the end yields 0 and makes ok() false from then on, so
/// that a payload is read whole and asked about once.
class Cursor {
public:
    Cursor(const std::uint8_t* bytes, std::size_t size) : m_next(bytes), m_left(size) { }

    std::uint8_t u8() { return field<std::uint8_t>(); }
    std::uint16_t u16() { return field<std::uint16_t>(); }
    std::uint32_t u32() { return field<std::uint32_t>(); }
    std::uint64_t u64() { return field<std::uint64_t>(); }
    int i32() { return field<std::int32_t>(); }
    float f32() { return field<float>(); }
    /// `count` bytes, or null.
    const char* text(std::size_t count)
    {
        const std::uint8_t* const bytes = take(count);
        return reinterpret_cast<const char*>(bytes);
    }

    bool ok() const { return m_ok; }
    bool atEnd() const { return m_ok && m_left == 0; }

private:
    // Fields stand in the file as in memory: both are little-endian.
    static_assert(std::endian::native == std::endian::little);
    template <typename T> T field()
    {
        T value {};
        if (const std::uint8_t* const bytes = take(sizeof(T)))
            std::memcpy(&value, bytes, sizeof(T));
        return value;
    }
    const std::uint8_t* take(std::size_t count)
    {
        m_ok = m_ok && count <= m_left;
        if (!m_ok)
            return nullptr;
        const std::uint8_t* const bytes = m_next;
        m_next += count;
        m_left -= count;
        return bytes;
    }

    const std::uint8_t* m_next;
    std::size_t m_left;
    bool m_ok = true;
};

/// The counterpart: stores fields one after the other into memory that has room for them.
class Store {
public:
    explicit Store(std::uint8_t* out) : m_next(out) { }

    template <typename T> void field(T value)
    {
        std::memcpy(m_next, &value, sizeof(T));
        m_next += sizeof(T);
    }
    void bytes(const void* from, std::size_t count)
    {
        if (count != 0)
            std::memcpy(m_next, from, count);
        m_next += count;
    }

private:
    std::uint8_t* m_next;
};

void append(Bytes& out, const void* from, std::size_t count)
{
    const std::size_t end = out.size();
    out.resize(end + count);
    if (count != 0)
        std::memcpy(out.data() + end, from, count);
}

template <typename... T> void appendFields(Bytes& out, T... values)
{
    (append(out, &values, sizeof(T)), ...);
}

bool equal(const RIRegionInfo& a, const RIRegionInfo& b)
{
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

void storeRegion(Store& out, const RIRegionInfo& region)
{
    for (const int edge : { region.left, region.top, region.right, region.bottom })
        out.field(edge);
}

RIRegionInfo takeRegion(Cursor& in)
{
    RIRegionInfo region {};
    for (int* edge : { &region.left, &region.top, &region.right, &region.bottom })
        *edge = in.i32();
    return region;
}

/// The floats of a camera behind its matrix, in file order.
template <typename Camera> auto cameraFloats(Camera& camera)
{
    return std::array { &camera.aperture, &camera.fov, &camera.targetDistance, &camera.nearRange,
        &camera.farRange, &camera.nearClip, &camera.farClip, &camera.focalLength, &camera.fNumber };
}

Bytes cameraPayload(const RICameraInfo& camera)
{
    Bytes out;
    appendFields(out, std::uint32_t(camera.valid), std::int32_t(camera.projection));
    append(out, camera.transform, sizeof camera.transform);
    for (const float* value : cameraFloats(camera))
        appendFields(out, *value);
    return out;
}

Bytes channelsPayload(const std::vector<RIChannelInfo>& channels)
{
    Bytes out;
    appendFields(out, std::uint32_t(channels.size()));
    for (const RIChannelInfo& channel : channels) {
        appendFields(out, std::int32_t(channel.channelId), std::uint8_t(channel.sampleType),
            std::uint8_t(channel.numComponents), std::uint8_t(channel.kind), std::uint8_t(channel.givenType),
            std::uint32_t(channel.name.length()));
        append(out, channel.name.c_str(), std::size_t(channel.name.length()));
    }
    return out;
}

Bytes scenePayload(const RIHeader& header)
{
    Bytes out;
    appendFields(out, std::int32_t(header.sceneNumber), std::uint32_t(header.sceneText.length()));
    append(out, header.sceneText.c_str(), std::size_t(header.sceneText.length()));
    return out;
}

constexpr const char* damagedPayload = "a header chunk is damaged";

/// A text of exactly `length` bytes. False when it holds a zero byte or is too long.
bool takeText(const char* text, std::size_t length, CharString& out)
{
    if (length > std::size_t(std::numeric_limits<int>::max()) || std::memchr(text, 0, length))
        return false;
    out = CharString(text, int(length));
    if (out.length() != int(length))
        throw std::bad_alloc(); // A text that memory is refused for is empty.
    return true;
}

const char* parseCamera(Cursor in, Frame& frame)
{
    RICameraInfo camera {};
    camera.valid = in.u32() != 0;
    camera.projection = in.i32();
    for (auto& row : camera.transform)
        for (float& value : row)
            value = in.f32();
    for (float* value : cameraFloats(camera))
        *value = in.f32();
    if (!in.atEnd())
        return damagedPayload;
    frame.setCamera(camera);
    return nullptr;
}

const char* parseChannels(Cursor in, std::size_t size, Frame& frame)
{
    constexpr std::size_t leastBytes = 12; // Of a channel without a name.
    const std::uint32_t count = in.u32();
    if (count > size / leastBytes)
        return damagedPayload;
    std::vector<RIChannelInfo> channels(count);
    for (RIChannelInfo& channel : channels) {
        channel.channelId = in.i32();
        channel.sampleType = in.u8();
        channel.numComponents = in.u8();
        channel.kind = in.u8();
        channel.givenType = in.u8();
        const std::uint32_t length = in.u32();
        const char* const name = in.text(length);
        if (!name || !takeText(name, length, channel.name))
            return damagedPayload;
    }
    return in.atEnd() ? frame.setChannels(std::move(channels)) : damagedPayload;
}

const char* parseScene(Cursor in, Frame& frame)
{
    const int number = in.i32();
    const std::uint32_t length = in.u32();
    const char* const text = in.text(length);
    return in.atEnd() && text ? frame.setScene(number, text, length) : damagedPayload;
}

} // namespace

std::uint32_t checksum(const void* bytes, std::size_t count)
{
    return std::uint32_t(crc32_z(0, static_cast<const Bytef*>(bytes), count));
}

void storeFileHeader(std::uint8_t (&out)[fileHeaderBytes])
{
    Store store(out);
    store.bytes(fileMagic, sizeof fileMagic);
    store.field(majorVersion);
    store.field(minorVersion);
    store.field(checksum(out, fileHeaderBytes - checksumBytes));
}

const char* checkFileHeader(const std::uint8_t (&bytes)[fileHeaderBytes])
{
    if (std::memcmp(bytes, fileMagic, sizeof fileMagic) != 0)
        return "it is no quimg";
    Cursor in(bytes + sizeof fileMagic, fileHeaderBytes - sizeof fileMagic);
    const std::uint16_t major = in.u16();
    in.u16(); // A newer minor version adds only what may be skipped.
    if (in.u32() != checksum(bytes, fileHeaderBytes - checksumBytes))
        return "its first bytes are damaged";
    return major == majorVersion ? nullptr : "it is of a version that is not known here";
}

void storeChunkHeader(const ChunkHeader& header, std::uint8_t* out)
{
    Store store(out);
    store.bytes(chunkMagic, sizeof chunkMagic);
    store.field(header.type);
    store.field(header.length);
    store.field(header.offset);
    store.field(header.payloadChecksum);
    store.field(checksum(out, chunkHeaderBytes - checksumBytes));
}

bool parseChunkHeader(const std::uint8_t* bytes, std::uint64_t offset, ChunkHeader& header)
{
    if (std::memcmp(bytes, chunkMagic, sizeof chunkMagic) != 0)
        return false;
    Cursor in(bytes + sizeof chunkMagic, chunkHeaderBytes - sizeof chunkMagic);
    header.type = in.u32();
    header.length = in.u64();
    header.offset = in.u64();
    header.payloadChecksum = in.u32();
    return in.u32() == checksum(bytes, chunkHeaderBytes - checksumBytes) && header.offset == offset;
}

void storeTrailer(std::uint64_t indexOffset, std::uint64_t fileSize, std::uint8_t (&out)[trailerBytes])
{
    Store store(out);
    store.bytes(trailerMagic, sizeof trailerMagic);
    store.field(indexOffset);
    store.field(fileSize);
    store.field(std::uint32_t(0));
    store.field(checksum(out, trailerBytes - checksumBytes));
}

bool parseTrailer(
    const std::uint8_t (&bytes)[trailerBytes], std::uint64_t fileSize, std::uint64_t& indexOffset)
{
    if (std::memcmp(bytes, trailerMagic, sizeof trailerMagic) != 0)
        return false;
    Cursor in(bytes + sizeof trailerMagic, trailerBytes - sizeof trailerMagic);
    indexOffset = in.u64();
    const std::uint64_t size = in.u64();
    in.u32();
    return in.u32() == checksum(bytes, trailerBytes - checksumBytes) && size == fileSize;
}

RIRegionInfo Grid::cell(int column, int row) const
{
    // The last cells of a row and of a column may reach past what an int holds before they are cut.
    const std::int64_t left = region.left + std::int64_t(column) * cellWidth;
    const std::int64_t top = region.top + std::int64_t(row) * cellHeight;
    return { int(left), int(top), int(std::min<std::int64_t>(left + cellWidth, region.right)),
        int(std::min<std::int64_t>(top + cellHeight, region.bottom)) };
}

const char* Frame::setBits(int bitsPerChannel)
{
    header.bitsPerChannel = bitsPerChannel;
    parts |= PART_BITS;
    return nullptr;
}

const char* Frame::setResolution(int width, int height, float pixelAspect)
{
    if (width < 1 || height < 1)
        return "an image has at least one pixel";
    header.width = width;
    header.height = height;
    header.pixelAspect = pixelAspect;
    parts |= PART_SIZE;
    return nullptr;
}

const char* Frame::setRenderRegion(const RIRegionInfo& region)
{
    if (region.left >= region.right || region.top >= region.bottom)
        return "the render region is empty";
    if (region.left < 0 || region.top < 0 || region.right > header.width || region.bottom > header.height)
        return "the render region is not inside the image";
    header.renderRegion = region;
    parts |= PART_RECT;
    return nullptr;
}

const char* Frame::setGrid(int regWidth, int regHeight, int regType)
{
    if (regWidth < 0 || regHeight < 0)
        return "the size of regions is negative";
    const RIRegionInfo& region = header.renderRegion;
    const int width = region.right - region.left, height = region.bottom - region.top;
    Grid made { region, regWidth == 0 ? width : std::min(regWidth, width),
        regHeight == 0 ? height : std::min(regHeight, height), 0, 0 };
    if (made.cellWidth > largestCellWidth)
        return "the regions are too wide";
    made.columns = (width - 1) / made.cellWidth + 1;
    made.rows = (height - 1) / made.cellHeight + 1;
    if (std::int64_t(made.columns) * made.rows > std::numeric_limits<int>::max())
        return "there are too many regions";
    header.regWidth = regWidth;
    header.regHeight = regHeight;
    header.regType = regType;
    grid = made;
    parts |= PART_GRID;
    return nullptr;
}

const char* Frame::setChannels(std::vector<RIChannelInfo> list)
{
    if (list.size() > std::size_t(largestChannelCount))
        return "there are too many channels";
    for (const RIChannelInfo& channel : list) {
        if (channel.sampleType < RISAMPLE_HALF || channel.sampleType > RISAMPLE_UINT
            || channel.givenType < RISAMPLE_HALF || channel.givenType > RISAMPLE_UINT)
            return "a channel has samples of an unknown type";
        if ((channel.sampleType == RISAMPLE_UINT) != (channel.givenType == RISAMPLE_UINT))
            return "a channel changes whole numbers to others";
        if (channel.numComponents < 1 || channel.numComponents > 4)
            return "a channel has not 1 to 4 components";
        if (channel.kind < 1 || channel.kind > 4)
            return "a channel is of an unknown kind";
    }
    channels = std::move(list);
    parts |= PART_CHANNELS;
    return nullptr;
}

void Frame::setCamera(const RICameraInfo& camera)
{
    header.camera = camera;
    parts |= PART_CAMERA;
}

const char* Frame::setScene(int number, const char* text, std::size_t length)
{
    CharString copy;
    if (length != 0 && !takeText(text, length, copy))
        return "the scene's text cannot be kept";
    header.sceneNumber = number;
    header.sceneText = copy;
    parts |= PART_SCENE;
    return nullptr;
}

const RIChannelInfo& Frame::channel(int index) const
{
    static const RIChannelInfo none;
    return index >= 0 && std::size_t(index) < channels.size() ? channels[std::size_t(index)] : none;
}

RIRegionInfo Frame::region(int index) const
{
    return index >= 0 && index < grid.count() ? grid.cell(index) : RIRegionInfo {};
}

const Frame& emptyFrame()
{
    static const Frame none;
    return none;
}

RIRegionInfo intersection(const RIRegionInfo& a, const RIRegionInfo& b)
{
    return { std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
        std::min(a.bottom, b.bottom) };
}

int kindByComponents(int components)
{
    return components >= 3 ? 1 : components == 2 ? 2 : 4;
}

int storedType(int bitsPerChannel, int givenType, int kind)
{
    if (givenType == RISAMPLE_UINT || kind != 1)
        return givenType;
    return bitsPerChannel == 16 ? RISAMPLE_HALF : bitsPerChannel == 32 ? RISAMPLE_FLOAT : givenType;
}

std::size_t sampleBytes(int sampleType)
{
    return sampleType == RISAMPLE_HALF ? 2 : 4;
}

std::size_t pixelBytes(const RIChannelInfo& channel)
{
    return sampleBytes(channel.sampleType) * std::size_t(channel.numComponents);
}

Bytes headerPayload(std::uint32_t type, const Frame& frame)
{
    const RIHeader& h = frame.header;
    const RIRegionInfo& r = h.renderRegion;
    Bytes out;
    switch (type) {
    case bitsChunk: appendFields(out, h.bitsPerChannel); break;
    case sizeChunk: appendFields(out, h.width, h.height, h.pixelAspect); break;
    case rectChunk: appendFields(out, r.left, r.top, r.right, r.bottom); break;
    case gridChunk: appendFields(out, h.regWidth, h.regHeight, h.regType); break;
    case channelsChunk: return channelsPayload(frame.channels);
    case cameraChunk: return cameraPayload(h.camera);
    case sceneChunk: return scenePayload(h);
    default: break;
    }
    return out;
}

/// The four chunks that are nothing but numbers.
static const char* parseNumbers(std::uint32_t type, Cursor in, Frame& frame)
{
    int numbers[4] = {};
    float aspect = 0;
    const int count = type == bitsChunk ? 1 : type == sizeChunk ? 2 : type == gridChunk ? 3 : 4;
    for (int i = 0; i < count; ++i)
        numbers[i] = in.i32();
    if (type == sizeChunk)
        aspect = in.f32();
    if (!in.atEnd())
        return damagedPayload;
    switch (type) {
    case bitsChunk: return frame.setBits(numbers[0]);
    case sizeChunk: return frame.setResolution(numbers[0], numbers[1], aspect);
    case gridChunk: return frame.setGrid(numbers[0], numbers[1], numbers[2]);
    default: return frame.setRenderRegion({ numbers[0], numbers[1], numbers[2], numbers[3] });
    }
}

namespace {

/// A header chunk, the part that it gives, and the parts that must be there before it.
struct HeaderRule {
    std::uint32_t type;
    unsigned part, needs;
};

// clang-format off
constexpr HeaderRule headerRules[] = {
    { bitsChunk,     PART_BITS,     0 },
    { sizeChunk,     PART_SIZE,     PART_BITS },
    { rectChunk,     PART_RECT,     PART_SIZE },
    { gridChunk,     PART_GRID,     PART_RECT },
    { channelsChunk, PART_CHANNELS, PART_GRID },
    { cameraChunk,   PART_CAMERA,   PARTS_NEEDED },
    { sceneChunk,    PART_SCENE,    PARTS_NEEDED },
};
// clang-format on

} // namespace

bool isHeaderChunk(std::uint32_t type)
{
    return std::any_of(std::begin(headerRules), std::end(headerRules),
        [type](const HeaderRule& rule) { return rule.type == type; });
}

const char* checkOrder(std::uint32_t type, const Frame& frame)
{
    for (const HeaderRule& rule : headerRules) {
        if (rule.type != type)
            continue;
        if (frame.has(rule.part))
            return "it was written before";
        return frame.has(rule.needs) ? nullptr : "what comes before it was not written yet";
    }
    return "it is no header";
}

const char* parseHeaderPayload(std::uint32_t type, const Bytes& payload, Frame& frame)
{
    if (const char* const wrong = checkOrder(type, frame))
        return wrong;
    const Cursor in(payload.data(), payload.size());
    switch (type) {
    case channelsChunk: return parseChannels(in, payload.size(), frame);
    case cameraChunk: return parseCamera(in, frame);
    case sceneChunk: return parseScene(in, frame);
    default: return parseNumbers(type, in, frame);
    }
}

int bandCount(const RIRegionInfo& cell, int bandRows)
{
    return (cell.bottom - cell.top - 1) / bandRows + 1;
}

/// Bytes of a cell's row in the channel that has the most of them.
static std::uint64_t widestRow(const Frame& frame, const RIRegionInfo& cell)
{
    std::size_t most = 1;
    for (const RIChannelInfo& channel : frame.channels)
        most = std::max(most, pixelBytes(channel));
    return std::uint64_t(cell.right - cell.left) * most;
}

int chooseBandRows(const Frame& frame, const RIRegionInfo& cell)
{
    // Small enough for the second cache with what it is compressed to, large enough for long matches.
    constexpr std::uint64_t wantedBytes = 256 << 10;
    const std::uint64_t rows = std::max<std::uint64_t>(1, wantedBytes / widestRow(frame, cell));
    return int(std::min(rows, std::uint64_t(cell.bottom - cell.top)));
}

void storeRegionHead(const RegionHead& head, const Frame& frame, std::uint8_t* out)
{
    Store store(out);
    store.field(std::uint32_t(head.cell));
    storeRegion(store, frame.grid.cell(head.cell));
    store.field(std::uint32_t(head.bandRows));
    store.field(std::uint32_t(frame.channels.size()));
    store.field(std::uint32_t(head.blocks.size()));
    for (const Block& block : head.blocks) {
        store.field(block.length);
        store.field(block.coding);
        store.field(block.predictor);
        store.field(std::uint16_t(0));
        store.field(block.checksum);
    }
    store.field(checksum(out, head.byteSize() - checksumBytes));
}

bool parseBlockCount(
    const std::uint8_t (&bytes)[regionHeadBytes], std::uint64_t payloadLength, std::size_t& count)
{
    Cursor in(bytes + regionHeadBytes - 4, 4);
    count = in.u32();
    return RegionHead::byteSizeOf(count) <= payloadLength;
}

int namedCell(const std::uint8_t (&bytes)[regionNameBytes], const Grid& grid)
{
    Cursor in(bytes, sizeof bytes);
    const std::uint32_t number = in.u32();
    const RIRegionInfo region = takeRegion(in);
    // The rectangle tells more than the number: damage hardly makes one cell's rectangle that of another.
    const std::int64_t right = std::int64_t(region.left) - grid.region.left,
                       down = std::int64_t(region.top) - grid.region.top;
    const std::int64_t column = right / grid.cellWidth, row = down / grid.cellHeight;
    if (right >= 0 && down >= 0 && column < grid.columns && row < grid.rows
        && equal(region, grid.cell(int(column), int(row))))
        return int(row) * grid.columns + int(column);
    if (number >= std::uint32_t(grid.count()))
        return -1;
    const RIRegionInfo cell = grid.cell(int(number));
    const int equalEdges = int(region.left == cell.left) + int(region.top == cell.top)
        + int(region.right == cell.right) + int(region.bottom == cell.bottom);
    return equalEdges == 3 ? int(number) : -1;
}

/// Whether the rows of a block are as many as a reader must put up with.
static bool isBandAllowed(const Frame& frame, const RIRegionInfo& cell, std::uint32_t bandRows)
{
    const auto rows = std::uint32_t(cell.bottom - cell.top);
    return bandRows == 1
        || (bandRows > 1 && bandRows <= rows && widestRow(frame, cell) * bandRows <= largestBlockBytes);
}

static bool parseBlocks(Cursor& in, std::uint64_t blockBytes, std::vector<Block>& blocks)
{
    std::uint64_t sum = 0;
    for (Block& block : blocks) {
        block.length = in.u32();
        block.coding = in.u8();
        block.predictor = in.u8();
        in.u16();
        block.checksum = in.u32();
        sum += block.length;
        if (block.coding > CODING_ZSTD || block.predictor > PREDICTOR_LEFT)
            return false;
    }
    return sum == blockBytes;
}

bool parseRegionHead(const std::uint8_t* bytes, std::size_t size, std::uint64_t payloadLength,
    const Frame& frame, RegionHead& head)
{
    Cursor in(bytes, size);
    const std::uint32_t cell = in.u32();
    const RIRegionInfo region = takeRegion(in);
    const std::uint32_t bandRows = in.u32(), channels = in.u32(), blocks = in.u32();
    if (cell >= std::uint32_t(frame.grid.count()) || !equal(region, frame.grid.cell(int(cell)))
        || channels != frame.channels.size() || !isBandAllowed(frame, region, bandRows))
        return false;
    if (blocks != std::uint64_t(bandCount(region, int(bandRows))) * channels
        || size != RegionHead::byteSizeOf(blocks) || size > payloadLength)
        return false;
    head.cell = int(cell);
    head.bandRows = int(bandRows);
    head.blocks.resize(blocks);
    return parseBlocks(in, payloadLength - size, head.blocks)
        && in.u32() == checksum(bytes, size - checksumBytes) && in.atEnd();
}

Bytes indexPayload(const Frame& frame)
{
    Bytes out;
    appendFields(out, std::uint32_t(frame.grid.count()), std::uint32_t(frame.places.size()));
    for (const auto& [cell, place] : frame.places)
        appendFields(out, std::uint32_t(cell), std::uint32_t(0), place.offset, place.length);
    return out;
}

bool parseIndexPayload(const Bytes& payload, std::uint64_t begin, std::uint64_t end, Frame& frame)
{
    constexpr std::size_t entryBytes = 24;
    Cursor in(payload.data(), payload.size());
    const std::uint32_t cells = in.u32(), count = in.u32();
    if (cells != std::uint32_t(frame.grid.count()) || count > payload.size() / entryBytes)
        return false;
    frame.places.clear();
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t cell = in.u32();
        in.u32();
        Place place;
        place.offset = in.u64();
        place.length = in.u64();
        const bool inOrder = frame.places.empty() || std::int64_t(cell) > frame.places.rbegin()->first;
        if (!in.ok() || cell >= cells || !inOrder || place.offset < begin || place.offset > end
            || place.length > end - place.offset || place.length < chunkHeaderBytes)
            return false;
        frame.places.emplace_hint(frame.places.end(), int(cell), place);
    }
    return in.atEnd();
}

} // namespace QUtils::quimg
