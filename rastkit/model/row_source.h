#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/types.h"

#include <cstddef>

namespace QUtils {

/// The colour-correction mode that writers ask for: 3, or 0 when bit 0x200 of `flags` is set. An installed
/// header declares it too, which must not include this one.
RASTKIT_API int getIntent(int flags); // NOLINT(readability-redundant-declaration)

/// The frame's corrected pixels, if its plug-in offers them, else null.
ColorCorrectedPixelsInterface* findCorrectedPixels(PixelBufferInterface& buffer);

/// Whether the frame is a FrameBuffer that keeps both channels (a negative `alphaChannel` is none) as bytes.
/// Its floats are those bytes divided by 255, so a writer that would round them to bytes again may as well
/// ask for the bytes: the samples are the same.
bool keepsBytes(PixelBufferInterface& buffer, int channel, int alphaChannel);

/// What a writer asks a frame for, row by row.
struct RowQuery {
    int channel;
    int alphaChannel; ///< Negative: opaque.
    int format; ///< A PixelFormatCode.
    int argument0 = 1, argument1 = 0, argument2 = 0; ///< The host's own; writers pass 1, 0, 0 unless said.
};

/// Bytes of one pixel in a PixelFormatCode.
std::size_t pixelBytesOf(int format);

/// The rows of one channel of a frame: the one place that asks a frame for pixels, for all writers.
///
/// The frame's size is asked for once. A writer uses this one for everything, since a live frame may answer
/// differently the next time.
class RowSource {
public:
    /// Plain pixels.
    RowSource(PixelBufferInterface& buffer, const RowQuery& query);
    /// Pixels from `corrected` with that mode when it is not null, else plain ones.
    RowSource(PixelBufferInterface& buffer, const RowQuery& query, ColorCorrectedPixelsInterface* corrected,
        int mode);

    int width() const { return m_width; }
    int height() const { return m_height; }
    std::size_t pixelBytes() const { return pixelBytesOf(m_query.format); }
    /// Bytes of one row as it is delivered; 0 for a negative width.
    std::size_t rowBytes() const;
    /// False for a frame that cannot be asked: a negative width, or a row of more bytes than an int counts.
    bool isAskable() const;

    /// Stores row `y` (0 at the top) at `row`, which has room for `rowBytes` bytes; the frame is askable.
    /// False when the row is refused.
    [[nodiscard]] bool fetch(int y, void* row);

private:
    PixelBufferInterface& m_buffer;
    ColorCorrectedPixelsInterface* m_corrected;
    RowQuery m_query;
    int m_mode, m_width, m_height;
};

} // namespace QUtils

using QUtils::getIntent;
