#include "rastkit/tiles/mip_pyramid.h"
#include "support/mip_reference.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <utility>

namespace {

using namespace testing_support;
using QUtils::MipFilter;
using QUtils::MipPyramid;
using QUtils::TextureWrap;

/// Keeps the rows that it is given, and counts those that come twice.
class Levels : public MipPyramid::Receiver {
public:
    Levels(int width, int channels) : m_width(width), m_channels(channels) { }

    void takeRow(int level, int y, const float* row) override
    {
        std::vector<float>& kept = rows[{ level, y }];
        twice += kept.empty() ? 0 : 1;
        kept.assign(row, row + MipPyramid::sizeAt(level, m_width) * m_channels);
    }

    std::map<std::pair<int, int>, std::vector<float>> rows;
    int twice = 0;

private:
    int m_width, m_channels;
};

Plane pictureOf(int width, int height, int channels)
{
    Plane picture(width, height, channels);
    for (std::size_t i = 0; i < picture.samples.size(); ++i)
        picture.samples[i] = double(i * 7919 % 1021) / 512 - 0.5;
    return picture;
}

struct Facts {
    MipReference how;
    int width = 8, height = 8, channels = 1;
};

/// Puts the rows in that order.
void build(const Facts& facts, const Plane& picture, const std::vector<int>& order, Levels& levels,
    std::size_t* mostKept = nullptr)
{
    MipPyramid pyramid(facts.width, facts.height, facts.channels, facts.how.filter, facts.how.wrapX,
        facts.how.wrapY, levels);
    for (const int y : order) {
        const std::vector<float> row(
            picture.row(y), picture.row(y) + std::size_t(facts.width) * std::size_t(facts.channels));
        pyramid.putRow(y, row.data());
        if (mostKept)
            *mostKept = std::max(*mostKept, pyramid.keptRows());
    }
    EXPECT_EQ(pyramid.keptRows(), 0u);
}

std::vector<int> fromTheTop(int height)
{
    std::vector<int> rows(std::size_t(height), 0);
    for (int i = 0; i < height; ++i)
        rows[std::size_t(i)] = i;
    return rows;
}

void expectReference(const Facts& facts)
{
    SCOPED_TRACE(testing::Message() << facts.width << "x" << facts.height << " filter "
                                    << int(facts.how.filter) << " wraps " << int(facts.how.wrapX) << ","
                                    << int(facts.how.wrapY));
    Plane level = pictureOf(facts.width, facts.height, facts.channels);
    Levels made(facts.width, facts.channels);
    build(facts, level, fromTheTop(facts.height), made);
    std::size_t rows = 0;
    double worst = 0;
    for (int k = 1; level.width > 1 || level.height > 1; ++k) {
        level = facts.how.shrink(level);
        for (int y = 0; y < level.height; ++y, ++rows) {
            const std::vector<float>& row = made.rows[{ k, y }];
            ASSERT_EQ(row.size(), std::size_t(level.width * level.channels));
            for (std::size_t i = 0; i < row.size(); ++i)
                worst = std::max(worst, std::fabs(double(row[i]) - level.row(y)[i]));
        }
    }
    EXPECT_LT(worst, 1e-5);
    EXPECT_EQ(made.rows.size(), rows);
    EXPECT_EQ(made.twice, 0);
}

TEST(MipPyramidOfRows, EveryLevelIsThePlainFilterOfTheOneAbove)
{
    const std::pair<int, int> sizes[]
        = { { 5, 3 }, { 1, 7 }, { 7, 1 }, { 100, 37 }, { 16, 8 }, { 2, 3 }, { 1, 1 } };
    for (const auto& [width, height] : sizes)
        for (const MipFilter filter : allFilters)
            expectReference({ { filter, TextureWrap::Clamp, TextureWrap::Clamp }, width, height, 1 });
}

TEST(MipPyramidOfRows, EachAxisIsWrappedInItsOwnWay)
{
    for (const TextureWrap wrapX : allWraps)
        for (const TextureWrap wrapY : allWraps) {
            expectReference({ { MipFilter::Lanczos3, wrapX, wrapY }, 5, 3, 2 });
            expectReference({ { MipFilter::Mitchell, wrapX, wrapY }, 9, 20, 1 });
        }
}

TEST(MipPyramidOfRows, ChannelsAreFilteredEachByItself)
{
    for (int channels = 1; channels <= 4; ++channels)
        for (const MipFilter filter : allFilters)
            expectReference({ { filter, TextureWrap::Periodic, TextureWrap::Mirror }, 13, 6, channels });
}

TEST(MipPyramidOfRows, OrderOfRowsDoesNotMatterToTheBit)
{
    for (const MipFilter filter : allFilters)
        for (const TextureWrap wrap : { TextureWrap::Clamp, TextureWrap::Periodic }) {
            const Facts facts { { filter, wrap, wrap }, 11, 29, 3 };
            const Plane picture = pictureOf(facts.width, facts.height, facts.channels);
            Levels down(11, 3), up(11, 3), shuffled(11, 3);
            const std::vector<int> order = fromTheTop(29);
            build(facts, picture, order, down);
            build(facts, picture, { order.rbegin(), order.rend() }, up);
            build(facts, picture, shuffledRows(29), shuffled);
            EXPECT_EQ(down.rows, up.rows);
            EXPECT_EQ(down.rows, shuffled.rows);
        }
}

TEST(MipPyramidOfRows, KeepsFewRowsWhenTheyComeInOrder)
{
    const struct {
        MipFilter filter;
        std::size_t perLevel; ///< The filter's width in rows, and the next one's first.
    } cases[] = { { MipFilter::Box, 2 }, { MipFilter::Triangle, 5 }, { MipFilter::Mitchell, 9 },
        { MipFilter::Lanczos3, 13 } };
    for (const auto& [filter, perLevel] : cases)
        for (const bool isUp : { false, true }) {
            const Facts facts { { filter, TextureWrap::Clamp, TextureWrap::Clamp }, 1, 1024, 1 };
            Levels levels(1, 1);
            std::vector<int> order = fromTheTop(1024);
            if (isUp)
                std::reverse(order.begin(), order.end());
            std::size_t mostKept = 0;
            build(facts, pictureOf(1, 1024, 1), order, levels, &mostKept);
            EXPECT_LE(mostKept, perLevel * 10) << int(filter) << " " << isUp;
            EXPECT_GT(mostKept, 0u);
        }
}

TEST(MipPyramidOfRows, PeriodicRowsOfTheTopStayUntilTheBottomNeedsThem)
{
    const Facts facts { { MipFilter::Lanczos3, TextureWrap::Clamp, TextureWrap::Periodic }, 4, 64, 1 };
    Levels levels(4, 1);
    MipPyramid pyramid(4, 64, 1, facts.how.filter, facts.how.wrapX, facts.how.wrapY, levels);
    const float row[4] = {};
    for (int y = 0; y < 63; ++y)
        pyramid.putRow(y, row);
    EXPECT_EQ(levels.rows.count({ 1, 0 }), 0u);
    pyramid.putRow(63, row);
    EXPECT_EQ(levels.rows.count({ 1, 0 }), 1u);
}

TEST(MipPyramidOfRows, NotANumberStaysWhereTheFilterReaches)
{
    Levels levels(16, 1);
    MipPyramid pyramid(16, 2, 1, MipFilter::Box, TextureWrap::Clamp, TextureWrap::Clamp, levels);
    float row[16] = {};
    row[5] = std::numeric_limits<float>::quiet_NaN();
    row[8] = std::numeric_limits<float>::infinity();
    pyramid.putRow(0, row);
    pyramid.putRow(1, row);
    const std::vector<float>& made = levels.rows[{ 1, 0 }];
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(std::isfinite(made[i]), i != 2 && i != 4) << i;
    EXPECT_TRUE(std::isnan(made[2]));
    EXPECT_TRUE(std::isinf(made[4]));
}

TEST(MipPyramidOfRows, PixelsWithoutWeightAreNotMet)
{
    // Of odd sizes pixels cover fractions of others: whom they only touch they must not spoil.
    for (const TextureWrap wrap : { TextureWrap::Clamp, TextureWrap::Periodic })
        for (const int size : { 3, 7, 19, 25, 49, 61 })
            for (int bright = 0; bright < size; ++bright) {
                Levels levels(size, 1);
                MipPyramid pyramid(size, 1, 1, MipFilter::Box, wrap, wrap, levels);
                std::vector<float> row(std::size_t(size), 1.0f);
                row[std::size_t(bright)] = std::numeric_limits<float>::infinity();
                pyramid.putRow(0, row.data());
                const int half = size / 2;
                const std::vector<float>& made = levels.rows[{ 1, 0 }];
                ASSERT_EQ(made.size(), std::size_t(half));
                for (int i = 0; i < half; ++i) {
                    const bool covers = bright * half < (i + 1) * size && (bright + 1) * half > i * size;
                    ASSERT_EQ(std::isinf(made[std::size_t(i)]), covers) << size << " " << bright << " " << i;
                    ASSERT_TRUE(covers || std::fabs(made[std::size_t(i)] - 1) < 1e-6f);
                }
            }
}

TEST(MipPyramidOfRows, CountsLevelsDownToOnePixel)
{
    EXPECT_EQ(MipPyramid::levelCount(1, 1), 1);
    EXPECT_EQ(MipPyramid::levelCount(2, 1), 2);
    EXPECT_EQ(MipPyramid::levelCount(3, 5), 3);
    EXPECT_EQ(MipPyramid::levelCount(64, 1), 7);
    EXPECT_EQ(MipPyramid::levelCount(65, 3), 7);
}

} // namespace
