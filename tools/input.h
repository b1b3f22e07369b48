#pragma once

#include <cstdint>
#include <string>

namespace tool {

/// What the system says about a file that is to be read.
struct InputFile {
    std::string obstacle; ///< Why it cannot be read; empty when it can.
    std::uint64_t bytes = 0;
};

/// Asks before any reader does: readers open a file more than once, which only a regular file stands, and
/// keep the system's reason for a failure to themselves.
InputFile examineInput(const std::string& name);

} // namespace tool
