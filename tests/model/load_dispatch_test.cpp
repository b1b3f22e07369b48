#include "rastkit/model/load_dispatch.h"

#include "rastkit/buffers.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "rastkit/save.h"

#include "support/psd_bytes.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"
#include "support/tga_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;

Bytes makeRedTga()
{
    TgaBytes tga;
    tga.pixels = { 0, 0, 255 };
    return tga.bytes();
}

const Bytes redTga = makeRedTga();
constexpr unsigned int red = 0xFFFF0000u;

IMGINFO staleInfo()
{
    IMGINFO info {};
    info.width = info.displayWindowHeight = 77;
    return info;
}

bool isClear(const IMGINFO& info)
{
    const IMGINFO clear {};
    return std::memcmp(&info, &clear, sizeof info) == 0;
}

class LoadDispatch : public testing::Test {
protected:
    std::string make(const char* name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return m_dir / name;
    }

    TempDir m_dir;
    RecordingBuffer m_buffer;
    IMGINFO m_info = staleInfo();
};

/// The formats that are written and read, with the type of their files.
const struct {
    const char* extension;
    ImgType type;
    bool loses;
} roundTrips[] = {
    { "bmp", IMGTYPE_BMP, false },
    { "exr", IMGTYPE_EXR, false },
    { "jpg", IMGTYPE_JPEG, true },
    { "pic", IMGTYPE_PIC, false },
    { "png", IMGTYPE_PNG, false },
    { "sgi", IMGTYPE_SGI, false },
    { "tga", IMGTYPE_TGA, false },
    { "tif", IMGTYPE_TIFF, false },
};

TEST_F(LoadDispatch, EveryFormatComesBackThroughTheDispatchers)
{
    QUtils::FrameBuffer frame(4, 4);
    ASSERT_EQ(frame.addChannel("color", 1, 3, QUtils::FrameSample::Packed8), 0);
    for (int y = 0; y < 4; ++y)
        std::fill_n(frame.rowPacked(0, y), 4, 0xFF40C020u);
    for (const auto& format : roundTrips)
        for (const char* name : { format.extension, "unknown" }) {
            const std::string path = m_dir / (std::string("a.") + name);
            const int index = QUtils::getFileFormatIndex(format.extension, nullptr);
            ASSERT_EQ(SaveImageFile(path.c_str(), frame, 0, -1, index).code(), IMGERR_NONE) << path;
            EXPECT_EQ(QUtils::DetectImageType(path.c_str()), format.type) << path;
            QUtils::Image8 image;
            ASSERT_EQ(LoadImageFile(path.c_str(), image, &m_info).code(), IMGERR_NONE) << path;
            EXPECT_EQ(m_info.width, 4);
            // Softimage files have red and blue exchanged.
            const unsigned int expected = format.type == IMGTYPE_PIC ? 0xFF20C040u : 0xFF40C020u;
            for (int shift = 0; shift < 32; shift += 8)
                EXPECT_NEAR(image.pixel(3, 2) >> shift & 0xFF, expected >> shift & 0xFF, format.loses ? 4 : 0)
                    << path << ' ' << shift;
            EXPECT_EQ(LoadImageHeader(path.c_str(), &m_info).code(), IMGERR_NONE) << path;
            EXPECT_EQ(m_info.height, 4);
        }
}

TEST_F(LoadDispatch, PackedPixelsComeBackThroughTheDispatchers)
{
    std::vector<unsigned int> pixels(16, 0xFF40C020u);
    for (const auto& format : roundTrips) {
        IMGINFO info {};
        info.width = info.height = info.numChannels = info.bytesPerPixel = 4;
        info.bitsPerPixel = 32;
        const std::string path = m_dir / (std::string("a.") + format.extension);
        ASSERT_EQ(SaveImageFile(path.c_str(), &info, pixels.data()).code(), IMGERR_NONE) << path;
        EXPECT_EQ(QUtils::DetectImageType(path.c_str()), format.type) << path;
        QUtils::Image8 image;
        ASSERT_EQ(LoadImageFile(path.c_str(), image, nullptr).code(), IMGERR_NONE) << path;
        // Packed TIFF files have red and blue exchanged, and so have all Softimage files.
        const bool isExchanged = format.type == IMGTYPE_TIFF || format.type == IMGTYPE_PIC;
        const unsigned int expected = isExchanged ? 0xFF20C040u : 0xFF40C020u;
        for (int shift = 0; shift < 32; shift += 8)
            EXPECT_NEAR(image.pixel(3, 2) >> shift & 0xFF, expected >> shift & 0xFF, format.loses ? 4 : 0)
                << path;
    }
}

