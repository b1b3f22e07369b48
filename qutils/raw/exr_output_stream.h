#pragma once

#include "qutils/core/file_ptr.h"
#include "qutils/export.h"

#include <ImfIO.h>

#include <cstdint>

namespace QUtils {

/// The file that an OpenEXR file is written to. OpenEXR's own stream keeps silent about what fails while a
/// file is finished, since that happens in a destructor; this one remembers it for `close`.
class QUTILS_API ExrOutputStream : public Imf::OStream {
public:
    /// Makes the file, empty. Throws Iex::ErrnoExc when that fails.
    explicit ExrOutputStream(const char* fileName);
    ExrOutputStream(const ExrOutputStream&) = delete;
    ExrOutputStream& operator=(const ExrOutputStream&) = delete;
    ~ExrOutputStream() override;

    /// These throw Iex::ErrnoExc, as OpenEXR expects.
    void write(const char* bytes, int count) override;
    std::uint64_t tellp() override { return m_position; }
    void seekp(std::uint64_t position) override;

    /// Hands everything to the system and closes the file: true when every byte got there, since the stream
    /// was made. To be called once no OpenEXR object uses the stream any more.
    [[nodiscard]] bool close() noexcept;

private:
    void throwError();

    FilePtr m_file;
    std::uint64_t m_position = 0;
    bool m_failed = false;
};

} // namespace QUtils
