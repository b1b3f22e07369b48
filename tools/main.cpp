#include "tools/commands.h"
#include "tools/messages.h"

#include "rastkit/formats.h"

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <new>

namespace tool {

namespace {

struct Command {
    const char* name;
    const char* description;
    Action (*add)(CLI::App& command);
};

// clang-format off
constexpr Command tableCommands[] = {
    { "info",    "Say what image files hold",                        addInfo },
    { "convert", "Write an image in the format of another extension", addConvert },
    { "formats", "List the formats and what this build does with them", addFormats },
    { "raw",     "Look at quimg files, raw render output, and convert them", addRaw },
    { "tex",     "Make a mip-mapped, tiled texture of an image",     addTex },
};
// clang-format on

constexpr const char* exitCodeText
    = "Exit codes: 0 done; 1 the answer is 'no'; 2 wrong usage; 3 a file could "
      "not be read or written.";

/// The version of the program and of the codec libraries that it was built with.
std::string versionText()
{
    std::string text = "rastkit " RASTKIT_VERSION;
    QUtils::Table<QUtils::CharStringPair, 100> libraries;
    QUtils::rastkit_getImageLibVersions(libraries);
    for (const QUtils::CharStringPair& library : libraries)
        text.append("\n  ").append(library.first.c_str()).append(" ").append(library.second.c_str());
    return text;
}

/// The arguments without the program's name, last one first, as the parser takes them. It would split a
/// name like "[a,b]" into a list, so such a name gets a folder in front.
std::vector<std::string> argumentsBackwards(int argc, char** argv)
{
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i) {
        std::string argument = argv[i];
        if (argument.size() > 1 && argument.front() == '[' && argument.back() == ']')
            argument.insert(0, "./");
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

int parseAndRun(int argc, char** argv)
{
    CLI::App app("Looks at image files and converts them.", "rastkit");
    app.set_version_flag("--version", versionText);
    app.require_subcommand(1);
    app.footer(exitCodeText);
    Action action;
    for (const Command& command : tableCommands) {
        CLI::App* const parser = app.add_subcommand(command.name, command.description);
        parser->footer(exitCodeText);
        parser->parse_complete_callback([&action, run = command.add(*parser)] { action = run; });
    }
    try {
        app.parse(argumentsBackwards(argc, argv));
    } catch (const CLI::ParseError& error) {
        // Asking for help or the version comes as an exception as well.
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return action();
}

/// A full disk or a closed pipe may show only when what was printed is flushed.
int checkOutput(int exitCode)
{
    errno = 0;
    if (std::cout.flush())
        return exitCode;
    reportFailure("standard output", "cannot be written", systemWords(errno ? errno : EIO));
    return EXIT_FILE;
}

} // namespace

} // namespace tool

int main(int argc, char** argv)
{
    // A file that grows past the user's limit is a failed write like any other.
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return tool::checkOutput(tool::parseAndRun(argc, argv));
    } catch (const std::bad_alloc&) {
        tool::reportMessage("out of memory");
    } catch (const std::exception& error) {
        tool::reportMessage(error.what());
    }
    return tool::EXIT_FILE;
}
