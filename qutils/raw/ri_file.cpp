#include "qutils/raw/ri_file.h"

#include "qutils/core/paths.h"
#include "qutils/raw/quimg_contents.h"
#include "qutils/raw/quimg_strip.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace QUtils {

using namespace quimg;

struct RIFile::State {
    OutputFile file;
    std::string name;
    Frame frame;
    bool indexFollows = false; ///< Behind the position stands an index that was true so far.
    StripBuffers buffers;

    ErrorCode error(const char* function, int code, const char* what, const char* why) const
    {
        return ErrorCode(function, code, "cannot write %s to \"%s\": %s", what, name.c_str(), why);
    }
    /// Writes a chunk whose first bytes are kept free for its header.
    bool writeChunk(std::uint32_t type, std::uint32_t payloadChecksum, Bytes& chunk);
    bool writeChunk(std::uint32_t type, Bytes& chunk)
    {
        return writeChunk(
            type, checksum(chunk.data() + chunkHeaderBytes, chunk.size() - chunkHeaderBytes), chunk);
    }
    template <typename Set>
    ErrorCode writeHeader(const char* function, std::uint32_t type, unsigned part, const char* what, Set set);
    bool writeIndex();
};

bool RIFile::State::writeChunk(std::uint32_t type, std::uint32_t payloadChecksum, Bytes& chunk)
{
    // The index stays as long as nothing is written, so that looking at a finished file does no harm.
    if (indexFollows && !file.cut())
        return false;
    indexFollows = false;
    storeChunkHeader(
        { type, chunk.size() - chunkHeaderBytes, file.position(), payloadChecksum }, chunk.data());
    return file.write(chunk.data(), chunk.size());
}

/// One header chunk: `set` puts the part into the frame and answers what is wrong with it.
template <typename Set>
ErrorCode RIFile::State::writeHeader(
    const char* function, std::uint32_t type, unsigned part, const char* what, Set set)
{
    if (const char* const wrong = checkOrder(type, frame))
        return error(function, RIERR_ARGUMENT, what, wrong);
    if (!frame.places.empty())
        return error(function, RIERR_ARGUMENT, what, "there are regions already");
    if (const char* const wrong = set(frame))
        return error(function, RIERR_ARGUMENT, what, wrong);
    frame.parts &= ~part; // Not until it is written.
    const Bytes payload = headerPayload(type, frame);
    Bytes chunk(chunkHeaderBytes + payload.size());
    std::copy(payload.begin(), payload.end(), chunk.begin() + chunkHeaderBytes);
    if (!writeChunk(type, chunk))
        return error(function, RIERR_WRITE, what, systemText(errno).c_str());
    frame.parts |= part;
    return {};
}

/// The index and the trailer, at once.
bool RIFile::State::writeIndex()
{
    const Bytes payload = indexPayload(frame);
    Bytes bytes(chunkHeaderBytes + payload.size());
    std::copy(payload.begin(), payload.end(), bytes.begin() + chunkHeaderBytes);
    const std::uint64_t begin = file.position();
    storeChunkHeader(
        { indexChunk, payload.size(), begin, checksum(payload.data(), payload.size()) }, bytes.data());
    std::uint8_t trailer[trailerBytes];
    storeTrailer(begin, begin + bytes.size() + trailerBytes, trailer);
    bytes.insert(bytes.end(), trailer, trailer + trailerBytes);
    return file.write(bytes.data(), bytes.size());
}

