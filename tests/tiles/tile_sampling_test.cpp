#include "rastkit/tiles.h"
#include "support/cached_tiles.h"
#include "support/exr_files.h"
#include "support/in_threads.h"
#include "support/temp_file.h"
#include "support/tiff_textures.h"

#include <ImfArray.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <limits>
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
using QUtils::TextureWrap;
using QUtils::TileCache;
using Values = std::array<double, 4>;

constexpr TextureWrap allWraps[]
    = { TextureWrap::Clamp, TextureWrap::Periodic, TextureWrap::Mirror, TextureWrap::Black };

/// A number of a pixel in a row of `size`, or -1 for black.
int wrapIndex(long index, int size, TextureWrap wrap)
{
    switch (wrap) {
    case TextureWrap::Clamp: return int(std::clamp(index, 0L, long(size) - 1));
    case TextureWrap::Periodic: return int((index % size + size) % size);
    case TextureWrap::Mirror: {
        const long folded = (index % (2L * size) + 2L * size) % (2L * size);
        return int(folded < size ? folded : 2L * size - 1 - folded);
    }
    case TextureWrap::Black: break;
    }
    return index >= 0 && index < size ? int(index) : -1;
}

/// The same as TileCache::sample, pixel by pixel.
class PlainSampler {
public:
    explicit PlainSampler(const std::string& name) : m_texture(name) { }

    Values sample(double s, double t, double width, TextureWrap wrap) const
    {
        const int last = int(m_texture.levels.size()) - 1;
        if (width <= pixelSize(0))
            return bilinear(s, t, 0, wrap);
        int level = 0;
        while (level < last && width >= pixelSize(level + 1))
            ++level;
        const Values fine = bilinear(s, t, level, wrap);
        if (level == last)
            return fine;
        const Values coarse = bilinear(s, t, level + 1, wrap);
        return mix(fine, coarse,
            std::log2(width / pixelSize(level)) / std::log2(pixelSize(level + 1) / pixelSize(level)));
    }

    double pixelSize(int level) const
    {
        const MipLevel& shape = m_texture.levels[std::size_t(level)];
        return 1.0 / std::max(shape.width, shape.height);
    }

    const LoadedTexture& texture() const { return m_texture; }

private:
    static Values mix(const Values& a, const Values& b, double weight)
    {
        Values mixed;
        for (std::size_t i = 0; i < 4; ++i)
            mixed[i] = a[i] * (1 - weight) + b[i] * weight;
        return mixed;
    }

    Values pixel(long x, long y, int level, TextureWrap wrap) const
    {
        const MipLevel& shape = m_texture.levels[std::size_t(level)];
        const int px = wrapIndex(x, shape.width, wrap), py = wrapIndex(y, shape.height, wrap);
        Values values {};
        if (px >= 0 && py >= 0)
            std::copy_n(m_texture.pixel(px, py, level), 4, values.begin());
        return values;
    }

    Values bilinear(double s, double t, int level, TextureWrap wrap) const
    {
        const MipLevel& shape = m_texture.levels[std::size_t(level)];
        const double x = s * shape.width - 0.5, y = t * shape.height - 0.5;
        const long left = long(std::floor(x)), top = long(std::floor(y));
        const auto row = [&](long number) {
            return mix(
                pixel(left, number, level, wrap), pixel(left + 1, number, level, wrap), x - double(left));
        };
        return mix(row(top), row(top + 1), y - double(top));
    }

    LoadedTexture m_texture;
};

class TileSampling : public testing::Test {
protected:
    std::string writeExr(Imf::PixelType type = Imf::HALF)
    {
        ExrFileFacts facts;
        facts.width = 37;
        facts.height = 22;
        facts.isTiled = true;
        facts.tiles = Imf::TileDescription(8, 5, Imf::MIPMAP_LEVELS);
        facts.channels = { { "R", type }, { "G", type }, { "B", type }, { "A", type } };
        facts.write(m_dir / "a.exr");
        return m_dir / "a.exr";
    }

    std::string writeTiff()
    {
        TiffTexture().write(m_dir / "a.tif");
        return m_dir / "a.tif";
    }

