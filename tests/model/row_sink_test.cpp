#include "rastkit/model/row_sink.h"

#include "support/recording_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::RowSink;

TEST(RowSink, SinkOfSinglePixelsGetsThemFromLeftToRight)
{
    RecordingBuffer buffer;
    RowSink sink(buffer);
    ASSERT_EQ(sink.init(3, 2), IMGERR_NONE);
    const unsigned int row[] = { 10, 11, 12 };
    sink.put(0, 1, row, 3);
    const std::vector<RecordingBuffer::Position> expected { { 0, 1 }, { 1, 1 }, { 2, 1 } };
    EXPECT_EQ(buffer.order, expected);
    EXPECT_EQ(buffer.at(2, 1), 12u);
}

TEST(RowSink, NothingOutsideTheImageIsStored)
{
    RecordingBuffer buffer;
    RowSink sink(buffer);
    ASSERT_EQ(sink.init(2, 1), IMGERR_NONE);
    const unsigned int row[] = { 1, 2, 3, 4, 5 };
    sink.put(-1, 0, row, 5);
    sink.put(0, 1, row, 2);
    sink.put(0, -1, row, 2);
    sink.put(2, 0, row, 2);
    sink.put(-7, 0, row, 5);
    sink.put(0, 0, row, -1);
    sink.put(INT_MIN, 0, row, 5);
    sink.put(INT_MAX, 0, row, 5);
    sink.put(0, INT_MIN, row, 5);
    EXPECT_EQ(buffer.order.size(), 2u);
    EXPECT_EQ(buffer.at(0, 0), 2u);
    EXPECT_EQ(buffer.at(1, 0), 3u);
}

TEST(RowSink, SinkWithoutStorageIsAMemoryError)
{
    RecordingBuffer buffer;
    buffer.refuse = true;
    RowSink sink(buffer);
    EXPECT_EQ(sink.init(3, 2), IMGERR_MEMORY);
}

TEST(RowSink, AdoptedSinkIsNotSizedAndKeepsItsStorage)
{
    QUtils::Image8 image;
    image.init(2, 1);
    RowSink sink(image);
    sink.adopt(1000, 2);
    unsigned int* const row = sink.beginRow(0);
    ASSERT_NE(row, nullptr);
    EXPECT_NE(row, image.rowData(0));
    std::fill_n(row, 1000, 7u);
    sink.endRow(0, row);
    EXPECT_EQ(image.width(), 2);
    EXPECT_EQ(image.pixel(1, 0), 7u);
    EXPECT_EQ(sink.beginRowF(2), nullptr);
}

TEST(RowSink, RowsOfItsOwnReachASinkOfSinglePixels)
{
    RecordingBuffer buffer;
    RowSink sink(buffer);
    ASSERT_EQ(sink.init(2, 1), IMGERR_NONE);
    float* const row = sink.beginRowF(0);
    ASSERT_NE(row, nullptr);
    for (int i = 0; i < 8; ++i)
        row[i] = float(i);
    sink.endRowF(0, row);
    EXPECT_EQ(buffer.pixelsF.at({ 1, 0 })[3], 7.0f);
    EXPECT_EQ(sink.beginRowF(1), nullptr);
    EXPECT_EQ(sink.beginRow(-1), nullptr);
}

/// A sink that takes rows but keeps its storage to itself.
class RowTaker : public QUtils::ImgRowBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { }
    void setPixelF(int, int, const float*) override { ++pixelCalls; }
    void setPixel(int, int, unsigned int) override { ++pixelCalls; }
    void setRow(int x, int y, int count, const unsigned int* argb) override
    {
        calls.push_back({ x, y, count });
        packed.assign(argb, argb + count);
    }
    void setRowF(int x, int y, int count, const float* rgba) override
    {
        calls.push_back({ x, y, count });
        floats.assign(rgba, rgba + std::size_t(count) * 4);
    }

    std::vector<std::array<int, 3>> calls;
    std::vector<unsigned int> packed;
    std::vector<float> floats;
    int pixelCalls = 0;
};

