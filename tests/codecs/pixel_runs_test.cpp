#include "rastkit/codecs/pixel_runs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using QUtils::rawLength;
using QUtils::runLength;

/// A row spelt with one letter per pixel, at the end of its memory so that a sanitizer sees each byte read
/// behind it. Pixels of several bytes differ in the last one only.
class Row {
public:
    Row(const std::string& letters, std::size_t pixelBytes)
        : m_pixelBytes(pixelBytes), m_count(letters.size())
    {
        for (const char letter : letters) {
            m_bytes.insert(m_bytes.end(), pixelBytes - 1, 0x55);
            m_bytes.push_back(std::uint8_t(letter));
        }
        m_bytes.shrink_to_fit();
    }

    std::size_t run() const { return runLength(m_bytes.data(), m_pixelBytes, m_count); }
    std::size_t raw() const { return rawLength(m_bytes.data(), m_pixelBytes, m_count); }

private:
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_pixelBytes, m_count;
};

class PixelRuns : public testing::TestWithParam<std::size_t> { };

INSTANTIATE_TEST_SUITE_P(PixelBytes, PixelRuns, testing::Values(1, 2, 3, 4, 5, 8, 16));

TEST_P(PixelRuns, RunsAreCountedFromTheFirstPixel)
{
    EXPECT_EQ(Row("", GetParam()).run(), 0u);
    EXPECT_EQ(Row("a", GetParam()).run(), 1u);
    EXPECT_EQ(Row("abbb", GetParam()).run(), 1u);
    EXPECT_EQ(Row("aabb", GetParam()).run(), 2u);
    EXPECT_EQ(Row("aaab", GetParam()).run(), 3u);
    EXPECT_EQ(Row("aaaa", GetParam()).run(), 4u);
    EXPECT_EQ(Row(std::string(1000, 'a') + 'b', GetParam()).run(), 1000u);
}

TEST_P(PixelRuns, RawPixelsEndBeforeThreeEqualOnes)
{
    EXPECT_EQ(Row("", GetParam()).raw(), 0u);
    EXPECT_EQ(Row("a", GetParam()).raw(), 1u);
    EXPECT_EQ(Row("ab", GetParam()).raw(), 2u);
    EXPECT_EQ(Row("aab", GetParam()).raw(), 3u);
    EXPECT_EQ(Row("abb", GetParam()).raw(), 3u);
    EXPECT_EQ(Row("aaab", GetParam()).raw(), 0u);
    EXPECT_EQ(Row("abbb", GetParam()).raw(), 1u);
    EXPECT_EQ(Row("aabbb", GetParam()).raw(), 2u);
    EXPECT_EQ(Row("ababab", GetParam()).raw(), 6u);
    EXPECT_EQ(Row("aabbaabbb", GetParam()).raw(), 6u);
    EXPECT_EQ(Row("aabbaabbbc", GetParam()).raw(), 6u);
}

TEST_P(PixelRuns, CountsAgreeWithThePlainDefinition)
{
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string letters(random() % 40, 'a');
        for (char& letter : letters)
            letter = char('a' + random() % 2);
        const Row row(letters, GetParam());

        std::size_t run = 0;
        while (run < letters.size() && letters[run] == letters[0])
            ++run;
        const std::size_t triple = std::min(letters.find("aaa"), letters.find("bbb"));
        ASSERT_EQ(row.run(), run) << letters;
        ASSERT_EQ(row.raw(), std::min(triple, letters.size())) << letters;
    }
}

TEST(PixelRunsOfColor, EveryByteOfAPixelCounts)
{
    for (const std::size_t pixelBytes : { 2u, 3u, 4u, 6u })
        for (std::size_t changed = 0; changed < 3 * pixelBytes; ++changed) {
            std::vector<std::uint8_t> bytes(4 * pixelBytes, 7);
            bytes[changed] = 8;
            EXPECT_EQ(runLength(bytes.data(), pixelBytes, 4), std::max<std::size_t>(changed / pixelBytes, 1));
            EXPECT_EQ(rawLength(bytes.data(), pixelBytes, 4), changed < pixelBytes ? 1u : 4u) << changed;
        }
}

} // namespace
