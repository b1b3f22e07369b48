#include "qutils/raw/quimg_contents.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>
#include <zlib.h>

namespace QUtils::quimg {

namespace {

/// Goes through a file from front to back in large blocks.
class Window {
public:
    explicit Window(const InputFile& file)
        : m_file(file), m_bytes(std::size_t(std::min<std::uint64_t>(blockBytes, file.size())))
    {
    }

    /// At least `least` (up to a block) of the bytes from `offset` on, as many as are at hand: null when the
    /// file has not so many, or cannot be read.
    const std::uint8_t* view(std::uint64_t offset, std::size_t least)
    {
        m_available = 0;
        if (offset > m_file.size() || least > m_file.size() - offset)
            return nullptr;
        if (offset < m_begin || offset > m_end || least > m_end - offset) {
            const auto count = std::size_t(std::min<std::uint64_t>(blockBytes, m_file.size() - offset));
            m_begin = m_end = offset;
            if (!m_file.read(offset, m_bytes.data(), count)) {
                m_error = errno;
                m_failed = true;
                return nullptr;
            }
            m_end = offset + count;
        }
        m_available = std::size_t(m_end - offset);
        return m_bytes.data() + (offset - m_begin);
    }
    std::size_t available() const { return m_available; } ///< Of the last view.
    bool failed() const { return m_failed; } ///< The system could not read.
    int error() const { return m_error; }
    std::uint64_t fileSize() const { return m_file.size(); }

private:
    static constexpr std::size_t blockBytes = 1 << 20;

    const InputFile& m_file;
    Bytes m_bytes;
    std::uint64_t m_begin = 0, m_end = 0;
    std::size_t m_available = 0;
    int m_error = 0;
    bool m_failed = false;
};

/// The first place from `offset` on where a chunk's magic stands, or the end of the file.
std::uint64_t findMagic(Window& window, std::uint64_t offset)
{
    while (const std::uint8_t* const bytes = window.view(offset, sizeof chunkMagic)) {
        const std::size_t count = window.available();
        if (const void* const found = memmem(bytes, count, chunkMagic, sizeof chunkMagic))
            return offset + std::size_t(static_cast<const std::uint8_t*>(found) - bytes);
        offset += count - (sizeof chunkMagic - 1);
    }
    return window.fileSize();
}

/// Finds the next chunk at `offset` or behind it whose header is whole; false when there is none. A chunk may
/// be cut by the end of the file.
bool findChunk(Window& window, std::uint64_t offset, ChunkHeader& chunk)
{
    while (const std::uint8_t* const bytes = window.view(offset, chunkHeaderBytes)) {
        if (parseChunkHeader(bytes, offset, chunk))
            return true;
        offset = findMagic(window, offset + 1);
    }
    return false;
}

bool isComplete(const ChunkHeader& chunk, std::uint64_t fileSize)
{
    return chunk.payloadBegin() <= fileSize && chunk.length <= fileSize - chunk.payloadBegin();
}

/// Whether the payload of a complete chunk is what was written.
bool isPayloadSound(Window& window, const ChunkHeader& chunk)
{
    uLong sum = 0;
    std::uint64_t offset = chunk.payloadBegin();
    for (std::uint64_t left = chunk.length; left != 0;) {
        const std::uint8_t* const bytes = window.view(offset, 1);
        if (!bytes)
            return false;
        const auto count = std::size_t(std::min<std::uint64_t>(window.available(), left));
        sum = crc32_z(sum, bytes, count);
        offset += count;
        left -= count;
    }
    return std::uint32_t(sum) == chunk.payloadChecksum;
}

/// False when the payload is damaged, or when it cannot be read (with the reason in errno; else that is 0).
bool readPayload(const InputFile& file, const ChunkHeader& chunk, Bytes& payload)
{
    errno = 0;
    if (chunk.length > std::numeric_limits<std::ptrdiff_t>::max())
        return false;
    payload.resize(std::size_t(chunk.length));
    if (!file.read(chunk.payloadBegin(), payload.data(), payload.size()))
        return false;
    errno = 0;
    return checksum(payload.data(), payload.size()) == chunk.payloadChecksum;
}

/// Reading a file's contents, step by step.
class ContentsReader {
public:
    ContentsReader(const InputFile& file, const char* name, const char* function, Contents& contents)
        : m_file(file), m_name(name), m_function(function), m_contents(contents), m_frame(contents.frame),
          m_window(file)
    {
    }

