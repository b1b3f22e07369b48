#include "rastkit/load.h"
#include "rastkit/texture_writer.h"
#include "rastkit/tiles/exr_texture_file.h"
#include "support/temp_file.h"
#include "support/texture_reading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace testing_support;
using QUtils::MipFilter;
using QUtils::TextureCompression;
using QUtils::TextureSample;
using QUtils::TextureSettings;
using QUtils::TextureWriter;

class TextureLimits : public testing::Test {
protected:
    using Pixel = std::function<void(int x, int y, float* rgba)>;

    /// Writes an image whose pixels `pixel` sets.
    static void feed(TextureWriter& writer, int width, int height, const Pixel& pixel)
    {
        std::vector<float> row(std::size_t(width) * 4);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                pixel(x, y, &row[std::size_t(x) * 4]);
            writer.setRowF(0, y, width, row.data());
        }
    }
    static void write(
        const std::string& name, const TextureSettings& settings, int width, int height, const Pixel& pixel)
    {
        TextureWriter writer(name.c_str(), settings);
        writer.init(width, height);
        EXPECT_EQ(writer.isValid(), 1);
        feed(writer, width, height, pixel);
        EXPECT_EQ(writer.finish().code(), IMGERR_NONE);
    }
    static TextureSettings settingsOf(TextureSample sample, int channels)
    {
        TextureSettings settings;
        settings.tileWidth = settings.tileHeight = 16;
        settings.sample = sample;
        settings.channels = channels;
        settings.threads = -1;
        return settings;
    }

    TempDir m_dir;
    const std::string m_exr = m_dir / "a.exr", m_tif = m_dir / "a.tif";
};

TEST_F(TextureLimits, HalfsBeyondTheirRangeStayFiniteInAllLevels)
{
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float bright : { 1e6f, -65519.9f, 65520.0f, infinity, -infinity })
        for (const bool isSrgb : { false, true }) {
            TextureSettings settings = settingsOf(TextureSample::Half, 3);
            settings.filter = MipFilter::Lanczos3;
            settings.isSrgb = isSrgb;
            write(m_exr, settings, 20, 20, [bright](int x, int y, float* rgba) {
                std::fill_n(rgba, 4, x == 9 && y == 9 ? bright : 0.25f);
            });
            const std::vector<Plane> levels = readLevels(m_exr);
            EXPECT_EQ(levels[0].at(9, 9, 0), bright > 0 ? 65504 : -65504);
            EXPECT_EQ(levels[0].at(8, 9, 0), 0.25);
            for (const Plane& level : levels)
                for (const double sample : level.samples)
                    ASSERT_TRUE(std::isfinite(sample)) << bright;
        }
    write(m_exr, settingsOf(TextureSample::Half, 1), 2, 1, [](int x, int, float* rgba) {
        std::fill_n(rgba, 4, x == 0 ? std::numeric_limits<float>::quiet_NaN() : 1.0f);
    });
    EXPECT_TRUE(std::isnan(readLevels(m_exr)[0].at(0, 0, 0)));
}

TEST_F(TextureLimits, StraightColourIsMultipliedByAlphaBeforeItIsFiltered)
{
    // Left of each pair what cannot be seen, which must not shine into the level below.
    const auto pixel = [](int x, int, float* rgba) {
        const float visible[] = { 1, 0.5f, 0.25f, 1 }, hidden[] = { 0, 1, 0, 0 },
                    half[] = { 1, 0.5f, 0, 0.5f };
        std::copy_n(x > 1 ? half : x == 1 ? visible : hidden, 4, rgba);
    };
    for (const std::string& name : { m_exr, m_tif })
        for (const int channels : { 2, 4 }) {
            if (name == m_tif && channels == 2)
                continue;
            TextureSettings settings = settingsOf(TextureSample::Float, channels);
            settings.multiplyAlpha = true;
            write(name, settings, 4, 2, pixel);
            const std::vector<Plane> levels = readLevels(name);
            EXPECT_EQ(levels[0].at(1, 0, 0), 1);
            EXPECT_EQ(levels[0].at(2, 0, 0), 0.5);
            EXPECT_EQ(levels[1].at(0, 0, 1), channels == 2 ? 0.5 : 0.25);
            EXPECT_EQ(levels[1].at(0, 0, 3), 0.5);
            EXPECT_EQ(levels[1].at(1, 0, 0), 0.5);
        }
}

TEST_F(TextureLimits, AlphaIsMultipliedIntoColourInLinearLight)
{
    const auto bytes = [this](const TextureSettings& settings) {
        TextureWriter writer(m_tif.c_str(), settings);
        writer.init(2, 1);
        const unsigned row[] = { 0x80FF8040, 0xFFFF8040 };
        writer.setRow(0, 0, 2, row);
        EXPECT_EQ(writer.finish().code(), IMGERR_NONE);
        const Plane level = readLevels(m_tif)[0];
        return std::vector<long>({ std::lround(level.at(0, 0, 0) * 255), std::lround(level.at(0, 0, 1) * 255),
            std::lround(level.at(0, 0, 3) * 255), std::lround(level.at(1, 0, 0) * 255),
            std::lround(level.at(1, 0, 1) * 255), std::lround(level.at(1, 0, 2) * 255) });
    };
    TextureSettings settings = settingsOf(TextureSample::Byte, 4);
    settings.multiplyAlpha = true;
    EXPECT_EQ(bytes(settings), (std::vector<long> { 128, 64, 128, 255, 128, 64 }));
    settings.isSrgb = true; // 128 of 255 of the light of 255 and of 128.
    EXPECT_EQ(bytes(settings), (std::vector<long> { 188, 93, 128, 255, 128, 64 }));
    settings.channels = 3;
    EXPECT_EQ(bytes(settings)[0], 255);
}