    /// Level by level, R is s and G is t at the centre of each pixel, B the level and A 1.
    /// The pixel (2, 1) of level 0 is `peak` times that.
    std::string writeRamp(int size, int tileSize, float peak = 1)
    {
        const std::string name = m_dir / "ramp.exr";
        Imf::Header header(size, size);
        for (const char* const channel : { "R", "G", "B", "A" })
            header.channels().insert(channel, Imf::Channel(Imf::FLOAT));
        header.setTileDescription(
            Imf::TileDescription(unsigned(tileSize), unsigned(tileSize), Imf::MIPMAP_LEVELS));
        Imf::TiledOutputFile file(name.c_str(), header);
        for (int level = 0; level < file.numLevels(); ++level) {
            const int width = file.levelWidth(level);
            std::vector<float> pixels;
            for (int y = 0; y < width; ++y)
                for (int x = 0; x < width; ++x)
                    pixels.insert(pixels.end(),
                        { (float(x) + 0.5f) / float(width), (float(y) + 0.5f) / float(width), float(level),
                            1 });
            if (level == 0)
                pixels[std::size_t(width + 2) * 4] *= peak;
            Imf::FrameBuffer frame;
            const std::size_t pixelBytes = 4 * sizeof(float);
            for (std::size_t i = 0; i < 4; ++i)
                frame.insert(std::string(1, "RGBA"[i]),
                    Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(pixels.data() + i), pixelBytes,
                        pixelBytes * std::size_t(width)));
            file.setFrameBuffer(frame);
            file.writeTiles(0, file.numXTiles(level) - 1, 0, file.numYTiles(level) - 1, level);
        }
        return name;
    }

    void expectSample(
        const Texture& texture, const PlainSampler& plain, float s, float t, float width, TextureWrap wrap)
    {
        float rgba[4];
        ASSERT_EQ(m_cache.sample(texture, s, t, width, wrap, rgba), IMGERR_NONE);
        const Values expected = plain.sample(s, t, width, wrap);
        for (std::size_t i = 0; i < 4; ++i)
            ASSERT_NEAR(rgba[i], expected[i], 2e-4) << s << ' ' << t << ' ' << width << ' ' << int(wrap);
    }

    TempDir m_dir;
    TileCache m_cache;
};

TEST_F(TileSampling, IsWhatPlainArithmeticGives)
{
    for (const std::string& name : { writeExr(), writeTiff() }) {
        const PlainSampler plain(name);
        const Texture texture = m_cache.open(name.c_str());
        std::minstd_rand random(7);
        const auto number = [&random](float from, float to) {
            return from + (to - from) * float(random() % 100003) / 100003;
        };
        for (const TextureWrap wrap : allWraps)
            for (int i = 0; i < 500; ++i) {
                const float range = i % 2 ? 0.0f : 1.5f;
                expectSample(texture, plain, number(-range, 1 + range), number(-range, 1 + range),
                    std::exp2(number(-7, 1)), wrap);
            }
    }
}

TEST_F(TileSampling, ReproducesARampBetweenTheCentresOfPixels)
{
    const Texture texture = m_cache.open(writeRamp(64, 16).c_str());
    ASSERT_TRUE(texture);
    for (int i = 0; i < 300; ++i) {
        const float s = 0.13f + 0.0025f * float(i), t = 0.88f - 0.0025f * float(i);
        for (const float width : { 0.0f, 1 / 64.0f, 1 / 50.0f, 1 / 32.0f, 1 / 11.0f }) {
            float rgba[4];
            ASSERT_EQ(m_cache.sample(texture, s, t, width, TextureWrap::Clamp, rgba), IMGERR_NONE);
            ASSERT_NEAR(rgba[0], s, 1e-5) << width;
            ASSERT_NEAR(rgba[1], t, 1e-5) << width;
            ASSERT_NEAR(rgba[2], std::max(0.0f, std::log2(width * 64)), 1e-5) << width;
            ASSERT_EQ(rgba[3], 1);
        }
    }
}

TEST_F(TileSampling, TheLevelFollowsTheWidth)
{
    const Texture texture = m_cache.open(writeRamp(64, 16).c_str());
    const std::pair<float, float> levels[] = { { -1.0f, 0.0f }, { 0.0f, 0.0f }, { 1e-30f, 0.0f },
        { 1 / 64.0f, 0.0f }, { 1 / 16.0f, 2.0f }, { std::exp2(-3.5f), 2.5f }, { 0.5f, 5.0f }, { 1.0f, 6.0f },
        { 9.0f, 6.0f }, { std::numeric_limits<float>::infinity(), 6.0f },
        { std::numeric_limits<float>::quiet_NaN(), 0.0f } };
    for (const auto& [width, level] : levels) {
        float rgba[4];
        EXPECT_EQ(m_cache.sample(texture, 0.5f, 0.5f, width, TextureWrap::Mirror, rgba), IMGERR_NONE);
        EXPECT_NEAR(rgba[2], level, 1e-5) << width;
        int x = -1, y = -1;
        const PinnedTile tile = m_cache.tileAt(texture, 0.5f, 0.5f, width, TextureWrap::Mirror, &x, &y);
        ASSERT_TRUE(tile);
        tile.getPixelF(x, y, rgba);
        EXPECT_NEAR(rgba[2], level, 0.5f) << width;
    }
}

