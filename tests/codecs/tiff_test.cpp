#include "rastkit/codecs/tiff.h"

#include "rastkit/buffers.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/load.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/tiff_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <tiffio.h>
#include <zlib.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

using Rgba = std::array<float, 4>;

constexpr Conventions renderer = Conventions::Renderer, standard = Conventions::Standard;
constexpr std::array<Conventions, 2> both { renderer, standard };

/// A file that is loaded, and what came of it.
struct Loaded {
    explicit Loaded(const TiffBytes& file, Conventions conventions = renderer)
        : Loaded(file.bytes(), conventions)
    {
    }
    explicit Loaded(const Bytes& file, Conventions conventions = renderer)
    {
        static const TempDir folder; // Hundreds of files one after the other.
        writeFile(folder / "image.tif", file);
        code = codeOf(QUtils::loadTiff((folder / "image.tif").c_str(), sink, &info, conventions));
    }

    /// A pixel, stored as floats or packed.
    Rgba at(int x, int y) const
    {
        const auto found = sink.pixelsF.find({ x, y });
        if (found != sink.pixelsF.end())
            return found->second;
        const unsigned int argb = sink.pixels.at({ x, y });
        const auto channel = [&](int shift) { return float(argb >> shift & 0xFF) / 255; };
        return { channel(16), channel(8), channel(0), channel(24) };
    }
    /// Red of all pixels, row after row, in units of 1 / scale.
    std::vector<int> reds(double scale = 255) const
    {
        std::vector<int> values;
        for (int y = 0; y < sink.height; ++y)
            for (int x = 0; x < sink.width; ++x)
                values.push_back(int(std::lround(at(x, y)[0] * scale)));
        return values;
    }

    RecordingBuffer sink;
    IMGINFO info {};
    int code = -1;
};

TiffBytes rgb8()
{
    return { .width = 2, .samples = 3, .photometric = 2, .chunks = { { 255, 0, 0, 0, 51, 255 } } };
}

/// A 3 x 2 picture of grey 0 to 5.
TiffBytes sixGreys()
{
    return { .width = 3, .height = 2, .chunks = { { 0, 1, 2, 3, 4, 5 } } };
}

// --- Where samples are -----------------------------------------------------------------------------------

TEST(TiffLoad, SmallestFileIsRead)
{
    for (const Conventions conventions : both)
        for (const bool bigEndian : { false, true })
            for (const bool bigTiff : { false, true }) {
                const Loaded image(
                    TiffBytes { .bigEndian = bigEndian, .bigTiff = bigTiff, .chunks = { { 255 } } },
                    conventions);
                EXPECT_EQ(image.code, IMGERR_NONE);
                EXPECT_EQ(image.at(0, 0), (Rgba { 1, 1, 1, 1 }));
                EXPECT_EQ(image.sink.freeCalls, 0);
            }
}

TEST(TiffLoad, InfoDescribesTheSamplesOfTheFile)
{
    const Loaded image(rgb8());
    EXPECT_EQ(image.info.width, 2);
    EXPECT_EQ(image.info.height, 1);
    EXPECT_EQ(image.info.bitsPerPixel, 24);
    EXPECT_EQ(image.info.numChannels, 3);
    EXPECT_EQ(image.info.bytesPerPixel, 3);
    EXPECT_EQ(image.at(1, 0), (Rgba { 0, 51 * (1 / 255.f), 1, 1 }));
}

TEST(TiffLoad, SixteenBitsKeepTheirPrecision)
{
    for (const Conventions conventions : both)
        for (const bool bigEndian : { false, true }) {
            TiffBytes file { .bigEndian = bigEndian, .bits = 16, .samples = 3, .photometric = 2 };
            file.chunks = { file.numbers(2, { 65535, 1, 258 }) };
            const float k = 1 / 65535.f;
            EXPECT_EQ(Loaded(file, conventions).at(0, 0), (Rgba { 1, k, 258 * k, 1 }));
        }
}

TEST(TiffLoad, FloatsAreHandedOnAsTheyAre)
{
    for (const Conventions conventions : both) {
        TiffBytes file { .bits = 32, .samples = 4, .photometric = 2, .sampleFormat = 3 };
        file.chunks = { file.numbers(4, { 0x40200000, 0xBF800000, 0x7F800000, 0x3F000000 }) };
        EXPECT_EQ(Loaded(file, conventions).at(0, 0), (Rgba { 2.5f, -1, INFINITY, 0.5f }));
        TiffBytes wide { .bigEndian = true, .bits = 64, .photometric = 0, .sampleFormat = 3 };
        wide.chunks = { wide.numbers(8, { 0x3FD0000000000000 }) };
        EXPECT_EQ(Loaded(wide, conventions).at(0, 0), (Rgba { 0.75f, 0.75f, 0.75f, 1 }));
    }
}

TEST(TiffLoad, IntegersOf64BitsAreScaled)
{
    TiffBytes file { .width = 2, .bits = 64 };
    file.chunks = { file.numbers(8, { UINT64_MAX, std::uint64_t(1) << 63 }) };
    for (const Conventions conventions : both)
        EXPECT_THAT(Loaded(file, conventions).reds(), ElementsAre(255, 128));
}

