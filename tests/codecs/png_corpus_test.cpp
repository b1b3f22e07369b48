#include "rastkit/buffers.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/load.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"
#include "support/run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string_view>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using testing::AnyOf;

/// Where the other program's pixels do not hold, and why these are right.
const std::map<std::string, std::string> deviations = {
    { "png/pillow/1_trns.png", "of the transparent value of a 1-bit image only the lowest bit counts" },
};

/// What the other decoders give up on, and what of it can be read all the same.
const std::map<std::string, std::string> readByUsOnly = {
    { "png/openimageio/xmp-deep-nesting.png",
        "its text inflates to more than they allow; texts are left alone" },
};

class PngCorpus : public CorpusTest {
protected:
    static int load(const std::string& file, Image8& image)
    {
        return codeOf(QUtils::loadPng(path(file).c_str(), image, nullptr, Conventions::Standard));
    }
};

/// The files of the public test suite that are damaged on purpose.
bool isDamagedOnPurpose(const std::string& file)
{
    return std::string_view(file).starts_with("png/pngsuite/x");
}

TEST_F(PngCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("png");
    ASSERT_FALSE(files.empty());
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
        for (const std::string& file : files) {
            Image8 image;
            IMGINFO info {};
            info.numChannels = -1;
            const int code = codeOf(QUtils::loadPng(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY)) << file;
            EXPECT_EQ(info.numChannels != -1, code == IMGERR_NONE) << file;

            IMGINFO described {};
            const int headerCode = codeOf(QUtils::loadPngHeader(path(file).c_str(), &described, conventions));
            if (code != IMGERR_NONE || headerCode == IMGERR_UNSUPPORTED)
                continue;
            EXPECT_EQ(headerCode, IMGERR_NONE) << file;
            EXPECT_EQ(described.width, info.width) << file;
            EXPECT_EQ(described.height, info.height) << file;
            if (conventions == Conventions::Standard) {
                EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            }
        }
}

TEST_F(PngCorpus, PicturesAgreeWithTheFiguresOfOtherDecoders)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("png")) {
        const auto [begin, end] = allFigures.equal_range(file);
        Image8 image;
        if (begin == end || load(file, image) != IMGERR_NONE)
            continue;
        constexpr double tolerance = 1.01 / 255;
        EXPECT_TRUE(agreesWithOne(begin, end, image, tolerance, true)) << file;
        ++compared;
    }
    EXPECT_GE(compared, 230);
}

/// R, G, B, A of each pixel as ImageMagick reads them, without the gamma that it would apply.
std::string pixelsOfImageMagick(const std::string& program, const std::string& path)
{
    return Program(program, { path, "-set", "colorspace", "sRGB", "-depth", "8", "rgba:-" }).wait().out;
}

std::string findConvert()
{
    for (const char* const name : { "/usr/bin/convert", "/usr/local/bin/convert" })
        if (std::filesystem::exists(name))
            return name;
    return "";
}

/// The largest difference of a sample, where the colours of what is transparent are compared too; 256 when
/// the sizes differ.
int largestDifference(Image8& image, const std::string& rgba)
{
    const std::size_t pixels = std::size_t(image.width()) * std::size_t(image.height());
    if (rgba.size() != 4 * pixels)
        return 256;
    int largest = 0;
    for (std::size_t i = 0; i < pixels; ++i) {
        const unsigned int argb = image.data()[i];
        const unsigned int ours[4] = { argb >> 16 & 0xFF, argb >> 8 & 0xFF, argb & 0xFF, argb >> 24 };
        for (std::size_t c = 0; c < 4; ++c)
            largest = std::max(largest, std::abs(int(ours[c]) - int(std::uint8_t(rgba[4 * i + c]))));
    }
    return largest;
}

TEST_F(PngCorpus, EveryPixelAgreesWithAnotherProgram)
{
    const std::string convert = findConvert();
    if (convert.empty())
        GTEST_SKIP() << "ImageMagick is not installed";
    int compared = 0;
    for (const std::string& file : corpusFiles("png")) {
        Image8 image;
        constexpr int mostPixels = 1 << 20;
        if (deviations.count(file) || load(file, image) != IMGERR_NONE
            || image.width() * image.height() > mostPixels)
            continue;
        EXPECT_LE(largestDifference(image, pixelsOfImageMagick(convert, path(file))), 1) << file;
        ++compared;
    }
    EXPECT_GE(compared, 230);
}

TEST_F(PngCorpus, PublicTestSuiteIsReadButForItsDamagedFiles)
{
    int files = 0;
    for (const std::string& file : corpusFiles("png/pngsuite")) {
        Image8 image;
        EXPECT_EQ(load(file, image) == IMGERR_NONE, !isDamagedOnPurpose(file)) << file;
        ++files;
    }
    EXPECT_GE(files, 160);
}

TEST_F(PngCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("png")) {
        if (readable.count(file) || readByUsOnly.count(file))
            continue;
        Image8 image;
        EXPECT_NE(load(file, image), IMGERR_NONE) << file;
    }
}

} // namespace
