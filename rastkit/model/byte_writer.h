#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace QUtils {

/// Stores integers into a block of memory, the counterpart of ByteReader. What does not fit is dropped and
/// makes ok() false, so that a header is written field by field and asked about once.
class ByteWriter {
public:
    ByteWriter(std::uint8_t* data, std::size_t size) : m_pos(data), m_end(data + size) { }

    void u8(std::uint8_t value)
    {
        if (take(1))
            m_pos[-1] = value;
    }
    void u16le(std::uint16_t value)
    {
        if (take(2)) {
            m_pos[-2] = std::uint8_t(value);
            m_pos[-1] = std::uint8_t(value >> 8);
        }
    }
    void u16be(std::uint16_t value) { u16le(std::uint16_t(value << 8 | value >> 8)); }
    void u32le(std::uint32_t value)
    {
        if (take(4)) {
            for (int i = 0; i < 4; ++i)
                m_pos[i - 4] = std::uint8_t(value >> 8 * i);
        }
    }
    void u32be(std::uint32_t value) { u32le(__builtin_bswap32(value)); }
    void zeros(std::size_t count)
    {
        if (take(count))
            std::memset(m_pos - count, 0, count);
    }

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

    std::uint8_t *m_pos, *m_end;
    bool m_ok = true;
};

} // namespace QUtils
