#include "qutils/core/ptr_array.h"
#include "rastkit/buffers.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/formats.h"
#include "rastkit/image/standard_save.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/open_files.h"
#include "support/run_program.h"
#include "support/temp_file.h"

#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfOutputFile.h>
#include <ImfRgbaFile.h>
#include <ImfStringAttribute.h>
#include <ImfThreading.h>
#include <ImfVecAttribute.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <vector>

namespace {

using namespace testing_support;
using namespace QUtils;
namespace fs = std::filesystem;

// --- Files as OpenEXR reads them -------------------------------------------------------------------------

/// The samples of a file by channel, as they are stored; UINT ones by their bits.
struct ExrContent {
    Imf::Header header;
    std::map<std::string, std::vector<float>> floats;
    std::map<std::string, std::vector<std::uint32_t>> numbers;
};

/// Reads the first `rows` rows of a file, all when negative.
ExrContent readExr(const std::string& name, int rows = -1)
{
    Imf::InputFile file(name.c_str());
    ExrContent content { file.header(), {}, {} };
    const Imath::Box2i window = file.header().dataWindow();
    const std::size_t width = std::size_t(window.max.x) + 1, count = width * (std::size_t(window.max.y) + 1);
    Imf::FrameBuffer slices;
    for (auto it = file.header().channels().begin(); it != file.header().channels().end(); ++it) {
        const bool isNumber = it.channel().type == Imf::UINT;
        char* base = nullptr;
        if (isNumber) {
            auto& samples = content.numbers[it.name()];
            samples.resize(count);
            base = reinterpret_cast<char*>(samples.data());
        } else {
            auto& samples = content.floats[it.name()];
            samples.resize(count);
            base = reinterpret_cast<char*>(samples.data());
        }
        slices.insert(it.name(), Imf::Slice(isNumber ? Imf::UINT : Imf::FLOAT, base, 4, 4 * width));
    }
    file.setFrameBuffer(slices);
    if (rows != 0)
        file.readPixels(0, rows < 0 ? window.max.y : rows - 1);
    return content;
}

std::vector<std::string> channelsOf(const ExrContent& content)
{
    std::vector<std::string> names;
    for (auto it = content.header.channels().begin(); it != content.header.channels().end(); ++it)
        names.emplace_back(it.name());
    return names;
}

using Names = std::vector<std::string>;

// --- Frames ----------------------------------------------------------------------------------------------

/// A smooth picture with some values that halfs round, negative and bright ones.
float sampleAt(int x, int y, int component)
{
    return float(std::sin(x * 0.11 + component) + y * 0.013) * (component == 2 ? 3.7f : 1.0f);
}

void fillFloats(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int x = 0; x < query.region.width; ++x)
        for (int c = 0; c < 4; ++c) {
            const float sample = sampleAt(x, query.region.top, c);
            std::memcpy(dest + (std::size_t(x) * 4 + std::size_t(c)) * sizeof sample, &sample, sizeof sample);
        }
}

std::uint32_t numberAt(int x, int y)
{
    return std::uint32_t(x) * 2654435761u + std::uint32_t(y) * 40503u;
}

void fillNumbers(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int x = 0; x < query.region.width; ++x) {
        const std::uint32_t number = numberAt(x, query.region.top);
        std::memcpy(dest + std::size_t(x) * sizeof number, &number, sizeof number);
    }
}

FrameDouble floatFrame(int width, int height)
{
    FrameDouble frame(width, height);
    frame.fill = fillFloats;
    return frame;
}

float asHalf(float value)
{
    return float(half(value));
}

/// Compares the colour channels of a file with the frame's samples.
void expectFrame(const ExrContent& content, int width, int height, bool isHalf)
{
    const char* const names[] = { "R", "G", "B", "A" };
    for (int c = 0; c < 4; ++c) {
        const auto found = content.floats.find(names[c]);
        if (found == content.floats.end())
            continue;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const float expected = isHalf ? asHalf(sampleAt(x, y, c)) : sampleAt(x, y, c);
                const float read = found->second[std::size_t(y) * std::size_t(width) + std::size_t(x)];
                ASSERT_EQ(read, expected) << names[c] << " at " << x << ", " << y;
            }
    }
}

/// The file that OpenEXR makes of the whole frame at once, without this library.
Bytes bareFile(const std::string& name, const Imf::Header& header, int width, int height)
{
    std::map<std::string, std::vector<half>> halfs;
    std::map<std::string, std::vector<float>> floats;
    Imf::FrameBuffer slices;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
        const int component = int(std::string("RGBA").find(it.name()));
        for (int i = 0; i < width * height; ++i) {
            floats[it.name()].push_back(sampleAt(i % width, i / width, component));
            halfs[it.name()].emplace_back(floats[it.name()].back());
        }
        const bool isHalf = it.channel().type == Imf::HALF;
        char* const base = isHalf ? reinterpret_cast<char*>(halfs[it.name()].data())
                                  : reinterpret_cast<char*>(floats[it.name()].data());
        const std::size_t bytes = isHalf ? 2 : 4;
        slices.insert(it.name(), Imf::Slice(it.channel().type, base, bytes, bytes * std::size_t(width)));
    }
    {
        Imf::OutputFile file(name.c_str(), header);
        file.setFrameBuffer(slices);
        file.writePixels(height);
    }
    return readFile(name);
}

