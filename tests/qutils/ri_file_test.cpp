#include "qutils/raw/ri_file.h"

#include "qutils/raw/ri_reader.h"
#include "support/open_files.h"
#include "support/quimg_frame.h"

#include <ImfThreading.h>
#include <gtest/gtest.h>
#include <zlib.h>
#include <zstd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace testing_support;
using QUtils::RIFile;
using QUtils::RIReader;

// --- Bytes -----------------------------------------------------------------------------------------------

/// Reads fields of a file as docs/quimg.md lays them out; knows nothing of the library.
class Fields {
public:
    Fields(const Bytes& bytes, std::size_t begin) : m_bytes(bytes), m_next(begin) { }

    std::uint64_t number(int count)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < count; ++i)
            value |= std::uint64_t(m_bytes.at(m_next++)) << (8 * i);
        return value;
    }
    std::uint32_t u32() { return std::uint32_t(number(4)); }
    std::string text(std::size_t count)
    {
        std::string out;
        for (std::size_t i = 0; i < count; ++i)
            out += char(m_bytes.at(m_next++));
        return out;
    }
    std::size_t place() const { return m_next; }

private:
    const Bytes& m_bytes;
    std::size_t m_next;
};

std::uint32_t crcOf(const Bytes& bytes, std::size_t begin, std::size_t count)
{
    return std::uint32_t(crc32(0, bytes.data() + begin, uInt(count)));
}

struct Chunk {
    std::string type;
    std::size_t payload = 0, length = 0;
};

/// All chunks of a file, checked.
std::vector<Chunk> chunksOf(const Bytes& bytes)
{
    std::vector<Chunk> chunks;
    for (std::size_t at = 16; at + 32 <= bytes.size() && std::memcmp(&bytes[at], "QCHK", 4) == 0;) {
        Fields in(bytes, at + 4);
        Chunk chunk;
        chunk.type = in.text(4);
        chunk.length = in.number(8);
        EXPECT_EQ(in.number(8), at);
        const std::uint32_t sum = in.u32();
        EXPECT_EQ(in.u32(), crcOf(bytes, at, 28));
        chunk.payload = in.place();
        EXPECT_LE(chunk.length, bytes.size() - chunk.payload);
        EXPECT_EQ(sum, crcOf(bytes, chunk.payload, chunk.length));
        chunks.push_back(chunk);
        at = chunk.payload + chunk.length;
    }
    return chunks;
}

TEST(RIFileBytes, AreThoseOfTheDescription)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    writeWhole(dir / "a.quimg", frame);
    const Bytes bytes = readFile(dir / "a.quimg");

    Fields begin(bytes, 0);
    EXPECT_EQ(begin.text(8), "\x89QUIMG\r\n");
    EXPECT_EQ(begin.number(2), 1u);
    EXPECT_EQ(begin.number(2), 0u);
    EXPECT_EQ(begin.u32(), crcOf(bytes, 0, 12));

    const std::vector<Chunk> chunks = chunksOf(bytes);
    ASSERT_EQ(chunks.size(), 7u + 9 + 1);
    std::string types;
    for (const Chunk& chunk : chunks)
        types += chunk.type + " ";
    EXPECT_EQ(types,
        "BITS SIZE RECT GRID CHNS camr scen "
        "REGN REGN REGN REGN REGN REGN REGN REGN REGN "
        "indx ");

    EXPECT_EQ(Fields(bytes, chunks[0].payload).u32(), 32u);
    Fields size(bytes, chunks[1].payload);
    EXPECT_EQ(size.u32(), 23u);
    EXPECT_EQ(size.u32(), 14u);
    EXPECT_EQ(size.u32(), 0x3FC00000u); // 1.5 as a float.
    Fields rect(bytes, chunks[2].payload);
    EXPECT_EQ(rect.u32(), 0u);
    EXPECT_EQ(rect.u32(), 0u);
    EXPECT_EQ(rect.u32(), 23u);
    EXPECT_EQ(rect.u32(), 14u);
    Fields channels(bytes, chunks[4].payload);
    EXPECT_EQ(channels.u32(), 2u);
    EXPECT_EQ(channels.u32(), 1u);
    EXPECT_EQ(channels.u32(), 0x01010301u); // Float as stored, 3 components, colour, float as given.
    EXPECT_EQ(channels.text(channels.u32()), "beauty");
    EXPECT_EQ(chunks[5].length, 108u);

    const Chunk& index = chunks.back();
    Fields entries(bytes, index.payload);
    EXPECT_EQ(entries.u32(), 9u);
    EXPECT_EQ(entries.u32(), 9u);
    for (std::uint32_t cell = 0; cell < 9; ++cell) {
        EXPECT_EQ(entries.u32(), cell);
        EXPECT_EQ(entries.u32(), 0u);
        EXPECT_EQ(entries.number(8), chunks[7 + cell].payload - 32);
        EXPECT_EQ(entries.number(8), chunks[7 + cell].length + 32);
    }
    Fields trailer(bytes, bytes.size() - 32);
    EXPECT_EQ(trailer.text(8), "QUIMGEND");
    EXPECT_EQ(trailer.number(8), index.payload - 32);
    EXPECT_EQ(trailer.number(8), bytes.size());
    EXPECT_EQ(trailer.u32(), 0u);
    EXPECT_EQ(trailer.u32(), crcOf(bytes, bytes.size() - 32, 28));
}

