#pragma once

#include <csetjmp>
#include <png.h>

namespace QUtils {

/// The error function of libpng: says nothing and jumps back to the fence.
[[noreturn]] inline void jumpToPngFence(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}

/// The warning function of libpng. A library does not print.
inline void ignorePngWarning(png_structp, png_const_charp) { }

/// Runs `calls`, which calls libpng; false when libpng raised an error. That jumps out of the calls without
/// destroying anything: neither `calls` nor what libpng calls back owns anything that has a destructor
/// while libpng is at work. After an error the struct is only good for destroying it.
template <typename Calls> [[nodiscard, gnu::noinline]] bool fencePng(png_structp png, const Calls& calls)
{
    if (setjmp(png_jmpbuf(png)) != 0)
        return false;
    calls();
    return true;
}

} // namespace QUtils