TEST(TiffLoad, StripsFollowEachOtherAndTheLastIsShorter)
{
    for (const Conventions conventions : both) {
        TiffBytes file { .width = 2, .height = 5, .rowsPerStrip = 2 };
        file.chunks = { { 0, 1, 2, 3 }, { 4, 5, 6, 7 }, { 8, 9 } };
        EXPECT_THAT(Loaded(file, conventions).reds(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    }
}

TEST(TiffLoad, RowsBeginWithAByte)
{
    TiffBytes file { .width = 3, .height = 2, .bits = 4, .chunks = { { 0x12, 0x3F, 0x45, 0x6F } } };
    for (const Conventions conventions : both)
        EXPECT_THAT(Loaded(file, conventions).reds(15), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(TiffLoad, TilesOverhangTheImage)
{
    for (const Conventions conventions : both) {
        TiffBytes file { .width = 20, .height = 17, .tileWidth = 16, .tileLength = 16 };
        for (int tile = 0; tile < 4; ++tile) {
            Bytes bytes;
            for (int i = 0; i < 256; ++i)
                bytes.push_back(std::uint8_t(tile * 50 + i % 16 + i / 16));
            file.chunks.push_back(bytes);
        }
        const Loaded image(file, conventions);
        ASSERT_EQ(image.code, IMGERR_NONE);
        EXPECT_EQ(image.sink.order.size(), 340u);
        for (int y = 0; y < 17; ++y)
            for (int x = 0; x < 20; ++x) {
                const int tile = x / 16 + y / 16 * 2;
                EXPECT_EQ(std::lround(image.at(x, y)[0] * 255), tile * 50 + x % 16 + y % 16) << x << ' ' << y;
            }
    }
}

TEST(TiffLoad, RendererTakesATileForOneRowWithoutEnd)
{
    // No tile may be three pixels wide. Where one is, its rows of 4 bits begin with a byte for libtiff.
    TiffBytes file { .width = 3, .height = 2, .bits = 4, .tileWidth = 3, .tileLength = 2 };
    file.chunks = { { 0x12, 0x34, 0x56, 0x78 } };
    EXPECT_THAT(Loaded(file, renderer).reds(15), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(Loaded(file, standard).reds(15), ElementsAre(1, 2, 3, 5, 6, 7));
}

TEST(TiffLoad, PlanesAreComposed)
{
    for (const Conventions conventions : both) {
        TiffBytes file {
            .width = 2, .height = 2, .samples = 4, .photometric = 2, .planar = 2, .rowsPerStrip = 1
        };
        for (int sample = 0; sample < 4; ++sample)
            for (int row = 0; row < 2; ++row)
                file.chunks.push_back(
                    { std::uint8_t(sample * 60 + row * 2), std::uint8_t(sample * 60 + row * 2 + 1) });
        const Loaded image(file, conventions);
        ASSERT_EQ(image.code, IMGERR_NONE);
        for (int i = 0; i < 4; ++i)
            for (std::size_t c = 0; c < 4; ++c)
                EXPECT_EQ(std::lround(image.at(i % 2, i / 2)[c] * 255), i + int(c) * 60);
    }
}

TEST(TiffLoad, PlanesOfTilesAreComposed)
{
    for (const Conventions conventions : both)
        for (const int bits : { 4, 8, 16 }) {
            TiffBytes file { .width = 17,
                .height = 1,
                .bits = bits,
                .samples = 3,
                .photometric = 2,
                .planar = 2,
                .tileWidth = 16,
                .tileLength = 16 };
            for (int chunk = 0; chunk < 6; ++chunk) // Both tiles of red, then of green, then of blue.
                file.chunks.push_back(Bytes(std::size_t(32 * bits), std::uint8_t(chunk * 0x11)));
            const Loaded image(file, conventions);
            ASSERT_EQ(image.code, IMGERR_NONE);
            for (std::size_t c = 0; c < 3; ++c) {
                EXPECT_EQ(std::lround(image.at(0, 0)[c] * 15), int(c) * 2) << bits;
                EXPECT_EQ(std::lround(image.at(16, 0)[c] * 15), int(c) * 2 + 1) << bits;
            }
        }
}

// --- Palettes --------------------------------------------------------------------------------------------

TiffBytes paletteFile(int bits, std::uint64_t scale)
{
    TiffBytes file { .width = 3, .bits = bits, .photometric = 3 };
    file.chunks = { bits == 1 ? Bytes { 0b10100000 } : bits == 4 ? Bytes { 0x12, 0x30 } : Bytes { 1, 2, 3 } };
    for (std::uint64_t column = 0; column < 3; ++column)
        for (std::uint64_t i = 0; i < std::uint64_t(1) << bits; ++i)
            file.colorMap.push_back((i * 10 + column) % 256 * scale);
    return file;
}

TEST(TiffLoad, PaletteColorsAreLookedUp)
{
    for (const Conventions conventions : both)
        for (const int bits : { 4, 8 }) {
            const Loaded image(paletteFile(bits, 257), conventions);
            ASSERT_EQ(image.code, IMGERR_NONE);
            for (int x = 0; x < 3; ++x)
                for (std::size_t c = 0; c < 3; ++c)
                    EXPECT_NEAR(image.at(x, 0)[c] * 255, (x + 1) * 10 + int(c), 1e-3) << bits;
            EXPECT_EQ(image.at(0, 0)[3], 1);
        }
}

TEST(TiffLoad, ColorMapOf8BitsIsScaledByTheStandardOnly)
{
    EXPECT_NEAR(Loaded(paletteFile(8, 1), standard).at(0, 0)[1] * 255, 11, 1e-3);
    EXPECT_NEAR(Loaded(paletteFile(8, 1), renderer).at(0, 0)[1] * 65535, 11, 1e-3);
}

TEST(TiffLoad, RendererDoesNotLookAtAMapOfTwoColors)
{
    const TiffBytes file = paletteFile(1, 257);
    EXPECT_THAT(Loaded(file, renderer).reds(), ElementsAre(0, 255, 0));
    EXPECT_THAT(Loaded(file, standard).reds(), ElementsAre(10, 0, 10));
}

TEST(TiffLoad, PaletteOf16BitsIsRead)
{
    TiffBytes file {
        .width = 2, .bits = 16, .photometric = 3, .colorMap = std::vector<std::uint64_t>(3 << 16)
    };
    file.colorMap[40000] = 65535;
    file.chunks = { file.numbers(2, { 40000, 1 }) };
    for (const Conventions conventions : both)
        EXPECT_THAT(Loaded(file, conventions).reds(), ElementsAre(255, 0));
}

TEST(TiffPalette, RampsAndTwoColorsNeedNoFile)
{
    QUtils::Table<Color, 100> palette;
    EXPECT_EQ(setupTIFPalette(nullptr, 1, 1, 1, palette), 1);
    ASSERT_EQ(palette.count(), 2);
    EXPECT_EQ(palette[1].g, 1);
    EXPECT_EQ(setupTIFPalette(nullptr, 3, 1, 1, palette), 1);
    EXPECT_EQ(palette[0].b, 1);
    EXPECT_EQ(palette[1].b, 0);
    EXPECT_EQ(setupTIFPalette(nullptr, 1, 2, 1, palette), 1);
    ASSERT_EQ(palette.count(), 4);
    EXPECT_FLOAT_EQ(palette[1].r, 1 / 3.f);
    EXPECT_EQ(setupTIFPalette(nullptr, 0, 8, 3, palette), 1);
    ASSERT_EQ(palette.count(), 256);
    EXPECT_EQ(palette[255].r, 0);
    EXPECT_EQ(palette[0].g, 1);
    EXPECT_EQ(setupTIFPalette(nullptr, 2, 8, 3, palette), 0);
    EXPECT_EQ(setupTIFPalette(nullptr, 5, 8, 4, palette), 1);
    EXPECT_EQ(setupTIFPalette(nullptr, 1, 17, 1, palette), 0);
    EXPECT_EQ(setupTIFPalette(nullptr, 1, 16, 1, palette), 1);
    EXPECT_EQ(palette.count(), 65536);
    EXPECT_EQ(palette.capacity(), 65600);
}

TEST(TiffPalette, FileWithoutAColorMapIsClosed)
{
    const TempDir folder;
    writeFile(folder / "grey.tif", sixGreys().bytes());
    const int before = openFiles();
    TIFF* const tiff = my_TIFFOpen((folder / "grey.tif").c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    EXPECT_EQ(openFiles(), before + 1);
    QUtils::Table<Color, 100> palette;
    EXPECT_EQ(setupTIFPalette(tiff, 3, 8, 1, palette), 1);
    EXPECT_EQ(openFiles(), before);
}

// --- Tags that are missing -------------------------------------------------------------------------------

TEST(TiffLoad, AbsentSamplesPerPixelAreFourToTheRendererAndOneElse)
{
    TiffBytes file { .width = 8, .samples = -1, .chunks = { { 1, 2, 3, 4, 5, 6, 7, 8 } } };
    const Loaded image(file, renderer);
    EXPECT_EQ(image.info.numChannels, 4);
    EXPECT_EQ(image.info.bitsPerPixel, 32);
    // Every fourth byte, and then what is not in the row any more.
    EXPECT_THAT(image.reds(), ElementsAre(1, 5, 8, 8, 8, 8, 8, 8));
    const Loaded whole(file, standard);
    EXPECT_EQ(whole.info.numChannels, 1);
    EXPECT_THAT(whole.reds(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
}

TEST(TiffLoad, AbsentBitsPerSampleAreEightToTheRendererAndOneElse)
{
    TiffBytes file { .width = 16, .bits = -1, .chunks = { { 0xAA, 0xF0 } } };
    const Loaded image(file, renderer);
    EXPECT_EQ(image.info.bitsPerPixel, 8);
    EXPECT_EQ(image.reds()[0], 0xAA);
    EXPECT_EQ(image.reds()[15], 0xF0);
    EXPECT_THAT(Loaded(file, standard).reds(1), ElementsAre(1, 0, 1, 0, 1, 0, 1, 0, 1, 1, 1, 1, 0, 0, 0, 0));
}

TEST(TiffLoad, ShortRowsOfEveryKindStayInTheirMemory)
{
    for (const Conventions conventions : both)
        for (const int photometric : { 0, 1, 2, 3 })
            for (const bool tiled : { false, true })
                for (const int absent : { 0, 1, 2 }) {
                    TiffBytes file { .width = 40,
                        .height = 16,
                        .photometric = photometric,
                        .colorMap = std::vector<std::uint64_t>(3 * 256, 7) };
                    if (tiled)
                        file.tileWidth = file.tileLength = 48;
                    if (absent != 1)
                        file.samples = -1;
                    if (absent != 0)
                        file.bits = -1;
                    file.chunks = { Bytes(48 * 48, 0x55) };
                    const Loaded image(file, conventions);
                    EXPECT_THAT(
                        image.code, AnyOf(IMGERR_NONE, IMGERR_OPEN, IMGERR_FORMAT, IMGERR_UNSUPPORTED));
                    EXPECT_EQ(image.sink.order.size(), image.code == IMGERR_NONE ? 640u : 0u);
                }
}

TEST(TiffLoad, FileWithoutASizeOrSamplesIsRefused)
{
    for (const Conventions conventions : both)
        for (const std::int64_t size : { std::int64_t(-1), std::int64_t(0), std::int64_t(0x80000000) })
            for (const bool isWidth : { false, true }) {
                TiffBytes file = sixGreys();
                (isWidth ? file.width : file.height) = size;
                const Loaded image(file, conventions);
                EXPECT_THAT(image.code, AnyOf(IMGERR_OPEN, IMGERR_FORMAT)) << size;
                EXPECT_EQ(image.sink.initCalls, 0);
            }
    for (const int number : { 258, 277 }) {
        TiffBytes file = sixGreys();
        file.more = { { number, 3, { 0 } } };
        for (const Conventions conventions : both)
            EXPECT_THAT(Loaded(file, conventions).code, AnyOf(IMGERR_OPEN, IMGERR_FORMAT)) << number;
    }
}

Bytes deflated(std::size_t zeros)
{
    const Bytes plain(zeros);
    uLongf size = compressBound(uLong(zeros));
    Bytes packed(size);
    EXPECT_EQ(compress2(packed.data(), &size, plain.data(), uLong(zeros), 9), Z_OK);
    packed.resize(size);
    return packed;
}

/// A row of blank tiles that all share the bytes of one.
TiffBytes sharedTiles(int tileWidth, int tileLength, int tiles)
{
    TiffBytes file;
    file.width = std::int64_t(tileWidth) * tiles;
    file.height = std::min(tileLength, 64);
    file.compression = 8;
    file.tileWidth = tileWidth;
    file.tileLength = tileLength;
    file.chunks = { deflated(std::size_t(tileWidth) * std::size_t(tileLength)) };
    const std::uint64_t offset = 8;
    file.more = { { 324, 4, std::vector<std::uint64_t>(std::size_t(tiles), offset) },
        { 325, 4, std::vector<std::uint64_t>(std::size_t(tiles), file.chunks[0].size()) } };
    return file;
}

TEST(TiffLoad, BlankTilesMayShareTheirBytes)
{
    for (const Conventions conventions : both) {
        const Loaded image(sharedTiles(64, 64, 20), conventions);
        EXPECT_EQ(image.code, IMGERR_NONE);
        EXPECT_EQ(image.info.width, 1280);
    }
}

TEST(TiffLoad, WorkFarBeyondThePictureAndTheFileIsAReadError)
{
    // A gigabyte to decompress for 1024 x 64 pixels.
    for (const Conventions conventions : both)
        EXPECT_EQ(Loaded(sharedTiles(16, 1 << 20, 64), conventions).code, IMGERR_READ);
    // The conversion of inks, for which a renderer has one answer.
    TiffBytes inks = sharedTiles(16, 1 << 18, 64);
    inks.photometric = 5;
    inks.samples = 4;
    inks.chunks = { deflated(std::size_t(16) << 20) };
    inks.more[1].values.assign(64, inks.chunks[0].size());
    EXPECT_EQ(Loaded(inks, renderer).code, IMGERR_UNSUPPORTED);
}

TEST(TiffLoad, SmallPicturesOfInksAreConvertedHoweverLittleOfThemIsLeft)
{
    TiffBytes file;
    file.width = 300;
    file.height = 1000;
    file.photometric = 5;
    file.samples = 4;
    file.rowsPerStrip = 5;
    file.chunks = { Bytes(6000, 0x40) };
    std::vector<std::uint64_t> offsets(200, 1000000); // All but the first strip are missing.
    offsets[0] = 8;
    file.more = { { 273, 4, offsets }, { 279, 4, std::vector<std::uint64_t>(200, 6000) } };
    const Loaded image(file, renderer);
    EXPECT_EQ(image.code, IMGERR_NONE);
    EXPECT_GT(image.at(0, 0)[0], 0.3f);
}

TEST(TiffLoad, ImageWithoutPhotometricTakesTheConversion)
{
    TiffBytes file = sixGreys();
    file.photometric = -1;
    EXPECT_EQ(Loaded(file, renderer).at(1, 0)[2], 255 * 0.003921569f);
    EXPECT_THAT(Loaded(file, standard).reds(), ElementsAre(0, 1, 2, 3, 4, 5));
}

// --- Orientation -----------------------------------------------------------------------------------------

TEST(TiffLoad, RendererMirrorsAndNeverExchangesAxes)
{
    const std::array<std::vector<int>, 4> expected { std::vector { 0, 1, 2, 3, 4, 5 }, { 2, 1, 0, 5, 4, 3 },
        { 5, 4, 3, 2, 1, 0 }, { 3, 4, 5, 0, 1, 2 } };
    for (int orientation = 1; orientation <= 8; ++orientation) {
        TiffBytes file = sixGreys();
        file.orientation = orientation;
        const Loaded image(file, renderer);
        EXPECT_EQ(image.info.width, 3);
        EXPECT_THAT(image.reds(), ElementsAreArray(expected[std::size_t((orientation - 1) % 4)]))
            << orientation;
    }
}

/// The picture as it is meant to be seen.
const std::array<std::vector<int>, 8> seen { std::vector { 0, 1, 2, 3, 4, 5 }, { 2, 1, 0, 5, 4, 3 },
    { 5, 4, 3, 2, 1, 0 }, { 3, 4, 5, 0, 1, 2 }, { 0, 3, 1, 4, 2, 5 }, { 3, 0, 4, 1, 5, 2 },
    { 5, 2, 4, 1, 3, 0 }, { 2, 5, 1, 4, 0, 3 } };

TEST(TiffLoad, StandardShowsThePictureAsItIsMeant)
{
    for (int orientation = 1; orientation <= 8; ++orientation) {
        TiffBytes file = sixGreys();
        file.orientation = orientation;
        const Loaded image(file, standard);
        EXPECT_EQ(image.info.width, orientation > 4 ? 2 : 3);
        EXPECT_EQ(image.sink.height, orientation > 4 ? 3 : 2);
        EXPECT_THAT(image.reds(), ElementsAreArray(seen[std::size_t(orientation - 1)])) << orientation;
    }
}

TEST(TiffLoad, StandardTurnsConvertedImagesToo)
{
    for (int orientation = 1; orientation <= 8; ++orientation) {
        TiffBytes file {
            .width = 3, .height = 2, .samples = 4, .photometric = 5, .orientation = orientation
        };
        file.chunks = { {} };
        for (int i = 0; i < 6; ++i)
            for (const int ink : { 255 - i, 0, 0, 0 })
                file.chunks[0].push_back(std::uint8_t(ink));
        EXPECT_THAT(Loaded(file, standard).reds(), ElementsAreArray(seen[std::size_t(orientation - 1)]))
            << orientation;
    }
}

TEST(TiffLoad, LargeImagesAreTurnedInBands)
{
    for (const bool tiled : { false, true })
        for (int orientation = 5; orientation <= 8; ++orientation) {
            constexpr int width = 37, height = 45;
            TiffBytes file {
                .width = width, .height = height, .orientation = orientation, .rowsPerStrip = 10
            };
            const auto value = [](int x, int y) { return std::uint8_t(x * 5 + y * 3); };
            if (tiled) {
                file.rowsPerStrip = -1;
                file.tileWidth = file.tileLength = 32;
                for (int tile = 0; tile < 4; ++tile) {
                    Bytes bytes;
                    for (int i = 0; i < 32 * 32; ++i)
                        bytes.push_back(value(tile % 2 * 32 + i % 32, tile / 2 * 32 + i / 32));
                    file.chunks.push_back(bytes);
                }
            } else {
                for (int y = 0; y < height; y += 10) {
                    Bytes bytes;
                    for (int i = 0; i < std::min(10, height - y) * width; ++i)
                        bytes.push_back(value(i % width, y + i / width));
                    file.chunks.push_back(bytes);
                }
            }
            const Loaded image(file, standard);
            ASSERT_EQ(image.code, IMGERR_NONE);
            const bool fromRight = orientation == 6 || orientation == 7;
            const bool fromBottom = orientation == 7 || orientation == 8;
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x) {
                    const Rgba pixel
                        = image.at(fromRight ? height - 1 - y : y, fromBottom ? width - 1 - x : x);
                    ASSERT_EQ(std::lround(pixel[0] * 255), value(x, y))
                        << orientation << ' ' << x << ' ' << y;
                }
        }
}

// --- What a sample means ---------------------------------------------------------------------------------

Rgba standardPixel(int photometric, int samples, const std::vector<std::uint64_t>& extra)
{
    TiffBytes file { .samples = samples, .photometric = photometric, .extraSamples = extra };
    file.chunks = { { 51, 102, 153, 204, 255 } };
    return Loaded(file, standard).at(0, 0);
}

TEST(TiffLoad, StandardTakesTheLastSampleThatIsCalledAlpha)
{
    const auto n = [](int i) { return float(i) * 51 * (1 / 255.f); };
    EXPECT_EQ(standardPixel(2, 4, { 2 }), (Rgba { n(1), n(2), n(3), n(4) }));
    EXPECT_EQ(standardPixel(2, 4, { 1 }), (Rgba { n(1), n(2), n(3), n(4) })) << "colours are not divided";
    EXPECT_EQ(standardPixel(2, 5, { 0, 2 }), (Rgba { n(1), n(2), n(3), n(5) }));
    EXPECT_EQ(standardPixel(2, 5, { 1, 0 }), (Rgba { n(1), n(2), n(3), n(4) }));
    EXPECT_EQ(standardPixel(2, 5, { 0, 0 }), (Rgba { n(1), n(2), n(3), 1 }));
    EXPECT_EQ(standardPixel(1, 2, { 2 }), (Rgba { n(1), n(1), n(1), n(2) }));
    EXPECT_EQ(standardPixel(1, 2, { 0 }), (Rgba { n(1), n(1), n(1), 1 }));
    EXPECT_EQ(standardPixel(1, 4, { 0, 0, 1 }), (Rgba { n(1), n(1), n(1), n(4) }));
    EXPECT_EQ(standardPixel(1, 3, {}), (Rgba { n(1), n(1), n(1), 1 }));
    EXPECT_NEAR(standardPixel(0, 2, { 2 })[0], n(4), 1e-6);
    EXPECT_EQ(standardPixel(0, 2, { 2 })[3], n(2));
}

TEST(TiffLoad, FourthRgbSampleIsAlphaWhateverItIsCalled)
{
    const float alpha = 204 * (1 / 255.f);
    EXPECT_EQ(standardPixel(2, 4, {})[3], alpha);
    EXPECT_EQ(standardPixel(2, 4, { 0 })[3], alpha);
    TiffBytes file { .samples = 4, .photometric = 2, .chunks = { { 51, 102, 153, 204 } } };
    EXPECT_EQ(Loaded(file, renderer).at(0, 0)[3], alpha);
}

TEST(TiffLoad, RendererSkipsSamplesBehindGrey)
{
    TiffBytes file { .samples = 4, .extraSamples = { 0, 0, 2 }, .chunks = { { 51, 102, 153, 204 } } };
    EXPECT_EQ(
        Loaded(file, renderer).at(0, 0), (Rgba { 51 * (1 / 255.f), 51 * (1 / 255.f), 51 * (1 / 255.f), 1 }));
}

TEST(TiffLoad, StandardReadsAlphaOfPalettesAndPlanes)
{
    TiffBytes file { .samples = 2,
        .photometric = 3,
        .extraSamples = { 2 },
        .colorMap = std::vector<std::uint64_t>(3 * 256, 65535) };
    file.chunks = { { 9, 51 } };
    EXPECT_EQ(Loaded(file, standard).at(0, 0)[3], 51 * (1 / 255.f));
    EXPECT_NEAR(Loaded(file, standard).at(0, 0)[0], 1, 1e-6);

    TiffBytes planes { .samples = 6, .photometric = 2, .planar = 2, .extraSamples = { 0, 0, 2 } };
    planes.chunks = { { 10 }, { 20 }, { 30 }, { 40 }, { 50 }, { 60 } };
    const Rgba pixel = Loaded(planes, standard).at(0, 0);
    for (std::size_t c = 0; c < 4; ++c)
        EXPECT_EQ(std::lround(pixel[c] * 255), c == 3 ? 60 : 10 + int(c) * 10);
}

TEST(TiffLoad, HalfFloatsAreReadByTheStandardOnly)
{
    TiffBytes file { .width = 2, .bits = 16, .sampleFormat = 3 };
    file.chunks = { file.numbers(2, { 0x3800, 0xC000 }) };
    const Loaded image(file, standard);
    EXPECT_EQ(image.at(0, 0), (Rgba { 0.5f, 0.5f, 0.5f, 1 }));
    EXPECT_EQ(image.at(1, 0)[0], -2);
    EXPECT_EQ(Loaded(file, renderer).code, IMGERR_UNSUPPORTED);
}

// --- The conversion to 8 bits ----------------------------------------------------------------------------

TEST(TiffLoad, RendererConvertsInksWithoutAlpha)
{
    TiffBytes file { .width = 2, .samples = 4, .photometric = 5 };
    file.chunks = { { 0, 255, 255, 0, 255, 255, 0, 0 } };
    const Loaded image(file, renderer);
    ASSERT_EQ(image.code, IMGERR_NONE);
    constexpr float k = 0.003921569f;
    EXPECT_EQ(image.at(0, 0), (Rgba { 255 * k, 0, 0, 0 }));
    EXPECT_EQ(image.at(1, 0), (Rgba { 0, 0, 255 * k, 0 }));
    EXPECT_EQ(Loaded(file, standard).at(0, 0), (Rgba { 1, 0, 0, 1 }));
}

TEST(TiffLoad, RendererMakesBlueFullUnlessThereAreFourSamples)
{
    TiffBytes file { .samples = 3, .photometric = 6 };
    file.more = { { 530, 3, { 1, 1 } } };
    file.chunks = { { 0, 128, 128 } }; // Black.
    const Loaded image(file, renderer);
    ASSERT_EQ(image.code, IMGERR_NONE);
    EXPECT_EQ(image.at(0, 0), (Rgba { 0, 0, 255 * 0.003921569f, 0 }));
    EXPECT_EQ(Loaded(file, standard).at(0, 0), (Rgba { 0, 0, 0, 1 }));
}

TEST(TiffLoad, RendererConvertsGreyWithOneExtraSample)
{
    TiffBytes file { .height = 2, .samples = 2, .extraSamples = { 0 }, .chunks = { { 51, 9, 102, 9 } } };
    const Loaded image(file, renderer);
    EXPECT_EQ(image.at(0, 0), (Rgba { 51 * 0.003921569f, 51 * 0.003921569f, 255 * 0.003921569f, 0 }));
    EXPECT_EQ(image.at(0, 1)[0], 102 * 0.003921569f);
}

TEST(TiffLoad, StandardMixesInksOfEverySize)
{
    TiffBytes file { .bits = 16, .samples = 5, .photometric = 5, .extraSamples = { 2 } };
    file.chunks = { file.numbers(2, { 0, 65535, 13107, 32768, 13107 }) };
    const Rgba pixel = Loaded(file, standard).at(0, 0);
    EXPECT_NEAR(pixel[0], 0.5, 1e-4);
    EXPECT_EQ(pixel[1], 0);
    EXPECT_NEAR(pixel[2], 0.4, 1e-4);
    EXPECT_NEAR(pixel[3], 0.2, 1e-6);
    file.planar = 2;
    file.chunks = {};
    for (const int number : { 0, 65535, 13107, 32768, 13107 })
        file.chunks.push_back(file.numbers(2, { std::uint64_t(number) }));
    EXPECT_EQ(Loaded(file, standard).at(0, 0), pixel);
}

TEST(TiffLoad, PixelsThatNobodyKnowsAreUnsupported)
{
    TiffBytes lab { .bits = 32, .samples = 3, .photometric = 8, .sampleFormat = 3, .chunks = { Bytes(12) } };
    TiffBytes integers { .bits = 40, .chunks = { Bytes(5) } };
    for (const Conventions conventions : both) {
        EXPECT_EQ(Loaded(lab, conventions).code, IMGERR_UNSUPPORTED);
        const Loaded image(integers, conventions);
        EXPECT_EQ(image.code, IMGERR_UNSUPPORTED);
        EXPECT_EQ(image.sink.freeCalls, 0);
    }
}

// --- Files that libtiff writes ---------------------------------------------------------------------------

/// Writes a picture of `bits` bits grey with libtiff.
Bytes writtenByLibtiff(
    int compression, int bits, const std::function<Bytes(int y)>& row, int width, int height)
{
    const TempDir folder;
    const std::string name = folder / "written.tif";
    TIFF* const tiff = my_TIFFOpen(name.c_str(), "w");
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 5);
    for (int y = 0; y < height; ++y) {
        Bytes bytes = row(y);
        EXPECT_EQ(TIFFWriteScanline(tiff, bytes.data(), std::uint32_t(y), 0), 1);
    }
    TIFFClose(tiff);
    return readFile(name);
}

TEST(TiffLoad, EveryCompressionOfGreyIsRead)
{
    LibTIFF_StopWarnings();
    for (const int compression : { COMPRESSION_NONE, COMPRESSION_PACKBITS, COMPRESSION_LZW,
             COMPRESSION_ADOBE_DEFLATE, COMPRESSION_DEFLATE, COMPRESSION_LZMA, COMPRESSION_ZSTD }) {
        if (!TIFFIsCODECConfigured(std::uint16_t(compression)))
            continue;
        const auto row = [](int y) {
            Bytes bytes;
            for (int x = 0; x < 50; ++x)
                bytes.push_back(std::uint8_t(x / 7 * y));
            return bytes;
        };
        const Bytes file = writtenByLibtiff(compression, 8, row, 50, 12);
        for (const Conventions conventions : both) {
            const Loaded image(file, conventions);
            ASSERT_EQ(image.code, IMGERR_NONE) << compression;
            for (int y = 0; y < 12; ++y)
                for (int x = 0; x < 50; ++x)
                    ASSERT_EQ(std::lround(image.at(x, y)[0] * 255), std::uint8_t(x / 7 * y)) << compression;
        }
    }
}

TEST(TiffLoad, FaxRowsThatTakeABitEachAreRead)
{
    LibTIFF_StopWarnings();
    for (const int compression : { COMPRESSION_CCITTFAX3, COMPRESSION_CCITTFAX4, COMPRESSION_CCITTRLE }) {
        const Bytes file = writtenByLibtiff(
            compression, 1, [](int) { return Bytes(500); }, 4000, 20);
        for (const Conventions conventions : both) {
            const Loaded image(file, conventions);
            ASSERT_EQ(image.code, IMGERR_NONE) << compression;
            EXPECT_THAT(image.reds(), Each(0));
        }
    }
}

TEST(TiffLoad, LogImagesKeepTheirRange)
{
    LibTIFF_StopWarnings();
    const TempDir folder;
    const std::string name = folder / "log.tif";
    for (const bool isColor : { false, true }) {
        TIFF* const tiff = my_TIFFOpen(name.c_str(), "w");
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 4);
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 1);
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, isColor ? 3 : 1);
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_SGILOG);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, isColor ? PHOTOMETRIC_LOGLUV : PHOTOMETRIC_LOGL);
        TIFFSetField(tiff, TIFFTAG_SGILOGDATAFMT, SGILOGDATAFMT_FLOAT);
        std::vector<float> row;
        for (const float value : { 0.01f, 1.0f, 50.0f, 1000.0f })
            for (int sample = 0; sample < (isColor ? 3 : 1); ++sample)
                row.push_back(value);
        EXPECT_EQ(TIFFWriteScanline(tiff, row.data(), 0, 0), 1);
        TIFFClose(tiff);
        for (const Conventions conventions : both) {
            const Loaded image(readFile(name), conventions);
            ASSERT_EQ(image.code, IMGERR_NONE);
            for (int x = 0; x < 4; ++x) {
                const float expected = std::array { 0.01f, 1.0f, 50.0f, 1000.0f }[std::size_t(x)];
                for (std::size_t c = 0; c < 3; ++c)
                    EXPECT_NEAR(image.at(x, 0)[c] / expected, 1, 0.02) << isColor << ' ' << x << ' ' << c;
            }
        }
    }
}

// --- Damage ----------------------------------------------------------------------------------------------

TEST(TiffLoad, CutStripFreesTheSink)
{
    for (const Conventions conventions : both)
        for (const bool planes : { false, true }) {
            TiffBytes file { .width = 100,
                .height = 100,
                .samples = 3,
                .photometric = 2,
                .planar = planes ? 2 : 1,
                .rowsPerStrip = 100 };
            file.chunks = planes ? std::vector<Bytes> { Bytes(10000), Bytes(10000), Bytes(9999) }
                                 : std::vector<Bytes> { Bytes(29999) };
            // The last strip is said to be where the file ends soon.
            file.more = { { 273, 4, {} } };
            for (std::size_t i = 0; i < file.chunks.size(); ++i)
                file.more[0].values.push_back(i + 1 < file.chunks.size() ? 8 : 25000);
            const Loaded image(file, conventions);
            EXPECT_EQ(image.code, IMGERR_READ);
            EXPECT_EQ(image.sink.freeCalls, 1);
            EXPECT_EQ(image.info.width, 100) << "the header is known all the same";
        }
}

TEST(TiffLoad, FileCutAtEveryLengthEndsInOrder)
{
    std::vector<TiffBytes> files { rgb8(), sixGreys(), paletteFile(4, 257) };
    files.push_back({ .bigEndian = true,
        .bigTiff = true,
        .width = 3,
        .height = 2,
        .bits = 16,
        .tileWidth = 16,
        .tileLength = 16,
        .chunks = { Bytes(512, 3) } });
    files.push_back({ .width = 2, .samples = 4, .photometric = 5, .chunks = { Bytes(8, 3) } });
    const int before = openFiles();
    for (const TiffBytes& file : files) {
        const Bytes whole = file.bytes();
        for (std::size_t size = 0; size < whole.size(); ++size)
            for (const Conventions conventions : both) {
                const Loaded image(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)), conventions);
                EXPECT_THAT(image.code,
                    AnyOf(IMGERR_NONE, IMGERR_OPEN, IMGERR_READ, IMGERR_FORMAT, IMGERR_UNSUPPORTED))
                    << size;
            }
    }
    EXPECT_EQ(openFiles(), before);
}

