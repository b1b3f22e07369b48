#pragma once

#include <cstddef>
#include <cstdint>

namespace QUtils {

// What a run-length encoder asks about a row of pixels of `pixelBytes` bytes each (at least 1), of which
// `count` are left from `pixels` on. Pixels are equal when all their bytes are.

/// How many equal pixels the row begins with: 1 at least, unless there is none.
std::size_t runLength(const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count);

/// How many pixels stand before the first three equal ones; all when there are none.
std::size_t rawLength(const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count);

} // namespace QUtils
