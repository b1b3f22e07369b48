#include "rastkit/buffers.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/tiff_reading.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <tuple>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::saveTiff;
using QUtils::TiffSaveOptions;
using testing::ElementsAre;

constexpr int colorChannel = 0, noAlpha = -1;

/// Sets the process-wide settings for one test.
class TiffWriter : public testing::Test {
protected:
    TiffWriter() { set(8, 0); }
    ~TiffWriter() override { set(8, 0); }
    static void set(int bits, int interleaved)
    {
        QUtils::tiffBitsPerChannel = bits;
        QUtils::tiffInterleaved = interleaved;
    }

    TempDir m_folder;
    std::string m_name = m_folder / "a.tif";
};

/// A value for each sample of a frame: some out of range, some NaN, and numbers that must be rounded.
float sampleAt(int x, int y, int component)
{
    std::minstd_rand random(unsigned(x * 7919 + y * 104729 + component * 31 + 1));
    random.discard(3);
    switch (random() % 16) {
    case 0: return -0.25f;
    case 1: return 1.5f;
    case 2: return NAN;
    case 3: return 1.0f;
    default: return float(random() % 100000) / 99999.0f;
    }
}

/// Rows of `sampleAt`, as many floats a pixel as are asked for.
void fillWithSamples(FrameDouble& frame)
{
    frame.fill = [&frame](const FrameDouble::Query& query, unsigned char* dest) {
        const int components = query.format / 100 + 1;
        auto* out = reinterpret_cast<float*>(dest);
        for (int x = 0; x < frame.width; ++x)
            for (int c = 0; c < components; ++c)
                *out++ = sampleAt(x, query.region.top, c);
    };
}

double clamped(float value)
{
    return value > 0 ? std::min(double(value), 1.0) : 0;
}

/// What a sample of that many bits must be.
std::uint32_t expectedSample(float value, int bits)
{
    switch (bits) {
    case 8: return std::uint32_t(std::nearbyint(float(clamped(value)) * 255.0f));
    case 16: return std::uint32_t(std::nearbyint(float(clamped(value)) * 65535.0f));
    default: return std::bit_cast<std::uint32_t>(value);
    }
}

// --- Samples
// -------------------------------------------------------------------------------------------------

struct Variant {
    int width, height, bits, interleaved, alphaChannel;
};

class TiffWriterSamples : public TiffWriter, public testing::WithParamInterface<Variant> { };

std::vector<Variant> allVariants()
{
    std::vector<Variant> variants;
    for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 4097, 3 } })
        for (const int bits : { 8, 16, 32 })
            for (const int interleaved : { 0, 1 })
                for (const int alphaChannel : { noAlpha, colorChannel })
                    variants.push_back({ width, height, bits, interleaved, alphaChannel });
    return variants;
}

INSTANTIATE_TEST_SUITE_P(All, TiffWriterSamples, testing::ValuesIn(allVariants()));

