#include "rastkit/buffers.h"
#include "rastkit/save.h"
#include "rastkit/tiles.h"
#include "support/in_threads.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/throwing_sink.h"
#include "support/tiff_textures.h"

#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using Values = std::array<float, 4>;

using Texture = TiffTexture;

class TiffTiles : public testing::Test {
protected:
    void write() { m_texture.write(m_name); }

    int describedCode(TIFTileLoaderParams& params)
    {
        const int code = LoadTIFHeaderEx(m_name.c_str(), params).code();
        params.fileName = m_name.c_str();
        return code;
    }

    std::unique_ptr<TIFTileLoaderParams> described()
    {
        auto params = std::make_unique<TIFTileLoaderParams>();
        EXPECT_EQ(describedCode(*params), IMGERR_NONE);
        EXPECT_EQ(params->isMipmapped, 1);
        return params;
    }

    int code(TIFTileLoaderParams& params, int tx, int ty, int level)
    {
        RecordingBuffer sink;
        return params.loadTile(tx, ty, level, sink).code();
    }

    float valueAt(int x, int y, unsigned sample, int level) const
    {
        const unsigned number = Texture::numberAt(std::uint32_t(x), std::uint32_t(y), sample, level);
        return m_texture.format == SAMPLEFORMAT_IEEEFP ? float(number) / 16
                                                       : float(number) * float(1 / 255.0);
    }

    Values pixel(int x, int y, int level) const
    {
        const float first = valueAt(x, y, 0, level);
        if (m_texture.photometric != PHOTOMETRIC_RGB)
            return { first, first, first, 1 };
        return { first, valueAt(x, y, 1, level), valueAt(x, y, 2, level),
            m_texture.samples == 4 ? valueAt(x, y, 3, level) : 1 };
    }

    void expectTile(TIFTileLoaderParams& params, int tx, int ty, int level)
    {
        RecordingBuffer sink;
        ASSERT_EQ(params.loadTile(tx, ty, level, sink).code(), IMGERR_NONE)
            << tx << ' ' << ty << ' ' << level;
        const MipLevel& shape = params.levels[level];
        const int left = tx * params.tileWidth, right = std::min(left + params.tileWidth, shape.width);
        const int top = ty * params.tileHeight, bottom = std::min(top + params.tileHeight, shape.height);
        EXPECT_EQ(sink.initCalls, 0);
        ASSERT_EQ(sink.order.size(), std::size_t((right - left) * (bottom - top)));
        for (int y = top; y < bottom; ++y)
            for (int x = left; x < right; ++x) {
                const Values found = sink.pixelsF[{ x, y }], expected = pixel(x, y, level);
                for (std::size_t i = 0; i < 4; ++i)
                    ASSERT_NEAR(found[i], expected[i], 1e-6) << x << ' ' << y << ' ' << level << ' ' << i;
            }
    }

    void expectAllTiles(TIFTileLoaderParams& params)
    {
        for (int level = params.numLevels; level-- > 0;)
            for (int ty = 0; ty < params.levels[level].tilesY; ++ty)
                for (int tx = 0; tx < params.levels[level].tilesX; ++tx)
                    expectTile(params, tx, ty, level);
    }

    Texture m_texture;
    TempDir m_dir;
    std::string m_name = m_dir / "a.tif";
};

// --- The description -------------------------------------------------------------------------------------

TEST_F(TiffTiles, TexturesAreDescribed)
{
    write();
    const auto params = described();
    EXPECT_EQ(params->width, 40);
    EXPECT_EQ(params->height, 24);
    EXPECT_EQ(params->bitsPerPixel, 24);
    EXPECT_EQ(params->numChannels, 3);
    EXPECT_EQ(params->bytesPerPixel, 3);
    EXPECT_EQ(params->tileWidth, 16);
    EXPECT_EQ(params->tileHeight, 16);
    EXPECT_EQ(params->roundUp, 0);
    EXPECT_EQ(params->minValue[0], 0);
    EXPECT_EQ(params->maxValue[3], 1);
    ASSERT_EQ(params->numLevels, 6);
    const int expected[][4] = { { 3, 2, 40, 24 }, { 2, 1, 20, 12 }, { 1, 1, 10, 6 }, { 1, 1, 5, 3 },
        { 1, 1, 2, 1 }, { 1, 1, 1, 1 } };
    for (int i = 0; i < 6; ++i) {
        const MipLevel& level = params->levels[i];
        EXPECT_EQ((std::array { level.tilesX, level.tilesY, level.width, level.height }),
            std::to_array(expected[i]));
    }
}

