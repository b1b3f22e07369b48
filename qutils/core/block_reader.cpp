#include "qutils/core/block_reader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/stat.h>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;
constexpr std::uint64_t unknownLength = UINT64_MAX;

/// What a regular file holds from the stream's position on. Of anything else, and of the system's own
/// files, which say 0, the end is not known before it is reached.
std::uint64_t bytesToEnd(std::FILE* file)
{
    struct stat status;
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0)
        return unknownLength;
    const off_t position = ftello(file);
    return position >= 0 && position < status.st_size ? std::uint64_t(status.st_size - position) : 0;
}

} // namespace

BlockReader::BlockReader(std::FILE* file) : m_file(file), m_left(bytesToEnd(file))
{
    grow(std::size_t(std::min<std::uint64_t>(blockBytes, m_left)));
}

BlockReader::~BlockReader() = default;

bool BlockReader::isValid() const
{
    return m_block != nullptr;
}

const std::uint8_t* BlockReader::take(std::size_t wanted, std::size_t& got)
{
    got = std::min(wanted, ready(wanted));
    const std::uint8_t* const bytes = data();
    skip(got);
    return bytes;
}

std::size_t BlockReader::ready(std::size_t wanted)
{
    while (m_end - m_begin < wanted && m_left != 0)
        refill(wanted);
    return m_end - m_begin;
}

/// Reads behind what is still unused, as much as the block has room for. The block grows when it must: to
/// what the file can fill, or twofold while nobody knows how much that is.
void BlockReader::refill(std::size_t wanted)
{
    const std::size_t unused = m_end - m_begin;
    const std::uint64_t fillable = m_left != unknownLength ? unused + m_left
        : unused < m_capacity                              ? m_capacity
                                                           : std::uint64_t(m_capacity) * 2;
    const std::size_t needed = std::size_t(std::min<std::uint64_t>(wanted, fillable));
    if (needed > m_capacity)
        // Twice as much, so that not every run moves what is left of the block.
        grow(std::size_t(std::min<std::uint64_t>(fillable, std::uint64_t(needed) * 2)));
    else if (unused != 0)
        std::memmove(m_block.get(), data(), unused);
    if (!m_block)
        return;
    m_begin = 0;
    m_end = unused;

    const std::size_t room = std::size_t(std::min<std::uint64_t>(m_capacity - m_end, m_left));
    const std::size_t got = std::fread(m_block.get() + m_end, 1, room, m_file);
    m_end += got;
    if (got < room)
        m_left = 0;
    else if (m_left != unknownLength)
        m_left -= got;
}

/// Takes a block of `capacity` bytes, which keeps what is unused. Without memory there is nothing more to
/// read.
void BlockReader::grow(std::size_t capacity)
{
    std::unique_ptr<std::uint8_t[]> block(new (std::nothrow) std::uint8_t[capacity]);
    if (block && m_end != m_begin)
        std::memcpy(block.get(), data(), m_end - m_begin);
    m_block = std::move(block);
    m_capacity = m_block ? capacity : 0;
    if (!m_block) {
        m_begin = m_end = 0;
        m_left = 0;
    }
}

} // namespace QUtils
