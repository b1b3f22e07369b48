#include "rastkit/buffers.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/load.h"
#include "support/open_files.h"
#include "support/png_bytes.h"
#include "support/recording_buffer.h"
#include "support/sink_without_rtti.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::ElementsAre;

constexpr float scale16 = 1.5259022e-05f;
constexpr int adam7 = 1;

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
    static const std::string name = folder / "image.png";
    return name.c_str();
}

void writeScratch(const Bytes& bytes)
{
    std::filesystem::remove(scratchFile());
    writeFile(scratchFile(), bytes);
}

Loaded loadBytes(const Bytes& bytes)
{
    writeScratch(bytes);
    Loaded loaded;
    loaded.info = filledInfo();
    loaded.code = codeOf(LoadPNGFile(scratchFile(), loaded.sink, &loaded.info));
    return loaded;
}

Loaded loadArray(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
{
    Loaded loaded;
    loaded.info = filledInfo();
    loaded.code
        = codeOf(QUtils::loadPngArray(bytes.data(), bytes.size(), loaded.sink, &loaded.info, conventions));
    return loaded;
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
    described.code = codeOf(QUtils::loadPngHeader(scratchFile(), &described.info, conventions));

    IMGINFO ofArray = filledInfo();
    EXPECT_EQ(codeOf(QUtils::loadPngArrayHeader(bytes.data(), bytes.size(), &ofArray, conventions)),
        bytes.empty() ? IMGERR_MEMORY : described.code);
    EXPECT_EQ(std::memcmp(&ofArray, &described.info, sizeof ofArray), 0);
    return described;
}

/// Width, height, bits per pixel, channels, bytes per pixel.
std::vector<int> factsOf(const IMGINFO& info)
{
    return { info.width, info.height, info.bitsPerPixel, info.numChannels, info.bytesPerPixel };
}

std::vector<unsigned int> pixelsOf(const RecordingBuffer& sink)
{
    std::vector<unsigned int> pixels;
    for (int y = 0; y < sink.height; ++y)
        for (int x = 0; x < sink.width; ++x)
            pixels.push_back(sink.at(x, y));
    return pixels;
}

// --- What a picture must look like -------------------------------------------------------------------------

/// The samples of one pixel after expansion, R, G, B, A, and the largest value that one can have.
struct Expanded {
    unsigned int rgba[4];
    unsigned int greatest;
};

bool isTransparent(const PngBytes& file, const unsigned int* samples)
{
    if (file.transparency.empty())
        return false;
    for (int c = 0; c < file.channels(); ++c) {
        const std::size_t at = std::size_t(c) * 2;
        if (samples[c] != unsigned(file.transparency[at] << 8 | file.transparency[at + 1]))
            return false;
    }
    return true;
}

Expanded expandedPixel(const PngBytes& file, int x, int y)
{
    const std::size_t at
        = (std::size_t(y) * std::size_t(file.width) + std::size_t(x)) * std::size_t(file.channels());
    const unsigned int* const samples = &file.samples.at(at);
    if (file.colorType == PngBytes::palette) {
        const std::size_t entry = samples[0];
        return { { file.entries.at(3 * entry), file.entries.at(3 * entry + 1), file.entries.at(3 * entry + 2),
                     entry < file.transparency.size() ? file.transparency[entry] : 255u },
            255 };
    }
    const unsigned int stored = (1u << file.bitDepth) - 1, greatest = file.bitDepth == 16 ? 65535 : 255;
    const auto scaled = [&](unsigned int sample) { return sample * (greatest / stored); };
    const unsigned int opaque = isTransparent(file, samples) ? 0 : greatest;
    switch (file.colorType) {
    case PngBytes::grey:
        return { { scaled(samples[0]), scaled(samples[0]), scaled(samples[0]), opaque }, greatest };
    case PngBytes::greyAlpha: return { { samples[0], samples[0], samples[0], samples[1] }, greatest };
    case PngBytes::rgb: return { { samples[0], samples[1], samples[2], opaque }, greatest };
    default: return { { samples[0], samples[1], samples[2], samples[3] }, greatest };
    }
}

unsigned int packed(const Expanded& pixel)
{
    return pixel.rgba[3] << 24 | pixel.rgba[0] << 16 | pixel.rgba[1] << 8 | pixel.rgba[2];
}

std::array<float, 4> floats(const Expanded& pixel)
{
    std::array<float, 4> result {};
    for (std::size_t c = 0; c < 4; ++c)
        result[c] = float(pixel.rgba[c]) * scale16;
    // Alpha that the file has not is 1 itself.
    result[3] = pixel.rgba[3] == 65535 ? 1.0f : result[3];
    return result;
}

/// Pixels of the sink that differ from the picture, in rows before `rows`, and pixels stored elsewhere.
int differences(const PngBytes& file, const RecordingBuffer& sink, const std::vector<bool>& rows)
{
    int different = 0;
    const bool isFloat = file.bitDepth == 16;
    for (int y = 0; y < file.height; ++y)
        for (int x = 0; x < file.width; ++x) {
            const bool isThere = isFloat ? sink.pixelsF.count({ x, y }) != 0 : sink.has(x, y);
            different += isThere != rows[std::size_t(y)];
            if (!isThere || !rows[std::size_t(y)])
                continue;
            const Expanded pixel = expandedPixel(file, x, y);
            different
                += isFloat ? sink.pixelsF.at({ x, y }) != floats(pixel) : sink.at(x, y) != packed(pixel);
        }
    return different + int(isFloat ? sink.pixels.size() : sink.pixelsF.size());
}

std::vector<bool> allRows(const PngBytes& file)
{
    return std::vector<bool>(std::size_t(file.height), true);
}

bool isPicture(const PngBytes& file, const RecordingBuffer& sink)
{
    return sink.width == file.width && sink.height == file.height
        && differences(file, sink, allRows(file)) == 0;
}

/// The same for sinks that take whole rows.
bool isPicture(const PngBytes& file, QUtils::Image8& image)
{
    int different = 0;
    for (int y = 0; y < file.height; ++y)
        for (int x = 0; x < file.width; ++x)
            different += image.pixel(x, y) != packed(expandedPixel(file, x, y));
    return different == 0;
}

bool isPicture(const PngBytes& file, QUtils::ImageF& image)
{
    int different = 0;
    for (int y = 0; y < file.height; ++y)
        for (int x = 0; x < file.width; ++x) {
            const std::array<float, 4> expected = floats(expandedPixel(file, x, y));
            different
                += std::memcmp(expected.data(), image.row(y) + std::size_t(x) * 4, sizeof expected) != 0;
        }
    return different == 0;
}

// --- Pictures of every kind --------------------------------------------------------------------------------

struct Kind {
    int colorType, bitDepth;
    bool hasTransparency = false;
};

std::vector<Kind> allKinds()
{
    std::vector<Kind> kinds;
    for (const bool transparency : { false, true }) {
        for (const int depth : { 1, 2, 4, 8, 16 })
            kinds.push_back({ PngBytes::grey, depth, transparency });
        for (const int depth : { 1, 2, 4, 8 })
            kinds.push_back({ PngBytes::palette, depth, transparency });
        for (const int depth : { 8, 16 })
            kinds.push_back({ PngBytes::rgb, depth, transparency });
    }
    for (const int colorType : { PngBytes::greyAlpha, PngBytes::rgba })
        for (const int depth : { 8, 16 })
            kinds.push_back({ colorType, depth });
    return kinds;
}

PngBytes pictureOf(const Kind& kind, int width, int height, int interlace)
{
    PngBytes file {
        .width = width, .height = height, .bitDepth = kind.bitDepth, .colorType = kind.colorType
    };
    file.interlace = interlace;
    std::mt19937 random(unsigned(kind.colorType * 100 + kind.bitDepth + width));
    const unsigned int mask = (1u << kind.bitDepth) - 1;
    for (int i = 0; i < width * height * file.channels(); ++i)
        file.samples.push_back(unsigned(random()) & mask);
    if (kind.colorType == PngBytes::palette) {
        for (unsigned int i = 0; i < 3 * (mask + 1); ++i)
            file.entries.push_back(std::uint8_t(random()));
        if (kind.hasTransparency)
            file.transparency = { 0, std::uint8_t(random()) }; // The entries behind are opaque.
    } else if (kind.hasTransparency) {
        // The first pixel's value is the transparent one.
        for (int c = 0; c < file.channels(); ++c) {
            file.transparency.push_back(std::uint8_t(file.samples[std::size_t(c)] >> 8));
            file.transparency.push_back(std::uint8_t(file.samples[std::size_t(c)]));
        }
    }
    file.filter = kind.bitDepth < 8 ? 0 : int(random() % 3);
    return file;
}

/// What the description says: of the file, and of the expanded picture.
std::vector<int> storedFacts(const PngBytes& file)
{
    const int bits = file.bitDepth * file.channels();
    return { file.width, file.height, bits, file.channels(), bits / 8 };
}

std::vector<int> expandedFacts(const PngBytes& file)
{
    const int colors = file.colorType == PngBytes::palette ? 3 : file.channels();
    const int channels = colors + (file.transparency.empty() ? 0 : 1);
    const int bits = std::max(file.bitDepth, 8) * channels;
    return { file.width, file.height, bits, channels, bits / 8 };
}

void expectDescribed(const PngBytes& file)
{
    const Described standard = describe(file.bytes(), Conventions::Standard);
    EXPECT_EQ(standard.code, IMGERR_NONE);
    EXPECT_EQ(factsOf(standard.info), expandedFacts(file));

    const Described renderer = describe(file.bytes());
    const bool isPalette = file.colorType == PngBytes::palette;
    EXPECT_EQ(renderer.code, isPalette ? IMGERR_UNSUPPORTED : IMGERR_NONE);
    EXPECT_EQ(factsOf(renderer.info), isPalette ? factsOf(filledInfo()) : storedFacts(file));
    EXPECT_EQ(renderer.info.dataWindowX, -7);
}

void expectLoaded(const PngBytes& file)
{
    const Loaded loaded = loadBytes(file.bytes());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_TRUE(isPicture(file, loaded.sink));
    EXPECT_EQ(factsOf(loaded.info), expandedFacts(file));
    EXPECT_EQ(loaded.info.dataWindowX, -7);
    EXPECT_EQ(loaded.info.displayWindowHeight, -7);
    EXPECT_EQ(loaded.sink.initCalls, 1);
    EXPECT_EQ(loaded.sink.freeCalls, 0);

    const Loaded array = loadArray(file.bytes());
    EXPECT_EQ(array.code, IMGERR_NONE);
    EXPECT_EQ(array.sink.pixels, loaded.sink.pixels);
    EXPECT_EQ(array.sink.pixelsF, loaded.sink.pixelsF);
    EXPECT_EQ(array.sink.order, loaded.sink.order);
    EXPECT_EQ(factsOf(array.info), factsOf(loaded.info));
}

void expectRowsLoaded(const PngBytes& file)
{
    writeScratch(file.bytes());
    QUtils::Image8 image;
    QUtils::ImageF imageF;
    if (file.bitDepth == 16) {
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), imageF, nullptr)), IMGERR_NONE);
        EXPECT_TRUE(isPicture(file, imageF));
    } else {
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), image, nullptr)), IMGERR_NONE);
        EXPECT_TRUE(isPicture(file, image));
    }
}