    ErrorCode read()
    {
        if (ErrorCode error = readFileHeader(); error.code() != 0)
            return error;
        if (ErrorCode error = readHeaders(); error.code() != 0)
            return error;
        if (readIndex())
            return {};
        m_frame.places.clear();
        return scanRegions();
    }

private:
    ErrorCode readFileHeader();
    ErrorCode readHeaders();
    ErrorCode takeHeader(const ChunkHeader& chunk);
    bool readIndex();
    bool isPlaceSound(int cell, const Place& place);
    ErrorCode scanRegions();
    ErrorCode takeRegion(const ChunkHeader& chunk);
    void passGap(std::uint64_t offset);
    bool dropReplaced(std::uint64_t payloadBegin);

    ErrorCode broken(const char* why) const
    {
        return ErrorCode(m_function, RIERR_FORMAT, "\"%s\" cannot be read: %s", m_name, why);
    }
    ErrorCode unread() const { return unread(m_window.error()); }
    ErrorCode unread(int error) const
    {
        return ErrorCode(
            m_function, RIERR_READ, "\"%s\" cannot be read: %s", m_name, systemText(error).c_str());
    }

    const InputFile& m_file;
    const char *m_name, *m_function;
    Contents& m_contents;
    Frame& m_frame;
    Window m_window;
    std::uint64_t m_headersEnd = 0;
};

ErrorCode ContentsReader::readFileHeader()
{
    std::uint8_t bytes[fileHeaderBytes];
    const std::uint8_t* const begin = m_window.view(0, fileHeaderBytes);
    if (!begin)
        return m_window.failed() ? unread() : broken("it is no quimg");
    std::memcpy(bytes, begin, sizeof bytes);
    const char* const wrong = checkFileHeader(bytes);
    m_headersEnd = m_contents.dataEnd = fileHeaderBytes;
    return wrong ? broken(wrong) : ErrorCode();
}

/// Up to the first chunk that is no header. Damaged ones are passed over: which of them can be missed shows
/// at the end.
ErrorCode ContentsReader::readHeaders()
{
    ChunkHeader chunk;
    while (findChunk(m_window, m_headersEnd, chunk) && isComplete(chunk, m_window.fileSize())
        && chunk.type != regionChunk && chunk.type != indexChunk) {
        if (ErrorCode error = takeHeader(chunk); error.code() != 0)
            return error;
        m_headersEnd = chunk.end();
    }
    if (m_window.failed())
        return unread();
    return m_frame.has(PARTS_NEEDED) ? ErrorCode() : broken("its headers are not complete");
}

ErrorCode ContentsReader::takeHeader(const ChunkHeader& chunk)
{
    if (!isHeaderChunk(chunk.type)) {
        if (!maySkip(chunk.type))
            return broken("it holds a chunk that is not known here");
        if (isPayloadSound(m_window, chunk))
            m_contents.dataEnd = chunk.end();
        return {};
    }
    Bytes payload;
    if (!readPayload(m_file, chunk, payload))
        return errno == 0 ? ErrorCode() : unread(errno);
    m_contents.dataEnd = chunk.end();
    const char* const wrong = parseHeaderPayload(chunk.type, payload, m_frame);
    return wrong ? broken(wrong) : ErrorCode();
}

/// Whether there is an index, and all of it is true.
bool ContentsReader::readIndex()
{
    const std::uint64_t size = m_file.size();
    std::uint8_t trailer[trailerBytes], header[chunkHeaderBytes];
    std::uint64_t begin = 0;
    ChunkHeader chunk;
    if (size < m_headersEnd + trailerBytes || !m_file.read(size - trailerBytes, trailer, sizeof trailer)
        || !parseTrailer(trailer, size, begin))
        return false;
    if (begin < m_headersEnd || begin > size - trailerBytes - chunkHeaderBytes
        || !m_file.read(begin, header, sizeof header) || !parseChunkHeader(header, begin, chunk)
        || chunk.type != indexChunk || !isComplete(chunk, size) || chunk.end() != size - trailerBytes)
        return false;
    Bytes payload;
    if (!readPayload(m_file, chunk, payload) || !parseIndexPayload(payload, m_headersEnd, begin, m_frame))
        return false;
    for (const auto& [cell, place] : m_frame.places) {
        if (!isPlaceSound(cell, place))
            return false;
    }
    m_contents.isClosed = true;
    m_contents.dataEnd = begin;
    return true;
}

/// Whether a chunk of that region stands there.
bool ContentsReader::isPlaceSound(int cell, const Place& place)
{
    std::uint8_t bytes[chunkHeaderBytes + sizeof(std::uint32_t)];
    ChunkHeader chunk;
    std::uint32_t itsCell = 0;
    if (place.length < sizeof bytes || !m_file.read(place.offset, bytes, sizeof bytes))
        return false;
    std::memcpy(&itsCell, bytes + chunkHeaderBytes, sizeof itsCell);
    return parseChunkHeader(bytes, place.offset, chunk) && chunk.type == regionChunk
        && chunk.end() == place.offset + place.length && itsCell == std::uint32_t(cell);
}

/// A damaged payload is passed over by the length that its sound header tells, never searched: the work
/// stays in proportion to the file.
ErrorCode ContentsReader::scanRegions()
{
    ChunkHeader chunk;
    std::uint64_t next = m_headersEnd;
    for (;;) {
        const bool found = findChunk(m_window, next, chunk);
        if (!found || chunk.offset != next)
            passGap(next);
        if (!found || !isComplete(chunk, m_window.fileSize()))
            break;
        next = chunk.end();
        const bool sound = isPayloadSound(m_window, chunk);
        if (m_window.failed())
            break;
        bool stays = sound && chunk.type != indexChunk;
        if (sound && chunk.type == regionChunk) {
            if (ErrorCode error = takeRegion(chunk); error.code() != 0)
                return error;
        } else if (chunk.type == regionChunk) {
            // Without it, the pixels that it replaced would count again.
            stays = dropReplaced(chunk.payloadBegin());
        } else if (stays && !maySkip(chunk.type)) {
            return broken("it holds a chunk that is not known here");
        }
        // An index that no trailer follows is left over from a close that was cut short.
        if (stays)
            m_contents.dataEnd = chunk.end();
    }
    return m_window.failed() ? unread() : ErrorCode();
}

/// A later region takes the place of an earlier one.
ErrorCode ContentsReader::takeRegion(const ChunkHeader& chunk)
{
    const Place place { chunk.offset, chunk.end() - chunk.offset };
    std::uint32_t cell = 0;
    Bytes scratch;
    RegionHead head;
    if (const std::uint8_t* const bytes = m_window.view(chunk.payloadBegin(), sizeof cell))
        std::memcpy(&cell, bytes, sizeof cell);
    if (m_window.failed())
        return unread();
    if (cell >= std::uint32_t(m_frame.grid.count()))
        return {};
    if (readRegionHead(m_file, place, int(cell), m_frame, head, scratch))
        m_frame.places[int(cell)] = place;
    else if (errno != 0)
        return unread(errno);
    return {};
}

/// Where a chunk should begin and none does, a region may have lost its header. What tells of it stays in
/// the file when it is gone on with.
void ContentsReader::passGap(std::uint64_t offset)
{
    if (dropReplaced(offset + chunkHeaderBytes))
        m_contents.dataEnd = offset + chunkHeaderBytes + regionNameBytes;
}

/// A region that is damaged still takes the place of an earlier one: the last pixels count, or none. Whether
/// it did so.
bool ContentsReader::dropReplaced(std::uint64_t payloadBegin)
{
    std::uint8_t name[regionNameBytes];
    const std::uint8_t* const bytes = m_window.view(payloadBegin, sizeof name);
    if (!bytes)
        return false;
    std::memcpy(name, bytes, sizeof name);
    return m_frame.places.erase(namedCell(name, m_frame.grid)) != 0;
}

} // namespace

ErrorCode readContents(const InputFile& file, const char* name, const char* function, Contents& contents)
{
    return ContentsReader(file, name, function, contents).read();
}

/// Whether the bytes of a chunk's payload are what was written; read for themselves, so that an unreadable
/// place in a neighbour does no harm. When not: errno says why they cannot be read, or is 0.
static bool isPayloadSound(const InputFile& file, const ChunkHeader& chunk, Bytes& scratch)
{
    constexpr std::uint64_t mostAtOnce = 1 << 20;
    scratch.resize(std::size_t(std::min(mostAtOnce, chunk.length)));
    uLong sum = 0;
    for (std::uint64_t done = 0; done < chunk.length;) {
        const auto count = std::size_t(std::min<std::uint64_t>(scratch.size(), chunk.length - done));
        if (!file.read(chunk.payloadBegin() + done, scratch.data(), count))
            return false;
        sum = crc32_z(sum, scratch.data(), count);
        done += count;
    }
    errno = 0;
    return std::uint32_t(sum) == chunk.payloadChecksum;
}

/// The same of all of a cell's chunk.
static bool isRegionSound(
    const InputFile& file, int cell, const Place& place, const Frame& frame, Bytes& scratch)
{
    std::uint8_t bytes[chunkHeaderBytes];
    ChunkHeader chunk;
    RegionHead head;
    if (!file.read(place.offset, bytes, sizeof bytes))
        return false;
    errno = 0;
    return parseChunkHeader(bytes, place.offset, chunk) && chunk.type == regionChunk
        && chunk.end() == place.offset + place.length && isPayloadSound(file, chunk, scratch)
        && readRegionHead(file, place, cell, frame, head, scratch);
}

int verifyRegions(const InputFile& file, Frame& frame)
{
    // From front to back, as disks like it, and no byte twice: an index can be made that leads to chunks
    // inside of chunks, so many that reading each in full would take hours.
    std::vector<std::pair<int, Place>> regions(frame.places.begin(), frame.places.end());
    std::sort(regions.begin(), regions.end(),
        [](const auto& a, const auto& b) { return a.second.offset < b.second.offset; });
    Bytes scratch;
    int firstError = 0;
    std::uint64_t end = 0;
    for (const auto& [cell, place] : regions) {
        errno = 0;
        const bool overlaps = place.offset < end;
        end = std::max(end, place.offset + place.length);
        if (!overlaps && isRegionSound(file, cell, place, frame, scratch))
            continue;
        if (firstError == 0)
            firstError = errno;
        frame.places.erase(cell);
    }
    return firstError;
}

bool readRegionHead(
    const InputFile& file, const Place& place, int cell, const Frame& frame, RegionHead& head, Bytes& scratch)
{
    constexpr std::size_t usualBytes = 1024; // Enough for most, so that one call brings it.
    errno = 0;
    if (place.length < chunkHeaderBytes + regionHeadBytes)
        return false;
    const std::uint64_t payloadLength = place.length - chunkHeaderBytes;
    const std::uint64_t begin = place.offset + chunkHeaderBytes;
    scratch.resize(std::size_t(std::min<std::uint64_t>(usualBytes, payloadLength)));
    if (!file.read(begin, scratch.data(), scratch.size()))
        return false;

    std::uint8_t first[regionHeadBytes];
    std::memcpy(first, scratch.data(), sizeof first);
    std::size_t blocks = 0;
    errno = 0; // A read that was interrupted leaves a mark and succeeds.
    if (!parseBlockCount(first, payloadLength, blocks))
        return false;
    const std::size_t size = RegionHead::byteSizeOf(blocks), have = scratch.size();
    scratch.resize(size);
    if (size > have && !file.read(begin + have, scratch.data() + have, size - have))
        return false;
    errno = 0;
    return parseRegionHead(scratch.data(), size, payloadLength, frame, head) && head.cell == cell;
}

} // namespace QUtils::quimg
