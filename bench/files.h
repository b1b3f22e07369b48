#pragma once

#include <cstdint>
#include <string>

namespace bench {

/// The full name of `name` in a folder of this program's own, in memory (/dev/shm) if the system has that,
/// else in $TMPDIR. The folder goes with the program, also when the program is interrupted.
std::string filePath(const std::string& name);

/// To be called first of all, before any other thread is started: lets SIGINT and SIGTERM remove the folder
/// before they end the program.
void removeFilesOnInterrupt();

/// 0 when there is no such file.
std::uint64_t fileBytes(const std::string& path);

void removeFile(const std::string& path);

} // namespace bench
