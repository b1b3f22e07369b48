#include "rastkit/model/planar_kernels.h"

#include <immintrin.h>
#include <initializer_list>

// Levels are built up as those of pixel_kernels.cpp are.
#define TARGET_SSE41 [[gnu::target("sse4.1")]]
#define TARGET_AVX2 [[gnu::target("avx2,f16c")]]

namespace QUtils {

namespace {

namespace scalar {

void planesToPacked(const std::uint8_t* red, const std::uint8_t* green, const std::uint8_t* blue,
    const std::uint8_t* alpha, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t a = alpha ? alpha[i] : 0xFFu;
        argb[i] = a << 24 | std::uint32_t(red[i]) << 16 | std::uint32_t(green[i]) << 8 | blue[i];
    }
}

void planesToRgba(const float* red, const float* green, const float* blue, const float* alpha, float* rgba,
    std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i, rgba += 4) {
        rgba[0] = red[i];
        rgba[1] = green[i];
        rgba[2] = blue[i];
        rgba[3] = alpha ? alpha[i] : 1.0f;
    }
}

void firstBytes(const std::uint8_t* pairs, std::uint8_t* bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = pairs[2 * i];
}

void oneOfFour(const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        plane[i] = pixels[4 * i + component];
}

void swappedOneOfFour16(
    const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* const number = pixels + 8 * i + std::size_t(2) * component;
        plane[2 * i] = number[1];
        plane[2 * i + 1] = number[0];
    }
}

constexpr PlanarKernels kernels { planesToPacked, planesToRgba, firstBytes, oneOfFour, swappedOneOfFour16 };

} // namespace scalar

namespace sse41 {

TARGET_SSE41 inline __m128i load(const void* memory)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(memory));
}

TARGET_SSE41 inline void store(void* memory, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i*>(memory), value);
}

TARGET_SSE41 void planesToPacked(const std::uint8_t* red, const std::uint8_t* green, const std::uint8_t* blue,
    const std::uint8_t* alpha, std::uint32_t* argb, std::size_t count)
{
    const __m128i opaque = _mm_set1_epi8(-1);
    std::size_t i = 0;
    for (; count - i >= 16; i += 16) {
        const __m128i b = load(blue + i), g = load(green + i), r = load(red + i);
        const __m128i a = alpha ? load(alpha + i) : opaque;
        const __m128i lowBg = _mm_unpacklo_epi8(b, g), highBg = _mm_unpackhi_epi8(b, g);
        const __m128i lowRa = _mm_unpacklo_epi8(r, a), highRa = _mm_unpackhi_epi8(r, a);
        store(argb + i, _mm_unpacklo_epi16(lowBg, lowRa));
        store(argb + i + 4, _mm_unpackhi_epi16(lowBg, lowRa));
        store(argb + i + 8, _mm_unpacklo_epi16(highBg, highRa));
        store(argb + i + 12, _mm_unpackhi_epi16(highBg, highRa));
    }
    scalar::planesToPacked(red + i, green + i, blue + i, alpha ? alpha + i : nullptr, argb + i, count - i);
}

TARGET_SSE41 void planesToRgba(const float* red, const float* green, const float* blue, const float* alpha,
    float* rgba, std::size_t count)
{
    const __m128 opaque = _mm_set1_ps(1.0f);
    std::size_t i = 0;
    for (; count - i >= 4; i += 4) {
        __m128 r = _mm_loadu_ps(red + i), g = _mm_loadu_ps(green + i), b = _mm_loadu_ps(blue + i);
        __m128 a = alpha ? _mm_loadu_ps(alpha + i) : opaque;
        _MM_TRANSPOSE4_PS(r, g, b, a);
        float* const out = rgba + 4 * i;
        _mm_storeu_ps(out, r);
        _mm_storeu_ps(out + 4, g);
        _mm_storeu_ps(out + 8, b);
        _mm_storeu_ps(out + 12, a);
    }
    scalar::planesToRgba(red + i, green + i, blue + i, alpha ? alpha + i : nullptr, rgba + 4 * i, count - i);
}

TARGET_SSE41 void firstBytes(const std::uint8_t* pairs, std::uint8_t* bytes, std::size_t count)
{
    const __m128i first = _mm_set1_epi16(0x00FF);
    for (; count >= 16; count -= 16, pairs += 32, bytes += 16)
        store(bytes,
            _mm_packus_epi16(_mm_and_si128(load(pairs), first), _mm_and_si128(load(pairs + 16), first)));
    scalar::firstBytes(pairs, bytes, count);
}

