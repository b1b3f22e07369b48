#pragma once

#include "qutils/formats/dds/dds_format.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace QUtils {

/// The colours of a file with a palette: red, green, blue, and alpha or flags of each.
struct DdsPalette {
    static constexpr std::size_t byteSize = 1024;

    std::uint8_t bytes[byteSize];
};

/// Turns stored units into rows of pixels. A unit is a pixel, a pair of pixels or a block of 4 x 4, and has
/// so many rows. Which of the two functions counts is told by the format.
class DdsDecoder {
public:
    DdsDecoder() = default;
    DdsDecoder(const DdsDecoder&) = delete;
    DdsDecoder& operator=(const DdsDecoder&) = delete;
    virtual ~DdsDecoder();

    /// Words 0xAARRGGBB; does nothing for a format of floats, and the other one nothing for bytes.
    virtual void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const;
    /// Floats red, green, blue and alpha.
    virtual void floats(const std::uint8_t* units, std::size_t count, float* const* rows) const;
};

/// Null when memory is refused or the format is unknown. The palette is copied; it counts for Palette8 only.
std::unique_ptr<DdsDecoder> makeDdsDecoder(const DdsFormat& format, const DdsPalette& palette);

} // namespace QUtils
