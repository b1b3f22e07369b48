#include "qutils/raw/ri_reader.h"

#include "qutils/raw/quimg_blocks.h"
#include "qutils/raw/quimg_contents.h"
#include "qutils/raw/quimg_threads.h"

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

struct RIReader::State {
    InputFile file;
    std::string name;
    Contents contents;
    CoderPool<BlockDecoder> decoders;

    const Frame& frame() const { return contents.frame; }
};

namespace {

/// What is asked for.
struct Request {
    int channel;
    RIRegionInfo rect;
    std::uint8_t* dest;
    std::size_t rowBytes;
    bool asFloat;
};

/// One cell that the request touches.
struct CellWork {
    int cell;
    bool damaged = false, refused = false;
    int error = 0; ///< Of the system, for a damaged one.
};

/// Reads the cells of one request, several at once where there are threads.
class PixelReader final : public Work {
public:
    PixelReader(
        const InputFile& file, const Frame& frame, CoderPool<BlockDecoder>& decoders, const Request& request)
        : m_file(file), m_frame(frame), m_decoders(decoders), m_request(request),
          m_channel(frame.channels[std::size_t(request.channel)])
    {
        const std::size_t stored = pixelBytes(m_channel);
        m_pixelBytes = request.asFloat ? std::size_t(m_channel.numComponents) * sizeof(float) : stored;
    }

    std::vector<CellWork> cells;

    void addCells();
    void run(std::size_t number) noexcept override;

private:
    void clear(const RIRegionInfo& part);
    bool readCell(CellWork& work, const RIRegionInfo& part, BlockDecoder& decoder);
    bool readBand(std::uint64_t offset, const Block& block, const RIRegionInfo& band,
        const RIRegionInfo& part, BlockDecoder& decoder, Bytes& bytes);
    void storeRow(const std::uint8_t* pixels, int x, int y, int count);

    std::uint8_t* destAt(int x, int y) const
    {
        return m_request.dest + std::size_t(y - m_request.rect.top) * m_request.rowBytes
            + std::size_t(x - m_request.rect.left) * m_pixelBytes;
    }

