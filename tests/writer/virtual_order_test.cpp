// The order of virtual functions: hosts that were built against an older library call by position.

#include "rastkit/buffers.h"
#include "rastkit/writer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

namespace {

using namespace QUtils;

/// The position of a virtual function in its class's table. A pointer to it begins with one more than its
/// offset (Itanium C++ ABI, 2.3).
template <typename Function> std::size_t slotOf(Function function)
{
    std::size_t offset = 0;
    std::memcpy(&offset, &function, sizeof offset);
    return (offset - 1) / sizeof(void*);
}

/// The positions of functions in the order in which they are given.
template <typename... Functions> std::vector<std::size_t> slotsOf(Functions... functions)
{
    return { slotOf(functions)... };
}

std::vector<std::size_t> countFrom(std::size_t first, std::size_t count)
{
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < count; ++i)
        numbers.push_back(first + i);
    return numbers;
}

constexpr std::size_t destructors = 2; // Each class begins with two.
constexpr std::size_t commonFunctions = destructors + 4; // Those of PluginInterface.

TEST(VirtualOrder, Sink)
{
    EXPECT_EQ(slotsOf(&ImgBuffer::init, &ImgBuffer::isValid, &ImgBuffer::freeMem, &ImgBuffer::setPixelF,
                  &ImgBuffer::setPixel),
        countFrom(destructors, 5));
}

TEST(VirtualOrder, PluginInterface)
{
    EXPECT_EQ(slotsOf(&PluginInterface::getInterfaceID, &PluginInterface::getPlugin,
                  &PluginInterface::getInterfaceName, &PluginInterface::deleteInterface),
        countFrom(destructors, 4));
}

TEST(VirtualOrder, PluginBase)
{
    EXPECT_EQ(slotsOf(&PluginBase::newInterface, &PluginBase::deleteInterface, &PluginBase::addInterface,
                  &PluginBase::removeInterface),
        countFrom(destructors, 4));
}

TEST(VirtualOrder, Frame)
{
    EXPECT_EQ(slotsOf(&PixelBufferInterface::getWidth, &PixelBufferInterface::getHeight,
                  &PixelBufferInterface::getPixels, &PixelBufferInterface::getNumChannels,
                  &PixelBufferInterface::getChannelInfo),
        countFrom(commonFunctions, 5));
    EXPECT_EQ(slotOf(&ColorCorrectedPixelsInterface::getCorrectedPixels), commonFunctions);
}

TEST(VirtualOrder, ImageWriter)
{
    EXPECT_EQ(slotsOf(&ImageWriterInterface::writeImage, &ImageWriterInterface::getImageFileName,
                  &ImageWriterInterface::getNumFileFormats, &ImageWriterInterface::getFileFormatInfo),
        countFrom(commonFunctions, 4));
}

TEST(VirtualOrder, ExrSettings)
{
    EXPECT_EQ(
        slotsOf(&ExrSettingsInterface::setExrCompressionType, &ExrSettingsInterface::setExrBitsPerChannel,
            &ExrSettingsInterface::setExrExtraAttributes, &ExrSettingsInterface::setCameraInfo,
            &ExrSettingsInterface::getExrCompressionType, &ExrSettingsInterface::getExrBitsPerChannel,
            &ExrSettingsInterface::getExrExtraAttributes, &ExrSettingsInterface::getCameraInfo),
        countFrom(commonFunctions, 8));
}

TEST(VirtualOrder, FileNameFormat)
{
    EXPECT_EQ(slotsOf(&FileNameFormatInterface::setChanDivider, &FileNameFormatInterface::setNumFrameDigits,
                  &FileNameFormatInterface::setRenderElementSeparateFolder,
                  &FileNameFormatInterface::setRenderElementSeparateRGBA),
        countFrom(commonFunctions, 4));
}

