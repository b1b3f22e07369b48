#include "qutils/formats/psd/psd.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/psd_core.h"
#include "rastkit/load.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <sstream>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::ImageF;
using testing::AnyOf;

/// Where the other decoders' figures do not hold, and why this one is right.
const std::map<std::string, std::string> deviations = {
    { "psd/openimageio/crash-rowbounds-f999.psd", "samples of one bit, which OpenImageIO takes for bytes" },
    { "psd/openimageio/pattern2-8-lab.psd", "Pillow delivers L, a and b" },
    { "psd/psd-tools/4x4_8bit_lab.psd", "the same" },
    { "psd/sail/bpp48-rgb.psd", "runs go past the end of their rows; Pillow goes on with them in the next" },
    { "psd/twelvemonkeys/gimp-32x32-packbits-overflow.psd", "the same" },
};

/// Whose layers, composed here, are not their merged picture, and why. Where the reader itself warns of a
/// style, an adjustment layer, a fill or the like, or of a merged picture that is none, that is the reason.
const std::map<std::string, std::string> notComposedAlike = {
    { "psd/pillow/psd-oob-write.psd",
        "made to break readers: its picture and its layers have nothing in common" },
    { "psd/psd-tools/4x4_8bit_rgba.psd", "its extra channel is no transparency, and its layers have one" },
};

class PsdCorpus : public CorpusTest { };

/// How decoders deliver a picture with transparency.
enum class Colours {
    AsTheyAre,
    OverWhite, ///< As the file stores them: Pillow.
    OverBlack, ///< Alpha multiplied in: OpenImageIO.
};

PixelFigures figuresAs(Colours colours, const ImageF& image, std::size_t channels)
{
    return figuresOf(image.width(), image.height(), channels, [&](int x, int y, std::size_t component) {
        const float* const pixel = image.row(y) + std::size_t(x) * 4;
        if (component == 3 || colours == Colours::AsTheyAre)
            return double(pixel[component]);
        const double white = colours == Colours::OverWhite ? 1 - pixel[3] : 0;
        return double(pixel[component]) * pixel[3] + white;
    });
}

/// Whether one of the ways to deliver transparency gives those figures.
bool agreesSomehow(const ImageF& image, const PixelFigures& figures, std::ostringstream& seen)
{
    const std::size_t channels = figures.channels();
    seen << '\n' << toText(figures);
    for (const Colours colours : { Colours::AsTheyAre, Colours::OverWhite, Colours::OverBlack }) {
        const PixelFigures ours = figuresAs(colours, image, channels);
        seen << "\nhere" << toText(ours);
        if (agree(ours, figures, channels, 0.6 / 255))
            return true;
    }
    return false;
}

TEST_F(PsdCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("psd");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            ImageF image;
            IMGINFO info {}, described {};
            const int code = codeOf(QUtils::loadPsd(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT)) << file;
            const int headerCode = codeOf(QUtils::loadPsdHeader(path(file).c_str(), &described, conventions));
            if (code != IMGERR_NONE)
                continue;
            EXPECT_EQ(headerCode, IMGERR_NONE) << file;
            EXPECT_EQ(described.width, image.width()) << file;
            EXPECT_EQ(described.height, image.height()) << file;
            EXPECT_EQ(described.numChannels, info.numChannels) << file;
            EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
        }
}

TEST_F(PsdCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("psd")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end)
            continue;
        ImageF image;
        ASSERT_EQ(
            codeOf(QUtils::loadPsd(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
        if (deviations.count(file))
            continue;
        bool agrees = false;
        std::ostringstream seen;
        for (auto figures = begin; figures != end && !agrees; ++figures)
            agrees = agreesSomehow(image, figures->second, seen);
        EXPECT_TRUE(agrees) << file << seen.str();
        ++compared;
    }
    EXPECT_GE(compared, 60);
}

/// What others give up on, and what of it can be read all the same: nothing.
TEST_F(PsdCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("psd")) {
        if (readable.count(file))
            continue;
        ImageF image;
        EXPECT_NE(
            codeOf(QUtils::loadPsd(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
    }
}

/// Over white, as the file has the merged picture.
std::vector<float> rowOverWhite(const PSD_Image& image, int y)
{
    std::vector<float> row(std::size_t(image.width()) * 4);
    image.getRow(y, row.data());
    for (std::size_t i = 0; i < row.size(); i += 4)
        for (std::size_t c = 0; c < 3; ++c)
            row[i + c] = row[i + c] * row[i + 3] + 1 - row[i + 3];
    return row;
}

/// The mean difference of a channel that differs most; 1 is white.
double difference(const PSD_Image& merged, const PSD_Image& composed)
{
    double sums[4] = {};
    for (int y = 0; y < merged.height(); ++y) {
        const std::vector<float> a = rowOverWhite(merged, y), b = rowOverWhite(composed, y);
        for (std::size_t i = 0; i < a.size(); ++i)
            if (i % 4 != 3 || merged.hasAlpha())
                sums[i % 4] += double(std::fabs(a[i] - b[i]));
    }
    return *std::max_element(sums, sums + 4) / (double(merged.width()) * merged.height());
}

TEST_F(PsdCorpus, LayersComposeToTheMergedPicture)
{
    int compared = 0;
    for (const std::string& file : corpusFiles("psd")) {
        PSD_Image merged, composed;
        if (PSD_LoadFile(path(file).c_str(), {}, {}, merged) != QUtils::PSD_ERROR_NONE
            || PSD_ComposeFile(path(file).c_str(), {}, composed) != QUtils::PSD_ERROR_NONE)
            continue;
        if (!merged.warnings().empty() || !composed.warnings().empty() || notComposedAlike.count(file))
            continue;
        EXPECT_LE(difference(merged, composed), 1.0 / 255) << file;
        ++compared;
    }
    EXPECT_GE(compared, 50);
}

TEST_F(PsdCorpus, ExceptionsAreStillNeeded)
{
    for (const auto& [file, reason] : notComposedAlike) {
        PSD_Image merged, composed;
        ASSERT_EQ(PSD_LoadFile(path(file).c_str(), {}, {}, merged), QUtils::PSD_ERROR_NONE) << file;
        ASSERT_EQ(PSD_ComposeFile(path(file).c_str(), {}, composed), QUtils::PSD_ERROR_NONE) << file;
        EXPECT_GT(difference(merged, composed), 1.0 / 255) << file << ": " << reason;
    }
}

} // namespace
