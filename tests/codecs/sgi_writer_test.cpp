#include "rastkit/buffers.h"
#include "rastkit/codecs/sgi.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/recording_buffer.h"
#include "support/sgi_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::FrameBuffer;
using QUtils::FrameSample;
using QUtils::saveSgi;
using QUtils::SgiSaveOptions;

class SgiSave : public testing::Test {
protected:
    ~SgiSave() override { QUtils::sgiBitsPerChannel = 8; }

    int save(QUtils::PixelBufferInterface& frame, int alphaChannel, int flags = 0)
    {
        return codeOf(SaveSGIFile_pb(m_name.c_str(), frame, 0, alphaChannel, flags));
    }
    int saveStandard(QUtils::PixelBufferInterface& frame, int alphaChannel, const SgiSaveOptions& options)
    {
        return codeOf(saveSgi(m_name.c_str(), frame, 0, alphaChannel, 0, options, Conventions::Standard));
    }
    /// What a file of those fields and that content has, with this test's name in it.
    Bytes expected(SgiBytes file, const Bytes& data) const
    {
        file.name = m_name.substr(0, 80);
        file.data = data;
        return file.bytes();
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "out.sgi";
};

/// Fills a query's row with numbers that tell the row, the pixel and the component.
void fillTelling(const FrameDouble::Query& query, unsigned char* dest)
{
    for (int i = 0; i < query.rowBytes; ++i)
        dest[i] = static_cast<unsigned char>(query.region.top * 100 + i + 1);
}

TEST_F(SgiSave, ArrayBecomesFourPlanesFromTheBottomUp)
{
    unsigned int pixels[] = { 0x11223344, 0x55667788, 0x99AABBCC, 0xDDEEFF00 };
    IMGINFO info {};
    info.width = info.height = 2;
    EXPECT_EQ(codeOf(SaveSGIFile(m_name.c_str(), &info, pixels)), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name),
        expected({ .width = 2, .height = 2, .channels = 4 },
            { 0xAA, 0xEE, 0x22, 0x66, 0xBB, 0xFF, 0x33, 0x77, 0xCC, 0x00, 0x44, 0x88, 0x99, 0xDD, 0x11,
                0x55 }));
}

TEST_F(SgiSave, ArraysOfNoPixelsAreAHeader)
{
    IMGINFO info {};
    for (const auto& [width, height] :
        { std::pair(0, 3), std::pair(3, 0), std::pair(-1, 3), std::pair(3, -1) }) {
        info.width = width, info.height = height;
        EXPECT_EQ(codeOf(SaveSGIFile(m_name.c_str(), &info, nullptr)), IMGERR_NONE);
        EXPECT_EQ(readFile(m_name), expected({ .width = width, .height = height, .channels = 4 }, {}));
    }
}

TEST_F(SgiSave, FrameBecomesPlanesOfRedGreenBlueFromTheBottomUp)
{
    FrameDouble frame(2, 2);
    frame.fill = fillTelling;
    EXPECT_EQ(save(frame, -1), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name),
        expected(
            { .width = 2, .height = 2, .channels = 3 }, { 103, 106, 3, 6, 102, 105, 2, 5, 101, 104, 1, 4 }));
}

TEST_F(SgiSave, AlphaIsTheFourthPlane)
{
    FrameDouble frame(2, 1);
    frame.fill = fillTelling;
    EXPECT_EQ(save(frame, 5), IMGERR_NONE);
    EXPECT_EQ(
        readFile(m_name), expected({ .width = 2, .height = 1, .channels = 4 }, { 3, 7, 2, 6, 1, 5, 4, 8 }));
}

TEST_F(SgiSave, SixteenBitsAreWrittenWithTheUpperByteFirst)
{
    QUtils::sgiBitsPerChannel = 16;
    FrameDouble frame(2, 1);
    frame.fill = fillTelling;
    EXPECT_EQ(save(frame, -1), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name),
        expected({ .bytesPerChannel = 2, .width = 2, .height = 1, .channels = 3, .maxValue = 65535 },
            { 6, 5, 12, 11, 4, 3, 10, 9, 2, 1, 8, 7 }));
    EXPECT_EQ(save(frame, 0), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name),
        expected({ .bytesPerChannel = 2, .width = 2, .height = 1, .channels = 4, .maxValue = 65535 },
            { 6, 5, 14, 13, 4, 3, 12, 11, 2, 1, 10, 9, 8, 7, 16, 15 }));
}

