#include "rastkit/buffers.h"
#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/formats.h"
#include "rastkit/image/standard_save.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/jpeg_bytes.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::saveJpeg;

constexpr int defaultQuality = 85;

/// Sizes around the blocks of 8 and 16 pixels, and files larger than the writer's block.
const std::pair<int, int> sizes[]
    = { { 1, 1 }, { 7, 5 }, { 16, 16 }, { 33, 50 }, { 4097, 3 }, { 1100, 900 } };

IMGINFO infoOf(int width, int height)
{
    IMGINFO info {};
    info.width = width;
    info.height = height;
    return info;
}

/// Samples red, green, blue, as packed pixels with some alpha.
std::vector<unsigned int> packed(const Bytes& rgb)
{
    std::vector<unsigned int> pixels;
    for (std::size_t i = 0; i < rgb.size(); i += 3)
        pixels.push_back(unsigned(i) << 24 | unsigned(rgb[i]) << 16 | unsigned(rgb[i + 1]) << 8 | rgb[i + 2]);
    return pixels;
}

/// Puts the process-wide quality back.
class JpegSave : public testing::Test {
protected:
    ~JpegSave() override { QUtils::jpegQuality = defaultQuality; }

    int save(QUtils::PixelBufferInterface& frame, int alphaChannel = -1, int flags = 0)
    {
        return codeOf(SaveJPGFile_pb(m_name.c_str(), frame, 0, alphaChannel, flags));
    }
    Bytes written() const { return readFile(m_name); }

    TempDir m_folder;
    const std::string m_name = m_folder / "out.jpg";
};

/// A frame of those samples red, green, blue.
FrameDouble frameOf(const JpegBytes& picture)
{
    FrameDouble frame(picture.width, picture.height);
    frame.fill = [&picture](const FrameDouble::Query& query, unsigned char* dest) {
        const std::uint8_t* rgb = picture.samples.data() + query.region.top * picture.width * 3;
        for (int x = 0; x < picture.width; ++x, rgb += 3)
            for (int c = 0; c < 3; ++c)
                *dest++ = rgb[2 - c];
    };
    return frame;
}

// --- Arrays ------------------------------------------------------------------------------------------------

TEST_F(JpegSave, ArrayIsTheFileOfAPlainCompressorOfRedGreenBlue)
{
    for (const auto& [width, height] : sizes) {
        JpegBytes picture = makeJpeg(JCS_RGB, width, height);
        picture.quality = defaultQuality;
        std::vector<unsigned int> pixels = packed(picture.samples);
        IMGINFO info = infoOf(width, height);
        EXPECT_EQ(codeOf(SaveJPGFile(m_name.c_str(), &info, pixels.data())), IMGERR_NONE);
        EXPECT_TRUE(written() == picture.bytes()) << width;
    }
}

TEST_F(JpegSave, ArrayIgnoresTheQualitySetting)
{
    QUtils::jpegQuality = 50;
    JpegBytes picture = makeJpeg(JCS_RGB, 40, 40);
    std::vector<unsigned int> pixels = packed(picture.samples);
    IMGINFO info = infoOf(40, 40);
    EXPECT_EQ(codeOf(SaveJPGFile(m_name.c_str(), &info, pixels.data())), IMGERR_NONE);
    picture.quality = 85;
    EXPECT_EQ(written(), picture.bytes());
}

TEST_F(JpegSave, ArrayOfSizesThatTheFormatLacksIsAWriteError)
{
    unsigned int pixel = 0;
    for (const auto& [width, height] : { std::pair(0, 1), { 1, 0 }, { -1, 1 }, { 1, -1 }, { 65501, 1 },
             { 1, 65501 }, { INT_MAX, INT_MAX }, { INT_MIN, INT_MIN } }) {
        IMGINFO info = infoOf(width, height);
        EXPECT_EQ(codeOf(SaveJPGFile(m_name.c_str(), &info, &pixel)), IMGERR_WRITE) << width;
        EXPECT_TRUE(written().empty());
    }
}

TEST_F(JpegSave, FloatsAreNotSupportedAndNoFileIsMade)
{
    IMGINFO info = infoOf(1, 1);
    float pixel[4] = {};
    EXPECT_EQ(codeOf(SaveJPGFile(m_name.c_str(), &info, pixel)), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(m_name));
}

// --- Frames ------------------------------------------------------------------------------------------------

TEST_F(JpegSave, FrameIsTheFileOfAPlainCompressorOfRedGreenBlue)
{
    for (const auto& [width, height] : sizes)
        for (const int quality : { 85, 50, 100, 1, 0, -3, 1000 }) {
            JpegBytes picture = makeJpeg(JCS_RGB, width, height);
            picture.quality = QUtils::jpegQuality = quality;
            FrameDouble frame = frameOf(picture);
            EXPECT_EQ(save(frame), IMGERR_NONE);
            EXPECT_TRUE(written() == picture.bytes()) << width << ' ' << quality;
        }
}

