// The names that interface texts use, qualified and bare: this file need only compile.

#include "rastkit/rastkit.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

#define EXPECT_SAME_TYPE(name) static_assert(std::is_same_v<name, QUtils::name>, #name " is one type")

EXPECT_SAME_TYPE(IMGINFO);
EXPECT_SAME_TYPE(ImgBuffer);
EXPECT_SAME_TYPE(ImgErrorCode);
EXPECT_SAME_TYPE(ImgType);
EXPECT_SAME_TYPE(ImgError);
EXPECT_SAME_TYPE(ErrorCode);
EXPECT_SAME_TYPE(ExceptionMsg);
EXPECT_SAME_TYPE(FilePtr);
EXPECT_SAME_TYPE(CharString);
EXPECT_SAME_TYPE(CharStringPair);
EXPECT_SAME_TYPE(PluginBase);
EXPECT_SAME_TYPE(PluginInterface);
EXPECT_SAME_TYPE(PBufStream);
EXPECT_SAME_TYPE(PixelBufferInterface);
EXPECT_SAME_TYPE(PixelBufferChannelInfo);
EXPECT_SAME_TYPE(PixelBufferRegion);
EXPECT_SAME_TYPE(ColorCorrectedPixelsInterface);
EXPECT_SAME_TYPE(FileFormatInfo);
EXPECT_SAME_TYPE(CameraInfo);
EXPECT_SAME_TYPE(RICameraInfo);
EXPECT_SAME_TYPE(RIRegionInfo);
EXPECT_SAME_TYPE(RISceneInfo);
EXPECT_SAME_TYPE(RegionChannelCallback);
EXPECT_SAME_TYPE(QURegionData);
EXPECT_SAME_TYPE(ImageWriterInterface);
EXPECT_SAME_TYPE(ExrSettingsInterface);
EXPECT_SAME_TYPE(FileNameFormatInterface);
EXPECT_SAME_TYPE(PngSettingsInterface);
EXPECT_SAME_TYPE(JpegSettingsInterface);
EXPECT_SAME_TYPE(TiffSettingsInterface);
EXPECT_SAME_TYPE(SgiSettingsInterface);
EXPECT_SAME_TYPE(RawImageSettingsInterface);
EXPECT_SAME_TYPE(TgaSettingsInterface);
EXPECT_SAME_TYPE(ColorCorrectionSettingsInterface);
EXPECT_SAME_TYPE(DefaultImageWriter);
EXPECT_SAME_TYPE(BitStreamReader);
EXPECT_SAME_TYPE(OrientedPixelBuffer);
EXPECT_SAME_TYPE(Color);

static_assert(std::is_aggregate_v<IMGINFO>);
static_assert(std::is_aggregate_v<BitStreamReader>);
static_assert(std::is_aggregate_v<OrientedPixelBuffer>);
static_assert(std::is_convertible_v<ImgErrorCode, ImgError>);
static_assert(std::is_base_of_v<QUtils::ErrorCode, ImgError>);
static_assert(std::is_base_of_v<ImgBuffer, QUtils::ImgRowBuffer>);
static_assert(std::is_convertible_v<QUtils::PluginInterface*, const QUtils::PluginInterface*>);

TEST(PublicNames, FunctionsAreOneWhicheverWayTheyAreNamed)
{
    EXPECT_EQ(&getFileFormatIndex, &QUtils::getFileFormatIndex);
    EXPECT_EQ(&makeOpenError, &QUtils::makeOpenError);
    EXPECT_EQ(&my_fopen, &QUtils::my_fopen);
    EXPECT_EQ(&qutils_fopen, &QUtils::qutils_fopen);
    EXPECT_EQ(&getTickCount, &QUtils::getTickCount);
    EXPECT_EQ(&matchIntToString, &QUtils::matchIntToString);
    EXPECT_EQ(&uniPathOrFileExists, &QUtils::uniPathOrFileExists);
    EXPECT_EQ(&uniMakeDir, &QUtils::uniMakeDir);
    EXPECT_EQ(&appendFileName, &QUtils::appendFileName);
    EXPECT_EQ(&appendFrameNumber, &QUtils::appendFrameNumber);
    EXPECT_EQ(&rastkit_getImageLibVersions, &QUtils::rastkit_getImageLibVersions);
    EXPECT_EQ(&readTGAPixel, &QUtils::readTGAPixel);
    EXPECT_EQ(&read_long, &QUtils::read_long);
    EXPECT_EQ(&getIntent, &QUtils::getIntent);
    EXPECT_EQ(&setupTIFPalette, &QUtils::setupTIFPalette);
    EXPECT_EQ(&tiff_read_data_chunk, &QUtils::tiff_read_data_chunk);
}

} // namespace
