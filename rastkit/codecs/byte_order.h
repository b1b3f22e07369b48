#pragma once

#include <cstdio>

namespace QUtils {

/// The order of the bytes in this computer's integers and floats: 1 is least significant first, any other
/// nonzero number most significant first. Found out by the first call.
int detect_endianines();

/// Writes a float as four bytes, most significant first. Throws IMGERR_WRITE, an ImgErrorCode, at the first
/// byte that cannot be written.
void fwrite_float(std::FILE* stream, float value);

} // namespace QUtils
