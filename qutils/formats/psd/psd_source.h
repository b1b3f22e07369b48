#pragma once

#include "qutils/core/file_ptr.h"
#include "qutils/formats/psd/psd.h"

#include <cstddef>
#include <cstdint>
#include <memory>

/// Returns from the present function when `expression`, a PSD_Error, is a failure.
#define PSD_TRY(expression)                                                                                  \
    do {                                                                                                     \
        if (const PSD_Error tryError = (expression))                                                         \
            return tryError;                                                                                 \
    } while (0)

namespace QUtils {

/// Reads a file in large blocks, from any position on. A number that the file does not have whole is 0 and
/// makes ok() false from then on, so that a parser reads a whole record and asks once.
///
/// Memory: one block (256 KiB), or the largest run asked for, but never more than the file holds.
/// Throws std::bad_alloc.
class PsdSource {
public:
    explicit PsdSource(FilePtr file) noexcept;

    /// False for what is no regular file: there, nothing could be skipped.
    bool isSeekable() const { return m_isSeekable; }
    std::uint64_t size() const { return m_size; }
    std::uint64_t position() const { return m_position; }
    /// Bytes from here to the end.
    std::uint64_t left() const { return m_position < m_size ? m_size - m_position : 0; }
    void seek(std::uint64_t position) { m_position = position; }
    /// The end of a stretch of `length` bytes from here on, or of the file where that comes first.
    std::uint64_t endOf(std::uint64_t length) const
    {
        return m_position + (length < left() ? length : left());
    }

    bool ok() const { return m_ok; }

    /// The next `count` bytes, which stay until the next call; null, and ok() false, when there are fewer.
    const std::uint8_t* take(std::size_t count);
    /// At least one and at most `wanted` bytes, as many as are at hand; null at the end of the file.
    const std::uint8_t* takeSome(std::size_t wanted, std::size_t& got);
    /// The same into memory of the caller's, past the block where that is worth it.
    bool read(void* bytes, std::size_t count);
    void skip(std::uint64_t count) { m_position = endOf(count); }

    std::uint8_t u8();
    std::uint16_t u16();
    std::uint32_t u32();
    std::uint64_t u64();
    std::int16_t i16() { return std::int16_t(u16()); }
    std::int32_t i32() { return std::int32_t(u32()); }
    double f64();
    /// A length: of 32 bits, or of 64 where `isLong`.
    std::uint64_t length(bool isLong) { return isLong ? u64() : u32(); }

private:
    std::size_t fetch(void* bytes, std::size_t count, std::uint64_t position);
    bool refill(std::size_t count);

    FilePtr m_file;
    bool m_isSeekable = false, m_ok = true;
    std::uint64_t m_size = 0, m_position = 0, m_blockBegin = 0;
    std::unique_ptr<std::uint8_t[]> m_block;
    std::size_t m_capacity = 0, m_blockBytes = 0;
};

} // namespace QUtils
