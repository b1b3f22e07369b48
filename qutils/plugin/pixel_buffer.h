#pragma once

#include "qutils/core/char_string.h"
#include "qutils/plugin/plugin.h"

namespace QUtils {

/// Data kinds of a channel. The values are fixed: renderers store them.
enum PixelDataKind {
    PIXELKIND_SCALAR = 1,
    PIXELKIND_COLOR = 2,
    PIXELKIND_VECTOR = 3,
    PIXELKIND_INTEGER = 4,
};

/// Channel numbers with a meaning to the writers: how a file is named, what is paired as alpha.
enum PixelChannelId {
    PIXELCHANNEL_COLOR = 1,
    PIXELCHANNEL_ALPHA = 2,
    PIXELCHANNEL_ALPHA_2 = 125,
    PIXELCHANNEL_COLOR_2 = 126,
};

/// Description of one channel of a frame.
struct PixelBufferChannelInfo {
    int dataKind = 0; ///< A PixelDataKind.
    CharString name;
    int channelId = 0; ///< The channel's type; see PixelChannelId.
};

/// A rectangle of pixels: right and bottom are exclusive, width and height their distance to left and top.
struct PixelBufferRegion {
    int left, top, right, bottom, width, height, reserved0, reserved1;
};

/// What a row query delivers. The hundreds digit counts channels (1 one, 2 RGB, 3 RGBA), the last digit
/// names the sample type (0 unsigned 8-bit, 1 unsigned 16-bit little-endian, 2 signed 32-bit, 3 float).
/// 8- and 16-bit codes deliver blue, green, red(, alpha); the others red, green, blue(, alpha).
enum PixelFormatCode {
    PIXELFORMAT_1_UINT8 = 100,
    PIXELFORMAT_1_UINT16 = 101,
    PIXELFORMAT_1_INT32 = 102,
    PIXELFORMAT_1_FLOAT = 103,
    PIXELFORMAT_BGR_UINT8 = 200,
    PIXELFORMAT_BGR_UINT16 = 201,
    PIXELFORMAT_RGB_INT32 = 202,
    PIXELFORMAT_RGB_FLOAT = 203,
    PIXELFORMAT_BGRA_UINT8 = 300,
    PIXELFORMAT_BGRA_UINT16 = 301,
    PIXELFORMAT_RGBA_INT32 = 302,
    PIXELFORMAT_RGBA_FLOAT = 303,
};

/// The renderer's frame: any number of channels of one size, read by rectangles.
class QUTILS_API PixelBufferInterface : public PluginInterface {
public:
    virtual int getWidth() = 0;
    virtual int getHeight() = 0;
    /// Stores the pixels of `region` at `dest`, row after row at a distance of `rowBytes`.
    /// `channel` and `alphaChannel` are channel positions; a negative `alphaChannel` means opaque.
    /// `format` is a PixelFormatCode. The last three arguments are the host's own.
    /// Nonzero on success, 0 when refused.
    virtual int getPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format,
        int rowBytes, void* dest, int argument0, int argument1, int argument2)
        = 0;
    virtual int getNumChannels() = 0;
    /// Describes the channel at position `index`. Nonzero on success.
    virtual int getChannelInfo(int index, PixelBufferChannelInfo& info) = 0;

    unsigned long getInterfaceID() override;
    PluginBase* getPlugin() override;
};

/// An extension of a frame's plug-in that delivers colour-corrected pixels.
class QUTILS_API ColorCorrectedPixelsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77cfdc19;

    unsigned long getInterfaceID() override;
    /// As `PixelBufferInterface::getPixels`; `mode` selects the correction.
    virtual int getCorrectedPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format,
        int rowBytes, void* dest, int argument0, int argument1, int argument2, int mode)
        = 0;
};

} // namespace QUtils

using QUtils::ColorCorrectedPixelsInterface;
using QUtils::PixelBufferChannelInfo;
using QUtils::PixelBufferInterface;
using QUtils::PixelBufferRegion;