TEST_F(JpegSave, RowsAreAskedForOneByOneWithoutAlpha)
{
    for (const int alphaChannel : { -1, 0, 5 }) {
        FrameDouble frame(7, 4);
        EXPECT_EQ(codeOf(SaveJPGFile_pb(m_name.c_str(), frame, 3, alphaChannel, 0)), IMGERR_NONE);
        ASSERT_EQ(frame.queries.size(), 4u);
        for (int y = 0; y < 4; ++y) {
            const FrameDouble::Query& query = frame.queries[std::size_t(y)];
            EXPECT_EQ(query.channel, 3);
            EXPECT_EQ(query.alphaChannel, -1);
            EXPECT_EQ(query.format, 200);
            EXPECT_EQ(query.rowBytes, 21);
            EXPECT_EQ(query.region.left, 0);
            EXPECT_EQ(query.region.right, 7);
            EXPECT_EQ(query.region.top, y);
            EXPECT_EQ(query.region.bottom, y + 1);
            EXPECT_EQ(query.argument0, 1);
            EXPECT_EQ(query.argument1, 0);
            EXPECT_EQ(query.argument2, 0);
            EXPECT_EQ(query.mode, -1);
        }
    }
}

TEST_F(JpegSave, AlphaChannelMakesNoDifference)
{
    const JpegBytes picture = makeJpeg(JCS_RGB, 20, 10);
    FrameDouble frame = frameOf(picture);
    EXPECT_EQ(save(frame, -1), IMGERR_NONE);
    const Bytes without = written();
    EXPECT_EQ(save(frame, 0), IMGERR_NONE);
    EXPECT_EQ(written(), without);
    EXPECT_EQ(decodeJpeg(without)->components, 3);
}

TEST_F(JpegSave, CorrectedPixelsAreTakenWhereTheyAreOffered)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame, -1, 0), IMGERR_NONE);
    EXPECT_EQ(save(frame, -1, QUtils::SAVE_CORRECTION_MODE_0), IMGERR_NONE);
    ASSERT_EQ(frame.queries.size(), 2u);
    EXPECT_EQ(frame.queries[0].mode, 3);
    EXPECT_EQ(frame.queries[1].mode, 0);
}

TEST_F(JpegSave, RefusedRowLeavesWhatIsEncodedInTheFile)
{
    FrameDouble frame(300, 200);
    frame.fill = [](const FrameDouble::Query& query, unsigned char* dest) {
        for (int i = 0; i < query.rowBytes; ++i)
            dest[i] = std::uint8_t(i * query.region.top * 7);
    };
    frame.refusedRow = 150;
    EXPECT_EQ(save(frame), IMGERR_WRITE);
    EXPECT_GT(readFile(m_name).size(), 2000u);
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadJPGFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(image.height(), 200);
}

TEST_F(JpegSave, RefusedRowIsAWriteErrorAndTheLastThatIsAskedFor)
{
    for (const int refused : { 0, 1, 20 }) {
        FrameDouble frame(30, 21);
        frame.refusedRow = refused;
        EXPECT_EQ(save(frame), IMGERR_WRITE);
        EXPECT_EQ(frame.queries.size(), std::size_t(refused) + 1);
        frame.queries.clear();
        const CorrectingPlugin plugin(frame);
        const ImgError error = SaveJPGFile_pb(m_name.c_str(), frame, 0, -1, 0);
        EXPECT_EQ(error.code(), IMGERR_WRITE);
        EXPECT_STREQ(error.message(), "");
        EXPECT_EQ(frame.queries.size(), std::size_t(refused) + 1);
    }
}

