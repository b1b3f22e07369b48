#pragma once

#include "rastkit/codecs/sgi.h"
#include "rastkit/model/byte_reader.h"
#include "rastkit/model/byte_writer.h"

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace QUtils {

constexpr std::uint16_t sgiMagic = 474;
constexpr std::size_t sgiHeaderBytes = 512;

/// How samples are stored.
enum SgiStorage : std::uint8_t { SGI_VERBATIM = 0, SGI_RUN_LENGTH = 1 };

/// What the values of a file of one channel mean. Numbers beyond these stand in files of careless writers.
enum SgiColormap : std::uint32_t {
    SGI_NORMAL = 0,
    SGI_DITHERED = 1, ///< Three bits red from the lowest on, three bits green, two bits blue.
    SGI_SCREEN = 2, ///< Indices into a map that the file does not hold.
    SGI_MAP = 3, ///< Such a map.
};

/// Of a packet's control value: how many samples, none of which ends the row, and the bit that tells so many
/// different ones from a run of one.
constexpr unsigned int sgiPacketCount = 0x7F, sgiLiteralPacket = 0x80;

inline sgi_header_info parseSgiHeader(const std::uint8_t (&bytes)[sgiHeaderBytes])
{
    ByteReader in(bytes, sizeof bytes);
    sgi_header_info h;
    h.magic = in.u16be();
    h.storage = char(in.u8());
    h.bytesPerChannel = char(in.u8());
    h.dimension = in.u16be();
    h.xsize = in.u16be();
    h.ysize = in.u16be();
    h.zsize = in.u16be();
    h.minValue = long(in.u32be());
    h.maxValue = long(in.u32be());
    h.dummy = long(in.u32be());
    for (char& c : h.name)
        c = char(in.u8());
    h.colormapId = long(in.u32be());
    assert(in.ok());
    return h;
}

inline void storeSgiHeader(const sgi_header_info& h, std::uint8_t (&bytes)[sgiHeaderBytes])
{
    constexpr std::size_t reservedBytes = 404;
    ByteWriter out(bytes, sizeof bytes);
    out.u16be(h.magic);
    out.u8(std::uint8_t(h.storage));
    out.u8(std::uint8_t(h.bytesPerChannel));
    out.u16be(h.dimension);
    out.u16be(h.xsize);
    out.u16be(h.ysize);
    out.u16be(h.zsize);
    out.u32be(std::uint32_t(h.minValue));
    out.u32be(std::uint32_t(h.maxValue));
    out.u32be(std::uint32_t(h.dummy));
    for (const char c : h.name)
        out.u8(std::uint8_t(c));
    out.u32be(std::uint32_t(h.colormapId));
    out.zeros(reservedBytes);
    assert(out.ok() && out.atEnd());
}

} // namespace QUtils
