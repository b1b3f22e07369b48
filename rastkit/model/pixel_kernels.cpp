#include "rastkit/model/pixel_kernels.h"

#include <bit>
#include <cpuid.h>
#include <cstring>
#include <immintrin.h>
#include <initializer_list>

// Each level is a namespace of functions that end in the next plainer one for the pixels that do not fill
// a register. Nothing outside the `target` functions may use their instructions, so the shared helpers of
// a level carry its attribute too.
#define TARGET_SSE41 [[gnu::target("sse4.1")]]
#define TARGET_AVX2 [[gnu::target("avx2,f16c")]]

namespace QUtils {

namespace {

constexpr std::uint32_t opaque = 0xFF000000u;

// The rules themselves. Comparisons are written so that a NaN fails them and becomes 0, which is also what
// the minimum and maximum instructions of the other levels do.
namespace scalar {

std::uint32_t truncatedByte(float value)
{
    float scaled = value * 255.0f;
    scaled = scaled > 0.0f ? scaled : 0.0f;
    scaled = scaled < 255.0f ? scaled : 255.0f;
    return std::uint32_t(scaled);
}

std::uint32_t roundedNumber(float value, float greatest)
{
    value = value > 0.0f ? value : 0.0f;
    value = value < 1.0f ? value : 1.0f;
    // From 2^23 on a float has no fraction: the addition itself rounds, halves to even.
    return std::bit_cast<std::uint32_t>(value * greatest + 0x1p23f) & 0x007FFFFF;
}

std::uint32_t roundedByte(float value)
{
    return roundedNumber(value, 255.0f);
}

std::uint32_t packed(std::uint32_t r, std::uint32_t g, std::uint32_t b, std::uint32_t a)
{
    return a << 24 | r << 16 | g << 8 | b;
}

void packTruncated(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, rgba += 4)
        argb[i] = packed(
            truncatedByte(rgba[0]), truncatedByte(rgba[1]), truncatedByte(rgba[2]), truncatedByte(rgba[3]));
}

void packRounded(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, rgba += 4)
        argb[i]
            = packed(roundedByte(rgba[0]), roundedByte(rgba[1]), roundedByte(rgba[2]), roundedByte(rgba[3]));
}

void unpackToFloat(const std::uint32_t* argb, float* rgba, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        rgba[0] = float(argb[i] >> 16 & 0xFF) / 255.0f;
        rgba[1] = float(argb[i] >> 8 & 0xFF) / 255.0f;
        rgba[2] = float(argb[i] & 0xFF) / 255.0f;
        rgba[3] = float(argb[i] >> 24) / 255.0f;
    }
}

void bgr24ToPacked(const std::uint8_t* bgr, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, bgr += 3)
        argb[i] = packed(bgr[2], bgr[1], bgr[0], 0xFF);
}

void packedToBgr24(const std::uint32_t* argb, std::uint8_t* bgr, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, bgr += 3) {
        bgr[0] = std::uint8_t(argb[i]);
        bgr[1] = std::uint8_t(argb[i] >> 8);
        bgr[2] = std::uint8_t(argb[i] >> 16);
    }
}

void greyToPacked(const std::uint8_t* grey, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        argb[i] = grey[i] * 0x010101u | opaque;
}

// A half has 1 sign, 5 exponent (bias 15) and 10 fraction bits, a float 1, 8 (bias 127) and 23.
constexpr std::uint32_t fractionShift = 23 - 10;
constexpr std::uint32_t rebias = std::uint32_t(127 - 15) << 23;

/// Denormals are scaled as whole numbers: a host that has switched denormal floats off still gets them.
float toFloat(std::uint16_t half)
{
    const std::uint32_t sign = (half & 0x8000u) << 16;
    const std::uint32_t magnitude = half & 0x7FFFu;
    std::uint32_t bits = (magnitude << fractionShift) + rebias;
    if (magnitude < 0x0400)
        bits = std::bit_cast<std::uint32_t>(float(magnitude) * 0x1p-24f);
    if (magnitude >= 0x7C00)
        bits += rebias;
    if (magnitude > 0x7C00)
        bits |= 0x00400000; // A signalling NaN becomes a quiet one.
    return std::bit_cast<float>(sign | bits);
}