namespace {

/// The cells that a rectangle covers in full, and how many it only touches.
struct Covered {
    int firstColumn, endColumn, firstRow, endRow;
    std::int64_t cutCells;
};

Covered coveredCells(const Grid& grid, const RIRegionInfo& rect)
{
    const RIRegionInfo& all = grid.region;
    const RIRegionInfo part = intersection(rect, all);
    const auto up = [](int distance, int size) { return int((std::int64_t(distance) + size - 1) / size); };
    Covered covered {};
    covered.firstColumn = up(part.left - all.left, grid.cellWidth);
    covered.firstRow = up(part.top - all.top, grid.cellHeight);
    // The last cells may be smaller; they are covered when the edge of the render region is.
    covered.endColumn = part.right == all.right ? grid.columns : (part.right - all.left) / grid.cellWidth;
    covered.endRow = part.bottom == all.bottom ? grid.rows : (part.bottom - all.top) / grid.cellHeight;
    covered.endColumn = std::max(covered.endColumn, covered.firstColumn);
    covered.endRow = std::max(covered.endRow, covered.firstRow);

    const std::int64_t touchedColumns
        = up(part.right - all.left, grid.cellWidth) - (part.left - all.left) / grid.cellWidth;
    const std::int64_t touchedRows
        = up(part.bottom - all.top, grid.cellHeight) - (part.top - all.top) / grid.cellHeight;
    covered.cutCells = touchedColumns * touchedRows
        - std::int64_t(covered.endColumn - covered.firstColumn) * (covered.endRow - covered.firstRow);
    return covered;
}

bool isEmpty(const RIRegionInfo& rect)
{
    return rect.left >= rect.right || rect.top >= rect.bottom;
}

bool isAllZero(const RIRegionInfo& rect)
{
    return rect.left == 0 && rect.top == 0 && rect.right == 0 && rect.bottom == 0;
}

ErrorCode incomplete(const char* function, const std::string& name, std::int64_t refused, std::int64_t cut)
{
    return ErrorCode(function, RIERR_INCOMPLETE,
        "regions were not written to \"%s\": %lld whose rows were refused, %lld that are covered in part",
        name.c_str(), static_cast<long long>(refused), static_cast<long long>(cut));
}

} // namespace

static constexpr const char* beingWritten = "it is being written to";

RIFile::RIFile() noexcept : m_state(nullptr) { }

RIFile::~RIFile()
{
    delete m_state;
}

ErrorCode RIFile::Create(const char* name, PStream* stream) noexcept
{
    static constexpr const char* function = "RIFile::Create";
    delete std::exchange(m_state, nullptr);
    return guarded(function, [&]() -> ErrorCode {
        auto state = std::make_unique<State>();
        state->name = name ? name : "";
        if (stream)
            state->file.useStream(stream);
        else if (const int error = state->file.create(name))
            return ErrorCode(function, RIERR_OPEN, "cannot create \"%s\": %s", state->name.c_str(),
                error == EWOULDBLOCK ? beingWritten : systemText(error).c_str());
        m_state = state.release();
        return {};
    });
}

ErrorCode RIFile::Open(const char* name) noexcept
{
    static constexpr const char* function = "RIFile::Open";
    delete std::exchange(m_state, nullptr);
    return guarded(function, [&]() -> ErrorCode {
        auto state = std::make_unique<State>();
        state->name = name ? name : "";
        const auto refuse = [&](int code, const std::string& why) {
            return ErrorCode(
                function, code, "cannot go on with \"%s\": %s", state->name.c_str(), why.c_str());
        };
        InputFile input;
        FilePtr file(qutils_fopen(name, "r+b"));
        if (!file)
            return refuse(RIERR_OPEN, systemText(errno));
        if (!lockForWriting(file))
            return refuse(RIERR_OPEN, beingWritten);
        if (const int error = input.adopt(std::move(file)))
            return refuse(RIERR_OPEN, systemText(error));

        Contents contents;
        if (ErrorCode error = readContents(input, state->name.c_str(), function, contents); error.code() != 0)
            return error;
        if (contents.isClosed) {
            // Else they have been gone through already.
            const std::size_t listed = contents.frame.places.size();
            if (const int error = verifyRegions(input, contents.frame))
                return refuse(RIERR_READ, systemText(error));
            contents.isClosed = contents.frame.places.size() == listed; // Else its index is no longer true.
        }
        state->frame = std::move(contents.frame);
        state->indexFollows = contents.isClosed;
        state->file.adopt(std::move(input.stream()), contents.dataEnd);
        if (!contents.isClosed && !state->file.cut())
            return refuse(RIERR_WRITE, systemText(errno));
        m_state = state.release();
        return {};
    });
}

