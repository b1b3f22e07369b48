#include "rastkit/codecs/bmp.h"

#include "rastkit/buffers.h"
#include "rastkit/codecs/bmp_core.h"
#include "rastkit/load.h"
#include "support/bmp_bytes.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/sink_without_rtti.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::loadBmp;
using QUtils::loadBmpHeader;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using Pixels = std::vector<unsigned int>;

constexpr unsigned int absent = 0xDEADBEEF; // RecordingBuffer's answer where nothing was stored.
constexpr unsigned int black = 0xFF000000u;

// --- Loading -----------------------------------------------------------------------------------------------

const char* scratchFile()
{
    static const TempDir folder;
    static const std::string name = folder / "image.bmp";
    return name.c_str();
}

void writeScratch(const Bytes& bytes)
{
    std::filesystem::remove(scratchFile());
    writeFile(scratchFile(), bytes);
}

IMGINFO filledInfo()
{
    IMGINFO info {};
    info.width = info.height = info.bitsPerPixel = info.numChannels = info.bytesPerPixel = -7;
    info.displayWindowHeight = -7;
    return info;
}

/// Width, height, bits per pixel, channels, bytes per pixel, and a field that no reader of bitmaps uses.
std::vector<int> factsOf(const IMGINFO& info)
{
    return { info.width, info.height, info.bitsPerPixel, info.numChannels, info.bytesPerPixel,
        info.displayWindowHeight };
}

Pixels pixelsOf(const RecordingBuffer& sink)
{
    Pixels pixels;
    for (int y = 0; y < sink.height; ++y)
        for (int x = 0; x < sink.width; ++x)
            pixels.push_back(sink.at(x, y));
    return pixels;
}

struct Loaded {
    int code = -1;
    RecordingBuffer sink;
    IMGINFO info = filledInfo();

    Pixels pixels() const { return pixelsOf(sink); }
};

Loaded load(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
{
    writeScratch(bytes);
    Loaded loaded;
    loaded.code = codeOf(conventions == Conventions::Renderer
            ? LoadBMPFile(scratchFile(), loaded.sink, &loaded.info)
            : loadBmp(scratchFile(), loaded.sink, &loaded.info, conventions));
    return loaded;
}

Loaded load(const BmpBytes& file, Conventions conventions = Conventions::Renderer)
{
    return load(file.bytes(), conventions);
}

Loaded loadStandard(const BmpBytes& file)
{
    return load(file.bytes(), Conventions::Standard);
}

struct Described {
    int code = -1;
    IMGINFO info = filledInfo();
};

Described describe(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
{
    writeScratch(bytes);
    Described described;
    described.code = codeOf(conventions == Conventions::Renderer
            ? LoadBMPHeader(scratchFile(), &described.info)
            : loadBmpHeader(scratchFile(), &described.info, conventions));
    return described;
}

struct Array {
    int code = -1;
    Pixels pixels;
    IMGINFO info = filledInfo();
};

/// `count`: of the array, whose words are 7 before.
Array loadArray(const Bytes& bytes, std::size_t count)
{
    writeScratch(bytes);
    Array array;
    array.pixels.assign(count, 7);
    array.pixels.shrink_to_fit();
    array.code = codeOf(LoadBMPFile(scratchFile(), array.pixels.data(), &array.info));
    return array;
}

// --- Files -------------------------------------------------------------------------------------------------

/// Two rows of two pixels, the lower row first.
BmpBytes picture24()
{
    return { .width = 2, .height = 2, .pixels = { 1, 2, 3, 4, 5, 6, 0, 0, 7, 8, 9, 10, 11, 12, 0, 0 } };
}

BmpBytes picture32()
{
    return { .width = 1, .height = 2, .bits = 32, .pixels = { 1, 2, 3, 4, 5, 6, 7, 8 } };
}

/// Entries 0 to count - 1 are (blue 16 n, green 16 n + 1, red 16 n + 2, reserved).
Bytes entries(int count, int reserved, int size = 4)
{
    Bytes bytes;
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < size; ++i)
            bytes.push_back(i == 3 ? std::uint8_t(reserved) : std::uint8_t(16 * n + i));
    return bytes;
}

unsigned int entry(unsigned int n, unsigned int alpha)
{
    return alpha << 24 | (16 * n + 2) << 16 | (16 * n + 1) << 8 | 16 * n;
}

Pixels opaqueEntries(std::initializer_list<unsigned int> indices)
{
    Pixels pixels;
    for (const unsigned int index : indices)
        pixels.push_back(entry(index, 0xFF));
    return pixels;
}

BmpBytes indexed(int bits, int width, int height, const Bytes& rows, int reserved = 0)
{
    const int count = std::min(1 << bits, 16);
    return { .width = width,
        .height = height,
        .bits = bits,
        .colorsUsed = bits == 8 ? unsigned(count) : 0,
        .palette = entries(count, reserved),
        .pixels = rows };
}

/// One of each kind of file that the renderer reads.
std::vector<BmpBytes> rendererFiles()
{
    return { picture24(), picture32(), indexed(8, 3, 2, { 1, 2, 3, 0, 4, 5, 6, 0 }),
        indexed(4, 2, 2, { 0x12, 0, 0, 0, 0x34, 0, 0, 0 }), indexed(1, 8, 2, { 1, 0, 0, 0, 2, 0, 0, 0 }) };
}

// --- Pixels ------------------------------------------------------------------------------------------------

TEST(BmpLoad, LowerRowComesFirstAndBytesAreBlueGreenRed)
{
    const Loaded loaded = load(picture24());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_THAT(loaded.pixels(), ElementsAre(0xFF090807, 0xFF0C0B0A, 0xFF030201, 0xFF060504));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(2, 2, 24, 3, 0, 0));
    EXPECT_EQ(loaded.sink.order.front(), RecordingBuffer::Position(0, 1));
}

TEST(BmpLoad, FourthByteOfThirtyTwoBitsIsAlphaAsItStands)
{
    const Loaded loaded = load(picture32());
    EXPECT_THAT(loaded.pixels(), ElementsAre(0x08070605, 0x04030201));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(1, 2, 32, 4, 0, 0));
}

TEST(BmpLoad, ReservedByteOfAPaletteEntryIsAlpha)
{
    const Bytes row { 1, 15, 0, 0 };
    const Loaded loaded = load(indexed(8, 3, 1, row));
    EXPECT_THAT(loaded.pixels(), ElementsAre(entry(1, 0), entry(15, 0), entry(0, 0)));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(3, 1, 8, 1, 0, 0));
    EXPECT_THAT(load(indexed(8, 3, 1, row, 0x40)).pixels(),
        ElementsAre(entry(1, 0x40), entry(15, 0x40), entry(0, 0x40)));
}

TEST(BmpLoad, HighNibbleIsTheLeftPixel)
{
    const Loaded loaded = load(indexed(4, 3, 1, { 0x12, 0x30, 0, 0 }));
    EXPECT_THAT(loaded.pixels(), ElementsAre(entry(1, 0), entry(2, 0), entry(3, 0)));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(3, 1, 4, 0, 0, 0));
}

