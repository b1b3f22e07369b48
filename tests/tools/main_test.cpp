#include "support/run_program.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace testing_support;

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(Tool, HelpNamesEveryCommandAndExitCode)
{
    const ProgramResult result = runTool({ "--help" });
    EXPECT_EQ(result.exitCode, 0);
    for (const char* const part : { "info", "convert", "formats", "0 done", "2 wrong usage" })
        EXPECT_TRUE(contains(result.out, part)) << part;
    EXPECT_EQ(result.err, "");
}

TEST(Tool, EachCommandHasItsOwnHelp)
{
    for (const char* const command : { "info", "convert", "formats" }) {
        const ProgramResult result = runTool({ command, "--help" });
        EXPECT_EQ(result.exitCode, 0) << command;
        EXPECT_TRUE(contains(result.out, std::string("Usage: rastkit ") + command)) << result.out;
    }
}

TEST(Tool, VersionIsOneNumberOfThreeParts)
{
    const ProgramResult result = runTool({ "--version" });
    EXPECT_EQ(result.exitCode, 0);
    const std::string line = result.out.substr(0, result.out.find('\n'));
    EXPECT_EQ(line.rfind("rastkit ", 0), 0u) << line;
    EXPECT_EQ(std::count(line.begin(), line.end(), '.'), 2) << line;
}

TEST(Tool, WrongUsageIsExitCodeTwoWithAHint)
{
    const Program::Arguments wrong[] = { {}, { "frobnicate" }, { "info" }, { "info", "--frob", "a.tga" },
        { "convert" }, { "convert", "a.tga" }, { "convert", "a.tga", "b.tga", "c.tga" },
        { "formats", "a.tga" }, { "--frob" }, { "info", "a.tga", "convert", "--frob" } };
    for (const Program::Arguments& arguments : wrong) {
        const ProgramResult result = runTool(arguments);
        EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(arguments);
        EXPECT_TRUE(contains(result.err, "--help")) << ::testing::PrintToString(arguments);
        EXPECT_EQ(result.out, "") << ::testing::PrintToString(arguments);
    }
}

TEST(Tool, OutputThatIsNotTakenIsAFailure)
{
    const std::string command = std::string(RASTKIT_PROGRAM) + " formats >/dev/full";
    const ProgramResult result = Program("/bin/sh", { "-c", command }).wait();
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "rastkit: standard output: cannot be written: No space left on device\n");
}

} // namespace
