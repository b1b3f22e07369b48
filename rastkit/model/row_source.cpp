#include "rastkit/model/row_source.h"

#include "rastkit/buffers.h"
#include "rastkit/model/type_information.h"
#include "rastkit/save.h"

#include <algorithm>
#include <climits>

namespace QUtils {

int getIntent(int flags)
{
    return (flags & SAVE_CORRECTION_MODE_0) ? 0 : 3;
}

ColorCorrectedPixelsInterface* findCorrectedPixels(PixelBufferInterface& buffer)
{
    PluginBase* const plugin = buffer.getPlugin();
    if (!plugin)
        return nullptr;
    // The interface stays its plug-in's: it is asked for anew by each writer and never handed back.
    return static_cast<ColorCorrectedPixelsInterface*>(
        plugin->newInterface(ColorCorrectedPixelsInterface::interfaceId));
}

bool keepsBytes(PixelBufferInterface& buffer, int channel, int alphaChannel)
{
    if (!isExactly<FrameBuffer>(buffer)) // A class derived from it may answer queries in its own way.
        return false;
    FrameBuffer& frame = static_cast<FrameBuffer&>(buffer);
    return frame.rowPacked(channel, 0) && (alphaChannel < 0 || frame.rowPacked(alphaChannel, 0));
}

std::size_t pixelBytesOf(int format)
{
    const int channels = format / 100, sample = format % 10;
    const std::size_t components = channels == 1 ? 1 : std::size_t(channels) + 1;
    const std::size_t sampleBytes = sample == 0 ? 1 : sample == 1 ? 2 : 4;
    return components * sampleBytes;
}

RowSource::RowSource(PixelBufferInterface& buffer, const RowQuery& query)
    : RowSource(buffer, query, nullptr, 0)
{
}

RowSource::RowSource(
    PixelBufferInterface& buffer, const RowQuery& query, ColorCorrectedPixelsInterface* corrected, int mode)
    : m_buffer(buffer), m_corrected(corrected), m_query(query), m_mode(mode), m_width(buffer.getWidth()),
      m_height(buffer.getHeight())
{
}

std::size_t RowSource::rowBytes() const
{
    return std::size_t(std::max(m_width, 0)) * pixelBytes();
}

bool RowSource::isAskable() const
{
    return m_width >= 0 && rowBytes() <= INT_MAX;
}

bool RowSource::fetch(int y, void* row)
{
    const PixelBufferRegion region { 0, y, m_width, y + 1, m_width, 1, 0, 0 };
    const RowQuery& q = m_query;
    const int bytes = int(rowBytes());
    if (m_corrected)
        return m_corrected->getCorrectedPixels(q.channel, q.alphaChannel, region, q.format, bytes, row,
                   q.argument0, q.argument1, q.argument2, m_mode)
            != 0;
    return m_buffer.getPixels(
               q.channel, q.alphaChannel, region, q.format, bytes, row, q.argument0, q.argument1, q.argument2)
        != 0;
}

} // namespace QUtils
