#include "rastkit/buffers.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"
#include "support/sgi_bytes.h"

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
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
    int freeCalls = 0;
};

TEST(SgiMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.sgi";
    for (const int storage : { 0, 1 })
        for (const int bytesPerChannel : { 1, 2 })
            for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
                SgiBytes file {
                    .storage = storage, .bytesPerChannel = bytesPerChannel, .width = 2, .channels = 3
                };
                file.data = Bytes(100, 0x01);
                writeFile(name, file.bytes());
                CountingSink sink;
                const int refusals = refuseEachInTurn(
                    [&] { return QUtils::loadSgi(name.c_str(), sink, nullptr, conventions); },
                    [](const ImgError& error, int position) {
                        if (position >= 0) {
                            EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
                        }
                    });
                EXPECT_GE(
                    refusals, storage == 1 ? 7 : 4); // Windows, a row of the sink's; the table, packets.
                EXPECT_EQ(sink.freeCalls, 0);
            }
}

TEST(SgiMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.sgi";
    for (const int storage : { 0, 1 })
        for (const int bytesPerChannel : { 1, 2 }) {
            SgiBytes file { .storage = storage,
                .bytesPerChannel = bytesPerChannel,
                .width = 0xFFFF,
                .height = 0xFFFF,
                .channels = 0xFFFF,
                .data = Bytes(100, 0xFF) };
            writeFile(name, file.bytes());
            CountingSink sink;
            std::size_t requests = 0;
            int code = 0;
            {
                const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                code = codeOf(QUtils::loadSgi(name.c_str(), sink, nullptr, Conventions::Standard));
                requests = watch.requests();
            }
            EXPECT_EQ(requests, 0u) << storage << bytesPerChannel;
            EXPECT_EQ(code, IMGERR_READ);
            EXPECT_EQ(sink.pixels, 0u);
        }
}

TEST(SgiMemory, TablesThatTheFileCannotFillTakeNone)
{
    const TempDir folder;
    const std::string name = folder / "image.sgi";
    SgiBytes file { .storage = 1, .width = 1, .height = 0xFFFF, .channels = 4, .data = Bytes(100, 0xFF) };
    writeFile(name, file.bytes());
    CountingSink sink;
    std::size_t requests = 0;
    int code = 0;
    {
        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 2000 });
        code = codeOf(LoadSGIFile(name.c_str(), sink, nullptr));
        requests = watch.requests();
    }
    EXPECT_EQ(code, IMGERR_NONE);
    EXPECT_EQ(requests, 0u);
    EXPECT_EQ(sink.pixels, 65535u);
}

TEST(SgiMemory, RefusedRowMemoryLeavesTheHeader)
{
    const TempDir folder;
    const std::string name = folder / "out.sgi";
    for (const bool runLength : { false, true })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            FrameDouble frame(1000, 2);
            int code = 0;
            {
                const RefuseMemory refuse({ .minBytes = 2900 });
                code = codeOf(QUtils::saveSgi(name.c_str(), frame, 0, -1, 0, { 8, runLength }, conventions));
            }
            EXPECT_EQ(code, IMGERR_MEMORY);
            EXPECT_EQ(readFile(name).size(), 512u);
            EXPECT_TRUE(frame.queries.empty());
        }
}

TEST(SgiMemory, EveryRefusalOfAWriterIsAMemoryError)
{
    const TempDir folder;
    const std::string name = folder / "out.sgi";
    QUtils::FrameBuffer frame(20, 2);
    ASSERT_EQ(frame.addChannel("color", 1, 4, QUtils::FrameSample::Packed8), 0);
    for (const bool runLength : { false, true }) {
        const int refusals = refuseEachInTurn(
            [&] {
                return QUtils::saveSgi(
                    name.c_str(), frame, 0, -1, 0, { 8, runLength }, Conventions::Standard);
            },
            [](const ImgError& error, int position) {
                if (position < 0) {
                    EXPECT_EQ(error.code(), IMGERR_NONE);
                } else {
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
                }
            });
        EXPECT_GE(refusals, 2);
    }
}

} // namespace
