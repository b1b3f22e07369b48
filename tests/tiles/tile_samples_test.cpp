#include "rastkit/model/pixel_kernels.h"
#include "rastkit/tiles/tile_samples.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using namespace QUtils;

constexpr TileEncoding byteEncodings[]
    = { TileEncoding::Byte255, TileEncoding::Byte256, TileEncoding::ByteInverted, TileEncoding::BytePalette };

/// Whether floats can be stored, and are the same to the bit when they come back, all at once and in parts.
bool comeBack(TileEncoding encoding, const std::vector<float>& samples)
{
    std::vector<std::uint8_t> stored(samples.size() * sampleBytes(encoding));
    if (!encodeSamples(encoding, samples.data(), stored.data(), samples.size()))
        return false;
    std::vector<float> again(samples.size());
    decodeSamples(encoding, stored.data(), 0, again.data(), again.size());
    EXPECT_EQ(std::memcmp(again.data(), samples.data(), samples.size() * sizeof(float)), 0);
    const std::size_t middle = samples.size() / 2;
    decodeSamples(encoding, stored.data(), middle, again.data(), samples.size() - middle);
    EXPECT_EQ(
        std::memcmp(again.data(), samples.data() + middle, (samples.size() - middle) * sizeof(float)), 0);
    return true;
}

TEST(TileSamples, EveryHalfThatALoaderDeliversIsKept)
{
    std::vector<std::uint16_t> halfs(65536);
    for (std::size_t i = 0; i < halfs.size(); ++i)
        halfs[i] = std::uint16_t(i);
    std::vector<float> samples(halfs.size());
    pixelKernels().halfToFloat(halfs.data(), samples.data(), halfs.size());
    EXPECT_TRUE(comeBack(TileEncoding::Half, samples));
}

TEST(TileSamples, FloatsThatAreNoHalfsAreNotKeptAsSuch)
{
    for (const float value : { 1.0f + 1.0f / 4096, 65536.0f, 1e-9f, std::bit_cast<float>(0x7FC00001u) })
        for (const std::size_t place : { 0u, 1u, 1023u, 1024u, 2999u }) {
            std::vector<float> samples(3000, 0.5f);
            EXPECT_TRUE(comeBack(TileEncoding::Half, samples));
            samples[place] = value;
            EXPECT_FALSE(comeBack(TileEncoding::Half, samples)) << value;
            EXPECT_TRUE(comeBack(TileEncoding::Float, samples)) << value;
        }
}

TEST(TileSamples, EachByteStandsForOneFloat)
{
    for (const TileEncoding encoding : byteEncodings) {
        std::vector<float> samples;
        for (std::size_t i = 0; i < 2500; ++i)
            samples.push_back(byteValues(encoding)[i * 7 % 256]);
        EXPECT_TRUE(comeBack(encoding, samples)) << int(encoding);
        EXPECT_EQ(byteValues(encoding)[0], 0);
        EXPECT_EQ(sampleOf(encoding), TileSample::Byte);
        EXPECT_EQ(sampleBytes(encoding), 1u);
        for (const float value : { -0.0f, 0.5f + 1.0f / 1024, 1.5f, -1.0f,
                 std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN() }) {
            samples[1999] = value;
            EXPECT_FALSE(comeBack(encoding, samples)) << int(encoding) << ' ' << value;
        }
    }
    EXPECT_EQ(byteValues(TileEncoding::Byte255)[255], 1);
    EXPECT_EQ(byteValues(TileEncoding::Byte256)[255], 0.99609375f);
    EXPECT_EQ(byteValues(TileEncoding::Half), nullptr);
    EXPECT_EQ(byteValues(TileEncoding::Float), nullptr);
}

TEST(TileSamples, AttemptsGoToLargerSamplesAndEndWithFloats)
{
    for (const bool isExr : { false, true })
        for (const int bits : { 1, 8, 16, 32 }) {
            TileEncoding encoding = firstEncoding(isExr, bits);
            int steps = 0;
            for (; encoding != TileEncoding::Float; ++steps) {
                const TileEncoding next = nextEncoding(encoding);
                EXPECT_GT(next, encoding);
                EXPECT_GE(sampleBytes(next), sampleBytes(encoding));
                encoding = next;
            }
            EXPECT_EQ(steps, bits == 32 ? 0 : isExr ? 1 : 4);
        }
}

} // namespace
