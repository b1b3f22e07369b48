#include "rastkit/exr/exr_core.h"

#include "rastkit/buffers.h"
#include "rastkit/exr/exr_header.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "support/exr_files.h"
#include "support/in_threads.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/throwing_sink.h"

#include <ImfDeepFrameBuffer.h>
#include <ImfDeepScanLineOutputFile.h>
#include <ImfInputFile.h>
#include <ImfMultiPartOutputFile.h>
#include <ImfOutputPart.h>
#include <ImfPartType.h>
#include <ImfRgbaFile.h>
#include <ImfStandardAttributes.h>
#include <ImfStringAttribute.h>
#include <ImfTiledOutputPart.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <sys/stat.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using QUtils::ImageF;
using testing::EndsWith;
using testing::HasSubstr;

using Pixel = std::array<float, 4>;

constexpr Conventions bothConventions[] = { Conventions::Renderer, Conventions::Standard };

Pixel pixelOf(const ImageF& image, int x, int y)
{
    const float* const at = image.row(y) + x * 4;
    return { at[0], at[1], at[2], at[3] };
}

/// What a loader answers and what it says on standard error.
struct Answer {
    int code;
    std::string message, said;
};
Answer listen(const std::function<ImgError()>& load)
{
    testing::internal::CaptureStderr();
    const ImgError error = load();
    return { error.code(), error.message(), testing::internal::GetCapturedStderr() };
}
int linesOf(const std::string& text)
{
    return int(std::count(text.begin(), text.end(), '\n'));
}
void expectOneLine(const Answer& answer)
{
    EXPECT_EQ(answer.code, IMGERR_READ);
    EXPECT_EQ(linesOf(answer.said), 1) << answer.said;
    EXPECT_THAT(answer.said, EndsWith("\n"));
    EXPECT_GT(answer.said.size(), 5u);
}
/// By the standard conventions the text is in the result.
void expectText(const Answer& answer)
{
    EXPECT_EQ(answer.code, IMGERR_READ);
    EXPECT_EQ(answer.said, "");
    EXPECT_GT(answer.message.size(), 5u);
}

class ExrLoad : public testing::Test {
protected:
    void SetUp() override { m_openFiles = openFiles(); }
    void TearDown() override { EXPECT_EQ(openFiles(), m_openFiles); }

    std::string write(const ExrFileFacts& facts, const char* name = "a.exr")
    {
        facts.write(m_dir / name);
        return m_dir / name;
    }
    const TempDir& dir() const { return m_dir; }

    /// Loads into rows and into single pixels, which must agree.
    static ImageF load(const std::string& path, Conventions conventions = Conventions::Renderer)
    {
        ImageF image;
        EXPECT_EQ(codeOf(QUtils::loadExr(path.c_str(), image, nullptr, conventions)), IMGERR_NONE);
        RecordingBuffer pixels;
        EXPECT_EQ(codeOf(QUtils::loadExr(path.c_str(), pixels, nullptr, conventions)), IMGERR_NONE);
        EXPECT_EQ(pixels.width, image.width());
        EXPECT_EQ(pixels.height, image.height());
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                EXPECT_EQ((pixels.pixelsF[{ x, y }]), pixelOf(image, x, y)) << x << ", " << y;
        return image;
    }

    static void expectPixels(const ImageF& image, const ExrFileFacts& facts)
    {
        ASSERT_EQ(image.width(), facts.width);
        ASSERT_EQ(image.height(), facts.height);
        const auto value = [&](const char* name, int x, int y, float fill) {
            const auto channel = facts.channels.find(name);
            if (channel == facts.channels.end())
                return fill;
            const float written = ExrFileFacts::valueAt(name, x, y);
            return channel->second == Imf::UINT ? float(unsigned(written * 64)) : written;
        };
        int wrong = 0;
        for (int y = 0; y < facts.height; ++y)
            for (int x = 0; x < facts.width; ++x)
                wrong += pixelOf(image, x, y)
                    != Pixel { value("R", x, y, 0), value("G", x, y, 0), value("B", x, y, 0),
                           value("A", x, y, 1) };
        EXPECT_EQ(wrong, 0);
    }

private:
    TempDir m_dir;
    int m_openFiles = 0;
};

// --- Header ----------------------------------------------------------------------------------------------

IMGINFO headerOf(const std::string& path, Conventions conventions = Conventions::Renderer)
{
    IMGINFO info;
    std::memset(&info, 0x55, sizeof info);
    EXPECT_EQ(codeOf(QUtils::loadExrHeader(path.c_str(), &info, conventions)), IMGERR_NONE);
    return info;
}

TEST_F(ExrLoad, HeaderTellsDepthAndWindows)
{
    ExrFileFacts facts;
    facts.left = -10;
    facts.top = 5;
    const IMGINFO info = headerOf(write(facts));
    EXPECT_EQ(info.width, 5);
    EXPECT_EQ(info.height, 3);
    EXPECT_EQ(info.bitsPerPixel, 64);
    EXPECT_EQ(info.numChannels, 4);
    EXPECT_EQ(info.bytesPerPixel, 0);
    EXPECT_EQ(info.dataWindowX, -10);
    EXPECT_EQ(info.dataWindowY, 5);
    EXPECT_EQ(info.dataWindowWidth, 5);
    EXPECT_EQ(info.dataWindowHeight, 3);
    EXPECT_EQ(info.displayWindowX, 0);
    EXPECT_EQ(info.displayWindowY, 0);
    EXPECT_EQ(info.displayWindowWidth, 64);
    EXPECT_EQ(info.displayWindowHeight, 32);
}

TEST_F(ExrLoad, HeaderCountsColoursBeforeLuminance)
{
    const struct {
        ExrFileFacts::PixelTypes channels;
        int numChannels, bits;
    } rows[] = {
        { { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } }, 3, 96 },
        { { { "Y", Imf::FLOAT } }, 1, 32 },
        { { { "Y", Imf::HALF }, { "A", Imf::FLOAT } }, 2, 32 },
        { { { "Y", Imf::FLOAT }, { "R", Imf::HALF } }, 3, 48 },
        // The last of R, G and B in the order of names decides.
        { { { "R", Imf::HALF }, { "B", Imf::FLOAT } }, 3, 48 },
        { { { "R", Imf::UINT }, { "B", Imf::HALF } }, 3, 96 },
        { { { "Z", Imf::FLOAT } }, 3, 48 },
        { { { "Z", Imf::FLOAT }, { "A", Imf::FLOAT } }, 4, 64 },
        { { { "r", Imf::FLOAT }, { "a", Imf::HALF } }, 4, 128 },
        { { { "y", Imf::FLOAT } }, 1, 32 },
        { { { "beauty.R", Imf::FLOAT } }, 3, 48 },
    };
    for (const auto& row : rows) {
        ExrFileFacts facts;
        facts.channels = row.channels;
        const IMGINFO info = headerOf(write(facts));
        EXPECT_EQ(info.numChannels, row.numChannels) << row.channels.begin()->first;
        EXPECT_EQ(info.bitsPerPixel, row.bits) << row.channels.begin()->first;
    }
}

