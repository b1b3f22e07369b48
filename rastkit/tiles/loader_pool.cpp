#include "rastkit/tiles/cache_core.h"

#include <algorithm>
#include <new>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace QUtils {

// A file counts as open from the moment on at which a thread is allowed to open it. It is idle, or a thread
// uses, opens or closes it and needs nothing more that it would have to wait for.

/// Waits until one more file may be opened and there are so many bytes for it. False when that will not come:
/// nobody else uses a file now.
bool CacheCore::takeFile(Lock& lock, std::uint64_t bytes)
{
    return mayFit(bytes) && tryUntilDone(lock, [&] { return tryTakeFile(lock, bytes); });
}

CacheCore::Attempt CacheCore::tryTakeFile(Lock& lock, std::uint64_t bytes)
{
    while (m_files >= m_maxFiles) {
        if (!m_idle.first)
            return Attempt::NoFile;
        closeIdle(lock, *m_idle.first);
    }
    ++m_files; // So that no other thread takes it while room is made.
    ++m_busyFiles;
    if (!reserve(lock, bytes)) {
        --m_files;
        --m_busyFiles;
        if (m_fileWaiters != 0 && m_busyFiles == 0)
            m_fileFreed.notify_all();
        return Attempt::NoMemory;
    }
    m_counts.peakOpenFiles = std::max(m_counts.peakOpenFiles, std::uint64_t(m_files));
    m_counts.fileBytes += bytes;
    return Attempt::Done;
}

void CacheCore::giveFile(std::uint64_t bytes)
{
    --m_files;
    --m_busyFiles;
    m_counts.fileBytes -= bytes;
    unreserve(bytes);
    if (m_fileWaiters != 0)
        m_fileFreed.notify_all();
}

void CacheCore::waitForFile(Lock& lock)
{
    ++m_fileWaiters;
    m_fileFreed.wait(lock);
    --m_fileWaiters;
}

/// A loader of the tile's texture, with `tileBytes` reserved. Null when all memory is pinned, or refused, or
/// the tile is forgotten meanwhile.
TileLoader* CacheCore::acquireLoader(
    Lock& lock, const TileEntry& entry, const TextureDescription& description, std::uint64_t tileBytes)
{
    TextureRecord& texture = *entry.texture;
    const std::uint64_t version = texture.version; // That of the description, but for what is forgotten.
    TileLoader* loader = nullptr;
    const auto attempt = [&] {
        if (entry.isForgotten)
            return Attempt::Pointless;
        const Attempt result = tryLoader(lock, texture, description, version, loader);
        if (result != Attempt::Done || reserve(lock, tileBytes))
            return result;
        // Nothing is held while others are waited for, and nothing old is left for others.
        if (loader->version == texture.version)
            makeIdle(*loader);
        else
            closeBusy(lock, *loader);
        return Attempt::NoMemory;
    };
    if (!mayFit(description.loaderBytes() + tileBytes))
        return nullptr;
    return tryUntilDone(lock, attempt) ? loader : nullptr;
}

CacheCore::Attempt CacheCore::tryLoader(Lock& lock, TextureRecord& texture,
    const TextureDescription& description, std::uint64_t version, TileLoader*& loader)
{
    loader = takeIdle(texture, version);
    if (loader)
        return Attempt::Done;
    if (m_maxLoadersOfTexture > 0 && texture.loaders >= m_maxLoadersOfTexture)
        return Attempt::NoFile;
    const std::uint64_t bytes = heapBytes(sizeof(TileLoader)) + description.loaderBytes();
    ++texture.loaders; // Keeps others from opening too many while room is made.
    const Attempt result = tryTakeFile(lock, bytes);
    if (result != Attempt::Done) {
        --texture.loaders;
        return result;
    }
    loader = new (std::nothrow) TileLoader;
    if (!loader) {
        --texture.loaders;
        giveFile(bytes);
        return Attempt::Pointless;
    }
    loader->texture = &texture;
    loader->description = &description;
    loader->version = version;
    loader->bytes = bytes;
    return Attempt::Done;
}

/// One of that version of the file, or null.
TileLoader* CacheCore::takeIdle(TextureRecord& texture, std::uint64_t version)
{
    TileLoader* loader = texture.idle;
    while (loader && loader->version != version)
        loader = loader->after;
    if (loader)
        takeIdle(*loader);
    return loader;
}

void CacheCore::takeIdle(TileLoader& loader)
{
    (loader.before ? loader.before->after : loader.texture->idle) = loader.after;
    if (loader.after)
        loader.after->before = loader.before;
    m_idle.remove(loader);
    ++m_busyFiles;
}

/// Does not tell those who wait for a file.
void CacheCore::makeIdle(TileLoader& loader)
{
    TextureRecord& texture = *loader.texture;
    loader.before = nullptr;
    loader.after = texture.idle;
    if (texture.idle)
        texture.idle->before = &loader;
    texture.idle = &loader;
    loader.idleSince = m_clock.load(std::memory_order_relaxed);
    m_idle.append(loader);
    --m_busyFiles;
}

void CacheCore::releaseLoader(Lock& lock, TileLoader& loader, bool isGood)
{
    if (!isGood || loader.version != loader.texture->version) {
        closeBusy(lock, loader);
        return;
    }
    makeIdle(loader);
    if (m_fileWaiters != 0)
        m_fileFreed.notify_all();
}

/// Leaves the lock for a while.
void CacheCore::closeIdle(Lock& lock, TileLoader& loader)
{
    takeIdle(loader);
    closeBusy(lock, loader);
}

void CacheCore::closeBusy(Lock& lock, TileLoader& loader)
{
    TextureRecord& texture = *loader.texture;
    const std::uint64_t bytes = loader.bytes;
    lock.unlock();
    delete &loader;
    trimHeap();
    lock.lock();
    --texture.loaders;
    giveFile(bytes);
    noteUnused(texture, true);
}

/// Files are opened in one thread and closed in another, and the heap keeps for each thread the most that it
/// ever had. So what is free goes back to the system now and then: seldom enough to cost little beside
/// opening files.
void CacheCore::trimHeap()
{
#ifdef __GLIBC__
    constexpr unsigned often = 64;
    if ((m_closedFiles.fetch_add(1, std::memory_order_relaxed) + 1) % often == 0)
        malloc_trim(0);
#endif
}

void CacheCore::closeAllIdle(Lock& lock, TextureRecord& texture)
{
    while (TileLoader* const loader = texture.idle) {
        texture.idle = loader->after;
        if (loader->after)
            loader->after->before = nullptr;
        m_idle.remove(*loader);
        ++m_busyFiles;
        closeBusy(lock, *loader);
    }
}

} // namespace QUtils
