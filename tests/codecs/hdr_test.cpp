#include "rastkit/codecs/hdr.h"

#include "qutils/formats/rgbe.h"
#include "qutils/formats/rgbe_codec.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/hdr_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/corpus.h"
#include "support/frame_double.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/throwing_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::loadHdr;
using testing::AnyOf;
using Floats = std::vector<float>;

const std::string plainHeader = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

Bytes file(const std::string& header, const Bytes& pixels)
{
    Bytes bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), pixels.begin(), pixels.end());
    return bytes;
}

Bytes flat(const std::string& resolution, const Bytes& pixels)
{
    return file(plainHeader + resolution + "\n", pixels);
}

class Hdr : public testing::Test {
protected:
    std::string name() const { return m_folder / "image.hdr"; }
    const char* make(const Bytes& bytes)
    {
        std::filesystem::remove(name());
        writeFile(name(), bytes);
        m_name = name();
        return m_name.c_str();
    }

    struct Loaded {
        int code;
        RecordingBuffer sink;
        IMGINFO info;

        /// Red, green and blue of all pixels; -1 for those that are not there.
        Floats colors() const
        {
            Floats values;
            for (int y = 0; y < sink.height; ++y)
                for (int x = 0; x < sink.width; ++x) {
                    const auto found = sink.pixelsF.find({ x, y });
                    for (std::size_t i = 0; i < 3; ++i)
                        values.push_back(found == sink.pixelsF.end() ? -1 : found->second[i]);
                    if (found != sink.pixelsF.end()) {
                        EXPECT_EQ(found->second[3], 1.0f);
                    }
                }
            return values;
        }
    };
    Loaded load(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        Loaded loaded {};
        loaded.code = codeOf(loadHdr(make(bytes), loaded.sink, &loaded.info, conventions));
        return loaded;
    }
    int loadHeader(const Bytes& bytes, Conventions conventions = Conventions::Renderer)
    {
        IMGINFO info {};
        return codeOf(QUtils::loadHdrHeader(make(bytes), &info, conventions));
    }

private:
    TempDir m_folder;
    std::string m_name;
};

// --- Values ------------------------------------------------------------------------------------------------

TEST_F(Hdr, ValueIsMantissaTimesPowerOfTwoWithNothingAdded)
{
    const Loaded loaded = load(
        flat("-Y 1 +X 5", { 1, 2, 3, 136, 128, 64, 255, 129, 9, 9, 9, 0, 255, 0, 1, 255, 1, 255, 2, 1 }));
    EXPECT_EQ(loaded.code, IMGERR_NONE);
    EXPECT_EQ(loaded.colors(),
        (Floats { 1, 2, 3, 1, 0.5f, 255.0f / 128, 0, 0, 0, std::ldexp(255.0f, 119), 0, std::ldexp(1.0f, 119),
            std::ldexp(1.0f, -135), std::ldexp(255.0f, -135), std::ldexp(2.0f, -135) }));
    EXPECT_EQ(loaded.info.width, 5);
    EXPECT_EQ(loaded.info.height, 1);
    EXPECT_EQ(loaded.info.bitsPerPixel, 32);
    EXPECT_EQ(loaded.info.numChannels, 4);
    EXPECT_EQ(loaded.info.bytesPerPixel, 16);
}

TEST_F(Hdr, StandardDescribesTheFloatsThatItDelivers)
{
    const Bytes bytes = flat("-Y 1 +X 1", { 1, 2, 3, 136 });
    EXPECT_EQ(load(bytes, Conventions::Standard).info.bitsPerPixel, 128);
    EXPECT_EQ(load(bytes, Conventions::Standard).info.bytesPerPixel, 16);
}

