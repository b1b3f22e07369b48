#include "rastkit/codecs/tga.h"

#include "rastkit/buffers.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/load.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/sink_without_rtti.h"
#include "support/temp_file.h"
#include "support/tga_bytes.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::loadTga;
using QUtils::loadTgaHeader;
using testing::AnyOf;
using testing::ElementsAre;

constexpr unsigned int red = 0xFFFF0000, green = 0xFF00FF00, blue = 0xFF0000FF, white = 0xFFFFFFFF;
constexpr unsigned int absent = 0xDEADBEEF; // RecordingBuffer's answer where nothing was stored.
constexpr int topDown = 0x20, rightToLeft = 0x10;
constexpr int allTypes[] = { 1, 2, 3, 9, 10, 11 };
constexpr int allOrientations[] = { 0, topDown, rightToLeft, topDown | rightToLeft };

// --- Loading -----------------------------------------------------------------------------------------------

struct Loaded {
    int code = -1;
    RecordingBuffer sink;
    IMGINFO info {};
};

/// The description before a load, to see what a loader leaves alone.
IMGINFO filledInfo()
{
    IMGINFO info {};
    info.width = info.height = info.bitsPerPixel = info.numChannels = info.bytesPerPixel = -7;
    info.dataWindowX = info.displayWindowHeight = -7;
    return info;
}

/// The name of a file that is written and read at once.
const char* scratchFile()
{
    static const TempDir folder;
    static const std::string name = folder / "image.tga";
    return name.c_str();
}

/// Removes the file before: writing over one can take long.
void writeScratch(const Bytes& bytes)
{
    std::filesystem::remove(scratchFile());
    writeFile(scratchFile(), bytes);
}

Loaded loadBytes(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
{
    writeScratch(bytes);
    Loaded loaded;
    loaded.info = filledInfo();
    loaded.code = codeOf(conventions == Conventions::Renderer
            ? LoadTGAFile(scratchFile(), loaded.sink, &loaded.info)
            : loadTga(scratchFile(), loaded.sink, &loaded.info, conventions));
    return loaded;
}

Loaded load(const TgaBytes& file, Conventions conventions = Conventions::Renderer)
{
    return loadBytes(file.bytes(), conventions);
}

struct Described {
    int code = -1;
    IMGINFO info {};
};

Described describe(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
{
    writeScratch(bytes);
    Described described;
    described.info = filledInfo();
    described.code = codeOf(conventions == Conventions::Renderer
            ? LoadTGAHeader(scratchFile(), &described.info)
            : loadTgaHeader(scratchFile(), &described.info, conventions));
    return described;
}

std::vector<unsigned int> pixelsOf(const RecordingBuffer& sink)
{
    std::vector<unsigned int> pixels;
    for (int y = 0; y < sink.height; ++y)
        for (int x = 0; x < sink.width; ++x)
            pixels.push_back(sink.at(x, y));
    return pixels;
}

/// Width, height, bits per pixel, channels, bytes per pixel.
std::vector<int> factsOf(const IMGINFO& info)
{
    return { info.width, info.height, info.bitsPerPixel, info.numChannels, info.bytesPerPixel };
}

// --- Building files ----------------------------------------------------------------------------------------

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

const Bytes redBytes { 0, 0, 255 }, greenBytes { 0, 255, 0 }, blueBytes { 255, 0, 0 },
    whiteBytes { 255, 255, 255 };

TgaBytes fourColors(int imageType, int descriptor)
{
    TgaBytes file {
        .imageType = imageType, .width = 2, .height = 2, .pixelBits = 24, .descriptor = descriptor
    };
    file.pixels = joined({ redBytes, greenBytes, blueBytes, whiteBytes });
    if (imageType == 10)
        file.pixels.insert(file.pixels.begin(), 3); // One raw packet of four.
    return file;
}

/// A 3 x 2 picture of one of the six types, with packets that cross the row's end and one that goes past the
/// image's.
TgaBytes smallPicture(int imageType, int descriptor)
{
    TgaBytes file { .imageType = imageType, .width = 3, .height = 2, .descriptor = descriptor };
    const int kind = imageType & 7;
    const int bytes = kind == 2 ? 4 : 1;
    file.pixelBits = 8 * bytes;
    file.descriptor |= bytes == 4 ? 8 : 0;
    if (kind == 1) {
        file.colorMapType = 1;
        file.colorMapLength = 5;
        file.colorMapBits = 24;
        file.colorMap = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15 };
    }
    std::uint8_t next = 0;
    const auto pixel = [&] {
        for (int i = 0; i < bytes; ++i)
            file.pixels.push_back(kind == 1 ? std::uint8_t(next++ % 5) : std::uint8_t(40 + 3 * next++));
    };
    if (imageType < 8) {
        for (int i = 0; i < 6; ++i)
            pixel();
    } else {
        file.pixels.push_back(0x81), pixel(); // A run of two,
        file.pixels.push_back(0x01), pixel(), pixel(); // two raw pixels across the row's end,
        file.pixels.push_back(0x84), pixel(); // and a run of five where two are missing.
    }
    return file;
}

/// The pixels of such a picture in stored order, each with the length that the file must have for it; worked
/// out one byte after the other.
struct StoredPixel {
    unsigned int argb;
    std::size_t fileBytes;
};

std::vector<StoredPixel> storedPixels(const TgaBytes& file)
{
    const Bytes& data = file.pixels;
    const std::size_t bytes = std::size_t(file.pixelBits) / 8;
    const std::size_t start = 18 + file.id.size() + file.colorMap.size();
    const auto colorAt = [](const Bytes& from, std::size_t at, std::size_t count) -> unsigned int {
        const auto byte = [&](std::size_t i) { return unsigned(from.at(at + i)); };
        if (count == 1)
            return 0xFF000000 | byte(0) << 16 | byte(0) << 8 | byte(0);
        return (count == 4 ? byte(3) << 24 : 0xFF000000) | byte(2) << 16 | byte(1) << 8 | byte(0);
    };
    const auto valueAt = [&](std::size_t at) {
        return file.colorMapType ? colorAt(file.colorMap, 3u * data.at(at), 3) : colorAt(data, at, bytes);
    };
    const std::size_t wanted = std::size_t(file.width * file.height);
    std::vector<StoredPixel> stored;
    for (std::size_t at = 0; stored.size() < wanted;) {
        if (file.imageType < 8) {
            stored.push_back({ valueAt(at), start + at + bytes });
            at += bytes;
            continue;
        }
        const std::size_t count = (data.at(at) & 127u) + 1;
        const bool isRun = data.at(at) >= 128;
        ++at;
        for (std::size_t i = 0; i < count && stored.size() < wanted; ++i) {
            stored.push_back({ valueAt(at), start + at + bytes });
            at += isRun && i + 1 < count ? 0 : bytes;
        }
    }
    return stored;
}

/// What the picture must look like, row after row from the top, when the file is cut to that length.
std::vector<unsigned int> pictureOf(const TgaBytes& file, std::size_t fileBytes = SIZE_MAX)
{
    std::vector<unsigned int> picture(std::size_t(file.width * file.height), absent);
    int n = 0;
    for (const StoredPixel& pixel : storedPixels(file)) {
        const int column = n % file.width, row = n / file.width;
        const int x = file.descriptor & rightToLeft ? file.width - 1 - column : column;
        const int y = file.descriptor & topDown ? row : file.height - 1 - row;
        if (pixel.fileBytes <= fileBytes)
            picture[std::size_t(y * file.width + x)] = pixel.argb;
        ++n;
    }
    return picture;
}

// --- The renderer's conventions: pixels --------------------------------------------------------------------

TEST(TgaLoad, SmallestFileIsOnePixel)
{
    const Loaded loaded = load({ .pixels = { 1, 2, 3 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.at(0, 0), 0xFF030201u);
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 1, 1, 24, 3, 3 }));
    EXPECT_EQ(loaded.info.dataWindowX, -7);
    EXPECT_EQ(loaded.info.displayWindowHeight, -7);
}

