#include "qutils/raw/ri_reader.h"

#include "support/open_files.h"
#include "support/quimg_frame.h"
#include "support/sweep.h"

#include <ImfThreading.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

namespace {

using namespace testing_support;
using QUtils::RIFile;
using QUtils::RIReader;

/// Where each region chunk ends in a file that was not changed.
std::vector<std::size_t> regionEnds(const Bytes& bytes)
{
    std::vector<std::size_t> ends;
    for (std::size_t at = 16; at + 32 <= bytes.size() && std::memcmp(&bytes[at], "QCHK", 4) == 0;) {
        std::uint64_t length = 0;
        std::memcpy(&length, &bytes[at + 8], 8);
        const bool region = std::memcmp(&bytes[at + 4], "REGN", 4) == 0;
        at += 32 + length;
        if (region)
            ends.push_back(at);
    }
    return ends;
}

/// Makes the checksums of a chunk right again after its payload was changed.
void seal(Bytes& bytes, std::size_t at)
{
    std::uint64_t length = 0;
    std::memcpy(&length, &bytes[at + 8], 8);
    const auto payload = std::uint32_t(crc32(0, &bytes[at + 32], uInt(length)));
    std::memcpy(&bytes[at + 24], &payload, 4);
    const auto header = std::uint32_t(crc32(0, &bytes[at], 28));
    std::memcpy(&bytes[at + 28], &header, 4);
}

std::size_t findChunk(const Bytes& bytes, const char* type)
{
    const std::string wanted = std::string("QCHK") + type;
    const auto found = std::search(bytes.begin(), bytes.end(), wanted.begin(), wanted.end());
    return std::size_t(found - bytes.begin());
}

class RIReaderFile : public testing::Test {
protected:
    void SetUp() override
    {
        writeWhole(path, frame);
        whole = readFile(path);
    }
    /// A file small enough to be damaged everywhere.
    void makeTiny()
    {
        frame = { 6, 5, 32, {}, 4, 3,
            { { "a", 1, QUtils::RISAMPLE_FLOAT, 2 }, { "b", 2, QUtils::RISAMPLE_UINT, 1 } } };
        SetUp();
    }
    int open(const Bytes& bytes)
    {
        writeFile(path, bytes);
        return reader.Open(path.c_str()).code();
    }

    const TempDir dir;
    const std::string path = dir / "a.quimg";
    RawTestFrame frame = smallFrame();
    Bytes whole;
    RIReader reader;
};

// --- Cut files -------------------------------------------------------------------------------------------

TEST_F(RIReaderFile, CutAnywhereYieldsEveryCompleteRegion)
{
    const std::vector<std::size_t> ends = regionEnds(whole);
    const std::size_t headers = findChunk(whole, "camr"); // All before it is needed.
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        const int code = open(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(cut)));
        ASSERT_EQ(code, cut < headers ? int(QUtils::RIERR_FORMAT) : 0) << cut;
        if (code != 0) {
            EXPECT_EQ(reader.getNumRegions(), 0);
            continue;
        }
        EXPECT_FALSE(reader.isClosed());
        for (std::size_t cell = 0; cell < ends.size(); ++cell)
            ASSERT_EQ(reader.isRegionDone(int(cell)), ends[cell] <= cut) << cut;
        ASSERT_EQ(countWrongCells(reader, frame), 0) << cut;
    }
}

