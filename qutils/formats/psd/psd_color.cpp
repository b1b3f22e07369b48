#include "qutils/formats/psd/psd_color.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <emmintrin.h>
#include <xmmintrin.h>

namespace QUtils {

// --- Samples ---------------------------------------------------------------------------------------------

void psdSamplesToFloat(
    unsigned depth, const std::uint8_t* row, std::size_t first, std::size_t count, float* samples)
{
    if (depth == 8) {
        for (std::size_t i = 0; i < count; ++i)
            samples[i] = float(row[first + i]) / 255.0f;
    } else if (depth == 16) {
        const std::uint8_t* const from = row + first * 2;
        for (std::size_t i = 0; i < count; ++i)
            samples[i] = float(from[i * 2] << 8 | from[i * 2 + 1]) / 65535.0f;
    } else if (depth == 32) {
        for (std::size_t i = 0; i < count; ++i) {
            std::uint32_t bits = 0;
            std::memcpy(&bits, row + (first + i) * 4, sizeof bits);
            bits = __builtin_bswap32(bits);
            std::memcpy(samples + i, &bits, sizeof bits);
        }
    } else {
        for (std::size_t i = first; i < first + count; ++i)
            samples[i - first] = float(row[i / 8] >> (7 - i % 8) & 1);
    }
}

// --- Transparency ----------------------------------------------------------------------------------------

namespace {

/// Where a and b of Lab are 0.
float neutral(unsigned depth)
{
    return depth == 8 ? 128.0f / 255.0f : depth == 16 ? 32768.0f / 65535.0f : 0.5f;
}

} // namespace

float psdWhite(PsdMode mode, unsigned depth, std::size_t component)
{
    if (mode == PsdMode::Bitmap)
        return 0.0f;
    return mode == PsdMode::Lab && component > 0 ? neutral(depth) : 1.0f;
}

namespace {

/// Four samples and their transparency.
__m128 freedFromWhite(__m128 sample, __m128 alpha, __m128 white, bool isBounded)
{
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const __m128 isMixed = _mm_and_ps(_mm_cmpgt_ps(alpha, zero), _mm_cmplt_ps(alpha, one));
    const auto select = [&](__m128 mixed, __m128 other) {
        return _mm_or_ps(_mm_and_ps(isMixed, mixed), _mm_andnot_ps(isMixed, other));
    };
    __m128 color = _mm_add_ps(white, _mm_div_ps(_mm_sub_ps(sample, white), select(alpha, one)));
    if (isBounded)
        color = _mm_min_ps(_mm_max_ps(color, zero), one);
    return select(color, sample);
}

} // namespace

void freeFromWhite(float* samples, const float* transparency, float white, bool isBounded, std::size_t count)
{
    const __m128 whites = _mm_set1_ps(white);
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4)
        _mm_storeu_ps(samples + i,
            freedFromWhite(_mm_loadu_ps(samples + i), _mm_loadu_ps(transparency + i), whites, isBounded));
    for (; i < count; ++i)
        _mm_store_ss(samples + i,
            freedFromWhite(_mm_load_ss(samples + i), _mm_load_ss(transparency + i), whites, isBounded));
}

// --- Colours ---------------------------------------------------------------------------------------------

namespace {

/// `rgbOf(i, rgb)` stores the colour of pixel i.
template <typename RgbOf>
void interleave(const float* alpha, float* rgba, std::size_t count, const RgbOf& rgbOf)
{
    for (std::size_t i = 0; i < count; ++i) {
        rgbOf(i, rgba + i * 4);
        rgba[i * 4 + 3] = alpha[i];
    }
}

float toSrgb(float linear)
{
    if (!(linear > 0.0f))
        return 0.0f;
    const float encoded
        = linear <= 0.0031308f ? 12.92f * linear : 1.055f * std::pow(linear, 1.0f / 2.4f) - 0.055f;
    return std::min(encoded, 1.0f);
}

/// CIE 15: the inverse of the function of L*, a* and b*.
float fromLabAxis(float t)
{
    constexpr float delta = 6.0f / 29.0f;
    return t > delta ? t * t * t : 3.0f * delta * delta * (t - 4.0f / 29.0f);
}

/// Lab relative to the white D50, to sRGB by the matrix that has that white adapted (Bradford).
void labToRgb(float lightness, float a, float b, float* rgb)
{
    const float y = (lightness + 16.0f) / 116.0f;
    const float X = 0.96422f * fromLabAxis(y + a / 500.0f), Y = fromLabAxis(y),
                Z = 0.82521f * fromLabAxis(y - b / 200.0f);
    rgb[0] = toSrgb(3.1338561f * X - 1.6168667f * Y - 0.4906146f * Z);
    rgb[1] = toSrgb(-0.9787684f * X + 1.9161415f * Y + 0.0334540f * Z);
    rgb[2] = toSrgb(0.0719453f * X - 0.2289914f * Y + 1.4052427f * Z);
}

void rgbRow(const PsdComponents& from, float* rgba, std::size_t count)
{
    std::size_t x = 0;
    for (; x + 4 <= count; x += 4) {
        __m128 r = _mm_loadu_ps(from.color[0] + x), g = _mm_loadu_ps(from.color[1] + x);
        __m128 b = _mm_loadu_ps(from.color[2] + x), a = _mm_loadu_ps(from.alpha + x);
        _MM_TRANSPOSE4_PS(r, g, b, a);
        _mm_storeu_ps(rgba + x * 4, r);
        _mm_storeu_ps(rgba + x * 4 + 4, g);
        _mm_storeu_ps(rgba + x * 4 + 8, b);
        _mm_storeu_ps(rgba + x * 4 + 12, a);
    }
    interleave(from.alpha + x, rgba + x * 4, count - x, [&](std::size_t i, float* rgb) {
        for (std::size_t c = 0; c < 3; ++c)
            rgb[c] = from.color[c][x + i];
    });
}

void labRow(unsigned depth, const PsdComponents& from, float* rgba, std::size_t count)
{
    // Steps of a and b: a unit is one step of 8 bits, or 256 of 16.
    const float scale = depth == 8 ? 255.0f : 65535.0f / 256.0f;
    const float zero = neutral(depth);
    interleave(from.alpha, rgba, count, [&](std::size_t i, float* rgb) {
        labToRgb(from.color[0][i] * 100.0f, (from.color[1][i] - zero) * scale,
            (from.color[2][i] - zero) * scale, rgb);
    });
}

void inkRow(const PsdComponents& from, float* rgba, std::size_t count)
{
    interleave(from.alpha, rgba, count, [&](std::size_t i, float* rgb) {
        const float black = from.color[3][i];
        for (std::size_t c = 0; c < 3; ++c)
            rgb[c] = from.color[c][i] * black;
    });
}

} // namespace

