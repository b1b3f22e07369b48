#include "support/run_program.h"
#include "support/tga_bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace {

using namespace testing_support;
using nlohmann::json;

Bytes tgaOf(int width, int height)
{
    TgaBytes tga;
    tga.width = width;
    tga.height = height;
    tga.pixels = Bytes(std::size_t(width) * std::size_t(height) * 3, 0x40);
    return tga.bytes();
}

class ToolInfo : public testing::Test {
protected:
    std::string make(const std::string& name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return m_dir / name;
    }

    TempDir m_dir;
};

TEST_F(ToolInfo, LinePerFileTellsFormatSizeChannelsBitsAndBytes)
{
    const std::string a = make("a.tga", tgaOf(7, 4)), b = make("b.tga", tgaOf(2, 1));
    const ProgramResult result = runTool({ "info", a, b });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out,
        a + ": Targa image file, 7 x 4, 3 channels, 24 bits per pixel, 102 bytes\n" + b
            + ": Targa image file, 2 x 1, 3 channels, 24 bits per pixel, 24 bytes\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(ToolInfo, JsonIsAnArrayWithAnObjectPerFile)
{
    const std::string a = make("a.tga", tgaOf(7, 4));
    const ProgramResult result = runTool({ "info", "--json", a });
    EXPECT_EQ(result.exitCode, 0);
    const json expected = json::array({ { { "file", a }, { "format", "tga" }, { "width", 7 }, { "height", 4 },
        { "channels", 3 }, { "bitsPerPixel", 24 }, { "fileBytes", 102 } } });
    EXPECT_EQ(json::parse(result.out), expected);
}

TEST_F(ToolInfo, FileThatCannotBeReadDoesNotStopTheOthers)
{
    const std::string bad = make("bad.tga", Bytes(40, 0xEE)), good = make("good.tga", tgaOf(1, 1));
    const std::string missing = m_dir / "missing.tga", folder = m_dir.path().string();
    const ProgramResult result = runTool({ "info", "--json", bad, missing, folder, good });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err,
        "rastkit: " + bad
            + ": cannot be read: not an image of a known format, or its header is damaged\n"
              "rastkit: "
            + missing + ": cannot be read: No such file or directory\nrastkit: " + folder
            + ": cannot be read: Is a directory\n");
    const json list = json::parse(result.out);
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[1], (json { { "file", missing }, { "error", "No such file or directory" } }));
    EXPECT_EQ(list[3].at("width"), 1);
}

TEST_F(ToolInfo, TexturesTellTheirTilesAndLevels)
{
    const std::string in = make("a.tga", tgaOf(70, 20)), exr = m_dir / "a.exr", tif = m_dir / "a.tif";
    ASSERT_EQ(runTool({ "tex", in, "-o", exr, "--tile", "32x16", "--to-linear" }).exitCode, 0);
    ASSERT_EQ(runTool({ "tex", in, "-o", tif }).exitCode, 0);
    const ProgramResult lines = runTool({ "info", exr, tif, in });
    EXPECT_NE(lines.out.find("48 bits per pixel, tiles of 32 x 16, 7 levels, "), std::string::npos)
        << lines.out;
    EXPECT_NE(lines.out.find("24 bits per pixel, tiles of 64 x 64, 7 levels, "), std::string::npos)
        << lines.out;
    const json list = json::parse(runTool({ "info", "--json", exr, tif, in }).out);
    EXPECT_EQ(list.at(0).at("tileWidth"), 32);
    EXPECT_EQ(list.at(0).at("tileHeight"), 16);
    EXPECT_EQ(list.at(1).at("levels"), 7);
    EXPECT_FALSE(list.at(2).contains("levels"));
}

TEST_F(ToolInfo, RawRenderOutputIsReferredToItsOwnCommands)
{
    const std::string name = make("frame.quimg", { 0x89, 'Q', 'U', 'I', 'M', 'G', 0x0D, 0x0A, 1, 0 });
    const ProgramResult result = runTool({ "info", name });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err,
        "rastkit: " + name + ": cannot be read: it is raw render output: 'rastkit raw info' tells of it\n");
}

TEST_F(ToolInfo, OddFileNamesWork)
{
    const Bytes tga = tgaOf(1, 1);
    for (const char* const name : { "with space.tga", "-dash.tga", "--json", "[a,b]", "{}", "%%", "info",
             "convert", "\xC3\xA4\xE6\x97\xA5.tga", "a\nb.tga", "'\"$HOME`.tga" }) {
        make(name, tga);
        const std::string command
            = "cd '" + m_dir.path().string() + "' && exec " RASTKIT_PROGRAM " info -- \"$1\"";
        const ProgramResult result = Program("/bin/sh", { "-c", command, "sh", name }).wait();
        EXPECT_EQ(result.exitCode, 0) << name << result.err;
        EXPECT_NE(result.out.find(std::string(name) + ": Targa"), std::string::npos) << name << result.out;
    }
}

TEST_F(ToolInfo, NamesThatAreCommandsAreFilesAfterACommand)
{
    const std::string command
        = "cd '" + m_dir.path().string() + "' && exec " RASTKIT_PROGRAM " info convert formats";
    make("convert", tgaOf(1, 1));
    make("formats", tgaOf(1, 1));
    EXPECT_EQ(Program("/bin/sh", { "-c", command }).wait().exitCode, 0);
}

TEST_F(ToolInfo, NameThatIsNotUtf8StillGivesValidJson)
{
    const std::string name = make("\xFF\xC0.tga", tgaOf(1, 1));
    const ProgramResult result = runTool({ "info", "--json", name });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(json::parse(result.out).at(0).at("format"), "tga");
}

TEST_F(ToolInfo, PipeIsRefusedInsteadOfWaitedFor)
{
    const std::string name = m_dir / "pipe.tga";
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const ProgramResult result = runTool({ "info", name });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "rastkit: " + name + ": cannot be read: Not a regular file\n");
}

TEST_F(ToolInfo, EveryCutOfASmallFileIsAnsweredInWords)
{
    const Bytes whole = tgaOf(2, 2);
    for (std::size_t length = 0; length < 18; ++length) {
        const ProgramResult result
            = runTool({ "info", make("cut.tga", Bytes(whole.begin(), whole.begin() + long(length))) });
        EXPECT_EQ(result.exitCode, 3) << length;
        EXPECT_EQ(result.err.rfind("rastkit: ", 0), 0u) << result.err;
    }
}

} // namespace
