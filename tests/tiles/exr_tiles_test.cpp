#include "rastkit/buffers.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "rastkit/tiles.h"
#include "support/exr_files.h"
#include "support/in_threads.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/throwing_sink.h"

#include <ImfFloatAttribute.h>
#include <ImfIntAttribute.h>
#include <ImfVecAttribute.h>
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace testing_support;
using Values = std::array<float, 4>;

class ExrTiles : public testing::Test {
protected:
    ExrTiles()
    {
        m_facts.width = 21;
        m_facts.height = 13;
        m_facts.isTiled = true;
        m_facts.tiles = Imf::TileDescription(8, 4, Imf::MIPMAP_LEVELS);
    }

    void write() { m_facts.write(m_name); }

    /// A loader of the file.
    std::unique_ptr<EXRTileLoaderParams> described()
    {
        auto params = std::make_unique<EXRTileLoaderParams>();
        EXPECT_EQ(LoadEXRHeaderEx(m_name.c_str(), *params).code(), IMGERR_NONE);
        params->fileName = m_name.c_str();
        return params;
    }

    int code(EXRTileLoaderParams& params, int tx, int ty, int level)
    {
        RecordingBuffer sink;
        return params.loadTile(tx, ty, level, sink).code();
    }

    /// What the file has at a place of a level, as it is delivered.
    Values pixel(int x, int y, int level) const
    {
        const auto value = [&](const char* name, float absent) {
            return m_facts.channels.count(name) ? ExrFileFacts::valueAt(name, x, y, level) : absent;
        };
        const bool isGrey = m_facts.channels.count("Y") && !m_facts.channels.count("R");
        const float first = isGrey ? value("Y", 0) : value("R", 0);
        return { first, isGrey ? first : value("G", 0), isGrey ? first : value("B", 0), value("A", 1) };
    }

    void expectTile(EXRTileLoaderParams& params, int tx, int ty, int level)
    {
        RecordingBuffer sink;
        ASSERT_EQ(params.loadTile(tx, ty, level, sink).code(), IMGERR_NONE);
        const int left = tx * params.tileWidth, top = ty * params.tileHeight;
        EXPECT_EQ(sink.initCalls, 0);
        ASSERT_EQ(sink.order.size(), std::size_t(params.tileWidth * params.tileHeight));
        std::size_t call = 0;
        for (int y = top; y < top + params.tileHeight; ++y)
            for (int x = left; x < left + params.tileWidth; ++x) {
                ASSERT_EQ(sink.order[call++], std::pair(x, y)); // Row by row.
                if (x >= params.levels[level].width || y >= params.levels[level].height)
                    continue; // Beyond the edge.
                ASSERT_EQ((sink.pixelsF[{ x, y }]), pixel(x, y, level)) << x << ' ' << y << ' ' << level;
            }
    }

    void expectAllTiles(EXRTileLoaderParams& params)
    {
        for (int level = params.numLevels; level-- > 0;)
            for (int ty = 0; ty < params.levels[level].tilesY; ++ty)
                for (int tx = 0; tx < params.levels[level].tilesX; ++tx)
                    expectTile(params, tx, ty, level);
    }

    ExrFileFacts m_facts;
    TempDir m_dir;
    std::string m_name = m_dir / "a.exr";
};

// --- The description -------------------------------------------------------------------------------------

TEST_F(ExrTiles, NothingIsDescribedAtFirst)
{
    const EXRTileLoaderParams params;
    EXPECT_EQ(params.width + params.height + params.numChannels + params.displayWindowHeight, 0);
    EXPECT_EQ(params.fileName, nullptr);
    EXPECT_EQ(
        params.isMipmapped + params.roundUp + params.tileWidth + params.tileHeight + params.numLevels, 0);
    EXPECT_EQ(params.levels, nullptr);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(params.minValue[i], 0);
        EXPECT_EQ(params.maxValue[i], 1);
    }
}

