#pragma once

#include "rastkit/types.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace fuzz_support {

/// Ends the fuzzer, which keeps the input, when what must hold does not.
inline void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

/// A file in memory that holds the present input, under a name that every loader can open.
class InputFile {
public:
    InputFile(const std::uint8_t* data, std::size_t size)
    {
        static const int file = memfd_create("fuzz input", 0);
        static const std::string path = "/proc/self/fd/" + std::to_string(file);
        require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == ssize_t(size), "no memory file");
        m_name = path.c_str();
    }

    const char* name() const { return m_name; }

private:
    const char* m_name;
};

/// A sink of single pixels that keeps what it gets, as far as the image is small, and lets nothing pass
/// that lies outside.
class CheckedSink : public ImgBuffer {
public:
    static constexpr std::size_t mostPixels = 1 << 16;

    void init(int width, int height) override
    {
        m_width = std::max(width, 0);
        m_height = std::max(height, 0);
        const std::size_t count = std::size_t(m_width) * std::size_t(m_height);
        m_pixels.assign(count <= mostPixels ? count : 0, 0);
    }
    int isValid() override { return 1; }
    void freeMem() override { require(false, "freeMem without an exception"); }
    void setPixelF(int x, int y, const float*) override { at(x, y); }
    void setPixel(int x, int y, unsigned int argb) override
    {
        if (unsigned int* const pixel = at(x, y))
            *pixel = argb;
    }

    int width() const { return m_width; }
    int height() const { return m_height; }
    const std::vector<unsigned int>& pixels() const { return m_pixels; }

private:
    unsigned int* at(int x, int y)
    {
        require(x >= 0 && x < m_width && y >= 0 && y < m_height, "a pixel outside the image");
        return m_pixels.empty() ? nullptr : &m_pixels[std::size_t(y) * std::size_t(m_width) + std::size_t(x)];
    }

    int m_width = 0, m_height = 0;
    std::vector<unsigned int> m_pixels;
};

/// Refuses pictures whose pixels it would not keep: they take the fuzzer's time and show it nothing. A few
/// bytes are a file of a thousand million white pixels to the renderer, which reads what is missing as 255.
class SmallSink : public CheckedSink {
public:
    static constexpr std::size_t mostPixels = CheckedSink::mostPixels / 4;

    int isValid() override { return std::size_t(width()) * std::size_t(height()) <= mostPixels; }
};

} // namespace fuzz_support