TEST_F(ExrLoad, HeaderStepIgnoresANullDescription)
{
    QUtils::loadExrHeader_common(ExrFileFacts().header(), nullptr);
    EXPECT_EQ(codeOf(LoadEXRHeader(write({}).c_str(), nullptr)), IMGERR_NONE);
}

TEST_F(ExrLoad, MissingFileIsAReadErrorWithOneLine)
{
    const std::string missing = dir() / "missing.exr";
    IMGINFO info;
    std::memset(&info, 0x55, sizeof info);
    const Answer header = listen([&] { return LoadEXRHeader(missing.c_str(), &info); });
    expectOneLine(header);
    EXPECT_THAT(header.said, HasSubstr(missing));
    EXPECT_EQ(info.width, 0);
    EXPECT_EQ(info.displayWindowHeight, 0);

    std::memset(&info, 0x55, sizeof info);
    const IMGINFO untouched = info;
    RecordingBuffer sink;
    std::vector<unsigned int> packed(15);
    expectOneLine(listen([&] { return LoadEXRFile(missing.c_str(), sink, &info); }));
    expectOneLine(listen([&] { return LoadEXRFile(missing.c_str(), packed.data(), &info); }));
    expectOneLine(listen([&] { return LoadEXRLevel(missing.c_str(), sink, &info, 0); }));
    expectOneLine(listen([&] { return LoadEXRFile(nullptr, sink, &info); }));
    expectOneLine(listen([&] { return LoadEXRFile(dir().path().c_str(), sink, &info); }));
    EXPECT_EQ(std::memcmp(&info, &untouched, sizeof info), 0);
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(sink.freeCalls, 0);
}

TEST_F(ExrLoad, StandardSaysNothingAndKeepsTheReason)
{
    const std::string missing = dir() / "missing.exr", rows = write({});
    IMGINFO info {};
    RecordingBuffer sink;
    std::vector<unsigned int> packed(15);
    const auto standard = Conventions::Standard;
    for (const Answer& answer : {
             listen([&] { return QUtils::loadExrHeader(missing.c_str(), &info, standard); }),
             listen([&] { return QUtils::loadExr(missing.c_str(), sink, &info, standard); }),
             listen([&] { return QUtils::loadExrPacked(missing.c_str(), packed.data(), &info, standard); }),
             listen([&] { return QUtils::loadExrLevel(missing.c_str(), sink, &info, 0, standard); }),
         }) {
        expectText(answer);
        EXPECT_THAT(answer.message, HasSubstr(missing));
    }
    EXPECT_STREQ(QUtils::loadExr(missing.c_str(), sink, &info, standard).function(), "loadExr");
    const Answer level = listen([&] { return QUtils::loadExrLevel(rows.c_str(), sink, &info, 0, standard); });
    expectText(level);

    ThrowingSink throwing;
    throwing.throwAtPixel = 6;
    const Answer thrown = listen([&] { return QUtils::loadExr(rows.c_str(), throwing, nullptr, standard); });
    expectText(thrown);
    EXPECT_EQ(thrown.message, "setPixelF");
    EXPECT_EQ(throwing.freeCalls, 1);
}

TEST_F(ExrLoad, MemoryThatASinkLacksIsAMemoryErrorByTheStandard)
{
    class HungrySink : public RecordingBuffer {
        void init(int, int) override { throw std::bad_alloc(); }
    } sink;
    const std::string path = write({});
    const Answer standard
        = listen([&] { return QUtils::loadExr(path.c_str(), sink, nullptr, Conventions::Standard); });
    EXPECT_EQ(standard.code, IMGERR_MEMORY);
    EXPECT_EQ(standard.said, "");
    expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), sink, nullptr); }));
}

TEST_F(ExrLoad, PipesAreRefusedWithoutAWriter)
{
    const std::string name = dir() / "pipe.exr";
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    RecordingBuffer sink;
    const Answer answer = listen([&] { return LoadEXRFile(name.c_str(), sink, nullptr); });
    expectOneLine(answer);
    EXPECT_THAT(answer.said, HasSubstr("not a regular file"));
    expectOneLine(listen([&] { return LoadEXRHeader(name.c_str(), nullptr); }));
}

TEST_F(ExrLoad, SeveralThreadsMayStartTheLibraryAtOnce)
{
    ExrFileFacts halfs, floats;
    halfs.height = floats.height = 50;
    floats.compression = Imf::ZIP_COMPRESSION;
    floats.channels = { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } };
    const ExrFileFacts* const facts[] = { &halfs, &floats };
    const std::string paths[] = { write(halfs), write(floats, "b.exr") };
    constexpr int threads = 8;
    for (int round = 0; round < 20; ++round) {
        QUtils::exrInited = 0; // As in a process that has just begun.
        ImageF images[threads];
        int codes[threads] = {};
        inThreads(threads, [&](int number) {
            codes[number] = codeOf(LoadEXRFile(paths[number % 2].c_str(), images[number], nullptr));
        });
        EXPECT_EQ(QUtils::exrInited, 1);
        for (int number = 0; number < threads; ++number) {
            EXPECT_EQ(codes[number], IMGERR_NONE);
            expectPixels(images[number], *facts[number % 2]);
        }
    }
}

// --- Float pixels ----------------------------------------------------------------------------------------

TEST_F(ExrLoad, EveryCompressionTypeAndLineOrderIsRead)
{
    const Imf::Compression lossless[] = { Imf::NO_COMPRESSION, Imf::RLE_COMPRESSION, Imf::ZIPS_COMPRESSION,
        Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION };
    for (const Imf::PixelType type : { Imf::HALF, Imf::FLOAT, Imf::UINT })
        for (const Imf::Compression compression : lossless)
            for (const Imf::LineOrder order : { Imf::INCREASING_Y, Imf::DECREASING_Y })
                for (const int height : { 1, 16, 75 }) {
                    ExrFileFacts facts;
                    facts.compression = compression;
                    facts.lineOrder = order;
                    facts.width = 7;
                    facts.height = height;
                    for (auto& channel : facts.channels)
                        channel.second = type;
                    const std::string path = write(facts);
                    ImageF image;
                    EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), image, nullptr)), IMGERR_NONE);
                    expectPixels(image, facts);
                }
}

