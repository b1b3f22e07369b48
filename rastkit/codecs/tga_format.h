#pragma once

#include "rastkit/model/byte_reader.h"
#include "rastkit/model/byte_writer.h"

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace QUtils {

/// Image types of the Targa header (TGA 2.0, field 3).
enum TgaImageType : std::uint8_t {
    TGA_COLOR_MAPPED = 1,
    TGA_TRUE_COLOR = 2,
    TGA_GREY = 3,
    TGA_COLOR_MAPPED_RLE = 9,
    TGA_TRUE_COLOR_RLE = 10,
    TGA_GREY_RLE = 11,
};

/// The most pixels that one run-length packet holds, and the bit of its first byte that tells a run of one
/// pixel from that many different ones.
constexpr std::size_t tgaPacketPixels = 128;
constexpr std::uint8_t tgaRunPacket = 0x80;

/// The first 18 bytes of a Targa file.
struct TgaHeader {
    static constexpr std::size_t byteSize = 18;
    static constexpr std::uint8_t topDown = 0x20, rightToLeft = 0x10;

    std::uint8_t idLength = 0, colorMapType = 0, imageType = 0;
    std::uint16_t colorMapFirst = 0, colorMapLength = 0;
    std::uint8_t colorMapBits = 0;
    std::uint16_t xOrigin = 0, yOrigin = 0;
    std::uint16_t width = 0, height = 0;
    std::uint8_t pixelBits = 0, descriptor = 0;

    bool hasColorMap() const { return colorMapType != 0; }
    bool isColorMapped() const { return imageType == TGA_COLOR_MAPPED || imageType == TGA_COLOR_MAPPED_RLE; }
    bool isGrey() const { return imageType == TGA_GREY || imageType == TGA_GREY_RLE; }
    bool isRunLength() const { return imageType >= TGA_COLOR_MAPPED_RLE; }
    bool firstRowIsTop() const { return (descriptor & topDown) != 0; }
    bool firstPixelIsRight() const { return (descriptor & rightToLeft) != 0; }
    int attributeBits() const { return descriptor & 0x0F; }
    /// Where the image identification ends.
    std::size_t idEnd() const { return byteSize + idLength; }
};

inline TgaHeader parseTgaHeader(const std::uint8_t (&bytes)[TgaHeader::byteSize])
{
    ByteReader in(bytes, sizeof bytes);
    TgaHeader h;
    h.idLength = in.u8();
    h.colorMapType = in.u8();
    h.imageType = in.u8();
    h.colorMapFirst = in.u16le();
    h.colorMapLength = in.u16le();
    h.colorMapBits = in.u8();
    h.xOrigin = in.u16le();
    h.yOrigin = in.u16le();
    h.width = in.u16le();
    h.height = in.u16le();
    h.pixelBits = in.u8();
    h.descriptor = in.u8();
    assert(in.ok() && in.atEnd());
    return h;
}

inline void storeTgaHeader(const TgaHeader& h, std::uint8_t (&bytes)[TgaHeader::byteSize])
{
    ByteWriter out(bytes, sizeof bytes);
    out.u8(h.idLength);
    out.u8(h.colorMapType);
    out.u8(h.imageType);
    out.u16le(h.colorMapFirst);
    out.u16le(h.colorMapLength);
    out.u8(h.colorMapBits);
    out.u16le(h.xOrigin);
    out.u16le(h.yOrigin);
    out.u16le(h.width);
    out.u16le(h.height);
    out.u8(h.pixelBits);
    out.u8(h.descriptor);
    assert(out.ok() && out.atEnd());
}

} // namespace QUtils