TEST_F(LoadDispatch, ExtensionPicksTheReaderWhateverItsCase)
{
    const std::string name = make("a.TgA", redTga);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, &m_info).code(), IMGERR_NONE);
    EXPECT_EQ(m_buffer.at(0, 0), red);
    EXPECT_EQ(m_info.width, 1);
    EXPECT_EQ(m_info.displayWindowHeight, 0);
    IMGINFO header = staleInfo();
    EXPECT_EQ(LoadImageHeader(name.c_str(), &header).code(), IMGERR_NONE);
    EXPECT_EQ(header.bitsPerPixel, 24);
    EXPECT_EQ(header.displayWindowHeight, 0);
}

TEST_F(LoadDispatch, ContentsPickTheReaderOfAnUnknownExtension)
{
    const std::string name = make("a.xyz", redTga);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(m_buffer.at(0, 0), red);
}

TEST_F(LoadDispatch, ContentsPickTheReaderWhenTheExtensionLies)
{
    const std::string name = make("a.tif", redTga);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, &m_info).code(), IMGERR_NONE);
    EXPECT_EQ(m_buffer.at(0, 0), red);
    EXPECT_EQ(LoadImageHeader(name.c_str(), &m_info).code(), IMGERR_NONE);
}

TEST_F(LoadDispatch, FileThatIsOnlyAnExtensionGoesByItsContents)
{
    const std::string name = make(".tga", redTga);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, nullptr).code(), IMGERR_NONE);
}

TEST_F(LoadDispatch, GarbageIsAFormatErrorInsteadOfTheReadersOwn)
{
    const std::string name = make("a.tga", Bytes(40, 0xEE));
    const ImgError error = LoadImageFile(name.c_str(), m_buffer, &m_info);
    EXPECT_EQ(error.code(), IMGERR_FORMAT);
    EXPECT_STREQ(error.message(), "");
    EXPECT_TRUE(isClear(m_info));
    EXPECT_EQ(m_buffer.initCalls, 0);
}

TEST_F(LoadDispatch, ReaderThatContentsConfirmIsNotRunTwice)
{
    Bytes cut = redTga;
    cut.pop_back();
    const std::string name = make("a.tga", cut);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, &m_info).code(), IMGERR_READ);
    EXPECT_EQ(m_buffer.initCalls, 1);
    EXPECT_TRUE(isClear(m_info));
}

TEST_F(LoadDispatch, SecondReadersResultCountsWhateverItIs)
{
    Bytes cut = redTga;
    cut.pop_back();
    const std::string name = make("a.png", cut);
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, nullptr).code(), IMGERR_READ);
}

TEST_F(LoadDispatch, MissingFileNamesTheFunction)
{
    const std::string name = m_dir / "missing.tga";
    const ImgError file = LoadImageFile(name.c_str(), m_buffer, &m_info);
    EXPECT_EQ(file.code(), IMGERR_OPEN);
    EXPECT_STREQ(file.function(), "LoadImageFile");
    EXPECT_STREQ(file.message(), "Failed to open file: no such file");
    EXPECT_TRUE(isClear(m_info));

    m_info = staleInfo();
    const ImgError header = LoadImageHeader(name.c_str(), &m_info);
    EXPECT_EQ(header.code(), IMGERR_OPEN);
    EXPECT_STREQ(header.function(), "LoadImageHeader");
    EXPECT_STREQ(header.message(), "Failed to open file: no such file");
    EXPECT_TRUE(isClear(m_info));
    EXPECT_EQ(LoadImageFile(nullptr, m_buffer, nullptr).code(), IMGERR_OPEN);
}

