#include "rastkit/image/standard_save.h"

#include "rastkit/image/standard_load.h"
#include "rastkit/model/format_tables.h"
#include "rastkit/save.h"
#include "support/temp_file.h"
#include "support/tiff_reading.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace {

using namespace testing_support;
using QUtils::Image8;

const int tga = QUtils::getFileFormatIndex("tga", nullptr);

Image8 makeImage(int width, int height, unsigned int alphaOfLast)
{
    Image8 image;
    image.init(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setPixel(x, y, 0xFF000000u | unsigned(x) << 16 | unsigned(y) << 8 | 0x5Au);
    image.setPixel(width - 1, height - 1, alphaOfLast << 24 | 0x123456u);
    return image;
}

void expectSamePixels(const Image8& a, const Image8& b)
{
    ASSERT_EQ(a.width(), b.width());
    ASSERT_EQ(a.height(), b.height());
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            ASSERT_EQ(a.pixel(x, y), b.pixel(x, y)) << x << ", " << y;
}

class StandardSave : public testing::Test {
protected:
    IMGINFO saveAndLoad(const Image8& image)
    {
        EXPECT_EQ(QUtils::saveStandard(m_name.c_str(), tga, image).code(), IMGERR_NONE);
        IMGINFO info {};
        Image8 loaded;
        EXPECT_EQ(QUtils::loadStandard(m_name.c_str(), loaded, &info).code(), IMGERR_NONE);
        expectSamePixels(image, loaded);
        return info;
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "a.tga";
};

TEST_F(StandardSave, OpaqueImageHasNoAlphaInTheFile)
{
    EXPECT_EQ(saveAndLoad(makeImage(7, 4, 0xFF)).bitsPerPixel, 24);
}

TEST_F(StandardSave, OnePixelThatIsNotOpaqueKeepsAlphaInTheFile)
{
    EXPECT_EQ(saveAndLoad(makeImage(7, 4, 0xFE)).bitsPerPixel, 32);
    EXPECT_EQ(saveAndLoad(makeImage(1, 1, 0)).bitsPerPixel, 32);
}

TEST_F(StandardSave, NameDoesNotChooseTheFormat)
{
    const std::string name = m_dir / "a.png";
    EXPECT_EQ(QUtils::saveStandard(name.c_str(), tga, makeImage(2, 2, 0xFF)).code(), IMGERR_NONE);
    EXPECT_EQ(QUtils::DetectImageType(name.c_str()), IMGTYPE_TGA);
}

TEST_F(StandardSave, SizeThatTheFormatHasNoPlaceForIsUnsupportedAndTouchesNothing)
{
    EXPECT_EQ(
        QUtils::saveStandard(m_name.c_str(), tga, makeImage(65536, 1, 0xFF)).code(), IMGERR_UNSUPPORTED);
    EXPECT_EQ(QUtils::saveStandard(m_name.c_str(), tga, Image8()).code(), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(m_name));
}

TEST_F(StandardSave, FullDiskIsAWriteError)
{
    EXPECT_EQ(QUtils::saveStandard("/dev/full", tga, makeImage(600, 400, 0xFF)).code(), IMGERR_WRITE);
}

TEST_F(StandardSave, IndexThatIsNoFormatIsUnsupported)
{
    for (const int index : { -1, QUtils::supportedCount }) {
        EXPECT_FALSE(QUtils::writesStandard(index));
        EXPECT_EQ(
            QUtils::saveStandard(m_name.c_str(), index, makeImage(2, 2, 0xFF)).code(), IMGERR_UNSUPPORTED);
    }
}

TEST_F(StandardSave, WritesOnlyFormatsThatTheRenderersFunctionsWrite)
{
    for (int i = 0; i < QUtils::supportedCount; ++i) {
        QUtils::FrameBuffer frame(2, 2);
        frame.addChannel("color", 1, 3, QUtils::FrameSample::Packed8);
        const bool isAbsent = SaveImageFile(m_name.c_str(), frame, 0, -1, i).code() == IMGERR_UNSUPPORTED;
        EXPECT_EQ(QUtils::writesStandard(i), !isAbsent) << QUtils::supported[i].extensions;
    }
}

// --- Floats
// --------------------------------------------------------------------------------------------------

QUtils::ImageF makeFloats(const std::vector<std::array<float, 4>>& pixels)
{
    QUtils::ImageF image;
    image.init(int(pixels.size()), 1);
    for (std::size_t x = 0; x < pixels.size(); ++x)
        image.setPixelF(int(x), 0, pixels[x].data());
    return image;
}

TEST_F(StandardSave, FloatsKeepWhatTheFormatCanHold)
{
    const int tif = QUtils::getFileFormatIndex("tif", nullptr);
    const float fraction = 12345 / 65535.0f, scaled = 54321 * 1.5259022e-05f;
    const auto bitsOf = [&](const QUtils::ImageF& image) {
        EXPECT_EQ(QUtils::saveStandard(m_name.c_str(), tif, image).code(), IMGERR_NONE);
        return OpenTiff(m_name).number(TIFFTAG_BITSPERSAMPLE);
    };
    EXPECT_EQ(bitsOf(makeFloats({ { 0, 1, fraction, 1 } })), 16u);
    EXPECT_EQ(OpenTiff(m_name).row(0, 2).at(0), 12345u);
    EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_SAMPLESPERPIXEL), 3u);
    EXPECT_EQ(bitsOf(makeFloats({ { 0, scaled, 1, 0.2f } })), 16u) << "0.2 is 13107 / 65535";
    EXPECT_EQ(OpenTiff(m_name).number(TIFFTAG_SAMPLESPERPIXEL), 4u);
    EXPECT_EQ(bitsOf(makeFloats({ { 0, 0, 0, 1 }, { 0, 1.5f, 0, 1 } })), 32u);
    EXPECT_EQ(bitsOf(makeFloats({ { 0, -0.5f, 0, 1 } })), 32u);
    EXPECT_EQ(bitsOf(makeFloats({ { 0, NAN, 0, 1 } })), 32u);
    EXPECT_EQ(bitsOf(makeFloats({ { 0, 0.33333f, 0, 1 } })), 32u);
}