/// The settings are the process's: each test begins and ends with their defaults. Nothing is printed unless a
/// test expects it.
class ExrWriter : public testing::Test {
protected:
    ~ExrWriter() override
    {
        exrCompressionType = 0;
        exrBitsPerChannel = 32;
        exrExtraAttributes = CharString();
        exrCameraInfo = CameraInfo {};
        setThreadCount(0);
    }

    /// Saves a frame and notes what was printed.
    int save(PixelBufferInterface& frame, int alphaChannel = -1, int flags = 0)
    {
        testing::internal::CaptureStderr();
        const ImgError error = SaveEXRFile_pb(m_name.c_str(), frame, 0, alphaChannel, flags);
        m_printed = testing::internal::GetCapturedStderr();
        return error.code();
    }
    /// Saves a frame without trouble, and reads the file.
    ExrContent saved(PixelBufferInterface& frame, int alphaChannel = -1, int flags = 0)
    {
        EXPECT_EQ(save(frame, alphaChannel, flags), IMGERR_NONE);
        EXPECT_EQ(m_printed, "");
        return readExr(m_name);
    }
    ExrContent saved(int width, int height, int alphaChannel = -1)
    {
        FrameDouble frame = floatFrame(width, height);
        return saved(frame, alphaChannel);
    }

    TempDir m_dir;
    std::string m_name = m_dir / "a.exr";
    std::string m_printed;
};

// --- Frames: pixels --------------------------------------------------------------------------------------

TEST_F(ExrWriter, EverySizeHoldsTheFramesPixels)
{
    for (const int threads : { 0, 2 })
        for (const int bits : { 16, 32 })
            for (const auto& [width, height] :
                { std::pair(1, 1), { 7, 5 }, { 4097, 3 }, { 33, 70 }, { 5, 1100 } }) {
                setThreadCount(threads);
                exrBitsPerChannel = bits;
                const ExrContent content = saved(width, height, 0);
                EXPECT_EQ(content.header.dataWindow(), Imath::Box2i({ 0, 0 }, { width - 1, height - 1 }));
                EXPECT_EQ(content.header.displayWindow(), content.header.dataWindow());
                EXPECT_EQ(channelsOf(content), (Names { "A", "B", "G", "R" }));
                expectFrame(content, width, height, bits == 16);
            }
}

TEST_F(ExrWriter, EveryCompressionNumberHasItsCompression)
{
    const std::map<int, Imf::Compression> expected { { 1, Imf::NO_COMPRESSION }, { 2, Imf::RLE_COMPRESSION },
        { 3, Imf::ZIPS_COMPRESSION }, { 4, Imf::ZIP_COMPRESSION }, { 5, Imf::PIZ_COMPRESSION },
        { 6, Imf::PXR24_COMPRESSION }, { 7, Imf::B44_COMPRESSION }, { 8, Imf::B44A_COMPRESSION },
        { 9, Imf::DWAA_COMPRESSION }, { 10, Imf::DWAB_COMPRESSION } };
    for (const int threads : { 0, 2 })
        for (const int bits : { 16, 32 })
            for (int number = -1; number <= 12; ++number) {
                setThreadCount(threads);
                exrCompressionType = number;
                exrBitsPerChannel = bits;
                const ExrContent content = saved(70, 300, 0);
                const auto found = expected.find(number);
                EXPECT_EQ(content.header.compression(),
                    found == expected.end() ? Imf::ZIP_COMPRESSION : found->second)
                    << number;
                EXPECT_EQ(readFile(m_name), bareFile(m_dir / "bare.exr", content.header, 70, 300)) << number;
                if (number < 6 || number > 10)
                    expectFrame(content, 70, 300, bits == 16);
            }
}

TEST_F(ExrWriter, ExtremeCompressionNumbersAreZip)
{
    for (const int number : { std::numeric_limits<int>::min(), std::numeric_limits<int>::max() }) {
        exrCompressionType = number;
        EXPECT_EQ(saved(2, 2).header.compression(), Imf::ZIP_COMPRESSION);
    }
}

TEST_F(ExrWriter, OnlyThirtyTwoBitsAreFloats)
{
    for (const int bits : { 32, 16, 8, 0, -1, 64 }) {
        exrBitsPerChannel = bits;
        const ExrContent content = saved(3, 2);
        for (const char* name : { "R", "G", "B" })
            EXPECT_EQ(content.header.channels()[name].type, bits == 32 ? Imf::FLOAT : Imf::HALF) << bits;
    }
}

TEST_F(ExrWriter, FilesWithoutAlphaHaveThreeChannels)
{
    EXPECT_EQ(channelsOf(saved(3, 2)), (Names { "B", "G", "R" }));
    EXPECT_EQ(channelsOf(saved(3, 2, -7)), (Names { "B", "G", "R" }));
    EXPECT_EQ(channelsOf(saved(3, 2, 0)), (Names { "A", "B", "G", "R" }));
}

