#include "rastkit/buffers.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/pic_bytes.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int, int, const float*) override { }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
    int freeCalls = 0;
};

TEST(PicMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.pic";
    PicBytes file { .packets = std::vector<std::pair<int, int>>(300, { 0, 0x20 }), .data = Bytes(300, 1) };
    writeFile(name, file.bytes());
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        CountingSink sink;
        const int refusals
            = refuseEachInTurn([&] { return QUtils::loadPic(name.c_str(), sink, nullptr, conventions); },
                [](const ImgError& error, int position) {
                    if (position < 0) {
                        EXPECT_EQ(error.code(), IMGERR_NONE);
                    } else {
                        EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
                    }
                });
        EXPECT_GE(refusals, 6); // Block, packets as they become more, a row.
        EXPECT_EQ(sink.freeCalls, 0);
    }
}

TEST(PicMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.pic";
    for (const int compression : { 0, 1, 2 })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            PicBytes file {
                .packets = { { compression, 0xF0 } }, .width = 0xFFFF, .height = 0xFFFF, .data = Bytes(100, 1)
            };
            writeFile(name, file.bytes());
            CountingSink sink;
            std::size_t requests = 0;
            int code = 0;
            {
                const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                code = codeOf(QUtils::loadPic(name.c_str(), sink, nullptr, conventions));
                requests = watch.requests();
            }
            EXPECT_EQ(requests, 0u);
            EXPECT_EQ(code, IMGERR_READ);
            EXPECT_LE(sink.pixels, 100u);
        }
}

TEST(PicMemory, RefusedRowMemoryLeavesTheHeader)
{
    const TempDir folder;
    const std::string name = folder / "out.pic";
    FrameDouble frame(100000, 2);
    int code = 0;
    {
        const RefuseMemory refuse({ .minBytes = 290000 }); // The block is smaller.
        code = codeOf(SavePICFile_pb(name.c_str(), frame, 0, -1, 0));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_EQ(readFile(name).size(), 112u);
    EXPECT_TRUE(frame.queries.empty());
}

TEST(PicMemory, EveryRefusalOfAWriterIsAMemoryError)
{
    const TempDir folder;
    const std::string name = folder / "out.pic";
    QUtils::FrameBuffer frame(20, 2);
    ASSERT_EQ(frame.addChannel("color", 1, 4, QUtils::FrameSample::Packed8), 0);
    const int refusals = refuseEachInTurn([&] { return SavePICFile_pb(name.c_str(), frame, 0, -1, 0); },
        [](const ImgError& error, int position) {
            if (position < 0) {
                EXPECT_EQ(error.code(), IMGERR_NONE);
            } else {
                EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
            }
        });
    EXPECT_GE(refusals, 3);
    unsigned int row[4] = {};
    int shifts[] = { 0 }, thrown = 0;
    {
        const RefuseMemory refuse;
        try {
            QUtils::write_pic_line_mixed_rle(stdout, row, 4, shifts, 1);
        } catch (const ImgErrorCode code) {
            thrown = code;
        }
    }
    EXPECT_EQ(thrown, IMGERR_MEMORY);
}

} // namespace
