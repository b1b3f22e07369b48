#include "rastkit/image/atomic_file.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace QUtils {

namespace fs = std::filesystem;

namespace {

constexpr int mostLinks = 40; // As many as the system itself follows.
constexpr int mostNames = 100;
constexpr mode_t permissionBits = 07777, ownerAndOthers = S_IRWXU | S_IRWXO;
constexpr mode_t newFileMode = 0666, privateMode = 0600;

std::error_code systemError(int number)
{
    return { number, std::generic_category() };
}

std::error_code lastError()
{
    return systemError(errno);
}

/// Owns a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) { }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_number >= 0)
            ::close(m_number);
    }

    explicit operator bool() const { return m_number >= 0; }
    int get() const { return m_number; }

private:
    int m_number;
};

/// Replaces a symbolic link by the name that a chain of links ends in, whether such a file exists or not.
std::error_code followLinks(fs::path& name)
{
    for (int i = 0; i < mostLinks; ++i) {
        std::error_code notALink;
        const fs::path link = fs::read_symlink(name, notALink);
        if (notALink)
            return {};
        name = name.parent_path() / link;
    }
    return systemError(ELOOP);
}

/// Why a file that exists may not be replaced.
std::error_code checkReplaceable(const char* target, const struct stat& status)
{
    if (S_ISDIR(status.st_mode))
        return systemError(EISDIR);
    // The folder's permissions alone would let us replace a file that is protected from writing.
    return faccessat(AT_FDCWD, target, W_OK, AT_EACCESS) == 0 ? std::error_code() : lastError();
}

/// Whether a name stands for that file. Links such as /proc/self/fd/1 are followed by the system, but their
/// text need not be the name of what they lead to.
bool isFile(const fs::path& name, const struct stat& file)
{
    struct stat status;
    return ::stat(name.c_str(), &status) == 0 && status.st_dev == file.st_dev && status.st_ino == file.st_ino;
}

/// Makes a new empty file in `folder`, with those of the permissions `mode` that any new file gets.
std::error_code makeFile(const fs::path& folder, const fs::path& extension, mode_t mode, std::string& name)
{
    for (int i = 0; i < mostNames; ++i) {
        std::uint64_t number;
        if (getentropy(&number, sizeof number) != 0)
            return lastError();
        char base[40];
        std::snprintf(base, sizeof base, ".rastkit-%016llx", static_cast<unsigned long long>(number));
        std::string candidate = (folder / base).string() + extension.string();
        if (const Descriptor file(::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
            file) {
            name = std::move(candidate);
            return {};
        }
        if (errno != EEXIST)
            return lastError();
    }
    return systemError(EEXIST);
}

/// Gives a file the owner and the permissions of another. The owner is a wish: only root can give files
/// away. The permissions are not, since they may keep others from reading; where the group could not be
/// kept, what the old one was allowed is not for the new one.
std::error_code copyPermissions(const struct stat& from, const std::string& to)
{
    struct stat status;
    if (::stat(to.c_str(), &status) != 0)
        return lastError();
    mode_t mode = from.st_mode & permissionBits;
    const bool isOthers = status.st_uid != from.st_uid || status.st_gid != from.st_gid;
    if (isOthers && ::chown(to.c_str(), from.st_uid, from.st_gid) != 0) {
        mode &= ownerAndOthers;
        if (status.st_gid == from.st_gid)
            mode |= from.st_mode & S_IRWXG;
    }
    return ::chmod(to.c_str(), mode) == 0 ? std::error_code() : lastError();
}

std::error_code syncToDisk(const std::string& name, int flags)
{
    const Descriptor file(::open(name.c_str(), O_RDONLY | O_CLOEXEC | flags));
    return file && ::fsync(file.get()) == 0 ? std::error_code() : lastError();
}

std::string folderOf(const std::string& name)
{
    const std::string folder = fs::path(name).parent_path().string();
    return folder.empty() ? "." : folder;
}

} // namespace

AtomicFile::~AtomicFile()
{
    if (isTemporary())
        ::unlink(m_name.c_str());
}

std::error_code AtomicFile::begin(const char* target)
{
    if (*target == '\0')
        return systemError(ENOENT);
    struct stat old;
    const bool exists = ::stat(target, &old) == 0;
    if (exists)
        if (const std::error_code error = checkReplaceable(target, old))
            return error;

    fs::path end = target;
    if (const std::error_code error = followLinks(end))
        return error;
    if (exists && (!S_ISREG(old.st_mode) || !isFile(end, old))) {
        m_name = target;
        return {};
    }

    std::string replaced = end.string();
    if (const std::error_code error = makeFile(
            end.parent_path(), fs::path(target).extension(), exists ? privateMode : newFileMode, m_name))
        return error;
    m_target = std::move(replaced);
    return exists ? copyPermissions(old, m_name) : std::error_code();
}

std::error_code AtomicFile::commit(Sync sync)
{
    if (!isTemporary())
        return {};
    if (sync == Sync::Yes)
        if (const std::error_code error = syncToDisk(m_name, 0))
            return error;
    if (::rename(m_name.c_str(), m_target.c_str()) != 0)
        return lastError();
    m_name = std::exchange(m_target, std::string());
    return sync == Sync::Yes ? syncToDisk(folderOf(m_name), O_DIRECTORY) : std::error_code();
}

} // namespace QUtils
