#include "rastkit/buffers.h"
#include "rastkit/codecs/bmp_core.h"
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
    { "bmp/pillow/rgb32-111110.bmp", "OpenImageIO does not look at masks" },
    { "bmp/pillow/rgb32bf.bmp", "the same" },
    { "bmp/pillow/rgba32abf.bmp", "the same" },
    { "bmp/zune-image/rgb32-7187.bmp", "the same" },
    { "bmp/zune-image/rgba32-1010102.bmp", "the same" },
    { "bmp/zune-image/rgba32-61754.bmp", "the same" },
    { "bmp/zune-image/rgba32-81284.bmp", "the same" },
};

/// What the others read, and why it is refused here.
const std::map<std::string, std::string> refused = {
    { "bmp/openimageio/crash-5158.bmp", "its runs break off" },
    { "bmp/pillow/badheadersize.bmp", "there is no header of 66 bytes" },
};

/// What the others give up on, and what of it can be read all the same.
const std::map<std::string, std::string> readByUsOnly = {
    { "bmp/commons-imaging/crash-3afb569de74522535ef65922233e1920455cdc14.bmp",
        "a palette of too many colors" },
    { "bmp/pillow/badpalettesize.bmp", "the same" },
    { "bmp/pillow/pal8oversizepal.bmp", "the same" },
    { "bmp/pillow/pal2.bmp", "two bits a pixel" },
    { "bmp/zune-image/pal2color.bmp", "the same" },
};

class BmpCorpus : public CorpusTest { };

TEST_F(BmpCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("bmp");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            Image8 image;
            IMGINFO info {};
            const int code = codeOf(QUtils::loadBmp(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(
                code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED))
                << file;
            IMGINFO described {};
            const int headerCode = codeOf(QUtils::loadBmpHeader(path(file).c_str(), &described, conventions));
            if (code != IMGERR_NONE)
                continue;
            if (conventions == Conventions::Renderer && info.bitsPerPixel < 24) {
                EXPECT_EQ(headerCode, IMGERR_UNSUPPORTED) << file;
                continue;
            }
            EXPECT_EQ(headerCode, IMGERR_NONE) << file;
            EXPECT_EQ(described.width, info.width) << file;
            EXPECT_EQ(described.height, info.height) << file;
            EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            EXPECT_EQ(described.numChannels, info.numChannels) << file;
        }
}

TEST_F(BmpCorpus, RendererSeesTheColorsOfFilesThatBothConventionsRead)
{
    int compared = 0;
    for (const std::string& file : corpusFiles("bmp")) {
        Image8 renderers, standard;
        IMGINFO info {};
        if (codeOf(LoadBMPFile(path(file).c_str(), renderers, &info)) != IMGERR_NONE || info.bitsPerPixel < 4
            || renderers.height() == 0
            || codeOf(QUtils::loadBmp(path(file).c_str(), standard, nullptr, Conventions::Standard))
                != IMGERR_NONE)
            continue;
        // The renderer takes every header for one of 40 bytes: elsewhere its palette is another.
        std::ifstream in(path(file), std::ios::binary);
        in.seekg(14);
        if (in.get() != 40 && info.bitsPerPixel <= 8)
            continue;
        // A nibble that is alone in its byte is not in the renderer's row.
        const int width = info.bitsPerPixel == 4 ? renderers.width() & ~1 : renderers.width();
        int different = 0;
        for (int y = 0; y < renderers.height(); ++y)
            for (int x = 0; x < width; ++x)
                different += ((renderers.pixel(x, y) ^ standard.pixel(x, y)) & 0xFFFFFFu) != 0;
        EXPECT_EQ(different, 0) << file;
        ++compared;
    }
    EXPECT_GE(compared, 30);
}

TEST_F(BmpCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("bmp")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end || refused.count(file))
            continue;
        Image8 image;
        IMGINFO info {};
        EXPECT_EQ(
            codeOf(QUtils::loadBmp(path(file).c_str(), image, &info, Conventions::Standard)), IMGERR_NONE)
            << file;
        if (deviations.count(file))
            continue;

        // Samples of few bits are cut to eight by some, rounded by others: a value less.
        constexpr double tolerance = 1.01 / 255;
        EXPECT_TRUE(agreesWithOne(begin, end, image, tolerance, true)) << file;
        ++compared;
    }
    EXPECT_GE(compared, 90);
}

TEST_F(BmpCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("bmp")) {
        Image8 image;
        const int code = codeOf(QUtils::loadBmp(path(file).c_str(), image, nullptr, Conventions::Standard));
        const bool reads = (readable.count(file) && !refused.count(file)) || readByUsOnly.count(file);
        EXPECT_EQ(code == IMGERR_NONE, reads) << file;
    }
}

} // namespace
