#pragma once

#include "rastkit/tiles/tile_samples.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// Gives and takes back the right to so many bytes of memory, and the memory of tiles.
class MemoryGrant {
public:
    /// False when there is no room for them.
    [[nodiscard]] virtual bool take(std::uint64_t bytes) = 0;
    virtual void giveBack(std::uint64_t bytes) = 0;
    /// Zeros, or null. Nothing is granted or given back with it.
    virtual std::uint8_t* allocateTile(std::size_t bytes) = 0;
    virtual void freeTile(std::uint8_t* tile, std::size_t bytes) = 0;

protected:
    ~MemoryGrant() = default;
};

/// Takes one tile from a loader, and stores it encoded. Floats that the encoding does not have make the sink
/// go over to the next one, with all that is stored already.
class TileSink final : public ImgRowBuffer {
public:
    struct Area {
        int left, top; ///< Of the tile in its level, pixels.
        int width, height; ///< What lies in the level.
        int wholeWidth, wholeHeight; ///< What the loader may deliver.
    };

    struct Outcome {
        ImgErrorCode error = IMGERR_NONE;
        bool lackedRoom = false; ///< The error is that the grant had none for floats.
    };

    /// Bytes that the memory of a tile counts for.
    static std::uint64_t bytesOf(const Area& area, TileEncoding encoding);

    /// `grant` has given the memory for the first encoding already.
    TileSink(const Area& area, TileEncoding encoding, MemoryGrant& grant);
    ~TileSink() override; ///< Frees what was not released, and gives the grant back.

    /// What went wrong: IMGERR_MEMORY; IMGERR_UNSUPPORTED pixels that belong to other tiles, as an
    /// orientation puts them.
    ImgErrorCode error() const { return m_error; }
    /// Whether the grant had no room for floats: with as much from the beginning the tile can be had.
    bool lackedRoom() const { return m_lackedRoom; }
    const Area& area() const { return m_area; }
    TileEncoding encoding() const { return m_encoding; }
    /// The tile, to be freed by the grant: rows of `width` times four samples. Null when nothing came.
    [[nodiscard]] std::uint8_t* release();

    void init(int, int) override { }
    int isValid() override { return m_error != IMGERR_MEMORY; }
    void freeMem() override { }
    void setPixelF(int x, int y, const float* rgba) override { setRowF(x, y, 1, rgba); }
    void setPixel(int x, int y, unsigned int argb) override { setRow(x, y, 1, &argb); }
    void setRow(int x, int y, int count, const unsigned int* argb) override;
    void setRowF(int x, int y, int count, const float* rgba) override;
    /// The same for halfs, which are stored as they are where that is the encoding.
    void setRowHalf(int x, int y, int count, const std::uint16_t* rgba);

private:
    bool isOutside(int x, int y, int count) const;
    std::size_t samplesInside(int x, int y, int count, std::size_t& first);
    bool hasTile();
    void chooseNext();
    bool recodeBytes(TileEncoding encoding);
    bool widen();
    std::size_t tileBytes() const;

    const Area m_area;
    MemoryGrant& m_grant;
    TileEncoding m_encoding;
    std::uint64_t m_granted;
    std::uint8_t* m_tile = nullptr;
    ImgErrorCode m_error = IMGERR_NONE;
    bool m_lackedRoom = false;
};

} // namespace QUtils