TEST_F(TiffTiles, WindowsAreOnePixelTooLargeDeliberately)
{
    write();
    const auto params = described();
    EXPECT_EQ(params->dataWindowX + params->dataWindowY + params->displayWindowX + params->displayWindowY, 0);
    EXPECT_EQ(params->dataWindowWidth, 41);
    EXPECT_EQ(params->dataWindowHeight, 25);
    EXPECT_EQ(params->displayWindowWidth, 41);
    EXPECT_EQ(params->displayWindowHeight, 25);
}

TEST_F(TiffTiles, LevelsAreCountedToTheFirstMissingDirectory)
{
    m_texture.width = m_texture.height = 512;
    m_texture.tileWidth = m_texture.tileHeight = 64;
    write();
    EXPECT_EQ(described()->numLevels, 10);
    m_texture.levels = 3;
    write();
    EXPECT_EQ(described()->numLevels, 3);
    m_texture.width = m_texture.height = 1;
    write();
    EXPECT_EQ(described()->numLevels, 1);
}

TEST_F(TiffTiles, DirectoriesBelowOnePixelAreNoLevels)
{
    m_texture.width = 5, m_texture.height = 3;
    write();
    EXPECT_EQ(described()->numLevels, 3); // 5, 2, 1.
}

TEST_F(TiffTiles, StripsAndUnmarkedFilesAreNotMipMapped)
{
    for (const char* const mark : { static_cast<const char*>(nullptr), "0", "" }) {
        m_texture.mark = mark;
        write();
        TIFTileLoaderParams params;
        EXPECT_EQ(describedCode(params), IMGERR_NONE);
        EXPECT_EQ(params.isMipmapped + params.numLevels, 0);
        EXPECT_EQ(params.tileWidth, 16);
        EXPECT_EQ(code(params, 0, 0, 0), IMGERR_READ);
    }
    IMGINFO info {};
    info.width = 3, info.height = 2;
    unsigned int pixels[6] = {};
    ASSERT_EQ(SaveTIFFile(m_name.c_str(), &info, pixels).code(), IMGERR_NONE);
    TIFTileLoaderParams params;
    EXPECT_EQ(describedCode(params), IMGERR_NONE);
    EXPECT_EQ(params.isMipmapped + params.tileWidth, 0);
    EXPECT_EQ(params.width, 3);
}

TEST_F(TiffTiles, MissingAndForeignFilesAreErrors)
{
    TIFTileLoaderParams params;
    const ImgError missing = LoadTIFHeaderEx((m_dir / "none.tif").c_str(), params);
    EXPECT_EQ(missing.code(), IMGERR_OPEN);
    EXPECT_STREQ(missing.function(), "makeOpenError");
    writeFile(m_name, Bytes(100, 7));
    EXPECT_EQ(describedCode(params), IMGERR_OPEN);
}

TEST_F(TiffTiles, DirectoriesThatAreNoLevelsAreFormatErrors)
{
    const int files = openFiles();
    const auto expectFormatError = [&](std::function<void(TIFF*, int)> change) {
        m_texture.change = std::move(change);
        write();
        {
            TIFTileLoaderParams params;
            EXPECT_EQ(describedCode(params), IMGERR_FORMAT);
            EXPECT_EQ(openFiles(), files);
            EXPECT_EQ(code(params, 0, 0, 0), IMGERR_READ);
        }
        EXPECT_EQ(openFiles(), files);
    };
    expectFormatError([](TIFF* tiff, int level) { // Larger than the first one's.
        if (level == 2)
            TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 32);
    });
    m_texture.tileWidth = m_texture.tileHeight = 32;
    expectFormatError([](TIFF* tiff, int level) { // Small tiles, and several of them.
        if (level == 1)
            TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
    });
    m_texture.samples = 1;
    m_texture.photometric = PHOTOMETRIC_MINISBLACK;
    m_texture.bits = 4;
    expectFormatError([](TIFF* tiff, int level) { // Small tiles of half bytes.
        if (level == 2)
            TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
    });
}

