#include "support/run_program.h"

#include "rastkit/formats.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using namespace testing_support;

nlohmann::json formatNamed(const std::string& name)
{
    for (const nlohmann::json& format : nlohmann::json::parse(runTool({ "formats", "--json" }).out))
        if (format.at("format") == name)
            return format;
    ADD_FAILURE() << "no format " << name;
    return {};
}

TEST(ToolFormats, TableHasALinePerFormatThatBeginsWithItsName)
{
    const ProgramResult result = runTool({ "formats" });
    EXPECT_EQ(result.exitCode, 0);
    std::istringstream lines(result.out);
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);)
        names.push_back(line.substr(0, line.find(' ')));
    EXPECT_EQ(names,
        (std::vector<std::string> { "FORMAT", "png", "bmp", "tga", "hdr", "sgi", "jpg", "exr", "pic", "tif",
            "psd", "quimg", "dds" }));
}

TEST(ToolFormats, JsonSaysWhatEachFormatIsGoodFor)
{
    const nlohmann::json tga = formatNamed("tga");
    EXPECT_EQ(tga.at("extensions"), nlohmann::json({ "tga" }));
    EXPECT_EQ(tga.at("description"), "Targa image file");
    EXPECT_EQ(tga.at("reads"), true);
    EXPECT_EQ(tga.at("writes"), true);
    EXPECT_EQ(formatNamed("psd").at("writes"), false) << "Photoshop files are never written.";
    EXPECT_EQ(formatNamed("dds").at("writes"), false) << "DDS files are never written.";
}

TEST(ToolFormats, JsonHasEveryFormatThatIsOfferedToUsers)
{
    QUtils::Table<const QUtils::FileFormatInfo*, 100> offered;
    getSupportedFormatsList(offered);
    ASSERT_EQ(offered.count(), 11);
    for (const QUtils::FileFormatInfo* const format : offered) {
        const std::string extensions = format->extensions;
        formatNamed(extensions.substr(0, extensions.find(';')));
    }
}

} // namespace
