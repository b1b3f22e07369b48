#include "rastkit/save.h"

#include "rastkit/model/pixel_kernels.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

/// Memory for the pixels that `free` releases; null when it cannot be.
unsigned int* allocatePacked(int width, int height)
{
    if (width < 0 || height < 0)
        return nullptr;
    const std::uint64_t count = std::uint64_t(width) * std::uint64_t(height);
    if (count > PTRDIFF_MAX / sizeof(unsigned int))
        return nullptr;
    // An image without pixels is no error, and a request for no memory may be answered with null.
    return static_cast<unsigned int*>(std::calloc(count > 0 ? count : 1, sizeof(unsigned int)));
}

} // namespace

unsigned int* CreateUInt32FromFloat(IMGINFO in, float* pixels, IMGINFO& out)
{
    unsigned int* const packed = allocatePacked(in.width, in.height);
    if (!packed)
        return nullptr;
    QUtils::pixelKernels().packTruncated(pixels, packed, std::size_t(in.width) * std::size_t(in.height));
    out = in;
    out.bitsPerPixel = 32;
    out.numChannels = 4;
    out.bytesPerPixel = 4;
    return packed;
}