/// A block's pixels as docs/quimg.md says to unpack them.
Bytes unpackBlock(
    const Bytes& stored, int coding, int predictor, int width, int rows, int components, int bytes)
{
    const auto plane = std::size_t(width * rows);
    Bytes planes(plane * std::size_t(components * bytes));
    if (coding == 1)
        EXPECT_EQ(ZSTD_decompress(planes.data(), planes.size(), stored.data(), stored.size()), planes.size());
    else
        planes = stored;
    Bytes pixels(planes.size());
    for (int p = 0; p < components * bytes; ++p) {
        std::uint8_t* const in = planes.data() + plane * std::size_t(p);
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < width; ++x) {
                std::uint8_t& byte = in[y * width + x];
                if (predictor == 1 && (x > 0 || y > 0))
                    byte = std::uint8_t(byte + (x > 0 ? in[y * width + x - 1] : in[(y - 1) * width]));
                pixels[std::size_t((y * width + x) * components * bytes + p)] = byte;
            }
        }
    }
    return pixels;
}

TEST(RIFileBytes, RegionsUnpackToTheirPixels)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    writeWhole(dir / "a.quimg", frame);
    const Bytes bytes = readFile(dir / "a.quimg");
    for (const Chunk& chunk : chunksOf(bytes)) {
        if (chunk.type != "REGN")
            continue;
        Fields in(bytes, chunk.payload);
        in.u32();
        const int left = int(in.u32()), top = int(in.u32()), right = int(in.u32()), bottom = int(in.u32());
        const int bandRows = int(in.u32());
        const std::uint32_t channels = in.u32(), blocks = in.u32();
        ASSERT_EQ(channels, 2u);
        ASSERT_EQ(blocks, channels);
        EXPECT_EQ(bandRows, bottom - top);
        Fields table = in;
        for (std::uint32_t i = 0; i < blocks; ++i)
            in.text(12);
        EXPECT_EQ(in.u32(), crcOf(bytes, chunk.payload, 32 + 12 * blocks));
        for (int channel = 0; channel < 2; ++channel) {
            const std::uint32_t length = table.u32(), coding = std::uint32_t(table.number(1)),
                                predictor = std::uint32_t(table.number(1));
            EXPECT_EQ(table.number(2), 0u);
            EXPECT_EQ(table.u32(), crcOf(bytes, in.place(), length));
            const std::string stored = in.text(length);
            const Bytes pixels = unpackBlock(Bytes(stored.begin(), stored.end()), int(coding), int(predictor),
                right - left, bottom - top, channel == 0 ? 3 : 1, 4);
            Bytes expected;
            for (int y = top; y < bottom; ++y) {
                const Bytes row
                    = frame.row(channel, frame.channels[std::size_t(channel)].type(), y, left, right);
                expected.insert(expected.end(), row.begin(), row.end());
            }
            EXPECT_EQ(pixels, expected) << left << " " << top << " " << channel;
        }
        EXPECT_EQ(in.place(), chunk.payload + chunk.length);
    }
}

// --- Round trips -----------------------------------------------------------------------------------------

TEST(RIFile, AllTypesComponentsKindsAndBitsComeBack)
{
    const TempDir dir;
    for (const int bits : { 16, 32, 0 }) {
        RawTestFrame frame { 37, 21, bits, {}, 16, 8, allKindsOfChannels() };
        writeWhole(dir / "a.quimg", frame);
        RIReader reader;
        ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
        EXPECT_TRUE(reader.isClosed());
        EXPECT_EQ(reader.countMissingRegions(), 0);
        EXPECT_EQ(countWrongCells(reader, frame), 0) << bits;
        const int color = bits == 16 ? QUtils::RISAMPLE_HALF : QUtils::RISAMPLE_FLOAT;
        EXPECT_EQ(reader.getChannel(0).sampleType, color); // Given as float.
        EXPECT_EQ(
            reader.getChannel(1).sampleType, bits == 32 ? QUtils::RISAMPLE_FLOAT : QUtils::RISAMPLE_HALF);
        EXPECT_EQ(reader.getChannel(2).sampleType, QUtils::RISAMPLE_FLOAT); // No colour.
        EXPECT_EQ(reader.getChannel(5).sampleType, QUtils::RISAMPLE_UINT); // A colour, but of whole numbers.
        EXPECT_EQ(reader.getChannel(6).sampleType, QUtils::RISAMPLE_HALF);
    }
}

TEST(RIFile, KindsFollowFromTheComponentsWhereTheyAreNotTold)
{
    const TempDir dir;
    RawTestFrame frame { 5, 4, 32, {}, 0, 0, allKindsOfChannels() };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    const int kinds[] = { 1, 1, 2, 3, 4, 1, 2, 4 };
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(reader.getChannel(i).kind, kinds[i]) << i;
}

TEST(RIFile, KindsThatAreNotKnownFollowFromTheComponentsToo)
{
    const TempDir dir;
    RawTestFrame frame { 5, 4, 16, {}, 0, 0,
        { { "a", 1, QUtils::RISAMPLE_FLOAT, 3, 5 }, { "b", 2, QUtils::RISAMPLE_FLOAT, 2, -1 },
            { "c", 3, QUtils::RISAMPLE_FLOAT, 1, 999 } } };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.getChannel(0).kind, 1);
    EXPECT_EQ(reader.getChannel(0).sampleType, QUtils::RISAMPLE_HALF); // A colour.
    EXPECT_EQ(reader.getChannel(1).kind, 2);
    EXPECT_EQ(reader.getChannel(2).kind, 4);
}