TEST_F(ExrWriter, HeaderIsPlain)
{
    const Imf::Header header = saved(6, 4).header;
    EXPECT_EQ(header.pixelAspectRatio(), 1.0f);
    EXPECT_EQ(header.screenWindowCenter(), Imath::V2f(0, 0));
    EXPECT_EQ(header.screenWindowWidth(), 1.0f);
    EXPECT_EQ(header.lineOrder(), Imf::INCREASING_Y);
    const Imf::Header plain(6, 4);
    for (auto it = header.begin(); it != header.end(); ++it)
        EXPECT_TRUE(plain.find(it.name()) != plain.end()) << it.name();
}

TEST_F(ExrWriter, SpecialFloatsStayThemselves)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::array<float, 8> samples { 0.0f, -0.0f, infinity, -infinity, nan, 65504.0f, 70000.0f, 3e-8f };
    FrameDouble frame(2, 1);
    frame.fill = [&](const FrameDouble::Query&, unsigned char* dest) {
        std::memcpy(dest, samples.data(), sizeof samples);
    };
    for (const int bits : { 16, 32 }) {
        exrBitsPerChannel = bits;
        const ExrContent content = saved(frame, 0);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const float expected = bits == 32 ? samples[i] : asHalf(samples[i]);
            const float read = content.floats.at(std::string(1, "RGBA"[i % 4]))[i / 4];
            EXPECT_EQ(std::isnan(read), std::isnan(expected));
            if (!std::isnan(expected)) {
                EXPECT_EQ(std::bit_cast<std::uint32_t>(read), std::bit_cast<std::uint32_t>(expected)) << i;
            }
        }
    }
}

/// Of every half, the floats that round to it or to its neighbour.
TEST(ExrHalf, KernelsRoundAsOpenExrDoes)
{
    std::vector<float> floats;
    for (std::uint32_t bits = 0; bits <= 0xFFFF; ++bits) {
        half value;
        value.setBits(std::uint16_t(bits));
        const std::uint32_t exact = std::bit_cast<std::uint32_t>(float(value));
        for (const std::uint32_t step : { 0u, 1u, 0xFFFu, 0x1000u, 0x1001u, 0x1FFFu, 0x800u, 0x7FFFFFu })
            floats.push_back(std::bit_cast<float>(exact + step));
    }
    for (std::uint32_t bits = 0; bits < 0x38800000u + 0x2000; bits += 0x3FF) // Those whose half is denormal.
        floats.push_back(std::bit_cast<float>(bits));
    for (const SimdLevel level : { SimdLevel::Scalar, SimdLevel::Sse41, SimdLevel::Avx2 }) {
        const PixelKernels* const kernels = pixelKernels(level);
        if (!kernels)
            continue;
        std::vector<std::uint16_t> halfs(floats.size());
        kernels->floatToHalf(floats.data(), halfs.data(), floats.size());
        for (std::size_t i = 0; i < floats.size(); ++i) {
            if (std::isnan(floats[i])) {
                ASSERT_EQ(halfs[i] & 0x7C00, 0x7C00) << i;
            } else {
                ASSERT_EQ(halfs[i], half(floats[i]).bits()) << floats[i];
            }
        }
    }
}

// --- Frames: what is asked -------------------------------------------------------------------------------

TEST_F(ExrWriter, RowsAreAskedForOnceAndInOrder)
{
    for (const int threads : { 0, 2 }) {
        setThreadCount(threads);
        FrameDouble frame = floatFrame(5, 101);
        saved(frame, 3);
        ASSERT_EQ(frame.queries.size(), 101u);
        for (int y = 0; y < 101; ++y) {
            const FrameDouble::Query& q = frame.queries[std::size_t(y)];
            const PixelBufferRegion& r = q.region;
            EXPECT_EQ((std::array {
                          r.left, r.top, r.right, r.bottom, r.width, r.height, r.reserved0, r.reserved1 }),
                (std::array { 0, y, 5, y + 1, 5, 1, 0, 0 }));
            EXPECT_EQ((std::array { q.channel, q.alphaChannel, q.format, q.rowBytes, q.mode }),
                (std::array { 0, 3, 303, 80, -1 }));
            EXPECT_EQ((std::array { q.argument0, q.argument1, q.argument2 }), (std::array { 0, 0, 0 }));
        }
    }
}

TEST_F(ExrWriter, IntegerChannelsAreOneOfNumbersWhenTheFlagAsksForIt)
{
    for (const int threads : { 0, 2 }) {
        setThreadCount(threads);
        FrameDouble frame(33, 70, { { "object id", 100, PIXELKIND_INTEGER } });
        frame.fill = fillNumbers;
        const ExrContent content = saved(frame, 0, SAVE_EXR_INTEGER);
        EXPECT_EQ(channelsOf(content), (Names { "object id" }));
        EXPECT_EQ(content.header.channels()["object id"].type, Imf::UINT);
        EXPECT_EQ(frame.queries[0].format, 102);
        EXPECT_EQ(frame.queries[0].rowBytes, 33 * 4);
        EXPECT_EQ(frame.queries[0].alphaChannel, 0);
        for (int y = 0; y < 70; ++y)
            for (int x = 0; x < 33; ++x)
                ASSERT_EQ(content.numbers.at("object id")[std::size_t(y * 33 + x)], numberAt(x, y));
    }
}

