#include "rastkit/buffers.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/load.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using testing::AnyOf;

/// Where the other decoders' figures do not hold, and why this one is right.
const std::map<std::string, std::string> deviations = {
    { "tga/openimageio/crash1708.tga", "indices count from the map's first index, 126; OpenImageIO takes 0" },
};

/// Where only the colours are compared.
const std::map<std::string, std::string> alphaDeviations = {
    { "tga/sail/TALOS-2025-2220.tga", "no attribute bits: the fourth byte, 0, is no alpha" },
    { "tga/twelvemonkeys/FLAG_B32.TGA", "the same: read as alpha, the picture is invisible" },
    { "tga/twelvemonkeys/FLAG_T32.TGA", "the same" },
    { "tga/twelvemonkeys/XING_B32.TGA", "the same" },
    { "tga/twelvemonkeys/XING_T32.TGA", "the same" },
};

/// What the other decoders give up on, and what of it can be read all the same.
const std::map<std::string, std::string> readByUsOnly = {
    { "tga/openimageio/crash1707.tga", "its last packet goes past the image" },
};

class TgaCorpus : public CorpusTest { };

TEST_F(TgaCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("tga");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            Image8 image;
            IMGINFO info {};
            info.numChannels = -1;
            const int code = codeOf(QUtils::loadTga(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY)) << file;
            EXPECT_EQ(info.numChannels != -1, code == IMGERR_NONE) << file;

            IMGINFO described {};
            const int headerCode = codeOf(QUtils::loadTgaHeader(path(file).c_str(), &described, conventions));
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(described.width, info.width) << file;
                EXPECT_EQ(described.height, info.height) << file;
            }
        }
}

TEST_F(TgaCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("tga")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end)
            continue;
        Image8 image;
        IMGINFO info {};
        ASSERT_EQ(
            codeOf(QUtils::loadTga(path(file).c_str(), image, &info, Conventions::Standard)), IMGERR_NONE)
            << file;
        if (deviations.count(file))
            continue;

        // Pillow cuts five bits to eight where others round: a value less.
        constexpr double tolerance = 1.01 / 255;
        EXPECT_TRUE(agreesWithOne(begin, end, image, tolerance, !alphaDeviations.count(file))) << file;
        ++compared;
    }
    EXPECT_GE(compared, 90);
}

TEST_F(TgaCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("tga")) {
        if (readable.count(file) || readByUsOnly.count(file))
            continue;
        Image8 image;
        EXPECT_NE(
            codeOf(QUtils::loadTga(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
    }
}

} // namespace
