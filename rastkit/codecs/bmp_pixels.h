#pragma once

#include "rastkit/codecs/bmp_layout.h"
#include "rastkit/model/pixel_kernels.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace QUtils {

/// One sample of a pixel, which a mask picks, as a byte: scaled by its greatest value and rounded to nearest.
class BmpSample {
public:
    /// A mask of 0 makes all samples `absent`.
    BmpSample(std::uint32_t mask, std::uint8_t absent);

    std::uint32_t of(std::uint32_t pixel) const
    {
        const std::uint64_t number = (pixel & m_mask) >> m_shift;
        return m_greatest <= UINT8_MAX ? m_bytes[number]
                                       : std::uint32_t((number * 255 + m_greatest / 2) / m_greatest);
    }

private:
    std::uint32_t m_mask, m_greatest;
    int m_shift;
    std::array<std::uint8_t, 256> m_bytes {}; ///< By number, where a byte holds it.
};

/// Turns the stored pixels of one image into packed ones; not those of run-length encoded images.
class BmpPixelDecoder {
public:
    /// `layout` outlives the decoder.
    explicit BmpPixelDecoder(const BmpLayout& layout);

    /// The first `count` pixels of a row of `byteCount` bytes. What is behind these counts as 0.
    void decode(
        const std::uint8_t* bytes, std::size_t byteCount, std::uint32_t* argb, std::size_t count) const;

private:
    void decodeStored(const std::uint8_t* bytes, std::uint32_t* argb, std::size_t count) const;
    template <std::size_t pixelBytes>
    void decodeMasked(const std::uint8_t* bytes, std::uint32_t* argb, std::size_t count) const;

    const BmpLayout& m_layout;
    BmpSample m_red, m_green, m_blue, m_alpha;
    PixelArrangement m_arrangement {}; ///< Of masks that are whole bytes.
    bool m_arranges = false;
};

} // namespace QUtils