TEST_F(SgiSave, OtherDepthsMeanEightBits)
{
    for (const int bits : { 0, 8, 12, 32, -16 }) {
        QUtils::sgiBitsPerChannel = bits;
        FrameDouble frame(1, 1);
        EXPECT_EQ(save(frame, -1), IMGERR_NONE);
        EXPECT_EQ(readFile(m_name), expected({ .channels = 3 }, { 0, 0, 0 })) << bits;
    }
}

TEST_F(SgiSave, EachRowIsAskedForOnceForEachPlane)
{
    const struct {
        int bits, alphaChannel, format, rowBytes;
    } cases[] = { { 8, -1, 200, 9 }, { 8, 7, 300, 12 }, { 16, -1, 201, 18 }, { 16, 7, 301, 24 } };
    for (const auto& c : cases) {
        QUtils::sgiBitsPerChannel = c.bits;
        FrameDouble frame(3, 2);
        EXPECT_EQ(codeOf(SaveSGIFile_pb(m_name.c_str(), frame, 4, c.alphaChannel, 0)), IMGERR_NONE);
        ASSERT_EQ(frame.queries.size(), c.alphaChannel < 0 ? 6u : 8u);
        for (std::size_t i = 0; i < frame.queries.size(); ++i) {
            const auto& q = frame.queries[i];
            const int y = 1 - int(i % 2);
            EXPECT_EQ(q.channel, 4);
            EXPECT_EQ(q.alphaChannel, c.alphaChannel);
            EXPECT_EQ(q.format, c.format);
            EXPECT_EQ(q.rowBytes, c.rowBytes);
            EXPECT_EQ(q.region.left, 0);
            EXPECT_EQ(q.region.right, 3);
            EXPECT_EQ(q.region.top, y);
            EXPECT_EQ(q.region.bottom, y + 1);
            EXPECT_EQ(q.region.width, 3);
            EXPECT_EQ(q.region.height, 1);
            EXPECT_EQ(q.argument0, 1);
            EXPECT_EQ(q.argument1, 0);
            EXPECT_EQ(q.argument2, 0);
            EXPECT_EQ(q.mode, -1);
        }
    }
}

TEST_F(SgiSave, CorrectedPixelsAreTakenWhereThereAreSome)
{
    FrameDouble frame(1, 1);
    const CorrectingPlugin plugin(frame);
    EXPECT_EQ(save(frame, -1, 0), IMGERR_NONE);
    EXPECT_EQ(frame.queries.back().mode, 3);
    EXPECT_EQ(save(frame, -1, 0x200), IMGERR_NONE);
    EXPECT_EQ(frame.queries.back().mode, 0);
}

TEST_F(SgiSave, NameFieldHoldsTheFirstEightyBytesOfTheName)
{
    const std::string name = m_dir / (std::string(90, 'n') + ".sgi");
    FrameDouble frame(1, 1);
    EXPECT_EQ(codeOf(SaveSGIFile_pb(name.c_str(), frame, 0, -1, 0)), IMGERR_NONE);
    const Bytes bytes = readFile(name);
    EXPECT_EQ(std::string(bytes.begin() + 24, bytes.begin() + 104), name.substr(0, 80));
    EXPECT_EQ(bytes[104], 0);
}

TEST_F(SgiSave, RefusedRowIsAWriteError)
{
    for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard })
        for (const bool runLength : { false, true }) {
            FrameDouble frame(2, 3);
            frame.fill = fillTelling;
            frame.refusedRow = 1;
            EXPECT_EQ(codeOf(saveSgi(m_name.c_str(), frame, 0, -1, 0, { 8, runLength }, conventions)),
                IMGERR_WRITE);
            EXPECT_EQ(frame.queries.size(), 2u);
            if (conventions == Conventions::Renderer) {
                EXPECT_EQ(readFile(m_name).size(), 514u) << "The row before is there.";
            }
        }
}

