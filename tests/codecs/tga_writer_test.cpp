#include "rastkit/buffers.h"
#include "rastkit/codecs/tga.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <random>
#include <string>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::FrameBuffer;
using QUtils::FrameSample;
using QUtils::saveTga;

constexpr int uncompressed = 2, runLength = 10;

/// The header of a written file.
Bytes header(int imageType, int width, int height, int bits)
{
    const auto low = [](int value) { return std::uint8_t(value); };
    const auto high = [](int value) { return std::uint8_t(value >> 8); };
    return { 0, 0, low(imageType), 0, 0, 0, 0, 0, 0, 0, 0, 0, low(width), high(width), low(height),
        high(height), low(bits), std::uint8_t(bits == 32 ? 0x28 : 0x20) };
}

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// --- Rows of packets ---------------------------------------------------------------------------------------

/// The packets of a row that is spelt with one letter per pixel, with the pixels' other bytes left out.
class TgaPackets : public testing::TestWithParam<int> {
protected:
    static constexpr std::uint8_t otherByte = 0x33;

    Bytes packetsOf(const std::string& letters)
    {
        Bytes row;
        for (const char letter : letters) {
            row.insert(row.end(), std::size_t(GetParam() - 1), otherByte);
            row.push_back(std::uint8_t(letter));
        }
        row.shrink_to_fit(); // A sanitizer sees each byte read behind the row.
        const TempDir folder;
        {
            const FilePtr file(std::fopen((folder / "row").c_str(), "wb"));
            EXPECT_EQ(codeOf(writeTgaRleEncodedRow(file, row.data(), GetParam(), int(letters.size()))),
                IMGERR_NONE);
        }
        return withoutOtherBytes(readFile(folder / "row"));
    }

private:
    Bytes withoutOtherBytes(const Bytes& packets)
    {
        Bytes kept;
        for (std::size_t i = 0; i < packets.size();) {
            const std::uint8_t first = packets[i++];
            kept.push_back(first);
            for (int n = first & 0x80 ? 1 : first + 1; n > 0; --n) {
                for (int other = 1; other < GetParam(); ++other)
                    EXPECT_EQ(packets.at(i++), otherByte);
                kept.push_back(packets.at(i++));
            }
        }
        return kept;
    }
};

INSTANTIATE_TEST_SUITE_P(PixelBytes, TgaPackets, testing::Values(1, 2, 3, 4, 7));

TEST_P(TgaPackets, ThreeEqualPixelsAreARun)
{
    EXPECT_EQ(packetsOf("AAAB"), (Bytes { 0x82, 'A', 0x00, 'B' }));
    EXPECT_EQ(packetsOf("BAAA"), (Bytes { 0x00, 'B', 0x82, 'A' }));
    EXPECT_EQ(packetsOf("AAABBB"), (Bytes { 0x82, 'A', 0x82, 'B' }));
}

TEST_P(TgaPackets, PairsStayRaw)
{
    EXPECT_EQ(packetsOf("A"), (Bytes { 0x00, 'A' }));
    EXPECT_EQ(packetsOf("AA"), (Bytes { 0x01, 'A', 'A' }));
    EXPECT_EQ(packetsOf("AAB"), (Bytes { 0x02, 'A', 'A', 'B' }));
    EXPECT_EQ(packetsOf("AABBCC"), (Bytes { 0x05, 'A', 'A', 'B', 'B', 'C', 'C' }));
    EXPECT_EQ(packetsOf("ABBCCC"), (Bytes { 0x02, 'A', 'B', 'B', 0x82, 'C' }));
}

TEST_P(TgaPackets, RunsAreCutAfterAHundredAndTwentyEightPixels)
{
    EXPECT_EQ(packetsOf(std::string(128, 'A')), (Bytes { 0xFF, 'A' }));
    EXPECT_EQ(packetsOf(std::string(129, 'A')), (Bytes { 0xFF, 'A', 0x00, 'A' }));
    EXPECT_EQ(packetsOf(std::string(130, 'A')), (Bytes { 0xFF, 'A', 0x01, 'A', 'A' }));
    EXPECT_EQ(packetsOf(std::string(131, 'A')), (Bytes { 0xFF, 'A', 0x82, 'A' }));
}