TEST_F(Hdr, EveryInstructionSetGivesTheSameToTheBit)
{
    using namespace QUtils;
    std::mt19937 random;
    constexpr std::size_t width = 1021;
    std::vector<std::uint8_t> bytes(RgbePlanes::byteCount(width));
    for (auto& byte : bytes)
        byte = std::uint8_t(random());
    const RgbePlanes planes { bytes.data(), width };
    Floats rgb(3 * width);
    for (float& value : rgb) {
        const unsigned bits = unsigned(random());
        std::memcpy(&value, &bits, 4);
    }
    rgb[0] = NAN, rgb[1] = -1, rgb[2] = 0.5f;
    rgb[3] = INFINITY, rgb[4] = 1, rgb[5] = -INFINITY;
    const RgbeKernels& plain = *rgbeKernels(RgbeLevel::Scalar);
    for (std::size_t x = 0; x < width; ++x) {
        float rgba[4];
        plain.toRgba(planes, x, rgba, 1);
        const int e = planes.plane(3)[x];
        for (std::size_t i = 0; i < 3; ++i)
            ASSERT_EQ(rgba[i], e == 0 ? 0 : std::ldexp(float(planes.plane(i)[x]), e - 136)) << e;
    }
    for (const RgbeLevel level : { RgbeLevel::Sse41, RgbeLevel::Avx2 }) {
        const RgbeKernels* const kernels = rgbeKernels(level);
        if (!kernels)
            continue;
        for (const std::size_t count :
            { std::size_t(0), std::size_t(1), std::size_t(5), std::size_t(9), width }) {
            Floats expected(4 * count), rgba(4 * count);
            plain.toRgba(planes, 0, expected.data(), count);
            kernels->toRgba(planes, 0, rgba.data(), count);
            EXPECT_EQ(rgba, expected);
            Bytes expectedBytes(4 * count), pixels(4 * count);
            plain.fromRgb(rgb.data(), expectedBytes.data(), count);
            kernels->fromRgb(rgb.data(), pixels.data(), count);
            EXPECT_EQ(pixels, expectedBytes);
        }
    }
}

TEST_F(Hdr, WritingTruncatesMantissas)
{
    float rgb[] = { 1, 0.5f, 0.25f, 255.99f, 0.99f, 1.99f, 0, 0, 0, -1, NAN, 2, 1e-33f, 0, 0, INFINITY, 1, 0,
        1e-32f, 0, 0, 0.999999f, 0, 0 };
    Bytes bytes(32);
    QUtils::rgbeKernels().fromRgb(rgb, bytes.data(), 8);
    EXPECT_EQ(bytes,
        (Bytes { 128, 64, 32, 129, 255, 0, 1, 136, 0, 0, 0, 0, 0, 0, 128, 130, 0, 0, 0, 0, 255, 0, 0, 255,
            207, 0, 0, 22, 255, 0, 0, 128 }));
}

// --- Forms -------------------------------------------------------------------------------------------------

const Bytes rowOfRuns { 2, 2, 0, 8, //
    136, 5, 8, 1, 2, 3, 4, 5, 6, 7, 8, // A run of eight, eight different ones.
    3, 1, 1, 2, 133, 7, // Three, a run of five.
    132, 136, 4, 136, 136, 136, 136 };

Floats colorsOfRuns()
{
    Floats colors;
    for (int x = 0; x < 8; ++x)
        for (const float value : { 5.0f, float(x + 1), x < 2 ? 1.0f : x == 2 ? 2.0f : 7.0f })
            colors.push_back(value);
    return colors;
}

TEST_F(Hdr, NewRunLengthForm)
{
    EXPECT_EQ(load(flat("-Y 1 +X 8", rowOfRuns)).colors(), colorsOfRuns());
}

TEST_F(Hdr, OldRunLengthForm)
{
    // Twice; then 1 + 1 x 256 times.
    Bytes pixels { 1, 2, 3, 136, 1, 1, 1, 2, 4, 5, 6, 136, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 7, 8, 9, 136 };
    const Loaded loaded = load(flat("-Y 1 +X 262", pixels));
    ASSERT_EQ(loaded.code, IMGERR_NONE);
    const Floats colors = loaded.colors();
    EXPECT_EQ(Floats(colors.begin(), colors.begin() + 12), (Floats { 1, 2, 3, 1, 2, 3, 1, 2, 3, 4, 5, 6 }));
    EXPECT_EQ(Floats(colors.end() - 6, colors.end()), (Floats { 4, 5, 6, 7, 8, 9 }));
}