TEST(PngLoad, EveryTypeAndDepthHasItsPixels)
{
    for (const Kind& kind : allKinds())
        for (const int interlace : { 0, adam7 })
            for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 1, 9 }, { 33, 2 } }) {
                SCOPED_TRACE(testing::Message() << "type " << kind.colorType << ", depth " << kind.bitDepth
                                                << ", tRNS " << kind.hasTransparency << ", interlace "
                                                << interlace << ", " << width << " x " << height);
                const PngBytes file = pictureOf(kind, width, height, interlace);
                expectLoaded(file);
                expectRowsLoaded(file);
                expectDescribed(file);
            }
}

TEST(PngLoad, RowsLongerThanAPieceOrABlockAreComplete)
{
    for (const Kind& kind : allKinds())
        for (const int interlace : { 0, adam7 })
            for (const auto& [width, height] : { std::pair(255, 3), { 256, 1 }, { 257, 2 }, { 4097, 3 } }) {
                SCOPED_TRACE(testing::Message()
                    << "type " << kind.colorType << ", depth " << kind.bitDepth << ", tRNS "
                    << kind.hasTransparency << ", interlace " << interlace << ", " << width);
                expectRowsLoaded(pictureOf(kind, width, height, interlace));
            }
    PngBytes wide = pictureOf({ PngBytes::rgba, 16 }, 100000, 3, 0);
    wide.idatBytes = 1000;
    expectRowsLoaded(wide);
}