TEST_F(SgiSave, RendererIsNotToldOfAFullDisk)
{
    FrameDouble frame(600, 200);
    EXPECT_EQ(codeOf(SaveSGIFile_pb("/dev/full", frame, 0, -1, 0)), IMGERR_NONE);
    EXPECT_EQ(frame.queries.size(), 600u) << "All rows are asked for.";
    std::vector<unsigned int> pixels(600 * 200);
    IMGINFO info {};
    info.width = 600, info.height = 200;
    EXPECT_EQ(codeOf(SaveSGIFile("/dev/full", &info, pixels.data())), IMGERR_NONE);
}

TEST_F(SgiSave, StandardTellsOfAFullDisk)
{
    for (const bool runLength : { false, true }) {
        FrameDouble frame(2, 2);
        EXPECT_EQ(codeOf(saveSgi("/dev/full", frame, 0, -1, 0, { 8, runLength }, Conventions::Standard)),
            IMGERR_WRITE);
    }
}

TEST_F(SgiSave, FolderThatIsNotThereIsAnOpenError)
{
    FrameDouble frame(1, 1);
    IMGINFO info {};
    const ImgError error = SaveSGIFile_pb((m_dir / "none/a.sgi").c_str(), frame, 0, -1, 0);
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.message(), "Failed to open file: 2");
    EXPECT_EQ(codeOf(SaveSGIFile((m_dir / "none/a.sgi").c_str(), &info, nullptr)), IMGERR_OPEN);
}

TEST_F(SgiSave, FramesWithoutWidthAndRowsThatAreTooLong)
{
    FrameDouble none(0, 2);
    EXPECT_EQ(save(none, -1), IMGERR_NONE);
    EXPECT_EQ(readFile(m_name).size(), 512u);
    EXPECT_EQ(none.queries.size(), 6u);
    for (const int width : { -1, INT_MAX }) {
        FrameDouble frame(width, 1);
        EXPECT_EQ(save(frame, -1), IMGERR_MEMORY) << width;
        EXPECT_TRUE(frame.queries.empty());
    }
}

TEST_F(SgiSave, StandardRefusesSizesThatTheFormatHasNoPlaceFor)
{
    for (const auto& [width, height] :
        { std::pair(0, 1), std::pair(1, 0), std::pair(-1, 1), std::pair(65536, 1), std::pair(1, 65536) }) {
        FrameDouble frame(width, height);
        EXPECT_EQ(saveStandard(frame, -1, {}), IMGERR_UNSUPPORTED);
        EXPECT_FALSE(std::filesystem::exists(m_name));
    }
}

TEST_F(SgiSave, StandardPacketsStandRowByRowBehindTheTables)
{
    FrameDouble frame(5, 2);
    frame.fill = [](const FrameDouble::Query& query, unsigned char* dest) {
        const unsigned char blue[2][5] = { { 1, 2, 3, 4, 5 }, { 8, 8, 9, 9, 9 } };
        for (int x = 0; x < 5; ++x) {
            dest[3 * x] = blue[query.region.top][x];
            dest[3 * x + 1] = 7;
            dest[3 * x + 2] = 6;
        }
    };
    EXPECT_EQ(saveStandard(frame, -1, { 8, true }), IMGERR_NONE);
    EXPECT_EQ(frame.queries.size(), 2u);
    SgiBytes file { .storage = 1, .width = 5, .height = 2, .channels = 3, .data = {} };
    for (const unsigned int offset : { 560u, 572u, 563u, 575u, 566u, 578u, 3u, 3u, 3u, 3u, 6u, 7u })
        SgiBytes::put32(file.data, offset);
    const Bytes packets { 5, 6, 0, 5, 7, 0, 0x82, 8, 8, 3, 9, 0, 5, 6, 0, 5, 7, 0, 0x85, 1, 2, 3, 4, 5, 0 };
    file.data.insert(file.data.end(), packets.begin(), packets.end());
    EXPECT_EQ(readFile(m_name), file.bytes());
}