TEST(RIFile, CameraAndSceneComeInEitherOrder)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    QUtils::RegionChannelTable list = frame.table();
    char text[] = "text";
    RISceneInfo scene { 4, text };
    RIFile file;
    ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
    for (const ErrorCode& error :
        { file.WriteHeader(32), file.WTResolution(23, 14, 1), file.WTRenderRegion({}),
            file.WTRegionsInfo(8, 6, 0), file.WTChannelInfo(&list), file.WTSceneInfo(scene),
            file.WTCameraInfo(testCamera()), writeCell(file, frame, 3), file.Close() })
        ASSERT_EQ(error.code(), 0) << error.message();
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.header().sceneNumber, 4);
    EXPECT_EQ(reader.header().camera.projection, 3);
    EXPECT_TRUE(reader.isRegionDone(3));
}

TEST(RIFile, HeadersComeBack)
{
    const TempDir dir;
    RawTestFrame frame { 40, 30, 16, { 3, 4, 38, 29 }, 10, 7, allKindsOfChannels() };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    const QUtils::RIHeader& header = reader.header();
    EXPECT_EQ(header.bitsPerChannel, 16);
    EXPECT_EQ(header.width, 40);
    EXPECT_EQ(header.height, 30);
    EXPECT_EQ(header.pixelAspect, 1.5f);
    EXPECT_EQ(header.renderRegion.left, 3);
    EXPECT_EQ(header.renderRegion.bottom, 29);
    EXPECT_EQ(header.regWidth, 10);
    EXPECT_EQ(header.regHeight, 7);
    EXPECT_EQ(header.regType, 9);
    const RICameraInfo camera = testCamera();
    EXPECT_EQ(std::memcmp(header.camera.transform, camera.transform, sizeof camera.transform), 0);
    EXPECT_EQ(header.camera.valid, 1);
    EXPECT_EQ(header.camera.projection, 3);
    EXPECT_EQ(header.camera.aperture, 1.5f);
    EXPECT_EQ(header.camera.targetDistance, 12);
    EXPECT_EQ(header.camera.farClip, 1000);
    EXPECT_EQ(header.camera.fNumber, 5.6f);
    EXPECT_EQ(header.sceneNumber, -7);
    EXPECT_STREQ(header.sceneText.c_str(), "a scene\nof two lines");
    EXPECT_STREQ(reader.getChannel(4).name.c_str(), "ids \xC3\xA9");
    EXPECT_EQ(reader.getChannel(4).channelId, 13);
    EXPECT_EQ(reader.getNumRegions(), 4 * 4);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

TEST(RIFile, OddSizesAndCropsComeBackFromOneCall)
{
    const TempDir dir;
    const RIRegionInfo regions[] = { {}, { 1, 1, 2, 2 }, { 5, 0, 40, 33 }, { 0, 7, 39, 8 } };
    const int sizes[][2] = { { 0, 0 }, { 1, 1 }, { 7, 5 }, { 64, 64 }, { 0, 3 }, { 9, 0 }, { 40, 33 } };
    for (const RIRegionInfo& region : regions) {
        for (const auto& size : sizes) {
            RawTestFrame frame { 40, 33, 0, region, size[0], size[1], allKindsOfChannels() };
            RIFile file;
            ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
            ASSERT_EQ(writeHeaders(file, frame).code(), 0);
            RawTestData data(frame, {});
            EXPECT_EQ(file.WTRegion(&data, -1, 0, 0).code(), 0);
            EXPECT_EQ(file.countMissingRegions(), 0);
            EXPECT_TRUE(std::is_sorted(data.asked.begin(), data.asked.end()));
            EXPECT_EQ(data.asked.size(),
                std::size_t(frame.resolved().bottom - frame.resolved().top) * frame.channels.size());
            EXPECT_EQ(file.Close().code(), 0);
            RIReader reader;
            ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
            EXPECT_EQ(countWrongCells(reader, frame), 0) << size[0] << " " << size[1];
            EXPECT_EQ(reader.countMissingRegions(), 0);
        }
    }
}

TEST(RIFile, TallCellsOfManyBandsComeBack)
{
    const TempDir dir;
    RawTestFrame frame { 700, 300, 32, {}, 0, 0,
        { { "beauty", 1, QUtils::RISAMPLE_FLOAT, 4 }, { "z", 2, QUtils::RISAMPLE_HALF, 1 } } };
    writeWhole(dir / "a.quimg", frame);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.getNumRegions(), 1);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
    EXPECT_EQ(reader.countMissingRegions(), 0);
}

TEST(RIFile, FileWithoutChannelsHasARegionMap)
{
    const TempDir dir;
    RawTestFrame frame { 10, 10, 32, {}, 5, 5, {} };
    writeWhole(dir / "a.quimg", frame);
    RIFile file;
    ASSERT_EQ(file.Create((dir / "b.quimg").c_str(), nullptr).code(), 0);
    ASSERT_EQ(file.WriteHeader(32).code(), 0);
    ASSERT_EQ(file.WTResolution(10, 10, 1).code(), 0);
    ASSERT_EQ(file.WTRenderRegion({}).code(), 0);
    ASSERT_EQ(file.WTRegionsInfo(5, 5, 0).code(), 0);
    EXPECT_EQ(file.WTChannelInfo(nullptr).code(), 0); // As good as an empty list.
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.getNumChannels(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 0);
}