static ErrorCode notOpen(const char* function)
{
    return ErrorCode(function, RIERR_ARGUMENT, "no file is open");
}

ErrorCode RIFile::WriteHeader(int bitsPerChannel) noexcept
{
    static constexpr const char* function = "RIFile::WriteHeader";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        if (!m_state->frame.has(PART_BITS) && m_state->file.position() == 0) {
            std::uint8_t bytes[fileHeaderBytes];
            storeFileHeader(bytes);
            if (!m_state->file.write(bytes, sizeof bytes))
                return m_state->error(function, RIERR_WRITE, "the first bytes", systemText(errno).c_str());
        }
        return m_state->writeHeader(function, bitsChunk, PART_BITS, "the bits per channel",
            [&](Frame& frame) { return frame.setBits(bitsPerChannel); });
    });
}

ErrorCode RIFile::WTResolution(int width, int height, float pixelAspect) noexcept
{
    static constexpr const char* function = "RIFile::WTResolution";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(function, sizeChunk, PART_SIZE, "the resolution",
            [&](Frame& frame) { return frame.setResolution(width, height, pixelAspect); });
    });
}

ErrorCode RIFile::WTRenderRegion(const RIRegionInfo& region) noexcept
{
    static constexpr const char* function = "RIFile::WTRenderRegion";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(function, rectChunk, PART_RECT, "the render region", [&](Frame& frame) {
            const RIRegionInfo whole { 0, 0, frame.header.width, frame.header.height };
            return frame.setRenderRegion(isAllZero(region) ? whole : region);
        });
    });
}

ErrorCode RIFile::WTRegionsInfo(int regWidth, int regHeight, int regType) noexcept
{
    static constexpr const char* function = "RIFile::WTRegionsInfo";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(function, gridChunk, PART_GRID, "the sizes of the regions",
            [&](Frame& frame) { return frame.setGrid(regWidth, regHeight, regType); });
    });
}

/// What a channel says of itself.
static RIChannelInfo describe(RegionChannelCallback& channel, int bitsPerChannel)
{
    RIChannelInfo info;
    const char* const name = channel.getName();
    info.name = CharString(name);
    if (name && std::strlen(name) != std::size_t(info.name.length()))
        throw std::bad_alloc(); // A text that memory is refused for is empty.
    info.channelId = channel.getChannelId();
    info.givenType = channel.getSampleType();
    info.numComponents = channel.getNumComponents();
    info.kind = channel.getKind();
    if (info.kind < 1 || info.kind > 4)
        info.kind = kindByComponents(info.numComponents);
    info.sampleType = storedType(bitsPerChannel, info.givenType, info.kind);
    return info;
}

ErrorCode RIFile::WTChannelInfo(Table<RegionChannelCallback*, 100>* channels) noexcept
{
    static constexpr const char* function = "RIFile::WTChannelInfo";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(
            function, channelsChunk, PART_CHANNELS, "the channels", [&](Frame& frame) -> const char* {
                std::vector<RIChannelInfo> list;
                for (int i = 0; channels && i < channels->count(); ++i) {
                    if (!(*channels)[i])
                        return "one of them is null";
                    list.push_back(describe(*(*channels)[i], frame.header.bitsPerChannel));
                }
                return frame.setChannels(std::move(list));
            });
    });
}

ErrorCode RIFile::WTCameraInfo(const RICameraInfo& camera) noexcept
{
    static constexpr const char* function = "RIFile::WTCameraInfo";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(
            function, cameraChunk, PART_CAMERA, "the camera", [&](Frame& frame) -> const char* {
                frame.setCamera(camera);
                return nullptr;
            });
    });
}

