#include "rastkit/tiles.h"
#include "support/cached_tiles.h"
#include "support/exr_files.h"
#include "support/in_threads.h"
#include "support/temp_file.h"
#include "support/tiff_textures.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::PinnedTile;
using QUtils::Texture;
using QUtils::TextureWrap;
using QUtils::TileCache;
using QUtils::TileCacheSettings;

TileCacheSettings withBytes(std::uint64_t bytes)
{
    TileCacheSettings settings;
    settings.maxBytes = bytes;
    return settings;
}

/// What is asked for while other threads load tiles all the time, in memory that is too small for them.
class TileCachePressure : public testing::Test {
protected:
    TileCachePressure()
    {
        m_exr.width = m_exr.height = 512;
        m_exr.isTiled = true;
        m_exr.tiles = Imf::TileDescription(64, 64, Imf::MIPMAP_LEVELS);
        m_exr.compression = Imf::ZIP_COMPRESSION;
        m_exr.write(m_busy);
    }

    /// One tile in one level, of bytes.
    std::string writeLargeTile(unsigned size) const
    {
        TiffTexture tiff;
        tiff.width = tiff.height = tiff.tileWidth = tiff.tileHeight = size;
        tiff.levels = 1;
        tiff.write(m_dir / "large.tif");
        return m_dir / "large.tif";
    }

    /// Calls `ask` while others load. They stop when it has returned, or after a second; false then.
    bool isAnsweredMeanwhile(TileCache& cache, const std::function<void()>& ask) const
    {
        const Texture busy = cache.open(m_busy.c_str());
        EXPECT_TRUE(busy);
        std::atomic<bool> isAnswered = false, hasEnded = false;
        std::atomic<int> loaded = 0;
        inThreads(16, [&](int number) {
            if (number == 0) {
                while (loaded < 20)
                    std::this_thread::yield();
                ask();
                isAnswered = !hasEnded;
                hasEnded = true;
                return;
            }
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            std::minstd_rand random(unsigned(number) + 1);
            while (!hasEnded && std::chrono::steady_clock::now() < end)
                loaded += cache.tile(busy, int(random() % 8), int(random() % 8), 0) ? 1 : 0;
            hasEnded = true;
        });
        return isAnswered;
    }

    TempDir m_dir;
    ExrFileFacts m_exr;
    const std::string m_busy = m_dir / "busy.exr";
};

TEST_F(TileCachePressure, WhatCanNeverFitIsRefusedAtOnce)
{
    const std::string name = writeLargeTile(512);
    TileCache cache(withBytes(std::uint64_t(2500) << 10));
    const Texture large = cache.open(name.c_str());
    ASSERT_TRUE(large);
    EXPECT_TRUE(
        isAnsweredMeanwhile(cache, [&] { EXPECT_EQ(cache.tile(large, 0, 0, 0).error(), IMGERR_MEMORY); }));
    m_exr.tiles.xSize = m_exr.tiles.ySize = 512;
    m_exr.write(m_dir / "large.exr");
    EXPECT_TRUE(isAnsweredMeanwhile(
        cache, [&] { EXPECT_EQ(cache.open((m_dir / "large.exr").c_str()).error(), IMGERR_MEMORY); }));
}

TEST_F(TileCachePressure, WhatFitsAloneIsNotPassedOverByOthers)
{
    const std::string name = writeLargeTile(448);
    std::uint64_t alone = 0;
    {
        TileCache cache;
        EXPECT_TRUE(cache.tile(cache.open(name.c_str()), 0, 0, 0));
        alone = cache.statistics().peakBytes;
    }
    TileCache cache(withBytes(alone + 200 * 1024)); // Less than what the others' loaders take.
    const Texture large = cache.open(name.c_str());
    for (int round = 0; round < 3; ++round)
        EXPECT_TRUE(isAnsweredMeanwhile(cache, [&] { EXPECT_TRUE(cache.tile(large, 0, 0, 0)); }));
    EXPECT_LE(cache.statistics().peakBytes, alone + 200 * 1024);
}

// 16 bits are tried as bytes, and take four times the memory then.
TEST_F(TileCachePressure, TilesThatNeedMoreThanWasExpectedWaitForIt)
{
    TiffTexture tiff;
    tiff.width = tiff.height = 512;
    tiff.tileWidth = tiff.tileHeight = 128;
    tiff.levels = 1;
    for (const unsigned bits : { 16u, 32u }) {
        tiff.bits = bits;
        tiff.format = bits == 16 ? SAMPLEFORMAT_UINT : SAMPLEFORMAT_IEEEFP;
        const std::string name = m_dir / "wide.tif";
        tiff.write(name);
        const LoadedTexture loaded(name);
        for (const std::uint64_t kibibytes : { 1100u, 1500u }) {
            TileCache cache(withBytes(kibibytes << 10));
            const Texture texture = cache.open(name.c_str());
            // Pinned as shortly as possible: there is no room for more than one.
            inThreads(
                16, [&](int number) { static_cast<void>(cache.tile(texture, number % 4, number / 4, 0)); });
            EXPECT_EQ(cache.statistics().errors, 0u);
            for (const auto& tile : loaded.tiles)
                EXPECT_TRUE(loaded.has(cache.tile(texture, tile.tx, tile.ty, 0), tile));
            EXPECT_LE(cache.statistics().peakBytes, kibibytes << 10);
        }
    }
}