TEST(TiffLoad, EveryTagMayHoldAnything)
{
    for (const int number :
        { 256, 257, 258, 259, 262, 273, 274, 277, 278, 279, 284, 320, 322, 323, 324, 338, 339 })
        for (const std::uint64_t value : { 0u, 1u, 2u, 9u, 255u, 0x7FFFu, 0xFFFFu, 0x7FFFFFFFu, 0xFFFFFFFFu })
            for (const int type : { 1, 2, 3, 4, 16 })
                for (const Conventions conventions : both) {
                    TiffBytes file = sixGreys();
                    file.bigTiff = type == 16;
                    file.more = { { number, type, { value } } };
                    const Loaded image(file, conventions);
                    EXPECT_THAT(image.code,
                        AnyOf(IMGERR_NONE, IMGERR_OPEN, IMGERR_READ, IMGERR_FORMAT, IMGERR_UNSUPPORTED))
                        << number << ' ' << value << ' ' << type;
                }
}

TEST(TiffLoad, WhatIsNoTiffFileCannotBeOpened)
{
    const Bytes text { 'h', 'e', 'l', 'l', 'o' };
    EXPECT_EQ(Loaded(text, renderer).code, IMGERR_OPEN);
    EXPECT_EQ(Loaded(text, standard).code, IMGERR_FORMAT);
    RecordingBuffer sink;
    IMGINFO info {};
    for (const Conventions conventions : both) {
        EXPECT_EQ(codeOf(QUtils::loadTiff("/nonexistent/a.tif", sink, nullptr, conventions)), IMGERR_OPEN);
        EXPECT_EQ(codeOf(QUtils::loadTiffHeader("/nonexistent/a.tif", &info, conventions)), IMGERR_OPEN);
    }
    const ImgError error = LoadTIFFile("/nonexistent/a.tif", sink, nullptr);
    EXPECT_STREQ(error.message(), "Failed to open file: 2");
}

