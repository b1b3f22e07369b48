#include "support/sink_without_rtti.h"

#include <cstddef>

#if defined(__GXX_RTTI)
#error "This file shows what a class without run-time type information does: compile it with -fno-rtti"
#endif

namespace testing_support {

namespace {

class Sink : public ImgBuffer {
public:
    explicit Sink(std::vector<unsigned int>& pixels) : m_pixels(pixels) { }

    void init(int width, int height) override
    {
        m_width = width;
        m_pixels.assign(std::size_t(width) * std::size_t(height), 0);
    }
    int isValid() override { return 1; }
    void freeMem() override { m_pixels.clear(); }
    void setPixelF(int, int, const float*) override { }
    void setPixel(int x, int y, unsigned int argb) override
    {
        m_pixels[std::size_t(y) * std::size_t(m_width) + std::size_t(x)] = argb;
    }

private:
    std::vector<unsigned int>& m_pixels;
    int m_width = 0;
};

} // namespace

std::unique_ptr<SinkWithoutRtti> newSinkWithoutRtti()
{
    auto sink = std::make_unique<SinkWithoutRtti>();
    sink->buffer = std::make_unique<Sink>(sink->pixels);
    return sink;
}

} // namespace testing_support
