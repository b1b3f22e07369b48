#pragma once

#include "rastkit/tiles/texture_file.h"

#include <ImfHeader.h>

#include <string>

namespace QUtils {

/// A mip-mapped OpenEXR file. Its tiles stand in the order in which they come, which the header says, so that
/// no tile waits for another level's. The attributes minValue and maxValue (floats), minValueVec and
/// maxValueVec (three floats) tell the range of all levels.
class ExrTextureFile : public TextureFile {
public:
    /// Layout, settings and comment are the caller's and outlive this object.
    ExrTextureFile(const TextureLayout& layout, const TextureSettings& settings, const std::string& comment);

    ImgErrorCode begin(const char* name) override;
    std::unique_ptr<TileEncoder> makeEncoder() const override;
    ImgErrorCode append(int level, int tx, int ty, const std::vector<std::uint8_t>& bytes) override;
    ImgErrorCode finish(const TextureRange& range) override;

private:
    Imf::Header makeHeader(const TextureRange& range) const;
    std::vector<char> makeHead(const Imf::Header& header) const;
    ImgErrorCode writeHead(const TextureRange& range);

    const TextureLayout& m_layout;
    const TextureSettings& m_settings;
    const std::string& m_comment;
    std::vector<std::uint64_t> m_offsets; ///< Of all tiles, level by level.
    std::vector<std::size_t> m_firstOffsets; ///< Of each level.
    std::size_t m_headBytes = 0;
};

} // namespace QUtils