TEST_F(TextureLimits, TilesLargerThanTheImageAreReadAgain)
{
    const std::pair<int, int> sizes[] = { { 4, 4 }, { 100, 3 }, { 1, 1 } };
    for (const auto& [width, height] : sizes)
        for (const std::string& name : { m_exr, m_tif }) {
            TextureSettings settings = settingsOf(TextureSample::Float, 4);
            settings.tileWidth = settings.tileHeight = name == m_exr ? 4096 : 256;
            write(name, settings, width, height,
                [](int x, int y, float* rgba) { std::fill_n(rgba, 4, float(x * 7 + y)); });
            const std::vector<Plane> levels = readLevels(name);
            EXPECT_EQ(levels[0].at(width - 1, height - 1, 2), width * 7 - 7 + height - 1);
            EXPECT_EQ(levels.back().width * levels.back().height, 1);
            if (name == m_exr) {
                EXPECT_EQ(describeTexture(name)->tileWidth, width);
                EXPECT_EQ(describeTexture(name)->tileHeight, height);
            }
        }
}

TEST_F(TextureLimits, ManyTilesOfManySizesAreRightInEveryCompression)
{
    for (const TextureCompression compression :
        { TextureCompression::None, TextureCompression::Zip, TextureCompression::Piz }) {
        TextureSettings settings = settingsOf(TextureSample::Half, 1);
        settings.tileWidth = 3;
        settings.tileHeight = 2;
        settings.compression = compression;
        write(m_exr, settings, 61, 47,
            [](int x, int y, float* rgba) { std::fill_n(rgba, 4, float(x * 32 + y)); });
        const std::vector<Plane> levels = readLevels(m_exr);
        for (int y = 0; y < 47; ++y)
            for (int x = 0; x < 61; ++x)
                ASSERT_EQ(levels[0].at(x, y, 0), x * 32 + y);
        EXPECT_NEAR(levels.back().at(0, 0, 0), 30 * 32 + 23, 1);
    }
}

#ifdef __GLIBC__
TEST_F(TextureLimits, EncodersDoNotTakeMemoryForAllTiles)
{
    QUtils::TextureLayout layout;
    layout.channels = 1;
    layout.levels = { { 1 << 20, 1, 1, 1 } };
    const TextureSettings settings = settingsOf(TextureSample::Half, 1);
    const std::string comment;
    QUtils::ExrTextureFile file(layout, settings, comment);
    ASSERT_EQ(file.begin(m_exr.c_str()), IMGERR_NONE);
    const auto taken = [] {
        const struct mallinfo2 memory = mallinfo2();
        return memory.uordblks + memory.hblkhd;
    };
    const std::size_t before = taken();
    const auto encoder = file.makeEncoder();
    const std::uint8_t pixel[2] = {};
    std::vector<std::uint8_t> bytes;
    ASSERT_EQ(encoder->encode({ 0, 0x12345, 0, 1, 1, pixel, 2 }, bytes), IMGERR_NONE);
    EXPECT_LT(taken(), before + (1 << 20));
    EXPECT_EQ(std::vector<int>(bytes.begin(), bytes.begin() + 8),
        (std::vector<int> { 0x45, 0x23, 1, 0, 0, 0, 0, 0 }));
}
#endif

TEST_F(TextureLimits, DwaaLosesLeastAtLevelZeroAndKeepsColourAsHalfs)
{
    const auto worst = [this](float level, TextureSample sample) {
        TextureSettings settings = settingsOf(sample, 3);
        settings.compression = TextureCompression::Dwaa;
        settings.dwaLevel = level;
        const auto value = [](int x, int y) { return 0.3f + float((x * 37 + y * 101) % 64) / 200; };
        write(m_exr, settings, 32, 32, [&](int x, int y, float* rgba) { std::fill_n(rgba, 4, value(x, y)); });
        const Plane plane = readLevels(m_exr)[0];
        double error = 0;
        for (int y = 0; y < 32; ++y)
            for (int x = 0; x < 32; ++x)
                error = std::max(error, std::fabs(plane.at(x, y, 1) - double(value(x, y))));
        return error;
    };
    EXPECT_LT(worst(0, TextureSample::Half), 0.003);
    EXPECT_GT(worst(0, TextureSample::Float), 1e-5);
    EXPECT_LT(worst(0, TextureSample::Half), worst(200, TextureSample::Half));
}

TEST_F(TextureLimits, APipeIsRefusedBeforeAnythingIsDone)
{
    for (const char* name : { "pipe.exr", "pipe.tif" }) {
        const std::string pipe = m_dir / name;
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
        TextureWriter writer(pipe.c_str(), settingsOf(TextureSample::Float, 3));
        writer.init(4, 4);
        EXPECT_EQ(writer.isValid(), 0);
        errno = 0;
        EXPECT_EQ(writer.finish().code(), IMGERR_OPEN);
        EXPECT_EQ(errno, ESPIPE);
        close(reader);
    }
}

} // namespace
