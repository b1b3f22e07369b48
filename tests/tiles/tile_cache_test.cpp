#include "rastkit/tiles.h"
#include "support/cached_tiles.h"
#include "support/comma_locale.h"
#include "support/exr_files.h"
#include "support/open_files.h"
#include "support/temp_file.h"
#include "support/tiff_textures.h"

#include <ImfStringAttribute.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <climits>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <malloc.h>
#include <map>
#include <set>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::PinnedTile;
using QUtils::Texture;
using QUtils::TileCache;
using QUtils::TileCacheSettings;
using QUtils::TileCacheStatistics;
using QUtils::TileSample;
using testing::ElementsAre;

class TileCacheTest : public testing::Test {
protected:
    TileCacheTest()
    {
        m_exr.width = 45;
        m_exr.height = 29;
        m_exr.isTiled = true;
        m_exr.tiles = Imf::TileDescription(16, 8, Imf::MIPMAP_LEVELS);
    }

    std::string writeExr(const std::string& name = "a.exr") const
    {
        m_exr.write(m_dir / name);
        return m_dir / name;
    }

    std::string writeTiff(const std::string& name = "a.tif") const
    {
        m_tiff.write(m_dir / name);
        return m_dir / name;
    }

    /// Every tile is what a loader delivers, first decoded and then from memory; answers how they are kept.
    static std::set<TileSample> expectAllTiles(TileCache& cache, const std::string& name)
    {
        const LoadedTexture loaded(name);
        const Texture texture = cache.open(name.c_str());
        EXPECT_EQ(texture.error(), IMGERR_NONE);
        std::set<TileSample> samples;
        for (int round = 0; round < 2; ++round)
            for (const auto& tile : loaded.tiles) {
                const PinnedTile found = cache.tile(texture, tile.tx, tile.ty, tile.level);
                EXPECT_TRUE(loaded.has(found, tile)) << name;
                samples.insert(found.sample());
            }
        return samples;
    }

    static ImgErrorCode codeOf(
        TileCache& cache, const Texture& texture, int tx = 0, int ty = 0, int level = 0)
    {
        return cache.tile(texture, tx, ty, level).error();
    }

    ExrFileFacts m_exr;
    TiffTexture m_tiff;
    TempDir m_dir;
};

// --- Textures --------------------------------------------------------------------------------------------

TEST_F(TileCacheTest, TexturesTellWhatTheirFilesHold)
{
    TileCache cache;
    const Texture texture = cache.open(writeExr().c_str());
    EXPECT_TRUE(texture);
    EXPECT_EQ(texture.fileName(), m_dir / "a.exr");
    EXPECT_EQ(texture.width(), 45);
    EXPECT_EQ(texture.height(), 29);
    EXPECT_EQ(texture.channels(), 4);
    EXPECT_EQ(texture.tileWidth(), 16);
    EXPECT_EQ(texture.tileHeight(), 8);
    EXPECT_EQ(texture.levelCount(), 6);
    EXPECT_EQ(texture.level(1).width, 22);
    EXPECT_EQ(texture.level(1).tilesY, 2);
    EXPECT_EQ(texture.level(6).width + texture.level(-1).width + texture.level(INT_MAX).tilesX, 0);
}

TEST_F(TileCacheTest, NoTextureIsAnErrorOfItsOwn)
{
    const Texture none;
    EXPECT_EQ(none.error(), IMGERR_OPEN);
    EXPECT_STREQ(none.fileName(), "");
    EXPECT_EQ(none.width() + none.tileWidth() + none.levelCount() + none.channels(), 0);
    TileCache cache;
    EXPECT_EQ(codeOf(cache, none), IMGERR_OPEN);
    EXPECT_EQ(cache.open(nullptr).error(), IMGERR_OPEN);
    const PinnedTile tile;
    EXPECT_EQ(tile.error(), IMGERR_READ);
    EXPECT_EQ(tile.data(), nullptr);
    EXPECT_EQ(tile.width() + tile.height(), 0);
}

TEST_F(TileCacheTest, TexturesOfAnotherCacheAreAnError)
{
    TileCache cache, other;
    const Texture own = cache.open(writeExr().c_str());
    m_exr.width = 46;
    const Texture foreign = other.open(writeExr("other.exr").c_str());
    EXPECT_EQ(codeOf(cache, own), IMGERR_NONE);
    EXPECT_EQ(codeOf(cache, foreign), IMGERR_OPEN);
    EXPECT_EQ(codeOf(other, foreign), IMGERR_NONE);
    EXPECT_EQ(codeOf(cache, foreign), IMGERR_OPEN);
    EXPECT_EQ(codeOf(other, own), IMGERR_OPEN);
}

