#include "rastkit/buffers.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/open_files.h"
#include "support/png_bytes.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <png.h>
#include <random>
#include <stdexcept>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::FrameBuffer;
using QUtils::FrameSample;
using QUtils::savePng;

constexpr int noAlpha = -1, colorChannel = 2;

// --- Reading back with libpng ------------------------------------------------------------------------------

/// A file as libpng hands it back, unconverted but for the order of the bytes.
struct ReadBack {
    int width = 0, height = 0, bitDepth = 0, colorType = -1, interlace = -1;
    std::vector<unsigned int> samples; ///< Row after row.

    std::size_t channels() const { return colorType == PNG_COLOR_TYPE_RGBA ? 4 : 3; }
    unsigned int at(int x, int y, std::size_t channel) const
    {
        return samples.at((std::size_t(y) * std::size_t(width) + std::size_t(x)) * channels() + channel);
    }
};

ReadBack readBack(const std::string& name)
{
    ReadBack read;
    const FilePtr file(std::fopen(name.c_str(), "rb"));
    EXPECT_TRUE(file);
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr); // Ends the test program on errors.
    read.width = int(png_get_image_width(png, info));
    read.height = int(png_get_image_height(png, info));
    read.bitDepth = png_get_bit_depth(png, info);
    read.colorType = png_get_color_type(png, info);
    read.interlace = png_get_interlace_type(png, info);
    png_bytepp rows = png_get_rows(png, info);
    const std::size_t count = std::size_t(read.width) * read.channels();
    for (int y = 0; y < read.height; ++y)
        for (std::size_t i = 0; i < count; ++i)
            read.samples.push_back(
                read.bitDepth == 16 ? unsigned(rows[y][2 * i] << 8 | rows[y][2 * i + 1]) : rows[y][i]);
    png_destroy_read_struct(&png, &info, nullptr);
    return read;
}

/// Puts the process-wide settings back.
class PngSave : public testing::Test {
protected:
    ~PngSave() override
    {
        QUtils::pngCompression = 5;
        QUtils::pngBitsPerChannel = 8;
    }

    std::string name() const { return m_folder / "out.png"; }
    int save(QUtils::PixelBufferInterface& frame, int bits, int alphaChannel = noAlpha, int flags = 0)
    {
        QUtils::pngBitsPerChannel = bits;
        return codeOf(SavePNGFile_pb(name().c_str(), frame, colorChannel, alphaChannel, flags));
    }
    int saveArray(int width, int height, int bits, int channels, std::vector<unsigned int> pixels)
    {
        IMGINFO info {};
        info.width = width;
        info.height = height;
        info.bitsPerPixel = bits;
        info.numChannels = channels;
        info.bytesPerPixel = 4;
        return codeOf(SavePNGFile(name().c_str(), &info, pixels.data()));
    }

private:
    TempDir m_folder;
};

// --- Arrays ------------------------------------------------------------------------------------------------

TEST_F(PngSave, WordsOf32BitsAndFourChannelsBecomeAnRgbaFile)
{
    EXPECT_EQ(saveArray(1, 2, 32, 4, { 0x04030201, 0xFFEEDDCC }), IMGERR_NONE);
    const ReadBack read = readBack(name());
    EXPECT_EQ(read.width, 1);
    EXPECT_EQ(read.height, 2);
    EXPECT_EQ(read.bitDepth, 8);
    EXPECT_EQ(read.colorType, PNG_COLOR_TYPE_RGBA);
    EXPECT_EQ(read.interlace, PNG_INTERLACE_NONE);
    EXPECT_EQ(read.samples, (std::vector<unsigned int> { 3, 2, 1, 4, 0xEE, 0xDD, 0xCC, 0xFF }));
}

TEST_F(PngSave, DepthIsBitsDividedByChannels)
{
    EXPECT_EQ(saveArray(1, 1, 24, 3, { 0x04030201 }), IMGERR_NONE);
    EXPECT_EQ(readBack(name()).samples, (std::vector<unsigned int> { 3, 2, 1, 4 }));
    EXPECT_EQ(saveArray(1, 1, 35, 4, { 0 }), IMGERR_NONE);
    EXPECT_EQ(saveArray(1, 1, -32, -4, { 0 }), IMGERR_NONE);
}

