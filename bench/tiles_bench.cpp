#include "bench/rows.h"
#include "bench/texture_files.h"
#include "bench/tile_rows.h"
#include "rastkit/buffers.h"
#include "rastkit/tiles.h"

#include <algorithm>
#include <malloc.h>
#include <memory>
#include <vector>

namespace bench {

namespace {

/// Keeps the rows of the tile that was loaded last.
class TileSink : public QUtils::ImgRowBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { }
    void setPixelF(int x, int y, const float* rgba) override { std::copy_n(rgba, 4, at(x, y)); }
    void setPixel(int, int, unsigned int) override { }
    void setRow(int, int, int, const unsigned int*) override { }
    void setRowF(int x, int y, int count, const float* rgba) override
    {
        std::copy_n(rgba, std::size_t(count) * 4, at(x, y));
    }

    const float* pixels() const { return m_pixels.data(); }

private:
    /// Tiles begin at multiples of their size.
    float* at(int x, int y)
    {
        return &m_pixels[std::size_t(y % textureTile * textureTile + x % textureTile) * 4];
    }

    std::vector<float> m_pixels = std::vector<float>(std::size_t(textureTile) * textureTile * 4);
};

template <typename Loader, typename Describe>
bool loadTiles(const TextureFile& texture, Describe describe, bool verifies)
{
    Loader loader;
    if (describe(texture.path.c_str(), loader).code() != IMGERR_NONE)
        return false;
    loader.fileName = texture.path.c_str();
    TileSink sink;
    for (std::size_t i = 0; i < allTiles().size(); ++i) {
        const TilePlace& place = allTiles()[i];
        if (loader.loadTile(place.tx, place.ty, place.level, sink).code() != IMGERR_NONE)
            return false;
        if (verifies && !isTile(texture, i, sink.pixels(), 4, textureTile))
            return false;
    }
    return true;
}

template <typename Loader, typename Describe> void addLoaderRow(TextureFile& texture, Describe describe)
{
    Row row = tileRow(texture, "load", "load/openimageio-floats", { Goal::Kind::TimesBeside, 1 });
    row.run = [&texture, describe] { return loadTiles<Loader>(texture, describe, false); };
    row.verify = [&texture, describe] { return loadTiles<Loader>(texture, describe, true); };
    addRow(row);
}

} // namespace

std::uint64_t allTilesBytes()
{
    std::uint64_t pixels = 0;
    for (const TilePlace& place : allTiles())
        pixels += std::uint64_t(tileExtent(place)) * std::uint64_t(tileExtent(place));
    return pixels * 4 * sizeof(float);
}

Row tileRow(TextureFile& texture, const std::string& name, const std::string& beside, Goal goal)
{
    Row row;
    row.name = texture.name + '/' + name;
    row.beside = beside.empty() ? "" : texture.name + '/' + beside;
    row.pixelBytes = allTilesBytes();
    row.goal = goal;
    row.runs = 1;
    row.prepare = [&texture] { return makeTexture(texture); };
    return row;
}

Row hitRow(TextureFile& texture, const std::string& name, const std::string& beside, int threads, Goal goal)
{
    Row row = tileRow(texture, name, beside, goal);
    row.pixelBytes
        = std::uint64_t(threads) * hitPasses * allTiles().size() * 4 * sizeof(float); // A pixel each.
    row.usesThreads = threads > 1;
    return row;
}

void forgetMemory()
{
    malloc_trim(0);
}

void addTileRows()
{
    addLoaderRow<EXRTileLoaderParams>(exrTexture(), LoadEXRHeaderEx);
    addLoaderRow<TIFTileLoaderParams>(tiffTexture(), LoadTIFHeaderEx);
    for (TextureFile* const texture : { &exrTexture(), &tiffTexture() }) {
        addTileCacheRows(*texture);
        addOpenImageIoTileRows(*texture);
    }
}

#ifndef RASTKIT_BENCH_OPENIMAGEIO
void addOpenImageIoTileRows(TextureFile&) { }
#endif

} // namespace bench
