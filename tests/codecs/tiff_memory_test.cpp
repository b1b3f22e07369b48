#include "rastkit/codecs/tiff.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/load.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"
#include "support/tiff_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { ++initCalls; }
    int isValid() override { return 1; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
    int initCalls = 0, freeCalls = 0;
};

std::vector<TiffBytes> oneForEachWay()
{
    std::vector<TiffBytes> files;
    files.push_back({ .width = 3, .height = 2, .chunks = { Bytes(6, 1) } });
    files.push_back({ .width = 3,
        .height = 2,
        .bits = 4,
        .photometric = 3,
        .orientation = 6,
        .tileWidth = 16,
        .tileLength = 16,
        .colorMap = std::vector<std::uint64_t>(48, 500),
        .chunks = { Bytes(128) } });
    files.push_back(
        { .samples = 3, .photometric = 2, .planar = 2, .chunks = { Bytes(1), Bytes(1), Bytes(1) } });
    files.push_back(
        { .width = 2, .samples = 4, .photometric = 5, .orientation = 7, .chunks = { Bytes(8, 3) } });
    return files;
}

TEST(TiffMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    LibTIFF_StopWarnings();
    const TempDir folder;
    const std::string name = folder / "image.tif";
    for (const TiffBytes& file : oneForEachWay())
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            writeFile(name, file.bytes());
            CountingSink sink;
            const int refusals
                = refuseEachInTurn([&] { return QUtils::loadTiff(name.c_str(), sink, nullptr, conventions); },
                    [](const ImgError& error, int position) {
                        // libtiff tells refused memory only as a failure.
                        if (position < 0)
                            EXPECT_EQ(error.code(), IMGERR_NONE);
                        else
                            EXPECT_THAT(error.code(),
                                AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_OPEN, IMGERR_READ, IMGERR_FORMAT,
                                    IMGERR_UNSUPPORTED))
                                << position;
                    });
            EXPECT_GE(refusals, canRefuseMalloc() ? 6 : 1);
        }
}

TEST(TiffMemory, RefusedRowsAndStripsAreMemoryErrors)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "malloc cannot be refused here";
    LibTIFF_StopWarnings();
    const TempDir folder;
    const std::string name = folder / "image.tif";
    writeFile(name, TiffBytes { .width = 40000, .chunks = { Bytes(40000) } }.bytes());
    CountingSink sink;
    int code = 0, headerCode = 0;
    IMGINFO info {};
    {
        const RefuseMemory refuse({ .minBytes = 39999 });
        headerCode = codeOf(LoadTIFHeader(name.c_str(), &info));
        code = codeOf(LoadTIFFile(name.c_str(), sink, nullptr));
    }
    EXPECT_EQ(headerCode, IMGERR_NONE);
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_EQ(sink.freeCalls, 1);
    {
        const RefuseMemory refuse({ .minBytes = 40001 }); // The row of floats.
        code = codeOf(LoadTIFFile(name.c_str(), sink, nullptr));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
    EXPECT_EQ(sink.pixels, 0u);
}

TEST(TiffMemory, RefusedPaletteIsAMemoryError)
{
    LibTIFF_StopWarnings();
    const TempDir folder;
    const std::string name = folder / "image.tif";
    TiffBytes file {
        .bits = 8, .photometric = 3, .colorMap = std::vector<std::uint64_t>(768, 9), .chunks = { { 1 } }
    };
    writeFile(name, file.bytes());
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        int memoryErrors = 0;
        for (std::size_t granted = 0; granted < 4; ++granted) { // The file's own block may come first.
            CountingSink sink;
            int code = 0;
            {
                constexpr std::size_t paletteBytes = 300 * sizeof(Color);
                const RefuseMemory refuse({ .granted = granted, .minBytes = paletteBytes });
                code = codeOf(QUtils::loadTiff(name.c_str(), sink, nullptr, conventions));
            }
            memoryErrors += code == IMGERR_MEMORY && sink.initCalls == 0;
        }
        EXPECT_GE(memoryErrors, 1);
    }
    QUtils::Table<Color, 100> palette;
    int answer = 0;
    {
        const RefuseMemory refuse;
        answer = setupTIFPalette(nullptr, 1, 8, 1, palette);
    }
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(palette.count(), 0);
}

TEST(TiffMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    LibTIFF_StopWarnings();
    const TempDir folder;
    const std::string name = folder / "image.tif";
    for (const std::int64_t size : { std::int64_t(50000), std::int64_t(2000000), std::int64_t(INT32_MAX) })
        for (const bool tiled : { false, true })
            for (const int photometric : { 1, 2, 5, 6 })
                for (const int compression : { 1, 5, 8, 32773 })
                    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
                        TiffBytes file { .width = size,
                            .height = size,
                            .samples = photometric == 1 ? 1 : 4,
                            .photometric = photometric,
                            .compression = compression,
                            .chunks = { Bytes(100) } };
                        if (tiled)
                            file.tileWidth = file.tileLength = 1 << 16;
                        writeFile(name, file.bytes());
                        CountingSink sink;
                        std::size_t requests = 0;
                        int code = 0;
                        {
                            // libtiff has a list of strips, which a file of one strip does not show.
                            const RefuseMemory watch(
                                { .granted = SIZE_MAX, .minBytes = std::size_t(32) << 20 });
                            code = codeOf(QUtils::loadTiff(name.c_str(), sink, nullptr, conventions));
                            requests = watch.requests();
                        }
                        EXPECT_EQ(requests, 0u)
                            << size << ' ' << photometric << ' ' << compression << ' ' << tiled;
                        EXPECT_NE(code, IMGERR_NONE);
                        EXPECT_EQ(sink.pixels, 0u);
                    }
}

} // namespace
