#include "rastkit/save.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct FreeArray {
    void operator()(unsigned int* array) const { std::free(array); }
};
using PackedArray = std::unique_ptr<unsigned int[], FreeArray>;

/// Thirteen fields, 100 to 112, with that size.
IMGINFO numberedInfo(int width, int height)
{
    return { width, height, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112 };
}

bool same(const IMGINFO& a, const IMGINFO& b)
{
    return std::memcmp(&a, &b, sizeof(IMGINFO)) == 0;
}

TEST(CreateUInt32FromFloat, ValuesAreScaledClampedAndCut)
{
    // One value at a time in each of the four places.
    const struct {
        float value;
        unsigned int byte;
    } examples[] = { { 1.0f, 255 }, { 0.5f, 127 }, { -3.0f, 0 }, { 7.0f, 255 }, { NAN, 0 }, { 0.999f, 254 },
        { INFINITY, 255 }, { -INFINITY, 0 }, { -0.0f, 0 }, { 1e-42f, 0 } };
    for (const auto& example : examples) {
        for (int place = 0; place < 4; ++place) {
            float pixel[4] = {};
            pixel[place] = example.value;
            IMGINFO out {};
            const PackedArray packed(CreateUInt32FromFloat(numberedInfo(1, 1), pixel, out));
            ASSERT_TRUE(packed);
            const int shift[] = { 16, 8, 0, 24 };
            EXPECT_EQ(packed[0], example.byte << shift[place]) << example.value;
        }
    }
}

TEST(CreateUInt32FromFloat, RowsKeepTheirOrder)
{
    std::vector<float> pixels(7 * 5 * 4);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = (float(i) + 0.25f) / 255.0f;
    IMGINFO out {};
    const PackedArray packed(CreateUInt32FromFloat(numberedInfo(7, 5), pixels.data(), out));
    ASSERT_TRUE(packed);
    for (unsigned int i = 0; i < 35; ++i)
        EXPECT_EQ(packed[i], (i * 4 + 3) << 24 | (i * 4) << 16 | (i * 4 + 1) << 8 | (i * 4 + 2));
}

TEST(CreateUInt32FromFloat, DescriptionIsOfPackedPixelsWithTheWindowsKept)
{
    const float pixels[2 * 4] = {};
    IMGINFO out {};
    const PackedArray packed(CreateUInt32FromFloat(numberedInfo(2, 1), const_cast<float*>(pixels), out));
    ASSERT_TRUE(packed);
    EXPECT_TRUE(same(out, { 2, 1, 32, 4, 4, 105, 106, 107, 108, 109, 110, 111, 112 }));
}

TEST(CreateUInt32FromFloat, ImageWithoutPixelsIsNoError)
{
    for (const IMGINFO& in : { numberedInfo(0, 3), numberedInfo(3, 0), numberedInfo(0, 0) }) {
        IMGINFO out {};
        const PackedArray packed(CreateUInt32FromFloat(in, nullptr, out));
        EXPECT_TRUE(packed);
        EXPECT_EQ(out.width, in.width);
        EXPECT_EQ(out.height, in.height);
        EXPECT_EQ(out.bitsPerPixel, 32);
    }
}

TEST(CreateUInt32FromFloat, SizeThatCannotBeGivesNullAndLeavesTheDescription)
{
    const int sizes[][2] = { { -1, 1 }, { 1, -1 }, { -1, -1 }, { INT_MIN, INT_MIN }, { -1, 0 },
        { 0, INT_MIN }, { INT_MAX, INT_MAX } };
    for (const auto& size : sizes) {
        IMGINFO out = numberedInfo(11, 12);
        EXPECT_EQ(CreateUInt32FromFloat(numberedInfo(size[0], size[1]), nullptr, out), nullptr);
        EXPECT_TRUE(same(out, numberedInfo(11, 12)));
    }
}

} // namespace