TEST(RIFile, ThreadsOfThePoolWriteTheSameBytes)
{
    const TempDir dir;
    RawTestFrame frame { 200, 90, 16, {}, 32, 32, allKindsOfChannels() };
    const auto write = [&](const std::string& name) {
        RIFile file;
        EXPECT_EQ(file.Create(name.c_str(), nullptr).code(), 0);
        EXPECT_EQ(writeHeaders(file, frame).code(), 0);
        RawTestData data(frame, {});
        EXPECT_EQ(file.WTRegion(&data, -1, 0, 0).code(), 0);
        EXPECT_EQ(file.Close().code(), 0);
        RIReader reader;
        EXPECT_EQ(reader.Open(name.c_str()).code(), 0);
        EXPECT_EQ(countWrongCells(reader, frame), 0);
    };
    const int before = Imf::globalThreadCount();
    Imf::setGlobalThreadCount(0);
    write(dir / "a.quimg");
    Imf::setGlobalThreadCount(3);
    write(dir / "b.quimg");
    Imf::setGlobalThreadCount(before);
    EXPECT_EQ(readFile(dir / "a.quimg"), readFile(dir / "b.quimg"));
}

class Collector : public PStream {
public:
    bool write(const void* bytes, std::size_t size) override
    {
        if (m_bytes.size() + size > limit)
            return false;
        const auto* from = static_cast<const std::uint8_t*>(bytes);
        m_bytes.insert(m_bytes.end(), from, from + size);
        return true;
    }
    const Bytes& bytes() const { return m_bytes; }
    std::size_t limit = SIZE_MAX;

private:
    Bytes m_bytes;
};

TEST(RIFile, StreamGetsTheBytesOfAFile)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    writeWhole(dir / "a.quimg", frame);
    Collector stream;
    RIFile file;
    ASSERT_EQ(file.Create(nullptr, &stream).code(), 0);
    ASSERT_EQ(writeHeaders(file, frame).code(), 0);
    for (int cell = 0; cell < file.getNumRegions(); ++cell)
        ASSERT_EQ(writeCell(file, frame, cell).code(), 0);
    EXPECT_EQ(file.Close().code(), 0);
    EXPECT_EQ(stream.bytes(), readFile(dir / "a.quimg"));
}

TEST(RIFile, StreamThatRefusedOnceGetsNothingMore)
{
    RawTestFrame frame = smallFrame();
    Collector stream;
    RIFile file;
    ASSERT_EQ(file.Create("a stream", &stream).code(), 0);
    ASSERT_EQ(writeHeaders(file, frame).code(), 0);
    const Bytes headers = stream.bytes();
    stream.limit = headers.size() + 10;
    EXPECT_EQ(writeCell(file, frame, 0).code(), QUtils::RIERR_WRITE);
    stream.limit = SIZE_MAX;
    EXPECT_EQ(writeCell(file, frame, 1).code(), QUtils::RIERR_WRITE);
    EXPECT_EQ(file.Close().code(), QUtils::RIERR_WRITE);
    EXPECT_EQ(stream.bytes(), headers);
}

// --- Regions ---------------------------------------------------------------------------------------------

/// A file with its headers written.
class RIFileRegions : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(file.Create(path.c_str(), nullptr).code(), 0);
        ASSERT_EQ(writeHeaders(file, frame).code(), 0);
    }
    ErrorCode write(const RIRegionInfo& rect)
    {
        RawTestData data(frame, rect);
        return file.WTRegion(&data, -1, 0, 0);
    }
    std::string doneCells() const
    {
        std::string done;
        for (int cell = 0; cell < file.getNumRegions(); ++cell)
            done += file.isRegionDone(cell) ? '#' : '.';
        return done;
    }
    void expectFileSays(const std::string& done)
    {
        RIReader reader;
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
        std::string said;
        for (int cell = 0; cell < reader.getNumRegions(); ++cell)
            said += reader.isRegionDone(cell) ? '#' : '.';
        EXPECT_EQ(said, done);
        EXPECT_EQ(countWrongCells(reader, frame), 0);
    }

    const TempDir dir;
    const std::string path = dir / "a.quimg";
    RawTestFrame frame = smallFrame(); // 3 x 3 cells of 8 x 6, the last ones 7 wide and 2 high.
    RIFile file;
};

TEST_F(RIFileRegions, AnyOrderAndAnyNumberOfWholeCells)
{
    EXPECT_EQ(write({ 16, 12, 23, 14 }).code(), 0);
    EXPECT_EQ(write({ 0, 0, 16, 12 }).code(), 0);
    EXPECT_EQ(doneCells(), "##.##...#");
    EXPECT_EQ(file.countMissingRegions(), 4);
    expectFileSays("##.##...#");
}

TEST_F(RIFileRegions, BucketThatReachesPastTheRenderRegionIsCut)
{
    EXPECT_EQ(write({ 16, 12, 24, 18 }).code(), 0);
    EXPECT_EQ(doneCells(), "........#");
    expectFileSays("........#");
}