TEST_P(TiffWriterSamples, AreReadBackByLibtiff)
{
    const Variant& variant = GetParam();
    FrameDouble frame(variant.width, variant.height);
    fillWithSamples(frame);
    set(variant.bits, variant.interleaved);
    ASSERT_EQ(
        codeOf(SaveTIFFile_pb(m_name.c_str(), frame, colorChannel, variant.alphaChannel, 0)), IMGERR_NONE);

    const int samples = variant.alphaChannel < 0 ? 3 : 4;
    const OpenTiff tiff(m_name);
    ASSERT_TRUE(tiff);
    EXPECT_EQ(tiff.number(TIFFTAG_IMAGEWIDTH), unsigned(variant.width));
    EXPECT_EQ(tiff.number(TIFFTAG_IMAGELENGTH), unsigned(variant.height));
    EXPECT_EQ(tiff.number(TIFFTAG_BITSPERSAMPLE), unsigned(variant.bits));
    EXPECT_EQ(tiff.number(TIFFTAG_SAMPLESPERPIXEL), unsigned(samples));
    EXPECT_EQ(tiff.number(TIFFTAG_PHOTOMETRIC), unsigned(PHOTOMETRIC_RGB));
    EXPECT_EQ(tiff.number(TIFFTAG_COMPRESSION), unsigned(COMPRESSION_NONE));
    EXPECT_EQ(tiff.number(TIFFTAG_PLANARCONFIG), variant.interleaved ? 1u : 2u);
    EXPECT_EQ(tiff.number(TIFFTAG_SAMPLEFORMAT), variant.bits == 32 ? 3u : 1u);
    EXPECT_EQ(tiff.number(TIFFTAG_ROWSPERSTRIP), 1u);
    EXPECT_FALSE(tiff.has(TIFFTAG_EXTRASAMPLES));
    for (int y = 0; y < variant.height; ++y)
        for (int c = 0; c < samples; ++c) {
            const std::vector<std::uint32_t> row = tiff.row(y, c);
            ASSERT_EQ(row.size(), std::size_t(variant.width));
            for (int x = 0; x < variant.width; ++x)
                ASSERT_EQ(row[std::size_t(x)], expectedSample(sampleAt(x, y, c), variant.bits))
                    << x << ' ' << y << ' ' << c << ' ' << sampleAt(x, y, c);
        }
}

TEST_P(TiffWriterSamples, FileIsTheOneThatScanlinesMake)
{
    const Variant& variant = GetParam();
    FrameDouble frame(variant.width, variant.height);
    fillWithSamples(frame);
    set(variant.bits, variant.interleaved);
    ASSERT_EQ(
        codeOf(SaveTIFFile_pb(m_name.c_str(), frame, colorChannel, variant.alphaChannel, 0)), IMGERR_NONE);

    const std::string other = m_folder / "scanlines.tif";
    writeScanlines(other, variant.width, variant.height, variant.alphaChannel < 0 ? 3 : 4, variant.bits,
        variant.interleaved != 0,
        [&](int x, int y, int c) { return expectedSample(sampleAt(x, y, c), variant.bits); });
    EXPECT_EQ(readFile(m_name), readFile(other));
}

// --- Bytes of a ready-made frame ---------------------------------------------------------------------------

/// A frame of packed pixels that hides what it is, so that it is asked for floats.
class HiddenFrame : public QUtils::FrameBuffer {
public:
    using FrameBuffer::FrameBuffer;
};

template <typename Frame> Frame packedFrame(int width, int height)
{
    Frame frame(width, height);
    frame.addChannel("color", 1, 4, QUtils::FrameSample::Packed8);
    frame.addChannel("alpha", 2, 3, QUtils::FrameSample::Packed8);
    std::mt19937 random(11);
    for (int channel = 0; channel < 2; ++channel)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                frame.rowPacked(channel, y)[x] = std::uint32_t(random());
    return frame;
}

TEST_F(TiffWriter, BytesOfAFrameBufferMakeTheFileThatItsFloatsMake)
{
    for (const int width : { 1, 7, 67 })
        for (const int interleaved : { 0, 1 })
            for (const int bits : { 8, 16, 32 })
                for (const int alphaChannel : { noAlpha, 0, 1 }) {
                    set(bits, interleaved);
                    auto plain = packedFrame<QUtils::FrameBuffer>(width, 3);
                    auto hidden = packedFrame<HiddenFrame>(width, 3);
                    ASSERT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), plain, 0, alphaChannel, 0)), IMGERR_NONE);
                    const Bytes fromBytes = readFile(m_name);
                    ASSERT_EQ(
                        codeOf(SaveTIFFile_pb(m_name.c_str(), hidden, 0, alphaChannel, 0)), IMGERR_NONE);
                    EXPECT_EQ(fromBytes, readFile(m_name))
                        << width << ' ' << interleaved << ' ' << bits << ' ' << alphaChannel;
                    EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_BITSPERSAMPLE), unsigned(bits));
                }
}

// --- What the frame is asked
// --------------------------------------------------------------------------------