TEST_P(TgaPackets, RawStretchesAreCutAfterAHundredAndTwentyEightPixels)
{
    std::string letters;
    for (int i = 0; i < 65; ++i)
        letters += "AB";
    Bytes expected { 0x7F };
    expected.insert(expected.end(), letters.begin(), letters.begin() + 128);
    EXPECT_EQ(packetsOf(letters.substr(0, 128)), expected);
    EXPECT_EQ(packetsOf(letters), joined({ expected, { 0x01, 'A', 'B' } }));
    EXPECT_EQ(packetsOf(letters + "CCC"), joined({ expected, { 0x01, 'A', 'B', 0x82, 'C' } }));
}

TEST(TgaPacketsFailure, WidthBelowOneWritesNothing)
{
    EXPECT_EQ(codeOf(writeTgaRleEncodedRow(nullptr, nullptr, 3, 0)), IMGERR_NONE);
    EXPECT_EQ(codeOf(writeTgaRleEncodedRow(nullptr, nullptr, 3, -5)), IMGERR_NONE);
}

TEST(TgaPacketsFailure, FullDeviceIsAWriteError)
{
    const FilePtr full(std::fopen("/dev/full", "wb"));
    ASSERT_TRUE(full);
    std::setvbuf(full, nullptr, _IONBF, 0);
    unsigned char row[12] = {};
    EXPECT_EQ(codeOf(writeTgaRleEncodedRow(full, row, 3, 4)), IMGERR_WRITE);
    EXPECT_EQ(codeOf(writeTgaRleEncodedRow(full, row, 0, 4)), IMGERR_WRITE);
}

// --- Arrays ------------------------------------------------------------------------------------------------

IMGINFO arrayInfo(int width, int height, int bits, int bytes)
{
    IMGINFO info {};
    info.width = width;
    info.height = height;
    info.bitsPerPixel = bits;
    info.numChannels = info.bytesPerPixel = bytes;
    return info;
}

struct Saved {
    int code = -1;
    Bytes bytes;
};

Saved saveArray(IMGINFO info, const Bytes& pixels)
{
    const TempDir folder;
    std::vector<unsigned int> words((pixels.size() + 3) / 4);
    if (!pixels.empty())
        std::memcpy(words.data(), pixels.data(), pixels.size());
    const int code = codeOf(SaveTGAFile((folder / "out.tga").c_str(), &info, words.data()));
    return { code, readFile(folder / "out.tga") };
}

TEST(TgaSave, WordsAreWrittenAsTheyLieInMemory)
{
    const TempDir folder;
    unsigned int pixels[] = { 0x04030201, 0x08070605, 0x0C0B0A09 };
    IMGINFO info = arrayInfo(1, 3, 32, 4);
    EXPECT_EQ(codeOf(SaveTGAFile((folder / "out.tga").c_str(), &info, pixels)), IMGERR_NONE);
    EXPECT_EQ(readFile(folder / "out.tga"),
        joined({ header(2, 1, 3, 32), { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 } }));
}

TEST(TgaSave, ThreeBytePixelsAreTakenPacked)
{
    const Bytes pixels { 1, 2, 3, 4, 5, 6, 7, 8, 9 };
    const Saved saved = saveArray(arrayInfo(3, 1, 24, 3), pixels);
    EXPECT_EQ(saved.code, IMGERR_NONE);
    EXPECT_EQ(saved.bytes, joined({ header(2, 3, 1, 24), pixels }));
}

TEST(TgaSave, DepthGoesToTheHeaderAndBytesToTheData)
{
    const Saved saved = saveArray(arrayInfo(1, 1, 16, 2), { 1, 2 });
    EXPECT_EQ(saved.bytes, joined({ header(2, 1, 1, 16), { 1, 2 } }));
    const Saved mixed = saveArray(arrayInfo(1, 1, 32, 1), { 7 });
    EXPECT_EQ(mixed.bytes, joined({ header(2, 1, 1, 32), { 7 } }));
}

TEST(TgaSave, LowBytesOfLargeSizesAreWritten)
{
    const Saved saved = saveArray(arrayInfo(0x10203, 1, 8, 1), Bytes(0x10203, 5));
    EXPECT_EQ(saved.code, IMGERR_NONE);
    EXPECT_EQ(saved.bytes, joined({ header(2, 0x0203, 1, 8), Bytes(0x10203, 5) }));
}

