#include "rastkit/buffers.h"

#include "rastkit/model/row_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace QUtils;

constexpr FrameSample allSamples[]
    = { FrameSample::Packed8, FrameSample::Half, FrameSample::Float, FrameSample::Int32 };
constexpr int allCodes[] = { 100, 101, 102, 103, 200, 201, 202, 203, 300, 301, 302, 303 };
constexpr std::uint8_t guard = 0xA5;

PixelBufferRegion rectangle(int left, int top, int right, int bottom)
{
    return { left, top, right, bottom, right - left, bottom - top, 0, 0 };
}

int query(FrameBuffer& frame, int channel, int alphaChannel, const PixelBufferRegion& region, int code,
    int rowBytes, void* dest)
{
    return frame.getPixels(channel, alphaChannel, region, code, rowBytes, dest, 1, 0, 0);
}

/// The first pixel of a channel as `Sample` numbers.
template <typename Sample>
std::vector<Sample> firstPixel(FrameBuffer& frame, int channel, int alphaChannel, int code)
{
    const std::size_t components = code < 200 ? 1 : std::size_t(code / 100 + 1);
    std::vector<Sample> pixel(components);
    EXPECT_TRUE(query(frame, channel, alphaChannel, rectangle(0, 0, 1, 1), code,
        int(components * sizeof(Sample)), pixel.data()));
    return pixel;
}

// The rules once more, one sample at a time, to compare whole queries with.

struct Number {
    enum { Byte, Real, Integer } kind;
    double value;
};

double halfValue(std::uint16_t bits)
{
    const int exponent = bits >> 10 & 31, fraction = bits & 1023;
    double value = exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(1024 + fraction, exponent - 25);
    if (exponent == 31)
        value = fraction != 0 ? NAN : INFINITY;
    return bits & 0x8000 ? -value : value;
}

template <typename T> T numberAt(const void* row, std::size_t index)
{
    T number;
    std::memcpy(&number, static_cast<const char*>(row) + index * sizeof(T), sizeof(T));
    return number;
}

struct ChannelForm {
    FrameSample sample;
    int components;
};

Number storedNumber(
    const FrameBuffer& frame, int channel, const ChannelForm& form, int x, int y, int component)
{
    const void* const row = frame.row(channel, y);
    const auto index = std::size_t(x * form.components + component);
    switch (form.sample) {
    case FrameSample::Packed8: {
        const int shift[] = { 16, 8, 0, 24 };
        return { Number::Byte,
            double(numberAt<std::uint32_t>(row, std::size_t(x)) >> shift[component] & 255) };
    }
    case FrameSample::Half: return { Number::Real, halfValue(numberAt<std::uint16_t>(row, index)) };
    case FrameSample::Float: return { Number::Real, double(numberAt<float>(row, index)) };
    case FrameSample::Int32: break;
    }
    return { Number::Integer, double(numberAt<std::int32_t>(row, index)) };
}

/// Scales in single precision, rounds halves to even.
double scaled(double value, float greatest)
{
    if (!(value > 0))
        return 0;
    return std::nearbyint(float(std::min(value, 1.0)) * greatest);
}

/// What a number is delivered as, in the sample type `digit`.
double delivered(const Number& number, int digit)
{
    const bool real = number.kind == Number::Real, byte = number.kind == Number::Byte;
    switch (digit) {
    case 0: return real ? scaled(number.value, 255.0f) : std::clamp(number.value, 0.0, 255.0);
    case 1:
        if (real)
            return scaled(number.value, 65535.0f);
        return byte ? number.value * 257 : std::clamp(number.value, 0.0, 65535.0);
    case 2:
        if (std::isnan(number.value))
            return 0;
        return std::clamp(std::nearbyint(number.value), -2147483648.0, 2147483647.0);
    default: return byte ? double(float(number.value) / 255.0f) : double(float(number.value));
    }
}

