#include "tools/commands.h"
#include "tools/json.h"
#include "tools/messages.h"
#include "tools/raw_convert.h"
#include "tools/raw_frame.h"

#include <iostream>
#include <memory>

namespace tool {

namespace {

using QUtils::RIChannelInfo;
using QUtils::RIReader;
using QUtils::RIRegionInfo;

struct Arguments {
    std::vector<std::string> files;
    bool json = false;
};

const char* sampleName(int sampleType)
{
    return sampleType == QUtils::RISAMPLE_HALF ? "half"
        : sampleType == QUtils::RISAMPLE_FLOAT ? "float"
                                               : "uint";
}

const char* kindName(int kind)
{
    constexpr const char* names[] = { "", "colour", "vector", "depth", "data" };
    return kind >= 1 && kind <= 4 ? names[kind] : "data";
}

/// For a terminal, which must not be steered by what a file says.
std::string printable(const char* text)
{
    std::string result = text;
    for (char& c : result)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = c == '\n' ? ' ' : '?';
    return result;
}

Json toJson(const RIRegionInfo& region)
{
    return { { "left", region.left }, { "top", region.top }, { "right", region.right },
        { "bottom", region.bottom } };
}

Json toJson(const RIChannelInfo& channel)
{
    return { { "name", channel.name.c_str() }, { "id", channel.channelId },
        { "samples", sampleName(channel.sampleType) }, { "components", channel.numComponents },
        { "kind", kindName(channel.kind) } };
}

Json toJson(const std::string& name, const RIReader& reader)
{
    const QUtils::RIHeader& header = reader.header();
    Json json { { "file", name }, { "width", header.width }, { "height", header.height },
        { "pixelAspect", header.pixelAspect }, { "bitsPerChannel", header.bitsPerChannel },
        { "rendered", toJson(header.renderRegion) },
        { "regions",
            { { "width", header.regWidth }, { "height", header.regHeight }, { "type", header.regType },
                { "count", reader.getNumRegions() }, { "missing", reader.countMissingRegions() } } },
        { "closed", reader.isClosed() }, { "scene", header.sceneNumber },
        { "description", header.sceneText.c_str() } };
    json["channels"] = Json::array();
    for (int i = 0; i < reader.getNumChannels(); ++i)
        json["channels"].push_back(toJson(reader.getChannel(i)));
    return json;
}

void print(const std::string& name, const RIReader& reader)
{
    const QUtils::RIHeader& header = reader.header();
    const RIRegionInfo& rendered = header.renderRegion;
    std::cout << name << ": quimg, " << header.width << " x " << header.height << ", rendered ("
              << rendered.left << ", " << rendered.top << ") to (" << rendered.right << ", "
              << rendered.bottom << "), " << doneText(reader) << " done"
              << (reader.isClosed() ? "" : ", not closed") << '\n';
    if (!header.sceneText.empty())
        std::cout << "  scene " << header.sceneNumber << ": " << printable(header.sceneText.c_str()) << '\n';
    for (int i = 0; i < reader.getNumChannels(); ++i) {
        const RIChannelInfo& channel = reader.getChannel(i);
        std::cout << "  " << printable(channel.name.c_str()) << ": " << channel.numComponents << " x "
                  << sampleName(channel.sampleType) << ", " << kindName(channel.kind) << ", id "
                  << channel.channelId << '\n';
    }
}

/// Describes all files, also those after one that cannot be read.
int info(const Arguments& arguments)
{
    Json list = Json::array();
    int exitCode = EXIT_DONE;
    for (const std::string& name : arguments.files) {
        RIReader reader;
        const std::string obstacle = openRaw(reader, name);
        if (!obstacle.empty()) {
            reportFailure(name, "cannot be read", obstacle);
            exitCode = EXIT_FILE;
            list.push_back({ { "file", name }, { "error", obstacle } });
        } else if (arguments.json) {
            list.push_back(toJson(name, reader));
        } else {
            print(name, reader);
        }
    }
    if (arguments.json)
        printJson(list);
    return exitCode;
}

/// How many regions of the grid stand in one row of it.
int countColumns(const RIReader& reader)
{
    int columns = 0;
    while (columns < reader.getNumRegions() && reader.getRegion(columns).top == reader.getRegion(0).top)
        ++columns;
    return columns;
}

void printMap(const std::string& name, const RIReader& reader)
{
    std::cout << name << ": " << doneText(reader) << " done\n";
    const int columns = countColumns(reader);
    std::string line;
    for (int i = 0; i < reader.getNumRegions() && std::cout; ++i) {
        line += reader.isRegionDone(i) ? '#' : '.';
        if (int(line.size()) == columns) {
            std::cout << line << '\n';
            line.clear();
        }
    }
}

/// Piece by piece: a small file may tell of more regions than fit into memory.
void printMapJson(const std::string& name, const RIReader& reader)
{
    const Json file = name;
    std::cout << "{\n  \"file\": " << file.dump(-1, ' ', false, Json::error_handler_t::replace)
              << ",\n  \"columns\": " << countColumns(reader) << ",\n  \"count\": " << reader.getNumRegions()
              << ",\n  \"missing\": [";
    const char* between = "\n    ";
    for (int i = 0; i < reader.getNumRegions() && std::cout; ++i)
        if (!reader.isRegionDone(i)) {
            std::cout << between << toJson(reader.getRegion(i)).dump();
            between = ",\n    ";
        }
    std::cout << "\n  ]\n}\n";
}

int resumeMap(const std::string& name, bool asJson)
{
    RIReader reader;
    const std::string obstacle = openRaw(reader, name);
    if (!obstacle.empty()) {
        reportFailure(name, "cannot be read", obstacle);
        return EXIT_FILE;
    }
    reader.verify(); // Who asks what is missing wants to know of damage too.
    asJson ? printMapJson(name, reader) : printMap(name, reader);
    return reader.countMissingRegions() == 0 ? EXIT_DONE : EXIT_NO;
}

void addRawInfo(CLI::App& command, Action& action)
{
    const auto arguments = std::make_shared<Arguments>();
    command.add_option("FILE", arguments->files, "quimg files")->required();
    command.add_flag("--json", arguments->json, "print a JSON array with one object per file");
    command.parse_complete_callback(
        [&action, arguments] { action = [arguments] { return info(*arguments); }; });
}

void addRawConvert(CLI::App& command, Action& action)
{
    const auto arguments = std::make_shared<RawConvertArguments>();
    command.add_option("FILE", arguments->in, "the quimg")->required();
    command
        .add_option("OUT", arguments->out,
            "the file to write, in the format of its extension: one OpenEXR file with all channels, or one "
            "file for each channel, named after it, in any other format")
        ->required();
    command.add_flag("--separate", arguments->separate, "OpenEXR: one file for each channel too");
    command.add_flag(
        "--folders", arguments->folders, "separate files: each in a folder named after its channel");
    command.parse_complete_callback(
        [&action, arguments] { action = [arguments] { return convertRaw(*arguments); }; });
}

void addResumeMap(CLI::App& command, Action& action)
{
    const auto name = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command.add_option("FILE", *name, "the quimg")->required();
    command.add_flag("--json", *json, "print the missing regions as JSON");
    command.parse_complete_callback(
        [&action, name, json] { action = [name, json] { return resumeMap(*name, *json); }; });
}

} // namespace

Action addRaw(CLI::App& command)
{
    const auto action = std::make_shared<Action>();
    command.require_subcommand(1);
    addRawInfo(*command.add_subcommand("info", "Say what quimg files hold"), *action);
    addRawConvert(*command.add_subcommand("convert",
                      "Write the channels of a quimg in another format; missing regions are "
                      "zero, and the answer is 1 then"),
        *action);
    addResumeMap(
        *command.add_subcommand("resume-map",
            "Show which regions of a quimg are rendered (#) and which are missing (.); the answer is 1 "
            "when any is"),
        *action);
    return [action] { return (*action)(); };
}

} // namespace tool
