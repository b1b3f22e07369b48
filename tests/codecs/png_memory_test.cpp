#include "rastkit/codecs/png_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/png_bytes.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

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
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
    int freeCalls = 0;
};

PngBytes picture(int bitDepth, int interlace)
{
    PngBytes file { .width = 9, .height = 9, .bitDepth = bitDepth, .colorType = PngBytes::rgb };
    file.interlace = interlace;
    for (unsigned int i = 0; i < 9 * 9 * 3; ++i)
        file.samples.push_back(i);
    return file;
}

TEST(PngMemory, RefusedMemoryIsAMemoryErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.png";
    for (const int bitDepth : { 8, 16 })
        for (const int interlace : { 0, 1 }) {
            const Bytes bytes = picture(bitDepth, interlace).bytes();
            writeFile(name, bytes);
            CountingSink sink;
            const auto check = [](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_NONE);
                else // libpng's own struct cannot be made; and what it can do without it does without.
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN, IMGERR_LIBRARY, IMGERR_NONE))
                        << position;
            };
            const int refusals
                = refuseEachInTurn([&] { return LoadPNGFile(name.c_str(), sink, nullptr); }, check);
            EXPECT_GE(refusals, canRefuseMalloc() ? 8 : 2);
            const int arrayRefusals = refuseEachInTurn(
                [&] { return LoadPNGArray(bytes.data(), bytes.size(), sink, nullptr); }, check);
            EXPECT_GE(arrayRefusals, canRefuseMalloc() ? 6 : 1);
            IMGINFO info {};
            refuseEachInTurn([&] { return LoadPNGHeader(name.c_str(), &info); }, check);
            EXPECT_EQ(sink.freeCalls, 0);
        }
}

TEST(PngMemory, RefusedMemoryWhileDecodingIsNotTakenForDamage)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "libpng's memory cannot be refused here";
    const TempDir folder;
    const std::string name = folder / "image.png";
    PngBytes file { .width = 100000, .height = 1, .colorType = PngBytes::rgb };
    file.samples.assign(300000, 7);
    for (const int interlace : { 0, 1 }) {
        file.interlace = interlace;
        writeFile(name, file.bytes());
        CountingSink sink;
        int code = 0;
        {
            const RefuseMemory refuse({ .minBytes = 200000 }); // Rows.
            code = codeOf(LoadPNGFile(name.c_str(), sink, nullptr));
        }
        EXPECT_EQ(code, IMGERR_MEMORY);
        EXPECT_EQ(sink.pixels, 0u);
    }
}

TEST(PngMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.png";
    for (const int colorType : { PngBytes::grey, PngBytes::palette, PngBytes::rgba })
        for (const int interlace : { 0, 1 })
            for (const auto& [width, height] :
                { std::pair(INT_MAX, 1), { 1000000, INT_MAX }, { INT_MAX, INT_MAX } }) {
                PngBytes file { .colorType = colorType };
                file.interlace = interlace;
                file.entries = { 1, 2, 3 };
                Bytes header = file.header(), size;
                PngBytes::addNumber(size, std::uint32_t(width));
                PngBytes::addNumber(size, std::uint32_t(height));
                std::copy(size.begin(), size.end(), header.begin());
                writeFile(name,
                    PngBytes::joined({ PngBytes::signature(), PngBytes::chunk("IHDR", header),
                        PngBytes::chunk("PLTE", file.entries), file.imageChunks(),
                        PngBytes::chunk("IEND", {}) }));

                CountingSink sink;
                IMGINFO info {};
                std::size_t requests = 0;
                int code = 0;
                {
                    const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                    code = codeOf(LoadPNGFile(name.c_str(), sink, nullptr));
                    static_cast<void>(LoadPNGHeader(name.c_str(), &info));
                    static_cast<void>(
                        QUtils::loadPngHeader(name.c_str(), &info, QUtils::Conventions::Standard));
                    requests = watch.requests();
                }
                EXPECT_EQ(requests, 0u) << width << ' ' << height;
                EXPECT_EQ(code, IMGERR_READ);
                EXPECT_EQ(sink.pixels, 0u);
            }
}

TEST(PngMemory, TextsThatInflateToMuchAreLeftAlone)
{
    const TempDir folder;
    const std::string name = folder / "image.png";
    const PngBytes file = picture(8, 0);
    Bytes text { 'k', 'e', 'y', 0, 0 };
    PngBytes::append(text, PngBytes::deflated(Bytes(6 << 20, 0)));
    writeFile(name,
        PngBytes::joined({ file.beginning(), PngBytes::chunk("zTXt", text), PngBytes::chunk("iCCP", text),
            file.imageChunks(), PngBytes::chunk("zTXt", text), PngBytes::chunk("IEND", {}) }));
    CountingSink sink;
    std::size_t requests = 0;
    int code = 0;
    {
        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
        code = codeOf(LoadPNGFile(name.c_str(), sink, nullptr));
        requests = watch.requests();
    }
    EXPECT_EQ(code, IMGERR_NONE);
    EXPECT_EQ(requests, 0u);
}

TEST(PngMemory, RefusedMemoryOfTheWriterIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "out.png";
    FrameDouble frame(40, 3);
    frame.queries.reserve(100);
    const int refusals = refuseEachInTurn(
        [&] {
            frame.queries.clear();
            return SavePNGFile_pb(name.c_str(), frame, 0, -1, 0);
        },
        [](const ImgError& error, int position) {
            if (position < 0)
                EXPECT_EQ(error.code(), IMGERR_NONE);
            else
                EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN, IMGERR_LIBRARY, IMGERR_NONE))
                    << position;
        });
    EXPECT_GE(refusals, canRefuseMalloc() ? 8 : 2);
}

TEST(PngMemory, RefusedRowMemoryAsksForNoRow)
{
    const TempDir folder;
    const std::string name = folder / "out.png";
    FrameDouble wide(100000, 2);
    int code = 0;
    {
        // Neither the block of the file nor zlib's tables are of that size.
        const RefuseMemory refuse({ .minBytes = 290 << 10 });
        code = codeOf(SavePNGFile_pb(name.c_str(), wide, 0, -1, 0));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_TRUE(wide.queries.empty());
}

} // namespace
