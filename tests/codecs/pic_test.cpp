#include "rastkit/codecs/pic.h"

#include "rastkit/buffers.h"
#include "rastkit/load.h"
#include "support/pic_bytes.h"
#include "support/recording_buffer.h"
#include "support/stream_test.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int allColors = 0xE0, onlyAlpha = 0x10;

class PicLoad : public testing::Test {
protected:
    int load(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        writeFile(m_name, bytes);
        return codeOf(QUtils::loadPic(m_name.c_str(), m_sink, &m_info, conventions));
    }
    int load(const PicBytes& file, Conventions conventions = Conventions::Renderer)
    {
        return load(file.bytes(), conventions);
    }
    int loadStandard(const PicBytes& file) { return load(file, Conventions::Standard); }
    int loadHeader(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        writeFile(m_name, bytes);
        return codeOf(QUtils::loadPicHeader(m_name.c_str(), &m_info, conventions));
    }
    std::vector<unsigned int> pixels() const
    {
        std::vector<unsigned int> result;
        for (int y = 0; y < m_sink.height; ++y)
            for (int x = 0; x < m_sink.width; ++x)
                result.push_back(m_sink.at(x, y));
        return result;
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "image.pic";
    RecordingBuffer m_sink;
    IMGINFO m_info { 11, 22, 33, 44, 55, 66, 77, 88, 99, 111, 222, 333, 444 };
};

TEST_F(PicLoad, UncompressedPixelsHaveTheirBytesInTheOrderOfTheChannels)
{
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0xF0 } }, .width = 2, .data = { 1, 2, 3, 4, 5, 6, 7, 8 } }),
        IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x04010203, 0x08050607));
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0x50 } }, .width = 2, .data = { 1, 2, 3, 4 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x02000100, 0x04000300));
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0x20 } }, .data = { 9 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x00000009));
}

TEST_F(PicLoad, TheFirstRowIsTheTopOne)
{
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0x20 } }, .width = 2, .height = 2, .data = { 1, 2, 3, 4 } }),
        IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(
        m_sink.order, ElementsAre(std::pair(0, 0), std::pair(1, 0), std::pair(0, 1), std::pair(1, 1)));
}

TEST_F(PicLoad, PacketsFollowEachOtherInEachRow)
{
    const PicBytes file { .packets = { { 0, allColors }, { 0, onlyAlpha } },
        .height = 2,
        .data = { 1, 2, 3, 0xA0, 4, 5, 6, 0xB0 } };
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        EXPECT_EQ(load(file, conventions), IMGERR_NONE);
        EXPECT_THAT(pixels(), ElementsAre(0xA0010203, 0xB0040506));
        EXPECT_EQ(m_info.width, 1);
        EXPECT_EQ(m_info.height, 2);
        EXPECT_EQ(m_info.numChannels, 4);
        EXPECT_EQ(m_info.bitsPerPixel, 32);
        EXPECT_EQ(m_info.bytesPerPixel, 4);
        EXPECT_EQ(m_info.dataWindowX, 66);
    }
}

TEST_F(PicLoad, WithoutAnAlphaPacketTheRendererSeesTransparentPixels)
{
    const PicBytes file { .packets = { { 0, allColors } }, .data = { 1, 2, 3 } };
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x00010203));
    EXPECT_EQ(loadStandard(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF010203));
    EXPECT_EQ(m_info.numChannels, 3);
}

TEST_F(PicLoad, PacketsOfOneChannelAreCountedOnceAndTheirBitsAreJoined)
{
    EXPECT_EQ(
        load(PicBytes { .packets = { { 0, 0x80 }, { 0, 0xC0 } }, .data = { 0x0F, 0x70, 5 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x007F0500));
    EXPECT_EQ(m_info.numChannels, 2);
}

TEST_F(PicLoad, PureRunsFillTheRow)
{
    const PicBytes file {
        .packets = { { 1, allColors } }, .width = 5, .data = { 2, 1, 2, 3, 0, 9, 9, 9, 3, 4, 5, 6 }
    };
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x010203, 0x010203, 0x040506, 0x040506, 0x040506));
}