TEST_F(RIFileRegions, CellsCoveredInPartAreNotWritten)
{
    const ErrorCode error = write({ 1, 0, 16, 7 });
    EXPECT_EQ(error.code(), QUtils::RIERR_INCOMPLETE);
    EXPECT_STREQ(error.function(), "RIFile::WTRegion");
    EXPECT_NE(std::string(error.message()).find("3 that are covered in part"), std::string::npos)
        << error.message();
    EXPECT_EQ(doneCells(), ".#.......");
    EXPECT_EQ(write({ 1, 1, 3, 3 }).code(), QUtils::RIERR_INCOMPLETE);
    expectFileSays(".#.......");
}

TEST_F(RIFileRegions, RefusedRowLeavesOnlyItsCellsOut)
{
    RawTestData data(frame, {});
    data.refusedRow = 8;
    data.refusedChannel = 1;
    const ErrorCode error = file.WTRegion(&data, -1, 0, 0);
    EXPECT_EQ(error.code(), QUtils::RIERR_INCOMPLETE);
    EXPECT_NE(std::string(error.message()).find("3 whose rows were refused"), std::string::npos)
        << error.message();
    EXPECT_EQ(doneCells(), "###...###");
    expectFileSays("###...###");
    EXPECT_EQ(write({ 0, 6, 23, 12 }).code(), 0);
    expectFileSays("#########");
}

TEST_F(RIFileRegions, LaterPixelsReplaceEarlierOnes)
{
    RawTestFrame other = frame;
    other.channels[0] = { "beauty", 1, QUtils::RISAMPLE_FLOAT, 3 };
    other.channels[1] = { "id", 2, QUtils::RISAMPLE_UINT, 1 };
    class Zeros : public QUtils::QURegionData {
    public:
        RIRegionInfo getRegion() override { return {}; }
        const void* getRow(int, int) override { return row; }
        float row[23 * 3] = {};
    } zeros;
    EXPECT_EQ(file.WTRegion(&zeros, -1, 0, 0).code(), 0);
    EXPECT_EQ(write({}).code(), 0);
    expectFileSays("#########"); // By scanning the chunks.
    EXPECT_EQ(file.Close().code(), 0);
    expectFileSays("#########"); // By the index.
}

TEST_F(RIFileRegions, ExceptionOfTheCallerIsAnError)
{
    RawTestData data(frame, {});
    data.throwingRow = 7;
    const ErrorCode error = file.WTRegion(&data, -1, 0, 0);
    EXPECT_EQ(error.code(), QUtils::RIERR_CALLBACK);
    EXPECT_NE(std::string(error.message()).find("no such luck"), std::string::npos) << error.message();
    EXPECT_EQ(doneCells(), "###......");
    EXPECT_EQ(write({ 0, 6, 23, 14 }).code(), 0);
    expectFileSays("#########");
}

TEST_F(RIFileRegions, RectanglesThatMakeNoSenseAreRefused)
{
    for (const RIRegionInfo& rect : { RIRegionInfo { 5, 5, 5, 9 }, RIRegionInfo { 9, 0, 1, 6 },
             RIRegionInfo { 23, 0, 31, 6 }, RIRegionInfo { -8, -6, 0, 0 } })
        EXPECT_EQ(write(rect).code(), QUtils::RIERR_ARGUMENT);
    RawTestData data(frame, {});
    EXPECT_EQ(file.WTRegion(nullptr, -1, 0, 0).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.WTRegion(&data, 0, 0, 0).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(doneCells(), ".........");
}

// --- Resuming --------------------------------------------------------------------------------------------

TEST_F(RIFileRegions, ResumedFileIsTheUninterruptedOneToTheByte)
{
    ASSERT_EQ(file.Close().code(), 0); // It is the same file.
    writeWhole(dir / "whole.quimg", frame);
    const Bytes whole = readFile(dir / "whole.quimg");
    const std::size_t needed = chunksOf(whole)[4].payload + chunksOf(whole)[4].length;
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        writeFile(path, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(cut)));
        RIFile resumed;
        if (resumed.Open(path.c_str()).code() != 0) {
            EXPECT_LT(cut, needed); // The headers are not there yet.
            continue;
        }
        QUtils::RIReader reader; // What was cut off leaves a file that reads as before.
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
        const bool parts = resumed.header().sceneNumber == -7;
        char text[] = "a scene\nof two lines";
        RISceneInfo scene { -7, text };
        if (resumed.header().camera.valid == 0) {
            EXPECT_EQ(resumed.WTCameraInfo(testCamera()).code(), 0);
        }
        if (!parts) {
            EXPECT_EQ(resumed.WTSceneInfo(scene).code(), 0);
        }
        for (int cell = 0; cell < resumed.getNumRegions(); ++cell) {
            EXPECT_EQ(resumed.isRegionDone(cell), reader.isRegionDone(cell));
            if (!resumed.isRegionDone(cell)) {
                ASSERT_EQ(writeCell(resumed, frame, cell).code(), 0);
            }
        }
        ASSERT_EQ(resumed.Close().code(), 0);
        ASSERT_EQ(readFile(path), whole) << cut;
    }
}