// --- Tiles -----------------------------------------------------------------------------------------------

TEST_F(TiffTiles, EveryTileOfEveryLevelHasThePixelsOfTheFile)
{
    struct Kind {
        unsigned bits, samples, format, photometric;
    };
    for (const Kind& kind : { Kind { 8, 3, SAMPLEFORMAT_UINT, PHOTOMETRIC_RGB },
             { 8, 4, SAMPLEFORMAT_UINT, PHOTOMETRIC_RGB }, { 16, 3, SAMPLEFORMAT_UINT, PHOTOMETRIC_RGB },
             { 32, 3, SAMPLEFORMAT_IEEEFP, PHOTOMETRIC_RGB }, { 32, 4, SAMPLEFORMAT_IEEEFP, PHOTOMETRIC_RGB },
             { 8, 1, SAMPLEFORMAT_UINT, PHOTOMETRIC_MINISBLACK },
             { 8, 1, SAMPLEFORMAT_UINT, PHOTOMETRIC_PALETTE } })
        for (const unsigned planes : { 1u, 2u })
            for (const int compression : { COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE })
                for (const bool shrinks : { false, true }) {
                    m_texture.bits = kind.bits;
                    m_texture.samples = kind.samples;
                    m_texture.format = kind.format;
                    m_texture.photometric = kind.photometric;
                    m_texture.planarConfig = planes;
                    m_texture.compression = unsigned(compression);
                    m_texture.shrinksTiles = shrinks;
                    m_texture.tileWidth = m_texture.tileHeight = shrinks ? 32 : 16;
                    write();
                    expectAllTiles(*described());
                }
}

TEST_F(TiffTiles, LevelsThatAreStoredInDifferentWaysAreReadInAnyOrder)
{
    m_texture.bits = 16;
    m_texture.width = m_texture.height = 100;
    m_texture.tileWidth = m_texture.tileHeight = 32;
    m_texture.shrinksTiles = true;
    m_texture.change = [](TIFF* tiff, int level) {
        constexpr int compressions[] = { COMPRESSION_ADOBE_DEFLATE, COMPRESSION_ADOBE_DEFLATE,
            COMPRESSION_LZW, COMPRESSION_NONE, COMPRESSION_ADOBE_DEFLATE };
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, compressions[level % 5]);
        if (level == 0 || level == 2)
            TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
        if (level == 3)
            TIFFSetField(tiff, TIFFTAG_FILLORDER, FILLORDER_LSB2MSB);
    };
    for (const char* const mode : { "wl", "wb" }) {
        m_texture.mode = mode;
        write();
        const auto params = described();
        for (const int level : { 0, 2, 0, 1, 3, 1, 0, 4, 2, 6, 0, 5, 3 })
            expectTile(*params, 0, 0, level);
        expectAllTiles(*params);
        expectTile(*params, 3, 3, 0);
    }
}

TEST_F(TiffTiles, LevelsWithAMissingTileHaveTheOthers)
{
    m_texture.compression = COMPRESSION_ADOBE_DEFLATE;
    m_texture.levelWithoutLastTile = 1;
    write();
    const auto params = described();
    for (int i = 0; i < 2; ++i) {
        expectTile(*params, 0, 0, 0);
        expectTile(*params, 0, 0, 1);
        EXPECT_EQ(code(*params, 1, 0, 1), IMGERR_READ);
        expectTile(*params, 2, 1, 0);
    }
}

TEST_F(TiffTiles, LevelsThatTheCallerDescribesAnewAreReadErrors)
{
    write();
    const auto params = described();
    expectTile(*params, 2, 1, 0);
    expectTile(*params, 0, 0, 1);
    params->levels[0].width = 400;
    EXPECT_EQ(code(*params, 20, 0, 0), IMGERR_READ);
    params->levels[0].width = 40;
    expectTile(*params, 2, 1, 0);
}

TEST_F(TiffTiles, LevelsInOneSmallTileHaveNoOther)
{
    m_texture.width = m_texture.height = 64;
    m_texture.tileWidth = m_texture.tileHeight = 64;
    m_texture.shrinksTiles = true;
    write();
    const auto params = described();
    expectTile(*params, 0, 0, 2);
    EXPECT_EQ(code(*params, 1, 0, 2), IMGERR_FORMAT);
    EXPECT_EQ(code(*params, 0, -1, 2), IMGERR_FORMAT);
    EXPECT_EQ(code(*params, 1, 0, 0), IMGERR_READ);
}

