#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/texture_writer.h"
#include "rastkit/tiles/srgb_curve.h"
#include "rastkit/tiles/tiff_texture_file.h"
#include "support/in_threads.h"
#include "support/mip_reference.h"
#include "support/temp_file.h"
#include "support/texture_reading.h"
#include "support/tiff_reading.h"

#include <gtest/gtest.h>

#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfTiledInputFile.h>
#include <ImfVecAttribute.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>
#include <limits>

namespace {

using namespace testing_support;
using QUtils::MipFilter;
using QUtils::TextureCompression;
using QUtils::TextureSample;
using QUtils::TextureSettings;
using QUtils::TextureWrap;
using QUtils::TextureWriter;

constexpr TextureSample allSamples[]
    = { TextureSample::Byte, TextureSample::Short, TextureSample::Half, TextureSample::Float };

/// The stored value nearest to a float, as loaders deliver it.
float rounded(float value, TextureSample sample)
{
    const double most = sample == TextureSample::Byte ? 255 : 65535;
    std::uint16_t bits = 0;
    switch (sample) {
    case TextureSample::Byte:
    case TextureSample::Short: return float(std::nearbyint(double(value) * most) / most);
    case TextureSample::Half:
        QUtils::pixelKernels().floatToHalf(&value, &bits, 1);
        QUtils::pixelKernels().halfToFloat(&bits, &value, 1);
        return value;
    case TextureSample::Float: break;
    }
    return value;
}

/// Values 0..1, no two neighbours alike.
std::vector<float> rowOf(int y, int width)
{
    std::vector<float> row;
    for (int i = 0; i < width * 4; ++i)
        row.push_back(float((i * 37 + y * 101 + i * y % 13) % 256) / 255);
    return row;
}

class TextureWriting : public testing::Test {
protected:
    using Feed = std::function<void(TextureWriter& writer, int width, int height)>;

    static void fromTheTop(TextureWriter& writer, int width, int height)
    {
        for (int y = 0; y < height; ++y)
            writer.setRowF(0, y, width, rowOf(y, width).data());
    }

    void write(const std::string& name, const TextureSettings& settings, int width, int height,
        const Feed& feed = fromTheTop)
    {
        TextureWriter writer(name.c_str(), settings);
        writer.init(width, height);
        EXPECT_EQ(writer.isValid(), 1);
        feed(writer, width, height);
        EXPECT_EQ(writer.finish().code(), IMGERR_NONE);
    }

    TextureSettings settingsOf(TextureSample sample, int channels) const
    {
        TextureSettings settings;
        settings.tileWidth = 16;
        settings.tileHeight = 32;
        settings.sample = sample;
        settings.channels = channels;
        settings.threads = -1;
        return settings;
    }

    std::string nameFor(TextureSample sample) const { return sample == TextureSample::Half ? m_exr : m_tif; }

    TempDir m_dir;
    const std::string m_exr = m_dir / "texture.exr", m_tif = m_dir / "texture.tif";
};

/// The channel of a texture of so many that a loaded one comes from; -1: it is 1.
int sourceOf(int loaded, int channels)
{
    if (loaded == 3)
        return channels % 2 == 0 ? channels - 1 : -1;
    return channels < 3 ? 0 : loaded;
}

/// What is stored of the picture.
Plane storedPicture(const TextureSettings& settings, int width, int height)
{
    Plane plane(width, height, settings.channels);
    for (int y = 0; y < height; ++y) {
        const std::vector<float> row = rowOf(y, width);
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < settings.channels; ++c) {
                const bool isAlpha = c + 1 == settings.channels && c % 2 == 1;
                const int from = isAlpha ? 3 : c;
                plane.at(x, y, c) = double(rounded(row[std::size_t(x * 4 + from)], settings.sample));
            }
    }
    return plane;
}

/// Puts colour, not alpha, through a curve.
void bend(Plane& plane, double (*curve)(double))
{
    for (int y = 0; y < plane.height; ++y)
        for (int x = 0; x < plane.width; ++x)
            for (int c = 0; c < plane.channels; ++c)
                if (plane.channels % 2 == 1 || c + 1 < plane.channels)
                    plane.at(x, y, c) = curve(plane.at(x, y, c));
}

double toleranceOf(TextureSample sample)
{
    switch (sample) {
    case TextureSample::Byte: return 0.5 / 255 + 1e-5;
    case TextureSample::Short: return 0.5 / 65535 + 1e-6;
    case TextureSample::Half: return 0x1p-11 * 1.5 + 1e-6;
    case TextureSample::Float: break;
    }
    return 1e-6;
}