TEST(TgaSave, EmptyPicturesAreAHeader)
{
    for (const auto& [width, height] : { std::pair(0, 0), { 0, 7 }, { 7, 0 } }) {
        const Saved saved = saveArray(arrayInfo(width, height, 24, 3), {});
        EXPECT_EQ(saved.code, IMGERR_NONE);
        EXPECT_EQ(saved.bytes, header(2, width, height, 24));
    }
}

TEST(TgaSave, SizesThatHaveNoPixelsAreAWriteError)
{
    for (const auto& [width, height] : { std::pair(-1, 1), { 1, -1 }, { -2, -2 }, { INT_MIN, INT_MIN } })
        EXPECT_EQ(saveArray(arrayInfo(width, height, 24, 3), {}).code, IMGERR_WRITE);
    EXPECT_EQ(saveArray(arrayInfo(1, 1, 0, 0), {}).code, IMGERR_WRITE);
    EXPECT_EQ(saveArray(arrayInfo(1, 1, 24, -3), {}).code, IMGERR_WRITE);
    EXPECT_EQ(saveArray(arrayInfo(INT_MAX, INT_MAX, 24, INT_MAX), {}).code, IMGERR_WRITE);
}

TEST(TgaSave, FloatsAreNotSupportedAndNoFileIsMade)
{
    const TempDir folder;
    IMGINFO info = arrayInfo(1, 1, 32, 4);
    float pixels[4] = {};
    EXPECT_EQ(codeOf(SaveTGAFile((folder / "out.tga").c_str(), &info, pixels)), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(folder / "out.tga"));
}

// --- Frames ------------------------------------------------------------------------------------------------

/// Puts the process-wide compression back.
class TgaSaveFrame : public testing::Test {
protected:
    ~TgaSaveFrame() override { QUtils::tgaCompression = uncompressed; }

    Saved save(QUtils::PixelBufferInterface& frame, int compression, int alphaChannel = -1, int flags = 0)
    {
        QUtils::tgaCompression = compression;
        const int code = codeOf(SaveTGAFile_pb(name().c_str(), frame, 0, alphaChannel, flags));
        return { code, readFile(name()) };
    }
    std::string name() const { return m_folder / "out.tga"; }

private:
    TempDir m_folder;
};

/// Fills each row with its own number, and each byte of a row's end with another.
void fillRows(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int i = 0; i < query.rowBytes; ++i)
        dest[i] = std::uint8_t(query.region.top * 16 + i);
}

TEST_F(TgaSaveFrame, RowsAreWrittenFromTheTop)
{
    FrameDouble frame(2, 3);
    frame.fill = fillRows;
    const Saved rgb = save(frame, uncompressed);
    EXPECT_EQ(rgb.code, IMGERR_NONE);
    EXPECT_EQ(rgb.bytes,
        joined(
            { header(2, 2, 3, 24), { 0, 1, 2, 3, 4, 5, 16, 17, 18, 19, 20, 21, 32, 33, 34, 35, 36, 37 } }));

    frame.height = 1;
    const Saved rgba = save(frame, uncompressed, 1);
    EXPECT_EQ(rgba.code, IMGERR_NONE);
    EXPECT_EQ(rgba.bytes, joined({ header(2, 2, 1, 32), { 0, 1, 2, 3, 4, 5, 6, 7 } }));
}

TEST_F(TgaSaveFrame, RowsAreAskedForOneByOne)
{
    for (const int compression : { uncompressed, runLength, 3 })
        for (const int alphaChannel : { -1, 5 }) {
            FrameDouble frame(7, 4);
            EXPECT_EQ(save(frame, compression, alphaChannel).code, IMGERR_NONE);
            ASSERT_EQ(frame.queries.size(), 4u);
            for (int y = 0; y < 4; ++y) {
                const FrameDouble::Query& query = frame.queries[std::size_t(y)];
                EXPECT_EQ(query.channel, 0);
                EXPECT_EQ(query.alphaChannel, alphaChannel);
                EXPECT_EQ(query.format, alphaChannel < 0 ? 200 : 300);
                EXPECT_EQ(query.rowBytes, alphaChannel < 0 ? 21 : 28);
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

TEST_F(TgaSaveFrame, CorrectedPixelsAreTakenWhereTheyAreOffered)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame, uncompressed, -1, 0).code, IMGERR_NONE);
    EXPECT_EQ(save(frame, runLength, -1, QUtils::SAVE_CORRECTION_MODE_0).code, IMGERR_NONE);
    ASSERT_EQ(frame.queries.size(), 2u);
    EXPECT_EQ(frame.queries[0].mode, 3);
    EXPECT_EQ(frame.queries[1].mode, 0);
}

