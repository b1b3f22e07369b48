#pragma once

#include "qutils/raw/ri_records.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

/// What stands in a quimg, chunk by chunk, and how it is taken apart: docs/quimg.md in code. Nothing here
/// touches a file.
namespace QUtils::quimg {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t fileMagic[8] = { 0x89, 'Q', 'U', 'I', 'M', 'G', 0x0D, 0x0A };
constexpr std::uint8_t trailerMagic[8] = { 'Q', 'U', 'I', 'M', 'G', 'E', 'N', 'D' };
constexpr std::uint16_t majorVersion = 1, minorVersion = 0;
constexpr std::size_t fileHeaderBytes = 16, chunkHeaderBytes = 32, trailerBytes = 32;
/// Of a region chunk's payload: what stands before the table of blocks, an entry of it, and the checksum.
constexpr std::size_t regionHeadBytes = 32, blockEntryBytes = 12, checksumBytes = 4;
/// With these, its number and rectangle, a region chunk's payload begins.
constexpr std::size_t regionNameBytes = 20;

/// A cell's row is at least one block, and a block must stay within what a reader can be asked to decode.
constexpr int largestCellWidth = 1 << 22;
/// Blocks of more than one row have at most so many bytes of pixels.
constexpr std::uint64_t largestBlockBytes = 1 << 20;
constexpr int largestChannelCount = 4096;

constexpr std::uint32_t tag(const char (&text)[5])
{
    return std::uint32_t(std::uint8_t(text[0])) | std::uint32_t(std::uint8_t(text[1])) << 8
        | std::uint32_t(std::uint8_t(text[2])) << 16 | std::uint32_t(std::uint8_t(text[3])) << 24;
}

constexpr std::uint8_t chunkMagic[4] = { 'Q', 'C', 'H', 'K' };
constexpr std::uint32_t bitsChunk = tag("BITS"), sizeChunk = tag("SIZE"), rectChunk = tag("RECT"),
                        gridChunk = tag("GRID"), channelsChunk = tag("CHNS"), cameraChunk = tag("camr"),
                        sceneChunk = tag("scen"), regionChunk = tag("REGN"), indexChunk = tag("indx");

/// A type whose first letter is small may be skipped by a reader that does not know it.
constexpr bool maySkip(std::uint32_t type)
{
    return (type & 0x20) != 0;
}

/// How a block's bytes are stored.
enum Coding : std::uint8_t {
    CODING_STORED = 0,
    CODING_ZSTD = 1,
};
/// What was done to the byte planes of a block before.
enum Predictor : std::uint8_t {
    PREDICTOR_NONE = 0,
    PREDICTOR_LEFT = 1, ///< Each byte less its left neighbour; in the first column, the upper one.
};

std::uint32_t checksum(const void* bytes, std::size_t count);

struct ChunkHeader {
    std::uint32_t type = 0;
    std::uint64_t length = 0; ///< Of the payload.
    std::uint64_t offset = 0; ///< Where the chunk itself begins.
    std::uint32_t payloadChecksum = 0;

    std::uint64_t payloadBegin() const { return offset + chunkHeaderBytes; }
    std::uint64_t end() const { return payloadBegin() + length; }
};

void storeFileHeader(std::uint8_t (&out)[fileHeaderBytes]);
/// Null, or what is wrong with it.
const char* checkFileHeader(const std::uint8_t (&bytes)[fileHeaderBytes]);

void storeChunkHeader(const ChunkHeader& header, std::uint8_t* out);
/// False when the bytes are no header of a chunk that begins at `offset`.
bool parseChunkHeader(const std::uint8_t* bytes, std::uint64_t offset, ChunkHeader& header);

void storeTrailer(std::uint64_t indexOffset, std::uint64_t fileSize, std::uint8_t (&out)[trailerBytes]);
/// False when the bytes are not the end of a file of `fileSize` bytes.
bool parseTrailer(
    const std::uint8_t (&bytes)[trailerBytes], std::uint64_t fileSize, std::uint64_t& indexOffset);

/// The cells of the render region.
struct Grid {
    RIRegionInfo region = {};
    int cellWidth = 0, cellHeight = 0, columns = 0, rows = 0;

