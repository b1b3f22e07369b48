#pragma once

#include "rastkit/types.h"

#include <array>
#include <map>
#include <utility>
#include <vector>

namespace testing_support {

/// A sink that takes single pixels only and remembers every call.
class RecordingBuffer : public ImgBuffer {
public:
    using Position = std::pair<int, int>; ///< x, y

    void init(int newWidth, int newHeight) override
    {
        ++initCalls;
        width = newWidth;
        height = newHeight;
        pixels.clear();
        pixelsF.clear();
        order.clear();
    }
    int isValid() override { return refuse ? 0 : 1; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int x, int y, const float* rgba) override
    {
        order.push_back({ x, y });
        pixelsF[{ x, y }] = { rgba[0], rgba[1], rgba[2], rgba[3] };
    }
    void setPixel(int x, int y, unsigned int argb) override
    {
        order.push_back({ x, y });
        pixels[{ x, y }] = argb;
    }

    /// The pixel stored at (x, y); 0xDEADBEEF when there is none.
    unsigned int at(int x, int y) const
    {
        const auto found = pixels.find({ x, y });
        return found == pixels.end() ? 0xDEADBEEFu : found->second;
    }
    bool has(int x, int y) const { return pixels.count({ x, y }) != 0; }

    bool refuse = false; ///< Answer 0 from isValid.
    int width = 0, height = 0, initCalls = 0, freeCalls = 0;
    std::map<Position, unsigned int> pixels;
    std::map<Position, std::array<float, 4>> pixelsF;
    std::vector<Position> order;
};

/// The code of a result, for comparing.
inline int codeOf(const QUtils::ImgError& error)
{
    return error.code();
}

} // namespace testing_support
