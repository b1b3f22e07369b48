#pragma once

#include "qutils/formats/psd/psd_document.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace QUtils {

/// How the samples of a channel are stored.
enum class PsdCompression : std::uint16_t { Raw = 0, RunLength = 1, Zip = 2, ZipPrediction = 3 };

/// The samples of one channel, as the file has them: rows of bits, bytes, or numbers with their most
/// significant byte first.
struct PsdPlane {
    std::unique_ptr<std::uint8_t[]> bytes; ///< Null for a plane without pixels.
    std::uint64_t rowBytes = 0;
    std::uint64_t rows = 0;

    const std::uint8_t* row(std::uint64_t y) const { return bytes.get() + y * rowBytes; }
    explicit operator bool() const { return bytes != nullptr; }
};

/// What is to be decoded: planes of one size behind each other.
struct PsdPlaneLayout {
    std::uint64_t width = 0, rows = 0;
    unsigned depth = 8;
    bool isLarge = false; ///< Run-length counts have 32 bits.
    std::uint64_t end = 0; ///< Of the data in the file.

    std::uint64_t rowBytes() const { return (width * depth + 7) / 8; }
};

/// How many bytes a byte of the file can become, at most: by ZIP.
constexpr std::uint64_t psdMostExpansion = 1032;

/// Whether the data, from the number of their compression on, are enough for the first `count` of `all`
/// planes that are compressed together, as far as their size says. Errors: PSD_ERROR_READ too few;
/// PSD_ERROR_FORMAT another compression.
PSD_Error checkPsdPlanes(PsdSource& source, const PsdPlaneLayout& layout, std::size_t all, std::size_t count);

/// Reads `planes.size()` planes that are compressed together, from the number of their compression on; where
/// `wanted` says 0 the plane is passed over and stays empty.
///
/// No memory is taken for planes that the data cannot fill, whatever they are compressed with.
/// Errors: PSD_ERROR_READ data missing or damaged; PSD_ERROR_FORMAT another compression. Throws
/// std::bad_alloc.
PSD_Error readPsdPlanes(PsdSource& source, const PsdPlaneLayout& layout, const std::vector<char>& wanted,
    std::vector<PsdPlane>& planes);

/// Unpacks a run-length row: bytes past its end are dropped. False when the row is not filled.
bool unpackPsdRow(
    const std::uint8_t* packed, std::size_t packedBytes, std::uint8_t* row, std::size_t rowBytes);

/// Undoes the prediction of one row in place; `scratch` has as many bytes.
void undoPsdPrediction(std::uint8_t* row, std::size_t rowBytes, unsigned depth, std::uint8_t* scratch);

} // namespace QUtils