/// All levels of a file against the plain filter. Level 0 has exactly the values of `picture`.
void expectLevels(const std::string& name, const TextureSettings& settings, const Plane& picture)
{
    const bool isCurved = settings.isSrgb && !settings.makeLinear, isTiff = name.back() == 'f';
    const bool isWhole = settings.sample == TextureSample::Byte || settings.sample == TextureSample::Short;
    const std::vector<Plane> levels = readLevels(name);
    Plane expected = picture;
    std::size_t k = 0;
    for (;; ++k) {
        ASSERT_LT(k, levels.size());
        Plane stored = expected;
        if (isCurved && k > 0)
            bend(stored, QUtils::encodeSrgb);
        ASSERT_EQ(levels[k].width, stored.width);
        ASSERT_EQ(levels[k].height, stored.height);
        double worst = 0;
        for (int y = 0; y < stored.height; ++y)
            for (int x = 0; x < stored.width; ++x)
                for (int c = 0; c < 4; ++c) {
                    const int from = sourceOf(c, settings.channels);
                    double value = from < 0 ? 1 : stored.at(x, y, from);
                    if (isWhole)
                        value = std::clamp(value, 0.0, 1.0);
                    worst = std::max(worst, std::fabs(levels[k].at(x, y, c) - value));
                }
        EXPECT_LE(worst, k == 0 ? (isTiff && isWhole ? 1e-7 : 0) : toleranceOf(settings.sample))
            << "level " << k;
        if (expected.width == 1 && expected.height == 1)
            break;
        if (isCurved && k == 0)
            bend(expected, QUtils::decodeSrgb);
        expected = MipReference { settings.filter, settings.wrapX, settings.wrapY }.shrink(expected);
    }
    EXPECT_EQ(levels.size(), k + 1);
}

TEST_F(TextureWriting, EveryTileOfEveryLevelIsThePlainFilter)
{
    for (const TextureSample sample : allSamples)
        for (const int channels : { 1, 3, 4 }) {
            SCOPED_TRACE(testing::Message() << "sample " << int(sample) << ", channels " << channels);
            const TextureSettings settings = settingsOf(sample, channels);
            write(nameFor(sample), settings, 50, 37);
            expectLevels(nameFor(sample), settings, storedPicture(settings, 50, 37));
        }
}

TEST_F(TextureWriting, FiltersAndWrapsAreAsSet)
{
    for (const MipFilter filter : allFilters)
        for (const TextureWrap wrap : allWraps) {
            SCOPED_TRACE(testing::Message() << "filter " << int(filter) << ", wrap " << int(wrap));
            TextureSettings settings = settingsOf(TextureSample::Float, 1);
            settings.filter = filter;
            settings.wrapX = wrap;
            settings.wrapY = TextureWrap::Mirror;
            for (const std::string& name : { m_exr, m_tif }) {
                write(name, settings, 21, 18);
                expectLevels(name, settings, storedPicture(settings, 21, 18));
            }
        }
}

TEST_F(TextureWriting, OddAndNarrowSizesHaveAllTheirLevels)
{
    const std::pair<int, int> sizes[] = { { 1, 1 }, { 1, 7 }, { 5, 3 }, { 100, 1 }, { 33, 64 } };
    for (const auto& [width, height] : sizes)
        for (const TextureSample sample : { TextureSample::Byte, TextureSample::Half }) {
            SCOPED_TRACE(testing::Message() << width << "x" << height << ", sample " << int(sample));
            const TextureSettings settings = settingsOf(sample, 3);
            write(nameFor(sample), settings, width, height);
            expectLevels(nameFor(sample), settings, storedPicture(settings, width, height));
        }
}

TEST_F(TextureWriting, EveryCompressionHoldsTheSamples)
{
    const std::pair<TextureCompression, TextureSample> cases[] = {
        { TextureCompression::None, TextureSample::Half }, { TextureCompression::Zip, TextureSample::Half },
        { TextureCompression::Piz, TextureSample::Half }, { TextureCompression::None, TextureSample::Byte },
        { TextureCompression::Lzw, TextureSample::Byte }, { TextureCompression::Lzw, TextureSample::Float },
        { TextureCompression::Lzw, TextureSample::Short }
    };
    for (const auto& [compression, sample] : cases) {
        SCOPED_TRACE(testing::Message() << int(compression) << ", sample " << int(sample));
        TextureSettings settings = settingsOf(sample, 4);
        settings.compression = compression;
        write(nameFor(sample), settings, 30, 20);
        expectLevels(nameFor(sample), settings, storedPicture(settings, 30, 20));
    }
}