TEST_F(PicLoad, MixedRunsAreLiteralOrShortOrLong)
{
    PicBytes file { .packets = { { 2, 0x20 } }, .width = 2 + 2 + 128 + 300 + 128 };
    file.data = { 1, 7, 8, 129, 9, 255, 10, 128, 1, 44, 11, 127 };
    for (int i = 0; i < 128; ++i)
        file.data.push_back(std::uint8_t(i + 100));
    EXPECT_EQ(load(file), IMGERR_NONE);
    std::vector<unsigned int> expected { 7, 8, 9, 9 };
    expected.insert(expected.end(), 128, 10);
    expected.insert(expected.end(), 300, 11);
    for (unsigned int i = 0; i < 128; ++i)
        expected.push_back(i + 100);
    EXPECT_EQ(pixels(), expected);
}

TEST_F(PicLoad, LongRunsMayBeShortOrEmpty)
{
    EXPECT_EQ(
        load(PicBytes { .packets = { { 2, 0x20 } }, .width = 3, .data = { 128, 0, 0, 9, 128, 0, 3, 7 } }),
        IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(7, 7, 7));
}

TEST_F(PicLoad, RunsPastTheRowAreBroken)
{
    const PicBytes broken[] = {
        { .packets = { { 1, 0x20 } }, .width = 3, .data = { 4, 1, 1, 1, 1, 1 } },
        { .packets = { { 1, 0x20 } }, .width = 3, .data = { 2, 1, 2, 1, 1, 1 } },
        { .packets = { { 2, 0x20 } }, .width = 3, .data = { 3, 1, 2, 3, 4, 5 } },
        { .packets = { { 2, 0x20 } }, .width = 3, .data = { 131, 1, 2, 3 } },
        { .packets = { { 2, 0x20 } }, .width = 3, .data = { 128, 0, 4, 1, 1 } },
        { .packets = { { 2, 0x20 } }, .width = 3, .data = { 128, 0xFF, 0xFF, 1, 1 } },
    };
    for (const PicBytes& file : broken) {
        EXPECT_EQ(load(file), IMGERR_READ);
        EXPECT_THAT(m_sink.pixels, IsEmpty());
        EXPECT_EQ(loadStandard(file), IMGERR_READ);
    }
}

TEST_F(PicLoad, CutFilesKeepTheRowsBefore)
{
    for (const int compression : { 0, 1, 2 }) {
        const Bytes row = compression == 0 ? Bytes { 1, 2, 3, 1, 2, 3, 0x80, 0x80 }
            : compression == 1             ? Bytes { 2, 1, 2, 3, 2, 0x80 }
                                           : Bytes { 1, 1, 2, 3, 1, 2, 3, 128, 0, 2, 0x80 };
        PicBytes file { .packets = { { compression, allColors }, { compression, onlyAlpha } },
            .width = 2,
            .height = 2,
            .data = row };
        file.data.insert(file.data.end(), row.begin(), row.end());
        const Bytes whole = file.bytes();
        for (std::size_t length = 112; length < whole.size(); ++length) {
            const Bytes cut(whole.begin(), whole.begin() + long(length));
            EXPECT_EQ(load(cut), IMGERR_READ) << compression << ' ' << length;
            EXPECT_EQ(m_sink.pixels.size(), length < 112 + row.size() ? 0u : 2u);
            EXPECT_EQ(m_sink.freeCalls, 0);
            EXPECT_EQ(load(cut, Conventions::Standard), IMGERR_READ);
            for (const auto& [position, pixel] : m_sink.pixels)
                EXPECT_EQ(pixel, 0x80010203u);
            EXPECT_EQ(m_sink.pixels.size(),
                (length < 112 + row.size() ? 0u : 2u)
                    + (compression == 0 && (length - 112) % row.size() == 7 ? 1u : 0u));
        }
        EXPECT_EQ(load(whole), IMGERR_NONE);
        EXPECT_THAT(pixels(), Each(0x80010203u));
    }
}

