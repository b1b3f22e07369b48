#pragma once

#include "bench/memory.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

// What no reader or writer of a format can do without: moving the file's bytes between the system and this
// program in large blocks, and moving the pixels' bytes to or from the picture. A floor does both, and
// nothing in between: the bytes that it stores mean nothing.

class Floor {
public:
    /// For pictures of at most so many bytes.
    explicit Floor(std::size_t mostPixelBytes);

    /// Reads a file and stores `pixelBytes` bytes. False when it cannot be read.
    bool read(const std::string& path, std::size_t pixelBytes);
    /// Fetches the bytes of `pixels` and writes `fileBytes` bytes to a file. False when it cannot be written.
    bool write(const std::string& path, const void* pixels, std::size_t pixelBytes, std::uint64_t fileBytes);

private:
    void store(std::size_t begin, std::size_t end);
    void fetch(const std::uint8_t* pixels, std::size_t begin, std::size_t end);

    Memory m_block; // Used again and again, so that it stays in the cache.
    Memory m_pixels;
};

} // namespace bench