// --- Sinks -----------------------------------------------------------------------------------------------

TEST(TiffLoad, RefusedSinkIsAMemoryError)
{
    const TempDir folder;
    writeFile(folder / "image.tif", rgb8().bytes());
    for (const Conventions conventions : both) {
        RecordingBuffer sink;
        sink.refuse = true;
        EXPECT_EQ(codeOf(QUtils::loadTiff((folder / "image.tif").c_str(), sink, nullptr, conventions)),
            IMGERR_MEMORY);
        EXPECT_TRUE(sink.order.empty());
        EXPECT_EQ(sink.freeCalls, 0);
    }
}

/// Throws at its first pixel.
template <typename Thrown> class ThrowingBuffer : public RecordingBuffer {
public:
    explicit ThrowingBuffer(Thrown thrown) : m_thrown(thrown) { }
    void setPixelF(int, int, const float*) override { throw m_thrown; }
    void setPixel(int, int, unsigned int) override { throw m_thrown; }

private:
    Thrown m_thrown;
};

TEST(TiffLoad, ExceptionOfTheSinkPassesThrough)
{
    const TempDir folder;
    TiffBytes inks { .samples = 4, .photometric = 5, .chunks = { Bytes(4) } };
    for (const TiffBytes& file : { rgb8(), inks }) {
        writeFile(folder / "image.tif", file.bytes());
        const int before = openFiles();
        for (const Conventions conventions : both) {
            ThrowingBuffer<std::runtime_error> sink(std::runtime_error("no"));
            EXPECT_THROW(static_cast<void>(
                             QUtils::loadTiff((folder / "image.tif").c_str(), sink, nullptr, conventions)),
                std::runtime_error);
            EXPECT_EQ(sink.freeCalls, 1);
            EXPECT_EQ(openFiles(), before);

            ThrowingBuffer<ImgErrorCode> coded(IMGERR_LIBRARY);
            EXPECT_EQ(codeOf(QUtils::loadTiff((folder / "image.tif").c_str(), coded, nullptr, conventions)),
                IMGERR_LIBRARY);
            EXPECT_EQ(coded.freeCalls, 1);
        }
    }
}

