#include "qutils/plugin/pixel_buffer.h"

#include <gtest/gtest.h>

namespace {

class MinimalBuffer : public PixelBufferInterface {
public:
    int getWidth() override { return 1; }
    int getHeight() override { return 1; }
    int getPixels(int, int, const PixelBufferRegion&, int, int, void*, int, int, int) override { return 0; }
    int getNumChannels() override { return 0; }
    int getChannelInfo(int, PixelBufferChannelInfo&) override { return 0; }
};

class MinimalCorrection : public ColorCorrectedPixelsInterface {
public:
    PluginBase* getPlugin() override { return nullptr; }
    int getCorrectedPixels(int, int, const PixelBufferRegion&, int, int, void*, int, int, int, int) override
    {
        return 0;
    }
};

TEST(PixelBuffer, NeedsNoPlugin)
{
    MinimalBuffer buffer;
    EXPECT_EQ(buffer.getPlugin(), nullptr);
    EXPECT_EQ(buffer.getInterfaceID(), 0u);
    buffer.deleteInterface();
}

TEST(PixelBuffer, ColorCorrectionIsFoundUnderItsNumber)
{
    MinimalCorrection correction;
    PluginBase plugin;
    plugin.addInterface(&correction, 0);
    EXPECT_EQ(plugin.newInterface(0x77cfdc19), &correction);
}

TEST(PixelBuffer, FormatCodesTellChannelsAndSampleType)
{
    EXPECT_EQ(QUtils::PIXELFORMAT_1_UINT8, 100);
    EXPECT_EQ(QUtils::PIXELFORMAT_RGB_FLOAT, 203);
    EXPECT_EQ(QUtils::PIXELFORMAT_BGRA_UINT16, 301);
    EXPECT_EQ(QUtils::PIXELFORMAT_RGBA_INT32, 302);
    EXPECT_EQ(QUtils::PIXELFORMAT_RGBA_FLOAT, 303);
}

} // namespace