TEST_F(TileCacheTest, OneNameIsOneTexture)
{
    TileCache cache;
    const std::string name = writeExr();
    {
        const Texture first = cache.open(name.c_str());
        Texture second = cache.open(name.c_str());
        Texture third = second;
        second = Texture();
        third = std::move(second);
        EXPECT_EQ(third.error(), IMGERR_OPEN);
        EXPECT_EQ(cache.statistics().textures, 1u);
        EXPECT_EQ(cache.statistics().opens, 1u);
    }
    EXPECT_TRUE(cache.open(name.c_str())); // Is still known.
    EXPECT_EQ(cache.statistics().opens, 1u);
}

TEST_F(TileCacheTest, ContentsDecideWhereTheExtensionIsWrong)
{
    TileCache cache;
    for (const char* const name : { "a.tif", "b.tx", "c", "d.EXR" })
        EXPECT_EQ(cache.open(writeExr(name).c_str()).width(), 45) << name;
    for (const char* const name : { "e.exr", "f.tx", "g", "h.TIFF" })
        EXPECT_EQ(cache.open(writeTiff(name).c_str()).width(), 40) << name;
}

TEST_F(TileCacheTest, WhatIsNoTextureIsAnErrorThatIsKept)
{
    TileCache cache;
    EXPECT_EQ(cache.open((m_dir / "none.exr").c_str()).error(), IMGERR_READ);
    EXPECT_EQ(cache.open((m_dir / "none.tif").c_str()).error(), IMGERR_OPEN);
    EXPECT_EQ(cache.open((m_dir / "none").c_str()).error(), IMGERR_OPEN);
    writeFile(m_dir / "text", Bytes(100, 'x'));
    EXPECT_EQ(cache.open((m_dir / "text").c_str()).error(), IMGERR_FORMAT);
    m_exr.tiles.mode = Imf::ONE_LEVEL;
    const Texture flat = cache.open(writeExr("flat.exr").c_str());
    EXPECT_EQ(flat.error(), IMGERR_FORMAT);
    EXPECT_EQ(flat.levelCount(), 0);
    EXPECT_EQ(codeOf(cache, flat), IMGERR_FORMAT);
    const std::uint64_t opens = cache.statistics().opens;
    m_exr.tiles.mode = Imf::MIPMAP_LEVELS;
    writeExr("flat.exr");
    EXPECT_EQ(cache.open((m_dir / "flat.exr").c_str()).error(), IMGERR_FORMAT);
    EXPECT_EQ(cache.statistics().opens, opens);
    EXPECT_EQ(cache.findChanges(), 1);
    EXPECT_TRUE(flat);
    EXPECT_EQ(codeOf(cache, flat), IMGERR_NONE);
}

TEST_F(TileCacheTest, WhatIsNoRegularFileIsNotOpened)
{
    TileCache cache;
    for (const char* const name : { "a.exr", "a.tif", "a" }) {
        ASSERT_EQ(mkfifo((m_dir / name).c_str(), 0600), 0);
        EXPECT_EQ(cache.open((m_dir / name).c_str()).error(), IMGERR_OPEN) << name; // Waits for no writer.
    }
    EXPECT_EQ(cache.open("/dev/zero").error(), IMGERR_OPEN);
    EXPECT_EQ(cache.open(m_dir.path().c_str()).error(), IMGERR_OPEN);
    EXPECT_EQ(cache.statistics().opens, 0u);
}

// --- Tiles -----------------------------------------------------------------------------------------------

TEST_F(TileCacheTest, OpenExrTilesAreWhatTheLoaderDelivers)
{
    using Types = ExrFileFacts::PixelTypes;
    const std::pair<Types, TileSample> sets[] = {
        { { { "R", Imf::HALF }, { "G", Imf::HALF }, { "B", Imf::HALF }, { "A", Imf::HALF } },
            TileSample::Half },
        { { { "R", Imf::HALF }, { "G", Imf::HALF }, { "B", Imf::HALF } }, TileSample::Half },
        { { { "Y", Imf::HALF } }, TileSample::Half },
        { { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } }, TileSample::Float },
        { { { "Y", Imf::FLOAT }, { "A", Imf::FLOAT } }, TileSample::Float },
    };
    for (const auto& [channels, sample] : sets)
        for (const Imf::LevelRoundingMode rounding : { Imf::ROUND_DOWN, Imf::ROUND_UP }) {
            m_exr.channels = channels;
            m_exr.tiles.roundingMode = rounding;
            m_exr.left = -7;
            TileCache cache;
            EXPECT_THAT(expectAllTiles(cache, writeExr()), ElementsAre(sample));
        }
}

