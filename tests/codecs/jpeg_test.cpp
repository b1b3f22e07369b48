#include "rastkit/buffers.h"
#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "support/jpeg_bytes.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/sink_without_rtti.h"
#include "support/temp_file.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using QUtils::loadJpeg;
using QUtils::loadJpegArray;
using QUtils::loadJpegArrayHeader;
using QUtils::loadJpegHeader;
using testing::AnyOf;
using testing::ElementsAre;
using Pixels = std::vector<unsigned int>;

constexpr Conventions bothConventions[] = { Conventions::Renderer, Conventions::Standard };

// --- Loading -----------------------------------------------------------------------------------------------

/// The description before a load, to see what a loader leaves alone.
IMGINFO filledInfo()
{
    IMGINFO info {};
    info.width = info.height = info.bitsPerPixel = info.numChannels = info.bytesPerPixel = -7;
    info.dataWindowX = info.displayWindowHeight = -7;
    return info;
}

/// Width, height, bits per pixel, channels, bytes per pixel.
std::vector<int> factsOf(const IMGINFO& info)
{
    return { info.width, info.height, info.bitsPerPixel, info.numChannels, info.bytesPerPixel };
}

struct Loaded {
    int code = -1;
    Image8 image;
    IMGINFO info = filledInfo();

    Pixels pixels() const
    {
        Pixels all;
        for (int y = 0; y < image.height(); ++y)
            all.insert(all.end(), image.row(y), image.row(y) + image.width());
        return all;
    }
};

class JpegLoad : public testing::Test {
protected:
    const char* file(const Bytes& bytes)
    {
        std::filesystem::remove(m_name); // Writing over a file can take long.
        writeFile(m_name, bytes);
        return m_name.c_str();
    }
    Loaded load(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        Loaded loaded;
        loaded.code = codeOf(conventions == Conventions::Renderer
                ? LoadJPGFile(file(bytes), loaded.image, &loaded.info)
                : loadJpeg(file(bytes), loaded.image, &loaded.info, conventions));
        return loaded;
    }
    /// The bytes are in memory of their exact size, so that a sanitizer sees each byte read behind them.
    Loaded loadArray(Bytes bytes, Conventions conventions = Conventions::Renderer)
    {
        bytes.shrink_to_fit();
        Loaded loaded;
        loaded.code = codeOf(conventions == Conventions::Renderer
                ? LoadJPGArray(bytes.data(), bytes.size(), loaded.image, &loaded.info)
                : loadJpegArray(bytes.data(), bytes.size(), loaded.image, &loaded.info, conventions));
        return loaded;
    }

    TempDir m_folder;
    const std::string m_name = m_folder / "image.jpg";
};

/// What a renderer gets, from the samples that libjpeg decodes by default.
Pixels packed(const DecodedJpeg& decoded)
{
    Pixels pixels;
    const std::size_t components = std::size_t(decoded.components);
    for (std::size_t i = 0; i < decoded.samples.size(); i += components) {
        const std::uint8_t* const b = &decoded.samples[i];
        const unsigned int first = b[0], second = components > 1 ? b[1] : first,
                           third = components > 1 ? b[2] : first, fourth = components > 3 ? b[3] : 0xFFu;
        pixels.push_back(fourth << 24 | first << 16 | second << 8 | third);
    }
    return pixels;
}

/// The kinds of files that libjpeg writes.
std::vector<JpegBytes> allKinds(int width, int height)
{
    std::vector<JpegBytes> kinds;
    for (const J_COLOR_SPACE space : { JCS_GRAYSCALE, JCS_RGB, JCS_CMYK })
        for (const bool isProgressive : { false, true })
            for (const int restartInterval : { 0, 2 }) {
                JpegBytes kind = makeJpeg(space, width, height);
                kind.isProgressive = isProgressive;
                kind.restartInterval = restartInterval;
                kinds.push_back(kind);
            }
    JpegBytes special = makeJpeg(JCS_RGB, width, height);
    special.hasFullChroma = true;
    kinds.push_back(special);
    special.codedSpace = JCS_RGB;
    kinds.push_back(special);
    special = makeJpeg(JCS_RGB, width, height);
    special.isArithmetic = true;
    kinds.push_back(special);
    special = makeJpeg(JCS_CMYK, width, height);
    special.codedSpace = JCS_YCCK;
    kinds.push_back(special);
    special.hasAdobeMarker = false; // Then it passes for plain inks.
    kinds.push_back(special);
    return kinds;
}