double readSample(const std::uint8_t* dest, std::size_t index, int digit)
{
    switch (digit) {
    case 0: return numberAt<std::uint8_t>(dest, index);
    case 1: return numberAt<std::uint16_t>(dest, index);
    case 2: return numberAt<std::int32_t>(dest, index);
    default: return double(numberAt<float>(dest, index));
    }
}

std::size_t pixelBytesOf(int code)
{
    const std::size_t sizes[] = { 1, 2, 4, 4 };
    return (code < 200 ? 1 : std::size_t(code / 100 + 1)) * sizes[code % 100];
}

/// A frame with a channel of every form, full of numbers at which the rules turn.
class EveryForm : public testing::Test {
protected:
    static constexpr int width = 531, height = 3; // More than is converted at once, with a rest.

    EveryForm() : frame(width, height)
    {
        for (const FrameSample sample : allSamples) {
            for (int components = sample == FrameSample::Packed8 ? 3 : 1; components <= 4; ++components)
                addFilled(sample, components);
        }
    }

    void addFilled(FrameSample sample, int components)
    {
        const int channel = frame.addChannel("channel", 7, components, sample);
        ASSERT_EQ(channel, int(forms.size()));
        forms.push_back({ sample, components });
        for (int y = 0; y < height; ++y) {
            for (int i = 0; i < width * components; ++i)
                store(channel, y, i, std::uint32_t(channel * 7919 + y * 104729 + i));
        }
    }

    void store(int channel, int y, int index, std::uint32_t seed)
    {
        static const float floats[]
            = { NAN, INFINITY, -INFINITY, -0.0f, 1.0f, 0.5f, 2.5f, 3.5f, -2.5f, 3e9f, -3e9f, 2147483520.0f,
                  0x1p31f, -0x1p31f, 1e-40f, 0.5f / 255.0f, 1.5f / 255.0f, 0.5f / 65535.0f, 300.25f };
        static const std::int32_t integers[]
            = { 0, 1, -1, 255, 256, 65535, 65536, INT32_MAX, INT32_MIN, 16777217, 42 };
        const std::uint32_t random = seed * 2654435761u ^ seed >> 3;
        const float value
            = seed % 3 == 0 ? floats[random % std::size(floats)] : float(random) / 4294967296.0f;
        const auto i = std::size_t(index);
        switch (forms[std::size_t(channel)].sample) {
        case FrameSample::Packed8:
            if (index < width)
                frame.rowPacked(channel, y)[i] = random;
            break;
        case FrameSample::Half:
            static_cast<std::uint16_t*>(frame.row(channel, y))[i] = std::uint16_t(random >> 7);
            break;
        case FrameSample::Float: frame.rowF(channel, y)[i] = value; break;
        case FrameSample::Int32: frame.rowInt(channel, y)[i] = integers[random % std::size(integers)]; break;
        }
    }

    /// Component 0 to 3 (red to alpha) of a pixel in the sample type `digit`.
    double expectedSample(int channel, int alpha, int x, int y, int component, int digit) const
    {
        const ChannelForm& form = forms[std::size_t(channel)];
        if (component == 3) {
            const double opaque[] = { 255, 65535, 1, 1 };
            if (alpha < 0)
                return opaque[digit];
            const ChannelForm& alphaForm = forms[std::size_t(alpha)];
            const int from = alphaForm.components == 4 ? 3 : 0;
            return delivered(storedNumber(frame, alpha, alphaForm, x, y, from), digit);
        }
        if (form.components == 2 && component == 2)
            return 0;
        return delivered(
            storedNumber(frame, channel, form, x, y, form.components == 1 ? 0 : component), digit);
    }

    /// Counts the samples of a region that are not what the rules say.
    int wrongSamples(int channel, int alpha, const PixelBufferRegion& region, int code, std::size_t rowBytes,
        const std::uint8_t* dest) const
    {
        const int components = code < 200 ? 1 : code / 100 + 1, digit = code % 100;
        int wrong = 0;
        for (int y = region.top; y < region.bottom; ++y, dest += rowBytes) {
            for (int x = region.left; x < region.right; ++x) {
                for (int place = 0; place < components; ++place) {
                    const bool blueFirst = digit < 2 && components > 1 && place < 3;
                    const double expected
                        = expectedSample(channel, alpha, x, y, blueFirst ? 2 - place : place, digit);
                    const double found
                        = readSample(dest, std::size_t((x - region.left) * components + place), digit);
                    const bool same = std::isnan(expected) ? std::isnan(found) : expected == found;
                    wrong += same ? 0 : 1;
                }
            }
        }
        return wrong;
    }

