#pragma once

#include "qutils/export.h"

namespace QUtils {

/// Reads a block of memory from front to back. The block stays the caller's and must outlive its use.
class QUTILS_API PBufStream {
public:
    PBufStream() = default;
    PBufStream(const PBufStream&) = delete;
    PBufStream& operator=(const PBufStream&) = delete;
    virtual ~PBufStream();

    /// Reads from the beginning of `size` bytes at `buffer` from now on. A null `buffer` or a size below 1 is
    /// an empty stream.
    void SetBuf(void* buffer, int size);

    /// Stores the next `count` bytes at `dest`, fewer at the end of the block; `got` says how many. Nothing
    /// behind those is touched. A `count` below 1 stores nothing.
    virtual void read(void* dest, int count, int& got);

private:
    const unsigned char* m_next = nullptr;
    int m_left = 0;
};

} // namespace QUtils

using QUtils::PBufStream;