void psdComponentsToRgba(
    const PsdHeader& header, const PsdComponents& components, float* rgba, std::size_t count)
{
    const PsdComponents& from = components;
    if (header.mode == PsdMode::Lab)
        labRow(header.depth, from, rgba, count);
    else if (header.mode == PsdMode::Bitmap)
        interleave(from.alpha, rgba, count,
            [&](std::size_t i, float* rgb) { rgb[0] = rgb[1] = rgb[2] = 1.0f - from.color[0][i]; });
    else if (header.colorChannels() == 1)
        interleave(from.alpha, rgba, count,
            [&](std::size_t i, float* rgb) { rgb[0] = rgb[1] = rgb[2] = from.color[0][i]; });
    else if (header.colorChannels() == 4)
        inkRow(from, rgba, count);
    else
        rgbRow(from, rgba, count);
}

// --- Bytes -----------------------------------------------------------------------------------------------

namespace {

constexpr std::size_t lanes = 16;

__m128i load(const std::uint8_t* plane, std::size_t x)
{
    return plane ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(plane + x)) : _mm_set1_epi8(-1);
}

/// Sixteen pixels of four planes: words whose bytes are, from the lowest, of first, second, third, fourth.
void weave(__m128i first, __m128i second, __m128i third, __m128i fourth, __m128i (&words)[4])
{
    const __m128i low12 = _mm_unpacklo_epi8(first, second), high12 = _mm_unpackhi_epi8(first, second);
    const __m128i low34 = _mm_unpacklo_epi8(third, fourth), high34 = _mm_unpackhi_epi8(third, fourth);
    words[0] = _mm_unpacklo_epi16(low12, low34);
    words[1] = _mm_unpackhi_epi16(low12, low34);
    words[2] = _mm_unpacklo_epi16(high12, high34);
    words[3] = _mm_unpackhi_epi16(high12, high34);
}

/// Four pixels R, G, B, A of bytes.
void storeFloats(__m128i bytes, float* rgba)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128 most = _mm_set1_ps(255.0f);
    const __m128i low = _mm_unpacklo_epi8(bytes, zero), high = _mm_unpackhi_epi8(bytes, zero);
    const __m128i pixels[4] = { _mm_unpacklo_epi16(low, zero), _mm_unpackhi_epi16(low, zero),
        _mm_unpacklo_epi16(high, zero), _mm_unpackhi_epi16(high, zero) };
    for (std::size_t i = 0; i < 4; ++i)
        _mm_storeu_ps(rgba + i * 4, _mm_div_ps(_mm_cvtepi32_ps(pixels[i]), most));
}

} // namespace

void psdBytesToRgba(const std::uint8_t* const (&planes)[4], float* rgba, std::size_t count)
{
    std::size_t x = 0;
    for (; x + lanes <= count; x += lanes) {
        __m128i words[4];
        weave(load(planes[0], x), load(planes[1], x), load(planes[2], x), load(planes[3], x), words);
        for (std::size_t i = 0; i < 4; ++i)
            storeFloats(words[i], rgba + (x + i * 4) * 4);
    }
    for (; x < count; ++x)
        for (std::size_t c = 0; c < 4; ++c)
            rgba[x * 4 + c] = planes[c] ? float(planes[c][x]) / 255.0f : 1.0f;
}

void psdBytesToPacked(const std::uint8_t* const (&planes)[4], std::uint32_t* argb, std::size_t count)
{
    std::size_t x = 0;
    for (; x + lanes <= count; x += lanes) {
        __m128i words[4];
        weave(load(planes[2], x), load(planes[1], x), load(planes[0], x), load(planes[3], x), words);
        for (std::size_t i = 0; i < 4; ++i)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(argb + x + i * 4), words[i]);
    }
    for (; x < count; ++x)
        argb[x] = std::uint32_t(planes[3] ? planes[3][x] : 0xFF) << 24 | std::uint32_t(planes[0][x]) << 16
            | std::uint32_t(planes[1][x]) << 8 | planes[2][x];
}

} // namespace QUtils