TEST_F(TiffWriter, AsksForEachRowOnceAlsoForPlanes)
{
    for (const int alphaChannel : { -7, 3 }) {
        FrameDouble frame(5, 2);
        set(16, 0);
        ASSERT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 2, alphaChannel, 0)), IMGERR_NONE);
        ASSERT_EQ(frame.queries.size(), 2u);
        for (int y = 0; y < 2; ++y) {
            const FrameDouble::Query& query = frame.queries[std::size_t(y)];
            EXPECT_EQ(query.channel, 2);
            EXPECT_EQ(query.alphaChannel, alphaChannel < 0 ? -1 : 3);
            EXPECT_EQ(query.format, alphaChannel < 0 ? 203 : 303);
            EXPECT_EQ(query.rowBytes, 5 * (alphaChannel < 0 ? 12 : 16));
            EXPECT_EQ(query.region.left, 0);
            EXPECT_EQ(query.region.top, y);
            EXPECT_EQ(query.region.right, 5);
            EXPECT_EQ(query.region.bottom, y + 1);
            EXPECT_THAT(
                (std::array { query.argument0, query.argument1, query.argument2 }), ElementsAre(1, 0, 0));
            EXPECT_EQ(query.mode, -1);
        }
    }
}

TEST_F(TiffWriter, TakesCorrectedPixelsInTheModeOfTheFlags)
{
    for (const int flags : { 0, int(QUtils::SAVE_CORRECTION_MODE_0) }) {
        FrameDouble frame(2, 1);
        CorrectingPlugin plugin(frame);
        ASSERT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, flags)), IMGERR_NONE);
        ASSERT_EQ(frame.queries.size(), 1u);
        EXPECT_EQ(frame.queries[0].mode, flags == 0 ? 3 : 0);
    }
}

TEST_F(TiffWriter, UnknownNumbersOfBitsMeanEight)
{
    for (const int bits : { 12, 0, -8, 64 }) {
        FrameDouble frame(2, 1);
        set(bits, 1);
        ASSERT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_NONE);
        EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_BITSPERSAMPLE), 8u);
        EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_SAMPLEFORMAT), 1u);
    }
}

TEST(TiffSampleStore, ImpossibleNumberOfBitsIsAnException)
{
    try {
        QUtils::tiffSampleStore(12);
        FAIL() << "no exception";
    } catch (const QUtils::ExceptionMsg& exception) {
        EXPECT_STREQ(exception.what(), "How did you get here?!?!");
    }
}

// --- Packed pixels
// ------------------------------------------------------------------------------------------

IMGINFO infoOf(int width, int height)
{
    IMGINFO info {};
    info.width = width;
    info.height = height;
    return info;
}

TEST_F(TiffWriter, PackedPixelsHaveRedAndBlueExchangedInTheFile)
{
    unsigned int pixels[] = { 0xFFFF0000u, 0x11223344u };
    IMGINFO info = infoOf(2, 1);
    ASSERT_EQ(codeOf(SaveTIFFile(m_name.c_str(), &info, pixels)), IMGERR_NONE);
    const OpenTiff tiff(m_name);
    EXPECT_THAT(tiff.row(0, 0), ElementsAre(0, 0x44));
    EXPECT_THAT(tiff.row(0, 1), ElementsAre(0, 0x33));
    EXPECT_THAT(tiff.row(0, 2), ElementsAre(255, 0x22));
    EXPECT_THAT(tiff.row(0, 3), ElementsAre(255, 0x11));
    EXPECT_EQ(tiff.number(TIFFTAG_ROWSPERSTRIP), 8u);
    EXPECT_EQ(tiff.number(TIFFTAG_SAMPLESPERPIXEL), 4u);
    EXPECT_EQ(tiff.number(TIFFTAG_BITSPERSAMPLE), 8u);
    EXPECT_EQ(tiff.number(TIFFTAG_PHOTOMETRIC), unsigned(PHOTOMETRIC_RGB));
    EXPECT_EQ(tiff.number(TIFFTAG_PLANARCONFIG), 1u);
    EXPECT_FALSE(tiff.has(TIFFTAG_EXTRASAMPLES));
}

