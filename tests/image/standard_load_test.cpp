#include "rastkit/image/standard_load.h"

#include "rastkit/load.h"
#include "rastkit/model/format_tables.h"
#include "support/recording_buffer.h"
#include "support/tga_bytes.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;

/// One pixel of 16 bits: red 31, green 0, blue 0.
Bytes redOf16Bits()
{
    TgaBytes tga;
    tga.pixelBits = 16;
    tga.pixels = { 0x00, 0x7C };
    return tga.bytes();
}

class StandardLoad : public testing::Test {
protected:
    std::string make(const char* name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return m_dir / name;
    }
    int load(const std::string& name) { return QUtils::loadStandard(name.c_str(), m_buffer, &m_info).code(); }
    int loadHeader(const std::string& name)
    {
        return QUtils::loadHeaderStandard(name.c_str(), &m_info, &m_type).code();
    }

    TempDir m_dir;
    RecordingBuffer m_buffer;
    IMGINFO m_info {};
    ImgType m_type = IMGTYPE_PIC;
};

TEST_F(StandardLoad, SixteenBitTargaHasItsTrueColoursWhereTheRendererSeesTransparentBlack)
{
    const std::string name = make("a.tga", redOf16Bits());
    EXPECT_EQ(load(name), IMGERR_NONE);
    EXPECT_EQ(m_buffer.at(0, 0), 0xFFFF0000u);

    RecordingBuffer renderers;
    EXPECT_EQ(LoadImageFile(name.c_str(), renderers, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(renderers.at(0, 0), 0u);
}

TEST_F(StandardLoad, HeaderNamesTheFormatThatTheContentsHave)
{
    EXPECT_EQ(loadHeader(make("a.png", redOf16Bits())), IMGERR_NONE);
    EXPECT_EQ(m_type, IMGTYPE_TGA);
    EXPECT_EQ(m_info.width, 1);
    EXPECT_EQ(m_info.bitsPerPixel, 16);
}

TEST_F(StandardLoad, FailureNamesNoFormatAndClearsTheInfo)
{
    m_info.dataWindowWidth = 77;
    EXPECT_EQ(loadHeader(make("a.tga", Bytes(40, 0xEE))), IMGERR_FORMAT);
    EXPECT_EQ(m_type, IMGTYPE_UNKNOWN);
    EXPECT_EQ(m_info.dataWindowWidth, 0);
}

TEST_F(StandardLoad, CutPixelsAreAReadError)
{
    Bytes bytes = redOf16Bits();
    bytes.pop_back();
    EXPECT_EQ(load(make("a.tga", bytes)), IMGERR_READ);
}

TEST_F(StandardLoad, MissingFileIsAnOpenError)
{
    EXPECT_EQ(load(m_dir / "none.tga"), IMGERR_OPEN);
    EXPECT_EQ(loadHeader(m_dir / "none.tga"), IMGERR_OPEN);
}

TEST_F(StandardLoad, FileOfNoKnownContentsGetsTheAnswerOfTheReaderOfItsExtension)
{
    // The renderer's dispatcher calls both "no format".
    const Bytes dds { 'D', 'D', 'S', ' ', 0, 0 };
    EXPECT_EQ(load(make("a.dds", dds)), IMGERR_READ);
    EXPECT_EQ(load(make("a.xyz", dds)), IMGERR_FORMAT);
}

TEST_F(StandardLoad, ReadsExactlyTheFormatsThatTheRenderersFunctionsRead)
{
    const std::string name = make("garbage", Bytes(40, 0xEE));
    for (const QUtils::ImageLoader& loader : QUtils::tableImageLoaders) {
        const bool isAbsent = loader.loadHeader(name.c_str(), &m_info).code() == IMGERR_UNSUPPORTED;
        EXPECT_EQ(QUtils::readsStandard(loader.type), !isAbsent) << loader.extensions;
    }
}

} // namespace
