#pragma once

#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// A texture as libtiff writes it: a directory for each level, each sample with its own value.
struct TiffTexture {
    std::uint32_t width = 40, height = 24, tileWidth = 16, tileHeight = 16;
    unsigned bits = 8, samples = 3, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_RGB;
    unsigned planarConfig = PLANARCONFIG_CONTIG, compression = COMPRESSION_NONE, orientation = 0;
    const char* mark = "Plain Texture"; ///< Null: no tag.
    bool hasOnlyBlackInk = false;
    bool shrinksTiles = false; ///< Levels that fit in a smaller tile have one.
    int levels = INT_MAX;
    int levelWithoutLastTile = -1;
    const char* mode = "w";
    std::function<void(TIFF*, int level)> change; ///< Sets or unsets tags of a level last.

    std::uint32_t size(std::uint32_t of, int level) const { return std::max(of >> level, 1u); }

    int levelCount() const
    {
        int count = 1;
        while (std::max(width, height) >> count != 0)
            ++count;
        return std::min(count, levels);
    }

    /// The stored number of a sample.
    static unsigned numberAt(std::uint32_t x, std::uint32_t y, unsigned sample, int level)
    {
        return (x * 3 + y * 7 + sample * 31 + unsigned(level) * 13) % 251;
    }

    void write(const std::string& path) const
    {
        TIFF* const tiff = TIFFOpen(path.c_str(), mode);
        ASSERT_TRUE(tiff);
        for (int level = 0; level < levelCount(); ++level) {
            writeLevel(tiff, level);
            TIFFWriteDirectory(tiff);
        }
        TIFFClose(tiff);
    }

private:
    void writeLevel(TIFF* tiff, int level) const
    {
        std::uint32_t tw = tileWidth, th = tileHeight;
        while (shrinksTiles && tw > 16 && size(width, level) <= tw / 2 && size(height, level) <= th / 2) {
            tw /= 2;
            th /= 2;
        }
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, size(width, level));
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, size(height, level));
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, tw);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, th);
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
        TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, format);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, planarConfig);
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
        if (orientation)
            TIFFSetField(tiff, TIFFTAG_ORIENTATION, orientation);
        if (mark)
            TIFFSetField(tiff, TIFFTAG_PIXAR_TEXTUREFORMAT, mark);
        if (photometric == PHOTOMETRIC_PALETTE)
            writeMap(tiff);
        if (change)
            change(tiff, level);
        for (std::uint32_t y = 0; y < size(height, level); y += th)
            for (std::uint32_t x = 0; x < size(width, level); x += tw)
                if (level != levelWithoutLastTile || x + tw < size(width, level)
                    || y + th < size(height, level))
                    writeTile(tiff, level, x, y, tw, th);
    }

    static void writeMap(TIFF* tiff)
    {
        std::vector<std::uint16_t> map(256);
        for (std::size_t i = 0; i < map.size(); ++i)
            map[i] = std::uint16_t(i * 257);
        TIFFSetField(tiff, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
    }

    void writeTile(TIFF* tiff, int level, std::uint32_t left, std::uint32_t top, std::uint32_t tw,
        std::uint32_t th) const
    {
        const bool isPlanar = planarConfig == PLANARCONFIG_SEPARATE;
        const unsigned planes = isPlanar ? samples : 1, perPixel = isPlanar ? 1 : samples;
        for (unsigned plane = 0; plane < planes; ++plane) {
            std::vector<std::uint8_t> bytes;
            for (std::uint32_t y = 0; y < th; ++y)
                for (std::uint32_t x = 0; x < tw; ++x)
                    for (unsigned s = 0; s < perPixel; ++s)
                        append(bytes,
                            hasOnlyBlackInk && s != 3
                                ? 0
                                : numberAt(left + x, top + y, isPlanar ? plane : s, level));
            bytes.resize(std::size_t(TIFFTileSize(tiff))); // `change` may have made it larger.
            TIFFWriteTile(tiff, bytes.data(), left, top, 0, std::uint16_t(plane));
        }
    }

    void append(std::vector<std::uint8_t>& bytes, unsigned number) const
    {
        if (format == SAMPLEFORMAT_IEEEFP) {
            const float value = float(number) / 16;
            const auto* const raw = reinterpret_cast<const std::uint8_t*>(&value);
            bytes.insert(bytes.end(), raw, raw + sizeof value);
            return;
        }
        for (unsigned byte = 0; byte < bits / 8; ++byte)
            bytes.push_back(std::uint8_t(number));
    }
};

} // namespace testing_support
