#pragma once

#include "support/temp_file.h"

namespace testing_support {

/// A Windows bitmap built from named fields; starts as one pixel of 24 bits. Headers other than that of 40
/// bytes are that one cut or continued with `moreHeader`; 12 makes the old one of OS/2.
struct BmpBytes {
    unsigned int fileSize = 0, headerSize = 40;
    int dataOffset = -1; ///< -1: behind the palette.
    int width = 1, height = 1, planes = 1, bits = 24;
    unsigned int compression = 0, imageSize = 0, colorsUsed = 0;
    Bytes moreHeader = {}, palette = {}, pixels = {};

    Bytes bytes() const
    {
        Bytes b { 'B', 'M' };
        const auto u16 = [&](unsigned int value) {
            b.push_back(std::uint8_t(value));
            b.push_back(std::uint8_t(value >> 8));
        };
        const auto u32 = [&](unsigned int value) { u16(value & 0xFFFF), u16(value >> 16); };
        u32(fileSize), u32(0), u32(0);
        u32(headerSize);
        if (headerSize == 12) {
            u16(unsigned(width)), u16(unsigned(height)), u16(unsigned(planes)), u16(unsigned(bits));
        } else {
            u32(unsigned(width)), u32(unsigned(height)), u16(unsigned(planes)), u16(unsigned(bits));
            u32(compression), u32(imageSize), u32(0), u32(0), u32(colorsUsed), u32(0);
            if (headerSize < 40)
                b.resize(14 + headerSize);
        }
        for (const Bytes* part : { &moreHeader, &palette })
            b.insert(b.end(), part->begin(), part->end());
        const std::size_t offset = dataOffset < 0 ? b.size() : std::size_t(dataOffset);
        for (std::size_t i = 0; i < 4; ++i)
            b[10 + i] = std::uint8_t(offset >> 8 * i);
        b.insert(b.end(), pixels.begin(), pixels.end());
        return b;
    }
};

/// Masks as they stand behind or in a header.
inline Bytes bmpMasks(std::initializer_list<unsigned int> masks)
{
    Bytes b;
    for (const unsigned int mask : masks)
        for (int shift = 0; shift < 32; shift += 8)
            b.push_back(std::uint8_t(mask >> shift));
    return b;
}

} // namespace testing_support