/// Codecs that lose something, large pictures, threads: as OpenEXR itself reads them.
TEST_F(ExrLoad, PixelsAreThoseOfTheLibraryAlone)
{
    for (const int threads : { 0, 2 }) {
        setThreadCount(threads);
        for (int compression = 0; compression < Imf::NUM_COMPRESSION_METHODS; ++compression)
            for (const Imf::PixelType type : { Imf::HALF, Imf::FLOAT }) {
                ExrFileFacts facts;
                facts.width = 333;
                facts.height = 700;
                facts.left = -7;
                facts.top = -300;
                facts.compression = Imf::Compression(compression);
                facts.lineOrder = compression % 2 == 0 ? Imf::INCREASING_Y : Imf::DECREASING_Y;
                for (auto& channel : facts.channels)
                    channel.second = type;
                const std::string path = write(facts);
                std::vector<float> expected(std::size_t(facts.width * facts.height * 4));
                Imf::InputFile file(path.c_str());
                Imf::FrameBuffer frame;
                int index = 0;
                for (const char* const name : { "R", "G", "B", "A" })
                    frame.insert(name,
                        Imf::Slice::Make(Imf::FLOAT, expected.data() + index++, { facts.left, facts.top },
                            facts.width, facts.height, 16, 16 * std::size_t(facts.width)));
                file.setFrameBuffer(frame);
                file.readPixels(facts.top, facts.top + facts.height - 1);
                ImageF image;
                EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), image, nullptr)), IMGERR_NONE);
                EXPECT_EQ(std::memcmp(image.data(), expected.data(), expected.size() * 4), 0)
                    << compression << ", " << type << ", " << threads;
                Image8 bytes;
                EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), bytes, nullptr)), IMGERR_NONE);
                EXPECT_EQ(bytes.height(), facts.height);
            }
    }
    setThreadCount(0);
}

TEST_F(ExrLoad, DataWindowsCornerIsTheFirstPixel)
{
    ExrFileFacts facts;
    facts.left = -10;
    facts.top = 5;
    for (const bool isTiled : { false, true })
        for (const Imf::PixelType type : { Imf::HALF, Imf::FLOAT }) {
            facts.isTiled = isTiled;
            for (auto& channel : facts.channels)
                channel.second = type;
            expectPixels(load(write(facts)), facts);
        }
}

TEST_F(ExrLoad, FarDataWindowsAreRead)
{
    ExrFileFacts facts;
    constexpr int far = 1'000'000'000;
    for (const int left : { -far, far })
        for (const int top : { -far, far }) {
            facts.left = left;
            facts.top = top;
            expectPixels(load(write(facts)), facts);
        }
}

TEST_F(ExrLoad, MissingChannelsAreOpaqueBlack)
{
    for (const auto& channels : { ExrFileFacts::PixelTypes { { "G", Imf::HALF } },
             ExrFileFacts::PixelTypes { { "R", Imf::FLOAT }, { "G", Imf::HALF }, { "B", Imf::UINT } },
             ExrFileFacts::PixelTypes { { "A", Imf::HALF } },
             ExrFileFacts::PixelTypes { { "Z", Imf::FLOAT } } }) {
        ExrFileFacts facts;
        facts.channels = channels;
        expectPixels(load(write(facts)), facts);
    }
}

TEST_F(ExrLoad, LuminanceIsGrey)
{
    for (const Imf::PixelType type : { Imf::HALF, Imf::FLOAT })
        for (const bool hasAlpha : { false, true }) {
            ExrFileFacts facts;
            facts.channels = { { "Y", type } };
            if (hasAlpha)
                facts.channels["A"] = type;
            for (const Conventions conventions : bothConventions) {
                const ImageF image = load(write(facts), conventions);
                for (int y = 0; y < facts.height; ++y)
                    for (int x = 0; x < facts.width; ++x) {
                        const float grey = ExrFileFacts::valueAt("Y", x, y);
                        const float alpha = hasAlpha ? ExrFileFacts::valueAt("A", x, y) : 1;
                        EXPECT_EQ(pixelOf(image, x, y), (Pixel { grey, grey, grey, alpha }));
                    }
            }
        }
}

TEST_F(ExrLoad, LowerCaseChannelsCountButAreNotReadOnPurpose)
{
    ExrFileFacts facts;
    facts.channels = { { "r", Imf::FLOAT }, { "g", Imf::FLOAT }, { "b", Imf::FLOAT }, { "a", Imf::FLOAT } };
    const std::string path = write(facts);
    EXPECT_EQ(pixelOf(load(path), 2, 1), (Pixel { 0, 0, 0, 1 }));
    EXPECT_EQ(pixelOf(load(path, Conventions::Standard), 2, 1),
        (Pixel { ExrFileFacts::valueAt("r", 2, 1), ExrFileFacts::valueAt("g", 2, 1),
            ExrFileFacts::valueAt("b", 2, 1), ExrFileFacts::valueAt("a", 2, 1) }));
}

TEST_F(ExrLoad, StandardShowsSomethingOfEveryFile)
{
    const auto value = [](const char* name) { return ExrFileFacts::valueAt(name, 1, 2); };
    const struct {
        ExrFileFacts::PixelTypes channels;
        Pixel pixel;
        int numChannels, bits;
    } rows[] = {
        { { { "beauty.R", Imf::HALF }, { "beauty.G", Imf::HALF }, { "beauty.B", Imf::HALF },
              { "beauty.A", Imf::HALF }, { "Z", Imf::FLOAT } },
            { value("beauty.R"), value("beauty.G"), value("beauty.B"), value("beauty.A") }, 4, 64 },
        { { { "a.R", Imf::HALF }, { "b.R", Imf::HALF } }, { value("a.R"), 0, 0, 1 }, 3, 48 },
        { { { "N.X", Imf::FLOAT }, { "N.Y", Imf::FLOAT }, { "N.Z", Imf::FLOAT } },
            { value("N.X"), value("N.Y"), value("N.Z"), 1 }, 3, 96 },
        { { { "Z", Imf::FLOAT } }, { value("Z"), value("Z"), value("Z"), 1 }, 1, 32 },
        { { { "A", Imf::HALF }, { "Z", Imf::FLOAT } }, { value("Z"), value("Z"), value("Z"), value("A") }, 2,
            64 },
        { { { "A", Imf::HALF } }, { value("A"), value("A"), value("A"), 1 }, 1, 16 },
    };
    for (const auto& row : rows) {
        ExrFileFacts facts;
        facts.channels = row.channels;
        const std::string path = write(facts);
        EXPECT_EQ(pixelOf(load(path, Conventions::Standard), 1, 2), row.pixel) << row.channels.begin()->first;
        const IMGINFO info = headerOf(path, Conventions::Standard);
        EXPECT_EQ(info.numChannels, row.numChannels) << row.channels.begin()->first;
        EXPECT_EQ(info.bitsPerPixel, row.bits) << row.channels.begin()->first;
        EXPECT_EQ(info.bytesPerPixel, 16);
    }
}

