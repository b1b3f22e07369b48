#include "rastkit/model/row_source.h"

#include "rastkit/buffers.h"
#include "support/frame_double.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::RowQuery;
using QUtils::RowSource;

const RowQuery query { .channel = 3, .alphaChannel = 5, .format = 300 };

TEST(RowSource, AsksForOneRowAtATime)
{
    FrameDouble frame(7, 4);
    RowSource source(frame, query);
    unsigned char row[28];
    ASSERT_TRUE(source.fetch(2, row));
    ASSERT_EQ(frame.queries.size(), 1u);
    const FrameDouble::Query& asked = frame.queries[0];
    EXPECT_EQ(asked.channel, 3);
    EXPECT_EQ(asked.alphaChannel, 5);
    EXPECT_EQ(asked.format, 300);
    EXPECT_EQ(asked.rowBytes, 28);
    EXPECT_EQ(asked.argument0, 1);
    EXPECT_EQ(asked.argument1, 0);
    EXPECT_EQ(asked.argument2, 0);
    EXPECT_EQ(asked.mode, -1);
    const QUtils::PixelBufferRegion& r = asked.region;
    EXPECT_EQ((std::vector { r.left, r.top, r.right, r.bottom, r.width, r.height, r.reserved0, r.reserved1 }),
        (std::vector { 0, 2, 7, 3, 7, 1, 0, 0 }));
}

TEST(RowSource, RowsHaveTheBytesOfTheFormatAndTheFirstWidth)
{
    FrameDouble frame(7, 4);
    const struct {
        int format;
        std::size_t pixelBytes;
    } rows[] = { { 100, 1 }, { 101, 2 }, { 102, 4 }, { 103, 4 }, { 200, 3 }, { 201, 6 }, { 202, 12 },
        { 203, 12 }, { 300, 4 }, { 301, 8 }, { 302, 16 }, { 303, 16 } };
    for (const auto& row : rows) {
        const RowSource source(frame, { .channel = 0, .alphaChannel = -1, .format = row.format });
        EXPECT_EQ(source.pixelBytes(), row.pixelBytes) << row.format;
        EXPECT_EQ(source.rowBytes(), 7 * row.pixelBytes) << row.format;
    }
    RowSource source(frame, query);
    frame.width = 400; // A live frame that was resized: the writer's memory was measured before.
    unsigned char row[28];
    ASSERT_TRUE(source.fetch(0, row));
    EXPECT_EQ(frame.queries.at(0).rowBytes, 28);
    EXPECT_EQ(frame.queries.at(0).region.right, 7);
}

TEST(RowSource, FrameWithoutCountableRowsCannotBeAsked)
{
    FrameDouble negative(-1, 4), wide(1 << 29, 1), empty(0, 0), widest((1 << 29) - 1, 1);
    EXPECT_FALSE(RowSource(negative, query).isAskable());
    EXPECT_EQ(RowSource(negative, query).rowBytes(), 0u);
    EXPECT_FALSE(RowSource(wide, query).isAskable());
    EXPECT_TRUE(RowSource(widest, query).isAskable());
    EXPECT_TRUE(RowSource(empty, query).isAskable());
}

TEST(RowSource, CorrectedPixelsAreTakenWhenThePluginOffersThem)
{
    FrameDouble frame(7, 4);
    EXPECT_EQ(QUtils::findCorrectedPixels(frame), nullptr);
    CorrectingPlugin plugin(frame);
    RowSource source(frame, query, QUtils::findCorrectedPixels(frame), QUtils::getIntent(0x200));
    unsigned char row[28];
    ASSERT_TRUE(source.fetch(0, row));
    EXPECT_EQ(frame.queries.at(0).mode, 0);
}

TEST(RowSource, RefusedRowIsFalse)
{
    FrameDouble frame(7, 4);
    frame.refusedRow = 1;
    RowSource source(frame, query);
    unsigned char row[28];
    EXPECT_TRUE(source.fetch(0, row));
    EXPECT_FALSE(source.fetch(1, row));
}

TEST(Intent, IsThreeUnlessTheFlagIsSet)
{
    EXPECT_EQ(getIntent(0), 3);
    EXPECT_EQ(getIntent(~0x200), 3);
    EXPECT_EQ(getIntent(0x200), 0);
}

TEST(RowSource, OnlyAFrameBufferItselfIsKnownToKeepBytes)
{
    struct OwnAnswers : QUtils::FrameBuffer {
        OwnAnswers() : FrameBuffer(2, 2) { }
    } ownAnswers;
    QUtils::FrameBuffer frame(2, 2);
    for (QUtils::FrameBuffer* const buffer : { static_cast<QUtils::FrameBuffer*>(&ownAnswers), &frame }) {
        ASSERT_EQ(buffer->addChannel("bytes", 1, 4, QUtils::FrameSample::Packed8), 0);
        ASSERT_EQ(buffer->addChannel("floats", 2, 4, QUtils::FrameSample::Float), 1);
    }
    EXPECT_TRUE(QUtils::keepsBytes(frame, 0, -1));
    EXPECT_TRUE(QUtils::keepsBytes(frame, 0, 0));
    EXPECT_FALSE(QUtils::keepsBytes(frame, 0, 1));
    EXPECT_FALSE(QUtils::keepsBytes(frame, 1, -1));
    EXPECT_FALSE(QUtils::keepsBytes(frame, 2, -1));
    EXPECT_FALSE(QUtils::keepsBytes(frame, -1, -1));
    EXPECT_FALSE(QUtils::keepsBytes(ownAnswers, 0, -1));
    FrameDouble other(2, 2);
    EXPECT_FALSE(QUtils::keepsBytes(other, 0, -1));
}

} // namespace
