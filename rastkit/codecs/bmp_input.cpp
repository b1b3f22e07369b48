#include "rastkit/codecs/bmp_input.h"

#include <algorithm>
#include <cstring>

namespace QUtils {

/// How many of the bytes that are wanted memory has.
std::size_t BmpInput::left(std::size_t wanted) const
{
    return m_position < m_size ? std::size_t(std::min<std::uint64_t>(wanted, m_size - m_position)) : 0;
}

std::size_t BmpInput::read(std::uint8_t* dest, std::size_t count)
{
    if (m_file)
        return std::fread(dest, 1, count, m_file);
    const std::size_t got = left(count);
    if (got != 0)
        std::memcpy(dest, m_data + m_position, got);
    m_position += got;
    return got;
}

bool BmpInput::seek(std::uint64_t offset)
{
    if (m_file)
        return fseeko(m_file, off_t(offset), SEEK_SET) == 0;
    m_position = offset;
    return true;
}

const std::uint8_t* BmpInput::take(std::size_t wanted, std::size_t& got)
{
    if (m_file)
        return blocks().take(wanted, got);
    got = left(wanted);
    const std::uint8_t* const bytes = m_data ? m_data + m_position : nullptr;
    m_position += got;
    return bytes;
}

std::size_t BmpInput::ready(std::size_t wanted)
{
    return m_file ? blocks().ready(wanted) : left(wanted);
}

void BmpInput::skip(std::size_t count)
{
    if (m_file)
        blocks().skip(count);
    else
        m_position += count;
}

} // namespace QUtils
