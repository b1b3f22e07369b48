#pragma once

#include "rastkit/tile_cache.h"
#include "rastkit/types.h"

#include <cstdint>
#include <memory>

namespace QUtils {
inline namespace RASTKIT_ABI {

/// How a mip level is made from the one above it: the mean of the area that a pixel covers, or a filter of 2,
/// 6 or 4 pixels of the smaller level.
enum class MipFilter : std::uint8_t { Box, Triangle, Lanczos3, Mitchell };

/// What a texture's file keeps of a sample. TIFF has no Half. What is beyond 65504 either way, infinities
/// too, is 65504 in Half.
enum class TextureSample : std::uint8_t { Byte, Short, Half, Float };

/// OpenEXR has None, Zip (16 rows), Piz and Dwaa; TIFF has None, Zip (deflate with a predictor) and Lzw
/// (with one too).
enum class TextureCompression : std::uint8_t { None, Zip, Piz, Dwaa, Lzw };

struct TextureSettings {
    /// 1 to 4096; TIFF: multiples of 16. OpenEXR's are no larger than the image.
    int tileWidth = 64, tileHeight = 64;
    /// 1 Y, 2 Y and alpha (not in TIFF, where the tile loaders know none), 3 RGB, 4 RGBA. Y is the first of
    /// the colours, which grey images have three times.
    int channels = 4;
    MipFilter filter = MipFilter::Box;
    /// What filters find beyond the edges.
    TextureWrap wrapX = TextureWrap::Clamp, wrapY = TextureWrap::Clamp;
    TextureSample sample = TextureSample::Half;
    TextureCompression compression = TextureCompression::Zip;
    float dwaLevel = 45; ///< Of Dwaa: 0 least loss, more is smaller. Colour of Float it keeps as halfs.
    /// Colour has the transfer curve of sRGB: filtered in linear light, stored as it came.
    bool isSrgb = false;
    bool makeLinear = false; ///< Of such a texture: stored in linear light.
    /// Colour comes as it is where alpha is 1 and is multiplied by alpha, in linear light, as it is taken.
    /// Without this it is taken as multiplied. Means nothing without alpha.
    bool multiplyAlpha = false;
    /// That compress beside the caller's, at most 256; 0: as many as OpenEXR is set to use; negative: none.
    /// The file is the same.
    int threads = 0;
    /// For OpenEXR's attribute "comments" and TIFF's ImageDescription; copied.
    const char* comment = nullptr;
};

/// A sink that writes the image it is given as a mip-mapped, tiled texture, OpenEXR or TIFF by the name's
/// extension, which EXRTileLoaderParams, TIFTileLoaderParams and TileCache read.
///
/// Rows are filtered, compressed and written as they come; memory is that of a few rows of tiles a level as
/// long as rows come in order, from the top or from the bottom, whole or in parts. Other orders, and filters
/// that reach from the bottom to the top (Periodic), need more. The pixels do not depend on the order.
///
/// Each level is made of the one above it, its size halved and rounded down. The largest has the values that
/// are given, as the sample type holds them; whole numbers are clamped to 0..1. A row is complete once each
/// of its pixels was stored; what is stored into it later is dropped. docs/conventions.md has the details.
///
/// Nothing but the constructor throws: what goes wrong shows in `isValid` after `init`, and in `finish`. A
/// texture that is not finished leaves its incomplete file, which no reader takes for one.
class RASTKIT_API TextureWriter : public ImgRowBuffer {
public:
    TextureWriter(const char* fileName, const TextureSettings& settings);
    TextureWriter(const TextureWriter&) = delete;
    TextureWriter& operator=(const TextureWriter&) = delete;
    ~TextureWriter() override;

    /// Makes the file, anew each time.
    void init(int width, int height) override;
    int isValid() override;
    void freeMem() override;
    void setPixelF(int x, int y, const float* rgba) override;
    void setPixel(int x, int y, unsigned int argb) override;
    void setRow(int x, int y, int count, const unsigned int* argb) override;
    void setRowF(int x, int y, int count, const float* rgba) override;

    /// Completes the file, after the last pixel. Pixels that were never stored are 0. The first error there
    /// was: IMGERR_MEMORY; IMGERR_OPEN or IMGERR_WRITE with the system's reason in errno (ESPIPE for a pipe);
    /// IMGERR_WRITE also without an image; IMGERR_LIBRARY; IMGERR_UNSUPPORTED for a name or settings that no
    /// format has, for empty images and for those of more than 2^24 pixels a side or 2^26 tiles.
    ImgError finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace RASTKIT_ABI
} // namespace QUtils