TEST_F(JpegLoad, PixelsAreTheSamplesThatLibjpegDecodes)
{
    for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 16, 16 }, { 33, 50 }, { 4097, 3 } })
        for (const JpegBytes& kind : allKinds(width, height)) {
            const Bytes bytes = kind.bytes();
            const auto expected = decodeJpeg(bytes);
            ASSERT_TRUE(expected);
            SCOPED_TRACE(testing::Message() << width << 'x' << height << ", space " << kind.inputSpace
                                            << ", progressive " << kind.isProgressive);
            const Loaded fromFile = load(bytes), fromMemory = loadArray(bytes);
            EXPECT_EQ(fromFile.code, IMGERR_NONE);
            EXPECT_EQ(fromMemory.code, IMGERR_NONE);
            EXPECT_TRUE(fromFile.pixels() == packed(*expected));
            EXPECT_TRUE(fromMemory.pixels() == packed(*expected));

            RecordingBuffer singles;
            ASSERT_EQ(codeOf(LoadJPGFile(m_name.c_str(), singles, nullptr)), IMGERR_NONE);
            EXPECT_EQ(singles.order.size(), packed(*expected).size());
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(singles.at(x, y), fromFile.image.pixel(x, y));
        }
}

TEST_F(JpegLoad, GreyIsOpaqueAndOneChannelWhileItsHeaderTellsOfFourFloats)
{
    JpegBytes grey;
    grey.width = grey.height = 8;
    grey.samples = Bytes(64, 0x60);
    const Loaded loaded = load(grey.bytes());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.pixels(), Pixels(64, 0xFF606060u));
    EXPECT_THAT(factsOf(loaded.info), ElementsAre(8, 8, 8, 1, 4));
    EXPECT_EQ(loaded.info.dataWindowX, -7);

    IMGINFO header = filledInfo();
    EXPECT_EQ(codeOf(LoadJPGHeader(m_name.c_str(), &header)), IMGERR_NONE);
    EXPECT_THAT(factsOf(header), ElementsAre(8, 8, 128, 4, 16));
    EXPECT_EQ(header.displayWindowHeight, -7);
}

TEST_F(JpegLoad, FourBytesAreCountedForEachComponent)
{
    EXPECT_THAT(factsOf(load(makeJpeg(JCS_RGB, 5, 4).bytes()).info), ElementsAre(5, 4, 24, 3, 12));
    EXPECT_THAT(factsOf(loadArray(makeJpeg(JCS_CMYK, 5, 4).bytes()).info), ElementsAre(5, 4, 32, 4, 16));
}

TEST_F(JpegLoad, HeaderTellsTheSameOfEveryFile)
{
    for (const JpegBytes& kind : allKinds(19, 11)) {
        const Bytes bytes = kind.bytes();
        IMGINFO fromFile = filledInfo(), fromMemory = filledInfo();
        EXPECT_EQ(codeOf(LoadJPGHeader(file(bytes), &fromFile)), IMGERR_NONE);
        EXPECT_EQ(codeOf(LoadJPGArrayHeader(bytes.data(), bytes.size(), &fromMemory)), IMGERR_NONE);
        EXPECT_THAT(factsOf(fromFile), ElementsAre(19, 11, 128, 4, 16));
        EXPECT_THAT(factsOf(fromMemory), ElementsAre(19, 11, 128, 4, 16));
    }
}

/// Inks of one colour all over, which the coding does not change by more than one.
JpegBytes inks(const Bytes& pixel)
{
    JpegBytes file = makeJpeg(JCS_CMYK, 8, 8);
    file.quality = 100;
    file.samples.clear();
    for (int i = 0; i < 64; ++i)
        file.samples.insert(file.samples.end(), pixel.begin(), pixel.end());
    return file;
}

TEST_F(JpegLoad, InksAreNotConvertedAndBlackIsAlpha)
{
    const Loaded loaded = load(inks({ 200, 100, 50, 128 }).bytes());
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.pixels(), Pixels(64, 0x80C86432u));
}

