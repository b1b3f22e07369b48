#include "rastkit/tiles/tile_memory.h"

#include "rastkit/tiles/tile_table.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace QUtils {

namespace {

/// All pages at once, which is far cheaper than one after the other when they are met. Systems before
/// Linux 5.14 do not know this, and do that.
void providePages(std::uint8_t* memory, std::size_t bytes)
{
#ifdef MADV_POPULATE_WRITE
    static_cast<void>(madvise(memory, bytes, MADV_POPULATE_WRITE));
#else
    static_cast<void>(memory);
    static_cast<void>(bytes);
#endif
}

/// Gives pages back to the system, which makes them zeros. It does not take locked ones.
void clear(std::uint8_t* memory, std::size_t bytes)
{
    if (madvise(memory, bytes, MADV_DONTNEED) != 0)
        std::memset(memory, 0, bytes);
}

} // namespace

std::uint64_t TileMemory::bytesOf(std::uint64_t bytes)
{
    constexpr std::uint64_t listed
        = 2 * sizeof(std::uint8_t*); // In the list of free places, and when it grows.
    return bytes < pageBytes ? heapBytes(bytes) : (bytes + pageBytes - 1) / pageBytes * pageBytes + listed;
}

TileMemory::~TileMemory()
{
    while (Block* const block = m_blocks) {
        m_blocks = block->older;
        munmap(block->memory, block->bytes);
        delete block;
    }
}

/// Large pages would make a place keep what its neighbours have given back.
std::uint8_t* TileMemory::map(std::size_t bytes)
{
    void* const memory
        = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    static_cast<void>(madvise(memory, bytes, MADV_NOHUGEPAGE));
    return static_cast<std::uint8_t*>(memory);
}

std::uint8_t* TileMemory::allocate(std::size_t bytes)
{
    if (bytes < pageBytes)
        return static_cast<std::uint8_t*>(std::calloc(bytes, 1));
    const std::size_t pages = pagesOf(bytes);
    bool isWarm = false;
    std::uint8_t* const tile = pages > mostPages ? map(pages * pageBytes) : takePlace(pages, isWarm);
    if (tile && isWarm)
        std::memset(tile, 0, bytes);
    else if (tile)
        providePages(tile, pages * pageBytes);
    return tile;
}

void TileMemory::free(std::uint8_t* tile, std::size_t bytes)
{
    if (bytes < pageBytes || !tile) {
        std::free(tile);
        return;
    }
    const std::size_t pages = pagesOf(bytes);
    if (pages > mostPages) {
        munmap(tile, pages * pageBytes);
        return;
    }
    const std::lock_guard lock(m_mutex);
    Places& places = m_places[pages];
    places.free[places.freeCount++] = tile;
    if (keepWarm(places, pages)) {
        std::swap(places.free[places.warmCount++], places.free[places.freeCount - 1]);
        m_warmPages += pages;
    } else {
        clear(tile, pages * pageBytes);
    }
}

/// Whether the place that is freed may keep its pages. A size that has no warm place takes the pages of
/// another.
bool TileMemory::keepWarm(const Places& places, std::size_t pages)
{
    constexpr std::size_t mostWarmPages = mostWarmBytes / pageBytes;
    if (pages > mostWarmPages / 4)
        return false;
    while (m_warmPages + pages > mostWarmPages)
        if (places.warmCount != 0 || !coolAnother())
            return false;
    return true;
}

/// Gives the pages of a warm place back, of the size that has most of them.
bool TileMemory::coolAnother()
{
    std::size_t most = 0;
    for (std::size_t pages = 1; pages < m_places.size(); ++pages)
        if (m_places[pages].warmCount * pages > m_places[most].warmCount * most)
            most = pages;
    Places& places = m_places[most];
    if (places.warmCount == 0)
        return false;
    clear(places.free[--places.warmCount], most * pageBytes);
    m_warmPages -= most;
    return true;
}

std::uint8_t* TileMemory::takePlace(std::size_t pages, bool& isWarm)
{
    const std::lock_guard lock(m_mutex);
    Places& places = m_places[pages];
    if (places.freeCount == 0 && !addBlock(places, pages))
        return nullptr;
    isWarm = places.warmCount != 0;
    if (isWarm) {
        std::swap(places.free[--places.warmCount], places.free[places.freeCount - 1]);
        m_warmPages -= pages;
    }
    return places.free[--places.freeCount];
}

/// The list of free places has room for all before any is handed out, so that nothing is needed to free one.
bool TileMemory::addBlock(Places& places, std::size_t pages)
{
    const std::size_t added = blockBytes / pageBytes / pages, count = places.count + added;
    std::unique_ptr<std::uint8_t*[]> free(new (std::nothrow) std::uint8_t*[count]);
    std::unique_ptr<Block> block(new (std::nothrow) Block { m_blocks, nullptr, blockBytes });
    if (!free || !block)
        return false;
    block->memory = map(blockBytes);
    if (!block->memory)
        return false;
    for (std::size_t i = 0; i < added; ++i) // The first place is taken first.
        free[i] = block->memory + (added - 1 - i) * pages * pageBytes;
    places.free = std::move(free);
    places.freeCount = added;
    places.count = count;
    m_blocks = block.release();
    return true;
}

} // namespace QUtils
