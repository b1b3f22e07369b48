#pragma once

#include "support/temp_file.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <ImfTiledOutputFile.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace testing_support {

/// An OpenEXR file as OpenEXR's own classes write it. Each sample has its own value, which halves hold
/// exactly.
struct ExrFileFacts {
    using PixelTypes = std::map<std::string, Imf::PixelType>;

    int left = 0, top = 0, width = 5, height = 3;
    PixelTypes channels = { { "R", Imf::HALF }, { "G", Imf::HALF }, { "B", Imf::HALF }, { "A", Imf::HALF } };
    Imf::Compression compression = Imf::NO_COMPRESSION;
    Imf::LineOrder lineOrder = Imf::INCREASING_Y;
    bool isTiled = false;
    Imf::TileDescription tiles = Imf::TileDescription(4, 2, Imf::ONE_LEVEL);

    /// The sample at a place counted from the corner of the data window.
    static float valueAt(const std::string& channel, int x, int y, int level = 0)
    {
        int name = 0;
        for (const char letter : channel)
            name = (name * 5 + letter) % 97;
        return float((name * 7 + x * 3 + y * 11 + level * 5) % 97) / 64;
    }

    Imf::Header header() const
    {
        const Imath::Box2i window({ left, top }, { left + width - 1, top + height - 1 });
        Imf::Header made(Imath::Box2i({ 0, 0 }, { 63, 31 }), window);
        made.compression() = compression;
        made.lineOrder() = lineOrder;
        for (const auto& [name, type] : channels)
            made.channels().insert(name, Imf::Channel(type));
        if (isTiled)
            made.setTileDescription(tiles);
        return made;
    }

    void write(const std::string& path) const { write(path, header()); }
    void write(const std::string& path, const Imf::Header& described) const
    {
        if (isTiled)
            writeTiles(path, described);
        else
            writeRows(path, described);
    }

private:
    /// The samples of one level, and slices of them.
    struct Samples {
        std::map<std::string, std::vector<char>> planes;
        Imf::FrameBuffer frame;
    };

    void fill(Samples& samples, int levelWidth, int levelHeight, int level) const
    {
        for (const auto& [name, type] : channels) {
            const std::size_t bytes = type == Imf::HALF ? 2 : 4;
            std::vector<char>& plane = samples.planes[name];
            plane.resize(std::size_t(levelWidth) * std::size_t(levelHeight) * bytes);
            for (int y = 0; y < levelHeight; ++y)
                for (int x = 0; x < levelWidth; ++x) {
                    char* const at = plane.data() + std::size_t(y * levelWidth + x) * bytes;
                    const float value = valueAt(name, x, y, level);
                    if (type == Imf::HALF)
                        *reinterpret_cast<half*>(at) = value;
                    else if (type == Imf::FLOAT)
                        *reinterpret_cast<float*>(at) = value;
                    else
                        *reinterpret_cast<unsigned int*>(at) = unsigned(value * 64);
                }
            samples.frame.insert(
                name, Imf::Slice::Make(type, plane.data(), Imath::V2i(left, top), levelWidth, levelHeight));
        }
    }

    void writeRows(const std::string& path, const Imf::Header& described) const
    {
        Samples samples;
        fill(samples, width, height, 0);
        Imf::OutputFile file(path.c_str(), described);
        file.setFrameBuffer(samples.frame);
        file.writePixels(height);
    }

    void writeTiles(const std::string& path, const Imf::Header& described) const
    {
        Imf::TiledOutputFile file(path.c_str(), described);
        for (int ly = 0; ly < file.numYLevels(); ++ly)
            for (int lx = 0; lx < file.numXLevels(); ++lx) {
                if (tiles.mode != Imf::RIPMAP_LEVELS && lx != ly)
                    continue;
                Samples samples;
                fill(samples, file.levelWidth(lx), file.levelHeight(ly), lx);
                file.setFrameBuffer(samples.frame);
                file.writeTiles(0, file.numXTiles(lx) - 1, 0, file.numYTiles(ly) - 1, lx, ly);
            }
    }
};

} // namespace testing_support