TEST_F(RIFileRegions, ClosedFileStaysClosedUntilSomethingIsWritten)
{
    ASSERT_EQ(file.Close().code(), 0);
    writeWhole(path, frame);
    const Bytes whole = readFile(path);
    {
        RIFile resumed;
        ASSERT_EQ(resumed.Open(path.c_str()).code(), 0);
        EXPECT_EQ(resumed.countMissingRegions(), 0);
    }
    EXPECT_EQ(readFile(path), whole);
    RIFile resumed;
    ASSERT_EQ(resumed.Open(path.c_str()).code(), 0);
    ASSERT_EQ(writeCell(resumed, frame, 4).code(), 0);
    RIReader reader;
    ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
    EXPECT_FALSE(reader.isClosed());
    EXPECT_EQ(countWrongCells(reader, frame), 0);
    ASSERT_EQ(resumed.Close().code(), 0);
    ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
    EXPECT_TRUE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 0);
}

TEST_F(RIFileRegions, FileThatIsBeingWrittenIsNotResumed)
{
    RIFile second;
    const ErrorCode error = second.Open(path.c_str());
    EXPECT_EQ(error.code(), QUtils::RIERR_OPEN);
    EXPECT_NE(std::string(error.message()).find("being written"), std::string::npos) << error.message();
    ASSERT_EQ(file.Close().code(), 0);
    EXPECT_EQ(second.Open(path.c_str()).code(), 0);
}

TEST_F(RIFileRegions, FileThatIsBeingWrittenIsNotMadeAnew)
{
    ASSERT_EQ(write({}).code(), 0);
    const Bytes before = readFile(path);
    RIFile second;
    const ErrorCode error = second.Create(path.c_str(), nullptr);
    EXPECT_EQ(error.code(), QUtils::RIERR_OPEN);
    EXPECT_STREQ(error.function(), "RIFile::Create");
    EXPECT_NE(std::string(error.message()).find("being written"), std::string::npos) << error.message();
    EXPECT_EQ(readFile(path), before);
    ASSERT_EQ(file.Close().code(), 0);
    expectFileSays("#########");
    EXPECT_EQ(second.Create(path.c_str(), nullptr).code(), 0);
    EXPECT_EQ(readFile(path).size(), 0u);
    EXPECT_EQ(second.Create(path.c_str(), nullptr).code(), 0); // Its own file is let go of first.
}

TEST_F(RIFileRegions, DamagedRegionOfAClosedFileIsRenderedAgain)
{
    ASSERT_EQ(write({}).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);
    const Bytes whole = readFile(path);
    const Chunk cell = chunksOf(whole)[7 + 4];
    for (const std::size_t at : { std::size_t(4), std::size_t(21), cell.length / 2, cell.length - 1 }) {
        Bytes damaged = whole;
        damaged[cell.payload + at] ^= 0x10;
        writeFile(path, damaged);
        {
            RIFile looked;
            ASSERT_EQ(looked.Open(path.c_str()).code(), 0);
            EXPECT_EQ(looked.countMissingRegions(), 1);
            EXPECT_FALSE(looked.isRegionDone(4));
        }
        expectFileSays("####.####"); // The index that said otherwise is gone.
        RIFile resumed;
        ASSERT_EQ(resumed.Open(path.c_str()).code(), 0);
        EXPECT_EQ(resumed.countMissingRegions(), 1);
        ASSERT_EQ(writeCell(resumed, frame, 4).code(), 0);
        ASSERT_EQ(resumed.Close().code(), 0);
        expectFileSays("#########");
    }
}

TEST_F(RIFileRegions, DamagedPixelsDoNotBringBackTheOnesTheyReplaced)
{
    // Cell 4 is written twice, first in zeros; the second chunk is the last in the file.
    class Zeros : public QUtils::QURegionData {
    public:
        RIRegionInfo getRegion() override { return { 8, 6, 16, 12 }; }
        const void* getRow(int, int) override { return row; }
        float row[8 * 3] = {};
    } zeros;
    ASSERT_EQ(file.WTRegion(&zeros, -1, 0, 0).code(), 0);
    ASSERT_EQ(write({}).code(), 0);
    ASSERT_EQ(write({ 8, 6, 16, 12 }).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);
    const Bytes whole = readFile(path);
    const std::vector<Chunk> chunks = chunksOf(whole);
    const Chunk last = chunks[chunks.size() - 2];
    ASSERT_EQ(chunks.size(), 7u + 1 + 9 + 1 + 1);
    for (const bool indexed : { true, false }) {
        for (std::size_t at = last.payload - 32; at < last.payload + last.length; ++at) {
            Bytes damaged(whole.begin(),
                indexed ? whole.end() : whole.begin() + std::ptrdiff_t(last.payload + last.length));
            damaged[at] = std::uint8_t(damaged[at] ^ 1 << at % 8);
            writeFile(path, damaged);
            RIReader reader;
            ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
            ASSERT_EQ(reader.verify().code(), 0);
            ASSERT_EQ(reader.countMissingRegions(), 1) << at;
            ASSERT_FALSE(reader.isRegionDone(4)) << at;
            for (int round = 0; round < 2; ++round) { // Going on with it forgets nothing.
                RIFile resumed;
                ASSERT_EQ(resumed.Open(path.c_str()).code(), 0);
                ASSERT_EQ(resumed.countMissingRegions(), 1) << at << " " << round;
                ASSERT_FALSE(resumed.isRegionDone(4)) << at;
                if (round == 1) {
                    ASSERT_EQ(writeCell(resumed, frame, 4).code(), 0);
                    ASSERT_EQ(resumed.Close().code(), 0);
                }
            }
            ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
            ASSERT_EQ(reader.countMissingRegions(), 0) << at;
            ASSERT_EQ(countWrongCells(reader, frame), 0) << at;
        }
    }
}

