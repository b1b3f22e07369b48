#include "rastkit/tiles.h"
#include "support/cached_tiles.h"
#include "support/exr_files.h"
#include "support/in_threads.h"
#include "support/open_files.h"
#include "support/temp_file.h"
#include "support/tiff_textures.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::PinnedTile;
using QUtils::Texture;
using QUtils::TileCache;
using QUtils::TileCacheSettings;
using QUtils::TileCacheStatistics;

class TileCacheThreads : public testing::Test {
protected:
    static constexpr int threadCount = 16;

    TileCacheThreads()
    {
        m_exr.width = m_exr.height = 96;
        m_exr.isTiled = true;
        m_exr.tiles = Imf::TileDescription(16, 16, Imf::MIPMAP_LEVELS);
        m_exr.compression = Imf::ZIP_COMPRESSION;
        m_tiff.width = m_tiff.height = 96;
    }

    /// Several textures of both formats, and what loaders deliver of them.
    void write(int count)
    {
        for (int i = 0; i < count; ++i) {
            const std::string name = m_dir / (std::to_string(i) + (i % 2 ? ".tif" : ".exr"));
            if (i % 2)
                m_tiff.write(name);
            else
                m_exr.write(name);
            m_names.push_back(name);
            m_loaded.push_back(std::make_unique<LoadedTexture>(name));
        }
    }

    std::uint64_t tileCount() const
    {
        std::uint64_t count = 0;
        for (const auto& loaded : m_loaded)
            count += loaded->tiles.size();
        return count;
    }

    /// Each thread asks for `count` tiles in an order of its own, and looks at them. Answers how many were
    /// refused for want of memory; anything else that is wrong fails.
    std::uint64_t askAtRandom(TileCache& cache, int count) const
    {
        std::atomic<std::uint64_t> refused = 0;
        std::atomic<int> wrong = 0;
        inThreads(threadCount, [&](int number) {
            std::minstd_rand random(unsigned(number) + 1);
            std::vector<Texture> textures;
            for (int i = 0; i < count; ++i) {
                const std::size_t which = random() % m_names.size();
                const Texture texture = cache.open(m_names[which].c_str());
                const auto& tiles = m_loaded[which]->tiles;
                const auto& tile = tiles[random() % tiles.size()];
                const PinnedTile found = cache.tile(texture, tile.tx, tile.ty, tile.level);
                if (found.error() == IMGERR_MEMORY)
                    ++refused;
                else if (!m_loaded[which]->has(found, tile))
                    ++wrong;
            }
        });
        EXPECT_EQ(wrong, 0);
        return refused;
    }

    /// Replaces a file by another one, takes it away or cuts it short.
    void change(int i) const
    {
        const std::string& name = m_names[std::size_t(i) % m_names.size()];
        std::error_code ignored;
        if (i % 5 == 3)
            std::filesystem::remove(name, ignored);
        else if (i % 5 == 4 && std::filesystem::exists(name))
            std::filesystem::resize_file(name, 700, ignored);
        else {
            ExrFileFacts facts = m_exr;
            facts.width = 40 + i;
            facts.tiles.xSize = i % 2 ? 16 : 32;
            facts.write(m_dir / "new");
            std::filesystem::rename(m_dir / "new", name, ignored);
        }
    }

    static std::uint64_t answers(const TileCacheStatistics& statistics)
    {
        return statistics.hits + statistics.misses + statistics.waits + statistics.errors;
    }

    ExrFileFacts m_exr;
    TiffTexture m_tiff;
    TempDir m_dir;
    std::vector<std::string> m_names;
    std::vector<std::unique_ptr<LoadedTexture>> m_loaded;
};

TEST_F(TileCacheThreads, EachTileIsDecodedOnceWhenAllFit)
{
    write(4);
    TileCache cache;
    EXPECT_EQ(askAtRandom(cache, 600), 0u);
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_EQ(answers(statistics), 600u * threadCount);
    EXPECT_EQ(statistics.misses, statistics.tiles);
    EXPECT_EQ(statistics.tiles, tileCount());
    EXPECT_EQ(statistics.redundantDecodes + statistics.evictions + statistics.errors, 0u);
    EXPECT_EQ(statistics.textures, 4u);
}

