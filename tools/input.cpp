#include "tools/input.h"

#include "tools/messages.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

InputFile examineInput(const std::string& name)
{
    struct stat status;
    if (::stat(name.c_str(), &status) != 0)
        return { systemWords(errno), 0 };
    if (S_ISDIR(status.st_mode))
        return { systemWords(EISDIR), 0 };
    if (!S_ISREG(status.st_mode))
        return { "Not a regular file", 0 };
    if (::faccessat(AT_FDCWD, name.c_str(), R_OK, AT_EACCESS) != 0)
        return { systemWords(errno), 0 };
    return { {}, std::uint64_t(status.st_size) };
}

} // namespace tool
