#include "rastkit/codecs/binary_io.h"

#include "rastkit/codecs/byte_order.h"
#include "rastkit/types.h"
#include "support/stream_test.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <bit>

namespace {

using namespace testing_support;

class BinaryRead : public StreamTest { };

TEST_F(BinaryRead, BytesComeWithoutASign)
{
    std::FILE* const in = over({ 0x80, 0xFF, 0x00, 0x7F });
    EXPECT_EQ(read_char(in), 128);
    EXPECT_EQ(read_uchar(in), 255);
    EXPECT_EQ(read_char(in), 0);
    EXPECT_EQ(read_uchar(in), 127);
}

TEST_F(BinaryRead, EndOfFileIsEofForBytes)
{
    std::FILE* const in = over({});
    EXPECT_EQ(read_char(in), EOF);
    EXPECT_EQ(read_uchar(in), EOF);
}

TEST_F(BinaryRead, TwoBytesAreBigEndianWithoutASign)
{
    std::FILE* const in = over({ 0x12, 0x34, 0xFF, 0xFF, 0xFF, 0xFE });
    EXPECT_EQ(read_short(in), 0x1234);
    EXPECT_EQ(read_short(in), 65535);
    EXPECT_EQ(read_ushort(in), 65534);
}

TEST_F(BinaryRead, FourBytesAreBigEndianWithoutASign)
{
    std::FILE* const in = over({ 0x80, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4 });
    EXPECT_EQ(read_long(in), 2147483648L);
    EXPECT_EQ(read_long(in), 4294967295L);
    EXPECT_EQ(read_ulong(in), 0x01020304L);
}

TEST_F(BinaryRead, BytesPastTheEndAreZeroAndShowOnTheStream)
{
    std::FILE* const in = over({ 0x12 });
    EXPECT_EQ(read_short(in), 0x1200);
    EXPECT_TRUE(std::feof(in));
    EXPECT_EQ(read_long(in), 0);
}

/// A stream into a file, and what arrived there.
class BinaryWrite : public testing::Test {
protected:
    std::FILE* out() { return m_file; }
    Bytes written()
    {
        m_file.close();
        return readFile(m_folder / "out");
    }

private:
    TempDir m_folder;
    FilePtr m_file { std::fopen((m_folder / "out").c_str(), "wb") };
};

TEST_F(BinaryWrite, BytesGoOutAsTheyAre)
{
    EXPECT_EQ(write_char(out(), char(-2)), 0xFE);
    EXPECT_EQ(write_uchar(out(), 0x80), 0x80);
    EXPECT_EQ(written(), (Bytes { 0xFE, 0x80 }));
}

TEST_F(BinaryWrite, TwoBytesGoOutHighByteFirst)
{
    EXPECT_EQ(write_short(out(), -1), 1);
    EXPECT_EQ(write_short(out(), 0x1234), 1);
    EXPECT_EQ(write_ushort(out(), 0xABCD), 1);
    EXPECT_EQ(written(), (Bytes { 0xFF, 0xFF, 0x12, 0x34, 0xAB, 0xCD }));
}

TEST_F(BinaryWrite, FourBytesAreTheLowOnesHighByteFirst)
{
    EXPECT_EQ(write_long(out(), 0x1122334455667788L), 1);
    EXPECT_EQ(write_long(out(), -2), 1);
    EXPECT_EQ(write_ulong(out(), 0x99AABBCCDDEEFF00UL), 1);
    EXPECT_EQ(written(), (Bytes { 0x55, 0x66, 0x77, 0x88, 0xFF, 0xFF, 0xFF, 0xFE, 0xDD, 0xEE, 0xFF, 0x00 }));
}

TEST_F(BinaryWrite, FloatsGoOutSignFirst)
{
    QUtils::fwrite_float(out(), 1.0f);
    QUtils::fwrite_float(out(), -2.5f);
    EXPECT_EQ(written(), (Bytes { 0x3F, 0x80, 0x00, 0x00, 0xC0, 0x20, 0x00, 0x00 }));
}

/// A stream whose device takes nothing.
FilePtr fullDevice()
{
    FilePtr file(std::fopen("/dev/full", "wb"));
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

TEST(BinaryWriteFailure, ShowsInTheResult)
{
    const FilePtr full = fullDevice();
    ASSERT_TRUE(full);
    EXPECT_EQ(write_char(full, 1), EOF);
    EXPECT_EQ(write_uchar(full, 1), EOF);
    EXPECT_EQ(write_short(full, 1), 0);
    EXPECT_EQ(write_ushort(full, 1), 0);
    EXPECT_EQ(write_long(full, 1), 0);
    EXPECT_EQ(write_ulong(full, 1), 0);
}

TEST(BinaryWriteFailure, OfAFloatIsThrown)
{
    const FilePtr full = fullDevice();
    ASSERT_TRUE(full);
    ImgErrorCode thrown = IMGERR_NONE;
    try {
        QUtils::fwrite_float(full, 1.0f);
    } catch (const ImgErrorCode code) {
        thrown = code;
    }
    EXPECT_EQ(thrown, IMGERR_WRITE);
}

TEST(ByteOrder, IsOneOnALittleEndianHost)
{
    EXPECT_EQ(QUtils::detect_endianines() == 1, std::endian::native == std::endian::little);
    EXPECT_EQ(QUtils::detect_endianines(), QUtils::detect_endianines());
    EXPECT_NE(QUtils::detect_endianines(), 0);
}

} // namespace