TEST(TgaLoad, GreyValuesFillAllColors)
{
    const Loaded loaded = load({ .imageType = 3, .width = 3, .pixelBits = 8, .pixels = { 0, 0x80, 0xFF } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF000000u, 0xFF808080u, white));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 3, 1, 8, 1, 1 }));
}

TEST(TgaLoad, FourBytesAreBlueGreenRedAlpha)
{
    const Loaded loaded = load({ .pixelBits = 32, .pixels = { 1, 2, 3, 4 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.at(0, 0), 0x04030201u);
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 1, 1, 32, 4, 4 }));
}

TEST(TgaLoad, AlphaIsTakenWhateverTheAttributeBitsSay)
{
    const Loaded loaded = load({ .pixelBits = 32, .descriptor = topDown, .pixels = { 1, 2, 3, 0 } });
    EXPECT_EQ(loaded.sink.at(0, 0), 0x00030201u);
}

TEST(TgaLoad, SixteenBitColorsAreTransparentBlack)
{
    const Loaded loaded = load({ .width = 2, .pixelBits = 16, .pixels = { 0xFF, 0xFF, 0x12, 0x34 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0u, 0u));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 2, 1, 16, 2, 2 }));
}

TEST(TgaLoad, FifteenBitsAreOneGreyByte)
{
    const Loaded loaded = load({ .width = 2, .pixelBits = 15, .pixels = { 0x10, 0x20 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF101010u, 0xFF202020u));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 2, 1, 15, 1, 1 }));
}

TEST(TgaLoad, ValuesOfFiveBytesAndMoreAreTransparentBlack)
{
    for (const int bits : { 40, 48, 64, 255 }) {
        const Loaded loaded
            = load({ .width = 2, .pixelBits = bits, .pixels = Bytes(std::size_t(bits / 8) * 2, 9) });
        EXPECT_EQ(loaded.code, IMGERR_NONE) << bits;
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0u, 0u)) << bits;
    }
}

TEST(TgaLoad, IdentificationIsSkipped)
{
    for (const int length : { 1, 20, 255 }) {
        const Loaded loaded
            = load({ .idLength = length, .id = Bytes(std::size_t(length), 0xEE), .pixels = redBytes });
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_EQ(loaded.sink.at(0, 0), red);
    }
}

TEST(TgaLoad, OriginOfTheScreenIsIgnored)
{
    Bytes bytes = TgaBytes { .pixels = redBytes }.bytes();
    std::fill(bytes.begin() + 8, bytes.begin() + 12, std::uint8_t(0xFF));
    const Loaded loaded = loadBytes(bytes);
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.at(0, 0), red);
}

TEST(TgaLoad, BytesBehindThePixelsAreIgnored)
{
    const Loaded loaded = load({ .pixels = joined({ redBytes, Bytes(1000, 0x77) }) });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(red));
}

TEST(TgaLoad, InfoMayBeNull)
{
    writeScratch(TgaBytes { .pixels = redBytes }.bytes());
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadTGAFile(scratchFile(), sink, nullptr)), IMGERR_NONE);
    EXPECT_EQ(sink.at(0, 0), red);
}

// --- Orientation -------------------------------------------------------------------------------------------

TEST(TgaLoad, BottomUpFileFillsTheLastRowFirst)
{
    const Loaded loaded = load({ .height = 2, .descriptor = 0, .pixels = joined({ blueBytes, redBytes }) });
    EXPECT_EQ(loaded.sink.at(0, 0), red);
    EXPECT_EQ(loaded.sink.at(0, 1), blue);
    EXPECT_THAT(loaded.sink.order, ElementsAre(std::pair(0, 1), std::pair(0, 0)));
}

TEST(TgaLoad, CornersOfEachOrientation)
{
    for (const int imageType : { 2, 10 })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            const auto corners = [&](int descriptor) {
                return pixelsOf(load(fourColors(imageType, descriptor), conventions).sink);
            };
            EXPECT_THAT(corners(topDown), ElementsAre(red, green, blue, white));
            EXPECT_THAT(corners(0), ElementsAre(blue, white, red, green));
            EXPECT_THAT(corners(topDown | rightToLeft), ElementsAre(green, red, white, blue));
            EXPECT_THAT(corners(rightToLeft), ElementsAre(white, blue, green, red));
            EXPECT_THAT(corners(0xC0 | topDown), ElementsAre(red, green, blue, white)); // Interleaving bits.
        }
}

// --- Colour maps -------------------------------------------------------------------------------------------

