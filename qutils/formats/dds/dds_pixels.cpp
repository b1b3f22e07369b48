#include "qutils/formats/dds/dds_pixels.h"

#include "qutils/formats/dds/block_kernels.h"
#include "qutils/formats/dds/block_levels.h"
#include "qutils/formats/dds/half_float.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <new>

namespace QUtils {

namespace {

constexpr std::uint32_t opaque = 0xFF000000u;

std::uint32_t loadPixel(const std::uint8_t* bytes, std::size_t count)
{
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < count; ++i)
        word |= std::uint32_t(bytes[i]) << (8 * i);
    return word;
}

// --- Words and masks -------------------------------------------------------------------------------------

/// One channel of a masked word.
struct Channel {
    std::uint32_t mask = 0, greatest = 0, sign = 0;
    int shift = 0;
    DdsNumber number = DdsNumber::Unorm;

    Channel() = default;
    Channel(std::uint32_t channelMask, DdsNumber channelNumber)
        : mask(channelMask), shift(mask == 0 ? 0 : std::countr_zero(mask)), number(channelNumber)
    {
        // A mask with gaps counts from its lowest to its highest bit.
        const int bits = mask == 0 ? 0 : 32 - std::countl_zero(mask) - shift;
        greatest = bits == 0 ? 0 : 0xFFFFFFFFu >> (32 - bits);
        sign = bits == 0 ? 0 : 1u << (bits - 1);
    }

    bool isSigned() const { return number == DdsNumber::Snorm || number == DdsNumber::Sint; }
    std::uint32_t of(std::uint32_t word) const { return (word & mask) >> shift; }

    /// The byte that stands for a number of 0.
    std::uint32_t zero() const { return isSigned() ? 128 : 0; }

    /// Scaled to 0 to 255 and rounded. Signed numbers are scaled to -127 to 127 and moved up, so that 0 is
    /// 128 in channels of any width; the lowest number, which has no counterpart, is 0.
    std::uint8_t byteOf(std::uint32_t value) const
    {
        if (!isSigned())
            return std::uint8_t((2 * 255 * value + greatest) / (2 * greatest));
        const double steps = std::max(sign, 2u) - 1;
        const double scaled = (double(value ^ sign) - double(sign)) * 127 / steps;
        return std::uint8_t(std::max(std::lround(scaled) + 128, 0L));
    }

    /// Scaled to 0 to 1, or to -1 to 1; whole numbers as they are.
    float floatOf(std::uint32_t value) const
    {
        const double number64 = isSigned() ? double(value ^ sign) - double(sign) : double(value);
        if (number == DdsNumber::Uint || number == DdsNumber::Sint)
            return float(number64);
        if (!isSigned())
            return float(number64 / greatest);
        return sign == 1 ? float(number64) : float(std::max(number64 / (sign - 1), -1.0));
    }
};

class MaskedDecoder : public DdsDecoder {
public:
    explicit MaskedDecoder(const DdsFormat& format) : m_pixelBytes(format.unitBytes), m_isGrey(format.isGrey)
    {
        for (std::size_t c = 0; c < 4; ++c)
            m_channels[c] = Channel(format.masks[c], format.numbers[c]);
        if (m_isGrey)
            m_channels[1] = m_channels[2] = m_channels[0];
        m_isArranged = findArrangement();
        if (!format.isFloat && !m_isArranged)
            fillTables();
    }

    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        if (m_isArranged) {
            blockKernels().arrange(m_arrangement, units, count, rows[0]);
            return;
        }
        switch (m_pixelBytes) {
        case 1: return look<1>(units, count, rows[0]);
        case 2: return look<2>(units, count, rows[0]);
        case 3: return look<3>(units, count, rows[0]);
        default: return look<4>(units, count, rows[0]);
        }
    }

