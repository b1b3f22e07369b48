#include "qutils/formats/rgbe_codec.h"

#include <bit>
#include <immintrin.h>

#define TARGET_SSE41 [[gnu::target("sse4.1")]]
#define TARGET_AVX2 [[gnu::target("avx2")]]

namespace QUtils {

namespace {

// 2^(e - 136) alone is no normal float for the smallest exponents: it is the product of two that are, with
// half of the exponent each. All products are exact.
constexpr std::uint32_t halfBias = 127 - 136 / 2;
constexpr int exponentShift = 23;

namespace scalar {

float power(std::uint32_t exponent)
{
    return std::bit_cast<float>((exponent + halfBias) << exponentShift);
}

void toRgba(const RgbePlanes& planes, std::size_t begin, float* rgba, std::size_t count)
{
    for (std::size_t x = begin; x < begin + count; ++x, rgba += 4) {
        const std::uint32_t e = planes.plane(3)[x], half = e / 2;
        const float first = e != 0 ? power(half) : 0.0f, second = power(e - half);
        for (std::size_t i = 0; i < 3; ++i)
            rgba[i] = float(planes.plane(i)[x]) * first * second;
        rgba[3] = 1.0f;
    }
}

/// Not NaN, from 0 to the largest value that can be stored.
float limited(float sample)
{
    constexpr float largest = 255.0f * 0x1p119f;
    sample = sample > 0.0f ? sample : 0.0f;
    return sample < largest ? sample : largest;
}

void fromRgb(const float* rgb, std::uint8_t* rgbe, std::size_t count)
{
    constexpr float smallest = 1e-32f;
    for (; count > 0; --count, rgb += 3, rgbe += 4) {
        const float r = limited(rgb[0]), g = limited(rgb[1]), b = limited(rgb[2]);
        const float most = r > g ? (r > b ? r : b) : (g > b ? g : b);
        // 2^(136 - e), by which the largest sample becomes a mantissa of 128 to 255.
        const std::uint32_t exponent = std::bit_cast<std::uint32_t>(most) >> exponentShift;
        const bool isBlack = most < smallest;
        const float scale = isBlack ? 0.0f : std::bit_cast<float>((261 - exponent) << exponentShift);
        rgbe[0] = std::uint8_t(r * scale);
        rgbe[1] = std::uint8_t(g * scale);
        rgbe[2] = std::uint8_t(b * scale);
        rgbe[3] = isBlack ? std::uint8_t(0) : std::uint8_t(exponent + 2);
    }
}

constexpr RgbeKernels kernels { toRgba, fromRgb };

} // namespace scalar

namespace sse41 {

TARGET_SSE41 inline __m128i load4(const std::uint8_t* bytes)
{
    int four = 0;
    std::memcpy(&four, bytes, sizeof four);
    return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(four));
}

TARGET_SSE41 void toRgba(const RgbePlanes& planes, std::size_t begin, float* rgba, std::size_t count)
{
    const std::uint8_t *red = planes.plane(0) + begin, *green = planes.plane(1) + begin,
                       *blue = planes.plane(2) + begin, *exponents = planes.plane(3) + begin;
    const __m128i bias = _mm_set1_epi32(int(halfBias));
    std::size_t x = 0;
    for (; x + 4 <= count; x += 4, rgba += 16) {
        const __m128i e = load4(exponents + x), half = _mm_srli_epi32(e, 1);
        const __m128i isBlack = _mm_cmpeq_epi32(e, _mm_setzero_si128());
        const __m128i bits = _mm_slli_epi32(_mm_add_epi32(half, bias), exponentShift);
        const __m128 first = _mm_castsi128_ps(_mm_andnot_si128(isBlack, bits));
        const __m128 second
            = _mm_castsi128_ps(_mm_slli_epi32(_mm_add_epi32(_mm_sub_epi32(e, half), bias), exponentShift));
        __m128 r = _mm_mul_ps(_mm_mul_ps(_mm_cvtepi32_ps(load4(red + x)), first), second);
        __m128 g = _mm_mul_ps(_mm_mul_ps(_mm_cvtepi32_ps(load4(green + x)), first), second);
        __m128 b = _mm_mul_ps(_mm_mul_ps(_mm_cvtepi32_ps(load4(blue + x)), first), second);
        __m128 a = _mm_set1_ps(1.0f);
        _MM_TRANSPOSE4_PS(r, g, b, a);
        _mm_storeu_ps(rgba, r);
        _mm_storeu_ps(rgba + 4, g);
        _mm_storeu_ps(rgba + 8, b);
        _mm_storeu_ps(rgba + 12, a);
    }
    scalar::toRgba(planes, begin + x, rgba, count - x);
}

TARGET_SSE41 inline __m128 limited(__m128 samples)
{
    // The second operand is what a NaN in the first becomes.
    return _mm_min_ps(_mm_max_ps(samples, _mm_setzero_ps()), _mm_set1_ps(255.0f * 0x1p119f));
}

TARGET_SSE41 void fromRgb(const float* rgb, std::uint8_t* rgbe, std::size_t count)
{
    // Each pixel is loaded with the first float of the next one, so the last one stands apart.
    for (; count > 4; count -= 4, rgb += 12, rgbe += 16) {
        __m128 r = _mm_loadu_ps(rgb), g = _mm_loadu_ps(rgb + 3), b = _mm_loadu_ps(rgb + 6),
               other = _mm_loadu_ps(rgb + 9);
        _MM_TRANSPOSE4_PS(r, g, b, other);
        r = limited(r);
        g = limited(g);
        b = limited(b);
        const __m128 most = _mm_max_ps(_mm_max_ps(r, g), b);
        const __m128i isBlack = _mm_castps_si128(_mm_cmplt_ps(most, _mm_set1_ps(1e-32f)));
        const __m128i exponent = _mm_srli_epi32(_mm_castps_si128(most), exponentShift);
        const __m128i bits = _mm_slli_epi32(_mm_sub_epi32(_mm_set1_epi32(261), exponent), exponentShift);
        const __m128 scale = _mm_castsi128_ps(_mm_andnot_si128(isBlack, bits));
        const __m128i e = _mm_andnot_si128(isBlack, _mm_add_epi32(exponent, _mm_set1_epi32(2)));
        const __m128i red = _mm_cvttps_epi32(_mm_mul_ps(r, scale)),
                      green = _mm_cvttps_epi32(_mm_mul_ps(g, scale)),
                      blue = _mm_cvttps_epi32(_mm_mul_ps(b, scale));
        const __m128i low = _mm_or_si128(red, _mm_slli_epi32(green, 8));
        const __m128i high = _mm_or_si128(_mm_slli_epi32(blue, 16), _mm_slli_epi32(e, 24));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rgbe), _mm_or_si128(low, high));
    }
    scalar::fromRgb(rgb, rgbe, count);
}

