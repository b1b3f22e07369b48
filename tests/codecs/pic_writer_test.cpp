#include "rastkit/buffers.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::FrameBuffer;
using QUtils::FrameSample;
using testing::ElementsAre;
using testing::ElementsAreArray;

/// What a written file begins with.
Bytes header(int width, int height, bool hasAlpha = true)
{
    Bytes b { 0x53, 0x80, 0xF6, 0x34, 0, 0, 0, 0 };
    const std::string comment = "File written by rastkit/Quor 1.5";
    b.insert(b.end(), comment.begin(), comment.end());
    b.resize(88);
    b.insert(b.end(),
        { 'P', 'I', 'C', 'T', std::uint8_t(width >> 8), std::uint8_t(width), std::uint8_t(height >> 8),
            std::uint8_t(height), 0x3F, 0x80, 0, 0, 0, 3, 0, 0 });
    b.insert(b.end(), { std::uint8_t(hasAlpha), 8, 2, 0xE0 });
    if (hasAlpha)
        b.insert(b.end(), { 0, 8, 2, 0x10 });
    return b;
}

Bytes joined(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// --- Rows --------------------------------------------------------------------------------------------------

class PicRow : public testing::Test {
protected:
    Bytes encoded(std::vector<unsigned int> row, std::vector<int> shifts)
    {
        {
            const FilePtr file(std::fopen((m_dir / "row").c_str(), "wb"));
            QUtils::write_pic_line_mixed_rle(
                file, row.data(), int(row.size()), shifts.data(), int(shifts.size()));
        }
        return readFile(m_dir / "row");
    }

    TempDir m_dir;
};

TEST_F(PicRow, ShortRunsHaveOneControlByteAndLongOnesACount)
{
    EXPECT_THAT(encoded(std::vector<unsigned int>(3, 0x070605), { 0, 8, 16 }), ElementsAre(130, 5, 6, 7));
    EXPECT_THAT(encoded(std::vector<unsigned int>(128, 9), { 0 }), ElementsAre(0xFF, 9));
    EXPECT_THAT(encoded(std::vector<unsigned int>(129, 9), { 0 }), ElementsAre(0x80, 0, 129, 9));
    EXPECT_THAT(encoded(std::vector<unsigned int>(300, 9), { 0 }), ElementsAre(0x80, 0x01, 0x2C, 9));
    EXPECT_THAT(
        encoded(std::vector<unsigned int>(65536 + 2, 9), { 0 }), ElementsAre(0x80, 0xFF, 0xFF, 9, 130, 9));
}

TEST_F(PicRow, PairsStayLiteral)
{
    EXPECT_THAT(encoded({ 1, 2, 2, 3 }, { 0 }), ElementsAre(3, 1, 2, 2, 3));
    EXPECT_THAT(encoded({ 2, 2 }, { 0 }), ElementsAre(1, 2, 2));
    EXPECT_THAT(encoded({ 1 }, { 0 }), ElementsAre(0, 1));
    EXPECT_THAT(encoded({ 1, 2, 2, 2, 3 }, { 0 }), ElementsAre(0, 1, 130, 2, 0, 3));
    EXPECT_THAT(encoded({ 1, 1, 2, 2, 2 }, { 0 }), ElementsAre(1, 1, 1, 130, 2));
}

TEST_F(PicRow, LiteralPixelsComeInPiecesOf128)
{
    std::vector<unsigned int> row(130);
    Bytes expected { 0x7F };
    for (std::size_t i = 0; i < row.size(); ++i) {
        row[i] = unsigned(i);
        if (i == 128)
            expected.push_back(0x01);
        expected.push_back(std::uint8_t(i));
    }
    EXPECT_THAT(encoded(row, { 0 }), ElementsAreArray(expected));
}

TEST_F(PicRow, OnlyTheBytesThatAreWrittenMakePixelsDifferent)
{
    EXPECT_THAT(encoded({ 0x01000005, 0x02000005, 0x03000005 }, { 0 }), ElementsAre(130, 5));
    EXPECT_THAT(encoded({ 0x01000005, 0x02000005, 0x03000005 }, { 24, 0 }), ElementsAre(2, 1, 5, 2, 5, 3, 5));
    EXPECT_TRUE(encoded({ 1, 2 }, {}).empty());
    EXPECT_TRUE(encoded({}, { 0 }).empty());
}

TEST_F(PicRow, FullDiskIsThrown)
{
    const FilePtr full(std::fopen("/dev/full", "wb"));
    ASSERT_TRUE(full);
    std::setvbuf(full, nullptr, _IONBF, 0);
    unsigned int row[] = { 1, 2 };
    int shifts[] = { 0 };
    EXPECT_THROW(QUtils::write_pic_line_mixed_rle(full, row, 2, shifts, 1), ImgErrorCode);
}

// --- Files -------------------------------------------------------------------------------------------------

class PicSave : public testing::Test {
protected:
    int save(QUtils::PixelBufferInterface& frame, int alphaChannel, int flags = 0)
    {
        return codeOf(SavePICFile_pb(m_name.c_str(), frame, 0, alphaChannel, flags));
    }
    int saveStandard(QUtils::PixelBufferInterface& frame, int alphaChannel)
    {
        return codeOf(QUtils::savePic(m_name.c_str(), frame, 0, alphaChannel, 0, Conventions::Standard));
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "out.pic";
};

TEST_F(PicSave, ArrayBecomesTwoPacketsWithBlueInThePlaceOfRed)
{
    unsigned int pixels[] = { 0x11223344, 0x55667788, 0xFFFF0000, 0xFFFF0000 };
    IMGINFO info {};
    info.width = info.height = 2;
    EXPECT_EQ(codeOf(SavePICFile(m_name.c_str(), &info, pixels)), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name),
        joined(header(2, 2),
            { 1, 0x44, 0x33, 0x22, 0x88, 0x77, 0x66, 1, 0x11, 0x55, 1, 0, 0, 0xFF, 0, 0, 0xFF, 1, 0xFF,
                0xFF }));
}

TEST_F(PicSave, RedComesBackAsBlueForTheRenderer)
{
    unsigned int red = 0xFFFF0000;
    IMGINFO info {};
    info.width = info.height = 1;
    EXPECT_EQ(codeOf(SavePICFile(m_name.c_str(), &info, &red)), IMGERR_NONE);
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadPICFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(image.pixel(0, 0), 0xFF0000FFu);
}

TEST_F(PicSave, ArraysOfNoPixelsAreAHeader)
{
    IMGINFO info {};
    for (const auto& [width, height] :
        { std::pair(3, 0), std::pair(0, 3), std::pair(-1, 1), std::pair(1, -1) }) {
        info.width = width, info.height = height;
        EXPECT_EQ(codeOf(SavePICFile(m_name.c_str(), &info, nullptr)), IMGERR_NONE);
        EXPECT_EQ(readFile(m_name), header(width, height));
    }
}

TEST_F(PicSave, FrameIsAskedForBytesWithAlphaWhateverTheAlphaChannel)
{
    for (const int alphaChannel : { -1, 6 }) {
        FrameDouble frame(3, 2);
        frame.fill = [](const FrameDouble::Query& query, unsigned char* dest) {
            for (int i = 0; i < query.rowBytes; ++i)
                dest[i] = static_cast<unsigned char>(query.region.top * 100 + i);
        };
        EXPECT_EQ(codeOf(SavePICFile_pb(m_name.c_str(), frame, 4, alphaChannel, 0)), IMGERR_NONE);
        EXPECT_EQ(readFile(m_name),
            joined(header(3, 2),
                { 2, 0, 1, 2, 4, 5, 6, 8, 9, 10, 2, 3, 7, 11, 2, 100, 101, 102, 104, 105, 106, 108, 109, 110,
                    2, 103, 107, 111 }));
        ASSERT_EQ(frame.queries.size(), 2u);
        for (int y = 0; y < 2; ++y) {
            const auto& q = frame.queries[std::size_t(y)];
            EXPECT_EQ(q.channel, 4);
            EXPECT_EQ(q.alphaChannel, alphaChannel);
            EXPECT_EQ(q.format, 300);
            EXPECT_EQ(q.rowBytes, 12);
            EXPECT_EQ(q.region.top, y);
            EXPECT_EQ(q.region.bottom, y + 1);
            EXPECT_EQ(q.region.right, 3);
            EXPECT_EQ(q.argument0, 0);
            EXPECT_EQ(q.argument1, 0);
            EXPECT_EQ(q.argument2, 0);
            EXPECT_EQ(q.mode, -1);
        }
    }
}

TEST_F(PicSave, CorrectedPixelsAreTakenWhereThereAreSome)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame, -1, 0), IMGERR_NONE);
    EXPECT_EQ(frame.queries.back().mode, 3);
    EXPECT_EQ(save(frame, -1, 0x200), IMGERR_NONE);
    EXPECT_EQ(frame.queries.back().mode, 0);
}

