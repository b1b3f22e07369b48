#pragma once

#include "support/recording_buffer.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace testing_support {

/// Throws at a chosen call.
class ThrowingSink : public RecordingBuffer {
public:
    void init(int newWidth, int newHeight) override
    {
        RecordingBuffer::init(newWidth, newHeight);
        if (throwInInit)
            throw std::runtime_error("init");
    }
    void setPixel(int x, int y, unsigned int argb) override
    {
        if (order.size() == throwAtPixel)
            throw std::runtime_error("setPixel");
        RecordingBuffer::setPixel(x, y, argb);
    }
    void setPixelF(int x, int y, const float* rgba) override
    {
        if (order.size() == throwAtPixel)
            throw std::runtime_error("setPixelF");
        RecordingBuffer::setPixelF(x, y, rgba);
    }

    bool throwInInit = false;
    std::size_t throwAtPixel = SIZE_MAX; ///< Counted from 0.
};

} // namespace testing_support