ErrorCode RIFile::WTSceneInfo(RISceneInfo& scene) noexcept
{
    static constexpr const char* function = "RIFile::WTSceneInfo";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        return m_state->writeHeader(
            function, sceneChunk, PART_SCENE, "the scene", [&](Frame& frame) -> const char* {
                return frame.setScene(scene.number, scene.text, scene.text ? std::strlen(scene.text) : 0);
            });
    });
}

ErrorCode RIFile::WTRegion(QURegionData* data, int index, int, int) noexcept
{
    static constexpr const char* function = "RIFile::WTRegion";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return notOpen(function);
        State& state = *m_state;
        const auto refuse
            = [&](const char* why) { return state.error(function, RIERR_ARGUMENT, "a region", why); };
        if (!data || index != -1)
            return refuse(data ? "its index is not -1" : "it has no data");
        if (!state.frame.has(PARTS_NEEDED))
            return refuse("the channels were not written yet");
        RIRegionInfo rect = data->getRegion();
        if (isAllZero(rect))
            rect = state.frame.grid.region;
        if (isEmpty(rect) || isEmpty(intersection(rect, state.frame.grid.region)))
            return refuse("its rectangle is not in the render region");

        const Covered cells = coveredCells(state.frame.grid, rect);
        std::int64_t refused = 0;
        Strip strip(state.frame, state.buffers, *data, rect);
        for (int row = cells.firstRow; row < cells.endRow && cells.firstColumn < cells.endColumn; ++row) {
            strip.begin(row, cells.firstColumn, cells.endColumn);
            if (!strip.encode()) {
                refused += strip.cellCount();
                continue;
            }
            for (int i = 0; i < strip.cellCount(); ++i) {
                const std::uint64_t begin = state.file.position();
                const std::uint32_t sum = strip.finishChunk(i);
                if (!state.writeChunk(regionChunk, sum, strip.chunk(i)))
                    return state.error(function, RIERR_WRITE,
                        ("region " + std::to_string(strip.cellAt(i))).c_str(), systemText(errno).c_str());
                state.frame.places[strip.cellAt(i)] = { begin, strip.chunk(i).size() };
            }
        }
        return refused + cells.cutCells == 0 ? ErrorCode()
                                             : incomplete(function, state.name, refused, cells.cutCells);
    });
}

ErrorCode RIFile::Close() noexcept
{
    static constexpr const char* function = "RIFile::Close";
    const std::unique_ptr<State> state(std::exchange(m_state, nullptr));
    return guarded(function, [&]() -> ErrorCode {
        if (!state)
            return notOpen(function);
        if (!state->frame.has(PARTS_NEEDED))
            return state->error(function, RIERR_ARGUMENT, "the index", "the channels were not written yet");
        if (!state->indexFollows && !state->writeIndex())
            return state->error(function, RIERR_WRITE, "the index", systemText(errno).c_str());
        if (!state->file.close())
            return state->error(function, RIERR_WRITE, "the last bytes", systemText(errno).c_str());
        return {};
    });
}

const RIHeader& RIFile::header() const noexcept
{
    return (m_state ? m_state->frame : emptyFrame()).header;
}

int RIFile::getNumChannels() const noexcept
{
    return m_state ? int(m_state->frame.channels.size()) : 0;
}

const RIChannelInfo& RIFile::getChannel(int index) const noexcept
{
    return (m_state ? m_state->frame : emptyFrame()).channel(index);
}

int RIFile::getNumRegions() const noexcept
{
    return m_state ? m_state->frame.grid.count() : 0;
}

RIRegionInfo RIFile::getRegion(int index) const noexcept
{
    return (m_state ? m_state->frame : emptyFrame()).region(index);
}

bool RIFile::isRegionDone(int index) const noexcept
{
    return m_state && m_state->frame.places.contains(index);
}

int RIFile::countMissingRegions() const noexcept
{
    return m_state ? m_state->frame.missing() : 0;
}

} // namespace QUtils
