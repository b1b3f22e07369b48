#pragma once

#include "rastkit/tile_cache.h"
#include "rastkit/types.h"

#include <cstdint>
#include <memory>

namespace QUtils {
inline namespace RASTKIT_ABI {

/// How a mip level is made from the one above it.
enum class MipFilter : std::uint8_t { Box, Triangle, Lanczos3, Mitchell };

/// What a texture's file keeps of a sample. TIFF has no Half.
enum class TextureSample : std::uint8_t { Byte, Short, Half, Float };

/// OpenEXR has None, Zip (16 rows), Piz and Dwaa; TIFF has None, Zip (deflate with a predictor) and Lzw
/// (too).
enum class TextureCompression : std::uint8_t { None, Zip, Piz, Dwaa, Lzw };

struct TextureSettings {
    int tileWidth = 64, tileHeight = 64; ///< 1 to 4096; TIFF: multiples of 16.
    int channels = 4; ///< 1 Y, 2 Y and alpha, 3 RGB, 4 RGBA.
    MipFilter filter = MipFilter::Box;
    TextureWrap wrapX = TextureWrap::Clamp,
                wrapY = TextureWrap::Clamp; ///< What filters find beyond the edges.
    TextureSample sample = TextureSample::Half;
    TextureCompression compression = TextureCompression::Zip;
    float dwaLevel = 45; ///< Of Dwaa: 0 lossless, more is smaller.
    bool isSrgb
        = false; ///< Colour has the transfer curve of sRGB: filtered in linear light, stored as it came.
    bool makeLinear = false; ///< Of such a texture: stored in linear light.
    int threads = 0; ///< 0: as many as OpenEXR is set to use.
    const char* comment = nullptr; ///< For OpenEXR's attribute "comments" and TIFF's ImageDescription.
};

/// A sink that writes the image it is given as a mip-mapped, tiled texture, OpenEXR or TIFF by the name's
/// extension, which EXRTileLoaderParams, TIFTileLoaderParams and TileCache read.
///
/// Rows are filtered, compressed and written as they come; memory is that of a few rows of tiles a level as
/// long as rows come in order, from the top or from the bottom, whole or in parts.
class RASTKIT_API TextureWriter : public ImgRowBuffer {
public:
    TextureWriter(const char* fileName, const TextureSettings& settings);
    TextureWriter(const TextureWriter&) = delete;
    TextureWriter& operator=(const TextureWriter&) = delete;
    ~TextureWriter() override;

    void init(int width, int height) override;
    int isValid() override;
    void freeMem() override;
    void setPixelF(int x, int y, const float* rgba) override;
    void setPixel(int x, int y, unsigned int argb) override;
    void setRow(int x, int y, int count, const unsigned int* argb) override;
    void setRowF(int x, int y, int count, const float* rgba) override;

    /// Completes the file, after the last pixel. Pixels that were never stored are 0. IMGERR_MEMORY,
    /// IMGERR_OPEN, IMGERR_WRITE, IMGERR_LIBRARY; IMGERR_UNSUPPORTED for settings that the format does not
    /// have.
    ImgError finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace RASTKIT_ABI
} // namespace QUtils
