#include "qutils/raw/ri_reader.h"
#include "rastkit/buffers.h"
#include "rastkit/load.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>

namespace {

using namespace testing_support;
namespace fs = std::filesystem;

constexpr int width = 64, height = 36;

/// Runs the program into `folder`; everything that it prints goes to `folder`.txt.
int renderInto(const std::string& folder)
{
    const std::string command = "'" RENDER_FRAME_PROGRAM "' --width " + std::to_string(width) + " --height "
        + std::to_string(height) + " --frame 7 '" + folder + "' > '" + folder + ".txt' 2>&1";
    return std::system(command.c_str());
}

std::set<std::string> filesIn(const std::string& folder)
{
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file())
            names.insert(fs::relative(entry.path(), folder).string());
    }
    return names;
}

class RenderFrame : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<TempDir>();
        ASSERT_EQ(renderInto(*s_dir / "a"), 0) << output();
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    static std::string output()
    {
        const Bytes bytes = readFile(*s_dir / "a.txt");
        return std::string(bytes.begin(), bytes.end());
    }
    /// Pixels of one of the Targa files.
    static QUtils::Image8 load(const std::string& name)
    {
        QUtils::Image8 image;
        EXPECT_EQ(LoadTGAFile((*s_dir / ("a/" + name)).c_str(), image, nullptr).code(), IMGERR_NONE) << name;
        EXPECT_EQ(image.width(), width) << name;
        EXPECT_EQ(image.height(), height) << name;
        return image;
    }
    /// Calls `look` for every pixel, left to right and top to bottom.
    template <class Look> static void forEachPixel(const QUtils::Image8& image, Look look)
    {
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x)
                look(image.pixel(x, y));
        }
    }
    static std::set<unsigned int> valuesIn(const QUtils::Image8& image, unsigned int mask)
    {
        std::set<unsigned int> values;
        forEachPixel(image, [&](unsigned int pixel) { values.insert(pixel & mask); });
        return values;
    }

    static inline std::unique_ptr<TempDir> s_dir;
};

TEST_F(RenderFrame, EachChannelOfATargaFrameIsAFileInItsOwnFolder)
{
    std::set<std::string> expected { "frame.0007.tga" };
    for (const fs::path channel : { "alpha", "depth", "normals", "diffuse", "reflection", "object" })
        expected.insert(channel / ("frame_" + channel.string() + ".0007.tga"));
    std::set<std::string> written;
    for (const std::string& name : filesIn(*s_dir / "a")) {
        if (fs::path(name).extension() == ".tga")
            written.insert(name);
    }
    EXPECT_EQ(written, expected);
}

/// The mean difference of the samples that count, where 255 is white.
double meanDifference(const QUtils::Image8& a, const QUtils::Image8& b, bool hasAlpha)
{
    double sum = 0;
    int count = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int shift = 0; shift < (hasAlpha ? 32 : 24); shift += 8, ++count)
                sum += std::abs(int(a.pixel(x, y) >> shift & 0xFF) - int(b.pixel(x, y) >> shift & 0xFF));
    return sum / count;
}

TEST_F(RenderFrame, EveryFormatHoldsTheSamePicture)
{
    const QUtils::Image8 targa = load("frame.0007.tga");
    const struct {
        const char* extension;
        bool hasAlpha;
        double tolerance;
    } formats[] = {
        { "bmp", false, 0 }, { "exr", true, 0.01 },
        { "hdr", false, 2 }, // Seven to eight bits of each mantissa.
        { "jpg", false, 6 }, // Colours of two by two pixels are one, and the picture is small.
        { "png", true, 0 }, { "sgi", true, 0 },
        { "tif", true, 0.01 }, // 16-bit samples, rounded when they become bytes again.
    };
    for (const auto& format : formats) {
        QUtils::Image8 image;
        const std::string name = *s_dir / (std::string("a/frame.0007.") + format.extension);
        ASSERT_EQ(LoadImageFile(name.c_str(), image, nullptr).code(), IMGERR_NONE) << name;
        ASSERT_EQ(image.width(), width) << name;
        ASSERT_EQ(image.height(), height) << name;
        EXPECT_LE(meanDifference(image, targa, format.hasAlpha), format.tolerance) << name;
    }
}