TEST_F(TextureWriting, DwaaIsCloseAndSmall)
{
    TextureSettings settings = settingsOf(TextureSample::Half, 3);
    const auto smooth = [](TextureWriter& writer, int width, int height) {
        std::vector<float> row(std::size_t(width) * 4, 1.0f);
        for (int y = 0; y < height; ++y) {
            for (std::size_t i = 0; i < row.size(); ++i)
                row[i] = 0.3f + 0.2f * std::sin((float(i) / 4 + float(y)) / 20);
            writer.setRowF(0, y, width, row.data());
        }
    };
    write(m_exr, settings, 128, 128, smooth);
    const auto zipBytes = std::filesystem::file_size(m_exr);
    settings.compression = TextureCompression::Dwaa;
    settings.dwaLevel = 100;
    write(m_exr, settings, 128, 128, smooth);
    EXPECT_LT(std::filesystem::file_size(m_exr), zipBytes);
    EXPECT_NEAR(readLevels(m_exr)[0].at(64, 64, 1), 0.3 + 0.2 * std::sin(128.25 / 20), 0.02);
}

TEST_F(TextureWriting, ColourOfSrgbIsFilteredInLinearLight)
{
    for (const TextureSample sample : allSamples)
        for (const int channels : { 1, 3, 4 }) {
            SCOPED_TRACE(testing::Message() << "sample " << int(sample) << ", channels " << channels);
            TextureSettings settings = settingsOf(sample, channels);
            settings.isSrgb = true;
            write(nameFor(sample), settings, 25, 18);
            expectLevels(nameFor(sample), settings, storedPicture(settings, 25, 18));
        }
}

TEST_F(TextureWriting, ColourOfSrgbIsStoredInLinearLightWhenWanted)
{
    TextureSettings settings = settingsOf(TextureSample::Float, 4);
    settings.isSrgb = settings.makeLinear = true;
    write(m_exr, settings, 9, 6);
    Plane picture = storedPicture(settings, 9, 6);
    bend(picture, QUtils::decodeSrgb);
    for (double& sample : picture.samples)
        sample = double(float(sample));
    expectLevels(m_exr, settings, picture);

    settings.channels = 1; // From packed pixels too.
    write(m_exr, settings, 256, 1, [](TextureWriter& writer, int width, int) {
        for (int x = 0; x < width; ++x)
            writer.setPixel(x, 0, unsigned(x) << 16);
    });
    const Plane level = readLevels(m_exr)[0];
    for (int x = 0; x < 256; ++x)
        ASSERT_NEAR(level.at(x, 0, 0), QUtils::decodeSrgb(x / 255.0), 1e-7);
}

TEST_F(TextureWriting, PackedPixelsAreStoredAsTheyAre)
{
    const auto feed = [](TextureWriter& writer, int width, int height) {
        std::vector<unsigned int> row;
        for (int y = 0; y < height; ++y) {
            row.clear();
            for (int x = 0; x < width; ++x)
                row.push_back(unsigned(x * 0x01030507 + y * 0x0B0D1113));
            writer.setRow(0, y, width, row.data());
        }
    };
    for (const TextureSample sample : allSamples) {
        write(nameFor(sample), settingsOf(sample, 4), 20, 9, feed);
        const Plane level = readLevels(nameFor(sample))[0];
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 20; ++x)
                for (int c = 0; c < 4; ++c) {
                    const unsigned word = unsigned(x * 0x01030507 + y * 0x0B0D1113);
                    const unsigned byte = word >> (c == 3 ? 24 : 16 - 8 * c) & 0xFF;
                    ASSERT_NEAR(level.at(x, y, c), double(rounded(float(byte) / 255, sample)), 1e-7);
                }
    }
}

TEST_F(TextureWriting, RowsMayComeInAnyOrderAndInParts)
{
    const TextureSettings settings = settingsOf(TextureSample::Byte, 3);
    const int width = 70, height = 45;
    const Plane picture = storedPicture(settings, width, height);
    const Feed feeds[] = {
        [](TextureWriter& writer, int w, int h) {
            for (int y = h - 1; y >= 0; --y)
                writer.setRowF(0, y, w, rowOf(y, w).data());
        },
        [](TextureWriter& writer, int w, int h) {
            for (const int y : shuffledRows(h))
                writer.setRowF(0, y, w, rowOf(y, w).data());
        },
        [](TextureWriter& writer, int w, int h) { // Tiles of 24 x 10, which overhang.
            for (int ty = 0; ty < h; ty += 10)
                for (int tx = 0; tx < w; tx += 24)
                    for (int y = ty; y < ty + 10; ++y)
                        writer.setRowF(tx, y, 24, rowOf(y, w + 24).data() + tx * 4);
        },
        [](TextureWriter& writer, int w, int h) { // Single pixels from the right, some of them twice.
            for (int y = 0; y < h; ++y)
                for (int x = w - 1; x >= 0; --x) {
                    writer.setPixelF(x, y, rowOf(y, w).data() + x * 4);
                    if (x % 3 == 1)
                        writer.setPixelF(x, y, rowOf(y, w).data() + x * 4);
                }
        },
        [](TextureWriter& writer, int w, int h) { // Column by column, as of a picture that is turned.
            for (int x = 0; x < w; ++x)
                for (int y = 0; y < h; ++y)
                    writer.setPixelF(x, y, rowOf(y, w).data() + x * 4);
        },
        [](TextureWriter& writer, int w, int h) { // Parts that overlap, then outside.
            for (int y = 0; y < h; ++y) {
                const std::vector<float> row = rowOf(y, w);
                writer.setRowF(40, y, w - 40, row.data() + 160);
                writer.setRowF(10, y, 20, row.data() + 40);
                writer.setRowF(0, y, 12, row.data());
                writer.setRowF(25, y, 30, row.data() + 100);
                writer.setRowF(0, y + h, w, row.data());
                writer.setRowF(0, y - h, w, row.data());
                writer.setRowF(w, y, 5, row.data());
            }
        },
    };
    for (std::size_t i = 0; i < std::size(feeds); ++i) {
        SCOPED_TRACE(testing::Message() << "feed " << i);
        write(m_tif, settings, width, height, feeds[i]);
        expectLevels(m_tif, settings, picture);
    }
}

