#pragma once

#include "rastkit/tile_cache.h"
#include "rastkit/tiles/texture_record.h"
#include "rastkit/tiles/tile_memory.h"
#include "rastkit/tiles/tile_sink.h"
#include "rastkit/tiles/tile_table.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QUtils {

struct TilePlace {
    int tx, ty, level;
};

/// An open file, and who waits to use it.
struct TileLoader {
    TextureRecord* texture = nullptr;
    const TextureDescription* description = nullptr;
    std::uint64_t version = 0; ///< The texture's when it was made.
    std::uint64_t bytes = 0, idleSince = 0;
    std::unique_ptr<MipMapTileLoaderParams> params; ///< Null until it is used first.
    TileLoader *older = nullptr, *newer = nullptr; ///< Among all idle ones.
    TileLoader *before = nullptr, *after = nullptr; ///< Among those of the texture.
};

/// A list whose items hold its links, `Before` towards its begin and `After` towards its end.
template <typename Item, Item* Item::*Before, Item* Item::*After> struct LinkedList {
    Item *first = nullptr, *last = nullptr;

    void append(Item& item)
    {
        item.*Before = last;
        item.*After = nullptr;
        (last ? last->*After : first) = &item;
        last = &item;
    }
    void prepend(Item& item)
    {
        item.*Before = nullptr;
        item.*After = first;
        (first ? first->*Before : last) = &item;
        first = &item;
    }
    void remove(Item& item)
    {
        (item.*Before ? item.*Before->*After : first) = item.*After;
        (item.*After ? item.*After->*Before : last) = item.*Before;
        item.*Before = item.*After = nullptr;
    }
};

/// What threads count on the fast path, each in a cache line that few others write to.
class HitCounters {
public:
    void addHit() { add(stripe().hits); }
    void addError() { add(stripe().errors); }
    std::uint64_t hits() const { return sum(&Stripe::hits); }
    std::uint64_t errors() const { return sum(&Stripe::errors); }

private:
    struct alignas(64) Stripe {
        std::atomic<std::uint64_t> hits { 0 }, errors { 0 };
    };

    static void add(std::atomic<std::uint64_t>& count) { count.fetch_add(1, std::memory_order_relaxed); }
    static std::size_t threadNumber()
    {
        if (s_threadNumber == 0) [[unlikely]]
            s_threadNumber = s_threads.fetch_add(1, std::memory_order_relaxed) + 1;
        return s_threadNumber;
    }
    Stripe& stripe() { return m_stripes[threadNumber() % m_stripes.size()]; }
    std::uint64_t sum(std::atomic<std::uint64_t> Stripe::*count) const;

    static inline constinit std::atomic<std::size_t> s_threads { 0 };
    static inline constinit thread_local std::size_t s_threadNumber = 0;

    std::array<Stripe, 64> m_stripes;
};

/// What stands behind TileCache.
///
/// One lock guards all that is not atomic. It is never held while a file is opened, read or closed, or a tile
/// decoded. Whoever waits holds no file and no memory but what is counted for an entry, so that no two wait
/// for each other. One that lacks memory keeps all others from taking files until it has some, so that it is
/// never passed over for ever.
class CacheCore : private MemoryGrant {
public:
    struct Pinned {
        TileEntry* entry = nullptr;
        ImgErrorCode error = IMGERR_NONE;
        bool isOutdated = false; ///< The texture has another description by now: ask again with that.
    };

    explicit CacheCore(const TileCacheSettings& settings);
    CacheCore(const CacheCore&) = delete;
    CacheCore& operator=(const CacheCore&) = delete;
    ~CacheCore();

    /// Held once. One that stands for no file where memory is refused.
    TextureRecord* open(const char* fileName);
    /// Stands for a texture that there was no memory for.
    static TextureRecord* withoutMemory();
    static void hold(TextureRecord* texture);
    static void letGo(TextureRecord* texture);

    /// Counts each tile that is asked for, whatever the answer, but not what is outdated.
    Pinned pin(TextureRecord& texture, const TextureDescription& description, int tx, int ty, int level)
    {
        if (description.error != IMGERR_NONE)
            return failed(description.error);
        TileEntry* stray = nullptr;
        if (unsigned(level) < 1u << TileKey::levelBits) [[likely]] {
            TileEntry* const entry = m_table.pin(TileKey::of(description.number, tx, ty, level), stray);
            if (entry) [[likely]] {
                touch(*entry);
                m_counters.addHit();
                return { entry };
            }
        }
        return pinSlowly(texture, description, tx, ty, level, stray);
    }
    static void unpin(TileEntry& entry)
    {
        if (entry.unpin()) [[unlikely]]
            entry.cache->recycle(entry);
    }

