#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// The two textures whose tiles are read: the frame, repeated to 4096 x 4096 pixels, with all mip levels in
// tiles of 64 x 64. OpenEXR and libtiff write them, since what is read must not depend on a writer of ours.

constexpr int textureSize = 4096, textureTile = 64, textureLevels = 13;

struct TilePlace {
    int tx, ty, level;
};

/// Pixels of a tile that lie in its level, in both directions.
int tileExtent(const TilePlace& place);

struct TextureFile {
    std::string name; ///< Of its rows: "tiles/exr-half-zip".
    std::string path;
    bool isHalf
        = false; ///< R, G, B, A as halfs in OpenEXR, with ZIP; else R, G, B as bytes in TIFF, with deflate.
    int channels = 0;
    std::vector<std::uint64_t> digests; ///< Of each tile, as the file has it, in the order of `allTiles`.

    std::size_t tileSamples() const { return std::size_t(textureTile) * textureTile * std::size_t(channels); }
};

/// Empty until `makeTexture`.
TextureFile& exrTexture();
TextureFile& tiffTexture();

/// At the first call: makes the file and notes what its tiles hold. Says what went wrong, or nothing.
std::string makeTexture(TextureFile& texture);

/// All tiles of all levels, in an order that is random but the same everywhere.
const std::vector<TilePlace>& allTiles();

/// Whether a tile is the one of the file; its number is that in `allTiles`. Rows are `rowPixels` pixels of
/// `channels` samples: floats, or what the file itself has.
bool isTile(
    const TextureFile& texture, std::size_t number, const float* samples, int channels, int rowPixels);
bool isTile(const TextureFile& texture, std::size_t number, const std::uint16_t* samples, int channels,
    int rowPixels);
bool isTile(
    const TextureFile& texture, std::size_t number, const std::uint8_t* samples, int channels, int rowPixels);

} // namespace bench
