#include "rastkit/types.h"

#include <cerrno>
#include <cstdarg>

namespace QUtils {

ImgError::ImgError(ImgErrorCode code) noexcept
{
    setCode(code);
}

ImgError::ImgError(const char* function, int code, const char* format, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, format);
    setMessage(function, code, format, arguments);
    va_end(arguments);
}

ImgError& ImgError::operator=(ImgErrorCode code) noexcept
{
    setCode(code);
    return *this;
}

ImgError makeOpenError() noexcept
{
    return ImgError("makeOpenError", IMGERR_OPEN, "Failed to open file: %i", errno);
}

std::FILE* my_fopen(const char* name, const char* mode) noexcept
{
    return qutils_fopen(name, mode);
}

} // namespace QUtils
