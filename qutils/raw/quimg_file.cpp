#include "qutils/raw/quimg_file.h"

#include "qutils/core/paths.h"

#include <algorithm>
#include <cerrno>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace QUtils::quimg {

/// The most that one call of the system moves.
static constexpr std::size_t mostAtOnce = std::size_t(1) << 30;

std::string systemText(int error)
{
    return error == 0 ? "the file ends" : std::generic_category().message(error);
}

int InputFile::open(const char* name)
{
    FilePtr file(qutils_fopen(name, "rb"));
    return file ? adopt(std::move(file)) : errno;
}

int InputFile::adopt(FilePtr file)
{
    struct stat status { };
    if (fstat(fileno(file), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
    m_size = std::uint64_t(status.st_size);
    m_file = std::move(file);
    return 0;
}

bool InputFile::read(std::uint64_t offset, void* out, std::size_t count) const
{
    auto* next = static_cast<std::uint8_t*>(out);
    while (count != 0) {
        const ssize_t got = pread(fileno(m_file), next, std::min(count, mostAtOnce), off_t(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            errno = got < 0 ? errno : 0;
            return false;
        }
        next += got;
        offset += std::uint64_t(got);
        count -= std::size_t(got);
    }
    return true;
}

int OutputFile::create(const char* name)
{
    // Not emptied before it is known that nobody else writes to it.
    FilePtr file(qutils_fopen(name, "ab"));
    if (!file)
        return errno;
    if (!lockForWriting(file))
        return EWOULDBLOCK;
    struct stat status { };
    if (fstat(fileno(file), &status) != 0)
        return errno;
    if (S_ISREG(status.st_mode) && ftruncate(fileno(file), 0) != 0)
        return errno;
    adopt(std::move(file), 0);
    return 0;
}

void OutputFile::useStream(PStream* stream)
{
    m_stream = stream;
    m_position = 0;
    m_broken = false;
}

void OutputFile::adopt(FilePtr file, std::uint64_t position)
{
    m_file = std::move(file);
    m_position = position;
    m_broken = false;
}

bool OutputFile::write(const void* bytes, std::size_t count)
{
    if (m_broken) {
        errno = EIO;
        return false;
    }
    if (writeAll(static_cast<const std::uint8_t*>(bytes), count)) {
        m_position += count;
        return true;
    }
    const int error = errno;
    m_broken = !cut();
    errno = error;
    return false;
}

bool OutputFile::cut()
{
    return m_file && ftruncate(fileno(m_file), off_t(m_position)) == 0
        && lseek(fileno(m_file), off_t(m_position), SEEK_SET) == off_t(m_position);
}

bool OutputFile::close()
{
    m_stream = nullptr;
    return m_file.close() == 0;
}

bool OutputFile::writeAll(const std::uint8_t* bytes, std::size_t count)
{
    if (m_stream) {
        errno = EIO;
        return m_stream->write(bytes, count);
    }
    while (count != 0) {
        const ssize_t done = ::write(fileno(m_file), bytes, std::min(count, mostAtOnce));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0) {
            errno = done < 0 ? errno : ENOSPC;
            return false;
        }
        bytes += done;
        count -= std::size_t(done);
    }
    return true;
}

bool lockForWriting(std::FILE* file)
{
    return flock(fileno(file), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

} // namespace QUtils::quimg
