#include "tools/commands.h"
#include "tools/input.h"
#include "tools/interrupt.h"
#include "tools/messages.h"

#include "rastkit/image/atomic_file.h"
#include "rastkit/image/format_support.h"
#include "rastkit/image/standard_load.h"
#include "rastkit/image/standard_save.h"

#include <cerrno>
#include <memory>

namespace tool {

namespace {

using QUtils::AtomicFile;

constexpr const char* cannotRead = "cannot be read";
constexpr const char* cannotWrite = "cannot be written";

struct Arguments {
    std::string in, out;
    bool sync = false;
};

/// The index of the format that the name's extension asks for; -1, with a message, when there is none to
/// be written.
int chooseFormat(const std::string& name)
{
    const auto formats = QUtils::listFormats();
    const QUtils::FormatSupport* const format = QUtils::findFormat(formats, name.c_str());
    if (!format)
        reportFailure(name, cannotWrite, "its extension names no known format (see `rastkit formats`)");
    else if (!format->writes)
        reportFailure(
            name, cannotWrite, "this build does not write the format " + format->extensions.front());
    return format && format->writes ? format->formatIndex : -1;
}

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

/// The reason of a failed write; `number` is the errno that it left, 0 if none.
std::string writeReason(const ImgError& error, int number)
{
    const bool isSystems = error.code() == IMGERR_OPEN || error.code() == IMGERR_WRITE;
    return isSystems && number != 0 ? systemWords(number) : inWords(error);
}

/// Why the image was not written; empty when it was.
std::string write(const Arguments& arguments, int formatIndex, const Picture& picture)
{
    RemoveOnSignal onSignal;
    AtomicFile file;
    {
        // No signal may come between the making of the file and its being watched.
        const SignalBlock block;
        if (const std::error_code error = file.begin(arguments.out.c_str()))
            return error.message();
        if (file.isTemporary())
            onSignal.watch(file.name());
    }
    errno = 0;
    const ImgError error = save(file.name(), formatIndex, picture);
    const int number = errno;
    if (error.code() != IMGERR_NONE)
        return writeReason(error, number);
    const std::error_code failed = file.commit(arguments.sync ? AtomicFile::Sync::Yes : AtomicFile::Sync::No);
    return failed ? failed.message() : std::string();
}

int convert(const Arguments& arguments)
{
    const int formatIndex = chooseFormat(arguments.out);
    if (formatIndex < 0)
        return EXIT_USAGE;
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
