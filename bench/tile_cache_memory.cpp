// Shows that the memory of the process stays below the bound of a tile cache and a constant, however many
// textures there are and however many threads ask for tiles.
//
// usage: tile_cache_memory [textures [MiB [threads [tiles per thread]]]]
//
// Prints one JSON object, a line: what the cache itself counted, and the process's resident memory before the
// cache was made ("baselineKib"), at its highest ("peakKib"), and what of it is above both the baseline and
// the bound ("aboveBoundKib").

#include "bench/files.h"
#include "rastkit/rastkit.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using QUtils::Texture;
using QUtils::TileCache;

struct Options {
    int textures = 2000, mebibytes = 64, threads = 4, tiles = 50000;
};

// --- The textures ----------------------------------------------------------------------------------------

/// Even colours, a slope and noise, so that tiles are neither all alike nor all hard to compress.
bool writeTexture(const std::string& name, int size, int seed)
{
    QUtils::TextureSettings settings;
    settings.sample = name.ends_with(".tif") ? QUtils::TextureSample::Byte : QUtils::TextureSample::Half;
    settings.threads = 1;
    QUtils::TextureWriter writer(name.c_str(), settings);
    writer.init(size, size);
    std::vector<float> row(std::size_t(size) * 4);
    std::mt19937 random { unsigned(seed) };
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            float* const pixel = &row[std::size_t(x) * 4];
            pixel[0] = float(x) / float(size);
            pixel[1] = float(y / 16 % 2);
            pixel[2] = float(random() % 256) / 255;
            pixel[3] = 1;
        }
        writer.setRowF(0, y, size, row.data());
    }
    return writer.finish().code() == IMGERR_NONE;
}

std::vector<std::string> namesOf(int count)
{
    std::vector<std::string> names;
    names.reserve(std::size_t(count));
    for (int i = 0; i < count; ++i)
        names.push_back(bench::filePath(std::to_string(i) + (i % 2 == 0 ? ".exr" : ".tif")));
    return names;
}

/// A few different files, and links to them under as many names as there are to be textures.
bool makeTextures(const std::vector<std::string>& names)
{
    constexpr std::size_t different = 8;
    constexpr int smallest = 256;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i >= different)
            std::filesystem::create_hard_link(names[i % different], names[i]);
        else if (!writeTexture(names[i], smallest << i / 2 % 2, int(i)))
            return false;
    }
    return true;
}

/// In a process of its own, so that what it leaves on the heap does not count as the cache's.
bool makeTexturesElsewhere(const std::vector<std::string>& names)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(makeTextures(names) ? 0 : 1);
    int status = 1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// --- The memory ------------------------------------------------------------------------------------------

/// A figure of /proc/self/status in KiB.
long statusOf(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == field + ':' && status >> word)
            return std::atol(word.c_str());
    return 0;
}

/// From now on the highest figure is that of what comes.
void forgetPeak()
{
    std::ofstream("/proc/self/clear_refs") << '5';
}

// --- The load --------------------------------------------------------------------------------------------

/// Tiles of any texture and level, the larger levels more often, as they have more tiles.
bool takeTiles(TileCache& cache, const std::vector<std::string>& names, const Options& options, unsigned seed)
{
    std::mt19937 random { seed };
    const auto below = [&random](int count) { return int(random() % unsigned(count)); };
    for (int i = 0; i < options.tiles; ++i) {
        const Texture texture = cache.open(names[std::size_t(below(int(names.size())))].c_str());
        if (!texture)
            return false;
        const int number = std::min(below(texture.levelCount()), below(texture.levelCount()));
        const MipLevel level = texture.level(number);
        const QUtils::PinnedTile tile = cache.tile(texture, below(level.tilesX), below(level.tilesY), number);
        if (!tile)
            return false;
        float rgba[4];
        tile.getPixelF(tile.width() - 1, tile.height() - 1, rgba);
        if (!(rgba[0] >= 0 && rgba[0] <= 1))
            return false;
    }
    return true;
}

bool run(const Options& options, const std::vector<std::string>& names)
{
    forgetPeak();
    const long baseline = statusOf("VmRSS");
    QUtils::TileCacheSettings settings;
    settings.maxBytes = std::uint64_t(options.mebibytes) << 20;
    TileCache cache(settings);
    std::atomic<bool> isDone = true;
    std::vector<std::thread> threads;
    threads.reserve(std::size_t(options.threads));
    for (int i = 0; i < options.threads; ++i)
        threads.emplace_back([&, i] {
            if (!takeTiles(cache, names, options, unsigned(i) + 1))
                isDone = false;
        });
    for (std::thread& thread : threads)
        thread.join();

    const long peak = statusOf("VmHWM"), bound = long(options.mebibytes) * 1024;
    std::printf(
        "{\"textures\": %zu, \"threads\": %d, \"boundKib\": %ld, \"baselineKib\": %ld, \"peakKib\": %ld, "
        "\"aboveBoundKib\": %ld, \"cache\": %s}\n",
        names.size(), options.threads, bound, baseline, peak, peak - baseline - bound,
        cache.statistics().toJson().c_str());
    return isDone;
}

} // namespace

int main(int argc, char** argv)
{
    bench::removeFilesOnInterrupt();
    Options options;
    int* const values[] = { &options.textures, &options.mebibytes, &options.threads, &options.tiles };
    for (int i = 1; i < std::min(argc, 5); ++i)
        *values[i - 1] = std::max(std::atoi(argv[i]), 1);
    const std::vector<std::string> names = namesOf(options.textures);
    if (!makeTexturesElsewhere(names) || !run(options, names)) {
        std::fprintf(stderr, "tile_cache_memory: a texture or a tile could not be had\n");
        return 1;
    }
    return 0;
}
