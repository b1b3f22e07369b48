#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <tiffio.h>
#include <vector>

namespace testing_support {

/// A TIFF file as libtiff itself reads it, without any of this library's code.
class OpenTiff {
public:
    explicit OpenTiff(const std::string& name) : m_tiff(TIFFOpen(name.c_str(), "r")) { }
    OpenTiff(const OpenTiff&) = delete;
    OpenTiff& operator=(const OpenTiff&) = delete;
    ~OpenTiff()
    {
        if (m_tiff)
            TIFFClose(m_tiff);
    }

    explicit operator bool() const { return m_tiff != nullptr; }

    /// A tag of one number; 0 when it is not there.
    unsigned int number(std::uint32_t tag) const
    {
        const TIFFField* const field = TIFFFieldWithTag(m_tiff, tag);
        if (TIFFFieldDataType(field) == TIFF_SHORT) {
            std::uint16_t value = 0;
            return TIFFGetFieldDefaulted(m_tiff, tag, &value) ? value : 0u;
        }
        std::uint32_t value = 0;
        return TIFFGetFieldDefaulted(m_tiff, tag, &value) ? value : 0u;
    }

    bool has(std::uint32_t tag) const
    {
        std::uint16_t count = 0;
        std::uint16_t* values = nullptr;
        return TIFFGetField(m_tiff, tag, &count, &values) == 1;
    }

    int extraSample() const
    {
        std::uint16_t count = 0;
        std::uint16_t* values = nullptr;
        return TIFFGetField(m_tiff, TIFFTAG_EXTRASAMPLES, &count, &values) && count > 0 ? values[0] : -1;
    }

    /// The samples of component `component` in row `y`, of 8, 16 or 32 bits; floats as their bits.
    std::vector<std::uint32_t> row(int y, int component) const
    {
        const bool interleaved = number(TIFFTAG_PLANARCONFIG) == PLANARCONFIG_CONTIG;
        const std::size_t width = number(TIFFTAG_IMAGEWIDTH), bytes = number(TIFFTAG_BITSPERSAMPLE) / 8;
        const std::size_t step = interleaved ? number(TIFFTAG_SAMPLESPERPIXEL) : 1;
        std::vector<std::uint8_t> stored(std::size_t(TIFFScanlineSize(m_tiff)));
        EXPECT_EQ(
            TIFFReadScanline(m_tiff, stored.data(), unsigned(y), std::uint16_t(interleaved ? 0 : component)),
            1);
        std::vector<std::uint32_t> samples(width);
        for (std::size_t x = 0; x < width; ++x)
            std::memcpy(&samples[x],
                stored.data() + (x * step + (interleaved ? std::size_t(component) : 0)) * bytes, bytes);
        return samples;
    }

private:
    TIFF* m_tiff;
};

/// Writes an RGB file of strips of one row, unless said, with TIFFWriteScanline, without any of this
/// library's code.
inline void writeScanlines(const std::string& name, int width, int height, int samples, int bits,
    bool interleaved, const std::function<std::uint32_t(int x, int y, int component)>& sampleAt,
    int rowsPerStrip = 1)
{
    TIFF* const tiff = TIFFOpen(name.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, interleaved ? PLANARCONFIG_CONTIG : PLANARCONFIG_SEPARATE);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, bits == 32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
    const std::size_t bytes = std::size_t(bits) / 8;
    for (int y = 0; y < height; ++y)
        for (int plane = 0; plane < (interleaved ? 1 : samples); ++plane) {
            std::vector<std::uint8_t> row;
            for (int x = 0; x < width; ++x)
                for (int c = interleaved ? 0 : plane; c < (interleaved ? samples : plane + 1); ++c) {
                    const std::uint32_t sample = sampleAt(x, y, c);
                    const auto* const first = reinterpret_cast<const std::uint8_t*>(&sample);
                    row.insert(row.end(), first, first + bytes);
                }
            ASSERT_EQ(TIFFWriteScanline(tiff, row.data(), unsigned(y), std::uint16_t(plane)), 1);
        }
    TIFFClose(tiff);
}

} // namespace testing_support