TEST_F(Hdr, BrokenScanlinesAreAReadError)
{
    const auto codeOfRow = [&](const Bytes& row) { return load(flat("-Y 1 +X 8", row)).code; };
    EXPECT_EQ(codeOfRow({ 2, 2, 0, 9, 137, 1, 137, 1, 137, 1, 137, 1 }), IMGERR_READ); // Another width.
    EXPECT_EQ(codeOfRow({ 2, 2, 0, 8, 137, 1, 136, 1, 136, 1, 136, 1 }), IMGERR_READ); // A run too long.
    EXPECT_EQ(codeOfRow({ 2, 2, 0, 8, 0, 1, 136, 1, 136, 1, 136, 1, 136, 1 }), IMGERR_READ); // A run of none.
    EXPECT_EQ(codeOfRow({ 2, 2, 0, 8, 9, 1, 2, 3, 4, 5, 6, 7, 8, 9, 136, 1, 136, 1, 136, 1 }), IMGERR_READ);
    EXPECT_EQ(codeOfRow({ 1, 1, 1, 8 }), IMGERR_READ); // Nothing to repeat.
    EXPECT_EQ(codeOfRow({ 1, 2, 3, 4, 1, 1, 1, 8 }), IMGERR_READ); // Past the row.
    Bytes none { 1, 2, 3, 4 };
    for (int i = 0; i < 100; ++i)
        none.insert(none.end(), { 1, 1, 1, 0 });
    EXPECT_EQ(codeOfRow(none), IMGERR_READ); // Runs of nothing.
}

TEST_F(Hdr, EveryCutKeepsTheWholeScanlines)
{
    Bytes two = rowOfRuns;
    two.insert(two.end(), rowOfRuns.begin(), rowOfRuns.end());
    const Bytes whole = flat("-Y 2 +X 8", two);
    const std::size_t begin = whole.size() - two.size();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Bytes part(whole.begin(), whole.begin() + std::ptrdiff_t(length));
        const Loaded loaded = load(part);
        EXPECT_EQ(loaded.code, length < begin ? IMGERR_FORMAT : IMGERR_READ) << length;
        EXPECT_EQ(loaded.sink.order.size(), length >= begin + rowOfRuns.size() ? 8u : 0u) << length;
        EXPECT_EQ(loadHeader(part), length < begin ? IMGERR_READ : IMGERR_NONE);
        EXPECT_EQ(loadHeader(part, Conventions::Standard), length < begin ? IMGERR_FORMAT : IMGERR_NONE);
    }
}