TEST_F(ExrLoad, LuminanceAndChromaAreColoursByTheStandardOnly)
{
    const std::string path = dir() / "yc.exr";
    std::vector<Imf::Rgba> pixels(64 * 64, Imf::Rgba(0.75f, 0.25f, 0.5f, 1));
    {
        Imf::RgbaOutputFile file(path.c_str(), 64, 64, Imf::WRITE_YCA);
        file.setFrameBuffer(pixels.data(), 1, 64);
        file.writePixels(64);
    }
    const Pixel grey = pixelOf(load(path), 30, 30);
    EXPECT_EQ(grey[0], grey[1]);
    EXPECT_EQ(grey[0], grey[2]);
    const ImageF image = load(path, Conventions::Standard);
    for (const int at : { 0, 30, 63 }) {
        const Pixel color = pixelOf(image, at, at);
        EXPECT_NEAR(color[0], 0.75f, 0.01f);
        EXPECT_NEAR(color[1], 0.25f, 0.01f);
        EXPECT_NEAR(color[2], 0.5f, 0.01f);
        EXPECT_EQ(color[3], 1);
    }
    EXPECT_EQ(headerOf(path).numChannels, 2);
    EXPECT_EQ(headerOf(path, Conventions::Standard).numChannels, 4);

    std::vector<unsigned int> packed(64 * 64);
    EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), packed.data(), nullptr)), IMGERR_NONE);
    EXPECT_NEAR(double(packed[100] >> 16 & 0xFF), 192, 3);
    EXPECT_NEAR(double(packed[100] >> 8 & 0xFF), 64, 3);
}

TEST_F(ExrLoad, SubsampledColoursAreAnErrorWithOneLine)
{
    ExrFileFacts facts;
    facts.width = facts.height = 4;
    Imf::Header header = facts.header();
    header.channels().insert("R", Imf::Channel(Imf::HALF, 2, 2));
    const std::string path = dir() / "sampled.exr";
    {
        std::vector<half> samples(16);
        Imf::OutputFile file(path.c_str(), header);
        Imf::FrameBuffer frame;
        for (const char* const name : { "G", "B", "A" })
            frame.insert(name, Imf::Slice(Imf::HALF, reinterpret_cast<char*>(samples.data()), 2, 8));
        frame.insert("R", Imf::Slice(Imf::HALF, reinterpret_cast<char*>(samples.data()), 2, 4, 2, 2));
        file.setFrameBuffer(frame);
        file.writePixels(4);
    }
    ImageF image;
    expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), image, nullptr); }));
}

TEST_F(ExrLoad, TiledFilesGiveTheirLargestLevel)
{
    for (const Imf::LevelMode mode : { Imf::ONE_LEVEL, Imf::MIPMAP_LEVELS, Imf::RIPMAP_LEVELS })
        for (const Imf::LevelRoundingMode rounding : { Imf::ROUND_DOWN, Imf::ROUND_UP }) {
            ExrFileFacts facts;
            facts.isTiled = true;
            facts.width = 37;
            facts.height = 21;
            facts.compression = Imf::ZIP_COMPRESSION;
            facts.tiles = Imf::TileDescription(8, 4, mode, rounding);
            expectPixels(load(write(facts)), facts);
        }
}

TEST_F(ExrLoad, FirstOfSeveralPartsIsRead)
{
    ExrFileFacts facts;
    const std::string path = dir() / "parts.exr";
    {
        std::vector<Imf::Header> headers(2, facts.header());
        headers[0].setName("first");
        headers[1].setName("second");
        for (Imf::Header& header : headers)
            header.setType(Imf::SCANLINEIMAGE);
        Imf::MultiPartOutputFile file(path.c_str(), headers.data(), 2);
        for (int part = 0; part < 2; ++part) {
            std::vector<half> samples(std::size_t(facts.width * facts.height), half(part == 0 ? 0.5f : 2.0f));
            Imf::FrameBuffer frame;
            for (const char* const name : { "R", "G", "B", "A" })
                frame.insert(name,
                    Imf::Slice(
                        Imf::HALF, reinterpret_cast<char*>(samples.data()), 2, 2 * std::size_t(facts.width)));
            Imf::OutputPart out(file, part);
            out.setFrameBuffer(frame);
            out.writePixels(facts.height);
        }
    }
    EXPECT_EQ(pixelOf(load(path), 4, 2), (Pixel { 0.5f, 0.5f, 0.5f, 0.5f }));
}

TEST_F(ExrLoad, DeepFilesAreAnErrorWithOneLine)
{
    const std::string path = dir() / "deep.exr";
    {
        Imf::Header header(4, 4);
        header.channels().insert("Z", Imf::Channel(Imf::FLOAT));
        header.setType(Imf::DEEPSCANLINE);
        header.compression() = Imf::ZIPS_COMPRESSION;
        unsigned int counts[16] = {};
        float* samples[16] = {};
        Imf::DeepFrameBuffer frame;
        frame.insertSampleCountSlice(Imf::Slice(Imf::UINT, reinterpret_cast<char*>(counts), 4, 16));
        frame.insert("Z", Imf::DeepSlice(Imf::FLOAT, reinterpret_cast<char*>(samples), 8, 32, 4));
        Imf::DeepScanLineOutputFile file(path.c_str(), header);
        file.setFrameBuffer(frame);
        file.writePixels(4);
    }
    ImageF image;
    IMGINFO info {};
    std::vector<unsigned int> packed(16);
    const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), image, nullptr); });
    expectOneLine(answer);
    EXPECT_THAT(answer.said, HasSubstr("Deep"));
    expectOneLine(listen([&] { return LoadEXRHeader(path.c_str(), &info); }));
    expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), packed.data(), nullptr); }));
    expectOneLine(listen([&] { return LoadEXRLevel(path.c_str(), image, nullptr, 0); }));
}

// --- Packed pixels ---------------------------------------------------------------------------------------

TEST_F(ExrLoad, PackedColoursAreScaledAndAlphaIsNotOnPurpose)
{
    const std::string path = dir() / "packed.exr";
    const float infinity = std::numeric_limits<float>::infinity(),
                notANumber = std::numeric_limits<float>::quiet_NaN();
    std::vector<Imf::Rgba> pixels = { { 1.0f, 0.5f, -0.2f, 1.0f }, { 4.0f, 0.25f, 0.0f, 0.5f },
        { infinity, notANumber, -infinity, 2.75f }, { 0.0f, 0.0f, 0.0f, 300.0f }, { 0.0f, 0.0f, 0.0f, -1.5f },
        { 0.0f, 0.0f, 0.0f, notANumber } };
    {
        const Imath::Box2i window({ -4, 9 }, { -2, 10 });
        Imf::RgbaOutputFile file(path.c_str(), window, window, Imf::WRITE_RGBA);
        file.setFrameBuffer(pixels.data() + 4 - 9 * 3, 1, 3);
        file.writePixels(2);
    }
    std::vector<unsigned int> packed(6);
    IMGINFO info {};
    EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), packed.data(), &info)), IMGERR_NONE);
    EXPECT_EQ(packed,
        (std::vector<unsigned int> {
            0x01FF8000, 0x00FF4000, 0x02FF0000, 0x2C000000, 0xFF000000, 0x00000000 }));
    EXPECT_EQ(info.width, 3);
    EXPECT_EQ(info.dataWindowX, -4);
    EXPECT_EQ(info.bitsPerPixel, 64);

    EXPECT_EQ(codeOf(QUtils::loadExrPacked(path.c_str(), packed.data(), &info, Conventions::Standard)),
        IMGERR_NONE);
    EXPECT_EQ(packed[0], 0xFFFF8000u);
    EXPECT_EQ(packed[1], 0x80FF4000u);
    EXPECT_EQ(packed[5], 0u);
}

