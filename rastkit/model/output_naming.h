#pragma once

namespace QUtils {

/// Room for the names that are built of a file, its channels and its frame, terminator included.
inline constexpr int outputNameSize = 512;

/// The last '/' or '\\' of `path`, or null. The first character is never looked at, so that a file in the
/// root folder has none, deliberately.
const char* findSeparator(const char* path);

} // namespace QUtils
