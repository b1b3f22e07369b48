#pragma once

#include "rastkit/buffers.h"
#include "rastkit/tiles.h"
#include "support/mip_reference.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace testing_support {

/// A texture as this library's loaders describe it.
inline std::unique_ptr<MipMapTileLoaderParams> describeTexture(const std::string& name)
{
    const bool isExr = name.size() > 4 && name.compare(name.size() - 4, 4, ".exr") == 0;
    if (isExr) {
        auto params = std::make_unique<EXRTileLoaderParams>();
        EXPECT_EQ(LoadEXRHeaderEx(name.c_str(), *params).code(), IMGERR_NONE);
        return params;
    }
    auto params = std::make_unique<TIFTileLoaderParams>();
    EXPECT_EQ(LoadTIFHeaderEx(name.c_str(), *params).code(), IMGERR_NONE);
    return params;
}

/// All tiles of all levels of a texture, one picture of R, G, B, A for each level.
inline std::vector<Plane> readLevels(const std::string& name)
{
    const std::unique_ptr<MipMapTileLoaderParams> params = describeTexture(name);
    params->fileName = name.c_str();
    EXPECT_EQ(params->isMipmapped, 1);
    std::vector<Plane> planes;
    for (int k = 0; k < params->numLevels && params->isMipmapped; ++k) {
        const MipLevel& level = params->levels[k];
        QUtils::ImageF image;
        image.init(level.tilesX * params->tileWidth, level.tilesY * params->tileHeight);
        for (int ty = 0; ty < level.tilesY; ++ty)
            for (int tx = 0; tx < level.tilesX; ++tx)
                EXPECT_EQ(params->loadTile(tx, ty, k, image).code(), IMGERR_NONE)
                    << "tile " << tx << "," << ty << " of level " << k;
        Plane plane(level.width, level.height, 4);
        for (int y = 0; y < level.height; ++y)
            for (int x = 0; x < level.width; ++x)
                for (int c = 0; c < 4; ++c)
                    plane.at(x, y, c) = double(image.row(y)[x * 4 + c]);
        planes.push_back(std::move(plane));
    }
    return planes;
}

} // namespace testing_support