    int count() const { return columns * rows; }
    RIRegionInfo cell(int index) const { return cell(index % columns, index / columns); }
    RIRegionInfo cell(int column, int row) const;
};

/// Where a region's chunk lies, header included.
struct Place {
    std::uint64_t offset = 0, length = 0;
};

/// The header chunks that a frame has, as bits.
enum Part : unsigned {
    PART_BITS = 1,
    PART_SIZE = 2,
    PART_RECT = 4,
    PART_GRID = 8,
    PART_CHANNELS = 16,
    PART_CAMERA = 32,
    PART_SCENE = 64,
    PARTS_NEEDED = 31, ///< Without these there are no regions.
};

/// All that the headers say, and which regions there are. Rules are said once, here, and hold for what
/// the caller hands over as for what a file says: a function answers null, or which rule is broken.
struct Frame {
    RIHeader header;
    std::vector<RIChannelInfo> channels;
    Grid grid;
    std::map<int, Place> places; ///< By cell; those that are done.
    unsigned parts = 0;

    bool has(unsigned wanted) const { return (parts & wanted) == wanted; }
    const char* setBits(int bitsPerChannel);
    const char* setResolution(int width, int height, float pixelAspect);
    const char* setRenderRegion(const RIRegionInfo& region);
    const char* setGrid(int regWidth, int regHeight, int regType);
    const char* setChannels(std::vector<RIChannelInfo> list);
    void setCamera(const RICameraInfo& camera);
    const char* setScene(int number, const char* text, std::size_t length);

    /// An empty description, or rectangle, for an index that there is not.
    const RIChannelInfo& channel(int index) const;
    RIRegionInfo region(int index) const;
    int missing() const { return grid.count() - int(places.size()); }
};

/// What is known without a file.
const Frame& emptyFrame();

RIRegionInfo intersection(const RIRegionInfo& a, const RIRegionInfo& b);

/// A channel's kind where its renderer does not tell.
int kindByComponents(int components);
/// The type in which samples are stored.
int storedType(int bitsPerChannel, int givenType, int kind);
std::size_t sampleBytes(int sampleType);
std::size_t pixelBytes(const RIChannelInfo& channel);

bool isHeaderChunk(std::uint32_t type);
/// Whether a header chunk may stand behind those that the frame has: each comes once, and in order.
const char* checkOrder(std::uint32_t type, const Frame& frame);
/// The payload of one of the seven header chunks, made from what the frame says.
Bytes headerPayload(std::uint32_t type, const Frame& frame);
/// Takes such a payload apart into the frame.
const char* parseHeaderPayload(std::uint32_t type, const Bytes& payload, Frame& frame);

struct Block {
    std::uint32_t length = 0; ///< As stored.
    std::uint8_t coding = 0, predictor = 0;
    std::uint32_t checksum = 0;
};

/// What a region chunk says before its blocks. The blocks stand in bands from top to bottom, in each band
/// channel by channel.
struct RegionHead {
    int cell = 0;
    int bandRows = 0;
    std::vector<Block> blocks;

    std::size_t byteSize() const { return byteSizeOf(blocks.size()); }
    static std::size_t byteSizeOf(std::size_t blocks)
    {
        return regionHeadBytes + blocks * blockEntryBytes + checksumBytes;
    }
};

int bandCount(const RIRegionInfo& cell, int bandRows);
/// How many rows of a cell the writer puts into one block.
int chooseBandRows(const Frame& frame, const RIRegionInfo& cell);

void storeRegionHead(const RegionHead& head, const Frame& frame, std::uint8_t* out);
/// How many blocks the table has whose region head these bytes begin with; false when that cannot be, with
/// a payload of `payloadLength` bytes.
bool parseBlockCount(
    const std::uint8_t (&bytes)[regionHeadBytes], std::uint64_t payloadLength, std::size_t& count);
/// The cell that a damaged region chunk was for, or -1 when that is not to be told: its number and its
/// rectangle may differ by damage to one of the numbers.
int namedCell(const std::uint8_t (&bytes)[regionNameBytes], const Grid& grid);
/// False when the region is not one of the frame, or the head does not describe the whole payload.
bool parseRegionHead(const std::uint8_t* bytes, std::size_t size, std::uint64_t payloadLength,
    const Frame& frame, RegionHead& head);

Bytes indexPayload(const Frame& frame);
/// Fills the places, which the caller must look up before he trusts them. False when it is no index of this
/// frame, or a chunk lies outside `begin` to `end`.
bool parseIndexPayload(const Bytes& payload, std::uint64_t begin, std::uint64_t end, Frame& frame);

} // namespace QUtils::quimg
