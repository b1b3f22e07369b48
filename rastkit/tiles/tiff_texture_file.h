#pragma once

#include "rastkit/tiles/texture_file.h"

#include <string>

namespace QUtils {

/// A mip-mapped TIFF file: a directory for each level, behind all tiles. Directories are made here, since
/// libtiff fills one after the other, while tiles of all levels come at the same time; libtiff compresses.
///
/// A level that is no larger than one tile of the largest level is one tile, as small as TIFF has them.
class TiffTextureFile : public TextureFile {
public:
    /// Layout, settings and comment are the caller's and outlive this object.
    TiffTextureFile(
        const TextureLayout& layout, const TextureSettings& settings, const std::string& comment, bool isBig);

    ImgErrorCode begin(const char* name) override;
    std::unique_ptr<TileEncoder> makeEncoder() const override;
    ImgErrorCode append(int level, int tx, int ty, const std::vector<std::uint8_t>& bytes) override;
    ImgErrorCode finish(const TextureRange& range) override;

private:
    /// Where the tiles of a level are.
    struct Tiles {
        std::vector<std::uint64_t> offsets;
        std::vector<std::uint32_t> byteCounts;
    };

    ImgErrorCode writeDirectories();

    const TextureLayout& m_layout;
    const TextureSettings& m_settings;
    const std::string& m_comment;
    std::vector<Tiles> m_tiles;
    bool m_isBig; ///< BigTIFF.
};

/// Whether these tiles may need more than the 4 GiB of a file that is no BigTIFF.
bool needsBigTiff(const TextureLayout& layout, TextureCompression compression);

} // namespace QUtils