TEST_F(PicLoad, HeaderThatIsCutIsAReadErrorForTheRenderer)
{
    const Bytes whole = PicBytes { .packets = { { 0, allColors }, { 0, onlyAlpha } } }.bytes();
    for (std::size_t length = 0; length < 112; ++length) {
        const Bytes cut(whole.begin(), whole.begin() + long(length));
        EXPECT_EQ(load(cut), IMGERR_READ) << length;
        EXPECT_EQ(loadHeader(cut), IMGERR_READ) << length;
        EXPECT_EQ(load(cut, Conventions::Standard), IMGERR_FORMAT) << length;
        EXPECT_EQ(loadHeader(cut, Conventions::Standard), IMGERR_FORMAT) << length;
        EXPECT_EQ(m_sink.initCalls, 0);
    }
}

TEST_F(PicLoad, WrongMagicOrIdIsNoPicFile)
{
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
        for (const std::size_t place : { 0u, 3u, 88u, 91u }) {
            Bytes bytes = PicBytes { .packets = { { 0, 0x20 } }, .data = { 1 } }.bytes();
            bytes[place] ^= 1;
            EXPECT_EQ(load(bytes, conventions), IMGERR_FORMAT);
            EXPECT_EQ(loadHeader(bytes, conventions), IMGERR_FORMAT);
        }
}

TEST_F(PicLoad, OtherDepthsCompressionsAndChannelsAreUnsupported)
{
    PicBytes deep { .packets = { { 0, 0x20 } }, .data = { 1, 1 } };
    deep.bitsPerChannel = 16;
    const PicBytes unsupported[] = { deep, { .packets = { { 0x12, 0x20 } }, .data = { 1 } },
        { .packets = { { 0, 0x28 } }, .data = { 1, 1 } },
        { .packets = { { 0, 0x20 }, { 0, 0x01 } }, .data = { 1, 1 } },
        { .packets = { { 3, 0x20 } }, .data = { 1 } }, { .packets = { { 15, 0x20 } }, .data = { 1 } } };
    for (const PicBytes& file : unsupported)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
            EXPECT_EQ(load(file, conventions), IMGERR_UNSUPPORTED) << file.packets[0].first;
    EXPECT_EQ(loadHeader(unsupported[2].bytes()), IMGERR_UNSUPPORTED);
    EXPECT_EQ(m_info.width, 1);
    EXPECT_EQ(loadHeader(unsupported[4].bytes()), IMGERR_NONE) << "Found when the pixels are read.";
}

TEST_F(PicLoad, HeaderFieldsThatMeanNothingMayBeAnything)
{
    Bytes bytes = PicBytes { .packets = { { 0, 0x20 } }, .data = { 7 } }.bytes();
    std::fill(bytes.begin() + 4, bytes.begin() + 88, std::uint8_t(0xFF));
    std::fill(bytes.begin() + 96, bytes.begin() + 104, std::uint8_t(0xFF));
    EXPECT_EQ(load(bytes), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(7));
}

TEST_F(PicLoad, SizesAreUnsigned)
{
    EXPECT_EQ(loadHeader(PicBytes { .packets = { { 0, 0x20 } }, .width = 65535, .height = 32768 }.bytes()),
        IMGERR_NONE);
    EXPECT_EQ(m_info.width, 65535);
    EXPECT_EQ(m_info.height, 32768);
}

TEST_F(PicLoad, EmptyPicturesAreNoFailureForTheRenderer)
{
    for (const auto& [width, height] : { std::pair(0, 3), std::pair(3, 0), std::pair(0, 65535) }) {
        PicBytes file { .packets = { { 1, 0x20 } }, .width = width, .height = height };
        EXPECT_EQ(load(file), IMGERR_NONE);
        EXPECT_THAT(m_sink.pixels, IsEmpty());
        EXPECT_EQ(loadStandard(file), IMGERR_FORMAT);
        file.packets[0].first = 5;
        EXPECT_EQ(load(file), height == 0 ? IMGERR_NONE : IMGERR_UNSUPPORTED);
    }
}

