#include "rastkit/codecs/tiff_rows.h"

#include "rastkit/model/clip.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace QUtils {

namespace {

/// Rows that are collected where axes are exchanged: so many pixels go to the sink at a time.
constexpr int bandRowCount = 16;

// The sink's operations for each kind of pixel.

float* beginRow(RowSink& sink, int y, float*)
{
    return sink.beginRowF(y);
}
unsigned int* beginRow(RowSink& sink, int y, unsigned int*)
{
    return sink.beginRow(y);
}
void endRow(RowSink& sink, int y, const float* rgba)
{
    sink.endRowF(y, rgba);
}
void endRow(RowSink& sink, int y, const unsigned int* argb)
{
    sink.endRow(y, argb);
}
void put(RowSink& sink, int x, int y, const float* rgba, int count)
{
    sink.putF(x, y, rgba, count);
}
void put(RowSink& sink, int x, int y, const unsigned int* argb, int count)
{
    sink.put(x, y, argb, count);
}

void reversePixels(unsigned int* argb, std::size_t count)
{
    std::reverse(argb, argb + count);
}
void reversePixels(float* rgba, std::size_t count)
{
    for (std::size_t left = 0, right = count; left + 1 < right; ++left)
        std::swap_ranges(rgba + left * 4, rgba + left * 4 + 4, rgba + --right * 4);
}

} // namespace

TiffOrientation TiffOrientation::of(int value, Conventions conventions)
{
    TiffOrientation orientation;
    const bool isKnown = value >= 1 && value <= 8;
    if (!isKnown) {
        orientation.isAtOrigin = conventions == Conventions::Renderer;
        return orientation;
    }
    // The renderer has never exchanged rows and columns, deliberately.
    orientation.swapsAxes = value >= 5 && conventions == Conventions::Standard;
    const int mirrored = (value - 1) % 4;
    orientation.mirrorsX = mirrored == 1 || mirrored == 2;
    orientation.mirrorsY = mirrored == 2 || mirrored == 3;
    return orientation;
}

template <typename Pixel>
TiffRows<Pixel>::TiffRows(
    RowSink& sink, const TiffOrientation& orientation, int width, int height, int longestRun)
    : m_sink(sink), m_orientation(orientation), m_width(width), m_height(height),
      m_longestRun(std::max(std::min(longestRun, width), 0))
{
}

template <typename Pixel> Pixel* TiffRows<Pixel>::spare()
{
    if (!m_spare) {
        const std::size_t rows = m_orientation.swapsAxes ? bandRowCount : 1;
        m_spare.reset(new (std::nothrow) Pixel[rows * std::size_t(m_longestRun) * perPixel]);
    }
    return m_spare.get();
}

template <typename Pixel> bool TiffRows<Pixel>::isWholeRow(const TiffRun& run) const
{
    return run.count == m_width && !m_orientation.swapsAxes && !m_orientation.isAtOrigin;
}

/// Room for the pixels of a run that is inside the image.
template <typename Pixel> Pixel* TiffRows<Pixel>::begin(const TiffRun& run)
{
    if (isWholeRow(run))
        return beginRow(m_sink, m_orientation.mirrorsY ? m_height - 1 - run.y : run.y, m_spare.get());
    Pixel* const room = spare();
    if (!m_orientation.swapsAxes || !room)
        return room;

    const bool goesOn = run.x == m_band.x && run.count == m_band.count && run.y == m_band.y + m_bandRows
        && m_bandRows < bandRowCount;
    if (!goesOn) {
        flush();
        m_band = run;
    }
    return room + std::size_t(m_bandRows) * std::size_t(run.count) * perPixel;
}

template <typename Pixel> void TiffRows<Pixel>::end(const TiffRun& run, Pixel* pixels)
{
    if (m_orientation.isAtOrigin) {
        // Every pixel takes the place of the one before.
        for (int i = 0; i < run.count; ++i)
            put(m_sink, 0, 0, pixels + std::size_t(i) * perPixel, 1);
        return;
    }
    if (m_orientation.swapsAxes) {
        ++m_bandRows;
        return;
    }
    if (m_orientation.mirrorsX)
        reversePixels(pixels, std::size_t(run.count));
    const int y = m_orientation.mirrorsY ? m_height - 1 - run.y : run.y;
    if (isWholeRow(run))
        endRow(m_sink, y, pixels);
    else
        put(m_sink, m_orientation.mirrorsX ? m_width - run.x - run.count : run.x, y, pixels, run.count);
}

/// Hands over the collected rows, which are columns of the picture. Its columns are counted by the file's
/// rows, so these are what an orientation mirrors left and right.
template <typename Pixel> void TiffRows<Pixel>::flush()
{
    // Which side row 0 is at, and which end column 0.
    const bool rowsFromRight = m_orientation.mirrorsX;
    const bool columnsFromBottom = m_orientation.mirrorsY;
    Pixel column[bandRowCount * perPixel];
    for (int i = 0; i < m_band.count && m_bandRows != 0; ++i) {
        for (int row = 0; row < m_bandRows; ++row) {
            const std::size_t from = std::size_t(row) * std::size_t(m_band.count) + std::size_t(i);
            const std::size_t to = std::size_t(rowsFromRight ? m_bandRows - 1 - row : row);
            std::memcpy(column + to * perPixel, m_spare.get() + from * perPixel, perPixel * sizeof(Pixel));
        }
        const int fileX = m_band.x + i;
        const int x = rowsFromRight ? m_height - m_band.y - m_bandRows : m_band.y;
        put(m_sink, x, columnsFromBottom ? m_width - 1 - fileX : fileX, column, m_bandRows);
    }
    m_bandRows = 0;
}

template <typename Pixel>
ImgErrorCode TiffRows<Pixel>::store(
    TiffPixelDecoder& decoder, const TiffDecodedBytes& from, std::uint64_t firstBit, TiffRun run)
{
    int skipped = 0;
    if (run.y < 0 || run.y >= m_height || !clipRun(m_width, run.x, run.count, skipped))
        return IMGERR_NONE;
    Pixel* const pixels = begin(run);
    if (!pixels)
        return IMGERR_MEMORY;
    decoder.decode(
        from, firstBit + std::uint64_t(skipped) * decoder.pixelBits(), pixels, std::size_t(run.count));
    end(run, pixels);
    return IMGERR_NONE;
}

template <typename Pixel> ImgErrorCode TiffRows<Pixel>::store(const Pixel* source, TiffRun run)
{
    Pixel* const pixels = begin(run);
    if (!pixels)
        return IMGERR_MEMORY;
    std::memcpy(pixels, source, std::size_t(run.count) * perPixel * sizeof(Pixel));
    end(run, pixels);
    return IMGERR_NONE;
}

template class TiffRows<float>;
template class TiffRows<unsigned int>;

} // namespace QUtils
