#include "rastkit/tiles.h"
#include "rastkit/tiles/cache_core.h"

#include <algorithm>
#include <chrono>
#include <new>

namespace QUtils {

namespace {

TileSink::Area areaOf(const TextureDescription& description, const TilePlace& place)
{
    const MipLevel& shape = description.levels[place.level].shape;
    const int left = place.tx * description.tileWidth, top = place.ty * description.tileHeight;
    return { left, top, std::min(description.tileWidth, shape.width - left),
        std::min(description.tileHeight, shape.height - top), description.tileWidth, description.tileHeight };
}

void linkTo(TextureRecord& texture, TileEntry& entry)
{
    entry.texture = &texture;
    entry.before = nullptr;
    entry.after = texture.tiles;
    if (entry.after)
        entry.after->before = &entry;
    texture.tiles = &entry;
}

void unlink(TileEntry& entry)
{
    (entry.before ? entry.before->after : entry.texture->tiles) = entry.after;
    if (entry.after)
        entry.after->before = entry.before;
    entry.before = entry.after = nullptr;
}

std::size_t storedBytesOf(const TileEntry& entry)
{
    return std::size_t(entry.samples()) * sampleBytes(entry.encoding);
}

std::uint64_t tileBytesOf(const TileEntry& entry)
{
    return TileMemory::bytesOf(storedBytesOf(entry));
}

} // namespace

CacheCore::Pinned CacheCore::failed(ImgErrorCode error)
{
    m_counters.addError();
    return { nullptr, error };
}

std::condition_variable& CacheCore::conditionOf(const TileEntry& entry)
{
    return m_loaded[reinterpret_cast<std::uintptr_t>(&entry) / sizeof entry % conditionCount];
}

CacheCore::Pinned CacheCore::pinSlowly(TextureRecord& texture, const TextureDescription& description, int tx,
    int ty, int level, TileEntry* stray)
{
    if (stray)
        recycle(*stray);
    if (texture.cache != this)
        return failed(IMGERR_OPEN);
    if (!description.hasTile(tx, ty, level))
        return failed(IMGERR_READ);
    const TileKey key = TileKey::of(description.number, tx, ty, level);
    Lock lock(m_mutex);
    for (;;) {
        waitForDescription(lock, texture);
        if (texture.description.load(std::memory_order_relaxed) != &description)
            return { nullptr, IMGERR_NONE, true };
        if (TileEntry* const known = m_table.find(key))
            return join(lock, *known);
        if (m_table.hasBuckets() && m_table.hasFree())
            return load(lock, claim(texture, key), description, { tx, ty, level });
        if (!prepareEntry(lock)) // Others may have come while the lock was left.
            return failed(IMGERR_MEMORY);
    }
}

/// The tile that another thread has, or will have.
CacheCore::Pinned CacheCore::join(Lock& lock, TileEntry& entry)
{
    entry.pin();
    touch(entry);
    const auto isLoading
        = [&] { return (entry.state.load(std::memory_order_acquire) & TileEntry::loading) != 0; };
    if (!isLoading()) {
        m_counters.addHit();
        return { &entry };
    }
    ++entry.waiters;
    conditionOf(entry).wait(lock, [&] { return !isLoading(); });
    --entry.waiters;
    if (entry.error == IMGERR_NONE) {
        ++m_counts.waits;
        return { &entry };
    }
    const Pinned answer { nullptr, entry.error, entry.isForgotten };
    if (!answer.isOutdated)
        ++m_counts.errors;
    if (entry.unpin())
        recycleLocked(entry);
    return answer;
}

// --- Entries ---------------------------------------------------------------------------------------------

/// Provides a free entry, and buckets. May leave the lock for a while.
bool CacheCore::prepareEntry(Lock& lock)
{
    if (!m_table.hasBuckets() && !growTable(lock))
        return false;
    // Tiles make room, so that chains stay short. Only where all is pinned they may become long: slow but
    // right.
    if (m_table.isCrowded() && m_table.growthBytes() <= m_maxBytes / 16)
        static_cast<void>(growTable(lock));
    // Entries are never given back. Those of tiny tiles must not fill the memory of larger ones.
    if (m_table.entryBytes() >= m_maxBytes / 8)
        while (!m_table.hasFree()) {
            TileEntry* const oldest = oldestTile();
            if (!oldest)
                break;
            static_cast<void>(evict(*oldest));
        }
    return m_table.hasFree() || addEntries(lock) || m_table.hasFree();
}

bool CacheCore::growTable(Lock& lock)
{
    const std::uint64_t bytes = m_table.growthBytes();
    if (!(m_table.hasBuckets() ? reserve(lock, bytes) : reserveOrWait(lock, bytes)))
        return false;
    if (m_table.growthBytes() == bytes && m_table.grow()) {
        m_fixedBytes += bytes;
        return true;
    }
    unreserve(bytes); // Refused, or another thread was first.
    return m_table.hasBuckets();
}

bool CacheCore::addEntries(Lock& lock)
{
    const std::uint64_t bytes = TileTable::chunkBytes();
    if (!reserveOrWait(lock, bytes))
        return false;
    if (m_table.addChunk(*this)) {
        m_fixedBytes += bytes;
        return true;
    }
    unreserve(bytes);
    return false;
}

TileEntry& CacheCore::claim(TextureRecord& texture, const TileKey& key)
{
    TileEntry& entry = *m_table.takeFree();
    entry.error = IMGERR_NONE;
    entry.isForgotten = false;
    entry.waiters = 0;
    linkTo(texture, entry);
    // Threads that only look may have pinned it already.
    entry.state.fetch_add(TileEntry::loading + 1, std::memory_order_acq_rel);
    m_table.insert(entry, key);
    const std::uint64_t now = m_clock.load(std::memory_order_relaxed) + 1;
    m_clock.store(now, std::memory_order_relaxed);
    entry.lastUse.store(now, std::memory_order_relaxed);
    return entry;
}

void CacheCore::recycle(TileEntry& entry)
{
    const Lock lock(m_mutex);
    recycleLocked(entry);
}

/// Somebody else may have done so, or may look at the entry right now and will do so then.
void CacheCore::recycleLocked(TileEntry& entry)
{
    std::uint64_t expected = TileEntry::doomed;
    if (entry.state.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) {
        discard(entry);
        return;
    }
    expected = TileEntry::valid | TileEntry::parked;
    if (!entry.state.compare_exchange_strong(expected, TileEntry::valid, std::memory_order_acq_rel))
        return;
    --m_parked;
    entry.queuedAt = m_clock.load(std::memory_order_relaxed);
    enqueue(entry);
}

/// Frees the tile of an entry that nobody can have any more.
void CacheCore::discard(TileEntry& entry)
{
    if (entry.data) {
        const std::uint64_t bytes = tileBytesOf(entry);
        m_tileMemory.free(entry.data, storedBytesOf(entry));
        entry.data = nullptr;
        unreserve(bytes);
        m_counts.tileBytes -= bytes;
        --m_counts.tiles;
    }
    TextureRecord& texture = *entry.texture;
    unlink(entry);
    m_table.giveFree(entry);
    noteUnused(texture, true);
}

void CacheCore::forgetTiles(TextureRecord& texture)
{
    for (TileEntry* entry = texture.tiles; entry;) {
        TileEntry* const next = entry->after;
        m_table.remove(*entry);
        const std::uint64_t state = entry->state.load(std::memory_order_relaxed);
        if ((state & TileEntry::loading) != 0)
            entry->isForgotten = true;
        if ((state & TileEntry::valid) != 0) {
            dequeue(*entry);
            const std::uint64_t before
                = entry->state.fetch_xor(TileEntry::valid | TileEntry::doomed, std::memory_order_acq_rel);
            if ((before & TileEntry::pinMask) == 0)
                recycleLocked(*entry);
        }
        entry = next;
    }
    m_fileFreed.notify_all(); // Who waits for a file to decode one of them need not any more.
}

// --- Decoding --------------------------------------------------------------------------------------------

CacheCore::Pinned CacheCore::load(
    Lock& lock, TileEntry& entry, const TextureDescription& description, const TilePlace& place)
{
    const ImgErrorCode error = decode(lock, entry, description, place);
    return publish(entry, error);
}

/// Leaves the lock while it decodes.
ImgErrorCode CacheCore::decode(
    Lock& lock, TileEntry& entry, const TextureDescription& description, const TilePlace& place)
{
    const TileSink::Area area = areaOf(description, place);
    if (std::uint64_t(area.width) * std::uint64_t(area.height) > m_maxBytes)
        return IMGERR_MEMORY;
    TileEncoding encoding = entry.texture->encoding.load(std::memory_order_relaxed);
    for (;;) {
        const std::uint64_t bytes = TileSink::bytesOf(area, encoding);
        TileLoader* const loader = acquireLoader(lock, entry, description, bytes);
        if (!loader)
            return IMGERR_MEMORY;
        TileSink::Outcome outcome { IMGERR_READ, false };
        if (entry.isForgotten) // While this thread waited: the description is of another file.
            unreserve(bytes);
        else
            outcome = decodeWith(lock, *loader, entry, place, area, encoding);
        releaseLoader(lock, *loader, outcome.error == IMGERR_NONE || outcome.lackedRoom);
        if (!outcome.lackedRoom)
            return outcome.error;
        encoding = TileEncoding::Float; // Now that nothing is held, others may be waited for.
    }
}

TileSink::Outcome CacheCore::decodeWith(Lock& lock, TileLoader& loader, TileEntry& entry,
    const TilePlace& place, const TileSink::Area& area, TileEncoding encoding)
{
    const bool isNew = !loader.params;
    if (isNew)
        ++m_counts.opens;
    lock.unlock();
    TileSink::Outcome outcome;
    {
        TileSink sink(area, encoding, *this);
        outcome.error = runLoader(loader, entry, place, sink);
        outcome.lackedRoom = sink.lackedRoom();
    }
    lock.lock();
    if (entry.isForgotten)
        return outcome;
    TextureRecord& texture = *entry.texture;
    // The first tile shows whether the file is as it was described.
    texture.isDoubtful |= isNew && outcome.error == IMGERR_READ;
    if (outcome.lackedRoom)
        texture.encoding.store(TileEncoding::Float, std::memory_order_relaxed);
    return outcome;
}

ImgErrorCode CacheCore::runLoader(
    TileLoader& loader, TileEntry& entry, const TilePlace& place, TileSink& sink)
{
    const auto begin = std::chrono::steady_clock::now();
    TextureRecord& texture = *loader.texture;
    ImgErrorCode error = IMGERR_NONE;
    if (!loader.params)
        loader.params = newLoader(texture.fileName.get(), *loader.description, error);
    try {
        if (loader.params)
            error = ImgErrorCode(loader.params->loadTile(place.tx, place.ty, place.level, sink).code());
    } catch (const std::bad_alloc&) {
        error = IMGERR_MEMORY;
    } catch (...) {
        error = IMGERR_READ;
    }
    const auto taken = std::chrono::steady_clock::now() - begin;
    m_decodeNanoseconds.fetch_add(
        std::uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(taken).count()),
        std::memory_order_relaxed);
    if (sink.error() != IMGERR_NONE)
        return sink.error();
    if (error != IMGERR_NONE)
        return error;
    entry.encoding = sink.encoding();
    entry.width = sink.area().width;
    entry.height = sink.area().height;
    entry.data = sink.release();
    return entry.data ? IMGERR_NONE : IMGERR_READ;
}

