#include "rastkit/exr/exr_library.h"

#include "rastkit/formats.h"

#include <ImfThreading.h>
#include <gtest/gtest.h>

TEST(ExrLibrary, IsStartedOnceAndStaysSo)
{
    QUtils::startExrLibrary();
    EXPECT_EQ(QUtils::exrInited, 1);
    QUtils::startExrLibrary();
    EXPECT_EQ(QUtils::exrInited, 1);
}

TEST(ExrLibrary, UsesTheCallersThreadAloneUntilMoreAreAskedFor)
{
    QUtils::startExrLibrary();
    EXPECT_EQ(Imf::globalThreadCount(), 0);
    setThreadCount(2);
    EXPECT_EQ(Imf::globalThreadCount(), 2);
    setThreadCount(-5);
    EXPECT_EQ(Imf::globalThreadCount(), 0);
}
