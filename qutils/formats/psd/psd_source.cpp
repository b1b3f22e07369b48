#include "qutils/formats/psd/psd_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;

} // namespace

PsdSource::PsdSource(FilePtr file) noexcept : m_file(std::move(file))
{
    struct stat status;
    if (fstat(fileno(m_file), &status) != 0 || !S_ISREG(status.st_mode))
        return;
    m_isSeekable = true;
    m_size = std::uint64_t(status.st_size);
}

/// Reads past the stream, whose buffer would only be one more copy. Fewer bytes only at the end.
std::size_t PsdSource::fetch(void* bytes, std::size_t count, std::uint64_t position)
{
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = pread(
            fileno(m_file), static_cast<std::uint8_t*>(bytes) + done, count - done, off_t(position + done));
        if (got > 0)
            done += std::size_t(got);
        else if (got == 0 || errno != EINTR)
            break;
    }
    return done;
}

/// Makes the block begin here and hold `count` bytes, which the file has.
bool PsdSource::refill(std::size_t count)
{
    const std::size_t wanted = std::size_t(std::min<std::uint64_t>(std::max(count, blockBytes), left()));
    if (wanted > m_capacity) {
        m_blockBytes = 0;
        m_block.reset();
        m_capacity = 0;
        m_block.reset(new std::uint8_t[wanted]);
        m_capacity = wanted;
    }
    m_blockBegin = m_position;
    m_blockBytes = fetch(m_block.get(), std::min(wanted, m_capacity), m_position);
    return m_blockBytes >= count;
}

const std::uint8_t* PsdSource::take(std::size_t count)
{
    const bool isThere = m_position >= m_blockBegin && m_position - m_blockBegin <= m_blockBytes
        && count <= m_blockBytes - (m_position - m_blockBegin);
    if (!isThere && (count > left() || !refill(count))) {
        m_ok = false;
        m_position
            = m_size; // Nothing more is read, also where the system refuses bytes that should be there.
        return nullptr;
    }
    const std::uint8_t* const bytes = m_block.get() + (m_position - m_blockBegin);
    m_position += count;
    return bytes;
}

const std::uint8_t* PsdSource::takeSome(std::size_t wanted, std::size_t& got)
{
    got = 0;
    const bool isThere = m_position >= m_blockBegin && m_position - m_blockBegin < m_blockBytes;
    if (wanted == 0 || (!isThere && (left() == 0 || !refill(1))))
        return nullptr;
    got = std::min(wanted, std::size_t(m_blockBytes - (m_position - m_blockBegin)));
    return take(got);
}

bool PsdSource::read(void* bytes, std::size_t count)
{
    if (count < blockBytes) {
        const std::uint8_t* const block = take(count);
        if (block && count != 0)
            std::memcpy(bytes, block, count);
        return block != nullptr;
    }
    m_ok = m_ok && count <= left() && fetch(bytes, count, m_position) == count;
    m_position += count;
    return m_ok;
}

std::uint8_t PsdSource::u8()
{
    const std::uint8_t* const b = take(1);
    return b ? b[0] : std::uint8_t(0);
}

std::uint16_t PsdSource::u16()
{
    const std::uint8_t* const b = take(2);
    return b ? std::uint16_t(b[0] << 8 | b[1]) : std::uint16_t(0);
}

std::uint32_t PsdSource::u32()
{
    const std::uint8_t* const b = take(4);
    return b ? std::uint32_t(b[0]) << 24 | std::uint32_t(b[1]) << 16 | std::uint32_t(b[2]) << 8 | b[3] : 0;
}

std::uint64_t PsdSource::u64()
{
    const std::uint64_t high = u32();
    return high << 32 | u32();
}

double PsdSource::f64()
{
    const std::uint64_t bits = u64();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

} // namespace QUtils