    const InputFile& m_file;
    const Frame& m_frame;
    CoderPool<BlockDecoder>& m_decoders;
    const Request& m_request;
    const RIChannelInfo& m_channel;
    std::size_t m_pixelBytes;
};

void PixelReader::addCells()
{
    const Grid& grid = m_frame.grid;
    const RIRegionInfo& rect = m_request.rect;
    const int firstColumn = (rect.left - grid.region.left) / grid.cellWidth;
    const int lastColumn = (rect.right - 1 - grid.region.left) / grid.cellWidth;
    const int firstRow = (rect.top - grid.region.top) / grid.cellHeight;
    const int lastRow = (rect.bottom - 1 - grid.region.top) / grid.cellHeight;
    for (int row = firstRow; row <= lastRow; ++row) {
        // Memory follows the cells that are there: missing ones are cleared at once and take none.
        for (int column = firstColumn; column <= lastColumn; ++column) {
            const int cell = row * grid.columns + column;
            if (m_frame.places.contains(cell))
                cells.push_back({ .cell = cell });
            else
                clear(intersection(grid.cell(column, row), rect));
        }
    }
}

void PixelReader::run(std::size_t number) noexcept
{
    CellWork& work = cells[number];
    const RIRegionInfo part = intersection(m_frame.grid.cell(work.cell), m_request.rect);
    try {
        std::unique_ptr<BlockDecoder> decoder = m_decoders.take();
        work.damaged = !readCell(work, part, *decoder);
        m_decoders.giveBack(std::move(decoder));
    } catch (const std::bad_alloc&) {
        work.refused = true;
    }
    if (work.damaged || work.refused)
        clear(part);
}

void PixelReader::clear(const RIRegionInfo& part)
{
    for (int y = part.top; y < part.bottom; ++y)
        std::memset(destAt(part.left, y), 0, std::size_t(part.right - part.left) * m_pixelBytes);
}

/// The bands of the cell that hold rows of `part`, from top to bottom.
bool PixelReader::readCell(CellWork& work, const RIRegionInfo& part, BlockDecoder& decoder)
{
    const Place& place = m_frame.places.at(work.cell);
    const RIRegionInfo cell = m_frame.grid.cell(work.cell);
    RegionHead head;
    Bytes bytes;
    if (!readRegionHead(m_file, place, work.cell, m_frame, head, bytes)) {
        work.error = errno;
        return false;
    }
    std::uint64_t offset = place.offset + chunkHeaderBytes + head.byteSize();
    const std::size_t channels = m_frame.channels.size();
    for (std::size_t i = 0; i < head.blocks.size(); offset += head.blocks[i].length, ++i) {
        RIRegionInfo band = cell;
        band.top = int(std::int64_t(cell.top) + std::int64_t(i / channels) * head.bandRows);
        band.bottom = int(std::min<std::int64_t>(std::int64_t(band.top) + head.bandRows, cell.bottom));
        if (i % channels != std::size_t(m_request.channel) || band.bottom <= part.top
            || band.top >= part.bottom)
            continue;
        errno = 0;
        if (!readBand(offset, head.blocks[i], band, part, decoder, bytes)) {
            work.error = errno;
            return false;
        }
    }
    return true;
}

bool PixelReader::readBand(std::uint64_t offset, const Block& block, const RIRegionInfo& band,
    const RIRegionInfo& part, BlockDecoder& decoder, Bytes& bytes)
{
    const BlockShape shape { band.right - band.left, band.bottom - band.top, m_channel.numComponents,
        m_channel.sampleType };
    bytes.resize(block.length); // The head was checked: the block lies inside the file.
    if (!m_file.read(offset, bytes.data(), bytes.size())
        || !decoder.decode(bytes.data(), bytes.size(), block, shape))
        return false;
    const auto skipped = std::size_t(part.left - band.left) * pixelBytes(m_channel);
    for (int y = band.top; y < std::min(band.bottom, part.bottom); ++y) {
        if (y < part.top)
            decoder.skipRow();
        else
            storeRow(decoder.nextRow() + skipped, part.left, y, part.right - part.left);
    }
    return true;
}

void PixelReader::storeRow(const std::uint8_t* pixels, int x, int y, int count)
{
    const auto pixelCount = std::size_t(count);
    if (m_request.asFloat)
        toFloats(
            pixels, m_channel.sampleType, destAt(x, y), pixelCount * std::size_t(m_channel.numComponents));
    else
        std::memcpy(destAt(x, y), pixels, pixelCount * m_pixelBytes);
}

/// Null, or why the request cannot be met.
const char* checkRequest(const Frame& frame, const Request& request)
{
    const RIRegionInfo &rect = request.rect, &all = frame.grid.region;
    if (request.channel < 0 || std::size_t(request.channel) >= frame.channels.size())
        return "there is no such channel";
    if (rect.left >= rect.right || rect.top >= rect.bottom || rect.left < all.left || rect.top < all.top
        || rect.right > all.right || rect.bottom > all.bottom)
        return "the rectangle is not inside the render region";
    if (!request.dest)
        return "there is no memory to store them in";
    const RIChannelInfo& channel = frame.channels[std::size_t(request.channel)];
    const std::size_t bytes
        = request.asFloat ? std::size_t(channel.numComponents) * sizeof(float) : pixelBytes(channel);
    if (rect.bottom - rect.top > 1 && request.rowBytes < std::size_t(rect.right - rect.left) * bytes)
        return "its rows do not fit between those of the memory";
    return nullptr;
}

/// What the cells met, put together: the damaged ones are not done from now on.
ErrorCode reportCells(
    const std::vector<CellWork>& cells, Frame& frame, const std::string& name, const char* function)
{
    int damaged = 0, first = 0, error = 0;
    bool refused = false;
    for (const CellWork& work : cells) {
        refused = refused || work.refused;
        if (!work.damaged)
            continue;
        if (damaged++ == 0) {
            first = work.cell;
            error = work.error;
        }
        frame.places.erase(work.cell);
    }
    if (damaged != 0)
        return ErrorCode(function, RIERR_READ, "%d damaged regions of \"%s\", the first is region %d%s%s",
            damaged, name.c_str(), first, error ? ": " : "", error ? systemText(error).c_str() : "");
    return refused
        ? ErrorCode(function, RIERR_MEMORY, "memory was refused for regions of \"%s\"", name.c_str())
        : ErrorCode();
}

ErrorCode readRequest(const InputFile& file, Frame& frame, CoderPool<BlockDecoder>& decoders,
    const std::string& name, const char* function, const Request& request)
{
    if (const char* const wrong = checkRequest(frame, request))
        return ErrorCode(function, RIERR_ARGUMENT, "pixels of \"%s\": %s", name.c_str(), wrong);
    PixelReader reader(file, frame, decoders, request);
    reader.addCells();
    runWork(reader, reader.cells.size());
    return reportCells(reader.cells, frame, name, function);
}

} // namespace