TEST_F(TextureWriting, WhatIsNeverStoredIsBlack)
{
    const TextureSettings settings = settingsOf(TextureSample::Half, 4);
    Plane picture = storedPicture(settings, 20, 40);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 20; ++x)
            for (int c = 0; c < 4; ++c)
                if (y > 34 || (y == 5 && x >= 3 && x < 8))
                    picture.at(x, y, c) = 0;
    write(m_exr, settings, 20, 40, [](TextureWriter& writer, int width, int) {
        for (int y = 0; y <= 34; ++y) {
            const std::vector<float> row = rowOf(y, width);
            const int cut = y == 5 ? 3 : width;
            writer.setRowF(0, y, cut, row.data());
            if (y == 5)
                writer.setRowF(8, y, width - 8, row.data() + 32);
        }
    });
    expectLevels(m_exr, settings, picture);
}

TEST_F(TextureWriting, AFileIsTheSameWithAnyNumberOfThreads)
{
    for (const std::string& name : { m_exr, m_tif }) {
        TextureSettings settings = settingsOf(TextureSample::Float, 4);
        write(name, settings, 150, 120);
        const Bytes alone = readFile(name);
        for (const int threads : { 1, 4 }) {
            settings.threads = threads;
            write(name, settings, 150, 120);
            EXPECT_TRUE(readFile(name) == alone) << name << " " << threads;
        }
        setThreadCount(2); // OpenEXR's own, which its classes use too.
        settings.threads = 0;
        write(name, settings, 150, 120);
        setThreadCount(0);
        EXPECT_TRUE(readFile(name) == alone) << name;
    }
}

TEST_F(TextureWriting, WritersOfSeveralThreadsDoNotMeet)
{
    inThreads(3, [&](int number) {
        TextureSettings settings = settingsOf(TextureSample::Float, 3);
        settings.threads = 2;
        const std::string name = m_dir / (std::to_string(number) + (number == 1 ? ".tif" : ".exr"));
        write(name, settings, 60, 60);
    });
    const TextureSettings settings = settingsOf(TextureSample::Float, 3);
    for (const char* name : { "0.exr", "1.tif", "2.exr" })
        expectLevels(m_dir / name, settings, storedPicture(settings, 60, 60));
}

TEST_F(TextureWriting, OpenExrFilesSayTheRangeOfAllLevels)
{
    for (const bool isSrgb : { false, true })
        for (const MipFilter filter : { MipFilter::Box, MipFilter::Lanczos3 }) { // Which reaches beyond.
            TextureSettings settings = settingsOf(TextureSample::Half, 4);
            settings.isSrgb = isSrgb;
            settings.filter = filter;
            write(m_exr, settings, 21, 5, [](TextureWriter& writer, int width, int height) {
                std::vector<float> row(std::size_t(width) * 4);
                for (int y = 0; y < height; ++y) {
                    for (int x = 0; x < width; ++x) {
                        row[std::size_t(x) * 4] = x < 10 ? 0.1f : 0.9f;
                        row[std::size_t(x) * 4 + 1] = float(y - 2) / 7;
                        row[std::size_t(x) * 4 + 2] = x == 20 && y == 4 ? 12 : 0.5f;
                        row[std::size_t(x) * 4 + 3] = 1000; // Alpha does not count.
                    }
                    writer.setRowF(0, y, width, row.data());
                }
            });
            const std::vector<Plane> levels = readLevels(m_exr);
            double smallest[3] = { 100, 100, 100 }, greatest[3] = { -100, -100, -100 };
            for (const Plane& level : levels)
                for (std::size_t i = 0; i < level.samples.size(); ++i)
                    if (i % 4 < 3) {
                        smallest[i % 4] = std::min(smallest[i % 4], level.samples[i]);
                        greatest[i % 4] = std::max(greatest[i % 4], level.samples[i]);
                    }
            EXPECT_EQ(greatest[0] > 0.91, filter == MipFilter::Lanczos3);
            EXRTileLoaderParams params;
            ASSERT_EQ(LoadEXRHeaderEx(m_exr.c_str(), params).code(), IMGERR_NONE);
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(double(params.minValue[c]), smallest[c]) << c;
                EXPECT_EQ(double(params.maxValue[c]), greatest[c]) << c;
            }
            Imf::TiledInputFile file(m_exr.c_str());
            EXPECT_EQ(double(file.header().typedAttribute<Imf::FloatAttribute>("minValue").value()),
                *std::min_element(smallest, smallest + 3));
            EXPECT_EQ(double(file.header().typedAttribute<Imf::FloatAttribute>("maxValue").value()),
                *std::max_element(greatest, greatest + 3));
        }
}

