#include "rastkit/model/planar_kernels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace QUtils;

constexpr const std::uint8_t* noBytes = nullptr;
constexpr const float* noFloats = nullptr;
constexpr std::size_t mostCount = 150; // Several registers of the widest level.

std::vector<std::uint8_t> noise(std::size_t count, unsigned int seed)
{
    std::vector<std::uint8_t> bytes(count);
    for (std::uint8_t& byte : bytes)
        byte = std::uint8_t((seed = seed * 1664525 + 1013904223) >> 24);
    return bytes;
}

class PlanarKernelsOfLevel : public testing::TestWithParam<SimdLevel> {
protected:
    void SetUp() override
    {
        m_kernels = planarKernels(GetParam());
        if (!m_kernels)
            GTEST_SKIP() << "this processor lacks the level";
    }

    const PlanarKernels* m_kernels = nullptr;
};

TEST_P(PlanarKernelsOfLevel, PlanesOfBytesBecomePackedPixels)
{
    const auto r = noise(mostCount, 1), g = noise(mostCount, 2), b = noise(mostCount, 3),
               a = noise(mostCount, 4);
    for (std::size_t count = 0; count < mostCount; ++count)
        for (const std::uint8_t* const alpha : { a.data(), noBytes }) {
            std::vector<std::uint32_t> argb(count + 1, 0x12345678u);
            m_kernels->planesToPacked(r.data(), g.data(), b.data(), alpha, argb.data(), count);
            for (std::size_t i = 0; i < count; ++i)
                ASSERT_EQ(argb[i],
                    (alpha ? unsigned(a[i]) : 255u) << 24 | unsigned(r[i]) << 16 | unsigned(g[i]) << 8 | b[i])
                    << i << " of " << count;
            EXPECT_EQ(argb[count], 0x12345678u);
        }
}

TEST_P(PlanarKernelsOfLevel, PlanesOfFloatsBecomePixels)
{
    std::vector<float> planes[4];
    for (std::size_t c = 0; c < 4; ++c)
        for (std::size_t i = 0; i < mostCount; ++i)
            planes[c].push_back(float(c * 1000 + i));
    for (std::size_t count = 0; count < mostCount; ++count)
        for (const float* const alpha : { static_cast<const float*>(planes[3].data()), noFloats }) {
            std::vector<float> rgba(count * 4 + 1, -1);
            m_kernels->planesToRgba(
                planes[0].data(), planes[1].data(), planes[2].data(), alpha, rgba.data(), count);
            for (std::size_t i = 0; i < count; ++i) {
                for (std::size_t c = 0; c < 3; ++c)
                    ASSERT_EQ(rgba[4 * i + c], planes[c][i]);
                ASSERT_EQ(rgba[4 * i + 3], alpha ? planes[3][i] : 1.0f);
            }
            EXPECT_EQ(rgba[count * 4], -1);
        }
}

TEST_P(PlanarKernelsOfLevel, BytesArePickedFromPairsAndFromPixels)
{
    const auto source = noise(mostCount * 4, 5);
    for (std::size_t count = 0; count < mostCount; ++count) {
        std::vector<std::uint8_t> picked(count + 1, 0x55);
        m_kernels->firstBytes(source.data(), picked.data(), count);
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(picked[i], source[2 * i]);
        for (unsigned int component = 0; component < 4; ++component) {
            m_kernels->oneOfFour(source.data(), component, picked.data(), count);
            for (std::size_t i = 0; i < count; ++i)
                ASSERT_EQ(picked[i], source[4 * i + component]) << i << " of " << count;
        }
        EXPECT_EQ(picked[count], 0x55);
    }
}

TEST_P(PlanarKernelsOfLevel, NumbersArePickedFromPixelsWithTheirBytesExchanged)
{
    const auto source = noise(mostCount * 8, 6);
    for (std::size_t count = 0; count < mostCount; ++count)
        for (unsigned int component = 0; component < 4; ++component) {
            std::vector<std::uint8_t> picked(2 * count + 1, 0x55);
            m_kernels->swappedOneOfFour16(source.data(), component, picked.data(), count);
            for (std::size_t i = 0; i < count; ++i) {
                ASSERT_EQ(picked[2 * i], source[8 * i + 2 * component + 1]);
                ASSERT_EQ(picked[2 * i + 1], source[8 * i + 2 * component]);
            }
            EXPECT_EQ(picked[2 * count], 0x55);
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

INSTANTIATE_TEST_SUITE_P(Levels, PlanarKernelsOfLevel,
    testing::Values(SimdLevel::Scalar, SimdLevel::Sse41, SimdLevel::Avx2), levelName);

TEST(PlanarKernels, BestLevelIsThatOfThePixelKernels)
{
    for (const SimdLevel level : { SimdLevel::Scalar, SimdLevel::Sse41, SimdLevel::Avx2 }) {
        EXPECT_EQ(planarKernels(level) == nullptr, pixelKernels(level) == nullptr);
        if (pixelKernels(level) == &pixelKernels()) {
            EXPECT_EQ(planarKernels(level), &planarKernels());
        }
    }
}

} // namespace