TEST(TgaLoad, IndicesOfOneToFourBytesAreLittleEndian)
{
    for (int bytes = 1; bytes <= 4; ++bytes) {
        TgaBytes file {
            .colorMapType = 1, .imageType = 1, .colorMapLength = 300, .colorMapBits = 24, .width = 2
        };
        file.colorMap.resize(300 * 3);
        const int index = bytes == 1 ? 200 : 299;
        file.colorMap[std::size_t(index) * 3 + 1] = 0x66;
        file.pixelBits = 8 * bytes;
        file.pixels.resize(std::size_t(2 * bytes));
        file.pixels[0] = std::uint8_t(index);
        if (bytes > 1)
            file.pixels[1] = std::uint8_t(index >> 8);
        const Loaded loaded = load(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE) << bytes;
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF006600u, 0xFF000000u)) << bytes;
    }
}

TEST(TgaLoad, EntriesAreDecodedLikePixels)
{
    const auto firstEntry = [](int bits, const Bytes& entry) {
        const Loaded loaded = load({ .colorMapType = 1,
            .imageType = 1,
            .colorMapLength = 1,
            .colorMapBits = bits,
            .pixelBits = 8,
            .colorMap = entry,
            .pixels = { 0 } });
        EXPECT_EQ(loaded.code, IMGERR_NONE) << bits;
        EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 1, 1, bits, bits / 8, bits / 8 }));
        return loaded.sink.at(0, 0);
    };
    EXPECT_EQ(firstEntry(8, { 0x21 }), 0xFF212121u);
    EXPECT_EQ(firstEntry(15, { 0x21 }), 0xFF212121u);
    EXPECT_EQ(firstEntry(16, { 0xFF, 0xFF }), 0u);
    EXPECT_EQ(firstEntry(24, { 1, 2, 3 }), 0xFF030201u);
    EXPECT_EQ(firstEntry(32, { 1, 2, 3, 4 }), 0x04030201u);
    EXPECT_EQ(firstEntry(40, { 1, 2, 3, 4, 5 }), 0u);
}

TEST(TgaLoad, IndicesPastTheMapAreTransparentBlack)
{
    for (int bytes = 1; bytes <= 4; ++bytes) {
        TgaBytes file {
            .colorMapType = 1, .imageType = 1, .colorMapLength = 2, .colorMapBits = 24, .width = 3
        };
        file.pixelBits = 8 * bytes;
        file.colorMap = joined({ redBytes, greenBytes });
        file.pixels = joined({ Bytes(std::size_t(bytes), 0xFF), Bytes(std::size_t(2 * bytes), 0) });
        file.pixels[std::size_t(bytes)] = 1;
        file.pixels[std::size_t(2 * bytes)] = 2;
        const Loaded loaded = load(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0u, green, 0u)) << bytes;
    }
}

TEST(TgaLoad, MapWithoutEntriesGivesTransparentBlack)
{
    const Loaded loaded = load({ .colorMapType = 1, .imageType = 1, .pixelBits = 8, .pixels = { 0 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0u));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 1, 1, 0, 0, 0 }));
}

TEST(TgaLoad, MapMakesPixelsOfEveryTypeIndices)
{
    for (const int imageType : { 1, 2, 3 }) {
        const Loaded loaded = load({ .colorMapType = 7,
            .imageType = imageType,
            .colorMapLength = 2,
            .colorMapBits = 24,
            .pixelBits = 24,
            .colorMap = joined({ redBytes, greenBytes }),
            .pixels = { 1, 0, 0 } });
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(green));
    }
}