TEST_F(TextureWriting, NotANumberDoesNotCountForTheRange)
{
    write(m_exr, settingsOf(TextureSample::Half, 3), 4, 1, [](TextureWriter& writer, int, int) {
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const float row[] = { nan, -1, 0, 0, 2, nan, 0, 0, 1, 2, nan, 0, 4, 3, 0, 0 };
        writer.setRowF(0, 0, 4, row);
    });
    EXRTileLoaderParams params;
    ASSERT_EQ(LoadEXRHeaderEx(m_exr.c_str(), params).code(), IMGERR_NONE);
    EXPECT_EQ(params.minValue[0], 1);
    EXPECT_EQ(params.maxValue[0], 4);
    EXPECT_EQ(params.minValue[1], -1);
    EXPECT_EQ(params.maxValue[1], 3);
    EXPECT_EQ(params.minValue[2], 0);
}

TEST_F(TextureWriting, RangeOfGreyCountsForAllColoursAndThatOfNothingIsZero)
{
    TextureSettings settings = settingsOf(TextureSample::Float, 2);
    write(m_exr, settings, 2, 1, [](TextureWriter& writer, int, int) {
        const float row[] = { 3, 0, 0, 9, 5, 0, 0, -9 };
        writer.setRowF(0, 0, 2, row);
    });
    EXRTileLoaderParams grey;
    ASSERT_EQ(LoadEXRHeaderEx(m_exr.c_str(), grey).code(), IMGERR_NONE);
    EXPECT_EQ(grey.minValue[2], 3);
    EXPECT_EQ(grey.maxValue[1], 5);
    settings.channels = 3;
    write(m_exr, settings, 1, 1, [](TextureWriter& writer, int, int) {
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const float row[] = { nan, nan, nan, nan };
        writer.setRowF(0, 0, 1, row);
    });
    EXRTileLoaderParams none;
    ASSERT_EQ(LoadEXRHeaderEx(m_exr.c_str(), none).code(), IMGERR_NONE);
    EXPECT_EQ(none.minValue[0], 0);
    EXPECT_EQ(none.maxValue[0], 0);
}

TEST_F(TextureWriting, TheContentTagIsReadFromBothFormats)
{
    const std::string hash = "0123456789abcdef0123456789abcdef01234567", comment = "from x.png SHA-1=" + hash;
    for (const TextureSample sample : { TextureSample::Byte, TextureSample::Half }) {
        TextureSettings settings = settingsOf(sample, 3);
        settings.comment = comment.c_str();
        write(nameFor(sample), settings, 8, 8);
        char text[64] = {};
        EXPECT_EQ(getImageSHATag(nameFor(sample).c_str(), text, sizeof text), 1);
        EXPECT_EQ(text, hash.substr(0, 39));
    }
}

TEST_F(TextureWriting, OpenExrsOwnClassesReadTheFile)
{
    TextureSettings settings = settingsOf(TextureSample::Half, 2);
    settings.wrapX = TextureWrap::Periodic;
    settings.comment = "a comment";
    write(m_exr, settings, 50, 40);
    Imf::TiledInputFile file(m_exr.c_str());
    const Imf::Header& header = file.header();
    EXPECT_EQ(file.levelMode(), Imf::MIPMAP_LEVELS);
    EXPECT_EQ(file.levelRoundingMode(), Imf::ROUND_DOWN);
    EXPECT_EQ(file.numLevels(), 6);
    EXPECT_EQ(file.tileXSize(), 16u);
    EXPECT_EQ(file.tileYSize(), 32u);
    EXPECT_TRUE(file.isComplete());
    EXPECT_EQ(header.compression(), Imf::ZIP_COMPRESSION);
    EXPECT_EQ(Imf::comments(header), "a comment");
    EXPECT_EQ(header.typedAttribute<Imf::StringAttribute>("wrapmodes").value(), "periodic,clamp");
    const Plane picture = storedPicture(settings, 50, 40);
    std::vector<float> grey(50 * 40), alpha(50 * 40);
    Imf::FrameBuffer slices;
    slices.insert("Y", Imf::Slice::Make(Imf::FLOAT, grey.data(), file.dataWindowForLevel(0)));
    slices.insert("A", Imf::Slice::Make(Imf::FLOAT, alpha.data(), file.dataWindowForLevel(0)));
    file.setFrameBuffer(slices);
    file.readTiles(0, file.numXTiles() - 1, 0, file.numYTiles() - 1, 0);
    for (std::size_t i = 0; i < grey.size(); ++i) {
        ASSERT_EQ(double(grey[i]), picture.samples[i * 2]);
        ASSERT_EQ(double(alpha[i]), picture.samples[i * 2 + 1]);
    }
}

