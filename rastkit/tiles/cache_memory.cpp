#include "rastkit/tiles/cache_core.h"

#include <algorithm>

namespace QUtils {

// Tiles stand in a queue in the order in which they were put there. One that was used meanwhile goes to its
// end again when its turn comes: so a hit only stores a time, and what is evicted is nearly the least
// recently used. One that is pinned then is parked outside until its last pin is gone. Idle loaders and
// textures without users compete by the same time.

bool CacheCore::reserve(Lock& lock, std::uint64_t bytes)
{
    if (bytes > m_maxBytes)
        return false;
    while (m_maxBytes - m_bytes < bytes)
        if (!makeRoom(lock))
            return false;
    m_bytes += bytes;
    m_peakBytes = std::max(m_peakBytes, m_bytes);
    return true;
}

/// For those who have no file: waits for what others may give back soon.
bool CacheCore::reserveOrWait(Lock& lock, std::uint64_t bytes)
{
    return mayFit(bytes)
        && tryUntilDone(lock, [&] { return reserve(lock, bytes) ? Attempt::Done : Attempt::NoMemory; });
}

/// Gives up what was not used for longest. False when there is nothing. May leave the lock for a while.
bool CacheCore::makeRoom(Lock& lock)
{
    constexpr std::uint64_t never = UINT64_MAX;
    for (;;) {
        TileEntry* const tile = oldestTile();
        TileLoader* const loader = m_idle.first;
        TextureRecord* const texture = m_unused.first;
        const std::uint64_t tileTime = tile ? tile->queuedAt : never;
        const std::uint64_t loaderTime = loader ? loader->idleSince : never;
        const std::uint64_t textureTime = texture ? texture->unusedSince : never;
        if (!tile && !loader && !texture)
            return false;
        if (textureTime <= std::min(tileTime, loaderTime)) {
            drop(*texture);
            return true;
        }
        if (loaderTime < tileTime) {
            closeIdle(lock, *loader);
            return true;
        }
        if (evict(*tile))
            return true;
    }
}

TileEntry* CacheCore::oldestTile()
{
    // Two rounds at most: in the second one nothing is new, unless somebody uses it right now.
    for (std::uint64_t left = m_queued * 2 + 1; left != 0 && m_queue.first; --left) {
        TileEntry& entry = *m_queue.first;
        const std::uint64_t lastUse = entry.lastUse.load(std::memory_order_relaxed);
        if ((entry.state.load(std::memory_order_relaxed) & TileEntry::pinMask) != 0) {
            park(entry);
            continue;
        }
        if (lastUse <= entry.queuedAt)
            return &entry;
        m_queue.remove(entry);
        m_queue.append(entry);
        entry.queuedAt = lastUse;
    }
    return nullptr;
}

void CacheCore::enqueue(TileEntry& entry)
{
    m_queue.append(entry);
    ++m_queued;
}

/// From where it waits.
void CacheCore::dequeue(TileEntry& entry)
{
    if ((entry.state.load(std::memory_order_relaxed) & TileEntry::parked) != 0) {
        entry.state.fetch_and(~TileEntry::parked, std::memory_order_relaxed);
        --m_parked;
        return;
    }
    m_queue.remove(entry);
    --m_queued;
}

/// Takes a pinned tile out of the queue, so that nobody looks at it again before it is unpinned.
void CacheCore::park(TileEntry& entry)
{
    m_queue.remove(entry);
    --m_queued;
    ++m_parked;
    const std::uint64_t before = entry.state.fetch_or(TileEntry::parked, std::memory_order_acq_rel);
    if ((before & TileEntry::pinMask) == 0) // By now.
        recycleLocked(entry);
}

/// False when somebody has pinned it by now.
bool CacheCore::evict(TileEntry& entry)
{
    std::uint64_t expected = TileEntry::valid;
    if (!entry.state.compare_exchange_strong(expected, 0, std::memory_order_acq_rel))
        return false;
    dequeue(entry);
    m_table.remove(entry);
    ++m_counts.evictions;
    discard(entry);
    return true;
}

// What a sink asks for while its tile is being decoded.

bool CacheCore::take(std::uint64_t bytes)
{
    Lock lock(m_mutex);
    return reserve(lock, bytes);
}

void CacheCore::giveBack(std::uint64_t bytes)
{
    const Lock lock(m_mutex);
    unreserve(bytes);
}

} // namespace QUtils
