#pragma once

#include "rastkit/tile_cache.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// How the floats of a tile are stored. The kinds of bytes are those that the TIFF loader delivers; b is 0 to
/// 255.
enum class TileEncoding : std::uint8_t {
    Byte255, ///< b times the float nearest to 1 / 255.
    Byte256, ///< b / 256: what libtiff converted.
    ByteInverted, ///< White is 0: 1 less (255 - b) / 255.
    BytePalette, ///< Colours of a palette that repeats 8 bits in 16: 257 b / 65535.
    Half,
    Float,
};

TileSample sampleOf(TileEncoding encoding);
std::size_t sampleBytes(TileEncoding encoding);

/// The one to try first for a format, and the one to try after one that did not fit; Float always fits.
TileEncoding firstEncoding(bool isExr, int bitsPerSample);
TileEncoding nextEncoding(TileEncoding encoding);

/// The 256 floats that bytes stand for, or null.
const float* byteValues(TileEncoding encoding);

/// Stores floats. False when they would not be the same again, to the bit; what is stored is undefined then.
[[nodiscard]] bool encodeSamples(
    TileEncoding encoding, const float* samples, void* stored, std::size_t count);

/// The floats of `count` samples from number `first` on.
void decodeSamples(
    TileEncoding encoding, const void* stored, std::size_t first, float* samples, std::size_t count);

} // namespace QUtils