TEST_F(ExrTiles, MipMappedFilesAreDescribed)
{
    for (const Imf::LevelRoundingMode rounding : { Imf::ROUND_DOWN, Imf::ROUND_UP }) {
        m_facts.tiles.roundingMode = rounding;
        write();
        const auto params = described();
        IMGINFO info {};
        EXPECT_EQ(LoadEXRHeader(m_name.c_str(), &info).code(), IMGERR_NONE);
        EXPECT_EQ(params->width, info.width);
        EXPECT_EQ(params->height, 13);
        EXPECT_EQ(params->numChannels, 4);
        EXPECT_EQ(params->displayWindowWidth, info.displayWindowWidth);
        EXPECT_EQ(params->isMipmapped, 1);
        EXPECT_EQ(params->tileWidth, 8);
        EXPECT_EQ(params->tileHeight, 4);
        const bool isUp = rounding == Imf::ROUND_UP;
        EXPECT_EQ(params->roundUp, isUp ? 1 : 0);
        ASSERT_EQ(params->numLevels, isUp ? 6 : 5);
        const MipLevel& second = params->levels[1];
        EXPECT_EQ(second.width, isUp ? 11 : 10);
        EXPECT_EQ(second.height, isUp ? 7 : 6);
        EXPECT_EQ(second.tilesX, 2);
        EXPECT_EQ(second.tilesY, 2);
        const MipLevel& last = params->levels[params->numLevels - 1];
        EXPECT_EQ(last.width * last.height * last.tilesX * last.tilesY, 1);
    }
}

TEST_F(ExrTiles, WhatHasNoMipLevelsIsNotMipMapped)
{
    for (const int kind : { 0, 1, 2 }) {
        m_facts.isTiled = kind != 0;
        m_facts.tiles.mode = kind == 1 ? Imf::ONE_LEVEL : Imf::RIPMAP_LEVELS;
        write();
        const auto params = described();
        EXPECT_EQ(params->width, 21);
        EXPECT_EQ(params->isMipmapped, 0) << kind;
        EXPECT_EQ(params->numLevels, 0);
        EXPECT_EQ(params->levels, nullptr);
        testing::internal::CaptureStderr();
        EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
        EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    }
}

TEST_F(ExrTiles, DescribingAgainReplacesTheLevels)
{
    write();
    const auto params = described();
    m_facts.width = m_facts.height = 4;
    write();
    EXPECT_EQ(LoadEXRHeaderEx(m_name.c_str(), *params).code(), IMGERR_NONE);
    EXPECT_EQ(params->numLevels, 3);
    m_facts.isTiled = false;
    write();
    EXPECT_EQ(LoadEXRHeaderEx(m_name.c_str(), *params).code(), IMGERR_NONE);
    EXPECT_EQ(params->isMipmapped, 0);
}

TEST_F(ExrTiles, ScalarsAndVectorsTellTheRangeOfTheColours)
{
    Imf::Header header = m_facts.header();
    header.insert("minValue", Imf::FloatAttribute(-2));
    header.insert("maxValueVec", Imf::V3fAttribute({ 3, 4, 5 }));
    m_facts.write(m_name, header);
    const auto params = described();
    const float least[] = { -2, -2, -2, 0 }, most[] = { 3, 4, 5, 1 };
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(params->minValue[i], least[i]);
        EXPECT_EQ(params->maxValue[i], most[i]);
    }
}

TEST_F(ExrTiles, RangesOfOtherTypesAreIgnored)
{
    Imf::Header header = m_facts.header();
    header.insert("minValue", Imf::IntAttribute(-2));
    header.insert("maxValue", Imf::V3fAttribute({ 3, 4, 5 }));
    header.insert("minValueVec", Imf::FloatAttribute(7));
    header.insert("maxValueVec", Imf::V2fAttribute({ 3, 4 }));
    m_facts.write(m_name, header);
    const auto params = described();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(params->minValue[i], 0);
        EXPECT_EQ(params->maxValue[i], 1);
    }
}

TEST_F(ExrTiles, WhateverIsWrongWithTheHeaderIsAReadError)
{
    EXRTileLoaderParams params;
    EXPECT_EQ(LoadEXRHeaderEx((m_dir / "none.exr").c_str(), params).code(), IMGERR_READ);
    write();
    const Bytes whole = readFile(m_name);
    for (std::size_t size = 0; size < 400; size += 7) {
        writeFile(m_name, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
        const int answer = LoadEXRHeaderEx(m_name.c_str(), params).code();
        EXPECT_TRUE(answer == IMGERR_READ || size > 300) << size;
    }
}

// --- Tiles -----------------------------------------------------------------------------------------------

TEST_F(ExrTiles, EveryTileOfEveryLevelHasThePixelsOfTheFile)
{
    using Types = ExrFileFacts::PixelTypes;
    const Types sets[] = { { { "R", Imf::HALF }, { "G", Imf::HALF }, { "B", Imf::HALF }, { "A", Imf::HALF } },
        { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } },
        { { "R", Imf::HALF }, { "G", Imf::FLOAT }, { "B", Imf::HALF }, { "A", Imf::HALF } },
        { { "R", Imf::HALF }, { "A", Imf::HALF } }, { { "Y", Imf::HALF } },
        { { "Y", Imf::FLOAT }, { "A", Imf::FLOAT } } };
    for (const Types& channels : sets)
        for (const Imf::Compression compression :
            { Imf::NO_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION })
            for (const Imf::LevelRoundingMode rounding : { Imf::ROUND_DOWN, Imf::ROUND_UP }) {
                m_facts.channels = channels;
                m_facts.compression = compression;
                m_facts.tiles.roundingMode = rounding;
                write();
                expectAllTiles(*described());
            }
}

