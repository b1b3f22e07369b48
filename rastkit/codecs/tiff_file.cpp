#include "rastkit/codecs/tiff_file.h"

#include "qutils/core/critical_section.h"
#include "rastkit/codecs/unbuffered_file.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>
#include <utility>

namespace QUtils {

namespace {

constexpr std::uint64_t deflateExpansion = 1032;

// --- The file behind a handle ----------------------------------------------------------------------------

/// Reads whole blocks ahead and writes whole blocks behind: libtiff asks for a directory in pieces of a few
/// bytes, and for pixels strip by strip. Files are never mapped, since a mapping ends the process when
/// somebody cuts the file short.
class TiffStream {
public:
    TiffStream(FilePtr file, bool writes)
        : m_file(std::move(file)), m_descriptor(fileno(m_file)), m_writes(writes)
    {
        struct stat status { };
        m_size = fstat(m_descriptor, &status) == 0 ? std::uint64_t(status.st_size) : 0;
    }

    std::uint64_t size() const { return std::max(m_size, m_writes && m_blockSize != 0 ? blockEnd() : 0); }

    std::int64_t read(void* to, std::size_t count)
    {
        if (m_writes && !flush())
            return -1;
        std::size_t done = 0;
        while (done < count) {
            const std::size_t got = readSome(static_cast<std::uint8_t*>(to) + done, count - done);
            if (got == 0)
                break;
            done += got;
            m_position += got;
        }
        return std::int64_t(done);
    }

    /// Reads past the block, and leaves the position. How many bytes there were.
    std::size_t readAt(std::uint64_t offset, std::uint8_t* to, std::size_t count) const
    {
        std::size_t done = 0;
        while (done < count) {
            const ssize_t got = pread(m_descriptor, to + done, count - done, off_t(offset + done));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break;
            done += std::size_t(got);
        }
        return done;
    }

    /// Where the bytes can be made that are written next, so that to write them copies nothing. Null where
    /// there is no room for them.
    std::uint8_t* room(std::size_t count)
    {
        if (count > largestBlock || (count > largestBlock - m_blockSize && !flush()))
            return nullptr;
        if (m_blockSize == 0)
            m_blockBegin = m_position;
        return reserveBlock(largestBlock) ? m_block.get() + m_blockSize : nullptr;
    }

    std::int64_t write(const void* from, std::size_t count)
    {
        if (m_position != blockEnd() && !flush())
            return -1;
        if (m_blockSize == 0)
            m_blockBegin = m_position;
        if (!append(from, count))
            return -1;
        m_position += count;
        return m_failed ? -1 : std::int64_t(count);
    }

    std::uint64_t seek(std::uint64_t offset, int whence)
    {
        // Offsets from the position or the end are two's complement: the sum wraps to the right place.
        const std::uint64_t base = whence == SEEK_CUR ? m_position : whence == SEEK_END ? size() : 0;
        const std::uint64_t position = base + offset;
        if (position > std::uint64_t(INT64_MAX))
            return std::uint64_t(-1);
        m_position = position;
        return position;
    }

    /// Writes what is in the block. False when that failed, now or before.
    bool flush()
    {
        const std::size_t size = m_writes ? std::exchange(m_blockSize, 0) : 0;
        if (size != 0 && !m_failed)
            writeAll(m_blockBegin, m_block.get(), size);
        return !m_failed;
    }

    /// As `flush`, and gives the file up: nothing can be read or written from then on.
    bool close()
    {
        const bool isStored = flush();
        m_descriptor = -1;
        return m_file.close() == 0 && isStored;
    }

private:
    static constexpr std::size_t smallestBlock = std::size_t(16) << 10;
    static constexpr std::size_t largestBlock = std::size_t(256) << 10;
    /// So many bytes at once are written without a detour.
    static constexpr std::size_t directBytes = std::size_t(64) << 10;

    std::uint64_t blockEnd() const { return m_blockBegin + m_blockSize; }

    /// Adds to what is in the block, or writes both.
    bool append(const void* from, std::size_t count)
    {
        std::uint8_t* const place = count < directBytes || isMadeInPlace(from, count) ? room(count) : nullptr;
        if (!place)
            return flush() && writeAll(m_position, from, count);
        // The bytes may have been made in the block, for a place that is not the next one any more.
        std::memmove(place, from, count);
        m_blockSize += count;
        return true;
    }

