#include "bench/texture_files.h"

#include "bench/files.h"
#include "bench/frame.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfTiledOutputFile.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <half.h>
#include <memory>
#include <random>
#include <tiffio.h>
#include <utility>

namespace bench {

namespace {

/// Rows of pixels, one after the other, of a square level.
template <typename Sample> struct Level {
    int size, channels;
    std::vector<Sample> samples;

    Level(int width, int channelCount)
        : size(width), channels(channelCount),
          samples(std::size_t(width) * std::size_t(width) * std::size_t(channelCount))
    {
    }

    Sample* at(int x, int y) { return &samples[std::size_t(y * size + x) * std::size_t(channels)]; }
    const Sample* at(int x, int y) const { return const_cast<Level*>(this)->at(x, y); }
};

Level<half> firstHalfLevel()
{
    Level<half> level(textureSize, 4);
    for (int y = 0; y < textureSize; ++y)
        for (int x = 0; x < textureSize; ++x)
            std::copy_n(
                floatPixels() + (std::size_t(y % frameHeight) * frameWidth + std::size_t(x % frameWidth)) * 4,
                4, level.at(x, y));
    return level;
}

Level<std::uint8_t> firstByteLevel()
{
    Level<std::uint8_t> level(textureSize, 3);
    for (int y = 0; y < textureSize; ++y)
        for (int x = 0; x < textureSize; ++x) {
            const std::uint32_t argb
                = packedPixels()[std::size_t(y % frameHeight) * frameWidth + std::size_t(x % frameWidth)];
            std::uint8_t* const rgb = level.at(x, y);
            rgb[0] = std::uint8_t(argb >> 16);
            rgb[1] = std::uint8_t(argb >> 8);
            rgb[2] = std::uint8_t(argb);
        }
    return level;
}

half mean(half a, half b, half c, half d)
{
    return half((float(a) + float(b) + float(c) + float(d)) / 4);
}
std::uint8_t mean(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d)
{
    return std::uint8_t((a + b + c + d + 2) / 4);
}

template <typename Sample> Level<Sample> halved(const Level<Sample>& above)
{
    Level<Sample> level(above.size / 2, above.channels);
    for (int y = 0; y < level.size; ++y)
        for (int x = 0; x < level.size; ++x) {
            const Sample *const top = above.at(2 * x, 2 * y), *const bottom = above.at(2 * x, 2 * y + 1);
            for (int i = 0, next = above.channels; i < above.channels; ++i)
                level.at(x, y)[i] = mean(top[i], top[i + next], bottom[i], bottom[i + next]);
        }
    return level;
}

// --- What tiles hold -------------------------------------------------------------------------------------

std::uint64_t added(std::uint64_t digest, unsigned number)
{
    return (digest ^ number) * 0x100000001B3u; // FNV-1a over samples instead of bytes.
}

unsigned numberOf(const TextureFile& texture, float sample)
{
    return texture.isHalf ? half(sample).bits() : unsigned(std::lround(sample * 255));
}
unsigned numberOf(const TextureFile&, half sample)
{
    return sample.bits();
}
unsigned numberOf(const TextureFile&, std::uint16_t sample)
{
    return sample;
}
unsigned numberOf(const TextureFile&, std::uint8_t sample)
{
    return sample;
}

template <typename Sample>
std::uint64_t digestOf(
    const TextureFile& texture, int extent, const Sample* samples, int channels, int rowPixels)
{
    std::uint64_t digest = 0xCBF29CE484222325u;
    for (int y = 0; y < extent; ++y)
        for (int x = 0; x < extent; ++x)
            for (int i = 0; i < texture.channels; ++i)
                digest = added(
                    digest, numberOf(texture, samples[(std::ptrdiff_t(y) * rowPixels + x) * channels + i]));
    return digest;
}

template <typename Sample> void noteDigests(TextureFile& texture, const Level<Sample>& pixels, int level)
{
    const std::vector<TilePlace>& tiles = allTiles();
    for (std::size_t i = 0; i < tiles.size(); ++i)
        if (tiles[i].level == level)
            texture.digests[i] = digestOf(texture, tileExtent(tiles[i]),
                pixels.at(tiles[i].tx * textureTile, tiles[i].ty * textureTile), pixels.channels,
                pixels.size);
}

template <typename Sample>
bool isSameTile(
    const TextureFile& texture, std::size_t number, const Sample* samples, int channels, int rowPixels)
{
    return digestOf(texture, tileExtent(allTiles()[number]), samples, channels, rowPixels)
        == texture.digests[number];
}

// --- Writing ---------------------------------------------------------------------------------------------

void writeExr(TextureFile& texture)
{
    constexpr const char* names[] = { "R", "G", "B", "A" };
    Imf::Header header(textureSize, textureSize);
    header.compression() = Imf::ZIP_COMPRESSION;
    header.setTileDescription(Imf::TileDescription(textureTile, textureTile, Imf::MIPMAP_LEVELS));
    for (const char* const name : names)
        header.channels().insert(name, Imf::Channel(Imf::HALF));
    Imf::TiledOutputFile file(texture.path.c_str(), header);
    Level<half> pixels = firstHalfLevel();
    for (int level = 0; level < file.numLevels(); ++level) {
        Imf::FrameBuffer frame;
        for (int i = 0; i < 4; ++i)
            frame.insert(names[i],
                Imf::Slice(Imf::HALF, reinterpret_cast<char*>(pixels.at(0, 0) + i), 4 * sizeof(half),
                    4 * sizeof(half) * std::size_t(pixels.size)));
        file.setFrameBuffer(frame);
        file.writeTiles(0, file.numXTiles(level) - 1, 0, file.numYTiles(level) - 1, level);
        noteDigests(texture, pixels, level);
        if (pixels.size > 1)
            pixels = halved(pixels);
    }
}

/// A whole tile, with zeros where the level ends.
std::vector<std::uint8_t> tileOf(const Level<std::uint8_t>& pixels, int left, int top)
{
    std::vector<std::uint8_t> tile(std::size_t(textureTile) * textureTile * 3);
    const int extent = std::min(pixels.size, textureTile);
    for (int y = 0; y < extent; ++y)
        std::copy_n(
            pixels.at(left, top + y), std::size_t(extent) * 3, &tile[std::size_t(y) * textureTile * 3]);
    return tile;
}

bool writeTiffLevel(TIFF* tiff, const Level<std::uint8_t>& pixels)
{
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, pixels.size);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, pixels.size);
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, textureTile);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, textureTile);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    TIFFSetField(tiff, TIFFTAG_PIXAR_TEXTUREFORMAT, "Plain Texture");
    for (int y = 0; y < pixels.size; y += textureTile)
        for (int x = 0; x < pixels.size; x += textureTile) {
            std::vector<std::uint8_t> tile = tileOf(pixels, x, y);
            if (TIFFWriteTile(tiff, tile.data(), std::uint32_t(x), std::uint32_t(y), 0, 0) < 0)
                return false;
        }
    return TIFFWriteDirectory(tiff) == 1;
}