TEST_F(TiffTiles, PixelsOfBrokenBytesAreFormatErrors)
{
    m_texture.bits = 12;
    m_texture.levels = 1;
    write();
    const auto params = described();
    EXPECT_EQ(params->bytesPerPixel, 4);
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_FORMAT);
}

TEST_F(TiffTiles, OrientationMirrorsWithinTheLevel)
{
    m_texture.orientation = ORIENTATION_BOTRIGHT;
    write();
    const auto params = described();
    RecordingBuffer sink;
    ASSERT_EQ(params->loadTile(0, 0, 1, sink).code(), IMGERR_NONE);
    EXPECT_NEAR((sink.pixelsF[{ 19, 11 }][0]), valueAt(0, 0, 0, 1), 1e-6);
    EXPECT_NEAR((sink.pixelsF[{ 18, 10 }][0]), valueAt(1, 1, 0, 1), 1e-6);
}

TEST_F(TiffTiles, LogLuvTilesAreFloats)
{
    m_texture.photometric = PHOTOMETRIC_LOGLUV;
    m_texture.compression = COMPRESSION_SGILOG;
    m_texture.bits = 32;
    m_texture.format = SAMPLEFORMAT_IEEEFP;
    m_texture.change
        = [](TIFF* tiff, int) { TIFFSetField(tiff, TIFFTAG_SGILOGDATAFMT, SGILOGDATAFMT_FLOAT); };
    write();
    const auto params = described();
    for (const int level : { 0, 1, 0, 2 }) { // Every change of the directory forgets the choice of floats.
        RecordingBuffer sink;
        ASSERT_EQ(params->loadTile(0, 0, level, sink).code(), IMGERR_NONE) << level;
        const float x = valueAt(3, 2, 0, level), y = valueAt(3, 2, 1, level), z = valueAt(3, 2, 2, level);
        const float red = 2.565619f * x - 1.166989f * y - 0.398511f * z;
        EXPECT_NEAR((sink.pixelsF[{ 3, 2 }][0]), red, 0.03f * std::max(std::abs(x) + std::abs(y), 1.0f))
            << level;
    }
}

// --- libtiff's conversion --------------------------------------------------------------------------------

TEST_F(TiffTiles, BytesOfConvertedTilesAreDividedBy256Deliberately)
{
    m_texture.samples = 4; // Inks, which only libtiff reads here. Without colours each is a grey.
    m_texture.photometric = PHOTOMETRIC_SEPARATED;
    m_texture.hasOnlyBlackInk = true;
    write();
    const auto params = described();
    RecordingBuffer sink;
    ASSERT_EQ(params->loadTile(1, 0, 0, sink).code(), IMGERR_NONE);
    ASSERT_EQ(sink.order.size(), 256u);
    for (int y = 0; y < 16; ++y)
        for (int x = 16; x < 32; ++x) {
            const unsigned ink = Texture::numberAt(unsigned(x), unsigned(y), 3, 0);
            const float grey = float(255 - ink) / 256;
            ASSERT_EQ((sink.pixelsF[{ x, y }]), (Values { grey, grey, grey, 0.99609375f })) << x << ' ' << y;
        }
}

TEST_F(TiffTiles, ConvertedTilesAtTheEdgeAreWhole)
{
    m_texture.photometric = PHOTOMETRIC_SEPARATED;
    m_texture.samples = 4;
    write();
    const auto params = described();
    RecordingBuffer sink;
    ASSERT_EQ(params->loadTile(2, 1, 0, sink).code(), IMGERR_NONE);
    EXPECT_EQ(sink.order.size(), 256u);
    EXPECT_EQ(sink.pixelsF.count({ 32, 16 }), 1u);
    EXPECT_EQ(sink.pixelsF.count({ 47, 31 }), 1u);
    EXPECT_EQ(code(*params, 3, 0, 0), IMGERR_READ);
}

// --- What is not there -----------------------------------------------------------------------------------