TEST_F(PicLoad, PacketsWithoutChannelsAreBlack)
{
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0 } }, .width = 2, .height = 2 }), IMGERR_NONE);
    EXPECT_THAT(pixels(), Each(0u));
    EXPECT_EQ(m_info.numChannels, 0);
    EXPECT_EQ(load(PicBytes { .packets = { { 2, 0 }, { 0, 0x20 } }, .width = 2, .data = { 129, 1, 2 } }),
        IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(1, 2));
    EXPECT_EQ(load(PicBytes { .packets = { { 2, 0 } }, .width = 2, .data = { 1 } }), IMGERR_NONE);
    EXPECT_EQ(load(PicBytes { .packets = { { 2, 0 } }, .width = 2 }), IMGERR_READ);
    // By the standard conventions that is no picture.
    EXPECT_EQ(loadStandard(PicBytes { .packets = { { 0, 0 } }, .width = 2, .height = 2 }), IMGERR_FORMAT);
}

TEST_F(PicLoad, LongChainsAreReadAsFarAsTheyAreInProportion)
{
    PicBytes file { .packets = std::vector<std::pair<int, int>>(300, { 0, 0x20 }), .width = 2 };
    file.data.assign(600, 0);
    file.data[598] = 5;
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(5, 0));
    // Sixty thousand pixels out of four bytes, three hundred times over.
    file.packets.assign(300, { 2, 0x20 });
    file.width = 60000;
    file.data.clear();
    for (int i = 0; i < 300; ++i)
        file.data.insert(file.data.end(), { 128, 0xEA, 0x60, 1 });
    EXPECT_EQ(load(file), IMGERR_READ);
    file.packets.assign(16, { 2, 0x20 });
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(59999, 0), 1u);
}

TEST_F(PicLoad, PicturesThatTakeNothingFromTheFileAreNoLargerThanPicturesAre)
{
    EXPECT_EQ(load(PicBytes { .packets = { { 0, 0 } }, .width = 6000, .height = 2 }), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(5999, 1), 0u);
    // Four thousand million pixels out of a hundred bytes, refused before the first one.
    struct CountingSink : ImgBuffer {
        void init(int, int) override { }
        int isValid() override { return 1; }
        void freeMem() override { }
        void setPixelF(int, int, const float*) override { ++stored; }
        void setPixel(int, int, unsigned int) override { ++stored; }
        std::uint64_t stored = 0;
    } sink;
    writeFile(m_name, PicBytes { .packets = { { 0, 0 } }, .width = 0xFFFF, .height = 0xFFFF }.bytes());
    EXPECT_EQ(codeOf(QUtils::loadPic(m_name.c_str(), sink, nullptr, Conventions::Renderer)), IMGERR_READ);
    EXPECT_EQ(sink.stored, 0u);
}

TEST_F(PicLoad, ASinkThatIsNotValidIsFilledByTheRendererAndRefusedByOthers)
{
    const PicBytes file { .packets = { { 0, 0x20 } }, .data = { 7 } };
    m_sink.refuse = true;
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(7));
    EXPECT_EQ(loadStandard(file), IMGERR_MEMORY);
    EXPECT_THAT(m_sink.pixels, IsEmpty());
    Image8 image;
    image.setMaxBytes(1);
    EXPECT_EQ(codeOf(LoadPICFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    EXPECT_FALSE(image.isValid());
}

TEST_F(PicLoad, ExceptionsOfTheSinkPassThroughAndCodesAreReturned)
{
    writeFile(m_name, PicBytes { .packets = { { 0, 0x20 } }, .width = 2, .data = { 1, 2 } }.bytes());
    ThrowingSink sink;
    sink.throwAtPixel = 1;
    EXPECT_THROW((void)LoadPICFile(m_name.c_str(), sink, nullptr), std::runtime_error);
    EXPECT_EQ(sink.freeCalls, 1);

    class CodeSink : public RecordingBuffer {
        void setPixel(int, int, unsigned int) override { throw IMGERR_LIBRARY; }
    } codes;
    EXPECT_EQ(codeOf(LoadPICFile(m_name.c_str(), codes, nullptr)), IMGERR_LIBRARY);
    EXPECT_EQ(codes.freeCalls, 1);
}

TEST_F(PicLoad, MissingFileTellsTheReason)
{
    const ImgError error = LoadPICFile((m_dir / "none.pic").c_str(), m_sink, nullptr);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.message(), "Failed to open file: 2");
    EXPECT_EQ(codeOf(LoadPICHeader((m_dir / "none.pic").c_str(), &m_info)), IMGERR_OPEN);
}