    FrameBuffer frame;
    std::vector<ChannelForm> forms;
};

TEST_F(EveryForm, EveryCodeOfEveryChannelWithEveryAlphaFollowsTheRules)
{
    const PixelBufferRegion all = rectangle(0, 0, width, height);
    const int channels = frame.getNumChannels();
    ASSERT_EQ(channels, 14);
    for (const int code : allCodes) {
        const std::size_t rowBytes = width * pixelBytesOf(code);
        for (int channel = 0; channel < channels; ++channel) {
            for (int alpha = -1; alpha < (code < 300 ? 0 : channels); ++alpha) {
                std::vector<std::uint8_t> dest(rowBytes * height, guard);
                ASSERT_TRUE(query(frame, channel, alpha, all, code, int(rowBytes), dest.data()));
                ASSERT_EQ(wrongSamples(channel, alpha, all, code, rowBytes, dest.data()), 0)
                    << "code " << code << ", channel " << channel << ", alpha " << alpha;
            }
        }
    }
}

TEST_F(EveryForm, RegionsOfAnyPlaceSizeAndDistanceOfRowsAreDelivered)
{
    const PixelBufferRegion regions[] = { rectangle(0, 0, 1, 1), rectangle(530, 2, 531, 3),
        rectangle(3, 1, 20, 3), rectangle(17, 0, 531, 2), rectangle(5, 1, 21, 2), rectangle(1, 0, 514, 3) };
    for (const PixelBufferRegion& region : regions) {
        for (const int code : allCodes) {
            const std::size_t used = std::size_t(region.width) * pixelBytesOf(code);
            for (const std::size_t padding : { 0u, 1u, 7u, 64u }) {
                const std::size_t rowBytes = used + padding, rows = std::size_t(region.height);
                for (int channel = 0; channel < frame.getNumChannels(); ++channel) {
                    const int alpha = (channel + 5) % frame.getNumChannels();
                    // Exactly as long as needed, and aligned to nothing.
                    std::vector<std::uint8_t> memory(1 + rowBytes * (rows - 1) + used, guard);
                    std::uint8_t* const dest = memory.data() + 1;
                    ASSERT_TRUE(query(frame, channel, alpha, region, code, int(rowBytes), dest));
                    ASSERT_EQ(wrongSamples(channel, alpha, region, code, rowBytes, dest), 0)
                        << "code " << code << ", channel " << channel;
                    ASSERT_EQ(memory[0], guard);
                    for (std::size_t y = 0; y + 1 < rows; ++y)
                        ASSERT_EQ(std::count(dest + y * rowBytes + used, dest + (y + 1) * rowBytes, guard),
                            std::ptrdiff_t(padding));
                }
            }
        }
    }
}

