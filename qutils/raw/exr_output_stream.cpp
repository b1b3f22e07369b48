#include "qutils/raw/exr_output_stream.h"

#include "qutils/core/paths.h"

#include <IexThrowErrnoExc.h>

#include <cerrno>
#include <limits>

namespace QUtils {

ExrOutputStream::ExrOutputStream(const char* fileName)
    : OStream(fileName ? fileName : ""), m_file(qutils_fopen(fileName, "wb"))
{
    if (!m_file)
        Iex::throwErrnoExc("cannot create the file: %T");
}

ExrOutputStream::~ExrOutputStream() = default;

void ExrOutputStream::write(const char* bytes, int count)
{
    const std::size_t wanted = count > 0 ? std::size_t(count) : 0;
    if (std::fwrite(bytes, 1, wanted, m_file) != wanted)
        throwError();
    m_position += wanted;
}

void ExrOutputStream::seekp(std::uint64_t position)
{
    if (position > std::uint64_t(std::numeric_limits<off_t>::max())
        || fseeko(m_file, off_t(position), SEEK_SET) != 0)
        throwError();
    m_position = position;
}

bool ExrOutputStream::close() noexcept
{
    return m_file.close() == 0 && !m_failed;
}

void ExrOutputStream::throwError()
{
    const int error = errno;
    m_failed = true;
    Iex::throwErrnoExc("cannot write to the file: %T", error);
}

} // namespace QUtils