TEST(RIReaderLarge, CutAtRandomPlacesYieldsEveryCompleteRegion)
{
    const TempDir dir;
    RawTestFrame frame { 640, 360, 32, {}, 32, 32, allKindsOfChannels() };
    const std::string path = dir / "a.quimg";
    writeWhole(path, frame);
    const std::size_t size = readFile(path).size();
    const std::vector<std::size_t> ends = regionEnds(readFile(path));
    ASSERT_GT(size, 2000000u);
    std::vector<std::size_t> cuts;
    std::mt19937 random(20240601);
    for (int i = 0; i < 1000; ++i)
        cuts.push_back(1000 + random() % (size - 1000));
    std::sort(cuts.rbegin(), cuts.rend()); // The file is made shorter and shorter.
    int number = 0;
    for (const std::size_t cut : cuts) {
        std::filesystem::resize_file(path, cut);
        RIReader reader;
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0) << cut;
        int wrong = 0;
        for (std::size_t cell = 0; cell < ends.size(); ++cell)
            wrong += reader.isRegionDone(int(cell)) != (ends[cell] <= cut) ? 1 : 0;
        ASSERT_EQ(wrong, 0) << cut;
        if (isFullSweep() || number++ % 100 == 0) {
            ASSERT_EQ(countWrongCells(reader, frame), 0) << cut;
        }
    }
}

// --- Damaged files ---------------------------------------------------------------------------------------

TEST_F(RIReaderFile, NoFlippedBitGivesAWrongPixel)
{
    makeTiny();
    const std::size_t headers = findChunk(whole, "camr");
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes damaged = whole;
            damaged[at] = std::uint8_t(damaged[at] ^ 1 << bit);
            const int code = open(damaged);
            ASSERT_TRUE(code == 0 || at < headers) << at << " " << bit; // Those alone cannot be missed.
            if (code == 0) {
                ASSERT_EQ(countWrongCells(reader, frame), 0) << at;
                ASSERT_LE(reader.countMissingRegions(), 1) << at;
            }
        }
    }
}

TEST_F(RIReaderFile, NoFlippedBitOfAFileWithoutIndexGivesARegionThatCannotBeRead)
{
    makeTiny();
    const std::size_t end = regionEnds(whole).back(), headers = findChunk(whole, "camr");
    for (std::size_t at = 0; at < end; ++at) {
        Bytes damaged(whole.begin(), whole.begin() + std::ptrdiff_t(end));
        damaged[at] = std::uint8_t(damaged[at] ^ 0x10);
        const int code = open(damaged);
        ASSERT_TRUE(code == 0 || at < headers) << at;
        if (code == 0) {
            const int missing = reader.countMissingRegions();
            ASSERT_EQ(countWrongCells(reader, frame), 0) << at;
            ASSERT_EQ(reader.countMissingRegions(), missing) << at; // Done meant readable.
            ASSERT_LE(missing, 1) << at;
        }
    }
}

TEST_F(RIReaderFile, DamagedRegionReadsAsZeroOnceAndIsMissingThen)
{
    const std::size_t end = regionEnds(whole)[4];
    whole[end - 1] ^= 1; // The last block of the middle cell: its channel 1.
    ASSERT_EQ(open(whole), 0);
    EXPECT_TRUE(reader.isClosed());
    ASSERT_TRUE(reader.isRegionDone(4));
    std::vector<std::uint32_t> ids(23 * 14, 7);
    const ErrorCode error = reader.readPixels(1, { 0, 0, 23, 14 }, ids.data(), 23 * 4);
    EXPECT_EQ(error.code(), QUtils::RIERR_READ);
    EXPECT_STREQ(error.function(), "RIReader::readPixels");
    EXPECT_NE(std::string(error.message()).find("the first is region 4"), std::string::npos)
        << error.message();
    for (int y = 0; y < 14; ++y) {
        const Bytes row = frame.row(1, QUtils::RISAMPLE_UINT, y, 0, 23);
        for (int x = 0; x < 23; ++x) {
            std::uint32_t id = 0;
            std::memcpy(&id, &row[std::size_t(x) * 4], 4);
            const bool damaged = x >= 8 && x < 16 && y >= 6 && y < 12;
            ASSERT_EQ(ids[std::size_t(y * 23 + x)], damaged ? 0 : id) << x << " " << y;
        }
    }
    EXPECT_FALSE(reader.isRegionDone(4));
    EXPECT_EQ(reader.countMissingRegions(), 1);
    EXPECT_EQ(reader.readPixels(1, { 0, 0, 23, 14 }, ids.data(), 23 * 4).code(), 0);
}

