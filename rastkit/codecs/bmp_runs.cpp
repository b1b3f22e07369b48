#include "rastkit/codecs/bmp_runs.h"

#include "rastkit/model/result.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace QUtils {

namespace {

// A code is two bytes: how often, and what. Where the first is 0 the second is one of these, or the number of
// pixels that follow one by one, padded to a multiple of two bytes.
constexpr std::uint8_t endOfRow = 0, endOfPicture = 1, moveRightAndOn = 2;
constexpr std::size_t codeBytes = 2;

/// Takes pixels from left to right, row after row in the order of the file, and hands them to the sink in
/// pieces: whole rows, except of pictures of absurd widths, which a small file may claim to have.
class RowsInPieces {
public:
    RowsInPieces(RowSink& sink, const BmpLayout& layout)
        : m_sink(sink), m_topDown(layout.firstRowIsTop), m_background(layout.palette[0]),
          m_capacity(std::min<std::size_t>(std::size_t(sink.width()), mostPixels)),
          m_pixels(new (std::nothrow) std::uint32_t[m_capacity])
    {
    }

    bool isValid() const { return m_pixels != nullptr; }
    bool isDone() const { return m_row == m_sink.height(); }
    std::size_t width() const { return std::size_t(m_sink.width()); }
    std::size_t x() const { return m_begin + m_count; }

    /// Adds `count` pixels, cut to the row; `pixelAt(i)` is one of them.
    template <typename PixelAt> void add(std::size_t count, PixelAt pixelAt)
    {
        count = std::min(count, width() - x());
        for (std::size_t done = 0; done < count;) {
            if (m_count == m_capacity)
                flush();
            const std::size_t piece = std::min(count - done, m_capacity - m_count);
            std::uint32_t* const out = m_pixels.get() + m_count;
            for (std::size_t i = 0; i < piece; ++i)
                out[i] = pixelAt(done + i);
            m_count += piece;
            done += piece;
        }
    }

    /// Leaves pixels out up to column `column`.
    void leaveOutTo(std::size_t column)
    {
        if (column > x())
            add(column - x(), [this](std::size_t) { return m_background; });
    }

    /// Leaves the rest of the row out.
    void endRow()
    {
        leaveOutTo(width());
        flush();
        m_begin = 0;
        ++m_row;
    }

    /// Hands over what there is of a row that is cut.
    void flush()
    {
        const int y = m_topDown ? m_row : m_sink.height() - 1 - m_row;
        m_sink.put(int(m_begin), y, m_pixels.get(), int(m_count));
        m_begin += m_count;
        m_count = 0;
    }

private:
    static constexpr std::size_t mostPixels = 1 << 16;

    RowSink& m_sink;
    bool m_topDown;
    std::uint32_t m_background;
    std::size_t m_capacity;
    std::unique_ptr<std::uint32_t[]> m_pixels;
    std::size_t m_begin = 0, m_count = 0; // Of the piece: its first column, its pixels.
    int m_row = 0;
};

/// One pass over the codes of a picture.
class RunDecoder {
public:
    RunDecoder(BmpInput& in, const BmpLayout& layout, RowSink& sink)
        : m_in(in), m_palette(layout.palette), m_isNibbles(layout.encoding == BmpEncoding::Runs4),
          m_rows(sink, layout)
    {
    }

    ImgErrorCode run()
    {
        if (!m_rows.isValid())
            return IMGERR_MEMORY;
        while (!m_rows.isDone())
            if (!step())
                return end();
        return IMGERR_NONE;
    }

private:
    /// False where the codes break off.
    bool step()
    {
        if (m_in.ready(codeBytes) < codeBytes)
            return false;
        const std::uint8_t count = m_in.data()[0], value = m_in.data()[1];
        m_in.skip(codeBytes);
        if (count != 0) {
            repeat(count, value);
            return true;
        }
        switch (value) {
        case endOfRow: m_rows.endRow(); return true;
        case endOfPicture:
            while (!m_rows.isDone())
                m_rows.endRow();
            return true;
        case moveRightAndOn: return move();
        default: return copy(value);
        }
    }

    void repeat(std::size_t count, std::uint8_t value)
    {
        // Two indices of four bits take turns.
        const std::uint32_t pixels[2]
            = { m_palette[m_isNibbles ? value >> 4 : value], m_palette[m_isNibbles ? value & 0x0F : value] };
        m_rows.add(count, [&](std::size_t i) { return pixels[i & 1]; });
    }

    bool copy(std::size_t count)
    {
        const std::size_t bytes = m_isNibbles ? (count + 1) / 2 : count, padded = (bytes + 1) / 2 * 2;
        const std::size_t ready = m_in.ready(padded);
        const std::uint8_t* const data = m_in.data();
        const std::size_t whole = std::min(count, m_isNibbles ? ready * 2 : ready);
        if (m_isNibbles)
            m_rows.add(
                whole, [&](std::size_t i) { return m_palette[data[i / 2] >> (i % 2 ? 0 : 4) & 0x0F]; });
        else
            m_rows.add(whole, [&](std::size_t i) { return m_palette[data[i]]; });
        m_in.skip(std::min(padded, ready));
        return whole == count;
    }

    bool move()
    {
        if (m_in.ready(codeBytes) < codeBytes)
            return false;
        const std::size_t right = m_in.data()[0];
        const int on = m_in.data()[1];
        m_in.skip(codeBytes);
        const std::size_t column = std::min(m_rows.x() + right, m_rows.width());
        for (int i = 0; i < on && !m_rows.isDone(); ++i)
            m_rows.endRow();
        if (!m_rows.isDone())
            m_rows.leaveOutTo(column);
        return true;
    }

    /// Nothing is missing of a row whose last pixel was there.
    ImgErrorCode end()
    {
        if (m_rows.x() == m_rows.width())
            m_rows.endRow();
        else
            m_rows.flush();
        if (m_rows.isDone())
            return IMGERR_NONE;
        return m_in.isStarved() ? IMGERR_MEMORY : IMGERR_READ;
    }

    BmpInput& m_in;
    const BmpPalette& m_palette;
    bool m_isNibbles;
    RowsInPieces m_rows;
};

} // namespace

ImgErrorCode readBmpRuns(BmpInput& in, const BmpLayout& layout, RowSink& sink)
{
    return RunDecoder(in, layout, sink).run();
}

} // namespace QUtils
