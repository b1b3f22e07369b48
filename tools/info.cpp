#include "tools/commands.h"
#include "tools/input.h"
#include "tools/json.h"
#include "tools/messages.h"

#include "rastkit/image/format_support.h"
#include "rastkit/image/standard_load.h"
#include "rastkit/tiles.h"

#include "qutils/core/file_ptr.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <string_view>

namespace tool {

namespace {

struct Arguments {
    std::vector<std::string> files;
    bool json = false;
};

/// What one file says of itself.
struct Description {
    std::string file;
    std::string error; ///< Why it could not be read; empty when it could.
    std::uint64_t bytes = 0;
    ImgType type = IMGTYPE_UNKNOWN;
    IMGINFO info {};
    int tileWidth = 0, tileHeight = 0, levels = 0; ///< Of a mip-mapped texture; else 0.
};

template <typename Params>
void describeTexture(ImgError (*load)(const char*, Params&), Description& description)
{
    Params params;
    if (load(description.file.c_str(), params).code() != IMGERR_NONE || !params.isMipmapped)
        return;
    description.tileWidth = params.tileWidth;
    description.tileHeight = params.tileHeight;
    description.levels = params.numLevels;
}

/// Raw render output is no image file, and has commands of its own.
bool isQuimg(const std::string& name)
{
    constexpr std::string_view magic = "\x89QUIMG\r\n";
    char bytes[magic.size()];
    const QUtils::FilePtr file(std::fopen(name.c_str(), "rb"));
    return file && std::fread(bytes, 1, sizeof bytes, file) == sizeof bytes
        && magic == std::string_view(bytes, sizeof bytes);
}

Description describe(const std::string& name)
{
    Description description;
    description.file = name;
    const InputFile file = examineInput(name);
    description.error = file.obstacle;
    description.bytes = file.bytes;
    if (!file.obstacle.empty())
        return description;
    const ImgError error = QUtils::loadHeaderStandard(name.c_str(), &description.info, &description.type);
    if (error.code() != IMGERR_NONE)
        description.error
            = isQuimg(name) ? "it is raw render output: 'rastkit raw info' tells of it" : inWords(error);
    else if (description.type == IMGTYPE_EXR)
        describeTexture<EXRTileLoaderParams>(LoadEXRHeaderEx, description);
    else if (description.type == IMGTYPE_TIFF)
        describeTexture<TIFTileLoaderParams>(LoadTIFHeaderEx, description);
    return description;
}

void print(const Description& description, const QUtils::FormatSupport& format)
{
    const IMGINFO& info = description.info;
    std::cout << description.file << ": " << format.description << ", " << info.width << " x " << info.height
              << ", " << info.numChannels << (info.numChannels == 1 ? " channel, " : " channels, ")
              << info.bitsPerPixel << " bits per pixel, ";
    if (description.levels != 0)
        std::cout << "tiles of " << description.tileWidth << " x " << description.tileHeight << ", "
                  << description.levels << (description.levels == 1 ? " level, " : " levels, ");
    std::cout << description.bytes << " bytes\n";
}

Json toJson(const Description& description, const QUtils::FormatSupport* format)
{
    Json json { { "file", description.file } };
    if (!format) {
        json["error"] = description.error;
        return json;
    }
    json["format"] = format->extensions.front();
    json["width"] = description.info.width;
    json["height"] = description.info.height;
    json["channels"] = description.info.numChannels;
    json["bitsPerPixel"] = description.info.bitsPerPixel;
    json["fileBytes"] = description.bytes;
    if (description.levels != 0) {
        json["tileWidth"] = description.tileWidth;
        json["tileHeight"] = description.tileHeight;
        json["levels"] = description.levels;
    }
    return json;
}

/// Describes all files, also those after one that cannot be read.
int info(const Arguments& arguments)
{
    const auto formats = QUtils::listFormats();
    Json list = Json::array();
    int exitCode = EXIT_DONE;
    for (const std::string& name : arguments.files) {
        const Description description = describe(name);
        const QUtils::FormatSupport* const format
            = description.error.empty() ? QUtils::findFormat(formats, description.type) : nullptr;
        if (!format) {
            reportFailure(name, "cannot be read", description.error);
            exitCode = EXIT_FILE;
        }
        if (arguments.json)
            list.push_back(toJson(description, format));
        else if (format)
            print(description, *format);
    }
    if (arguments.json)
        printJson(list);
    return exitCode;
}

} // namespace

Action addInfo(CLI::App& command)
{
    const auto arguments = std::make_shared<Arguments>();
    command.add_option("FILE", arguments->files, "image files")->required();
    command.add_flag("--json", arguments->json, "print a JSON array with one object per file");
    return [arguments] { return info(*arguments); };
}

} // namespace tool
