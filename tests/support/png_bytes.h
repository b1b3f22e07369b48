#pragma once

#include "support/temp_file.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>
#include <zlib.h>

namespace testing_support {

/// A PNG file built from named fields, chunk by chunk; starts as one grey pixel of 8 bits. Samples are given
/// as numbers, row after row; unless said otherwise they are the pixel data.
struct PngBytes {
    static constexpr int grey = 0, rgb = 2, palette = 3, greyAlpha = 4, rgba = 6;

    using Samples = std::vector<unsigned int>;

    int width = 1, height = 1, bitDepth = 8, colorType = grey;
    int compression = 0, filterMethod = 0, interlace = 0;
    Bytes entries = {}; ///< PLTE; left out when empty.
    Bytes transparency = {}; ///< tRNS; left out when empty.
    Samples samples = {};
    int filter = 0; ///< Of all rows; only 0 to 2 are known here.
    std::size_t idatBytes = SIZE_MAX; ///< Compressed bytes in each IDAT chunk.

    int channels() const
    {
        return colorType == rgb ? 3 : colorType == greyAlpha ? 2 : colorType == rgba ? 4 : 1;
    }

    static void addNumber(Bytes& bytes, std::uint32_t number)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(std::uint8_t(number >> shift));
    }

    /// One by one: g++ 12 warns, wrongly, about inserting what may be empty.
    static void append(Bytes& bytes, const Bytes& more)
    {
        for (const std::uint8_t byte : more)
            bytes.push_back(byte);
    }

    static Bytes joined(std::initializer_list<Bytes> parts)
    {
        Bytes all;
        for (const Bytes& part : parts)
            append(all, part);
        return all;
    }

    static Bytes signature() { return { 0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n' }; }

    static Bytes chunk(const std::string& type, const Bytes& data)
    {
        Bytes bytes;
        addNumber(bytes, std::uint32_t(data.size()));
        for (const char letter : type)
            bytes.push_back(std::uint8_t(letter));
        append(bytes, data);
        addNumber(bytes, std::uint32_t(crc32(0, bytes.data() + 4, uInt(bytes.size() - 4))));
        return bytes;
    }

    Bytes header() const
    {
        Bytes data;
        addNumber(data, std::uint32_t(width));
        addNumber(data, std::uint32_t(height));
        for (const int field : { bitDepth, colorType, compression, filterMethod, interlace })
            data.push_back(std::uint8_t(field));
        return data;
    }

    /// The rows as they are compressed, each behind its filter type; of an interlaced image those of all
    /// passes.
    Bytes rows() const
    {
        Bytes bytes;
        if (interlace == 0) {
            addPass(bytes, 0, 0, 1, 1);
        } else {
            constexpr int passes[7][4] = { { 0, 0, 8, 8 }, { 4, 0, 8, 8 }, { 0, 4, 4, 8 }, { 2, 0, 4, 4 },
                { 0, 2, 2, 4 }, { 1, 0, 2, 2 }, { 0, 1, 1, 2 } };
            for (const auto& [x, y, stepX, stepY] : passes)
                addPass(bytes, x, y, stepX, stepY);
        }
        return bytes;
    }

    static Bytes deflated(const Bytes& bytes, int level = 9)
    {
        uLongf size = compressBound(uLong(bytes.size()));
        Bytes result(size);
        EXPECT_EQ(compress2(result.data(), &size, bytes.data(), uLong(bytes.size()), level), Z_OK);
        result.resize(size);
        return result;
    }

    Bytes imageChunks() const
    {
        const Bytes data = deflated(rows());
        Bytes bytes;
        for (std::size_t at = 0; at < data.size();) {
            const std::size_t piece = std::min(idatBytes, data.size() - at);
            const auto begin = data.begin() + std::ptrdiff_t(at);
            append(bytes, chunk("IDAT", Bytes(begin, begin + std::ptrdiff_t(piece))));
            at += piece;
        }
        return bytes;
    }

    /// All chunks in front of the pixels.
    Bytes beginning() const
    {
        Bytes bytes = joined({ signature(), chunk("IHDR", header()) });
        if (!entries.empty())
            append(bytes, chunk("PLTE", entries));
        if (!transparency.empty())
            append(bytes, chunk("tRNS", transparency));
        return bytes;
    }

    Bytes bytes() const { return joined({ beginning(), imageChunks(), chunk("IEND", {}) }); }

private:
    unsigned int sample(int x, int y, int channel) const
    {
        const std::size_t at
            = (std::size_t(y) * std::size_t(width) + std::size_t(x)) * std::size_t(channels())
            + std::size_t(channel);
        return at < samples.size() ? samples[at] : 0;
    }

    void addPass(Bytes& bytes, int firstX, int firstY, int stepX, int stepY) const
    {
        if (firstX >= width)
            return;
        Bytes before;
        for (int y = firstY; y < height; y += stepY) {
            const Bytes row = packedRow(firstX, y, stepX);
            before.resize(row.size());
            bytes.push_back(std::uint8_t(filter));
            const std::size_t pixelBytes = std::size_t(std::max(channels() * bitDepth / 8, 1));
            for (std::size_t i = 0; i < row.size(); ++i) {
                const int left = i < pixelBytes ? 0 : row[i - pixelBytes];
                bytes.push_back(std::uint8_t(row[i] - (filter == 1 ? left : filter == 2 ? before[i] : 0)));
            }
            before = row;
        }
    }

    Bytes packedRow(int firstX, int y, int stepX) const
    {
        Bytes row;
        int freeBits = 0;
        for (int x = firstX; x < width; x += stepX)
            for (int c = 0; c < channels(); ++c) {
                const unsigned int value = sample(x, y, c);
                if (bitDepth == 16)
                    row.push_back(std::uint8_t(value >> 8));
                if (freeBits == 0)
                    row.push_back(0), freeBits = 8;
                freeBits -= std::min(bitDepth, 8);
                row.back() = std::uint8_t(row.back() | (value & 0xFF) << freeBits);
            }
        return row;
    }
};

} // namespace testing_support