TEST_F(TileCacheThreads, TheBoundsHoldWhileTilesAreEvicted)
{
    write(6);
    TileCacheSettings settings;
    settings.maxBytes = std::uint64_t(900) << 10; // Of two loaders and some tiles.
    settings.maxOpenFiles = 2;
    settings.maxLoadersPerFile = 2;
    TileCache cache(settings);
    const int files = openFiles();
    std::atomic<bool> ended = false;
    std::atomic<int> most = 0;
    std::thread watcher([&] {
        while (!ended) {
            most = std::max(most.load(), openFiles());
            std::this_thread::yield();
        }
    });
    EXPECT_EQ(askAtRandom(cache, 150), 0u);
    ended = true;
    watcher.join();
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_EQ(answers(statistics), 150u * threadCount);
    EXPECT_LE(statistics.peakBytes, settings.maxBytes);
    EXPECT_GT(statistics.evictions, 50u);
    EXPECT_LE(statistics.peakOpenFiles, 2u);
    EXPECT_LE(most, files + 2 + 1); // And the watcher's own.
    EXPECT_EQ(statistics.redundantDecodes, 0u);
}

TEST_F(TileCacheThreads, ABoundThatIsTooSmallForAllRefusesAndNeverHangs)
{
    write(4);
    for (const std::uint64_t kibibytes : { 100u, 500u, 540u, 600u, 1100u }) {
        TileCacheSettings settings;
        settings.maxBytes = kibibytes << 10;
        settings.maxOpenFiles = 1;
        TileCache cache(settings);
        const std::uint64_t refused = askAtRandom(cache, 20);
        const TileCacheStatistics statistics = cache.statistics();
        EXPECT_EQ(answers(statistics), 20u * threadCount);
        EXPECT_EQ(statistics.errors, refused);
        EXPECT_LE(statistics.peakBytes, settings.maxBytes);
        EXPECT_LE(statistics.peakOpenFiles, 1u);
        EXPECT_EQ(statistics.redundantDecodes, 0u);
    }
}

/// With one tile so large that decoding takes long.
class SlowTile : public TileCacheThreads {
protected:
    SlowTile()
    {
        m_exr.width = m_exr.height = 512;
        m_exr.tiles.xSize = m_exr.tiles.ySize = 512;
        m_exr.compression = Imf::PIZ_COMPRESSION;
        write(2);
    }
};

TEST_F(SlowTile, OneThreadDecodesAndTheOthersWait)
{
    std::uint64_t waits = 0;
    for (int attempt = 0; attempt < 20 && waits == 0; ++attempt) {
        TileCache cache;
        const Texture texture = cache.open(m_names[0].c_str());
        std::barrier start(4);
        inThreads(4, [&](int) {
            start.arrive_and_wait();
            EXPECT_TRUE(m_loaded[0]->has(cache.tile(texture, 0, 0, 0), { 0, 0, 0 }));
        });
        const TileCacheStatistics statistics = cache.statistics();
        EXPECT_EQ(statistics.misses, 1u);
        EXPECT_EQ(statistics.waits + statistics.hits, 3u);
        EXPECT_EQ(statistics.redundantDecodes, 0u);
        waits = statistics.waits;
    }
    EXPECT_GT(waits, 0u);
}

TEST_F(SlowTile, OtherTilesAreDecodedMeanwhile)
{
    int overtaken = 0;
    for (int attempt = 0; attempt < 20 && overtaken == 0; ++attempt) {
        TileCache cache;
        const Texture slow = cache.open(m_names[0].c_str()), quick = cache.open(m_names[1].c_str());
        std::atomic<bool> started = false, ended = false;
        std::thread decoder([&] {
            started = true;
            EXPECT_TRUE(cache.tile(slow, 0, 0, 0));
            ended = true;
        });
        while (!started || (cache.statistics().openFiles == 0 && !ended))
            std::this_thread::yield();
        EXPECT_TRUE(cache.tile(quick, 1, 1, 0)); // Of another file.
        EXPECT_TRUE(cache.tile(slow, 0, 0, 5)); // Of the same one.
        overtaken += ended ? 0 : 1;
        decoder.join();
        EXPECT_EQ(cache.statistics().misses, 3u);
    }
    EXPECT_GT(overtaken, 0);
}

