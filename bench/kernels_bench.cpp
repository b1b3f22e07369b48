#include "rastkit/model/pixel_kernels.h"

#include "bench/frame.h"
#include "bench/memory.h"
#include "bench/rows.h"
#include "rastkit/save.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace bench {

namespace {

using QUtils::PixelKernels;
using QUtils::SimdLevel;

// One row of pixels that stays in the cache, converted again and again: a codec's rows are there too.
constexpr std::size_t rowPixels = frameWidth;
constexpr int rowCount = frameHeight;
// What the widest row takes: four floats a pixel.
constexpr std::size_t mostRowBytes = rowPixels * 4 * sizeof(float);

struct Level {
    SimdLevel level;
    const char* name;
};

constexpr Level levels[] = {
    { SimdLevel::Scalar, "scalar" },
    { SimdLevel::Sse41, "sse41" },
    { SimdLevel::Avx2, "avx2" },
};

struct Kernel {
    const char* name;
    std::size_t sourceBytes, resultBytes; ///< Of one pixel.
    bool fromFloats; ///< Else from bytes that mean anything.
    void (*convert)(const PixelKernels& kernels, const void* source, void* result);
};

/// The kernel as a function of untyped memory that converts a whole row, `samples` to a pixel.
template <auto kernel, std::size_t samples = 1> struct Untyped;
template <typename From, typename To, void (*PixelKernels::*kernel)(const From*, To*, std::size_t),
    std::size_t samples>
struct Untyped<kernel, samples> {
    static void convert(const PixelKernels& kernels, const void* source, void* result)
    {
        (kernels.*kernel)(static_cast<const From*>(source), static_cast<To*>(result), rowPixels * samples);
    }
};

/// Blue, green, red, alpha to red, green, blue, alpha.
void swapRedAndBlue(const PixelKernels& kernels, const void* source, void* result)
{
    static constexpr QUtils::PixelArrangement swap { { 2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15 },
        {}, 4, 4, 4 };
    kernels.arrange(
        swap, static_cast<const std::uint8_t*>(source), static_cast<std::uint8_t*>(result), rowPixels);
}

// clang-format off
constexpr Kernel kernelTable[] = {
    // name            source result floats
    { "packTruncated",  16,    4,    true,  Untyped<&PixelKernels::packTruncated>::convert },
    { "packRounded",    16,    4,    true,  Untyped<&PixelKernels::packRounded>::convert },
    { "unpackToFloat",   4,   16,    false, Untyped<&PixelKernels::unpackToFloat>::convert },
    { "bgr24ToPacked",   3,    4,    false, Untyped<&PixelKernels::bgr24ToPacked>::convert },
    { "packedToBgr24",   4,    3,    false, Untyped<&PixelKernels::packedToBgr24>::convert },
    { "greyToPacked",    1,    4,    false, Untyped<&PixelKernels::greyToPacked>::convert },
    { "halfToFloat",     8,   16,    false, Untyped<&PixelKernels::halfToFloat, 4>::convert },
    { "floatToHalf",    16,    8,    true,  Untyped<&PixelKernels::floatToHalf, 4>::convert },
    { "byteToFloat",     4,   16,    false, Untyped<&PixelKernels::byteToFloat, 4>::convert },
    { "floatToByte",    16,    4,    true,  Untyped<&PixelKernels::floatToByte, 4>::convert },
    { "floatToUInt16",  16,    8,    true,  Untyped<&PixelKernels::floatToUInt16, 4>::convert },
    { "arrange",         4,    4,    false, swapRedAndBlue },
};
// clang-format on

/// A row in the middle of the frame, where all materials meet.
const void* sourceRow(const Kernel& kernel)
{
    constexpr std::size_t offset = std::size_t(frameHeight / 2) * frameWidth;
    if (kernel.fromFloats)
        return floatPixels() + offset * 4;
    return packedPixels() + offset;
}

std::uint8_t* resultRow()
{
    static const Memory memory(mostRowBytes);
    return memory.get();
}

/// Whether the row that was stored is what the plain rules give.
bool isScalarResult(const Kernel& kernel)
{
    const Memory expected(mostRowBytes);
    kernel.convert(*QUtils::pixelKernels(SimdLevel::Scalar), sourceRow(kernel), expected.get());
    return std::equal(expected.get(), expected.get() + rowPixels * kernel.resultBytes, resultRow());
}

/// The row beside: a copy that loads and stores as many bytes altogether.
Row copyRow(const Kernel& kernel)
{
    Row row;
    row.name = std::string("kernel/") + kernel.name + "/memcpy";
    row.pixelBytes = rowCount * rowPixels * kernel.resultBytes;
    row.prepare = [kernel] { return sourceRow(kernel) ? "" : "no pixels"; };
    row.run = [kernel] {
        const std::size_t bytes = rowPixels * (kernel.sourceBytes + kernel.resultBytes) / 2;
        const void* const source = sourceRow(kernel);
        for (int i = 0; i < rowCount; ++i) {
            std::memcpy(resultRow(), source, bytes);
            asm volatile("" ::: "memory"); // Or the compiler keeps one copy of them all.
        }
        return true;
    };
    return row;
}

void addKernel(const Kernel& kernel)
{
    const Row copy = copyRow(kernel);
    addRow(copy);
    for (const Level& level : levels) {
        const PixelKernels* const kernels = QUtils::pixelKernels(level.level);
        if (!kernels)
            continue;
        Row row;
        row.name = std::string("kernel/") + kernel.name + '/' + level.name;
        row.beside = copy.name;
        row.pixelBytes = copy.pixelBytes;
        row.prepare = copy.prepare;
        row.reset = [] { std::memset(resultRow(), 0, mostRowBytes); };
        row.run = [kernel, kernels] {
            for (int i = 0; i < rowCount; ++i)
                kernel.convert(*kernels, sourceRow(kernel), resultRow());
            return true;
        };
        row.verify = [kernel] { return isScalarResult(kernel); };
        addRow(row);
    }
}

// --- A whole frame, into memory that is new each time ------------------------------------------------------

using Words = std::unique_ptr<unsigned int, decltype(&std::free)>;

IMGINFO floatInfo()
{
    IMGINFO info {};
    info.width = frameWidth;
    info.height = frameHeight;
    info.bitsPerPixel = 128;
    info.numChannels = 4;
    info.bytesPerPixel = 16;
    return info;
}

Words convertFrame()
{
    IMGINFO out {};
    // The function takes pixels that it could change, but does not.
    return { CreateUInt32FromFloat(floatInfo(), const_cast<float*>(floatPixels()), out), &std::free };
}

/// Fetches the same floats and stores the same number of bytes into as much new memory.
Words copyFrame()
{
    static const Memory row(mostRowBytes);
    Words words(static_cast<unsigned int*>(std::calloc(framePixels, sizeof(unsigned int))), &std::free);
    for (std::size_t y = 0; words && y < frameHeight; ++y) {
        std::memcpy(row.get(), floatPixels() + y * rowPixels * 4, mostRowBytes);
        std::memcpy(words.get() + y * rowPixels, row.get(), rowPixels * sizeof(unsigned int));
    }
    return words;
}

bool isPackedFrame()
{
    const Memory expected(packedBytes);
    QUtils::pixelKernels(SimdLevel::Scalar)
        ->packTruncated(floatPixels(), expected.as<std::uint32_t>(), framePixels);
    const Words words = convertFrame();
    return words && std::memcmp(words.get(), expected.get(), packedBytes) == 0;
}

void addFrameRows()
{
    Row copy;
    copy.name = "CreateUInt32FromFloat/memcpy";
    copy.pixelBytes = packedBytes;
    copy.prepare = [] { return floatPixels() ? "" : "no pixels"; };
    copy.run = [] { return copyFrame() != nullptr; };
    addRow(copy);

    Row row;
    row.name = "CreateUInt32FromFloat";
    row.beside = copy.name;
    row.pixelBytes = packedBytes;
    row.prepare = copy.prepare;
    row.run = [] { return convertFrame() != nullptr; };
    row.verify = isPackedFrame;
    addRow(row);
}

} // namespace

void addKernelRows()
{
    addFrameRows();
    for (const Kernel& kernel : kernelTable)
        addKernel(kernel);
}

} // namespace bench
