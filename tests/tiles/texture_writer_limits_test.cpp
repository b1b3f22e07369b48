#include "rastkit/load.h"
#include "rastkit/texture_writer.h"
#include "support/temp_file.h"
#include "support/texture_reading.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

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

} // namespace
