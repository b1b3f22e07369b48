#pragma once

#include "support/temp_file.h"

#include <utility>
#include <vector>

namespace testing_support {

/// A Softimage PIC file built from named fields; starts as one pixel and needs its packets: compression type
/// and channel mask of each.
struct PicBytes {
    std::vector<std::pair<int, int>> packets = {};
    int width = 1, height = 1, bitsPerChannel = 8;
    Bytes data = {};

    Bytes bytes() const
    {
        Bytes b { 0x53, 0x80, 0xF6, 0x34 };
        b.resize(88);
        const auto u8 = [&](int value) { b.push_back(std::uint8_t(value)); };
        for (const char c : { 'P', 'I', 'C', 'T' })
            u8(c);
        for (const int value : { width, height, 0x3F80, 0, 3, 0 })
            u8(value >> 8), u8(value);
        for (std::size_t i = 0; i < packets.size(); ++i)
            u8(i + 1 < packets.size()), u8(bitsPerChannel), u8(packets[i].first), u8(packets[i].second);
        b.insert(b.end(), data.begin(), data.end());
        return b;
    }
};

} // namespace testing_support