// --- Levels ----------------------------------------------------------------------------------------------

ExrFileFacts mipmap(int width, int height)
{
    ExrFileFacts facts;
    facts.isTiled = true;
    facts.width = width;
    facts.height = height;
    facts.tiles = Imf::TileDescription(4, 4, Imf::MIPMAP_LEVELS);
    return facts;
}

TEST_F(ExrLoad, LevelsAreSquaresOfTheirWidthOnPurpose)
{
    for (const int left : { 0, -3 }) {
        ExrFileFacts wide = mipmap(16, 8);
        wide.left = left;
        wide.top = left * 2;
        const std::string path = write(wide);
        for (const int level : { 0, 1 }) {
            const int size = 16 >> level;
            ImageF image;
            IMGINFO info;
            std::memset(&info, 0x55, sizeof info);
            EXPECT_EQ(codeOf(LoadEXRLevel(path.c_str(), image, &info, level)), IMGERR_NONE);
            ASSERT_EQ(image.width(), size);
            ASSERT_EQ(image.height(), size);
            EXPECT_EQ(pixelOf(image, size - 1, size / 2 - 1)[0],
                ExrFileFacts::valueAt("R", size - 1, size / 2 - 1, level));
            EXPECT_EQ(pixelOf(image, 0, 0)[3], ExrFileFacts::valueAt("A", 0, 0, level));
            EXPECT_EQ(pixelOf(image, 3, size / 2), (Pixel { 0, 0, 0, 0 }));
            EXPECT_EQ(info.width, size);
            EXPECT_EQ(info.height, size);
            EXPECT_EQ(info.bitsPerPixel, 32);
            EXPECT_EQ(info.numChannels, 4);
            EXPECT_EQ(info.bytesPerPixel, 0);
            EXPECT_EQ(info.dataWindowWidth, 0);

            EXPECT_EQ(codeOf(QUtils::loadExrLevel(path.c_str(), image, &info, level, Conventions::Standard)),
                IMGERR_NONE);
            EXPECT_EQ(image.height(), size / 2);
            EXPECT_EQ(info.height, size / 2);
            EXPECT_EQ(info.bitsPerPixel, 64);
        }
    }

    const std::string tall = write(mipmap(8, 16));
    ImageF image;
    EXPECT_EQ(codeOf(LoadEXRLevel(tall.c_str(), image, nullptr, 0)), IMGERR_NONE);
    ASSERT_EQ(image.height(), 8);
    EXPECT_EQ(pixelOf(image, 7, 7)[1], ExrFileFacts::valueAt("G", 7, 7));
    EXPECT_EQ(
        codeOf(QUtils::loadExrLevel(tall.c_str(), image, nullptr, 0, Conventions::Standard)), IMGERR_NONE);
    ASSERT_EQ(image.height(), 16);
    EXPECT_EQ(pixelOf(image, 7, 15)[1], ExrFileFacts::valueAt("G", 7, 15));
}

TEST_F(ExrLoad, SizeOfALevelIsKeptInSixteenBitsOnPurpose)
{
    ExrFileFacts facts = mipmap(40000, 1);
    facts.tiles = Imf::TileDescription(512, 1, Imf::ONE_LEVEL);
    facts.compression = Imf::RLE_COMPRESSION;
    const std::string path = write(facts);
    RecordingBuffer sink;
    sink.refuse = true;
    IMGINFO info {};
    EXPECT_EQ(codeOf(LoadEXRLevel(path.c_str(), sink, &info, 0)), IMGERR_MEMORY);
    EXPECT_EQ(sink.width, 40000);
    EXPECT_EQ(sink.height, 40000);
    EXPECT_EQ(info.width, 40000 - 65536);
    EXPECT_EQ(info.height, 40000 - 65536);
}

TEST_F(ExrLoad, LevelsThatAreNotThereAreAnErrorWithOneLine)
{
    const std::string tiled = write(mipmap(16, 8)), rows = write({}, "rows.exr");
    RecordingBuffer sink;
    IMGINFO info {};
    for (const int level :
        { -1, 5, 31, 32, std::numeric_limits<int>::max(), std::numeric_limits<int>::min() })
        expectOneLine(listen([&] { return LoadEXRLevel(tiled.c_str(), sink, &info, level); }));
    expectOneLine(listen([&] { return LoadEXRLevel(rows.c_str(), sink, &info, 0); }));
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(info.width, 0);

    ExrFileFacts ripmap = mipmap(16, 8);
    ripmap.tiles.mode = Imf::RIPMAP_LEVELS;
    const std::string path = write(ripmap, "ripmap.exr");
    ImageF image;
    EXPECT_EQ(codeOf(LoadEXRLevel(path.c_str(), image, nullptr, 1)), IMGERR_NONE);
    EXPECT_EQ(pixelOf(image, 7, 3)[2], ExrFileFacts::valueAt("B", 7, 3, 1));
}

TEST_F(ExrLoad, LevelsOfMoreBytesThanTheFileCanFillAreRefused)
{
    const std::string path = dir() / "large.exr";
    {
        Imf::Header header(8192, 8192);
        header.compression() = Imf::RLE_COMPRESSION;
        header.channels().insert("R", Imf::Channel(Imf::HALF));
        header.setTileDescription(Imf::TileDescription(8192, 1024, Imf::ONE_LEVEL));
        const Imf::TiledOutputFile file(path.c_str(), header); // Its tiles are all missing.
    }
    RecordingBuffer sink;
    const Answer answer = listen([&] { return LoadEXRLevel(path.c_str(), sink, nullptr, 0); });
    expectOneLine(answer);
    EXPECT_THAT(answer.said, HasSubstr("too small"));
    EXPECT_EQ(sink.initCalls, 0);
}

// --- Sinks -----------------------------------------------------------------------------------------------

TEST_F(ExrLoad, RefusingSinkIsAMemoryErrorWithoutALine)
{
    const std::string path = write({});
    RecordingBuffer sink;
    sink.refuse = true;
    IMGINFO info {};
    const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), sink, &info); });
    EXPECT_EQ(answer.code, IMGERR_MEMORY);
    EXPECT_EQ(answer.said, "");
    EXPECT_EQ(info.width, 5);
    EXPECT_EQ(sink.freeCalls, 0);
}