TEST_F(JpegLoad, InfoMayBeNull)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 9, 9).bytes();
    Image8 image;
    EXPECT_EQ(codeOf(LoadJPGFile(file(bytes), image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadJPGArray(bytes.data(), bytes.size(), image, nullptr)), IMGERR_NONE);
}

TEST_F(JpegLoad, OtherNumbersOfComponentsAreAFormatErrorButHaveAHeader)
{
    JpegBytes two = makeJpeg(JCS_RGB, 8, 8);
    two.inputSpace = JCS_UNKNOWN;
    two.components = 2;
    two.samples.resize(128);
    const Bytes bytes = two.bytes();
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    const ImgError error = LoadJPGFile(file(bytes), sink, &info);
    EXPECT_EQ(error.code(), IMGERR_FORMAT);
    EXPECT_STREQ(error.message(), "");
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(info.width, 8);
    EXPECT_EQ(info.numChannels, 2);
    EXPECT_EQ(codeOf(LoadJPGHeader(m_name.c_str(), &info)), IMGERR_NONE);
    EXPECT_EQ(codeOf(loadJpegHeader(m_name.c_str(), &info, Conventions::Standard)), IMGERR_FORMAT);
}

TEST_F(JpegLoad, FilesLargerThanABlockAreComplete)
{
    JpegBytes large = makeJpeg(JCS_RGB, 1200, 900);
    large.quality = 100;
    large.hasFullChroma = true;
    for (const bool isProgressive : { false, true }) {
        large.isProgressive = isProgressive;
        const Bytes bytes = large.bytes();
        ASSERT_GT(bytes.size(), 600u << 10);
        EXPECT_TRUE(load(bytes).pixels() == packed(*decodeJpeg(bytes)));
    }
}

TEST_F(JpegLoad, MarkersAreSkippedAcrossTheEndsOfBlocks)
{
    const JpegBytes picture = makeJpeg(JCS_RGB, 20, 10);
    Bytes bytes { 0xFF, 0xD8 };
    for (int i = 0; i < 9; ++i) {
        const std::size_t end = bytes.size();
        bytes.resize(end + 2 + 65000 + std::size_t(i), 0xAA);
        bytes[end] = 0xFF;
        bytes[end + 1] = 0xEB; // An application's own.
        bytes[end + 2] = std::uint8_t((65000 + i) >> 8);
        bytes[end + 3] = std::uint8_t(65000 + i);
    }
    const Bytes rest = picture.bytes();
    bytes.insert(bytes.end(), rest.begin() + 2, rest.end());
    EXPECT_TRUE(load(bytes).pixels() == packed(*decodeJpeg(rest)));
    EXPECT_TRUE(loadArray(bytes).pixels() == packed(*decodeJpeg(rest)));
}

TEST_F(JpegLoad, DispatchersFindTheReaderByNameAndByContents)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 6, 3).bytes();
    for (const char* name : { "a.jpg", "a.JPEG", "a.jpe", "a.tga", "nameless" }) {
        writeFile(m_folder / name, bytes);
        Image8 image;
        EXPECT_EQ(codeOf(LoadImageFile((m_folder / name).c_str(), image, nullptr)), IMGERR_NONE) << name;
        EXPECT_EQ(image.width(), 6) << name;
    }
}

TEST_F(JpegLoad, LibraryIsReported)
{
    QUtils::Table<CharStringPair, 100> rows;
    rastkit_getImageLibVersions(rows);
    int found = 0;
    for (const CharStringPair& row : rows)
        if (std::string(row.first.c_str()) == "libjpeg") {
            ++found;
            EXPECT_STREQ(row.second.c_str(), "6b");
        }
    EXPECT_EQ(found, 1);
}

// --- Damaged files -----------------------------------------------------------------------------------------

Bytes cut(const Bytes& bytes, std::size_t length)
{
    return Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(length));
}

