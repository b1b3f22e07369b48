#include "rastkit/buffers.h"

#include "rastkit/model/row_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using QUtils::Image8;
using QUtils::ImageF;
using QUtils::ImgRowBuffer;

constexpr unsigned int grey = 0xFF808080u;

/// An image of that size with every byte of its memory set.
Image8 filledImage(int width, int height)
{
    Image8 image;
    image.init(width, height);
    for (int y = 0; y < height; ++y)
        std::memset(image.rowData(y), 0xEE, std::size_t(width) * 4);
    return image;
}

bool isZero(const unsigned int* pixels, int count)
{
    for (int i = 0; i < count; ++i) {
        if (pixels[i] != 0)
            return false;
    }
    return true;
}

TEST(Image8, IsNotValidBeforeItHasASize)
{
    Image8 image;
    EXPECT_FALSE(image.isValid());
    EXPECT_EQ(image.width(), 0);
    EXPECT_EQ(image.height(), 0);
    EXPECT_EQ(image.pixel(0, 0), 0u);
    EXPECT_EQ(image.row(0), nullptr);
    EXPECT_EQ(image.rowData(0), nullptr);
    EXPECT_EQ(image.data(), nullptr);
    image.setPixel(0, 0, grey);
    image.freeMem();
    EXPECT_FALSE(image.isValid());
}

TEST(Image8, RowsReadAsTheyWereStored)
{
    Image8 image;
    image.init(3, 2);
    EXPECT_TRUE(image.isValid());
    EXPECT_EQ(image.width(), 3);
    EXPECT_EQ(image.height(), 2);
    const unsigned int first[] = { 1, 2, 3 }, second[] = { 5, 6 };
    image.setRow(0, 0, 3, first);
    image.setRow(1, 1, 2, second);
    EXPECT_EQ(std::memcmp(image.row(0), first, sizeof first), 0);
    EXPECT_EQ(image.pixel(0, 1), 0u);
    EXPECT_EQ(image.pixel(1, 1), 5u);
    EXPECT_EQ(image.pixel(2, 1), 6u);
    const unsigned int expected[] = { 1, 2, 3, 0, 5, 6 };
    EXPECT_EQ(std::memcmp(image.data(), expected, sizeof expected), 0);
}

TEST(Image8, SinglePixelsOfBothKindsMixWithRows)
{
    Image8 image;
    image.init(4, 1);
    const float half[] = { 1.0f, 0.5f, 0.0f, 2.0f };
    const float nothing[] = { NAN, -1.0f, NAN, NAN };
    const unsigned int row[] = { 7, 7, 7, 7 };
    image.setRow(0, 0, 4, row);
    image.setPixel(1, 0, 0x12345678u);
    image.setPixelF(2, 0, half);
    image.setPixelF(3, 0, nothing);
    const unsigned int expected[] = { 7, 0x12345678u, 0xFFFF8000u, 0 };
    EXPECT_EQ(std::memcmp(image.row(0), expected, sizeof expected), 0);
}

TEST(Image8, FloatsAreRoundedToTheNearestByte)
{
    Image8 image;
    image.init(1, 1);
    for (int byte = 0; byte < 255; ++byte) {
        const float below = (float(byte) + 0.49f) / 255.0f, above = (float(byte) + 0.51f) / 255.0f;
        const float rgba[] = { below, above, below, above };
        image.setRowF(0, 0, 1, rgba);
        const auto low = unsigned(byte), high = unsigned(byte + 1);
        EXPECT_EQ(image.pixel(0, 0), high << 24 | low << 16 | high << 8 | low);
    }
}