TEST_F(PngSave, OtherDepthsAreALibraryError)
{
    for (const auto& [bits, channels] : { std::pair(32, 0), { 64, 4 }, { 32, 1 }, { 4, 4 }, { 0, 4 },
             { -32, 4 }, { INT_MIN, -1 }, { INT_MAX, 1 } })
        EXPECT_EQ(saveArray(2, 1, bits, channels, { 0, 0 }), IMGERR_LIBRARY) << bits << ' ' << channels;
}

TEST_F(PngSave, SizesBelowOneAreALibraryError)
{
    for (const auto& [width, height] :
        { std::pair(0, 1), { 1, 0 }, { -1, 1 }, { 1, -1 }, { INT_MIN, INT_MIN } }) {
        EXPECT_EQ(saveArray(width, height, 32, 4, { 0 }), IMGERR_LIBRARY);
        for (const int bits : { 8, 16 }) {
            FrameDouble frame(width, height);
            EXPECT_EQ(save(frame, bits), IMGERR_LIBRARY) << width << ' ' << height;
            EXPECT_TRUE(frame.queries.empty());
        }
    }
}

TEST_F(PngSave, TallArraysTakeNoStack)
{
    EXPECT_EQ(saveArray(1, 3000000, 32, 4, std::vector<unsigned int>(3000000, 0x80402010)), IMGERR_NONE);
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadPNGFile(name().c_str(), image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(image.height(), 3000000);
    EXPECT_EQ(image.pixel(0, 2999999), 0x80402010u);
}

TEST_F(PngSave, FloatsAreNotSupportedAndNoFileIsMade)
{
    IMGINFO info {};
    float pixels[4] = {};
    EXPECT_EQ(codeOf(SavePNGFile(name().c_str(), &info, pixels)), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(name()));
}

// --- Frames ------------------------------------------------------------------------------------------------

/// A frame of bytes that follow from their place.
void fillRows(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int i = 0; i < query.rowBytes; ++i)
        dest[i] = std::uint8_t(query.region.top * 50 + i * 7 + 1);
}

unsigned int byteAt(int y, int i)
{
    return std::uint8_t(y * 50 + i * 7 + 1);
}

/// What a sample must be: the frame delivers blue, green, red, alpha, the less significant byte first.
unsigned int expectedSample(int x, int y, std::size_t channels, std::size_t channel, int bits)
{
    const std::size_t delivered = channel < 3 ? 2 - channel : channel;
    const int at = (x * int(channels) + int(delivered)) * bits / 8;
    return bits == 8 ? byteAt(y, at) : byteAt(y, at) | byteAt(y, at + 1) << 8;
}

TEST_F(PngSave, EverySampleComesBack)
{
    for (const int bits : { 8, 16 })
        for (const int alphaChannel : { noAlpha, 3 })
            for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 100, 1 }, { 1031, 67 } }) {
                FrameDouble frame(width, height);
                frame.fill = fillRows;
                ASSERT_EQ(save(frame, bits, alphaChannel), IMGERR_NONE);
                const ReadBack read = readBack(name());
                EXPECT_EQ(read.width, width);
                EXPECT_EQ(read.height, height);
                EXPECT_EQ(read.bitDepth, bits);
                EXPECT_EQ(read.colorType, alphaChannel < 0 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGBA);
                EXPECT_EQ(read.interlace, PNG_INTERLACE_NONE);
                int different = 0;
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x)
                        for (std::size_t c = 0; c < read.channels(); ++c)
                            different += read.at(x, y, c) != expectedSample(x, y, read.channels(), c, bits);
                EXPECT_EQ(different, 0) << bits << ' ' << alphaChannel << ' ' << width;
            }
}

