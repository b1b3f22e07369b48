#pragma once

#include "rastkit/texture_writer.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace testing_support {

/// A plain picture of doubles, the channels of a pixel together.
struct Plane {
    int width = 0, height = 0, channels = 0;
    std::vector<double> samples;

    Plane(int w, int h, int c)
        : width(w), height(h), channels(c), samples(std::size_t(w) * std::size_t(h) * std::size_t(c))
    {
    }
    double& at(int x, int y, int c)
    {
        return samples[(std::size_t(y) * std::size_t(width) + std::size_t(x)) * std::size_t(channels)
            + std::size_t(c)];
    }
    double at(int x, int y, int c) const { return const_cast<Plane*>(this)->at(x, y, c); }
    const double* row(int y) const
    {
        return &samples[std::size_t(y) * std::size_t(width) * std::size_t(channels)];
    }
};

/// How levels are made, pixel by pixel and in two dimensions at once, as the textbooks have it.
struct MipReference {
    QUtils::MipFilter filter = QUtils::MipFilter::Box;
    QUtils::TextureWrap wrapX = QUtils::TextureWrap::Clamp, wrapY = QUtils::TextureWrap::Clamp;

    /// The next level.
    Plane shrink(const Plane& from) const
    {
        Plane to(std::max(from.width / 2, 1), std::max(from.height / 2, 1), from.channels);
        for (int j = 0; j < to.height; ++j)
            for (int i = 0; i < to.width; ++i)
                makePixel(from, to, i, j);
        return to;
    }

private:
    struct Tap {
        int place; ///< -1: black.
        double weight;
    };

    void makePixel(const Plane& from, Plane& to, int i, int j) const
    {
        const std::vector<Tap> across = taps(i, from.width, to.width, wrapX);
        const std::vector<Tap> down = taps(j, from.height, to.height, wrapY);
        for (int c = 0; c < from.channels; ++c) {
            double sum = 0;
            for (const Tap& y : down)
                for (const Tap& x : across)
                    if (x.place >= 0 && y.place >= 0)
                        sum += x.weight * y.weight * from.at(x.place, y.place, c);
            to.at(i, j, c) = sum;
        }
    }

    std::vector<Tap> taps(int number, int from, int to, QUtils::TextureWrap wrap) const
    {
        if (from == 1)
            return { { 0, 1.0 } };
        const double scale = double(from) / to, centre = (number + 0.5) * scale - 0.5;
        std::vector<Tap> list;
        double sum = 0;
        for (int p = int(centre) - 12; p <= int(centre) + 12; ++p) {
            const double w = weight(p - centre, scale);
            if (w == 0)
                continue;
            list.push_back({ place(p, from, wrap), w });
            sum += w;
        }
        for (Tap& tap : list)
            tap.weight /= sum;
        return list;
    }

    double weight(double distance, double scale) const
    {
        const double pi = std::acos(-1.0);
        const double d = std::fabs(distance), t = d / scale, b = 1.0 / 3, c = 1.0 / 3;
        switch (filter) {
        case QUtils::MipFilter::Box: // How much of a pixel of size 1 is in an interval of size `scale`.
            return std::clamp(scale / 2 + 0.5 - d, 0.0, 1.0);
        case QUtils::MipFilter::Triangle: return t < 1 ? 1 - t : 0;
        case QUtils::MipFilter::Lanczos3:
            if (t < 1e-12)
                return 1;
            return t < 3 ? 3 * std::sin(pi * t) * std::sin(pi * t / 3) / (pi * pi * t * t) : 0;
        case QUtils::MipFilter::Mitchell:
            if (t < 1)
                return ((12 - 9 * b - 6 * c) * t * t * t + (-18 + 12 * b + 6 * c) * t * t + 6 - 2 * b) / 6;
            if (t < 2)
                return ((-b - 6 * c) * t * t * t + (6 * b + 30 * c) * t * t + (-12 * b - 48 * c) * t + 8 * b
                           + 24 * c)
                    / 6;
            return 0;
        }
        return 0;
    }

    static int place(int p, int size, QUtils::TextureWrap wrap)
    {
        switch (wrap) {
        case QUtils::TextureWrap::Clamp: return p < 0 ? 0 : p >= size ? size - 1 : p;
        case QUtils::TextureWrap::Black: return p < 0 || p >= size ? -1 : p;
        case QUtils::TextureWrap::Periodic:
            while (p < 0)
                p += size;
            return p % size;
        case QUtils::TextureWrap::Mirror:
            while (p < 0 || p >= size)
                p = p < 0 ? -1 - p : 2 * size - 1 - p;
            return p;
        }
        return -1;
    }
};

inline constexpr QUtils::MipFilter allFilters[] = { QUtils::MipFilter::Box, QUtils::MipFilter::Triangle,
    QUtils::MipFilter::Lanczos3, QUtils::MipFilter::Mitchell };
inline constexpr QUtils::TextureWrap allWraps[] = { QUtils::TextureWrap::Clamp, QUtils::TextureWrap::Periodic,
    QUtils::TextureWrap::Mirror, QUtils::TextureWrap::Black };

/// Rows of an image in some order, each of them once, the same on every machine.
inline std::vector<int> shuffledRows(int height)
{
    std::vector<int> rows;
    for (int i = 0; i < height; ++i)
        rows.push_back(i);
    unsigned state = 12345;
    for (std::size_t i = rows.size(); i > 1; --i) {
        state = state * 1664525u + 1013904223u;
        std::swap(rows[i - 1], rows[(state >> 8) % i]);
    }
    return rows;
}

} // namespace testing_support