TEST_F(TileCacheTest, TiffTilesAreWhatTheLoaderDelivers)
{
    const auto expectSample = [&](TileSample sample) {
        TileCache cache;
        EXPECT_THAT(expectAllTiles(cache, writeTiff()), ElementsAre(sample)) << m_tiff.bits;
        m_tiff = TiffTexture();
    };
    for (const unsigned samples : { 3u, 4u }) {
        m_tiff.samples = samples;
        m_tiff.planarConfig = samples == 4 ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG;
        expectSample(TileSample::Byte);
    }
    for (const int photometric : { PHOTOMETRIC_MINISBLACK, PHOTOMETRIC_MINISWHITE, PHOTOMETRIC_PALETTE }) {
        m_tiff.samples = 1;
        m_tiff.photometric = unsigned(photometric);
        expectSample(TileSample::Byte);
    }
    m_tiff.shrinksTiles = true;
    m_tiff.tileWidth = m_tiff.tileHeight = 32;
    expectSample(TileSample::Byte);
    m_tiff.bits = 16; // Both bytes alike: the floats are those of 8 bits.
    expectSample(TileSample::Byte);
    m_tiff.bits = 32;
    m_tiff.format = SAMPLEFORMAT_IEEEFP;
    expectSample(TileSample::Float);
}

TEST_F(TileCacheTest, WhatLibtiffConvertsIsKeptInBytesToo)
{
    m_tiff.samples = 4;
    m_tiff.photometric = PHOTOMETRIC_SEPARATED;
    TileCache cache;
    EXPECT_THAT(expectAllTiles(cache, writeTiff()), ElementsAre(TileSample::Byte));
    const PinnedTile tile = cache.tile(cache.open((m_dir / "a.tif").c_str()), 0, 0, 0);
    ASSERT_TRUE(tile);
    EXPECT_EQ(tile.byteValues()[255], 255 / 256.0f); // Divided by 256, deliberately.
}

TEST_F(TileCacheTest, BytesStandForTheFloatsOfTheirTable)
{
    TileCache cache;
    const Texture texture = cache.open(writeTiff().c_str());
    const PinnedTile tile = cache.tile(texture, 1, 0, 0);
    ASSERT_TRUE(tile);
    ASSERT_NE(tile.byteValues(), nullptr);
    const auto* const bytes = static_cast<const std::uint8_t*>(tile.data());
    for (int i = 0; i < 16; ++i) {
        float rgba[4];
        tile.getPixelF(i, 3, rgba);
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(rgba[k], tile.byteValues()[bytes[(3 * 16 + i) * 4 + k]]);
        EXPECT_EQ(bytes[(3 * 16 + i) * 4 + 1], TiffTexture::numberAt(16 + unsigned(i), 3, 1, 0));
    }
    const PinnedTile half = cache.tile(cache.open(writeExr().c_str()), 0, 0, 0);
    EXPECT_EQ(half.byteValues(), nullptr);
}

TEST_F(TileCacheTest, MirroredTexturesOfSeveralTilesAreUnsupported)
{
    m_tiff.orientation = ORIENTATION_BOTLEFT;
    TileCache cache;
    const Texture texture = cache.open(writeTiff().c_str());
    EXPECT_EQ(codeOf(cache, texture), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(cache, texture, 0, 0, texture.levelCount() - 1), IMGERR_NONE);
}

TEST_F(TileCacheTest, TilesAndLevelsThatAreNotThereAreReadErrors)
{
    TileCache cache;
    const Texture texture = cache.open(writeExr().c_str());
    const std::vector<std::array<int, 3>> places
        = { { -1, 0, 0 }, { 0, -1, 0 }, { 3, 0, 0 }, { 0, 4, 0 }, { 0, 0, -1 }, { 0, 0, 6 }, { 0, 0, 64 },
              { 2, 0, 1 }, { INT_MAX, INT_MAX, 0 }, { INT_MIN, 0, INT_MAX } };
    for (const auto& [tx, ty, level] : places)
        EXPECT_EQ(codeOf(cache, texture, tx, ty, level), IMGERR_READ) << tx << ' ' << ty << ' ' << level;
    EXPECT_EQ(cache.statistics().errors, places.size());
    EXPECT_EQ(cache.statistics().misses, 0u);
}

TEST_F(TileCacheTest, ADamagedTileIsAnErrorEachTimeAndOthersAreNot)
{
    m_exr.compression = Imf::ZIP_COMPRESSION;
    const std::string name = writeExr();
    Bytes bytes = readFile(name);
    bytes.resize(bytes.size() - 30); // The smallest levels come last.
    writeFile(name, bytes);
    TileCache cache;
    const Texture texture = cache.open(name.c_str());
    const int last = texture.levelCount() - 1;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(codeOf(cache, texture, 0, 0, last), IMGERR_READ);
        EXPECT_EQ(codeOf(cache, texture, i, 0, 0), IMGERR_NONE);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(cache.statistics().errors, 3u);
    EXPECT_EQ(cache.statistics().tiles, 3u);
}