    int findChanges(std::vector<std::string>* names);
    TileCacheStatistics statistics() const;

private:
    using Lock = std::unique_lock<std::mutex>;

    // Tiles (tile_loading.cpp).
    void touch(TileEntry& entry) const
    {
        const std::uint64_t now = m_clock.load(std::memory_order_relaxed);
        if (entry.lastUse.load(std::memory_order_relaxed) != now)
            entry.lastUse.store(now, std::memory_order_relaxed);
    }
    Pinned failed(ImgErrorCode error);
    Pinned pinSlowly(TextureRecord& texture, const TextureDescription& description, int tx, int ty, int level,
        TileEntry* stray);
    bool prepareEntry(Lock& lock);
    bool growTable(Lock& lock);
    bool addEntries(Lock& lock);
    Pinned join(Lock& lock, TileEntry& entry);
    TileEntry& claim(TextureRecord& texture, const TileKey& key);
    Pinned load(Lock& lock, TileEntry& entry, const TextureDescription& description, const TilePlace& place);
    ImgErrorCode decode(
        Lock& lock, TileEntry& entry, const TextureDescription& description, const TilePlace& place);
    TileSink::Outcome decodeWith(Lock& lock, TileLoader& loader, TileEntry& entry, const TilePlace& place,
        const TileSink::Area& area, TileEncoding encoding);
    ImgErrorCode runLoader(TileLoader& loader, TileEntry& entry, const TilePlace& place, TileSink& sink);
    Pinned publish(TileEntry& entry, ImgErrorCode error);
    void recycle(TileEntry& entry);
    void recycleLocked(TileEntry& entry);
    void discard(TileEntry& entry);
    void forgetTiles(TextureRecord& texture);

    // Memory (cache_memory.cpp).
    bool reserve(Lock& lock, std::uint64_t bytes);
    bool reserveOrWait(Lock& lock, std::uint64_t bytes);
    bool mayFit(std::uint64_t bytes) const { return bytes <= m_maxBytes - m_fixedBytes; }
    void unreserve(std::uint64_t bytes) { m_bytes -= bytes; }
    bool makeRoom(Lock& lock);
    TileEntry* oldestTile();
    void enqueue(TileEntry& entry);
    void dequeue(TileEntry& entry);
    void park(TileEntry& entry);
    bool evict(TileEntry& entry);
    bool take(std::uint64_t bytes) override;
    void giveBack(std::uint64_t bytes) override;
    std::uint8_t* allocateTile(std::size_t bytes) override { return m_tileMemory.allocate(bytes); }
    void freeTile(std::uint8_t* tile, std::size_t bytes) override { m_tileMemory.free(tile, bytes); }

    // Open files (loader_pool.cpp).
    enum class Attempt { Done, NoFile, NoMemory, Pointless };
    template <typename Try> bool tryUntilDone(Lock& lock, const Try& attempt);
    bool takeFile(Lock& lock, std::uint64_t bytes);
    Attempt tryTakeFile(Lock& lock, std::uint64_t bytes);
    void giveFile(std::uint64_t bytes);
    void waitForFile(Lock& lock);
    TileLoader* acquireLoader(
        Lock& lock, const TileEntry& entry, const TextureDescription& description, std::uint64_t tileBytes);
    Attempt tryLoader(Lock& lock, TextureRecord& texture, const TextureDescription& description,
        std::uint64_t version, TileLoader*& loader);
    TileLoader* takeIdle(TextureRecord& texture, std::uint64_t version);
    void takeIdle(TileLoader& loader);
    void makeIdle(TileLoader& loader);
    void releaseLoader(Lock& lock, TileLoader& loader, bool isGood);
    void closeIdle(Lock& lock, TileLoader& loader);
    void closeBusy(Lock& lock, TileLoader& loader);
    void closeAllIdle(Lock& lock, TextureRecord& texture);
    void trimHeap();