TEST_F(TgaSaveFrame, PacketsEndWithTheRow)
{
    FrameDouble frame(4, 2);
    frame.fill = [](const FrameDouble::Query& query, unsigned char* dest) {
        std::memset(dest, 9, std::size_t(query.rowBytes));
    };
    EXPECT_EQ(
        save(frame, runLength).bytes, joined({ header(10, 4, 2, 24), { 0x83, 9, 9, 9, 0x83, 9, 9, 9 } }));
    EXPECT_EQ(save(frame, runLength, 0).bytes,
        joined({ header(10, 4, 2, 32), { 0x83, 9, 9, 9, 9, 0x83, 9, 9, 9, 9 } }));
}

TEST_F(TgaSaveFrame, OtherCompressionsWriteTheHeaderAlone)
{
    FrameDouble frame(3, 2);
    for (const int compression : { 3, 0, -1, 258, 266 }) {
        const Saved saved = save(frame, compression);
        EXPECT_EQ(saved.code, IMGERR_NONE);
        EXPECT_EQ(saved.bytes, header(compression & 0xFF, 3, 2, 24));
    }
    frame.refusedRow = 1;
    EXPECT_EQ(save(frame, 3).code, IMGERR_WRITE);
}

TEST_F(TgaSaveFrame, RefusedRowLeavesTheRowsBeforeIt)
{
    FrameDouble frame(2, 3);
    frame.fill = fillRows;
    frame.refusedRow = 1;
    const Saved raw = save(frame, uncompressed);
    EXPECT_EQ(raw.code, IMGERR_WRITE);
    EXPECT_EQ(raw.bytes, joined({ header(2, 2, 3, 24), { 0, 1, 2, 3, 4, 5 } }));
    const Saved packets = save(frame, runLength);
    EXPECT_EQ(packets.code, IMGERR_WRITE);
    EXPECT_EQ(packets.bytes, joined({ header(10, 2, 3, 24), { 1, 0, 1, 2, 3, 4, 5 } }));
    EXPECT_EQ(frame.queries.size(), 4u);
}

TEST_F(TgaSaveFrame, EmptyFramesAreAHeader)
{
    for (const int compression : { uncompressed, runLength })
        for (const auto& [width, height] : { std::pair(0, 0), { 0, 2 }, { 2, 0 }, { 2, -1 } }) {
            FrameDouble frame(width, height);
            const Saved saved = save(frame, compression);
            EXPECT_EQ(saved.code, IMGERR_NONE);
            EXPECT_EQ(saved.bytes, header(compression, width, height, 24));
        }
}

TEST_F(TgaSaveFrame, RowsThatCannotBeAskedForAreAMemoryError)
{
    for (const int compression : { uncompressed, runLength })
        for (const int width : { INT_MAX, INT_MAX / 4 + 1, -1, INT_MIN }) {
            FrameDouble frame(width, 1);
            const Saved saved = save(frame, compression, 0);
            EXPECT_EQ(saved.code, IMGERR_MEMORY);
            EXPECT_EQ(saved.bytes, header(compression, width, 1, 32));
            EXPECT_TRUE(frame.queries.empty());
        }
}

TEST_F(TgaSaveFrame, RowsLongerThanABlockAreComplete)
{
    FrameDouble frame(200000, 3);
    Bytes rows(3 * 600000);
    std::mt19937 random;
    for (std::uint8_t& byte : rows)
        byte = std::uint8_t(random());
    frame.fill = [&](const FrameDouble::Query& query, unsigned char* dest) {
        std::copy_n(rows.begin() + query.region.top * 600000, query.rowBytes, dest);
    };
    const Saved raw = save(frame, uncompressed);
    EXPECT_EQ(raw.code, IMGERR_NONE);
    EXPECT_TRUE(raw.bytes == joined({ header(2, 200000, 3, 24), rows }));

    // Noise is stored in raw packets of 128 pixels, the last one of 64.
    const Saved packets = save(frame, runLength);
    EXPECT_EQ(packets.code, IMGERR_NONE);
    EXPECT_EQ(packets.bytes.size(), 18 + rows.size() + 3 * 1563);
}

