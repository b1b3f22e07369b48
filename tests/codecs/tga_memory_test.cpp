#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/tga.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"
#include "support/tga_bytes.h"

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

TgaBytes mappedPicture(int imageType)
{
    TgaBytes file { .colorMapType = 1,
        .imageType = imageType,
        .colorMapLength = 2,
        .colorMapBits = 24,
        .width = 2,
        .height = 2,
        .pixelBits = 8 };
    file.colorMap = { 1, 2, 3, 4, 5, 6 };
    file.pixels
        = imageType == 1 ? Bytes { 0, 1, 1 } : Bytes { 0x81, 0, 0x01, 1 }; // The last pixel is missing.
    return file;
}

TEST(TgaMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    for (const int imageType : { 1, 9 }) {
        writeFile(folder / "image.tga", mappedPicture(imageType).bytes());
        const std::string name = folder / "image.tga";
        CountingSink sink;
        const int refusals = refuseEachInTurn([&] { return LoadTGAFile(name.c_str(), sink, nullptr); },
            [](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_READ);
                else
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN, IMGERR_READ)) << position;
            });
        EXPECT_GE(refusals, 4); // Block, map, a row of the sink's, the pixels before the cut.
        EXPECT_EQ(sink.freeCalls, 0);
    }
}

TEST(TgaMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.tga";
    for (const int imageType : { 1, 2, 3, 9, 10, 11 })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
            for (const int size : { 0x7FFF, 0xFFFF }) {
                TgaBytes file { .imageType = imageType, .width = size, .height = size, .pixelBits = 8 };
                if ((imageType & 7) == 1) {
                    file.colorMapType = 1;
                    file.colorMapLength = 0xFFFF;
                    file.colorMapBits = 32;
                }
                file.pixels = Bytes(100, 0xFF);
                writeFile(name, file.bytes());
                CountingSink sink;
                std::size_t requests = 0;
                int code = 0;
                {
                    const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                    code = codeOf(QUtils::loadTga(name.c_str(), sink, nullptr, conventions));
                    requests = watch.requests();
                }
                EXPECT_EQ(requests, 0u) << imageType << ' ' << size;
                EXPECT_THAT(code, AnyOf(IMGERR_READ, IMGERR_NONE));
                EXPECT_LE(sink.pixels, 50u * 128);
            }
}

TEST(TgaMemory, MapThatTheFileCannotFillTakesNone)
{
    const TempDir folder;
    TgaBytes file {
        .colorMapType = 1, .imageType = 1, .colorMapLength = 0xFFFF, .colorMapBits = 255, .pixelBits = 8
    };
    file.colorMap = Bytes(100, 1);
    writeFile(folder / "image.tga", file.bytes());
    const std::string name = folder / "image.tga";
    CountingSink sink;
    std::size_t requests = 0;
    int code = 0;
    {
        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 5000 });
        code = codeOf(LoadTGAFile(name.c_str(), sink, nullptr));
        requests = watch.requests();
    }
    EXPECT_EQ(code, IMGERR_READ);
    EXPECT_EQ(requests, 0u);
}

TEST(TgaMemory, RefusedRowMemoryLeavesTheHeader)
{
    const TempDir folder;
    const std::string name = folder / "out.tga";
    for (const int compression : { 2, 10, 3 }) {
        QUtils::tgaCompression = compression;
        FrameDouble frame(1000, 2);
        int code = 0;
        {
            const RefuseMemory refuse({ .minBytes = 3000 }); // The stream is smaller.
            code = codeOf(SaveTGAFile_pb(name.c_str(), frame, 0, -1, 0));
        }
        EXPECT_EQ(code, IMGERR_MEMORY) << compression;
        EXPECT_EQ(readFile(name).size(), 18u);
        EXPECT_TRUE(frame.queries.empty());
    }
    QUtils::tgaCompression = 2;
}

TEST(TgaMemory, RefusedPacketMemoryIsAMemoryError)
{
    unsigned char row[12] = {};
    int code = 0;
    {
        const RefuseMemory refuse;
        code = codeOf(writeTgaRleEncodedRow(nullptr, row, 3, 4));
    }
    EXPECT_EQ(code, IMGERR_MEMORY);
}

TEST(BlockMemory, ReaderWithoutABlockSeemsToBeAtTheEnd)
{
    const TempDir folder;
    writeFile(folder / "in", Bytes(1000, 1));
    const FilePtr file(std::fopen((folder / "in").c_str(), "rb"));
    ASSERT_TRUE(file);
    std::setvbuf(file, nullptr, _IONBF, 0);
    const RefuseMemory refuse;
    QUtils::BlockReader in(file);
    EXPECT_FALSE(in.isValid());
    std::size_t got = 1;
    in.take(10, got);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(in.ready(10), 0u);
}

TEST(BlockMemory, ReaderThatCannotGrowSeemsToBeAtTheEnd)
{
    const TempDir folder;
    writeFile(folder / "in", Bytes(1 << 20, 1));
    const FilePtr file(std::fopen((folder / "in").c_str(), "rb"));
    ASSERT_TRUE(file);
    QUtils::BlockReader in(file);
    std::size_t got = 0;
    in.take(1000, got);
    EXPECT_EQ(got, 1000u);
    const RefuseMemory refuse({ .minBytes = 256 << 10 });
    EXPECT_EQ(in.ready(600 << 10), 0u);
    EXPECT_FALSE(in.isValid());
}

TEST(BlockMemory, ReaderTakesNoMoreThanTheFileHolds)
{
    const TempDir folder;
    writeFile(folder / "in", Bytes(5000, 1));
    const FilePtr file(std::fopen((folder / "in").c_str(), "rb"));
    ASSERT_TRUE(file);
    std::setvbuf(file, nullptr, _IONBF, 0);
    const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 5001 });
    QUtils::BlockReader in(file);
    EXPECT_EQ(in.ready(std::size_t(1) << 40), 5000u);
    EXPECT_EQ(watch.requests(), 0u);
}

TEST(BlockMemory, WriterWithoutABlockHasNoRoom)
{
    const RefuseMemory refuse;
    QUtils::BlockWriter out(stdout);
    EXPECT_EQ(out.reserve(10), IMGERR_MEMORY);
    EXPECT_EQ(out.flush(), IMGERR_NONE);
}

} // namespace
