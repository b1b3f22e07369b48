#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace QUtils {

/// The memory of a cache's tiles.
///
/// Tiles come and go in many threads. The heap would keep what they leave, a part for each thread, and the
/// process would grow far beyond what the tiles count for. So tiles of a page and more have places in blocks
/// of the address space, each place in a block as large as the others, and their pages go back to the system
/// when they are freed. Smaller ones are from the heap.
class TileMemory {
public:
    TileMemory() = default;
    TileMemory(const TileMemory&) = delete;
    TileMemory& operator=(const TileMemory&) = delete;
    ~TileMemory(); ///< After all tiles are freed.

    /// Free places have pages of so many bytes at most.
    static constexpr std::size_t mostWarmBytes = std::size_t(2) << 20;

    /// What a tile of so many bytes takes of the memory.
    static std::uint64_t bytesOf(std::uint64_t bytes);

    /// Zeros; null when memory is refused. Safe from several threads.
    std::uint8_t* allocate(std::size_t bytes);
    void free(std::uint8_t* tile, std::size_t bytes);

private:
    /// Of places of the same size.
    struct Block {
        Block* older;
        std::uint8_t* memory;
        std::size_t bytes;
    };
    struct Places {
        std::unique_ptr<std::uint8_t*[]> free; ///< Room for all there are; the warm ones, with pages, first.
        std::size_t warmCount = 0, freeCount = 0, count = 0;
    };

    static constexpr std::size_t pageBytes = 4096;
    static constexpr std::size_t blockBytes = std::size_t(4) << 20;
    static constexpr std::size_t mostPages = blockBytes / pageBytes / 4; ///< Of a place in a block.

    static std::size_t pagesOf(std::size_t bytes) { return (bytes + pageBytes - 1) / pageBytes; }
    static std::uint8_t* map(std::size_t bytes);
    std::uint8_t* takePlace(std::size_t pages, bool& isWarm);
    bool keepWarm(const Places& places, std::size_t pages);
    bool coolAnother();
    bool addBlock(Places& places, std::size_t pages);

    std::mutex m_mutex;
    Block* m_blocks = nullptr;
    std::size_t m_warmPages = 0;
    std::array<Places, mostPages + 1> m_places; ///< By their pages.
};

} // namespace QUtils