TEST_F(PicSave, StandardHasTheColoursInTheirPlacesAndAlphaWhereAskedFor)
{
    FrameDouble frame(1, 1);
    frame.fill = [](const FrameDouble::Query&, unsigned char* dest) {
        dest[0] = 1, dest[1] = 2, dest[2] = 3, dest[3] = 4;
    };
    EXPECT_EQ(saveStandard(frame, -1), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name), joined(header(1, 1, false), { 0, 3, 2, 1 }));
    EXPECT_EQ(saveStandard(frame, 0), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name), joined(header(1, 1), { 0, 3, 2, 1, 0, 4 }));
}

TEST_F(PicSave, RefusedRowIsAWriteErrorAndLeavesTheRowsBefore)
{
    FrameDouble frame(1, 3);
    frame.refusedRow = 1;
    EXPECT_EQ(save(frame, -1), IMGERR_WRITE);
    EXPECT_EQ(readFile(m_name), joined(header(1, 3), { 0, 0, 0, 0, 0, 0 }));
    EXPECT_EQ(saveStandard(frame, -1), IMGERR_WRITE);
}

TEST_F(PicSave, FullDiskIsAWriteError)
{
    FrameDouble frame(1, 1);
    EXPECT_EQ(codeOf(SavePICFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_WRITE);
    unsigned int pixel = 0;
    IMGINFO info {};
    info.width = info.height = 1;
    EXPECT_EQ(codeOf(SavePICFile("/dev/full", &info, &pixel)), IMGERR_WRITE);
}

TEST_F(PicSave, FolderThatIsNotThereIsAnOpenError)
{
    FrameDouble frame(1, 1);
    IMGINFO info {};
    const ImgError error = SavePICFile_pb((m_dir / "none/a.pic").c_str(), frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.message(), "Failed to open file: 2");
    EXPECT_EQ(codeOf(SavePICFile((m_dir / "none/a.pic").c_str(), &info, nullptr)), IMGERR_OPEN);
}

TEST_F(PicSave, CodesThatAFrameThrowsAreReturnedAndOtherExceptionsPassThrough)
{
    FrameDouble frame(1, 1);
    frame.fill = [](const FrameDouble::Query&, unsigned char*) { throw IMGERR_LIBRARY; };
    EXPECT_EQ(save(frame, -1), IMGERR_LIBRARY);
    frame.fill = [](const FrameDouble::Query&, unsigned char*) { throw 5; };
    EXPECT_THROW((void)save(frame, -1), int);
}

TEST_F(PicSave, SizesThatTheFormatHasNoPlaceFor)
{
    for (const auto& [width, height] :
        { std::pair(0, 1), std::pair(1, 0), std::pair(-1, 1), std::pair(65536, 1), std::pair(1, 65536) }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(saveStandard(frame, -1), IMGERR_UNSUPPORTED);
        EXPECT_FALSE(std::filesystem::exists(m_name));
    }
    FrameDouble wide(65537, 1);
    EXPECT_EQ(save(wide, -1), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name)[93], 1) << "The renderer's files have the low 16 bits.";
    for (const int width : { -1, INT_MAX }) {
        FrameDouble frame(width, 1);
        EXPECT_EQ(save(frame, -1), IMGERR_MEMORY);
        EXPECT_TRUE(frame.queries.empty());
    }
}

