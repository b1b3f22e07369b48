#include "rastkit/buffers.h"
#include "rastkit/exr/exr_core.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::ImageF;
using testing::AnyOf;

/// Where the other decoder's figures do not hold.
const std::map<std::string, std::string> deviations = {
    { "exr/exrs/v1.7.test.tiled.exr", "green and depth: a colour here, two channels there" },
    { "exr/openexr/v1.7.test.tiled.exr", "the same" },
    { "exr/openexr/sample.exr", "the same" },
    { "exr/openexr-images/WideFloatRange.exr", "green alone: a colour here, grey there" },
    { "exr/openimageio/az.exr", "alpha and depth: there in the order of their names" },
};

/// What the other decoder reads, and why it is refused here.
const std::map<std::string, std::string> refusedByUs = {
    { "exr/exrs/y_ry_by_dwaa.exr", "chroma of every pixel, which OpenEXR has no colours for" },
    { "exr/exrs/y_ry_by_dwaa_ground_truth.exr", "the same" },
    { "exr/openexr/comp_bad_neg_bounds_pxr24.exr", "its attributes are larger than the file" },
    { "exr/openexr/comp_bad_pos_bounds_piz.exr", "the same" },
    { "exr/openexr/comp_bad_pos_bounds_pxr24.exr", "the same" },
    { "exr/openexr/tiled_with_deepscanline_type.exr", "it says that it is deep" },
};

/// The table has six digits, and its pixels are of any size. Only the first `channels` are compared.
bool agreeToFiveDigits(const PixelFigures& a, const PixelFigures& b, std::size_t channels)
{
    const auto same = [](double x, double y) {
        return x == y || (std::isnan(x) && std::isnan(y)) || std::fabs(x - y) <= 1e-5 * (1 + std::fabs(x));
    };
    for (const auto figure : { &PixelFigures::minimum, &PixelFigures::maximum, &PixelFigures::mean,
             &PixelFigures::first, &PixelFigures::last })
        for (std::size_t c = 0; c < channels; ++c)
            if (!same((a.*figure).at(c), (b.*figure).at(c)))
                return false;
    return true;
}

class ExrCorpus : public CorpusTest { };

TEST_F(ExrCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("exr");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            ImageF image;
            IMGINFO info {}, described {};
            testing::internal::CaptureStderr();
            const int code = codeOf(QUtils::loadExr(path(file).c_str(), image, &info, conventions));
            const std::string said = testing::internal::GetCapturedStderr();
            EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_MEMORY)) << file;
            const bool isTold = code == IMGERR_READ && conventions == Conventions::Renderer;
            EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), isTold ? 1 : 0) << file << said;
            if (code != IMGERR_NONE)
                continue;
            EXPECT_EQ(
                codeOf(QUtils::loadExrHeader(path(file).c_str(), &described, conventions)), IMGERR_NONE);
            EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            EXPECT_EQ(described.width, image.width()) << file;
            EXPECT_EQ(described.height, image.height()) << file;
        }
}

TEST_F(ExrCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("exr")) {
        const auto [begin, end] = allFigures.equal_range(file);
        // More than four channels are in another order there: alphabetical.
        if (begin == end || begin->second.channels() > 4 || deviations.count(file))
            continue;
        ImageF image;
        IMGINFO info {};
        const ImgError error = QUtils::loadExr(path(file).c_str(), image, &info, Conventions::Standard);
        const int code = error.code();
        EXPECT_EQ(code == IMGERR_NONE, refusedByUs.count(file) == 0) << file << ' ' << error.message();
        if (code != IMGERR_NONE)
            continue;
        EXPECT_TRUE(agreesWithOne(begin, end, [&](const PixelFigures& theirs, PixelFigures& ours) {
            const std::size_t channels = theirs.channels();
            // A last channel that is no alpha is data there, and not read here.
            const std::size_t isData = channels % 2 == 0 && info.numChannels % 2 != 0 ? 1 : 0;
            ours = figuresOf(image, channels);
            return agreeToFiveDigits(ours, theirs, channels - isData);
        })) << file;
        ++compared;
    }
    EXPECT_GE(compared, 50);
}

} // namespace