std::vector<TiffBytes> oneOfEachKind()
{
    std::vector<TiffBytes> files { rgb8(), sixGreys(), paletteFile(1, 257), paletteFile(4, 257),
        paletteFile(8, 257) };
    Bytes noise;
    for (int i = 0; i < 4 * 4 * 16 * 16; ++i)
        noise.push_back(std::uint8_t(i * i >> 3));
    for (const int bits : { 1, 2, 4, 8, 16 })
        for (const int photometric : { 0, 1, 2, 5 })
            for (const int planar : { 1, 2 })
                for (const int samples : { 1, 3, 4 })
                    for (const bool tiled : { false, true }) {
                        TiffBytes file { .width = 13,
                            .height = 11,
                            .bits = bits,
                            .samples = samples,
                            .photometric = photometric,
                            .planar = planar,
                            .orientation = 1 + (bits + samples) % 8 };
                        if (tiled)
                            file.tileWidth = file.tileLength = 16;
                        file.chunks = std::vector<Bytes>(planar == 2 ? std::size_t(samples) : 1, noise);
                        files.push_back(file);
                    }
    return files;
}

TEST(TiffLoad, RowSinksGetTheSamePixels)
{
    const TempDir folder;
    const std::string name = folder / "image.tif";
    for (const TiffBytes& file : oneOfEachKind())
        for (const Conventions conventions : both) {
            writeFile(name, file.bytes());
            const Loaded single(file, conventions);
            QUtils::Image8 bytes;
            QUtils::ImageF floats;
            EXPECT_EQ(codeOf(QUtils::loadTiff(name.c_str(), bytes, nullptr, conventions)), single.code);
            EXPECT_EQ(codeOf(QUtils::loadTiff(name.c_str(), floats, nullptr, conventions)), single.code);
            if (single.code != IMGERR_NONE)
                continue;
            QUtils::Image8 expected;
            expected.init(single.sink.width, single.sink.height);
            for (int y = 0; y < expected.height(); ++y)
                for (int x = 0; x < expected.width(); ++x) {
                    const Rgba pixel = single.at(x, y);
                    expected.setPixelF(x, y, pixel.data());
                    ASSERT_EQ(bytes.pixel(x, y), expected.pixel(x, y))
                        << file.bits << ' ' << file.photometric;
                    ASSERT_EQ(std::memcmp(floats.row(y) + x * 4, pixel.data(), sizeof pixel), 0);
                }
        }
}