TEST_F(PngSave, SixteenBitSamplesHaveTheirMostSignificantByteFirst)
{
    FrameDouble frame(1, 1);
    frame.fill = [](const FrameDouble::Query&, unsigned char* dest) {
        const unsigned char bluest[6] = { 0x56, 0x34, 0x78, 0x12, 0xBC, 0x9A };
        std::memcpy(dest, bluest, 6);
    };
    EXPECT_EQ(save(frame, 16), IMGERR_NONE);
    EXPECT_EQ(readBack(name()).samples, (std::vector<unsigned int> { 0x9ABC, 0x1278, 0x3456 }));
}

TEST_F(PngSave, RowsAreAskedForOneByOne)
{
    for (const int bits : { 8, 16 })
        for (const int alphaChannel : { noAlpha, 5 }) {
            FrameDouble frame(7, 4);
            EXPECT_EQ(save(frame, bits, alphaChannel), IMGERR_NONE);
            ASSERT_EQ(frame.queries.size(), 4u);
            for (int y = 0; y < 4; ++y) {
                const FrameDouble::Query& query = frame.queries[std::size_t(y)];
                EXPECT_EQ(query.channel, colorChannel);
                EXPECT_EQ(query.alphaChannel, alphaChannel);
                EXPECT_EQ(query.format, (alphaChannel < 0 ? 200 : 300) + (bits == 8 ? 0 : 1));
                EXPECT_EQ(query.rowBytes, 7 * (alphaChannel < 0 ? 3 : 4) * bits / 8);
                EXPECT_EQ(query.region.left, 0);
                EXPECT_EQ(query.region.right, 7);
                EXPECT_EQ(query.region.top, y);
                EXPECT_EQ(query.region.bottom, y + 1);
                EXPECT_EQ(query.region.width, 7);
                EXPECT_EQ(query.region.height, 1);
                EXPECT_EQ(query.argument0, 1);
                EXPECT_EQ(query.argument1, 0);
                EXPECT_EQ(query.argument2, 0);
                EXPECT_EQ(query.mode, -1);
            }
        }
}

TEST_F(PngSave, CorrectedPixelsAreTakenWhereTheyAreOffered)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame, 8, noAlpha, 0), IMGERR_NONE);
    EXPECT_EQ(save(frame, 16, noAlpha, QUtils::SAVE_CORRECTION_MODE_0), IMGERR_NONE);
    ASSERT_EQ(frame.queries.size(), 2u);
    EXPECT_EQ(frame.queries[0].mode, 3);
    EXPECT_EQ(frame.queries[0].channel, colorChannel);
    EXPECT_EQ(frame.queries[0].format, 200);
    EXPECT_EQ(frame.queries[0].rowBytes, 3);
    EXPECT_EQ(frame.queries[1].mode, 0);
    EXPECT_EQ(frame.queries[1].format, 201);
    EXPECT_EQ(frame.queries[1].rowBytes, 6);
}

TEST_F(PngSave, CompressionLevelCounts)
{
    FrameDouble frame(200, 200);
    frame.fill = fillRows;
    std::vector<std::size_t> sizes;
    for (const int compression : { 0, 1, 9 }) {
        QUtils::pngCompression = compression;
        EXPECT_EQ(save(frame, 8), IMGERR_NONE);
        EXPECT_EQ(readBack(name()).at(3, 2, 0), expectedSample(3, 2, 3, 0, 8));
        sizes.push_back(readFile(name()).size());
    }
    EXPECT_GT(sizes[0], 200u * 200 * 3);
    EXPECT_GT(sizes[0], sizes[1]);
    EXPECT_GE(sizes[1], sizes[2]);
}

TEST_F(PngSave, SettingsThatLibpngRefusesAreALibraryError)
{
    for (const int bits : { 0, 1, 4, 14, 32, -8 }) {
        FrameDouble frame(2, 2);
        EXPECT_EQ(save(frame, bits), IMGERR_LIBRARY) << bits;
        EXPECT_TRUE(frame.queries.empty());
    }
    for (const int compression : { 10, 13, -2, INT_MAX, INT_MIN }) {
        QUtils::pngCompression = compression;
        FrameDouble frame(2, 2);
        EXPECT_EQ(save(frame, 8), IMGERR_LIBRARY) << compression;
    }
}