TEST(PngLoad, PaletteFileLoadsAsColoursWhileTheHeaderIsRefused)
{
    PngBytes file { .width = 2, .colorType = PngBytes::palette };
    file.entries = { 1, 2, 3, 4, 5, 6 };
    file.samples = { 1, 0 };
    const Loaded rgb = loadBytes(file.bytes());
    EXPECT_EQ(rgb.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(rgb.sink), ElementsAre(0xFF040506u, 0xFF010203u));
    EXPECT_EQ(factsOf(rgb.info), (std::vector<int> { 2, 1, 24, 3, 3 }));

    file.transparency = { 0x80 };
    const Loaded rgba = loadBytes(file.bytes());
    EXPECT_EQ(rgba.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(rgba.sink), ElementsAre(0xFF040506u, 0x80010203u));
    EXPECT_EQ(factsOf(rgba.info), (std::vector<int> { 2, 1, 32, 4, 4 }));

    IMGINFO info = filledInfo();
    EXPECT_EQ(codeOf(LoadPNGHeader(scratchFile(), &info)), IMGERR_UNSUPPORTED);
    EXPECT_EQ(info.width, -7);
    EXPECT_EQ(describe(file.bytes(), Conventions::Standard).code, IMGERR_NONE);
}

TEST(PngLoad, WhiteOf16BitsIsOne)
{
    const Loaded loaded
        = loadBytes(PngBytes { .width = 3, .bitDepth = 16, .samples = { 65535, 0, 0x1234 } }.bytes());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_TRUE(loaded.sink.pixels.empty());
    EXPECT_EQ(loaded.sink.pixelsF.at({ 0, 0 }), (std::array<float, 4> { 1, 1, 1, 1 }));
    EXPECT_EQ(loaded.sink.pixelsF.at({ 1, 0 }), (std::array<float, 4> { 0, 0, 0, 1 }));
    const float value = 0x1234 * 1.5259022e-05f;
    EXPECT_EQ(loaded.sink.pixelsF.at({ 2, 0 }), (std::array<float, 4> { value, value, value, 1 }));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 3, 1, 16, 1, 2 }));
}

TEST(PngLoad, OneBitGreyIsAByteWhenLoadedAndNoneInTheHeader)
{
    const PngBytes file { .width = 2, .bitDepth = 1, .samples = { 1, 0 } };
    const Loaded loaded = loadBytes(file.bytes());
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFFFFFFFFu, 0xFF000000u));
    EXPECT_EQ(factsOf(loaded.info), (std::vector<int> { 2, 1, 8, 1, 1 }));
    EXPECT_EQ(factsOf(describe(file.bytes()).info), (std::vector<int> { 2, 1, 1, 1, 0 }));
}

TEST(PngLoad, IndicesPastThePaletteAreBlackOrAnError)
{
    // libpng decides: what counts is that nothing outside the palette shows.
    PngBytes file { .width = 2, .colorType = PngBytes::palette };
    file.entries = { 1, 2, 3 };
    file.samples = { 0, 200 };
    const Loaded loaded = loadBytes(file.bytes());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(pixelsOf(loaded.sink), ElementsAre(0xFF010203u, 0xFF000000u));
}

TEST(PngLoad, InfoMayBeNull)
{
    writeScratch(PngBytes { .samples = { 0x66 } }.bytes());
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), sink, nullptr)), IMGERR_NONE);
    EXPECT_EQ(sink.at(0, 0), 0xFF666666u);
}

