#include "qutils/formats/pbuf_stream.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

using QUtils::PBufStream;

/// What a read of `count` bytes stores; room for more than that is left as it was.
std::string readFrom(PBufStream& stream, int count)
{
    char dest[8] = { '-', '-', '-', '-', '-', '-', '-', '-' };
    int got = -1;
    stream.read(dest, count, got);
    EXPECT_GE(got, 0);
    for (int i = got; i < 8; ++i)
        EXPECT_EQ(dest[i], '-');
    return std::string(dest, std::size_t(got));
}

class PBufStreamTest : public testing::Test {
protected:
    char m_bytes[6] = { 'a', 'b', 'c', 'd', 'e', 'f' };
    PBufStream m_stream;
};

TEST_F(PBufStreamTest, BytesComeInOrderAndEnd)
{
    m_stream.SetBuf(m_bytes, 6);
    EXPECT_EQ(readFrom(m_stream, 2), "ab");
    EXPECT_EQ(readFrom(m_stream, 1), "c");
    EXPECT_EQ(readFrom(m_stream, 3), "def");
    EXPECT_EQ(readFrom(m_stream, 1), "");
}

TEST_F(PBufStreamTest, ReadPastTheEndIsCut)
{
    m_stream.SetBuf(m_bytes, 3);
    EXPECT_EQ(readFrom(m_stream, INT_MAX), "abc");
    EXPECT_EQ(readFrom(m_stream, INT_MAX), "");
}

TEST_F(PBufStreamTest, CountBelowOneReadsNothing)
{
    m_stream.SetBuf(m_bytes, 6);
    EXPECT_EQ(readFrom(m_stream, 0), "");
    EXPECT_EQ(readFrom(m_stream, -1), "");
    EXPECT_EQ(readFrom(m_stream, INT_MIN), "");
    EXPECT_EQ(readFrom(m_stream, 1), "a");
}

TEST_F(PBufStreamTest, EmptyStreamsHaveNothing)
{
    EXPECT_EQ(readFrom(m_stream, 4), "");
    for (const int size : { 0, -1, INT_MIN }) {
        m_stream.SetBuf(m_bytes, size);
        EXPECT_EQ(readFrom(m_stream, 4), "");
    }
    m_stream.SetBuf(nullptr, 6);
    EXPECT_EQ(readFrom(m_stream, 4), "");
}

TEST_F(PBufStreamTest, AnotherBlockStartsAtItsBeginning)
{
    m_stream.SetBuf(m_bytes, 6);
    EXPECT_EQ(readFrom(m_stream, 4), "abcd");
    m_stream.SetBuf(m_bytes, 2);
    EXPECT_EQ(readFrom(m_stream, 4), "ab");
}

/// Hands out one byte at a time.
class SlowStream : public PBufStream {
public:
    void read(void* dest, int count, int& got) override { PBufStream::read(dest, count > 0 ? 1 : 0, got); }
};

TEST_F(PBufStreamTest, DerivedStreamsReadInTheirOwnWay)
{
    SlowStream slow;
    slow.SetBuf(m_bytes, 6);
    PBufStream& stream = slow;
    EXPECT_EQ(readFrom(stream, 4), "a");
    EXPECT_EQ(readFrom(stream, 4), "b");
}

} // namespace
