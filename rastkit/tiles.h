#pragma once

#include "rastkit/types.h"

#include <memory>

// Textures that are read tile by tile: mip-mapped, tiled OpenEXR and TIFF files.

/// The layout of one mip level.
struct MipLevel {
    int tilesX, tilesY; ///< Tiles across and down.
    int width, height; ///< Pixels.
};

/// A texture: its layout, and the loader of its tiles. Filled by LoadEXRHeaderEx or LoadTIFHeaderEx; the
/// caller sets `fileName` then.
///
/// Several threads may load tiles through one object; each call waits for the one before. Threads that are to
/// decode at the same time use an object each. No other operation may run beside them.
class RASTKIT_API MipMapTileLoaderParams : public IMGINFO {
public:
    MipMapTileLoaderParams();
    MipMapTileLoaderParams(const MipMapTileLoaderParams&) = delete;
    MipMapTileLoaderParams& operator=(const MipMapTileLoaderParams&) = delete;

    /// Stores tile (tx, ty) of a level into `buffer` as floats: always tileWidth x tileHeight pixels from
    /// (tx * tileWidth, ty * tileHeight) on, whatever the file's data window. The buffer has its size
    /// already, that of the whole level in whole tiles. The file is opened by the first call and stays open.
    /// Errors: IMGERR_READ a file, level or tile that is not there, is damaged or is not as described.
    virtual ImgError loadTile(int tx, int ty, int level, ImgBuffer& buffer) = 0;

    /// Closes the file and gives all memory back but `levels`. No tile can be loaded afterwards: IMGERR_READ.
    virtual void freeMem() = 0;

    virtual ~MipMapTileLoaderParams();

    const char* fileName = nullptr; ///< The caller's; must live until the first tile is loaded.
    int isMipmapped = 0; ///< 1 when the file is tiled and has mip levels. Without, no tile can be loaded.
    float minValue[4]; ///< The smallest value in the texture, R, G, B, A. 0 unless the file says it.
    float maxValue[4]; ///< The greatest. 1 unless the file says it.
    int roundUp = 0; ///< 1 when sizes of levels are rounded up.
    int tileWidth = 0, tileHeight = 0; ///< Pixels.
    int numLevels = 0;
    MipLevel* levels = nullptr; ///< numLevels of them, the largest first; freed with the object.

protected:
    /// New memory for that many levels, or null. Those before are given back.
    MipLevel* replaceLevels(int count);
};

class EXRTileLoaderParams;
class TIFTileLoaderParams;

namespace QUtils {
/// Of how many planes each tile of a described TIFF file is stored; for the library itself.
unsigned tilePlanesOf(const ::TIFTileLoaderParams& params);
} // namespace QUtils

/// Describes an OpenEXR file: all fields of IMGINFO as LoadEXRHeader does, tile size, rounding and levels of
/// a mip-mapped one, and what its attributes minValue, maxValue (float: for R, G and B), minValueVec,
/// maxValueVec (three floats) say. `isMipmapped` is 0 for scan lines, single levels and ripmaps. Errors:
/// IMGERR_READ whatever is wrong with the file.
RASTKIT_API ImgError LoadEXRHeaderEx(const char* fileName, EXRTileLoaderParams& params);

/// Describes a TIFF file: the fields of IMGINFO that LoadTIFHeader fills; the windows with a size that is 1
/// too large, deliberately, as the renderer's loaders have it for TIFF; tile size and levels, which are the
/// file's directories. `isMipmapped` is 0 for strips and for files without the texture tag (33302), or with
/// an empty one or "0" in it. Errors: IMGERR_OPEN; IMGERR_FORMAT directories that are no levels of one
/// texture; those of LoadTIFHeader.
RASTKIT_API ImgError LoadTIFHeaderEx(const char* fileName, TIFTileLoaderParams& params);

/// A mip-mapped, tiled OpenEXR file.
class RASTKIT_API EXRTileLoaderParams : public MipMapTileLoaderParams {
public:
    EXRTileLoaderParams();

    /// Pixels are R, G, B and A of the file, or Y, Y, Y and A where `numChannels` is below 3. Colour that is
    /// missing is 0, alpha 1. Pixels of a tile beyond the level's edge have any value. What OpenEXR, or the
    /// buffer, throws is told on standard error and is IMGERR_READ.
    ImgError loadTile(int tx, int ty, int level, ImgBuffer& buffer) override;
    void freeMem() override;
    ~EXRTileLoaderParams() override;

private:
    friend ImgError LoadEXRHeaderEx(const char* fileName, EXRTileLoaderParams& params);
    struct State;
    std::unique_ptr<State> m_state;
};

/// A mip-mapped TIFF file, each level in a directory of its own.
class RASTKIT_API TIFTileLoaderParams : public MipMapTileLoaderParams {
public:
    TIFTileLoaderParams();

    /// Samples that this library decodes are stored as LoadTIFFile stores them, cut to the level. All others
    /// are libtiff's conversion to 8 bits, divided by 256, deliberately: 255 becomes 0.99609375. A level
    /// smaller than a tile has the tile (0, 0) only. Errors: IMGERR_READ a file that cannot be opened (also
    /// later: the first call decides), a tile that is not there, is damaged, or is not as described;
    /// IMGERR_FORMAT another tile than (0, 0) of a small level, pixels that are no whole bytes a channel;
    /// IMGERR_UNSUPPORTED samples that nothing reads. What the buffer throws passes through, but for an
    /// ImgErrorCode, which is the answer.
    ImgError loadTile(int tx, int ty, int level, ImgBuffer& buffer) override;
    void freeMem() override;
    ~TIFTileLoaderParams() override;

private:
    friend ImgError LoadTIFHeaderEx(const char* fileName, TIFTileLoaderParams& params);
    friend unsigned QUtils::tilePlanesOf(const TIFTileLoaderParams& params);
    struct State;
    std::unique_ptr<State> m_state;
};

namespace QUtils {

using ::EXRTileLoaderParams;
using ::LoadEXRHeaderEx;
using ::LoadTIFHeaderEx;
using ::MipLevel;
using ::MipMapTileLoaderParams;
using ::TIFTileLoaderParams;

} // namespace QUtils

// Last, since it builds upon the above.
#include "rastkit/tile_cache.h" // IWYU pragma: export
