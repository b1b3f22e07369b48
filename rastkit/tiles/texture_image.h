#pragma once

#include "rastkit/tiles/mip_pyramid.h"
#include "rastkit/tiles/texel_codec.h"
#include "rastkit/tiles/texture_range.h"
#include "rastkit/tiles/tile_queue.h"
#include "rastkit/tiles/tile_rows.h"

#include <memory>
#include <string>

namespace QUtils {

/// Which file a texture becomes.
enum class TextureFormat { Exr, Tiff };

/// IMGERR_UNSUPPORTED for settings that the format does not have.
ImgErrorCode checkSettings(const TextureSettings& settings, TextureFormat format);

/// One image on its way into a texture file: stored samples go to the rows of tiles, their light through the
/// pyramid.
class TextureImage final : private MipPyramid::Receiver {
public:
    /// The settings are checked, they and the comment outlive this object; width and height are those of an
    /// image that `fits`. `threads` encode beside the caller's. Throws std::bad_alloc.
    TextureImage(int width, int height, TextureFormat format, const TextureSettings& settings,
        const std::string& comment, int threads);

    /// Whether a texture may have this size: within 2^24 pixels a side and 2^26 tiles.
    static bool fits(int width, int height, const TextureSettings& settings);

    /// Makes the file.
    ImgErrorCode begin(const char* name) { return m_file->begin(name); }
    /// Stores pixels, cut to the image. Rows that are complete already stay. Throws std::bad_alloc.
    template <typename Pixel> void put(int x, int y, int count, const Pixel* pixels, std::size_t pixelSize);
    /// Pixels that are missing become 0. Throws std::bad_alloc.
    ImgErrorCode finish();

    ImgErrorCode error() const { return m_queue.error(); }
    int systemError() const { return m_file->systemError(); }

private:
    void takeRow(int level, int y, const float* row) override;
    void completeRow(int y);
    void findRange(int level, const std::uint8_t* row);

    TextureLayout m_layout;
    TexelCodec m_codec;
    bool m_findsRange, m_isCurved;
    RangeFinder m_range;
    std::unique_ptr<TextureFile> m_file;
    TileQueue m_queue;
    TileRows m_rows;
    RowParts m_parts;
    MipPyramid m_pyramid;
    std::vector<float> m_linear, m_floats; ///< A row of the largest level; of any.
};

} // namespace QUtils
