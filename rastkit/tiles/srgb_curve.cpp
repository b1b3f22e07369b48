#include "rastkit/tiles/srgb_curve.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace QUtils {

namespace {

/// Floats are told apart by exponent and the upper bits of the mantissa: between two of these the curve is
/// nearly straight.
constexpr unsigned keptBits = 9, droppedBits = 23 - keptBits;
constexpr float smallestLinear = 0x1p-22f; // Rounds to 0 with 16 bits too.

std::uint32_t bitsOf(float value)
{
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

float floatOf(std::uint32_t bits)
{
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

} // namespace

double decodeSrgb(double value)
{
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double encodeSrgb(double linear)
{
    return linear <= 0.0031308 ? linear * 12.92 : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
}

SrgbNumbers::SrgbNumbers(unsigned most) : m_most(most)
{
    m_first.reserve(most + 2);
    m_first.push_back(-std::numeric_limits<float>::infinity());
    for (unsigned n = 1; n <= most; ++n)
        m_first.push_back(float(decodeSrgb((n - 0.5) / most)));
    m_first.push_back(std::numeric_limits<float>::infinity());
    const std::uint32_t begin = bitsOf(smallestLinear) >> droppedBits, end = bitsOf(1.0f) >> droppedBits;
    m_estimates.reserve(end - begin + 2);
    for (std::uint32_t bits = begin; bits <= end + 1; ++bits)
        m_estimates.push_back(float(encodeSrgb(double(floatOf(bits << droppedBits))) * most));
}

unsigned SrgbNumbers::operator()(float linear) const
{
    if (!(linear > smallestLinear)) // NaN too.
        return 0;
    if (linear >= 1)
        return m_most;
    const std::uint32_t bits = bitsOf(linear);
    const std::size_t interval = (bits >> droppedBits) - (bitsOf(smallestLinear) >> droppedBits);
    const float part = float(bits & ((1u << droppedBits) - 1)) * (1.0f / float(1u << droppedBits));
    const float low = m_estimates[interval], high = m_estimates[interval + 1];
    // The estimate is less than half a number wrong: rounded down, it is the nearest one or that below it.
    const auto below = unsigned(low + (high - low) * part);
    return below + (linear >= m_first[below + 1] ? 1u : 0u);
}

} // namespace QUtils