TEST(Image8, StoresOutsideTheImageAreDropped)
{
    Image8 image;
    image.init(4, 2);
    const unsigned int row[] = { 1, 2, 3, 4, 5, 6, 7, 8 };
    image.setRow(-2, 0, 8, row);
    const unsigned int expected[] = { 3, 4, 5, 6 };
    EXPECT_EQ(std::memcmp(image.row(0), expected, sizeof expected), 0);
    image.setRow(3, 1, 8, row);
    EXPECT_EQ(image.pixel(3, 1), 1u);

    const int far[] = { INT_MIN, INT_MIN + 1, -8, 4, INT_MAX - 1, INT_MAX };
    const float rgba[8 * 4] = {};
    for (const int place : far) {
        image.setRow(place, 0, 8, row);
        image.setRow(0, place, 4, row);
        image.setRowF(place, 0, 8, rgba);
        image.setRowF(0, place, 4, rgba);
        image.setPixel(place, 0, grey);
        image.setPixel(0, place, grey);
        image.setPixelF(place, 0, rgba);
        image.setPixelF(0, place, rgba);
        EXPECT_EQ(image.rowData(place), nullptr);
        EXPECT_EQ(image.row(place), nullptr);
        EXPECT_EQ(image.pixel(place, 0), 0u);
        EXPECT_EQ(image.pixel(0, place), 0u);
    }
    for (const int count : { 0, -1, INT_MIN })
        image.setRow(0, 0, count, row);
    EXPECT_EQ(std::memcmp(image.row(0), expected, sizeof expected), 0);
    EXPECT_TRUE(isZero(image.row(1), 3));
}

TEST(Image8, RowsThatNothingWasStoredToReadAsZero)
{
    // The memory of an image that is gone must not show in the next one.
    filledImage(300, 5);
    Image8 image;
    image.init(300, 5);
    for (int y = 0; y < 5; ++y)
        EXPECT_TRUE(isZero(image.row(y), 300));
    image.setPixel(7, 1, grey);
    EXPECT_TRUE(isZero(image.row(1), 7));
    EXPECT_EQ(image.pixel(7, 1), grey);
    EXPECT_TRUE(isZero(image.row(1) + 8, 292));
    image.setPixel(9, 1, grey);
    EXPECT_EQ(image.pixel(7, 1), grey);
    const unsigned int* const all = image.data();
    EXPECT_TRUE(isZero(all, 300));
    EXPECT_EQ(all[307], grey);
    EXPECT_TRUE(isZero(all + 600, 900));
}

TEST(Image8, ImageOfTheSameSizeKeepsTheMemoryButNotThePixels)
{
    Image8 image = filledImage(300, 5);
    const unsigned int* const memory = image.rowData(0);
    image.init(300, 5);
    for (int y = 0; y < 5; ++y)
        EXPECT_TRUE(isZero(image.row(y), 300));
    const float rgba[] = { 0, 0, 1, 1 };
    image.setRowF(299, 4, 1, rgba);
    EXPECT_TRUE(isZero(image.row(4), 299));
    EXPECT_EQ(image.pixel(299, 4), 0xFF0000FFu);
    EXPECT_EQ(image.rowData(0), memory);
    image.init(300, 5);
    EXPECT_TRUE(isZero(image.data(), 300 * 5));
    EXPECT_EQ(image.data(), memory);
}