TEST_F(PngSave, RowsThatCannotBeAskedForAreAMemoryError)
{
    FrameDouble frame(INT_MAX / 4 + 1, 1);
    EXPECT_EQ(save(frame, 8, 0), IMGERR_MEMORY);
    EXPECT_TRUE(frame.queries.empty());
}

/// Rows that no compression makes smaller.
void fillNoise(const FrameDouble::Query& query, unsigned char* dest)
{
    std::mt19937 random { unsigned(query.region.top) };
    for (int i = 0; i < query.rowBytes; ++i)
        dest[i] = std::uint8_t(random());
}

TEST_F(PngSave, RefusedRowStopsAtOnce)
{
    for (const int bits : { 8, 16 })
        for (const int refusedRow : { 0, 1, 3 }) {
            FrameDouble frame(20, 4);
            frame.refusedRow = refusedRow;
            EXPECT_EQ(save(frame, bits), IMGERR_WRITE);
            EXPECT_EQ(frame.queries.size(), std::size_t(refusedRow + 1));
            RecordingBuffer sink;
            EXPECT_NE(codeOf(LoadPNGFile(name().c_str(), sink, nullptr)), IMGERR_NONE);
        }
}

TEST_F(PngSave, RefusedRowLeavesWhatIsEncoded)
{
    FrameDouble frame(1000, 400);
    frame.fill = fillNoise;
    frame.refusedRow = 300;
    EXPECT_EQ(save(frame, 8, 0), IMGERR_WRITE);
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadPNGFile(name().c_str(), image, nullptr)), IMGERR_READ);
    std::vector<unsigned char> row(4000);
    frame.answer({ 0, 0, { 0, 270, 1000, 271, 1000, 1, 0, 0 }, 300, 4000, 1, 0, 0, -1 }, row.data());
    EXPECT_EQ(std::memcmp(image.row(270), row.data(), row.size()), 0);
    EXPECT_EQ(image.pixel(0, 300), 0u);
}

TEST_F(PngSave, RefusedRowOnTheCorrectedPathHasAnEmptyMessage)
{
    FrameDouble frame(2, 2);
    frame.refusedRow = 0;
    const CorrectingPlugin plugin(frame);
    const ImgError error = SavePNGFile_pb(name().c_str(), frame, 0, noAlpha, 0);
    EXPECT_EQ(error.code(), IMGERR_WRITE);
    EXPECT_STREQ(error.message(), "");
}

TEST_F(PngSave, ExceptionOfTheFramePassesAndTheFileIsClosed)
{
    FrameDouble frame(2, 2);
    frame.fill = [](const FrameDouble::Query& query, unsigned char*) {
        if (query.region.top == 1)
            throw std::runtime_error("row");
    };
    const int before = openFiles();
    EXPECT_THROW(save(frame, 8), std::runtime_error);
    EXPECT_THROW(save(frame, 16, 0), std::runtime_error);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(PngSave, EverySizeAndDepthComesBackThroughTheLoader)
{
    for (const int bits : { 8, 16 })
        for (const bool alpha : { false, true })
            for (const auto& [width, height] : { std::pair(1, 1), { 7, 4 }, { 1021, 517 } }) {
                FrameBuffer frame(width, height);
                for (int channel = 0; channel <= colorChannel; ++channel)
                    ASSERT_EQ(frame.addChannel("rgba", 1, 4, FrameSample::Packed8), channel);
                std::mt19937 random { unsigned(width) };
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x)
                        frame.rowPacked(colorChannel, y)[x]
                            = y % 3 == 0 ? std::uint32_t(random()) : 0x01020304u * std::uint32_t(x % 9);
                ASSERT_EQ(save(frame, bits, alpha ? colorChannel : noAlpha), IMGERR_NONE);

                QUtils::Image8 image;
                IMGINFO info {};
                ASSERT_EQ(codeOf(LoadPNGFile(name().c_str(), image, &info)), IMGERR_NONE);
                EXPECT_EQ(info.bitsPerPixel, bits * (alpha ? 4 : 3));
                int different = 0;
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x)
                        different += image.pixel(x, y)
                            != (frame.rowPacked(colorChannel, y)[x] | (alpha ? 0 : 0xFF000000u));
                EXPECT_EQ(different, 0) << bits << ' ' << alpha << ' ' << width;
            }
}