TEST_F(TileCacheTest, APipeThatReplacesAFileIsNotOpened)
{
    TileCache cache;
    const std::string name = m_dir / "a.exr";
    for (const bool isExr : { true, false }) {
        static_cast<void>(isExr ? writeExr("a.exr") : writeTiff("a.exr"));
        cache.findChanges();
        const Texture texture = cache.open(name.c_str());
        ASSERT_TRUE(texture);
        std::filesystem::remove(name);
        ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
        EXPECT_EQ(codeOf(cache, texture), IMGERR_READ); // Nobody has looked.
        EXPECT_EQ(cache.findChanges(), 1);
        EXPECT_EQ(codeOf(cache, texture), IMGERR_OPEN);
        EXPECT_EQ(cache.findChanges(), 0);
        std::filesystem::remove(name);
    }
}

// --- Hits, pins and evictions ----------------------------------------------------------------------------

TEST_F(TileCacheTest, ATileIsDecodedOnce)
{
    TileCache cache;
    const Texture texture = cache.open(writeExr().c_str());
    const void* const data = cache.tile(texture, 2, 1, 0).data();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(cache.tile(texture, 2, 1, 0).data(), data);
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_EQ(statistics.misses, 1u);
    EXPECT_EQ(statistics.hits, 10u);
    EXPECT_EQ(statistics.waits + statistics.errors + statistics.redundantDecodes + statistics.evictions, 0u);
    EXPECT_EQ(statistics.tiles, 1u);
    EXPECT_GE(statistics.tileBytes, 13u * 8 * 4 * 2);
    EXPECT_EQ(statistics.openFiles, 1u);
    EXPECT_GT(statistics.decodeSeconds, 0);
}

/// A texture of one level, whose tiles are so large that only a few fit.
class TileCacheBounds : public TileCacheTest {
protected:
    static constexpr int tileSize = 64, tilesX = 6;
    static constexpr std::uint64_t tileBytes = tileSize * tileSize * 4 * 2;

    TileCacheBounds()
    {
        m_exr.width = m_exr.height = tileSize * tilesX;
        m_exr.tiles.xSize = m_exr.tiles.ySize = tileSize;
    }

    /// What a cache takes for one tile of the texture: all that is there besides tiles, nearly.
    static std::uint64_t bytesOfOneTile(const std::string& name)
    {
        TileCache cache;
        EXPECT_EQ(codeOf(cache, cache.open(name.c_str())), IMGERR_NONE);
        return cache.statistics().bytes;
    }

    static TileCacheSettings withBytes(std::uint64_t bytes)
    {
        TileCacheSettings settings;
        settings.maxBytes = bytes;
        return settings;
    }
};

TEST_F(TileCacheBounds, TheLeastRecentlyUsedTileMakesRoom)
{
    const std::string name = writeExr();
    TileCache cache(withBytes(bytesOfOneTile(name) + 3 * tileBytes + tileBytes / 2)); // Room for four.
    const Texture texture = cache.open(name.c_str());
    for (int tx = 0; tx < 4; ++tx)
        EXPECT_EQ(codeOf(cache, texture, tx), IMGERR_NONE);
    EXPECT_EQ(cache.statistics().evictions, 0u);
    EXPECT_EQ(codeOf(cache, texture, 0), IMGERR_NONE); // So that 1 is the oldest.
    EXPECT_EQ(codeOf(cache, texture, 4), IMGERR_NONE);
    EXPECT_EQ(cache.statistics().evictions, 1u);
    const std::uint64_t misses = cache.statistics().misses;
    for (const int tx : { 0, 2, 3, 4 })
        EXPECT_EQ(codeOf(cache, texture, tx), IMGERR_NONE);
    EXPECT_EQ(cache.statistics().misses, misses);
    EXPECT_EQ(codeOf(cache, texture, 1), IMGERR_NONE);
    EXPECT_EQ(cache.statistics().misses, misses + 1);
}

TEST_F(TileCacheBounds, PinnedTilesStayAndWhatIsPinnedCannotMakeRoom)
{
    const std::string name = writeExr();
    const LoadedTexture loaded(name);
    TileCache cache(withBytes(bytesOfOneTile(name) + 2 * tileBytes + tileBytes / 2));
    const Texture texture = cache.open(name.c_str());
    std::vector<PinnedTile> pinned;
    for (int tx = 0; tx < 3; ++tx)
        pinned.push_back(cache.tile(texture, tx, 0, 0));
    // The loader makes room for one at the cost of being opened again: then nothing is left.
    PinnedTile another = cache.tile(texture, 3, 0, 0);
    EXPECT_EQ(another.error(), IMGERR_MEMORY);
    EXPECT_EQ(another.data(), nullptr);
    for (int tx = 0; tx < 3; ++tx)
        EXPECT_TRUE(loaded.has(pinned[std::size_t(tx)], { tx, 0, 0 }));
    pinned.pop_back();
    another = cache.tile(texture, 3, 0, 0);
    EXPECT_TRUE(loaded.has(another, { 3, 0, 0 }));
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_EQ(statistics.errors, 1u);
    EXPECT_LE(statistics.peakBytes, statistics.bytes + 3 * tileBytes);
}

