#pragma once

#include <algorithm>
#include <cstdint>

namespace QUtils {

/// Cuts a run of `count` pixels from `x` on to the columns 0 to width - 1; false when nothing is left.
/// `skipped` counts what was cut in front.
[[nodiscard]] inline bool clipRun(int width, int& x, int& count, int& skipped)
{
    const std::int64_t begin = std::max<std::int64_t>(x, 0);
    const std::int64_t end = std::min<std::int64_t>(std::int64_t(x) + count, width);
    if (count <= 0 || begin >= end)
        return false;
    skipped = int(begin - x);
    x = int(begin);
    count = int(end - begin);
    return true;
}

} // namespace QUtils
