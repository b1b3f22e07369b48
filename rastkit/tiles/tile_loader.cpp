#include "rastkit/tiles.h"

#include <algorithm>
#include <new>

MipMapTileLoaderParams::MipMapTileLoaderParams() : IMGINFO()
{
    std::fill_n(minValue, 4, 0.0f);
    std::fill_n(maxValue, 4, 1.0f);
}

MipMapTileLoaderParams::~MipMapTileLoaderParams()
{
    delete[] levels;
}

MipLevel* MipMapTileLoaderParams::replaceLevels(int count)
{
    delete[] levels;
    levels = new (std::nothrow) MipLevel[std::size_t(count)]();
    numLevels = levels ? count : 0;
    return levels;
}
