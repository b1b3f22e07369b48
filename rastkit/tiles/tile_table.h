#pragma once

#include "rastkit/tile_cache.h"
#include "rastkit/tiles/tile_samples.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace QUtils {

class CacheCore;

/// Which tile: of which description of a texture, and where.
struct TileKey {
    std::uint64_t texture; ///< The description's number and the level.
    std::uint64_t place; ///< tx and ty.

    static constexpr int levelBits = 6;

    static TileKey of(std::uint64_t description, int tx, int ty, int level)
    {
        return { description << levelBits | std::uint64_t(level),
            std::uint64_t(std::uint32_t(tx)) << 32 | std::uint32_t(ty) };
    }

    std::size_t hash() const
    {
        std::uint64_t mixed = (place ^ texture * 0x9E3779B97F4A7C15u) * 0xD6E8FEB86659FD93u;
        mixed ^= mixed >> 32;
        return std::size_t(mixed * 0xD6E8FEB86659FD93u >> 20);
    }
};

inline namespace RASTKIT_ABI {

/// A tile, or room for one. Entries are used again but never freed before the cache ends, so that a thread
/// may look at one that has just become another tile's: it pins first and then asks which tile it has.
struct alignas(64) TileEntry {
    /// The lower half of `state` counts pins, those of threads that only look among them. Only the cache's
    /// lock lets a thread change the flags.
    static constexpr std::uint64_t pinMask = 0xFFFFFFFFu;
    static constexpr std::uint64_t valid = std::uint64_t(1) << 32; ///< Can be had through the table.
    static constexpr std::uint64_t loading = std::uint64_t(1) << 33; ///< Being decoded.
    static constexpr std::uint64_t doomed = std::uint64_t(1) << 34; ///< The last one to unpin recycles it.
    static constexpr std::uint64_t parked = std::uint64_t(1) << 35; ///< The last one to unpin queues it.

    std::atomic<std::uint64_t> state { 0 };
    std::atomic<std::uint64_t> keyTexture { 0 }, keyPlace { 0 };
    std::atomic<TileEntry*> next { nullptr }; ///< In its chain of the table.
    std::atomic<std::uint64_t> lastUse { 0 };

    // Constant while the entry is pinned and valid or doomed.
    std::uint8_t* data = nullptr;
    int width = 0, height = 0;
    TileEncoding encoding = TileEncoding::Float;

    // Under the cache's lock.
    ImgErrorCode error = IMGERR_NONE;
    TileEntry *older = nullptr, *newer = nullptr; ///< In the queue of what is evicted next.
    TileEntry *before = nullptr, *after = nullptr; ///< Among the tiles of its texture; `after` in free ones.
    TextureRecord* texture = nullptr;
    CacheCore* cache = nullptr;
    std::uint64_t queuedAt = 0;
    std::uint32_t waiters = 0;
    bool isInTable = false;
    bool isForgotten = false; ///< Its file has changed while it was decoded.

    bool has(const TileKey& key) const
    {
        return keyTexture.load(std::memory_order_relaxed) == key.texture
            && keyPlace.load(std::memory_order_relaxed) == key.place;
    }

    std::uint64_t samples() const { return std::uint64_t(width) * std::uint64_t(height) * 4; }

    void pin() { state.fetch_add(1, std::memory_order_acquire); }
    /// True when the caller has to recycle the entry, or to put it into the queue again.
    [[nodiscard]] bool unpin()
    {
        const std::uint64_t before_ = state.fetch_sub(1, std::memory_order_acq_rel);
        return (before_ & pinMask) == 1 && (before_ & (doomed | parked)) != 0;
    }
};

} // namespace RASTKIT_ABI

/// Memory that a block of so many bytes takes from the heap.
constexpr std::uint64_t heapBytes(std::uint64_t bytes)
{
    constexpr std::uint64_t header = 8, grain = 16, least = 32;
    const std::uint64_t whole = (bytes + header + grain - 1) / grain * grain;
    return whole < least ? least : whole;
}

/// The tiles by their keys. Looking up takes no lock; everything else is under the cache's lock.
class TileTable {
public:
    static constexpr std::size_t chunkEntries = 32;

    TileTable() = default;
    TileTable(const TileTable&) = delete;
    TileTable& operator=(const TileTable&) = delete;
    ~TileTable();

    /// The valid tile of that key, pinned, or null: it is not there, or is just being moved about. `stray`
    /// becomes an entry that was pinned by mistake and that the caller has to recycle.
    TileEntry* pin(const TileKey& key, TileEntry*& stray) const
    {
        const Buckets* const buckets = m_buckets.load(std::memory_order_acquire);
        if (!buckets)
            return nullptr;
        TileEntry* entry = buckets->head(key.hash()).load(std::memory_order_acquire);
        // An entry that moves to another chain meanwhile leads astray; nobody follows it for long.
        for (int steps = 0; entry && steps < mostSteps; ++steps) {
            if (entry->has(key))
                return pinnedIf(*entry, key, stray);
            entry = entry->next.load(std::memory_order_acquire);
        }
        return nullptr;
    }

    /// The tile of that key, valid or loading. Under the lock.
    TileEntry* find(const TileKey& key) const;
    /// Other entries with the key of this one: there should be none.
    std::uint64_t twins(const TileEntry& entry) const;

    /// There must be buckets.
    void insert(TileEntry& entry, const TileKey& key);
    void remove(TileEntry& entry);

    bool hasFree() const { return m_free != nullptr; }
    TileEntry* takeFree();
    void giveFree(TileEntry& entry);

    static std::uint64_t chunkBytes();
    std::uint64_t entryBytes() const { return m_chunkCount * chunkBytes(); }
    [[nodiscard]] bool addChunk(CacheCore& cache);

    bool isCrowded() const { return !m_newest || m_count >= m_newest->count; }
    bool hasBuckets() const { return m_newest != nullptr; }
    /// Of twice as many buckets.
    std::uint64_t growthBytes() const;
    /// Threads may be looking at the old buckets: they are kept until the end. All of them together are
    /// smaller than the new ones.
    [[nodiscard]] bool grow();

private:
    static constexpr int mostSteps = 1000;
    static constexpr std::size_t firstBuckets = 64;

    struct Buckets {
        std::size_t count;
        Buckets* older;
        std::atomic<TileEntry*>& head(std::size_t hash) const { return heads[hash & (count - 1)]; }
        std::unique_ptr<std::atomic<TileEntry*>[]> heads;
    };
    struct Chunk {
        Chunk* older = nullptr;
        TileEntry entries[chunkEntries];
    };

    static TileEntry* pinnedIf(TileEntry& entry, const TileKey& key, TileEntry*& stray)
    {
        const std::uint64_t state = entry.state.fetch_add(1, std::memory_order_acquire);
        if ((state & TileEntry::valid) != 0 && entry.has(key)) [[likely]]
            return &entry;
        if (entry.unpin())
            stray = &entry;
        return nullptr;
    }

    std::size_t newCount() const { return m_newest ? m_newest->count * 2 : firstBuckets; }
    void link(TileEntry& entry, std::size_t hash);

    std::atomic<Buckets*> m_buckets { nullptr };
    Buckets* m_newest = nullptr; ///< The same, for those who have the lock.
    Chunk* m_chunks = nullptr;
    TileEntry* m_free = nullptr;
    std::size_t m_count = 0;
    std::uint64_t m_chunkCount = 0;
};

} // namespace QUtils
