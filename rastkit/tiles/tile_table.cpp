#include "rastkit/tiles/tile_table.h"

#include <new>

namespace QUtils {

namespace {

TileKey keyOf(const TileEntry& entry)
{
    return { entry.keyTexture.load(std::memory_order_relaxed),
        entry.keyPlace.load(std::memory_order_relaxed) };
}

} // namespace

TileTable::~TileTable()
{
    while (m_newest) {
        Buckets* const older = m_newest->older;
        delete m_newest;
        m_newest = older;
    }
    while (m_chunks) {
        Chunk* const older = m_chunks->older;
        delete m_chunks;
        m_chunks = older;
    }
}

TileEntry* TileTable::find(const TileKey& key) const
{
    if (!m_newest)
        return nullptr;
    TileEntry* entry = m_newest->head(key.hash()).load(std::memory_order_relaxed);
    while (entry && !entry->has(key))
        entry = entry->next.load(std::memory_order_relaxed);
    return entry;
}

std::uint64_t TileTable::twins(const TileEntry& entry) const
{
    std::uint64_t count = 0;
    const TileKey key = keyOf(entry);
    const TileEntry* other = m_newest->head(key.hash()).load(std::memory_order_relaxed);
    for (; other; other = other->next.load(std::memory_order_relaxed))
        if (other != &entry && other->has(key))
            ++count;
    return count;
}

void TileTable::link(TileEntry& entry, std::size_t hash)
{
    std::atomic<TileEntry*>& head = m_newest->head(hash);
    entry.next.store(head.load(std::memory_order_relaxed), std::memory_order_release);
    head.store(&entry, std::memory_order_release);
}

void TileTable::insert(TileEntry& entry, const TileKey& key)
{
    entry.keyTexture.store(key.texture, std::memory_order_relaxed);
    entry.keyPlace.store(key.place, std::memory_order_relaxed);
    link(entry, key.hash());
    entry.isInTable = true;
    ++m_count;
}

void TileTable::remove(TileEntry& entry)
{
    if (!entry.isInTable)
        return;
    std::atomic<TileEntry*>* link = &m_newest->head(keyOf(entry).hash());
    while (link->load(std::memory_order_relaxed) != &entry)
        link = &link->load(std::memory_order_relaxed)->next;
    link->store(entry.next.load(std::memory_order_relaxed), std::memory_order_release);
    entry.isInTable = false;
    --m_count;
}

TileEntry* TileTable::takeFree()
{
    TileEntry* const entry = m_free;
    if (entry)
        m_free = entry->after;
    return entry;
}

void TileTable::giveFree(TileEntry& entry)
{
    entry.after = m_free;
    m_free = &entry;
}

std::uint64_t TileTable::chunkBytes()
{
    return heapBytes(sizeof(Chunk) + alignof(Chunk));
}

bool TileTable::addChunk(CacheCore& cache)
{
    Chunk* const chunk = new (std::nothrow) Chunk;
    if (!chunk)
        return false;
    chunk->older = m_chunks;
    m_chunks = chunk;
    ++m_chunkCount;
    for (TileEntry& entry : chunk->entries) {
        entry.cache = &cache;
        giveFree(entry);
    }
    return true;
}

std::uint64_t TileTable::growthBytes() const
{
    return heapBytes(sizeof(Buckets)) + heapBytes(newCount() * sizeof(std::atomic<TileEntry*>));
}

bool TileTable::grow()
{
    const std::size_t count = newCount();
    std::unique_ptr<Buckets> wider(new (std::nothrow) Buckets { count, m_newest, nullptr });
    if (!wider)
        return false;
    wider->heads.reset(new (std::nothrow) std::atomic<TileEntry*>[count] {});
    if (!wider->heads)
        return false;
    const Buckets* const narrow = m_newest;
    m_newest = wider.release();
    for (std::size_t i = 0; narrow && i < narrow->count; ++i) {
        TileEntry* entry = narrow->heads[i].load(std::memory_order_relaxed);
        while (entry) {
            TileEntry* const next = entry->next.load(std::memory_order_relaxed);
            link(*entry, keyOf(*entry).hash());
            entry = next;
        }
    }
    m_buckets.store(m_newest, std::memory_order_release);
    return true;
}

} // namespace QUtils