TEST_F(TileCacheBounds, TilesMakeRoomAgainWhenTheyAreUnpinned)
{
    const std::string name = writeExr();
    TileCache cache(withBytes(bytesOfOneTile(name) + 5 * tileBytes + tileBytes / 2));
    const Texture texture = cache.open(name.c_str());
    std::vector<PinnedTile> pinned;
    for (int tx = 0; tx < tilesX; ++tx)
        pinned.push_back(cache.tile(texture, tx, 0, 0));
    for (int tx = 0; tx < tilesX; ++tx) // Nothing can be given up, however often it is tried.
        EXPECT_EQ(codeOf(cache, texture, tx, 1), IMGERR_MEMORY);
    EXPECT_EQ(codeOf(cache, texture, 2), IMGERR_NONE); // Once more, and unpinned again.
    pinned.erase(pinned.begin() + 2, pinned.begin() + 4);
    EXPECT_EQ(codeOf(cache, texture, 0, 1), IMGERR_NONE);
    pinned.clear();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(codeOf(cache, texture, i, 2), IMGERR_NONE);
    EXPECT_GE(cache.statistics().evictions, 5u);
    PinnedTile forgotten = cache.tile(texture, 0, 3, 0);
    std::vector<PinnedTile> others;
    for (int tx = 1; tx < tilesX; ++tx)
        others.push_back(cache.tile(texture, tx, 3, 0));
    EXPECT_EQ(codeOf(cache, texture, 0, 4), IMGERR_MEMORY);
    writeExr();
    EXPECT_EQ(cache.findChanges(), 1); // Now those that are pinned belong to no file.
    forgotten = PinnedTile();
    others.clear();
    EXPECT_EQ(cache.statistics().tiles, 0u);
    EXPECT_EQ(codeOf(cache, texture, 0, 4), IMGERR_NONE);
}

TEST_F(TileCacheBounds, EntriesOfTinyTilesLeaveRoomForLargeOnes)
{
    TileCache cache(withBytes(std::uint64_t(1) << 20));
    m_exr.tiles.xSize = m_exr.tiles.ySize = 2;
    m_exr.width = m_exr.height = 128;
    const std::string name = writeExr("tiny.exr");
    {
        const Texture tiny = cache.open(name.c_str());
        for (int i = 0; i < 64 * 64; ++i)
            ASSERT_EQ(codeOf(cache, tiny, i % 64, i / 64), IMGERR_NONE);
    }
    EXPECT_LT(cache.statistics().tiles, 1500u);
    m_exr.tiles.xSize = m_exr.tiles.ySize = 96;
    m_exr.width = m_exr.height = 192;
    const Texture large = cache.open(writeExr("large.exr").c_str());
    EXPECT_EQ(codeOf(cache, large), IMGERR_NONE);
    EXPECT_EQ(codeOf(cache, large, 1), IMGERR_NONE);
}

std::int64_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return std::int64_t(info.uordblks + info.hblkhd);
}

/// What an open file takes of the heap, in every compression, and with many channels.
TEST_F(TileCacheTest, NoLessIsCountedThanTheHeapGives)
{
    for (int kind = 0; kind <= Imf::NUM_COMPRESSION_METHODS; ++kind) {
        const bool hasLayers = kind == Imf::NUM_COMPRESSION_METHODS;
        m_exr.compression = hasLayers ? Imf::ZIP_COMPRESSION : Imf::Compression(kind);
        m_exr.width = m_exr.height = hasLayers ? 32 : 128;
        m_exr.tiles.xSize = m_exr.tiles.ySize = unsigned(m_exr.width);
        m_exr.channels = { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } };
        for (int i = 0; i < 150 && hasLayers; ++i)
            m_exr.channels["a rather long name of a layer, number " + std::to_string(i)] = Imf::FLOAT;
        Imf::Header header = m_exr.header();
        using namespace std::string_literals;
        header.insert("a comment",
            Imf::StringAttribute("channels\0chlist\0\0\0\0\0compression\0compression\0\1\0\0\0\0"s));
        const std::string name = m_dir / "heap.exr";
        m_exr.write(name, header);
        for (int round = 0; round < 2; ++round) { // The libraries take something for good in the first one.
            TileCache cache;
            const std::int64_t before = heapInUse();
            const std::uint64_t counted = cache.statistics().bytes;
            const Texture texture = cache.open(name.c_str());
            ASSERT_EQ(codeOf(cache, texture), IMGERR_NONE);
            ASSERT_EQ(codeOf(cache, texture, 0, 0, 1), IMGERR_NONE);
            const std::int64_t taken = round == 0 ? 0 : heapInUse() - before;
            EXPECT_LE(taken, std::int64_t(cache.statistics().bytes - counted)) << kind;
        }
    }
}