TEST_F(RenderFrame, TheFilesWithAllChannelsHoldTheSamePicture)
{
    const QUtils::Image8 targa = load("frame.0007.tga");
    QUtils::Image8 image;
    ASSERT_EQ(LoadImageFile((*s_dir / "a/frame_all.0007.exr").c_str(), image, nullptr).code(), IMGERR_NONE);
    EXPECT_LE(meanDifference(image, targa, true), 0.1); // Half floats.
    QUtils::RIReader reader;
    ASSERT_EQ(reader.Open((*s_dir / "a/frame.0007.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 0);
    EXPECT_EQ(reader.getNumChannels(), 7);
}

TEST_F(RenderFrame, PrintsExactlyTheFilesThatItWrote)
{
    const std::string prefix = *s_dir / "a/", text = output();
    std::set<std::string> printed;
    for (std::size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = text.substr(begin, end - begin);
        if (line.compare(0, prefix.size(), prefix) == 0)
            printed.insert(line.substr(prefix.size()));
    }
    EXPECT_EQ(printed, filesIn(*s_dir / "a"));
}

TEST_F(RenderFrame, SaysWhichFormatsThisBuildLacks)
{
    // Photoshop files are never written.
    EXPECT_NE(output().find("Photoshop (*.psd): not in this build\n"), std::string::npos) << output();
    EXPECT_EQ(output().find("Targa image file (*.tga):"), std::string::npos) << output();
}

TEST_F(RenderFrame, SoftimageFilesHaveRedAndBlueExchangedForTheRenderer)
{
    const QUtils::Image8 targa = load("frame.0007.tga");
    QUtils::Image8 image;
    ASSERT_EQ(LoadImageFile((*s_dir / "a/frame.0007.pic").c_str(), image, nullptr).code(), IMGERR_NONE);
    ASSERT_EQ(image.width(), width);
    ASSERT_EQ(image.height(), height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const unsigned int pixel = image.pixel(x, y);
            ASSERT_EQ((pixel & 0xFF00FF00u) | (pixel >> 16 & 0xFF) | (pixel & 0xFF) << 16, targa.pixel(x, y));
        }
}

/// What a file holds, but for the name that SGI files have in their header.
Bytes contentOf(const std::string& name)
{
    Bytes bytes = readFile(name);
    if (fs::path(name).extension() == ".sgi")
        std::fill_n(bytes.begin() + 24, 80, std::uint8_t(0));
    return bytes;
}

TEST_F(RenderFrame, WritesTheSameBytesOnEveryRun)
{
    ASSERT_EQ(renderInto(*s_dir / "b"), 0);
    ASSERT_EQ(filesIn(*s_dir / "a"), filesIn(*s_dir / "b"));
    for (const std::string& name : filesIn(*s_dir / "a"))
        EXPECT_EQ(contentOf(*s_dir / ("a/" + name)), contentOf(*s_dir / ("b/" + name))) << name;
}

TEST_F(RenderFrame, RendersTheSamePixelsOnEveryMachineAndWithEveryCompiler)
{
    std::uint32_t hash = 2166136261u; // FNV-1a over whole pixels.
    forEachPixel(load("frame.0007.tga"), [&](unsigned int pixel) { hash = (hash ^ pixel) * 16777619u; });
    EXPECT_EQ(hash, 3785938925u) << "If the scene was changed on purpose, put the new number here.";
}

TEST_F(RenderFrame, BeautyIsAColourfulPictureWithASkyThatAlphaLeavesOut)
{
    const QUtils::Image8 beauty = load("frame.0007.tga");
    EXPECT_GT(valuesIn(beauty, 0x00FFFFFFu).size(), 1000u);
    EXPECT_EQ(beauty.pixel(0, 0) >> 24, 0u);
    EXPECT_NE(beauty.pixel(0, 0) & 0x00FFFFFFu, 0u) << "Straight alpha keeps the colour of the sky.";
    EXPECT_EQ(beauty.pixel(width / 2, height - 1) >> 24, 255u);
}

TEST_F(RenderFrame, ObjectNumbersAreWholeAndNeverBlended)
{
    std::set<unsigned int> expected;
    for (unsigned int object = 0; object <= 10; ++object)
        expected.insert(object * 25);
    EXPECT_EQ(valuesIn(load("object/frame_object.0007.tga"), 0xFFu), expected);
}

TEST_F(RenderFrame, NormalsOfTheFloorPointUp)
{
    EXPECT_EQ(load("normals/frame_normals.0007.tga").pixel(0, height - 1) & 0x00FFFFFFu, 0x0080FF80u);
}

TEST_F(RenderFrame, DepthIsWhiteNearAndBlackInTheSky)
{
    const QUtils::Image8 depth = load("depth/frame_depth.0007.tga");
    EXPECT_EQ(depth.pixel(0, 0) & 0xFFu, 0u);
    EXPECT_GT(depth.pixel(0, height - 1) & 0xFFu, depth.pixel(0, height / 2) & 0xFFu);
    EXPECT_LT(depth.pixel(0, height - 1) & 0xFFu, 255u) << "Nothing is nearer than what is shown as white.";
}

} // namespace
