#pragma once

#include "rastkit/buffers.h"
#include "rastkit/tiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace testing_support {

/// A loader of a file, picked by its name.
inline std::unique_ptr<MipMapTileLoaderParams> loaderOf(const std::string& name)
{
    std::unique_ptr<MipMapTileLoaderParams> loader;
    if (name.ends_with(".exr")) {
        auto exr = std::make_unique<EXRTileLoaderParams>();
        EXPECT_EQ(LoadEXRHeaderEx(name.c_str(), *exr).code(), IMGERR_NONE) << name;
        loader = std::move(exr);
    } else {
        auto tiff = std::make_unique<TIFTileLoaderParams>();
        EXPECT_EQ(LoadTIFHeaderEx(name.c_str(), *tiff).code(), IMGERR_NONE) << name;
        loader = std::move(tiff);
    }
    return loader;
}

/// All pixels of a texture, level by level, as a loader delivers them.
struct LoadedTexture {
    struct Tile {
        int tx, ty, level;
    };

    explicit LoadedTexture(const std::string& name)
    {
        const auto loader = loaderOf(name);
        loader->fileName = name.c_str();
        tileWidth = loader->tileWidth;
        tileHeight = loader->tileHeight;
        for (int number = 0; number < loader->numLevels; ++number) {
            const MipLevel& level = loader->levels[number];
            levels.push_back(level);
            images.emplace_back();
            images.back().init(level.tilesX * tileWidth, level.tilesY * tileHeight);
            for (int ty = 0; ty < level.tilesY; ++ty)
                for (int tx = 0; tx < level.tilesX; ++tx) {
                    EXPECT_EQ(loader->loadTile(tx, ty, number, images.back()).code(), IMGERR_NONE);
                    tiles.push_back({ tx, ty, number });
                }
        }
    }

    const float* pixel(int x, int y, int level) const
    {
        return images[std::size_t(level)].row(y) + std::size_t(x) * 4;
    }

    /// Whether a tile of the cache has the size and the floats that it should have, to the bit.
    testing::AssertionResult has(const QUtils::PinnedTile& found, const Tile& tile) const
    {
        const MipLevel& level = levels[std::size_t(tile.level)];
        const int left = tile.tx * tileWidth, top = tile.ty * tileHeight;
        if (!found)
            return testing::AssertionFailure() << "error " << found.error();
        if (found.width() != std::min(tileWidth, level.width - left)
            || found.height() != std::min(tileHeight, level.height - top))
            return testing::AssertionFailure() << "size " << found.width() << ' ' << found.height();
        std::vector<float> row(std::size_t(found.width()) * 4);
        for (int y = 0; y < found.height(); ++y) {
            found.getRowF(y, row.data());
            if (std::memcmp(row.data(), pixel(left, top + y, tile.level), row.size() * sizeof(float)) != 0)
                return testing::AssertionFailure()
                    << "row " << y << " of tile " << tile.tx << ' ' << tile.ty << ' ' << tile.level;
        }
        return testing::AssertionSuccess();
    }

    int tileWidth = 0, tileHeight = 0;
    std::vector<MipLevel> levels;
    std::vector<QUtils::ImageF> images;
    std::vector<Tile> tiles; ///< All there are.
};

} // namespace testing_support
