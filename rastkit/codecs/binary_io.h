#pragma once

#include "rastkit/export.h"

#include <cstdio>

namespace QUtils {

// Single big-endian integers on a stream, for hosts that read and write such files themselves.
// The stream is not null.

/// One byte, 0 to 255, or EOF at the end of the file. The unsigned form is the same.
RASTKIT_API int read_char(std::FILE* stream);
RASTKIT_API int read_uchar(std::FILE* stream);

/// Two bytes, 0 to 65535: the signed form does not extend the sign. Bytes past the end read as 0; ask the
/// stream whether it ended.
RASTKIT_API int read_short(std::FILE* stream);
RASTKIT_API int read_ushort(std::FILE* stream);

/// Four bytes, 0 to 4294967295: the signed form does not extend the sign. Bytes past the end read as 0.
RASTKIT_API long read_long(std::FILE* stream);
RASTKIT_API long read_ulong(std::FILE* stream);

/// Writes one byte; the result is `fputc`'s.
RASTKIT_API int write_char(std::FILE* stream, char value);
RASTKIT_API int write_uchar(std::FILE* stream, unsigned char value);

/// Writes two bytes; 1 on success, else 0.
RASTKIT_API int write_short(std::FILE* stream, short value);
RASTKIT_API int write_ushort(std::FILE* stream, unsigned short value);

/// Writes the low 32 bits of `value`; 1 on success, else 0.
RASTKIT_API int write_long(std::FILE* stream, long value);
RASTKIT_API int write_ulong(std::FILE* stream, unsigned long value);

} // namespace QUtils

using QUtils::read_char;
using QUtils::read_long;
using QUtils::read_short;
using QUtils::read_uchar;
using QUtils::read_ulong;
using QUtils::read_ushort;
using QUtils::write_char;
using QUtils::write_long;
using QUtils::write_short;
using QUtils::write_uchar;
using QUtils::write_ulong;
using QUtils::write_ushort;