TEST(BmpLoad, LowestBitIsTheLeftmostPixel)
{
    const Loaded loaded = load(indexed(1, 10, 1, { 0x01, 0x02, 0, 0 }));
    Pixels expected(10, entry(0, 0));
    expected[0] = expected[9] = entry(1, 0);
    EXPECT_EQ(loaded.pixels(), expected);
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(10, 1, 1, 0, 0, 0));
}

TEST(BmpLoad, PixelsOfAPartlyFilledByteAreNotInTheRowAndHaveIndexZero)
{
    // 33 bits are four whole bytes: a row has no more.
    const Loaded bits = load(indexed(1, 33, 2, { 0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF }));
    ASSERT_EQ(bits.code, IMGERR_NONE);
    EXPECT_EQ(bits.sink.at(31, 0), entry(1, 0));
    EXPECT_EQ(bits.sink.at(32, 0), entry(0, 0));
    EXPECT_EQ(bits.sink.at(31, 1), entry(1, 0));
    EXPECT_EQ(bits.sink.at(30, 1), entry(0, 0));
    // 9 nibbles are four whole bytes too.
    const Loaded nibbles = load(indexed(4, 9, 2, { 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF1 }));
    ASSERT_EQ(nibbles.code, IMGERR_NONE);
    EXPECT_EQ(nibbles.sink.at(7, 1), entry(8, 0));
    EXPECT_EQ(nibbles.sink.at(8, 1), entry(0, 0));
    EXPECT_EQ(nibbles.sink.at(0, 0), entry(9, 0));
    // One pixel of one bit has a row of no bytes at all.
    EXPECT_THAT(load(indexed(1, 1, 1, {})).pixels(), ElementsAre(entry(0, 0)));
}

TEST(BmpLoad, RowsOfNoBytesEndInTime)
{
    BmpBytes file = indexed(1, 7, 1, {});
    file.height = INT_MAX;
    class Counting : public ImgBuffer {
    public:
        void init(int, int) override { }
        int isValid() override { return 1; }
        void freeMem() override { }
        void setPixelF(int, int, const float*) override { }
        void setPixel(int, int, unsigned int) override { ++pixels; }
        int pixels = 0;
    } sink;
    writeScratch(file.bytes());
    EXPECT_EQ(codeOf(LoadBMPFile(scratchFile(), sink, nullptr)), IMGERR_READ);
    EXPECT_EQ(sink.pixels, 7 << 16);
}

TEST(BmpLoad, IndexPastThePaletteIsTransparentBlack)
{
    EXPECT_THAT(load(indexed(8, 2, 1, { 16, 255, 0, 0 }, 9)).pixels(), Each(0u));
    BmpBytes file = indexed(4, 2, 1, { 0x1F, 0, 0, 0 });
    file.colorsUsed = 2;
    file.palette = entries(2, 5);
    EXPECT_THAT(load(file).pixels(), ElementsAre(entry(1, 5), 0u));
}

TEST(BmpLoad, PaletteIsAsLongAsTheDepthSaysWhenItsLengthIsZero)
{
    BmpBytes file = indexed(8, 1, 1, { 15, 0, 0, 0 });
    file.colorsUsed = 0;
    EXPECT_EQ(load(file).code, IMGERR_READ);
    file.palette = entries(256, 0);
    EXPECT_THAT(load(file).pixels(), ElementsAre(entry(15, 0)));
}

TEST(BmpLoad, PaletteOfMoreThanTwoHundredAndFiftySixColorsIsUnsupported)
{
    BmpBytes file = indexed(8, 1, 1, { 0, 0, 0, 0 });
    file.palette = entries(300, 0);
    for (const unsigned int count : { 257u, 300u, 0x80000000u, 0xFFFFFFFFu }) {
        file.colorsUsed = count;
        EXPECT_EQ(load(file).code, IMGERR_UNSUPPORTED);
        EXPECT_EQ(loadArray(file.bytes(), 1).code, IMGERR_UNSUPPORTED);
    }
    file.colorsUsed = 256;
    EXPECT_EQ(load(file).code, IMGERR_NONE);
}

TEST(BmpLoad, PixelsBeginWhereTheHeaderSays)
{
    BmpBytes file = picture24();
    file.pixels.insert(file.pixels.begin(), 100, 0xEE);
    file.dataOffset = 154;
    EXPECT_EQ(load(file).pixels(), load(picture24()).pixels());
    file.dataOffset = 0; // Into the headers, if it says so.
    EXPECT_EQ(load(file).sink.at(0, 1), 0xFF004D42);
}

TEST(BmpLoad, SizeOfTheInformationHeaderIsNotLookedAt)
{
    BmpBytes file = picture24();
    file.headerSize = 124;
    EXPECT_EQ(load(file).pixels(), load(picture24()).pixels());
    file.headerSize = 0xFFFFFFFF;
    EXPECT_EQ(load(file).code, IMGERR_NONE);
    EXPECT_EQ(describe(file.bytes()).code, IMGERR_NONE);
}

TEST(BmpLoad, InfoMayBeNull)
{
    writeScratch(picture24().bytes());
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadBMPFile(scratchFile(), sink, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadBMPHeader(scratchFile(), nullptr)), IMGERR_NONE);
    unsigned int pixels[4];
    EXPECT_EQ(codeOf(LoadBMPFile(scratchFile(), pixels, nullptr)), IMGERR_NONE);
}

// --- Sizes -------------------------------------------------------------------------------------------------

TEST(BmpLoad, TopDownFileStoresNothing)
{
    for (const auto& [width, height] : { std::pair(2, -2), { -2, 2 }, { 0, 2 }, { 2, 0 },
             { INT_MIN, INT_MIN }, { -1, INT_MAX }, { INT_MAX, INT_MIN } }) {
        BmpBytes file = picture24();
        file.width = width;
        file.height = height;
        const Loaded loaded = load(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE) << width << ' ' << height;
        EXPECT_TRUE(loaded.sink.order.empty());
        EXPECT_EQ(loaded.sink.width, width);
        EXPECT_EQ(loaded.sink.height, height);
    }
}

TEST(BmpLoad, DescriptionHasTheLowSixteenBitsOfEachSize)
{
    const BmpBytes file { .width = 70000, .height = 1, .pixels = Bytes(210000, 5) };
    const Loaded loaded = load(file);
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.width, 70000);
    EXPECT_EQ(loaded.sink.at(69999, 0), 0xFF050505);
    EXPECT_EQ(loaded.info.width, 4464);
    EXPECT_EQ(describe(file.bytes()).info.width, 4464);
    EXPECT_EQ(loadArray(file.bytes(), 70000).info.width, 4464);
    EXPECT_EQ(describe(BmpBytes { .width = 40000, .height = -70000 }.bytes()).info.width, 40000 - 65536);
    EXPECT_EQ(describe(BmpBytes { .width = 40000, .height = -70000 }.bytes()).info.height, 65536 - 70000);
}

