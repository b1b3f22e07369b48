#include "tools/output.h"

#include "tools/interrupt.h"
#include "tools/messages.h"

#include "rastkit/image/atomic_file.h"
#include "rastkit/image/format_support.h"

namespace tool {

using QUtils::AtomicFile;

int chooseFormat(const std::string& name)
{
    constexpr const char* cannotWrite = "cannot be written";
    const auto formats = QUtils::listFormats();
    const QUtils::FormatSupport* const format = QUtils::findFormat(formats, name.c_str());
    if (!format)
        reportFailure(name, cannotWrite, "its extension names no known format (see `rastkit formats`)");
    else if (!format->writes)
        reportFailure(
            name, cannotWrite, "this build does not write the format " + format->extensions.front());
    return format && format->writes ? format->formatIndex : -1;
}

std::string writeReason(const ImgError& error, int number)
{
    const bool isSystems = error.code() == IMGERR_OPEN || error.code() == IMGERR_WRITE;
    return isSystems && number != 0 ? systemWords(number) : inWords(error);
}

std::string writeAtomically(
    const std::string& target, bool sync, const std::function<std::string(const std::string& name)>& save)
{
    RemoveOnSignal onSignal;
    AtomicFile file;
    {
        // No signal may come between the making of the file and its being watched.
        const SignalBlock block;
        if (const std::error_code error = file.begin(target.c_str()))
            return error.message();
        if (file.isTemporary())
            onSignal.watch(file.name());
    }
    if (std::string obstacle = save(file.name()); !obstacle.empty())
        return obstacle;
    const std::error_code failed = file.commit(sync ? AtomicFile::Sync::Yes : AtomicFile::Sync::No);
    return failed ? failed.message() : std::string();
}

} // namespace tool
