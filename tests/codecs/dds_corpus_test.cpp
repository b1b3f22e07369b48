#include "rastkit/buffers.h"
#include "rastkit/codecs/dds_core.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using QUtils::ImageF;
using testing::AnyOf;

class DdsCorpus : public CorpusTest { };

/// Where the other decoders' figures do not hold, and why these are right.
const std::map<std::string, std::string> deviations = {
    { "dds/twelvemonkeys/dds_DXT2.dds", "OpenImageIO divides by alpha, and wraps what comes out above 1" },
    { "dds/twelvemonkeys/dds_DXT2_mipmap.dds", "the same" },
    { "dds/twelvemonkeys/dds_DXT4.dds", "the same" },
    { "dds/twelvemonkeys/dds_DXT4_mipmap.dds", "the same" },
};

/// Where only the colours are compared.
const std::map<std::string, std::string> alphaDeviations = {
    { "dds/openimageio-images/dds_bc3rxgb.dds", "a normal map; OpenImageIO leaves another channel in alpha" },
};

TEST_F(DdsCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("dds");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            Image8 image;
            IMGINFO info {};
            info.numChannels = -1;
            const int code = codeOf(QUtils::loadDds(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(code,
                AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_UNSUPPORTED,
                    conventions == Conventions::Renderer ? IMGERR_LIBRARY : IMGERR_MEMORY))
                << file;
            EXPECT_EQ(info.numChannels != -1, code == IMGERR_NONE) << file;
            IMGINFO described {};
            const int headerCode = codeOf(QUtils::loadDdsHeader(path(file).c_str(), &described, conventions));
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(described.width, info.width) << file;
                EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            }
        }
}

TEST_F(DdsCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("dds")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end || deviations.count(file))
            continue;
        ImageF image;
        ASSERT_EQ(
            codeOf(QUtils::loadDds(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
        // Others cut the steps between two colours to whole numbers, and five bits to eight.
        constexpr double tolerance = 2.01 / 255;
        EXPECT_TRUE(agreesWithOne(begin, end, [&](const PixelFigures& theirs, PixelFigures& ours) {
            // Two channels are red and green, or grey and alpha.
            const std::size_t channels = theirs.channels();
            const bool isRedGreen = channels == 2 && file.find("_la") == std::string::npos;
            ours = figuresOf(image, isRedGreen ? 3 : channels);
            return agree(ours, theirs, alphaDeviations.count(file) ? 3 : channels, tolerance);
        })) << file;
        ++compared;
    }
    EXPECT_GE(compared, 70);
}

} // namespace