TEST_F(ExrTiles, TilesCountFromZeroWhereverTheDataWindowLies)
{
    for (const auto& [left, top] : { std::pair(-100, 37), { 5, -3 }, { 1000000000, -1000000000 } }) {
        m_facts.left = left;
        m_facts.top = top;
        write();
        expectAllTiles(*described());
    }
}

TEST_F(ExrTiles, TheSecondTileOfARowBeginsWhereTheFirstOneEnds)
{
    m_facts.width = m_facts.height = 128;
    m_facts.tiles = Imf::TileDescription(64, 64, Imf::MIPMAP_LEVELS);
    write();
    RecordingBuffer sink;
    ASSERT_EQ(described()->loadTile(1, 0, 0, sink).code(), IMGERR_NONE);
    EXPECT_EQ(sink.order.front(), std::pair(64, 0));
    EXPECT_EQ(sink.order.back(), std::pair(127, 63));
}

TEST_F(ExrTiles, RowsAndPixelsAreTheSame)
{
    write();
    const auto params = described();
    QUtils::ImageF image;
    image.init(24, 16);
    RecordingBuffer pixels;
    for (int tx = 0; tx < 3; ++tx)
        for (int ty = 0; ty < 4; ++ty) {
            EXPECT_EQ(params->loadTile(tx, ty, 0, image).code(), IMGERR_NONE);
            EXPECT_EQ(params->loadTile(tx, ty, 0, pixels).code(), IMGERR_NONE);
        }
    for (int y = 0; y < 13; ++y)
        for (int x = 0; x < 21; ++x)
            ASSERT_EQ(
                std::memcmp(image.row(y) + std::size_t(x) * 4, (pixels.pixelsF[{ x, y }]).data(), 16), 0);
}

// --- What is not there -----------------------------------------------------------------------------------

TEST_F(ExrTiles, TilesAndLevelsThatAreNotThereAreReadErrors)
{
    write();
    const auto params = described();
    testing::internal::CaptureStderr();
    for (const auto& [tx, ty, level] : { std::array { -1, 0, 0 }, { 0, -1, 0 }, { 3, 0, 0 }, { 0, 4, 0 },
             { 0, 0, -1 }, { 0, 0, 5 }, { 2, 0, 1 }, { INT_MAX, INT_MAX, 0 }, { INT_MIN, 0, INT_MAX } })
        EXPECT_EQ(code(*params, tx, ty, level), IMGERR_READ) << tx << ' ' << ty << ' ' << level;
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    expectAllTiles(*params);
}

TEST_F(ExrTiles, DamagedTilesAreReadErrorsWithALineAndOthersStillLoad)
{
    m_facts.compression = Imf::ZIP_COMPRESSION;
    write();
    Bytes bytes = readFile(m_name);
    bytes.resize(bytes.size() - 30); // The smallest levels come last.
    writeFile(m_name, bytes);
    const auto params = described();
    testing::internal::CaptureStderr();
    EXPECT_EQ(code(*params, 0, 0, params->numLevels - 1), IMGERR_READ);
    const std::string line = testing::internal::GetCapturedStderr();
    ASSERT_FALSE(line.empty());
    EXPECT_EQ(line.back(), '\n');
    expectTile(*params, 1, 1, 0);
}

