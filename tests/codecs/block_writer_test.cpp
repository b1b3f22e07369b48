#include "rastkit/codecs/block_writer.h"

#include "rastkit/codecs/unbuffered_file.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace testing_support;
using QUtils::BlockWriter;

ImgErrorCode append(BlockWriter& out, const Bytes& bytes)
{
    if (const ImgErrorCode code = out.reserve(bytes.size()))
        return code;
    std::copy(bytes.begin(), bytes.end(), out.next());
    out.advance(bytes.size());
    return IMGERR_NONE;
}

TEST(BlockWrite, PiecesOfAnySizeJoinInTheFile)
{
    for (const std::size_t piece : { 1u, 1000u, (256u << 10) - 1, 256u << 10, (256u << 10) + 1, 700000u }) {
        TempDir folder;
        Bytes expected;
        {
            const FilePtr file = QUtils::openUnbuffered((folder / "out").c_str(), "wb");
            BlockWriter out(file);
            for (int i = 0; i < 5; ++i) {
                const Bytes bytes(piece, std::uint8_t(i + 1));
                expected.insert(expected.end(), bytes.begin(), bytes.end());
                ASSERT_EQ(append(out, bytes), IMGERR_NONE);
            }
            EXPECT_EQ(out.flush(), IMGERR_NONE);
        }
        EXPECT_EQ(readFile(folder / "out"), expected) << piece;
    }
}

TEST(BlockWrite, RoomThatIsNotUsedIsNotWritten)
{
    TempDir folder;
    {
        const FilePtr file = QUtils::openUnbuffered((folder / "out").c_str(), "wb");
        BlockWriter out(file);
        ASSERT_EQ(out.reserve(5000), IMGERR_NONE);
        out.next()[0] = 42;
        out.advance(1);
        ASSERT_EQ(out.reserve(0), IMGERR_NONE);
        EXPECT_EQ(out.flush(), IMGERR_NONE);
        EXPECT_EQ(out.flush(), IMGERR_NONE);
    }
    EXPECT_EQ(readFile(folder / "out"), Bytes { 42 });
}

TEST(BlockWrite, NothingGoesOutBeforeTheBlockIsFull)
{
    TempDir folder;
    const FilePtr file = QUtils::openUnbuffered((folder / "out").c_str(), "wb");
    BlockWriter out(file);
    ASSERT_EQ(append(out, Bytes(200 << 10)), IMGERR_NONE);
    EXPECT_EQ(std::filesystem::file_size(folder / "out"), 0u);
    ASSERT_EQ(append(out, Bytes(100 << 10)), IMGERR_NONE);
    EXPECT_EQ(std::filesystem::file_size(folder / "out"), 200u << 10);
}

TEST(BlockWrite, FullDeviceShowsAtTheFlush)
{
    const FilePtr full = QUtils::openUnbuffered("/dev/full", "wb");
    ASSERT_TRUE(full);
    BlockWriter out(full);
    EXPECT_EQ(append(out, Bytes(10)), IMGERR_NONE);
    EXPECT_EQ(out.flush(), IMGERR_WRITE);
}

TEST(BlockWrite, FullDeviceShowsWhenRoomIsNeeded)
{
    const FilePtr full = QUtils::openUnbuffered("/dev/full", "wb");
    ASSERT_TRUE(full);
    BlockWriter out(full);
    ASSERT_EQ(append(out, Bytes(200 << 10)), IMGERR_NONE);
    EXPECT_EQ(out.reserve(100 << 10), IMGERR_WRITE);
}

TEST(BlockWrite, BytesThatNobodyAsksForAreDropped)
{
    const FilePtr full = QUtils::openUnbuffered("/dev/full", "wb");
    ASSERT_TRUE(full);
    BlockWriter out(full, BlockWriter::Loss::IsIgnored);
    for (int block = 0; block < 4; ++block)
        ASSERT_EQ(append(out, Bytes(200 << 10)), IMGERR_NONE);
    EXPECT_EQ(out.flush(), IMGERR_NONE);
}

} // namespace
