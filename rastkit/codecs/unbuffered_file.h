#pragma once

#include "rastkit/types.h"

#include <cstdio>

namespace QUtils {

/// Opens a file whose stream has no buffer of its own, so that every call of the C library moves its bytes
/// straight between the caller's memory and the system. For codecs that come with whole headers and
/// blocks. Null on failure, with the reason in errno.
inline FilePtr openUnbuffered(const char* name, const char* mode) noexcept
{
    FilePtr file(my_fopen(name, mode));
    if (file)
        std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

/// The end of every writer. What the system tells only now is a failure as well.
[[nodiscard]] inline ImgErrorCode closeWritten(FilePtr& file) noexcept
{
    return file.close() == 0 ? IMGERR_NONE : IMGERR_WRITE;
}

} // namespace QUtils