TEST_F(SlowTile, AFileThatChangesWhileATileIsDecodedIsNotMixedUp)
{
    const LoadedTexture old(m_names[0]);
    m_exr.channels = { { "Y", Imf::HALF } };
    m_exr.tiles.xSize = 256;
    const std::string other = m_dir / "other.exr";
    m_exr.write(other);
    const LoadedTexture changed(other);
    TileCache cache;
    const Texture texture = cache.open(m_names[0].c_str());
    std::atomic<bool> started = false;
    PinnedTile found;
    std::thread decoder([&] {
        started = true;
        found = cache.tile(texture, 0, 0, 0);
    });
    while (!started || cache.statistics().openFiles == 0)
        std::this_thread::yield();
    std::filesystem::rename(other, m_names[0]);
    EXPECT_EQ(cache.findChanges(), 1);
    EXPECT_TRUE(changed.has(cache.tile(texture, 0, 0, 0), { 0, 0, 0 }));
    decoder.join();
    EXPECT_TRUE(old.has(found, { 0, 0, 0 }) || changed.has(found, { 0, 0, 0 }));
    found = PinnedTile();
    EXPECT_EQ(cache.statistics().tiles, 1u); // The old one was not kept.
}

// Threads go on with tiles, samples and names while files are replaced, cut short and taken away, and changes
// are looked for.
TEST_F(TileCacheThreads, FilesMayChangeAtAnyTime)
{
    write(3);
    TileCacheSettings settings;
    settings.maxBytes = std::uint64_t(3) << 20;
    settings.maxOpenFiles = 5;
    TileCache cache(settings);
    std::atomic<bool> ended = false;
    testing::internal::CaptureStderr();
    std::thread changer([&] {
        for (int i = 0; i < 30; ++i) {
            change(i);
            EXPECT_GE(cache.findChanges(), 0);
        }
        ended = true;
    });
    std::atomic<std::uint64_t> asked = 0, found = 0;
    inThreads(6, [&](int number) {
        std::minstd_rand random(unsigned(number) + 1);
        const auto part = [&random] { return float(random() % 1000) / 1000; };
        while (!ended) {
            const Texture texture = cache.open(m_names[random() % m_names.size()].c_str());
            const PinnedTile first
                = cache.tile(texture, int(random() % 5), int(random() % 5), int(random() % 3));
            float rgba[4];
            int x = 0, y = 0;
            const ImgErrorCode error
                = cache.sample(texture, part(), part(), 0, QUtils::TextureWrap::Clamp, rgba);
            const PinnedTile at
                = cache.tileAt(texture, part(), part(), part(), QUtils::TextureWrap::Periodic, &x, &y);
            if (at)
                at.getPixelF(x, y, rgba);
            if (first)
                first.getPixelF(first.width() - 1, first.height() - 1, rgba);
            ++asked;
            found += (first ? 1u : 0u) + (error == IMGERR_NONE ? 1u : 0u) + (at ? 1u : 0u);
        }
    });
    changer.join();
    testing::internal::GetCapturedStderr();
    EXPECT_GT(found, 0u);
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_LE(statistics.peakBytes, settings.maxBytes);
    EXPECT_LE(statistics.peakOpenFiles, 5u);
    EXPECT_EQ(statistics.redundantDecodes, 0u);
    for (const std::string& name : m_names)
        m_exr.write(name);
    cache.findChanges();
    for (std::size_t i = 0; i < m_names.size(); i += 2) // Those that were OpenEXR files from the beginning.
        for (const auto& tile : m_loaded[i]->tiles)
            EXPECT_TRUE(m_loaded[i]->has(
                cache.tile(cache.open(m_names[i].c_str()), tile.tx, tile.ty, tile.level), tile));
}

TEST_F(TileCacheThreads, TilesMayBeGivenToOtherThreads)
{
    write(1);
    TileCache cache;
    const Texture texture = cache.open(m_names[0].c_str());
    PinnedTile tile = cache.tile(texture, 1, 2, 0);
    std::thread([&, taken = std::move(tile)] { EXPECT_TRUE(m_loaded[0]->has(taken, { 1, 2, 0 })); }).join();
    EXPECT_FALSE(tile);
}

} // namespace