TEST(PngLoad, RowsComeFromTheTop)
{
    for (const int interlace : { 0, adam7 }) {
        PngBytes file { .width = 2, .height = 2, .samples = { 1, 2, 3, 4 } };
        file.interlace = interlace;
        EXPECT_THAT(loadBytes(file.bytes()).sink.order,
            ElementsAre(std::pair(0, 0), std::pair(1, 0), std::pair(0, 1), std::pair(1, 1)));
    }
}

TEST(PngLoad, DataMayBeCutIntoChunksAnywhere)
{
    PngBytes file = pictureOf({ PngBytes::rgb, 8 }, 20, 20, 0);
    for (const std::size_t bytes : { 1u, 2u, 7u, 100u }) {
        file.idatBytes = bytes;
        EXPECT_TRUE(isPicture(file, loadBytes(file.bytes()).sink)) << bytes;
    }
}

TEST(PngLoad, ChunksThatAreNotUsedDoNoHarm)
{
    const PngBytes file { .samples = { 0x66 } };
    const Bytes junk(300, 0xEE);
    // Nonsense all of them; a broken sum of a chunk that may be left out is forgiven.
    Bytes broken = PngBytes::chunk("tEXt", junk);
    broken.back() ^= 1;
    Bytes bytes = file.beginning();
    for (const char* type : { "gAMA", "cHRM", "iCCP", "zTXt", "iTXt", "sBIT", "bKGD", "hIST", "pHYs", "tIME",
             "sPLT", "eXIf", "juNk" })
        bytes = PngBytes::joined({ bytes, PngBytes::chunk(type, junk) });
    bytes = PngBytes::joined({ bytes, broken, file.imageChunks(), PngBytes::chunk("tEXt", junk), broken,
        PngBytes::chunk("IEND", {}), junk });
    EXPECT_THAT(pixelsOf(loadBytes(bytes).sink), ElementsAre(0xFF666666u));
    EXPECT_EQ(loadBytes(bytes).code, IMGERR_NONE);
    EXPECT_EQ(loadArray(bytes).code, IMGERR_NONE);
}

TEST(PngLoad, GammaIsNotApplied)
{
    const PngBytes file { .samples = { 0x66 } };
    Bytes gamma;
    PngBytes::addNumber(gamma, 100000);
    const Bytes bytes = PngBytes::joined({ file.beginning(), PngBytes::chunk("gAMA", gamma),
        file.imageChunks(), PngBytes::chunk("IEND", {}) });
    EXPECT_THAT(pixelsOf(loadBytes(bytes).sink), ElementsAre(0xFF666666u));
}

TEST(PngLoad, SinkWithoutTypeInformationIsServedPixelByPixel)
{
#if defined(RASTKIT_TESTS_CHECK_VPTR)
    GTEST_SKIP() << "this sanitizer looks at the type information of every object";
#endif
    const PngBytes file = pictureOf({ PngBytes::rgba, 8 }, 3, 2, 0);
    writeScratch(file.bytes());
    const auto sink = newSinkWithoutRtti();
    EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), *sink->buffer, nullptr)), IMGERR_NONE);
    std::vector<unsigned int> expected;
    for (int i = 0; i < 6; ++i)
        expected.push_back(packed(expandedPixel(file, i % 3, i / 3)));
    EXPECT_EQ(sink->pixels, expected);
}

// --- Cut and broken files ----------------------------------------------------------------------------------

/// How many bytes of rows the image data in the first `length` bytes of the file inflate to.
std::size_t inflatedBytes(const PngBytes& file, std::size_t length)
{
    const Bytes data = PngBytes::deflated(file.rows());
    const std::size_t begin = file.beginning().size();
    Bytes found;
    for (std::size_t at = 0, chunkBegin = begin; at < data.size();) {
        const std::size_t piece = std::min(file.idatBytes, data.size() - at);
        const std::size_t dataBegin = chunkBegin + 8;
        const std::size_t there = length <= dataBegin ? 0 : std::min(piece, length - dataBegin);
        found.insert(
            found.end(), data.begin() + std::ptrdiff_t(at), data.begin() + std::ptrdiff_t(at + there));
        if (length < dataBegin + piece + 4)
            break; // A chunk without its sum ends here.
        at += piece;
        chunkBegin = dataBegin + piece + 4;
    }
    z_stream stream {};
    EXPECT_EQ(inflateInit(&stream), Z_OK);
    Bytes rows(file.rows().size() + 1);
    stream.next_in = found.data();
    stream.avail_in = uInt(found.size());
    stream.next_out = rows.data();
    stream.avail_out = uInt(rows.size());
    inflate(&stream, Z_SYNC_FLUSH);
    const std::size_t bytes = rows.size() - stream.avail_out;
    inflateEnd(&stream);
    return bytes;
}

/// Which rows are complete when so many bytes of rows are there.
std::vector<bool> completeRows(const PngBytes& file, std::size_t bytes)
{
    constexpr int passes[7][4] = { { 0, 0, 8, 8 }, { 4, 0, 8, 8 }, { 0, 4, 4, 8 }, { 2, 0, 4, 4 },
        { 0, 2, 2, 4 }, { 1, 0, 2, 2 }, { 0, 1, 1, 2 } };
    constexpr int whole[1][4] = { { 0, 0, 1, 1 } };
    std::vector<bool> complete(std::size_t(file.height), true);
    const auto pass = [&](const int(&step)[4]) {
        const int columns = (file.width - step[0] + step[2] - 1) / step[2];
        if (file.width <= step[0])
            return;
        const std::size_t rowBytes = 1 + std::size_t(columns * file.channels() * file.bitDepth + 7) / 8;
        for (int y = step[1]; y < file.height; y += step[3]) {
            complete[std::size_t(y)] = complete[std::size_t(y)] && bytes >= rowBytes;
            bytes = bytes >= rowBytes ? bytes - rowBytes : 0;
        }
    };
    if (file.interlace == 0)
        pass(whole[0]);
    else
        for (const auto& step : passes)
            pass(step);
    return complete;
}

