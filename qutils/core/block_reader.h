#pragma once

#include "qutils/export.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace QUtils {

/// Reads a stream in large blocks and hands out runs of bytes from them, for decoders that go through a
/// file once from front to back. The stream's own buffer is not used: nothing else may read from the
/// stream meanwhile.
///
/// Memory: one block (256 KiB), or twice the largest run asked for, but never more than the file holds. What
/// is no regular file, a pipe for instance, gets larger blocks only as its bytes arrive.
class QUTILS_API BlockReader {
public:
    /// Goes on where `file` stands.
    explicit BlockReader(std::FILE* file);
    BlockReader(const BlockReader&) = delete;
    BlockReader& operator=(const BlockReader&) = delete;
    ~BlockReader();

    /// False when the block's memory was refused, now or later: the file seems to end there then.
    bool isValid() const;

    /// The next bytes, at most `wanted` of them and fewer only at the end of the file; `got` says how
    /// many. They stay where they are until the next call.
    const std::uint8_t* take(std::size_t wanted, std::size_t& got);

    /// Makes at least `wanted` bytes ready if the file has them, and says how many are: from `data()` on,
    /// without moving on. For decoders of packets, which then `skip` what they used.
    std::size_t ready(std::size_t wanted);
    const std::uint8_t* data() const { return m_block.get() + m_begin; }
    /// Moves on over `count` bytes of those that are ready.
    void skip(std::size_t count) { m_begin += count; }

private:
    void refill(std::size_t wanted);
    void grow(std::size_t capacity);

    std::FILE* m_file;
    std::uint64_t m_left; // Bytes behind the block; the largest number while the end is not known.
    std::unique_ptr<std::uint8_t[]> m_block;
    std::size_t m_capacity = 0, m_begin = 0, m_end = 0;
};

} // namespace QUtils