std::uint16_t toHalf(float value)
{
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
    const std::uint32_t sign = bits >> 16 & 0x8000;
    const std::uint32_t magnitude = bits & 0x7FFFFFFF;
    if (magnitude > 0x7F800000) // NaN: quiet, with the upper bits of its payload.
        return std::uint16_t(sign | 0x7E00 | (magnitude >> fractionShift & 0x03FF));
    if (magnitude >= 0x477FF000) // 65520, halfway between the greatest half and 2^16.
        return std::uint16_t(sign | 0x7C00);
    if (magnitude < 0x38800000) {
        // Below 2^-14 halves are multiples of 2^-24, as floats from 0.5 to 1 are: the addition rounds.
        const float sum = std::bit_cast<float>(magnitude) + 0.5f;
        return std::uint16_t(sign | (std::bit_cast<std::uint32_t>(sum) - 0x3F000000));
    }
    const std::uint32_t halfUlp = 0x0FFF + (magnitude >> fractionShift & 1);
    return std::uint16_t(sign | (magnitude + halfUlp - rebias) >> fractionShift);
}

void halfToFloat(const std::uint16_t* half, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = toFloat(half[i]);
}

void floatToHalf(const float* samples, std::uint16_t* half, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        half[i] = toHalf(samples[i]);
}

void byteToFloat(const std::uint8_t* bytes, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = float(bytes[i]) / 255.0f;
}

void floatToByte(const float* samples, std::uint8_t* bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = std::uint8_t(roundedByte(samples[i]));
}

void floatToUInt16(const float* samples, std::uint16_t* numbers, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        numbers[i] = std::uint16_t(roundedNumber(samples[i], 65535.0f));
}

void scaledByteToFloat(const std::uint8_t* bytes, float scale, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = float(bytes[i]) * scale;
}

void uint16ToFloat(const std::uint16_t* numbers, float scale, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = float(numbers[i]) * scale;
}

void bigUint16ToFloat(const std::uint8_t* numbers, float scale, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, numbers += 2)
        samples[i] = float(numbers[0] << 8 | numbers[1]) * scale;
}

void greyToRgba(const float* grey, float* rgba, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        rgba[0] = rgba[1] = rgba[2] = grey[i];
        rgba[3] = 1.0f;
    }
}

void greyAlphaToRgba(const float* greyAlpha, float* rgba, std::size_t count)
{
    for (; count > 0; --count, greyAlpha += 2, rgba += 4) {
        rgba[0] = rgba[1] = rgba[2] = greyAlpha[0];
        rgba[3] = greyAlpha[1];
    }
}

void rgbToRgba(const float* rgb, float* rgba, std::size_t count)
{
    for (; count > 0; --count, rgb += 3, rgba += 4) {
        rgba[0] = rgb[0];
        rgba[1] = rgb[1];
        rgba[2] = rgb[2];
        rgba[3] = 1.0f;
    }
}

void swapBytes16(const std::uint16_t* numbers, std::uint16_t* swapped, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        swapped[i] = std::uint16_t(numbers[i] << 8 | numbers[i] >> 8);
}

void arrange(
    const PixelArrangement& arrangement, const std::uint8_t* source, std::uint8_t* result, std::size_t count)
{
    const std::size_t sourceBytes = arrangement.sourceBytes, resultBytes = arrangement.resultBytes;
    for (; count > 0; --count, source += sourceBytes, result += resultBytes) {
        for (std::size_t i = 0; i < resultBytes; ++i) {
            const std::uint8_t from = arrangement.source[i];
            const unsigned int byte = from == PixelArrangement::none ? 0u : source[from];
            result[i] = std::uint8_t(byte | arrangement.fill[i]);
        }
    }
}

constexpr PixelKernels kernels { packTruncated, packRounded, unpackToFloat, bgr24ToPacked, packedToBgr24,
    greyToPacked, halfToFloat, floatToHalf, byteToFloat, floatToByte, floatToUInt16, scaledByteToFloat,
    uint16ToFloat, bigUint16ToFloat, greyToRgba, greyAlphaToRgba, rgbToRgba, swapBytes16, arrange };

} // namespace scalar