    void floats(const std::uint8_t* units, std::size_t count, float* const* rows) const override
    {
        float* rgba = rows[0];
        for (std::size_t i = 0; i < count; ++i, units += m_pixelBytes, rgba += 4) {
            const std::uint32_t word = loadPixel(units, m_pixelBytes);
            for (std::size_t c = 0; c < 4; ++c) {
                const Channel& channel = m_channels[c];
                rgba[c] = channel.mask == 0 ? missing(c) : channel.floatOf(channel.of(word));
            }
        }
    }

private:
    static float missing(std::size_t channel) { return channel == 3 ? 1.0f : 0.0f; }
    /// Channels red, green, blue, alpha in a word 0xAARRGGBB.
    static int shiftOf(std::size_t channel) { return channel == 3 ? 24 : 16 - 8 * int(channel); }

    /// Bytes that are channels need no more than another order.
    bool findArrangement()
    {
        m_arrangement.pixelBytes = std::uint8_t(m_pixelBytes);
        m_arrangement.fill = 0;
        for (std::size_t c = 0; c < 4; ++c) {
            const Channel& channel = m_channels[c];
            const bool isByte = channel.mask == 0xFFu << channel.shift && channel.shift % 8 == 0
                && channel.shift / 8 < int(m_pixelBytes);
            if (channel.mask != 0 && !isByte)
                return false;
            const std::size_t place = std::size_t(shiftOf(c)) / 8;
            m_arrangement.source[place]
                = channel.mask == 0 ? ByteArrangement::none : std::uint8_t(channel.shift / 8);
            if (channel.mask == 0 && c == 3)
                m_arrangement.fill |= opaque;
            m_flip |= channel.isSigned();
        }
        return !m_flip;
    }

    void fillTables()
    {
        for (std::size_t c = 0; c < 4; ++c) {
            const Channel& channel = m_channels[c];
            if (channel.mask == 0) {
                m_tables[c][0] = c == 3 ? opaque : channel.zero() << shiftOf(c);
                continue;
            }
            for (std::uint32_t value = 0; value <= channel.greatest; ++value)
                m_tables[c][value] = std::uint32_t(channel.byteOf(value)) << shiftOf(c);
        }
    }

    template <std::size_t pixelBytes>
    void look(const std::uint8_t* pixel, std::size_t count, std::uint32_t* argb) const
    {
        for (std::size_t i = 0; i < count; ++i, pixel += pixelBytes) {
            const std::uint32_t word = loadPixel(pixel, pixelBytes);
            std::uint32_t result = 0;
            for (std::size_t c = 0; c < 4; ++c)
                result |= m_tables[c][m_channels[c].of(word)];
            argb[i] = result;
        }
    }

    std::size_t m_pixelBytes;
    bool m_isGrey, m_isArranged = false, m_flip = false;
    Channel m_channels[4];
    ByteArrangement m_arrangement {};
    std::uint32_t m_tables[4][256] = {}; // The part of the result that each value of a channel is.
};

// --- Luma and differences --------------------------------------------------------------------------------

std::uint32_t clampByte(int value)
{
    return std::uint32_t(std::clamp(value, 0, 255));
}

/// Studio range, ITU-R BT.601. Source: Microsoft, Recommended 8-Bit YUV Formats for Video Rendering.
std::uint32_t yuvToPacked(int y, int u, int v)
{
    const int c = 298 * (y - 16) + 128, d = u - 128, e = v - 128;
    return opaque | clampByte((c + 409 * e) >> 8) << 16 | clampByte((c - 100 * d - 208 * e) >> 8) << 8
        | clampByte((c + 516 * d) >> 8);
}

class YuvMaskedDecoder : public DdsDecoder {
public:
    explicit YuvMaskedDecoder(const DdsFormat& format) : m_planes(format) { }

    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        m_planes.packed(units, count, rows);
        for (std::uint32_t* argb = rows[0]; argb != rows[0] + count; ++argb)
            *argb
                = (yuvToPacked(int(*argb >> 16 & 0xFF), int(*argb >> 8 & 0xFF), int(*argb & 0xFF)) & ~opaque)
                | (*argb & opaque);
    }

