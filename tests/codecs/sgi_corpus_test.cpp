#include "rastkit/buffers.h"
#include "rastkit/codecs/sgi_core.h"
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

class SgiCorpus : public CorpusTest { };

TEST_F(SgiCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("sgi");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            QUtils::Image8 image;
            IMGINFO info {}, described {};
            const int code = codeOf(QUtils::loadSgi(path(file).c_str(), image, &info, conventions));
            const int headerCode = codeOf(QUtils::loadSgiHeader(path(file).c_str(), &described, conventions));
            EXPECT_THAT(
                code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED))
                << file;
            if (conventions == Conventions::Renderer) {
                EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_MEMORY)) << file;
            }
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(described.width, info.width) << file;
                EXPECT_EQ(described.height, info.height) << file;
                EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            }
        }
}

TEST_F(SgiCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("sgi")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end)
            continue;
        ImageF image;
        ASSERT_EQ(
            codeOf(QUtils::loadSgi(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
        constexpr double tolerance = 1e-5; // The figures have six digits.
        EXPECT_TRUE(agreesWithOne(begin, end, image, tolerance, true)) << file;
        ++compared;
    }
    EXPECT_GE(compared, 11);
}

TEST_F(SgiCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("sgi")) {
        if (readable.count(file))
            continue;
        QUtils::Image8 image;
        EXPECT_NE(
            codeOf(QUtils::loadSgi(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
    }
}

} // namespace
