#pragma once

#include "qutils/export.h"
#include "qutils/formats/rgbe.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace QUtils {

// What the routines of rgbe.h and the codec share. Not installed; exported for the library above.

/// The text header, line by line.
class QUTILS_API RgbeHeaderParser {
public:
    /// Of a longer line the rest is not looked at.
    static constexpr std::size_t mostLineBytes = 2047;
    /// A file may not hide its end behind a line of text.
    static constexpr std::size_t longestLineBytes = std::size_t(64) << 10;
    enum class State { WantsLine, Done, Broken };

    /// Takes the next line, without its end.
    State take(std::string_view line);

    const rgbe_header_info& info() const { return m_info; }
    bool isXyz() const { return m_isXyz; }
    /// Columns first: the scanlines of the file are columns of the picture.
    bool isXFirst() const { return m_isXFirst; }
    bool isBottomUp() const { return m_isBottomUp; }
    bool isRightToLeft() const { return m_isRightToLeft; }
    int width() const { return m_width; }
    int height() const { return m_height; }

private:
    State takeVariable(std::string_view line);
    bool takeResolution(std::string_view line);

    rgbe_header_info m_info {};
    bool m_hasBegun = false, m_wantsResolution = false;
    bool m_isXyz = false, m_isXFirst = false, m_isBottomUp = false, m_isRightToLeft = false;
    int m_width = 0, m_height = 0;
};

/// The text that RGBE_WriteHeader writes.
QUTILS_API std::string rgbeHeaderText(int width, int height, const rgbe_header_info* info);

/// One scanline as four rows of bytes: red, green, blue, exponent. Each has room for more than its bytes, so
/// that short runs may be stored in whole registers.
struct RgbePlanes {
    static constexpr std::size_t slack = 144;

    static std::size_t byteCount(std::size_t width) { return 4 * (width + slack); }

    std::uint8_t* bytes; ///< `byteCount(width)` of them.
    std::size_t width;

    std::uint8_t* plane(std::size_t i) const { return bytes + i * (width + slack); }
};

/// Bytes in memory. `take` gives the next ones, or null when there are too few.
class RgbeMemory {
public:
    RgbeMemory(const std::uint8_t* begin, const std::uint8_t* end) : m_pos(begin), m_end(end) { }

    const std::uint8_t* take(std::size_t count)
    {
        if (std::size_t(m_end - m_pos) < count)
            return nullptr;
        m_pos += count;
        return m_pos - count;
    }
    /// Whether sixteen bytes more than those that were taken may be looked at.
    bool hasSlack() const { return m_end - m_pos >= 16; }
    const std::uint8_t* position() const { return m_pos; }

private:
    const std::uint8_t *m_pos, *m_end;
};

constexpr std::size_t rgbePixelBytes = 4;

/// The most bytes that a scanline takes: each byte of it in a run of its own.
inline std::uint64_t mostScanlineBytes(std::size_t width)
{
    return rgbePixelBytes + std::uint64_t(width) * rgbePixelBytes * 2;
}

/// Widths that the new run-length form is made for.
inline bool mayHaveRuns(std::size_t width)
{
    return width >= 8 && width <= 0x7FFF;
}

/// One plane of the new form: runs of 1 to 127 equal bytes, stretches of 1 to 128 different ones.
template <typename Source> bool decodeRgbePlane(Source& in, std::uint8_t* out, std::size_t width)
{
    for (std::size_t x = 0; x < width;) {
        const std::uint8_t* const code = in.take(2);
        if (!code)
            return false;
        const std::uint8_t first = code[0], value = code[1];
        const std::size_t count = first > 128 ? first - 128u : first;
        if (count == 0 || count > width - x)
            return false;
        if (first > 128) {
            std::memset(out + x, value, count);
        } else {
            out[x] = value;
            if (count > 1) {
                const std::uint8_t* const rest = in.take(count - 1);
                if (!rest)
                    return false;
                if (count <= 17 && in.hasSlack())
                    std::memcpy(out + x + 1, rest, 16); // The planes have room.
                else
                    std::memcpy(out + x + 1, rest, count - 1);
            }
        }
        x += count;
    }
    return true;
}

/// Whole pixels; 1, 1, 1 and n repeat the pixel before n times, further such ones at once 256 times as often
/// each. `pixel` is the first one.
template <typename Source>
bool decodeRgbePixels(Source& in, const std::uint8_t* pixel, const RgbePlanes& planes)
{
    std::uint8_t* const plane[4] = { planes.plane(0), planes.plane(1), planes.plane(2), planes.plane(3) };
    // Runs of no pixels take bytes, but not for ever.
    std::uint64_t left = mostScanlineBytes(planes.width) / rgbePixelBytes;
    std::uint64_t times = 1;
    for (std::size_t x = 0;;) {
        if (pixel[0] == 1 && pixel[1] == 1 && pixel[2] == 1) {
            const std::uint64_t count = pixel[3] * times;
            if (count != 0 && (x == 0 || count > planes.width - x))
                return false;
            for (std::uint8_t* const p : plane)
                if (count != 0)
                    std::memset(p + x, p[x - 1], std::size_t(count));
            x += std::size_t(count);
            times = std::min<std::uint64_t>(times << 8, std::uint64_t(1) << 32);
        } else {
            for (int i = 0; i < 4; ++i)
                plane[i][x] = pixel[i];
            ++x;
            times = 1;
        }
        if (x == planes.width)
            return true;
        pixel = --left != 0 ? in.take(rgbePixelBytes) : nullptr;
        if (!pixel)
            return false;
    }
}

/// Reads one scanline in whatever form it has. False when it breaks off or is broken.
template <typename Source> bool decodeRgbeScanline(Source& in, const RgbePlanes& planes)
{
    const std::uint8_t* const first = in.take(rgbePixelBytes);
    if (!first)
        return false;
    const bool isNewForm = mayHaveRuns(planes.width) && first[0] == 2 && first[1] == 2 && first[2] < 128;
    if (!isNewForm)
        return decodeRgbePixels(in, first, planes);
    if ((std::size_t(first[2]) << 8 | first[3]) != planes.width)
        return false;
    for (std::size_t i = 0; i < 4; ++i)
        if (!decodeRgbePlane(in, planes.plane(i), planes.width))
            return false;
    return true;
}

/// Conversions of pixels; every instruction set gives the same to the bit.
struct RgbeKernels {
    /// Pixels of a scanline to floats red, green, blue and 1.
    void (*toRgba)(const RgbePlanes& planes, std::size_t begin, float* rgba, std::size_t count);
    /// Floats red, green, blue to pixels of four bytes.
    void (*fromRgb)(const float* rgb, std::uint8_t* rgbe, std::size_t count);
};

enum class RgbeLevel { Scalar, Sse41, Avx2 };

/// The best of this processor.
QUTILS_API const RgbeKernels& rgbeKernels();
/// Those of one level, or null when this processor lacks it.
QUTILS_API const RgbeKernels* rgbeKernels(RgbeLevel level);

} // namespace QUtils