TEST_F(TileCachePressure, SamplesNeedNoRoomForTwoTilesAtOnce)
{
    m_exr.width = m_exr.height = 256;
    m_exr.tiles.xSize = m_exr.tiles.ySize = 128;
    const std::string name = m_dir / "samples.exr";
    m_exr.write(name);
    std::uint64_t enough = 0; // For one tile at a time.
    {
        TileCache cache;
        const Texture texture = cache.open(name.c_str());
        EXPECT_TRUE(cache.tile(texture, 0, 0, 0));
        enough = cache.statistics().peakBytes;
    }
    TileCache cache(withBytes(enough + 100 * 1024)); // Tiles have 128 KiB.
    const Texture texture = cache.open(name.c_str());
    std::atomic<int> refused = 0;
    inThreads(8, [&](int number) {
        std::minstd_rand random(unsigned(number) + 1);
        const auto part = [&random] { return float(random() % 1000) / 1000; };
        for (int i = 0; i < 20; ++i) {
            float rgba[4];
            refused += cache.sample(texture, part(), part(), 1.5f / 256, TextureWrap::Periodic, rgba) ? 1 : 0;
        }
    });
    EXPECT_EQ(refused, 0);
    EXPECT_LE(cache.statistics().peakBytes, enough + 100 * 1024);
}

/// A texture that is replaced again and again, with the number of its version in each pixel.
class TileCacheGenerations : public testing::Test {
protected:
    static constexpr int size = 32, tilesX = 2;

    void write(int generation) const
    {
        const bool isHalf = generation % 2 == 0;
        Imf::Header header(size, size);
        for (const char* const channel : { "R", "G", "B", "A" })
            header.channels().insert(channel, Imf::Channel(isHalf ? Imf::HALF : Imf::FLOAT));
        header.setTileDescription(Imf::TileDescription(size / tilesX, size / tilesX, Imf::MIPMAP_LEVELS));
        const std::string fresh = m_dir / "fresh.exr";
        {
            Imf::TiledOutputFile file(fresh.c_str(), header);
            std::vector<half> halfs(size * size, half(float(generation)));
            std::vector<float> floats(size * size, float(generation));
            char* const pixels
                = isHalf ? reinterpret_cast<char*>(halfs.data()) : reinterpret_cast<char*>(floats.data());
            const std::size_t bytes = isHalf ? sizeof(half) : sizeof(float);
            Imf::FrameBuffer frame;
            for (const char* const channel : { "R", "G", "B", "A" })
                frame.insert(
                    channel, Imf::Slice(isHalf ? Imf::HALF : Imf::FLOAT, pixels, bytes, bytes * size));
            file.setFrameBuffer(frame);
            for (int level = 0; level < file.numLevels(); ++level)
                file.writeTiles(0, file.numXTiles(level) - 1, 0, file.numYTiles(level) - 1, level);
        }
        std::filesystem::rename(fresh, m_name);
    }

    /// The number in a tile's pixels; -1 when they differ.
    static int generationOf(const PinnedTile& tile)
    {
        std::vector<float> row(std::size_t(tile.width()) * 4);
        tile.getRowF(0, row.data());
        const float first = row[0];
        for (int y = 0; y < tile.height(); ++y) {
            tile.getRowF(y, row.data());
            for (const float value : row)
                if (value != first)
                    return -1;
        }
        return int(first);
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "a.exr";
};

TEST_F(TileCacheGenerations, NoTileIsOfAnOlderFileThanTheOneThatWasNoticed)
{
    write(1);
    for (const std::uint64_t kibibytes : { 830u, 1300u, 100000u }) {
        TileCacheSettings settings = withBytes(kibibytes << 10);
        settings.maxOpenFiles = 3;
        TileCache cache(settings);
        const Texture texture = cache.open(m_name.c_str());
        std::atomic<int> noticed = 1, errors = 0, old = 0;
        std::atomic<bool> hasEnded = false;
        std::thread changer([&] {
            for (int generation = 2; generation < 24; ++generation) {
                write(generation);
                EXPECT_EQ(cache.findChanges(), 1);
                noticed = generation;
            }
            hasEnded = true;
        });
        inThreads(6, [&](int number) {
            std::minstd_rand random(unsigned(number) + 1);
            while (!hasEnded) {
                const int least = noticed;
                const PinnedTile tile
                    = cache.tile(texture, int(random() % tilesX), int(random() % tilesX), 0);
                errors += tile ? 0 : 1;
                old += tile && generationOf(tile) < least ? 1 : 0;
            }
        });
        changer.join();
        EXPECT_EQ(old, 0) << kibibytes;
        EXPECT_EQ(errors, 0) << kibibytes;
        EXPECT_EQ(cache.statistics().redundantDecodes, 0u);
        write(1);
    }
}

} // namespace
