#include "qutils/formats/dds/dds_format.h"

#include <algorithm>
#include <bit>
#include <iterator>

namespace QUtils {

namespace {

// --- Building blocks -------------------------------------------------------------------------------------

/// Bits from the lowest to the highest one of a mask.
constexpr int spanOf(std::uint32_t mask)
{
    return mask == 0 ? 0 : 32 - std::countl_zero(mask) - std::countr_zero(mask);
}

struct Masks {
    std::uint32_t r, g, b, a;
};

constexpr DdsFormat masked(unsigned bytes, const Masks& masks, DdsNumber number = DdsNumber::Unorm)
{
    DdsFormat format;
    format.coding = DdsCoding::Masked;
    format.unitBytes = std::uint8_t(bytes);
    const std::uint32_t all[4] = { masks.r, masks.g, masks.b, masks.a };
    std::copy_n(all, 4, format.masks);
    std::fill_n(format.numbers, 4, number);
    format.hasAlpha = masks.a != 0;
    format.isFloat = std::any_of(all, all + 4, [](std::uint32_t mask) { return spanOf(mask) > 8; });
    return format;
}

constexpr DdsFormat grey(DdsFormat format)
{
    format.isGrey = true;
    return format;
}

constexpr DdsFormat samples(unsigned bytes, unsigned count, DdsNumber number, unsigned skippedBytes = 0)
{
    DdsFormat format;
    format.coding = DdsCoding::Samples;
    format.unitBytes = std::uint8_t(bytes * count + skippedBytes);
    format.sampleBytes = std::uint8_t(bytes);
    format.sampleCount = std::uint8_t(count);
    format.numbers[0] = number;
    format.isFloat = true;
    format.isGrey = count == 1;
    format.hasAlpha = count == 4;
    return format;
}

constexpr DdsFormat special(DdsCoding coding, unsigned bytes, bool isFloat, bool hasAlpha)
{
    DdsFormat format;
    format.coding = coding;
    format.unitBytes = std::uint8_t(bytes);
    format.isFloat = isFloat;
    format.hasAlpha = hasAlpha;
    return format;
}

constexpr DdsFormat pairs(DdsCoding coding)
{
    DdsFormat format = special(coding, 4, false, false);
    format.unitWidth = 2;
    return format;
}

constexpr DdsFormat blocks(DdsCoding coding)
{
    const bool isSmall
        = coding == DdsCoding::Bc1 || coding == DdsCoding::Bc4 || coding == DdsCoding::Bc4Signed;
    const bool isFloat = coding == DdsCoding::Bc6 || coding == DdsCoding::Bc6Signed;
    const bool hasAlpha = coding == DdsCoding::Bc1 || coding == DdsCoding::Bc2 || coding == DdsCoding::Bc3
        || coding == DdsCoding::Bc7;
    DdsFormat format = special(coding, isSmall ? 8 : 16, isFloat, hasAlpha);
    format.unitWidth = format.unitHeight = 4;
    return format;
}

constexpr DdsFormat srgb(DdsFormat format)
{
    format.isSrgb = true;
    return format;
}

constexpr DdsFormat premultiplied(DdsFormat format)
{
    format.isPremultiplied = true;
    return format;
}

// Masks that several lists share.
constexpr Masks rgba8 = { 0xFF, 0xFF00, 0xFF0000, 0xFF000000 };
constexpr Masks bgra8 = { 0xFF0000, 0xFF00, 0xFF, 0xFF000000 };
constexpr Masks bgrx8 = { 0xFF0000, 0xFF00, 0xFF, 0 };
constexpr Masks rgb10a2 = { 0x3FF, 0xFFC00, 0x3FF00000, 0xC0000000 };
constexpr Masks b5g6r5 = { 0xF800, 0x07E0, 0x001F, 0 };
constexpr Masks b5g5r5a1 = { 0x7C00, 0x03E0, 0x001F, 0x8000 };
constexpr Masks b4g4r4a4 = { 0x0F00, 0x00F0, 0x000F, 0xF000 };
constexpr Masks rg8 = { 0xFF, 0xFF00, 0, 0 };
constexpr Masks r8 = { 0xFF, 0, 0, 0 };
constexpr Masks a8 = { 0, 0, 0, 0xFF };
constexpr auto unorm = DdsNumber::Unorm;
constexpr auto snorm = DdsNumber::Snorm;
constexpr auto uint = DdsNumber::Uint;
constexpr auto sint = DdsNumber::Sint;
constexpr auto real = DdsNumber::Float;

struct NumberedFormat {
    std::uint32_t number;
    DdsFormat format;
};

template <std::size_t count> DdsFormat find(const NumberedFormat (&table)[count], std::uint32_t number)
{
    const auto found = std::find_if(std::begin(table), std::end(table),
        [number](const NumberedFormat& row) { return row.number == number; });
    return found == std::end(table) ? DdsFormat() : found->format;
}

// --- The lists -------------------------------------------------------------------------------------------

// clang-format off
/// DXGI_FORMAT. Typeless formats are taken for the plainest of their family.
constexpr NumberedFormat dxgiFormats[] = {
    {  1, samples(4, 4, real) },   {  2, samples(4, 4, real) }, // R32G32B32A32
    {  3, samples(4, 4, uint) },   {  4, samples(4, 4, sint) },
    {  5, samples(4, 3, real) },   {  6, samples(4, 3, real) }, // R32G32B32
    {  7, samples(4, 3, uint) },   {  8, samples(4, 3, sint) },
    {  9, samples(2, 4, unorm) },  { 10, samples(2, 4, real) }, // R16G16B16A16
    { 11, samples(2, 4, unorm) },  { 12, samples(2, 4, uint) },
    { 13, samples(2, 4, snorm) },  { 14, samples(2, 4, sint) },
    { 15, samples(4, 2, real) },   { 16, samples(4, 2, real) }, // R32G32
    { 17, samples(4, 2, uint) },   { 18, samples(4, 2, sint) },
    { 19, samples(4, 1, real, 4) },{ 20, samples(4, 1, real, 4) }, // Depth and stencil
    { 21, samples(4, 1, real, 4) },
    { 23, masked(4, rgb10a2) },    { 24, masked(4, rgb10a2) },
    { 25, masked(4, rgb10a2, uint) },
    { 26, special(DdsCoding::R11G11B10F, 4, true, false) },
    { 27, masked(4, rgba8) },      { 28, masked(4, rgba8) },
    { 29, srgb(masked(4, rgba8)) },{ 30, masked(4, rgba8, uint) },
    { 31, masked(4, rgba8, snorm) },{ 32, masked(4, rgba8, sint) },
    { 33, samples(2, 2, unorm) },  { 34, samples(2, 2, real) }, // R16G16
    { 35, samples(2, 2, unorm) },  { 36, samples(2, 2, uint) },
    { 37, samples(2, 2, snorm) },  { 38, samples(2, 2, sint) },
    { 39, samples(4, 1, real) },   { 40, samples(4, 1, real) }, // R32, D32
    { 41, samples(4, 1, real) },   { 42, samples(4, 1, uint) },
    { 43, samples(4, 1, sint) },
    { 44, special(DdsCoding::D24, 4, true, false) }, // R24G8
    { 45, special(DdsCoding::D24, 4, true, false) },
    { 46, special(DdsCoding::D24, 4, true, false) },
    { 48, masked(2, rg8) },        { 49, masked(2, rg8) },
    { 50, masked(2, rg8, uint) },  { 51, masked(2, rg8, snorm) },
    { 52, masked(2, rg8, sint) },
    { 53, samples(2, 1, unorm) },  { 54, samples(2, 1, real) }, // R16, D16
    { 55, samples(2, 1, unorm) },  { 56, samples(2, 1, unorm) },
    { 57, samples(2, 1, uint) },   { 58, samples(2, 1, snorm) },
    { 59, samples(2, 1, sint) },
    { 60, grey(masked(1, r8)) },   { 61, grey(masked(1, r8)) },
    { 62, grey(masked(1, r8, uint)) }, { 63, grey(masked(1, r8, snorm)) },
    { 64, grey(masked(1, r8, sint)) }, { 65, masked(1, a8) },
    { 67, special(DdsCoding::R9G9B9E5, 4, true, false) },
    { 68, pairs(DdsCoding::RGBG) },{ 69, pairs(DdsCoding::GRGB) },
    { 70, blocks(DdsCoding::Bc1) },{ 71, blocks(DdsCoding::Bc1) },
    { 72, srgb(blocks(DdsCoding::Bc1)) },
    { 73, blocks(DdsCoding::Bc2) },{ 74, blocks(DdsCoding::Bc2) },
    { 75, srgb(blocks(DdsCoding::Bc2)) },
    { 76, blocks(DdsCoding::Bc3) },{ 77, blocks(DdsCoding::Bc3) },
    { 78, srgb(blocks(DdsCoding::Bc3)) },
    { 79, blocks(DdsCoding::Bc4) },{ 80, blocks(DdsCoding::Bc4) },
    { 81, blocks(DdsCoding::Bc4Signed) },
    { 82, blocks(DdsCoding::Bc5) },{ 83, blocks(DdsCoding::Bc5) },
    { 84, blocks(DdsCoding::Bc5Signed) },
    { 85, masked(2, b5g6r5) },     { 86, masked(2, b5g5r5a1) },
    { 87, masked(4, bgra8) },      { 88, masked(4, bgrx8) },
    { 89, special(DdsCoding::R10G10B10XrA2, 4, true, true) },
    { 90, masked(4, bgra8) },      { 91, srgb(masked(4, bgra8)) },
    { 92, masked(4, bgrx8) },      { 93, srgb(masked(4, bgrx8)) },
    { 94, blocks(DdsCoding::Bc6) },{ 95, blocks(DdsCoding::Bc6) },
    { 96, blocks(DdsCoding::Bc6Signed) },
    { 97, blocks(DdsCoding::Bc7) },{ 98, blocks(DdsCoding::Bc7) },
    { 99, srgb(blocks(DdsCoding::Bc7)) },
    { 107, pairs(DdsCoding::YUY2) },
    { 115, masked(2, b4g4r4a4) },
    { 191, masked(2, { 0xF000, 0x0F00, 0x00F0, 0x000F }) }, // A4B4G4R4
};
// clang-format on

// clang-format off
/// Four letters, or a number of D3DFORMAT in their place.
constexpr NumberedFormat codeFormats[] = {
    { fourCc("DXT1"), blocks(DdsCoding::Bc1) },
    { fourCc("DXT2"), premultiplied(blocks(DdsCoding::Bc2)) },
    { fourCc("DXT3"), blocks(DdsCoding::Bc2) },
    { fourCc("DXT4"), premultiplied(blocks(DdsCoding::Bc3)) },
    { fourCc("DXT5"), blocks(DdsCoding::Bc3) },
    { fourCc("RXGB"), blocks(DdsCoding::Bc3Rxgb) },
    { fourCc("ATI1"), blocks(DdsCoding::Bc4) },
    { fourCc("BC4U"), blocks(DdsCoding::Bc4) },
    { fourCc("BC4S"), blocks(DdsCoding::Bc4Signed) },
    { fourCc("ATI2"), blocks(DdsCoding::Bc5) },
    { fourCc("BC5U"), blocks(DdsCoding::Bc5) },
    { fourCc("BC5S"), blocks(DdsCoding::Bc5Signed) },
    { fourCc("BC6H"), blocks(DdsCoding::Bc6) },
    { fourCc("BC7L"), blocks(DdsCoding::Bc7) },
    { fourCc("RGBG"), pairs(DdsCoding::RGBG) },
    { fourCc("GRGB"), pairs(DdsCoding::GRGB) },
    { fourCc("YUY2"), pairs(DdsCoding::YUY2) },
    { fourCc("UYVY"), pairs(DdsCoding::UYVY) },
    {  20, masked(3, bgrx8) },        {  21, masked(4, bgra8) },
    {  22, masked(4, bgrx8) },        {  23, masked(2, b5g6r5) },
    {  24, masked(2, { 0x7C00, 0x03E0, 0x001F, 0 }) }, // X1R5G5B5
    {  25, masked(2, b5g5r5a1) },     {  26, masked(2, b4g4r4a4) },
    {  27, masked(1, { 0xE0, 0x1C, 0x03, 0 }) }, // R3G3B2
    {  28, masked(1, a8) },
    {  29, masked(2, { 0xE0, 0x1C, 0x03, 0xFF00 }) }, // A8R3G3B2
    {  30, masked(2, { 0x0F00, 0x00F0, 0x000F, 0 }) }, // X4R4G4B4
    {  31, masked(4, rgb10a2) },      {  32, masked(4, rgba8) },
    {  33, masked(4, { 0xFF, 0xFF00, 0xFF0000, 0 }) }, // X8B8G8R8
    {  34, samples(2, 2, unorm) }, // G16R16
    {  35, masked(4, { 0x3FF00000, 0xFFC00, 0x3FF, 0xC0000000 }) }, // A2R10G10B10
    {  36, samples(2, 4, unorm) }, // A16B16G16R16
    {  50, grey(masked(1, r8)) }, // L8
    {  51, grey(masked(2, { 0xFF, 0, 0, 0xFF00 })) }, // A8L8
    {  52, grey(masked(1, { 0x0F, 0, 0, 0xF0 })) }, // A4L4
    {  60, masked(2, rg8, snorm) }, // V8U8
    {  63, masked(4, rgba8, snorm) }, // Q8W8V8U8
    {  64, samples(2, 2, snorm) }, // V16U16
    {  81, samples(2, 1, unorm) }, // L16
    { 110, samples(2, 4, snorm) }, // Q16W16V16U16
    { 111, samples(2, 1, real) },     { 112, samples(2, 2, real) },
    { 113, samples(2, 4, real) },     { 114, samples(4, 1, real) },
    { 115, samples(4, 2, real) },     { 116, samples(4, 4, real) },
    { 117, special(DdsCoding::CxV8U8, 2, false, false) },
};
// clang-format on

// --- Masks of the header ---------------------------------------------------------------------------------

/// The largest word that a pixel of so many bits can be.
std::uint32_t wordOf(std::uint32_t bitCount)
{
    return std::uint32_t(0xFFFFFFFFu >> (32 - bitCount));
}

DdsFormat fromMasks(const DdsPixelFormat& in)
{
    // Bits that no pixel has are none: a mask that is outside of the pixel is a missing one.
    const std::uint32_t word = wordOf(in.bitCount);
    const Masks all = { in.masks[0] & word, in.masks[1] & word, in.masks[2] & word, in.masks[3] & word };
    const std::uint32_t alpha = in.has(DDPF_ALPHAPIXELS | DDPF_ALPHA) ? all.a : 0;
    const unsigned bytes = in.bitCount / 8;
    const Masks colors = { all.r, all.g, all.b, alpha };
    if (in.has(DDPF_RGB))
        return masked(bytes, colors);
    if (in.has(DDPF_LUMINANCE)) {
        // Some writers leave a mask outside the only byte that there is.
        const bool isOutside = all.r == 0 && bytes == 1 && alpha == 0;
        return grey(masked(bytes, { isOutside ? 0xFF : all.r, 0, 0, alpha }));
    }
    if (in.has(DDPF_YUV)) {
        DdsFormat format = masked(bytes, colors);
        format.coding = format.isFloat ? DdsCoding::Unknown : DdsCoding::YuvMasked;
        return format;
    }
    if (in.has(DDPF_BUMPDUDV | DDPF_BUMPLUMINANCE)) {
        // Signed components, the fourth one too unless it is called alpha; luminance is not signed.
        DdsFormat format = masked(bytes, all, DdsNumber::Snorm);
        if (in.has(DDPF_ALPHAPIXELS))
            format.numbers[3] = DdsNumber::Unorm;
        if (in.has(DDPF_BUMPLUMINANCE))
            format.numbers[2] = DdsNumber::Unorm;
        return format;
    }
    return in.has(DDPF_ALPHA) ? masked(bytes, { 0, 0, 0, alpha }) : DdsFormat();
}

DdsFormat fromPixelFormat(const DdsPixelFormat& in)
{
    if (in.has(DDPF_PALETTEINDEXED8)) {
        DdsFormat format = special(DdsCoding::Palette8, 1, false, true);
        format.isPaletteAlphaSaid = in.has(DDPF_ALPHAPIXELS);
        return format;
    }
    const bool isWhole = in.bitCount % 8 == 0 && in.bitCount >= 8 && in.bitCount <= 32;
    return isWhole ? fromMasks(in) : DdsFormat();
}

} // namespace

DdsFormat ddsFormatOf(const DdsHeader& header)
{
    if (header.hasExtension())
        return find(dxgiFormats, header.dxgiFormat);
    return header.pixelFormat.has(DDPF_FOURCC) ? find(codeFormats, header.pixelFormat.code)
                                               : fromPixelFormat(header.pixelFormat);
}

} // namespace QUtils