TEST(BmpLoad, LargestSizesOfASmallFileAreAReadError)
{
    for (BmpBytes file : rendererFiles()) {
        file.width = file.height = INT_MAX;
        const Loaded loaded = load(file);
        EXPECT_EQ(loaded.code, IMGERR_READ);
        EXPECT_TRUE(loaded.sink.order.empty());
    }
    // A row of no bytes is never missing: the picture alone says how many there are.
    EXPECT_EQ(load(indexed(1, 7, 1000, {})).code, IMGERR_NONE);
}

// --- Failures ----------------------------------------------------------------------------------------------

TEST(BmpLoad, MissingFileIsAnOpenError)
{
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    unsigned int pixel = 0;
    for (const ImgError& error : { LoadBMPFile("/nowhere/image.bmp", sink, &info),
             LoadBMPFile("/nowhere/image.bmp", &pixel, &info), LoadBMPHeader("/nowhere/image.bmp", &info) }) {
        EXPECT_EQ(error.code(), IMGERR_OPEN);
        EXPECT_STREQ(error.function(), "makeOpenError");
        EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    }
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(info.width, -7);
}

TEST(BmpLoad, EveryCutIsAReadErrorThatKeepsTheWholeRows)
{
    for (const BmpBytes& file : rendererFiles()) {
        const Bytes whole = file.bytes();
        const std::size_t dataOffset = whole.size() - file.pixels.size();
        const std::size_t rowBytes = file.pixels.size() / 2;
        const Pixels picture = load(file).pixels();
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const Loaded loaded = load(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
            EXPECT_EQ(loaded.code, IMGERR_READ) << length;
            EXPECT_EQ(loaded.info.width, length < dataOffset ? -7 : file.width);
            EXPECT_EQ(loaded.sink.freeCalls, 0);
            const bool hasRow = length >= dataOffset + rowBytes;
            ASSERT_EQ(loaded.sink.order.size(), hasRow ? std::size_t(file.width) : 0) << length;
            for (int x = 0; x < file.width && hasRow; ++x)
                EXPECT_EQ(loaded.sink.at(x, 1), picture[std::size_t(file.width + x)]);
            EXPECT_EQ(describe(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length))).code,
                length < 54          ? IMGERR_READ
                    : file.bits < 24 ? IMGERR_UNSUPPORTED
                                     : IMGERR_NONE);
        }
    }
}

TEST(BmpLoad, OtherMagicIsAFormatErrorOnceTheFileHeaderIsThere)
{
    Bytes bytes = picture24().bytes();
    bytes[1] = 'N';
    EXPECT_EQ(load(bytes).code, IMGERR_FORMAT);
    EXPECT_EQ(describe(bytes).code, IMGERR_FORMAT);
    EXPECT_EQ(loadArray(bytes, 4).code, IMGERR_FORMAT);
    bytes.resize(14);
    EXPECT_EQ(load(bytes).code, IMGERR_FORMAT);
    bytes.resize(13);
    EXPECT_EQ(load(bytes).code, IMGERR_READ);
    EXPECT_EQ(load(bytes, Conventions::Standard).code, IMGERR_READ);
    EXPECT_EQ(loadArray(bytes, 4).code, IMGERR_FORMAT); // Looks at the first two bytes by themselves.
}

TEST(BmpLoad, CompressionIsUnsupported)
{
    for (BmpBytes file : rendererFiles())
        for (const unsigned int compression : { 1u, 2u, 3u, 6u, 0xFFFFFFFFu }) {
            file.compression = compression;
            const Loaded loaded = load(file);
            EXPECT_EQ(loaded.code, IMGERR_UNSUPPORTED);
            EXPECT_EQ(loaded.sink.initCalls, 0);
            EXPECT_EQ(loaded.info.width, -7);
            EXPECT_EQ(describe(file.bytes()).code, IMGERR_UNSUPPORTED);
        }
}

TEST(BmpLoad, OtherDepthsAreUnsupported)
{
    for (int bits = 0; bits < 66; ++bits) {
        const bool known = bits == 1 || bits == 4 || bits == 8 || bits == 24 || bits == 32;
        BmpBytes file { .bits = bits, .palette = entries(256, 0), .pixels = Bytes(8) };
        EXPECT_EQ(load(file).code, known ? IMGERR_NONE : IMGERR_UNSUPPORTED) << bits;
        const bool described = bits == 24 || bits == 32;
        EXPECT_EQ(describe(file.bytes()).code, described ? IMGERR_NONE : IMGERR_UNSUPPORTED) << bits;
    }
}

TEST(BmpLoad, HeaderReaderRefusesPaletteFilesThatAreLoaded)
{
    const BmpBytes file = indexed(8, 1, 1, { 0, 0, 0, 0 });
    EXPECT_EQ(load(file).code, IMGERR_NONE);
    const Described described = describe(file.bytes());
    EXPECT_EQ(described.code, IMGERR_UNSUPPORTED);
    EXPECT_EQ(described.info.width, -7);
}

TEST(BmpLoad, SinkThatIsNotValidIsAMemoryErrorOfADescribedPicture)
{
    writeScratch(picture24().bytes());
    RecordingBuffer sink;
    sink.refuse = true;
    IMGINFO info = filledInfo();
    EXPECT_EQ(codeOf(LoadBMPFile(scratchFile(), sink, &info)), IMGERR_MEMORY);
    EXPECT_EQ(sink.freeCalls, 0);
    EXPECT_EQ(info.width, 2);
}

TEST(BmpLoad, FileThatCannotBeSoughtInIsAReadError)
{
    const TempDir folder;
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const int fifo = open((folder / "fifo").c_str(), O_RDWR);
    ASSERT_GE(fifo, 0);
    const Bytes bytes = picture24().bytes();
    ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadBMPFile((folder / "fifo").c_str(), sink, nullptr)), IMGERR_READ);
    close(fifo);
}

TEST(BmpLoad, EveryHeaderFieldMayBeZeroOrLargest)
{
    const std::pair<std::size_t, std::size_t> fields[]
        = { { 2, 4 }, { 6, 4 }, { 10, 4 }, { 14, 4 }, { 18, 4 }, { 22, 4 }, { 26, 2 }, { 28, 2 }, { 30, 4 },
              { 34, 4 }, { 38, 4 }, { 42, 4 }, { 46, 4 }, { 50, 4 } };
    for (const BmpBytes& file : rendererFiles())
        for (const auto& [offset, size] : fields)
            for (const int value : { 0x00, 0x7F, 0x80, 0xFF })
                for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
                    Bytes bytes = file.bytes();
                    std::fill_n(bytes.begin() + std::ptrdiff_t(offset), size, std::uint8_t(value));
                    writeScratch(bytes);
                    QUtils::Image8 image;
                    EXPECT_THAT(codeOf(loadBmp(scratchFile(), image, nullptr, conventions)),
                        AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED));
                }
}

// --- Sinks -------------------------------------------------------------------------------------------------

