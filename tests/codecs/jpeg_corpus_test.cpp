#include "rastkit/buffers.h"
#include "rastkit/codecs/jpeg_core.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using testing::AnyOf;

/// What another decoder takes for whole although data is missing or broken. The picture is handed over, with
/// IMGERR_READ.
const std::set<std::string> damaged = {
    "jpeg/jpeg-decoder/dc-predictor-overflow.jpg",
    "jpeg/jpeg-decoder/partial_progressive.jpg",
    "jpeg/jpeg-decoder/subtract-with-overflow.jpg",
    "jpeg/openimageio/corrupt-icc-4551.jpg",
    "jpeg/zune-image/small-img.jpg",
};

class JpegCorpus : public CorpusTest { };

TEST_F(JpegCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("jpeg");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            Image8 image;
            IMGINFO info {};
            info.numChannels = -1;
            const int code = codeOf(QUtils::loadJpeg(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(
                code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED))
                << file;
            const bool isDescribed = info.numChannels != -1;
            if (conventions == Conventions::Standard)
                EXPECT_EQ(isDescribed, code == IMGERR_NONE) << file;
            else // Refused pictures are described too.
                EXPECT_TRUE(isDescribed || code != IMGERR_NONE) << file;

            IMGINFO described {};
            const int headerCode
                = codeOf(QUtils::loadJpegHeader(path(file).c_str(), &described, conventions));
            if (code == IMGERR_NONE || code == IMGERR_READ) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(described.width, image.width()) << file;
                EXPECT_EQ(described.height, image.height()) << file;
            }
        }
}

TEST_F(JpegCorpus, MemoryIsReadAsFilesAre)
{
    for (const std::string& file : corpusFiles("jpeg")) {
        const Bytes bytes = readFile(path(file));
        Image8 fromFile, fromMemory;
        const int code
            = codeOf(QUtils::loadJpeg(path(file).c_str(), fromFile, nullptr, Conventions::Standard));
        EXPECT_EQ(codeOf(QUtils::loadJpegArray(
                      bytes.data(), bytes.size(), fromMemory, nullptr, Conventions::Standard)),
            code)
            << file;
        for (int y = 0; y < fromFile.height(); ++y)
            ASSERT_TRUE(std::equal(fromFile.row(y), fromFile.row(y) + fromFile.width(), fromMemory.row(y)))
                << file << ' ' << y;
    }
}

/// Figures of four components, of which the other decoder says how much light each leaves or takes.
bool agreeAsInks(const Image8& image, const PixelFigures& figures, double tolerance)
{
    PixelFigures ours = figuresOf(image, 4);
    if (agree(ours, figures, 4, tolerance))
        return true;
    std::swap(ours.minimum, ours.maximum);
    for (const auto figure : { &PixelFigures::minimum, &PixelFigures::maximum, &PixelFigures::mean,
             &PixelFigures::first, &PixelFigures::last })
        for (double& value : ours.*figure)
            value = 1 - value;
    return agree(ours, figures, 4, tolerance);
}

TEST_F(JpegCorpus, PicturesAgreeWithAnotherDecoder)
{
    // They decode with libjpeg-turbo as well; figures are rounded to six digits.
    constexpr double tolerance = 1e-6;
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("jpeg")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end)
            continue;
        Image8 colors, inks;
        EXPECT_EQ(codeOf(QUtils::loadJpeg(path(file).c_str(), colors, nullptr, Conventions::Standard)),
            damaged.count(file) ? IMGERR_READ : IMGERR_NONE)
            << file;
        ASSERT_EQ(
            codeOf(QUtils::loadJpeg(path(file).c_str(), inks, nullptr, Conventions::Renderer)), IMGERR_NONE)
            << file;
        EXPECT_TRUE(agreesWithOne(begin, end, [&](const PixelFigures& theirs, PixelFigures& ours) {
            const std::size_t channels = theirs.channels();
            ours = figuresOf(colors, channels);
            return channels == 4 ? agreeAsInks(inks, theirs, tolerance)
                                 : agree(ours, theirs, channels, tolerance);
        })) << file;
        ++compared;
    }
    EXPECT_GE(compared, 140);
}

TEST_F(JpegCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    int refused = 0;
    for (const std::string& file : corpusFiles("jpeg")) {
        if (readable.count(file))
            continue;
        Image8 image;
        EXPECT_NE(
            codeOf(QUtils::loadJpeg(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
        ++refused;
    }
    EXPECT_GE(refused, 50);
}

} // namespace