TEST_F(ExrTiles, ADamagedTileDoesNotSpoilItsNeighbours)
{
    m_facts.width = m_facts.height = 32;
    m_facts.tiles = Imf::TileDescription(8, 8, Imf::MIPMAP_LEVELS);
    m_facts.compression = Imf::ZIP_COMPRESSION;
    write();
    Bytes bytes = readFile(m_name);
    const std::size_t header
        = bytes.size(); // The table of places follows the header; a tile begins with its x.
    std::uint64_t place = 0;
    for (std::size_t at = 0; at + 8 <= header && place == 0; ++at) {
        // The first tile's place is behind the table, which has 16 + 4 + 1 + 1 + 1 + 1 entries.
        std::uint64_t first = 0;
        std::memcpy(&first, bytes.data() + at, sizeof first);
        if (first == at + 24 * sizeof first)
            std::memcpy(&place, bytes.data() + at + 2 * sizeof place, sizeof place);
    }
    ASSERT_NE(place, 0u);
    bytes[place] ^= 0x55; // Of tile (2, 0).
    writeFile(m_name, bytes);
    const auto params = described();
    testing::internal::CaptureStderr();
    for (int i = 0; i < 2; ++i) {
        expectTile(*params, 0, 0, 0);
        EXPECT_EQ(code(*params, 2, 0, 0), IMGERR_READ);
        expectTile(*params, 1, 0, 0);
        EXPECT_EQ(code(*params, 2, 0, 0), IMGERR_READ);
        expectTile(*params, 3, 0, 0);
        expectTile(*params, 1, 0, 0);
    }
    testing::internal::GetCapturedStderr();
}

TEST_F(ExrTiles, EveryCutOfASmallFileIsAnErrorOrTheRightPixels)
{
    m_facts.width = m_facts.height = 9;
    write();
    const Bytes whole = readFile(m_name);
    testing::internal::CaptureStderr();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        writeFile(m_name, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
        EXRTileLoaderParams params;
        if (LoadEXRHeaderEx(m_name.c_str(), params).code() != IMGERR_NONE)
            continue;
        params.fileName = m_name.c_str();
        for (int level = 0; level < params.numLevels; ++level)
            if (code(params, 0, 0, level) == IMGERR_NONE)
                expectTile(params, 0, 0, level);
    }
    testing::internal::GetCapturedStderr();
}

TEST_F(ExrTiles, FilesThatChangedSinceTheyWereDescribedAreReadErrors)
{
    write();
    const auto other = [&](auto change) {
        const auto params = described();
        const ExrFileFacts before = m_facts;
        change(m_facts);
        write();
        testing::internal::CaptureStderr();
        EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
        EXPECT_NE(testing::internal::GetCapturedStderr(), "");
        m_facts = before;
        write();
    };
    other([](ExrFileFacts& facts) { facts.tiles.xSize = 16; });
    other([](ExrFileFacts& facts) { facts.tiles.ySize = 2; });
    other([](ExrFileFacts& facts) { facts.tiles.mode = Imf::ONE_LEVEL; });
    other([](ExrFileFacts& facts) { facts.channels = { { "Y", Imf::HALF } }; });
    other([](ExrFileFacts& facts) { facts.isTiled = false; });
    expectAllTiles(*described());
}

TEST_F(ExrTiles, NothingLoadsWithoutAFileNameOrAfterFreeMem)
{
    write();
    const int files = openFiles();
    const auto params = described();
    params->fileName = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
    testing::internal::GetCapturedStderr();
    params->fileName = m_name.c_str();
    expectTile(*params, 0, 0, 0);
    EXPECT_EQ(openFiles(), files + 1);
    params->freeMem();
    EXPECT_EQ(openFiles(), files);
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
    params->freeMem();
    EXPECT_NE(params->levels, nullptr);
}

TEST_F(ExrTiles, TheFileIsOpenedOnceAndStaysOpen)
{
    write();
    const auto params = described();
    expectTile(*params, 0, 0, 0);
    ASSERT_EQ(std::remove(m_name.c_str()), 0);
    expectAllTiles(*params);
}

TEST_F(ExrTiles, WhatTheBufferThrowsIsAReadErrorAndLeavesTheLoaderUsable)
{
    write();
    const auto params = described();
    ThrowingSink sink;
    sink.throwAtPixel = 5;
    testing::internal::CaptureStderr();
    EXPECT_EQ(params->loadTile(0, 0, 0, sink).code(), IMGERR_READ);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "setPixelF\n");
    inThreads(1, [&](int) { expectTile(*params, 1, 0, 0); }); // Another thread: the lock is free.
}

// --- Threads ---------------------------------------------------------------------------------------------

TEST_F(ExrTiles, ManyThreadsLoadThroughOneObject)
{
    write();
    const auto params = described();
    inThreads(8, [&](int number) {
        for (int i = 0; i < 40; ++i)
            expectTile(*params, (number + i) % 3, i % 4, 0);
    });
}

TEST_F(ExrTiles, ManyObjectsLoadAtOnce)
{
    write();
    inThreads(8, [&](int) { expectAllTiles(*described()); });
}

} // namespace
