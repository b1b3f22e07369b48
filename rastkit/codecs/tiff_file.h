#pragma once

#include "rastkit/codecs/tiff.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// A TIFF that is being read or written, closed on every path. Null after a failed open.
class TiffFile {
public:
    TiffFile(const char* name, const char* mode) : m_tiff(my_TIFFOpen(name, mode)) { }
    TiffFile(const TiffFile&) = delete;
    TiffFile& operator=(const TiffFile&) = delete;
    ~TiffFile() { close(); }

    operator TIFF*() const { return m_tiff; }
    explicit operator bool() const { return m_tiff != nullptr; }

    /// Gives the handle up without closing it.
    void release() { m_tiff = nullptr; }
    /// Closes now. False when anything of a written file did not reach the system, its directory included,
    /// which libtiff itself tells nobody. True when there is nothing to close.
    bool close();

private:
    TIFF* m_tiff;
};

/// Room for the bytes of an uncompressed strip that is written next, so that they need not be copied on their
/// way. It is good until anything else is read or written. Null where there is none.
void* tiffRoom(TIFF* tiff, std::size_t bytes);

/// Bytes of the file behind a handle of my_TIFFOpen.
std::uint64_t tiffFileBytes(TIFF* tiff);

/// Reads so many bytes of that file, past libtiff and its position. False when there are not as many.
[[nodiscard]] bool tiffReadAt(TIFF* tiff, std::uint64_t offset, void* to, std::size_t count);

/// How many bytes one byte of data can become that is compressed in this way (tag 259), at most.
std::uint64_t tiffExpansion(unsigned compression);

/// Whether the file has so many bytes in it once they are decompressed. What is that large needs a file that
/// is not tiny, however strong the compression.
bool tiffCanFill(TIFF* tiff, std::uint64_t expansion, std::uint64_t bytes);

} // namespace QUtils