TEST(VirtualOrder, PngSettings)
{
    EXPECT_EQ(
        slotsOf(&PngSettingsInterface::setPngCompressionLevel, &PngSettingsInterface::setPngBitsPerChannel,
            &PngSettingsInterface::getPngCompressionLevel, &PngSettingsInterface::getPngBitsPerChannel),
        countFrom(commonFunctions, 4));
}

TEST(VirtualOrder, JpegSettings)
{
    EXPECT_EQ(slotsOf(&JpegSettingsInterface::setJpegQuality, &JpegSettingsInterface::getJpegQuality),
        countFrom(commonFunctions, 2));
}

TEST(VirtualOrder, TiffSettings)
{
    EXPECT_EQ(
        slotsOf(&TiffSettingsInterface::setTiffBitsPerChannel, &TiffSettingsInterface::getTiffBitsPerChannel,
            &TiffSettingsInterface::setTiffInterleaved, &TiffSettingsInterface::getTiffInterleaved),
        countFrom(commonFunctions, 4));
}

TEST(VirtualOrder, SgiSettings)
{
    EXPECT_EQ(
        slotsOf(&SgiSettingsInterface::setSgiBitsPerChannel, &SgiSettingsInterface::getSgiBitsPerChannel),
        countFrom(commonFunctions, 2));
}

TEST(VirtualOrder, RawImageSettings)
{
    EXPECT_EQ(
        slotsOf(&RawImageSettingsInterface::setRawImageBitsPerChannel,
            &RawImageSettingsInterface::setRawImageWidth, &RawImageSettingsInterface::setRawImageHeight,
            &RawImageSettingsInterface::setRawImagePixelAspect,
            &RawImageSettingsInterface::setRawImageRegionInfo,
            &RawImageSettingsInterface::setRawImageRegWidth, &RawImageSettingsInterface::setRawImageRegHeight,
            &RawImageSettingsInterface::setRawImageRegType,
            &RawImageSettingsInterface::setRawImageChannelList,
            &RawImageSettingsInterface::setRawImageCameraInfo,
            &RawImageSettingsInterface::setRawImageRegionData,
            &RawImageSettingsInterface::getRawImageBitsPerChannel,
            &RawImageSettingsInterface::getRawImageWidth, &RawImageSettingsInterface::getRawImageHeight,
            &RawImageSettingsInterface::getRawImagePixelAspect,
            &RawImageSettingsInterface::getRawImageRegionInfo,
            &RawImageSettingsInterface::getRawImageRegWidth, &RawImageSettingsInterface::getRawImageRegHeight,
            &RawImageSettingsInterface::getRawImageRegType,
            &RawImageSettingsInterface::getRawImageChannelList,
            &RawImageSettingsInterface::getRawImageCameraInfo,
            &RawImageSettingsInterface::getRawImageRegionData,
            &RawImageSettingsInterface::setRawImageSceneInfo,
            &RawImageSettingsInterface::getRawImageSceneInfo),
        countFrom(commonFunctions, 24));
}

TEST(VirtualOrder, TgaSettings)
{
    EXPECT_EQ(slotsOf(&TgaSettingsInterface::setTgaCompression), countFrom(commonFunctions, 1));
}

TEST(VirtualOrder, ColorCorrectionSettings)
{
    EXPECT_EQ(
        slotsOf(&ColorCorrectionSettingsInterface::setApplyColorCorrection), countFrom(commonFunctions, 1));
}