TEST(Image8, ReadingIntoAnImageAgainCostsNoPageFaults)
{
    const auto faults = [] {
        rusage usage {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_minflt;
    };
    Image8 image = filledImage(4096, 1024);
    const long before = faults();
    image.init(4096, 1024);
    for (int y = 0; y < 1024; ++y)
        std::memset(image.rowData(y), 0x11, 4096 * 4);
    EXPECT_LT(faults() - before, 100); // 4096 pages.
}

TEST(Image8, OtherSizesReplaceTheImage)
{
    Image8 image = filledImage(10, 10);
    for (const auto& [width, height] : { std::pair(20, 5), std::pair(3, 7), std::pair(5000, 3) }) {
        image.init(width, height);
        ASSERT_TRUE(image.isValid());
        EXPECT_EQ(image.width(), width);
        EXPECT_TRUE(isZero(image.data(), width * height));
        std::memset(image.data(), 0xEE, std::size_t(width) * std::size_t(height) * 4);
    }
}

TEST(Image8, EmptySizeIsValidAndHoldsNothing)
{
    for (const auto& [width, height] : { std::pair(0, 0), std::pair(5, 0), std::pair(0, 5), std::pair(5, -3),
             std::pair(-5, 3), std::pair(INT_MIN, INT_MIN), std::pair(INT_MAX, -1) }) {
        Image8 image = filledImage(5, 5);
        image.init(width, height);
        EXPECT_TRUE(image.isValid());
        EXPECT_EQ(image.width(), std::max(width, 0));
        EXPECT_EQ(image.height(), std::max(height, 0));
        image.setPixel(0, 0, grey);
        EXPECT_EQ(image.pixel(0, 0), 0u);
        EXPECT_EQ(image.row(0), nullptr);
        EXPECT_EQ(image.rowData(0), nullptr);
        EXPECT_EQ(image.data(), nullptr);
    }
}

TEST(Image8, SizePastTheLimitIsNotValidAndDropsEveryStore)
{
    Image8 image;
    image.setMaxBytes(100 * 10 * 4);
    image.init(100, 10);
    EXPECT_TRUE(image.isValid());
    for (const auto& [width, height] : { std::pair(101, 10), std::pair(100, 11), std::pair(INT_MAX, INT_MAX),
             std::pair(1, INT_MAX), std::pair(INT_MAX, 1) }) {
        image.init(width, height);
        EXPECT_FALSE(image.isValid());
        EXPECT_EQ(image.width(), 0);
        image.setPixel(0, 0, grey);
        EXPECT_EQ(image.rowData(0), nullptr);
        EXPECT_EQ(image.pixel(0, 0), 0u);
    }
    image.init(10, 10);
    EXPECT_TRUE(image.isValid());
    image.setMaxBytes(399);
    image.init(10, 10);
    EXPECT_FALSE(image.isValid());
}

TEST(Image8, LimitIsTwoGiBUnlessSet)
{
    ImageF image;
    image.init(1 << 14, (1 << 13) + 1);
    EXPECT_FALSE(image.isValid());
    image.init(1 << 14, 1 << 13);
    EXPECT_TRUE(image.isValid());
}

TEST(Image8, FreedImageHasNoSize)
{
    Image8 image = filledImage(5, 5);
    image.freeMem();
    EXPECT_FALSE(image.isValid());
    EXPECT_EQ(image.height(), 0);
    EXPECT_EQ(image.data(), nullptr);
    image.init(5, 5);
    EXPECT_TRUE(isZero(image.data(), 25));
}

TEST(Image8, MovingTakesThePixelsAndLeavesANewImage)
{
    Image8 source;
    source.setMaxBytes(100);
    source.init(2, 2);
    source.setPixel(1, 1, grey);
    Image8 taken(std::move(source));
    EXPECT_EQ(taken.pixel(1, 1), grey);
    EXPECT_FALSE(source.isValid());
    EXPECT_EQ(source.width(), 0);
    EXPECT_EQ(source.data(), nullptr);
    source.init(1, 1);
    EXPECT_TRUE(source.isValid());

    Image8 other = filledImage(7, 7);
    other = std::move(taken);
    EXPECT_EQ(other.width(), 2);
    EXPECT_EQ(other.pixel(1, 1), grey);
    EXPECT_FALSE(taken.isValid());
    other.init(100, 100);
    EXPECT_FALSE(other.isValid()) << "the limit moves along";

    Image8& itself = other;
    other.init(1, 1);
    other = std::move(itself);
    EXPECT_TRUE(other.isValid());
    static_assert(!std::is_copy_constructible_v<Image8>);
}

TEST(Image8, OffersLoadersItsRows)
{
    Image8 image;
    ImgBuffer& buffer = image;
    EXPECT_NE(dynamic_cast<ImgRowBuffer*>(&buffer), nullptr);
    QUtils::RowSink sink(buffer);
    ASSERT_EQ(sink.init(2, 2), IMGERR_NONE);
    unsigned int* const row = sink.beginRow(1);
    row[0] = 1;
    row[1] = 2;
    sink.endRow(1, row);
    EXPECT_EQ(image.row(1), row);
    EXPECT_EQ(image.rowDataF(0), nullptr);
}

TEST(Image8, DifferentRowsAreStoredFromDifferentThreads)
{
    Image8 image = filledImage(64, 400);
    image.init(64, 400);
    const auto storeRows = [&image](int first) {
        for (int y = first; y < 400; y += 4) {
            for (int x = 0; x < 64; ++x)
                image.setPixel(x, y, unsigned(y * 64 + x));
        }
    };
    std::vector<std::thread> threads;
    for (int first = 0; first < 4; ++first)
        threads.emplace_back(storeRows, first);
    for (std::thread& thread : threads)
        thread.join();
    for (unsigned int i = 0; i < 64 * 400; ++i)
        ASSERT_EQ(image.data()[i], i);
}

TEST(ImageF, HoldsFloatsAsTheyAre)
{
    ImageF image;
    image.init(2, 2);
    const float rgba[] = { 1e30f, -2.0f, 0.1f, INFINITY, 5, 6, 7, 8 };
    image.setRowF(0, 1, 2, rgba);
    EXPECT_EQ(std::memcmp(image.row(1), rgba, sizeof rgba), 0);
    image.setPixelF(1, 0, rgba);
    EXPECT_EQ(image.row(0)[3], 0.0f);
    EXPECT_EQ(image.row(0)[4], 1e30f);
    EXPECT_EQ(image.data()[8], 1e30f);
}

TEST(ImageF, PackedPixelsAreDividedBy255)
{
    ImageF image;
    image.init(256, 2);
    std::vector<unsigned int> row(256);
    for (unsigned int i = 0; i < 256; ++i)
        row[i] = (255 - i) << 24 | i << 16 | (i ^ 0x55) << 8 | (i ^ 0xAA);
    image.setRow(0, 0, 256, row.data());
    for (unsigned int i = 0; i < 256; ++i)
        image.setPixel(int(i), 1, row[i]);
    for (const int y : { 0, 1 }) {
        for (unsigned int i = 0; i < 256; ++i) {
            const float* const pixel = image.row(y) + i * 4;
            EXPECT_EQ(pixel[0], float(i) / 255.0f);
            EXPECT_EQ(pixel[1], float(i ^ 0x55) / 255.0f);
            EXPECT_EQ(pixel[2], float(i ^ 0xAA) / 255.0f);
            EXPECT_EQ(pixel[3], float(255 - i) / 255.0f);
        }
    }
}

TEST(ImageF, StoresOutsideTheImageAreDropped)
{
    ImageF image;
    image.init(2, 1);
    const float rgba[] = { 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4 };
    image.setRowF(-1, 0, 4, rgba);
    EXPECT_EQ(image.row(0)[0], 2.0f);
    EXPECT_EQ(image.row(0)[7], 3.0f);
    const unsigned int packed[] = { 0, 0xFFFFFFFFu, 0, 0 };
    image.setRow(-1, 0, 4, packed);
    EXPECT_EQ(image.row(0)[0], 1.0f);
    EXPECT_EQ(image.row(0)[7], 0.0f);
    image.setRowF(INT_MIN, 0, INT_MAX, rgba);
    image.setRowF(INT_MAX, 0, INT_MAX, rgba);
    image.setRow(0, -1, 2, packed);
    EXPECT_EQ(image.row(0)[0], 1.0f);
    EXPECT_EQ(image.rowDataF(1), nullptr);
}

TEST(ImageF, UntouchedRowsReadAsZeroAlsoInUsedMemory)
{
    ImageF image;
    image.init(50, 3);
    for (int y = 0; y < 3; ++y)
        std::memset(image.rowDataF(y), 0xEE, 50 * 16);
    image.init(50, 3);
    image.setPixel(49, 2, 0xFFFFFFFFu);
    for (int i = 0; i < 50 * 4 * 3 - 4; ++i)
        ASSERT_EQ(image.data()[i], 0.0f);
    EXPECT_EQ(image.row(2)[49 * 4], 1.0f);
    EXPECT_EQ(image.rowData(0), nullptr);
}

} // namespace
