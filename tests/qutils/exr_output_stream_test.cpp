#include "qutils/raw/exr_output_stream.h"

#include "tests/support/temp_file.h"

#include <Iex.h>
#include <gtest/gtest.h>

#include <string>

using namespace testing_support;
using QUtils::ExrOutputStream;

TEST(ExrOutputStream, WritesWhereItIsTold)
{
    const TempDir dir;
    const std::string file = dir / "a.exr";
    ExrOutputStream stream(file.c_str());
    stream.write("one two", 7);
    EXPECT_EQ(stream.tellp(), 7u);
    stream.seekp(4);
    stream.write("six", 3);
    EXPECT_EQ(stream.tellp(), 7u);
    EXPECT_TRUE(stream.close());
    EXPECT_EQ(readFile(file), (Bytes { 'o', 'n', 'e', ' ', 's', 'i', 'x' }));
}

TEST(ExrOutputStream, ThrowsWhenTheFileCannotBeMade)
{
    EXPECT_THROW(ExrOutputStream("no/such/folder/a.exr"), Iex::ErrnoExc);
    EXPECT_THROW(ExrOutputStream(nullptr), Iex::BaseExc);
}

TEST(ExrOutputStream, TellsOfAFullDiskAtTheLatestWhenItIsClosed)
{
    ExrOutputStream small("/dev/full");
    small.write("abc", 3); // Still in the stream's memory.
    EXPECT_FALSE(small.close());

    ExrOutputStream large("/dev/full");
    const std::string block(1 << 20, 'x');
    EXPECT_THROW(large.write(block.data(), int(block.size())), Iex::ErrnoExc);
    EXPECT_FALSE(large.close());
}