TEST_F(JpegLoad, CutFileGivesWhatLibjpegMakesOfTheRest)
{
    for (const JpegBytes& kind : allKinds(37, 21)) {
        const Bytes bytes = kind.bytes();
        int withRows = 0;
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            const Loaded loaded = load(cut(bytes, length));
            const auto expected = decodeJpeg(cut(bytes, length));
            ASSERT_EQ(loaded.code, expected ? IMGERR_NONE : IMGERR_FORMAT) << length;
            ASSERT_EQ(loaded.info.width, expected ? 37 : -7);
            if (expected) {
                ASSERT_TRUE(loaded.pixels() == packed(*expected)) << length;
                ++withRows;
            }
        }
        EXPECT_GT(withRows, int(bytes.size() / 4));
    }
}

TEST_F(JpegLoad, CutMemoryIsAFormatError)
{
    for (const JpegBytes& kind : allKinds(37, 21)) {
        const Bytes bytes = kind.bytes();
        for (std::size_t length = 1; length < bytes.size(); ++length) {
            const Loaded loaded = loadArray(cut(bytes, length));
            ASSERT_EQ(loaded.code, IMGERR_FORMAT) << length;
            ASSERT_EQ(loaded.info.width, -7);
        }
    }
}

TEST_F(JpegLoad, CutMemoryKeepsTheRowsBeforeTheCutAndNothingOld)
{
    const JpegBytes picture = makeJpeg(JCS_RGB, 40, 60);
    JpegBytes earlier = picture;
    for (std::uint8_t& sample : earlier.samples)
        sample = std::uint8_t(~sample);
    const Bytes bytes = picture.bytes(), earlierBytes = earlier.bytes();
    const Pixels whole = packed(*decodeJpeg(bytes)), old = packed(*decodeJpeg(earlierBytes));
    bool hasHadRows = false;
    for (std::size_t length = 1; length < bytes.size(); length += 7) {
        Loaded loaded = loadArray(earlierBytes);
        EXPECT_EQ(codeOf(LoadJPGArray(bytes.data(), length, loaded.image, nullptr)), IMGERR_FORMAT);
        const Pixels pixels = loaded.pixels();
        if (pixels == old)
            continue; // The header broke: the sink was never sized anew.
        const auto end = std::mismatch(pixels.begin(), pixels.end(), whole.begin()).first;
        EXPECT_TRUE(std::all_of(end, pixels.end(), [](unsigned int argb) { return argb == 0; })) << length;
        hasHadRows = hasHadRows || end != pixels.begin();
    }
    EXPECT_TRUE(hasHadRows);
}

TEST_F(JpegLoad, HeaderNeedsNoMoreThanItself)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 37, 21).bytes();
    int failures = 0;
    for (std::size_t length = 1; length <= bytes.size(); ++length) {
        IMGINFO fromFile = filledInfo(), fromMemory = filledInfo();
        const int code = codeOf(LoadJPGArrayHeader(bytes.data(), length, &fromMemory));
        EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_FORMAT));
        EXPECT_EQ(fromMemory.width, code == IMGERR_NONE ? 37 : -7);
        EXPECT_EQ(codeOf(loadJpegHeader(file(cut(bytes, length)), &fromFile, Conventions::Standard)), code);
        EXPECT_EQ(fromFile.width, fromMemory.width);
        // The last bytes of the last segment may be made up of end markers.
        const int fileCode = codeOf(LoadJPGHeader(m_name.c_str(), &fromFile));
        EXPECT_TRUE(fileCode == code || (code == IMGERR_FORMAT && fileCode == IMGERR_NONE)) << length;
        failures += code != IMGERR_NONE;
    }
    EXPECT_GT(failures, 100);
    EXPECT_LT(failures, int(bytes.size()) - 100);
}

TEST_F(JpegLoad, EveryByteMayBeWrong)
{
    for (const JpegBytes& kind : allKinds(17, 9)) {
        const Bytes bytes = kind.bytes();
        for (std::size_t i = 0; i < bytes.size(); ++i)
            for (const int value : { 0x00, 0xFF, bytes[i] ^ 0x11 }) {
                Bytes wrong = bytes;
                wrong[i] = std::uint8_t(value);
                for (const Conventions conventions : bothConventions) {
                    Image8 image;
                    image.setMaxBytes(1 << 20);
                    ASSERT_THAT(
                        codeOf(loadJpegArray(wrong.data(), wrong.size(), image, nullptr, conventions)),
                        AnyOf(IMGERR_NONE, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_READ, IMGERR_UNSUPPORTED));
                }
            }
    }
}

