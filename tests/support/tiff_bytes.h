#pragma once

#include "support/temp_file.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

/// A TIFF file built from named fields; starts as one little-endian grey pixel of 8 bits in one strip. Tags
/// whose field is negative or empty are left out.
struct TiffBytes {
    struct Tag {
        int number, type; ///< Types 1 bytes, 2 text, 3 of 16 bits, 4 of 32 bits, 16 of 64 bits.
        std::vector<std::uint64_t> values;
    };

    bool bigEndian = false, bigTiff = false;
    std::int64_t width = 1, height = 1;
    int bits = 8, samples = 1, photometric = 1, sampleFormat = -1, planar = -1, orientation = -1;
    int compression = 1;
    std::int64_t rowsPerStrip = -1, tileWidth = -1, tileLength = -1;
    std::vector<std::uint64_t> extraSamples = {}, colorMap = {};
    std::string description = {};
    std::vector<Bytes> chunks = {}; ///< Strips, or tiles if there is a tile width.
    std::vector<Tag> more = {}; ///< Replace tags of the same number.

    /// Samples of `bytes` bytes each in the file's order.
    Bytes numbers(int bytes, const std::vector<std::uint64_t>& values) const
    {
        Bytes result;
        for (const std::uint64_t value : values)
            add(result, value, bytes);
        return result;
    }

    Bytes bytes() const
    {
        Bytes file;
        for (int i = 0; i < 2; ++i)
            file.push_back(bigEndian ? 'M' : 'I');
        add(file, bigTiff ? 43 : 42, 2);
        if (bigTiff) {
            add(file, 8, 2);
            add(file, 0, 2);
        }
        const std::size_t directoryOffset = file.size();
        add(file, 0, word());

        std::vector<std::uint64_t> offsets, counts;
        for (const Bytes& chunk : chunks) {
            offsets.push_back(file.size());
            counts.push_back(chunk.size());
            file.insert(file.end(), chunk.begin(), chunk.end());
        }
        addDirectory(file, directoryOffset, tags(offsets, counts));
        return file;
    }

private:
    int word() const { return bigTiff ? 8 : 4; }

    void add(Bytes& to, std::uint64_t value, int bytes) const
    {
        for (int i = 0; i < bytes; ++i)
            to.push_back(std::uint8_t(value >> 8 * (bigEndian ? bytes - 1 - i : i)));
    }

    std::vector<Tag> tags(
        const std::vector<std::uint64_t>& offsets, const std::vector<std::uint64_t>& counts) const
    {
        std::vector<Tag> list = more;
        const auto tag = [&](int number, int type, const std::vector<std::uint64_t>& values) {
            const bool isReplaced
                = std::any_of(more.begin(), more.end(), [&](const Tag& t) { return t.number == number; });
            if (!values.empty() && !isReplaced)
                list.push_back({ number, type, values });
        };
        const auto one = [&](int number, int type, std::int64_t value) {
            tag(number, type,
                value < 0 ? std::vector<std::uint64_t> {} : std::vector { std::uint64_t(value) });
        };
        one(256, 4, width), one(257, 4, height);
        tag(258, 3,
            bits < 0 ? std::vector<std::uint64_t> {}
                     : std::vector<std::uint64_t>(std::size_t(std::max(samples, 1)), std::uint64_t(bits)));
        one(259, 3, compression), one(262, 3, photometric);
        tag(270, 2, std::vector<std::uint64_t>(description.begin(), description.end()));
        one(274, 3, orientation), one(277, 3, samples), one(278, 4, rowsPerStrip), one(284, 3, planar);
        tag(320, 3, colorMap);
        one(322, 4, tileWidth), one(323, 4, tileLength), one(339, 3, sampleFormat);
        tag(338, 3, extraSamples);
        tag(tileWidth < 0 ? 273 : 324, bigTiff ? 16 : 4, offsets);
        tag(tileWidth < 0 ? 279 : 325, bigTiff ? 16 : 4, counts);
        std::sort(list.begin(), list.end(), [](const Tag& a, const Tag& b) { return a.number < b.number; });
        return list;
    }

    void addDirectory(Bytes& file, std::size_t directoryOffset, const std::vector<Tag>& list) const
    {
        const auto sizeOf = [](int type) { return type == 3 ? 2 : type == 4 ? 4 : type == 16 ? 8 : 1; };
        std::vector<Bytes> values;
        for (const Tag& tag : list) {
            Bytes value;
            for (const std::uint64_t number : tag.values)
                add(value, number, sizeOf(tag.type));
            if (value.size() > std::size_t(word())) {
                Bytes place;
                add(place, file.size(), word());
                file.insert(file.end(), value.begin(), value.end());
                value = place;
            }
            value.resize(std::size_t(word()));
            values.push_back(value);
        }
        Bytes place;
        add(place, file.size(), word());
        std::copy(place.begin(), place.end(), file.begin() + std::ptrdiff_t(directoryOffset));
        add(file, list.size(), bigTiff ? 8 : 2);
        for (std::size_t i = 0; i < list.size(); ++i) {
            add(file, std::uint64_t(list[i].number), 2);
            add(file, std::uint64_t(list[i].type), 2);
            add(file, list[i].values.size(), word());
            file.insert(file.end(), values[i].begin(), values[i].end());
        }
        add(file, 0, word());
    }
};

} // namespace testing_support