private:
    MaskedDecoder m_planes;
};

template <DdsCoding coding> class PairDecoder : public DdsDecoder {
public:
    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        std::uint32_t* argb = rows[0];
        for (std::size_t i = 0; i < count; ++i, units += 4, argb += 2) {
            // The two bytes that are a pixel's own come first or second.
            constexpr bool ownFirst = coding == DdsCoding::GRGB || coding == DdsCoding::YUY2;
            const int own[2] = { units[ownFirst ? 0 : 1], units[ownFirst ? 2 : 3] };
            const int shared[2] = { units[ownFirst ? 1 : 0], units[ownFirst ? 3 : 2] };
            for (std::size_t k = 0; k < 2; ++k)
                argb[k] = coding == DdsCoding::RGBG || coding == DdsCoding::GRGB
                    ? opaque | std::uint32_t(shared[0] << 16 | own[k] << 8 | shared[1])
                    : yuvToPacked(own[k], shared[0], shared[1]);
        }
    }
};

// --- Palette and a vector --------------------------------------------------------------------------------

class PaletteDecoder : public DdsDecoder {
public:
    PaletteDecoder(const DdsFormat& format, const DdsPalette& palette)
    {
        const bool hasAlpha = format.isPaletteAlphaSaid || looksLikeAlpha(palette);
        for (std::size_t i = 0; i < 256; ++i) {
            const std::uint8_t* const rgba = palette.bytes + 4 * i;
            m_colors[i] = (hasAlpha ? std::uint32_t(rgba[3]) << 24 : opaque) | std::uint32_t(rgba[0]) << 16
                | std::uint32_t(rgba[1]) << 8 | rgba[2];
        }
    }

    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        for (std::size_t i = 0; i < count; ++i)
            rows[0][i] = m_colors[units[i]];
    }

private:
    /// The fourth byte of an entry is its flags (PALETTEENTRY), mostly 0, but common writers store alpha
    /// there and do not say so. Then some entry is opaque: 255, which no flags add up to.
    static bool looksLikeAlpha(const DdsPalette& palette)
    {
        for (std::size_t i = 3; i < DdsPalette::byteSize; i += 4)
            if (palette.bytes[i] == 0xFF)
                return true;
        return false;
    }

    std::uint32_t m_colors[256];
};

class VectorDecoder : public DdsDecoder {
public:
    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        for (std::size_t i = 0; i < count; ++i, units += 2) {
            const double u = std::max(int(std::int8_t(units[0])), -127) / 127.0;
            const double v = std::max(int(std::int8_t(units[1])), -127) / 127.0;
            const double w = std::sqrt(std::max(0.0, 1 - u * u - v * v));
            rows[0][i] = opaque | std::uint32_t(units[0] ^ 0x80) << 16 | std::uint32_t(units[1] ^ 0x80) << 8
                | std::uint32_t(std::lround(w * 127) + 128);
        }
    }
};

// --- Numbers of 16 and 32 bits ---------------------------------------------------------------------------

float sampleToFloat(std::uint32_t bits, std::size_t bytes, DdsNumber number)
{
    const bool isShort = bytes == 2;
    switch (number) {
    case DdsNumber::Float: return isShort ? halfToFloat(bits) : std::bit_cast<float>(bits);
    case DdsNumber::Unorm: return float(bits) / 65535.0f;
    case DdsNumber::Snorm: return std::max(float(std::int16_t(bits)) / 32767.0f, -1.0f);
    case DdsNumber::Uint: return float(bits);
    case DdsNumber::Sint: break;
    }
    return isShort ? float(std::int16_t(bits)) : float(std::int32_t(bits));
}