/// Exactly the rows that are complete, but for what the last byte alone brings: libpng does not ask zlib what
/// is left of it without another one.
void expectRowsBetween(const PngBytes& file, const RecordingBuffer& sink, const std::vector<bool>& least,
    const std::vector<bool>& most)
{
    std::vector<bool> stored(least.size(), false);
    for (const auto& [x, y] : sink.order)
        stored[std::size_t(y)] = true;
    EXPECT_EQ(differences(file, sink, stored), 0);
    for (std::size_t y = 0; y < stored.size(); ++y) {
        EXPECT_TRUE(stored[y] || !least[y]) << y;
        EXPECT_TRUE(most[y] || !stored[y]) << y;
    }
}

void expectCompleteRows(const PngBytes& file, std::size_t length)
{
    Bytes bytes = file.bytes();
    bytes.resize(length);
    // libpng reads up to the length and the type of the first chunk of the image.
    const bool hasHeader = length >= file.beginning().size() + 8;
    const bool isWhole = length == file.bytes().size();

    const Loaded loaded = loadBytes(bytes);
    EXPECT_EQ(loaded.code, !hasHeader ? IMGERR_FORMAT : isWhole ? IMGERR_NONE : IMGERR_READ);
    EXPECT_EQ(loaded.sink.initCalls, hasHeader ? 1 : 0);
    EXPECT_EQ(loaded.sink.freeCalls, 0);
    EXPECT_EQ(loaded.info.width, isWhole ? file.width : -7);
    if (hasHeader)
        expectRowsBetween(file, loaded.sink, completeRows(file, inflatedBytes(file, length - 1)),
            completeRows(file, inflatedBytes(file, length)));

    const Loaded standard = loadArray(bytes, Conventions::Standard);
    EXPECT_EQ(standard.code, loaded.code);
    EXPECT_EQ(standard.sink.order, loaded.sink.order);
    EXPECT_EQ(loadArray(bytes).code, loaded.code);
    EXPECT_EQ(describe(bytes, Conventions::Standard).code, hasHeader ? IMGERR_NONE : IMGERR_FORMAT);
}

TEST(PngLoad, CutFileKeepsTheCompleteRowsBeforeTheCut)
{
    for (const Kind& kind : { Kind { PngBytes::rgb, 8 }, { PngBytes::grey, 1 }, { PngBytes::rgba, 16 },
             { PngBytes::palette, 4 } })
        for (const int interlace : { 0, adam7 })
            for (const auto& [width, height] : { std::pair(7, 9), { 1, 9 }, { 2, 1 } }) {
                PngBytes file = pictureOf(kind, width, height, interlace);
                file.idatBytes = 40;
                for (std::size_t length = 1; length <= file.bytes().size(); ++length) {
                    SCOPED_TRACE(testing::Message()
                        << "type " << kind.colorType << ", interlace " << interlace << ", " << width << " x "
                        << height << ", cut to " << length);
                    expectCompleteRows(file, length);
                }
            }
}

TEST(PngLoad, CutRowOfAnImage8ReadsAsZero)
{
    for (const int interlace : { 0, adam7 }) {
        PngBytes file = pictureOf({ PngBytes::rgb, 8 }, 50, 50, interlace);
        Bytes bytes = file.bytes();
        bytes.resize(bytes.size() - 1000);
        writeScratch(bytes);
        const std::vector<bool> complete = completeRows(file, inflatedBytes(file, bytes.size()));
        EXPECT_GT(std::count(complete.begin(), complete.end(), true), 10);
        EXPECT_GT(std::count(complete.begin(), complete.end(), false), 3);
        QUtils::Image8 image;
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), image, nullptr)), IMGERR_READ);
        for (int y = 0; y < 50; ++y)
            for (int x = 0; x < 50; ++x)
                ASSERT_EQ(
                    image.pixel(x, y), complete[std::size_t(y)] ? packed(expandedPixel(file, x, y)) : 0u);
    }
}

TEST(PngLoad, BrokenSumsAreErrors)
{
    const PngBytes file = pictureOf({ PngBytes::palette, 8, true }, 7, 5, 0);
    const std::size_t header = 8 + 12 + 13, begin = file.beginning().size(), end = file.bytes().size();
    const auto codeWithout = [&](std::size_t at) {
        Bytes bytes = file.bytes();
        bytes[at] ^= 1;
        return loadBytes(bytes).code;
    };
    EXPECT_EQ(codeWithout(header - 1), IMGERR_FORMAT);
    EXPECT_EQ(codeWithout(begin - 12 - 2 - 1), IMGERR_FORMAT); // PLTE
    EXPECT_EQ(codeWithout(end - 12 - 1), IMGERR_READ); // IDAT
    EXPECT_EQ(codeWithout(end - 1), IMGERR_READ); // IEND
}