TEST_F(TileCacheTest, NoLessIsCountedForTilesInPlanesEither)
{
    TiffTexture tiff;
    tiff.width = tiff.height = 512;
    tiff.planarConfig = PLANARCONFIG_SEPARATE;
    tiff.compression = COMPRESSION_PACKBITS;
    const std::string name = m_dir / "planes.tif";
    tiff.write(name);
    for (int round = 0; round < 2; ++round) { // The library takes something for good in the first one.
        TileCache cache;
        const std::int64_t before = heapInUse();
        const std::uint64_t counted = cache.statistics().bytes;
        const Texture texture = cache.open(name.c_str());
        for (int level = 0; level < texture.levelCount(); ++level)
            ASSERT_EQ(codeOf(cache, texture, 0, 0, level), IMGERR_NONE);
        EXPECT_LE(round == 0 ? 0 : heapInUse() - before, std::int64_t(cache.statistics().bytes - counted));
        // Three planes of 1024 tiles, and of a third as many in the other levels, with 32 bytes each.
        EXPECT_GE(cache.statistics().fileBytes, std::uint64_t(352 << 10) + 3 * 1365 * 32);
    }
}

TEST_F(TileCacheTest, AFileThatChangedWithoutATraceIsFoundByItsFirstTile)
{
    const auto hideTraces = [](const std::string& name) {
        std::filesystem::resize_file(name, 1 << 20);
        std::filesystem::last_write_time(name, std::filesystem::file_time_type());
    };
    const std::string name = writeExr();
    hideTraces(name);
    TileCache cache;
    const Texture texture = cache.open(name.c_str());
    ASSERT_TRUE(texture);
    m_exr.tiles.xSize *= 2;
    std::filesystem::copy_file(
        writeExr("other.exr"), name, std::filesystem::copy_options::overwrite_existing);
    hideTraces(name);
    EXPECT_EQ(codeOf(cache, texture), IMGERR_READ);
    EXPECT_EQ(cache.findChanges(), 1);
    EXPECT_EQ(codeOf(cache, texture), IMGERR_NONE);
    EXPECT_EQ(cache.findChanges(), 0);
}

TEST_F(TileCacheBounds, TheBoundHoldsHoweverSmallItIs)
{
    const std::string name = writeExr();
    const LoadedTexture loaded(name);
    const std::uint64_t enough = bytesOfOneTile(name);
    std::map<ImgErrorCode, int> answers;
    for (const std::uint64_t bytes : { std::uint64_t(0), std::uint64_t(1), std::uint64_t(9000), enough / 2,
             enough - tileBytes, enough - 1, enough + 3 * tileBytes, enough + 20 * tileBytes }) {
        TileCache cache(withBytes(bytes));
        const Texture texture = cache.open(name.c_str());
        for (int round = 0; round < 2; ++round)
            for (const auto& tile : loaded.tiles) {
                const PinnedTile found = cache.tile(texture, tile.tx, tile.ty, tile.level);
                ++answers[found.error()];
                if (found)
                    EXPECT_TRUE(loaded.has(found, tile));
                else
                    EXPECT_EQ(found.error(), IMGERR_MEMORY);
            }
        EXPECT_LE(cache.statistics().peakBytes, bytes);
        EXPECT_LE(cache.statistics().bytes, cache.statistics().peakBytes);
    }
    EXPECT_GT(answers[IMGERR_NONE], 100);
    EXPECT_GT(answers[IMGERR_MEMORY], 100);
}

TEST_F(TileCacheBounds, ATileThatIsLargerThanTheBoundIsRefusedAndOthersAreNot)
{
    m_exr.tiles.xSize = m_exr.tiles.ySize = 384; // One tile a level, of all sizes.
    m_exr.channels = { { "Y", Imf::HALF } };
    const std::string name = writeExr();
    const std::uint64_t enough = bytesOfOneTile(name);
    TileCache cache(withBytes(enough - 600000));
    const Texture texture = cache.open(name.c_str());
    ASSERT_TRUE(texture);
    EXPECT_EQ(codeOf(cache, texture), IMGERR_MEMORY);
    EXPECT_EQ(codeOf(cache, texture, 0, 0, 2), IMGERR_NONE);
    EXPECT_EQ(codeOf(cache, texture), IMGERR_MEMORY);
}

TEST_F(TileCacheBounds, TexturesThatNobodyHoldsMakeRoom)
{
    TileCache cache(withBytes(std::uint64_t(1) << 20));
    const std::string name = writeExr();
    const Texture held = cache.open(name.c_str());
    ASSERT_EQ(codeOf(cache, held), IMGERR_NONE);
    const std::uint64_t before = cache.statistics().bytes;
    for (int i = 0; i < 20000; ++i)
        ASSERT_EQ(cache
                      .open((m_dir / "a rather long name of a texture that is not there " + std::to_string(i))
                                .c_str())
                      .error(),
            IMGERR_OPEN);
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_LE(statistics.peakBytes, std::uint64_t(1) << 20);
    EXPECT_LT(statistics.textures, 20000u);
    EXPECT_GT(statistics.textures, 100u);
    EXPECT_GT(statistics.bytes, before);
    EXPECT_EQ(codeOf(cache, held), IMGERR_NONE);
}

