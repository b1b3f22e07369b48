#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/jpeg_bytes.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

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

/// Checks a result of `refuseEachInTurn`. libjpeg asks for less when its first wish is refused.
void expectRefusal(const ImgError& error, int position)
{
    if (position < 0)
        EXPECT_EQ(error.code(), IMGERR_NONE);
    else
        EXPECT_THAT(error.code(), AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_OPEN)) << position;
}

/// With nothing granted, nothing can succeed.
template <typename Run> void expectMemoryError(Run run)
{
    int code = 0;
    {
        // The stream of the file is granted.
        const RefuseMemory refuse({ .granted = canRefuseMalloc() ? 1u : 0u });
        code = run().code();
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
}

std::vector<JpegBytes> kinds()
{
    std::vector<JpegBytes> all { makeJpeg(JCS_RGB, 40, 30), makeJpeg(JCS_GRAYSCALE, 40, 30),
        makeJpeg(JCS_CMYK, 40, 30), makeJpeg(JCS_RGB, 40, 30) };
    all.back().isProgressive = true;
    return all;
}

TEST(JpegMemory, RefusedMemoryOfAReaderIsAMemoryError)
{
    const TempDir folder;
    const std::string name = folder / "image.jpg";
    for (const JpegBytes& kind : kinds())
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            const Bytes bytes = kind.bytes();
            writeFile(name, bytes);
            CountingSink sink;
            const int ofFile = refuseEachInTurn(
                [&] { return QUtils::loadJpeg(name.c_str(), sink, nullptr, conventions); }, expectRefusal);
            const int ofMemory = refuseEachInTurn(
                [&] { return QUtils::loadJpegArray(bytes.data(), bytes.size(), sink, nullptr, conventions); },
                expectRefusal);
            IMGINFO info {};
            refuseEachInTurn(
                [&] { return QUtils::loadJpegHeader(name.c_str(), &info, conventions); }, expectRefusal);
            expectMemoryError([&] { return QUtils::loadJpeg(name.c_str(), sink, nullptr, conventions); });
            expectMemoryError([&] { return QUtils::loadJpegHeader(name.c_str(), &info, conventions); });
            EXPECT_GT(ofFile, ofMemory);
            EXPECT_GE(ofMemory, canRefuseMalloc() ? 4 : 1);
            EXPECT_EQ(sink.freeCalls, 0);
        }
}

TEST(JpegMemory, RefusedMemoryOfAWriterIsAMemoryError)
{
    const TempDir folder;
    const std::string name = folder / "image.jpg";
    std::vector<unsigned int> pixels(1200, 0xFF112233u);
    IMGINFO info {};
    info.width = 40;
    info.height = 30;
    const int ofArray
        = refuseEachInTurn([&] { return SaveJPGFile(name.c_str(), &info, pixels.data()); }, expectRefusal);
    EXPECT_GE(ofArray, canRefuseMalloc() ? 5 : 1);

    FrameDouble frame(40, 30);
    frame.queries.reserve(1 << 16);
    const int ofFrame
        = refuseEachInTurn([&] { return SaveJPGFile_pb(name.c_str(), frame, 0, -1, 0); }, expectRefusal);
    EXPECT_EQ(ofFrame, ofArray + 1); // The row.
    expectMemoryError([&] { return SaveJPGFile(name.c_str(), &info, pixels.data()); });
    expectMemoryError([&] { return SaveJPGFile_pb(name.c_str(), frame, 0, -1, 0); });
}

TEST(JpegMemory, PictureThatATinyFileCannotFillTakesLittleMemory)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "libjpeg's memory cannot be watched here";
    JpegBytes file = makeJpeg(JCS_RGB, 16, 16);
    file.isProgressive = true;
    Bytes bytes = file.bytes();
    const Bytes header { 0xFF, 0xC2, 0, 17, 8, 0, 16, 0, 16 };
    const auto at = std::search(bytes.begin(), bytes.end(), header.begin(), header.end());
    ASSERT_NE(at, bytes.end());
    for (const int size : { 20000, 65500 }) {
        at[5] = at[7] = std::uint8_t(size >> 8);
        at[6] = at[8] = std::uint8_t(size);
        CountingSink sink;
        std::size_t requests = 0;
        int code = 0;
        {
            const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 4 << 20 });
            code = codeOf(LoadJPGArray(bytes.data(), bytes.size(), sink, nullptr));
            requests = watch.requests();
        }
        EXPECT_EQ(code, IMGERR_FORMAT) << size;
        EXPECT_EQ(requests, 0u) << size;
        EXPECT_EQ(sink.pixels, 0u);
    }
}

} // namespace