TEST_F(EveryForm, RefusedQueriesLeaveTheDestination)
{
    const PixelBufferRegion good = rectangle(0, 0, 4, 2);
    std::vector<std::uint8_t> dest(5 * 2 * 16, guard);
    const auto refused = [&](int channel, int alpha, const PixelBufferRegion& region, int code,
                             int rowBytes) {
        const int result = query(frame, channel, alpha, region, code, rowBytes, dest.data());
        return result == 0 && std::count(dest.begin(), dest.end(), guard) == std::ptrdiff_t(dest.size());
    };
    for (const int channel : { -1, INT_MIN, 14, INT_MAX })
        EXPECT_TRUE(refused(channel, -1, good, 303, 64)) << channel;
    for (const int alpha : { 14, INT_MAX })
        EXPECT_TRUE(refused(0, alpha, good, 303, 64)) << alpha;
    for (const int code :
        { 0, 3, 99, 104, 110, 199, 204, 299, 304, 310, 400, 403, -1, -303, INT_MIN, INT_MAX })
        EXPECT_TRUE(refused(0, -1, good, code, 64)) << code;
    for (const int rowBytes : { 63, 0, -64, INT_MIN })
        EXPECT_TRUE(refused(0, -1, good, 303, rowBytes)) << rowBytes;
    const PixelBufferRegion bad[] = { rectangle(-1, 0, 3, 2), rectangle(0, -1, 4, 1),
        rectangle(528, 0, 532, 2), rectangle(0, 2, 4, 4), rectangle(4, 0, 0, 2), rectangle(0, 2, 4, 0),
        { 0, 0, 4, 2, 5, 2, 0, 0 }, { 0, 0, 4, 2, 4, 3, 0, 0 }, { 0, 0, 4, 2, INT_MIN, INT_MIN, 0, 0 },
        { INT_MIN, INT_MIN, INT_MAX, INT_MAX, -1, -1, 0, 0 }, { INT_MAX, 0, INT_MIN, 1, 1, 1, 0, 0 },
        { 0, 0, INT_MAX, 1, INT_MAX, 1, 0, 0 } };
    for (const PixelBufferRegion& region : bad)
        EXPECT_TRUE(refused(0, -1, region, 303, 80)) << region.left << ' ' << region.top;
    EXPECT_EQ(query(frame, 0, -1, good, 303, 64, nullptr), 0);
}

TEST_F(EveryForm, EmptyRegionNeedsNoPixels)
{
    std::vector<std::uint8_t> dest(4 * 16, guard);
    for (const PixelBufferRegion& region :
        { rectangle(3, 1, 3, 2), rectangle(0, 1, 5, 1), rectangle(531, 3, 531, 3) })
        EXPECT_TRUE(query(frame, 0, 1, region, 303, 80, dest.data()));
    EXPECT_EQ(std::count(dest.begin(), dest.end(), guard), 64);
}

TEST_F(EveryForm, RowWithoutRoomIsRefusedAlsoAlone)
{
    std::vector<std::uint8_t> dest(4 * 16, guard);
    for (const int rowBytes : { 0, -5, INT_MIN, 63 })
        EXPECT_FALSE(query(frame, 0, -1, rectangle(0, 0, 4, 1), 303, rowBytes, dest.data())) << rowBytes;
    EXPECT_EQ(std::count(dest.begin(), dest.end(), guard), 64);
    for (const int rowBytes : { 64, INT_MAX })
        EXPECT_TRUE(query(frame, 0, -1, rectangle(0, 0, 4, 1), 303, rowBytes, dest.data())) << rowBytes;
}

TEST_F(EveryForm, CodesWithoutAlphaDoNotLookAtTheAlphaChannel)
{
    std::uint8_t dest[16];
    for (const int code : { 100, 203 })
        EXPECT_TRUE(query(frame, 0, 99, rectangle(0, 0, 1, 1), code, 16, dest));
}

TEST_F(EveryForm, SeveralThreadsReadTheSamePixels)
{
    int wrong[4] = {};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 4; ++i) {
        threads.emplace_back([this, &result = wrong[i], code = allCodes[8 + i]] {
            const PixelBufferRegion all = rectangle(0, 0, width, height);
            const std::size_t rowBytes = width * pixelBytesOf(code);
            std::vector<std::uint8_t> dest(rowBytes * height);
            for (int channel = 0; channel < frame.getNumChannels(); ++channel) {
                query(frame, channel, 1, all, code, int(rowBytes), dest.data());
                result += wrongSamples(channel, 1, all, code, rowBytes, dest.data());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(wrong, testing::Each(0));
}

// The rules by examples.

TEST(FrameBuffer, FloatsAreClampedScaledAndRounded)
{
    FrameBuffer frame(1, 1);
    frame.addChannel("rgba", PIXELCHANNEL_COLOR, 4, FrameSample::Float);
    const float rgba[] = { 0.5f, -1.0f, NAN, 7.0f };
    frame.setRowF(0, 0, 0, 1, rgba);
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, 0, 300), testing::ElementsAre(0, 0, 128, 255));
    EXPECT_THAT(firstPixel<std::uint16_t>(frame, 0, 0, 301), testing::ElementsAre(0, 0, 32768, 65535));
    EXPECT_THAT(firstPixel<std::int32_t>(frame, 0, 0, 302), testing::ElementsAre(0, -1, 0, 7));
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, 0, 200), testing::ElementsAre(0, 0, 128));
    EXPECT_EQ(firstPixel<float>(frame, 0, 0, 303)[3], 7.0f);
}