TEST(TgaLoad, IndexedTypeWithoutMapHasColors)
{
    const Loaded loaded = load({ .imageType = 1, .pixelBits = 8, .pixels = { 0x40 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF404040u));
}

TEST(TgaLoad, FirstIndexSkipsDataAndDoesNotMoveIndices)
{
    // Two entries of 24 bits are skipped in front of the map, whose first entry is number 0 all the same.
    const Loaded loaded = load({ .colorMapType = 1,
        .imageType = 1,
        .colorMapFirst = 2,
        .colorMapLength = 2,
        .colorMapBits = 24,
        .width = 3,
        .pixelBits = 8,
        .colorMap = joined({ whiteBytes, whiteBytes, redBytes, greenBytes }),
        .pixels = { 0, 1, 2 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(red, green, 0u));
}

TEST(TgaLoad, SkippedBitsAreCutToBytes)
{
    // 5 x 15 bits are 75: nine bytes are skipped. An entry of 15 bits is one byte.
    const Loaded loaded = load({ .colorMapType = 1,
        .imageType = 1,
        .colorMapFirst = 5,
        .colorMapLength = 1,
        .colorMapBits = 15,
        .pixelBits = 8,
        .colorMap = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 0x66 },
        .pixels = { 0 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF666666u));
}

TEST(TgaLoad, CutMapIsAReadErrorOfASizedSink)
{
    TgaBytes file {
        .colorMapType = 1, .imageType = 1, .colorMapLength = 2, .colorMapBits = 24, .pixelBits = 8
    };
    file.colorMap = Bytes(5, 1);
    const Loaded loaded = load(file);
    EXPECT_EQ(loaded.code, IMGERR_READ);
    EXPECT_EQ(loaded.sink.initCalls, 1);
    EXPECT_EQ(loaded.sink.freeCalls, 0);
    EXPECT_TRUE(loaded.sink.order.empty());
    EXPECT_EQ(factsOf(loaded.info), factsOf(filledInfo()));
}

TEST(TgaLoad, EntriesBelowEightBitsCannotBeRead)
{
    TgaBytes file { .colorMapType = 1, .imageType = 1, .colorMapLength = 1, .pixelBits = 8 };
    file.colorMap = Bytes(50, 1);
    for (const int bits : { 0, 1, 7 }) {
        file.colorMapBits = bits;
        file.colorMapLength = 1;
        EXPECT_EQ(load(file).code, IMGERR_READ) << bits;
        file.colorMapLength = 0;
        EXPECT_EQ(load(file).code, IMGERR_NONE) << bits;
    }
}

// --- Run-length packets ------------------------------------------------------------------------------------

TEST(TgaLoad, PacketsGoOnInTheNextRow)
{
    const Loaded loaded = load({ .imageType = 10,
        .width = 2,
        .height = 3,
        .pixels = joined({ { 0x82 }, redBytes, { 0x02 }, greenBytes, blueBytes, whiteBytes }) });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(red, red, red, green, blue, white));
}

TEST(TgaLoad, LastPacketMayGoPastTheImage)
{
    const Loaded run
        = load({ .imageType = 10, .width = 2, .height = 2, .pixels = joined({ { 0xFF }, redBytes }) });
    EXPECT_EQ(run.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(run.sink), ElementsAre(red, red, red, red));

    const Loaded raw
        = load({ .imageType = 10, .width = 1, .height = 1, .pixels = joined({ { 0x7F }, redBytes }) });
    EXPECT_EQ(raw.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(raw.sink), ElementsAre(red));
}

TEST(TgaLoad, RunsHoldOneToAHundredAndTwentyEightPixels)
{
    TgaBytes file { .imageType = 11, .width = 129, .height = 1, .pixelBits = 8 };
    file.pixels = { 0xFF, 1, 0x80, 2 };
    const Loaded loaded = load(file);
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.at(0, 0), 0xFF010101u);
    EXPECT_EQ(loaded.sink.at(127, 0), 0xFF010101u);
    EXPECT_EQ(loaded.sink.at(128, 0), 0xFF020202u);
}

TEST(TgaLoad, RunsOfIndicesAndWideValues)
{
    const Loaded indexed = load({ .colorMapType = 1,
        .imageType = 9,
        .colorMapLength = 2,
        .colorMapBits = 24,
        .width = 4,
        .pixelBits = 16,
        .colorMap = joined({ redBytes, greenBytes }),
        .pixels = { 0x81, 1, 0, 0x01, 0, 0, 9, 9 } });
    EXPECT_EQ(indexed.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(indexed.sink), ElementsAre(green, green, red, 0u));

    const Loaded wide
        = load({ .imageType = 10, .width = 3, .pixelBits = 48, .pixels = { 0x82, 1, 2, 3, 4, 5, 6 } });
    EXPECT_EQ(wide.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(wide.sink), ElementsAre(0u, 0u, 0u));
}

// --- Cut files ---------------------------------------------------------------------------------------------

void expectPixelsBeforeTheCut(const TgaBytes& file, std::size_t length, Conventions conventions)
{
    Bytes bytes = file.bytes();
    bytes.resize(length);
    const bool isShort = length < 18, isWhole = length >= storedPixels(file).back().fileBytes;

    const Loaded loaded = loadBytes(bytes, conventions);
    EXPECT_EQ(loaded.code, isShort ? IMGERR_FORMAT : isWhole ? IMGERR_NONE : IMGERR_READ);
    EXPECT_EQ(pixelsOf(loaded.sink), isShort ? std::vector<unsigned int>() : pictureOf(file, length));
    EXPECT_EQ(loaded.sink.initCalls, isShort ? 0 : 1);
    EXPECT_EQ(loaded.sink.freeCalls, 0);
    EXPECT_EQ(loaded.info.width, isWhole ? file.width : -7);
}

TEST(TgaLoad, CutFileKeepsExactlyThePixelsBeforeTheCut)
{
    for (const int imageType : allTypes)
        for (const int orientation : allOrientations)
            for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
                const TgaBytes file = smallPicture(imageType, orientation);
                for (std::size_t length = 0; length <= file.bytes().size(); ++length) {
                    SCOPED_TRACE(testing::Message()
                        << "type " << imageType << ", descriptor " << orientation << ", cut to " << length);
                    expectPixelsBeforeTheCut(file, length, conventions);
                }
            }
}

TEST(TgaLoad, CutRowOfAnImage8LeavesTheRestZero)
{
    TgaBytes file { .imageType = 2, .width = 4, .height = 1, .descriptor = topDown | rightToLeft };
    file.pixels = joined({ redBytes, greenBytes });
    for (const int imageType : { 2, 10 }) {
        file.imageType = imageType;
        if (imageType == 10)
            file.pixels.insert(file.pixels.begin(), 3);
        writeScratch(file.bytes());
        QUtils::Image8 image;
        EXPECT_EQ(codeOf(LoadTGAFile(scratchFile(), image, nullptr)), IMGERR_READ);
        EXPECT_EQ(std::vector<unsigned int>(image.row(0), image.row(0) + 4),
            (std::vector<unsigned int> { 0, 0, green, red }));
    }
}

// --- Pictures larger than a block of the file --------------------------------------------------------------

TgaBytes largePicture(int imageType, int descriptor, int width, int height)
{
    TgaBytes file { .imageType = imageType, .width = width, .height = height, .descriptor = descriptor };
    const int kind = imageType & 7;
    file.pixelBits = kind == 2 ? 24 : 8;
    if (kind == 1) {
        file.colorMapType = 1;
        file.colorMapLength = 256;
        file.colorMapBits = 24;
        file.colorMap.resize(768);
    }
    std::mt19937 random(unsigned(imageType * 100 + descriptor));
    const auto put = [&](int count) {
        for (int i = 0; i < count; ++i)
            file.pixels.push_back(std::uint8_t(random()));
    };
    for (std::uint8_t& byte : file.colorMap)
        byte = std::uint8_t(random());
    const int bytes = file.pixelBits / 8;
    if (imageType < 8)
        put(width * height * bytes);
    for (int stored = 0; imageType > 8 && stored < width * height;) {
        const std::uint8_t first = std::uint8_t(random());
        file.pixels.push_back(first);
        put((first >= 128 ? 1 : first + 1) * bytes);
        stored += (first & 127) + 1;
    }
    return file;
}