TEST_F(Hdr, LargePicturesComeBackThroughBothForms)
{
    constexpr int width = 1100, height = 300;
    std::mt19937 random;
    Bytes runs, plain;
    for (int y = 0; y < height; ++y) {
        Bytes planes[4];
        runs.insert(runs.end(), { 2, 2, width >> 8, width & 0xFF });
        for (Bytes& plane : planes)
            while (int(plane.size()) < width) {
                const int count
                    = std::min(int(random() % (random() % 2 ? 20 : 127) + 1), width - int(plane.size()));
                const bool isRun = random() % 2;
                runs.push_back(std::uint8_t(isRun ? count + 128 : count));
                const std::uint8_t value = std::uint8_t(random() % 250 + 2);
                for (int i = 0; i < count; ++i) {
                    plane.push_back(isRun ? value : std::uint8_t(random() % 250 + 2));
                    if (!isRun || i == 0)
                        runs.push_back(plane.back());
                }
            }
        for (std::size_t x = 0; x < width; ++x)
            for (const Bytes& plane : planes)
                plain.push_back(plane[x] == 2 && &plane == planes ? std::uint8_t(3) : plane[x]);
        // A flat scanline must not look like one of runs.
        plain[plain.size() - 4 * width] = 77;
    }
    QUtils::ImageF a, b;
    ASSERT_EQ(codeOf(LoadHDRFile(make(flat("-Y 300 +X 1100", runs)), a, nullptr)), IMGERR_NONE);
    ASSERT_EQ(codeOf(LoadHDRFile(make(flat("-Y 300 +X 1100", plain)), b, nullptr)), IMGERR_NONE);
    int different = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 1; x < width; ++x)
            for (int i = 1; i < 4; ++i)
                different += a.row(y)[4 * x + i] != b.row(y)[4 * x + i];
    EXPECT_EQ(different, 0);
    // The routines read the same.
    const QUtils::FilePtr in(std::fopen(make(flat("-Y 300 +X 1100", runs)), "rb"));
    int w = 0, h = 0;
    ASSERT_EQ(RGBE_ReadHeader(in, &w, &h, nullptr), 0);
    Floats row(3 * width);
    for (int y = 0; y < height; ++y) {
        ASSERT_EQ(RGBE_ReadPixels_RLE(in, row.data(), w, 1, 0), 0);
        for (int x = 0; x < width; ++x)
            for (int i = 0; i < 3; ++i)
                ASSERT_EQ(row[std::size_t(3 * x + i)], a.row(y)[4 * x + i]);
    }
    EXPECT_NE(RGBE_ReadPixels_RLE(in, row.data(), w, 1, 0), 0);
}

// --- Headers -----------------------------------------------------------------------------------------------

TEST_F(Hdr, HeadersThatAreReadAndThatAreNot)
{
    const Bytes pixel { 1, 2, 3, 136 };
    for (const char* const good :
        { "#?RGBE\n\n-Y 1 +X 1\n", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n",
            "#?X\r\n# note\nGAMMA=x\n\n-Y   1 +X  1\n", "#?RGBE\nFORMAT= 32-bit_rle_xyze \n\n+Y 1 -X 1\n" })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
            EXPECT_EQ(load(file(good, pixel), conventions).code, IMGERR_NONE) << good;
    for (const char* const bad :
        { "", "#", "RADIANCE\n\n-Y 1 +X 1\n", "#?RGBE\nFORMAT=other\n\n-Y 1 +X 1\n", "#?RGBE\n-Y 1 +X 1\n",
            "#?RGBE\n\n-Y 0 +X 1\n", "#?RGBE\n\n-Y 1 +X -1\n", "#?RGBE\n\n-Y 1 +Y 1\n", "#?RGBE\n\n-Y 1\n",
            "#?RGBE\n\n-Y 99999999999 +X 1\n", "#?RGBE\n\n1 1\n" })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            const Loaded loaded = load(file(bad, pixel), conventions);
            EXPECT_EQ(loaded.code, IMGERR_FORMAT) << bad;
            EXPECT_EQ(loaded.sink.initCalls, 0);
            EXPECT_EQ(loadHeader(file(bad, pixel), conventions),
                conventions == Conventions::Renderer ? IMGERR_READ : IMGERR_FORMAT);
        }
    EXPECT_EQ(
        load(file("#?RGBE\n" + std::string(100000, 'x') + "\n\n-Y 1 +X 1\n", pixel)).code, IMGERR_FORMAT);
    EXPECT_EQ(load(file("#?RGBE\n" + std::string(60000, 'x') + "\n\n-Y 1 +X 1\n", pixel)).code, IMGERR_NONE);
}

