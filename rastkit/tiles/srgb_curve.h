#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QUtils {

// The transfer curve of sRGB, as IEC 61966-2-1 defines it, gone on with beyond 0..1.

double decodeSrgb(double value);
double encodeSrgb(double linear);

/// Linear light as whole numbers 0..most that stand for values of sRGB: exactly the nearest ones, by a table.
class SrgbNumbers {
public:
    /// Throws std::bad_alloc.
    explicit SrgbNumbers(unsigned most);

    /// The nearest number; 0 for what is less and for NaN, `most` for what is more.
    unsigned operator()(float linear) const;

private:
    std::vector<float> m_first; ///< m_first[n]: the smallest light that is number n; ends on both sides.
    std::vector<float> m_estimates; ///< At the beginning of each interval of floats.
    unsigned m_most;
};

} // namespace QUtils
