#include "rastkit/tiles/tile_sink.h"

#include "rastkit/tiles/tile_memory.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using namespace QUtils;

class BoundedGrant final : public MemoryGrant {
public:
    bool take(std::uint64_t bytes) override
    {
        if (bytes > left)
            return false;
        left -= bytes;
        return true;
    }
    void giveBack(std::uint64_t bytes) override { left += bytes; }
    std::uint8_t* allocateTile(std::size_t bytes) override { return memory.allocate(bytes); }
    void freeTile(std::uint8_t* tile, std::size_t bytes) override { memory.free(tile, bytes); }

    TileMemory memory;
    std::uint64_t left = 1000000;
};

/// A tile of 3 x 2 pixels at (8, 4), of 4 x 4 that the loader delivers.
class TileSinkTest : public testing::Test {
protected:
    static constexpr TileSink::Area area { 8, 4, 3, 2, 4, 4 };
    using Row = std::array<float, 16>;

    static Row row(float value)
    {
        Row made;
        made.fill(value);
        return made;
    }

    /// The tile's samples, freed.
    std::vector<float> taken(TileSink& sink)
    {
        std::vector<float> samples(3 * 2 * 4, -1);
        std::uint8_t* const tile = sink.release();
        if (tile)
            decodeSamples(sink.encoding(), tile, 0, samples.data(), samples.size());
        m_grant.freeTile(tile, samples.size() * sampleBytes(sink.encoding()));
        return samples;
    }

    BoundedGrant m_grant;
};

TEST_F(TileSinkTest, HalfsAreStoredAsTheyAreOrAsTheirFloats)
{
    constexpr std::uint16_t one = 0x3C00, half = 0x3800, signallingNan = 0x7D00;
    std::array<std::uint16_t, 16> halfs;
    halfs.fill(half);
    for (const TileEncoding encoding : { TileEncoding::Half, TileEncoding::Float, TileEncoding::Byte255 }) {
        TileSink sink(area, encoding, m_grant);
        halfs[0] = one;
        for (int y = 7; y >= 4; --y)
            sink.setRowHalf(8, y, 4, halfs.data());
        EXPECT_EQ(sink.error(), IMGERR_NONE);
        std::vector<float> expected(24, 0.5f);
        expected[0] = expected[12] = 1;
        EXPECT_EQ(taken(sink), expected);
    }
    TileSink sink(area, TileEncoding::Half, m_grant);
    halfs[0] = signallingNan;
    sink.setRowHalf(8, 4, 4, halfs.data());
    EXPECT_EQ(sink.encoding(), TileEncoding::Half);
    EXPECT_TRUE(std::isnan(taken(sink)[0]));
    TileSink other(area, TileEncoding::Half, m_grant);
    other.setRowHalf(9, 4, 4, halfs.data());
    EXPECT_EQ(other.error(), IMGERR_UNSUPPORTED);
}

TEST_F(TileSinkTest, RowsAreCutToTheTile)
{
    TileSink sink(area, TileEncoding::Byte255, m_grant);
    for (int y = 7; y >= 4; --y)
        sink.setRowF(8, y, 4, row(float(y - 4) / 255.0f).data());
    EXPECT_EQ(sink.error(), IMGERR_NONE);
    EXPECT_EQ(sink.encoding(), TileEncoding::Byte255);
    const std::vector<float> samples = taken(sink);
    EXPECT_EQ(samples[11], 0);
    EXPECT_EQ(samples[12], float(1 / 255.0));
    EXPECT_EQ(samples[23], float(1 / 255.0));
}

TEST_F(TileSinkTest, PixelsAreStoredToo)
{
    TileSink sink(area, TileEncoding::Byte255, m_grant);
    const float red[] = { 1, 0, 0, 1 };
    const unsigned int packed[] = { 0xFF00FF00u, 0u };
    sink.setPixelF(8, 5, red);
    sink.setRow(9, 5, 2, packed);
    sink.setPixel(8, 4, 0xFFFFFFFFu);
    const std::vector<float> samples = taken(sink);
    EXPECT_EQ(
        std::vector<float>(samples.begin(), samples.begin() + 5), (std::vector<float> { 1, 1, 1, 1, 0 }));
    EXPECT_EQ(std::vector<float>(samples.begin() + 12, samples.end()),
        (std::vector<float> { 1, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0 }));
}

TEST_F(TileSinkTest, OtherBytesAreTriedBeforeFloats)
{
    TileSink sink(area, TileEncoding::Byte255, m_grant);
    sink.setRowF(8, 4, 4, row(0).data());
    sink.setRowF(8, 5, 4, row(255 / 256.0f).data());
    EXPECT_EQ(sink.encoding(), TileEncoding::Byte256);
    const std::vector<float> samples = taken(sink);
    EXPECT_EQ(samples[0], 0);
    EXPECT_EQ(samples[12], 255 / 256.0f);
}

TEST_F(TileSinkTest, WhatIsStoredAlreadyBecomesFloatsWithAllThatFollows)
{
    for (const TileEncoding encoding : { TileEncoding::Byte255, TileEncoding::Half }) {
        const std::uint64_t before = m_grant.left;
        {
            TileSink sink(area, encoding, m_grant);
            m_grant.left -= TileSink::bytesOf(area, encoding);
            sink.setRowF(8, 4, 4, row(1).data());
            sink.setRowF(8, 5, 4, row(1.0f / 7).data());
            EXPECT_EQ(sink.error(), IMGERR_NONE);
            EXPECT_EQ(sink.encoding(), TileEncoding::Float);
            const std::vector<float> samples = taken(sink);
            EXPECT_EQ(samples[11], 1);
            EXPECT_EQ(samples[12], 1.0f / 7);
        }
        EXPECT_EQ(m_grant.left, before - TileSink::bytesOf(area, TileEncoding::Float));
    }
}

TEST_F(TileSinkTest, FloatsThatAreNotGrantedAreWantOfMemory)
{
    {
        TileSink sink(area, TileEncoding::Half, m_grant);
        m_grant.left = 20;
        sink.setRowF(8, 4, 4, row(1.0f / 7).data());
        EXPECT_EQ(sink.error(), IMGERR_MEMORY);
        EXPECT_EQ(sink.isValid(), 0);
        sink.setRowF(8, 5, 4, row(1).data());
        EXPECT_EQ(sink.error(), IMGERR_MEMORY);
    }
    EXPECT_EQ(m_grant.left, 20 + TileSink::bytesOf(area, TileEncoding::Half));
}

TEST_F(TileSinkTest, PixelsOfOtherTilesAreUnsupported)
{
    for (const auto& [x, y, count] :
        { std::array { 7, 4, 1 }, { 12, 4, 1 }, { 10, 4, 3 }, { 8, 3, 1 }, { 8, 8, 1 } }) {
        TileSink sink(area, TileEncoding::Byte255, m_grant);
        sink.setRowF(x, y, count, row(0).data());
        EXPECT_EQ(sink.error(), IMGERR_UNSUPPORTED) << x << ' ' << y;
    }
}

TEST_F(TileSinkTest, NothingIsTakenBeforeTheFirstRow)
{
    TileSink sink({ 0, 0, 1 << 30, 1 << 20, 1 << 30, 1 << 20 }, TileEncoding::Byte255, m_grant);
    EXPECT_EQ(sink.release(), nullptr);
}

} // namespace