TEST_F(TextureWriting, LibtiffReadsTheFile)
{
    TextureSettings settings = settingsOf(TextureSample::Short, 4);
    settings.tileWidth = settings.tileHeight = 64;
    settings.wrapY = TextureWrap::Mirror;
    settings.comment = "a comment";
    write(m_tif, settings, 130, 70);
    const Plane picture = storedPicture(settings, 130, 70);
    TIFF* const tiff = TIFFOpen(m_tif.c_str(), "r");
    ASSERT_TRUE(tiff);
    const auto number = [tiff](std::uint32_t tag) {
        std::uint32_t value = 0;
        TIFFGetField(tiff, tag, &value);
        return value;
    };
    const auto text = [tiff](std::uint32_t tag) {
        const char* value = "";
        TIFFGetField(tiff, tag, &value);
        return std::string(value);
    };
    EXPECT_FALSE(TIFFIsBigTIFF(tiff));
    EXPECT_EQ(text(TIFFTAG_IMAGEDESCRIPTION), "a comment");
    ASSERT_EQ(TIFFNumberOfDirectories(tiff), 8);
    for (tdir_t k = 0; k < 8; ++k) {
        ASSERT_TRUE(TIFFSetDirectory(tiff, k));
        EXPECT_EQ(number(TIFFTAG_IMAGEWIDTH), 130u >> k);
        EXPECT_EQ(number(TIFFTAG_IMAGELENGTH), std::max(70u >> k, 1u));
        EXPECT_EQ(number(TIFFTAG_SUBFILETYPE), k == 0 ? 0u : unsigned(FILETYPE_REDUCEDIMAGE));
        EXPECT_EQ(text(TIFFTAG_PIXAR_TEXTUREFORMAT), "Plain Texture");
        EXPECT_EQ(text(TIFFTAG_PIXAR_WRAPMODES), "clamp,mirror");
        std::uint16_t count = 0, *kinds = nullptr;
        ASSERT_TRUE(TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &count, &kinds));
        EXPECT_EQ(count, 1);
        EXPECT_EQ(kinds[0], EXTRASAMPLE_ASSOCALPHA);
    }
    ASSERT_TRUE(TIFFSetDirectory(tiff, 0));
    std::vector<std::uint16_t> tile(64 * 64 * 4);
    ASSERT_EQ(TIFFReadTile(tiff, tile.data(), 128, 64, 0, 0), tmsize_t(tile.size() * 2));
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 2; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(tile[std::size_t((y * 64 + x) * 4 + c)],
                    std::lround(picture.at(128 + x, 64 + y, c) * 65535));
    TIFFClose(tiff);
}

TEST_F(TextureWriting, SmallLevelsOfTiffAreOneSmallTile)
{
    TextureSettings settings = settingsOf(TextureSample::Byte, 1);
    settings.tileWidth = settings.tileHeight = 64;
    write(m_tif, settings, 256, 100);
    const std::pair<unsigned, unsigned> sizes[] = { { 64, 64 }, { 64, 64 }, { 64, 32 }, { 32, 16 },
        { 16, 16 }, { 16, 16 }, { 16, 16 }, { 16, 16 }, { 16, 16 } };
    TIFF* const tiff = TIFFOpen(m_tif.c_str(), "r");
    ASSERT_TRUE(tiff);
    for (tdir_t k = 0; k < 9; ++k) {
        ASSERT_TRUE(TIFFSetDirectory(tiff, k));
        std::uint32_t width = 0, height = 0;
        TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &width);
        TIFFGetField(tiff, TIFFTAG_TILELENGTH, &height);
        EXPECT_EQ(std::pair(width, height), sizes[k]) << k;
        EXPECT_TRUE(k < 2 || TIFFNumberOfTiles(tiff) == 1);
    }
    TIFFClose(tiff);
    expectLevels(m_tif, settings, storedPicture(settings, 256, 100));
}

