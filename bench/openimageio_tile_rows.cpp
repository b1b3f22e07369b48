#include "bench/texture_files.h"
#include "bench/tile_rows.h"

#include <OpenImageIO/imageio.h>
#include <vector>

namespace bench {

namespace {

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

} // namespace

void addOpenImageIoTileRows(TextureFile& texture)
{
    OIIO::attribute("threads", 1);
    OIIO::attribute("exr_threads", -1);
    addReadRow<float>(texture, "load/openimageio-floats", OIIO::TypeDesc::FLOAT);
    if (texture.isHalf)
        addReadRow<std::uint16_t>(texture, "load/openimageio", OIIO::TypeDesc::HALF);
    else
        addReadRow<std::uint8_t>(texture, "load/openimageio", OIIO::TypeDesc::UINT8);
}

} // namespace bench