TEST_F(TiffWriter, PackedPixelsOfOddSizesAreAllThere)
{
    for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 3, 17 }, { 4097, 9 } }) {
        std::vector<unsigned int> pixels(std::size_t(width) * std::size_t(height));
        for (std::size_t i = 0; i < pixels.size(); ++i)
            pixels[i] = unsigned(i) * 2654435761u;
        IMGINFO info = infoOf(width, height);
        ASSERT_EQ(codeOf(SaveTIFFile(m_name.c_str(), &info, pixels.data())), IMGERR_NONE);
        const OpenTiff tiff(m_name);
        for (int y = 0; y < height; ++y)
            for (int c = 0; c < 4; ++c) {
                const auto row = tiff.row(y, c);
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(row[std::size_t(x)],
                        pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)] >> (8 * c) & 0xFF);
            }
    }
}

TEST_F(TiffWriter, PackedFileIsTheOneThatScanlinesMake)
{
    std::vector<unsigned int> pixels(7 * 19);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = unsigned(i) * 2654435761u;
    IMGINFO info = infoOf(7, 19);
    ASSERT_EQ(codeOf(SaveTIFFile(m_name.c_str(), &info, pixels.data())), IMGERR_NONE);
    const std::string other = m_folder / "scanlines.tif";
    writeScanlines(
        other, 7, 19, 4, 8, true,
        [&](int x, int y, int c) { return pixels[std::size_t(y * 7 + x)] >> (8 * c) & 0xFF; }, 8);
    EXPECT_EQ(readFile(m_name), readFile(other));
}

TEST_F(TiffWriter, DispatchFindsIt)
{
    unsigned int pixels[] = { 1 };
    IMGINFO info = infoOf(1, 1);
    EXPECT_EQ(codeOf(SaveImageFile(m_name.c_str(), &info, pixels)), IMGERR_NONE);
    FrameDouble frame(1, 1);
    EXPECT_EQ(codeOf(SaveImageFile((m_folder / "b").c_str(), frame, 0, noAlpha, 8)), IMGERR_NONE);
    EXPECT_EQ(OpenTiff(m_folder / "b").number(TIFFTAG_SAMPLESPERPIXEL), 3u);
}

// --- Failures
// -----------------------------------------------------------------------------------------------

TEST_F(TiffWriter, RefusedRowIsAWriteError)
{
    for (int row = 0; row < 3; ++row) {
        FrameDouble frame(4, 3);
        frame.refusedRow = row;
        EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_WRITE);
        EXPECT_EQ(frame.queries.size(), std::size_t(row) + 1);
    }
}

TEST_F(TiffWriter, ExceptionsOfTheFrameBecomeErrors)
{
    FrameDouble frame(4, 3);
    frame.fill = [](const FrameDouble::Query&, unsigned char*) { throw std::runtime_error("frame"); };
    EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_WRITE);
    frame.fill = [](const FrameDouble::Query&, unsigned char*) { throw IMGERR_MEMORY; };
    EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_MEMORY);
}

TEST_F(TiffWriter, FullDeviceIsAWriteErrorWhateverTheSize)
{
    for (const int height : { 1, 700 }) {
        FrameDouble frame(500, height);
        EXPECT_EQ(codeOf(SaveTIFFile_pb("/dev/full", frame, 0, noAlpha, 0)), IMGERR_WRITE);
        IMGINFO info = infoOf(500, height);
        std::vector<unsigned int> pixels(500 * std::size_t(height));
        EXPECT_EQ(codeOf(SaveTIFFile("/dev/full", &info, pixels.data())), IMGERR_WRITE);
    }
}

TEST_F(TiffWriter, NameThatCannotBeOpenedIsAnOpenError)
{
    FrameDouble frame(1, 1);
    unsigned int pixels[] = { 1 };
    IMGINFO info = infoOf(1, 1);
    const std::string name = m_folder / "none/a.tif";
    for (const ImgError& error :
        { SaveTIFFile_pb(name.c_str(), frame, 0, noAlpha, 0), SaveTIFFile(name.c_str(), &info, pixels) }) {
        EXPECT_EQ(error.code(), IMGERR_OPEN);
        EXPECT_STREQ(error.message(), "Failed to open file: 2");
        EXPECT_STREQ(error.function(), "makeOpenError");
    }
}

