#include "rastkit/tiles/cache_core.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

namespace QUtils {

namespace {

std::uint64_t recordBytes(std::size_t nameLength)
{
    return heapBytes(sizeof(TextureRecord)) + heapBytes(nameLength + 1);
}

std::uint64_t nameTableBytes(std::size_t count)
{
    return heapBytes(count * sizeof(TextureRecord*));
}

} // namespace

CacheCore::CacheCore(const TileCacheSettings& settings)
    // So much that sums of sizes that were compared with it do not wrap round.
    : m_maxBytes(std::min(settings.maxBytes, std::uint64_t(1) << 58)),
      m_maxFiles(std::max(settings.maxOpenFiles, 1)), m_maxLoadersOfTexture(settings.maxLoadersPerFile)
{
    m_bytes = m_peakBytes = m_fixedBytes = heapBytes(sizeof *this + alignof(CacheCore));
}

CacheCore::~CacheCore()
{
    for (TileLoader* loader = m_idle.first; loader;)
        delete std::exchange(loader, loader->newer);
    for (TextureRecord* texture = m_textures.first; texture;) {
        for (TileEntry* entry = texture->tiles; entry; entry = entry->after)
            m_tileMemory.free(entry->data, std::size_t(entry->samples()) * sampleBytes(entry->encoding));
        delete std::exchange(texture, texture->after);
    }
}

TextureRecord* CacheCore::withoutMemory()
{
    static TextureRecord record;
    record.description.store(TextureDescription::failed(IMGERR_MEMORY), std::memory_order_relaxed);
    return &record;
}

// --- Holding textures ------------------------------------------------------------------------------------

void CacheCore::hold(TextureRecord* texture)
{
    if (texture && texture->cache)
        texture->holders.fetch_add(1, std::memory_order_relaxed);
}

void CacheCore::letGo(TextureRecord* texture)
{
    if (!texture || !texture->cache)
        return;
    std::int64_t holders = texture->holders.load(std::memory_order_relaxed);
    while (holders > 1)
        if (texture->holders.compare_exchange_weak(holders, holders - 1, std::memory_order_acq_rel))
            return;
    CacheCore& cache = *texture->cache;
    const Lock lock(cache.m_mutex);
    cache.letGoLocked(*texture);
}

void CacheCore::letGoLocked(TextureRecord& texture)
{
    if (texture.holders.fetch_sub(1, std::memory_order_acq_rel) == 1)
        noteUnused(texture, false);
}

/// Queues a texture that nobody uses for being dropped.
void CacheCore::noteUnused(TextureRecord& texture, bool isOldest)
{
    if (texture.isUnused || texture.isDescribing || texture.tiles || texture.loaders != 0
        || texture.holders.load(std::memory_order_acquire) != 0)
        return;
    texture.isUnused = true;
    if (isOldest) { // The last that was kept of it was the least recently used thing at all.
        texture.unusedSince = m_unused.first ? m_unused.first->unusedSince : 0;
        m_unused.prepend(texture);
        return;
    }
    texture.unusedSince = m_clock.load(std::memory_order_relaxed);
    m_unused.append(texture);
}

void CacheCore::noteUsed(TextureRecord& texture)
{
    if (!texture.isUnused)
        return;
    m_unused.remove(texture);
    texture.isUnused = false;
}

void CacheCore::drop(TextureRecord& texture)
{
    noteUsed(texture);
    m_textures.remove(texture);
    TextureRecord** link = &m_names[texture.hash & (m_nameCount - 1)];
    while (*link != &texture)
        link = &(*link)->nextOfName;
    *link = texture.nextOfName;
    const std::uint64_t bytes = texture.bytes;
    delete &texture;
    unreserve(bytes);
    --m_counts.textures;
}

// --- Names -----------------------------------------------------------------------------------------------

TextureRecord* CacheCore::find(const char* fileName, std::size_t hash) const
{
    if (!m_names)
        return nullptr;
    TextureRecord* texture = m_names[hash & (m_nameCount - 1)];
    while (texture && (texture->hash != hash || std::strcmp(texture->fileName.get(), fileName) != 0))
        texture = texture->nextOfName;
    return texture;
}

/// Twice as many chains. May leave the lock for a while. False when there are none at all.
bool CacheCore::growNames(Lock& lock)
{
    constexpr std::size_t first = 32;
    const std::size_t count = m_nameCount == 0 ? first : m_nameCount * 2;
    if (!(m_nameCount == 0 ? reserveOrWait(lock, nameTableBytes(count))
                           : reserve(lock, nameTableBytes(count))))
        return m_nameCount != 0;
    std::unique_ptr<TextureRecord*[]> names(
        count > m_nameCount ? new (std::nothrow) TextureRecord* [count] {} : nullptr);
    if (!names) {
        unreserve(nameTableBytes(count));
        return m_nameCount != 0;
    }
    for (TextureRecord* texture = m_textures.first; texture; texture = texture->after) {
        TextureRecord*& head = names[texture->hash & (count - 1)];
        texture->nextOfName = head;
        head = texture;
    }
    m_names = std::move(names);
    m_fixedBytes += nameTableBytes(count);
    if (m_nameCount != 0) {
        unreserve(nameTableBytes(m_nameCount));
        m_fixedBytes -= nameTableBytes(m_nameCount);
    }
    m_nameCount = count;
    return true;
}

TextureRecord* CacheCore::open(const char* fileName)
{
    if (!fileName)
        return nullptr;
    const std::string_view name(fileName);
    const std::size_t hash = std::hash<std::string_view>()(name);
    const std::uint64_t bytes = recordBytes(name.size());
    Lock lock(m_mutex);
    for (;;) {
        if (TextureRecord* const known = find(fileName, hash)) {
            known->holders.fetch_add(1, std::memory_order_relaxed);
            noteUsed(*known);
            waitForDescription(lock, *known);
            return known;
        }
        if ((!hasNames() && !growNames(lock)) || !reserveOrWait(lock, bytes))
            return withoutMemory();
        if (!find(fileName, hash)) // The lock may have been left.
            break;
        unreserve(bytes);
    }
    TextureRecord* const texture = add(fileName, hash, bytes);
    if (!texture)
        return withoutMemory();
    describe(lock, *texture);
    return texture;
}

/// Held once. The bytes are reserved.
TextureRecord* CacheCore::add(const char* fileName, std::size_t hash, std::uint64_t bytes)
{
    const std::size_t length = std::strlen(fileName) + 1;
    std::unique_ptr<TextureRecord> texture(new (std::nothrow) TextureRecord);
    if (texture)
        texture->fileName.reset(new (std::nothrow) char[length]);
    if (!texture || !texture->fileName) {
        unreserve(bytes);
        return nullptr;
    }
    std::memcpy(texture->fileName.get(), fileName, length);
    texture->cache = this;
    texture->holders.store(1, std::memory_order_relaxed);
    texture->hash = hash;
    texture->bytes = bytes;
    TextureRecord*& head = m_names[hash & (m_nameCount - 1)];
    texture->nextOfName = head;
    head = texture.get();
    m_textures.prepend(*texture);
    ++m_counts.textures;
    m_clock.fetch_add(1, std::memory_order_relaxed);
    return texture.release();
}

// --- Descriptions ----------------------------------------------------------------------------------------

void CacheCore::waitForDescription(Lock& lock, const TextureRecord& texture)
{
    m_described.wait(lock, [&] { return !texture.isDescribing; });
}

/// Leaves the lock while it reads the file.
void CacheCore::describe(Lock& lock, TextureRecord& texture)
{
    texture.isDescribing = true;
    texture.isDoubtful = false;
    DescribedFile file;
    file.error = IMGERR_MEMORY;
    FileNeeds needs;
    if (takeFile(lock, FileNeeds::lookBytes)) {
        lock.unlock();
        // First: a file that changes while it is read is found to have changed later.
        const FileIdentity identity = FileIdentity::of(texture.fileName.get());
        if (identity.mayBeOpened())
            needs = FileNeeds::of(texture.fileName.get());
        else
            file.error = IMGERR_OPEN;
        lock.lock();
        giveFile(FileNeeds::lookBytes);
        texture.identity = identity;
    }
    if (needs.describingBytes != 0 && takeFile(lock, needs.describingBytes)) {
        ++m_counts.opens;
        lock.unlock();
        file = describeFile(texture.fileName.get());
        lock.lock();
        giveFile(needs.describingBytes);
    }
    install(lock, texture, file, needs);
    texture.isDescribing = false;
    m_described.notify_all();
}

void CacheCore::install(Lock& lock, TextureRecord& texture, const DescribedFile& file, const FileNeeds& needs)
{
    const auto publish = [&](const TextureDescription* description) {
        texture.description.store(description, std::memory_order_release);
    };
    if (!file.params)
        return publish(TextureDescription::failed(file.error));
    const std::uint64_t bytes = TextureDescription::bytesFor(file.params->numLevels);
    if (!reserveOrWait(lock, bytes))
        return publish(TextureDescription::failed(IMGERR_MEMORY));
    DescriptionPointer made = TextureDescription::make(*file.params, file.isExr, needs);
    const TextureDescription* description = made.get();
    // Threads may be looking at old descriptions: these are kept, and used again when they fit.
    for (const TextureDescription* old = texture.descriptions.get(); old && made; old = old->older.get())
        if (old->isLike(*made)) {
            description = old;
            made.reset();
        }
    if (made) {
        made->number = s_descriptions.fetch_add(1, std::memory_order_relaxed) + 1;
        made->older = std::move(texture.descriptions);
        texture.descriptions = std::move(made);
        texture.bytes += bytes;
    } else {
        unreserve(bytes);
    }
    if (!description)
        return publish(TextureDescription::failed(IMGERR_MEMORY));
    const IMGINFO& info = description->info;
    texture.encoding.store(
        firstEncoding(description->isExr, info.bitsPerPixel / info.numChannels), std::memory_order_relaxed);
    publish(description);
}

// --- Changes ---------------------------------------------------------------------------------------------

/// Whether the texture's file has changed; describes it anew then. Leaves the lock for a while.
bool CacheCore::refresh(Lock& lock, TextureRecord& texture)
{
    lock.unlock();
    const FileIdentity identity = FileIdentity::of(texture.fileName.get());
    lock.lock();
    waitForDescription(lock, texture);
    const bool hasChanged = identity != texture.identity || texture.isDoubtful;
    const ImgErrorCode error = texture.description.load(std::memory_order_relaxed)->error;
    // What is wrong with a file that has not changed may have been want of memory.
    const bool mayBeBetter = error == IMGERR_MEMORY || (error != IMGERR_NONE && identity.exists);
    if (!hasChanged && !mayBeBetter)
        return false;
    texture.isDescribing = true; // From here on, whoever wants a tile waits for the new description.
    ++texture.version;
    forgetTiles(texture);
    closeAllIdle(lock, texture);
    describe(lock, texture);
    return (hasChanged && error != IMGERR_MEMORY)
        || texture.description.load(std::memory_order_relaxed)->error != error;
}

int CacheCore::findChanges(std::vector<std::string>* names)
{
    const std::lock_guard changes(m_changes);
    int count = 0;
    Lock lock(m_mutex);
    for (TextureRecord* texture = m_textures.first; texture;) {
        texture->holders.fetch_add(1, std::memory_order_relaxed);
        noteUsed(*texture);
        if (refresh(lock, *texture)) {
            ++count;
            try {
                if (names)
                    names->emplace_back(texture->fileName.get());
            } catch (const std::bad_alloc&) {
                names = nullptr; // The count is right at least.
            }
        }
        TextureRecord* const next = texture->after;
        letGoLocked(*texture);
        texture = next;
    }
    return count;
}

} // namespace QUtils
