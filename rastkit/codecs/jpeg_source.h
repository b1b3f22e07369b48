#pragma once

#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/jpeg_fence.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// What a decompressor reads from.
struct JpegSource : jpeg_source_mgr {
    /// Bytes of the whole input; of a stream that nobody knows the length of, what it may count as.
    std::uint64_t byteCount;

protected:
    explicit JpegSource(std::uint64_t bytes);
};

/// A file, in large blocks. At its end libjpeg gets an end marker in place of the missing bytes, so that it
/// delivers all rows, those that it has no data for too; a file without any byte is an error.
struct JpegFileSource : JpegSource {
    explicit JpegFileSource(std::FILE* file);

    BlockReader blocks;
    bool hasBegun = false;
};

/// A block of memory, handed over at once.
struct JpegMemorySource : JpegSource {
    /// What happens at the end: an error, or an end marker as with files.
    enum class AtEnd { Error, EndMarker };

    JpegMemorySource(const unsigned char* data, std::size_t size, AtEnd behaviour);

    AtEnd atEnd;
};

} // namespace QUtils
