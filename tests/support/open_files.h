#pragma once

#include <filesystem>
#include <iterator>

namespace testing_support {

/// How many files this process has open.
inline int openFiles()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return int(std::distance(begin(files), end(files)));
}

} // namespace testing_support
