#pragma once

#include "rastkit/model/byte_reader.h"
#include "rastkit/model/byte_writer.h"

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace QUtils {

// The headers of a Windows bitmap: a file header, then an information header that names its own size.

/// "BM" as a number.
constexpr std::uint16_t bmpMagic = 0x4D42;
/// Rows are padded to a multiple of so many bytes.
constexpr std::uint64_t bmpRowAlignment = 4;
/// The most entries that a palette can use.
constexpr std::size_t bmpPaletteSize = 256;

/// The compression field of the information header.
enum BmpCompression : std::uint32_t {
    BMP_RGB = 0, ///< None.
    BMP_RLE8 = 1,
    BMP_RLE4 = 2,
    BMP_BITFIELDS = 3, ///< None, with masks that say where red, green and blue are.
    BMP_ALPHABITFIELDS = 6, ///< With a mask for alpha besides.
};

/// Sizes of information headers, by which their versions are told apart. All sizes from 16 to 64 that are
/// none of these are cut forms of the OS/2 2.x header.
enum BmpHeaderSize : std::uint32_t {
    BMP_HEADER_CORE = 12, ///< OS/2 1.x: sizes of 16 bits, palette entries of three bytes.
    BMP_HEADER_SHORTEST_OS2 = 16,
    BMP_HEADER_INFO = 40,
    BMP_HEADER_V2 = 52, ///< With three masks.
    BMP_HEADER_V3 = 56, ///< With four.
    BMP_HEADER_OS2 = 64,
    BMP_HEADER_V4 = 108,
    BMP_HEADER_V5 = 124,
};

/// The first 14 bytes of a file.
struct BmpFileHeader {
    static constexpr std::size_t byteSize = 14;

    std::uint16_t magic = bmpMagic;
    std::uint32_t fileSize = 0;
    std::uint32_t dataOffset = 0; ///< Of the pixels, from the beginning of the file.
};

/// The information header as most files have it, 40 bytes.
struct BmpInfoHeader {
    static constexpr std::size_t byteSize = BMP_HEADER_INFO;

    std::uint32_t headerSize = byteSize;
    std::int32_t width = 0, height = 0;
    std::uint16_t planes = 1, bits = 0;
    std::uint32_t compression = BMP_RGB, imageSize = 0;
    std::uint32_t horizontalResolution = 0, verticalResolution = 0;
    std::uint32_t colorsUsed = 0, colorsImportant = 0;
};

inline BmpFileHeader parseBmpFileHeader(const std::uint8_t* bytes)
{
    ByteReader in(bytes, BmpFileHeader::byteSize);
    BmpFileHeader h;
    h.magic = in.u16le();
    h.fileSize = in.u32le();
    in.skip(4); // Reserved.
    h.dataOffset = in.u32le();
    assert(in.ok() && in.atEnd());
    return h;
}

inline BmpInfoHeader parseBmpInfoHeader(const std::uint8_t* bytes)
{
    ByteReader in(bytes, BmpInfoHeader::byteSize);
    BmpInfoHeader h;
    h.headerSize = in.u32le();
    h.width = std::int32_t(in.u32le());
    h.height = std::int32_t(in.u32le());
    h.planes = in.u16le();
    h.bits = in.u16le();
    h.compression = in.u32le();
    h.imageSize = in.u32le();
    h.horizontalResolution = in.u32le();
    h.verticalResolution = in.u32le();
    h.colorsUsed = in.u32le();
    h.colorsImportant = in.u32le();
    assert(in.ok() && in.atEnd());
    return h;
}

/// The header of OS/2 1.x, 12 bytes.
inline BmpInfoHeader parseBmpCoreHeader(const std::uint8_t* bytes)
{
    ByteReader in(bytes, BMP_HEADER_CORE);
    BmpInfoHeader h;
    h.headerSize = in.u32le();
    h.width = in.u16le();
    h.height = in.u16le();
    h.planes = in.u16le();
    h.bits = in.u16le();
    assert(in.ok() && in.atEnd());
    return h;
}

inline void storeBmpHeaders(const BmpFileHeader& file, const BmpInfoHeader& info, std::uint8_t* bytes)
{
    ByteWriter out(bytes, BmpFileHeader::byteSize + BmpInfoHeader::byteSize);
    out.u16le(file.magic);
    out.u32le(file.fileSize);
    out.zeros(4);
    out.u32le(file.dataOffset);
    out.u32le(info.headerSize);
    out.u32le(std::uint32_t(info.width));
    out.u32le(std::uint32_t(info.height));
    out.u16le(info.planes);
    out.u16le(info.bits);
    out.u32le(info.compression);
    out.u32le(info.imageSize);
    out.u32le(info.horizontalResolution);
    out.u32le(info.verticalResolution);
    out.u32le(info.colorsUsed);
    out.u32le(info.colorsImportant);
    assert(out.ok() && out.atEnd());
}

/// `bytes` rounded up to whole units of padding.
constexpr std::uint64_t paddedBmpRow(std::uint64_t bytes)
{
    return (bytes + bmpRowAlignment - 1) / bmpRowAlignment * bmpRowAlignment;
}

} // namespace QUtils