TEST_F(LoadDispatch, DdsFilesAreNotToldByTheirContents)
{
    const std::string name = make("a.dat", { 'D', 'D', 'S', ' ' });
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, nullptr).code(), IMGERR_FORMAT);
}

TEST_F(LoadDispatch, PhotoshopTextsReachTheReader)
{
    PsdBytes file { .channels = 4 };
    file.picture = { 10, 20, 30, 40 };
    for (const char* name : { "a.psd", "a.dat" }) {
        const std::string psd = make(name, file.bytes());
        EXPECT_EQ(LoadImageFile(psd.c_str(), nullptr, nullptr, m_buffer, nullptr).code(), IMGERR_NONE);
        EXPECT_EQ(m_buffer.pixelsF.size(), 1u);
        EXPECT_EQ(LoadImageFile(psd.c_str(), "Layer", nullptr, m_buffer, nullptr).code(), IMGERR_FORMAT);
        EXPECT_EQ(LoadImageFile(psd.c_str(), nullptr, "Alpha 1", m_buffer, nullptr).code(), IMGERR_NONE);
        EXPECT_EQ(LoadImageFile(psd.c_str(), nullptr, "Alpha 2", m_buffer, nullptr).code(), IMGERR_FORMAT);
        EXPECT_EQ(LoadImageHeader(psd.c_str(), &m_info).code(), IMGERR_NONE);
    }
}

TEST_F(LoadDispatch, FolderIsNoImage)
{
    const std::string name = m_dir.path().string();
    EXPECT_EQ(LoadImageFile(name.c_str(), m_buffer, nullptr).code(), IMGERR_FORMAT);
}

TEST_F(LoadDispatch, SinkThatTakesRowsButHasNoPackedStorageGetsThemToo)
{
    const std::string name = make("a.tga", redTga);
    QUtils::ImageF image;
    ASSERT_EQ(LoadImageFile(name.c_str(), image, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(std::vector<float>(image.row(0), image.row(0) + 4), (std::vector<float> { 1, 0, 0, 1 }));
}

TEST_F(LoadDispatch, ManyThreadsLoadAtOnce)
{
    const std::string name = make("a.tga", redTga);
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    for (int& count : good) {
        threads.emplace_back([&count, &name] {
            for (int i = 0; i < 50; ++i) {
                RecordingBuffer buffer;
                count += LoadImageFile(name.c_str(), buffer, nullptr).code() == IMGERR_NONE
                    && buffer.at(0, 0) == red;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, std::vector<int>(4, 50));
}

TEST_F(LoadDispatch, ContentTagNeedsAFileAndAReader)
{
    char out[64];
    const std::string name = make("a.tga", redTga);
    EXPECT_EQ(getImageSHATag(name.c_str(), out, 64), 0);
    EXPECT_EQ(getImageSHATag(make("a.xyz", redTga).c_str(), out, 64), 0);
    EXPECT_EQ(getImageSHATag(make("a.txt", { 'x' }).c_str(), out, 64), 0);
    EXPECT_EQ(getImageSHATag(nullptr, out, 64), 0);
    EXPECT_EQ(getImageSHATag(name.c_str(), nullptr, 64), 0);
    EXPECT_EQ(getImageSHATag("/no/such/file.exr", out, 64), 0);
}

TEST(TextureWait, FallsLinearlyOverEachSecond)
{
    EXPECT_EQ(QUtils::textureWaitAt(0), 5000);
    EXPECT_EQ(QUtils::textureWaitAt(500), 2650);
    EXPECT_EQ(QUtils::textureWaitAt(999), 304);
    EXPECT_EQ(QUtils::textureWaitAt(1000), 5000);
    EXPECT_EQ(QUtils::textureWaitAt(4294967295u), (705 * 5000 + 295 * 300) / 1000);
}

TEST(TextureWait, LiesBetweenThreeHundredAndFiveThousand)
{
    for (int i = 0; i < 100; ++i) {
        const int wait = getTextureWait();
        EXPECT_GT(wait, 300);
        EXPECT_LE(wait, 5000);
    }
}

} // namespace
