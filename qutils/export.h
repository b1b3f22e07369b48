#pragma once

/// Marks what a shared build of qutils exports; everything else stays hidden.
#if defined(QUTILS_STATIC)
#define QUTILS_API
#elif defined(__GNUC__)
#define QUTILS_API [[gnu::visibility("default")]]
#else
#define QUTILS_API
#endif

/// Lets the compiler check the arguments of a printf-style function. Positions count from 1, and a
/// member function's object is argument 1.
#if defined(__GNUC__)
#define QUTILS_PRINTF(formatArgument, firstArgument)                                                         \
    __attribute__((format(printf, formatArgument, firstArgument)))
#else
#define QUTILS_PRINTF(formatArgument, firstArgument)
#endif
