#include "rastkit/codecs/psd.h"

#include "rastkit/buffers.h"
#include "rastkit/codecs/psd_core.h"
#include "rastkit/load.h"
#include "support/psd_bytes.h"
#include "support/recording_buffer.h"
#include "support/throwing_sink.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::Image8;
using QUtils::ImageF;
using QUtils::PSD_Error;

class PsdLoad : public testing::Test {
protected:
    std::string make(const PsdBytes& file)
    {
        writeFile(m_folder / "a.psd", file.bytes());
        return m_folder / "a.psd";
    }

    TempDir m_folder;
    RecordingBuffer m_buffer;
    IMGINFO m_info {};
};

/// 3 x 2 pixels, RGBA: planes count on from 1.
PsdBytes counted()
{
    PsdBytes file { .channels = 4, .width = 3, .height = 2 };
    for (int i = 1; i <= 24; ++i)
        file.picture.push_back(std::uint8_t(i));
    return file;
}

void expectInfo(const IMGINFO& info, int width, int height, int bits, int channels, int bytes)
{
    EXPECT_EQ(info.width, width);
    EXPECT_EQ(info.height, height);
    EXPECT_EQ(info.bitsPerPixel, bits);
    EXPECT_EQ(info.numChannels, channels);
    EXPECT_EQ(info.bytesPerPixel, bytes);
}

TEST_F(PsdLoad, PixelsComeAsFloatsRowByRowFromLeftToRight)
{
    EXPECT_EQ(codeOf(LoadPSDFile(make(counted()).c_str(), nullptr, nullptr, m_buffer, &m_info)), IMGERR_NONE);
    const std::vector<RecordingBuffer::Position> expected
        = { { 0, 0 }, { 1, 0 }, { 2, 0 }, { 0, 1 }, { 1, 1 }, { 2, 1 } };
    EXPECT_EQ(m_buffer.order, expected);
    EXPECT_EQ(m_buffer.initCalls, 1);
    EXPECT_TRUE(m_buffer.pixels.empty());
    const std::array<float, 4> last = { 6 / 255.0f, 12 / 255.0f, 18 / 255.0f, 24 / 255.0f };
    EXPECT_EQ((m_buffer.pixelsF[{ 2, 1 }]), last);
    expectInfo(m_info, 3, 2, 32, 4, 4);
}

TEST_F(PsdLoad, InfoMayBeNull)
{
    const std::string name = make(counted());
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), "", "", m_buffer, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(LoadPSDHeader(name.c_str(), nullptr)), IMGERR_NONE);
}

TEST_F(PsdLoad, HeaderIsAlwaysDescribedAsFourBytes)
{
    for (const int depth : { 8, 16, 32 }) {
        const std::string name = make({ .channels = 1, .width = 5, .height = 4, .depth = depth, .mode = 1 });
        EXPECT_EQ(codeOf(LoadPSDHeader(name.c_str(), &m_info)), IMGERR_NONE);
        expectInfo(m_info, 5, 4, 32, 4, 4);
    }
}

TEST_F(PsdLoad, StandardDescribesWhatTheFileStores)
{
    const struct {
        int channels, depth, mode;
        int numChannels, bits;
    } files[] = { { 1, 1, 0, 1, 8 }, { 1, 8, 1, 1, 8 }, { 2, 16, 1, 2, 32 }, { 3, 8, 3, 3, 24 },
        { 4, 32, 3, 4, 128 }, { 1, 8, 2, 3, 24 }, { 4, 8, 4, 3, 24 }, { 3, 16, 9, 3, 48 },
        { 2, 8, 7, 1, 8 } };
    for (const auto& file : files) {
        PsdBytes bytes { .channels = file.channels, .depth = file.depth, .mode = file.mode };
        bytes.picture = Bytes(std::size_t(file.channels * file.depth / 8 + 1), 0);
        const std::string name = make(bytes);
        IMGINFO header {};
        EXPECT_EQ(codeOf(loadPsdHeader(name.c_str(), &header, Conventions::Standard)), IMGERR_NONE);
        expectInfo(header, 1, 1, file.bits, file.numChannels, file.bits / 8);
        EXPECT_EQ(codeOf(loadPsd(name.c_str(), m_buffer, &m_info, Conventions::Standard)), IMGERR_NONE);
        expectInfo(m_info, 1, 1, file.bits, file.numChannels, file.bits / 8);
    }
}