TEST_F(ExrWriter, OtherChannelsAreColoursAlsoWithTheIntegerFlag)
{
    FrameDouble color(2, 1, { { "a", 1, PIXELKIND_COLOR } });
    EXPECT_EQ(channelsOf(saved(color, -1, SAVE_EXR_INTEGER)), (Names { "B", "G", "R" }));
    FrameDouble unflagged(2, 1, { { "a", 1, PIXELKIND_INTEGER } });
    EXPECT_EQ(channelsOf(saved(unflagged, -1, ~SAVE_EXR_INTEGER)), (Names { "B", "G", "R" }));
    FrameDouble undescribed(2, 1, { { "a", 1, PIXELKIND_INTEGER, false } });
    EXPECT_EQ(channelsOf(saved(undescribed, -1, SAVE_EXR_INTEGER)), (Names { "B", "G", "R" }));
}

TEST_F(ExrWriter, EveryIntegerChannelHasANameThatOpenExrTakes)
{
    std::string umlauts;
    for (int i = 0; i < 200; ++i)
        umlauts += "\xC3\xA4";
    for (const auto& [name, expected] : { std::pair<std::string, std::string>("", "channel"),
             { std::string(300, 'n'), std::string(255, 'n') }, { umlauts, umlauts.substr(0, 254) },
             { std::string(300, '\x80'), std::string(255, '\x80') },
             { std::string(255, 'm'), std::string(255, 'm') } }) {
        FrameDouble frame(2, 1, { { name, 100, PIXELKIND_INTEGER } });
        EXPECT_EQ(channelsOf(saved(frame, -1, SAVE_EXR_INTEGER)), (Names { expected }));
    }
}

TEST_F(ExrWriter, OnlyChannelsOfType113AreTakenCorrectedAndOnlyWithTheFlag)
{
    const struct {
        int flags, id;
        bool described;
        int mode;
    } cases[] = { { SAVE_EXR_CORRECTED, 113, true, 2 }, { SAVE_EXR_CORRECTED | 0x200, 113, true, 2 },
        { ~SAVE_EXR_CORRECTED, 113, true, -1 }, { SAVE_EXR_CORRECTED, 1, true, -1 },
        { SAVE_EXR_CORRECTED, 113, false, -1 } };
    for (const auto& c : cases) {
        FrameDouble frame(2, 3, { { "a", c.id, PIXELKIND_COLOR, c.described } });
        CorrectingPlugin plugin(frame);
        saved(frame, 0, c.flags);
        ASSERT_EQ(frame.queries.size(), 3u);
        for (const FrameDouble::Query& query : frame.queries) {
            EXPECT_EQ(query.mode, c.mode);
            EXPECT_EQ(
                (std::array { query.argument0, query.argument1, query.argument2 }), (std::array { 0, 0, 0 }));
        }
    }
    FrameDouble plain(2, 3, { { "a", 113 } });
    saved(plain, 0, SAVE_EXR_CORRECTED);
    PluginBase empty; // Offers nothing.
    plain.plugin = &empty;
    saved(plain, 0, SAVE_EXR_CORRECTED);
    EXPECT_EQ(plain.queries.back().mode, -1);
}

// --- Frames: attributes ----------------------------------------------------------------------------------

TEST_F(ExrWriter, ValidCamerasBecomeElevenAttributes)
{
    CameraInfo camera {};
    for (int i = 0; i < 16; ++i)
        camera.transform[i / 4][i % 4] = float(i);
    camera.projection = 3;
    float number = 20;
    for (float* field : { &camera.aperture, &camera.fov, &camera.targetDistance, &camera.nearRange,
             &camera.farRange, &camera.nearClip, &camera.farClip, &camera.focalLength, &camera.fNumber })
        *field = number++;
    exrCameraInfo = camera;
    const Imf::Header without = saved(2, 2).header;
    for (auto it = without.begin(); it != without.end(); ++it)
        EXPECT_NE(std::string(it.name()).substr(0, 6), "camera");

    exrCameraInfo.valid = 1;
    const Imf::Header header = saved(2, 2).header;
    EXPECT_EQ(header.typedAttribute<Imf::M44fAttribute>("cameraTransform").value(),
        Imath::M44f(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("cameraProjection").value(), 3);
    number = 20;
    for (const char* name : { "cameraAperture", "cameraFov", "cameraTargetDistance", "cameraNearRange",
             "cameraFarRange", "cameraNearClip", "cameraFarClip", "cameraFocalLength", "cameraFNumber" })
        EXPECT_EQ(header.typedAttribute<Imf::FloatAttribute>(name).value(), number++) << name;
}

TEST_F(ExrWriter, ExtraAttributesAreInTheFile)
{
    const CharString text("owner=me; shot = 12; tint=(1,0.5,0); comments='a b'");
    exrExtraAttributes = text;
    const Imf::Header header = saved(2, 2).header;
    EXPECT_EQ(header.typedAttribute<Imf::StringAttribute>("owner").value(), "me");
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("shot").value(), 12);
    EXPECT_EQ(header.typedAttribute<Imf::V3fAttribute>("tint").value(), Imath::V3f(1, 0.5f, 0));
    EXPECT_EQ(header.typedAttribute<Imf::StringAttribute>("comments").value(), "a b");
    EXPECT_STREQ(text.c_str(), "owner=me; shot = 12; tint=(1,0.5,0); comments='a b'");
}