template <std::size_t bytes, DdsNumber number> class SampleDecoder : public DdsDecoder {
public:
    explicit SampleDecoder(const DdsFormat& format)
        : m_pixelBytes(format.unitBytes), m_count(format.sampleCount), m_isGrey(format.isGrey)
    {
    }

    void floats(const std::uint8_t* units, std::size_t count, float* const* rows) const override
    {
        float* rgba = rows[0];
        for (std::size_t i = 0; i < count; ++i, units += m_pixelBytes, rgba += 4) {
            rgba[0] = rgba[1] = rgba[2] = 0.0f;
            rgba[3] = 1.0f;
            for (std::size_t c = 0; c < m_count; ++c)
                rgba[c] = sampleToFloat(loadPixel(units + c * bytes, bytes), bytes, number);
            if (m_isGrey)
                rgba[1] = rgba[2] = rgba[0];
        }
    }

private:
    std::size_t m_pixelBytes, m_count;
    bool m_isGrey;
};

// --- Packed floats ---------------------------------------------------------------------------------------

struct Rgba {
    float r, g, b, a;
};

/// Floats of 11, 11 and 10 bits without a sign, exponents of 5.
Rgba fromR11G11B10(std::uint32_t word)
{
    return { smallToFloat<5, 6>(word & 0x7FF), smallToFloat<5, 6>(word >> 11 & 0x7FF),
        smallToFloat<5, 5>(word >> 22), 1.0f };
}

/// Three fractions of 9 bits below 1, times 2 to the power of (exponent - 15).
Rgba fromSharedExponent(std::uint32_t word)
{
    const float scale = std::bit_cast<float>(((word >> 27) - 15 - 9 + 127) << 23);
    return { float(word & 0x1FF) * scale, float(word >> 9 & 0x1FF) * scale, float(word >> 18 & 0x1FF) * scale,
        1.0f };
}

Rgba fromExtendedRange(std::uint32_t word)
{
    const auto wide = [](std::uint32_t bits) { return (float(bits & 0x3FF) - 384.0f) / 510.0f; };
    return { wide(word), wide(word >> 10), wide(word >> 20), float(word >> 30) / 3.0f };
}

Rgba fromDepth24(std::uint32_t word)
{
    const float depth = float(double(word & 0xFFFFFF) / 0xFFFFFF);
    return { depth, depth, depth, 1.0f };
}

template <Rgba (*convert)(std::uint32_t)> class WordDecoder : public DdsDecoder {
public:
    void floats(const std::uint8_t* units, std::size_t count, float* const* rows) const override
    {
        for (std::size_t i = 0; i < count; ++i) {
            const Rgba pixel = convert(loadWord(units + 4 * i));
            std::memcpy(rows[0] + 4 * i, &pixel, sizeof pixel);
        }
    }
};

// --- Blocks ----------------------------------------------------------------------------------------------

class PackedBlockDecoder : public DdsDecoder {
public:
    explicit PackedBlockDecoder(PackedBlocks decode) : m_decode(decode) { }

    void packed(const std::uint8_t* units, std::size_t count, std::uint32_t* const* rows) const override
    {
        m_decode(units, count, rows);
    }

private:
    PackedBlocks m_decode;
};

class FloatBlockDecoder : public DdsDecoder {
public:
    explicit FloatBlockDecoder(FloatBlocks decode) : m_decode(decode) { }

    void floats(const std::uint8_t* units, std::size_t count, float* const* rows) const override
    {
        m_decode(units, count, rows);
    }

private:
    FloatBlocks m_decode;
};

/// Normal maps whose red is where alpha is, since that is stored best.
void decodeRxgb(const std::uint8_t* blocks, std::size_t count, std::uint32_t* const* rows)
{
    blockKernels().bc3(blocks, count, rows);
    for (int y = 0; y < 4; ++y)
        for (std::uint32_t* argb = rows[y]; argb != rows[y] + 4 * count; ++argb)
            *argb = opaque | (*argb >> 24) << 16 | (*argb & 0xFFFF);
}

// --- The choice ------------------------------------------------------------------------------------------

using Decoder = std::unique_ptr<DdsDecoder>;