TEST(PngLoad, DamagedPixelsKeepTheRowsBefore)
{
    PngBytes file = pictureOf({ PngBytes::rgb, 8 }, 40, 40, 0);
    file.filter = 0;
    Bytes rows = file.rows();
    rows[121 * 30] = 9; // No such filter.
    const Bytes bytes = PngBytes::joined(
        { file.beginning(), PngBytes::chunk("IDAT", PngBytes::deflated(rows)), PngBytes::chunk("IEND", {}) });
    const Loaded loaded = loadBytes(bytes);
    EXPECT_EQ(loaded.code, IMGERR_READ);
    EXPECT_EQ(loaded.sink.order.size(), 30u * 40);
}

TEST(PngLoad, HeadersThatCannotBeAreAFormatError)
{
    const auto codeOfHeader = [](PngBytes file) {
        const Bytes bytes = file.bytes();
        const int code = loadBytes(bytes).code;
        EXPECT_EQ(describe(bytes).code, code);
        EXPECT_EQ(describe(bytes, Conventions::Standard).code, code);
        return code;
    };
    for (int type = 0; type < 256; ++type)
        for (const int depth : { 0, 1, 3, 8, 16, 32, 255 }) {
            const std::vector<int> depths = type == 0 ? std::vector<int> { 1, 8, 16 }
                : type == 2 || type == 4 || type == 6 ? std::vector<int> { 8, 16 }
                                                      : std::vector<int> {};
            PngBytes file { .bitDepth = depth == 255 || depth == 32 || depth == 3 || depth == 0 ? 8 : depth };
            file.colorType = PngBytes::grey;
            Bytes header = file.header();
            header[8] = std::uint8_t(depth);
            header[9] = std::uint8_t(type);
            const Bytes bytes = PngBytes::joined({ PngBytes::signature(), PngBytes::chunk("IHDR", header),
                PngBytes::chunk("IDAT", PngBytes::deflated(Bytes(20, 0))), PngBytes::chunk("IEND", {}) });
            const bool isKnown = std::count(depths.begin(), depths.end(), depth) != 0;
            EXPECT_EQ(describe(bytes, Conventions::Standard).code, isKnown ? IMGERR_NONE : IMGERR_FORMAT)
                << type << ' ' << depth;
        }
    EXPECT_EQ(codeOfHeader({ .width = 0 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfHeader({ .height = 0 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfHeader({ .compression = 1 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfHeader({ .filterMethod = 1 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfHeader({ .interlace = 2 }), IMGERR_FORMAT);
}

TEST(PngLoad, PaletteThatIsMissingIsAFormatError)
{
    EXPECT_EQ(
        loadBytes(PngBytes { .colorType = PngBytes::palette, .samples = { 0 } }.bytes()).code, IMGERR_FORMAT);
}

TEST(PngLoad, WhatIsNoPngFileIsAFormatError)
{
    for (const Bytes& bytes :
        { Bytes {}, Bytes { 0x89, 'P', 'N', 'G' }, Bytes(100, 0), PngBytes::signature() }) {
        const Loaded loaded = loadBytes(bytes);
        EXPECT_EQ(loaded.code, IMGERR_FORMAT);
        EXPECT_EQ(loaded.sink.initCalls, 0);
        IMGINFO info = filledInfo();
        EXPECT_EQ(codeOf(LoadPNGHeader(scratchFile(), &info)), IMGERR_FORMAT);
    }
    const TempDir folder;
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadPNGFile(folder.path().c_str(), sink, nullptr)), IMGERR_FORMAT);
}

TEST(PngLoad, MissingFileIsAnOpenError)
{
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    const ImgError error = LoadPNGFile("/nowhere/image.png", sink, &info);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_EQ(codeOf(LoadPNGHeader("/nowhere/image.png", &info)), IMGERR_OPEN);
    EXPECT_EQ(info.width, -7);
}

TEST(PngLoad, PipeIsReadLikeAFile)
{
    const TempDir folder;
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const int interlace : { 0, adam7 }) {
        const PngBytes file = pictureOf({ PngBytes::rgb, 8 }, 300, 300, interlace);
        std::thread writer([&] { writeFile(fifo, file.bytes()); });
        RecordingBuffer sink;
        EXPECT_EQ(codeOf(LoadPNGFile(fifo.c_str(), sink, nullptr)), IMGERR_NONE);
        writer.join();
        EXPECT_TRUE(isPicture(file, sink));
    }
}

TEST(PngLoad, CutPipeKeepsTheRowsThatACutFileKeeps)
{
    const TempDir folder;
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Bytes bytes = pictureOf({ PngBytes::rgb, 8 }, 300, 300, 0).bytes();
    bytes.resize(bytes.size() * 2 / 3);
    writeScratch(bytes);
    RecordingBuffer fromFile, fromPipe;
    EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), fromFile, nullptr)), IMGERR_READ);
    std::thread writer([&] { writeFile(fifo, bytes); });
    EXPECT_EQ(codeOf(LoadPNGFile(fifo.c_str(), fromPipe, nullptr)), IMGERR_READ);
    writer.join();
    EXPECT_GT(fromFile.pixels.size(), 0u);
    EXPECT_TRUE(fromFile.pixels == fromPipe.pixels);
}

TEST(PngLoad, NothingIsPrinted)
{
    Bytes broken = pictureOf({ PngBytes::rgb, 8 }, 30, 30, 0).bytes();
    broken[broken.size() / 2] ^= 0x55;
    Bytes cut = broken;
    cut.resize(cut.size() / 2);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    for (const Bytes& bytes : { broken, cut }) {
        writeScratch(bytes);
        RecordingBuffer sink;
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), sink, nullptr)), IMGERR_READ);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// --- Sizes that the file cannot fill -----------------------------------------------------------------------