TEST_F(TiffTiles, TilesAndLevelsThatAreNotThereAreReadErrors)
{
    write();
    const auto params = described();
    for (const auto& [tx, ty, level] : { std::array { -1, 0, 0 }, { 0, -1, 0 }, { 3, 0, 0 }, { 0, 2, 0 },
             { 0, 0, -1 }, { 0, 0, 6 }, { INT_MAX, INT_MAX, 0 }, { INT_MIN, INT_MIN, 1 } })
        EXPECT_EQ(code(*params, tx, ty, level), IMGERR_READ) << tx << ' ' << ty << ' ' << level;
    expectAllTiles(*params);
}

TEST_F(TiffTiles, AFailedFirstOpenLastsForEver)
{
    write();
    const auto params = described();
    ASSERT_EQ(std::rename(m_name.c_str(), (m_dir / "b.tif").c_str()), 0);
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
    write();
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
    expectAllTiles(*described());
}

TEST_F(TiffTiles, FilesThatChangedSinceTheyWereDescribedAreReadErrors)
{
    write();
    const auto other = [&](auto change) {
        const auto params = described();
        const Texture before = m_texture;
        change(m_texture);
        write();
        EXPECT_EQ(code(*params, 0, 0, 1), IMGERR_READ);
        m_texture = before;
        write();
    };
    other([](Texture& texture) { texture.tileWidth = 32; });
    other([](Texture& texture) { texture.bits = 16; });
    other([](Texture& texture) { texture.samples = 4; });
    other([](Texture& texture) { texture.width = 60; });
    other([](Texture& texture) { texture.levels = 1; });
    other([](Texture& texture) {
        texture.change
            = [](TIFF* tiff, int level) { TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, level ? 32 : 8); };
    });
}

TEST_F(TiffTiles, LevelsOfOtherSamplesAreReadErrors)
{
    m_texture.change = [](TIFF* tiff, int level) {
        if (level == 1)
            TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
        if (level == 2)
            TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_INT);
    };
    write();
    const auto params = described();
    EXPECT_EQ(code(*params, 0, 0, 1), IMGERR_READ);
    EXPECT_EQ(code(*params, 0, 0, 2), IMGERR_READ);
    expectTile(*params, 1, 1, 0);
}

TEST_F(TiffTiles, EveryCutOfASmallFileIsAnErrorOrTheRightPixels)
{
    m_texture.width = m_texture.height = 20;
    m_texture.compression = COMPRESSION_LZW;
    write();
    const Bytes whole = readFile(m_name);
    const int files = openFiles();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        writeFile(m_name, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
        TIFTileLoaderParams params;
        if (describedCode(params) != IMGERR_NONE || !params.isMipmapped)
            continue;
        for (int level = 0; level < params.numLevels; ++level)
            if (code(params, 0, 0, level) == IMGERR_NONE)
                expectTile(params, 0, 0, level);
    }
    EXPECT_EQ(openFiles(), files);
}

TEST_F(TiffTiles, NothingLoadsAfterFreeMem)
{
    write();
    const int files = openFiles();
    const auto params = described();
    expectTile(*params, 0, 0, 0);
    EXPECT_EQ(openFiles(), files + 1);
    params->freeMem();
    EXPECT_EQ(openFiles(), files);
    EXPECT_EQ(code(*params, 0, 0, 0), IMGERR_READ);
    params->freeMem();
    EXPECT_NE(params->levels, nullptr);
}

TEST_F(TiffTiles, WhatTheBufferThrowsReachesTheCallerAndLeavesTheLoaderUsable)
{
    write();
    const auto params = described();
    ThrowingSink sink;
    sink.throwAtPixel = 5;
    EXPECT_THROW(static_cast<void>(params->loadTile(0, 0, 0, sink)), std::runtime_error);
    inThreads(1, [&](int) { expectTile(*params, 1, 0, 0); }); // Another thread: the lock is free.
}

// --- Threads ---------------------------------------------------------------------------------------------

TEST_F(TiffTiles, ManyThreadsLoadThroughOneObject)
{
    write();
    const auto params = described();
    inThreads(8, [&](int number) {
        for (int i = 0; i < 40; ++i)
            expectTile(*params, 0, 0, (number + i) % 6);
    });
}

TEST_F(TiffTiles, ManyObjectsLoadAtOnce)
{
    write();
    inThreads(8, [&](int) { expectAllTiles(*described()); });
}

} // namespace