TEST_F(ExrWriter, AttributesNeverFailTheWrite)
{
    CameraInfo camera {};
    camera.valid = 1;
    camera.fov = 40;
    exrCameraInfo = camera;
    for (const char* text :
        { "a", "=", "cameraFov=wide; cameraAperture=1.5", "dataWindow=(0,0,9,9)", "displayWindow=(9,9,0,0)",
            "type=tiledimage; tiles=(32,32)", "pixelAspectRatio=2", "preview=(1,2)", "multiView=left",
            "envmap=0", "chromaticities=1; timeCode=x; keyCode=y; view=1; chunkCount=5",
            "maxSamplesPerPixel=7; isComplete=1; idManifest=2", "a=1;a='';b='" }) {
        exrExtraAttributes = CharString(text);
        FrameDouble frame = floatFrame(7, 40);
        EXPECT_EQ(save(frame), IMGERR_NONE) << text;
        EXPECT_NO_THROW(expectFrame(readExr(m_name), 7, 40, false)) << text;
    }
    EXPECT_EQ(readExr(m_name).header.typedAttribute<Imf::FloatAttribute>("cameraFov").value(), 40);
}

TEST_F(ExrWriter, CompressionLevelsOfAnyKindDoNotFailTheWrite)
{
    for (const int bits : { 16, 32 })
        for (const char* level : { "0.0", "-1.0", "1e30", "1e39", "-1e39", "1e-30", "45.0", "100", "x" }) {
            exrBitsPerChannel = bits;
            exrCompressionType = 9;
            exrExtraAttributes = CharString((std::string("dwaCompressionLevel=") + level).c_str());
            FrameDouble frame = floatFrame(70, 40);
            EXPECT_EQ(save(frame), IMGERR_NONE) << level;
            EXPECT_NO_THROW(static_cast<void>(readExr(m_name))) << level;
        }
}

TEST_F(ExrWriter, ErrorsOfExtraAttributesArePrintedAndTheFileIsWritten)
{
    exrExtraAttributes = CharString("a=1; b");
    FrameDouble frame = floatFrame(7, 5);
    EXPECT_EQ(save(frame), IMGERR_NONE);
    EXPECT_EQ(m_printed, "Unexpected end of stream at position 6\n");
    EXPECT_EQ(readExr(m_name).header.typedAttribute<Imf::IntAttribute>("a").value(), 1);
}

// --- Frames: failures ------------------------------------------------------------------------------------

/// What is in the file of a write that ended at row `y`: every complete chunk before it.
void expectRowsBefore(const std::string& name, int y, int chunk, int width)
{
    const int rows = y / chunk * chunk;
    const ExrContent content = readExr(name, rows);
    EXPECT_FALSE(Imf::InputFile(name.c_str()).isComplete());
    expectFrame(content, width, rows, false);
}

TEST_F(ExrWriter, ChunksBeforeARefusedRowAreInTheFile)
{
    for (const int threads : { 0, 2 })
        for (const auto& [compression, chunk] : { std::pair(1, 1), { 0, 16 }, { 5, 32 } })
            for (const int refused : { 0, 1, 15, 16, 17, 33, 63, 64, 65, 255, 256, 257, 513, 799 }) {
                setThreadCount(threads);
                exrCompressionType = compression;
                FrameDouble frame = floatFrame(9, 800);
                frame.refusedRow = refused;
                EXPECT_EQ(save(frame), IMGERR_WRITE);
                EXPECT_EQ(m_printed, "");
                EXPECT_EQ(frame.queries.size(), std::size_t(refused) + 1);
                SCOPED_TRACE(refused);
                expectRowsBefore(m_name, refused, chunk, 9);
            }
}

TEST_F(ExrWriter, ExceptionsOfTheFrameEndTheFileLikeARefusedRow)
{
    const int files = openFiles();
    for (const int threads : { 0, 2 })
        for (const bool isKnown : { true, false }) {
            setThreadCount(threads);
            FrameDouble frame = floatFrame(9, 600);
            frame.fill = [isKnown](const FrameDouble::Query& query, unsigned char* dest) {
                if (query.region.top == 520 && isKnown)
                    throw std::runtime_error("the renderer's own");
                if (query.region.top == 520)
                    throw 5;
                fillFloats(query, dest);
            };
            EXPECT_EQ(save(frame), IMGERR_WRITE);
            EXPECT_EQ(m_printed, isKnown ? "the renderer's own\n" : "");
            expectRowsBefore(m_name, 520, 16, 9);
        }
    setThreadCount(0);
    EXPECT_EQ(openFiles(), files);
}

