#include "rastkit/codecs/tga_values.h"

#include "rastkit/codecs/tga.h"
#include "rastkit/model/pixel_kernels.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace QUtils {

namespace {

constexpr std::uint32_t opaque = 0xFF000000u;

static_assert(std::endian::native == std::endian::little, "values are stored least significant byte first");

template <std::size_t bytes> std::uint32_t numberAt(const std::uint8_t* value)
{
    std::uint32_t number = 0;
    std::memcpy(&number, value, bytes);
    return number;
}

/// Five bits scaled to eight, rounded to nearest.
std::uint32_t scale5(std::uint32_t five)
{
    return (five * 255 + 15) / 31;
}

// One function per encoding. They share a signature with those that need the map.

std::uint32_t none(const std::uint8_t*, const TgaColorMap&)
{
    return 0;
}

std::uint32_t grey(const std::uint8_t* value, const TgaColorMap&)
{
    return opaque | value[0] * 0x010101u;
}

std::uint32_t greyAlpha(const std::uint8_t* value, const TgaColorMap&)
{
    return std::uint32_t(value[1]) << 24 | value[0] * 0x010101u;
}

std::uint32_t color15(const std::uint8_t* value, const TgaColorMap&)
{
    const std::uint32_t bits = numberAt<2>(value);
    return opaque | scale5(bits >> 10 & 31) << 16 | scale5(bits >> 5 & 31) << 8 | scale5(bits & 31);
}

std::uint32_t color16(const std::uint8_t* value, const TgaColorMap& map)
{
    const std::uint32_t color = color15(value, map);
    return (value[1] & 0x80) != 0 ? color : color & ~opaque;
}

std::uint32_t color24(const std::uint8_t* value, const TgaColorMap&)
{
    return opaque | numberAt<3>(value);
}

std::uint32_t color32(const std::uint8_t* value, const TgaColorMap&)
{
    return numberAt<4>(value);
}

template <std::size_t bytes> std::uint32_t mapped(const std::uint8_t* value, const TgaColorMap& map)
{
    return map.at(numberAt<bytes>(value));
}

// The same for many values.

void zeros(const std::uint8_t*, const TgaColorMap&, std::uint32_t* argb, std::size_t count)
{
    std::fill_n(argb, count, 0);
}

void greys(const std::uint8_t* values, const TgaColorMap&, std::uint32_t* argb, std::size_t count)
{
    pixelKernels().greyToPacked(values, argb, count);
}

void colors24(const std::uint8_t* values, const TgaColorMap&, std::uint32_t* argb, std::size_t count)
{
    pixelKernels().bgr24ToPacked(values, argb, count);
}

void colors32(const std::uint8_t* values, const TgaColorMap&, std::uint32_t* argb, std::size_t count)
{
    std::memcpy(argb, values, 4 * count);
}

template <TgaValueDecoder::DecodeOne decode, std::size_t bytes>
void each(const std::uint8_t* values, const TgaColorMap& map, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        argb[i] = decode(values + i * bytes, map);
}

struct Decoding {
    TgaValueDecoder::DecodeOne one;
    TgaValueDecoder::DecodeMany many;
};

Decoding decodingOf(TgaEncoding encoding)
{
    switch (encoding) {
    case TgaEncoding::None: break;
    case TgaEncoding::Grey8: return { grey, greys };
    case TgaEncoding::Grey16: return { grey, each<grey, 2> };
    case TgaEncoding::GreyAlpha: return { greyAlpha, each<greyAlpha, 2> };
    case TgaEncoding::Color15: return { color15, each<color15, 2> };
    case TgaEncoding::Color16: return { color16, each<color16, 2> };
    case TgaEncoding::Color24: return { color24, colors24 };
    case TgaEncoding::Color32: return { color32, colors32 };
    case TgaEncoding::Color32Opaque: return { color24, each<color24, 4> };
    case TgaEncoding::Index8: return { mapped<1>, each<mapped<1>, 1> };
    case TgaEncoding::Index16: return { mapped<2>, each<mapped<2>, 2> };
    case TgaEncoding::Index24: return { mapped<3>, each<mapped<3>, 3> };
    case TgaEncoding::Index32: return { mapped<4>, each<mapped<4>, 4> };
    }
    return { none, zeros };
}

} // namespace

TgaValueDecoder::TgaValueDecoder(TgaEncoding encoding, std::size_t valueBytes, const TgaColorMap& map)
    : m_one(decodingOf(encoding).one), m_many(decodingOf(encoding).many), m_valueBytes(valueBytes), m_map(map)
{
}

unsigned int readTGAPixel(const unsigned char* bytes, unsigned int bytesPerPixel, const unsigned int* palette)
{
    if (!bytes)
        return 0;
    const TgaColorMap noMap;
    switch (bytesPerPixel) {
    case 1: return palette ? palette[bytes[0]] : grey(bytes, noMap);
    case 2: return palette ? palette[numberAt<2>(bytes)] : 0;
    case 3: return palette ? palette[numberAt<3>(bytes)] : color24(bytes, noMap);
    case 4: return palette ? palette[numberAt<4>(bytes)] : color32(bytes, noMap);
    default: return 0;
    }
}

} // namespace QUtils
