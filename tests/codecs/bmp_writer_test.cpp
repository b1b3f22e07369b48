#include "rastkit/buffers.h"
#include "rastkit/codecs/bmp_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <random>
#include <string>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::saveBmp;

Bytes header(unsigned int fileSize, int width, int height)
{
    Bytes b { 'B', 'M' };
    const auto put = [&](unsigned int value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            b.push_back(std::uint8_t(value >> 8 * i));
    };
    put(fileSize, 4), put(0, 4), put(54, 4);
    put(40, 4), put(unsigned(width), 4), put(unsigned(height), 4), put(1, 2), put(24, 2);
    put(0, 4), put(0, 4), put(0, 4), put(0, 4), put(0, 4), put(0, 4);
    return b;
}

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

IMGINFO sizeOf(int width, int height)
{
    IMGINFO info {};
    info.width = width;
    info.height = height;
    return info;
}

class BmpSave : public testing::Test {
protected:
    std::string name() const { return m_folder / "out.bmp"; }

    struct Saved {
        int code;
        Bytes bytes;
    };
    Saved saveArray(int width, int height, std::vector<unsigned int> pixels) const
    {
        IMGINFO info = sizeOf(width, height);
        const int code = codeOf(SaveBMPFile(name().c_str(), &info, pixels.data()));
        return { code, readFile(name()) };
    }
    Saved save(FrameDouble& frame, int alphaChannel = -1, int flags = 0) const
    {
        const int code = codeOf(SaveBMPFile_pb(name().c_str(), frame, 0, alphaChannel, flags));
        return { code, readFile(name()) };
    }

private:
    TempDir m_folder;
};

/// Each byte of row y is 10 y + its place.
void fillRows(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int i = 0; i < query.rowBytes; ++i)
        dest[i] = static_cast<unsigned char>(10 * query.region.top + i);
}

TEST_F(BmpSave, RowsAreWrittenFromTheLowestUpPaddedWithZerosAndWithoutAlpha)
{
    const Saved saved = saveArray(1, 2, { 0x04030201, 0xFF070605 });
    EXPECT_EQ(saved.code, IMGERR_NONE);
    EXPECT_EQ(saved.bytes, joined({ header(62, 1, 2), { 5, 6, 7, 0, 1, 2, 3, 0 } }));
    EXPECT_EQ(saveArray(4, 1, { 0x030201, 0x060504, 0x090807, 0x0C0B0A }).bytes,
        joined({ header(66, 4, 1), { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 } }));
}

TEST_F(BmpSave, ArraysOfNoPixelsAreAHeader)
{
    for (const auto& [width, height] : { std::pair(0, 0), { 0, 5 }, { 5, 0 }, { -3, 2 }, { 3, -2 },
             { INT_MIN, INT_MIN }, { INT_MIN, INT_MAX } }) {
        const Saved saved = saveArray(width, height, { 0 });
        EXPECT_EQ(saved.code, IMGERR_NONE);
        EXPECT_EQ(saved.bytes, header(54, width, height));
    }
}

TEST_F(BmpSave, FloatsAreNotSupportedAndNoFileIsMade)
{
    IMGINFO info = sizeOf(1, 1);
    float pixels[4] = {};
    EXPECT_EQ(codeOf(SaveBMPFile(name().c_str(), &info, pixels)), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(name()));
}

TEST_F(BmpSave, FrameIsAskedForRowsFromTheLowestUp)
{
    FrameDouble frame(3, 2);
    frame.fill = fillRows;
    const Saved saved = save(frame, 5);
    EXPECT_EQ(saved.code, IMGERR_NONE);
    EXPECT_EQ(saved.bytes,
        joined({ header(78, 3, 2),
            { 10, 11, 12, 13, 14, 15, 16, 17, 18, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0 } }));
    ASSERT_EQ(frame.queries.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        const FrameDouble::Query& query = frame.queries[std::size_t(i)];
        EXPECT_EQ(query.channel, 0);
        EXPECT_EQ(query.alphaChannel, -1); // Whatever the caller says.
        EXPECT_EQ(query.format, 200);
        EXPECT_EQ(query.rowBytes, 9);
        EXPECT_EQ(query.region.left, 0);
        EXPECT_EQ(query.region.right, 3);
        EXPECT_EQ(query.region.top, 1 - i);
        EXPECT_EQ(query.region.bottom, 2 - i);
        EXPECT_EQ(query.argument0, 1);
        EXPECT_EQ(query.argument1, 0);
        EXPECT_EQ(query.argument2, 0);
        EXPECT_EQ(query.mode, -1);
    }
}

TEST_F(BmpSave, CorrectedPixelsAreTakenWhereTheyAreOffered)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame).code, IMGERR_NONE);
    EXPECT_EQ(save(frame, -1, QUtils::SAVE_CORRECTION_MODE_0).code, IMGERR_NONE);
    ASSERT_EQ(frame.queries.size(), 2u);
    EXPECT_EQ(frame.queries[0].mode, 3);
    EXPECT_EQ(frame.queries[1].mode, 0);
    frame.refusedRow = 0;
    const ImgError error = SaveBMPFile_pb(name().c_str(), frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_WRITE);
    EXPECT_STREQ(error.message(), "");
}