TEST_F(TileCacheBounds, NamesThatAreHeldAreRefusedWhenTheBoundIsReached)
{
    TileCache cache(withBytes(std::uint64_t(600) << 10));
    std::vector<Texture> held;
    std::size_t refused = 0;
    for (int i = 0; i < 3000; ++i) {
        held.push_back(cache.open((m_dir / std::to_string(i)).c_str()));
        refused += held.back().error() == IMGERR_MEMORY ? 1u : 0u;
    }
    EXPECT_GT(refused, 100u);
    EXPECT_LT(refused, 2900u);
    EXPECT_LE(cache.statistics().peakBytes, std::uint64_t(600) << 10);
    held.clear();
    EXPECT_TRUE(cache.open(writeExr().c_str()));
}

TEST_F(TileCacheTest, NoMoreFilesAreOpenThanAllowed)
{
    TileCacheSettings settings;
    settings.maxOpenFiles = 3;
    TileCache cache(settings);
    const int before = openFiles();
    std::vector<std::pair<std::string, Texture>> textures;
    for (int i = 0; i < 10; ++i) {
        const std::string name
            = i % 2 ? writeExr(std::to_string(i) + ".exr") : writeTiff(std::to_string(i) + ".tif");
        textures.emplace_back(name, cache.open(name.c_str()));
    }
    for (int round = 0; round < 3; ++round)
        for (const auto& [name, texture] : textures) {
            EXPECT_EQ(codeOf(cache, texture, round, 0, 0), IMGERR_NONE) << name;
            EXPECT_LE(openFiles(), before + 3);
        }
    const TileCacheStatistics statistics = cache.statistics();
    EXPECT_EQ(statistics.peakOpenFiles, 3u);
    EXPECT_EQ(statistics.openFiles, 3u);
    EXPECT_EQ(statistics.opens, 10u + 30u);
    EXPECT_GT(statistics.fileBytes, 3u * 128 * 1024);
}

TEST_F(TileCacheTest, EverythingIsGivenBackAtTheEnd)
{
    const int before = openFiles();
    {
        TileCache cache;
        expectAllTiles(cache, writeExr());
        expectAllTiles(cache, writeTiff());
        EXPECT_GT(openFiles(), before);
    }
    EXPECT_EQ(openFiles(), before);
}

// --- Changes ---------------------------------------------------------------------------------------------

TEST_F(TileCacheTest, NothingHasChangedAtFirst)
{
    TileCache cache;
    expectAllTiles(cache, writeExr());
    static_cast<void>(cache.open((m_dir / "none").c_str()));
    std::vector<std::string> names;
    EXPECT_EQ(cache.findChanges(&names), 0);
    EXPECT_THAT(names, ElementsAre());
    const std::uint64_t misses = cache.statistics().misses;
    expectAllTiles(cache, m_dir / "a.exr");
    EXPECT_EQ(cache.statistics().misses, misses);
}

TEST_F(TileCacheTest, AReplacedFileIsReadAnewAfterItWasNoticed)
{
    TileCache cache;
    const std::string name = writeExr(), other = writeTiff();
    const LoadedTexture old(name);
    expectAllTiles(cache, name);
    expectAllTiles(cache, other);
    const Texture texture = cache.open(name.c_str());
    const PinnedTile pinned = cache.tile(texture, 1, 1, 0);
    m_exr.width = 70;
    m_exr.tiles.xSize = 32;
    m_exr.channels = { { "Y", Imf::FLOAT } };
    writeExr("new.exr");
    std::filesystem::rename(m_dir / "new.exr", name);
    EXPECT_TRUE(old.has(cache.tile(texture, 0, 0, 0), { 0, 0, 0 }));

    std::vector<std::string> names = { "as before" };
    EXPECT_EQ(cache.findChanges(&names), 1);
    EXPECT_THAT(names, ElementsAre("as before", name));
    EXPECT_EQ(texture.width(), 70);
    EXPECT_EQ(texture.tileWidth(), 32);
    EXPECT_EQ(texture.channels(), 1);
    EXPECT_TRUE(old.has(pinned, { 1, 1, 0 }));
    expectAllTiles(cache, name);
    EXPECT_TRUE(old.has(pinned, { 1, 1, 0 }));
    EXPECT_EQ(cache.findChanges(), 0);
}