TEST(FrameBuffer, IntegersAreClampedNotScaled)
{
    FrameBuffer frame(1, 1);
    frame.addChannel("id", 7, 3, FrameSample::Int32);
    std::int32_t* const pixel = frame.rowInt(0, 0);
    pixel[0] = -5;
    pixel[1] = 200;
    pixel[2] = 70000;
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, -1, 200), testing::ElementsAre(255, 200, 0));
    EXPECT_THAT(firstPixel<std::uint16_t>(frame, 0, -1, 301), testing::ElementsAre(65535, 200, 0, 65535));
    EXPECT_THAT(firstPixel<float>(frame, 0, -1, 303), testing::ElementsAre(-5.0f, 200.0f, 70000.0f, 1.0f));
    EXPECT_THAT(firstPixel<std::int32_t>(frame, 0, -1, 302), testing::ElementsAre(-5, 200, 70000, 1));
    EXPECT_THAT(firstPixel<std::int32_t>(frame, 0, -1, 102), testing::ElementsAre(-5));
}

TEST(FrameBuffer, PackedSamplesAreBytesSpreadOrDivided)
{
    FrameBuffer frame(1, 1);
    frame.addChannel("rgba", PIXELCHANNEL_COLOR, 4, FrameSample::Packed8);
    frame.rowPacked(0, 0)[0] = 0x40FF0180u;
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, 0, 300), testing::ElementsAre(0x80, 0x01, 0xFF, 0x40));
    EXPECT_THAT(
        firstPixel<std::uint16_t>(frame, 0, 0, 301), testing::ElementsAre(0x8080, 0x0101, 0xFFFF, 0x4040));
    EXPECT_THAT(firstPixel<std::int32_t>(frame, 0, 0, 302), testing::ElementsAre(255, 1, 128, 64));
    EXPECT_THAT(
        firstPixel<float>(frame, 0, 0, 203), testing::ElementsAre(1.0f, 1.0f / 255.0f, 128.0f / 255.0f));
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, 0, 100), testing::ElementsAre(0xFF));
}

TEST(FrameBuffer, NegativeAlphaChannelIsOpaqueAlsoForAChannelWithAlpha)
{
    FrameBuffer frame(1, 1);
    frame.addChannel("rgba", PIXELCHANNEL_COLOR, 4, FrameSample::Packed8);
    for (const int alpha : { -1, -2, INT_MIN }) {
        EXPECT_EQ(firstPixel<std::uint8_t>(frame, 0, alpha, 300)[3], 255);
        EXPECT_EQ(firstPixel<std::uint16_t>(frame, 0, alpha, 301)[3], 65535);
        EXPECT_EQ(firstPixel<std::int32_t>(frame, 0, alpha, 302)[3], 1);
        EXPECT_EQ(firstPixel<float>(frame, 0, alpha, 303)[3], 1.0f);
    }
}