TEST_F(PicSave, PicturesComeBackInAllSizes)
{
    std::minstd_rand random(5);
    for (const auto& [width, height] : { std::pair(1, 1), std::pair(7, 4), std::pair(1023, 133) })
        for (const int alphaChannel : { -1, 0 }) {
            FrameBuffer frame(width, height);
            frame.addChannel("color", QUtils::PIXELCHANNEL_COLOR, 4, FrameSample::Packed8);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width;) {
                    const unsigned int value = unsigned(random()) * 0x9E3779B9u;
                    const bool isRun = random() % 3 != 0;
                    const int end = std::min<int>(width, x + 1 + int(random() % (random() % 2 ? 5 : 400)));
                    for (; x < end; ++x)
                        frame.rowPacked(0, y)[x] = isRun ? value : unsigned(random()) * 0x9E3779B9u;
                }
            ASSERT_EQ(saveStandard(frame, alphaChannel), IMGERR_NONE);
            QUtils::Image8 image;
            ASSERT_EQ(
                codeOf(QUtils::loadPic(m_name.c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE);
            const unsigned int opaque = alphaChannel < 0 ? 0xFF000000u : 0;
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(image.pixel(x, y), frame.rowPacked(0, y)[x] | opaque) << x << ' ' << y;
        }
}

} // namespace
