#include "rastkit/buffers.h"
#include "rastkit/codecs/pic.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::ImageF;
using testing::AnyOf;

/// What another decoder fills up and this one refuses.
const std::set<std::string> refusedHere = { "pic/openimageio/broken01.pic" }; // A run goes past its row.

class PicCorpus : public CorpusTest { };

TEST_F(PicCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("pic");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            QUtils::Image8 image;
            IMGINFO info {}, described {};
            const int code = codeOf(QUtils::loadPic(path(file).c_str(), image, &info, conventions));
            const int headerCode = codeOf(QUtils::loadPicHeader(path(file).c_str(), &described, conventions));
            EXPECT_THAT(
                code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED))
                << file;
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(described.width, info.width) << file;
                EXPECT_EQ(described.height, info.height) << file;
                EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            }
        }
}

TEST_F(PicCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("pic")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end)
            continue;
        ImageF image;
        if (refusedHere.count(file)) {
            EXPECT_EQ(codeOf(QUtils::loadPic(path(file).c_str(), image, nullptr, Conventions::Standard)),
                IMGERR_READ);
            continue;
        }
        ASSERT_EQ(
            codeOf(QUtils::loadPic(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
        constexpr double tolerance = 1e-5; // The figures have six digits.
        EXPECT_TRUE(agreesWithOne(begin, end, image, tolerance, true)) << file;
        ++compared;
    }
    EXPECT_GE(compared, 1);
}

TEST_F(PicCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("pic")) {
        if (readable.count(file))
            continue;
        QUtils::Image8 image;
        EXPECT_NE(
            codeOf(QUtils::loadPic(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
    }
}

} // namespace
