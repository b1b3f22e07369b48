#include "rastkit/codecs/sgi.h"

#include "rastkit/buffers.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/load.h"
#include "support/recording_buffer.h"
#include "support/sgi_bytes.h"
#include "support/stream_test.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using QUtils::ImageF;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

Bytes counting(std::size_t count)
{
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t(1));
    return bytes;
}

// --- Header ------------------------------------------------------------------------------------------------

class SgiHeader : public StreamTest { };

TEST_F(SgiHeader, StartsAsAVerbatimFileOfFourChannels)
{
    sgi_header_info header;
    std::memset(&header, 0x55, sizeof header);
    initSGIHeaderInfo(header, 640, 0x12345, "frame.sgi");
    EXPECT_EQ(header.magic, 474);
    EXPECT_EQ(header.storage, 0);
    EXPECT_EQ(header.bytesPerChannel, 1);
    EXPECT_EQ(header.dimension, 3);
    EXPECT_EQ(header.xsize, 640);
    EXPECT_EQ(header.ysize, 0x2345);
    EXPECT_EQ(header.zsize, 4);
    EXPECT_EQ(header.minValue, 0);
    EXPECT_EQ(header.maxValue, 255);
    EXPECT_EQ(header.dummy, 0);
    EXPECT_EQ(header.colormapId, 0);
    EXPECT_STREQ(header.name, "frame.sgi");
    EXPECT_THAT(std::vector<char>(header.name + 9, header.name + 80), Each(0));
}

TEST_F(SgiHeader, NameOfEightyCharactersHasNoTerminator)
{
    sgi_header_info header;
    initSGIHeaderInfo(header, 1, 1, std::string(79, 'n').append("xy").c_str());
    EXPECT_EQ(header.name[78], 'n');
    EXPECT_EQ(header.name[79], 'x');
    EXPECT_EQ(header.colormapId, 0);
}

TEST_F(SgiHeader, FieldsStandInFileOrderWithTheMostSignificantByteFirst)
{
    SgiBytes file { .storage = 1,
        .bytesPerChannel = 2,
        .dimension = 0x0304,
        .width = 0x0506,
        .height = 0x0708,
        .channels = 0x090A,
        .minValue = 0x80000001,
        .maxValue = 0xFFFFFFFE,
        .name = "n",
        .colormap = 0xCDCDCDCD };
    sgi_header_info header;
    std::FILE* const in = over(file.bytes());
    EXPECT_EQ(readSGIHeaderInfo(in, header), 1);
    EXPECT_EQ(std::ftell(in), 512);
    EXPECT_EQ(header.magic, 474);
    EXPECT_EQ(header.storage, 1);
    EXPECT_EQ(header.bytesPerChannel, 2);
    EXPECT_EQ(header.dimension, 0x0304);
    EXPECT_EQ(header.xsize, 0x0506);
    EXPECT_EQ(header.ysize, 0x0708);
    EXPECT_EQ(header.zsize, 0x090A);
    EXPECT_EQ(header.minValue, 0x80000001L);
    EXPECT_EQ(header.maxValue, 0xFFFFFFFEL);
    EXPECT_STREQ(header.name, "n");
    EXPECT_EQ(header.colormapId, 0xCDCDCDCDL);

    const TempDir folder;
    {
        const QUtils::FilePtr out(std::fopen((folder / "out").c_str(), "wb"));
        EXPECT_EQ(writeSGIHeaderInfo(out, header), 1);
    }
    EXPECT_EQ(readFile(folder / "out"), file.header());
}

TEST_F(SgiHeader, NoStreamAndAnEndedStreamAreRefused)
{
    sgi_header_info header;
    initSGIHeaderInfo(header, 7, 4, "");
    EXPECT_EQ(readSGIHeaderInfo(nullptr, header), 0);
    EXPECT_EQ(writeSGIHeaderInfo(nullptr, header), 0);
    std::FILE* const ended = over({ 1 });
    std::fgetc(ended), std::fgetc(ended);
    EXPECT_EQ(readSGIHeaderInfo(ended, header), 0);
    EXPECT_EQ(writeSGIHeaderInfo(ended, header), 0);
    EXPECT_EQ(header.xsize, 7);
}

TEST_F(SgiHeader, ShortReadsAndWritesAreNotTold)
{
    sgi_header_info header;
    Bytes bytes = SgiBytes().header();
    bytes.resize(8);
    EXPECT_EQ(readSGIHeaderInfo(over(bytes), header), 1);
    EXPECT_EQ(header.magic, 474);
    EXPECT_EQ(header.xsize, 1);
    EXPECT_EQ(header.ysize, 0);
    const QUtils::FilePtr full(std::fopen("/dev/full", "wb"));
    EXPECT_EQ(writeSGIHeaderInfo(full, header), 1);
}