namespace sse41 {

TARGET_SSE41 inline __m128i load(const void* from)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

TARGET_SSE41 inline void store(void* to, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

TARGET_SSE41 inline __m128i truncated(const float* from)
{
    const __m128 scaled = _mm_mul_ps(_mm_loadu_ps(from), _mm_set1_ps(255.0f));
    return _mm_cvttps_epi32(_mm_min_ps(_mm_max_ps(scaled, _mm_setzero_ps()), _mm_set1_ps(255.0f)));
}

/// `greatest` is what 1.0 becomes.
TARGET_SSE41 inline __m128i rounded(const float* from, float greatest)
{
    const __m128 limited = _mm_min_ps(_mm_max_ps(_mm_loadu_ps(from), _mm_setzero_ps()), _mm_set1_ps(1.0f));
    return _mm_cvtps_epi32(_mm_mul_ps(limited, _mm_set1_ps(greatest)));
}

/// Four pixels of four 32-bit numbers 0..255 each, in the order R, G, B, A, to packed ones.
TARGET_SSE41 inline __m128i packed(__m128i p0, __m128i p1, __m128i p2, __m128i p3)
{
    const __m128i rgba = _mm_packus_epi16(_mm_packs_epi32(p0, p1), _mm_packs_epi32(p2, p3));
    return _mm_shuffle_epi8(rgba, _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15));
}

TARGET_SSE41 void packTruncated(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (; count >= 4; count -= 4, rgba += 16, argb += 4)
        store(argb, packed(truncated(rgba), truncated(rgba + 4), truncated(rgba + 8), truncated(rgba + 12)));
    scalar::packTruncated(rgba, argb, count);
}

TARGET_SSE41 void packRounded(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (; count >= 4; count -= 4, rgba += 16, argb += 4)
        store(argb,
            packed(rounded(rgba, 255.0f), rounded(rgba + 4, 255.0f), rounded(rgba + 8, 255.0f),
                rounded(rgba + 12, 255.0f)));
    scalar::packRounded(rgba, argb, count);
}

TARGET_SSE41 void unpackToFloat(const std::uint32_t* argb, float* rgba, std::size_t count)
{
    const __m128i bgraToRgba = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
    const __m128 scale = _mm_set1_ps(255.0f);
    for (; count >= 4; count -= 4, argb += 4, rgba += 16) {
        const __m128i bytes = _mm_shuffle_epi8(load(argb), bgraToRgba);
        const __m128i p0 = _mm_cvtepu8_epi32(bytes), p1 = _mm_cvtepu8_epi32(_mm_srli_si128(bytes, 4)),
                      p2 = _mm_cvtepu8_epi32(_mm_srli_si128(bytes, 8)),
                      p3 = _mm_cvtepu8_epi32(_mm_srli_si128(bytes, 12));
        _mm_storeu_ps(rgba, _mm_div_ps(_mm_cvtepi32_ps(p0), scale));
        _mm_storeu_ps(rgba + 4, _mm_div_ps(_mm_cvtepi32_ps(p1), scale));
        _mm_storeu_ps(rgba + 8, _mm_div_ps(_mm_cvtepi32_ps(p2), scale));
        _mm_storeu_ps(rgba + 12, _mm_div_ps(_mm_cvtepi32_ps(p3), scale));
    }
    scalar::unpackToFloat(argb, rgba, count);
}

TARGET_SSE41 void bgr24ToPacked(const std::uint8_t* bgr, std::uint32_t* argb, std::size_t count)
{
    const __m128i alpha = _mm_set1_epi32(int(opaque));
    const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i spreadUpper = _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
    for (; count >= 16; count -= 16, bgr += 48, argb += 16) {
        store(argb, _mm_or_si128(_mm_shuffle_epi8(load(bgr), spread), alpha));
        store(argb + 4, _mm_or_si128(_mm_shuffle_epi8(load(bgr + 12), spread), alpha));
        store(argb + 8, _mm_or_si128(_mm_shuffle_epi8(load(bgr + 24), spread), alpha));
        // The last twelve bytes are loaded from four before them, so as not to read past the end.
        store(argb + 12, _mm_or_si128(_mm_shuffle_epi8(load(bgr + 32), spreadUpper), alpha));
    }
    scalar::bgr24ToPacked(bgr, argb, count);
}

TARGET_SSE41 void packedToBgr24(const std::uint32_t* argb, std::uint8_t* bgr, std::size_t count)
{
    const __m128i gather = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    for (; count >= 16; count -= 16, argb += 16, bgr += 48) {
        const __m128i p0 = _mm_shuffle_epi8(load(argb), gather);
        const __m128i p1 = _mm_shuffle_epi8(load(argb + 4), gather);
        const __m128i p2 = _mm_shuffle_epi8(load(argb + 8), gather);
        const __m128i p3 = _mm_shuffle_epi8(load(argb + 12), gather);
        store(bgr, _mm_or_si128(p0, _mm_slli_si128(p1, 12)));
        store(bgr + 16, _mm_or_si128(_mm_srli_si128(p1, 4), _mm_slli_si128(p2, 8)));
        store(bgr + 32, _mm_or_si128(_mm_srli_si128(p2, 8), _mm_slli_si128(p3, 4)));
    }
    scalar::packedToBgr24(argb, bgr, count);
}

TARGET_SSE41 void greyToPacked(const std::uint8_t* grey, std::uint32_t* argb, std::size_t count)
{
    const __m128i alpha = _mm_set1_epi32(int(opaque));
    const __m128i fourOf = _mm_setr_epi8(0, 0, 0, -1, 1, 1, 1, -1, 2, 2, 2, -1, 3, 3, 3, -1);
    for (; count >= 16; count -= 16, grey += 16, argb += 16) {
        const __m128i bytes = load(grey);
        store(argb, _mm_or_si128(_mm_shuffle_epi8(bytes, fourOf), alpha));
        store(argb + 4, _mm_or_si128(_mm_shuffle_epi8(_mm_srli_si128(bytes, 4), fourOf), alpha));
        store(argb + 8, _mm_or_si128(_mm_shuffle_epi8(_mm_srli_si128(bytes, 8), fourOf), alpha));
        store(argb + 12, _mm_or_si128(_mm_shuffle_epi8(_mm_srli_si128(bytes, 12), fourOf), alpha));
    }
    scalar::greyToPacked(grey, argb, count);
}

TARGET_SSE41 void byteToFloat(const std::uint8_t* bytes, float* samples, std::size_t count)
{
    const __m128 scale = _mm_set1_ps(255.0f);
    for (; count >= 16; count -= 16, bytes += 16, samples += 16) {
        __m128i sixteen = load(bytes);
        for (int i = 0; i < 16; i += 4, sixteen = _mm_srli_si128(sixteen, 4))
            _mm_storeu_ps(samples + i, _mm_div_ps(_mm_cvtepi32_ps(_mm_cvtepu8_epi32(sixteen)), scale));
    }
    scalar::byteToFloat(bytes, samples, count);
}

TARGET_SSE41 void floatToByte(const float* samples, std::uint8_t* bytes, std::size_t count)
{
    for (; count >= 16; count -= 16, samples += 16, bytes += 16) {
        const __m128i lower = _mm_packs_epi32(rounded(samples, 255.0f), rounded(samples + 4, 255.0f));
        const __m128i upper = _mm_packs_epi32(rounded(samples + 8, 255.0f), rounded(samples + 12, 255.0f));
        store(bytes, _mm_packus_epi16(lower, upper));
    }
    scalar::floatToByte(samples, bytes, count);
}

TARGET_SSE41 void floatToUInt16(const float* samples, std::uint16_t* numbers, std::size_t count)
{
    for (; count >= 8; count -= 8, samples += 8, numbers += 8)
        store(numbers, _mm_packus_epi32(rounded(samples, 65535.0f), rounded(samples + 4, 65535.0f)));
    scalar::floatToUInt16(samples, numbers, count);
}

TARGET_SSE41 inline void storeProducts(float* to, __m128i numbers, __m128 scale)
{
    _mm_storeu_ps(to, _mm_mul_ps(_mm_cvtepi32_ps(numbers), scale));
}

TARGET_SSE41 void scaledByteToFloat(const std::uint8_t* bytes, float scale, float* samples, std::size_t count)
{
    const __m128 scales = _mm_set1_ps(scale);
    for (; count >= 16; count -= 16, bytes += 16, samples += 16) {
        __m128i sixteen = load(bytes);
        for (int i = 0; i < 16; i += 4, sixteen = _mm_srli_si128(sixteen, 4))
            storeProducts(samples + i, _mm_cvtepu8_epi32(sixteen), scales);
    }
    scalar::scaledByteToFloat(bytes, scale, samples, count);
}

TARGET_SSE41 void uint16ToFloat(const std::uint16_t* numbers, float scale, float* samples, std::size_t count)
{
    const __m128 scales = _mm_set1_ps(scale);
    for (; count >= 8; count -= 8, numbers += 8, samples += 8) {
        const __m128i eight = load(numbers);
        storeProducts(samples, _mm_cvtepu16_epi32(eight), scales);
        storeProducts(samples + 4, _mm_cvtepu16_epi32(_mm_srli_si128(eight, 8)), scales);
    }
    scalar::uint16ToFloat(numbers, scale, samples, count);
}

TARGET_SSE41 void bigUint16ToFloat(
    const std::uint8_t* numbers, float scale, float* samples, std::size_t count)
{
    // Each picks four numbers, puts their bytes in order and widens them.
    const __m128i first = _mm_setr_epi8(1, 0, -1, -1, 3, 2, -1, -1, 5, 4, -1, -1, 7, 6, -1, -1);
    const __m128i second = _mm_setr_epi8(9, 8, -1, -1, 11, 10, -1, -1, 13, 12, -1, -1, 15, 14, -1, -1);
    const __m128 scales = _mm_set1_ps(scale);
    for (; count >= 8; count -= 8, numbers += 16, samples += 8) {
        const __m128i eight = load(numbers);
        storeProducts(samples, _mm_shuffle_epi8(eight, first), scales);
        storeProducts(samples + 4, _mm_shuffle_epi8(eight, second), scales);
    }
    scalar::bigUint16ToFloat(numbers, scale, samples, count);
}

/// The fourth float becomes 1.
TARGET_SSE41 inline void storeOpaque(float* to, __m128 rgb)
{
    _mm_storeu_ps(to, _mm_blend_ps(rgb, _mm_set1_ps(1.0f), 8));
}

TARGET_SSE41 void greyToRgba(const float* grey, float* rgba, std::size_t count)
{
    for (; count >= 4; count -= 4, grey += 4, rgba += 16) {
        const __m128 four = _mm_loadu_ps(grey);
        storeOpaque(rgba, _mm_shuffle_ps(four, four, 0x00));
        storeOpaque(rgba + 4, _mm_shuffle_ps(four, four, 0x55));
        storeOpaque(rgba + 8, _mm_shuffle_ps(four, four, 0xAA));
        storeOpaque(rgba + 12, _mm_shuffle_ps(four, four, 0xFF));
    }
    scalar::greyToRgba(grey, rgba, count);
}

TARGET_SSE41 void greyAlphaToRgba(const float* greyAlpha, float* rgba, std::size_t count)
{
    for (; count >= 2; count -= 2, greyAlpha += 4, rgba += 8) {
        const __m128 two = _mm_loadu_ps(greyAlpha);
        _mm_storeu_ps(rgba, _mm_shuffle_ps(two, two, _MM_SHUFFLE(1, 0, 0, 0)));
        _mm_storeu_ps(rgba + 4, _mm_shuffle_ps(two, two, _MM_SHUFFLE(3, 2, 2, 2)));
    }
    scalar::greyAlphaToRgba(greyAlpha, rgba, count);
}

TARGET_SSE41 void rgbToRgba(const float* rgb, float* rgba, std::size_t count)
{
    // Each pixel is loaded with the first float of the next one, so the last one stands apart.
    for (; count > 4; count -= 4, rgb += 12, rgba += 16) {
        storeOpaque(rgba, _mm_loadu_ps(rgb));
        storeOpaque(rgba + 4, _mm_loadu_ps(rgb + 3));
        storeOpaque(rgba + 8, _mm_loadu_ps(rgb + 6));
        storeOpaque(rgba + 12, _mm_loadu_ps(rgb + 9));
    }
    scalar::rgbToRgba(rgb, rgba, count);
}

TARGET_SSE41 void swapBytes16(const std::uint16_t* numbers, std::uint16_t* swapped, std::size_t count)
{
    const __m128i exchange = _mm_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14);
    for (; count >= 8; count -= 8, numbers += 8, swapped += 8)
        store(swapped, _mm_shuffle_epi8(load(numbers), exchange));
    scalar::swapBytes16(numbers, swapped, count);
}