TEST_F(RIReaderFile, VerifyingFindsEveryDamagedRegionOfAClosedFile)
{
    const std::vector<std::size_t> ends = regionEnds(whole);
    ASSERT_EQ(open(whole), 0);
    EXPECT_EQ(reader.verify().code(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 0);
    whole[ends[4] - 1] ^= 1;
    whole[ends[6] + 32 + 33] ^= 1; // The table of blocks of cell 7.
    ASSERT_EQ(open(whole), 0);
    ASSERT_TRUE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 0); // Opening does not look.
    EXPECT_EQ(reader.verify().code(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 2);
    EXPECT_FALSE(reader.isRegionDone(4));
    EXPECT_FALSE(reader.isRegionDone(7));
    EXPECT_TRUE(reader.isClosed());
    EXPECT_EQ(countWrongCells(reader, frame), 0);
    EXPECT_EQ(reader.countMissingRegions(), 2);
    reader.Close();
    EXPECT_EQ(reader.verify().code(), QUtils::RIERR_ARGUMENT);
}

TEST_F(RIReaderFile, RubbishBetweenChunksIsPassedOver)
{
    const std::vector<std::size_t> ends = regionEnds(whole);
    Bytes damaged(whole.begin(), whole.begin() + std::ptrdiff_t(ends.back()));
    std::fill(damaged.begin() + std::ptrdiff_t(ends[2]), damaged.begin() + std::ptrdiff_t(ends[4] + 40),
        std::uint8_t('Q'));
    ASSERT_EQ(open(damaged), 0);
    EXPECT_EQ(reader.countMissingRegions(), 3);
    EXPECT_TRUE(reader.isRegionDone(2));
    EXPECT_FALSE(reader.isRegionDone(3));
    EXPECT_FALSE(reader.isRegionDone(4));
    EXPECT_FALSE(reader.isRegionDone(5));
    EXPECT_TRUE(reader.isRegionDone(6));
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

TEST_F(RIReaderFile, ChunkThatWasMovedIsNone)
{
    const std::vector<std::size_t> ends = regionEnds(whole);
    Bytes moved(whole.begin(), whole.begin() + std::ptrdiff_t(ends[0]));
    moved.insert(
        moved.end(), whole.begin() + std::ptrdiff_t(ends[3]), whole.begin() + std::ptrdiff_t(ends[4]));
    ASSERT_EQ(open(moved), 0);
    EXPECT_EQ(reader.countMissingRegions(), 8);
}

TEST_F(RIReaderFile, IndexThatLeadsAstrayIsNotTrusted)
{
    const std::size_t at = findChunk(whole, "indx");
    std::swap_ranges(whole.begin() + std::ptrdiff_t(at + 32 + 16),
        whole.begin() + std::ptrdiff_t(at + 32 + 32),
        whole.begin() + std::ptrdiff_t(at + 32 + 40)); // The places of cells 0 and 1.
    seal(whole, at);
    ASSERT_EQ(open(whole), 0);
    EXPECT_FALSE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 0);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

TEST_F(RIReaderFile, SizesThatAFileCannotHoldTakeNoMemory)
{
    const std::size_t size = findChunk(whole, "SIZE") + 32, grid = findChunk(whole, "GRID") + 32,
                      rect = findChunk(whole, "RECT") + 32;
    const std::uint32_t most = 0x7FFFFFFF, one = 1;
    Bytes hostile = whole;
    std::memcpy(&hostile[size], &most, 4);
    seal(hostile, size - 32);
    std::memcpy(&hostile[rect + 8], &most, 4);
    seal(hostile, rect - 32);
    std::memcpy(&hostile[grid], &one, 4);
    seal(hostile, grid - 32);
    EXPECT_EQ(open(hostile), QUtils::RIERR_FORMAT); // Three rows of 2^31 - 1 cells.
    const std::uint32_t zero = 0;
    std::memcpy(&hostile[grid + 4], &zero, 4);
    seal(hostile, grid - 32);
    ASSERT_EQ(open(hostile), 0); // One row of them: a map of which the file fills nothing.
    EXPECT_EQ(reader.getNumRegions(), 0x7FFFFFFF);
    EXPECT_EQ(reader.countMissingRegions(), 0x7FFFFFFF);
    EXPECT_EQ(reader.getRegion(0x7FFFFFFE).right, 0x7FFFFFFF);
}

TEST_F(RIReaderFile, RenderRegionOfNothingIsRefused)
{
    const std::size_t rect = findChunk(whole, "RECT");
    std::fill_n(whole.begin() + std::ptrdiff_t(rect + 32), 16, std::uint8_t(0));
    seal(whole, rect);
    EXPECT_EQ(open(whole), QUtils::RIERR_FORMAT);
}

TEST_F(RIReaderFile, ChannelsThatMakeNoSenseAreRefused)
{
    const std::size_t channels = findChunk(whole, "CHNS");
    const struct {
        std::size_t field;
        std::uint8_t value;
    } changes[] = { { 0, 200 }, { 3, 0x7F }, { 8, 3 }, { 9, 0 }, { 9, 5 }, { 10, 0 }, { 10, 5 }, { 11, 9 },
        { 12, 255 }, { 15, 0x7F }, { 16, 0 } };
    for (const auto& change : changes) {
        Bytes hostile = whole;
        hostile[channels + 32 + change.field] = change.value;
        seal(hostile, channels);
        EXPECT_EQ(open(hostile), QUtils::RIERR_FORMAT) << change.field;
    }
}

// --- Versions --------------------------------------------------------------------------------------------

TEST_F(RIReaderFile, NewerMajorVersionIsRefusedAndANewerMinorOneIsNot)
{
    const auto sealBegin = [](Bytes& bytes) {
        const auto sum = std::uint32_t(crc32(0, bytes.data(), 12));
        std::memcpy(&bytes[12], &sum, 4);
    };
    Bytes minor = whole;
    minor[10] = 9;
    sealBegin(minor);
    EXPECT_EQ(open(minor), 0);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
    Bytes major = whole;
    major[8] = 2;
    sealBegin(major);
    EXPECT_EQ(open(major), QUtils::RIERR_FORMAT);
    EXPECT_EQ(open(Bytes(major.begin(), major.begin() + 7)), QUtils::RIERR_FORMAT);
}

TEST_F(RIReaderFile, UnknownChunkIsSkippedWhenItsFirstLetterIsSmall)
{
    const std::vector<std::size_t> ends = regionEnds(whole);
    for (const std::size_t place : { findChunk(whole, "camr"), findChunk(whole, "scen"), ends[1] }) {
        for (const char* type : { "note", "NOTE" }) {
            Bytes with(whole.begin(), whole.begin() + std::ptrdiff_t(place));
            with.resize(place + 32 + 5);
            std::memcpy(&with[place], (std::string("QCHK") + type).data(), 8);
            const std::uint64_t length = 5, offset = place;
            std::memcpy(&with[place + 8], &length, 8);
            std::memcpy(&with[place + 16], &offset, 8);
            seal(with, place);
            EXPECT_EQ(open(with), type[0] == 'n' ? 0 : int(QUtils::RIERR_FORMAT)) << type;
            if (type[0] == 'n') { // What follows it is found.
                RIFile file;
                ASSERT_EQ(file.Open(path.c_str()).code(), 0);
                ASSERT_EQ(writeCell(file, frame, 8).code(), 0);
                ASSERT_EQ(file.Close().code(), 0);
                ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
                EXPECT_TRUE(reader.isRegionDone(8));
                EXPECT_EQ(readFile(path)[place + 4], 'n');
            }
        }
    }
}

// --- Pixels ----------------------------------------------------------------------------------------------

TEST(RIReader, RectanglesAcrossCellsAndBandsComeOut)
{
    const TempDir dir;
    RawTestFrame frame { 90, 70, 0, { 3, 2, 88, 69 }, 20, 30, allKindsOfChannels() };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    const RIRegionInfo rects[] = { { 3, 2, 88, 69 }, { 3, 2, 4, 3 }, { 87, 68, 88, 69 }, { 22, 31, 24, 33 },
        { 10, 5, 70, 6 }, { 23, 2, 43, 32 }, { 40, 20, 41, 60 } };
    for (const int threads : { 0, 2 }) {
        Imf::setGlobalThreadCount(threads);
        for (const RIRegionInfo& rect : rects) {
            for (int channel = 0; channel < reader.getNumChannels(); ++channel) {
                const auto& info = reader.getChannel(channel);
                const std::size_t rowBytes
                    = frame.row(channel, info.sampleType, 0, rect.left, rect.right).size();
                Bytes pixels((rowBytes + 3) * std::size_t(rect.bottom - rect.top), 0xCD);
                ASSERT_EQ(reader.readPixels(channel, rect, pixels.data(), rowBytes + 3).code(), 0);
                for (int y = rect.top; y < rect.bottom; ++y) {
                    Bytes expected = frame.row(channel, info.sampleType, y, rect.left, rect.right);
                    expected.resize(rowBytes + 3, 0xCD); // What lies between the rows stays.
                    const auto row
                        = pixels.begin() + std::ptrdiff_t(y - rect.top) * std::ptrdiff_t(rowBytes + 3);
                    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), row)) << channel << " " << y;
                }
            }
        }
        Imf::setGlobalThreadCount(0);
    }
}