TEST_F(Hdr, RoutinesReadAndWriteTheRecord)
{
    rgbe_header_info info {};
    info.valid = 7;
    std::strcpy(info.programtype, "RADIANCE");
    info.gamma = 2.2f;
    info.exposure = 1e-9f;
    const QUtils::FilePtr stream(std::fopen(make({}), "w+b"));
    ASSERT_EQ(RGBE_WriteHeader(stream, 7, 5, &info), 0);
    ASSERT_EQ(RGBE_WriteHeader(stream, 7, 5, nullptr), 0);
    std::fflush(stream);
    const Bytes bytes = readFile(name());
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
        "#?RADIANCE\nGAMMA=2.2\nEXPOSURE=1e-09\nFORMAT=32-bit_rle_rgbe\n\n-Y 5 +X 7\n"
        "#?RGBE\nFORMAT=32-bit_rle_rgbe\n\n-Y 5 +X 7\n");
    std::rewind(stream);
    rgbe_header_info read {};
    int width = 0, height = 0;
    ASSERT_EQ(RGBE_ReadHeader(stream, &width, &height, &read), 0);
    EXPECT_EQ(read.valid, 7);
    EXPECT_STREQ(read.programtype, "RADIANCE");
    EXPECT_EQ(read.gamma, 2.2f);
    EXPECT_EQ(read.exposure, 1e-9f);
    EXPECT_EQ(width, 7);
    EXPECT_EQ(height, 5);
    ASSERT_EQ(RGBE_ReadHeader(stream, &width, &height, &read), 0); // The stream stands behind what was read.
    EXPECT_EQ(read.valid, 1);
}

TEST_F(Hdr, LinesMayHoldZeroBytes)
{
    std::string header = "#?RGBE\nnote _\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n";
    header[header.find('_')] = '\0';
    EXPECT_EQ(load(file(header, { 1, 2, 3, 136 })).colors(), (Floats { 1, 2, 3 }));
    const QUtils::FilePtr stream(std::fopen(name().c_str(), "rb"));
    int width = 0, height = 0;
    float rgb[3] = {};
    ASSERT_EQ(RGBE_ReadHeader(stream, &width, &height, nullptr), 0);
    ASSERT_EQ(RGBE_ReadPixels_RLE(stream, rgb, 1, 1, 0), 0);
    EXPECT_EQ(rgb[2], 3);
}

TEST_F(Hdr, OrientationCountsForTheStandardAlone)
{
    const Bytes pixels { 1, 0, 0, 136, 2, 0, 0, 136, 3, 0, 0, 136, 4, 0, 0, 136, 5, 0, 0, 136, 6, 0, 0, 136 };
    const auto reds = [&](const char* resolution, Conventions conventions) {
        const Loaded loaded = load(flat(resolution, pixels), conventions);
        EXPECT_EQ(loaded.code, IMGERR_NONE) << resolution;
        EXPECT_EQ(loaded.sink.width, 3);
        Floats values;
        const Floats colors = loaded.colors();
        for (std::size_t i = 0; i < colors.size(); i += 3)
            values.push_back(colors[i]);
        return values;
    };
    const Floats plain { 1, 2, 3, 4, 5, 6 };
    for (const char* const resolution : { "-Y 2 +X 3", "+Y 2 +X 3", "-Y 2 -X 3", "+Y 2 -X 3" })
        EXPECT_EQ(reds(resolution, Conventions::Renderer), plain);
    EXPECT_EQ(reds("-Y 2 +X 3", Conventions::Standard), plain);
    EXPECT_EQ(reds("+Y 2 +X 3", Conventions::Standard), (Floats { 4, 5, 6, 1, 2, 3 }));
    EXPECT_EQ(reds("-Y 2 -X 3", Conventions::Standard), (Floats { 3, 2, 1, 6, 5, 4 }));
    EXPECT_EQ(reds("+Y 2 -X 3", Conventions::Standard), (Floats { 6, 5, 4, 3, 2, 1 }));
    EXPECT_EQ(reds("+X 3 -Y 2", Conventions::Standard), (Floats { 1, 3, 5, 2, 4, 6 }));
    EXPECT_EQ(reds("-X 3 -Y 2", Conventions::Standard), (Floats { 5, 3, 1, 6, 4, 2 }));
    EXPECT_EQ(reds("+X 3 +Y 2", Conventions::Standard), (Floats { 2, 4, 6, 1, 3, 5 }));
    EXPECT_EQ(reds("-X 3 +Y 2", Conventions::Standard), (Floats { 6, 4, 2, 5, 3, 1 }));
    EXPECT_EQ(load(flat("+X 3 -Y 2", pixels)).code, IMGERR_FORMAT);
    EXPECT_EQ(loadHeader(flat("+X 3 -Y 2", pixels)), IMGERR_READ);
}

