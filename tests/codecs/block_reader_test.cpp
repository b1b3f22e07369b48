#include "rastkit/codecs/block_reader.h"

#include "qutils/core/file_ptr.h"
#include "support/stream_test.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <numeric>
#include <thread>
#include <unistd.h>

namespace {

using namespace testing_support;
using QUtils::BlockReader;

constexpr std::size_t blockBytes = 256 << 10;

/// Bytes that tell where they stand.
Bytes pattern(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = std::uint8_t(i ^ i >> 8 ^ i >> 16);
    return bytes;
}

class BlockRead : public StreamTest { };

/// Everything that is left, taken in runs of `run` bytes.
Bytes takeAll(BlockReader& in, std::size_t run)
{
    Bytes all;
    for (std::size_t got = run; got == run;) {
        const std::uint8_t* const bytes = in.take(run, got);
        all.insert(all.end(), bytes, bytes + got);
    }
    return all;
}

TEST_F(BlockRead, RunsOfAnyLengthJoinToTheFile)
{
    const Bytes file = pattern(2 * blockBytes + 12345);
    for (const std::size_t run :
        { std::size_t(1), std::size_t(7), std::size_t(11520), blockBytes - 1, blockBytes, blockBytes + 1,
            std::size_t(300000), file.size(), file.size() + 1, file.size() * 3 }) {
        BlockReader in(over(file));
        ASSERT_TRUE(in.isValid());
        EXPECT_EQ(takeAll(in, run), file) << run;
    }
}

TEST_F(BlockRead, GoesOnWhereTheStreamStands)
{
    const Bytes file = pattern(1000);
    std::FILE* const stream = over(file);
    std::fseek(stream, 600, SEEK_SET);
    BlockReader in(stream);
    EXPECT_EQ(takeAll(in, 33), Bytes(file.begin() + 600, file.end()));
}

TEST_F(BlockRead, PositionPastTheEndHasNothing)
{
    std::FILE* const stream = over(pattern(10));
    std::fseek(stream, 1000, SEEK_SET);
    BlockReader in(stream);
    EXPECT_EQ(in.ready(1), 0u);
    EXPECT_TRUE(in.isValid());
}

TEST_F(BlockRead, EmptyFileHasNothing)
{
    BlockReader in(over({}));
    std::size_t got = 1;
    in.take(5, got);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(in.ready(blockBytes * 2), 0u);
    EXPECT_TRUE(in.isValid());
}

TEST_F(BlockRead, WhatIsReadyStaysUntilItIsSkipped)
{
    const Bytes file = pattern(2 * blockBytes);
    BlockReader in(over(file));
    ASSERT_GE(in.ready(100), 100u);
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 100, in.data()));
    in.skip(40);
    const std::size_t ready = in.ready(blockBytes + 1000);
    ASSERT_GE(ready, blockBytes + 1000);
    EXPECT_TRUE(std::equal(in.data(), in.data() + ready, file.begin() + 40));
    in.skip(ready);
    EXPECT_EQ(takeAll(in, 4096).size(), file.size() - 40 - ready);
}

TEST_F(BlockRead, FileCutWhileItIsReadEndsThere)
{
    const Bytes file = pattern(4 * blockBytes);
    TempDir folder;
    writeFile(folder / "in", file);
    const FilePtr stream(std::fopen((folder / "in").c_str(), "rb"));
    BlockReader in(stream);
    std::size_t got = 0;
    in.take(blockBytes, got);
    ASSERT_EQ(truncate((folder / "in").c_str(), blockBytes + 5000), 0);
    EXPECT_EQ(takeAll(in, 3 * blockBytes).size(), 5000u);
}

/// A pipe says neither its length nor its end before it comes.
TEST(BlockReadPipe, EverythingArrives)
{
    const Bytes bytes = pattern(3 * blockBytes + 17);
    for (const std::size_t run : { std::size_t(1000), blockBytes * 2 + 5, bytes.size() * 10 }) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        std::thread writer([&] {
            for (std::size_t sent = 0; sent < bytes.size();) {
                const ssize_t count = write(ends[1], bytes.data() + sent, bytes.size() - sent);
                ASSERT_GT(count, 0);
                sent += std::size_t(count);
            }
            close(ends[1]);
        });
        const FilePtr stream(fdopen(ends[0], "rb"));
        BlockReader in(stream);
        EXPECT_EQ(takeAll(in, run), bytes) << run;
        writer.join();
    }
}

} // namespace