TEST(PngLoad, SizesThatTheFileCannotFillAreAReadError)
{
    for (const int interlace : { 0, adam7 })
        for (const auto& [width, height] :
            { std::pair(INT_MAX, 1), { INT_MAX, INT_MAX }, { 1, INT_MAX }, { 500000, 500000 } }) {
            PngBytes file { .bitDepth = 16, .colorType = PngBytes::rgba };
            file.interlace = interlace;
            Bytes header = file.header();
            Bytes size;
            PngBytes::addNumber(size, std::uint32_t(width));
            PngBytes::addNumber(size, std::uint32_t(height));
            std::copy(size.begin(), size.end(), header.begin());
            const Bytes bytes = PngBytes::joined({ PngBytes::signature(), PngBytes::chunk("IHDR", header),
                file.imageChunks(), PngBytes::chunk("IEND", {}) });
            RecordingBuffer sink;
            writeScratch(bytes);
            EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), sink, nullptr)), IMGERR_READ);
            EXPECT_EQ(sink.width, width);
            EXPECT_EQ(sink.height, height);
            EXPECT_LE(sink.pixelsF.size(), 1u);
            const Described described = describe(bytes);
            EXPECT_EQ(described.code, IMGERR_NONE);
            EXPECT_EQ(described.info.width, width);
        }
}

TEST(PngLoad, WellPackedPicturesAreNotTakenForShortOnes)
{
    for (const int interlace : { 0, adam7 }) {
        PngBytes file { .width = 4000, .height = 500 };
        file.interlace = interlace;
        file.samples.assign(4000 * 500, 7);
        EXPECT_LT(file.bytes().size(), 4000u * 500 / 600); // The most that deflate can do is 1032.
        writeScratch(file.bytes());
        QUtils::Image8 image;
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), image, nullptr)), IMGERR_NONE);
        EXPECT_TRUE(isPicture(file, image));
    }
    PngBytes row { .width = 2000000 };
    row.samples.assign(2000000, 7);
    writeScratch(row.bytes());
    QUtils::Image8 image;
    EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), image, nullptr)), IMGERR_NONE);
}

// --- Sinks that refuse or throw ----------------------------------------------------------------------------

TEST(PngLoad, SinkThatIsNotValidIsAMemoryError)
{
    for (const int interlace : { 0, adam7 }) {
        writeScratch(pictureOf({ PngBytes::rgb, 8 }, 3, 3, interlace).bytes());
        RecordingBuffer sink;
        sink.refuse = true;
        IMGINFO info = filledInfo();
        EXPECT_EQ(codeOf(LoadPNGFile(scratchFile(), sink, &info)), IMGERR_MEMORY);
        EXPECT_EQ(sink.initCalls, 1);
        EXPECT_EQ(sink.freeCalls, 0);
        EXPECT_TRUE(sink.order.empty());
        EXPECT_EQ(info.width, -7);
    }
}

/// A sink that throws in `init` or, from 0 on, at a pixel.
void setThrowing(ThrowingSink& sink, int throwAt)
{
    sink.throwInInit = throwAt < 0;
    if (throwAt >= 0)
        sink.throwAtPixel = std::size_t(throwAt);
}

TEST(PngLoad, ExceptionOfTheSinkPassesAndTheSinkIsFreed)
{
    for (const int depth : { 8, 16 })
        for (const int interlace : { 0, adam7 })
            for (const int throwAt : { -1, 0, 5 }) {
                const PngBytes file = pictureOf({ PngBytes::rgb, depth }, 3, 3, interlace);
                writeScratch(file.bytes());
                ThrowingSink sink;
                setThrowing(sink, throwAt);
                const int before = openFiles();
                EXPECT_THROW(
                    static_cast<void>(LoadPNGFile(scratchFile(), sink, nullptr)), std::runtime_error);
                EXPECT_EQ(sink.freeCalls, 1);
                EXPECT_EQ(openFiles(), before);
                const Bytes bytes = file.bytes();
                ThrowingSink second;
                setThrowing(second, throwAt);
                EXPECT_THROW(static_cast<void>(LoadPNGArray(bytes.data(), bytes.size(), second, nullptr)),
                    std::runtime_error);
                EXPECT_EQ(second.freeCalls, 1);
            }
}

TEST(PngLoad, FileIsClosedOnEveryPath)
{
    const int before = openFiles();
    const Bytes whole = pictureOf({ PngBytes::rgb, 8 }, 9, 9, adam7).bytes();
    for (const std::size_t length : { std::size_t(0), std::size_t(20), whole.size() - 20, whole.size() }) {
        Bytes bytes = whole;
        bytes.resize(length);
        loadBytes(bytes);
        describe(bytes);
    }
    EXPECT_EQ(openFiles(), before);
}

// --- Memory ------------------------------------------------------------------------------------------------

