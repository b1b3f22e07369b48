#include "rastkit/tiles/texture_file.h"

#include "qutils/core/paths.h"

#include <cerrno>
#include <limits>
#include <new>
#include <unistd.h>

namespace QUtils {

bool TextureOutput::open(const char* name)
{
    constexpr std::size_t blockBytes = std::size_t(256) << 10;
    errno = 0;
    m_file = FilePtr(qutils_fopen(name, "wb"));
    if (!m_file || ::lseek(fileno(m_file), 0, SEEK_CUR) < 0) // ESPIPE: the head is written last.
        return fail();
    m_block.reset(new (std::nothrow) char[blockBytes]);
    if (m_block) // Without it, it is only slower.
        static_cast<void>(std::setvbuf(m_file, m_block.get(), _IOFBF, blockBytes));
    return true;
}

bool TextureOutput::append(const void* bytes, std::size_t count)
{
    if (m_systemError != 0 || count == 0)
        return m_systemError == 0;
    errno = 0;
    if (std::fwrite(bytes, 1, count, m_file) != count)
        return fail();
    m_size += count;
    return true;
}

bool TextureOutput::replace(std::uint64_t offset, const void* bytes, std::size_t count)
{
    if (m_systemError != 0)
        return false;
    errno = 0;
    if (offset > std::uint64_t(std::numeric_limits<off_t>::max())
        || fseeko(m_file, off_t(offset), SEEK_SET) != 0 || std::fwrite(bytes, 1, count, m_file) != count)
        return fail();
    return true;
}

bool TextureOutput::close()
{
    errno = 0;
    if (m_file.close() != 0)
        return fail();
    return m_systemError == 0;
}

bool TextureOutput::fail()
{
    if (m_systemError == 0)
        m_systemError = errno != 0 ? errno : EIO;
    return false;
}

} // namespace QUtils