TEST(BmpLoad, ExceptionOfTheSinkReachesTheCallerWithTheFileClosed)
{
    for (const BmpBytes& file : rendererFiles()) {
        writeScratch(file.bytes());
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
            for (const bool inInit : { false, true }) {
                ThrowingSink sink;
                sink.throwInInit = inInit;
                sink.throwAtPixel = 1;
                const int before = openFiles();
                EXPECT_THROW((void)loadBmp(scratchFile(), sink, nullptr, conventions), std::runtime_error);
                EXPECT_EQ(openFiles(), before);
                EXPECT_EQ(sink.freeCalls, 1);
            }
    }
}

TEST(BmpLoad, FilesAreClosedOnEveryPath)
{
    const int before = openFiles();
    for (const BmpBytes& file : rendererFiles())
        for (const std::size_t length : { 0u, 13u, 53u, 57u, 1000u }) {
            Bytes bytes = file.bytes();
            bytes.resize(std::min(length, bytes.size()));
            load(bytes);
            load(bytes, Conventions::Standard);
            describe(bytes);
            loadArray(bytes, 64);
        }
    EXPECT_EQ(openFiles(), before);
}

TEST(BmpLoad, SinkWithoutTypeInformationIsServedPixelByPixel)
{
#if defined(RASTKIT_TESTS_CHECK_VPTR)
    GTEST_SKIP() << "this sanitizer looks at the type information of every object";
#endif
    for (const BmpBytes& file : rendererFiles()) {
        const Pixels picture = load(file).pixels();
        const auto sink = newSinkWithoutRtti();
        ASSERT_EQ(codeOf(LoadBMPFile(scratchFile(), *sink->buffer, nullptr)), IMGERR_NONE);
        EXPECT_EQ(sink->pixels, picture);
    }
}

TEST(BmpLoad, PicturesOfManyBlocksAreComplete)
{
    std::mt19937 random;
    for (const int bits : { 8, 24, 32 }) {
        const int width = 1001, height = 701, rowBytes = (width * bits / 8 + 3) / 4 * 4;
        BmpBytes file { .width = width, .height = height, .bits = bits };
        if (bits == 8)
            file.palette = entries(256, 3);
        file.pixels.resize(std::size_t(rowBytes * height));
        for (std::uint8_t& byte : file.pixels)
            byte = std::uint8_t(random());
        writeScratch(file.bytes());
        QUtils::Image8 image;
        ASSERT_EQ(codeOf(LoadBMPFile(scratchFile(), image, nullptr)), IMGERR_NONE);
        int different = 0;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const std::uint8_t* const at
                    = file.pixels.data() + (height - 1 - y) * rowBytes + x * bits / 8;
                const unsigned int expected = bits == 8 ? 3u << 24 | ((*at * 16u + 2) & 0xFF) << 16
                        | ((*at * 16u + 1) & 0xFF) << 8 | (*at * 16u & 0xFF)
                                                        : (bits == 32 ? unsigned(at[3]) << 24 : black)
                        | unsigned(at[2]) << 16 | unsigned(at[1]) << 8 | at[0];
                different += image.pixel(x, y) != expected;
            }
        EXPECT_EQ(different, 0) << bits;
    }
}

// --- Memory ------------------------------------------------------------------------------------------------

TEST(BmpMemoryLoad, GoodDataIsAReadErrorBecauseItIsNeverAttached)
{
    const Bytes bytes = picture24().bytes();
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    EXPECT_EQ(codeOf(LoadBMPArray(bytes.data(), bytes.size(), sink, &info)), IMGERR_READ);
    EXPECT_EQ(codeOf(LoadBMPArrayHeader(bytes.data(), bytes.size(), &info)), IMGERR_READ);
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(info.width, -7);
}

TEST(BmpMemoryLoad, NoDataIsAMemoryErrorWithAText)
{
    const unsigned char byte = 'B';
    RecordingBuffer sink;
    IMGINFO info {};
    for (const unsigned char* const data : { static_cast<const unsigned char*>(nullptr), &byte }) {
        const ImgError header = LoadBMPArrayHeader(data, data ? 0 : 5, &info);
        EXPECT_EQ(header.code(), IMGERR_MEMORY);
        EXPECT_STREQ(header.function(), "LoadBMPArrayHeader");
        EXPECT_STREQ(header.message(), "Can't read NULL BMP data");
        const ImgError pixels = LoadBMPArray(data, data ? 0 : 5, sink, &info);
        EXPECT_EQ(pixels.code(), IMGERR_MEMORY);
        EXPECT_STREQ(pixels.function(), "LoadBMPArray");
        EXPECT_STREQ(pixels.message(), "Can't read NULL BMP data");
    }
}

TEST(BmpMemoryLoad, ReaderTakesTheFileElseTheMemoryElseNothing)
{
    const Bytes bytes = picture24().bytes();
    writeScratch(bytes);
    const QUtils::FilePtr file(std::fopen(scratchFile(), "rb"));
    const unsigned char wrong[64] = {};
    for (DataReader reader : { DataReader { file, wrong, 77 }, DataReader { nullptr, bytes.data(), 0 } }) {
        RecordingBuffer sink;
        EXPECT_EQ(codeOf(QUtils::_loadBMPCommon(reader, sink, nullptr)), IMGERR_NONE);
        EXPECT_EQ(pixelsOf(sink), load(picture24()).pixels());
        EXPECT_EQ(reader.position, reader.file ? 77 : bytes.size());
    }
    IMGINFO info {};
    DataReader memory { nullptr, bytes.data(), 0 };
    EXPECT_EQ(codeOf(QUtils::_loadBMPHeaderCommon(memory, &info)), IMGERR_NONE);
    EXPECT_EQ(memory.position, 54u);
    EXPECT_EQ(info.width, 2);
    DataReader nothing { nullptr, nullptr, 0 };
    EXPECT_EQ(codeOf(QUtils::_loadBMPHeaderCommon(nothing, &info)), IMGERR_READ);
}

TEST(BmpMemoryLoad, MemoryThatIsNoBitmapIsReadToItsFileHeaderOnly)
{
    const Bytes bytes(14, 'X'); // Its end is watched.
    IMGINFO info {};
    DataReader reader { nullptr, bytes.data(), 0 };
    EXPECT_EQ(codeOf(QUtils::_loadBMPHeaderCommon(reader, &info)), IMGERR_FORMAT);
    EXPECT_EQ(reader.position, 14u);
}

TEST(BmpMemoryLoad, StandardReallyReadsMemory)
{
    for (const BmpBytes& file : rendererFiles()) {
        const Bytes bytes = file.bytes();
        const Loaded loaded = load(bytes, Conventions::Standard);
        for (std::size_t size = 1; size <= bytes.size(); ++size) {
            const Bytes part(bytes.begin(), bytes.begin() + std::ptrdiff_t(size)); // Its end is watched.
            const Loaded cut = load(part, Conventions::Standard);
            RecordingBuffer sink;
            IMGINFO info = filledInfo(), described = filledInfo();
            EXPECT_EQ(codeOf(loadBmpArray(part.data(), size, sink, &info, Conventions::Standard)), cut.code);
            EXPECT_EQ(sink.pixels, cut.sink.pixels);
            EXPECT_EQ(factsOf(info), factsOf(cut.info));
            EXPECT_EQ(codeOf(loadBmpArrayHeader(part.data(), size, &described, Conventions::Standard)),
                describe(part, Conventions::Standard).code);
        }
        EXPECT_EQ(loaded.code, IMGERR_NONE);
    }
}