TEST_F(TiffWriter, EmptySizesAreWriteErrors)
{
    for (const auto& [width, height] : { std::pair(0, 4), { 4, 0 }, { -1, 4 }, { 4, -1 } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_WRITE);
        IMGINFO info = infoOf(width, height);
        unsigned int pixels[] = { 1 };
        EXPECT_EQ(codeOf(SaveTIFFile(m_name.c_str(), &info, pixels)), IMGERR_WRITE);
    }
}

TEST_F(TiffWriter, RowWiderThanAnIntCountsIsAMemoryError)
{
    FrameDouble frame(0x7FFFFFFF / 8, 1);
    EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_MEMORY);
    EXPECT_TRUE(frame.queries.empty());
}

TEST_F(TiffWriter, SizesAreLimitedByTheFormatAlone)
{
    // Strip tables and strips of tens of megabytes.
    for (const auto& [width, height, interleaved] :
        { std::tuple(1, 8500000, 1), { 1, 2900000, 0 }, { 4000000, 1, 1 } }) {
        set(width == 1 ? 8 : 32, interleaved);
        QUtils::FrameBuffer frame(width, height);
        ASSERT_EQ(frame.addChannel("color", 1, 3, QUtils::FrameSample::Packed8), 0);
        EXPECT_EQ(codeOf(SaveTIFFile_pb(m_name.c_str(), frame, 0, noAlpha, 0)), IMGERR_NONE)
            << width << ' ' << height;
        EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_IMAGELENGTH), unsigned(height));
    }
    IMGINFO info = infoOf(2200000, 8);
    std::vector<unsigned int> pixels(2200000 * 8);
    EXPECT_EQ(codeOf(SaveTIFFile(m_name.c_str(), &info, pixels.data())), IMGERR_NONE);
}

// --- The standard's conventions
// -----------------------------------------------------------------------------

TEST_F(TiffWriter, StandardFileSaysThatTheFourthSampleIsAlpha)
{
    FrameDouble frame(2, 2);
    ASSERT_EQ(codeOf(saveTiff(m_name.c_str(), frame, 0, 0, 0, {}, Conventions::Standard)), IMGERR_NONE);
    EXPECT_EQ(OpenTiff(m_name).extraSample(), EXTRASAMPLE_UNASSALPHA);
    ASSERT_EQ(codeOf(saveTiff(m_name.c_str(), frame, 0, noAlpha, 0, {}, Conventions::Standard)), IMGERR_NONE);
    EXPECT_FALSE(OpenTiff(m_name).has(TIFFTAG_EXTRASAMPLES));
}

TEST_F(TiffWriter, StandardRefusesEmptySizesBeforeTheFileIsMade)
{
    FrameDouble frame(0, 2);
    EXPECT_EQ(
        codeOf(saveTiff(m_name.c_str(), frame, 0, 0, 0, {}, Conventions::Standard)), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(m_name));
}

TEST_F(TiffWriter, StandardGoesOnToBigTiffWhereFourGigabytesAreTooSmall)
{
    // Refusing the first row shows the kind of file without four gigabytes.
    FrameDouble frame(20000, 20000);
    frame.refusedRow = 0;
    const TiffSaveOptions floats { 32, true };
    EXPECT_EQ(codeOf(saveTiff(m_name.c_str(), frame, 0, 0, 0, floats, Conventions::Standard)), IMGERR_WRITE);
    EXPECT_EQ(readFile(m_name).at(2), 43);
    EXPECT_EQ(codeOf(saveTiff(m_name.c_str(), frame, 0, 0, 0, floats, Conventions::Renderer)), IMGERR_WRITE);
    EXPECT_EQ(readFile(m_name).at(2), 42);
}

} // namespace
