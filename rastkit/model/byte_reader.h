#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// Reads integers from a block of memory. A read past the end yields 0 and makes ok() false from then on,
/// so that a parser reads a whole header and asks once.
class ByteReader {
public:
    ByteReader(const std::uint8_t* data, std::size_t size) : m_pos(data), m_end(data + size) { }

    std::uint8_t u8() { return take(1) ? m_pos[-1] : std::uint8_t(0); }
    std::uint16_t u16le() { return take(2) ? std::uint16_t(m_pos[-2] | m_pos[-1] << 8) : std::uint16_t(0); }
    std::uint16_t u16be() { return take(2) ? std::uint16_t(m_pos[-2] << 8 | m_pos[-1]) : std::uint16_t(0); }
    std::uint32_t u32le()
    {
        const std::uint32_t low = u16le();
        return low | std::uint32_t(u16le()) << 16;
    }
    std::uint32_t u32be()
    {
        const std::uint32_t high = u16be();
        return high << 16 | u16be();
    }
    void skip(std::size_t count) { take(count); }

    bool ok() const { return m_ok; }
    bool atEnd() const { return m_pos == m_end; }

private:
    bool take(std::size_t count)
    {
        m_ok = m_ok && count <= std::size_t(m_end - m_pos);
        if (m_ok)
            m_pos += count;
        return m_ok;
    }

    const std::uint8_t *m_pos, *m_end;
    bool m_ok = true;
};

} // namespace QUtils
