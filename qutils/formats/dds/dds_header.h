#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// Bits of the header's words that count here, by their published names.
enum DdsBits : std::uint32_t {
    DDPF_ALPHAPIXELS = 0x1,
    DDPF_ALPHA = 0x2,
    DDPF_FOURCC = 0x4,
    DDPF_PALETTEINDEXED8 = 0x20,
    DDPF_RGB = 0x40,
    DDPF_YUV = 0x200,
    DDPF_LUMINANCE = 0x20000,
    DDPF_BUMPLUMINANCE = 0x40000,
    DDPF_BUMPDUDV = 0x80000,
    DDSD_DEPTH = 0x800000,
    DDSCAPS2_CUBEMAP = 0x200,
    DDSCAPS2_CUBEMAP_ALLFACES = 0xFC00,
    DDSCAPS2_VOLUME = 0x200000,
    DDS_RESOURCE_MISC_TEXTURECUBE = 0x4,
    DDS_MISC_FLAGS2_ALPHA_MODE_MASK = 0x7,
};

/// The four letters of a code as the number that they are in a file.
constexpr std::uint32_t fourCc(const char (&text)[5])
{
    return std::uint32_t(std::uint8_t(text[0])) | std::uint32_t(std::uint8_t(text[1])) << 8
        | std::uint32_t(std::uint8_t(text[2])) << 16 | std::uint32_t(std::uint8_t(text[3])) << 24;
}

/// DDS_PIXELFORMAT.
struct DdsPixelFormat {
    std::uint32_t size, flags, code, bitCount;
    std::uint32_t masks[4]; ///< Red, green, blue, alpha, or what the flags make of them.

    bool has(std::uint32_t bits) const { return (flags & bits) != 0; }
};

/// DDS_HEADER with the magic word before it, and DDS_HEADER_DXT10 where there is one.
struct DdsHeader {
    static constexpr std::size_t byteSize = 128, extensionBytes = 20;
    static constexpr std::uint32_t structureSize = 124, pixelFormatSize = 32;
    static constexpr std::uint32_t dimension1D = 2, dimension3D = 4;

    std::uint32_t magic, size, flags, height, width, depth, mipMapCount;
    DdsPixelFormat pixelFormat;
    std::uint32_t caps2;
    // The extension; all 0 without.
    std::uint32_t dxgiFormat, resourceDimension, miscFlag, arraySize, miscFlags2;

    bool hasExtension() const { return pixelFormat.has(DDPF_FOURCC) && pixelFormat.code == fourCc("DX10"); }
    bool isCube() const
    {
        return (caps2 & DDSCAPS2_CUBEMAP) != 0 || (miscFlag & DDS_RESOURCE_MISC_TEXTURECUBE) != 0;
    }
    bool isVolume() const
    {
        return hasExtension() ? resourceDimension == dimension3D
                              : (caps2 & DDSCAPS2_VOLUME) != 0 || (flags & DDSD_DEPTH) != 0;
    }
};

DdsHeader parseDdsHeader(const std::uint8_t (&bytes)[DdsHeader::byteSize]);
void parseDdsExtension(const std::uint8_t (&bytes)[DdsHeader::extensionBytes], DdsHeader& header);

} // namespace QUtils