RIReader::RIReader() noexcept : m_state(nullptr) { }

RIReader::~RIReader()
{
    delete m_state;
}

ErrorCode RIReader::Open(const char* name) noexcept
{
    static constexpr const char* function = "RIReader::Open";
    Close();
    return guarded(function, [&]() -> ErrorCode {
        auto state = std::make_unique<State>();
        state->name = name ? name : "";
        if (const int error = state->file.open(name))
            return ErrorCode(function, RIERR_OPEN, "cannot open \"%s\": %s", state->name.c_str(),
                systemText(error).c_str());
        ErrorCode error = readContents(state->file, state->name.c_str(), function, state->contents);
        if (error.code() == 0)
            m_state = state.release();
        return error;
    });
}

void RIReader::Close() noexcept
{
    delete m_state;
    m_state = nullptr;
}

const RIHeader& RIReader::header() const noexcept
{
    return (m_state ? m_state->frame() : emptyFrame()).header;
}

int RIReader::getNumChannels() const noexcept
{
    return m_state ? int(m_state->frame().channels.size()) : 0;
}

const RIChannelInfo& RIReader::getChannel(int index) const noexcept
{
    return (m_state ? m_state->frame() : emptyFrame()).channel(index);
}

int RIReader::findChannel(const char* name) const noexcept
{
    for (int i = 0; name && i < getNumChannels(); ++i) {
        if (std::strcmp(getChannel(i).name.c_str(), name) == 0)
            return i;
    }
    return -1;
}

int RIReader::getNumRegions() const noexcept
{
    return m_state ? m_state->frame().grid.count() : 0;
}

RIRegionInfo RIReader::getRegion(int index) const noexcept
{
    return (m_state ? m_state->frame() : emptyFrame()).region(index);
}

bool RIReader::isRegionDone(int index) const noexcept
{
    return m_state && m_state->frame().places.contains(index);
}

int RIReader::countMissingRegions() const noexcept
{
    return m_state ? m_state->frame().missing() : 0;
}

bool RIReader::isClosed() const noexcept
{
    return m_state && m_state->contents.isClosed;
}

ErrorCode RIReader::verify() noexcept
{
    static constexpr const char* function = "RIReader::verify";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return ErrorCode(function, RIERR_ARGUMENT, "no file is open");
        const int error = verifyRegions(m_state->file, m_state->contents.frame);
        return error == 0 ? ErrorCode()
                          : ErrorCode(function, RIERR_READ, "regions of \"%s\" cannot be read: %s",
                              m_state->name.c_str(), systemText(error).c_str());
    });
}

ErrorCode RIReader::readPixels(
    int channel, const RIRegionInfo& rect, void* dest, std::size_t rowBytes) noexcept
{
    static constexpr const char* function = "RIReader::readPixels";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return ErrorCode(function, RIERR_ARGUMENT, "no file is open");
        return readRequest(m_state->file, m_state->contents.frame, m_state->decoders, m_state->name, function,
            { channel, rect, static_cast<std::uint8_t*>(dest), rowBytes, false });
    });
}

ErrorCode RIReader::readPixelsFloat(
    int channel, const RIRegionInfo& rect, float* dest, std::size_t rowBytes) noexcept
{
    static constexpr const char* function = "RIReader::readPixelsFloat";
    return guarded(function, [&]() -> ErrorCode {
        if (!m_state)
            return ErrorCode(function, RIERR_ARGUMENT, "no file is open");
        return readRequest(m_state->file, m_state->contents.frame, m_state->decoders, m_state->name, function,
            { channel, rect, reinterpret_cast<std::uint8_t*>(dest), rowBytes, true });
    });
}

} // namespace QUtils