// --- The caller's array ------------------------------------------------------------------------------------

TEST(BmpArrayLoad, PixelsAreOpaqueWhateverTheFourthByteSays)
{
    const Array colors = loadArray(picture24().bytes(), 4);
    EXPECT_EQ(colors.code, IMGERR_NONE);
    EXPECT_THAT(colors.pixels, ElementsAre(0xFF090807, 0xFF0C0B0A, 0xFF030201, 0xFF060504));
    EXPECT_THAT(factsOf(colors.info), ElementsAre(2, 2, 24, 3, 0, 0));
    EXPECT_THAT(loadArray(picture32().bytes(), 2).pixels, ElementsAre(0xFF070605, 0xFF030201));
}

TEST(BmpArrayLoad, ReservedByteOfZeroIsOpaqueAndOthersAreOneLess)
{
    const Bytes row { 1, 2, 3, 0 };
    EXPECT_THAT(loadArray(indexed(8, 3, 1, row).bytes(), 3).pixels,
        ElementsAre(entry(1, 0xFF), entry(2, 0xFF), entry(3, 0xFF)));
    EXPECT_THAT(loadArray(indexed(8, 3, 1, row, 0x40).bytes(), 3).pixels, Each(testing::Ge(0x3F000000u)));
    EXPECT_EQ(loadArray(indexed(8, 3, 1, row, 0x40).bytes(), 3).pixels[0], entry(1, 0x3F));
}

TEST(BmpArrayLoad, DepthsBelowEightPassTheCheckAndCannotBeRead)
{
    for (const int bits : { 1, 4 }) {
        EXPECT_EQ(loadArray(indexed(bits, 2, 2, Bytes(8, 1)).bytes(), 4).code, IMGERR_READ);
        EXPECT_THAT(loadArray(indexed(bits, 2, 2, Bytes(8, 1)).bytes(), 4).pixels, Each(7u));
    }
}

TEST(BmpArrayLoad, PlanesMustBeOneAndCompressionIsNotLookedAt)
{
    BmpBytes file = picture24();
    file.compression = 77;
    EXPECT_EQ(loadArray(file.bytes(), 4).code, IMGERR_NONE);
    for (const int planes : { 0, 2, 0xFFFF }) {
        file.planes = planes;
        EXPECT_EQ(loadArray(file.bytes(), 4).code, IMGERR_UNSUPPORTED);
        file.compression = 0;
        EXPECT_EQ(load(file).code, IMGERR_NONE); // The other reader does not look at planes.
    }
    file.planes = 1;
    for (const int bits : { 0, 2, 16, 64 }) {
        file.bits = bits;
        EXPECT_EQ(loadArray(file.bytes(), 4).code, IMGERR_UNSUPPORTED);
    }
}

TEST(BmpArrayLoad, OffsetsAreSkippedForwardOnly)
{
    BmpBytes file = picture24();
    file.dataOffset = 0;
    EXPECT_EQ(loadArray(file.bytes(), 4).pixels[2], 0xFF030201u);
    file.dataOffset = 60;
    file.pixels.insert(file.pixels.begin(), 6, 0xEE);
    EXPECT_EQ(loadArray(file.bytes(), 4).pixels[2], 0xFF030201u);
    file.dataOffset = INT_MAX;
    EXPECT_EQ(loadArray(file.bytes(), 4).code, IMGERR_READ);

    BmpBytes map = indexed(8, 1, 1, { 0xEE, 0xEE, 5, 0, 0, 0 });
    map.dataOffset = 54 + 16 * 4 + 2;
    EXPECT_EQ(loadArray(map.bytes(), 1).pixels[0], entry(5, 0xFF));
}

TEST(BmpArrayLoad, PipeIsSkippedInByReading)
{
    const TempDir folder;
    const std::string name = folder / "fifo";
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    BmpBytes file = picture24();
    file.dataOffset = 60;
    file.pixels.insert(file.pixels.begin(), 6, 0xEE);
    std::thread writer([&] { writeFile(name, file.bytes()); });
    unsigned int pixels[4] = {};
    EXPECT_EQ(codeOf(LoadBMPFile(name.c_str(), pixels, nullptr)), IMGERR_NONE);
    writer.join();
    EXPECT_EQ(pixels[2], 0xFF030201u);
}

TEST(BmpArrayLoad, NegativeSizesStoreNothing)
{
    for (const auto& [width, height] : { std::pair(2, -2), { 2, 0 }, { -2, -2 }, { INT_MIN, INT_MIN } }) {
        BmpBytes file = picture24();
        file.width = width;
        file.height = height;
        const Array array = loadArray(file.bytes(), 1);
        EXPECT_EQ(array.code, IMGERR_NONE);
        EXPECT_EQ(array.pixels[0], 7u);
    }
    for (const auto& [width, height] : { std::pair(-2, 2), { 0, 2 }, { INT_MIN, INT_MAX } }) {
        BmpBytes file = picture24();
        file.width = width;
        file.height = height;
        const Array array = loadArray(file.bytes(), 1); // A row of no bytes.
        EXPECT_EQ(array.code, IMGERR_READ);
        EXPECT_EQ(array.pixels[0], 7u);
    }
}

TEST(BmpArrayLoad, PartOfARowIsEnoughAndTheRestCountsAsZero)
{
    Bytes bytes = picture24().bytes();
    bytes.resize(bytes.size() - 6); // The upper row keeps two bytes.
    const Array array = loadArray(bytes, 4);
    EXPECT_EQ(array.code, IMGERR_NONE);
    EXPECT_THAT(array.pixels, ElementsAre(0xFF000807, black, 0xFF030201, 0xFF060504));
    bytes.resize(bytes.size() - 2);
    EXPECT_EQ(loadArray(bytes, 4).code, IMGERR_READ);
    EXPECT_EQ(loadArray(bytes, 4).info.width, -7);

    Bytes map = indexed(8, 3, 1, { 5 }).bytes();
    EXPECT_THAT(loadArray(map, 3).pixels, ElementsAre(entry(5, 0xFF), entry(0, 0xFF), entry(0, 0xFF)));
    map.resize(57); // Part of the palette is enough too, but no pixels follow it.
    EXPECT_EQ(loadArray(map, 3).code, IMGERR_READ);
    map.resize(54);
    EXPECT_EQ(loadArray(map, 3).code, IMGERR_READ);
    for (std::size_t length = 2; length < 54; ++length) {
        map.resize(length);
        EXPECT_EQ(loadArray(map, 3).code, IMGERR_READ);
    }
    EXPECT_EQ(loadArray({ 'B' }, 1).code, IMGERR_READ);
}