TEST(RIReader, AllTypesComeOutAsFloats)
{
    const TempDir dir;
    RawTestFrame frame { 20, 10, 0, {}, 7, 4, allKindsOfChannels() };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    for (int channel = 0; channel < reader.getNumChannels(); ++channel) {
        const auto& info = reader.getChannel(channel);
        std::vector<float> pixels(std::size_t(20 * 10 * info.numComponents), -1);
        ASSERT_EQ(reader
                      .readPixelsFloat(channel, { 0, 0, 20, 10 }, pixels.data(),
                          std::size_t(20 * info.numComponents) * sizeof(float))
                      .code(),
            0);
        std::size_t i = 0;
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 20; ++x)
                for (int c = 0; c < info.numComponents; ++c, ++i) {
                    const std::uint32_t bits = frame.sampleBits(channel, c, x, y);
                    const float value = float(int(bits % 4001) - 2000) / 16;
                    ASSERT_EQ(pixels[i],
                        info.sampleType == QUtils::RISAMPLE_UINT       ? float(bits)
                            : info.sampleType == QUtils::RISAMPLE_HALF ? float(half(value))
                                                                       : value);
                }
    }
}

TEST(RIReader, FloatsMayStandAtAnyAddress)
{
    const TempDir dir;
    RawTestFrame frame { 9, 5, 0, {}, 4, 4, allKindsOfChannels() };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    for (int channel = 0; channel < reader.getNumChannels(); ++channel) {
        const std::size_t row = std::size_t(9 * reader.getChannel(channel).numComponents) * sizeof(float);
        std::vector<float> packed(row / sizeof(float) * 5), spread(packed.size() + 5, -1);
        ASSERT_EQ(reader.readPixelsFloat(channel, { 0, 0, 9, 5 }, packed.data(), row).code(), 0);
        ASSERT_EQ(reader.readPixelsFloat(channel, { 0, 0, 9, 5 }, spread.data(), row + 3).code(), 0);
        for (std::size_t y = 0; y < 5; ++y)
            EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(spread.data()) + y * (row + 3),
                          reinterpret_cast<const char*>(packed.data()) + y * row, row),
                0)
                << channel << " " << y;
    }
}

