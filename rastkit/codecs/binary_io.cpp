#include "rastkit/codecs/binary_io.h"

#include "rastkit/codecs/byte_order.h"
#include "rastkit/types.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace QUtils {

namespace {

constexpr int littleEndian = 1, bigEndian = 2;

/// The next bytes as one number; what is missing at the end of the file counts as 0.
template <std::size_t count> std::uint32_t readBigEndian(std::FILE* stream)
{
    std::uint8_t bytes[count] = {};
    // A short read shows on the stream, not here.
    [[maybe_unused]] const std::size_t got = std::fread(bytes, count, 1, stream);
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes)
        value = value << 8 | byte;
    return value;
}

template <std::size_t count> int writeBigEndian(std::FILE* stream, std::uint32_t value)
{
    std::uint8_t bytes[count];
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = std::uint8_t(value >> (8 * (count - 1 - i)));
    return int(std::fwrite(bytes, count, 1, stream));
}

} // namespace

int read_char(std::FILE* stream)
{
    return std::fgetc(stream);
}

int read_uchar(std::FILE* stream)
{
    return read_char(stream);
}

int read_short(std::FILE* stream)
{
    return int(readBigEndian<2>(stream));
}

int read_ushort(std::FILE* stream)
{
    return read_short(stream);
}

long read_long(std::FILE* stream)
{
    return long(readBigEndian<4>(stream));
}

long read_ulong(std::FILE* stream)
{
    return read_long(stream);
}

int write_char(std::FILE* stream, char value)
{
    return std::fputc(value, stream);
}

int write_uchar(std::FILE* stream, unsigned char value)
{
    return std::fputc(value, stream);
}

int write_short(std::FILE* stream, short value)
{
    return writeBigEndian<2>(stream, std::uint16_t(value));
}

int write_ushort(std::FILE* stream, unsigned short value)
{
    return writeBigEndian<2>(stream, value);
}

int write_long(std::FILE* stream, long value)
{
    return writeBigEndian<4>(stream, std::uint32_t(value));
}

int write_ulong(std::FILE* stream, unsigned long value)
{
    return writeBigEndian<4>(stream, std::uint32_t(value));
}

int detect_endianines()
{
    // Threads that meet here store the same answer.
    static std::atomic<int> endiannes { 0 };
    int order = endiannes.load(std::memory_order_relaxed);
    if (order == 0) {
        const std::uint16_t one = 1;
        std::uint8_t first = 0;
        std::memcpy(&first, &one, 1);
        order = first == 1 ? littleEndian : bigEndian;
        endiannes.store(order, std::memory_order_relaxed);
    }
    return order;
}

void fwrite_float(std::FILE* stream, float value)
{
    std::uint8_t bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    const bool reversed = detect_endianines() == littleEndian;
    for (std::size_t i = 0; i < sizeof value; ++i)
        if (std::fputc(bytes[reversed ? sizeof value - 1 - i : i], stream) == EOF)
            throw IMGERR_WRITE;
}

} // namespace QUtils
