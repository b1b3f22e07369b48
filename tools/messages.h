#pragma once

#include "rastkit/types.h"

#include <string>

namespace tool {

// All messages go to standard error and begin with the program's name.

/// "rastkit: FILE: WHAT: WHY", as in "a.tga: cannot be read: Permission denied".
void reportFailure(const std::string& file, const char* what, const std::string& why);

/// "rastkit: MESSAGE".
void reportMessage(const std::string& message);

/// An error of the library in words, with the text that a codec added.
std::string inWords(const ImgError& error);

/// The system's words for an errno value.
std::string systemWords(int number);

} // namespace tool