TEST_F(TextureWriting, BigTiffIsReadToo)
{
    QUtils::TextureLayout layout;
    layout.channels = 3;
    layout.sample = TextureSample::Byte;
    layout.levels = { { 20, 3, 16, 16 } };
    TextureSettings settings = settingsOf(TextureSample::Byte, 3);
    settings.compression = TextureCompression::None;
    const std::string comment = "big";
    QUtils::TiffTextureFile file(layout, settings, comment, true);
    ASSERT_EQ(file.begin(m_tif.c_str()), IMGERR_NONE);
    const auto encoder = file.makeEncoder();
    std::vector<std::uint8_t> pixels(60 * 3), bytes;
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = std::uint8_t(i);
    for (int tx = 0; tx < 2; ++tx) {
        ASSERT_EQ(encoder->encode({ 0, tx, 0, tx == 0 ? 16 : 4, 3, pixels.data() + tx * 48, 60 }, bytes),
            IMGERR_NONE);
        ASSERT_EQ(file.append(0, tx, 0, bytes), IMGERR_NONE);
    }
    ASSERT_EQ(file.finish({}), IMGERR_NONE);
    TIFF* const tiff = TIFFOpen(m_tif.c_str(), "r");
    ASSERT_TRUE(tiff);
    EXPECT_TRUE(TIFFIsBigTIFF(tiff));
    std::vector<std::uint8_t> tile(16 * 16 * 3);
    ASSERT_EQ(TIFFReadTile(tiff, tile.data(), 16, 0, 0, 0), tmsize_t(tile.size()));
    EXPECT_TRUE(std::equal(tile.begin(), tile.begin() + 12, pixels.begin() + 48));
    EXPECT_EQ(tile[12], tile[9]); // Beyond the edge the last pixel goes on.
    TIFFClose(tiff);
}

TEST_F(TextureWriting, BigTiffIsChosenWhereFourGibibytesMayBeTooLittle)
{
    QUtils::TextureLayout layout;
    layout.sample = TextureSample::Byte;
    layout.levels = { { 32768, 30000, 64, 64 } };
    EXPECT_FALSE(needsBigTiff(layout, TextureCompression::None));
    EXPECT_TRUE(needsBigTiff(layout, TextureCompression::Lzw));
    layout.levels = { { 32768, 32768, 64, 64 } };
    EXPECT_TRUE(needsBigTiff(layout, TextureCompression::None));
}

TEST_F(TextureWriting, SettingsThatTheFormatDoesNotHaveAreRefused)
{
    using Change = std::function<void(TextureSettings&)>;
    const auto codeOf = [&](const std::string& name, TextureSample sample, const Change& change) {
        TextureSettings settings = settingsOf(sample, 3);
        change(settings);
        TextureWriter writer(name.c_str(), settings);
        writer.init(4, 4);
        EXPECT_EQ(writer.isValid(), 0);
        return writer.finish().code();
    };
    const Change none = [](TextureSettings&) {};
    EXPECT_EQ(codeOf(m_dir / "a.png", TextureSample::Half, none), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(m_dir / "a", TextureSample::Half, none), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(m_exr, TextureSample::Byte, none), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(m_exr, TextureSample::Short, none), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(m_tif, TextureSample::Half, none), IMGERR_UNSUPPORTED);
    const Change forExr[] = { [](auto& s) { s.tileWidth = 0; }, [](auto& s) { s.tileHeight = 4097; },
        [](auto& s) { s.channels = 0; }, [](auto& s) { s.channels = 5; },
        [](auto& s) { s.compression = TextureCompression::Lzw; },
        [](auto& s) { s.compression = TextureCompression(9); }, [](auto& s) { s.filter = MipFilter(4); },
        [](auto& s) { s.wrapX = TextureWrap(4); }, [](auto& s) { s.dwaLevel = -1; },
        [](auto& s) { s.dwaLevel = std::numeric_limits<float>::infinity(); } };
    for (const Change& change : forExr)
        EXPECT_EQ(codeOf(m_exr, TextureSample::Half, change), IMGERR_UNSUPPORTED);
    const Change forTiff[] = { [](auto& s) { s.tileWidth = 24; }, [](auto& s) { s.tileHeight = 8; },
        [](auto& s) { s.channels = 2; }, [](auto& s) { s.compression = TextureCompression::Piz; },
        [](auto& s) { s.compression = TextureCompression::Dwaa; } };
    for (const Change& change : forTiff)
        EXPECT_EQ(codeOf(m_tif, TextureSample::Byte, change), IMGERR_UNSUPPORTED);
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.path()));
}

TEST_F(TextureWriting, SizesThatNoTextureHasAreRefused)
{
    const std::pair<int, int> sizes[] = { { 0, 4 }, { 4, -1 }, { 1 << 25, 1 }, { INT_MAX, INT_MAX } };
    for (const auto& [width, height] : sizes) {
        TextureWriter writer(m_exr.c_str(), settingsOf(TextureSample::Half, 3));
        writer.init(width, height);
        EXPECT_EQ(writer.isValid(), 0);
        const float row[4] = {};
        writer.setRowF(0, 0, 1, row);
        EXPECT_EQ(writer.finish().code(), IMGERR_UNSUPPORTED);
    }
}

