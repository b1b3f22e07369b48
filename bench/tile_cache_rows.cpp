#include "bench/texture_files.h"
#include "bench/tile_rows.h"
#include "rastkit/tile_cache.h"

#include <memory>
#include <vector>

namespace bench {

namespace {

using QUtils::PinnedTile;
using QUtils::Texture;
using QUtils::TileCache;

std::unique_ptr<TileCache> newCache()
{
    QUtils::TileCacheSettings settings;
    settings.maxBytes = std::uint64_t(4) << 30;
    return std::make_unique<TileCache>(settings);
}

bool loadTiles(TileCache& cache, const TextureFile& texture, int threads)
{
    const Texture opened = cache.open(texture.path.c_str());
    return useEachTile(threads, [&] {
        return [&](std::size_t number) {
            const TilePlace& place = allTiles()[number];
            return bool(cache.tile(opened, place.tx, place.ty, place.level));
        };
    });
}

bool holdsTiles(TileCache& cache, const TextureFile& texture)
{
    const Texture opened = cache.open(texture.path.c_str());
    std::vector<float> pixels(std::size_t(textureTile) * textureTile * 4);
    for (std::size_t i = 0; i < allTiles().size(); ++i) {
        const TilePlace& place = allTiles()[i];
        const PinnedTile tile = cache.tile(opened, place.tx, place.ty, place.level);
        if (!tile || tile.width() != tileExtent(place) || tile.height() != tileExtent(place))
            return false;
        for (int y = 0; y < tile.height(); ++y)
            tile.getRowF(y, &pixels[std::size_t(y) * std::size_t(tile.width()) * 4]);
        if (!isTile(texture, i, pixels.data(), 4, tile.width()))
            return false;
    }
    return true;
}

bool findTiles(TileCache& cache, const TextureFile& texture, int threads)
{
    const Texture opened = cache.open(texture.path.c_str());
    return useTilesAgain(threads, [&] {
        return [&, sum = 0.0f](std::size_t number) mutable {
            const TilePlace& place = allTiles()[number];
            const PinnedTile tile = cache.tile(opened, place.tx, place.ty, place.level);
            if (!tile)
                return false;
            float rgba[4];
            tile.getPixelF(0, 0, rgba);
            sum += rgba[0];
            return sum >= 0;
        };
    });
}

void addColdRow(TextureFile& texture, const char* name, const char* beside, int threads, Goal goal)
{
    const auto cache = std::make_shared<std::unique_ptr<TileCache>>();
    Row row = tileRow(texture, name, beside, goal);
    row.usesThreads = threads > 1;
    row.reset = [cache] {
        cache->reset();
        forgetMemory();
        *cache = newCache();
    };
    row.run = [cache, &texture, threads] { return loadTiles(**cache, texture, threads); };
    row.verify = [cache, &texture] { return holdsTiles(**cache, texture); };
    addRow(row);
}

void addHitRow(TextureFile& texture, const char* name, const char* beside, int threads)
{
    const auto cache = std::make_shared<std::unique_ptr<TileCache>>();
    Row row = hitRow(texture, name, beside, threads, { Goal::Kind::TimesFaster, 1.5 });
    row.prepare = [cache, &texture, prepare = row.prepare] {
        std::string problem = prepare();
        *cache = newCache();
        return !problem.empty() || loadTiles(**cache, texture, 1) ? problem : "the tiles cannot be loaded";
    };
    row.run = [cache, &texture, threads] { return findTiles(**cache, texture, threads); };
    addRow(row);
}

} // namespace

void addTileCacheRows(TextureFile& texture)
{
    addColdRow(texture, "cold", "cold/openimageio", 1, { Goal::Kind::TimesBeside, 1.05 });
    addColdRow(texture, "cold/threads2", "cold/threads2/openimageio", 2, { Goal::Kind::TimesFaster, 1.8 });
    addHitRow(texture, "hit", "hit/openimageio", 1);
    addHitRow(texture, "hit/threads2", "hit/threads2/openimageio", 2);
}

} // namespace bench