TEST_F(TileSampling, CoordinatesThatAreNoNumbersAreSafe)
{
    const Texture texture = m_cache.open(writeExr().c_str());
    constexpr float inf = std::numeric_limits<float>::infinity(),
                    nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float most = std::numeric_limits<float>::max();
    for (const TextureWrap wrap : allWraps)
        for (const float s :
            { inf, -inf, nan, most, -most, 1e20f, -3e9f, 1e-45f, -1e-45f, 16777217.0f, 0.99999994f })
            for (const float t : { s, 0.25f })
                for (const float width : { 0.0f, 0.3f, nan, inf, -inf, most }) {
                    float rgba[4];
                    EXPECT_EQ(m_cache.sample(texture, s, t, width, wrap, rgba), IMGERR_NONE);
                    for (const float value : rgba)
                        EXPECT_TRUE(value >= 0 && value <= 97 / 64.0f) << s << ' ' << t << ' ' << width;
                    int x = -1, y = -1;
                    const PinnedTile tile = m_cache.tileAt(texture, s, t, width, wrap, &x, &y);
                    EXPECT_EQ(tile.error(), IMGERR_NONE);
                    EXPECT_TRUE(!tile || (x >= 0 && x < tile.width() && y >= 0 && y < tile.height()));
                }
    float rgba[4];
    EXPECT_EQ(m_cache.sample(texture, inf, 0.5f, 0, TextureWrap::Black, rgba), IMGERR_NONE);
    EXPECT_EQ(rgba[0] + rgba[3], 0);
}

TEST_F(TileSampling, NoTileIsAtABlackPlaceWhateverTheOtherCoordinateIs)
{
    const Texture texture = m_cache.open(writeExr().c_str());
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    int x = 0, y = 0;
    for (const float outside : { -1.0f, 5.0f, -1e-6f, 1.00001f })
        for (const auto& [s, t] : { std::pair(nan, outside), { outside, nan }, { 0.5f, outside } }) {
            const PinnedTile tile = m_cache.tileAt(texture, s, t, 0, TextureWrap::Black, &x, &y);
            EXPECT_FALSE(tile) << s << ' ' << t;
            EXPECT_EQ(tile.error(), IMGERR_NONE);
        }
    EXPECT_TRUE(m_cache.tileAt(texture, nan, 1, 0, TextureWrap::Black, &x, &y));
}

TEST_F(TileSampling, InfinitePixelsMakeTheirNeighbourhoodInfinite)
{
    constexpr float inf = std::numeric_limits<float>::infinity();
    const Texture texture = m_cache.open(writeRamp(8, 4, inf).c_str());
    for (int i = -3; i < 4; ++i) { // On both sides of (2, 1).
        float rgba[4];
        const float s = (2.5f + float(i) * 0.25f) / 8;
        ASSERT_EQ(m_cache.sample(texture, s, 1.5f / 8, 0, TextureWrap::Clamp, rgba), IMGERR_NONE);
        EXPECT_EQ(rgba[0], inf) << i;
    }
}

TEST_F(TileSampling, AFileThatComesAndGoesIsAnErrorOrPixels)
{
    const std::string name = writeExr(), kept = m_dir / "kept.exr";
    std::filesystem::rename(name, kept);
    const Texture texture = m_cache.open(name.c_str());
    std::atomic<bool> hasEnded = false;
    testing::internal::CaptureStderr();
    std::thread changer([&] {
        for (int i = 0; i < 150; ++i) {
            std::filesystem::create_hard_link(kept, name);
            m_cache.findChanges();
            std::filesystem::remove(name);
            m_cache.findChanges();
        }
        hasEnded = true;
    });
    std::atomic<int> empty = 0, misplaced = 0;
    inThreads(3, [&](int) {
        while (!hasEnded) {
            float rgba[4];
            const ImgErrorCode error = m_cache.sample(texture, 0.5f, 0.5f, 0, TextureWrap::Clamp, rgba);
            empty += error == IMGERR_NONE && rgba[0] + rgba[1] + rgba[2] + rgba[3] == 0 ? 1 : 0;
            int x = -1, y = -1;
            const PinnedTile tile = m_cache.tileAt(texture, 1, 1, 0, TextureWrap::Clamp, &x, &y);
            misplaced += tile && (x != 36 % 8 || y != 21 % 5) ? 1 : 0;
        }
    });
    changer.join();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(empty, 0);
    EXPECT_EQ(misplaced, 0);
}