TEST_F(SgiSave, StandardPacketsOfSixteenBitsHaveSixteenBitControls)
{
    FrameDouble frame(4, 1);
    frame.fill = [](const FrameDouble::Query&, unsigned char* dest) {
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 3; ++c)
                dest[6 * x + 2 * c] = 1, dest[6 * x + 2 * c + 1] = static_cast<unsigned char>(x == 0 ? 2 : 3);
    };
    EXPECT_EQ(saveStandard(frame, -1, { 16, true }), IMGERR_NONE);
    const Bytes bytes = readFile(m_name);
    const Bytes row { 0, 0x81, 2, 1, 0, 3, 3, 1, 0, 0 };
    ASSERT_EQ(bytes.size(), 512 + 24 + 30u);
    EXPECT_EQ(Bytes(bytes.begin() + 536, bytes.begin() + 546), row);
    EXPECT_EQ(bytes[18], 0xFF);
}

/// Long and short runs, and noise, so that packets of all lengths come up.
FrameBuffer patchyFrame(int width, int height)
{
    FrameBuffer frame(width, height);
    frame.addChannel("color", QUtils::PIXELCHANNEL_COLOR, 4, FrameSample::Packed8);
    std::minstd_rand random(5);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width;) {
            const unsigned int value = unsigned(random()) * 0x9E3779B9u;
            const bool isRun = random() % 3 != 0;
            const int end = std::min<int>(width, x + 1 + int(random() % (random() % 2 ? 5 : 400)));
            for (; x < end; ++x)
                frame.rowPacked(0, y)[x] = isRun ? value : unsigned(random()) * 0x9E3779B9u;
        }
    return frame;
}

TEST_F(SgiSave, EveryDepthAndStorageComesBack)
{
    for (const auto& [width, height] : { std::pair(1, 1), std::pair(7, 4), std::pair(1023, 33) })
        for (const int bits : { 8, 16 })
            for (const bool runLength : { false, true })
                for (const int alphaChannel : { -1, 0 }) {
                    FrameBuffer frame = patchyFrame(width, height);
                    ASSERT_EQ(saveStandard(frame, alphaChannel, { bits, runLength }), IMGERR_NONE);
                    QUtils::Image8 image;
                    ASSERT_EQ(codeOf(QUtils::loadSgi(m_name.c_str(), image, nullptr, Conventions::Standard)),
                        IMGERR_NONE);
                    const unsigned int opaque = alphaChannel < 0 ? 0xFF000000u : 0;
                    for (int y = 0; y < height; ++y)
                        for (int x = 0; x < width; ++x)
                            ASSERT_EQ(image.pixel(x, y), frame.rowPacked(0, y)[x] | opaque)
                                << x << ' ' << y << ' ' << bits << runLength;
                }
}

TEST_F(SgiSave, StandardIsVerbatimWhereTheFileCannotBeGoneBackIn)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    FrameDouble frame(2, 1);
    const std::string name = "/dev/fd/" + std::to_string(ends[1]);
    EXPECT_EQ(
        codeOf(saveSgi(name.c_str(), frame, 0, -1, 0, { 8, true }, Conventions::Standard)), IMGERR_NONE);
    EXPECT_EQ(frame.queries.size(), 3u);
    Bytes bytes(1000);
    close(ends[1]);
    EXPECT_EQ(read(ends[0], bytes.data(), bytes.size()), 518);
    EXPECT_EQ(bytes[2], 0);
    close(ends[0]);
}

TEST_F(SgiSave, RendererReadsWhatItWrote)
{
    for (const int bits : { 8, 16 }) {
        QUtils::sgiBitsPerChannel = bits;
        FrameBuffer frame = patchyFrame(37, 5);
        ASSERT_EQ(save(frame, 0), IMGERR_NONE);
        QUtils::Image8 image;
        ASSERT_EQ(codeOf(LoadSGIFile(m_name.c_str(), image, nullptr)), IMGERR_NONE);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 37; ++x)
                ASSERT_EQ(image.pixel(x, y), frame.rowPacked(0, y)[x]);
    }
}

} // namespace