/// A frame that throws when it is asked for anything but its pixels.
class ThrowingFrame : public FrameDouble {
public:
    using FrameDouble::FrameDouble;
    int getWidth() override { throw std::logic_error("no width"); }
};

TEST_F(ExrWriter, ExceptionsOfTheFramesQuestionsAreCaughtToo)
{
    ThrowingFrame frame(2, 2);
    EXPECT_EQ(save(frame), IMGERR_WRITE);
    EXPECT_EQ(m_printed, "no width\n");
    EXPECT_FALSE(fs::exists(m_name));
}

TEST_F(ExrWriter, EmptyFramesAreAWriteErrorAndMakeNoFile)
{
    for (const auto& [width, height] : { std::pair(0, 1), { 1, 0 }, { 0, 0 }, { -1, 5 }, { 5, -1 },
             { std::numeric_limits<int>::min(), 1 }, { 1, std::numeric_limits<int>::min() } }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(save(frame), IMGERR_WRITE) << width << " x " << height;
        EXPECT_EQ(std::count(m_printed.begin(), m_printed.end(), '\n'), 1) << m_printed;
        EXPECT_TRUE(frame.queries.empty());
        EXPECT_FALSE(fs::exists(m_name));
    }
}

TEST_F(ExrWriter, RowsOfMoreBytesThanAnIntCountsAreAMemoryError)
{
    FrameDouble frame(134217728, 1); // Times 16 bytes.
    EXPECT_EQ(save(frame), IMGERR_MEMORY);
    EXPECT_TRUE(frame.queries.empty());
    EXPECT_FALSE(fs::exists(m_name));
}

TEST_F(ExrWriter, FilesThatCannotBeMadeAreNamed)
{
    m_name = m_dir / "no/such/folder/a.exr";
    FrameDouble frame = floatFrame(2, 2);
    EXPECT_EQ(save(frame), IMGERR_WRITE);
    EXPECT_NE(m_printed.find(m_name), std::string::npos) << m_printed;
    EXPECT_EQ(std::count(m_printed.begin(), m_printed.end(), '\n'), 1);
    EXPECT_TRUE(frame.queries.empty());
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveEXRFile_pb(nullptr, frame, 0, -1, 0).code(), IMGERR_WRITE);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ExrWriter, FullDisksAreNoticedWheneverTheyShow)
{
    m_name = "/dev/full";
    const int files = openFiles();
    for (const int threads : { 0, 2 })
        for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 2000, 300 }, { 50, 1100 } }) {
            setThreadCount(threads);
            exrCompressionType = 1;
            FrameDouble frame = floatFrame(width, height);
            EXPECT_EQ(save(frame, 0), IMGERR_WRITE) << width;
        }
    setThreadCount(0);
    EXPECT_EQ(openFiles(), files);
}

// --- Frames: the standard's conventions ------------------------------------------------------------------

TEST_F(ExrWriter, StandardRefusesWhatCannotBeWrittenWithoutAWord)
{
    testing::internal::CaptureStderr();
    FrameDouble frame = floatFrame(3, 2), empty(0, 2);
    const auto code = [&](FrameDouble& of, const ExrSaveOptions& options) {
        return saveExr(m_name.c_str(), of, 0, -1, 0, options, Conventions::Standard).code();
    };
    EXPECT_EQ(code(empty, {}), IMGERR_UNSUPPORTED);
    EXPECT_EQ(code(frame, { .compressionType = 11 }), IMGERR_UNSUPPORTED);
    EXPECT_EQ(code(frame, { .compressionType = -1 }), IMGERR_UNSUPPORTED);
    EXPECT_EQ(code(frame, { .bitsPerChannel = 8 }), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(fs::exists(m_name));
    EXPECT_EQ(code(frame, { .compressionType = 10, .bitsPerChannel = 16 }), IMGERR_NONE);
    EXPECT_EQ(readExr(m_name).header.compression(), Imf::DWAB_COMPRESSION);

    frame.fill = [](const FrameDouble::Query&, unsigned char*) { throw std::runtime_error("the frame's"); };
    const ImgError thrown = saveExr(m_name.c_str(), frame, 0, -1, 0, {}, Conventions::Standard);
    EXPECT_EQ(thrown.code(), IMGERR_WRITE);
    EXPECT_STREQ(thrown.message(), "the frame's");
    const ImgError unmade = saveExr((m_dir / "no/a.exr").c_str(), frame, 0, -1, 0, {}, Conventions::Standard);
    EXPECT_EQ(unmade.code(), IMGERR_OPEN);
    EXPECT_STREQ(unmade.message(), "Failed to open file: 2");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// --- Arrays ----------------------------------------------------------------------------------------------

IMGINFO infoOf(int width, int height)
{
    IMGINFO info {};
    info.width = width;
    info.height = height;
    return info;
}

std::vector<unsigned int> packedPixels(int width, int height)
{
    std::vector<unsigned int> pixels;
    for (int i = 0; i < width * height; ++i)
        pixels.push_back(numberAt(i, 7));
    return pixels;
}

/// The same picture by OpenEXR's own writer of such pixels.
Bytes rgbaFile(const std::string& name, int width, int height, const std::vector<Imf::Rgba>& pixels)
{
    {
        Imf::RgbaOutputFile file(name.c_str(), width, height, Imf::WRITE_RGBA, 1.0f, Imath::V2f(0, 0), 1.0f,
            Imf::INCREASING_Y, Imf::PIZ_COMPRESSION, Imf::globalThreadCount());
        file.setFrameBuffer(pixels.data(), 1, std::size_t(width));
        file.writePixels(height);
    }
    return readFile(name);
}

TEST_F(ExrWriter, PackedPixelsAreHalfsOfFourChannelsWithPiz)
{
    exrCompressionType = 1; // Both are for frames.
    exrBitsPerChannel = 32;
    IMGINFO info = infoOf(2, 1);
    unsigned int pixels[] = { 0xFF808080u, 0x00FF4020u };
    EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, pixels).code(), IMGERR_NONE);
    const ExrContent content = readExr(m_name);
    EXPECT_EQ(content.header.compression(), Imf::PIZ_COMPRESSION);
    EXPECT_EQ(content.header.channels()["R"].type, Imf::HALF);
    const std::map<std::string, std::vector<float>> expected { { "A", { 1.0f, 0.0f } },
        { "B", { asHalf(128 / 255.0f), asHalf(32 / 255.0f) } },
        { "G", { asHalf(128 / 255.0f), asHalf(64 / 255.0f) } }, { "R", { asHalf(128 / 255.0f), 1.0f } } };
    EXPECT_EQ(content.floats, expected);
}

