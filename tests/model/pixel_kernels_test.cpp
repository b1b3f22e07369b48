#include "rastkit/model/pixel_kernels.h"

#include "support/sweep.h"
#include <gmock/gmock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace QUtils;

constexpr SimdLevel fastLevels[] = { SimdLevel::Sse41, SimdLevel::Avx2 };
constexpr SimdLevel allLevels[] = { SimdLevel::Scalar, SimdLevel::Sse41, SimdLevel::Avx2 };

const PixelKernels& scalarKernels()
{
    return *pixelKernels(SimdLevel::Scalar);
}

/// Floats that rules treat differently: special values, and every value around which a rounding turns.
std::vector<float> tellingFloats()
{
    const float infinity = std::numeric_limits<float>::infinity();
    std::vector<float> values { 0.0f, -0.0f, 1.0f, -1.0f, infinity, -infinity, NAN, -NAN,
        std::numeric_limits<float>::signaling_NaN(), std::numeric_limits<float>::denorm_min(),
        -std::numeric_limits<float>::denorm_min(), std::numeric_limits<float>::min(),
        std::numeric_limits<float>::max(), std::numeric_limits<float>::lowest(), 2147483648.0f, 4294967296.0f,
        65504.0f, 65519.996f, 65520.0f, 0x1p-14f, 0x1p-24f, 0x1p-25f, 0x1.8p-24f };
    for (int twice = -2; twice <= 2 * 258; ++twice)
        values.push_back(float(twice) / 510.0f);
    for (int twice = -2; twice <= 2 * 65538; twice += 97)
        values.push_back(float(twice) / 131070.0f);
    const std::size_t exact = values.size();
    for (std::size_t i = 0; i < exact; ++i) {
        values.push_back(std::nextafter(values[i], infinity));
        values.push_back(std::nextafter(values[i], -infinity));
    }
    return values;
}

/// Float bit patterns spread over the whole range, in blocks that `visit` gets one after the other.
template <typename Visit> void sweepFloats(std::uint32_t stride, Visit visit)
{
    std::vector<float> block;
    for (std::uint64_t bits = 0; bits <= 0xFFFFFFFFu; bits += stride) {
        block.push_back(std::bit_cast<float>(std::uint32_t(bits)));
        if (block.size() == 4096 || bits + stride > 0xFFFFFFFFu) {
            block.resize((block.size() + 3) & ~std::size_t(3));
            visit(block);
            block.clear();
        }
    }
}

