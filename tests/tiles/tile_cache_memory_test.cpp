#include "rastkit/tiles.h"
#include "support/exr_files.h"
#include "support/ignore_leaks.h"
#include "support/open_files.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"
#include "support/tiff_textures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::Texture;
using QUtils::TextureWrap;
using QUtils::TileCache;
using testing::AnyOf;

class TileCacheMemory : public testing::Test {
protected:
    TileCacheMemory()
    {
        ExrFileFacts exr;
        exr.width = exr.height = 16;
        exr.isTiled = true;
        exr.compression = Imf::ZIP_COMPRESSION;
        exr.tiles = Imf::TileDescription(8, 8, Imf::MIPMAP_LEVELS);
        exr.write(m_exr);
        TiffTexture tiff;
        tiff.width = tiff.height = 16;
        tiff.write(m_tiff);
    }

    static ImgErrorCode use(TileCache& cache, const std::string& name)
    {
        const Texture texture = cache.open(name.c_str());
        float rgba[4];
        const ImgErrorCode error = cache.sample(texture, 0.5f, 0.5f, 0.1f, TextureWrap::Periodic, rgba);
        return error != IMGERR_NONE ? error : cache.tile(texture, 0, 0, 2).error();
    }

    /// Each request of a new cache is refused in turn; then it has memory again.
    void expectErrors(const std::string& name, std::size_t minBytes)
    {
        std::optional<TileCache> cache;
        testing::internal::CaptureStderr();
        cache.emplace();
        ASSERT_EQ(use(*cache, name), IMGERR_NONE); // What the libraries take once for good.
        cache.reset();
        const int files = openFiles();
        const IgnoreLeaks ignore; // OpenEXR forgets what it had when memory ran out.
        const int refusals = refuseEachInTurn(
            [&] {
                cache.emplace();
                return use(*cache, name);
            },
            [&](ImgErrorCode error, int position) {
                EXPECT_TRUE(error == IMGERR_NONE || position >= 0);
                EXPECT_THAT(
                    error, AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_READ, IMGERR_FORMAT, IMGERR_OPEN));
                if (position > 0) { // Not of the cache itself.
                    cache->findChanges();
                    EXPECT_EQ(use(*cache, name), IMGERR_NONE) << position;
                    EXPECT_EQ(cache->statistics().redundantDecodes, 0u);
                }
                cache.reset();
                EXPECT_EQ(openFiles(), files) << position;
            },
            minBytes);
        testing::internal::GetCapturedStderr();
        EXPECT_GT(refusals, 10);
    }

    TempDir m_dir;
    const std::string m_exr = m_dir / "a.exr", m_tiff = m_dir / "a.tif";
};

TEST_F(TileCacheMemory, RefusedMemoryIsAnErrorAndTheCacheGoesOnWithOpenExr)
{
    expectErrors(m_exr, 0);
}

TEST_F(TileCacheMemory, RefusedMemoryIsAnErrorAndTheCacheGoesOnWithTiff)
{
    // libtiff 4.5 crashes when 24 bytes are refused: see the tests of the loaders.
    expectErrors(m_tiff, 25);
}

TEST_F(TileCacheMemory, ACacheWithoutMemoryForItselfAnswersSo)
{
    std::optional<TileCache> cache;
    {
        const RefuseMemory refuse;
        cache.emplace();
    }
    EXPECT_EQ(use(*cache, m_exr), IMGERR_MEMORY);
    int x = 0, y = 0;
    const Texture texture = cache->open(m_exr.c_str());
    EXPECT_EQ(texture.error(), IMGERR_MEMORY);
    EXPECT_STREQ(texture.fileName(), "");
    EXPECT_EQ(cache->tileAt(texture, 0, 0, 0, TextureWrap::Clamp, &x, &y).error(), IMGERR_MEMORY);
    EXPECT_EQ(cache->findChanges(), 0);
    EXPECT_EQ(cache->statistics().bytes, 0u);
}

TEST_F(TileCacheMemory, ReportsAndNamesThatAreRefusedAreLeftOut)
{
    TileCache cache;
    ASSERT_EQ(use(cache, m_exr), IMGERR_NONE);
    TiffTexture().write(m_exr);
    std::vector<std::string> names;
    std::string report;
    int changes = 0;
    testing::internal::CaptureStderr();
    {
        const RefuseMemory refuse;
        changes = cache.findChanges(&names);
        report = cache.statistics().toJson();
    }
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(changes, 1);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(report, "{}");
    cache.findChanges();
    EXPECT_EQ(use(cache, m_exr), IMGERR_NONE);
}

} // namespace