TEST(FrameBuffer, AlphaChannelOfAnyTypeIsPaired)
{
    FrameBuffer frame(1, 1);
    frame.addChannel("rgb", PIXELCHANNEL_COLOR, 3, FrameSample::Packed8);
    frame.addChannel("alpha", PIXELCHANNEL_ALPHA, 1, FrameSample::Half);
    frame.addChannel("other", 3, 4, FrameSample::Float);
    const float half = 0.5f, rgba[] = { 1, 1, 1, 0.25f };
    frame.setRowF(1, 0, 0, 1, &half);
    frame.setRowF(2, 0, 0, 1, rgba);
    EXPECT_THAT(firstPixel<std::uint8_t>(frame, 0, 1, 300), testing::ElementsAre(0, 0, 0, 128));
    EXPECT_THAT(firstPixel<float>(frame, 0, 2, 303), testing::ElementsAre(0, 0, 0, 0.25f));
    EXPECT_THAT(firstPixel<float>(frame, 1, 1, 303), testing::ElementsAre(0.5f, 0.5f, 0.5f, 0.5f));
}

TEST(FrameBuffer, NewChannelsAreZeroAndDescribeThemselves)
{
    FrameBuffer frame(7, 5);
    EXPECT_EQ(frame.getWidth(), 7);
    EXPECT_EQ(frame.getHeight(), 5);
    EXPECT_EQ(frame.getNumChannels(), 0);
    const struct {
        int components;
        FrameSample sample;
        int kind;
    } channels[] = { { 1, FrameSample::Float, PIXELKIND_SCALAR }, { 2, FrameSample::Half, PIXELKIND_VECTOR },
        { 3, FrameSample::Float, PIXELKIND_COLOR }, { 4, FrameSample::Packed8, PIXELKIND_COLOR },
        { 1, FrameSample::Int32, PIXELKIND_INTEGER }, { 4, FrameSample::Int32, PIXELKIND_INTEGER } };
    for (int i = 0; i < 6; ++i) {
        const std::string name = "channel " + std::to_string(i);
        EXPECT_EQ(frame.addChannel(name.c_str(), 100 + i, channels[i].components, channels[i].sample), i);
        PixelBufferChannelInfo info;
        EXPECT_TRUE(frame.getChannelInfo(i, info));
        EXPECT_EQ(info.name, name.c_str());
        EXPECT_EQ(info.channelId, 100 + i);
        EXPECT_EQ(info.dataKind, channels[i].kind);
        std::vector<float> pixels(7 * 5 * 4, 1.0f);
        EXPECT_TRUE(query(frame, i, i, rectangle(0, 0, 7, 5), 303, 7 * 16, pixels.data()));
        EXPECT_THAT(pixels, testing::Each(0.0f));
    }
    EXPECT_EQ(frame.getNumChannels(), 6);
    PixelBufferChannelInfo info;
    EXPECT_FALSE(frame.getChannelInfo(6, info));
    EXPECT_FALSE(frame.getChannelInfo(-1, info));
    EXPECT_EQ(frame.addChannel(nullptr, 0, 1, FrameSample::Half), 6);
}

TEST(FrameBuffer, ChannelsOutOfRangeAreRefused)
{
    FrameBuffer frame(7, 5);
    for (const FrameSample sample : allSamples) {
        for (const int components : { 0, -1, 5, INT_MIN, INT_MAX })
            EXPECT_EQ(frame.addChannel("x", 1, components, sample), -1);
    }
    EXPECT_EQ(frame.addChannel("x", 1, 1, FrameSample::Packed8), -1);
    EXPECT_EQ(frame.addChannel("x", 1, 2, FrameSample::Packed8), -1);
    EXPECT_EQ(frame.addChannel("x", 1, 4, FrameSample(4)), -1);
    EXPECT_EQ(frame.addChannel("x", 1, 4, FrameSample(-1)), -1);
    EXPECT_EQ(frame.getNumChannels(), 0);
}

TEST(FrameBuffer, FrameWithoutPixelsTakesNoChannels)
{
    for (const auto& [width, height] :
        { std::pair(0, 5), std::pair(5, 0), std::pair(-1, -1), std::pair(INT_MIN, 5) }) {
        FrameBuffer frame(width, height);
        EXPECT_EQ(frame.getWidth(), 0);
        EXPECT_EQ(frame.getHeight(), 0);
        EXPECT_EQ(frame.addChannel("x", 1, 4, FrameSample::Float), -1);
        EXPECT_EQ(frame.row(0, 0), nullptr);
    }
}

