#pragma once

#include "qutils/export.h"

#include <cstdarg>

namespace QUtils {

class ErrorMsg;

/// The result of an operation: no error, or a code with the function that raised it, a text, and perhaps
/// the error that caused it. A value of one pointer; copies share the record behind it, whose owners are
/// counted atomically.
///
/// Nothing is thrown: when memory for the record is refused the code is kept and function and text are
/// empty (a code outside -16..16 becomes -1 then).
class QUTILS_API ErrorCode {
public:
    /// No error.
    ErrorCode() noexcept = default;
    /// An error with a printf-style text of at most 1023 bytes. `function` is copied; null means empty.
    ErrorCode(const char* function, int code, const char* format, ...) noexcept QUTILS_PRINTF(4, 5);
    /// The error `error` with `cause`, and what is chained behind that, in the place of its own cause.
    /// Just `error` when it is no error, when there is no cause, or when memory is refused.
    static ErrorCode withCause(const ErrorCode& error, const ErrorCode& cause) noexcept;

    ErrorCode(const ErrorCode& other) noexcept;
    ErrorCode(ErrorCode&& other) noexcept;
    ErrorCode& operator=(const ErrorCode& other) noexcept;
    ErrorCode& operator=(ErrorCode&& other) noexcept;
    ~ErrorCode();

    /// 0 without an error.
    int code() const noexcept;
    /// The function that raised the error; never null, empty where it was not said.
    const char* function() const noexcept;
    /// The message text; never null.
    const char* message() const noexcept;
    /// The error chained behind this one; no error where there is none.
    ErrorCode cause() const noexcept;

    /// Writes the message text to `buffer`: at most `size` - 1 bytes and a terminator; nothing when
    /// `size` is below 1.
    void getErrorString(char* buffer, int size) const noexcept;

protected:
    /// Makes this the error `code` with no function name and an empty text; 0 means no error.
    void setCode(int code) noexcept;
    /// Makes this an error with a formatted text.
    void setMessage(const char* function, int code, const char* format, std::va_list arguments) noexcept;

private:
    void adopt(ErrorMsg* message) noexcept;

    ErrorMsg* m_message = nullptr; // Null: no error.
};

} // namespace QUtils

using QUtils::ErrorCode;