template <typename T, typename... Arguments> Decoder make(const Arguments&... arguments)
{
    return Decoder(new (std::nothrow) T(arguments...));
}

/// Samples of 16 or of 32 bits.
template <DdsNumber number> Decoder makeWideSamples(const DdsFormat& format)
{
    if (format.sampleBytes == 2)
        return make<SampleDecoder<2, number>>(format);
    return make<SampleDecoder<4, number>>(format);
}

Decoder makeSamples(const DdsFormat& format)
{
    switch (format.numbers[0]) {
    case DdsNumber::Unorm: return make<SampleDecoder<2, DdsNumber::Unorm>>(format);
    case DdsNumber::Snorm: return make<SampleDecoder<2, DdsNumber::Snorm>>(format);
    case DdsNumber::Uint: return makeWideSamples<DdsNumber::Uint>(format);
    case DdsNumber::Sint: return makeWideSamples<DdsNumber::Sint>(format);
    case DdsNumber::Float: break;
    }
    return makeWideSamples<DdsNumber::Float>(format);
}

Decoder makeBlocks(DdsCoding coding)
{
    const BlockKernels& kernels = blockKernels();
    switch (coding) {
    case DdsCoding::Bc1: return make<PackedBlockDecoder>(kernels.bc1);
    case DdsCoding::Bc2: return make<PackedBlockDecoder>(kernels.bc2);
    case DdsCoding::Bc3: return make<PackedBlockDecoder>(kernels.bc3);
    case DdsCoding::Bc3Rxgb: return make<PackedBlockDecoder>(decodeRxgb);
    case DdsCoding::Bc4: return make<PackedBlockDecoder>(kernels.bc4);
    case DdsCoding::Bc4Signed: return make<PackedBlockDecoder>(decodeBc4Signed);
    case DdsCoding::Bc5: return make<PackedBlockDecoder>(kernels.bc5);
    case DdsCoding::Bc5Signed: return make<PackedBlockDecoder>(decodeBc5Signed);
    case DdsCoding::Bc6: return make<FloatBlockDecoder>(decodeBc6);
    case DdsCoding::Bc6Signed: return make<FloatBlockDecoder>(decodeBc6Signed);
    case DdsCoding::Bc7: return make<PackedBlockDecoder>(kernels.bc7);
    default: return nullptr;
    }
}

} // namespace

DdsDecoder::~DdsDecoder() = default;
void DdsDecoder::packed(const std::uint8_t*, std::size_t, std::uint32_t* const*) const { }
void DdsDecoder::floats(const std::uint8_t*, std::size_t, float* const*) const { }

std::unique_ptr<DdsDecoder> makeDdsDecoder(const DdsFormat& format, const DdsPalette& palette)
{
    switch (format.coding) {
    case DdsCoding::Masked: return make<MaskedDecoder>(format);
    case DdsCoding::YuvMasked: return make<YuvMaskedDecoder>(format);
    case DdsCoding::Samples: return makeSamples(format);
    case DdsCoding::Palette8: return make<PaletteDecoder>(format, palette);
    case DdsCoding::R11G11B10F: return make<WordDecoder<fromR11G11B10>>();
    case DdsCoding::R9G9B9E5: return make<WordDecoder<fromSharedExponent>>();
    case DdsCoding::R10G10B10XrA2: return make<WordDecoder<fromExtendedRange>>();
    case DdsCoding::D24: return make<WordDecoder<fromDepth24>>();
    case DdsCoding::CxV8U8: return make<VectorDecoder>();
    case DdsCoding::RGBG: return make<PairDecoder<DdsCoding::RGBG>>();
    case DdsCoding::GRGB: return make<PairDecoder<DdsCoding::GRGB>>();
    case DdsCoding::YUY2: return make<PairDecoder<DdsCoding::YUY2>>();
    case DdsCoding::UYVY: return make<PairDecoder<DdsCoding::UYVY>>();
    default: return makeBlocks(format.coding);
    }
}

} // namespace QUtils