TEST(FrameBuffer, ChannelLargerThanMemoryIsRefused)
{
    FrameBuffer frame(INT_MAX, INT_MAX);
    EXPECT_EQ(frame.getWidth(), INT_MAX);
    EXPECT_EQ(frame.addChannel("x", 1, 4, FrameSample::Float), -1);
    EXPECT_EQ(frame.addChannel("x", 1, 1, FrameSample::Int32), -1);
}

TEST(FrameBuffer, RowsAreReachedByTheirSampleType)
{
    FrameBuffer frame(3, 2);
    for (const FrameSample sample : allSamples)
        frame.addChannel("x", 1, 4, sample);
    const FrameBuffer& constant = frame;
    for (int channel = 0; channel < 4; ++channel) {
        EXPECT_NE(frame.row(channel, 1), nullptr);
        EXPECT_EQ(constant.row(channel, 1), frame.row(channel, 1));
        EXPECT_EQ(frame.row(channel, -1), nullptr);
        EXPECT_EQ(frame.row(channel, 2), nullptr);
        EXPECT_EQ(frame.rowPacked(channel, 1) != nullptr, channel == 0);
        EXPECT_EQ(frame.rowF(channel, 1) != nullptr, channel == 2);
        EXPECT_EQ(frame.rowInt(channel, 1) != nullptr, channel == 3);
    }
    EXPECT_EQ(frame.rowF(2, 1), static_cast<float*>(frame.row(2, 0)) + 12);
    EXPECT_EQ(frame.rowF(2, 2), nullptr);
    EXPECT_EQ(frame.row(4, 0), nullptr);
    EXPECT_EQ(frame.row(-1, 0), nullptr);
    EXPECT_EQ(frame.rowInt(4, 0), nullptr);
}

TEST(FrameBuffer, FloatsAreStoredAsTheChannelHoldsThem)
{
    FrameBuffer frame(2, 1);
    frame.addChannel("packed", 1, 4, FrameSample::Packed8);
    frame.addChannel("packed rgb", 1, 3, FrameSample::Packed8);
    frame.addChannel("half", 1, 2, FrameSample::Half);
    frame.addChannel("integer", 1, 1, FrameSample::Int32);
    const float rgba[] = { 1.0f, 0.5f, 0.0f, 0.25f, NAN, 2.0f, -1.0f, 1.0f };
    frame.setRowF(0, 0, 0, 2, rgba);
    EXPECT_EQ(frame.rowPacked(0, 0)[0], 0x40FF8000u);
    EXPECT_EQ(frame.rowPacked(0, 0)[1], 0xFF00FF00u);
    frame.setRowF(1, 0, 0, 2, rgba);
    EXPECT_EQ(frame.rowPacked(1, 0)[0] & 0xFFFFFFu, 0xFF8000u);
    EXPECT_EQ(frame.rowPacked(1, 0)[1] & 0xFFFFFFu, 0x4000FFu);
    frame.setRowF(2, 0, 0, 2, rgba);
    EXPECT_THAT(firstPixel<float>(frame, 2, -1, 203), testing::ElementsAre(1.0f, 0.5f, 0.0f));
    const float integers[] = { 2.5f, -1e20f };
    frame.setRowF(3, 0, 0, 2, integers);
    EXPECT_EQ(frame.rowInt(3, 0)[0], 2);
    EXPECT_EQ(frame.rowInt(3, 0)[1], INT_MIN);
}

TEST(FrameBuffer, LongRowsOfFloatsAreStoredWhole)
{
    constexpr int width = 1500;
    for (const int components : { 3, 4 }) {
        FrameBuffer frame(width, 1);
        frame.addChannel("packed", 1, components, FrameSample::Packed8);
        std::vector<float> samples(std::size_t(width * components));
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] = float(i % 256) / 255.0f;
        frame.setRowF(0, 0, 0, width, samples.data());
        for (int x = 0; x < width; ++x) {
            const auto first = unsigned(x * components);
            const unsigned int alpha = components == 4 ? (first + 3) % 256 : 255;
            ASSERT_EQ(frame.rowPacked(0, 0)[x],
                alpha << 24 | first % 256 << 16 | (first + 1) % 256 << 8 | (first + 2) % 256);
        }
    }
}