    // Textures (texture_table.cpp).
    TextureRecord* find(const char* fileName, std::size_t hash) const;
    TextureRecord* add(const char* fileName, std::size_t hash, std::uint64_t bytes);
    bool growNames(Lock& lock);
    bool hasNames() const { return m_nameCount > m_counts.textures; }
    void letGoLocked(TextureRecord& texture);
    void noteUnused(TextureRecord& texture, bool isOldest);
    void noteUsed(TextureRecord& texture);
    void drop(TextureRecord& texture);
    void waitForDescription(Lock& lock, const TextureRecord& texture);
    void describe(Lock& lock, TextureRecord& texture);
    void install(Lock& lock, TextureRecord& texture, const DescribedFile& file, const FileNeeds& needs);
    bool refresh(Lock& lock, TextureRecord& texture);

    static constexpr std::size_t conditionCount = 16;
    std::condition_variable& conditionOf(const TileEntry& entry);

    const std::uint64_t m_maxBytes;
    const int m_maxFiles, m_maxLoadersOfTexture;
    TileTable m_table;
    TileMemory m_tileMemory;
    alignas(64) std::atomic<std::uint64_t> m_clock { 1 }; ///< Counts misses: the time of all recency.
    HitCounters m_counters;

    alignas(64) mutable std::mutex m_mutex;
    std::mutex m_changes; ///< Held by the one thread that looks for changed files.
    std::condition_variable m_fileFreed, m_described;
    std::array<std::condition_variable, conditionCount> m_loaded;

    std::uint64_t m_bytes = 0, m_peakBytes = 0;
    std::uint64_t m_fixedBytes = 0; ///< Of these: the cache's own, which it has until its end.
    TileCacheStatistics m_counts; ///< Without what HitCounters have.
    std::atomic<std::uint64_t> m_decodeNanoseconds { 0 };
    std::atomic<unsigned> m_closedFiles { 0 };
    static inline constinit std::atomic<std::uint64_t> s_descriptions { 0 }; ///< Of all caches: no key twice.
    std::uint64_t m_queued = 0; ///< How many tiles are in the queue.
    std::uint64_t m_parked = 0; ///< How many are not, since they are pinned.
    int m_files = 0; ///< Open, being opened or being closed.
    int m_busyFiles = 0; ///< Those that are not idle: one day they are.
    int m_fileWaiters = 0;
    const void* m_alone = nullptr; ///< Who lacks memory: nobody else takes a file before it has an answer.

    LinkedList<TileEntry, &TileEntry::older, &TileEntry::newer> m_queue;
    LinkedList<TileLoader, &TileLoader::older, &TileLoader::newer> m_idle;
    LinkedList<TextureRecord, &TextureRecord::older, &TextureRecord::newer> m_unused;
    LinkedList<TextureRecord, &TextureRecord::before, &TextureRecord::after> m_textures;
    std::unique_ptr<TextureRecord*[]> m_names;
    std::size_t m_nameCount = 0; ///< Chains, not names.
};

/// Tries until it is done, or will not be: nobody uses a file any more, and who pinned tiles for a moment
/// only had time to unpin them. Waits for files that others use; all others wait for one that lacks memory.
template <typename Try> bool CacheCore::tryUntilDone(Lock& lock, const Try& attempt)
{
    Attempt result = Attempt::Pointless;
    int patience = 64; // A few milliseconds.
    for (;;) {
        if (m_alone && m_alone != &result) {
            waitForFile(lock);
            continue;
        }
        result = attempt();
        if (result == Attempt::Done || result == Attempt::Pointless)
            break;
        if (m_alone && m_alone != &result) { // It came while room was made. Perhaps there is a file for it.
            m_fileFreed.notify_all();
            continue;
        }
        if (result == Attempt::NoMemory)
            m_alone = &result;
        if (m_busyFiles != 0) {
            waitForFile(lock);
        } else if (result == Attempt::NoMemory && m_parked != 0 && patience-- > 0) {
            lock.unlock();
            if (patience > 32)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            lock.lock();
        } else {
            break;
        }
    }
    if (m_alone == &result) {
        m_alone = nullptr;
        m_fileFreed.notify_all();
    }
    return result == Attempt::Done;
}

struct TileCache::State final : CacheCore {
    using CacheCore::CacheCore;
};

} // namespace QUtils