bool writeTiff(TextureFile& texture)
{
    const std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(texture.path.c_str(), "w"), TIFFClose);
    if (!tiff)
        return false;
    Level<std::uint8_t> pixels = firstByteLevel();
    for (int level = 0; level < textureLevels; ++level) {
        if (!writeTiffLevel(tiff.get(), pixels))
            return false;
        noteDigests(texture, pixels, level);
        if (pixels.size > 1)
            pixels = halved(pixels);
    }
    return true;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

int tileExtent(const TilePlace& place)
{
    return std::min(textureSize >> place.level, textureTile);
}

const std::vector<TilePlace>& allTiles()
{
    static const std::vector<TilePlace> tiles = [] {
        std::vector<TilePlace> result;
        for (int level = 0; level < textureLevels; ++level) {
            const int count = std::max((textureSize >> level) / textureTile, 1);
            for (int i = 0; i < count * count; ++i)
                result.push_back({ i % count, i / count, level });
        }
        std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same order on every machine.
        for (std::size_t i = result.size(); i > 1; --i)
            std::swap(result[i - 1], result[random() % i]);
        return result;
    }();
    return tiles;
}

TextureFile& exrTexture()
{
    static TextureFile texture { "tiles/exr-half-zip", filePath("texture.exr"), true, 4, {} };
    return texture;
}

TextureFile& tiffTexture()
{
    static TextureFile texture { "tiles/tif-rgb8-deflate", filePath("texture.tif"), false, 3, {} };
    return texture;
}

std::string makeTexture(TextureFile& texture)
{
    if (!texture.digests.empty())
        return {};
    texture.digests.resize(allTiles().size());
    try {
        if (texture.isHalf)
            writeExr(texture);
        else if (!writeTiff(texture))
            return "its texture cannot be made";
    } catch (const std::exception& exception) {
        return exception.what();
    }
    return {};
}

bool isTile(const TextureFile& texture, std::size_t number, const float* samples, int channels, int rowPixels)
{
    return isSameTile(texture, number, samples, channels, rowPixels);
}

bool isTile(
    const TextureFile& texture, std::size_t number, const std::uint16_t* samples, int channels, int rowPixels)
{
    return isSameTile(texture, number, samples, channels, rowPixels);
}

bool isTile(
    const TextureFile& texture, std::size_t number, const std::uint8_t* samples, int channels, int rowPixels)
{
    return isSameTile(texture, number, samples, channels, rowPixels);
}

} // namespace bench
