#include "qutils/formats/dds/block_kernels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

using QUtils::BlockKernels;
using QUtils::ByteArrangement;
using QUtils::DdsSimd;

class BlockLevels : public testing::Test {
protected:
    void SetUp() override
    {
        if (!m_fast)
            GTEST_SKIP() << "this processor has no SSE4.1";
    }
    using Pixels = std::vector<std::uint32_t>;

    static Pixels decode(
        QUtils::PackedBlocks kernel, const std::vector<std::uint64_t>& blocks, std::size_t count)
    {
        Pixels pixels(count * 16);
        std::uint32_t* rows[4];
        for (std::size_t y = 0; y < 4; ++y)
            rows[y] = pixels.data() + y * count * 4;
        kernel(reinterpret_cast<const std::uint8_t*>(blocks.data()), count, rows);
        return pixels;
    }
    void expectSame(QUtils::PackedBlocks BlockKernels::*kernel, const std::vector<std::uint64_t>& blocks,
        std::size_t count, const char* name)
    {
        EXPECT_TRUE(decode(m_plain->*kernel, blocks, count) == decode(m_fast->*kernel, blocks, count))
            << name;
    }

    const BlockKernels* m_plain = QUtils::blockKernels(DdsSimd::Scalar);
    const BlockKernels* m_fast = QUtils::blockKernels(DdsSimd::Sse41);
};

TEST_F(BlockLevels, AgreeOnRandomBlocks)
{
    constexpr std::size_t count = 20000;
    std::mt19937_64 random(1);
    std::vector<std::uint64_t> blocks(2 * count);
    for (std::uint64_t& word : blocks)
        word = random();
    expectSame(&BlockKernels::bc1, blocks, count, "bc1");
    expectSame(&BlockKernels::bc2, blocks, count, "bc2");
    expectSame(&BlockKernels::bc3, blocks, count, "bc3");
    expectSame(&BlockKernels::bc4, blocks, count, "bc4");
    expectSame(&BlockKernels::bc5, blocks, count, "bc5");
    for (int mode = 0; mode <= 8; ++mode) {
        for (std::size_t i = 0; i < count; ++i) {
            blocks[2 * i] &= ~((std::uint64_t(2) << mode) - 1);
            blocks[2 * i] |= mode < 8 ? std::uint64_t(1) << mode : 0;
        }
        expectSame(&BlockKernels::bc7, blocks, count, "bc7");
        for (std::uint64_t& word : blocks)
            word = random();
    }
}

TEST_F(BlockLevels, AgreeOnEveryPairOfEndpoints)
{
    std::vector<std::uint64_t> colors, values;
    for (std::uint64_t a = 0; a < 64; ++a)
        for (std::uint64_t b = 0; b < 64; ++b) {
            // Red and blue have 5 bits. Four colours, then three.
            const std::uint64_t first = a >> 1 << 11 | a << 5 | a >> 1,
                                second = b >> 1 << 11 | b << 5 | b >> 1;
            colors.push_back(first | second << 16 | std::uint64_t(0xE4) << 32);
        }
    expectSame(&BlockKernels::bc1, colors, colors.size(), "bc1");
    for (std::uint64_t a = 0; a < 256; ++a)
        for (std::uint64_t b = 0; b < 256; ++b)
            values.push_back(a | b << 8 | std::uint64_t(0xFAC688) << 16);
    expectSame(&BlockKernels::bc4, values, values.size(), "bc4");
}

TEST_F(BlockLevels, AgreeOnBytesInAnotherOrder)
{
    std::vector<std::uint8_t> bytes(4 * 23);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = std::uint8_t(i * 7);
    for (std::uint8_t size = 1; size <= 4; ++size)
        for (std::size_t count = 0; count <= 23; ++count) {
            const ByteArrangement order { size, { std::uint8_t(size - 1), 0, ByteArrangement::none, 0 },
                0x00400000 };
            // Exactly as many bytes as there are pixels, so that a sanitizer sees one more.
            const std::vector<std::uint8_t> exact(
                bytes.begin(), bytes.begin() + std::ptrdiff_t(count * size));
            Pixels plain(count), fast(count);
            m_plain->arrange(order, exact.data(), count, plain.data());
            m_fast->arrange(order, exact.data(), count, fast.data());
            EXPECT_EQ(plain, fast) << int(size) << ' ' << count;
        }
}

TEST(BlockSteps, AreTheExactFractionsRoundedToNearest)
{
    const BlockKernels& kernels = QUtils::blockKernels();
    for (unsigned a = 0; a < 256; ++a)
        for (unsigned b = 0; b < 256; ++b) {
            const std::uint8_t block[8] = { std::uint8_t(a), std::uint8_t(b), 0x88, 0xC6, 0xFA, 0, 0, 0 };
            std::uint32_t pixels[16];
            std::uint32_t* const rows[4] = { pixels, pixels + 4, pixels + 8, pixels + 12 };
            kernels.bc4(block, 1, rows);
            const unsigned steps = a > b ? 7 : 5;
            for (unsigned i = 1; i < steps; ++i) {
                const double exact = (a * (steps - i) + b * i) / double(steps);
                ASSERT_NEAR(pixels[i + 1] & 0xFF, exact, 0.4999) << a << ' ' << b << ' ' << i;
            }
        }
}

} // namespace
