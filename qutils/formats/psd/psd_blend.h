#pragma once

#include "qutils/formats/psd/psd_color.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// What a row is put upon another one with.
struct PsdBlend {
    std::uint32_t mode = 0; ///< A key of the format. Unknown ones, and pass through, count as normal.
    /// How much of the layer's own pixels shows. Eight modes weaken their effect by it, all others the alpha.
    float fill = 1;
    std::size_t components = 3; ///< Of a colour.
    std::int64_t x = 0, y = 0; ///< Of the first pixel, for what is strewn (dissolve).
};

bool isKnownPsdBlendMode(std::uint32_t mode);

/// Puts `count` pixels of `source` upon `backdrop`. Colours are not multiplied by alpha; where nothing is
/// left they are 0. `source`'s alpha is changed.
void blendPsdRow(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count);

} // namespace QUtils
