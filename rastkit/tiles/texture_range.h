#pragma once

#include "rastkit/tiles/texture_layout.h"

#include <cstddef>
#include <limits>

namespace QUtils {

/// Finds the range of rows of floats, the channels of a pixel together.
class RangeFinder {
public:
    explicit RangeFinder(int channels) : m_channels(std::size_t(channels))
    {
        for (std::size_t i = 0; i < lanes; ++i) {
            m_smallest[i] = std::numeric_limits<float>::infinity();
            m_greatest[i] = -std::numeric_limits<float>::infinity();
        }
    }

    void add(const float* samples, std::size_t pixels)
    {
        const std::size_t count = pixels * m_channels, whole = count / lanes * lanes;
        for (std::size_t i = 0; i < whole; i += lanes)
            for (std::size_t lane = 0; lane < lanes; ++lane)
                addSample(lane, samples[i + lane]);
        for (std::size_t i = whole; i < count; ++i)
            addSample(i - whole, samples[i]);
    }

    /// Channels that have no number are 0.
    TextureRange range() const
    {
        TextureRange found;
        for (std::size_t c = 0; c < m_channels; ++c) {
            float smallest = m_smallest[c], greatest = m_greatest[c];
            for (std::size_t lane = c; lane < lanes; lane += m_channels) {
                smallest = m_smallest[lane] < smallest ? m_smallest[lane] : smallest;
                greatest = m_greatest[lane] > greatest ? m_greatest[lane] : greatest;
            }
            if (smallest <= greatest) {
                found.smallest[c] = smallest;
                found.greatest[c] = greatest;
            }
        }
        return found;
    }

private:
    static constexpr std::size_t lanes = 12; // Whole pixels, however many channels there are.

    /// NaN is neither less nor greater.
    void addSample(std::size_t lane, float sample)
    {
        m_smallest[lane] = sample < m_smallest[lane] ? sample : m_smallest[lane];
        m_greatest[lane] = sample > m_greatest[lane] ? sample : m_greatest[lane];
    }

    std::size_t m_channels;
    float m_smallest[lanes], m_greatest[lanes];
};

} // namespace QUtils