TEST_F(TgaSaveFrame, EverySizeAndDepthComesBack)
{
    for (const int compression : { uncompressed, runLength })
        for (const bool alpha : { false, true })
            for (const auto& [width, height] :
                { std::pair(1, 1), { 7, 4 }, { 130, 3 }, { 1, 300 }, { 1021, 517 } }) {
                FrameBuffer frame(width, height);
                ASSERT_EQ(frame.addChannel("rgba", 1, 4, FrameSample::Packed8), 0);
                std::mt19937 random { unsigned(width) };
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x) // Runs of different lengths, and noise.
                        frame.rowPacked(0, y)[x] = y % 3 == 0 ? std::uint32_t(random())
                                                              : 0x01020304u * std::uint32_t(x / (y + 1) % 9);
                ASSERT_EQ(save(frame, compression, alpha ? 0 : -1).code, IMGERR_NONE);

                QUtils::Image8 image;
                IMGINFO info {};
                ASSERT_EQ(codeOf(LoadTGAFile(name().c_str(), image, &info)), IMGERR_NONE);
                EXPECT_EQ(info.bitsPerPixel, alpha ? 32 : 24);
                int different = 0;
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x)
                        different
                            += image.pixel(x, y) != (frame.rowPacked(0, y)[x] | (alpha ? 0 : 0xFF000000u));
                EXPECT_EQ(different, 0) << compression << ' ' << alpha << ' ' << width;
            }
}

// --- Failing files -----------------------------------------------------------------------------------------

TEST_F(TgaSaveFrame, FileThatCannotBeMadeIsAnOpenError)
{
    FrameDouble frame(1, 1);
    const ImgError error = SaveTGAFile_pb("/nowhere/out.tga", frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_TRUE(frame.queries.empty());

    IMGINFO info = arrayInfo(1, 1, 32, 4);
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SaveTGAFile("/nowhere/out.tga", &info, &pixel)), IMGERR_OPEN);
}

TEST_F(TgaSaveFrame, FullDeviceIsAWriteError)
{
    for (const int compression : { uncompressed, runLength, 3 }) {
        QUtils::tgaCompression = compression;
        FrameDouble frame(100, 100);
        EXPECT_EQ(codeOf(SaveTGAFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_WRITE);
    }
    IMGINFO info = arrayInfo(1, 1, 32, 4);
    unsigned int pixel = 0;
    EXPECT_EQ(codeOf(SaveTGAFile("/dev/full", &info, &pixel)), IMGERR_WRITE);
}

// --- The standard's conventions ----------------------------------------------------------------------------

TEST_F(TgaSaveFrame, StandardRefusesWhatTheFormatHasNoPlaceFor)
{
    const auto refused = [&](int width, int height, int imageType) {
        FrameDouble frame(width, height);
        const int code = codeOf(saveTga(name().c_str(), frame, 0, -1, 0, imageType, Conventions::Standard));
        EXPECT_FALSE(std::filesystem::exists(name()));
        EXPECT_TRUE(frame.queries.empty());
        return code == IMGERR_UNSUPPORTED;
    };
    EXPECT_TRUE(refused(65536, 1, uncompressed));
    EXPECT_TRUE(refused(1, 65536, runLength));
    EXPECT_TRUE(refused(0, 1, uncompressed));
    EXPECT_TRUE(refused(1, -1, uncompressed));
    EXPECT_TRUE(refused(1, 1, 3));
}

TEST_F(TgaSaveFrame, StandardWritesTheSameFile)
{
    FrameDouble frame(65535, 2);
    frame.fill = fillRows;
    for (const int imageType : { uncompressed, runLength }) {
        const Saved renderer = save(frame, imageType, 0);
        EXPECT_EQ(
            codeOf(saveTga(name().c_str(), frame, 0, 0, 0, imageType, Conventions::Standard)), IMGERR_NONE);
        EXPECT_TRUE(readFile(name()) == renderer.bytes);
    }
}

} // namespace
