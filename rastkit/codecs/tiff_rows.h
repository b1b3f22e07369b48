#pragma once

#include "rastkit/codecs/tiff_samples.h"
#include "rastkit/model/conventions.h"
#include "rastkit/model/row_sink.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace QUtils {

/// Where the rows and columns of a file lie in the picture.
struct TiffOrientation {
    bool mirrorsX = false, mirrorsY = false;
    bool swapsAxes = false; ///< Rows of the file are columns of the picture.
    bool isAtOrigin = false; ///< All pixels go to (0, 0).

    /// Of tag 274. The renderer's conventions take 5 to 8 for 1 to 4, which is deliberate, and know no
    /// place for other numbers but (0, 0); by the standard's those are as 1.
    static TiffOrientation of(int value, Conventions conventions);
};

/// A run of pixels in the file's rows and columns.
struct TiffRun {
    int x, y, count;
};

/// The way of pixels from the file's rows, or parts of them, to the places in the sink. `Pixel` is float
/// (four a pixel) or unsigned int (packed).
///
/// A whole row is decoded straight into the sink's storage if possible. Where axes are exchanged, rows are
/// collected and handed over in short runs. Memory is taken once at most.
template <typename Pixel> class TiffRows {
public:
    /// `width` and `height` are the file's. No run is longer than `longestRun`.
    TiffRows(RowSink& sink, const TiffOrientation& orientation, int width, int height, int longestRun);

    /// Decodes the pixels of a run, which begin at `firstBit`, and stores them; what is outside the image is
    /// left out. IMGERR_MEMORY.
    ImgErrorCode store(
        TiffPixelDecoder& decoder, const TiffDecodedBytes& from, std::uint64_t firstBit, TiffRun run);
    /// The same for pixels that are decoded already.
    ImgErrorCode store(const Pixel* source, TiffRun run);
    /// After everything else.
    void finish() { flush(); }

private:
    static constexpr std::size_t perPixel = std::is_same_v<Pixel, float> ? 4 : 1;

    Pixel* begin(const TiffRun& run);
    Pixel* spare();
    void end(const TiffRun& run, Pixel* pixels);
    bool isWholeRow(const TiffRun& run) const;
    void flush();

    RowSink& m_sink;
    TiffOrientation m_orientation;
    int m_width, m_height, m_longestRun;
    std::unique_ptr<Pixel[]> m_spare; // One run, or the rows that are collected.
    TiffRun m_band { 0, 0, 0 }; // The columns and the first row of the collected rows.
    int m_bandRows = 0;
};

} // namespace QUtils