/// Whether an image that takes whole rows gets the right picture.
bool loadsCompletely(const TgaBytes& file)
{
    writeScratch(file.bytes());
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadTGAFile(scratchFile(), image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(image.width(), file.width);
    EXPECT_EQ(image.height(), file.height);
    const std::size_t pixels = std::size_t(image.width() * image.height());
    return std::vector<unsigned int>(image.data(), image.data() + pixels) == pictureOf(file);
}

TEST(TgaLoad, PicturesOfManyBlocksAreComplete)
{
    for (const int imageType : allTypes)
        for (const int orientation : allOrientations)
            EXPECT_TRUE(loadsCompletely(largePicture(imageType, orientation, 1001, 701)))
                << imageType << ' ' << orientation;
}

TEST(TgaLoad, SinkOfSinglePixelsGetsTheSamePicture)
{
    for (const int imageType : allTypes)
        for (const int orientation : allOrientations) {
            const TgaBytes file = largePicture(imageType, orientation, 97, 13);
            EXPECT_TRUE(loadsCompletely(file));
            EXPECT_EQ(pixelsOf(load(file).sink), pictureOf(file)) << imageType << ' ' << orientation;
        }
}

TEST(TgaLoad, RowsLongerThanABlockAreComplete)
{
    for (const int imageType : { 2, 10 })
        EXPECT_TRUE(loadsCompletely(largePicture(imageType, topDown, 32767, 11)));
    TgaBytes wide { .imageType = 2, .width = 32767, .height = 1, .pixelBits = 248 };
    wide.pixels.resize(32767 * 31, 5);
    EXPECT_EQ(load(wide).code, IMGERR_NONE);
}

// --- Errors ------------------------------------------------------------------------------------------------

TEST(TgaLoad, MissingFileIsAnOpenError)
{
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    const ImgError error = LoadTGAFile("/nowhere/image.tga", sink, &info);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(codeOf(LoadTGAHeader("/nowhere/image.tga", &info)), IMGERR_OPEN);
    EXPECT_EQ(info.width, -7);
}

TEST(TgaLoad, FolderIsNotAPicture)
{
    const TempDir folder;
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadTGAFile(folder.path().c_str(), sink, nullptr)), IMGERR_FORMAT);
}

TEST(TgaLoad, OnlySixImageTypesAreRead)
{
    TgaBytes file { .pixels = joined({ { 0x80 }, redBytes }) };
    for (int type = 0; type < 256; ++type) {
        file.imageType = type;
        const bool known = std::count(std::begin(allTypes), std::end(allTypes), type) != 0;
        const Loaded loaded = load(file);
        EXPECT_EQ(loaded.code, known ? IMGERR_NONE : IMGERR_FORMAT) << type;
        EXPECT_EQ(loaded.sink.initCalls, known ? 1 : 0) << type;
    }
}

TEST(TgaLoad, PixelsBelowEightBitsCannotBeRead)
{
    for (const int imageType : { 2, 10 })
        for (const int bits : { 0, 1, 7 }) {
            const Loaded loaded
                = load({ .imageType = imageType, .pixelBits = bits, .pixels = Bytes(50, 0x80) });
            EXPECT_EQ(loaded.code, IMGERR_READ);
            EXPECT_EQ(loaded.sink.initCalls, 1);
            EXPECT_TRUE(loaded.sink.order.empty());
        }
}

TEST(TgaLoad, SinkThatIsNotValidIsAMemoryError)
{
    TgaBytes file {
        .colorMapType = 1, .imageType = 1, .colorMapLength = 9, .colorMapBits = 24, .pixelBits = 0
    };
    writeScratch(file.bytes()); // Everything behind the sink's refusal is wrong as well.
    RecordingBuffer sink;
    sink.refuse = true;
    IMGINFO info = filledInfo();
    EXPECT_EQ(codeOf(LoadTGAFile(scratchFile(), sink, &info)), IMGERR_MEMORY);
    EXPECT_EQ(sink.initCalls, 1);
    EXPECT_EQ(sink.freeCalls, 0);
    EXPECT_EQ(info.width, -7);
}

TEST(TgaLoad, FileThatCannotBeSoughtInIsAReadError)
{
    const TempDir folder;
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const int fifo = open((folder / "fifo").c_str(), O_RDWR);
    ASSERT_GE(fifo, 0);
    const Bytes bytes = TgaBytes { .pixels = redBytes }.bytes();
    ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadTGAFile((folder / "fifo").c_str(), sink, nullptr)), IMGERR_READ);
    close(fifo);
}

TEST(TgaLoad, NegativeSizesStoreNothing)
{
    for (const int imageType : { 2, 10 })
        for (const auto& [width, height] :
            { std::pair(0x8000, 2), { 2, 0x8000 }, { 0xFFFF, 0xFFFF }, { 0xFFFF, 0 } }) {
            const Loaded loaded
                = load({ .imageType = imageType, .width = width, .height = height, .pixels = Bytes(99, 1) });
            EXPECT_EQ(loaded.code, IMGERR_NONE);
            EXPECT_TRUE(loaded.sink.order.empty());
            EXPECT_EQ(loaded.sink.width, std::int16_t(width));
            EXPECT_EQ(loaded.sink.height, std::int16_t(height));
            EXPECT_EQ(loaded.info.width, std::int16_t(width));
            EXPECT_EQ(loaded.info.height, std::int16_t(height));
        }
}

TEST(TgaLoad, EmptyPicturesNeedNoPixels)
{
    for (const int imageType : allTypes)
        for (const auto& [width, height] : { std::pair(0, 0), { 0, 5 }, { 5, 0 } }) {
            const Loaded loaded = load({ .imageType = imageType, .width = width, .height = height });
            EXPECT_EQ(loaded.code, IMGERR_NONE);
            EXPECT_TRUE(loaded.sink.order.empty());
        }
}

TEST(TgaLoad, EveryHeaderFieldMayBeZeroOrLargest)
{
    const std::pair<std::size_t, std::size_t> fields[] = { { 0, 1 }, { 1, 1 }, { 2, 1 }, { 3, 2 }, { 5, 2 },
        { 7, 1 }, { 8, 2 }, { 10, 2 }, { 12, 2 }, { 14, 2 }, { 16, 1 }, { 17, 1 } };
    for (const int imageType : allTypes)
        for (const auto& [offset, size] : fields)
            for (const int value : { 0x00, 0xFF })
                for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
                    Bytes bytes = smallPicture(imageType, topDown).bytes();
                    std::fill_n(bytes.begin() + std::ptrdiff_t(offset), size, std::uint8_t(value));
                    writeScratch(bytes);
                    QUtils::Image8 image;
                    EXPECT_THAT(codeOf(loadTga(scratchFile(), image, nullptr, conventions)),
                        AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY))
                        << imageType << ' ' << offset;
                }
}

// --- Sinks -------------------------------------------------------------------------------------------------

