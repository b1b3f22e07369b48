#pragma once

#include "support/temp_file.h"

namespace testing_support {

/// A Targa file built from named fields; starts as one uncompressed 24-bit pixel, top row first.
struct TgaBytes {
    int idLength = 0, colorMapType = 0, imageType = 2;
    int colorMapFirst = 0, colorMapLength = 0, colorMapBits = 0;
    int width = 1, height = 1, pixelBits = 24, descriptor = 0x20;
    Bytes id = {}, colorMap = {}, pixels = {};

    Bytes bytes() const
    {
        Bytes b;
        const auto u8 = [&](int value) { b.push_back(std::uint8_t(value)); };
        const auto u16 = [&](int value) { u8(value), u8(value >> 8); };
        u8(idLength), u8(colorMapType), u8(imageType);
        u16(colorMapFirst), u16(colorMapLength), u8(colorMapBits);
        u16(0), u16(0), u16(width), u16(height);
        u8(pixelBits), u8(descriptor);
        for (const Bytes* part : { &id, &colorMap, &pixels })
            b.insert(b.end(), part->begin(), part->end());
        return b;
    }
};

} // namespace testing_support