/// Tells the answer to those who wait, and answers its own thread.
CacheCore::Pinned CacheCore::publish(TileEntry& entry, ImgErrorCode error)
{
    TextureRecord& texture = *entry.texture;
    entry.error = error;
    if (error == IMGERR_NONE) {
        m_counts.tileBytes += tileBytesOf(entry);
        ++m_counts.tiles;
        ++m_counts.misses;
        if (!entry.isForgotten && entry.encoding > texture.encoding.load(std::memory_order_relaxed))
            texture.encoding.store(entry.encoding, std::memory_order_relaxed);
    }
    if (!entry.isForgotten)
        m_counts.redundantDecodes += m_table.twins(entry);
    if (entry.waiters != 0)
        conditionOf(entry).notify_all();
    if (error == IMGERR_NONE && !entry.isForgotten) {
        entry.queuedAt = entry.lastUse.load(std::memory_order_relaxed);
        enqueue(entry);
        entry.state.fetch_xor(TileEntry::loading | TileEntry::valid, std::memory_order_acq_rel);
        return { &entry };
    }
    m_table.remove(entry);
    entry.state.fetch_xor(TileEntry::loading | TileEntry::doomed, std::memory_order_acq_rel);
    if (error == IMGERR_NONE)
        return { &entry };
    const Pinned answer { nullptr, error, entry.isForgotten };
    if (!answer.isOutdated)
        ++m_counts.errors;
    if (entry.unpin())
        recycleLocked(entry);
    return answer;
}

} // namespace QUtils
