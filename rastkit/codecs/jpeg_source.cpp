#include "rastkit/codecs/jpeg_source.h"

#include <algorithm>
#include <sys/stat.h>

namespace QUtils {

namespace {

constexpr std::size_t blockBytes = std::size_t(256) << 10;
/// Enough for pictures of eight thousand pixels a side, however small they may be when they have arrived.
constexpr std::uint64_t streamBytes = std::uint64_t(512) << 10;

constexpr JOCTET endMarker[] = { 0xFF, JPEG_EOI };

j_common_ptr common(j_decompress_ptr decoder)
{
    return reinterpret_cast<j_common_ptr>(decoder);
}

// The manager's five routines. The fifth, for restart markers, is libjpeg's own.

void initSource(j_decompress_ptr) { }

void termSource(j_decompress_ptr) { }

void supplyEndMarker(j_decompress_ptr decoder)
{
    decoder->err->msg_code = JWRN_JPEG_EOF;
    decoder->err->emit_message(common(decoder), -1);
    decoder->src->next_input_byte = endMarker;
    decoder->src->bytes_in_buffer = sizeof endMarker;
}

boolean fillFromMemory(j_decompress_ptr decoder)
{
    // All there is was handed over at once.
    if (static_cast<JpegMemorySource*>(decoder->src)->atEnd == JpegMemorySource::AtEnd::Error)
        raiseJpegError(common(decoder), JERR_INPUT_EMPTY);
    supplyEndMarker(decoder);
    return TRUE;
}

/// Skipping more than there is leaves nothing, so that the next read meets the end.
void skipInMemory(j_decompress_ptr decoder, long count)
{
    jpeg_source_mgr& source = *decoder->src;
    if (count < 1)
        return;
    const std::size_t skipped = std::min(std::size_t(count), source.bytes_in_buffer);
    source.next_input_byte += skipped;
    source.bytes_in_buffer -= skipped;
}

/// False at the end of the file.
bool readBlock(JpegFileSource& source)
{
    source.next_input_byte = source.blocks.take(blockBytes, source.bytes_in_buffer);
    source.hasBegun = source.hasBegun || source.bytes_in_buffer != 0;
    return source.bytes_in_buffer != 0;
}

boolean fillFromFile(j_decompress_ptr decoder)
{
    JpegFileSource& source = *static_cast<JpegFileSource*>(decoder->src);
    if (readBlock(source))
        return TRUE;
    if (!source.blocks.isValid())
        raiseJpegError(common(decoder), JERR_OUT_OF_MEMORY);
    if (!source.hasBegun)
        raiseJpegError(common(decoder), JERR_INPUT_EMPTY);
    supplyEndMarker(decoder);
    return TRUE;
}

void skipInFile(j_decompress_ptr decoder, long count)
{
    JpegFileSource& source = *static_cast<JpegFileSource*>(decoder->src);
    if (count < 1)
        return;
    std::size_t left = std::size_t(count);
    while (left > source.bytes_in_buffer) {
        left -= source.bytes_in_buffer;
        if (!readBlock(source))
            return;
    }
    source.next_input_byte += left;
    source.bytes_in_buffer -= left;
}

std::uint64_t bytesOf(std::FILE* file)
{
    struct stat status;
    const bool isKnown = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    return isKnown ? std::uint64_t(status.st_size) : streamBytes;
}

} // namespace

JpegSource::JpegSource(std::uint64_t bytes) : jpeg_source_mgr(), byteCount(bytes)
{
    init_source = initSource;
    resync_to_restart = jpeg_resync_to_restart;
    term_source = termSource;
}

JpegFileSource::JpegFileSource(std::FILE* file) : JpegSource(bytesOf(file)), blocks(file)
{
    fill_input_buffer = fillFromFile;
    skip_input_data = skipInFile;
}

JpegMemorySource::JpegMemorySource(const unsigned char* data, std::size_t size, AtEnd behaviour)
    : JpegSource(size), atEnd(behaviour)
{
    fill_input_buffer = fillFromMemory;
    skip_input_data = skipInMemory;
    next_input_byte = data;
    bytes_in_buffer = size;
}

} // namespace QUtils
