// The tile loaders of textures: the description, then tiles at the corners of every level, twice and in
// another order of levels, and tiles that are not there.

#include "fuzz_support.h"
#include "rastkit/tiles.h"

#include <cstring>

using namespace fuzz_support;

namespace {

/// A sink that adds up what it gets and lets nothing pass that lies outside the tile.
class TileSink : public ImgBuffer {
public:
    TileSink(const MipMapTileLoaderParams& params, int tx, int ty)
        : m_left(std::int64_t(tx) * params.tileWidth), m_top(std::int64_t(ty) * params.tileHeight),
          m_right(m_left + params.tileWidth), m_bottom(m_top + params.tileHeight)
    {
    }

    void init(int, int) override { require(false, "a sized buffer is sized again"); }
    int isValid() override { return 1; }
    void freeMem() override { require(false, "the buffer of a tile is freed"); }
    void setPixelF(int x, int y, const float* rgba) override
    {
        require(!m_keepsPlace || (x >= m_left && x < m_right && y >= m_top && y < m_bottom),
            "a pixel outside the tile");
        require(x >= 0 && y >= 0, "a pixel outside the level");
        for (int i = 0; i < 4; ++i) {
            std::uint32_t bits = 0;
            std::memcpy(&bits, rgba + i, sizeof bits);
            m_sum = m_sum * 31 + bits;
        }
    }
    void setPixel(int, int, unsigned int) override { require(false, "a packed pixel"); }

    /// Mirrored pictures store their tiles elsewhere.
    void allowOtherPlaces() { m_keepsPlace = false; }
    std::uint64_t sum() const { return m_sum; }

private:
    std::int64_t m_left, m_top, m_right, m_bottom;
    bool m_keepsPlace = true;
    std::uint64_t m_sum = 0;
};

bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_UNSUPPORTED
        || code == IMGERR_MEMORY;
}

template <typename Params> int loadTile(Params& params, int tx, int ty, int level)
{
    TileSink sink(params, tx, ty);
    if constexpr (std::is_same_v<Params, TIFTileLoaderParams>)
        sink.allowOtherPlaces();
    const int code = params.loadTile(tx, ty, level, sink).code();
    require(isCodeOfALoader(code), "a code that no loader has");
    return code;
}

template <typename Params> void loadLevel(Params& params, int level)
{
    constexpr std::int64_t mostPixels = 1 << 18; // Larger tiles take the fuzzer's time.
    if (std::int64_t(params.tileWidth) * params.tileHeight > mostPixels)
        return;
    const MipLevel& shape = params.levels[level];
    loadTile(params, 0, 0, level);
    loadTile(params, shape.tilesX - 1, shape.tilesY - 1, level);
    require(loadTile(params, shape.tilesX, 0, level) != IMGERR_NONE, "a tile beyond the edge");
    require(loadTile(params, 0, -1, level) != IMGERR_NONE, "a tile above the edge");
}

template <typename Params> void load(Params& params, int code, const char* name)
{
    if (code != IMGERR_NONE || !params.isMipmapped)
        return;
    require(params.numLevels >= 1 && params.levels, "a texture without levels");
    params.fileName = name;
    for (int level = params.numLevels; level-- > 0;)
        loadLevel(params, level);
    for (int level = 0; level < params.numLevels; level += 2)
        loadLevel(params, level);
    require(loadTile(params, 0, 0, params.numLevels) != IMGERR_NONE, "a level that is not there");
    params.freeMem();
    require(loadTile(params, 0, 0, 0) == IMGERR_READ, "a tile after freeMem");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    EXRTileLoaderParams exr;
    load(exr, LoadEXRHeaderEx(file.name(), exr).code(), file.name());
    TIFTileLoaderParams tiff;
    load(tiff, LoadTIFHeaderEx(file.name(), tiff).code(), file.name());
    return 0;
}
