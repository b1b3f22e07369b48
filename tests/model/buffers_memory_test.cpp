#include "rastkit/buffers.h"
#include "rastkit/save.h"
#include "support/refuse_memory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using namespace testing_support;
using namespace QUtils;

TEST(BuffersMemory, ImageWithoutMemoryIsNotValidAndDropsEveryStore)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "pixels come from malloc";
    Image8 image;
    const int refusals = refuseEachInTurn(
        [&] {
            image.freeMem();
            image.init(300, 200);
            image.setPixel(1, 1, 7);
            return image.isValid();
        },
        [&](int valid, int position) {
            EXPECT_EQ(valid != 0, position < 0);
            EXPECT_EQ(image.width(), valid ? 300 : 0);
            EXPECT_EQ(image.pixel(1, 1), valid ? 7u : 0u);
        });
    EXPECT_EQ(refusals, 4); // The record, the rows, their flags, the row of zeros.
}

TEST(BuffersMemory, ImageOfTheSameSizeTakesNoMemory)
{
    ImageF image;
    image.init(300, 200);
    const float rgba[] = { 1, 2, 3, 4 };
    std::size_t requests = 0;
    {
        const RefuseMemory refuse;
        image.init(300, 200);
        image.setPixelF(1, 1, rgba);
        image.setPixel(2, 2, 0xFFFFFFFFu);
        requests = refuse.requests();
    }
    EXPECT_EQ(requests, 0u);
    EXPECT_EQ(image.row(1)[5], 2.0f);
}

TEST(BuffersMemory, ChannelWithoutMemoryIsNotAdded)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "pixels come from malloc";
    const int refusals = refuseEachInTurn(
        [] {
            FrameBuffer frame(30, 20);
            const int added = frame.addChannel("color", PIXELCHANNEL_COLOR, 4, FrameSample::Half);
            return std::pair(added, frame.getNumChannels());
        },
        [](const std::pair<int, int>& result, int position) {
            EXPECT_EQ(result, position < 0 ? std::pair(0, 1) : std::pair(-1, 0));
        });
    EXPECT_EQ(refusals, 4); // The frame, the pixels, the name, the list.
}

TEST(BuffersMemory, QueriesTakeNoMemory)
{
    FrameBuffer frame(2000, 2);
    frame.addChannel("color", PIXELCHANNEL_COLOR, 3, FrameSample::Packed8);
    frame.addChannel("alpha", PIXELCHANNEL_ALPHA, 1, FrameSample::Half);
    const PixelBufferRegion all { 0, 0, 2000, 2, 2000, 2, 0, 0 };
    std::vector<float> pixels(2000 * 2 * 4);
    int results = 0;
    std::size_t requests = 0;
    {
        const RefuseMemory refuse;
        for (const int code : { 100, 201, 302, 303 })
            results += frame.getPixels(0, 1, all, code, 2000 * 16, pixels.data(), 1, 0, 0);
        requests = refuse.requests();
    }
    EXPECT_EQ(results, 4);
    EXPECT_EQ(requests, 0u);
}

TEST(BuffersMemory, ConversionWithoutMemoryGivesNullAndLeavesTheDescription)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "the array is calloc's";
    const IMGINFO in { 20, 10, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 };
    IMGINFO out { -1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -13 };
    const IMGINFO before = out;
    std::vector<float> pixels(20 * 10 * 4);
    unsigned int* packed = nullptr;
    {
        const RefuseMemory refuse;
        packed = CreateUInt32FromFloat(in, pixels.data(), out);
    }
    EXPECT_EQ(packed, nullptr);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0);
    std::free(packed);
}

} // namespace
