#include "rastkit/tiles/texture_image.h"

#include "rastkit/model/clip.h"
#include "rastkit/model/result.h"
#include "rastkit/tiles/exr_texture_file.h"
#include "rastkit/tiles/tiff_texture_file.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace QUtils {

namespace {

constexpr int largestSize = 1 << 24, largestTile = 4096, tiffTileStep = 16;
constexpr std::uint64_t mostTiles = std::uint64_t(1) << 26;

bool isTileSize(int size, TextureFormat format)
{
    return size >= 1 && size <= largestTile && (format == TextureFormat::Exr || size % tiffTileStep == 0);
}

/// A level that is within one tile has that as small as TIFF takes it; not the largest level, since its tiles
/// say what is one. Tiles of OpenEXR are no larger than the largest level: readers take memory for whole
/// ones.
TextureLevel levelOf(int number, int width, int height, const TextureSettings& settings, TextureFormat format)
{
    TextureLevel level { MipPyramid::sizeAt(number, width), MipPyramid::sizeAt(number, height),
        settings.tileWidth, settings.tileHeight };
    if (format == TextureFormat::Exr) {
        level.tileWidth = std::min(level.tileWidth, width);
        level.tileHeight = std::min(level.tileHeight, height);
    }
    const bool isOneTile = level.width <= level.tileWidth && level.height <= level.tileHeight;
    if (format == TextureFormat::Tiff && number > 0 && isOneTile) {
        level.tileWidth = (level.width + tiffTileStep - 1) / tiffTileStep * tiffTileStep;
        level.tileHeight = (level.height + tiffTileStep - 1) / tiffTileStep * tiffTileStep;
    }
    return level;
}

TextureLayout layoutOf(int width, int height, const TextureSettings& settings, TextureFormat format)
{
    TextureLayout layout;
    layout.channels = settings.channels;
    layout.sample = settings.sample;
    for (int k = 0; k < MipPyramid::levelCount(width, height); ++k)
        layout.levels.push_back(levelOf(k, width, height, settings, format));
    return layout;
}

std::unique_ptr<TextureFile> makeFile(const TextureLayout& layout, TextureFormat format,
    const TextureSettings& settings, const std::string& comment)
{
    if (format == TextureFormat::Exr)
        return std::make_unique<ExrTextureFile>(layout, settings, comment);
    return std::make_unique<TiffTextureFile>(
        layout, settings, comment, needsBigTiff(layout, settings.compression));
}

} // namespace

ImgErrorCode checkSettings(const TextureSettings& settings, TextureFormat format)
{
    const bool isExr = format == TextureFormat::Exr;
    const bool isHalf = settings.sample == TextureSample::Half,
               isFloat = settings.sample == TextureSample::Float;
    const bool isInteger = settings.sample == TextureSample::Byte || settings.sample == TextureSample::Short;
    const bool isForBoth
        = settings.compression == TextureCompression::None || settings.compression == TextureCompression::Zip;
    const bool isExrs
        = settings.compression == TextureCompression::Piz || settings.compression == TextureCompression::Dwaa;
    if (!isTileSize(settings.tileWidth, format) || !isTileSize(settings.tileHeight, format)
        || settings.channels < 1 || settings.channels > 4 || (!isExr && settings.channels == 2)
        || settings.filter > MipFilter::Mitchell || settings.wrapX > TextureWrap::Black
        || settings.wrapY > TextureWrap::Black)
        return IMGERR_UNSUPPORTED;
    if (isExr ? !isHalf && !isFloat : !isInteger && !isFloat)
        return IMGERR_UNSUPPORTED;
    if (!isForBoth && !(isExr ? isExrs : settings.compression == TextureCompression::Lzw))
        return IMGERR_UNSUPPORTED;
    const bool isLevel = std::isfinite(settings.dwaLevel) && settings.dwaLevel >= 0;
    return isLevel ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

bool TextureImage::fits(int width, int height, const TextureSettings& settings)
{
    if (width < 1 || height < 1 || width > largestSize || height > largestSize)
        return false;
    const TextureLevel largest { width, height, settings.tileWidth, settings.tileHeight };
    return std::uint64_t(largest.tilesX()) * std::uint64_t(largest.tilesY()) <= mostTiles;
}

TextureImage::TextureImage(int width, int height, TextureFormat format, const TextureSettings& settings,
    const std::string& comment, int threads)
    : m_layout(layoutOf(width, height, settings, format)), m_codec(m_layout, settings),
      m_findsRange(format == TextureFormat::Exr), m_isCurved(settings.isSrgb && !settings.makeLinear),
      m_range(settings.channels), m_file(makeFile(m_layout, format, settings, comment)),
      m_queue(*m_file, m_layout, threads), m_rows(m_layout, m_queue), m_parts(width, height),
      m_pyramid(width, height, settings.channels, settings.filter, settings.wrapX, settings.wrapY, *this),
      m_linear(std::size_t(width) * std::size_t(settings.channels)),
      m_floats(m_findsRange ? m_linear.size() : 0)
{
}

template <typename Pixel>
void TextureImage::put(int x, int y, int count, const Pixel* pixels, std::size_t pixelSize)
{
    const TextureLevel& largest = m_layout.levels.front();
    int skipped = 0;
    if (y < 0 || y >= largest.height || !clipRun(largest.width, x, count, skipped) || m_parts.isComplete(y))
        return;
    std::uint8_t* const to = m_rows.row(0, y) + std::size_t(x) * m_layout.pixelBytes();
    m_codec.store(pixels + std::size_t(skipped) * pixelSize, to, std::size_t(count));
    if (m_parts.add(y, x, count))
        completeRow(y);
}

template void TextureImage::put(int, int, int, const unsigned int*, std::size_t);
template void TextureImage::put(int, int, int, const float*, std::size_t);

void TextureImage::completeRow(int y)
{
    const std::size_t width = std::size_t(m_layout.levels.front().width);
    const std::uint8_t* const row = m_rows.row(0, y);
    m_codec.toLinear(row, m_linear.data(), width);
    if (m_findsRange && !m_isCurved)
        m_range.add(m_linear.data(), width); // They are the same.
    else
        findRange(0, row);
    m_rows.complete(0, y); // The row must not be looked at any more.
    m_pyramid.putRow(y, m_linear.data());
}

void TextureImage::takeRow(int level, int y, const float* row)
{
    const std::size_t width = std::size_t(m_layout.levels[std::size_t(level)].width);
    std::uint8_t* const stored = m_rows.row(level, y);
    m_codec.fromLinear(row, stored, width);
    findRange(level, stored);
    m_rows.complete(level, y);
}

/// Stored samples count: what a renderer gets.
void TextureImage::findRange(int level, const std::uint8_t* row)
{
    if (!m_findsRange)
        return;
    const std::size_t width = std::size_t(m_layout.levels[std::size_t(level)].width);
    m_codec.toFloats(row, m_floats.data(), width);
    m_range.add(m_floats.data(), width);
}

ImgErrorCode TextureImage::finish()
{
    for (int y = 0; y < m_layout.levels.front().height && error() == IMGERR_NONE; ++y) {
        if (m_parts.isComplete(y))
            continue;
        std::uint8_t* const row = m_rows.row(0, y);
        for (const RowParts::Part part : m_parts.takeMissing(y))
            std::memset(row + std::size_t(part.begin) * m_layout.pixelBytes(), 0,
                std::size_t(part.end - part.begin) * m_layout.pixelBytes());
        completeRow(y);
    }
    RASTKIT_TRY(m_queue.finish());
    return m_file->finish(m_range.range());
}

} // namespace QUtils