TEST_F(JpegLoad, SegmentThatGoesPastTheEndIsAFormatError)
{
    for (const int marker : { 0xE0, 0xE1, 0xEE, 0xFE, 0xDB, 0xC4, 0xC0, 0xDA }) {
        const Bytes bytes { 0xFF, 0xD8, 0xFF, std::uint8_t(marker), 0xFF, 0xFF, 1, 2, 3, 4 };
        for (const Conventions conventions : bothConventions) {
            EXPECT_EQ(load(bytes, conventions).code, IMGERR_FORMAT) << marker;
            EXPECT_EQ(loadArray(bytes, conventions).code, IMGERR_FORMAT) << marker;
        }
    }
}

TEST_F(JpegLoad, NothingIsPrinted)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 37, 21).bytes();
    Bytes broken = bytes;
    for (std::size_t i = bytes.size() - 300; i < bytes.size() - 10; ++i)
        broken[i] = 0x55;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    for (const Conventions conventions : bothConventions) {
        load(broken, conventions);
        loadArray(broken, conventions);
        load(cut(bytes, 400), conventions);
        load(Bytes(40, 0xEE), conventions);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// --- Bombs -------------------------------------------------------------------------------------------------

/// The file with another size in its header.
Bytes withSize(Bytes bytes, int width, int height)
{
    for (std::size_t i = 2; i + 9 < bytes.size(); i += 2 + std::size_t(bytes[i + 2] * 256 + bytes[i + 3]))
        if (bytes[i + 1] == 0xC0 || bytes[i + 1] == 0xC2) {
            bytes[i + 5] = std::uint8_t(height >> 8), bytes[i + 6] = std::uint8_t(height);
            bytes[i + 7] = std::uint8_t(width >> 8), bytes[i + 8] = std::uint8_t(width);
            return bytes;
        }
    ADD_FAILURE() << "no header";
    return bytes;
}

TEST_F(JpegLoad, ProgressiveFileThatCannotFillItsPictureIsAFormatError)
{
    JpegBytes file = makeJpeg(JCS_RGB, 16, 16);
    file.isProgressive = true;
    const Bytes bytes = withSize(file.bytes(), 65500, 65500);
    RecordingBuffer sink;
    for (const Conventions conventions : bothConventions)
        EXPECT_EQ(
            codeOf(loadJpegArray(bytes.data(), bytes.size(), sink, nullptr, conventions)), IMGERR_FORMAT);
    EXPECT_EQ(sink.initCalls, 0);
}

TEST_F(JpegLoad, CutProgressiveFileOfManyMegapixelsKeepsItsRows)
{
    JpegBytes file = makeJpeg(JCS_RGB, 16, 16);
    file.isProgressive = true;
    const Loaded loaded = load(withSize(file.bytes(), 5000, 4000));
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.info.height, 4000);
}

TEST_F(JpegLoad, EndlessScansEnd)
{
    // Ten thousand scans of a quarter of a million empty blocks each would take minutes.
    JpegBytes file = makeJpeg(JCS_GRAYSCALE, 16, 16);
    file.isProgressive = true;
    Bytes bytes = withSize(file.bytes(), 4096, 4096);
    bytes.resize(bytes.size() - 2);
    const Bytes scan { 0xFF, 0xDA, 0, 8, 1, 1, 0, 0, 0, 0x10 }; // Refines the lowest frequency.
    for (int i = 0; i < 10000; ++i)
        bytes.insert(bytes.end(), scan.begin(), scan.end());
    bytes.insert(bytes.end(), { 0xFF, 0xD9 });
    RecordingBuffer sink;
    EXPECT_EQ(codeOf(LoadJPGArray(bytes.data(), bytes.size(), sink, nullptr)), IMGERR_FORMAT);
    EXPECT_EQ(sink.initCalls, 0);
}

// --- Errors ------------------------------------------------------------------------------------------------

TEST_F(JpegLoad, MissingFileIsAnOpenError)
{
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    const ImgError error = LoadJPGFile("/nowhere/image.jpg", sink, &info);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_EQ(error.message(), "Failed to open file: " + std::to_string(ENOENT));
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(codeOf(LoadJPGHeader("/nowhere/image.jpg", &info)), IMGERR_OPEN);
    EXPECT_EQ(info.width, -7);
}