TEST_F(PsdLoad, RefusingSinkIsDeliberatelyNotNoticedByTheRenderer)
{
    const std::string name = make(counted());
    m_buffer.refuse = true;
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, m_buffer, &m_info)), IMGERR_NONE);
    EXPECT_EQ(m_buffer.pixelsF.size(), 6u) << "it gets its pixels all the same";
    EXPECT_EQ(m_info.width, 3);

    RecordingBuffer refusing;
    refusing.refuse = true;
    EXPECT_EQ(codeOf(loadPsd(name.c_str(), refusing, nullptr, Conventions::Standard)), IMGERR_MEMORY);
    EXPECT_TRUE(refusing.pixelsF.empty());
}

TEST_F(PsdLoad, ImageThatMayNotGrowSoLargeStaysEmpty)
{
    const std::string name = make(counted());
    ImageF image;
    image.setMaxBytes(10);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, image, nullptr)), IMGERR_NONE);
    EXPECT_EQ(image.isValid(), 0);
    Image8 packed;
    packed.setMaxBytes(10);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, packed, nullptr)), IMGERR_NONE);
    EXPECT_EQ(codeOf(loadPsd(name.c_str(), packed, nullptr, Conventions::Standard)), IMGERR_MEMORY);
}

TEST_F(PsdLoad, ImagesOfRowsHoldTheSamePixels)
{
    for (const int compressedAlpha : { 0, 1 }) {
        PsdBytes file = counted();
        if (compressedAlpha)
            file.layerSection = file.transparentSection();
        const std::string name = make(file);
        ASSERT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, m_buffer, nullptr)), IMGERR_NONE);
        ImageF floats;
        Image8 bytes, rounded;
        ASSERT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, floats, nullptr)), IMGERR_NONE);
        ASSERT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, bytes, nullptr)), IMGERR_NONE);
        rounded.init(3, 2);
        for (const auto& [position, rgba] : m_buffer.pixelsF) {
            rounded.setPixelF(position.first, position.second, rgba.data());
            EXPECT_TRUE(
                std::equal(rgba.begin(), rgba.end(), floats.row(position.second) + position.first * 4));
        }
        for (const auto& [position, rgba] : m_buffer.pixelsF)
            EXPECT_EQ(
                bytes.pixel(position.first, position.second), rounded.pixel(position.first, position.second));
    }
}

TEST_F(PsdLoad, FailureLeavesTheSinkAlone)
{
    PsdBytes cut = counted();
    cut.picture.pop_back();
    const std::string name = make(cut);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, m_buffer, &m_info)), IMGERR_READ);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), "Layer", nullptr, m_buffer, &m_info)), IMGERR_FORMAT);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, "Mask", m_buffer, &m_info)), IMGERR_FORMAT);
    EXPECT_EQ(m_buffer.initCalls, 0);
    EXPECT_EQ(m_info.width, 0);
}

TEST_F(PsdLoad, MissingFileIsTheReadersAnswer)
{
    const std::string name = m_folder / "none.psd";
    EXPECT_EQ(codeOf(LoadPSDHeader(name.c_str(), &m_info)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(LoadPSDHeader(nullptr, &m_info)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, m_buffer, nullptr)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(LoadPSDFile(nullptr, nullptr, nullptr, m_buffer, nullptr)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(loadPsd(name.c_str(), m_buffer, nullptr, Conventions::Standard)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(loadPsdHeader(name.c_str(), &m_info, Conventions::Standard)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(LoadPSDHeader(make({ .version = 7 }).c_str(), &m_info)), IMGERR_FORMAT);
}

TEST_F(PsdLoad, ThrowingSinkIsReleased)
{
    const std::string name = make(counted());
    for (const bool inInit : { true, false }) {
        ThrowingSink sink;
        sink.throwInInit = inInit;
        sink.throwAtPixel = 3;
        EXPECT_THROW((void)LoadPSDFile(name.c_str(), nullptr, nullptr, sink, nullptr), std::runtime_error);
        EXPECT_EQ(sink.freeCalls, 1);
    }
}

TEST(PsdErrors, NumbersOfTheReaderAreMapped)
{
    const ImgErrorCode expected[] = { IMGERR_NONE, IMGERR_OPEN, IMGERR_READ, IMGERR_WRITE, IMGERR_FORMAT,
        IMGERR_UNSUPPORTED, IMGERR_LIBRARY };
    for (int number = 0; number < 7; ++number)
        EXPECT_EQ(psdToImgError(PSD_Error(number)), expected[number]) << number;
}

TEST(PsdErrors, UnknownNumbersAreDeliberatelySuccess)
{
    for (const int number : { -1, 7, 8, 1000 })
        EXPECT_EQ(psdToImgError(PSD_Error(number)), IMGERR_NONE) << number;
}

} // namespace