TEST_F(TileSampling, TileAtFindsThePixel)
{
    const std::string name = writeExr(Imf::FLOAT);
    const LoadedTexture loaded(name);
    const Texture texture = m_cache.open(name.c_str());
    for (const TextureWrap wrap : allWraps)
        for (int turn = -2; turn < 3; ++turn)
            for (int py = 0; py < 22; py += 3)
                for (int px = 0; px < 37; ++px) {
                    const float s = (float(px + turn * 37) + 0.5f) / 37, t = (float(py) + 0.5f) / 22;
                    int x = -1, y = -1;
                    const PinnedTile tile = m_cache.tileAt(texture, s, t, 0, wrap, &x, &y);
                    EXPECT_EQ(tile.error(), IMGERR_NONE);
                    const int expected = wrapIndex(px + turn * 37, 37, wrap);
                    ASSERT_EQ(bool(tile), expected >= 0) << s;
                    if (!tile)
                        continue;
                    Values values {};
                    float rgba[4];
                    tile.getPixelF(x, y, rgba);
                    std::copy_n(loaded.pixel(expected, py, 0), 4, values.begin());
                    for (std::size_t i = 0; i < 4; ++i)
                        ASSERT_EQ(rgba[i], values[i]) << s << ' ' << t << ' ' << int(wrap);
                }
}

TEST_F(TileSampling, WhatCannotBeHadIsBlackAndAnError)
{
    float rgba[4] = { 1, 2, 3, 4 };
    int x = 0, y = 0;
    EXPECT_EQ(m_cache.sample(Texture(), 0, 0, 0, TextureWrap::Clamp, rgba), IMGERR_OPEN);
    EXPECT_EQ(rgba[0] + rgba[1] + rgba[2] + rgba[3], 0);
    EXPECT_EQ(m_cache.tileAt(Texture(), 0, 0, 0, TextureWrap::Clamp, &x, &y).error(), IMGERR_OPEN);
    const Texture none = m_cache.open((m_dir / "none.exr").c_str());
    EXPECT_EQ(m_cache.sample(none, 0, 0, 0, TextureWrap::Clamp, rgba), IMGERR_READ);
    EXPECT_EQ(m_cache.tileAt(none, 0, 0, 0, TextureWrap::Clamp, &x, &y).error(), IMGERR_READ);

    const std::string name = writeExr();
    const Texture texture = m_cache.open(name.c_str());
    Bytes bytes = readFile(name);
    bytes.resize(bytes.size() - 40); // The smallest levels come last.
    writeFile(name, bytes);
    testing::internal::CaptureStderr();
    std::fill_n(rgba, 4, 5.0f);
    EXPECT_EQ(m_cache.sample(texture, 0.5f, 0.5f, 1, TextureWrap::Clamp, rgba), IMGERR_READ);
    EXPECT_EQ(rgba[0] + rgba[1] + rgba[2] + rgba[3], 0);
    std::fill_n(rgba, 4, 5.0f);
    EXPECT_EQ(m_cache.sample(texture, 0.5f, 0.5f, 0, TextureWrap::Clamp, rgba), IMGERR_NONE);
    testing::internal::GetCapturedStderr();
}

TEST_F(TileSampling, PixelsWithoutWeightDoNotCountAlsoWhenTheyAreInfinite)
{
    constexpr float inf = std::numeric_limits<float>::infinity();
    const Texture texture = m_cache.open(writeRamp(8, 4, inf).c_str());
    float rgba[4];
    for (int x = 0; x < 8; ++x)
        for (int y = 0; y < 8; ++y) {
            const float s = (float(x) + 0.5f) / 8, t = (float(y) + 0.5f) / 8;
            ASSERT_EQ(m_cache.sample(texture, s, t, 0, TextureWrap::Clamp, rgba), IMGERR_NONE);
            EXPECT_EQ(rgba[0], x == 2 && y == 1 ? inf : s) << x << ' ' << y;
            EXPECT_EQ(rgba[1], t);
        }
    ASSERT_EQ(m_cache.sample(texture, 0.3f, 0.2f, 0, TextureWrap::Clamp, rgba), IMGERR_NONE);
    EXPECT_FALSE(std::isfinite(rgba[0]));
}

TEST_F(TileSampling, PinsAreGivenBack)
{
    const std::string name = writeExr();
    const Texture texture = m_cache.open(name.c_str());
    for (int i = 0; i < 500; ++i) {
        float rgba[4];
        EXPECT_EQ(
            m_cache.sample(texture, float(i) / 500, float(i % 7) / 7, 0.05f, TextureWrap::Periodic, rgba),
            IMGERR_NONE);
    }
    EXPECT_GT(m_cache.statistics().tiles, 10u);
    TiffTexture().write(name);
    EXPECT_EQ(m_cache.findChanges(), 1);
    EXPECT_EQ(m_cache.statistics().tiles, 0u); // What is pinned would have stayed.
}

} // namespace