TEST_F(Hdr, XyzIsConvertedForTheStandardAlone)
{
    const Bytes bytes = file("#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n", { 128, 128, 128, 129 });
    EXPECT_EQ(load(bytes).colors(), (Floats { 1, 1, 1 }));
    for (const float value : load(bytes, Conventions::Standard).colors())
        EXPECT_NEAR(value * 179, 1, 1e-5); // White stays white; a watt has 179 lumens.
    const Bytes y = file("#?RADIANCE\nFORMAT=32-bit_rle_xyze\n\n-Y 1 +X 1\n", { 0, 128, 0, 129 });
    EXPECT_NEAR(load(y, Conventions::Standard).colors()[1] * 179, 1.978, 1e-3);
}

// --- Sinks and failures ------------------------------------------------------------------------------------

TEST_F(Hdr, MissingFileIsAnOpenError)
{
    RecordingBuffer sink;
    IMGINFO info {};
    for (const ImgError& error :
        { LoadHDRFile("/nowhere/a.hdr", sink, &info), LoadHDRHeader("/nowhere/a.hdr", &info) }) {
        EXPECT_EQ(error.code(), IMGERR_OPEN);
        EXPECT_STREQ(error.function(), "makeOpenError");
    }
}

TEST_F(Hdr, SinkThatIsNotValidIsAMemoryErrorAndInfoMayBeNull)
{
    RecordingBuffer sink;
    sink.refuse = true;
    EXPECT_EQ(codeOf(LoadHDRFile(make(flat("-Y 1 +X 8", rowOfRuns)), sink, nullptr)), IMGERR_MEMORY);
    EXPECT_EQ(sink.freeCalls, 0);
    EXPECT_EQ(codeOf(LoadHDRHeader(name().c_str(), nullptr)), IMGERR_NONE);
}

TEST_F(Hdr, ExceptionOfTheSinkReachesTheCallerWithTheFileClosed)
{
    make(flat("-Y 1 +X 8", rowOfRuns));
    ThrowingSink sink;
    sink.throwAtPixel = 3;
    const int before = openFiles();
    EXPECT_THROW((void)LoadHDRFile(name().c_str(), sink, nullptr), std::runtime_error);
    EXPECT_EQ(openFiles(), before);
    EXPECT_EQ(sink.freeCalls, 1);
}

TEST_F(Hdr, LargestSizesOfASmallFileAreAReadErrorAndTakeLittleMemory)
{
    for (const char* const resolution : { "-Y 2147483647 +X 2147483647", "-Y 1 +X 2147483647",
             "-Y 2147483647 +X 1", "-Y 2147483647 +X 8", "-Y 1 +X 40000" })
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
            EXPECT_EQ(load(flat(resolution, Bytes(3, 1)), conventions).code, IMGERR_READ);
}

// --- Writing -----------------------------------------------------------------------------------------------

const std::string writtenHeader = "#?RGBE\nGAMMA=1\nEXPOSURE=1\nFORMAT=32-bit_rle_rgbe\n\n";

TEST_F(Hdr, ArraysAreWrittenFlatFromTheTop)
{
    float pixels[] = { 1, 2, 3, 4, 5, 6 };
    IMGINFO info {};
    info.width = 1;
    info.height = 2;
    EXPECT_EQ(codeOf(SaveHDRFile(name().c_str(), &info, pixels)), IMGERR_NONE);
    EXPECT_EQ(
        readFile(name()), file(writtenHeader + "-Y 2 +X 1\n", { 64, 128, 192, 130, 128, 160, 192, 131 }));
    for (const auto& [width, height] : { std::pair(-1, 2), { 2, -1 }, { 0, 0 }, { INT_MIN, INT_MAX } }) {
        info.width = width;
        info.height = height;
        EXPECT_EQ(codeOf(SaveHDRFile(name().c_str(), &info, nullptr)), IMGERR_NONE);
        EXPECT_EQ(readFile(name()),
            file(writtenHeader + "-Y " + std::to_string(height) + " +X " + std::to_string(width) + "\n", {}));
    }
}

