#pragma once

#include "rastkit/texture_writer.h"

#include <cstddef>
#include <vector>

namespace QUtils {

/// Where the pixel is found that stands at `position` of an axis of `size` pixels, which may lie outside it;
/// -1 for what is black.
int wrapPosition(long long position, int size, TextureWrap wrap);

/// The weights by which the pixels of one axis of a level are made from those of the level above.
///
/// Pixel i of `to` has its centre at (i + 0.5) * from / to - 0.5 in the pixels of the level above; the filter
/// is as wide as from / to says. Box weighs pixels by the part of them that lies in the interval. Weights sum
/// up to 1, those of black pixels included. Positions are those of pixels before they are wrapped: at most
/// `overhang` pixels outside. An axis of one pixel stays.
struct MipWeights {
    int from = 1, to = 1, overhang = 0;
    std::size_t taps = 1; ///< Most weights that a pixel has.
    std::vector<int> first; ///< For each pixel, the position of its first weight.
    std::vector<std::size_t> counts; ///< For each pixel, how many weights it has.
    std::vector<float> weights; ///< Room for `taps` for each pixel.

    /// Throws std::bad_alloc.
    MipWeights(int from, int to, MipFilter filter);

    const float* of(int pixel) const { return weights.data() + std::size_t(pixel) * taps; }
    /// Whether each pixel is the mean of two neighbours of its own.
    bool halves() const { return m_halves; }

private:
    bool m_halves = false;
};

} // namespace QUtils
