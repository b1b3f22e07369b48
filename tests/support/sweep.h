#pragma once

#include <cstdlib>
#include <string_view>

namespace testing_support {

/// Whether sweeps walk through all that they can, for hours if need be, instead of a fixed sample:
/// RASTKIT_SWEEP=full.
inline bool isFullSweep()
{
    const char* const value = std::getenv("RASTKIT_SWEEP");
    return value && std::string_view(value) == "full";
}

} // namespace testing_support