    bool isMadeInPlace(const void* from, std::size_t count) const
    {
        return from == m_block.get() + m_blockSize && count <= m_blockCapacity - m_blockSize;
    }

    bool reserveBlock(std::size_t bytes)
    {
        if (m_blockCapacity >= bytes)
            return true;
        m_block.reset(new (std::nothrow) std::uint8_t[bytes]);
        m_blockCapacity = m_block ? bytes : 0;
        return m_block != nullptr;
    }

    /// At least one byte, unless the file ends here.
    std::size_t readSome(std::uint8_t* to, std::size_t count)
    {
        const bool inBlock = m_position >= m_blockBegin && m_position < blockEnd();
        if (!inBlock && (m_writes || count >= largestBlock || !fillBlock()))
            return readAt(m_position, to, count);
        const std::size_t skipped = std::size_t(m_position - m_blockBegin);
        const std::size_t got = std::min(count, m_blockSize - skipped);
        std::memcpy(to, m_block.get() + skipped, got);
        return got;
    }

    /// Reads a block from the position on: a small one after a jump, a larger one each time when the reading
    /// goes on where the block before ended. False when memory is refused or the file ends here.
    bool fillBlock()
    {
        const bool goesOn = m_blockSize != 0 && m_position == blockEnd();
        m_nextBlock = goesOn ? std::min(m_nextBlock * 2, largestBlock) : smallestBlock;
        m_blockSize = 0;
        if (!reserveBlock(m_nextBlock))
            return false;
        m_blockBegin = m_position;
        m_blockSize = readAt(m_position, m_block.get(), m_nextBlock);
        return m_blockSize != 0;
    }

    bool writeAll(std::uint64_t offset, const void* from, std::size_t count)
    {
        const auto* const bytes = static_cast<const std::uint8_t*>(from);
        std::size_t done = 0;
        while (done < count && !m_failed) {
            const ssize_t put = pwrite(m_descriptor, bytes + done, count - done, off_t(offset + done));
            if (put > 0)
                done += std::size_t(put);
            else
                m_failed = put == 0 || errno != EINTR;
        }
        m_size = std::max(m_size, offset + done);
        return !m_failed;
    }

    FilePtr m_file;
    int m_descriptor;
    bool m_writes, m_failed = false;
    std::uint64_t m_size = 0, m_position = 0;
    // What was read ahead, or is still to be written.
    std::unique_ptr<std::uint8_t[]> m_block;
    std::size_t m_blockCapacity = 0, m_blockSize = 0, m_nextBlock = smallestBlock;
    std::uint64_t m_blockBegin = 0;
};

// --- What libtiff calls ----------------------------------------------------------------------------------

TiffStream& streamOf(thandle_t handle)
{
    return *static_cast<TiffStream*>(handle);
}

tmsize_t readStream(thandle_t handle, void* to, tmsize_t count)
{
    return count < 0 ? -1 : tmsize_t(streamOf(handle).read(to, std::size_t(count)));
}

tmsize_t writeStream(thandle_t handle, void* from, tmsize_t count)
{
    return count < 0 ? -1 : tmsize_t(streamOf(handle).write(from, std::size_t(count)));
}

toff_t seekStream(thandle_t handle, toff_t offset, int whence)
{
    return streamOf(handle).seek(offset, whence);
}

toff_t sizeOfStream(thandle_t handle)
{
    return streamOf(handle).size();
}

int closeStream(thandle_t handle)
{
    const std::unique_ptr<TiffStream> stream(&streamOf(handle));
    return stream->close() ? 0 : -1;
}

int refuseMapping(thandle_t, void**, toff_t*)
{
    return 0;
}

void forgetMapping(thandle_t, void*, toff_t) { }

struct FreeOptions {
    void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};

/// Most that libtiff may allocate at once for a file that is read. Deflate, the strongest of the common
/// compressions, expands 1032 times at most, so a larger strip is one that the file cannot fill; small files
/// get a fixed allowance.
tmsize_t allocationLimit(std::uint64_t fileBytes)
{
    constexpr std::uint64_t allowance = std::uint64_t(64) << 20, expansion = 1032;
    std::uint64_t limit = 0;
    if (__builtin_mul_overflow(fileBytes, expansion, &limit))
        limit = INT64_MAX;
    return tmsize_t(std::clamp(limit, allowance, std::uint64_t(INT64_MAX)));
}

TIFF* openStream(const char* name, const char* mode, std::unique_ptr<TiffStream> stream)
{
    const std::unique_ptr<TIFFOpenOptions, FreeOptions> options(TIFFOpenOptionsAlloc());
    if (!options)
        return nullptr;
    if (mode[0] == 'r')
        TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), allocationLimit(stream->size()));
    TIFF* const tiff = TIFFClientOpenExt(name, mode, stream.get(), readStream, writeStream, seekStream,
        closeStream, sizeOfStream, refuseMapping, forgetMapping, options.get());
    if (tiff)
        static_cast<void>(stream.release()); // closeStream deletes it.
    return tiff;
}