// --- The standard's conventions ----------------------------------------------------------------------------

TEST(BmpStandardLoad, TopDownFilesAreRead)
{
    BmpBytes file = picture24();
    file.height = -2;
    const Loaded loaded = loadStandard(file);
    EXPECT_THAT(loaded.pixels(), ElementsAre(0xFF030201, 0xFF060504, 0xFF090807, 0xFF0C0B0A));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(2, 2, 24, 3, 3, 0));
    EXPECT_EQ(factsOf(describe(file.bytes(), Conventions::Standard).info), factsOf(loaded.info));
}

TEST(BmpStandardLoad, SizesThatCannotBeAreAFormatError)
{
    for (const auto& [width, height] : { std::pair(0, 1), { -1, 1 }, { 1, 0 }, { 1, INT_MIN } }) {
        const Loaded loaded = loadStandard({ .width = width, .height = height, .pixels = Bytes(99) });
        EXPECT_EQ(loaded.code, IMGERR_FORMAT);
        EXPECT_EQ(loaded.sink.initCalls, 0);
    }
}

TEST(BmpStandardLoad, IndicesBeginWithTheHighestBitsAndPalettesAreOpaque)
{
    EXPECT_EQ(loadStandard(indexed(1, 10, 1, { 0xA0, 0x40, 0, 0 })).pixels(),
        opaqueEntries({ 1, 0, 1, 0, 0, 0, 0, 0, 0, 1 }));
    EXPECT_EQ(
        loadStandard(indexed(2, 5, 1, { 0x1B, 0xC0, 0, 0 })).pixels(), opaqueEntries({ 0, 1, 2, 3, 3 }));
    EXPECT_EQ(
        loadStandard(indexed(4, 3, 1, { 0x12, 0x30, 0, 0 }, 0x40)).pixels(), opaqueEntries({ 1, 2, 3 }));
    const BmpBytes bytes = indexed(8, 3, 1, { 1, 15, 16, 0 });
    const Loaded loaded = loadStandard(bytes);
    EXPECT_THAT(loaded.pixels(), ElementsAre(entry(1, 0xFF), entry(15, 0xFF), black)); // Past the palette.
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(3, 1, 24, 3, 3, 0));
    const Described described = describe(bytes.bytes(), Conventions::Standard);
    EXPECT_EQ(described.code, IMGERR_NONE);
    EXPECT_EQ(factsOf(described.info), factsOf(loaded.info));
}

TEST(BmpStandardLoad, RowsHaveAllBytesThatTheirPixelsNeed)
{
    const Loaded loaded
        = loadStandard(indexed(1, 33, 2, { 0, 0, 0, 0, 0x80, 0, 0, 0, 0xFF, 0, 0, 0, 0, 0, 0, 0 }));
    ASSERT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.sink.at(32, 1), entry(1, 0xFF));
    EXPECT_EQ(loaded.sink.at(7, 0), entry(1, 0xFF));
    EXPECT_EQ(loaded.sink.at(32, 0), entry(0, 0xFF));
}

TEST(BmpStandardLoad, HeaderOfOs2HasSmallSizesAndEntriesOfThreeBytes)
{
    BmpBytes file { .headerSize = 12, .width = 2, .height = 1, .bits = 8, .palette = entries(256, 0, 3) };
    file.pixels = { 3, 2, 0, 0 };
    EXPECT_EQ(loadStandard(file).pixels(), opaqueEntries({ 3, 2 }));
    file = { .headerSize = 12, .width = 0xFFFF, .height = 1, .pixels = Bytes(0x30000, 9) };
    const Loaded wide = loadStandard(file);
    EXPECT_EQ(wide.code, IMGERR_NONE);
    EXPECT_EQ(wide.sink.width, 0xFFFF);
}

TEST(BmpStandardLoad, HeadersOfEverySizeAreRead)
{
    for (unsigned int size = 0; size < 200; ++size) {
        BmpBytes file = picture24();
        file.headerSize = size;
        file.moreHeader = Bytes(size > 40 ? size - 40 : 0, 0x11);
        const bool known = size == 12 || (size >= 16 && size <= 64) || size == 108 || size == 124;
        if (size < 16 && size != 12)
            file.headerSize = 40; // The bytes of it, at least.
        Bytes bytes = file.bytes();
        bytes[14] = std::uint8_t(size);
        const Loaded loaded = load(bytes, Conventions::Standard);
        EXPECT_EQ(loaded.code, known ? IMGERR_NONE : IMGERR_FORMAT) << size;
        if (known) {
            EXPECT_EQ(loaded.pixels(), load(picture24()).pixels()) << size;
        }
    }
}

TEST(BmpStandardLoad, PaletteFollowsTheHeaderOfEachSize)
{
    for (const unsigned int size : { 40u, 52u, 56u, 64u, 108u, 124u }) {
        BmpBytes file = indexed(4, 2, 1, { 0x12, 0, 0, 0 });
        file.headerSize = size;
        file.moreHeader = Bytes(size - 40, 0x77);
        EXPECT_EQ(loadStandard(file).pixels(), opaqueEntries({ 1, 2 })) << size;
    }
}

TEST(BmpStandardLoad, PaletteEndsWhereThePixelsBegin)
{
    BmpBytes file = indexed(8, 3, 1, { 1, 2, 3, 0 });
    for (const unsigned int colors : { 0u, 300u, 0x80000000u, 0xFFFFFFFFu }) {
        file.colorsUsed = colors;
        const Loaded loaded = loadStandard(file);
        EXPECT_EQ(loaded.code, IMGERR_NONE);
        EXPECT_EQ(loaded.pixels(), opaqueEntries({ 1, 2, 3 }));
    }
    // More entries than indices can have: the pixels are behind them all.
    file.colorsUsed = 300;
    file.palette = entries(300, 0);
    EXPECT_EQ(loadStandard(file).pixels(), opaqueEntries({ 1, 2, 3 }));
    file.dataOffset = 0; // Not said: behind the palette.
    EXPECT_EQ(loadStandard(file).pixels(), opaqueEntries({ 1, 2, 3 }));
    BmpBytes nibbles = indexed(4, 2, 1, { 0x12, 0, 0, 0 });
    nibbles.dataOffset = 5;
    EXPECT_EQ(loadStandard(nibbles).pixels(), opaqueEntries({ 1, 2 }));
}

TEST(BmpStandardLoad, ThirtyTwoBitsAreOpaqueWithoutAMask)
{
    EXPECT_THAT(loadStandard(picture32()).pixels(), ElementsAre(0xFF070605, 0xFF030201));
    EXPECT_EQ(loadStandard(picture32()).info.numChannels, 3);
    // Masks mean something with their compression only.
    BmpBytes file = picture32();
    file.headerSize = 124;
    file.moreHeader = bmpMasks({ 0xFF, 0xFF00, 0xFF0000, 0xFF000000 });
    file.moreHeader.resize(84);
    EXPECT_THAT(loadStandard(file).pixels(), ElementsAre(0xFF070605, 0xFF030201));
}