TEST(RowSink, SinkThatTakesRowsGetsOneCallARow)
{
    RowTaker taker;
    RowSink sink(taker);
    ASSERT_EQ(sink.init(3, 2), IMGERR_NONE);
    unsigned int* const row = sink.beginRow(1);
    ASSERT_NE(row, nullptr);
    row[0] = 7, row[1] = 8, row[2] = 9;
    sink.endRow(1, row);
    EXPECT_EQ(taker.packed, (std::vector<unsigned int> { 7, 8, 9 }));
    sink.put(-1, 0, row, 3);
    EXPECT_EQ(taker.packed, (std::vector<unsigned int> { 8, 9 }));
    EXPECT_EQ(taker.calls, (std::vector<std::array<int, 3>> { { 0, 1, 3 }, { 0, 0, 2 } }));
    EXPECT_EQ(taker.pixelCalls, 0);
}

TEST(RowSink, SinkThatTakesRowsGetsFloatsInOneCallARow)
{
    RowTaker taker;
    RowSink sink(taker);
    ASSERT_EQ(sink.init(2, 1), IMGERR_NONE);
    float* const row = sink.beginRowF(0);
    ASSERT_NE(row, nullptr);
    for (int i = 0; i < 8; ++i)
        row[i] = float(i);
    sink.endRowF(0, row);
    EXPECT_EQ(taker.floats, (std::vector<float> { 0, 1, 2, 3, 4, 5, 6, 7 }));
    const float two[] = { 1, 2, 3, 4, 5, 6, 7, 8 };
    sink.putF(-1, 0, two, 2);
    EXPECT_EQ(taker.floats, (std::vector<float> { 5, 6, 7, 8 }));
    EXPECT_EQ(taker.calls, (std::vector<std::array<int, 3>> { { 0, 0, 2 }, { 0, 0, 1 } }));
    EXPECT_EQ(taker.pixelCalls, 0);
}

TEST(RowSink, StorageOfTheSinkIsDecodedIntoWithoutACopy)
{
    QUtils::Image8 image;
    RowSink sink(image);
    ASSERT_EQ(sink.init(2, 2), IMGERR_NONE);
    unsigned int* const row = sink.beginRow(1);
    row[0] = 5, row[1] = 6;
    sink.endRow(1, row);
    EXPECT_EQ(image.row(1), row);
    EXPECT_EQ(image.pixel(1, 1), 6u);
}

TEST(RowSink, OnlyAnImage8ItselfRoundsToBytes)
{
    struct OwnRule : QUtils::Image8 {
        void setRowF(int, int, int, const float*) override { }
    } ownRule;
    QUtils::Image8 image;
    QUtils::ImageF floats;
    RowTaker taker;
    EXPECT_TRUE(RowSink(image).roundsToBytes());
    EXPECT_FALSE(RowSink(floats).roundsToBytes());
    EXPECT_FALSE(RowSink(taker).roundsToBytes());
    EXPECT_FALSE(RowSink(ownRule).roundsToBytes());
}

TEST(RowSink, BytesThatBecameFloatsAreTheSameBytesInAnImage8)
{
    for (const bool divide : { false, true }) {
        QUtils::Image8 image;
        RowSink sink(image);
        ASSERT_EQ(sink.init(256, 1), IMGERR_NONE);
        float* const row = sink.beginRowF(0);
        ASSERT_NE(row, nullptr);
        for (int s = 0; s < 256; ++s)
            std::fill_n(row + s * 4, 4, divide ? float(s) / 255.0f : float(s) * float(1 / 255.0));
        sink.endRowF(0, row);
        for (unsigned int s = 0; s < 256; ++s)
            EXPECT_EQ(image.pixel(int(s), 0), s * 0x01010101u);
    }
}

} // namespace
