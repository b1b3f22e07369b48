#pragma once

#include "rastkit/codecs/block_reader.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>

namespace QUtils {

/// The bytes of a bitmap, from a stream, from memory, or from nowhere. Headers are read with `read`; from the
/// first of the other calls on, the rest is gone through from front to back as by BlockReader.
class BmpInput {
public:
    /// Goes on where `file` stands.
    explicit BmpInput(std::FILE* file) : m_file(file) { }
    /// From `position` on; null has no bytes at all.
    BmpInput(const std::uint8_t* data, std::uint64_t size, std::uint64_t position = 0)
        : m_data(data), m_size(data ? size : position), m_position(position)
    {
    }

    /// Stores the next `count` bytes, fewer at the end, and says how many.
    std::size_t read(std::uint8_t* dest, std::size_t count);
    /// Moves to `offset`, counted from the beginning. False where that cannot be.
    bool seek(std::uint64_t offset);
    /// Where the next byte of memory is read.
    std::uint64_t position() const { return m_position; }

    /// See BlockReader.
    const std::uint8_t* take(std::size_t wanted, std::size_t& got);
    std::size_t ready(std::size_t wanted);
    const std::uint8_t* data() const { return m_file ? m_blocks->data() : m_data + m_position; }
    void skip(std::size_t count);
    /// Whether the bytes seem to end for want of memory.
    bool isStarved() const { return m_blocks && !m_blocks->isValid(); }

private:
    BlockReader& blocks() { return m_blocks ? *m_blocks : m_blocks.emplace(m_file); }
    std::size_t left(std::size_t wanted) const;

    std::FILE* m_file = nullptr;
    std::optional<BlockReader> m_blocks;
    const std::uint8_t* m_data = nullptr;
    std::uint64_t m_size = 0, m_position = 0;
};

} // namespace QUtils
