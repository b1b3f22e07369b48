#include "rastkit/codecs/block_writer.h"

#include "rastkit/model/result.h"

#include <algorithm>
#include <new>
#include <utility>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;

} // namespace

BlockWriter::BlockWriter(std::FILE* file, Loss loss) : m_file(file), m_loss(loss) { }

BlockWriter::~BlockWriter() = default;

ImgErrorCode BlockWriter::reserve(std::size_t count)
{
    if (m_block && count <= m_capacity - m_size)
        return IMGERR_NONE;
    RASTKIT_TRY(flush());
    if (m_block && count <= m_capacity)
        return IMGERR_NONE;
    m_capacity = std::max(count, blockBytes);
    m_block.reset(new (std::nothrow) std::uint8_t[m_capacity]);
    return m_block ? IMGERR_NONE : IMGERR_MEMORY;
}

ImgErrorCode BlockWriter::flush()
{
    const std::size_t size = std::exchange(m_size, 0);
    if (size == 0 || std::fwrite(m_block.get(), 1, size, m_file) == size || m_loss == Loss::IsIgnored)
        return IMGERR_NONE;
    return IMGERR_WRITE;
}

} // namespace QUtils
