#include "qutils/formats/pbuf_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace QUtils {

PBufStream::~PBufStream() = default;

void PBufStream::SetBuf(void* buffer, int size)
{
    m_next = static_cast<const unsigned char*>(buffer);
    m_left = buffer ? std::max(size, 0) : 0;
}

void PBufStream::read(void* dest, int count, int& got)
{
    got = std::clamp(count, 0, m_left);
    if (got == 0)
        return;
    std::memcpy(dest, m_next, std::size_t(got));
    m_next += got;
    m_left -= got;
}

} // namespace QUtils
