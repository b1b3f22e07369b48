#include "bench/files.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <pthread.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace bench {

namespace {

std::string makeFolderIn(const std::filesystem::path& parent)
{
    std::string pattern = (parent / "rastkit-bench-XXXXXX").string();
    return mkdtemp(pattern.data()) ? pattern : std::string();
}

class Folder {
public:
    Folder() : m_path(makeFolderIn("/dev/shm"))
    {
        if (m_path.empty())
            m_path = makeFolderIn(std::filesystem::temp_directory_path());
        if (m_path.empty())
            throw std::runtime_error("no folder for the files of the benchmark");
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() { remove(); }

    void remove() const
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

Folder& folder()
{
    static Folder made;
    return made;
}

} // namespace

std::string filePath(const std::string& name)
{
    return folder().path() + '/' + name;
}

void removeFilesOnInterrupt()
{
    folder();
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] {
        int number = 0;
        sigwait(&signals, &number);
        folder().remove();
        std::_Exit(128 + number);
    }).detach();
}

std::uint64_t fileBytes(const std::string& path)
{
    std::error_code missing;
    const std::uintmax_t bytes = std::filesystem::file_size(path, missing);
    return missing ? 0 : bytes;
}

void removeFile(const std::string& path)
{
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

} // namespace bench