// --- Single rows -------------------------------------------------------------------------------------------

class SgiRows : public StreamTest {
protected:
    using Row = void (*)(std::FILE*, const sgi_header_info&, int, unsigned int*);

    std::vector<unsigned int> decode(
        Row row, const Bytes& bytes, int width, int bytesPerChannel = 1, int offset = 0)
    {
        sgi_header_info header;
        initSGIHeaderInfo(header, width, 1, "");
        header.bytesPerChannel = char(bytesPerChannel);
        std::vector<unsigned int> samples(std::size_t(width), 0xDEADu);
        std::FILE* const file = over(bytes);
        row(file, header, offset, samples.data());
        m_end = std::ftell(file);
        return samples;
    }

    long m_end = 0;
};

TEST_F(SgiRows, VerbatimSamplesAreReadFromTheOffsetOn)
{
    EXPECT_THAT(decode(readSGIrow, { 9, 9, 1, 2, 0xFF, 9 }, 3, 1, 2), ElementsAre(1, 2, 0xFF));
    EXPECT_EQ(m_end, 5);
}

TEST_F(SgiRows, OfTwoBytesTheFirstCounts)
{
    EXPECT_THAT(decode(readSGIrow, { 0x12, 0xAB, 0xFE, 0xDC }, 2, 2), ElementsAre(0x12, 0xFE));
    EXPECT_THAT(decode(readSGIrow, { 0x12, 0xAB, 0xFE, 0xDC }, 2, 7), ElementsAre(0x12, 0xFE));
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x82, 0x12, 0xAB, 0xFE, 0xDC, 2, 0x34, 0x56 }, 4, 2),
        ElementsAre(0x12, 0xFE, 0x34, 0x34));
    EXPECT_EQ(m_end, 8);
}

TEST_F(SgiRows, PacketsAreLiteralSamplesAndRuns)
{
    EXPECT_THAT(
        decode(readSGIrowCompressed, { 9, 0x83, 1, 2, 3, 0x02, 7, 9 }, 5, 1, 1), ElementsAre(1, 2, 3, 7, 7));
    EXPECT_EQ(m_end, 7) << "A row that is full needs no packet that ends it.";
}

TEST_F(SgiRows, PacketOfNoSamplesEndsTheRow)
{
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x02, 7, 0x00, 0x05, 5 }, 5), ElementsAre(7, 7, 0, 0, 0));
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x80, 0x05, 5 }, 2), ElementsAre(0, 0));
}

TEST_F(SgiRows, PacketPastTheEndOfTheRowIsCut)
{
    Bytes literal = counting(128);
    literal[0] = 0xFF;
    EXPECT_THAT(decode(readSGIrowCompressed, literal, 2), ElementsAre(2, 3));
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x7F, 6 }, 3), ElementsAre(6, 6, 6));
}

TEST_F(SgiRows, MissingBytesAre255)
{
    EXPECT_THAT(decode(readSGIrow, { 1 }, 3), ElementsAre(1, 255, 255));
    EXPECT_THAT(decode(readSGIrow, { 1, 2, 3 }, 3, 2), ElementsAre(1, 3, 255));
    EXPECT_THAT(decode(readSGIrow, { 1 }, 2, 1, -5), ElementsAre(255, 255));
    EXPECT_THAT(decode(readSGIrowCompressed, {}, 300), Each(255u));
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x82, 1 }, 4), ElementsAre(1, 255, 255, 255));
    EXPECT_THAT(decode(readSGIrowCompressed, { 0x02 }, 3), ElementsAre(255, 255, 255));
}

// --- The renderer's pictures -------------------------------------------------------------------------------

