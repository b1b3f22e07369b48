#include "tools/commands.h"
#include "tools/input.h"
#include "tools/messages.h"
#include "tools/output.h"
#include "tools/threads.h"

#include "rastkit/image/standard_load.h"
#include "rastkit/image/standard_save.h"

#include <cerrno>
#include <memory>

namespace tool {

namespace {

constexpr const char* cannotRead = "cannot be read";
constexpr const char* cannotWrite = "cannot be written";

struct Arguments {
    std::string in, out;
    bool sync = false;
};

/// What is read and written: one of the two images, as deep as the file's samples are.
struct Picture {
    bool isDeep = false; ///< More than 8 bits a sample: `floats` holds it, else `bytes`.
    QUtils::Image8 bytes;
    QUtils::ImageF floats;
};

bool hasDeepSamples(const IMGINFO& info)
{
    return info.numChannels > 0 && info.bitsPerPixel / info.numChannels > 8;
}

bool load(const std::string& name, Picture& picture)
{
    const InputFile file = examineInput(name);
    if (!file.obstacle.empty()) {
        reportFailure(name, cannotRead, file.obstacle);
        return false;
    }
    IMGINFO info {};
    ImgError error = QUtils::loadHeaderStandard(name.c_str(), &info, nullptr);
    if (error.code() == IMGERR_NONE) {
        picture.isDeep = hasDeepSamples(info);
        // As many pixels as the other image takes, which have a quarter of the bytes.
        picture.floats.setMaxBytes(4 * QUtils::RowImage::defaultMaxBytes);
        ImgBuffer& image = picture.isDeep ? static_cast<ImgBuffer&>(picture.floats) : picture.bytes;
        error = QUtils::loadStandard(name.c_str(), image, nullptr);
    }
    if (error.code() != IMGERR_NONE)
        reportFailure(name, cannotRead, inWords(error));
    return error.code() == IMGERR_NONE;
}

ImgError save(const std::string& name, int formatIndex, const Picture& picture)
{
    return picture.isDeep ? QUtils::saveStandard(name.c_str(), formatIndex, picture.floats)
                          : QUtils::saveStandard(name.c_str(), formatIndex, picture.bytes);
}

/// Why the image was not written; empty when it was.
std::string write(const Arguments& arguments, int formatIndex, const Picture& picture)
{
    return writeAtomically(arguments.out, arguments.sync, [&](const std::string& name) {
        errno = 0;
        const ImgError error = save(name, formatIndex, picture);
        return error.code() == IMGERR_NONE ? std::string() : writeReason(error, errno);
    });
}

int convert(const Arguments& arguments)
{
    const int formatIndex = chooseFormat(arguments.out);
    if (formatIndex < 0)
        return EXIT_USAGE;
    useThreads();
    Picture picture;
    if (!load(arguments.in, picture))
        return EXIT_FILE;
    const std::string obstacle = write(arguments, formatIndex, picture);
    if (!obstacle.empty())
        reportFailure(arguments.out, cannotWrite, obstacle);
    return obstacle.empty() ? EXIT_DONE : EXIT_FILE;
}

} // namespace

Action addConvert(CLI::App& command)
{
    const auto arguments = std::make_shared<Arguments>();
    command.add_option("IN", arguments->in, "the image to read, of any format that this build reads")
        ->required();
    command
        .add_option("OUT", arguments->out,
            "the file to write, in the format of its extension; it keeps its old contents until the new ones "
            "are complete")
        ->required();
    command.add_flag("--sync", arguments->sync, "wait until the file is safe from a power cut");
    return [arguments] { return convert(*arguments); };
}

} // namespace tool