TEST_F(Hdr, FloatDispatcherHandsFourFloatsAPixelToTheWriterOfThree)
{
    // Deliberate: a pixel begins where the one of three floats before it ends.
    float pixels[] = { 1, 2, 3, 1, 4, 5, 6, 1 };
    IMGINFO info {};
    info.width = 2;
    info.height = 1;
    EXPECT_EQ(codeOf(SaveImageFile(name().c_str(), &info, pixels)), IMGERR_NONE);
    EXPECT_EQ(load(readFile(name())).colors(), (Floats { 1, 2, 3, 1, 4, 5 }));
}

TEST_F(Hdr, FrameIsAskedForItsColorsAlone)
{
    FrameDouble frame(2, 2);
    const CorrectingPlugin plugin(frame);
    frame.fill = [](const FrameDouble::Query& query, unsigned char* dest) {
        const float row[6] = { float(query.region.top + 1), 0, 0, 0, 1, 0 };
        std::memcpy(dest, row, sizeof row);
    };
    Bytes without;
    for (const int alphaChannel : { -1, 3 }) {
        frame.queries.clear();
        EXPECT_EQ(codeOf(SaveHDRFile_pb(name().c_str(), frame, 4, alphaChannel, 0xFFFF)), IMGERR_NONE);
        const Bytes bytes = readFile(name());
        EXPECT_EQ(bytes,
            file(writtenHeader + "-Y 2 +X 2\n",
                { 128, 0, 0, 129, 0, 128, 0, 129, 128, 0, 0, 130, 0, 128, 0, 129 }));
        ASSERT_EQ(frame.queries.size(), 2u);
        for (int y = 0; y < 2; ++y) {
            const FrameDouble::Query& query = frame.queries[std::size_t(y)];
            EXPECT_EQ(query.channel, 4);
            EXPECT_EQ(query.alphaChannel, -1);
            EXPECT_EQ(query.format, 203);
            EXPECT_EQ(query.rowBytes, 24);
            EXPECT_EQ(query.region.top, y);
            EXPECT_EQ(query.argument0, 1);
            EXPECT_EQ(query.mode, -1); // Never corrected pixels.
        }
    }
    frame.refusedRow = 1;
    EXPECT_EQ(codeOf(SaveHDRFile_pb(name().c_str(), frame, 4, -1, 0)), IMGERR_WRITE);
    EXPECT_EQ(readFile(name()), file(writtenHeader + "-Y 2 +X 2\n", { 128, 0, 0, 129, 0, 128, 0, 129 }));
}

TEST_F(Hdr, FramesThatCannotBeAskedAreAMemoryErrorBehindTheHeader)
{
    for (const int width : { INT_MAX, -1 }) {
        FrameDouble frame(width, 1);
        EXPECT_EQ(codeOf(SaveHDRFile_pb(name().c_str(), frame, 0, -1, 0)), IMGERR_MEMORY);
        EXPECT_TRUE(frame.queries.empty());
    }
    FrameDouble empty(0, 1);
    EXPECT_EQ(codeOf(saveHdr("/nowhere/x", empty, 0, Conventions::Standard)), IMGERR_UNSUPPORTED);
    EXPECT_EQ(codeOf(saveHdr("/nowhere/x", empty, 0, Conventions::Renderer)), IMGERR_OPEN);
}

TEST_F(Hdr, FullDeviceIsNoticedAtTheHeader)
{
    FrameDouble frame(100, 100);
    EXPECT_EQ(codeOf(SaveHDRFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_WRITE);
    EXPECT_EQ(codeOf(saveHdr("/dev/full", frame, 0, Conventions::Standard)), IMGERR_WRITE);
    IMGINFO info {};
    EXPECT_EQ(codeOf(SaveHDRFile("/dev/full", &info, nullptr)), IMGERR_WRITE);
    const QUtils::FilePtr full(std::fopen("/dev/full", "wb"));
    std::setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(codeOf(PrepareAndWriteHDRHeader(full, 1, 1)), IMGERR_WRITE);
}

/// Lets files of this process grow to so many bytes and no further, while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN))
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
    void (*m_handler)(int);
    rlimit m_before {};
};