/// What one group becomes. Sixteen bytes are read and written, whatever the group has.
TARGET_SSE41 inline void arrangeGroup(
    const std::uint8_t* source, std::uint8_t* result, __m128i places, __m128i fill)
{
    store(result, _mm_or_si128(_mm_shuffle_epi8(load(source), places), fill));
}

TARGET_SSE41 void arrange(
    const PixelArrangement& arrangement, const std::uint8_t* source, std::uint8_t* result, std::size_t count)
{
    const __m128i places = load(arrangement.source), fill = load(arrangement.fill);
    const std::size_t pixels = arrangement.pixels;
    const std::size_t sourceBytes = arrangement.sourceBytes, resultBytes = arrangement.resultBytes;
    const std::size_t sourceStep = pixels * sourceBytes, resultStep = pixels * resultBytes;

    // So many pixels have sixteen bytes on both sides.
    const std::size_t smallest = sourceBytes < resultBytes ? sourceBytes : resultBytes;
    const std::size_t fullPixels = (16 + smallest - 1) / smallest;
    for (; count >= fullPixels; count -= pixels, source += sourceStep, result += resultStep)
        arrangeGroup(source, result, places, fill);

    if (count == 0)
        return;

    // The others, fewer than sixteen, pass through memory that has room for whole groups.
    alignas(16) std::uint8_t lastSource[16 * 17] = {}, lastResult[16 * 17];
    std::memcpy(lastSource, source, count * sourceBytes);
    for (std::size_t group = 0; group * pixels < count; ++group)
        arrangeGroup(lastSource + group * sourceStep, lastResult + group * resultStep, places, fill);
    std::memcpy(result, lastResult, count * resultBytes);
}

