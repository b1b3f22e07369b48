#include "rastkit/model/sample_conversion.h"

#include "rastkit/model/pixel_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace QUtils {

namespace {

std::uint16_t byteToUInt16(std::uint8_t byte)
{
    return std::uint16_t(byte * 257); // 255 becomes 65535.
}

std::int32_t byteToInt(std::uint8_t byte)
{
    return byte;
}

std::uint8_t intToByte(std::int32_t number)
{
    return std::uint8_t(std::clamp(number, 0, 255));
}

std::uint16_t intToUInt16(std::int32_t number)
{
    return std::uint16_t(std::clamp(number, 0, 65535));
}

float intToFloat(std::int32_t number)
{
    return float(number);
}

std::int32_t floatToInt(float value)
{
    if (std::isnan(value))
        return 0;
    if (value >= 0x1p31f)
        return std::numeric_limits<std::int32_t>::max();
    if (value < -0x1p31f)
        return std::numeric_limits<std::int32_t>::min();
    return std::int32_t(std::lrint(value));
}

/// A converter that applies a rule to each sample.
template <typename From, typename To, To (*rule)(From)>
void each(const void* samples, void* result, std::size_t count)
{
    const auto* const from = static_cast<const From*>(samples);
    auto* const to = static_cast<To*>(result);
    for (std::size_t i = 0; i < count; ++i)
        to[i] = rule(from[i]);
}

/// A converter that calls a kernel.
template <typename From, typename To, void (*PixelKernels::*kernel)(const From*, To*, std::size_t)>
void byKernel(const void* samples, void* result, std::size_t count)
{
    (pixelKernels().*kernel)(static_cast<const From*>(samples), static_cast<To*>(result), count);
}

/// A converter of halves that makes floats of them first, a block at a time.
template <typename To, SampleConverter fromFloat>
void viaFloat(const void* samples, void* result, std::size_t count)
{
    constexpr std::size_t blockCount = 1024;
    float block[blockCount];
    const auto* const from = static_cast<const std::uint16_t*>(samples);
    auto* const to = static_cast<To*>(result);
    for (std::size_t begin = 0; begin < count; begin += blockCount) {
        const std::size_t n = std::min(blockCount, count - begin);
        pixelKernels().halfToFloat(from + begin, block, n);
        fromFloat(block, to + begin, n);
    }
}

constexpr SampleConverter byteToFloat = byKernel<std::uint8_t, float, &PixelKernels::byteToFloat>;
constexpr SampleConverter halfToFloat = byKernel<std::uint16_t, float, &PixelKernels::halfToFloat>;
constexpr SampleConverter floatToHalf = byKernel<float, std::uint16_t, &PixelKernels::floatToHalf>;
constexpr SampleConverter floatToByte = byKernel<float, std::uint8_t, &PixelKernels::floatToByte>;
constexpr SampleConverter floatToUInt16 = byKernel<float, std::uint16_t, &PixelKernels::floatToUInt16>;
constexpr SampleConverter floatToInt32 = each<float, std::int32_t, floatToInt>;

// clang-format off
constexpr SampleConverter queryConverters[4][4] = {
    // to unsigned 8 bits                      unsigned 16 bits                             signed 32 bits                            float
    /* Packed8 */ { nullptr,                                     each<std::uint8_t, std::uint16_t, byteToUInt16>, each<std::uint8_t, std::int32_t, byteToInt>, byteToFloat },
    /* Half */    { viaFloat<std::uint8_t, floatToByte>,         viaFloat<std::uint16_t, floatToUInt16>,          viaFloat<std::int32_t, floatToInt32>,        halfToFloat },
    /* Float */   { floatToByte,                                 floatToUInt16,                                   floatToInt32,                                nullptr },
    /* Int32 */   { each<std::int32_t, std::uint8_t, intToByte>, each<std::int32_t, std::uint16_t, intToUInt16>,  nullptr,                                     each<std::int32_t, float, intToFloat> },
};
// clang-format on

} // namespace

std::size_t sampleBytes(FrameSample sample)
{
    switch (sample) {
    case FrameSample::Packed8: return 1;
    case FrameSample::Half: return 2;
    case FrameSample::Float:
    case FrameSample::Int32: break;
    }
    return 4;
}

std::size_t sampleBytes(QuerySample sample)
{
    switch (sample) {
    case QuerySample::UInt8: return 1;
    case QuerySample::UInt16: return 2;
    case QuerySample::Int32:
    case QuerySample::Float: break;
    }
    return 4;
}

SampleConverter sampleConverter(FrameSample stored, QuerySample query)
{
    return queryConverters[std::size_t(stored)][std::size_t(query)];
}

SampleConverter storingConverter(FrameSample stored)
{
    static constexpr SampleConverter converters[] = { floatToByte, floatToHalf, nullptr, floatToInt32 };
    return converters[std::size_t(stored)];
}

} // namespace QUtils
