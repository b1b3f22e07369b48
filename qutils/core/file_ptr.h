#pragma once

#include <cstdio>
#include <utility>

namespace QUtils {

/// Owns one C stream and closes it on every path, exceptions included.
class FilePtr {
public:
    FilePtr() noexcept = default;
    explicit FilePtr(std::FILE* file) noexcept : m_file(file) { }
    FilePtr(FilePtr&& other) noexcept : m_file(other.release()) { }
    FilePtr& operator=(FilePtr&& other) noexcept
    {
        if (this != &other) {
            close();
            m_file = other.release();
        }
        return *this;
    }
    ~FilePtr() { close(); }

    operator std::FILE*() const noexcept { return m_file; }
    explicit operator bool() const noexcept { return m_file != nullptr; }

    /// Gives the stream up without closing it; the guard holds null from then on.
    std::FILE* release() noexcept { return std::exchange(m_file, nullptr); }
    /// Closes now, for writers that must see what shows only at the flush: `fclose`'s result, 0 when
    /// everything reached the system, also when there is nothing to close.
    int close() noexcept
    {
        std::FILE* const file = release();
        return file ? std::fclose(file) : 0;
    }

private:
    std::FILE* m_file = nullptr;
};

} // namespace QUtils

using QUtils::FilePtr;
