#pragma once

#include "rastkit/model/pixel_memory.h"

#include <cstddef>
#include <cstring>
#include <new>

namespace bench {

/// Memory that is touched already, in pages of the same size as those of the images that the library fills:
/// a floor must not lose, or win, by its memory.
class Memory {
public:
    explicit Memory(std::size_t bytes) : m_memory(QUtils::allocatePixels(bytes))
    {
        if (!m_memory)
            throw std::bad_alloc();
        std::memset(m_memory.get(), 0, bytes);
    }

    template <typename T> T* as() const { return reinterpret_cast<T*>(m_memory.get()); }
    std::uint8_t* get() const { return m_memory.get(); }

private:
    QUtils::PixelMemory m_memory;
};

} // namespace bench