TEST(TgaLoad, ExceptionOfTheSinkReachesTheCallerWithTheFileClosed)
{
    for (const int imageType : allTypes) {
        writeScratch(smallPicture(imageType, topDown).bytes());
        for (std::size_t pixel = 0; pixel < 6; ++pixel) {
            ThrowingSink sink;
            sink.throwAtPixel = pixel;
            IMGINFO info = filledInfo();
            const int before = openFiles();
            EXPECT_THROW((void)LoadTGAFile(scratchFile(), sink, &info), std::runtime_error);
            EXPECT_EQ(openFiles(), before);
            EXPECT_EQ(sink.freeCalls, 1);
            EXPECT_EQ(sink.order.size(), pixel);
            EXPECT_EQ(info.width, -7);
        }
        ThrowingSink sink;
        sink.throwInInit = true;
        EXPECT_THROW((void)LoadTGAFile(scratchFile(), sink, nullptr), std::runtime_error);
        EXPECT_EQ(sink.freeCalls, 1);
    }
}

TEST(TgaLoad, FilesAreClosedOnEveryPath)
{
    const int before = openFiles();
    for (const int imageType : allTypes)
        for (const std::size_t length : { 0u, 17u, 18u, 25u, 1000u }) {
            Bytes bytes = smallPicture(imageType, topDown).bytes();
            bytes.resize(std::min(length, bytes.size()));
            loadBytes(bytes);
            loadBytes(bytes, Conventions::Standard);
            describe(bytes);
        }
    EXPECT_EQ(openFiles(), before);
}

TEST(TgaLoad, SinkWithoutTypeInformationIsServedPixelByPixel)
{
#if defined(RASTKIT_TESTS_CHECK_VPTR)
    GTEST_SKIP() << "this sanitizer looks at the type information of every object";
#endif
    for (const int imageType : allTypes) {
        const TgaBytes file = smallPicture(imageType, 0);
        writeScratch(file.bytes());
        const auto sink = newSinkWithoutRtti();
        ASSERT_EQ(codeOf(LoadTGAFile(scratchFile(), *sink->buffer, nullptr)), IMGERR_NONE);
        EXPECT_EQ(sink->pixels, pictureOf(file));
    }
}

// --- Headers -----------------------------------------------------------------------------------------------

TEST(TgaHeaderLoad, TellsSizeAndDepth)
{
    const Described described = describe(TgaBytes { .width = 300, .height = 200, .pixelBits = 32 }.bytes());
    EXPECT_EQ(described.code, IMGERR_NONE);
    EXPECT_EQ(factsOf(described.info), (std::vector<int> { 300, 200, 32, 4, 4 }));
    EXPECT_EQ(described.info.dataWindowX, -7);
}

TEST(TgaHeaderLoad, TellsTheDepthOfIndicesWhereTheFileTellsThatOfEntries)
{
    const TgaBytes file { .colorMapType = 1,
        .imageType = 1,
        .colorMapLength = 1,
        .colorMapBits = 24,
        .pixelBits = 8,
        .colorMap = redBytes,
        .pixels = { 0 } };
    EXPECT_EQ(factsOf(describe(file.bytes()).info), (std::vector<int> { 1, 1, 8, 1, 1 }));
    EXPECT_EQ(factsOf(load(file).info), (std::vector<int> { 1, 1, 24, 3, 3 }));
}

TEST(TgaHeaderLoad, ChecksNothingElse)
{
    TgaBytes file { .width = 40000, .height = 65535, .pixelBits = 15 };
    for (const int type : { 0, 2, 4, 255 }) {
        file.imageType = type;
        const Described described = describe(file.bytes());
        EXPECT_EQ(described.code, IMGERR_NONE);
        EXPECT_EQ(factsOf(described.info), (std::vector<int> { 40000 - 65536, -1, 15, 1, 1 }));
    }
}

TEST(TgaHeaderLoad, ShortHeaderIsNotTarga)
{
    const Bytes whole = TgaBytes {}.bytes();
    for (std::size_t length = 0; length < 18; ++length) {
        const Described described = describe(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
        EXPECT_EQ(described.code, IMGERR_FORMAT);
        EXPECT_EQ(described.info.width, -7);
    }
}

// --- Single pixels -----------------------------------------------------------------------------------------

TEST(TgaPixel, ColorsByTheirNumberOfBytes)
{
    const unsigned char bytes[] = { 1, 2, 3, 4, 5 };
    EXPECT_EQ(readTGAPixel(bytes, 0, nullptr), 0u);
    EXPECT_EQ(readTGAPixel(bytes, 1, nullptr), 0xFF010101u);
    EXPECT_EQ(readTGAPixel(bytes, 2, nullptr), 0u);
    EXPECT_EQ(readTGAPixel(bytes, 3, nullptr), 0xFF030201u);
    EXPECT_EQ(readTGAPixel(bytes, 4, nullptr), 0x04030201u);
    EXPECT_EQ(readTGAPixel(bytes, 5, nullptr), 0u);
}

TEST(TgaPixel, IndicesByTheirNumberOfBytes)
{
    std::vector<unsigned int> palette(0x10203);
    palette[3] = 33;
    palette[0x203] = 44;
    palette[0x10202] = 55;
    const unsigned char bytes[] = { 2, 2, 1, 0, 0 }, small[] = { 3, 2, 0, 0, 0 };
    EXPECT_EQ(readTGAPixel(small, 0, palette.data()), 0u);
    EXPECT_EQ(readTGAPixel(small, 1, palette.data()), 33u);
    EXPECT_EQ(readTGAPixel(small, 2, palette.data()), 44u);
    EXPECT_EQ(readTGAPixel(bytes, 3, palette.data()), 55u);
    EXPECT_EQ(readTGAPixel(bytes, 4, palette.data()), 55u);
    EXPECT_EQ(readTGAPixel(bytes, 5, palette.data()), 0u);
}

TEST(TgaPixel, NoBytesAreTransparentBlack)
{
    const unsigned int palette[] = { 7 };
    EXPECT_EQ(readTGAPixel(nullptr, 3, nullptr), 0u);
    EXPECT_EQ(readTGAPixel(nullptr, 1, palette), 0u);
}

// --- The standard's conventions ----------------------------------------------------------------------------

Loaded loadStandard(const TgaBytes& file)
{
    return load(file, Conventions::Standard);
}

TEST(TgaStandardLoad, FiveBitsAreScaledToEightAndRounded)
{
    for (const int bits : { 15, 16 }) {
        TgaBytes file { .width = 32, .pixelBits = bits };
        for (unsigned v = 0; v < 32; ++v) {
            const unsigned color = v << 10 | (31 - v) << 5 | v / 2;
            file.pixels.push_back(std::uint8_t(color));
            file.pixels.push_back(std::uint8_t(color >> 8));
        }
        const Loaded loaded = loadStandard(file);
        ASSERT_EQ(loaded.code, IMGERR_NONE);
        const auto scaled = [](unsigned five) { return unsigned(std::lround(five * 255.0 / 31)); };
        for (unsigned v = 0; v < 32; ++v)
            EXPECT_EQ(loaded.sink.at(int(v), 0),
                0xFF000000 | scaled(v) << 16 | scaled(31 - v) << 8 | scaled(v / 2));
        EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 32, 1, bits, 3, 3 }));
    }
}

