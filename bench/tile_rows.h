#pragma once

#include "bench/rows.h"
#include "bench/texture_files.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace bench {

/// Bytes of the pixels of all tiles, as floats R, G, B, A: what all rows of tiles count.
std::uint64_t allTilesBytes();

/// A row "<texture>/<name>" beside "<texture>/<beside>", without a run. All of them go through all tiles of
/// all levels in one random order, once in each repetition.
Row tileRow(TextureFile& texture, const std::string& name, const std::string& beside, Goal goal);

/// How often rows of tiles that are there already go through all of them.
constexpr int hitPasses = 40;
/// A row of tiles that are there already.
Row hitRow(TextureFile& texture, const std::string& name, const std::string& beside, int threads, Goal goal);

/// OpenImageIO's single tiles, "load/openimageio" as the file has them and "load/openimageio-floats", and its
/// ImageCache. Nothing is added where the benchmark was built without it.
void addOpenImageIoTileRows(TextureFile& texture);

/// Gives free memory of the heap back to the system, so that a cache that is filled for the first time finds
/// none of that of the run before.
void forgetMemory();

/// This library's cache.
void addTileCacheRows(TextureFile& texture);

/// Has so many threads do `work(number of the thread)`; one does it itself. Whether all answered true.
template <typename Work> bool inThreads(int count, const Work& work)
{
    if (count == 1)
        return work(0);
    std::atomic<bool> isDone = true;
    std::vector<std::thread> threads;
    threads.reserve(std::size_t(count));
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            if (!work(i))
                isDone = false;
        });
    for (std::thread& thread : threads)
        thread.join();
    return isDone;
}

/// Each tile once, whichever thread comes first. `makeUse` gives a thread its function of a tile's number.
template <typename MakeUse> bool useEachTile(int threads, const MakeUse& makeUse)
{
    std::atomic<std::size_t> next = 0;
    return inThreads(threads, [&](int) {
        auto use = makeUse();
        for (std::size_t i = next++; i < allTiles().size(); i = next++)
            if (!use(i))
                return false;
        return true;
    });
}

/// All tiles `hitPasses` times by every thread, each from another place on.
template <typename MakeUse> bool useTilesAgain(int threads, const MakeUse& makeUse)
{
    return inThreads(threads, [&](int number) {
        auto use = makeUse();
        const std::size_t count = allTiles().size(),
                          first = std::size_t(number) * count / std::size_t(threads);
        for (std::size_t i = 0; i < count * hitPasses; ++i)
            if (!use((first + i) % count))
                return false;
        return true;
    });
}

} // namespace bench