TEST(VirtualOrder, WriterItself)
{
    EXPECT_EQ(slotOf(&DefaultImageWriter::newInterface), destructors);
    EXPECT_EQ(slotOf(&DefaultImageWriter::getPlugin), destructors + 4);
    EXPECT_EQ(slotsOf(&DefaultImageWriter::writeImage, &DefaultImageWriter::getImageFileName,
                  &DefaultImageWriter::getNumFileFormats, &DefaultImageWriter::getFileFormatInfo,
                  &DefaultImageWriter::setExrCompressionType, &DefaultImageWriter::setExrBitsPerChannel,
                  &DefaultImageWriter::setExrExtraAttributes, &DefaultImageWriter::setCameraInfo,
                  &DefaultImageWriter::getExrCompressionType, &DefaultImageWriter::getExrBitsPerChannel,
                  &DefaultImageWriter::getExrExtraAttributes, &DefaultImageWriter::getCameraInfo,
                  &DefaultImageWriter::setPngCompressionLevel, &DefaultImageWriter::setPngBitsPerChannel,
                  &DefaultImageWriter::getPngCompressionLevel, &DefaultImageWriter::getPngBitsPerChannel,
                  &DefaultImageWriter::setJpegQuality, &DefaultImageWriter::getJpegQuality,
                  &DefaultImageWriter::setTiffBitsPerChannel, &DefaultImageWriter::getTiffBitsPerChannel,
                  &DefaultImageWriter::setTiffInterleaved, &DefaultImageWriter::getTiffInterleaved,
                  &DefaultImageWriter::setChanDivider, &DefaultImageWriter::setNumFrameDigits,
                  &DefaultImageWriter::setRenderElementSeparateFolder,
                  &DefaultImageWriter::setRenderElementSeparateRGBA,
                  &DefaultImageWriter::setSgiBitsPerChannel, &DefaultImageWriter::getSgiBitsPerChannel,
                  &DefaultImageWriter::setTgaCompression, &DefaultImageWriter::setRawImageBitsPerChannel,
                  &DefaultImageWriter::setRawImageWidth, &DefaultImageWriter::setRawImageHeight,
                  &DefaultImageWriter::setRawImagePixelAspect, &DefaultImageWriter::setRawImageRegionInfo,
                  &DefaultImageWriter::setRawImageRegWidth, &DefaultImageWriter::setRawImageRegHeight,
                  &DefaultImageWriter::setRawImageRegType, &DefaultImageWriter::setRawImageChannelList,
                  &DefaultImageWriter::setRawImageCameraInfo, &DefaultImageWriter::setRawImageRegionData,
                  &DefaultImageWriter::setRawImageSceneInfo, &DefaultImageWriter::getRawImageBitsPerChannel,
                  &DefaultImageWriter::getRawImageWidth, &DefaultImageWriter::getRawImageHeight,
                  &DefaultImageWriter::getRawImagePixelAspect, &DefaultImageWriter::getRawImageRegionInfo,
                  &DefaultImageWriter::getRawImageRegWidth, &DefaultImageWriter::getRawImageRegHeight,
                  &DefaultImageWriter::getRawImageRegType, &DefaultImageWriter::getRawImageChannelList,
                  &DefaultImageWriter::getRawImageCameraInfo, &DefaultImageWriter::getRawImageRegionData,
                  &DefaultImageWriter::getRawImageSceneInfo, &DefaultImageWriter::setApplyColorCorrection),
        countFrom(destructors + 5, 54));
}

TEST(VirtualOrder, BasesOfTheWriterFollowEachOther)
{
    DefaultImageWriter writer;
    const std::vector<const void*> bases { static_cast<PluginBase*>(&writer),
        static_cast<ImageWriterInterface*>(&writer), static_cast<ExrSettingsInterface*>(&writer),
        static_cast<FileNameFormatInterface*>(&writer), static_cast<PngSettingsInterface*>(&writer),
        static_cast<JpegSettingsInterface*>(&writer), static_cast<TiffSettingsInterface*>(&writer),
        static_cast<SgiSettingsInterface*>(&writer), static_cast<RawImageSettingsInterface*>(&writer),
        static_cast<TgaSettingsInterface*>(&writer),
        static_cast<ColorCorrectionSettingsInterface*>(&writer) };
    for (std::size_t i = 1; i < bases.size(); ++i)
        EXPECT_LT(bases[i - 1], bases[i]) << i;
}

} // namespace