TEST_F(JpegLoad, EmptyFilesAndFoldersAreAFormatError)
{
    RecordingBuffer sink;
    IMGINFO info = filledInfo();
    for (const char* name : { file({}), m_folder.path().c_str(), "/dev/null" }) {
        EXPECT_EQ(codeOf(LoadJPGFile(name, sink, &info)), IMGERR_FORMAT) << name;
        EXPECT_EQ(codeOf(LoadJPGHeader(name, &info)), IMGERR_FORMAT) << name;
    }
    EXPECT_EQ(info.width, -7);
}

TEST_F(JpegLoad, NoDataIsAMemoryError)
{
    const unsigned char data[] = { 0xFF, 0xD8 };
    const std::pair<const unsigned char*, unsigned long> nothings[] = { { nullptr, 5 }, { data, 0 } };
    for (const auto& [bytes, size] : nothings) {
        RecordingBuffer sink;
        IMGINFO info = filledInfo();
        const ImgError pixels = LoadJPGArray(bytes, size, sink, &info);
        EXPECT_EQ(pixels.code(), IMGERR_MEMORY);
        EXPECT_STREQ(pixels.message(), "Can't read NULL JPEG data");
        EXPECT_STREQ(pixels.function(), "LoadJPGArray");
        const ImgError header = LoadJPGArrayHeader(bytes, size, &info);
        EXPECT_EQ(header.code(), IMGERR_MEMORY);
        EXPECT_STREQ(header.message(), "Can't read NULL JPEG data");
        EXPECT_STREQ(header.function(), "LoadJPGArrayHeader");
        EXPECT_EQ(sink.initCalls, 0);
        EXPECT_EQ(info.width, -7);
    }
}

TEST_F(JpegLoad, SinkThatIsNotValidIsAMemoryError)
{
    for (const JpegBytes& kind : allKinds(20, 20)) {
        RecordingBuffer sink;
        sink.refuse = true;
        IMGINFO info = filledInfo();
        EXPECT_EQ(codeOf(LoadJPGFile(file(kind.bytes()), sink, &info)), IMGERR_MEMORY);
        EXPECT_EQ(sink.initCalls, 1);
        EXPECT_EQ(sink.freeCalls, 0);
        EXPECT_TRUE(sink.order.empty());
        EXPECT_EQ(info.width, 20) << "Renderers get the description all the same.";
        EXPECT_EQ(info.bytesPerPixel, info.numChannels * 4);
        info = filledInfo();
        EXPECT_EQ(codeOf(loadJpeg(m_name.c_str(), sink, &info, Conventions::Standard)), IMGERR_MEMORY);
        EXPECT_EQ(info.width, -7);
    }
}

TEST_F(JpegLoad, StreamIsReadToo)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 30, 20).bytes();
    ASSERT_EQ(mkfifo((m_folder / "fifo").c_str(), 0600), 0);
    std::thread writer([&] { writeFile(m_folder / "fifo", bytes); });
    Image8 image;
    EXPECT_EQ(codeOf(LoadJPGFile((m_folder / "fifo").c_str(), image, nullptr)), IMGERR_NONE);
    writer.join();
    EXPECT_EQ(image.pixel(0, 0), packed(*decodeJpeg(bytes))[0]);
}

TEST_F(JpegLoad, ExceptionOfTheSinkReachesTheCallerWithTheFileClosed)
{
    for (const JpegBytes& kind : allKinds(20, 20)) {
        const Bytes bytes = kind.bytes();
        const char* const name = file(bytes);
        const int before = openFiles();
        for (const std::size_t pixel : { 0u, 5u, 20u, 399u }) {
            ThrowingSink sink;
            sink.throwAtPixel = pixel;
            EXPECT_THROW((void)LoadJPGFile(name, sink, nullptr), std::runtime_error);
            EXPECT_EQ(sink.freeCalls, 1);
            EXPECT_THROW((void)LoadJPGArray(bytes.data(), bytes.size(), sink, nullptr), std::runtime_error);
            EXPECT_EQ(sink.freeCalls, 2);
        }
        ThrowingSink sink;
        sink.throwInInit = true;
        EXPECT_THROW((void)LoadJPGFile(name, sink, nullptr), std::runtime_error);
        EXPECT_EQ(sink.freeCalls, 1);
        EXPECT_EQ(openFiles(), before);
    }
}

