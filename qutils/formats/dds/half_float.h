#pragma once

#include <bit>
#include <cstdint>

namespace QUtils {

/// The bits of a float of `exponentBits` (bias 2^(n-1) - 1, denormals, infinities) and `fractionBits` as a
/// float; no sign. A NaN comes out quiet.
template <int exponentBits, int fractionBits> inline float smallToFloat(std::uint32_t magnitude)
{
    constexpr int shift = 23 - fractionBits;
    constexpr std::uint32_t bias = (1u << (exponentBits - 1)) - 1;
    constexpr std::uint32_t rebias = (127 - bias) << 23;
    constexpr std::uint32_t infinity = ((1u << exponentBits) - 1) << fractionBits;
    // A denormal is a whole number of the smallest steps; floats hold it as a normal number.
    constexpr float step = std::bit_cast<float>((127 - bias + 1 - fractionBits) << 23);
    if (magnitude < 1u << fractionBits)
        return float(magnitude) * step;
    std::uint32_t bits = (magnitude << shift) + rebias;
    if (magnitude >= infinity)
        bits = 0x7F800000 | (magnitude - infinity) << shift | (magnitude > infinity ? 0x00400000 : 0);
    return std::bit_cast<float>(bits);
}

inline float halfToFloat(std::uint32_t half)
{
    const float magnitude = smallToFloat<5, 10>(half & 0x7FFF);
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(magnitude) | (half & 0x8000) << 16);
}

} // namespace QUtils