TEST_F(TextureWriting, AFullDiskIsAnErrorWithTheSystemsReason)
{
    for (const char* end : { ".exr", ".tif" })
        for (const int threads : { -1, 2 })
            for (const int size : { 8, 600 }) { // What shows at the end, and what shows on the way.
                const std::string name = m_dir / (std::string("full") + end);
                std::filesystem::remove(name);
                std::filesystem::create_symlink("/dev/full", name);
                TextureSettings settings = settingsOf(TextureSample::Float, 4);
                settings.compression = TextureCompression::None;
                settings.threads = threads;
                TextureWriter writer(name.c_str(), settings);
                writer.init(size, size);
                fromTheTop(writer, size, size);
                errno = 0;
                EXPECT_EQ(writer.finish().code(), IMGERR_WRITE) << name << " " << threads << " " << size;
                EXPECT_EQ(errno, ENOSPC);
                EXPECT_EQ(writer.finish().code(), IMGERR_WRITE);
            }
}

TEST_F(TextureWriting, AFileThatCannotBeMadeIsAnError)
{
    TextureWriter writer("/no/such/folder/a.exr", settingsOf(TextureSample::Half, 3));
    writer.init(4, 4);
    EXPECT_EQ(writer.isValid(), 0);
    errno = 0;
    EXPECT_EQ(writer.finish().code(), IMGERR_OPEN);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(TextureWriting, NothingIsFinishedWithoutAnImage)
{
    TextureWriter writer(m_exr.c_str(), settingsOf(TextureSample::Half, 3));
    EXPECT_EQ(writer.isValid(), 0);
    EXPECT_EQ(writer.finish().code(), IMGERR_WRITE);
    writer.init(4, 4);
    writer.freeMem(); // As a loader does that meets an exception.
    EXPECT_EQ(writer.isValid(), 0);
    EXPECT_EQ(writer.finish().code(), IMGERR_WRITE);
}

TEST_F(TextureWriting, AnotherInitBeginsAnew)
{
    const TextureSettings settings = settingsOf(TextureSample::Byte, 3);
    TextureWriter writer(m_tif.c_str(), settings);
    writer.init(200, 100);
    fromTheTop(writer, 200, 90);
    writer.init(10, 12);
    fromTheTop(writer, 10, 12);
    EXPECT_EQ(writer.finish().code(), IMGERR_NONE);
    EXPECT_EQ(writer.finish().code(), IMGERR_NONE);
    EXPECT_EQ(writer.isValid(), 0);
    expectLevels(m_tif, settings, storedPicture(settings, 10, 12));
}

TEST_F(TextureWriting, AWriterThatIsNotFinishedLeavesNoTextureAndNothingElse)
{
    for (const std::string& name : { m_exr, m_tif }) {
        TextureSettings settings = settingsOf(TextureSample::Float, 3);
        settings.threads = 2;
        settings.comment = "SHA-1=0123456789abcdef0123456789abcdef01234567";
        {
            TextureWriter writer(name.c_str(), settings);
            writer.init(300, 300);
            fromTheTop(writer, 300, 200);
        }
        EXRTileLoaderParams exr;
        TIFTileLoaderParams tiff;
        EXPECT_NE(
            (name == m_exr ? LoadEXRHeaderEx(name.c_str(), exr) : LoadTIFHeaderEx(name.c_str(), tiff)).code(),
            IMGERR_NONE);
        char text[64] = {};
        EXPECT_EQ(getImageSHATag(name.c_str(), text, sizeof text), 0);
        const auto files = std::filesystem::directory_iterator(m_dir.path());
        EXPECT_EQ(std::distance(begin(files), end(files)), 1);
        std::filesystem::remove(name);
    }
}

TEST(SrgbCurve, NumbersAreTheNearestForEveryLight)
{
    for (const unsigned most : { 255u, 65535u }) {
        const QUtils::SrgbNumbers numbers(most);
        const float nan = std::numeric_limits<float>::quiet_NaN();
        EXPECT_EQ(numbers(nan), 0u);
        EXPECT_EQ(numbers(-1), 0u);
        EXPECT_EQ(numbers(std::numeric_limits<float>::infinity()), most);
        int wrong = 0; // With 16 bits two floats in a row are a five-hundredth of a number apart.
        for (unsigned i = 0; i < 300000; ++i) {
            const float light = std::exp2(float(i) / 300000 * 24 - 24);
            const double exact = QUtils::encodeSrgb(double(light)) * most;
            wrong += std::fabs(exact - numbers(light)) > 0.502 ? 1 : 0;
        }
        EXPECT_EQ(wrong, 0);
        for (unsigned n = 0; n <= most; ++n) // Whatever was decoded comes back.
            wrong += numbers(float(QUtils::decodeSrgb(double(n) / most))) != n ? 1 : 0;
        EXPECT_EQ(wrong, 0);
    }
}

} // namespace
