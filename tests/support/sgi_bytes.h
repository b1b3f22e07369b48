#pragma once

#include "support/temp_file.h"

#include <initializer_list>
#include <utility>

namespace testing_support {

/// An SGI file built from named fields; starts as one grey pixel of 8 bits. What stands behind the header is
/// `data`, or the tables and packets of `rows`.
struct SgiBytes {
    int magic = 474, storage = 0, bytesPerChannel = 1, dimension = 3;
    int width = 1, height = 1, channels = 1;
    unsigned int minValue = 0, maxValue = 255;
    std::string name = {};
    unsigned int colormap = 0;
    Bytes data = { 0x40 };

    static void put16(Bytes& bytes, int value)
    {
        bytes.push_back(std::uint8_t(value >> 8));
        bytes.push_back(std::uint8_t(value));
    }
    static void put32(Bytes& bytes, unsigned int value)
    {
        put16(bytes, int(value >> 16));
        put16(bytes, int(value & 0xFFFF));
    }

    Bytes header() const
    {
        Bytes b;
        put16(b, magic);
        b.push_back(std::uint8_t(storage)), b.push_back(std::uint8_t(bytesPerChannel));
        put16(b, dimension), put16(b, width), put16(b, height), put16(b, channels);
        put32(b, minValue), put32(b, maxValue), put32(b, 0);
        Bytes field(name.begin(), name.end());
        field.resize(80);
        b.insert(b.end(), field.begin(), field.end());
        put32(b, colormap);
        b.resize(512);
        return b;
    }
    Bytes bytes() const
    {
        Bytes b = header();
        b.insert(b.end(), data.begin(), data.end());
        return b;
    }

    /// Makes `data` of the packets of each row, those of the first channel first and from the bottom up, in
    /// the order of the tables.
    SgiBytes& packets(const std::vector<Bytes>& rows)
    {
        storage = 1;
        data.clear();
        std::size_t offset = 512 + rows.size() * 8;
        for (const Bytes& row : rows) {
            put32(data, unsigned(offset));
            offset += row.size();
        }
        for (const Bytes& row : rows)
            put32(data, unsigned(row.size()));
        for (const Bytes& row : rows)
            data.insert(data.end(), row.begin(), row.end());
        return *this;
    }
};

} // namespace testing_support