TEST_F(JpegLoad, FilesAreClosedOnEveryPath)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 20, 20).bytes();
    const int before = openFiles();
    for (const std::size_t length :
        { std::size_t(0), std::size_t(1), std::size_t(100), bytes.size() - 50, bytes.size() })
        for (const Conventions conventions : bothConventions) {
            load(cut(bytes, length), conventions);
            IMGINFO info {};
            static_cast<void>(loadJpegHeader(m_name.c_str(), &info, conventions));
        }
    EXPECT_EQ(openFiles(), before);
}

TEST_F(JpegLoad, SinkWithoutTypeInformationIsServedPixelByPixel)
{
#if defined(RASTKIT_TESTS_CHECK_VPTR)
    GTEST_SKIP() << "this sanitizer looks at the type information of every object";
#endif
    const Bytes bytes = makeJpeg(JCS_RGB, 20, 20).bytes();
    const auto sink = newSinkWithoutRtti();
    ASSERT_EQ(codeOf(LoadJPGFile(file(bytes), *sink->buffer, nullptr)), IMGERR_NONE);
    EXPECT_EQ(sink->pixels, packed(*decodeJpeg(bytes)));
}

// --- The standard's conventions ----------------------------------------------------------------------------

using JpegStandardLoad = JpegLoad;

TEST_F(JpegStandardLoad, GreyAndColorsAreTheSamePixels)
{
    for (const JpegBytes& kind : allKinds(37, 21)) {
        if (kind.inputSpace == JCS_CMYK)
            continue;
        const Bytes bytes = kind.bytes();
        const Loaded fromFile = load(bytes, Conventions::Standard),
                     fromMemory = loadArray(bytes, Conventions::Standard);
        EXPECT_EQ(fromFile.code, IMGERR_NONE);
        EXPECT_EQ(fromMemory.code, IMGERR_NONE);
        EXPECT_TRUE(fromFile.pixels() == packed(*decodeJpeg(bytes)));
        EXPECT_TRUE(fromMemory.pixels() == packed(*decodeJpeg(bytes)));
    }
}

TEST_F(JpegStandardLoad, InksOfAdobesProgramsAreInverted)
{
    // 200 x 128 / 255 = 100.4, 100 x 128 / 255 = 50.2, 51 x 128 / 255 = 25.6.
    const Loaded loaded = load(inks({ 200, 100, 51, 128 }).bytes(), Conventions::Standard);
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.pixels(), Pixels(64, 0xFF64321Au));
}

TEST_F(JpegStandardLoad, InksOfOthersAreInks)
{
    // (255 - 55) x (255 - 127) / 255 and so on.
    JpegBytes file = inks({ 55, 155, 204, 127 });
    file.hasAdobeMarker = false;
    EXPECT_EQ(load(file.bytes(), Conventions::Standard).pixels(), Pixels(64, 0xFF64321Au));
}

TEST_F(JpegStandardLoad, InksAreRoundedToNearest)
{
    // Each row of blocks has another black, each column another cyan.
    JpegBytes file = makeJpeg(JCS_CMYK, 2048, 128);
    file.quality = 100;
    for (std::size_t i = 0; i < file.samples.size(); i += 4) {
        const std::size_t x = i / 4 % 2048, y = i / 4 / 2048;
        file.samples[i] = file.samples[i + 1] = file.samples[i + 2] = std::uint8_t(x / 8);
        file.samples[i + 3] = std::uint8_t(y / 8 * 17);
    }
    const Bytes bytes = file.bytes();
    const DecodedJpeg decoded = *decodeJpeg(bytes);
    const Pixels pixels = load(bytes, Conventions::Standard).pixels();
    ASSERT_EQ(pixels.size() * 4, decoded.samples.size());
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        const int product = decoded.samples[i * 4] * decoded.samples[i * 4 + 3];
        ASSERT_EQ(pixels[i], 0xFF000000u | unsigned((product * 2 + 255) / 510) * 0x010101u);
    }
}

