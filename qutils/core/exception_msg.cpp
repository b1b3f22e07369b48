#include "qutils/core/exception_msg.h"

#include <cstdarg>
#include <cstdio>

namespace QUtils {

ExceptionMsg::ExceptionMsg(const char* format, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, format);
    if (!format || std::vsnprintf(m_text, sizeof m_text, format, arguments) < 0)
        m_text[0] = '\0'; // What a failed formatting leaves behind is not specified.
    va_end(arguments);
}

ExceptionMsg::~ExceptionMsg() = default;

} // namespace QUtils