TEST_F(RIFileRegions, KilledProcessLeavesItsRegions)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        RIFile own;
        if (own.Create((dir / "killed.quimg").c_str(), nullptr).code() == 0
            && writeHeaders(own, frame).code() == 0) {
            for (int cell = 0;; cell = (cell + 1) % own.getNumRegions()) {
                if (writeCell(own, frame, cell).code() != 0)
                    _exit(1);
                if (cell == 5)
                    raise(SIGKILL);
            }
        }
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "killed.quimg").c_str()).code(), 0);
    EXPECT_FALSE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 3);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

// --- Failures --------------------------------------------------------------------------------------------

TEST(RIFileErrors, PlacesThatCannotBeWrittenTo)
{
    const TempDir dir;
    RIFile file;
    const std::string missing = dir / "none/a.quimg";
    const ErrorCode error = file.Create(missing.c_str(), nullptr);
    EXPECT_EQ(error.code(), QUtils::RIERR_OPEN);
    EXPECT_STREQ(error.function(), "RIFile::Create");
    EXPECT_NE(std::string(error.message()).find(missing), std::string::npos) << error.message();
    EXPECT_EQ(file.Create(nullptr, nullptr).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(file.Create(dir.path().c_str(), nullptr).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(file.Open(missing.c_str()).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(file.Open(nullptr).code(), QUtils::RIERR_OPEN);
    EXPECT_EQ(file.Open("/dev/zero").code(), QUtils::RIERR_OPEN);
    writeFile(dir / "b.quimg", { 'n', 'o' });
    EXPECT_EQ(file.Open((dir / "b.quimg").c_str()).code(), QUtils::RIERR_FORMAT);
    EXPECT_EQ(readFile(dir / "b.quimg").size(), 2u);
}

TEST(RIFileErrors, CallsOutOfOrder)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    QUtils::RegionChannelTable list = frame.table();
    RISceneInfo scene {};
    RawTestData data(frame, {});
    RIFile file;
    const auto refused = [&](unsigned allowed) {
        const ErrorCode errors[] = { allowed == 0 ? ErrorCode() : file.WriteHeader(32),
            allowed == 1 ? ErrorCode() : file.WTResolution(23, 14, 1),
            allowed == 2 ? ErrorCode() : file.WTRenderRegion({}),
            allowed == 3 ? ErrorCode() : file.WTRegionsInfo(8, 6, 0),
            allowed == 4 ? ErrorCode() : file.WTChannelInfo(&list),
            allowed >= 5 ? ErrorCode() : file.WTCameraInfo({}),
            allowed >= 5 ? ErrorCode() : file.WTSceneInfo(scene),
            allowed >= 5 ? ErrorCode() : file.WTRegion(&data, -1, 0, 0) };
        int count = 0;
        for (const ErrorCode& error : errors)
            count += error.code() == QUtils::RIERR_ARGUMENT ? 1 : 0;
        return count;
    };
    EXPECT_EQ(refused(99), 5);
    EXPECT_EQ(file.WTCameraInfo({}).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.Close().code(), QUtils::RIERR_ARGUMENT);
    ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
    EXPECT_EQ(refused(0), 7);
    EXPECT_EQ(file.WriteHeader(32).code(), 0);
    EXPECT_EQ(refused(1), 7);
    EXPECT_EQ(file.WTResolution(23, 14, 1).code(), 0);
    EXPECT_EQ(refused(2), 7);
    EXPECT_EQ(file.WTRenderRegion({}).code(), 0);
    EXPECT_EQ(refused(3), 7);
    EXPECT_EQ(file.WTRegionsInfo(8, 6, 0).code(), 0);
    EXPECT_EQ(refused(4), 7);
    EXPECT_EQ(file.WTChannelInfo(&list).code(), 0);
    EXPECT_EQ(refused(5), 5);
    EXPECT_EQ(file.WTSceneInfo(scene).code(), 0);
    EXPECT_EQ(file.WTRegion(&data, -1, 0, 0).code(), 0);
    EXPECT_EQ(file.WTCameraInfo({}).code(), QUtils::RIERR_ARGUMENT); // There are regions.
    EXPECT_EQ(file.Close().code(), 0);
    EXPECT_EQ(file.Close().code(), QUtils::RIERR_ARGUMENT);
}

TEST(RIFileErrors, ValuesThatMakeNoSense)
{
    const TempDir dir;
    RIFile file;
    ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
    ASSERT_EQ(file.WriteHeader(32).code(), 0);
    EXPECT_EQ(file.WTResolution(0, 10, 1).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.WTResolution(10, -1, 1).code(), QUtils::RIERR_ARGUMENT);
    ASSERT_EQ(file.WTResolution(INT32_MAX, INT32_MAX, 1).code(), 0);
    for (const RIRegionInfo& region : { RIRegionInfo { 0, 0, 0, 5 }, RIRegionInfo { -1, 0, 5, 5 },
             RIRegionInfo { 5, 5, 4, 6 }, RIRegionInfo { 0, INT32_MIN, 5, 5 } })
        EXPECT_EQ(file.WTRenderRegion(region).code(), QUtils::RIERR_ARGUMENT);
    ASSERT_EQ(file.WTRenderRegion({}).code(), 0);
    EXPECT_EQ(file.WTRegionsInfo(-1, 1, 0).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.WTRegionsInfo(1, -1, 0).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.WTRegionsInfo(1, 1, 0).code(), QUtils::RIERR_ARGUMENT); // More than an int counts.
    EXPECT_EQ(file.WTRegionsInfo(0, 1, 0).code(), QUtils::RIERR_ARGUMENT); // A row does not fit in a block.
    ASSERT_EQ(file.WTRegionsInfo(1 << 20, 1 << 20, 0).code(), 0);
    EXPECT_EQ(file.getNumRegions(), 2048 * 2048);
    EXPECT_EQ(file.getRegion(2048 * 2048 - 1).right, INT32_MAX);
    RawTestChannel bad[] = { { "a", 1, 3, 1 }, { "a", 1, -1, 1 }, { "a", 1, 0, 0 }, { "a", 1, 0, 5 } };
    for (RawTestChannel& channel : bad) {
        QUtils::RegionChannelTable list;
        list.add(&channel);
        EXPECT_EQ(file.WTChannelInfo(&list).code(), QUtils::RIERR_ARGUMENT);
    }
    QUtils::RegionChannelTable list;
    list.add(nullptr);
    EXPECT_EQ(file.WTChannelInfo(&list).code(), QUtils::RIERR_ARGUMENT);
    EXPECT_EQ(file.getNumChannels(), 0);
}

TEST(RIFileErrors, FullDeviceIsAnErrorOfTheFirstCallThatWrites)
{
    RIFile file;
    ASSERT_EQ(file.Create("/dev/full", nullptr).code(), 0);
    const ErrorCode error = file.WriteHeader(32);
    EXPECT_EQ(error.code(), QUtils::RIERR_WRITE);
    EXPECT_NE(std::string(error.message()).find("No space left"), std::string::npos) << error.message();
    EXPECT_NE(file.Close().code(), 0);
}

/// Files of this process may have so many bytes while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::size_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit { bytes, m_before.rlim_max };
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    rlimit m_before {};
    void (*m_handler)(int);
};

TEST(RIFileErrors, FullDiskLosesOnlyWhatDidNotFitAndWritingGoesOn)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    writeWhole(dir / "whole.quimg", frame);
    const Bytes whole = readFile(dir / "whole.quimg");
    const std::string path = dir / "a.quimg";
    for (std::size_t limit = 0; limit < whole.size(); limit += 37) {
        RIFile file;
        ASSERT_EQ(file.Create(path.c_str(), nullptr).code(), 0);
        ErrorCode headers, closed;
        std::string done;
        {
            const FileSizeLimit full(limit);
            headers = writeHeaders(file, frame);
            for (int cell = 0; headers.code() == 0 && cell < file.getNumRegions(); ++cell)
                done += writeCell(file, frame, cell).code() == 0 ? '#' : '.';
        }
        if (headers.code() != 0) {
            EXPECT_EQ(headers.code(), QUtils::RIERR_WRITE);
            continue;
        }
        RIReader reader;
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
        for (int cell = 0; cell < reader.getNumRegions(); ++cell)
            EXPECT_EQ(reader.isRegionDone(cell), done[std::size_t(cell)] == '#') << limit << " " << cell;
        EXPECT_EQ(countWrongCells(reader, frame), 0);
        for (int cell = 0; cell < file.getNumRegions(); ++cell) { // There is room again.
            if (!file.isRegionDone(cell)) {
                ASSERT_EQ(writeCell(file, frame, cell).code(), 0);
            }
        }
        ASSERT_EQ(file.Close().code(), 0);
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
        EXPECT_TRUE(reader.isClosed());
        EXPECT_EQ(reader.countMissingRegions(), 0);
        EXPECT_EQ(countWrongCells(reader, frame), 0);
    }
}