TEST_F(ExrLoad, ExceptionsOfTheSinkEndHereAndReleaseIt)
{
    for (const auto& channels : { ExrFileFacts().channels, ExrFileFacts::PixelTypes { { "Y", Imf::HALF } },
             ExrFileFacts::PixelTypes { { "R", Imf::FLOAT } } }) {
        ExrFileFacts facts = mipmap(4, 4);
        facts.channels = channels;
        const std::string path = write(facts);
        for (const bool isLevel : { false, true })
            for (const bool inInit : { false, true }) {
                ThrowingSink sink;
                sink.throwInInit = inInit;
                sink.throwAtPixel = 6;
                const Answer answer = listen([&] {
                    return isLevel ? LoadEXRLevel(path.c_str(), sink, nullptr, 0)
                                   : LoadEXRFile(path.c_str(), sink, nullptr);
                });
                EXPECT_EQ(answer.code, IMGERR_READ);
                EXPECT_EQ(answer.said, inInit ? "init\n" : "setPixelF\n");
                EXPECT_EQ(sink.freeCalls, 1);
            }
    }
}

TEST_F(ExrLoad, SinkThatThrowsAnythingElseEndsTheLoadToo)
{
    class CodeSink : public RecordingBuffer {
        void setPixelF(int, int, const float*) override { throw IMGERR_WRITE; }
    } sink;
    const std::string path = write({});
    const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), sink, nullptr); });
    EXPECT_EQ(answer.code, IMGERR_READ);
    EXPECT_EQ(answer.said, "");
    EXPECT_EQ(sink.freeCalls, 1);
}

// --- Damaged files ---------------------------------------------------------------------------------------

/// All that can be asked of a file; each either works or is an error with one line or a text.
void readEverything(const std::string& path)
{
    constexpr std::size_t mostPixels = 1 << 16;
    for (const Conventions conventions : bothConventions) {
        const char* const name = path.c_str();
        IMGINFO info {};
        ImageF image;
        image.setMaxBytes(mostPixels * 16);
        std::vector<Answer> answers
            = { listen([&] { return QUtils::loadExrHeader(name, &info, conventions); }),
                  listen([&] { return QUtils::loadExr(name, image, nullptr, conventions); }),
                  listen([&] { return QUtils::loadExrLevel(name, image, nullptr, 1, conventions); }) };
        if (answers[0].code == IMGERR_NONE
            && std::size_t(info.width) * std::size_t(info.height) < mostPixels) {
            std::vector<unsigned int> packed(mostPixels);
            answers.push_back(
                listen([&] { return QUtils::loadExrPacked(name, packed.data(), nullptr, conventions); }));
        }
        for (const Answer& answer : answers) {
            if (answer.code == IMGERR_NONE || answer.code == IMGERR_MEMORY)
                EXPECT_EQ(answer.said, "");
            else if (conventions == Conventions::Renderer)
                expectOneLine(answer);
            else
                expectText(answer);
        }
        char tag[64];
        testing::internal::CaptureStderr();
        LoadEXRSHA(name, tag, sizeof tag);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST_F(ExrLoad, FileCutAnywhereIsAnErrorWithOneLine)
{
    for (const bool isTiled : { false, true }) {
        ExrFileFacts facts;
        facts.isTiled = isTiled;
        facts.compression = Imf::ZIPS_COMPRESSION;
        const Bytes whole = readFile(write(facts));
        const std::string path = dir() / "cut.exr";
        for (std::size_t size = 0; size < whole.size(); ++size) {
            writeFile(path, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
            ImageF image;
            expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), image, nullptr); }));
            if (size % 16 == 0)
                readEverything(path);
        }
    }
}

TEST_F(ExrLoad, RowsInFrontOfDamageAreDeliveredThenReleased)
{
    ExrFileFacts facts;
    facts.height = 40;
    Bytes bytes = readFile(write(facts));
    const std::string path = dir() / "cut.exr";
    // Rows of 8 + 5 * 8 bytes at the end of the file: three and a half of them are gone.
    bytes.resize(bytes.size() - 3 * 48 - 24);
    writeFile(path, bytes);
    RecordingBuffer sink;
    expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), sink, nullptr); }));
    EXPECT_EQ(sink.freeCalls, 1);
    EXPECT_EQ(sink.pixelsF.size(), 36u * 5);
    EXPECT_EQ((sink.pixelsF[{ 4, 35 }][0]), ExrFileFacts::valueAt("R", 4, 35));
}

/// Chunks that are larger than a strip: tall tiles, each read in several strips.
TEST_F(ExrLoad, RowsOfATallTileInFrontOfDamageAreDelivered)
{
    constexpr int width = 16384, tileHeight = 1024, tiles = 2;
    const std::string path = dir() / "tall.exr";
    {
        Imf::Header header(width, tileHeight * tiles);
        header.compression() = Imf::RLE_COMPRESSION;
        header.channels().insert("R", Imf::Channel(Imf::HALF));
        header.setTileDescription(Imf::TileDescription(width, tileHeight, Imf::ONE_LEVEL));
        const std::vector<half> row(width, half(0.5f));
        Imf::FrameBuffer frame;
        frame.insert(
            "R", Imf::Slice(Imf::HALF, const_cast<char*>(reinterpret_cast<const char*>(row.data())), 2, 0));
        Imf::TiledOutputFile file(path.c_str(), header);
        file.setFrameBuffer(frame);
        file.writeTiles(0, 0, 0, tiles - 1);
    }
    class CountingSink : public RecordingBuffer {
    public:
        void setPixelF(int, int, const float* rgba) override { good += rgba[0] == 0.5f ? 1 : 0; }
        std::size_t good = 0;
    } whole, cut;
    EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), whole, nullptr)), IMGERR_NONE);
    EXPECT_EQ(whole.good, std::size_t(width) * tileHeight * tiles);

    Bytes bytes = readFile(path);
    bytes.resize(bytes.size() - 100);
    writeFile(path, bytes);
    expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), cut, nullptr); }));
    EXPECT_EQ(cut.good, std::size_t(width) * tileHeight);
    EXPECT_EQ(cut.freeCalls, 1);
}

TEST_F(ExrLoad, EveryByteOfTheHeaderMayBeAnything)
{
    ExrFileFacts facts;
    for (const bool isTiled : { false, true }) {
        facts.isTiled = isTiled;
        facts.tiles.mode = Imf::MIPMAP_LEVELS;
        const Bytes whole = readFile(write(facts));
        const std::string path = dir() / "damaged.exr";
        for (std::size_t at = 0; at < std::min<std::size_t>(whole.size(), 480); ++at)
            for (const int value : { 0x00, 0x7F, 0xFF }) {
                Bytes damaged = whole;
                damaged[at] = std::uint8_t(value);
                writeFile(path, damaged);
                readEverything(path);
            }
    }
}

