#include "rastkit/save.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using QUtils::PixelBufferChannelInfo;

struct Request {
    std::string fileName = "dir/beauty.exr";
    std::string channel = "diffuse";
    int id = 101;
    char divider = '.';
    bool addFrameNumber = false;
    int frame = 0;
    int digits = 4;
    int outSize = 512;
    bool separateFolder = false;
    bool nameColorChannel = false;
};

struct Answer {
    int result;
    std::string name;
};

Answer nameFor(const Request& r)
{
    char out[600] = "untouched";
    const PixelBufferChannelInfo info { 2, r.channel.c_str(), r.id };
    const int result = SaveImageFile_getFilename(r.fileName.c_str(), info, r.divider, r.addFrameNumber,
        r.frame, r.digits, out, r.outSize, r.separateFolder, r.nameColorChannel);
    return { result, out };
}

TEST(OutputName, ChannelNameStandsBeforeTheExtension)
{
    const Answer answer = nameFor({});
    EXPECT_EQ(answer.name, "dir/beauty.diffuse.exr");
    EXPECT_EQ(answer.result, 0);
}

TEST(OutputName, FolderIsNamedAfterTheChannel)
{
    const Answer answer = nameFor({ .separateFolder = true });
    EXPECT_EQ(answer.name, "dir/diffuse/beauty.diffuse.exr");
    EXPECT_EQ(answer.result, 1);
}

TEST(OutputName, ColorChannelsKeepTheNameEvenWithFolders)
{
    for (const int id : { 1, 126 }) {
        for (const bool separateFolder : { false, true }) {
            const Answer answer = nameFor({ .id = id, .separateFolder = separateFolder });
            EXPECT_EQ(answer.name, "dir/beauty.exr");
            EXPECT_EQ(answer.result, 0);
        }
    }
    EXPECT_EQ(nameFor({ .id = 1, .nameColorChannel = true }).name, "dir/beauty.exr");
}

TEST(OutputName, ColorChannelIsRgbaWhenItGetsAFolder)
{
    const Answer answer = nameFor({ .id = 126, .separateFolder = true, .nameColorChannel = true });
    EXPECT_EQ(answer.name, "dir/rgba/beauty.rgba.exr");
    EXPECT_EQ(answer.result, 1);
}

TEST(OutputName, FolderStepAnswersOneWithoutASeparator)
{
    const Answer answer = nameFor({ .fileName = "beauty.exr", .separateFolder = true });
    EXPECT_EQ(answer.name, "beauty.diffuse.exr");
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(nameFor({ .fileName = "/beauty.exr", .separateFolder = true }).name, "/beauty.diffuse.exr");
}

TEST(OutputName, FolderStepAnswersOneWithoutRoomForAName)
{
    EXPECT_EQ(nameFor({ .outSize = 0, .separateFolder = true }).result, 1);
    EXPECT_EQ(nameFor({ .outSize = 1, .separateFolder = true }).result, 1);
    EXPECT_EQ(nameFor({ .fileName = "", .divider = '\0', .separateFolder = true }).result, 1);
    EXPECT_EQ(nameFor({ .fileName = "", .divider = '\0', .separateFolder = true }).name, "");
}

TEST(OutputName, BackslashDividesFoldersToo)
{
    EXPECT_EQ(nameFor({ .fileName = "dir\\beauty.exr", .separateFolder = true }).name,
        "dir\\diffuse\\beauty.diffuse.exr");
}

TEST(OutputName, DividerOfZeroLeavesTheFileNameAloneButNotTheFolder)
{
    EXPECT_EQ(nameFor({ .divider = '\0' }).name, "dir/beauty.exr");
    EXPECT_EQ(nameFor({ .divider = '\0', .separateFolder = true }).name, "dir/diffuse/beauty.exr");
}

TEST(OutputName, ChannelNameIsMadeValidInTheFileNameButStandsRawAsAFolder)
{
    EXPECT_EQ(nameFor({ .channel = "a:b", .separateFolder = true }).name, "dir/a:b/beauty.a_b.exr");
}

TEST(OutputName, FrameNumberComesLast)
{
    EXPECT_EQ(nameFor({ .addFrameNumber = true, .frame = 12 }).name, "dir/beauty.diffuse.0012.exr");
    EXPECT_EQ(nameFor({ .addFrameNumber = true, .frame = -7, .separateFolder = true }).name,
        "dir/diffuse/beauty.diffuse.-0007.exr");
    EXPECT_EQ(nameFor({ .fileName = "dir/b_##.exr", .addFrameNumber = true, .frame = 5 }).name,
        "dir/b_05.diffuse.exr");
}

TEST(OutputName, SmallBuffersAreRespected)
{
    EXPECT_EQ(nameFor({ .outSize = 0 }).name, "untouched");
    EXPECT_EQ(nameFor({ .outSize = -5 }).name, "untouched");
    EXPECT_EQ(nameFor({ .addFrameNumber = true, .outSize = 1, .separateFolder = true }).name, "");
    EXPECT_EQ(nameFor({ .outSize = 5 }).name, "dir/");
    EXPECT_EQ(nameFor({ .addFrameNumber = true, .outSize = 0, .separateFolder = true }).name, "untouched");
}

TEST(OutputName, LongNamesAreCutInsideTheScratchBuffers)
{
    const std::string longName(700, 'n');
    EXPECT_EQ(nameFor({ .fileName = "dir/" + longName + ".exr" }).name.size(), 511u);
    EXPECT_EQ(nameFor({ .channel = longName, .separateFolder = true }).name.size(), 511u);
    EXPECT_LE(
        nameFor({ .channel = longName, .addFrameNumber = true, .separateFolder = true }).name.size(), 511u);
}

TEST(OutputName, PlainFormAddsOnlyTheFrameNumber)
{
    char out[64] = "untouched";
    SaveImageFile_getFilename("a.tga", false, 3, 4, out, 64);
    EXPECT_STREQ(out, "a.tga");
    SaveImageFile_getFilename("a.tga", true, 3, 4, out, 64);
    EXPECT_STREQ(out, "a.0003.tga");
    SaveImageFile_getFilename("abc.tga", true, 3, 4, out, 4);
    EXPECT_STREQ(out, "abc");
    SaveImageFile_getFilename("x", true, 3, 4, out, 0);
    EXPECT_STREQ(out, "abc");
}

} // namespace