TEST_F(PicLoad, InfoMayBeNull)
{
    writeFile(m_name, PicBytes { .packets = { { 0, 0x20 } }, .data = { 7 } }.bytes());
    EXPECT_EQ(codeOf(LoadPICFile(m_name.c_str(), m_sink, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadPICHeader(m_name.c_str(), nullptr)), IMGERR_NONE);
}

TEST_F(PicLoad, LargePicturesCrossTheBlocksOfTheReader)
{
    PicBytes file { .packets = { { 2, allColors }, { 0, onlyAlpha } }, .width = 1001, .height = 200 };
    std::vector<unsigned int> expected;
    unsigned int state = 1;
    for (int y = 0; y < 200; ++y) {
        std::vector<unsigned int> row;
        while (row.size() < 1001) {
            state = state * 1664525 + 1013904223;
            const std::size_t count = std::min<std::size_t>(2 + (state >> 24 & 0x7E), 1001 - row.size());
            const bool isLiteral = (state >> 20 & 1) != 0 || count < 2;
            file.data.push_back(std::uint8_t(isLiteral ? count - 1 : count + 127));
            for (std::size_t i = 0; i < count; ++i) {
                const unsigned int pixel = (state * unsigned(isLiteral ? i + 1 : 1)) >> 8;
                if (isLiteral || i == 0)
                    for (const int shift : { 16, 8, 0 })
                        file.data.push_back(std::uint8_t(pixel >> shift));
                row.push_back(pixel & 0xFFFFFF);
            }
        }
        for (std::size_t x = 0; x < 1001; ++x) {
            file.data.push_back(std::uint8_t(x * 3));
            row[x] |= unsigned(x * 3 & 0xFF) << 24;
        }
        expected.insert(expected.end(), row.begin(), row.end());
    }
    ASSERT_GT(file.data.size(), 500000u);
    writeFile(m_name, file.bytes());
    Image8 image;
    ASSERT_EQ(codeOf(LoadPICFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 1001; ++x)
            ASSERT_EQ(image.pixel(x, y), expected[std::size_t(y) * 1001 + std::size_t(x)]) << x << ' ' << y;
}

class PicHeader : public StreamTest { };

TEST_F(PicHeader, CommonPartLeavesTheStreamAtTheFirstPixel)
{
    std::FILE* const file = over(PicBytes { .packets = { { 2, allColors }, { 1, onlyAlpha } },
        .width = 5,
        .height = 6,
        .data = { 77 } }.bytes());
    IMGINFO info {};
    QUtils::Table<QUtils::PICChannel, 100> channels;
    EXPECT_EQ(QUtils::LoadPICHeader_common(file, &info, channels), IMGERR_NONE);
    EXPECT_EQ(std::fgetc(file), 77);
    EXPECT_EQ(info.width, 5);
    EXPECT_EQ(info.height, 6);
    EXPECT_EQ(info.numChannels, 4);
    ASSERT_EQ(channels.count(), 2);
    EXPECT_EQ(channels[0].bitsPerChannel, 8);
    EXPECT_EQ(channels[0].compressionType, 2);
    EXPECT_EQ(channels[0].channelMask, allColors);
    EXPECT_EQ(channels[1].compressionType, 1);
    EXPECT_EQ(channels[1].channelMask, onlyAlpha);
}

} // namespace
