#pragma once

#include "rastkit/texture_writer.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QUtils {

inline std::size_t bytesOf(TextureSample sample)
{
    return sample == TextureSample::Byte ? 1 : sample == TextureSample::Float ? 4 : 2;
}

/// One level of a texture that is written.
struct TextureLevel {
    int width, height; ///< Pixels.
    int tileWidth, tileHeight; ///< Pixels.

    int tilesX() const { return (width - 1) / tileWidth + 1; }
    int tilesY() const { return (height - 1) / tileHeight + 1; }
    /// Rows of the level that lie in row `ty` of tiles.
    int rowsOf(int ty) const
    {
        const int left = height - ty * tileHeight;
        return left < tileHeight ? left : tileHeight;
    }
};

/// How a texture lies in its file, and its rows in memory: pixel by pixel, the samples of all channels
/// together.
struct TextureLayout {
    int channels = 4;
    TextureSample sample = TextureSample::Half;
    std::vector<TextureLevel> levels; ///< The largest first.

    bool hasAlpha() const { return channels == 2 || channels == 4; }
    int colours() const { return channels < 3 ? 1 : 3; }
    std::size_t pixelBytes() const { return bytesOf(sample) * std::size_t(channels); }
    std::size_t rowBytes(int level) const
    {
        return std::size_t(levels[std::size_t(level)].width) * pixelBytes();
    }
    /// Of a whole row of tiles.
    std::size_t tileRowBytes(int level) const
    {
        return rowBytes(level) * std::size_t(levels[std::size_t(level)].tileHeight);
    }
    std::uint64_t tileCount() const
    {
        std::uint64_t count = 0;
        for (const TextureLevel& level : levels)
            count += std::uint64_t(level.tilesX()) * std::uint64_t(level.tilesY());
        return count;
    }
};

/// The smallest and the greatest value of each channel; NaN does not count.
struct TextureRange {
    float smallest[4] = {}, greatest[4] = {};
};

} // namespace QUtils
