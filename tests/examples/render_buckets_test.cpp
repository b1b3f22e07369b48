#include "qutils/raw/ri_reader.h"
#include "support/run_program.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

using namespace testing_support;

constexpr int width = 96, height = 70, bucket = 16;

Program::Arguments argumentsFor(const std::string& file)
{
    return { file, "--width", std::to_string(width), "--height", std::to_string(height), "--bucket",
        std::to_string(bucket) };
}

/// All samples of all channels, as they are stored.
Bytes pixelsOf(const std::string& file)
{
    QUtils::RIReader reader;
    EXPECT_EQ(reader.Open(file.c_str()).code(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 0);
    Bytes all;
    for (int i = 0; i < reader.getNumChannels(); ++i) {
        const QUtils::RIChannelInfo& channel = reader.getChannel(i);
        const std::size_t rowBytes = std::size_t(width) * std::size_t(channel.numComponents)
            * (channel.sampleType == QUtils::RISAMPLE_HALF ? 2 : 4);
        Bytes samples(rowBytes * height);
        EXPECT_EQ(reader.readPixels(i, { 0, 0, width, height }, samples.data(), rowBytes).code(), 0);
        all.insert(all.end(), samples.begin(), samples.end());
    }
    return all;
}

int countDone(const std::string& file)
{
    QUtils::RIReader reader;
    return reader.Open(file.c_str()).code() == 0 ? reader.getNumRegions() - reader.countMissingRegions() : 0;
}

class RenderBuckets : public testing::Test {
protected:
    RenderBuckets()
    {
        const ProgramResult result = Program(RENDER_BUCKETS_PROGRAM, argumentsFor(whole)).wait();
        EXPECT_EQ(result.exitCode, 0) << result.err;
    }

    TempDir dir;
    const std::string whole = dir / "whole.quimg";
};

} // namespace

TEST_F(RenderBuckets, AFrameThatWasStoppedIsCompletedToTheSamePixels)
{
    const std::string file = dir / "a.quimg";
    Program::Arguments stopped = argumentsFor(file);
    stopped.insert(stopped.end(), { "--stop-after", "7" });
    ASSERT_EQ(Program(RENDER_BUCKETS_PROGRAM, stopped).wait().exitCode, 0);
    EXPECT_EQ(countDone(file), 7);
    ASSERT_EQ(Program(RENDER_BUCKETS_PROGRAM, argumentsFor(file)).wait().exitCode, 0);
    EXPECT_EQ(pixelsOf(file), pixelsOf(whole));
}

TEST_F(RenderBuckets, AFrameThatWasKilledIsCompletedToTheSamePixels)
{
    const std::string file = dir / "a.quimg";
    for (int kills = 0; kills < 5; ++kills) {
        const int before = countDone(file);
        Program program(RENDER_BUCKETS_PROGRAM, argumentsFor(file));
        while (program.isRunning() && countDone(file) <= before)
            std::this_thread::yield();
        program.sendSignal(SIGKILL);
        program.wait();
        EXPECT_GT(countDone(file), before) << "after " << kills << " kills";
        if (countDone(file) == 30)
            break;
    }
    ASSERT_EQ(Program(RENDER_BUCKETS_PROGRAM, argumentsFor(file)).wait().exitCode, 0);
    EXPECT_EQ(pixelsOf(file), pixelsOf(whole));
}

TEST_F(RenderBuckets, AFileOfAnotherFrameOrFormatIsLeftAlone)
{
    const Bytes before = readFile(whole);
    const ProgramResult other = Program(RENDER_BUCKETS_PROGRAM, { whole, "--width", "50" }).wait();
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_NE(other.err.find("holds another frame"), std::string::npos) << other.err;
    EXPECT_EQ(readFile(whole), before);

    for (const std::string& name : { dir / "a.png", dir / "a.quimg" }) {
        writeFile(name, Bytes(10, 1));
        EXPECT_EQ(Program(RENDER_BUCKETS_PROGRAM, { name }).wait().exitCode, 1);
        EXPECT_EQ(readFile(name), Bytes(10, 1));
    }
}

TEST_F(RenderBuckets, AFileThatIsBeingWrittenIsLeftAlone)
{
    const std::string file = dir / "a.quimg";
    Program first(RENDER_BUCKETS_PROGRAM, argumentsFor(file));
    while (first.isRunning() && countDone(file) == 0)
        std::this_thread::yield();
    const ProgramResult second = Program(RENDER_BUCKETS_PROGRAM, argumentsFor(file)).wait();
    const bool hadEnded = !first.isRunning();
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_TRUE(hadEnded || second.exitCode == 1) << second.out;
    EXPECT_EQ(pixelsOf(file), pixelsOf(whole));
}