TEST_F(TileCacheTest, TilesOfAChangedFileAreFreedAtOnceOrWhenTheyAreUnpinned)
{
    TileCache cache;
    const std::string name = writeExr();
    expectAllTiles(cache, name);
    const Texture texture = cache.open(name.c_str());
    PinnedTile pinned = cache.tile(texture, 0, 0, 0);
    PinnedTile same = cache.tile(texture, 0, 0, 0);
    writeExr(); // The same again.
    EXPECT_EQ(cache.findChanges(), 1);
    EXPECT_EQ(cache.statistics().tiles, 1u);
    EXPECT_EQ(cache.statistics().openFiles, 0u);
    EXPECT_EQ(codeOf(cache, texture), IMGERR_NONE);
    EXPECT_EQ(cache.statistics().tiles, 2u);
    pinned = PinnedTile();
    EXPECT_EQ(cache.statistics().tiles, 2u);
    same = PinnedTile();
    EXPECT_EQ(cache.statistics().tiles, 1u);
    EXPECT_EQ(cache.statistics().redundantDecodes, 0u);
}

TEST_F(TileCacheTest, FilesThatWentAwayAreErrorsUntilTheyComeBack)
{
    TileCache cache;
    for (const bool isExr : { true, false }) {
        const std::string name = isExr ? writeExr() : writeTiff();
        expectAllTiles(cache, name);
        const Texture texture = cache.open(name.c_str());
        std::filesystem::remove(name);
        EXPECT_EQ(codeOf(cache, texture), IMGERR_NONE); // Nobody has looked.
        EXPECT_EQ(cache.findChanges(), 1);
        const ImgErrorCode expected = isExr ? IMGERR_READ : IMGERR_OPEN;
        EXPECT_EQ(texture.error(), expected);
        EXPECT_EQ(codeOf(cache, texture), expected);
        EXPECT_EQ(cache.findChanges(), 0);
        static_cast<void>(isExr ? writeExr() : writeTiff());
        EXPECT_EQ(texture.error(), expected);
        EXPECT_EQ(cache.findChanges(), 1);
        expectAllTiles(cache, name);
    }
}

TEST_F(TileCacheTest, ATruncatedFileIsAnErrorPerTile)
{
    for (const bool isExr : { true, false }) {
        TileCache cache;
        const std::string name = isExr ? writeExr() : writeTiff();
        const Texture texture = cache.open(name.c_str());
        std::filesystem::resize_file(name, 500);
        testing::internal::CaptureStderr();
        EXPECT_EQ(codeOf(cache, texture), IMGERR_READ);
        EXPECT_EQ(codeOf(cache, texture), IMGERR_READ);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(cache.findChanges(), 1);
        EXPECT_NE(codeOf(cache, texture), IMGERR_NONE);
        EXPECT_EQ(cache.statistics().tiles, 0u);
    }
}

TEST_F(TileCacheTest, DescriptionsThatComeAgainTakeNoMemoryAgain)
{
    TileCache cache;
    const Texture texture = cache.open(writeExr().c_str());
    std::set<std::uint64_t> sizes;
    for (int i = 0; i < 10; ++i) {
        m_exr.width = i % 2 ? 45 : 46;
        writeExr("new.exr");
        std::filesystem::rename(m_dir / "new.exr", m_dir / "a.exr");
        EXPECT_EQ(cache.findChanges(), 1);
        EXPECT_EQ(texture.width(), m_exr.width);
        if (i > 0)
            sizes.insert(cache.statistics().bytes);
    }
    EXPECT_EQ(sizes.size(), 1u);
}

// --- The report ------------------------------------------------------------------------------------------

TEST(TileCacheReport, IsOneLineOfJsonInEveryLocale)
{
    TileCacheStatistics statistics;
    statistics.hits = UINT64_MAX;
    statistics.opens = 1234567;
    statistics.decodeSeconds = 12345.25;
    const CommaLocale comma;
    const locale_t before = comma.get() ? uselocale(comma.get()) : nullptr;
    const std::string text = statistics.toJson();
    EXPECT_EQ(text.find('\n'), std::string::npos);
    const nlohmann::json json = nlohmann::json::parse(text);
    EXPECT_EQ(json.size(), 16u);
    EXPECT_EQ(json.at("hits").get<std::uint64_t>(), UINT64_MAX);
    EXPECT_EQ(json.at("opens").get<std::uint64_t>(), 1234567u);
    EXPECT_EQ(json.at("decodeSeconds").get<double>(), 12345.25);
    for (const char* const name : { "misses", "waits", "redundantDecodes", "evictions", "errors", "bytes",
             "peakBytes", "tileBytes", "fileBytes", "tiles", "textures", "openFiles", "peakOpenFiles" })
        EXPECT_EQ(json.at(name).get<std::uint64_t>(), 0u) << name;
    statistics.decodeSeconds = std::numeric_limits<double>::max();
    EXPECT_EQ(nlohmann::json::parse(statistics.toJson()).at("decodeSeconds").get<double>(),
        statistics.decodeSeconds);
    if (before)
        uselocale(before);
}

} // namespace