constexpr RgbeKernels kernels { toRgba, fromRgb };

} // namespace sse41

namespace avx2 {

TARGET_AVX2 inline __m256i load8(const std::uint8_t* bytes)
{
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
}

TARGET_AVX2 inline __m256 samples(const std::uint8_t* mantissas, __m256 first, __m256 second)
{
    return _mm256_mul_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(load8(mantissas)), first), second);
}

TARGET_AVX2 inline void store(float* to, __m256 lower, __m256 upper)
{
    _mm_storeu_ps(to, _mm256_castps256_ps128(lower));
    _mm_storeu_ps(to + 4, _mm256_castps256_ps128(upper));
    _mm_storeu_ps(to + 16, _mm256_extractf128_ps(lower, 1));
    _mm_storeu_ps(to + 20, _mm256_extractf128_ps(upper, 1));
}

TARGET_AVX2 void toRgba(const RgbePlanes& planes, std::size_t begin, float* rgba, std::size_t count)
{
    const std::uint8_t *red = planes.plane(0) + begin, *green = planes.plane(1) + begin,
                       *blue = planes.plane(2) + begin, *exponents = planes.plane(3) + begin;
    const __m256i bias = _mm256_set1_epi32(int(halfBias));
    const __m256 one = _mm256_set1_ps(1.0f);
    std::size_t x = 0;
    for (; x + 8 <= count; x += 8, rgba += 32) {
        const __m256i e = load8(exponents + x), half = _mm256_srli_epi32(e, 1);
        const __m256i isBlack = _mm256_cmpeq_epi32(e, _mm256_setzero_si256());
        const __m256i bits = _mm256_slli_epi32(_mm256_add_epi32(half, bias), exponentShift);
        const __m256 first = _mm256_castsi256_ps(_mm256_andnot_si256(isBlack, bits));
        const __m256 second = _mm256_castsi256_ps(
            _mm256_slli_epi32(_mm256_add_epi32(_mm256_sub_epi32(e, half), bias), exponentShift));
        const __m256 r = samples(red + x, first, second), g = samples(green + x, first, second),
                     b = samples(blue + x, first, second);
        const __m256 rg = _mm256_unpacklo_ps(r, g), rgUpper = _mm256_unpackhi_ps(r, g);
        const __m256 ba = _mm256_unpacklo_ps(b, one), baUpper = _mm256_unpackhi_ps(b, one);
        store(rgba, _mm256_shuffle_ps(rg, ba, 0x44), _mm256_shuffle_ps(rg, ba, 0xEE));
        store(rgba + 8, _mm256_shuffle_ps(rgUpper, baUpper, 0x44), _mm256_shuffle_ps(rgUpper, baUpper, 0xEE));
    }
    _mm256_zeroupper();
    sse41::toRgba(planes, begin + x, rgba, count - x);
}

constexpr RgbeKernels kernels { toRgba, sse41::fromRgb };

} // namespace avx2

} // namespace

const RgbeKernels* rgbeKernels(RgbeLevel level)
{
    switch (level) {
    case RgbeLevel::Avx2: return __builtin_cpu_supports("avx2") ? &avx2::kernels : nullptr;
    case RgbeLevel::Sse41: return __builtin_cpu_supports("sse4.1") ? &sse41::kernels : nullptr;
    case RgbeLevel::Scalar: break;
    }
    return &scalar::kernels;
}

const RgbeKernels& rgbeKernels()
{
    static const RgbeKernels* const best = rgbeKernels(RgbeLevel::Avx2) ? rgbeKernels(RgbeLevel::Avx2)
        : rgbeKernels(RgbeLevel::Sse41)                                 ? rgbeKernels(RgbeLevel::Sse41)
                                                                        : &scalar::kernels;
    return *best;
}

} // namespace QUtils