TEST_F(Hdr, PixelsThatDoNotReachTheDiskAreNoticedByTheStandardAlone)
{
    FrameDouble frame(100, 100), standard(100, 100);
    IMGINFO info {};
    info.width = info.height = 100;
    Floats pixels(100 * 100 * 3, 1.0f);
    int ofArray = 0, ofFrame = 0, ofStandard = 0;
    {
        const FileSizeLimit limit(200);
        ofArray = codeOf(SaveHDRFile(name().c_str(), &info, pixels.data()));
        ofFrame = codeOf(SaveHDRFile_pb(name().c_str(), frame, 0, -1, 0));
        ofStandard = codeOf(saveHdr(name().c_str(), standard, 0, Conventions::Standard));
    }
    EXPECT_EQ(ofArray, IMGERR_NONE);
    EXPECT_EQ(ofFrame, IMGERR_NONE);
    EXPECT_EQ(frame.queries.size(), 100u);
    EXPECT_EQ(ofStandard, IMGERR_WRITE);
}

TEST_F(Hdr, RoutineWritesPixelsFlat)
{
    Floats pixels { 1, 0.5f, 0.25f, 0, 0, 0, -1, 3, std::numeric_limits<float>::quiet_NaN() };
    pixels.resize(3 * 3000, 2.0f); // More than are turned at once.
    {
        const QUtils::FilePtr file(std::fopen(name().c_str(), "wb"));
        EXPECT_EQ(RGBE_WritePixels(file, pixels.data(), 0), 0);
        EXPECT_EQ(RGBE_WritePixels(file, pixels.data(), 3000), 0);
    }
    const Bytes bytes = readFile(name());
    ASSERT_EQ(bytes.size(), 4 * 3000u);
    const Bytes first(bytes.begin(), bytes.begin() + 16);
    EXPECT_EQ(first, (Bytes { 128, 64, 32, 129, 0, 0, 0, 0, 0, 192, 0, 130, 128, 128, 128, 130 }));
    EXPECT_EQ(Bytes(bytes.end() - 4, bytes.end()), (Bytes { 128, 128, 128, 130 }));
    const QUtils::FilePtr full(std::fopen("/dev/full", "wb"));
    std::setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_NE(RGBE_WritePixels(full, pixels.data(), 3000), 0);
}

// --- Real files --------------------------------------------------------------------------------------------

class HdrCorpus : public CorpusTest { };

TEST_F(HdrCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    const std::set<std::string> readable = filesReadByOthers();
    int compared = 0;
    for (const std::string& name : corpusFiles("hdr"))
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            QUtils::ImageF image;
            IMGINFO info {}, described {};
            const int code = codeOf(loadHdr(path(name).c_str(), image, &info, conventions));
            EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY)) << name;
            const int headerCode = codeOf(QUtils::loadHdrHeader(path(name).c_str(), &described, conventions));
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << name;
                EXPECT_EQ(described.width, info.width) << name;
            }
            // The others do not know the old run-length form.
            EXPECT_EQ(code == IMGERR_NONE, readable.count(name) || name == "hdr/image/old-rle.hdr") << name;
            const auto [begin, end] = allFigures.equal_range(name);
            if (begin == end || code != IMGERR_NONE)
                continue;
            const PixelFigures ours = figuresOf(image, 3);
            // OpenImageIO adds half a step to each mantissa.
            double largest = 1;
            for (const double value : begin->second.maximum)
                largest = std::max(largest, value);
            EXPECT_TRUE(agree(ours, begin->second, 3, largest / 128)) << name << '\n'
                                                                      << toText(begin->second) << '\n'
                                                                      << toText(ours);
            ++compared;
        }
    EXPECT_GE(compared, 10);
}

} // namespace