TEST_F(BmpSave, RefusedRowLeavesTheRowsBeforeIt)
{
    FrameDouble frame(1, 3);
    frame.fill = fillRows;
    frame.refusedRow = 1;
    const Saved saved = save(frame);
    EXPECT_EQ(saved.code, IMGERR_WRITE);
    EXPECT_EQ(saved.bytes, joined({ header(66, 1, 3), { 20, 21, 22, 0 } }));
    EXPECT_EQ(frame.queries.size(), 2u);
}

TEST_F(BmpSave, EmptyFramesAreAHeader)
{
    for (const auto& [width, height] : { std::pair(0, 0), { 0, 2 }, { 2, 0 }, { 2, -1 } }) {
        FrameDouble frame(width, height);
        const Saved saved = save(frame);
        EXPECT_EQ(saved.code, IMGERR_NONE);
        EXPECT_EQ(saved.bytes, header(54, width, height));
    }
}

TEST_F(BmpSave, RowsThatCannotBeAskedForAreAMemoryErrorOfAnEmptyFile)
{
    for (const int width : { INT_MAX, INT_MAX / 3 + 1, -1, INT_MIN }) {
        FrameDouble frame(width, 1);
        const Saved saved = save(frame);
        EXPECT_EQ(saved.code, IMGERR_MEMORY);
        EXPECT_TRUE(saved.bytes.empty());
        EXPECT_TRUE(frame.queries.empty());
    }
}

TEST_F(BmpSave, EverySizeComesBack)
{
    std::mt19937 random;
    for (const auto& [width, height] :
        { std::pair(1, 1), { 2, 3 }, { 3, 2 }, { 7, 4 }, { 1, 300 }, { 1021, 517 }, { 150001, 3 } }) {
        QUtils::FrameBuffer frame(width, height);
        ASSERT_EQ(frame.addChannel("rgba", 1, 4, QUtils::FrameSample::Packed8), 0);
        std::vector<unsigned int> pixels;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                pixels.push_back(frame.rowPacked(0, y)[x] = std::uint32_t(random()));
        ASSERT_EQ(codeOf(SaveBMPFile_pb(name().c_str(), frame, 0, 0, 0)), IMGERR_NONE);
        const Bytes bytes = readFile(name());
        EXPECT_TRUE(saveArray(width, height, pixels).bytes == bytes);
        EXPECT_EQ(codeOf(saveBmp(name().c_str(), frame, 0, 0, Conventions::Standard)), IMGERR_NONE);
        EXPECT_TRUE(readFile(name()) == bytes);
        QUtils::Image8 image;
        ASSERT_EQ(codeOf(LoadBMPFile(name().c_str(), image, nullptr)), IMGERR_NONE);
        for (unsigned int& pixel : pixels)
            pixel |= 0xFF000000u;
        EXPECT_TRUE(std::vector<unsigned int>(image.data(), image.data() + pixels.size()) == pixels) << width;
    }
}

// --- Failing files -----------------------------------------------------------------------------------------

TEST_F(BmpSave, FileThatCannotBeMadeIsAnOpenError)
{
    FrameDouble frame(1, 1);
    const ImgError error = SaveBMPFile_pb("/nowhere/out.bmp", frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_TRUE(frame.queries.empty());
    IMGINFO info = sizeOf(1, 1);
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SaveBMPFile("/nowhere/out.bmp", &info, &pixel)), IMGERR_OPEN);
}

TEST_F(BmpSave, FullDeviceIsNotNoticedByTheRendererAndAllRowsAreStillAskedFor)
{
    FrameDouble frame(1000, 1000);
    EXPECT_EQ(codeOf(SaveBMPFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_NONE);
    EXPECT_EQ(frame.queries.size(), 1000u);
    frame.refusedRow = 0; // The last one.
    EXPECT_EQ(codeOf(SaveBMPFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_WRITE);
    IMGINFO info = sizeOf(1000, 1000);
    std::vector<unsigned int> pixels(1000000);
    EXPECT_EQ(codeOf(SaveBMPFile("/dev/full", &info, pixels.data())), IMGERR_NONE);
}

TEST_F(BmpSave, FullDeviceIsAWriteErrorOfTheStandard)
{
    for (const int size : { 1, 1000 }) {
        FrameDouble frame(size, size);
        EXPECT_EQ(codeOf(saveBmp("/dev/full", frame, 0, 0, Conventions::Standard)), IMGERR_WRITE);
    }
}

TEST_F(BmpSave, StandardRefusesWhatTheFormatHasNoPlaceFor)
{
    // The last one has a row of 12 bytes, so that its file would be larger than its 32 bits can say.
    for (const auto& [width, height] :
        { std::pair(0, 1), { 1, 0 }, { -1, 1 }, { 1, INT_MIN }, { 40000, 40000 }, { 4, 357913942 } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(codeOf(saveBmp(name().c_str(), frame, 0, 0, Conventions::Standard)), IMGERR_UNSUPPORTED);
        EXPECT_FALSE(std::filesystem::exists(name()));
        EXPECT_TRUE(frame.queries.empty());
    }
}

} // namespace
