#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <sys/mman.h>

namespace QUtils {

struct FreePixelMemory {
    void operator()(std::uint8_t* memory) const { std::free(memory); }
};

/// Memory of an image's pixels, aligned for every sample type; null when it was refused.
using PixelMemory = std::unique_ptr<std::uint8_t[], FreePixelMemory>;

/// Memory for a row or a table, with undefined contents; null when it was refused.
inline std::unique_ptr<std::uint8_t[]> newBytes(std::size_t count)
{
    return std::unique_ptr<std::uint8_t[]>(new (std::nothrow) std::uint8_t[count]);
}

/// What the processor maps at once when it is asked to. A picture of this size or more is written with one
/// page fault for 2 MiB instead of one for 4 KiB, which is a good part of the time that loading it takes.
constexpr std::size_t hugePageBytes = std::size_t(2) << 20;

/// Asks for huge pages where whole ones lie inside the memory. Nothing else changes, also when refused.
inline void adviseHugePages(std::uint8_t* memory, std::size_t bytes)
{
    const std::size_t skipped = (hugePageBytes - reinterpret_cast<std::uintptr_t>(memory)) % hugePageBytes;
    if (bytes < skipped + hugePageBytes)
        return;
    const std::size_t whole = (bytes - skipped) / hugePageBytes * hugePageBytes;
    static_cast<void>(madvise(memory + skipped, whole, MADV_HUGEPAGE));
}

/// Memory with undefined contents.
inline PixelMemory allocatePixels(std::size_t bytes)
{
    constexpr std::size_t cacheLineBytes = 64;
    void* memory = nullptr;
    if (posix_memalign(&memory, bytes < hugePageBytes ? cacheLineBytes : hugePageBytes, bytes) != 0)
        return nullptr;
    PixelMemory pixels(static_cast<std::uint8_t*>(memory));
    adviseHugePages(pixels.get(), bytes);
    return pixels;
}

/// Memory of zeros, which the system supplies page by page as they are used.
inline PixelMemory allocateZeroPixels(std::size_t bytes)
{
    PixelMemory pixels(static_cast<std::uint8_t*>(std::calloc(bytes, 1)));
    if (pixels)
        adviseHugePages(pixels.get(), bytes);
    return pixels;
}

} // namespace QUtils
