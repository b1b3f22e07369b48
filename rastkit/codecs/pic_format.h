#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

constexpr std::uint32_t picMagic = 0x5380F634, picId = 0x50494354; // The id spells PICT.
constexpr std::size_t picHeaderBytes = 104, picPacketBytes = 4;
constexpr std::size_t picIdOffset = 88, picSizeOffset = 92;

enum PicCompression : std::uint8_t { PIC_UNCOMPRESSED = 0, PIC_PURE_RUNS = 1, PIC_MIXED_RUNS = 2 };

/// Channels of a packet, in the order of their bytes, with their places in a packed pixel.
struct PicChannelBit {
    std::uint8_t mask;
    unsigned int shift;
};
constexpr PicChannelBit picChannels[] = { { 0x80, 16 }, { 0x40, 8 }, { 0x20, 0 }, { 0x10, 24 } };
constexpr std::uint8_t picColorMask = 0xE0, picAlphaMask = 0x10, picUnknownMask = 0x0F;

/// Control bytes of mixed runs: below, one pixel less than there are literal ones; this one is followed by a
/// count of 16 bits; above, a run of so many pixels more than 127.
constexpr unsigned int picLongRun = 128;
constexpr std::size_t picMostLiteral = 128, picMostShortRun = 128;

} // namespace QUtils
