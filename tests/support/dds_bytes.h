#pragma once

#include "support/temp_file.h"

#include <array>
#include <cstring>

namespace testing_support {

/// A DDS file built from named fields; starts as one pixel of 32 bits, blue first.
struct DdsBytes {
    std::uint32_t size = 124, flags = 0x1007, height = 1, width = 1, depth = 0, levels = 0;
    std::uint32_t formatSize = 32, formatFlags = 0x41, bits = 32;
    const char* code = ""; ///< Up to four letters.
    std::uint32_t codeNumber = 0; ///< In their place, unless 0.
    std::array<std::uint32_t, 4> masks = { 0xFF0000, 0xFF00, 0xFF, 0xFF000000 };
    std::uint32_t caps2 = 0;
    bool hasExtension = false;
    std::uint32_t dxgi = 0, dimension = 3, misc = 0, elements = 1, misc2 = 0;
    Bytes data = {};

    static DdsBytes ofCode(const char* letters, std::uint32_t width, std::uint32_t height, Bytes data)
    {
        DdsBytes file;
        file.code = letters;
        file.formatFlags = 4;
        file.width = width;
        file.height = height;
        file.data = std::move(data);
        return file;
    }
    static DdsBytes ofNumber(std::uint32_t number, std::uint32_t width, std::uint32_t height, Bytes data)
    {
        DdsBytes file = ofCode("", width, height, std::move(data));
        file.codeNumber = number;
        return file;
    }
    static DdsBytes ofDxgi(std::uint32_t format, std::uint32_t width, std::uint32_t height, Bytes data)
    {
        DdsBytes file = ofCode("DX10", width, height, std::move(data));
        file.hasExtension = true;
        file.dxgi = format;
        return file;
    }
    static DdsBytes ofMasks(std::uint32_t flags, std::uint32_t bits,
        const std::array<std::uint32_t, 4>& masks, std::uint32_t width, Bytes data)
    {
        DdsBytes file;
        file.formatFlags = flags;
        file.bits = bits;
        file.masks = masks;
        file.width = width;
        file.data = std::move(data);
        return file;
    }

    Bytes bytes() const
    {
        Bytes b = { 'D', 'D', 'S', ' ' };
        const auto word = [&](std::uint32_t value) {
            for (int shift = 0; shift < 32; shift += 8)
                b.push_back(std::uint8_t(value >> shift));
        };
        word(size), word(flags), word(height), word(width), word(0), word(depth), word(levels);
        b.resize(b.size() + 44);
        word(formatSize), word(formatFlags);
        std::uint32_t letters = codeNumber;
        if (codeNumber == 0)
            std::memcpy(&letters, code, std::strlen(code));
        word(letters), word(bits);
        for (const std::uint32_t mask : masks)
            word(mask);
        word(0x1000), word(caps2), word(0), word(0), word(0);
        if (hasExtension)
            word(dxgi), word(dimension), word(misc), word(elements), word(misc2);
        b.insert(b.end(), data.begin(), data.end());
        return b;
    }
};

} // namespace testing_support