TEST_F(RIReaderFile, MissingRegionsAreZero)
{
    const std::size_t end = regionEnds(whole)[0];
    ASSERT_EQ(open(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(end))), 0);
    EXPECT_EQ(reader.countMissingRegions(), 8);
    std::vector<std::uint32_t> ids(23 * 14, 7);
    ASSERT_EQ(reader.readPixels(1, { 0, 0, 23, 14 }, ids.data(), 23 * 4).code(), 0);
    for (int y = 0; y < 14; ++y)
        for (int x = 0; x < 23; ++x)
            ASSERT_EQ(ids[std::size_t(y * 23 + x)], x < 8 && y < 6 ? frame.sampleBits(1, 0, x, y) : 0);
}

TEST_F(RIReaderFile, HeadersAloneAreAFrameWithoutPixels)
{
    ASSERT_EQ(open(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(findChunk(whole, "camr")))), 0);
    EXPECT_EQ(reader.header().width, 23);
    EXPECT_EQ(reader.header().camera.valid, 0);
    EXPECT_STREQ(reader.header().sceneText.c_str(), "");
    EXPECT_EQ(reader.countMissingRegions(), 9);
    EXPECT_EQ(reader.findChannel("id"), 1);
    EXPECT_EQ(reader.findChannel("none"), -1);
    EXPECT_EQ(reader.findChannel(nullptr), -1);
}