TEST(BmpStandardLoad, SixteenBitsAreFiveOfEachColorWithoutAMask)
{
    const BmpBytes file { .width = 5,
        .height = 1,
        .bits = 16,
        .pixels = { 0x00, 0x7C, 0xE0, 0x03, 0x1F, 0x00, 0x00, 0x80, 0x10, 0x42, 0, 0 } };
    const Loaded loaded = loadStandard(file);
    EXPECT_THAT(loaded.pixels(), ElementsAre(0xFFFF0000, 0xFF00FF00, 0xFF0000FF, black, 0xFF848484));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(5, 1, 16, 3, 3, 0));
}

TEST(BmpStandardLoad, MasksAreBehindAShortHeaderOrInALongOne)
{
    BmpBytes file { .width = 1, .height = 1, .bits = 32, .compression = 3, .pixels = { 1, 2, 3, 4 } };
    file.moreHeader = bmpMasks({ 0xFF, 0xFF00, 0xFF0000 });
    EXPECT_THAT(loadStandard(file).pixels(), ElementsAre(0xFF010203)); // Three masks: opaque.
    file.compression = 6;
    file.moreHeader = bmpMasks({ 0xFF, 0xFF00, 0xFF0000, 0xFF000000 });
    EXPECT_THAT(loadStandard(file).pixels(), ElementsAre(0x04010203));
    EXPECT_EQ(loadStandard(file).info.numChannels, 4);
    for (const unsigned int compression : { 3u, 6u })
        for (const unsigned int size : { 52u, 56u, 108u, 124u }) {
            file.compression = compression;
            file.headerSize = size;
            file.moreHeader = bmpMasks({ 0xFF, 0xFF00, 0xFF0000, 0xFF000000 });
            file.moreHeader.resize(size - 40);
            EXPECT_THAT(loadStandard(file).pixels(), ElementsAre(size == 52 ? 0xFF010203 : 0x04010203))
                << size;
        }
}

TEST(BmpStandardLoad, MasksOfAnyBitsAreScaledAndRounded)
{
    const auto pixel = [](int bits, std::initializer_list<unsigned int> masks, unsigned int value) {
        BmpBytes file { .width = 1, .height = 1, .bits = bits, .compression = 6 };
        file.moreHeader = bmpMasks(masks);
        file.pixels = bmpMasks({ value });
        return loadStandard(file).sink.at(0, 0);
    };
    EXPECT_EQ(pixel(16, { 0xF800, 0x07E0, 0x001F, 0 }, 0xF810), 0xFFFF0084u);
    EXPECT_EQ(pixel(16, { 0x0F00, 0x00F0, 0x000F, 0xF000 }, 0x8F71), 0x88FF7711u);
    EXPECT_EQ(pixel(16, { 0x8000, 0x0001, 0, 0x4000 }, 0xFFFF), 0xFFFFFF00u);
    EXPECT_EQ(
        pixel(32, { 0x3FF00000, 0xFFC00, 0x3FF, 0xC0000000 }, 0x80000000u | 512u << 20 | 1023u << 10 | 2),
        0xAA80FF00u);
    EXPECT_EQ(pixel(32, { 0xFFFFFFFF, 0, 0, 0 }, 0x80000000), 0xFF800000u);
    EXPECT_EQ(pixel(32, { 0, 0, 0, 0 }, 0xFFFFFFFF), black);
    EXPECT_EQ(pixel(32, { 0xFF, 0xFF, 0xFF, 0 }, 0x12), 0xFF121212u); // The same byte thrice.
    EXPECT_EQ(pixel(32, { 0x81000000, 0, 0, 0 }, 0x81000000), 0xFFFF0000u); // Bits apart.
}

TEST(BmpStandardLoad, OtherCompressionsAreRefusedBeforeTheSinkIsSized)
{
    const auto codeFor = [](unsigned int headerSize, unsigned int compression, int bits) {
        BmpBytes file { .headerSize = headerSize, .bits = bits, .compression = compression };
        file.moreHeader = Bytes(headerSize - 40 + 16);
        file.palette = entries(256, 0);
        const Loaded loaded = loadStandard(file);
        EXPECT_EQ(loaded.sink.initCalls, 0);
        EXPECT_EQ(describe(file.bytes(), Conventions::Standard).code, loaded.code);
        return loaded.code;
    };
    EXPECT_EQ(codeFor(40, 1, 4), IMGERR_FORMAT); // RLE8 of nibbles.
    EXPECT_EQ(codeFor(40, 2, 8), IMGERR_FORMAT);
    EXPECT_EQ(codeFor(40, 3, 24), IMGERR_FORMAT);
    EXPECT_EQ(codeFor(40, 6, 8), IMGERR_FORMAT);
    EXPECT_EQ(codeFor(40, 4, 0), IMGERR_UNSUPPORTED); // A JPEG file.
    EXPECT_EQ(codeFor(124, 5, 0), IMGERR_UNSUPPORTED); // A PNG file.
    EXPECT_EQ(codeFor(64, 3, 1), IMGERR_UNSUPPORTED); // OS/2: Huffman codes.
    EXPECT_EQ(codeFor(64, 4, 24), IMGERR_UNSUPPORTED); // OS/2: runs of 24 bits.
    EXPECT_EQ(codeFor(40, 0xFFFFFFFF, 24), IMGERR_UNSUPPORTED);
    for (const int bits : { 0, 3, 7, 12, 64, 0xFFFF })
        EXPECT_EQ(codeFor(40, 0, bits), IMGERR_UNSUPPORTED);
}

TEST(BmpStandardLoad, EveryCutKeepsThePixelsBeforeIt)
{
    for (const BmpBytes& file : rendererFiles()) {
        const Bytes whole = file.bytes();
        const std::size_t dataOffset = whole.size() - file.pixels.size(), rowBytes = file.pixels.size() / 2;
        const std::size_t usedBytes = std::size_t(file.width * file.bits + 7) / 8;
        const Pixels picture = loadStandard(file).pixels();
        for (std::size_t length = 0; length <= whole.size(); ++length) {
            const Loaded loaded
                = load(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)), Conventions::Standard);
            const std::size_t got = length < dataOffset ? 0 : length - dataOffset;
            // What pads the last row need not be there.
            EXPECT_EQ(loaded.code, got >= rowBytes + usedBytes ? IMGERR_NONE : IMGERR_READ) << length;
            const std::size_t width = std::size_t(file.width), bits = std::size_t(file.bits);
            const std::size_t lower = std::min(width, got * 8 / bits);
            const std::size_t upper = got < rowBytes ? 0 : std::min(width, (got - rowBytes) * 8 / bits);
            Pixels expected(picture.size(), absent);
            std::copy_n(picture.begin(), upper, expected.begin());
            std::copy_n(picture.begin() + file.width, lower, expected.begin() + file.width);
            EXPECT_EQ(loaded.pixels(), length < dataOffset ? Pixels() : expected) << length;
        }
    }
}

// --- Runs --------------------------------------------------------------------------------------------------

