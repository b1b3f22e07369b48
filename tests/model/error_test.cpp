#include "rastkit/types.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(ImgError, CodeAloneHasNoTextAndNoFunction)
{
    const ImgError error = IMGERR_READ;
    EXPECT_EQ(error.code(), 2);
    EXPECT_STREQ(error.function(), "");
    EXPECT_STREQ(error.message(), "");
}

TEST(ImgError, NoneIsNoError)
{
    EXPECT_EQ(ImgError().code(), 0);
    EXPECT_EQ(ImgError(IMGERR_NONE).code(), 0);
}

TEST(ImgError, AssignedCodeReplacesFunctionAndText)
{
    ImgError error("LoadImageFile", IMGERR_OPEN, "%s %d", "text", 7);
    EXPECT_STREQ(error.message(), "text 7");
    EXPECT_STREQ(error.function(), "LoadImageFile");
    error = IMGERR_WRITE;
    EXPECT_EQ(error.code(), 7);
    EXPECT_STREQ(error.function(), "");
    EXPECT_STREQ(error.message(), "");
    error = IMGERR_NONE;
    EXPECT_EQ(error.code(), 0);
}

TEST(ImgError, NegativeCodesOfTheRawWritersAreKept)
{
    const ImgError error("SaveEXRFile", -4, "Error writing channel list.");
    EXPECT_EQ(error.code(), -4);
}

TEST(MakeOpenError, CarriesErrnoAtTheTimeOfTheCall)
{
    errno = 13;
    const ImgError error = makeOpenError();
    EXPECT_EQ(error.code(), IMGERR_OPEN);
    EXPECT_STREQ(error.function(), "makeOpenError");
    EXPECT_STREQ(error.message(), "Failed to open file: 13");
}

TEST(MyFopen, LeavesTheReasonInErrno)
{
    errno = 0;
    EXPECT_EQ(my_fopen("/no/such/file", "rb"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ImgInfo, IsAnAggregateOfThirteenInts)
{
    const IMGINFO info { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13 };
    EXPECT_EQ(sizeof(IMGINFO), 13 * sizeof(int));
    EXPECT_EQ(info.width, 1);
    EXPECT_EQ(info.bytesPerPixel, 5);
    EXPECT_EQ(info.dataWindowHeight, 9);
    EXPECT_EQ(info.displayWindowHeight, 13);
    EXPECT_EQ(IMGINFO {}.displayWindowX, 0);
}

} // namespace