TEST(RIFileErrors, IndexThatDoesNotFitIsLeftOut)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    writeWhole(dir / "whole.quimg", frame);
    const std::size_t size = readFile(dir / "whole.quimg").size();
    RIFile file;
    ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
    ASSERT_EQ(writeHeaders(file, frame).code(), 0);
    for (int cell = 0; cell < file.getNumRegions(); ++cell)
        ASSERT_EQ(writeCell(file, frame, cell).code(), 0);
    ErrorCode error;
    {
        const FileSizeLimit full(size - 5);
        error = file.Close();
    }
    EXPECT_EQ(error.code(), QUtils::RIERR_WRITE);
    RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_FALSE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 0);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

TEST(RIFileErrors, NoFileStaysOpen)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    const int before = openFiles();
    {
        RIFile file;
        ASSERT_EQ(file.Create((dir / "a.quimg").c_str(), nullptr).code(), 0);
        ASSERT_EQ(file.Create((dir / "b.quimg").c_str(), nullptr).code(), 0);
        ASSERT_EQ(writeHeaders(file, frame).code(), 0);
        EXPECT_EQ(openFiles(), before + 1);
        EXPECT_NE(file.Open((dir / "a.quimg").c_str()).code(), 0); // It has no headers.
        EXPECT_EQ(openFiles(), before);
        ASSERT_EQ(file.Open((dir / "b.quimg").c_str()).code(), 0);
    }
    EXPECT_EQ(openFiles(), before);
}

} // namespace