TEST_F(RIReaderFile, RequestsThatCannotBeMetAreRefused)
{
    ASSERT_EQ(open(whole), 0);
    std::vector<std::uint32_t> ids(23 * 14);
    const auto code = [&](int channel, const RIRegionInfo& rect, void* dest, std::size_t rowBytes) {
        return reader.readPixels(channel, rect, dest, rowBytes).code();
    };
    EXPECT_EQ(code(-1, { 0, 0, 1, 1 }, ids.data(), 4), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(2, { 0, 0, 1, 1 }, ids.data(), 4), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { 0, 0, 24, 1 }, ids.data(), 96), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { -1, 0, 2, 1 }, ids.data(), 96), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { 2, 2, 2, 3 }, ids.data(), 96), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { 0, 0, 4, 4 }, nullptr, 16), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { 0, 0, 4, 4 }, ids.data(), 15), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(code(1, { 0, 0, 4, 1 }, ids.data(), 0), 0); // One row needs no distance.
    EXPECT_EQ(reader.readPixelsFloat(9, { 0, 0, 1, 1 }, nullptr, 0).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_STREQ(reader.getChannel(5).name.c_str(), "");
    EXPECT_EQ(reader.getChannel(-1).numComponents, 0);
    EXPECT_EQ(reader.getRegion(9).right, 0);
    EXPECT_FALSE(reader.isRegionDone(9));
    reader.Close();
    EXPECT_EQ(code(1, { 0, 0, 1, 1 }, ids.data(), 4), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(reader.getNumRegions(), 0);
    EXPECT_EQ(reader.header().width, 0);
}

TEST_F(RIReaderFile, FileThatIsCutWhileItIsOpenIsAnError)
{
    ASSERT_EQ(open(whole), 0);
    std::filesystem::resize_file(path, regionEnds(whole)[0]);
    std::vector<std::uint32_t> ids(23 * 14, 7);
    EXPECT_EQ(reader.readPixels(1, { 0, 0, 23, 14 }, ids.data(), 23 * 4).code(), QUtils::RIERR_READ);
    EXPECT_EQ(ids[0], frame.sampleBits(1, 0, 0, 0));
    EXPECT_EQ(ids[22], 0u);
    EXPECT_EQ(reader.countMissingRegions(), 8);
}

TEST(RIReader, WhatIsNoFileIsNotOpened)
{
    const TempDir dir;
    const int before = openFiles();
    RIReader reader;
    EXPECT_EQ(reader.Open(nullptr).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(reader.Open(dir.path().c_str()).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(reader.Open("/dev/zero").code(), QUtils::RIERR_OPEN);
    const ErrorCode error = reader.Open((dir / "none").c_str());
    EXPECT_EQ(error.code(), QUtils::RIERR_OPEN);
    EXPECT_NE(std::string(error.message()).find("No such file"), std::string::npos) << error.message();
    writeFile(dir / "b", {});
    EXPECT_EQ(reader.Open((dir / "b").c_str()).code(), QUtils::RIERR_FORMAT);
    EXPECT_EQ(openFiles(), before);
}

} // namespace
