#pragma once

#include "qutils/export.h"

#include <cstdio>

namespace QUtils {

/// Opens a file as `fopen` does; the only way in which the library opens files. Names are UTF-8 and reach
/// the system unchanged. The descriptor is not inherited by programs that the process starts.
/// Null on failure, with the reason in errno (EINVAL for a null name or mode).
QUTILS_API std::FILE* qutils_fopen(const char* name, const char* mode) noexcept;

/// True when `path` names something that exists: a file, a folder, a device. False for null.
QUTILS_API bool uniPathOrFileExists(const char* path) noexcept;

/// Makes the folder `path` and the parents that it lacks. True when the folder exists afterwards.
QUTILS_API bool uniMakeDir(const char* path) noexcept;

/// Copies `name` to `out`, with every control character and any of / \ : * ? " < > | turned into `_`.
/// `out` holds at least as many bytes as `name` with its terminator.
QUTILS_API void makeValidName(const char* name, char* out) noexcept;

/// As above, cut to `outSize` bytes, terminator included.
QUTILS_API void makeValidName(const char* name, char* out, int outSize) noexcept;

/// Writes `fileName` to `out` with `text` put before the last extension of its base name, or at the end
/// when there is none; a leading dot of the base name is no extension. The base name is what follows the
/// last `/` or `\`. `out` must not overlap the other texts. Writes at most `outSize` bytes,
/// terminator included; what does not fit is cut at the end. The last argument is not used.
QUTILS_API void appendFileName(
    const char* fileName, const char* text, char* out, int outSize, bool reserved) noexcept;

/// Writes `name` to `out` with a frame number: `.` and the number, zero-padded to `digits` digits, before
/// the last extension of the base name. A `.`, `_` or `-` that already ends the name is not doubled; a
/// minus sign stands before the zeros (frame -7 in 4 digits is -0007); 0 or fewer digits pad nothing.
///
/// With `replaceHashes`, the last run of `#` in the base name, if there is one, is replaced by the number
/// instead, and the run's length is the number of digits.
///
/// `out` must not overlap `name`. Writes at most `outSize` bytes, terminator included; what does not fit is
/// cut at the end.
QUTILS_API void appendFrameNumber(
    const char* name, int digits, int frame, char* out, int outSize, bool replaceHashes) noexcept;

/// Copies at most `outSize` - 1 characters and a terminator; nothing when `outSize` is below 1. A null text
/// is empty, here as in the functions above.
QUTILS_API void copyBounded(const char* text, char* out, int outSize) noexcept;

/// 0 when the four bytes of `value`, in memory order, are the first four characters of `text`. A shorter
/// text matches nothing.
QUTILS_API int matchIntToString(int value, const char* text) noexcept;

} // namespace QUtils

using QUtils::appendFileName;
using QUtils::appendFrameNumber;
using QUtils::makeValidName;
using QUtils::matchIntToString;
using QUtils::qutils_fopen;
using QUtils::uniMakeDir;
using QUtils::uniPathOrFileExists;