TEST(FrameBuffer, NothingOutsideTheFrameIsStored)
{
    FrameBuffer frame(3, 3);
    frame.addChannel("x", 1, 1, FrameSample::Float);
    const float samples[] = { 1, 2, 3, 4, 5 };
    frame.setRowF(0, -1, 1, 5, samples);
    EXPECT_THAT(std::vector<float>(frame.rowF(0, 0), frame.rowF(0, 0) + 9),
        testing::ElementsAre(0, 0, 0, 2, 3, 4, 0, 0, 0));
    for (const int far : { INT_MIN, -5, 3, INT_MAX }) {
        frame.setRowF(0, far, 1, 5, samples);
        frame.setRowF(0, 0, far, 3, samples);
    }
    for (const int count : { 0, -1, INT_MIN })
        frame.setRowF(0, 0, 0, count, samples);
    frame.setRowF(0, INT_MAX, 1, INT_MAX, samples);
    frame.setRowF(1, 0, 0, 3, samples);
    frame.setRowF(-1, 0, 0, 3, samples);
    EXPECT_THAT(std::vector<float>(frame.rowF(0, 0), frame.rowF(0, 0) + 9),
        testing::ElementsAre(0, 0, 0, 2, 3, 4, 0, 0, 0));
}

TEST(FrameBuffer, MovingTakesTheChannelsAndLeavesAFrameOfSizeZero)
{
    FrameBuffer frame(2, 1);
    frame.addChannel("x", 1, 1, FrameSample::Int32);
    frame.rowInt(0, 0)[1] = 42;
    FrameBuffer taken(std::move(frame));
    EXPECT_EQ(taken.rowInt(0, 0)[1], 42);
    EXPECT_EQ(frame.getWidth(), 0);
    EXPECT_EQ(frame.getNumChannels(), 0);
    EXPECT_EQ(frame.addChannel("x", 1, 1, FrameSample::Int32), -1);
    EXPECT_EQ(frame.row(0, 0), nullptr);
    EXPECT_EQ(std::as_const(frame).row(0, 0), nullptr);
    EXPECT_EQ(frame.rowF(0, 0), nullptr);
    const float sample = 1;
    frame.setRowF(0, 0, 0, 1, &sample);
    frame.setPlugin(nullptr);
    EXPECT_EQ(frame.getPlugin(), nullptr);
    PixelBufferChannelInfo info;
    EXPECT_FALSE(frame.getChannelInfo(0, info));
    std::uint8_t dest[16];
    EXPECT_FALSE(query(frame, 0, -1, rectangle(0, 0, 0, 0), 303, 16, dest));
    frame = std::move(taken);
    EXPECT_EQ(frame.rowInt(0, 0)[1], 42);
}

TEST(FrameBuffer, AnswersWithThePluginThatItWasGiven)
{
    PluginBase plugin;
    FrameBuffer frame(1, 1);
    EXPECT_EQ(frame.getPlugin(), nullptr);
    frame.setPlugin(&plugin);
    EXPECT_EQ(frame.getPlugin(), &plugin);
    EXPECT_EQ(findCorrectedPixels(frame), nullptr);
}

TEST(FrameBuffer, GivesWritersItsRows)
{
    FrameBuffer frame(2, 2);
    frame.addChannel("id", 7, 1, FrameSample::Int32);
    frame.rowInt(0, 1)[0] = -3;
    frame.rowInt(0, 1)[1] = 4;
    RowSource rows(frame, { 0, -1, PIXELFORMAT_1_INT32, 8 });
    std::int32_t row[2];
    ASSERT_TRUE(rows.fetch(1, row));
    EXPECT_THAT(row, testing::ElementsAre(-3, 4));
    EXPECT_FALSE(rows.fetch(2, row));
}

} // namespace