BmpBytes runs(int bits, int width, int height, const Bytes& codes)
{
    BmpBytes file = indexed(bits, width, height, codes);
    file.compression = bits == 8 ? 1 : 2;
    return file;
}

TEST(BmpRuns, EachCodeDoesItsPart)
{
    // A run; three pixels one by one, padded; the end of the row; then right, the end of the picture.
    const Loaded bytes
        = loadStandard(runs(8, 5, 2, { 2, 7, 0, 3, 1, 2, 3, 0, 0, 0, 0, 2, 3, 0, 1, 9, 0, 1 }));
    EXPECT_EQ(bytes.code, IMGERR_NONE);
    EXPECT_EQ(bytes.pixels(), opaqueEntries({ 0, 0, 0, 9, 0, 7, 7, 1, 2, 3 }));
    EXPECT_THAT(factsOf(bytes.info), ElementsAre(5, 2, 24, 3, 3, 0));
    // Nibbles take turns in a run, of odd length here.
    const Loaded nibbles = loadStandard(runs(4, 8, 1, { 3, 0x12, 0, 5, 0x34, 0x56, 0x70, 0, 0, 1 }));
    EXPECT_EQ(nibbles.code, IMGERR_NONE);
    EXPECT_EQ(nibbles.pixels(), opaqueEntries({ 1, 2, 1, 3, 4, 5, 6, 7 }));
}

TEST(BmpRuns, WhatIsLeftOutHasTheFirstColor)
{
    EXPECT_EQ(loadStandard(runs(8, 3, 3, { 1, 5, 0, 2, 1, 2, 1, 6, 0, 1 })).pixels(),
        opaqueEntries({ 0, 0, 6, 0, 0, 0, 5, 0, 0 }));
    EXPECT_EQ(loadStandard(runs(8, 2, 2, { 0, 1 })).pixels(), opaqueEntries({ 0, 0, 0, 0 }));
    EXPECT_EQ(loadStandard(runs(8, 2, 2, { 0, 0, 0, 0 })).pixels(), opaqueEntries({ 0, 0, 0, 0 }));
    // Past the last column, past the last row.
    EXPECT_EQ(loadStandard(runs(8, 2, 2, { 0, 2, 200, 0, 0, 0, 1, 4, 0, 2, 0, 255, 9, 9 })).pixels(),
        opaqueEntries({ 4, 0, 0, 0 }));
}

TEST(BmpRuns, WhatGoesPastARowIsCut)
{
    EXPECT_EQ(loadStandard(runs(8, 3, 2, { 255, 1, 0, 0, 0, 4, 2, 3, 4, 5, 0, 1 })).pixels(),
        opaqueEntries({ 2, 3, 4, 1, 1, 1 }));
    EXPECT_EQ(loadStandard(runs(4, 3, 1, { 2, 0x12, 0, 5, 0x34, 0x56, 0x70, 0, 0, 0, 1, 0x99 })).pixels(),
        opaqueEntries({ 1, 2, 3 }));
}

TEST(BmpRuns, TopDownPicturesAreReadAlthoughTheyShouldNotBe)
{
    EXPECT_EQ(loadStandard(runs(8, 1, -2, { 1, 5, 0, 0, 1, 6, 0, 1 })).pixels(), opaqueEntries({ 5, 6 }));
}

TEST(BmpRuns, EveryCutKeepsThePixelsBeforeIt)
{
    const BmpBytes file = runs(8, 5, 2, { 2, 7, 0, 3, 1, 2, 3, 0, 0, 0, 5, 5, 0, 1 });
    const Bytes whole = file.bytes();
    const std::size_t dataOffset = whole.size() - file.pixels.size();
    const int stored[] = { 0, 0, 2, 2, 2, 3, 4, 5, 5, 5, 5, 5, 10, 10, 10 };
    for (std::size_t got = 0; got <= file.pixels.size(); ++got) {
        const Loaded loaded = load(
            Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(dataOffset + got)), Conventions::Standard);
        // Nothing is missing when the last pixel is there.
        EXPECT_EQ(loaded.code, got >= 12 ? IMGERR_NONE : IMGERR_READ) << got;
        EXPECT_EQ(loaded.sink.order.size(), std::size_t(stored[got])) << got;
    }
    const Loaded nibbles = loadStandard(runs(4, 4, 1, { 0, 4, 0x12 }));
    EXPECT_EQ(nibbles.code, IMGERR_READ);
    EXPECT_THAT(nibbles.pixels(), ElementsAre(entry(1, 0xFF), entry(2, 0xFF), absent, absent));
}

TEST(BmpRuns, RowsWiderThanAPieceAreComplete)
{
    Bytes codes;
    for (int i = 0; i < 70000 / 250; ++i)
        codes.insert(codes.end(), { 250, std::uint8_t(i % 16) });
    codes.insert(codes.end(), { 0, 1 });
    writeScratch(runs(8, 70001, 1, codes).bytes());
    QUtils::Image8 image;
    ASSERT_EQ(codeOf(loadBmp(scratchFile(), image, nullptr, Conventions::Standard)), IMGERR_NONE);
    for (int x = 0; x < 70000; ++x)
        ASSERT_EQ(image.pixel(x, 0), entry(unsigned(x / 250 % 16), 0xFF)) << x;
    EXPECT_EQ(image.pixel(70000, 0), entry(0, 0xFF));
}

TEST(BmpRuns, PicturesOfManyBlocksAreComplete)
{
    std::mt19937 random;
    for (const int bits : { 4, 8 }) {
        const int width = 1000, height = 900;
        Bytes codes;
        Pixels expected;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width;) {
                const int count = std::min(int(random() % 100 + 3), width - x);
                const auto index = [&](int i) { return unsigned(x * 7 + i * (bits == 8) + y) % 16; };
                if (count < 3 || random() % 2) {
                    codes.push_back(std::uint8_t(count));
                    codes.push_back(std::uint8_t(index(0) * (bits == 8 ? 1 : 17)));
                    for (int i = 0; i < count; ++i)
                        expected.push_back(entry(index(0), 0xFF));
                } else {
                    codes.insert(codes.end(), { 0, std::uint8_t(count) });
                    const int bytes = bits == 8 ? count : (count + 1) / 2;
                    for (int i = 0; i < bytes; ++i)
                        codes.push_back(std::uint8_t(index(i) * (bits == 8 ? 1 : 17)));
                    codes.resize(codes.size() + std::size_t(bytes % 2));
                    for (int i = 0; i < count; ++i)
                        expected.push_back(entry(index(i), 0xFF));
                }
                x += count;
            }
            codes.insert(codes.end(), { 0, 0 });
        }
        writeScratch(runs(bits, width, -height, codes).bytes());
        QUtils::Image8 image;
        ASSERT_EQ(codeOf(loadBmp(scratchFile(), image, nullptr, Conventions::Standard)), IMGERR_NONE);
        EXPECT_TRUE(Pixels(image.data(), image.data() + width * height) == expected) << bits;
    }
}

} // namespace
