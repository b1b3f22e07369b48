#include "rastkit/tiles/mip_filter.h"

#include <algorithm>
#include <cmath>

namespace QUtils {

namespace {

constexpr double pi = 3.14159265358979323846;

double triangle(double x)
{
    return std::max(1 - std::abs(x), 0.0);
}

double sinc(double x)
{
    return x == 0 ? 1 : std::sin(pi * x) / (pi * x);
}

double lanczos3(double x)
{
    return std::abs(x) < 3 ? sinc(x) * sinc(x / 3) : 0;
}

/// With both parameters a third.
double mitchell(double x)
{
    x = std::abs(x);
    if (x < 1)
        return (7 * x * x * x - 12 * x * x + 16.0 / 3) / 6;
    if (x < 2)
        return (-7.0 / 3 * x * x * x + 12 * x * x - 20 * x + 32.0 / 3) / 6;
    return 0;
}

/// Half the width, in pixels of the smaller level.
double radiusOf(MipFilter filter)
{
    switch (filter) {
    case MipFilter::Box: return 0.5;
    case MipFilter::Triangle: return 1;
    case MipFilter::Mitchell: return 2;
    case MipFilter::Lanczos3: return 3;
    }
    return 0.5;
}

/// How much of the pixel at `position` lies in an interval of that length; nothing where it is but rounding,
/// since NaN and infinity count with any weight.
double overlap(double position, double centre, double length)
{
    const double end = std::min(position + 0.5, centre + length / 2),
                 begin = std::max(position - 0.5, centre - length / 2);
    return end - begin > 1e-9 * length ? end - begin : 0;
}

/// The weight of the pixel at `position` for a pixel whose centre is at `centre`.
double weightAt(MipFilter filter, double position, double centre, double ratio)
{
    switch (filter) {
    case MipFilter::Box: return overlap(position, centre, ratio);
    case MipFilter::Triangle: return triangle((position - centre) / ratio);
    case MipFilter::Mitchell: return mitchell((position - centre) / ratio);
    case MipFilter::Lanczos3: return lanczos3((position - centre) / ratio);
    }
    return 0;
}

} // namespace

int wrapPosition(long long position, int size, TextureWrap wrap)
{
    const long long period = wrap == TextureWrap::Mirror ? 2LL * size : size;
    switch (wrap) {
    case TextureWrap::Clamp: return int(std::clamp(position, 0LL, size - 1LL));
    case TextureWrap::Black: return position < 0 || position >= size ? -1 : int(position);
    case TextureWrap::Periodic:
    case TextureWrap::Mirror: break;
    }
    const long long within = (position % period + period) % period;
    return int(within < size ? within : period - 1 - within);
}

MipWeights::MipWeights(int fromSize, int toSize, MipFilter filter) : from(fromSize), to(toSize)
{
    if (from == to) { // One pixel, which stays.
        first.assign(std::size_t(to), 0);
        counts.assign(std::size_t(to), 1);
        weights.assign(std::size_t(to), 1.0f);
        return;
    }
    const double ratio = double(from) / to, reach = radiusOf(filter) * ratio;
    // A pixel takes part when it reaches into the interval (box), or when its centre lies in it.
    const double extent = filter == MipFilter::Box ? reach + 0.5 : reach;
    taps = std::size_t(2 * extent) + 2;
    first.resize(std::size_t(to));
    counts.resize(std::size_t(to));
    weights.assign(std::size_t(to) * taps, 0.0f);
    std::vector<double> exact(taps);
    std::size_t mostUsed = 1;
    for (int i = 0; i < to; ++i) {
        const double centre = (i + 0.5) * ratio - 0.5;
        int begin = int(std::floor(centre - extent)) - 1;
        while (weightAt(filter, begin, centre, ratio) == 0)
            ++begin;
        double sum = 0;
        std::size_t used = 1;
        for (std::size_t t = 0; t < taps; ++t) {
            exact[t] = weightAt(filter, begin + double(t), centre, ratio);
            sum += exact[t];
            if (exact[t] != 0)
                used = t + 1;
        }
        for (std::size_t t = 0; t < used; ++t)
            weights[std::size_t(i) * taps + t] = float(exact[t] / sum);
        first[std::size_t(i)] = begin;
        counts[std::size_t(i)] = used;
        mostUsed = std::max(mostUsed, used);
        overhang = std::max({ overhang, -begin, begin + int(used) - from });
    }
    // Closer together, now that it is known how many there are.
    for (int i = 0; i < to; ++i)
        std::copy_n(of(i), mostUsed, weights.begin() + std::ptrdiff_t(std::size_t(i) * mostUsed));
    taps = mostUsed;
    weights.resize(std::size_t(to) * taps);
    m_halves = filter == MipFilter::Box && from == 2 * to;
}

} // namespace QUtils
