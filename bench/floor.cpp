#include "bench/floor.h"

#include "bench/files.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;

/// A file that is closed when it goes.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags) : m_descriptor(open(path.c_str(), flags | O_CLOEXEC, 0666))
    {
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_descriptor >= 0)
            close(m_descriptor);
    }

    operator int() const { return m_descriptor; }

private:
    int m_descriptor;
};

/// Which part of the pixels goes with the first `done` of the file's `total` bytes.
std::size_t shareOf(std::uint64_t done, std::uint64_t total, std::size_t pixelBytes)
{
    return std::size_t(double(done) / double(total) * double(pixelBytes));
}

} // namespace

Floor::Floor(std::size_t mostPixelBytes) : m_block(blockBytes), m_pixels(mostPixelBytes) { }

// A file that is much smaller than its pixels has many blocks of pixels for each of its own.

void Floor::store(std::size_t begin, std::size_t end)
{
    for (; begin < end; begin += std::min(blockBytes, end - begin))
        std::memcpy(m_pixels.get() + begin, m_block.get(), std::min(blockBytes, end - begin));
}

void Floor::fetch(const std::uint8_t* pixels, std::size_t begin, std::size_t end)
{
    for (; begin < end; begin += std::min(blockBytes, end - begin))
        std::memcpy(m_block.get(), pixels + begin, std::min(blockBytes, end - begin));
}

bool Floor::read(const std::string& path, std::size_t pixelBytes)
{
    const Descriptor file(path, O_RDONLY);
    const std::uint64_t total = fileBytes(path);
    if (file < 0 || total == 0)
        return false;
    std::size_t stored = 0;
    for (std::uint64_t done = 0; done < total;) {
        const ssize_t got = ::read(file, m_block.get(), blockBytes);
        if (got <= 0)
            return false;
        done += std::uint64_t(got);
        const std::size_t end = shareOf(done, total, pixelBytes);
        store(stored, end);
        stored = end;
    }
    return stored == pixelBytes;
}

bool Floor::write(
    const std::string& path, const void* pixels, std::size_t pixelBytes, std::uint64_t fileBytes)
{
    const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (file < 0 || fileBytes == 0)
        return false;
    std::size_t fetched = 0;
    for (std::uint64_t done = 0; done < fileBytes;) {
        const auto size = std::size_t(std::min<std::uint64_t>(blockBytes, fileBytes - done));
        const std::size_t end = shareOf(done + size, fileBytes, pixelBytes);
        fetch(static_cast<const std::uint8_t*>(pixels), fetched, end);
        fetched = end;
        if (::write(file, m_block.get(), size) != ssize_t(size))
            return false;
        done += size;
    }
    return fetched == pixelBytes;
}

} // namespace bench