TEST(TgaStandardLoad, SixteenthBitIsAlphaOnlyWithOneAttributeBit)
{
    TgaBytes file { .width = 2, .pixelBits = 16, .pixels = { 0x1F, 0x80, 0x1F, 0x00 } };
    for (int attributeBits = 0; attributeBits < 16; ++attributeBits) {
        file.descriptor = topDown | attributeBits;
        const Loaded loaded = loadStandard(file);
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(blue, attributeBits == 1 ? blue & 0xFFFFFF : blue));
        EXPECT_EQ(loaded.info.numChannels, attributeBits == 1 ? 4 : 3);
    }
    file.pixelBits = 15;
    file.descriptor = topDown | 1;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(blue, blue));
}

TEST(TgaStandardLoad, SixteenBitMapEntriesAreColors)
{
    TgaBytes file {
        .colorMapType = 1, .imageType = 1, .colorMapLength = 2, .colorMapBits = 16, .width = 2, .pixelBits = 8
    };
    file.colorMap = { 0x00, 0x7C, 0xE0, 0x83 };
    file.pixels = { 1, 0 };
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(green, red));
    EXPECT_EQ(factsOf(loadStandard(file).info), (std::vector<int> { 2, 1, 16, 3, 3 }));
    file.descriptor = topDown | 1;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(green, red & 0xFFFFFF));
    file.colorMapBits = 15;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(green, red));
}

TEST(TgaStandardLoad, SixteenBitGreyIsGreyAndAlpha)
{
    TgaBytes file { .imageType = 3, .pixelBits = 16, .descriptor = topDown | 8, .pixels = { 0x12, 0x34 } };
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(0x34121212u));
    EXPECT_EQ(factsOf(loadStandard(file).info), (std::vector<int> { 1, 1, 16, 2, 2 }));
    file.descriptor = topDown;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(0xFF121212u));
    EXPECT_EQ(factsOf(loadStandard(file).info), (std::vector<int> { 1, 1, 16, 1, 1 }));
    EXPECT_THAT(pixelsOf(load(file).sink), ElementsAre(0u));
}

TEST(TgaStandardLoad, FirstIndexMovesTheIndices)
{
    const Loaded loaded = loadStandard({ .colorMapType = 1,
        .imageType = 1,
        .colorMapFirst = 2,
        .colorMapLength = 2,
        .colorMapBits = 24,
        .width = 5,
        .pixelBits = 8,
        .colorMap = joined({ redBytes, greenBytes }),
        .pixels = { 0, 1, 2, 3, 4 } });
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0u, 0u, red, green, 0u));
}

TEST(TgaStandardLoad, MapOfAnImageOfColorsIsSkipped)
{
    for (const int bits : { 15, 16, 24 }) {
        TgaBytes file {
            .colorMapType = 1, .imageType = 2, .colorMapFirst = 9, .colorMapLength = 3, .colorMapBits = bits
        };
        file.colorMap = Bytes(std::size_t(3 * ((bits + 7) / 8)), 1);
        file.pixels = redBytes;
        const Loaded loaded = loadStandard(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(red));
        EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 1, 1, 24, 3, 3 }));
    }
}

TEST(TgaStandardLoad, SizesAreUnsigned)
{
    for (const auto& [width, height] : { std::pair(1, 65535), { 40000, 1 } }) {
        const TgaBytes file { .imageType = 3,
            .width = width,
            .height = height,
            .pixelBits = 8,
            .pixels = Bytes(std::size_t(width * height), 0x55) };
        const Loaded loaded = loadStandard(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_EQ(loaded.sink.order.size(), std::size_t(width * height));
        EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { width, height, 8, 1, 1 }));
        EXPECT_EQ(factsOf(describe(file.bytes(), Conventions::Standard).info), factsOf(loaded.info));
    }
}

TEST(TgaStandardLoad, WhatTheFormatDoesNotKnowIsRefusedBeforeTheSinkIsSized)
{
    const auto refused = [](const TgaBytes& file) {
        const Loaded loaded = loadStandard(file);
        EXPECT_EQ(loaded.sink.initCalls, 0);
        EXPECT_EQ(describe(file.bytes(), Conventions::Standard).code, loaded.code);
        return loaded.code == IMGERR_FORMAT;
    };
    const Bytes some(100, 1);
    EXPECT_TRUE(refused({ .width = 0, .pixels = some }));
    EXPECT_TRUE(refused({ .height = 0, .pixels = some }));
    for (const int bits : { 0, 1, 7, 12, 23, 40, 255 })
        EXPECT_TRUE(refused({ .pixelBits = bits, .pixels = some })) << bits;
    for (const int bits : { 0, 15, 24, 32 })
        EXPECT_TRUE(refused({ .imageType = 3, .pixelBits = bits, .pixels = some })) << bits;
    for (const int bits : { 0, 12, 15, 40 })
        EXPECT_TRUE(refused({ .colorMapType = 1,
            .imageType = 1,
            .colorMapLength = 1,
            .colorMapBits = 24,
            .pixelBits = bits,
            .colorMap = some }))
            << bits;
    for (const int bits : { 0, 12, 23, 48 })
        EXPECT_TRUE(refused({ .colorMapType = 1,
            .imageType = 1,
            .colorMapLength = 1,
            .colorMapBits = bits,
            .pixelBits = 8,
            .colorMap = some }))
            << bits;
    EXPECT_TRUE(refused(
        { .imageType = 1, .colorMapLength = 1, .colorMapBits = 24, .pixelBits = 8, .colorMap = some }));
    EXPECT_TRUE(
        refused({ .colorMapType = 1, .imageType = 1, .colorMapBits = 24, .pixelBits = 8, .colorMap = some }));
    EXPECT_TRUE(refused({ .imageType = 0, .pixels = some }));
    EXPECT_TRUE(refused({ .imageType = 32, .pixels = some }));
}