// Without instructions for halves the plain loops are as good as any.
constexpr PixelKernels kernels { packTruncated, packRounded, unpackToFloat, bgr24ToPacked, packedToBgr24,
    greyToPacked, scalar::halfToFloat, scalar::floatToHalf, byteToFloat, floatToByte, floatToUInt16,
    scaledByteToFloat, uint16ToFloat, bigUint16ToFloat, greyToRgba, greyAlphaToRgba, rgbToRgba, swapBytes16,
    arrange };

} // namespace sse41

// Each function clears the upper halves of the registers before the plainer instructions of its last
// pixels, and of its callers, meet them: those run at a fraction of their speed otherwise. Compilers do so
// by themselves, but g++ 12 leaves it out before a call to a function of the same file.
namespace avx2 {

TARGET_AVX2 inline __m256i truncated(const float* from)
{
    const __m256 scaled = _mm256_mul_ps(_mm256_loadu_ps(from), _mm256_set1_ps(255.0f));
    return _mm256_cvttps_epi32(
        _mm256_min_ps(_mm256_max_ps(scaled, _mm256_setzero_ps()), _mm256_set1_ps(255.0f)));
}

TARGET_AVX2 inline __m256i rounded(const float* from, float greatest)
{
    const __m256 limited
        = _mm256_min_ps(_mm256_max_ps(_mm256_loadu_ps(from), _mm256_setzero_ps()), _mm256_set1_ps(1.0f));
    return _mm256_cvtps_epi32(_mm256_mul_ps(limited, _mm256_set1_ps(greatest)));
}

/// The same sixteen bytes in both halves.
TARGET_AVX2 inline __m256i loadTwice(const void* from)
{
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}

TARGET_AVX2 inline __m256i loadPair(const void* lower, const void* upper)
{
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(lower))),
        _mm_loadu_si128(static_cast<const __m128i*>(upper)), 1);
}

