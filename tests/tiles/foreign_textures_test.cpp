// Textures that another program has made.

#include "rastkit/save.h"
#include "rastkit/tile_cache.h"
#include "support/cached_tiles.h"
#include "support/run_program.h"
#include "support/texture_reading.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using namespace testing_support;

constexpr const char* maketx = "/usr/bin/maketx";
constexpr int width = 256, height = 128;

class ForeignTextures : public testing::Test {
protected:
    void SetUp() override
    {
        if (access(maketx, X_OK) != 0)
            GTEST_SKIP() << "maketx is not installed";
        std::vector<unsigned int> pixels;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const unsigned int red = unsigned(x), green = unsigned(2 * y), blue = unsigned(x * y) & 0xFF;
                pixels.push_back(0xFF000000u | red << 16 | green << 8 | blue);
                const double values[] = { red / 255.0, green / 255.0, blue / 255.0, 1 };
                std::copy_n(values, 4, m_source.samples.end() - long(width * height - y * width - x) * 4);
            }
        IMGINFO info {};
        info.width = width;
        info.height = height;
        info.numChannels = 4;
        info.bytesPerPixel = 4;
        info.bitsPerPixel = 32;
        ASSERT_EQ(SaveImageFile(m_in.c_str(), &info, pixels.data()).code(), IMGERR_NONE);
    }

    /// A texture with tiles of 32 x 32 and levels of means.
    std::string make(const std::string& name, Program::Arguments options)
    {
        const std::string out = m_dir / name;
        options.insert(options.end(), { "--tile", "32", "32", "--filter", "box", m_in, "-o", out });
        const ProgramResult result = Program(maketx, options).wait();
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return out;
    }

    void expectLevels(const std::string& name)
    {
        Plane expected = m_source;
        const std::vector<Plane> levels = readLevels(name);
        ASSERT_EQ(levels.size(), 9u) << name;
        for (const Plane& level : levels) {
            ASSERT_EQ(level.width, expected.width);
            ASSERT_EQ(level.height, expected.height);
            double worst = 0;
            for (std::size_t i = 0; i < level.samples.size(); ++i)
                worst = std::max(worst, std::abs(level.samples[i] - expected.samples[i]));
            EXPECT_LE(worst, 1.01 / 255)
                << name << ' ' << level.width; // Levels are rounded to bytes or halfs.
            expected = MipReference().shrink(expected);
        }
    }

    /// The cache has the pixels of the loader, every tile of every level.
    void expectCached(const std::string& name)
    {
        const LoadedTexture loaded(name);
        QUtils::TileCache cache;
        const QUtils::Texture texture = cache.open(name.c_str());
        ASSERT_EQ(texture.error(), IMGERR_NONE);
        for (const LoadedTexture::Tile& tile : loaded.tiles)
            EXPECT_TRUE(loaded.has(cache.tile(texture, tile.tx, tile.ty, tile.level), tile)) << name;
        EXPECT_EQ(cache.statistics().misses, loaded.tiles.size());
    }

    TempDir m_dir;
    const std::string m_in = m_dir / "in.tga";
    Plane m_source { width, height, 4 };
};

TEST_F(ForeignTextures, OpenExrOfMaketxIsReadTileByTile)
{
    for (const char* const compression : { "zip", "piz", "none" }) {
        const std::string name
            = make("a.exr", { "--format", "openexr", "-d", "half", "--compression", compression });
        expectLevels(name);
        expectCached(name);
    }
}

TEST_F(ForeignTextures, TiffOfMaketxIsReadTileByTile)
{
    for (const char* const depth : { "uint8", "uint16", "float" })
        for (const char* const compression : { "zip", "lzw" }) {
            const std::string name = make("a.tif", { "-d", depth, "--compression", compression });
            expectLevels(name);
            expectCached(name);
        }
}

} // namespace