// --- Dispatch and tags -----------------------------------------------------------------------------------

TEST(TiffLoad, DispatcherFindsTiffByContents)
{
    const TempDir folder;
    writeFile(folder / "image.xyz", rgb8().bytes());
    RecordingBuffer sink;
    IMGINFO info {};
    EXPECT_EQ(codeOf(LoadImageFile((folder / "image.xyz").c_str(), sink, &info)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadImageHeader((folder / "image.xyz").c_str(), &info)), IMGERR_NONE);
    EXPECT_EQ(info.numChannels, 3);
}

TEST(TiffHeader, SaysWhatTheLoaderSays)
{
    const TempDir folder;
    const std::string name = folder / "image.tif";
    for (const TiffBytes& file : oneOfEachKind())
        for (const Conventions conventions : both) {
            writeFile(name, file.bytes());
            const Loaded image(file, conventions);
            IMGINFO info {};
            EXPECT_EQ(codeOf(QUtils::loadTiffHeader(name.c_str(), &info, conventions)), IMGERR_NONE);
            EXPECT_EQ(std::memcmp(&info, &image.info, sizeof info), 0);
            EXPECT_EQ(image.sink.width, image.code == IMGERR_NONE ? info.width : 0);
        }
}

TEST(TiffTag, HashComesFromTheDescription)
{
    const TempDir folder;
    const std::string name = folder / "image.tif";
    TiffBytes file = sixGreys();
    file.description = "SHA-1=first SHA-1=0123456789abcdef0123456789abcdef01234567";
    writeFile(name, file.bytes());
    char out[64] = "";
    EXPECT_EQ(LoadTIFSHA(name.c_str(), out, 41), 1);
    EXPECT_STREQ(out, "0123456789abcdef0123456789abcdef0123456");
    EXPECT_EQ(getImageSHATag(name.c_str(), out, sizeof out), 1);
    EXPECT_EQ(LoadTIFSHA(name.c_str(), out, 40), 0);
    EXPECT_EQ(LoadTIFSHA(name.c_str(), nullptr, 64), 0);
    EXPECT_EQ(LoadTIFSHA(nullptr, out, sizeof out), 0);
    EXPECT_EQ(LoadTIFSHA("/nonexistent/a.tif", out, sizeof out), 0);
    writeFile(name, sixGreys().bytes());
    EXPECT_EQ(LoadTIFSHA(name.c_str(), out, sizeof out), 0);
    file.description = "none";
    writeFile(name, file.bytes());
    EXPECT_EQ(LoadTIFSHA(name.c_str(), out, sizeof out), 0);
}

} // namespace