/// Where an attribute's value begins.
std::size_t valueOffset(const Bytes& file, const std::string& name, const std::string& type)
{
    std::string text = name;
    text.push_back('\0');
    text += type;
    text.push_back('\0');
    const auto found = std::search(file.begin(), file.end(), text.begin(), text.end());
    EXPECT_NE(found, file.end()) << name;
    return std::size_t(found - file.begin()) + text.size() + 4;
}

void setNumber(Bytes& file, std::size_t at, std::int32_t value)
{
    for (int byte = 0; byte < 4; ++byte)
        file.at(at + std::size_t(byte)) = std::uint8_t(std::uint32_t(value) >> (8 * byte));
}

/// OpenEXR reads the size of an uncompressed chunk, and as much; the rest of its memory is what it was.
class ExrShortChunks : public ExrLoad {
protected:
    /// Makes the chunk whose numbers end with its size at `at` say another one.
    static void expectRefused(const std::string& path, const Bytes& whole, std::size_t at, int size)
    {
        Bytes damaged = whole;
        setNumber(damaged, at, size);
        writeFile(path, damaged);
        ImageF image;
        const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), image, nullptr); });
        expectOneLine(answer);
        EXPECT_THAT(answer.said, HasSubstr("uncompressed chunk")) << at << ", " << size;
        const Answer standard
            = listen([&] { return QUtils::loadExr(path.c_str(), image, nullptr, Conventions::Standard); });
        expectText(standard);
        std::vector<unsigned int> packed(1 << 12);
        expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), packed.data(), nullptr); }));
    }
};

TEST_F(ExrShortChunks, OfRowsAreRefused)
{
    for (const bool isGrey : { false, true })
        for (const int threads : { 0, 2 }) {
            setThreadCount(threads);
            ExrFileFacts facts;
            facts.width = 16;
            facts.height = 20;
            if (isGrey)
                facts.channels = { { "Y", Imf::FLOAT } };
            const std::string path = write(facts);
            const Bytes whole = readFile(path);
            const std::size_t rowBytes = isGrey ? 16 * 4 : 16 * 8, chunkBytes = 8 + rowBytes;
            const std::size_t first = whole.size() - 20 * chunkBytes;
            for (const std::size_t row : { 0u, 1u, 19u })
                for (const int size : { 0, 8, int(rowBytes) - 1 })
                    expectRefused(dir() / "short.exr", whole, first + row * chunkBytes + 4, size);
        }
    setThreadCount(0);
}

TEST_F(ExrShortChunks, OfTilesAndTheirLevelsAreRefused)
{
    ExrFileFacts facts = mipmap(10, 6); // Tiles of 4 x 4, the last of a row 2 x 4, the lower ones 4 x 2.
    const std::string path = write(facts), damagedPath = dir() / "short.exr";
    const Bytes whole = readFile(path);
    // 3 x 2 tiles, 2 x 1 of 5 x 3 pixels, then one each of 2 x 1 and 1 x 1.
    std::size_t at = whole.size() - (10 * 20 + (60 + 15 + 2 + 1) * 8);
    for (const int pixels : { 16, 16, 8, 8, 8, 4 }) {
        expectRefused(damagedPath, whole, at + 16, pixels * 8 - 1);
        expectRefused(damagedPath, whole, at + 16, 0);
        at += 20 + std::size_t(pixels) * 8;
    }
    for (const int pixels : { 12, 3 }) {
        Bytes damaged = whole;
        setNumber(damaged, at + 16, 8);
        writeFile(damagedPath, damaged);
        ImageF image;
        EXPECT_EQ(codeOf(LoadEXRFile(damagedPath.c_str(), image, nullptr)), IMGERR_NONE);
        EXPECT_EQ(codeOf(LoadEXRLevel(damagedPath.c_str(), image, nullptr, 0)), IMGERR_NONE);
        const Answer answer = listen([&] { return LoadEXRLevel(damagedPath.c_str(), image, nullptr, 1); });
        expectOneLine(answer);
        EXPECT_THAT(answer.said, HasSubstr("uncompressed chunk"));
        at += 20 + std::size_t(pixels) * 8;
    }
}