TARGET_AVX2 inline void store(void* to, __m256i value)
{
    _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}

/// Thirty-two 32-bit numbers 0..255 to bytes in the same order.
TARGET_AVX2 inline __m256i narrowed(__m256i n0, __m256i n8, __m256i n16, __m256i n24)
{
    // Narrowing works on each half of the registers by itself, which leaves groups of four out of order.
    const __m256i mixed = _mm256_packus_epi16(_mm256_packs_epi32(n0, n8), _mm256_packs_epi32(n16, n24));
    return _mm256_permutevar8x32_epi32(mixed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

/// Eight pixels, two in each argument, of 32-bit numbers 0..255 in the order R, G, B, A, to packed ones.
TARGET_AVX2 inline __m256i packed(__m256i p01, __m256i p23, __m256i p45, __m256i p67)
{
    return _mm256_shuffle_epi8(narrowed(p01, p23, p45, p67),
        _mm256_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15, 2, 1, 0, 3, 6, 5, 4, 7, 10, 9,
            8, 11, 14, 13, 12, 15));
}

TARGET_AVX2 void packTruncated(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (; count >= 8; count -= 8, rgba += 32, argb += 8)
        store(argb, packed(truncated(rgba), truncated(rgba + 8), truncated(rgba + 16), truncated(rgba + 24)));
    _mm256_zeroupper();
    sse41::packTruncated(rgba, argb, count);
}

TARGET_AVX2 void packRounded(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (; count >= 8; count -= 8, rgba += 32, argb += 8)
        store(argb,
            packed(rounded(rgba, 255.0f), rounded(rgba + 8, 255.0f), rounded(rgba + 16, 255.0f),
                rounded(rgba + 24, 255.0f)));
    _mm256_zeroupper();
    sse41::packRounded(rgba, argb, count);
}

TARGET_AVX2 inline void storeQuotients(float* to, __m256i numbers)
{
    _mm256_storeu_ps(to, _mm256_div_ps(_mm256_cvtepi32_ps(numbers), _mm256_set1_ps(255.0f)));
}

TARGET_AVX2 void unpackToFloat(const std::uint32_t* argb, float* rgba, std::size_t count)
{
    // Each picks two pixels out of four and widens their bytes.
    const __m256i first = _mm256_setr_epi8(2, -1, -1, -1, 1, -1, -1, -1, 0, -1, -1, -1, 3, -1, -1, -1, //
        6, -1, -1, -1, 5, -1, -1, -1, 4, -1, -1, -1, 7, -1, -1, -1);
    const __m256i second = _mm256_setr_epi8(10, -1, -1, -1, 9, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1, //
        14, -1, -1, -1, 13, -1, -1, -1, 12, -1, -1, -1, 15, -1, -1, -1);
    for (; count >= 4; count -= 4, argb += 4, rgba += 16) {
        const __m256i bytes = loadTwice(argb);
        storeQuotients(rgba, _mm256_shuffle_epi8(bytes, first));
        storeQuotients(rgba + 8, _mm256_shuffle_epi8(bytes, second));
    }
    _mm256_zeroupper();
    sse41::unpackToFloat(argb, rgba, count);
}

TARGET_AVX2 void bgr24ToPacked(const std::uint8_t* bgr, std::uint32_t* argb, std::size_t count)
{
    const __m256i alpha = _mm256_set1_epi32(int(opaque));
    // The upper half is loaded from four bytes before its own, so as not to read past the end.
    const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, //
        4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
    for (; count >= 16; count -= 16, bgr += 48, argb += 16) {
        const __m256i p0 = loadPair(bgr, bgr + 8);
        const __m256i p1 = loadPair(bgr + 24, bgr + 32);
        store(argb, _mm256_or_si256(_mm256_shuffle_epi8(p0, spread), alpha));
        store(argb + 8, _mm256_or_si256(_mm256_shuffle_epi8(p1, spread), alpha));
    }
    _mm256_zeroupper();
    sse41::bgr24ToPacked(bgr, argb, count);
}

TARGET_AVX2 void greyToPacked(const std::uint8_t* grey, std::uint32_t* argb, std::size_t count)
{
    const __m256i alpha = _mm256_set1_epi32(int(opaque));
    const __m256i lower = _mm256_setr_epi8(0, 0, 0, -1, 1, 1, 1, -1, 2, 2, 2, -1, 3, 3, 3, -1, //
        4, 4, 4, -1, 5, 5, 5, -1, 6, 6, 6, -1, 7, 7, 7, -1);
    const __m256i upper = _mm256_setr_epi8(8, 8, 8, -1, 9, 9, 9, -1, 10, 10, 10, -1, 11, 11, 11, -1, //
        12, 12, 12, -1, 13, 13, 13, -1, 14, 14, 14, -1, 15, 15, 15, -1);
    for (; count >= 16; count -= 16, grey += 16, argb += 16) {
        const __m256i bytes = loadTwice(grey);
        store(argb, _mm256_or_si256(_mm256_shuffle_epi8(bytes, lower), alpha));
        store(argb + 8, _mm256_or_si256(_mm256_shuffle_epi8(bytes, upper), alpha));
    }
    _mm256_zeroupper();
    sse41::greyToPacked(grey, argb, count);
}

TARGET_AVX2 void halfToFloat(const std::uint16_t* half, float* samples, std::size_t count)
{
    for (; count >= 8; count -= 8, half += 8, samples += 8) {
        const __m128i eight = _mm_loadu_si128(reinterpret_cast<const __m128i*>(half));
        _mm256_storeu_ps(samples, _mm256_cvtph_ps(eight));
    }
    _mm256_zeroupper();
    scalar::halfToFloat(half, samples, count);
}

TARGET_AVX2 void floatToHalf(const float* samples, std::uint16_t* half, std::size_t count)
{
    for (; count >= 8; count -= 8, samples += 8, half += 8) {
        const __m128i eight = _mm256_cvtps_ph(_mm256_loadu_ps(samples), _MM_FROUND_TO_NEAREST_INT);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(half), eight);
    }
    _mm256_zeroupper();
    scalar::floatToHalf(samples, half, count);
}

