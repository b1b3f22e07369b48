#pragma once

#include "rastkit/types.h"

#include <ImfIO.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace QUtils {

/// The file that an OpenEXR file is read from: in blocks, larger pieces straight into the library's memory.
/// Reads past the end throw Iex::InputExc, as OpenEXR expects.
class ExrInput : public Imf::IStream {
public:
    static constexpr std::size_t largeBlock = std::size_t(256)
        << 10; ///< For what is read one after the other.
    static constexpr std::size_t smallBlock = std::size_t(8) << 10; ///< For chunks here and there.

    /// The size that the data of a chunk must have, by the numbers in front of them: the y of a scan line, or
    /// x, y, x level and y level of a tile. Empty where nobody can say.
    using ChunkSize = std::function<std::uint64_t(const std::int32_t* place)>;
    struct Chunks {
        std::size_t skippedNumbers = 0, placeNumbers = 0; ///< Then comes the size.
        ChunkSize size {};
    };

    /// Throws Iex::ErrnoExc when the file cannot be opened, Iex::InputExc when it is no regular file: an
    /// OpenEXR file is read from many places, which a pipe has not.
    explicit ExrInput(const char* name, std::size_t blockBytes = largeBlock);
    ~ExrInput() override;

    bool read(char* bytes, int count) override;
    std::uint64_t tellg() override { return m_position; }
    void seekg(std::uint64_t position) override
    {
        m_position = position;
        m_chunkNumbers = 0;
    }

    std::uint64_t size() const { return m_size; }

    /// From now on only chunks are read. One of another size than `chunks` tells throws Iex::InputExc:
    /// OpenEXR takes an uncompressed chunk of any size, and what is missing would be whatever its memory
    /// held before.
    void expectChunks(Chunks chunks) { m_chunks = std::move(chunks); }

private:
    void readBytes(char* bytes, std::size_t count);
    void followChunk(const char* bytes, int count);
    [[noreturn]] void refuseChunk(const char* why);
    void fillBlock();
    std::size_t readAt(std::uint64_t position, char* bytes, std::size_t count) const;

    FilePtr m_file;
    std::uint64_t m_size = 0, m_position = 0;
    std::size_t m_blockBytes;
    std::unique_ptr<char[]> m_block;
    std::uint64_t m_blockBegin = 0, m_blockEnd = 0;
    Chunks m_chunks;
    static constexpr std::size_t mostPlaceNumbers = 4;
    std::int32_t m_chunkPlace[mostPlaceNumbers] = {};
    std::uint64_t m_chunkBytes = 0; ///< Of its data.
    std::size_t m_chunkNumbers = 0; ///< Of the present chunk, read so far.
};

/// The most memory that pixels may take which a file of so many bytes is to fill: what its compression can
/// make of all of it, and 64 MiB in any case.
std::uint64_t mostExrPixelBytes(std::uint64_t fileBytes, int compression);

/// Walks over the headers of a file and throws Iex::InputExc for what OpenEXR must not meet. OpenEXR takes
/// the memory for attributes, chunk tables and chunks by what the header says, before it sees their data;
/// here each is compared with what the file can hold. Deep pictures are refused too. Leaves the file at its
/// beginning. The answer is for `expectChunks`, once OpenEXR has read the headers too.
ExrInput::Chunks checkExrHeaders(ExrInput& in);

} // namespace QUtils
