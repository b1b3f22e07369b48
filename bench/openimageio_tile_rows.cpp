#include "bench/texture_files.h"
#include "bench/tile_rows.h"

#include <OpenImageIO/imagecache.h>
#include <OpenImageIO/imageio.h>
#include <memory>
#include <vector>

namespace bench {

namespace {

using OIIO::ImageCache;

OIIO::TypeDesc typeOf(const TextureFile& texture)
{
    return texture.isHalf ? OIIO::TypeDesc::HALF : OIIO::TypeDesc::UINT8;
}

// --- Single tiles ----------------------------------------------------------------------------------------

template <typename Sample> bool readTiles(const TextureFile& texture, OIIO::TypeDesc type, bool verifies)
{
    const auto in = OIIO::ImageInput::open(texture.path);
    if (!in)
        return false;
    std::vector<Sample> samples(texture.tileSamples());
    for (std::size_t i = 0; i < allTiles().size(); ++i) {
        const TilePlace& place = allTiles()[i];
        if (!in->seek_subimage(0, place.level)
            || !in->read_tile(place.tx * textureTile, place.ty * textureTile, 0, type, samples.data()))
            return false;
        if (verifies && !isTile(texture, i, samples.data(), texture.channels, textureTile))
            return false;
    }
    return true;
}

template <typename Sample> void addReadRow(TextureFile& texture, const char* name, OIIO::TypeDesc type)
{
    Row row = tileRow(texture, name, "", {});
    row.run = [&texture, type] { return readTiles<Sample>(texture, type, false); };
    row.verify = [&texture, type] { return readTiles<Sample>(texture, type, true); };
    addRow(row);
}

// --- The cache -------------------------------------------------------------------------------------------

struct DestroyCache {
    void operator()(ImageCache* cache) const { ImageCache::destroy(cache, true); }
};
using CachePointer = std::unique_ptr<ImageCache, DestroyCache>;

CachePointer newCache()
{
    CachePointer cache(ImageCache::create(false));
    cache->attribute("max_memory_MB", 4096.0f);
    cache->attribute("autotile", 0);
    cache->attribute("unassociatedalpha", 1);
    return cache;
}

/// A tile that is released at the end.
class UsedTile {
public:
    UsedTile(ImageCache& cache, ImageCache::ImageHandle* image, ImageCache::Perthread* thread,
        const TilePlace& place)
        : m_cache(cache), m_tile(cache.get_tile(image, thread, 0, place.level, place.tx * textureTile,
                              place.ty * textureTile, 0))
    {
    }
    UsedTile(const UsedTile&) = delete;
    UsedTile& operator=(const UsedTile&) = delete;
    ~UsedTile()
    {
        if (m_tile)
            m_cache.release_tile(m_tile);
    }

    const void* pixels() const
    {
        OIIO::TypeDesc type;
        return m_tile ? m_cache.tile_pixels(m_tile, type) : nullptr;
    }

private:
    ImageCache& m_cache;
    ImageCache::Tile* m_tile;
};

/// Gives a thread a function that finds a tile and reads a pixel of it.
auto makeUse(ImageCache& cache, const TextureFile& texture)
{
    ImageCache::Perthread* const thread = cache.get_perthread_info();
    ImageCache::ImageHandle* const image = cache.get_image_handle(OIIO::ustring(texture.path), thread);
    return [&cache, image, thread, sum = 0u](std::size_t number) mutable {
        const UsedTile tile(cache, image, thread, allTiles()[number]);
        const auto* const pixels = static_cast<const std::uint8_t*>(tile.pixels());
        sum += pixels ? *pixels : 0;
        return pixels != nullptr && sum != ~0u;
    };
}

bool loadTiles(ImageCache& cache, const TextureFile& texture, int threads)
{
    return useEachTile(threads, [&] { return makeUse(cache, texture); });
}

bool holdsTiles(ImageCache& cache, const TextureFile& texture)
{
    ImageCache::Perthread* const thread = cache.get_perthread_info();
    ImageCache::ImageHandle* const image = cache.get_image_handle(OIIO::ustring(texture.path), thread);
    for (std::size_t i = 0; i < allTiles().size(); ++i) {
        const UsedTile tile(cache, image, thread, allTiles()[i]);
        const void* const pixels = tile.pixels();
        const bool isRight = pixels
            && (texture.isHalf
                    ? isTile(texture, i, static_cast<const std::uint16_t*>(pixels), 4, textureTile)
                    : isTile(texture, i, static_cast<const std::uint8_t*>(pixels), 3, textureTile));
        if (!isRight)
            return false;
    }
    return true;
}

void addColdRow(TextureFile& texture, const char* name, int threads)
{
    const auto cache = std::make_shared<CachePointer>();
    Row row = tileRow(texture, name, "", {});
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

void addHitRow(TextureFile& texture, const char* name, int threads)
{
    const auto cache = std::make_shared<CachePointer>();
    Row row = hitRow(texture, name, "", threads, {});
    row.prepare = [cache, &texture, prepare = row.prepare] {
        std::string problem = prepare();
        *cache = newCache();
        return !problem.empty() || loadTiles(**cache, texture, 1) ? problem : "the tiles cannot be loaded";
    };
    row.run = [cache, &texture, threads] {
        return useTilesAgain(threads, [&] { return makeUse(**cache, texture); });
    };
    addRow(row);
}

} // namespace

void addOpenImageIoTileRows(TextureFile& texture)
{
    OIIO::attribute("threads", 1);
    OIIO::attribute("exr_threads", -1);
    addReadRow<float>(texture, "load/openimageio-floats", OIIO::TypeDesc::FLOAT);
    if (texture.isHalf)
        addReadRow<std::uint16_t>(texture, "load/openimageio", typeOf(texture));
    else
        addReadRow<std::uint8_t>(texture, "load/openimageio", typeOf(texture));
    addColdRow(texture, "cold/openimageio", 1);
    addColdRow(texture, "cold/threads2/openimageio", 2);
    addHitRow(texture, "hit/openimageio", 1);
    addHitRow(texture, "hit/threads2/openimageio", 2);
}

} // namespace bench