// --- Alpha by attribute bits and extension area ------------------------------------------------------------

struct Extension {
    int attributesType = 0;
    int size = 495;
    std::uint32_t misplacedBy = 0;
    std::string signature = "TRUEVISION-XFILE.";
};

/// The file with an extension area and a footer behind it.
Bytes withExtension(const TgaBytes& file, const Extension& extension)
{
    Bytes bytes = file.bytes();
    const std::uint32_t offset = std::uint32_t(bytes.size()) + extension.misplacedBy;
    Bytes area(495);
    area[0] = std::uint8_t(extension.size);
    area[1] = std::uint8_t(extension.size >> 8);
    area[494] = std::uint8_t(extension.attributesType);
    bytes.insert(bytes.end(), area.begin(), area.end());
    for (int i = 0; i < 4; ++i)
        bytes.push_back(std::uint8_t(offset >> 8 * i));
    bytes.insert(bytes.end(), 4, 0);
    bytes.insert(bytes.end(), extension.signature.begin(), extension.signature.end());
    bytes.push_back(0);
    return bytes;
}

const TgaBytes transparent { .pixelBits = 32, .descriptor = topDown, .pixels = { 1, 2, 3, 4 } };

/// Whether the fourth byte of a 32-bit pixel is taken as alpha.
bool hasAlpha(int attributeBits, const Extension& extension)
{
    TgaBytes file = transparent;
    file.descriptor = topDown | attributeBits;
    const Bytes bytes = withExtension(file, extension);
    const Loaded loaded = loadBytes(bytes, Conventions::Standard);
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    const unsigned int pixel = loaded.sink.at(0, 0);
    EXPECT_THAT(pixel, AnyOf(0x04030201u, 0xFF030201u));
    EXPECT_EQ(loaded.info.numChannels, pixel == 0x04030201 ? 4 : 3);
    EXPECT_EQ(factsOf(describe(bytes, Conventions::Standard).info), factsOf(loaded.info));
    return pixel == 0x04030201;
}

TEST(TgaStandardLoad, AttributeBitsMakeTheFourthByteAlpha)
{
    TgaBytes file = transparent;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(0xFF030201u));
    file.descriptor |= 8;
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(0x04030201u));
}

TEST(TgaStandardLoad, ExtensionAreaKnowsBetterThanTheHeader)
{
    for (const int attributeBits : { 0, 8 }) {
        EXPECT_FALSE(hasAlpha(attributeBits, { .attributesType = 1 }));
        EXPECT_TRUE(hasAlpha(attributeBits, { .attributesType = 2 }));
        EXPECT_TRUE(hasAlpha(attributeBits, { .attributesType = 3 }));
        EXPECT_TRUE(hasAlpha(attributeBits, { .attributesType = 4 }));
    }
}

TEST(TgaStandardLoad, ExtensionAreaThatDoesNotTellLeavesItToTheHeader)
{
    for (const int attributeBits : { 0, 8 }) {
        const bool alpha = attributeBits != 0;
        EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = 0 }), alpha);
        EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = 5 }), alpha);
        EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = 255 }), alpha);
    }
}

TEST(TgaStandardLoad, WhatIsNoExtensionAreaIsNotAsked)
{
    for (const int type : { 1, 3 })
        for (const int attributeBits : { 0, 8 }) {
            const bool alpha = attributeBits != 0;
            EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = type, .size = 0 }), alpha);
            EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = type, .size = 493 }), alpha);
            EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = type, .misplacedBy = 1000 }), alpha);
            EXPECT_EQ(hasAlpha(attributeBits, { .attributesType = type, .misplacedBy = 0xFFFFFF00 }), alpha);
            EXPECT_EQ(
                hasAlpha(attributeBits, { .attributesType = type, .signature = "TRUEVISION-XFILY." }), alpha);
        }
}

TEST(TgaStandardLoad, SizeOfAnAreaMayLackItsLastByte)
{
    EXPECT_TRUE(hasAlpha(0, { .attributesType = 3, .size = 494 }));
    EXPECT_FALSE(hasAlpha(8, { .attributesType = 1, .size = 494 }));
}

TEST(TgaStandardLoad, ExtensionAreaSpeaksOfMapEntriesToo)
{
    TgaBytes file {
        .colorMapType = 1, .imageType = 1, .colorMapLength = 1, .colorMapBits = 32, .pixelBits = 8
    };
    file.colorMap = { 1, 2, 3, 4 };
    file.pixels = { 0 };
    EXPECT_THAT(pixelsOf(loadStandard(file).sink), ElementsAre(0xFF030201u));
    EXPECT_EQ(loadStandard(file).info.numChannels, 3);
    const Loaded loaded = loadBytes(withExtension(file, { .attributesType = 3 }), Conventions::Standard);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0x04030201u));
    EXPECT_EQ(loaded.info.numChannels, 4);
}

TEST(TgaStandardLoad, SingleBitOfUndefinedMeaningIsNoAlpha)
{
    TgaBytes file;
    file.pixelBits = 16;
    file.descriptor = 0x21; // One attribute bit.
    file.pixels = { 0x00, 0x7C }; // Red, the bit clear.
    const auto pixel = [&](int attributesType) {
        return loadBytes(withExtension(file, { .attributesType = attributesType }), Conventions::Standard)
            .sink.at(0, 0);
    };
    EXPECT_EQ(pixel(2), 0xFFFF0000u);
    EXPECT_EQ(pixel(3), 0x00FF0000u);
    EXPECT_EQ(pixel(0), 0x00FF0000u);
}

TEST(TgaStandardLoad, RendererNeverAsksTheExtensionArea)
{
    EXPECT_EQ(loadBytes(withExtension(transparent, { .attributesType = 1 })).sink.at(0, 0), 0x04030201u);
}

} // namespace