TEST_F(ExrShortChunks, OfTheFirstPartAreRefused)
{
    for (const bool isTiled : { false, true }) {
        ExrFileFacts facts;
        facts.isTiled = isTiled;
        facts.width = facts.height = 4;
        facts.tiles = Imf::TileDescription(4, 4, Imf::ONE_LEVEL);
        const std::string path = dir() / "parts.exr";
        {
            Imf::Header header = facts.header();
            header.setName("first");
            header.setType(isTiled ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
            Imf::Header second = ExrFileFacts().header();
            second.setName("second");
            second.setType(Imf::SCANLINEIMAGE);
            const Imf::Header headers[] = { header, second };
            std::vector<half> samples(16, half(0.5f));
            Imf::FrameBuffer frame;
            for (const char* const name : { "R", "G", "B", "A" })
                frame.insert(name, Imf::Slice(Imf::HALF, reinterpret_cast<char*>(samples.data()), 2, 8));
            Imf::MultiPartOutputFile file(path.c_str(), headers, 2);
            if (isTiled) {
                Imf::TiledOutputPart out(file, 0);
                out.setFrameBuffer(frame);
                out.writeTile(0, 0);
            } else {
                Imf::OutputPart out(file, 0);
                out.setFrameBuffer(frame);
                out.writePixels(4);
            }
        }
        EXPECT_EQ(pixelOf(load(path), 3, 3), (Pixel { 0.5f, 0.5f, 0.5f, 0.5f }));
        const Bytes whole = readFile(path);
        const std::size_t chunks = isTiled ? 1 : 4, numbers = isTiled ? 24 : 12;
        const std::size_t last = whole.size() - 16 * 8 / chunks - numbers;
        expectRefused(dir() / "short.exr", whole, last + numbers - 4, 8);
    }
}

/// Chroma has rows of its own only every second time.
TEST_F(ExrShortChunks, RowsOfDifferentSizesAreKnown)
{
    const std::string path = dir() / "yc.exr";
    std::vector<Imf::Rgba> pixels(8 * 8, Imf::Rgba(0.5f, 0.5f, 0.5f, 1));
    {
        Imf::RgbaOutputFile file(
            path.c_str(), 8, 8, Imf::WRITE_YC, 1, { 0, 0 }, 1, Imf::INCREASING_Y, Imf::NO_COMPRESSION);
        file.setFrameBuffer(pixels.data(), 1, 8);
        file.writePixels(8);
    }
    EXPECT_NEAR(pixelOf(load(path, Conventions::Standard), 5, 5)[0], 0.5f, 0.01f);
    EXPECT_EQ(pixelOf(load(path), 5, 5)[0], pixelOf(load(path), 5, 5)[1]);
    const Bytes whole = readFile(path);
    const std::size_t last = whole.size() - 16 - 8, before = last - 32 - 8;
    expectRefused(dir() / "short.exr", whole, last + 4, 8);
    expectRefused(dir() / "short.exr", whole, before + 4, 16);
}

TEST_F(ExrLoad, WindowsAtTheEndOfTheNumbersAreAnErrorWithOneLine)
{
    constexpr int least = std::numeric_limits<int>::min(), most = std::numeric_limits<int>::max();
    const int windows[][4] = { { least, least, most, most }, { least, 0, most, 0 }, { 0, least, 0, most },
        { most, most, least, least }, { -2, -2, most, most }, { least, least, 2, 2 }, { -1, 0, most, 2 } };
    const Bytes whole = readFile(write({}));
    const std::string path = dir() / "window.exr";
    for (const auto& window : windows) {
        Bytes file = whole;
        const std::size_t at = valueOffset(file, "dataWindow", "box2i");
        for (int i = 0; i < 4; ++i)
            setNumber(file, at + std::size_t(i) * 4, window[i]);
        writeFile(path, file);
        ImageF image;
        expectOneLine(listen([&] { return LoadEXRFile(path.c_str(), image, nullptr); }));
        readEverything(path);
    }
    for (const int corner : { least, most - 4 }) { // Small, but far away.
        Bytes file = whole;
        const std::size_t at = valueOffset(file, "dataWindow", "box2i");
        setNumber(file, at, corner);
        setNumber(file, at + 8, corner + 4);
        writeFile(path, file);
        readEverything(path);
    }
}

TEST_F(ExrLoad, HeadersThatAskForMoreThanTheFileHoldsAreRefused)
{
    struct Damage {
        const char *attribute, *type;
        std::size_t offset;
        int value;
    };
    const Damage damages[] = {
        { "dataWindow", "box2i", 8, 1'000'000'000 }, // As wide.
        { "dataWindow", "box2i", 12, 1'000'000'000 }, // As high.
        { "tiles", "tiledesc", 0, 100'000'000 },
        { "tiles", "tiledesc", 4, 100'000'000 },
    };
    ExrFileFacts facts;
    facts.compression = Imf::ZIP_COMPRESSION;
    for (const Damage& damage : damages) {
        facts.isTiled = std::string_view(damage.attribute) == "tiles";
        Bytes file = readFile(write(facts));
        setNumber(file, valueOffset(file, damage.attribute, damage.type) + damage.offset, damage.value);
        const std::string path = dir() / "hostile.exr";
        writeFile(path, file);
        RecordingBuffer sink;
        const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), sink, nullptr); });
        expectOneLine(answer);
        EXPECT_THAT(answer.said, HasSubstr("too small")) << damage.attribute;
        EXPECT_EQ(sink.initCalls, 0);
    }

    Imf::Header header = ExrFileFacts().header();
    header.insert("note", Imf::StringAttribute("text"));
    ExrFileFacts().write(dir() / "note.exr", header);
    Bytes file = readFile(dir() / "note.exr");
    setNumber(file, valueOffset(file, "note", "string") - 4, std::numeric_limits<int>::max());
    const std::string path = dir() / "hostile.exr";
    writeFile(path, file);
    RecordingBuffer sink;
    const Answer answer = listen([&] { return LoadEXRFile(path.c_str(), sink, nullptr); });
    expectOneLine(answer);
    EXPECT_THAT(answer.said, HasSubstr("larger than the file"));
}

/// Large pictures of nothing at all take few bytes, and are no attack.
TEST_F(ExrLoad, FlatPicturesOfManyPixelsAreRead)
{
    for (const Imf::Compression compression :
        { Imf::RLE_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION, Imf::PXR24_COMPRESSION,
            Imf::B44A_COMPRESSION, Imf::DWAA_COMPRESSION, Imf::DWAB_COMPRESSION }) {
        constexpr int width = 8192, height = 300;
        const std::string path = dir() / "flat.exr";
        {
            Imf::Header header(width, height);
            header.compression() = compression;
            Imf::FrameBuffer frame;
            std::vector<half> row(width, half(0.0f));
            for (const char* const name : { "R", "G", "B", "A" }) {
                header.channels().insert(name, Imf::Channel(Imf::HALF));
                frame.insert(name, Imf::Slice(Imf::HALF, reinterpret_cast<char*>(row.data()), 2, 0));
            }
            Imf::OutputFile file(path.c_str(), header);
            file.setFrameBuffer(frame);
            file.writePixels(height);
        }
        ImageF image;
        EXPECT_EQ(codeOf(LoadEXRFile(path.c_str(), image, nullptr)), IMGERR_NONE) << compression;
        EXPECT_EQ(pixelOf(image, width - 1, height - 1), (Pixel { 0, 0, 0, 0 }));
    }
}

// --- Content hash ----------------------------------------------------------------------------------------

TEST_F(ExrLoad, HashIsTakenFromTheComments)
{
    const std::string digits = "0123456789abcdef0123456789abcdef01234567";
    const auto tagOf = [&](const char* name, const std::string& text, int room) {
        Imf::Header header = ExrFileFacts().header();
        header.insert(name, Imf::StringAttribute(text));
        const std::string path = dir() / "tag.exr";
        ExrFileFacts().write(path, header);
        char out[64] = "";
        const int found = LoadEXRSHA(path.c_str(), out, room);
        EXPECT_EQ(getImageSHATag(path.c_str(), out, room), found);
        return found ? std::string(out) : "none";
    };
    EXPECT_EQ(tagOf("comments", "by me SHA-1=" + digits, 64), digits.substr(0, 39));
    EXPECT_EQ(tagOf("comments", "SHA-1=" + digits, 40), "none");
    EXPECT_EQ(tagOf("comments", "nothing", 64), "none");
    EXPECT_EQ(tagOf("note", "SHA-1=" + digits, 64), "none");
    char out[64];
    EXPECT_EQ(LoadEXRSHA(nullptr, out, 64), 0);
    EXPECT_EQ(LoadEXRSHA((dir() / "tag.exr").c_str(), nullptr, 64), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(LoadEXRSHA((dir() / "missing.exr").c_str(), out, 64), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ExrLoad, DispatchersKnowTheFormat)
{
    const std::string path = write({}), unnamed = write({}, "unnamed");
    for (const std::string& name : { path, unnamed }) {
        ImageF image;
        IMGINFO info {};
        EXPECT_EQ(codeOf(LoadImageFile(name.c_str(), image, &info)), IMGERR_NONE);
        expectPixels(image, {});
        EXPECT_EQ(codeOf(LoadImageHeader(name.c_str(), &info)), IMGERR_NONE);
        EXPECT_EQ(info.bitsPerPixel, 64);
    }
}

} // namespace
