#pragma once

#include "qutils/formats/dds/block_kernels.h"

#include <bit>
#include <cstring>

// What the files of the decoders share: the levels' functions, and words of blocks.

namespace QUtils {

static_assert(std::endian::native == std::endian::little, "blocks are read as words");

inline std::uint32_t loadWord(const std::uint8_t* bytes)
{
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

inline std::uint64_t loadLong(const std::uint8_t* bytes)
{
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

namespace scalar_blocks {

void bc1(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc2(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc3(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc4(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc5(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc7(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void arrange(
    const ByteArrangement& arrangement, const std::uint8_t* pixels, std::size_t count, std::uint32_t* argb);

} // namespace scalar_blocks

namespace sse41_blocks {

void bc1(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc2(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc3(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc4(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc5(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void bc7(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows);
void arrange(
    const ByteArrangement& arrangement, const std::uint8_t* pixels, std::size_t count, std::uint32_t* argb);

} // namespace sse41_blocks

} // namespace QUtils