TEST_F(ExrWriter, ArraysMakeTheSameFilesAsOpenExrsOwnWriter)
{
    constexpr float scale = 0.003921568859f;
    for (const int threads : { 0, 2 })
        for (const auto& [width, height] : { std::pair(1, 1), { 7, 5 }, { 4097, 3 }, { 33, 70 } }) {
            setThreadCount(threads);
            IMGINFO info = infoOf(width, height);
            std::vector<unsigned int> packed = packedPixels(width, height);
            std::vector<Imf::Rgba> pixels;
            std::vector<float> floats;
            for (const unsigned int word : packed) {
                const auto byte = [word](int number) { return float(word >> 8 * number & 0xFF) * scale; };
                pixels.emplace_back(byte(2), byte(1), byte(0), byte(3));
                for (int i = 0; i < 4; ++i)
                    floats.push_back(byte(i)); // Blue first.
            }
            const Bytes expected = rgbaFile(m_dir / "expected.exr", width, height, pixels);
            EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, packed.data()).code(), IMGERR_NONE);
            EXPECT_EQ(readFile(m_name), expected);
            EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, floats.data()).code(), IMGERR_NONE);
            EXPECT_EQ(readFile(m_name), expected);
        }
}

TEST_F(ExrWriter, FloatPixelsAreTakenBlueFirst)
{
    IMGINFO info = infoOf(1, 1);
    float pixel[] = { 1.0f, 2.0f, 3.0f, 0.5f };
    EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, pixel).code(), IMGERR_NONE);
    const ExrContent content = readExr(m_name);
    EXPECT_EQ(content.floats.at("B")[0], 1.0f);
    EXPECT_EQ(content.floats.at("G")[0], 2.0f);
    EXPECT_EQ(content.floats.at("R")[0], 3.0f);
    EXPECT_EQ(content.floats.at("A")[0], 0.5f);
}

TEST_F(ExrWriter, ArraysThatCannotBeWrittenFailWithoutAWord)
{
    testing::internal::CaptureStderr();
    const int files = openFiles();
    unsigned int packed[4] = {};
    float floats[16] = {};
    for (const auto& [width, height] : { std::pair(0, 1), { 1, 0 }, { -2, -2 }, { -1, 1 } }) {
        IMGINFO info = infoOf(width, height);
        EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, packed).code(), IMGERR_WRITE);
        EXPECT_EQ(SaveEXRFile(m_name.c_str(), &info, floats).code(), IMGERR_WRITE);
        EXPECT_FALSE(fs::exists(m_name));
    }
    IMGINFO info = infoOf(2, 2);
    for (const char* name : { "/dev/full", "/no/such/folder/a.exr", "" }) {
        EXPECT_EQ(SaveEXRFile(name, &info, packed).code(), IMGERR_WRITE) << name;
        EXPECT_EQ(SaveEXRFile(name, &info, floats).code(), IMGERR_WRITE) << name;
    }
    EXPECT_EQ(openFiles(), files);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// --- Dispatch --------------------------------------------------------------------------------------------