TEST_F(StandardSave, FloatsBecome16BitsInAPngFile)
{
    const int png = QUtils::getFileFormatIndex("png", nullptr);
    const float scaled = 54321 * 1.5259022e-05f;
    ASSERT_EQ(
        QUtils::saveStandard(m_name.c_str(), png, makeFloats({ { 0, scaled, 2, 1 }, { -1, NAN, 1, 1 } }))
            .code(),
        IMGERR_NONE);
    QUtils::ImageF loaded;
    IMGINFO info {};
    ASSERT_EQ(QUtils::loadStandard(m_name.c_str(), loaded, &info).code(), IMGERR_NONE);
    EXPECT_EQ(info.bitsPerPixel, 48);
    EXPECT_EQ(std::vector<float>(loaded.row(0), loaded.row(0) + 8),
        (std::vector<float> { 0, scaled, 1, 1, 0, 0, 1, 1 }));
}

TEST_F(StandardSave, FloatsAreRoundedForAFormatOfBytes)
{
    ASSERT_EQ(
        QUtils::saveStandard(m_name.c_str(), tga, makeFloats({ { 2, 0.5f, -1, 1 }, { 0, 0, 0, 0.25f } }))
            .code(),
        IMGERR_NONE);
    Image8 loaded;
    ASSERT_EQ(QUtils::loadStandard(m_name.c_str(), loaded, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(loaded.pixel(0, 0), 0xFFFF8000u);
    EXPECT_EQ(loaded.pixel(1, 0), 0x40000000u);
}

} // namespace
