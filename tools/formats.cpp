#include "tools/commands.h"
#include "tools/json.h"

#include "rastkit/image/format_support.h"

#include <iomanip>
#include <iostream>
#include <memory>

namespace tool {

namespace {

using QUtils::FormatSupport;

std::string join(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words)
        line.append(line.empty() ? "" : " ").append(word);
    return line;
}

const char* yesNo(bool answer)
{
    return answer ? "yes" : "no";
}

void printRow(const char* format, const std::string& extensions, const char* reads, const char* writes,
    const std::string& description)
{
    std::cout << std::left << std::setw(8) << format << std::setw(7) << reads << std::setw(8) << writes
              << std::setw(15) << extensions << description << '\n';
}

void print(const std::vector<FormatSupport>& formats)
{
    printRow("FORMAT", "EXTENSIONS", "READS", "WRITES", "NAME");
    for (const FormatSupport& format : formats)
        printRow(format.extensions.front().c_str(), join(format.extensions), yesNo(format.reads),
            yesNo(format.writes), format.description);
}

Json toJson(const std::vector<FormatSupport>& formats)
{
    Json list = Json::array();
    for (const FormatSupport& format : formats)
        list.push_back({ { "format", format.extensions.front() }, { "extensions", format.extensions },
            { "description", format.description }, { "reads", format.reads }, { "writes", format.writes } });
    return list;
}

int formats(bool json)
{
    const auto list = QUtils::listFormats();
    if (json)
        printJson(toJson(list));
    else
        print(list);
    return EXIT_DONE;
}

} // namespace

Action addFormats(CLI::App& command)
{
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "print a JSON array with one object per format");
    return [json] { return formats(*json); };
}

} // namespace tool
