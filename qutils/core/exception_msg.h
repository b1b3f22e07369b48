#pragma once

#include "qutils/export.h"

#include <exception>

namespace QUtils {

/// An exception with a printf-style text, kept in the object itself so that throwing it needs no further
/// memory. Texts longer than 1023 bytes are cut there.
class QUTILS_API ExceptionMsg : public std::exception {
public:
    explicit ExceptionMsg(const char* format, ...) noexcept QUTILS_PRINTF(2, 3);
    ExceptionMsg(const ExceptionMsg&) noexcept = default;
    ExceptionMsg& operator=(const ExceptionMsg&) noexcept = default;
    ~ExceptionMsg() override;

    const char* what() const noexcept override { return m_text; }

private:
    char m_text[1024];
};

} // namespace QUtils

using QUtils::ExceptionMsg;
