#pragma once

#include "rastkit/types.h"

#include <cstddef>
#include <exception>

/// Returns from the present function when `expression`, an ImgErrorCode, is a failure.
#define RASTKIT_TRY(expression)                                                                              \
    do {                                                                                                     \
        if (const ImgErrorCode tryCode = (expression))                                                       \
            return tryCode;                                                                                  \
    } while (0)

namespace QUtils {

/// Product of three sizes, or false when it does not fit.
[[nodiscard]] inline bool multiply(std::size_t a, std::size_t b, std::size_t c, std::size_t& product)
{
    return !__builtin_mul_overflow(a, b, &product) && !__builtin_mul_overflow(product, c, &product);
}

/// Releases the sink's storage when an exception passes through the loader that holds this guard.
class FreeOnThrow {
public:
    explicit FreeOnThrow(ImgBuffer& buffer) : m_buffer(buffer), m_exceptions(std::uncaught_exceptions()) { }
    FreeOnThrow(const FreeOnThrow&) = delete;
    FreeOnThrow& operator=(const FreeOnThrow&) = delete;
    ~FreeOnThrow()
    {
        if (std::uncaught_exceptions() <= m_exceptions)
            return;
        try {
            m_buffer.freeMem();
        } catch (...) {
            // One exception is on its way to the caller already; a second one would end the process.
        }
    }

private:
    ImgBuffer& m_buffer;
    int m_exceptions;
};

} // namespace QUtils