TARGET_SSE41 void oneOfFour(
    const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count)
{
    // The byte of each word to its lowest place, then words to halves and halves to bytes.
    const __m128i shift = _mm_cvtsi32_si128(int(component) * 8), lowest = _mm_set1_epi32(0xFF);
    for (; count >= 16; count -= 16, pixels += 64, plane += 16) {
        const __m128i a = _mm_and_si128(_mm_srl_epi32(load(pixels), shift), lowest);
        const __m128i b = _mm_and_si128(_mm_srl_epi32(load(pixels + 16), shift), lowest);
        const __m128i c = _mm_and_si128(_mm_srl_epi32(load(pixels + 32), shift), lowest);
        const __m128i d = _mm_and_si128(_mm_srl_epi32(load(pixels + 48), shift), lowest);
        store(plane, _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
    }
    scalar::oneOfFour(pixels, component, plane, count);
}

TARGET_SSE41 void swappedOneOfFour16(
    const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count)
{
    // Two pixels a register: their numbers go to the first four bytes, then to their place.
    const char low = char(2 * component), high = char(2 * component + 1);
    const __m128i pick = _mm_setr_epi8(
        high, low, char(high + 8), char(low + 8), -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    for (; count >= 8; count -= 8, pixels += 64, plane += 16) {
        const __m128i a = _mm_shuffle_epi8(load(pixels), pick);
        const __m128i b = _mm_shuffle_epi8(load(pixels + 16), pick);
        const __m128i c = _mm_shuffle_epi8(load(pixels + 32), pick);
        const __m128i d = _mm_shuffle_epi8(load(pixels + 48), pick);
        store(plane, _mm_unpacklo_epi64(_mm_unpacklo_epi32(a, b), _mm_unpacklo_epi32(c, d)));
    }
    scalar::swappedOneOfFour16(pixels, component, plane, count);
}

constexpr PlanarKernels kernels { planesToPacked, planesToRgba, firstBytes, oneOfFour, swappedOneOfFour16 };

} // namespace sse41

namespace avx2 {

TARGET_AVX2 inline __m256i load(const void* memory)
{
    return _mm256_loadu_si256(static_cast<const __m256i*>(memory));
}

TARGET_AVX2 inline void store(void* memory, __m256i value)
{
    _mm256_storeu_si256(static_cast<__m256i*>(memory), value);
}

TARGET_AVX2 void planesToPacked(const std::uint8_t* red, const std::uint8_t* green, const std::uint8_t* blue,
    const std::uint8_t* alpha, std::uint32_t* argb, std::size_t count)
{
    constexpr int lowHalves = 0x20, highHalves = 0x31;
    const __m256i opaque = _mm256_set1_epi8(-1);
    std::size_t i = 0;
    for (; count - i >= 32; i += 32) {
        const __m256i b = load(blue + i), g = load(green + i), r = load(red + i);
        const __m256i a = alpha ? load(alpha + i) : opaque;
        const __m256i lowBg = _mm256_unpacklo_epi8(b, g), highBg = _mm256_unpackhi_epi8(b, g);
        const __m256i lowRa = _mm256_unpacklo_epi8(r, a), highRa = _mm256_unpackhi_epi8(r, a);
        // Each has four pixels of the first and four of the second sixteen.
        const __m256i p0 = _mm256_unpacklo_epi16(lowBg, lowRa), p1 = _mm256_unpackhi_epi16(lowBg, lowRa);
        const __m256i p2 = _mm256_unpacklo_epi16(highBg, highRa), p3 = _mm256_unpackhi_epi16(highBg, highRa);
        store(argb + i, _mm256_permute2x128_si256(p0, p1, lowHalves));
        store(argb + i + 8, _mm256_permute2x128_si256(p2, p3, lowHalves));
        store(argb + i + 16, _mm256_permute2x128_si256(p0, p1, highHalves));
        store(argb + i + 24, _mm256_permute2x128_si256(p2, p3, highHalves));
    }
    _mm256_zeroupper();
    scalar::planesToPacked(red + i, green + i, blue + i, alpha ? alpha + i : nullptr, argb + i, count - i);
}

TARGET_AVX2 void firstBytes(const std::uint8_t* pairs, std::uint8_t* bytes, std::size_t count)
{
    constexpr int evenQuartersFirst = 0xD8;
    const __m256i first = _mm256_set1_epi16(0x00FF);
    for (; count >= 32; count -= 32, pairs += 64, bytes += 32) {
        const __m256i packed = _mm256_packus_epi16(
            _mm256_and_si256(load(pairs), first), _mm256_and_si256(load(pairs + 32), first));
        store(bytes, _mm256_permute4x64_epi64(packed, evenQuartersFirst));
    }
    _mm256_zeroupper();
    scalar::firstBytes(pairs, bytes, count);
}

TARGET_AVX2 void oneOfFour(
    const std::uint8_t* pixels, unsigned int component, std::uint8_t* plane, std::size_t count)
{
    const __m128i shift = _mm_cvtsi32_si128(int(component) * 8);
    const __m256i lowest = _mm256_set1_epi32(0xFF);
    const __m256i order
        = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7); // Undoes what the halves do for themselves.
    for (; count >= 32; count -= 32, pixels += 128, plane += 32) {
        const __m256i a = _mm256_and_si256(_mm256_srl_epi32(load(pixels), shift), lowest);
        const __m256i b = _mm256_and_si256(_mm256_srl_epi32(load(pixels + 32), shift), lowest);
        const __m256i c = _mm256_and_si256(_mm256_srl_epi32(load(pixels + 64), shift), lowest);
        const __m256i d = _mm256_and_si256(_mm256_srl_epi32(load(pixels + 96), shift), lowest);
        const __m256i packed = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
        store(plane, _mm256_permutevar8x32_epi32(packed, order));
    }
    _mm256_zeroupper();
    scalar::oneOfFour(pixels, component, plane, count);
}

// Four floats fill a narrow register already, and shuffles are as fast there.
constexpr PlanarKernels kernels { planesToPacked, sse41::planesToRgba, firstBytes, oneOfFour,
    sse41::swappedOneOfFour16 };

} // namespace avx2

const PlanarKernels& bestKernels()
{
    for (const SimdLevel level : { SimdLevel::Avx2, SimdLevel::Sse41 }) {
        if (const PlanarKernels* const kernels = planarKernels(level))
            return *kernels;
    }
    return scalar::kernels;
}

} // namespace

const PlanarKernels& planarKernels()
{
    static const PlanarKernels& best = bestKernels();
    return best;
}

const PlanarKernels* planarKernels(SimdLevel level)
{
    if (!pixelKernels(level))
        return nullptr;
    switch (level) {
    case SimdLevel::Avx2: return &avx2::kernels;
    case SimdLevel::Sse41: return &sse41::kernels;
    case SimdLevel::Scalar: break;
    }
    return &scalar::kernels;
}

} // namespace QUtils