class SgiLoad : public testing::Test {
protected:
    int load(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        writeFile(m_name, bytes);
        return codeOf(QUtils::loadSgi(m_name.c_str(), m_sink, &m_info, conventions));
    }
    int load(const SgiBytes& file, Conventions conventions = Conventions::Renderer)
    {
        return load(file.bytes(), conventions);
    }
    int loadStandard(const SgiBytes& file) { return load(file, Conventions::Standard); }
    int loadHeader(const SgiBytes& file, Conventions conventions = Conventions::Renderer)
    {
        writeFile(m_name, file.bytes());
        return codeOf(QUtils::loadSgiHeader(m_name.c_str(), &m_info, conventions));
    }
    /// The pixels from top left to bottom right.
    std::vector<unsigned int> pixels() const
    {
        std::vector<unsigned int> result;
        for (int y = 0; y < m_sink.height; ++y)
            for (int x = 0; x < m_sink.width; ++x)
                result.push_back(m_sink.at(x, y));
        return result;
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "image.sgi";
    RecordingBuffer m_sink;
    IMGINFO m_info { 11, 22, 33, 44, 55, 66, 77, 88, 99, 111, 222, 333, 444 };
};

TEST_F(SgiLoad, GreyIsOpaqueAndTheBottomRowComesFirst)
{
    EXPECT_EQ(load(SgiBytes { .width = 2, .height = 2, .data = { 1, 2, 3, 4 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF030303, 0xFF040404, 0xFF010101, 0xFF020202));
    EXPECT_THAT(
        m_sink.order, ElementsAre(std::pair(0, 1), std::pair(1, 1), std::pair(0, 0), std::pair(1, 0)));
}

TEST_F(SgiLoad, ChannelsAreOnePlaneAfterTheOther)
{
    EXPECT_EQ(load(SgiBytes { .width = 2, .channels = 3, .data = counting(6) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF010305, 0xFF020406));
    EXPECT_EQ(load(SgiBytes { .height = 2, .channels = 4, .data = counting(8) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x08020406, 0x07010305));
}

TEST_F(SgiLoad, OfOtherNumbersOfChannelsTheRendererMakesTransparentBlack)
{
    for (const int channels : { 0, 2, 5, 65535 }) {
        EXPECT_EQ(load(SgiBytes { .width = 2, .channels = channels, .data = counting(20) }), IMGERR_NONE);
        EXPECT_THAT(pixels(), ElementsAre(0u, 0u)) << channels;
        EXPECT_EQ(load(SgiBytes { .storage = 1, .width = 2, .channels = channels }), IMGERR_NONE);
        EXPECT_THAT(pixels(), ElementsAre(0u, 0u)) << channels;
    }
}

TEST_F(SgiLoad, RendererKeepsTheUpperByteOfSixteenBits)
{
    EXPECT_EQ(
        load(SgiBytes { .bytesPerChannel = 2, .width = 2, .data = { 0x12, 0xAB, 0xFF, 0x00 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF121212, 0xFFFFFFFF));
    // Rows longer than the pieces in which they are taken apart.
    SgiBytes wide { .bytesPerChannel = 2, .width = 2500, .channels = 4, .data = Bytes(20000) };
    for (std::size_t i = 0; i < 10000; ++i)
        wide.data[2 * i] = std::uint8_t(i * 7);
    EXPECT_EQ(load(wide), IMGERR_NONE);
    for (unsigned int x = 0; x < 2500; ++x) {
        const auto plane = [&](unsigned int c) { return (c * 2500 + x) * 7 & 0xFF; };
        ASSERT_EQ(m_sink.at(int(x), 0), plane(3) << 24 | plane(0) << 16 | plane(1) << 8 | plane(2)) << x;
    }
}

TEST_F(SgiLoad, RendererTakesOtherDepthsForSixteenBitsButCountsRowsByThem)
{
    // Of three bytes a sample: rows are six bytes apart, and have four.
    EXPECT_EQ(
        load(SgiBytes { .bytesPerChannel = 3, .width = 2, .height = 2, .data = counting(12) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF070707, 0xFF090909, 0xFF010101, 0xFF030303));
    EXPECT_EQ(
        load(SgiBytes { .bytesPerChannel = 0, .width = 1, .height = 2, .data = counting(12) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF010101, 0xFF010101));
    // A negative number puts all rows but the first in front of the file.
    EXPECT_EQ(load(SgiBytes { .bytesPerChannel = 0x80, .width = 9, .height = 2, .data = Bytes(99, 7) }),
        IMGERR_NONE);
    EXPECT_EQ(m_sink.at(8, 1), 0xFF070707u);
    EXPECT_EQ(m_sink.at(0, 0), 0xFFFFFFFFu);
}

TEST_F(SgiLoad, RendererReadsEveryOtherStorageAsVerbatim)
{
    EXPECT_EQ(load(SgiBytes { .storage = 0xFF, .width = 2, .data = { 1, 2 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF010101, 0xFF020202));
}

TEST_F(SgiLoad, PacketsOfEachRowStandAtTheirOffset)
{
    SgiBytes file { .width = 3, .height = 2 };
    file.packets({ { 0x83, 1, 2, 3, 0 }, { 0x01, 9, 0x02, 8, 0 } });
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(
        pixels(), ElementsAre(0xFF090909, 0xFF080808, 0xFF080808, 0xFF010101, 0xFF020202, 0xFF030303));
    std::swap_ranges(file.data.begin(), file.data.begin() + 4, file.data.begin() + 4);
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF010101u);
}

TEST_F(SgiLoad, LengthsInTheTableDoNotCount)
{
    SgiBytes file { .width = 3 };
    file.packets({ { 0x83, 1, 2, 3, 0 } });
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        file.data[7] = 1;
        EXPECT_EQ(load(file, conventions), IMGERR_NONE);
        EXPECT_THAT(pixels(), ElementsAre(0xFF010101, 0xFF020202, 0xFF030303));
    }
}

/// Rows of noise in packets of all lengths; the packets of rows follow each other by planes, or by rows.
SgiBytes noise(int width, int height, int channels, bool byRows)
{
    SgiBytes file { .storage = 1, .width = width, .height = height, .channels = channels };
    const std::size_t entries = std::size_t(height) * std::size_t(channels);
    std::vector<std::pair<std::size_t, Bytes>> rows; // The entry in the tables, and the packets.
    unsigned int state = 1;
    for (int a = 0; a < (byRows ? height : channels); ++a)
        for (int b = 0; b < (byRows ? channels : height); ++b) {
            Bytes packets;
            for (int x = 0; x < width;) {
                state = state * 1664525 + 1013904223;
                const int count = std::min(1 + int(state >> 24 & 0x7E), width - x);
                const bool isLiteral = (state >> 20 & 1) != 0;
                packets.push_back(std::uint8_t(count | (isLiteral ? 0x80 : 0)));
                for (int i = 0; i < (isLiteral ? count : 1); ++i)
                    packets.push_back(std::uint8_t((state >> 8) * unsigned(i + 1)));
                x += count;
            }
            packets.push_back(0);
            const int channel = byRows ? b : a, row = byRows ? a : b;
            rows.emplace_back(std::size_t(channel) * std::size_t(height) + std::size_t(row), packets);
        }
    Bytes tables(entries * 8);
    file.data.clear();
    for (const auto& [entry, packets] : rows) {
        Bytes offset;
        SgiBytes::put32(offset, unsigned(512 + tables.size() + file.data.size()));
        std::copy(offset.begin(), offset.end(), tables.begin() + long(entry * 4));
        file.data.insert(file.data.end(), packets.begin(), packets.end());
    }
    file.data.insert(file.data.begin(), tables.begin(), tables.end());
    return file;
}

TEST_F(SgiLoad, LargePicturesAreReadThroughWindowsAsSingleRowsAre)
{
    for (const bool byRows : { false, true }) {
        const SgiBytes file = noise(1000, 300, 3, byRows);
        const Bytes bytes = file.bytes();
        ASSERT_GT(bytes.size(), 300000u);
        writeFile(m_name, bytes);
        Image8 image;
        ASSERT_EQ(codeOf(LoadSGIFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
        sgi_header_info header;
        const FilePtr in(std::fopen(m_name.c_str(), "rb"));
        ASSERT_EQ(readSGIHeaderInfo(in, header), 1);
        for (std::size_t y = 0; y < 300; ++y) {
            unsigned int planes[3][1000];
            for (std::size_t c = 0; c < 3; ++c) {
                const std::uint8_t* const entry = bytes.data() + 512 + (c * 300 + 299 - y) * 4;
                const int offset = entry[0] << 24 | entry[1] << 16 | entry[2] << 8 | entry[3];
                readSGIrowCompressed(in, header, offset, planes[c]);
            }
            for (std::size_t x = 0; x < 1000; ++x)
                ASSERT_EQ(image.pixel(int(x), int(y)),
                    0xFF000000 | planes[0][x] << 16 | planes[1][x] << 8 | planes[2][x])
                    << x << ' ' << y;
        }
    }
}

TEST_F(SgiLoad, LargeVerbatimPicturesAreReadThroughWindows)
{
    SgiBytes file { .width = 999, .height = 301, .channels = 4, .data = Bytes(999 * 301 * 4) };
    unsigned int state = 1;
    for (std::uint8_t& byte : file.data)
        byte = std::uint8_t((state = state * 1664525 + 1013904223) >> 24);
    writeFile(m_name, file.bytes());
    Image8 image;
    ASSERT_EQ(codeOf(LoadSGIFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
    const auto sample = [&](int c, int x, int y) {
        return unsigned(file.data[(std::size_t(c) * 301 + std::size_t(300 - y)) * 999 + std::size_t(x)]);
    };
    for (int y = 0; y < 301; ++y)
        for (int x = 0; x < 999; ++x)
            ASSERT_EQ(image.pixel(x, y),
                sample(3, x, y) << 24 | sample(0, x, y) << 16 | sample(1, x, y) << 8 | sample(2, x, y));
}

TEST_F(SgiLoad, RendererEndsSixteenBitPacketsAtTheUpperByteOfTheirFirstControl)
{
    SgiBytes file { .bytesPerChannel = 2, .width = 2 };
    file.packets({ { 0x00, 0x82, 0x12, 0x34, 0x56, 0x78, 0, 0 } });
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF000000, 0xFF000000));
    file.packets({ { 0x82, 0x12, 0x34, 0x56, 0x78 } });
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF121212, 0xFF565656));
}

TEST_F(SgiLoad, RowThatEndsEarlyKeepsNothingOfTheRowBefore)
{
    SgiBytes file { .width = 3, .height = 2 };
    file.packets({ { 0x03, 9 }, { 0x01, 8, 0 } });
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF080808u);
    EXPECT_EQ(m_sink.at(2, 0), 0xFF000000u);
}

TEST_F(SgiLoad, MissingBytesAre255AndNoFailureForTheRenderer)
{
    const SgiBytes verbatim { .width = 3, .height = 2, .channels = 3, .data = counting(18) };
    const Bytes whole = verbatim.bytes();
    for (std::size_t length = 512; length <= whole.size(); ++length) {
        EXPECT_EQ(load(Bytes(whole.begin(), whole.begin() + long(length))), IMGERR_NONE);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 3; ++x)
                for (int c = 0; c < 3; ++c) {
                    const std::size_t at = std::size_t(c * 6 + (1 - y) * 3 + x);
                    EXPECT_EQ(m_sink.at(x, y) >> (16 - 8 * c) & 0xFF, 512 + at < length ? at + 1 : 255u);
                }
    }
}

TEST_F(SgiLoad, HeaderThatIsCutIsOneOfZerosForTheRenderer)
{
    const Bytes whole = SgiBytes { .width = 3, .height = 2, .data = counting(6) }.bytes();
    for (std::size_t length = 0; length < 512; ++length) {
        const int code = load(Bytes(whole.begin(), whole.begin() + long(length)));
        EXPECT_EQ(code, length < 2 ? IMGERR_FORMAT : IMGERR_NONE) << length;
        EXPECT_EQ(m_sink.height, length < 10 ? 0 : 2) << length;
    }
}

TEST_F(SgiLoad, MissingTablesPointNowhere)
{
    SgiBytes file { .width = 2, .height = 2, .channels = 3 };
    file.packets({ { 0x02, 1 }, { 0x02, 2 }, { 0x02, 3 }, { 0x02, 4 }, { 0x02, 5 }, { 0x02, 6 } });
    const Bytes whole = file.bytes();
    for (std::size_t length = 512; length < whole.size(); ++length) {
        EXPECT_EQ(load(Bytes(whole.begin(), whole.begin() + long(length))), IMGERR_NONE);
        for (std::size_t row = 0; row < 6; ++row) {
            const unsigned int sample = m_sink.at(1, row % 2 == 0 ? 1 : 0) >> (16 - row / 2 * 8) & 0xFF;
            EXPECT_EQ(sample, length >= 560 + 2 * row + 2 ? row + 1 : 255u) << length << ' ' << row;
        }
    }
}

TEST_F(SgiLoad, SizesOfTheLoaderAreSignedAndThoseOfTheHeaderReaderAreNot)
{
    const SgiBytes file { .bytesPerChannel = 2, .width = 65535, .height = 32768, .channels = 3 };
    m_sink.refuse = true;
    EXPECT_EQ(load(file), IMGERR_MEMORY);
    EXPECT_EQ(m_sink.width, 65535);
    EXPECT_EQ(m_sink.height, 32768);
    EXPECT_EQ(m_info.width, -1);
    EXPECT_EQ(m_info.height, -32768);
    EXPECT_EQ(loadHeader(file), IMGERR_NONE);
    EXPECT_EQ(m_info.width, 65535);
    EXPECT_EQ(m_info.height, 32768);
    EXPECT_EQ(m_info.numChannels, 3);
    EXPECT_EQ(m_info.bitsPerPixel, 48);
    EXPECT_EQ(m_info.bytesPerPixel, 0);
    EXPECT_EQ(m_info.displayWindowHeight, 0);
}

TEST_F(SgiLoad, EmptyPicturesAreNoFailureForTheRenderer)
{
    for (const int storage : { 0, 1 }) {
        EXPECT_EQ(load(SgiBytes { .storage = storage, .width = 0, .height = 3 }), IMGERR_NONE);
        EXPECT_EQ(load(SgiBytes { .storage = storage, .width = 3, .height = 0 }), IMGERR_NONE);
        EXPECT_TRUE(m_sink.pixels.empty());
    }
}

TEST_F(SgiLoad, OtherMagicNumbersAreNoSgiFile)
{
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        const SgiBytes file { .magic = 475 };
        EXPECT_EQ(load(file, conventions), IMGERR_FORMAT);
        EXPECT_EQ(loadHeader(file, conventions), IMGERR_FORMAT);
        EXPECT_EQ(m_info.width, 11);
        EXPECT_EQ(m_sink.initCalls, 0);
    }
}

TEST_F(SgiLoad, MissingFileTellsTheReason)
{
    const ImgError error = LoadSGIFile((m_dir / "none.sgi").c_str(), m_sink, nullptr);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.message(), "Failed to open file: 2");
    EXPECT_EQ(codeOf(LoadSGIHeader((m_dir / "none.sgi").c_str(), &m_info)), IMGERR_OPEN);
}

TEST_F(SgiLoad, InfoMayBeNull)
{
    writeFile(m_name, SgiBytes().bytes());
    EXPECT_EQ(codeOf(LoadSGIFile(m_name.c_str(), m_sink, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadSGIHeader(m_name.c_str(), nullptr)), IMGERR_NONE);
}

TEST_F(SgiLoad, ExceptionsOfTheSinkPassThroughAndReleaseIt)
{
    writeFile(m_name, SgiBytes { .width = 2, .height = 2, .data = counting(4) }.bytes());
    ThrowingSink sink;
    sink.throwAtPixel = 3;
    EXPECT_THROW((void)LoadSGIFile(m_name.c_str(), sink, nullptr), std::runtime_error);
    EXPECT_EQ(sink.freeCalls, 1);
    ThrowingSink early;
    early.throwInInit = true;
    EXPECT_THROW((void)LoadSGIFile(m_name.c_str(), early, nullptr), std::runtime_error);
    EXPECT_EQ(early.freeCalls, 1);
}

// --- What every other program sees -------------------------------------------------------------------------

TEST_F(SgiLoad, StandardReadsTwoChannelsAsGreyAndAlpha)
{
    EXPECT_EQ(loadStandard(SgiBytes { .width = 2, .channels = 2, .data = counting(4) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x03010101, 0x04020202));
    EXPECT_EQ(m_info.numChannels, 2);
    EXPECT_EQ(m_info.bitsPerPixel, 16);
    EXPECT_EQ(m_info.bytesPerPixel, 2);
}

TEST_F(SgiLoad, StandardReadsTheFirstFourOfManyChannels)
{
    EXPECT_EQ(loadStandard(SgiBytes { .channels = 6, .data = counting(6) }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x04010203));
    EXPECT_EQ(m_info.numChannels, 4);
    SgiBytes packets { .channels = 5 };
    packets.packets({ { 1, 1 }, { 1, 2 }, { 1, 3 }, { 1, 4 }, {} });
    EXPECT_EQ(loadStandard(packets), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0x04010203));
}

TEST_F(SgiLoad, StandardTakesOneOrTwoDimensionsForOneChannel)
{
    EXPECT_EQ(
        loadStandard(SgiBytes { .dimension = 2, .height = 2, .channels = 3, .data = { 1, 2 } }), IMGERR_NONE);
    EXPECT_THAT(pixels(), ElementsAre(0xFF020202, 0xFF010101));
    for (const int height : { 0, 1, 9 }) {
        EXPECT_EQ(loadStandard(SgiBytes {
                      .dimension = 1, .width = 2, .height = height, .channels = 0, .data = { 1, 2 } }),
            IMGERR_NONE);
        EXPECT_THAT(pixels(), ElementsAre(0xFF010101, 0xFF020202));
        EXPECT_EQ(m_info.height, 1);
    }
}

TEST_F(SgiLoad, StandardKeepsSixteenBitsAsFloats)
{
    for (const int channels : { 1, 2, 3, 4 }) {
        const int width = 300; // More than a piece.
        SgiBytes file { .bytesPerChannel = 2, .width = width, .channels = channels };
        file.data.clear();
        for (int i = 0; i < width * channels; ++i)
            SgiBytes::put16(file.data, i == 0 ? 65535 : i * 50);
        EXPECT_EQ(loadStandard(file), IMGERR_NONE);
        EXPECT_TRUE(m_sink.pixels.empty());
        EXPECT_EQ(m_info.bitsPerPixel, 16 * channels);
        const auto sample = [&](int c, int x) {
            const int i = c * width + x;
            return float(i == 0 ? 65535 : i * 50) * (1 / 65535.0f);
        };
        for (int x = 0; x < width; ++x) {
            const bool isGrey = channels < 3;
            const float alpha = channels % 2 == 0 ? sample(channels - 1, x) : 1.0f;
            ASSERT_THAT((m_sink.pixelsF[{ x, 0 }]),
                ElementsAre(sample(0, x), sample(isGrey ? 0 : 1, x), sample(isGrey ? 0 : 2, x), alpha))
                << x << ' ' << channels;
        }
        EXPECT_EQ((m_sink.pixelsF[{ 0, 0 }])[0], 1.0f);
    }
}

TEST_F(SgiLoad, StandardReadsSixteenBitPackets)
{
    SgiBytes file { .bytesPerChannel = 2, .width = 5 };
    // The upper byte of a control has no meaning.
    file.packets({ { 0x00, 0x82, 0xFF, 0xFF, 0x80, 0x00, 0x77, 0x03, 0x00, 0x01, 0, 0 } });
    EXPECT_EQ(loadStandard(file), IMGERR_NONE);
    const float step = 1 / 65535.0f;
    EXPECT_EQ((m_sink.pixelsF[{ 0, 0 }])[0], 1.0f);
    EXPECT_EQ((m_sink.pixelsF[{ 1, 0 }])[1], 32768 * step);
    EXPECT_EQ((m_sink.pixelsF[{ 4, 0 }])[2], step);
}

TEST_F(SgiLoad, StandardReadsDitheredColours)
{
    const SgiBytes file { .width = 6, .colormap = 1, .data = { 0x00, 0xFF, 0x07, 0x38, 0xC0, 0x52 } };
    EXPECT_EQ(loadStandard(file), IMGERR_NONE);
    // 0x52: red 2 of 7, green 2 of 7, blue 1 of 3.
    EXPECT_THAT(
        pixels(), ElementsAre(0xFF000000, 0xFFFFFFFF, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFF494955));
    EXPECT_EQ(m_info.numChannels, 3);
    EXPECT_EQ(m_info.bitsPerPixel, 8);
    EXPECT_EQ(load(file), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(2, 0), 0xFF070707u) << "The renderer does not look at the number.";
}

TEST_F(SgiLoad, StandardReadsNoIndicesIntoMapsThatFilesLack)
{
    for (const unsigned int colormap : { 2u, 3u }) {
        EXPECT_EQ(loadStandard(SgiBytes { .colormap = colormap }), IMGERR_UNSUPPORTED);
        EXPECT_EQ(loadHeader(SgiBytes { .colormap = colormap }, Conventions::Standard), IMGERR_UNSUPPORTED);
        EXPECT_EQ(load(SgiBytes { .colormap = colormap }), IMGERR_NONE);
        EXPECT_EQ(
            loadStandard(SgiBytes { .channels = 3, .colormap = colormap, .data = counting(3) }), IMGERR_NONE);
    }
    EXPECT_EQ(loadStandard(SgiBytes { .colormap = 0xCDCDCDCD }), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF404040u);
    EXPECT_EQ(loadStandard(SgiBytes { .channels = 3, .colormap = 1, .data = counting(3) }), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF010203u);
}

TEST_F(SgiLoad, StandardRefusesHeadersThatMeanNothing)
{
    const SgiBytes broken[]
        = { { .storage = 2 }, { .bytesPerChannel = 0 }, { .bytesPerChannel = 3 }, { .bytesPerChannel = 0xFF },
              { .dimension = 0 }, { .dimension = 4 }, { .dimension = 65535 }, { .width = 0 }, { .height = 0 },
              { .channels = 0 }, { .dimension = 2, .height = 0 }, { .dimension = 1, .width = 0 } };
    for (const SgiBytes& file : broken) {
        EXPECT_EQ(loadStandard(file), IMGERR_FORMAT)
            << file.storage << file.bytesPerChannel << file.dimension;
        EXPECT_EQ(loadHeader(file, Conventions::Standard), IMGERR_FORMAT);
    }
    Bytes cut = SgiBytes().header();
    cut.pop_back();
    EXPECT_EQ(load(cut, Conventions::Standard), IMGERR_FORMAT);
    EXPECT_EQ(m_sink.initCalls, 0);
}

TEST_F(SgiLoad, StandardKeepsThePixelsThatHaveAllTheirSamples)
{
    const Bytes whole = SgiBytes { .width = 3, .height = 2, .channels = 3, .data = counting(18) }.bytes();
    for (std::size_t length = 512; length <= whole.size(); ++length) {
        const int code = load(Bytes(whole.begin(), whole.begin() + long(length)), Conventions::Standard);
        EXPECT_EQ(code, length < whole.size() ? IMGERR_READ : IMGERR_NONE);
        const std::size_t inLastPlane = length < 524 ? 0 : length - 524;
        EXPECT_EQ(m_sink.pixels.size(), inLastPlane) << length;
        EXPECT_EQ(m_sink.has(0, 0), inLastPlane > 3);
        EXPECT_EQ(m_sink.freeCalls, 0);
    }
    SgiBytes numbers { .bytesPerChannel = 2, .width = 2, .data = counting(3) };
    EXPECT_EQ(loadStandard(numbers), IMGERR_READ);
    EXPECT_EQ(m_sink.pixelsF.size(), 1u);
}

TEST_F(SgiLoad, StandardGoesOnBehindABrokenRow)
{
    SgiBytes file { .width = 3, .height = 4 };
    file.packets({ { 0x03, 1 }, { 0x01, 2, 0 }, { 0x7F, 3 }, { 0x03, 4 } });
    EXPECT_EQ(loadStandard(file), IMGERR_READ);
    EXPECT_EQ(m_sink.at(2, 3), 0xFF010101u);
    EXPECT_EQ(m_sink.at(0, 2), 0xFF020202u);
    EXPECT_FALSE(m_sink.has(1, 2)) << "The row ended.";
    EXPECT_EQ(m_sink.at(2, 1), 0xFF030303u) << "A run past the end is cut.";
    EXPECT_EQ(m_sink.at(2, 0), 0xFF040404u);
    EXPECT_EQ(m_sink.pixels.size(), 10u);
}

TEST_F(SgiLoad, EveryTruncationOfPacketsIsReadOrRefused)
{
    for (const int bytesPerChannel : { 1, 2 }) {
        SgiBytes file { .bytesPerChannel = bytesPerChannel, .width = 3, .height = 2, .channels = 2 };
        const Bytes row = bytesPerChannel == 1 ? Bytes { 0x82, 1, 2, 1, 3, 0 }
                                               : Bytes { 0, 0x82, 1, 1, 2, 2, 0, 1, 3, 3, 0, 0 };
        file.packets({ row, row, row, row });
        const Bytes whole = file.bytes();
        for (std::size_t length = 512; length <= whole.size(); ++length) {
            const Bytes cut(whole.begin(), whole.begin() + long(length));
            EXPECT_EQ(load(cut), IMGERR_NONE);
            // The packet that ends the last row may be missing.
            const bool isWhole = length >= whole.size() - std::size_t(bytesPerChannel);
            EXPECT_EQ(load(cut, Conventions::Standard), isWhole ? IMGERR_NONE : IMGERR_READ) << length;
        }
    }
}

TEST_F(SgiLoad, SinksOfRowsAndOfPixelsGetTheSame)
{
    SgiBytes deep { .bytesPerChannel = 2, .width = 40, .height = 3, .channels = 4, .data = counting(960) };
    deep.data.resize(900);
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
        const int code = load(deep, conventions);
        Image8 image;
        EXPECT_EQ(codeOf(QUtils::loadSgi(m_name.c_str(), image, nullptr, conventions)), code);
        ImageF floats;
        EXPECT_EQ(codeOf(QUtils::loadSgi(m_name.c_str(), floats, nullptr, conventions)), code);
        for (const auto& [position, argb] : m_sink.pixels)
            EXPECT_EQ(image.pixel(position.first, position.second), argb);
        for (const auto& [position, rgba] : m_sink.pixelsF)
            EXPECT_THAT(rgba, ElementsAreArray(floats.row(position.second) + position.first * 4, 4));
        EXPECT_EQ(
            m_sink.pixels.size() + m_sink.pixelsF.size(), conventions == Conventions::Renderer ? 120u : 90u);
    }
}

} // namespace
