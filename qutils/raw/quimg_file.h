#pragma once

#include "qutils/core/error_code.h"
#include "qutils/core/file_ptr.h"
#include "qutils/raw/pstream.h"
#include "qutils/raw/ri_records.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <new>
#include <string>

namespace QUtils::quimg {

/// The system's text for an error number.
std::string systemText(int error);

/// Runs `body`, which answers an ErrorCode; what it throws becomes one. All public calls go through here.
template <typename Body> ErrorCode guarded(const char* function, Body body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return ErrorCode(function, RIERR_MEMORY, "memory was refused");
    } catch (const std::exception& thrown) {
        return ErrorCode(function, RIERR_CALLBACK, "an exception ended the call: %s", thrown.what());
    } catch (...) {
        return ErrorCode(function, RIERR_CALLBACK, "an exception ended the call");
    }
}

/// A file that is read at any place. Never mapped: another process may cut it short.
class InputFile {
public:
    /// 0, or the error number.
    int open(const char* name);
    void close() { m_file.close(); }

    bool isOpen() const { return bool(m_file); }
    std::uint64_t size() const { return m_size; } ///< When it was opened.
    /// All `count` bytes from `offset` on. Else false, with the reason in errno: 0 where the file ends
    /// before.
    bool read(std::uint64_t offset, void* out, std::size_t count) const;

    /// The stream, to go on with another use of the file.
    FilePtr& stream() { return m_file; }
    /// Takes over a stream that is open for reading. 0, or the error number.
    int adopt(FilePtr file);

private:
    FilePtr m_file;
    std::uint64_t m_size = 0;
};

/// Where chunks are written to, one after the other.
class OutputFile {
public:
    /// Makes a file, empty. 0, or the error number: EWOULDBLOCK for a file that another one writes to, which
    /// stays as it is.
    int create(const char* name);
    /// Writes to a stream that stays the caller's.
    void useStream(PStream* stream);
    /// Takes a file that is open for writing, and goes on at `position`.
    void adopt(FilePtr file, std::uint64_t position);

    bool isOpen() const { return m_file || m_stream; }
    std::uint64_t position() const { return m_position; }
    /// Writes the bytes with one call of the system where that takes them all. When it fails: false with the
    /// reason in errno, and the file is cut back to where it was. When that fails too, nothing is written to
    /// it any more, since what would follow could not be found.
    bool write(const void* bytes, std::size_t count);
    /// Cuts the file off at its position, before the next bytes go there.
    bool cut();
    /// False when the system tells only now that something was not written.
    bool close();

private:
    bool writeAll(const std::uint8_t* bytes, std::size_t count);

    FilePtr m_file;
    PStream* m_stream = nullptr;
    std::uint64_t m_position = 0;
    bool m_broken = false;
};

/// Keeps other processes from opening the same file for writing, as long as it is open. False when another
/// one has it; true also where the file system knows no locks.
bool lockForWriting(std::FILE* file);

} // namespace QUtils::quimg