// --- Failing files -----------------------------------------------------------------------------------------

TEST_F(PngSave, FileThatCannotBeMadeIsAnOpenError)
{
    FrameDouble frame(1, 1);
    const ImgError error = SavePNGFile_pb("/nowhere/out.png", frame, 0, noAlpha, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_TRUE(frame.queries.empty());

    IMGINFO info {};
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SavePNGFile("/nowhere/out.png", &info, &pixel)), IMGERR_OPEN);
}

TEST_F(PngSave, FullDeviceIsAWriteErrorAtTheEndAndALibraryErrorBefore)
{
    const int before = openFiles();
    FrameDouble small(10, 10), large(1000, 1000);
    large.fill = fillNoise;
    EXPECT_EQ(codeOf(SavePNGFile_pb("/dev/full", small, 0, noAlpha, 0)), IMGERR_WRITE);
    EXPECT_EQ(codeOf(SavePNGFile_pb("/dev/full", large, 0, noAlpha, 0)), IMGERR_LIBRARY);
    EXPECT_LT(large.queries.size(), 1000u);

    // Others do not tell the two apart.
    for (FrameDouble* const frame : { &small, &large })
        EXPECT_EQ(
            codeOf(savePng("/dev/full", *frame, 0, noAlpha, 0, 5, 8, Conventions::Standard)), IMGERR_WRITE);

    IMGINFO info {};
    info.width = info.height = 1;
    info.bitsPerPixel = 32;
    info.numChannels = 4;
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SavePNGFile("/dev/full", &info, &pixel)), IMGERR_WRITE);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(PngSave, FullDeviceAfterARefusedRowIsARefusedRow)
{
    FrameDouble frame(10, 10);
    frame.refusedRow = 5;
    EXPECT_EQ(codeOf(SavePNGFile_pb("/dev/full", frame, 0, noAlpha, 0)), IMGERR_WRITE);
}

// --- The standard's conventions ----------------------------------------------------------------------------

TEST_F(PngSave, StandardRefusesWhatCannotBeWritten)
{
    const auto refused = [&](int width, int height, int compression, int bits) {
        FrameDouble frame(width, height);
        const int code
            = codeOf(savePng(name().c_str(), frame, 0, noAlpha, 0, compression, bits, Conventions::Standard));
        EXPECT_FALSE(std::filesystem::exists(name()));
        EXPECT_TRUE(frame.queries.empty());
        return code == IMGERR_UNSUPPORTED;
    };
    EXPECT_TRUE(refused(0, 1, 5, 8));
    EXPECT_TRUE(refused(1, 0, 5, 8));
    EXPECT_TRUE(refused(-1, 1, 5, 8));
    EXPECT_TRUE(refused(1, -1, 5, 8));
    EXPECT_TRUE(refused(INT_MAX, 1, 5, 8));
    EXPECT_TRUE(refused(1, 1, 10, 8));
    EXPECT_TRUE(refused(1, 1, -2, 8));
    EXPECT_TRUE(refused(1, 1, 5, 4));
}

TEST_F(PngSave, StandardWritesTheSameFile)
{
    FrameDouble frame(500, 20);
    frame.fill = fillRows;
    for (const int bits : { 8, 16 }) {
        EXPECT_EQ(save(frame, bits, 0), IMGERR_NONE);
        const Bytes renderer = readFile(name());
        EXPECT_EQ(
            codeOf(savePng(name().c_str(), frame, 0, 0, 0, 5, bits, Conventions::Standard)), IMGERR_NONE);
        EXPECT_TRUE(readFile(name()) == renderer);
    }
}

} // namespace