TARGET_AVX2 void byteToFloat(const std::uint8_t* bytes, float* samples, std::size_t count)
{
    for (; count >= 16; count -= 16, bytes += 16, samples += 16) {
        const __m128i sixteen = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
        storeQuotients(samples, _mm256_cvtepu8_epi32(sixteen));
        storeQuotients(samples + 8, _mm256_cvtepu8_epi32(_mm_srli_si128(sixteen, 8)));
    }
    _mm256_zeroupper();
    scalar::byteToFloat(bytes, samples, count);
}

TARGET_AVX2 void floatToByte(const float* samples, std::uint8_t* bytes, std::size_t count)
{
    for (; count >= 32; count -= 32, samples += 32, bytes += 32)
        store(bytes,
            narrowed(rounded(samples, 255.0f), rounded(samples + 8, 255.0f), rounded(samples + 16, 255.0f),
                rounded(samples + 24, 255.0f)));
    _mm256_zeroupper();
    sse41::floatToByte(samples, bytes, count);
}

TARGET_AVX2 void floatToUInt16(const float* samples, std::uint16_t* numbers, std::size_t count)
{
    for (; count >= 16; count -= 16, samples += 16, numbers += 16) {
        const __m256i mixed = _mm256_packus_epi32(rounded(samples, 65535.0f), rounded(samples + 8, 65535.0f));
        store(numbers, _mm256_permute4x64_epi64(mixed, 0xD8)); // The middle quarters change places.
    }
    _mm256_zeroupper();
    sse41::floatToUInt16(samples, numbers, count);
}