TEST(PngLoadArray, NullOrEmptyDataIsAMemoryErrorWithAMessage)
{
    const Bytes bytes = PngBytes { .samples = { 1 } }.bytes();
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    for (const ImgError& error :
        { LoadPNGArray(nullptr, 10, sink, &info), LoadPNGArray(bytes.data(), 0, sink, &info) }) {
        EXPECT_EQ(error.code(), IMGERR_MEMORY);
        EXPECT_STREQ(error.message(), "Can't read NULL PNG data");
        EXPECT_STREQ(error.function(), "LoadPNGArray");
    }
    for (const ImgError& error :
        { LoadPNGArrayHeader(nullptr, 10, &info), LoadPNGArrayHeader(bytes.data(), 0, &info) }) {
        EXPECT_EQ(error.code(), IMGERR_MEMORY);
        EXPECT_STREQ(error.message(), "Can't read NULL PNG data");
        EXPECT_STREQ(error.function(), "LoadPNGArrayHeader");
    }
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(info.width, -7);
}

TEST(PngLoadArray, WrongOrShortSignatureIsAFormatError)
{
    Bytes bytes = PngBytes { .samples = { 1 } }.bytes();
    RecordingBuffer sink;
    for (unsigned long size = 1; size < 8; ++size) {
        EXPECT_EQ(codeOf(LoadPNGArray(bytes.data(), size, sink, nullptr)), IMGERR_FORMAT);
        EXPECT_EQ(codeOf(LoadPNGArrayHeader(bytes.data(), size, nullptr)), IMGERR_FORMAT);
    }
    for (std::size_t i = 0; i < 8; ++i) {
        Bytes wrong = bytes;
        wrong[i] ^= 0x20;
        EXPECT_EQ(codeOf(LoadPNGArray(wrong.data(), wrong.size(), sink, nullptr)), IMGERR_FORMAT);
    }
    EXPECT_EQ(sink.initCalls, 0);
}

/// Memory of more than four gigabytes that begins with a file; the system supplies only what is touched.
class LargeArray {
public:
    static constexpr std::size_t size = (std::size_t(1) << 32) + (std::size_t(1) << 20);

    explicit LargeArray(const Bytes& file)
        : m_bytes(static_cast<unsigned char*>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)))
    {
        std::copy(file.begin(), file.end(), m_bytes);
    }
    LargeArray(const LargeArray&) = delete;
    LargeArray& operator=(const LargeArray&) = delete;
    ~LargeArray() { munmap(m_bytes, size); }

    int load(unsigned long length, Conventions conventions = Conventions::Renderer)
    {
        RecordingBuffer sink;
        return codeOf(QUtils::loadPngArray(m_bytes, length, sink, nullptr, conventions));
    }

private:
    unsigned char* m_bytes;
};

TEST(PngLoadArray, SizesKeep31BitsAndASign)
{
    const Bytes file = PngBytes { .samples = { 1 } }.bytes();
    LargeArray array(file);
    constexpr unsigned long wrap = 1ul << 32;
    EXPECT_EQ(array.load(file.size()), IMGERR_NONE);
    EXPECT_EQ(array.load(wrap + file.size()), IMGERR_NONE);
    EXPECT_EQ(array.load(wrap + file.size() - 1), IMGERR_READ);
    EXPECT_EQ(array.load(wrap + 8), IMGERR_FORMAT);
    EXPECT_EQ(array.load(wrap / 2 + 8), IMGERR_FORMAT); // Negative.
    EXPECT_EQ(array.load(wrap / 2 + 7), IMGERR_NONE);

    EXPECT_EQ(array.load(wrap + 8, Conventions::Standard), IMGERR_NONE);
    EXPECT_EQ(array.load(wrap / 2 + 8, Conventions::Standard), IMGERR_NONE);
}

TEST(PngLoadArray, HugeChunksThatAreCutEndAtOnce)
{
    // The renderer's reader does not report that bytes are missing; two gigabytes of them must not be waited
    // for.
    const PngBytes file = pictureOf({ PngBytes::rgb, 8 }, 30, 30, 0);
    for (const char* type : { "tEXt", "IDAT", "PLTE", "tRNS" }) {
        Bytes bytes = file.beginning();
        PngBytes::addNumber(bytes, 0x7FFFFFFF);
        bytes.insert(bytes.end(), type, type + 4);
        const Bytes data = PngBytes::deflated(file.rows());
        bytes.insert(bytes.end(), data.begin(), data.begin() + 100);
        const int expected = std::string(type) == "IDAT" ? IMGERR_READ : IMGERR_FORMAT;
        EXPECT_EQ(loadArray(bytes).code, expected) << type;
        EXPECT_EQ(loadBytes(bytes).code, expected) << type;
    }
}

TEST(PngLoadArray, NothingBehindTheArrayIsRead)
{
    // The array ends where the memory does: the sanitizers see a read past it.
    const Bytes whole = pictureOf({ PngBytes::rgba, 8 }, 5, 5, adam7).bytes();
    for (std::size_t length = 1; length <= whole.size(); ++length) {
        const std::unique_ptr<unsigned char[]> exact(new unsigned char[length]);
        std::copy_n(whole.begin(), length, exact.get());
        RecordingBuffer sink;
        const int code = codeOf(LoadPNGArray(exact.get(), length, sink, nullptr));
        EXPECT_EQ(code == IMGERR_NONE, length == whole.size()) << length;
    }
}

TEST(PngLoadArray, LoaderDoesNotChangeTheArray)
{
    const Bytes bytes = pictureOf({ PngBytes::palette, 8, true }, 9, 9, adam7).bytes();
    const Bytes before = bytes;
    EXPECT_EQ(loadArray(bytes).code, IMGERR_NONE);
    EXPECT_EQ(bytes, before);
}

} // namespace
