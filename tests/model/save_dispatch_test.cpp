#include "rastkit/buffers.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "rastkit/save.h"

#include "support/frame_double.h"
#include "support/open_files.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <iterator>
#include <limits>
#include <stdexcept>

namespace {

using namespace testing_support;
namespace fs = std::filesystem;

class SaveDispatch : public testing::Test {
protected:
    IMGINFO infoOf(int width, int height)
    {
        IMGINFO info {};
        info.width = width;
        info.height = height;
        info.bitsPerPixel = 32;
        info.numChannels = info.bytesPerPixel = 4;
        return info;
    }
    int saveAll(
        FrameDouble& frame, const std::string& name, int flags = 0, bool folders = false, int index = -1)
    {
        return SaveImageFile_allChannels(name.c_str(), frame, index, 12, '.', 4, folders, flags, false)
            .code();
    }
    /// The (channel, alpha channel) pairs of the frame's first rows, in the order of the files.
    static std::vector<std::pair<int, int>> written(const FrameDouble& frame)
    {
        std::vector<std::pair<int, int>> result;
        for (const FrameDouble::Query& query : frame.queries) {
            if (query.region.top == 0)
                result.push_back({ query.channel, query.alphaChannel });
        }
        return result;
    }

    TempDir m_dir;
    using Pairs = std::vector<std::pair<int, int>>;
};

TEST_F(SaveDispatch, PackedPixelsGoToTheWriterOfTheExtension)
{
    IMGINFO info = infoOf(2, 1);
    unsigned int pixels[] = { 0xFF102030u, 0x80FFFFFFu };
    EXPECT_EQ(SaveImageFile((m_dir / "a.tga").c_str(), &info, pixels).code(), IMGERR_NONE);
    QUtils::Image8 image;
    ASSERT_EQ(LoadImageFile((m_dir / "a.tga").c_str(), image, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(image.pixel(0, 0), 0xFF102030u);
    EXPECT_EQ(image.pixel(1, 0), 0x80FFFFFFu);
}

TEST_F(SaveDispatch, FormatsWithoutAWriterOfPackedPixelsAreUnsupported)
{
    IMGINFO info = infoOf(1, 1);
    unsigned int pixel = 0;
    for (const char* name : { "a.hdr", "a.psd", "a.quimg", "a.xyz", "a.dds", "noextension" }) {
        EXPECT_EQ(SaveImageFile((m_dir / name).c_str(), &info, &pixel).code(), IMGERR_UNSUPPORTED) << name;
        EXPECT_FALSE(fs::exists(m_dir / name)) << name;
    }
}

TEST_F(SaveDispatch, FloatPixelsAreConvertedForFormatsOfBytes)
{
    IMGINFO info = infoOf(2, 1);
    float pixels[] = { 1.0f, 0.5f, -3.0f, 7.0f, 0.999f, 0.0f, std::numeric_limits<float>::quiet_NaN(), 1.0f };
    EXPECT_EQ(SaveImageFile((m_dir / "a.tga").c_str(), &info, pixels).code(), IMGERR_NONE);
    QUtils::Image8 image;
    ASSERT_EQ(LoadImageFile((m_dir / "a.tga").c_str(), image, nullptr).code(), IMGERR_NONE);
    EXPECT_EQ(image.pixel(0, 0), 0xFFFF7F00u);
    EXPECT_EQ(image.pixel(1, 0), 0xFFFE0000u);
}

TEST_F(SaveDispatch, FloatWritersOfAFormatOfBytesWriteNothing)
{
    IMGINFO info = infoOf(1, 1);
    float pixel[4] = {};
    EXPECT_EQ(SaveTGAFile((m_dir / "a.tga").c_str(), &info, pixel).code(), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(fs::exists(m_dir / "a.tga"));
}

TEST_F(SaveDispatch, ShortNamesAreNoFloatFormat)
{
    IMGINFO info = infoOf(1, 1);
    float pixel[4] = {};
    for (const char* name : { "x", "hdr" })
        EXPECT_EQ(SaveImageFile(name, &info, pixel).code(), IMGERR_UNSUPPORTED) << name;
    EXPECT_EQ(SaveImageFile("", &info, pixel).code(), IMGERR_OPEN) << "An empty name is one of a PNG file.";
}

TEST_F(SaveDispatch, FloatPixelsThatCannotBeConvertedAreAMemoryError)
{
    IMGINFO info = infoOf(-1, 1);
    float pixel[4] = {};
    EXPECT_EQ(SaveImageFile((m_dir / "a.tga").c_str(), &info, pixel).code(), IMGERR_MEMORY);
    EXPECT_FALSE(fs::exists(m_dir / "a.tga"));
}

TEST_F(SaveDispatch, MissingNameIsUnsupported)
{
    IMGINFO info = infoOf(1, 1);
    float pixel[4] = {};
    unsigned int packed = 0;
    FrameDouble frame(1, 1);
    EXPECT_EQ(SaveImageFile(nullptr, &info, pixel).code(), IMGERR_UNSUPPORTED);
    EXPECT_EQ(SaveImageFile(nullptr, &info, &packed).code(), IMGERR_UNSUPPORTED);
    EXPECT_EQ(SaveImageFile(nullptr, frame, 0, -1, -1).code(), IMGERR_UNSUPPORTED);
}

TEST_F(SaveDispatch, FrameThatThrowsLeavesNoFileOpen)
{
    const int before = openFiles();
    FrameDouble frame(1, 1);
    frame.fill
        = [](const FrameDouble::Query&, unsigned char*) { throw std::runtime_error("the frame's own"); };
    EXPECT_THROW((void)SaveImageFile((m_dir / "a.tga").c_str(), frame, 0, -1, -1), std::runtime_error);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(SaveDispatch, FormatIndexOverrulesTheName)
{
    FrameDouble frame(2, 2);
    EXPECT_EQ(SaveImageFile((m_dir / "a.png").c_str(), frame, 0, -1, 2, 0).code(), IMGERR_NONE);
    EXPECT_EQ(DetectImageType((m_dir / "a.png").c_str()), IMGTYPE_TGA);
    EXPECT_EQ(SaveImageFile((m_dir / "b.tga").c_str(), frame, 0, -1, -1).code(), IMGERR_NONE);
}

TEST_F(SaveDispatch, FormatIndexOutsideTheListIsUnsupported)
{
    FrameDouble frame(1, 1);
    for (const int index : { 11, -2, 9, 10, 1 << 30 })
        EXPECT_EQ(
            SaveImageFile((m_dir / "a.tga").c_str(), frame, 0, -1, index, 0).code(), IMGERR_UNSUPPORTED);
    EXPECT_FALSE(fs::exists(m_dir / "a.tga"));
}

TEST_F(SaveDispatch, EveryChannelGetsAFileAndTheFirstAlphaAsItsPartner)
{
    FrameDouble frame(1, 2, { { "rgba", 1 }, { "depth", 100 }, { "alpha", 125 }, { "mask", 2 } });
    EXPECT_EQ(saveAll(frame, m_dir / "f.tga", 4), IMGERR_NONE);
    EXPECT_EQ(written(frame), (Pairs { { 0, 2 }, { 1, 2 }, { 2, 2 }, { 3, 2 } }));
    for (const char* name : { "f.0012.tga", "f.depth.0012.tga", "f.alpha.0012.tga", "f.mask.0012.tga" })
        EXPECT_TRUE(fs::exists(m_dir / name)) << name;
}

TEST_F(SaveDispatch, FlagsLeaveOutChannelsAndThePairing)
{
    const std::vector<FrameDouble::Channel> channels { { "a", 126 }, { "b", 2 }, { "c", 125 }, { "d", 1 } };
    FrameDouble unpaired(1, 1, channels), noAlpha(1, 1, channels), no126(1, 1, channels);
    EXPECT_EQ(saveAll(unpaired, m_dir / "f.tga", 0x8), IMGERR_NONE);
    EXPECT_EQ(written(unpaired), (Pairs { { 0, -1 }, { 1, -1 }, { 2, -1 }, { 3, -1 } }));
    EXPECT_EQ(saveAll(noAlpha, m_dir / "f.tga", 0x2), IMGERR_NONE);
    EXPECT_EQ(written(noAlpha), (Pairs { { 0, 1 }, { 3, 1 } }));
    EXPECT_EQ(saveAll(no126, m_dir / "f.tga", 0x20), IMGERR_NONE);
    EXPECT_EQ(written(no126), (Pairs { { 1, 1 }, { 2, 1 }, { 3, 1 } }));
}

TEST_F(SaveDispatch, ChannelsWithoutADescriptionAreSkipped)
{
    FrameDouble frame(1, 1, { { "a", 2, 2, false }, { "b", 100 }, { "c", 125 } });
    EXPECT_EQ(saveAll(frame, m_dir / "f.tga"), IMGERR_NONE);
    EXPECT_EQ(written(frame), (Pairs { { 1, 2 }, { 2, 2 } }));
}

TEST_F(SaveDispatch, FrameWithoutChannelsWritesNothingAndSucceeds)
{
    FrameDouble frame(1, 1, {});
    EXPECT_EQ(saveAll(frame, m_dir / "f.tga"), IMGERR_NONE);
    EXPECT_TRUE(fs::is_empty(m_dir.path()));
}

TEST_F(SaveDispatch, FailingChannelDoesNotStopTheOthers)
{
    FrameDouble frame(1, 1, { { "a", 100 }, { "b", 101 }, { "c", 102 } });
    fs::create_directory(m_dir / "f.b.tga"); // A folder where the second file should go.
    const ImgError error
        = SaveImageFile_allChannels((m_dir / "f.tga").c_str(), frame, -1, 0, '.', 4, false, 0, false);
    EXPECT_EQ(error.code(), IMGERR_WRITE);
    EXPECT_STREQ(error.message(), "");
    EXPECT_TRUE(fs::exists(m_dir / "f.a.tga"));
    EXPECT_TRUE(fs::exists(m_dir / "f.c.tga"));
}

TEST_F(SaveDispatch, FoldersAreMadeForChannelsThatAskForThem)
{
    FrameDouble frame(1, 1, { { "rgba", 1 }, { "depth", 100 } });
    EXPECT_EQ(
        saveAll(frame, m_dir / "new/f.tga", 0, true), IMGERR_WRITE); // The colour channel has no folder.
    EXPECT_TRUE(fs::exists(m_dir / "new/depth/f.depth.tga"));
    EXPECT_EQ(saveAll(frame, m_dir / "new/f.tga", 0, true), IMGERR_NONE);
    EXPECT_TRUE(fs::exists(m_dir / "new/f.tga"));
}

TEST_F(SaveDispatch, NameWithoutAFolderIsWrittenWhereItStands)
{
    const fs::path before = fs::current_path();
    fs::current_path(m_dir.path());
    FrameDouble frame(1, 1, { { "a", 100 } });
    EXPECT_EQ(saveAll(frame, "f.tga", 0, true), IMGERR_NONE);
    EXPECT_TRUE(fs::exists("f.a.tga"));
    fs::current_path(before);
}

TEST_F(SaveDispatch, OtherFormatsDoNotTakeAllChannels)
{
    FrameDouble frame(1, 1);
    for (const char* name : { "a.tga", "a.xyz", "noextension" })
        EXPECT_EQ(SaveImageFile_multiChannel((m_dir / name).c_str(), nullptr, &frame, true, 1, 4).code(),
            IMGERR_UNSUPPORTED);
    EXPECT_TRUE(fs::is_empty(m_dir.path()));
}

} // namespace