TEST_F(JpegSave, FrameOfSizesThatTheFormatLacksIsAWriteErrorAndNotAsked)
{
    for (const auto& [width, height] : { std::pair(0, 0), { 0, 1 }, { 1, 0 }, { -1, 1 }, { 1, -1 },
             { 65501, 1 }, { 1, 65501 }, { INT_MAX, INT_MAX }, { INT_MIN, 5 } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(save(frame), IMGERR_WRITE) << width;
        EXPECT_TRUE(frame.queries.empty());
    }
}

TEST_F(JpegSave, LargestSizesAreWritten)
{
    for (const auto& [width, height] : { std::pair(65500, 1), { 1, 65500 } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(save(frame), IMGERR_NONE);
        IMGINFO info {};
        EXPECT_EQ(codeOf(LoadJPGHeader(m_name.c_str(), &info)), IMGERR_NONE);
        EXPECT_EQ(info.width, width);
        EXPECT_EQ(info.height, height);
    }
}

TEST_F(JpegSave, WhatIsWrittenComesBackNearly)
{
    const int width = 199, height = 101;
    QUtils::FrameBuffer frame(width, height);
    ASSERT_EQ(frame.addChannel("rgba", 1, 4, QUtils::FrameSample::Packed8), 0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            frame.rowPacked(0, y)[x] = 0x40000000u | unsigned(x) << 16 | unsigned(y * 2) << 8 | 0x30;
    QUtils::jpegQuality = 100;
    ASSERT_EQ(save(frame, 0), IMGERR_NONE);
    QUtils::Image8 image;
    ASSERT_EQ(codeOf(LoadJPGFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const unsigned int pixel = image.pixel(x, y);
            ASSERT_EQ(pixel >> 24, 0xFFu);
            ASSERT_NEAR(int(pixel >> 16 & 0xFF), x, 4);
            ASSERT_NEAR(int(pixel >> 8 & 0xFF), y * 2, 4);
            ASSERT_NEAR(int(pixel & 0xFF), 0x30, 4);
        }
}

TEST_F(JpegSave, DispatcherFindsTheWriter)
{
    const JpegBytes picture = makeJpeg(JCS_RGB, 20, 10);
    FrameDouble frame = frameOf(picture);
    EXPECT_EQ(codeOf(SaveImageFile(m_name.c_str(), frame, 0, -1, -1)), IMGERR_NONE);
    EXPECT_EQ(QUtils::DetectImageType(m_name.c_str()), IMGTYPE_JPEG);
}

// --- Failing files -----------------------------------------------------------------------------------------

TEST_F(JpegSave, FileThatCannotBeMadeIsAnOpenError)
{
    FrameDouble frame(1, 1);
    const ImgError error = SaveJPGFile_pb("/nowhere/out.jpg", frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_TRUE(frame.queries.empty());

    IMGINFO info = infoOf(-1, -1);
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SaveJPGFile("/nowhere/out.jpg", &info, &pixel)), IMGERR_OPEN);
}

TEST_F(JpegSave, FullDeviceIsAWriteError)
{
    testing::internal::CaptureStderr();
    for (const auto& [width, height] : sizes) {
        QUtils::jpegQuality = 100;
        const JpegBytes picture = makeJpeg(JCS_RGB, width, height);
        FrameDouble frame = frameOf(picture);
        EXPECT_EQ(codeOf(SaveJPGFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_WRITE) << width;
        std::vector<unsigned int> pixels = packed(picture.samples);
        IMGINFO info = infoOf(width, height);
        EXPECT_EQ(codeOf(SaveJPGFile("/dev/full", &info, pixels.data())), IMGERR_WRITE) << width;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(JpegSave, FilesAreClosedOnEveryPath)
{
    const int before = openFiles();
    FrameDouble frame(30, 21);
    EXPECT_EQ(save(frame), IMGERR_NONE);
    frame.refusedRow = 7;
    EXPECT_EQ(save(frame), IMGERR_WRITE);
    frame.width = 0;
    EXPECT_EQ(save(frame), IMGERR_WRITE);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(JpegSave, ExceptionOfTheFrameReachesTheCallerWithTheFileClosed)
{
    const int before = openFiles();
    for (const int row : { 0, 1, 20 }) {
        FrameDouble frame(30, 21);
        frame.fill = [row](const FrameDouble::Query& query, unsigned char* dest) {
            if (query.region.top == row)
                throw std::runtime_error("row");
            std::fill_n(dest, query.rowBytes, std::uint8_t(0));
        };
        EXPECT_THROW((void)SaveJPGFile_pb(m_name.c_str(), frame, 0, -1, 0), std::runtime_error);
    }
    EXPECT_EQ(openFiles(), before);
}

// --- The standard's conventions ----------------------------------------------------------------------------

TEST_F(JpegSave, StandardRefusesSizesThatTheFormatLacks)
{
    for (const auto& [width, height] : { std::pair(0, 1), { 1, 0 }, { -1, 1 }, { 65501, 1 }, { 1, 65501 } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(
            codeOf(saveJpeg(m_name.c_str(), frame, 0, 0, 90, Conventions::Standard)), IMGERR_UNSUPPORTED);
        EXPECT_FALSE(std::filesystem::exists(m_name));
        EXPECT_TRUE(frame.queries.empty());
    }
}

TEST_F(JpegSave, StandardWritesTheSameFile)
{
    const JpegBytes picture = makeJpeg(JCS_RGB, 20, 10); // Of quality 90.
    FrameDouble frame = frameOf(picture);
    EXPECT_EQ(codeOf(saveJpeg(m_name.c_str(), frame, 0, 0, 90, Conventions::Standard)), IMGERR_NONE);
    EXPECT_EQ(written(), picture.bytes());
}

TEST_F(JpegSave, ImagesHaveAHighQualityWhateverTheSettingSays)
{
    QUtils::jpegQuality = 5;
    JpegBytes picture = makeJpeg(JCS_RGB, 20, 10);
    const std::vector<unsigned int> pixels = packed(picture.samples);
    QUtils::Image8 image;
    image.init(20, 10);
    for (int y = 0; y < 10; ++y)
        image.setRow(0, y, 20, &pixels[std::size_t(y) * 20]);
    EXPECT_EQ(
        codeOf(QUtils::saveStandard(m_name.c_str(), getFileFormatIndex("jpg", nullptr), image)), IMGERR_NONE);
    picture.quality = 95;
    EXPECT_EQ(written(), picture.bytes());
}

} // namespace