template <typename T> bool sameBits(const std::vector<T>& a, const std::vector<T>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

template <typename Source, typename Result>
using Kernel = void (*PixelKernels::*)(const Source*, Result*, std::size_t);

template <typename Source, typename Result>
std::vector<Result> converted(const PixelKernels& kernels, Kernel<Source, Result> kernel,
    const std::vector<Source>& source, std::size_t count, std::size_t results)
{
    std::vector<Result> result(results);
    (kernels.*kernel)(source.data(), result.data(), count);
    return result;
}

TEST(PixelKernels, BestLevelIsOneThatTheProcessorHas)
{
    bool found = false;
    for (const SimdLevel level : allLevels)
        found = found || pixelKernels(level) == &pixelKernels();
    EXPECT_TRUE(found);
    EXPECT_NE(pixelKernels(SimdLevel::Scalar), nullptr);
    if (pixelKernels(SimdLevel::Avx2)) {
        EXPECT_EQ(pixelKernels(SimdLevel::Avx2), &pixelKernels());
    }
}

TEST(PixelKernels, PackTruncatedClampsAndCutsTheFraction)
{
    const float rgba[] = { 1.0f, 0.5f, -3.0f, 7.0f, NAN, 0.999f, 0.0f, 1.0f / 255.0f };
    std::uint32_t argb[2];
    scalarKernels().packTruncated(rgba, argb, 2);
    EXPECT_EQ(argb[0], 0xFFFF7F00u);
    EXPECT_EQ(argb[1], 0x0100FE00u);
}

TEST(PixelKernels, PackRoundedTakesTheNearestAndOfTwoTheEven)
{
    const float rgba[] = { 0.5f, 0.5f / 255.0f, 1.5f / 255.0f, 2.0f, NAN, -1.0f, 0.999f, 0.997f };
    std::uint32_t argb[2];
    scalarKernels().packRounded(rgba, argb, 2);
    EXPECT_EQ(argb[0], 0xFF800002u);
    EXPECT_EQ(argb[1], 0xFE0000FFu);
}

TEST(PixelKernels, UnpackDividesEachByte)
{
    std::vector<std::uint32_t> argb(256);
    for (std::uint32_t i = 0; i < 256; ++i)
        argb[i] = i | ((i + 1) & 0xFF) << 8 | ((i + 2) & 0xFF) << 16 | ((i + 3) & 0xFF) << 24;
    std::vector<float> rgba(256 * 4);
    scalarKernels().unpackToFloat(argb.data(), rgba.data(), 256);
    for (std::size_t i = 0; i < 256; ++i) {
        EXPECT_EQ(rgba[i * 4], float((i + 2) & 0xFF) / 255.0f);
        EXPECT_EQ(rgba[i * 4 + 1], float((i + 1) & 0xFF) / 255.0f);
        EXPECT_EQ(rgba[i * 4 + 2], float(i) / 255.0f);
        EXPECT_EQ(rgba[i * 4 + 3], float((i + 3) & 0xFF) / 255.0f);
    }
}

TEST(PixelKernels, ByteRowsKeepTheirOrder)
{
    const std::uint8_t bgr[] = { 1, 2, 3, 4, 5, 6 };
    std::uint32_t argb[2];
    scalarKernels().bgr24ToPacked(bgr, argb, 2);
    EXPECT_EQ(argb[0], 0xFF030201u);
    EXPECT_EQ(argb[1], 0xFF060504u);
    std::uint8_t back[6] = {};
    scalarKernels().packedToBgr24(argb, back, 2);
    EXPECT_EQ(std::memcmp(bgr, back, 6), 0);
    scalarKernels().greyToPacked(bgr, argb, 2);
    EXPECT_EQ(argb[0], 0xFF010101u);
    EXPECT_EQ(argb[1], 0xFF020202u);
}

TEST(PixelKernels, SamplesConvertAsPackedPixelsDo)
{
    const std::uint8_t bytes[] = { 0, 1, 128, 255 };
    float samples[4];
    scalarKernels().byteToFloat(bytes, samples, 4);
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(samples[i], float(bytes[i]) / 255.0f);
    const float values[] = { -1.0f, 0.5f, 7.0f, NAN, 0.5f / 65535.0f, 1.5f / 65535.0f, 2.0f / 255.0f };
    std::uint8_t back[7];
    scalarKernels().floatToByte(values, back, 7);
    EXPECT_THAT(back, testing::ElementsAre(0, 128, 255, 0, 0, 0, 2));
    std::uint16_t numbers[7];
    scalarKernels().floatToUInt16(values, numbers, 7);
    EXPECT_THAT(numbers, testing::ElementsAre(0, 32768, 65535, 0, 0, 2, 514));
}

TEST(PixelKernels, TellingFloatsConvertAsArithmeticSays)
{
    for (const float value : tellingFloats()) {
        const float rgba[] = { 0, 0, value, 0 };
        std::uint32_t truncated = 0, rounded = 0;
        std::uint16_t number = 0;
        scalarKernels().packTruncated(rgba, &truncated, 1);
        scalarKernels().packRounded(rgba, &rounded, 1);
        scalarKernels().floatToUInt16(&value, &number, 1);
        const float limited = std::isnan(value) ? 0.0f : std::clamp(value, 0.0f, 1.0f);
        EXPECT_EQ(truncated, std::uint32_t(std::trunc(limited * 255.0f))) << value;
        EXPECT_EQ(rounded, std::uint32_t(std::nearbyint(limited * 255.0f))) << value;
        EXPECT_EQ(number, std::uint32_t(std::nearbyint(limited * 65535.0f))) << value;
    }
}

TEST(PixelKernels, EverySixteenBitNumberSurvivesItsFloat)
{
    for (int number = 0; number < 65536; ++number) {
        const float value = float(number) / 65535.0f;
        std::uint16_t back = 0;
        scalarKernels().floatToUInt16(&value, &back, 1);
        EXPECT_EQ(back, number);
    }
}

TEST(PixelKernels, NumbersAreScaledInEitherByteOrder)
{
    const std::uint8_t bytes[] = { 0x12, 0x34, 0xFF, 0x00 };
    float samples[4];
    scalarKernels().scaledByteToFloat(bytes, 0.5f, samples, 4);
    EXPECT_THAT(samples, testing::ElementsAre(9.0f, 26.0f, 127.5f, 0.0f));
    const std::uint16_t numbers[] = { 0x1234, 0xFF00 };
    scalarKernels().uint16ToFloat(numbers, 0.5f, samples, 2);
    EXPECT_EQ(samples[0], 0x1234 * 0.5f);
    EXPECT_EQ(samples[1], 0xFF00 * 0.5f);
    scalarKernels().bigUint16ToFloat(bytes, 0.5f, samples, 2);
    EXPECT_EQ(samples[0], 0x1234 * 0.5f);
    EXPECT_EQ(samples[1], 0xFF00 * 0.5f);
    std::uint16_t swapped[2];
    scalarKernels().swapBytes16(numbers, swapped, 2);
    EXPECT_THAT(swapped, testing::ElementsAre(0x3412, 0x00FF));
}

TEST(PixelKernels, FewerComponentsBecomeFour)
{
    const float samples[] = { 0.25f, 0.5f, 0.75f, 2.0f, 3.0f, 4.0f };
    float rgba[8];
    scalarKernels().greyToRgba(samples, rgba, 2);
    EXPECT_THAT(rgba, testing::ElementsAre(0.25f, 0.25f, 0.25f, 1, 0.5f, 0.5f, 0.5f, 1));
    scalarKernels().greyAlphaToRgba(samples, rgba, 2);
    EXPECT_THAT(rgba, testing::ElementsAre(0.25f, 0.25f, 0.25f, 0.5f, 0.75f, 0.75f, 0.75f, 2));
    scalarKernels().rgbToRgba(samples, rgba, 2);
    EXPECT_THAT(rgba, testing::ElementsAre(0.25f, 0.5f, 0.75f, 1, 2, 3, 4, 1));
}

TEST(PixelKernels, ArrangementPicksAndFillsBytes)
{
    // Two pixels of three bytes to four: exchanged, the last byte set.
    const PixelArrangement arrangement { { 2, 1, PixelArrangement::none, PixelArrangement::none },
        { 0, 0, 0, 0xFF }, 4, 3, 4 };
    const std::uint8_t source[] = { 1, 2, 3, 4, 5, 6 };
    std::uint8_t result[8];
    scalarKernels().arrange(arrangement, source, result, 2);
    EXPECT_THAT(result, testing::ElementsAre(3, 2, 0, 0xFF, 6, 5, 0, 0xFF));
}

TEST(PixelKernels, EveryHalfHasItsValue)
{
    for (std::uint32_t bits = 0; bits < 65536; ++bits) {
        const auto half = std::uint16_t(bits);
        float value = 0;
        scalarKernels().halfToFloat(&half, &value, 1);
        const int exponent = int(bits >> 10 & 31), fraction = int(bits & 1023);
        if (exponent == 31 && fraction != 0) {
            // A quiet NaN with the sign and the payload.
            EXPECT_EQ(std::bit_cast<std::uint32_t>(value),
                (bits & 0x8000) << 16 | 0x7FC00000u | std::uint32_t(fraction) << 13);
            continue;
        }
        double expected
            = exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(1024 + fraction, exponent - 25);
        if (exponent == 31)
            expected = INFINITY;
        EXPECT_EQ(value, float(bits & 0x8000 ? -expected : expected)) << bits;
        EXPECT_EQ(std::signbit(value), (bits & 0x8000) != 0);
        std::uint16_t back = 0;
        scalarKernels().floatToHalf(&value, &back, 1);
        EXPECT_EQ(back, half);
    }
}

TEST(PixelKernels, FloatsBetweenTwoHalvesTakeTheNearerAndOfTwoTheEven)
{
    for (std::uint16_t bits = 0; bits < 0x7BFF; ++bits) {
        const std::uint16_t pair[] = { bits, std::uint16_t(bits + 1) };
        float values[2];
        scalarKernels().halfToFloat(pair, values, 2);
        const float middle = (values[0] + values[1]) / 2; // Exact.
        const float probes[] = { std::nextafter(middle, 0.0f), middle, std::nextafter(middle, INFINITY) };
        std::uint16_t halves[3];
        scalarKernels().floatToHalf(probes, halves, 3);
        EXPECT_EQ(halves[0], pair[0]);
        EXPECT_EQ(halves[1], bits % 2 == 0 ? pair[0] : pair[1]);
        EXPECT_EQ(halves[2], pair[1]);
    }
}

class PixelKernelsOfLevel : public testing::TestWithParam<SimdLevel> {
protected:
    void SetUp() override
    {
        m_kernels = pixelKernels(GetParam());
        if (!m_kernels)
            GTEST_SKIP() << "this processor lacks the level";
    }

    template <typename Source, typename Result>
    void expectSameAsScalar(Kernel<Source, Result> kernel, const std::vector<Source>& source,
        std::size_t count, std::size_t results)
    {
        ASSERT_TRUE(sameBits(converted(*m_kernels, kernel, source, count, results),
            converted(scalarKernels(), kernel, source, count, results)));
    }

    /// Runs every count from 0 to 67 at every start from a type-aligned address, in memory of just that
    /// size, so that the address sanitizer sees any access beyond it; the guard shows it without one.
    template <typename Source, typename Result>
    void expectExactBounds(Kernel<Source, Result> kernel, std::size_t sourcesEach, std::size_t resultsEach)
    {
        for (std::size_t count = 0; count <= 67; ++count) {
            for (std::size_t start = 0; start < 5; ++start)
                expectExactBounds(kernel, count * sourcesEach, count * resultsEach, count, start);
        }
    }

    const PixelKernels* m_kernels = nullptr;

private:
    template <typename Source, typename Result>
    void expectExactBounds(Kernel<Source, Result> kernel, std::size_t sources, std::size_t results,
        std::size_t count, std::size_t start)
    {
        std::vector<Source> source(start + sources);
        for (std::size_t i = 0; i < source.size(); ++i)
            source[i] = Source(double(i * 37 % 251) / (std::is_floating_point_v<Source> ? 200 : 1));
        std::vector<Result> expected(start + results);
        (scalarKernels().*kernel)(source.data() + start, expected.data() + start, count);

        std::vector<std::uint8_t> guarded((start + results) * sizeof(Result) + 64, 0xA5);
        std::vector<Result> exact(start + results);
        (m_kernels->*kernel)(source.data() + start, exact.data() + start, count);
        EXPECT_TRUE(sameBits(exact, expected));
        auto* const inside = reinterpret_cast<Result*>(guarded.data()) + start;
        (m_kernels->*kernel)(source.data() + start, inside, count);
        EXPECT_TRUE(std::equal(inside, inside + results, expected.begin() + std::ptrdiff_t(start)));
        for (std::size_t i = (start + results) * sizeof(Result); i < guarded.size(); ++i)
            ASSERT_EQ(guarded[i], 0xA5) << "written past the end at count " << count;
    }
};

/// The levels that are compared with the scalar one.
class FastPixelKernels : public PixelKernelsOfLevel { };

TEST_P(FastPixelKernels, PacksTellingFloatsLikeThePlainRule)
{
    std::vector<float> values = tellingFloats();
    // Every value in every place of a pixel and of a register.
    for (std::size_t shift = 0; shift < 33; ++shift) {
        values.insert(values.begin(), 0.25f);
        const std::size_t count = values.size() / 4;
        expectSameAsScalar(&PixelKernels::packTruncated, values, count, count);
        expectSameAsScalar(&PixelKernels::packRounded, values, count, count);
        expectSameAsScalar(&PixelKernels::floatToHalf, values, values.size(), values.size());
        expectSameAsScalar(&PixelKernels::floatToByte, values, values.size(), values.size());
        expectSameAsScalar(&PixelKernels::floatToUInt16, values, values.size(), values.size());
    }
}

TEST_P(FastPixelKernels, ConvertsFloatsOfTheWholeRangeLikeThePlainRule)
{
    sweepFloats(testing_support::isFullSweep() ? 13 : 1009, [this](const std::vector<float>& values) {
        const std::size_t count = values.size() / 4;
        expectSameAsScalar(&PixelKernels::packTruncated, values, count, count);
        expectSameAsScalar(&PixelKernels::packRounded, values, count, count);
        expectSameAsScalar(&PixelKernels::floatToHalf, values, values.size(), values.size());
        expectSameAsScalar(&PixelKernels::floatToByte, values, values.size(), values.size());
        expectSameAsScalar(&PixelKernels::floatToUInt16, values, values.size(), values.size());
    });
}

TEST_P(FastPixelKernels, ConvertsEveryHalfLikeThePlainRule)
{
    std::vector<std::uint16_t> halves(65536);
    std::iota(halves.begin(), halves.end(), std::uint16_t(0));
    expectSameAsScalar(&PixelKernels::halfToFloat, halves, halves.size(), halves.size());
}

TEST_P(FastPixelKernels, EveryByteInEveryPlaceConvertsLikeThePlainRule)
{
    std::vector<std::uint8_t> bytes(256 * 3 * 5);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = std::uint8_t(i * 7 + i / 256);
    expectSameAsScalar(&PixelKernels::bgr24ToPacked, bytes, bytes.size() / 3, bytes.size() / 3);
    expectSameAsScalar(&PixelKernels::greyToPacked, bytes, bytes.size(), bytes.size());
    expectSameAsScalar(&PixelKernels::byteToFloat, bytes, bytes.size(), bytes.size());
    std::vector<std::uint32_t> words(1024);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = std::uint32_t(i) * 0x9E3779B1u;
    expectSameAsScalar(&PixelKernels::packedToBgr24, words, words.size(), words.size() * 3);
    expectSameAsScalar(&PixelKernels::unpackToFloat, words, words.size(), words.size() * 4);
}

TEST_P(PixelKernelsOfLevel, NothingPastTheEndIsTouched)
{
    expectExactBounds(&PixelKernels::packTruncated, 4, 1);
    expectExactBounds(&PixelKernels::packRounded, 4, 1);
    expectExactBounds(&PixelKernels::unpackToFloat, 1, 4);
    expectExactBounds(&PixelKernels::bgr24ToPacked, 3, 1);
    expectExactBounds(&PixelKernels::packedToBgr24, 1, 3);
    expectExactBounds(&PixelKernels::greyToPacked, 1, 1);
    expectExactBounds(&PixelKernels::halfToFloat, 1, 1);
    expectExactBounds(&PixelKernels::floatToHalf, 1, 1);
    expectExactBounds(&PixelKernels::byteToFloat, 1, 1);
    expectExactBounds(&PixelKernels::floatToByte, 1, 1);
    expectExactBounds(&PixelKernels::floatToUInt16, 1, 1);
    expectExactBounds(&PixelKernels::greyToRgba, 1, 4);
    expectExactBounds(&PixelKernels::greyAlphaToRgba, 2, 4);
    expectExactBounds(&PixelKernels::rgbToRgba, 3, 4);
    expectExactBounds(&PixelKernels::swapBytes16, 1, 1);
}

/// Runs a conversion with a scale for every count from 0 to 67, from and to memory of just that size, and
/// compares with the scalar one.
template <typename Source>
void expectScaledLikeScalar(const PixelKernels& kernels,
    void (*PixelKernels::*kernel)(const Source*, float, float*, std::size_t), std::size_t sourcesEach)
{
    constexpr float scale = 1.0f / 1021.0f;
    for (std::size_t count = 0; count <= 67; ++count) {
        std::vector<Source> source(count * sourcesEach);
        for (std::size_t i = 0; i < source.size(); ++i)
            source[i] = Source(i * 40503u + count * 977u);
        std::vector<float> expected(count), result(count), guarded(count + 16, -5.0f);
        (scalarKernels().*kernel)(source.data(), scale, expected.data(), count);
        (kernels.*kernel)(source.data(), scale, result.data(), count);
        ASSERT_TRUE(sameBits(result, expected)) << count;
        (kernels.*kernel)(source.data(), scale, guarded.data(), count);
        ASSERT_EQ(std::count(guarded.end() - 16, guarded.end(), -5.0f), 16) << count;
    }
}

TEST_P(PixelKernelsOfLevel, ScalesNumbersLikeThePlainRuleWithinTheirBounds)
{
    expectScaledLikeScalar(*m_kernels, &PixelKernels::scaledByteToFloat, 1);
    expectScaledLikeScalar(*m_kernels, &PixelKernels::uint16ToFloat, 1);
    expectScaledLikeScalar(*m_kernels, &PixelKernels::bigUint16ToFloat, 2);
}

TEST_P(FastPixelKernels, ScalesEverySixteenBitNumberLikeThePlainRule)
{
    std::vector<std::uint16_t> numbers(65536);
    std::iota(numbers.begin(), numbers.end(), std::uint16_t(0));
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(numbers.data());
    std::vector<float> expected(numbers.size()), result(numbers.size());
    for (const float scale : { 1.0f / 65535.0f, 1.5259022e-05f, 1.0f / 4095.0f }) {
        scalarKernels().uint16ToFloat(numbers.data(), scale, expected.data(), numbers.size());
        m_kernels->uint16ToFloat(numbers.data(), scale, result.data(), numbers.size());
        EXPECT_TRUE(sameBits(result, expected));
        scalarKernels().bigUint16ToFloat(bytes, scale, expected.data(), numbers.size());
        m_kernels->bigUint16ToFloat(bytes, scale, result.data(), numbers.size());
        EXPECT_TRUE(sameBits(result, expected));
    }
}

/// An arrangement that takes the bytes of a pixel from anywhere in it, or from nowhere.
PixelArrangement scattered(std::size_t sourceBytes, std::size_t resultBytes)
{
    PixelArrangement arrangement {};
    arrangement.sourceBytes = std::uint8_t(sourceBytes);
    arrangement.resultBytes = std::uint8_t(resultBytes);
    arrangement.pixels = std::uint8_t(16 / std::max(sourceBytes, resultBytes));
    for (std::size_t i = 0; i < arrangement.pixels * resultBytes; ++i) {
        const std::size_t pixel = i / resultBytes, place = i % resultBytes;
        const std::size_t from = (place * 7 + 3) % (sourceBytes + 1);
        arrangement.source[i]
            = from == sourceBytes ? PixelArrangement::none : std::uint8_t(pixel * sourceBytes + from);
        arrangement.fill[i] = from == sourceBytes ? std::uint8_t(0x81 + place) : std::uint8_t(0);
    }
    return arrangement;
}

TEST_P(PixelKernelsOfLevel, ArrangesPixelsOfEverySizeLikeThePlainRuleWithinTheirBounds)
{
    for (std::size_t sourceBytes = 1; sourceBytes <= 16; ++sourceBytes) {
        for (std::size_t resultBytes = 1; resultBytes <= 16; ++resultBytes) {
            const PixelArrangement arrangement = scattered(sourceBytes, resultBytes);
            for (std::size_t count = 0; count <= 67; ++count) {
                std::vector<std::uint8_t> source(count * sourceBytes);
                for (std::size_t i = 0; i < source.size(); ++i)
                    source[i] = std::uint8_t(i * 37 + 11);
                std::vector<std::uint8_t> expected(count * resultBytes), result(count * resultBytes);
                scalarKernels().arrange(arrangement, source.data(), expected.data(), count);
                m_kernels->arrange(arrangement, source.data(), result.data(), count);
                ASSERT_EQ(result, expected);
                result.assign(count * resultBytes + 64, 0xA5);
                m_kernels->arrange(arrangement, source.data(), result.data(), count);
                ASSERT_EQ(std::count(result.end() - 64, result.end(), 0xA5), 64);
            }
        }
    }
}

std::string levelName(const testing::TestParamInfo<SimdLevel>& level)
{
    switch (level.param) {
    case SimdLevel::Scalar: return "Scalar";
    case SimdLevel::Sse41: return "Sse41";
    case SimdLevel::Avx2: break;
    }
    return "Avx2";
}

INSTANTIATE_TEST_SUITE_P(Levels, FastPixelKernels, testing::ValuesIn(fastLevels), levelName);
INSTANTIATE_TEST_SUITE_P(Levels, PixelKernelsOfLevel, testing::ValuesIn(allLevels), levelName);

} // namespace