TARGET_AVX2 inline void storeProducts(float* to, __m256i numbers, __m256 scale)
{
    _mm256_storeu_ps(to, _mm256_mul_ps(_mm256_cvtepi32_ps(numbers), scale));
}

TARGET_AVX2 void scaledByteToFloat(const std::uint8_t* bytes, float scale, float* samples, std::size_t count)
{
    const __m256 scales = _mm256_set1_ps(scale);
    for (; count >= 16; count -= 16, bytes += 16, samples += 16) {
        const __m128i sixteen = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
        storeProducts(samples, _mm256_cvtepu8_epi32(sixteen), scales);
        storeProducts(samples + 8, _mm256_cvtepu8_epi32(_mm_srli_si128(sixteen, 8)), scales);
    }
    _mm256_zeroupper();
    scalar::scaledByteToFloat(bytes, scale, samples, count);
}

TARGET_AVX2 void uint16ToFloat(const std::uint16_t* numbers, float scale, float* samples, std::size_t count)
{
    const __m256 scales = _mm256_set1_ps(scale);
    for (; count >= 8; count -= 8, numbers += 8, samples += 8) {
        const __m128i eight = _mm_loadu_si128(reinterpret_cast<const __m128i*>(numbers));
        storeProducts(samples, _mm256_cvtepu16_epi32(eight), scales);
    }
    _mm256_zeroupper();
    scalar::uint16ToFloat(numbers, scale, samples, count);
}

TARGET_AVX2 void bigUint16ToFloat(const std::uint8_t* numbers, float scale, float* samples, std::size_t count)
{
    const __m256i widen = _mm256_setr_epi8(1, 0, -1, -1, 3, 2, -1, -1, 5, 4, -1, -1, 7, 6, -1, -1, //
        9, 8, -1, -1, 11, 10, -1, -1, 13, 12, -1, -1, 15, 14, -1, -1);
    const __m256 scales = _mm256_set1_ps(scale);
    for (; count >= 8; count -= 8, numbers += 16, samples += 8)
        storeProducts(samples, _mm256_shuffle_epi8(loadTwice(numbers), widen), scales);
    _mm256_zeroupper();
    scalar::bigUint16ToFloat(numbers, scale, samples, count);
}

// What regroups bytes across the halves of the wide registers is as fast in the narrow ones.
constexpr PixelKernels kernels { packTruncated, packRounded, unpackToFloat, bgr24ToPacked,
    sse41::packedToBgr24, greyToPacked, halfToFloat, floatToHalf, byteToFloat, floatToByte, floatToUInt16,
    scaledByteToFloat, uint16ToFloat, bigUint16ToFloat, sse41::greyToRgba, sse41::greyAlphaToRgba,
    sse41::rgbToRgba, sse41::swapBytes16, sse41::arrange };

} // namespace avx2

/// Asked of the processor itself, because not every compiler's __builtin_cpu_supports knows the name.
bool hasHalfConversion()
{
    unsigned int a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(1, &a, &b, &c, &d) && (c & bit_F16C) != 0;
}

const PixelKernels& bestKernels()
{
    for (const SimdLevel level : { SimdLevel::Avx2, SimdLevel::Sse41 }) {
        if (const PixelKernels* const kernels = pixelKernels(level))
            return *kernels;
    }
    return scalar::kernels;
}

} // namespace

const PixelKernels& pixelKernels()
{
    static const PixelKernels& best = bestKernels();
    return best;
}

const PixelKernels* pixelKernels(SimdLevel level)
{
    // The answer about AVX2 includes the operating system's support for the wide registers.
    switch (level) {
    case SimdLevel::Avx2:
        return __builtin_cpu_supports("avx2") && hasHalfConversion() ? &avx2::kernels : nullptr;
    case SimdLevel::Sse41: return __builtin_cpu_supports("sse4.1") ? &sse41::kernels : nullptr;
    case SimdLevel::Scalar: break;
    }
    return &scalar::kernels;
}

} // namespace QUtils
