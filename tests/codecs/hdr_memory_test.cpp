#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace testing_support;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { }

    std::size_t pixels = 0;
    int freeCalls = 0;
};

void writeHdr(const std::string& name, const char* resolution)
{
    const std::string text = std::string("#?RGBE\n\n") + resolution + "\n\1\2\3\x88\1\2\3\x88";
    writeFile(name, Bytes(text.begin(), text.end()));
}

TEST(HdrMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.hdr";
    writeHdr(name, "-Y 2 +X 1");
    CountingSink sink;
    const int refusals = refuseEachInTurn([&] { return LoadHDRFile(name.c_str(), sink, nullptr); },
        [](const ImgError& error, int position) {
            if (position < 0)
                EXPECT_EQ(error.code(), IMGERR_NONE);
            else
                EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
        });
    EXPECT_GE(refusals, 3); // The block, the bytes of a scanline, a row.
    EXPECT_EQ(sink.freeCalls, 0);
}

TEST(HdrMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.hdr";
    for (const char* const resolution :
        { "-Y 2147483647 +X 2147483647", "-Y 1 +X 40000000", "-Y 2147483647 +X 32767" }) {
        writeHdr(name, resolution);
        CountingSink sink;
        std::size_t requests = 0;
        int code = 0;
        {
            const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
            code = codeOf(LoadHDRFile(name.c_str(), sink, nullptr));
            requests = watch.requests();
        }
        EXPECT_EQ(code, IMGERR_READ);
        EXPECT_EQ(requests, 0u) << resolution;
        EXPECT_EQ(sink.pixels, 0u);
    }
}

TEST(HdrMemory, RefusedRowMemoryLeavesTheHeader)
{
    const TempDir folder;
    const std::string name = folder / "out.hdr";
    FrameDouble frame(1000, 2);
    int code = 0;
    {
        const RefuseMemory refuse({ .minBytes = 9000 });
        code = codeOf(SaveHDRFile_pb(name.c_str(), frame, 0, -1, 0));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_EQ(readFile(name).front(), '#');
}

} // namespace
