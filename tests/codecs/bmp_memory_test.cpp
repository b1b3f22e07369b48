#include "rastkit/codecs/bmp_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/bmp_bytes.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;

/// A sink that takes no memory of its own, and pictures of up to so many pixels.
class CountingSink : public ImgBuffer {
public:
    void init(int width, int height) override
    {
        m_isValid = std::max<std::int64_t>(width, 0) * std::max<std::int64_t>(height, 0) <= mostPixels;
    }
    int isValid() override { return m_isValid; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int, int, const float*) override { }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::int64_t mostPixels = INT64_MAX;
    std::size_t pixels = 0;
    int freeCalls = 0;

private:
    int m_isValid = 1;
};

/// The last pixel is missing.
BmpBytes picture(int bits, unsigned int compression)
{
    BmpBytes file { .width = 2, .height = 2, .bits = bits, .compression = compression };
    file.palette = Bytes(bits == 8 ? 1024 : 0);
    file.pixels = compression != 0 ? Bytes { 2, 1, 0, 0, 1, 2 } : Bytes(bits == 8 ? 5 : 11);
    return file;
}

TEST(BmpMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.bmp";
    for (const auto& [bits, compression] : { std::pair(24, 0u), { 8, 0u }, { 8, 1u } })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            writeFile(name, picture(bits, compression).bytes());
            const bool isUnsupported = compression != 0 && conventions == Conventions::Renderer;
            CountingSink sink;
            const int refusals = refuseEachInTurn(
                [&] { return QUtils::loadBmp(name.c_str(), sink, nullptr, conventions); },
                [&](const ImgError& error, int position) {
                    if (position < 0)
                        EXPECT_EQ(error.code(), isUnsupported ? IMGERR_UNSUPPORTED : IMGERR_READ);
                    else
                        EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN, IMGERR_READ)) << position;
                });
            EXPECT_GE(refusals, isUnsupported ? 0 : 2); // The block, a row.
            EXPECT_EQ(sink.freeCalls, 0);
        }
    unsigned int pixels[4];
    const int refusals = refuseEachInTurn([&] { return LoadBMPFile(name.c_str(), pixels, nullptr); },
        [](const ImgError& error, int position) {
            if (position >= 0) {
                EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN, IMGERR_READ)) << position;
            }
        });
    EXPECT_GE(refusals, 1);
}

TEST(BmpMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.bmp";
    for (const int bits : { 1, 4, 8, 16, 24, 32 })
        for (const unsigned int compression : { 0u, 1u, 2u, 3u })
            for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
                for (const int width : { 1 << 15, INT_MAX }) {
                    BmpBytes file { .width = width, .height = 4, .bits = bits, .compression = compression };
                    file.moreHeader = Bytes(compression == 3 ? 12 : 0, 0xF0);
                    file.palette = Bytes(bits <= 8 ? 1024 : 0);
                    file.pixels = Bytes(100, 1);
                    writeFile(name, file.bytes());
                    CountingSink sink;
                    sink.mostPixels = 1 << 20;
                    std::size_t requests = 0;
                    int code = 0;
                    {
                        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                        code = codeOf(QUtils::loadBmp(name.c_str(), sink, nullptr, conventions));
                        requests = watch.requests();
                    }
                    EXPECT_EQ(requests, 0u) << bits << ' ' << width;
                    EXPECT_NE(code, IMGERR_NONE);
                }
}

TEST(BmpMemory, RunsOfAnAbsurdWidthTakeNoMoreThanAPiece)
{
    const TempDir folder;
    const std::string name = folder / "image.bmp";
    BmpBytes file { .width = 100 << 20, .height = 1, .bits = 8, .compression = 1 };
    file.palette = Bytes(1024);
    file.pixels = { 255, 1, 0, 1 };
    writeFile(name, file.bytes());
    CountingSink sink;
    std::size_t requests = 0;
    int code = 0;
    {
        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = (256 << 10) + 1 });
        code = codeOf(QUtils::loadBmp(name.c_str(), sink, nullptr, Conventions::Standard));
        requests = watch.requests();
    }
    EXPECT_EQ(code, IMGERR_NONE);
    EXPECT_EQ(requests, 0u);
    EXPECT_EQ(sink.pixels, std::size_t(file.width));
}

TEST(BmpMemory, RefusedRowMemoryLeavesAnEmptyFile)
{
    const TempDir folder;
    const std::string name = folder / "out.bmp";
    FrameDouble frame(1000, 2);
    int code = 0, arrayCode = 0;
    unsigned int pixel = 0;
    IMGINFO info {};
    info.width = info.height = 1;
    {
        const RefuseMemory refuse({ .minBytes = 3000 }); // The stream is smaller.
        code = codeOf(SaveBMPFile_pb(name.c_str(), frame, 0, -1, 0));
        arrayCode = codeOf(SaveBMPFile(name.c_str(), &info, &pixel));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_EQ(arrayCode, IMGERR_MEMORY);
    EXPECT_TRUE(readFile(name).empty());
    EXPECT_TRUE(frame.queries.empty());
}

} // namespace
