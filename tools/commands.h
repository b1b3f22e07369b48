#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace tool {

/// What the program tells its caller.
enum ExitCode {
    EXIT_DONE = 0,
    EXIT_NO = 1, ///< The answer to the question is 'no'.
    EXIT_USAGE = 2,
    EXIT_FILE = 3, ///< A file could not be read or written.
};

/// What a command does once its arguments are read; answers an ExitCode.
using Action = std::function<int()>;

// One function per command: declares the command's arguments and returns its action.

Action addInfo(CLI::App& command);
Action addConvert(CLI::App& command);
Action addFormats(CLI::App& command);
Action addRaw(CLI::App& command);
Action addTex(CLI::App& command);

} // namespace tool