/// What libtiff's mode means to the C library: a TIFF that is written is also read, for its directories.
const char* streamMode(const char* mode)
{
    switch (mode[0]) {
    case 'r': return mode[1] == '+' ? "r+b" : "rb";
    case 'w': return "w+b";
    case 'a': return "r+b";
    default: return nullptr;
    }
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

TIFF* my_TIFFOpen(const char* name, const char* mode)
{
    const char* const fileMode = name && mode ? streamMode(mode) : nullptr;
    if (!fileMode) {
        errno = EINVAL;
        return nullptr;
    }
    FilePtr file = openUnbuffered(name, fileMode);
    if (!file && mode[0] == 'a' && errno == ENOENT)
        file = openUnbuffered(name, "w+b");
    if (!file)
        return nullptr;
    const bool writes = fileMode[1] == '+';
    std::unique_ptr<TiffStream> stream(new (std::nothrow) TiffStream(std::move(file), writes));
    errno = stream ? EINVAL : ENOMEM; // What libtiff refuses from here on is no TIFF file.
    return stream ? openStream(name, mode, std::move(stream)) : nullptr;
}

bool TiffFile::close()
{
    TIFF* const tiff = std::exchange(m_tiff, nullptr);
    if (!tiff)
        return true;
    // libtiff's own close answers nothing, so everything that may fail is done before it.
    TiffStream& stream = streamOf(TIFFClientdata(tiff));
    const bool isWritten = TIFFGetMode(tiff) == O_RDONLY || TIFFWriteDirectory(tiff) == 1;
    const bool isStored = stream.close();
    TIFFClose(tiff);
    return isWritten && isStored;
}

void* tiffRoom(TIFF* tiff, std::size_t bytes)
{
    return streamOf(TIFFClientdata(tiff)).room(bytes);
}

std::uint64_t tiffFileBytes(TIFF* tiff)
{
    return streamOf(TIFFClientdata(tiff)).size();
}

bool tiffReadAt(TIFF* tiff, std::uint64_t offset, void* to, std::size_t count)
{
    return offset <= std::uint64_t(INT64_MAX)
        && streamOf(TIFFClientdata(tiff)).readAt(offset, static_cast<std::uint8_t*>(to), count) == count;
}

std::uint64_t tiffExpansion(unsigned compression)
{
    switch (compression) {
    case COMPRESSION_NONE: return 1;
    case COMPRESSION_PACKBITS: return 64;
    case COMPRESSION_LZW: return 4096;
    case COMPRESSION_DEFLATE:
    case COMPRESSION_ADOBE_DEFLATE: return deflateExpansion;
    case COMPRESSION_OJPEG:
    case COMPRESSION_JPEG: return 1024; // 64 samples take a bit at least.
    default: return 1 << 16; // A bit can be a row in some, and a block of one colour next to nothing.
    }
}

bool tiffCanFill(TIFF* tiff, std::uint64_t expansion, std::uint64_t bytes)
{
    constexpr std::uint64_t largeBytes = std::uint64_t(2) << 30;
    if (bytes > largeBytes)
        expansion = std::min(expansion, deflateExpansion);
    std::uint64_t most = 0;
    return __builtin_mul_overflow(tiffFileBytes(tiff), expansion, &most) || bytes <= most;
}

void LibTIFF_StopWarnings()
{
    static CriticalSection tiffInitializedCS;
    static std::atomic<bool> isDone = false;
    if (isDone)
        return;
    const std::lock_guard lock(tiffInitializedCS);
    if (isDone)
        return;
    TIFFSetErrorHandler(nullptr);
    TIFFSetErrorHandlerExt(nullptr);
    TIFFSetWarningHandler(nullptr);
    TIFFSetWarningHandlerExt(nullptr);
    isDone = true;
}

} // namespace QUtils
