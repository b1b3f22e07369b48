#pragma once

#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace QUtils {

/// Collects a file's bytes in one large block and writes it with one call whenever it is full, for encoders
/// that go through a file once from front to back. The stream should have no buffer of its own, and
/// nothing else may write to it meanwhile.
///
/// Rows are made in place: reserve room, store into it, advance.
///
/// Memory: one block (256 KiB), or the largest room asked for.
class BlockWriter {
public:
    /// What becomes of bytes that cannot be written. The renderer's writers of some formats drop them without
    /// a word: they go on asking for rows, and only memory can be wanting.
    enum class Loss { IsError, IsIgnored };

    /// Goes on where `file` stands.
    explicit BlockWriter(std::FILE* file, Loss loss = Loss::IsError);
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;
    /// What was not flushed is lost: only `flush` can say whether it was written.
    ~BlockWriter();

    /// Makes room for `count` bytes at `next()`, which is never null then.
    /// Errors: IMGERR_MEMORY; IMGERR_WRITE when the bytes before could not be written.
    [[nodiscard]] ImgErrorCode reserve(std::size_t count);
    std::uint8_t* next() const { return m_block.get() + m_size; }
    /// Adds the first `count` of the bytes at `next()` to the file.
    void advance(std::size_t count) { m_size += count; }

    /// Writes what is in the block. IMGERR_WRITE when not all of it could be written.
    [[nodiscard]] ImgErrorCode flush();

private:
    std::FILE* m_file;
    Loss m_loss;
    std::unique_ptr<std::uint8_t[]> m_block;
    std::size_t m_capacity = 0, m_size = 0;
};

/// What BMP, SGI and HDR writers make of such bytes.
inline BlockWriter::Loss lossOf(Conventions conventions)
{
    return conventions == Conventions::Renderer ? BlockWriter::Loss::IsIgnored : BlockWriter::Loss::IsError;
}

} // namespace QUtils
