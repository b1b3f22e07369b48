#pragma once

#include <string>

namespace tool {

/// The SHA-1 of a file's bytes as 40 hexadecimal digits; empty, with the reason in `obstacle`, when it cannot
/// be read.
std::string hashFile(const std::string& name, std::string& obstacle);

} // namespace tool
