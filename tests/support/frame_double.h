#pragma once

#include "qutils/plugin/pixel_buffer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// A frame whose pixels are zero bytes, which remembers what it was asked and refuses rows on request.
class FrameDouble : public QUtils::PixelBufferInterface {
public:
    struct Channel {
        std::string name;
        int id = 0;
        int kind = QUtils::PIXELKIND_COLOR;
        bool described = true; ///< false: getChannelInfo fails.
    };
    struct Query {
        int channel, alphaChannel;
        QUtils::PixelBufferRegion region;
        int format, rowBytes, argument0, argument1, argument2;
        int mode; ///< -1: plain pixels.
    };

    FrameDouble(int frameWidth, int frameHeight)
        : FrameDouble(frameWidth, frameHeight, { colorChannel() }) { }
    FrameDouble(int frameWidth, int frameHeight, std::vector<Channel> list)
        : width(frameWidth), height(frameHeight), channels(std::move(list))
    {
    }

    int getWidth() override { return width; }
    int getHeight() override { return height; }
    int getNumChannels() override { return int(channels.size()); }
    int getChannelInfo(int index, QUtils::PixelBufferChannelInfo& info) override
    {
        const Channel& channel = channels.at(std::size_t(index));
        if (!channel.described)
            return 0;
        info = { channel.kind, channel.name.c_str(), channel.id };
        return 1;
    }
    int getPixels(int channel, int alphaChannel, const QUtils::PixelBufferRegion& region, int format,
        int rowBytes, void* dest, int argument0, int argument1, int argument2) override
    {
        return answer(
            { channel, alphaChannel, region, format, rowBytes, argument0, argument1, argument2, -1 }, dest);
    }
    QUtils::PluginBase* getPlugin() override { return plugin; }

    int answer(const Query& query, void* dest)
    {
        queries.push_back(query);
        if (query.region.top == refusedRow)
            return 0;
        const std::size_t bytes = std::size_t(query.rowBytes);
        if (fill)
            fill(query, static_cast<unsigned char*>(dest));
        else
            std::memset(dest, 0, bytes);
        return 1;
    }

    int width, height;
    std::vector<Channel> channels;
    int refusedRow = -1;
    std::function<void(const Query&, unsigned char* dest)> fill;
    std::vector<Query> queries;
    QUtils::PluginBase* plugin = nullptr;

private:
    static Channel colorChannel()
    {
        Channel channel;
        channel.name = "rgba";
        channel.id = QUtils::PIXELCHANNEL_COLOR;
        return channel;
    }
};

/// The plug-in of a FrameDouble that offers colour-corrected pixels.
class CorrectingPlugin : public QUtils::PluginBase, public QUtils::ColorCorrectedPixelsInterface {
public:
    explicit CorrectingPlugin(FrameDouble& frame) : m_frame(frame)
    {
        addInterface(static_cast<QUtils::ColorCorrectedPixelsInterface*>(this), 0);
        frame.plugin = this;
    }

    QUtils::PluginBase* getPlugin() override { return this; }
    int getCorrectedPixels(int channel, int alphaChannel, const QUtils::PixelBufferRegion& region, int format,
        int rowBytes, void* dest, int argument0, int argument1, int argument2, int mode) override
    {
        return m_frame.answer(
            { channel, alphaChannel, region, format, rowBytes, argument0, argument1, argument2, mode }, dest);
    }

private:
    FrameDouble& m_frame;
};

} // namespace testing_support