TEST_F(JpegStandardLoad, WhatIsHandedBackIsDescribed)
{
    const std::pair<J_COLOR_SPACE, std::vector<int>> descriptions[] = {
        { JCS_GRAYSCALE, { 12, 9, 8, 1, 1 } },
        { JCS_RGB, { 12, 9, 24, 3, 3 } },
        { JCS_CMYK, { 12, 9, 24, 3, 3 } },
    };
    for (const auto& [space, facts] : descriptions) {
        const Bytes bytes = makeJpeg(space, 12, 9).bytes();
        EXPECT_EQ(factsOf(load(bytes, Conventions::Standard).info), facts);
        IMGINFO fromFile = filledInfo(), fromMemory = filledInfo();
        EXPECT_EQ(codeOf(loadJpegHeader(m_name.c_str(), &fromFile, Conventions::Standard)), IMGERR_NONE);
        EXPECT_EQ(codeOf(loadJpegArrayHeader(bytes.data(), bytes.size(), &fromMemory, Conventions::Standard)),
            IMGERR_NONE);
        EXPECT_EQ(factsOf(fromFile), facts);
        EXPECT_EQ(factsOf(fromMemory), facts);
    }
}

TEST_F(JpegStandardLoad, CutDataIsAnErrorAndKeepsWhatLibjpegMakesOfIt)
{
    for (const JpegBytes& kind : allKinds(37, 21)) {
        const Bytes bytes = kind.bytes();
        const Pixels whole = load(bytes, Conventions::Standard).pixels();
        int broken = 0;
        for (std::size_t length = 1; length < bytes.size(); ++length) {
            const Bytes part = cut(bytes, length);
            const Loaded fromFile = load(part, Conventions::Standard),
                         fromMemory = loadArray(part, Conventions::Standard);
            ASSERT_EQ(fromFile.code, fromMemory.code) << length;
            ASSERT_TRUE(fromFile.pixels() == fromMemory.pixels());
            ASSERT_THAT(fromFile.code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT));
            ASSERT_TRUE(fromFile.code != IMGERR_NONE || fromFile.pixels() == whole) << length;
            if (fromFile.code == IMGERR_READ) {
                ++broken;
                ASSERT_EQ(fromFile.pixels().size(), whole.size());
                ASSERT_EQ(fromFile.info.width, -7);
            }
        }
        EXPECT_GT(broken, int(bytes.size() / 4));
    }
}

TEST_F(JpegStandardLoad, MissingEndMarkerHarmsNoPicture)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 37, 21).bytes();
    EXPECT_EQ(load(cut(bytes, bytes.size() - 2), Conventions::Standard).code, IMGERR_NONE);
}

TEST_F(JpegStandardLoad, BrokenCodesAreAReadError)
{
    Bytes bytes = makeJpeg(JCS_RGB, 64, 64).bytes();
    bytes[bytes.size() - 200] = 0xFF; // Another end marker, amid the codes.
    bytes[bytes.size() - 199] = 0xD9;
    EXPECT_EQ(load(bytes, Conventions::Standard).code, IMGERR_READ);
    EXPECT_EQ(load(bytes).code, IMGERR_NONE);
}

TEST_F(JpegStandardLoad, ValidFilesThatAreNotSupportedAreSaidToBe)
{
    const Bytes bytes = makeJpeg(JCS_RGB, 8, 8).bytes();
    const Bytes header { 0xFF, 0xC0, 0, 17, 8 }; // Baseline, 8 bits a sample.
    const auto at = std::search(bytes.begin(), bytes.end(), header.begin(), header.end()) - bytes.begin();
    ASSERT_LT(at, std::ptrdiff_t(bytes.size()));
    Bytes twelveBits = bytes, lossless = bytes;
    twelveBits[std::size_t(at) + 4] = 12;
    lossless[std::size_t(at) + 1] = 0xC3;
    for (const Bytes& file : { twelveBits, lossless }) {
        EXPECT_EQ(load(file, Conventions::Standard).code, IMGERR_UNSUPPORTED);
        EXPECT_EQ(load(file).code, IMGERR_FORMAT);
    }
}

} // namespace