TEST_F(ExrWriter, DispatchersKnowTheFormat)
{
    IMGINFO info = infoOf(2, 2);
    std::vector<unsigned int> packed = packedPixels(2, 2);
    const float floats[] = { 4, 2, -1, 0.5f, 4, 2, -1, 0.5f, 4, 2, -1, 0.5f, 4, 2, -1, 0.5f };
    std::vector<float> pixels(std::begin(floats), std::end(floats));
    FrameDouble frame = floatFrame(2, 2);
    for (const std::string& name : { m_dir / "packed.exr", m_dir / "floats.EXR", m_dir / "frame.exr" })
        EXPECT_FALSE(fs::exists(name));
    EXPECT_EQ(SaveImageFile((m_dir / "packed.exr").c_str(), &info, packed.data()).code(), IMGERR_NONE);
    EXPECT_EQ(SaveImageFile((m_dir / "floats.EXR").c_str(), &info, pixels.data()).code(), IMGERR_NONE);
    EXPECT_EQ(SaveImageFile((m_dir / "frame.exr").c_str(), frame, 0, -1, -1).code(), IMGERR_NONE);
    EXPECT_EQ(readExr(m_dir / "packed.exr").header.channels()["R"].type, Imf::HALF);
    EXPECT_EQ(readExr(m_dir / "frame.exr").header.channels()["R"].type, Imf::FLOAT);
    const int format = getFileFormatIndex("exr", nullptr);
    EXPECT_EQ(SaveImageFile((m_dir / "frame.tga").c_str(), frame, 0, -1, format).code(), IMGERR_NONE);
    EXPECT_EQ(readExr(m_dir / "frame.tga").header.channels()["R"].type, Imf::FLOAT);

    // Not clamped, and red and blue are exchanged: the writer takes the first float for blue.
    const ExrContent content = readExr(m_dir / "floats.EXR");
    EXPECT_EQ(content.header.channels()["R"].type, Imf::HALF);
    EXPECT_EQ(content.floats.at("R")[3], -1);
    EXPECT_EQ(content.floats.at("G")[3], 2);
    EXPECT_EQ(content.floats.at("B")[3], 4);
    EXPECT_EQ(content.floats.at("A")[3], 0.5f);
}

TEST_F(ExrWriter, ImagesKeepTheirSamplesAndTheirColours)
{
    const int format = getFileFormatIndex("exr", nullptr);
    EXPECT_TRUE(writesStandard(format));
    Image8 bytes;
    bytes.init(256, 1);
    for (int x = 0; x < 256; ++x)
        bytes.setPixel(x, 0, 0xFF00FF00u | unsigned(x) << 16 | unsigned(255 - x));
    EXPECT_EQ(saveStandard(m_name.c_str(), format, bytes).code(), IMGERR_NONE);
    ExrContent content = readExr(m_name);
    EXPECT_EQ(channelsOf(content), (Names { "B", "G", "R" }));
    EXPECT_EQ(content.header.compression(), Imf::ZIP_COMPRESSION);
    EXPECT_EQ(content.header.channels()["R"].type, Imf::HALF);
    for (int x = 0; x < 256; ++x) {
        EXPECT_EQ(std::lround(content.floats.at("R")[std::size_t(x)] * 255), x);
        EXPECT_EQ(std::lround(content.floats.at("B")[std::size_t(x)] * 255), 255 - x);
    }

    ImageF floats;
    floats.init(2, 1);
    const float rgba[] = { 1.0f / 65535, 2.0f / 65535, 0.0f, 0.0f };
    floats.setPixelF(0, 0, rgba);
    EXPECT_EQ(saveStandard(m_name.c_str(), format, floats).code(), IMGERR_NONE);
    content = readExr(m_name);
    EXPECT_EQ(channelsOf(content), (Names { "A", "B", "G", "R" }));
    EXPECT_EQ(content.floats.at("R")[0], rgba[0]); // Halfs would round them.
    EXPECT_EQ(content.floats.at("G")[0], rgba[1]);
    EXPECT_EQ(saveStandard(m_name.c_str(), format, ImageF()).code(), IMGERR_UNSUPPORTED);
}

// --- Other programs --------------------------------------------------------------------------------------

TEST_F(ExrWriter, OpenExrsOwnProgramSaysWhatWasWritten)
{
    if (!fs::exists("/usr/bin/exrheader"))
        GTEST_SKIP() << "exrheader is not installed";
    exrBitsPerChannel = 16;
    exrExtraAttributes = CharString("shot=12");
    saved(33, 70, 0);
    const ProgramResult result = Program("/usr/bin/exrheader", { m_name }).wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    for (const char* line : { "A, 16-bit floating-point", "zip, multi-scanline blocks",
             "dataWindow (type box2i): (0 0) - (32 69)", "shot (type int): 12" })
        EXPECT_NE(result.out.find(line), std::string::npos) << line << "\n" << result.out;
}

TEST_F(ExrWriter, OpenImageIoReadsWhatWasWritten)
{
    if (!fs::exists("/usr/bin/oiiotool"))
        GTEST_SKIP() << "oiiotool is not installed";
    saved(33, 70, 0);
    const ProgramResult result = Program("/usr/bin/oiiotool", { "--info", "--stats", m_name }).wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("33 x   70, 4 channel, float openexr"), std::string::npos) << result.out;
}

} // namespace
