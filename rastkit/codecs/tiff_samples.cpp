#include "rastkit/codecs/tiff_samples.h"

#include "rastkit/codecs/byte_order.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

namespace QUtils {

namespace {

constexpr unsigned byteBits = 8;

/// XYZ to RGB.
constexpr float xyzToRgb[3][3] = {
    { 2.565619f, -1.166989f, -0.398511f },
    { -1.022095f, 1.978261f, 0.043821f },
    { 0.074698f, -0.251851f, 1.1768f },
};

/// What makes the greatest unsigned number of so many bits 1.
float scaleOf(unsigned bits)
{
    return float(1.0 / (std::pow(2.0, double(bits)) - 1.0));
}

std::uint32_t lowBits(unsigned bits)
{
    return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1;
}

/// A number of `bits` bits whose top one is its sign.
std::int32_t extendSign(std::uint32_t number, unsigned bits)
{
    const std::uint32_t sign = 1u << (bits - 1);
    return std::int32_t((number ^ sign) - sign);
}

/// `bits` bits (1 to 32) from bit `firstBit` on, most significant first; bytes behind `last` are as that one.
std::uint32_t bitsAt(const std::uint8_t* bytes, std::size_t last, std::uint64_t firstBit, unsigned bits)
{
    const std::uint64_t firstByte = firstBit / byteBits;
    const unsigned before = unsigned(firstBit % byteBits);
    const unsigned byteCount = (before + bits + byteBits - 1) / byteBits;
    std::uint64_t window = 0;
    for (unsigned i = 0; i < byteCount; ++i)
        window = window << byteBits | bytes[std::min<std::uint64_t>(firstByte + i, last)];
    return std::uint32_t(window >> (byteCount * byteBits - before - bits)) & lowBits(bits);
}

/// Three whole bytes in the computer's order.
std::uint32_t bytes24At(const std::uint8_t* bytes, std::size_t last, std::uint64_t firstByte)
{
    const auto at
        = [&](unsigned i) -> std::uint32_t { return bytes[std::min<std::uint64_t>(firstByte + i, last)]; };
    return detect_endianines() == 1 ? at(0) | at(1) << 8 | at(2) << 16 : at(0) << 16 | at(1) << 8 | at(2);
}

bool isWholeBytes(unsigned bits)
{
    return bits % byteBits == 0;
}

template <typename T> void scaleNumbers(const T* numbers, float scale, float* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = float(numbers[i]) * scale;
}

/// Copies numbers that lie `fromStride` bytes apart to places that are `toStride` bytes apart.
template <std::size_t numberBytes>
void spread(const std::uint8_t* from, std::size_t fromStride, std::uint8_t* to, std::size_t toStride,
    std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        std::memcpy(to + i * toStride, from + i * fromStride, numberBytes);
}

} // namespace

// --- Choosing the way ------------------------------------------------------------------------------------

/// False for sizes that are not known.
bool TiffPixelDecoder::chooseNumber(const TiffPixelLayout& layout)
{
    const bool isFloat = layout.isLog()
        || (layout.sampleFormat == SAMPLEFORMAT_IEEEFP && layout.photometric != PHOTOMETRIC_PALETTE);
    if (isFloat) {
        m_number = m_bits == 16 ? Number::Half : m_bits == 32 ? Number::Float : Number::Double;
        return m_bits == 16 || m_bits == 32 || m_bits == 64;
    }
    const bool isSigned
        = layout.sampleFormat == SAMPLEFORMAT_INT && layout.photometric != PHOTOMETRIC_PALETTE;
    if (m_meaning == Meaning::Table || m_bits == 8)
        m_number = isSigned ? Number::Int8 : Number::UInt8;
    else if (m_bits == 16)
        m_number = isSigned ? Number::Int16 : Number::UInt16;
    else if (m_bits == 64)
        m_number = isSigned ? Number::Int64 : Number::UInt64;
    else
        m_number = isSigned ? Number::Int32 : Number::UInt32;
    return (m_bits >= 1 && m_bits <= 32) || m_bits == 64;
}

void TiffPixelDecoder::choosePicked(const TiffPixelLayout& layout)
{
    m_pickedCount = 0;
    for (unsigned sample = 0; sample < layout.colorSamples(); ++sample)
        m_picked[m_pickedCount++] = sample;
    if (layout.alphaSample >= 0 && !layout.isLog())
        m_picked[m_pickedCount++] = unsigned(layout.alphaSample);
}

ImgErrorCode TiffPixelDecoder::setUp(const TiffPixelLayout& layout, const Table<Color, 100>& palette)
{
    m_kernels = &pixelKernels();
    m_palette = &palette;
    m_photometric = layout.photometric;
    // The library that unpacks these delivers floats, whatever the file says of its samples.
    m_bits = layout.isLog() ? 32 : layout.bits;
    m_samples = layout.photometric == PHOTOMETRIC_LOGL ? 1
        : layout.photometric == PHOTOMETRIC_LOGLUV     ? 3
                                                       : layout.samples;
    m_isPlanar = layout.isPlanar && !layout.isLog();
    m_isWhiteZero = layout.photometric == PHOTOMETRIC_MINISWHITE;
    m_pixelBits = std::uint64_t(m_isPlanar ? 1 : m_samples) * m_bits;
    m_scale = scaleOf(m_bits);
    choosePicked(layout);

    const bool isPalette = layout.photometric == PHOTOMETRIC_PALETTE;
    if (layout.isLog())
        m_meaning = layout.photometric == PHOTOMETRIC_LOGL ? Meaning::LogL : Meaning::LogLuv;
    else if (m_pickedCount == 1 && m_bits <= 8 && (isPalette || layout.sampleFormat != SAMPLEFORMAT_IEEEFP))
        m_meaning = Meaning::Table;
    else
        m_meaning = isPalette                             ? Meaning::Index
            : layout.photometric == PHOTOMETRIC_SEPARATED ? Meaning::Inks
                                                          : Meaning::Samples;
    if (!chooseNumber(layout))
        return IMGERR_UNSUPPORTED;

    constexpr unsigned bytesOfNumber[] = { 1, 1, 2, 2, 4, 4, 8, 8, 2, 4, 8 };
    m_numberBytes = bytesOfNumber[std::size_t(m_number)];
    m_packs = m_meaning == Meaning::Table;
    m_isPlainGrey = m_packs && m_bits == 8 && m_number == Number::UInt8 && !isPalette && !m_isWhiteZero;
    if (m_meaning == Meaning::Table)
        fillTable(m_number == Number::Int8);
    else
        fillArrangement();
    return IMGERR_NONE;
}

void TiffPixelDecoder::fillTable(bool isSigned)
{
    const unsigned count = 1u << m_bits;
    for (unsigned i = 0; i < count; ++i) {
        Color color { 0, 0, 0 };
        if (m_photometric == PHOTOMETRIC_PALETTE) {
            if (int(i) < m_palette->count())
                color = (*m_palette)[int(i)];
        } else {
            const float number = isSigned ? float(extendSign(i, m_bits)) : float(i);
            const float value = m_isWhiteZero ? 1 - number * m_scale : number * m_scale;
            color = { value, value, value };
        }
        const float pixel[4] = { color.r, color.g, color.b, 1 };
        std::copy_n(pixel, 4, m_table[i]);
    }
    m_kernels->packRounded(m_table[0], m_packedTable, count);
}

/// Bytes that are colours need not become floats on their way to bytes.
void TiffPixelDecoder::fillArrangement()
{
    m_packs = m_meaning == Meaning::Samples && m_number == Number::UInt8 && m_bits == 8 && !m_isWhiteZero;
    if (!m_packs)
        return;
    const bool isColor = m_pickedCount >= 3, hasAlpha = m_pickedCount % 2 == 0;
    const std::uint8_t alpha = hasAlpha ? std::uint8_t(m_pickedCount - 1) : PixelArrangement::none;
    // In memory a packed pixel is blue, green, red, alpha, or the other way round.
    const std::uint8_t source[4] = { std::uint8_t(isColor ? 2 : 0), std::uint8_t(isColor ? 1 : 0), 0, alpha };
    m_arrangement.sourceBytes = std::uint8_t(m_pickedCount);
    m_arrangement.resultBytes = 4;
    m_arrangement.pixels = 4;
    std::fill(std::begin(m_arrangement.source), std::end(m_arrangement.source), PixelArrangement::none);
    std::fill(std::begin(m_arrangement.fill), std::end(m_arrangement.fill), std::uint8_t(0));
    for (unsigned pixel = 0; pixel < m_arrangement.pixels; ++pixel)
        for (unsigned i = 0; i < 4; ++i) {
            const unsigned place = pixel * 4 + (detect_endianines() == 1 ? i : 3 - i);
            if (source[i] == PixelArrangement::none)
                m_arrangement.fill[place] = 0xFF;
            else
                m_arrangement.source[place] = std::uint8_t(pixel * m_pickedCount + source[i]);
        }
}

// --- Gathering the samples that count --------------------------------------------------------------------

/// Whether the numbers of a run can be used where they lie.
bool TiffPixelDecoder::liesReady(
    const TiffDecodedBytes& from, std::uint64_t firstBit, std::uint64_t endBit) const
{
    const bool isDense = m_isPlanar ? m_pickedCount == 1 : m_pickedCount == m_samples;
    const bool isNumber = m_numberBytes * byteBits == m_bits;
    const std::uint64_t firstByte = firstBit / byteBits;
    return isDense && isNumber && endBit / byteBits <= from.size
        && reinterpret_cast<std::uintptr_t>(from.bytes + firstByte) % m_numberBytes == 0;
}

const std::uint8_t* TiffPixelDecoder::numbers(
    const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count)
{
    const std::uint64_t endBit = firstBit + count * m_pixelBits;
    if (liesReady(from, firstBit, endBit))
        return from.bytes + firstBit / byteBits;
    gather(from, firstBit, count, endBit <= std::uint64_t(from.size) * byteBits);
    return m_numbers;
}

void TiffPixelDecoder::gather(
    const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count, bool inside)
{
    const bool isSmall = m_bits == 1 || m_bits == 2 || m_bits == 4;
    if (m_numberBytes * byteBits == m_bits && inside)
        gatherBytes(from, firstBit / byteBits, count);
    else if (m_numberBytes * byteBits == m_bits)
        gatherBytesToTheEnd(from, firstBit / byteBits, count);
    else if (m_meaning == Meaning::Table && isSmall && inside && m_pixelBits == m_bits
        && firstBit % byteBits == 0)
        gatherSmall(from, firstBit, count);
    else
        gatherBits(from, firstBit, count);
}

void TiffPixelDecoder::gatherBytes(const TiffDecodedBytes& from, std::uint64_t firstByte, std::size_t count)
{
    const std::size_t fromStride = std::size_t(m_pixelBits / byteBits);
    const std::size_t toStride = std::size_t(m_pickedCount) * m_numberBytes;
    for (unsigned i = 0; i < m_pickedCount; ++i) {
        const std::uint8_t* const bytes = from.bytes + firstByte
            + m_picked[i] * (m_isPlanar ? from.planeDistance : std::size_t(m_numberBytes));
        std::uint8_t* const to = m_numbers + std::size_t(i) * m_numberBytes;
        switch (m_numberBytes) {
        case 1: spread<1>(bytes, fromStride, to, toStride, count); break;
        case 2: spread<2>(bytes, fromStride, to, toStride, count); break;
        case 4: spread<4>(bytes, fromStride, to, toStride, count); break;
        default: spread<8>(bytes, fromStride, to, toStride, count); break;
        }
    }
}

/// The same for a run that goes past the end.
void TiffPixelDecoder::gatherBytesToTheEnd(
    const TiffDecodedBytes& from, std::uint64_t firstByte, std::size_t count)
{
    std::uint8_t* to = m_numbers;
    for (std::size_t pixel = 0; pixel < count; ++pixel)
        for (unsigned i = 0; i < m_pickedCount; ++i) {
            const std::uint8_t* const bytes
                = from.bytes + (m_isPlanar ? m_picked[i] * from.planeDistance : 0);
            const std::uint64_t place = firstByte + pixel * m_pixelBits / byteBits
                + (m_isPlanar ? 0 : std::uint64_t(m_picked[i]) * m_numberBytes);
            for (unsigned byte = 0; byte < m_numberBytes; ++byte)
                *to++ = bytes[std::min<std::uint64_t>(place + byte, from.size - 1)];
        }
}

void TiffPixelDecoder::gatherBits(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count)
{
    const std::size_t last = from.size - 1;
    std::uint8_t* to = m_numbers;
    for (std::size_t pixel = 0; pixel < count; ++pixel)
        for (unsigned i = 0; i < m_pickedCount; ++i) {
            const std::uint8_t* const bytes
                = from.bytes + (m_isPlanar ? m_picked[i] * from.planeDistance : 0);
            const std::uint64_t place
                = firstBit + pixel * m_pixelBits + (m_isPlanar ? 0 : std::uint64_t(m_picked[i]) * m_bits);
            const std::uint32_t bits = isWholeBytes(m_bits) ? bytes24At(bytes, last, place / byteBits)
                                                            : bitsAt(bytes, last, place, m_bits);
            if (m_numberBytes == 1) {
                *to++ = std::uint8_t(bits);
                continue;
            }
            const std::uint32_t number
                = m_number == Number::Int32 ? std::uint32_t(extendSign(bits, m_bits)) : bits;
            std::memcpy(to, &number, sizeof number);
            to += sizeof number;
        }
}

/// Numbers of 1, 2 or 4 bits, one after the other from the beginning of a byte on.
void TiffPixelDecoder::gatherSmall(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count)
{
    const unsigned perByte = byteBits / m_bits;
    const std::uint8_t* const bytes = from.bytes + firstBit / byteBits;
    const unsigned mask = lowBits(m_bits);
    // The last byte may give more numbers than are asked for: a block has room for them.
    const std::size_t byteCount = (count + perByte - 1) / perByte;
    std::uint8_t* to = m_numbers;
    for (std::size_t i = 0; i < byteCount; ++i)
        for (unsigned shift = byteBits; shift != 0;) {
            shift -= m_bits;
            *to++ = std::uint8_t(bytes[i] >> shift & mask);
        }
}

// --- From numbers to pixels ------------------------------------------------------------------------------

void TiffPixelDecoder::toSamples(const std::uint8_t* numbers, float* samples, std::size_t count) const
{
    const void* const any = numbers;
    switch (m_number) {
    case Number::UInt8: m_kernels->scaledByteToFloat(numbers, m_scale, samples, count); break;
    case Number::Int8: scaleNumbers(static_cast<const std::int8_t*>(any), m_scale, samples, count); break;
    case Number::UInt16:
        m_kernels->uint16ToFloat(static_cast<const std::uint16_t*>(any), m_scale, samples, count);
        break;
    case Number::Int16: scaleNumbers(static_cast<const std::int16_t*>(any), m_scale, samples, count); break;
    case Number::UInt32: scaleNumbers(static_cast<const std::uint32_t*>(any), m_scale, samples, count); break;
    case Number::Int32: scaleNumbers(static_cast<const std::int32_t*>(any), m_scale, samples, count); break;
    case Number::UInt64: scaleNumbers(static_cast<const std::uint64_t*>(any), m_scale, samples, count); break;
    case Number::Int64: scaleNumbers(static_cast<const std::int64_t*>(any), m_scale, samples, count); break;
    case Number::Half: m_kernels->halfToFloat(static_cast<const std::uint16_t*>(any), samples, count); break;
    case Number::Float: std::memcpy(samples, numbers, count * sizeof(float)); break;
    case Number::Double: scaleNumbers(static_cast<const double*>(any), 1.0f, samples, count); break;
    }
}

void TiffPixelDecoder::composeSamples(const std::uint8_t* numbers, float* rgba, std::size_t count)
{
    float* const samples = m_pickedCount == 4 ? rgba : m_floats;
    toSamples(numbers, samples, count * m_pickedCount);
    if (m_isWhiteZero)
        for (std::size_t i = 0; i < count; ++i)
            samples[i * m_pickedCount] = 1 - samples[i * m_pickedCount];
    switch (m_pickedCount) {
    case 1: m_kernels->greyToRgba(samples, rgba, count); break;
    case 2: m_kernels->greyAlphaToRgba(samples, rgba, count); break;
    case 3: m_kernels->rgbToRgba(samples, rgba, count); break;
    default: break; // Four samples are a pixel already.
    }
}

/// Each colour is what its ink and black leave of the light.
void TiffPixelDecoder::composeInks(const std::uint8_t* numbers, float* rgba, std::size_t count)
{
    toSamples(numbers, m_floats, count * m_pickedCount);
    for (std::size_t i = 0; i < count; ++i) {
        const float* const inks = m_floats + i * m_pickedCount;
        for (unsigned c = 0; c < 3; ++c)
            rgba[i * 4 + c] = (1 - inks[c]) * (1 - inks[3]);
        rgba[i * 4 + 3] = m_pickedCount == 5 ? inks[4] : 1;
    }
}

void TiffPixelDecoder::composeLog(const std::uint8_t* numbers, float* rgba, std::size_t count) const
{
    const bool isGrey = m_meaning == Meaning::LogL;
    for (std::size_t i = 0; i < count; ++i) {
        float xyz[3];
        if (isGrey) {
            std::memcpy(xyz, numbers + i * sizeof(float), sizeof(float));
            xyz[1] = xyz[2] = xyz[0];
        } else {
            std::memcpy(xyz, numbers + i * sizeof xyz, sizeof xyz);
        }
        for (unsigned c = 0; c < 3; ++c)
            rgba[i * 4 + c] = xyzToRgb[c][0] * xyz[0] + xyzToRgb[c][1] * xyz[1] + xyzToRgb[c][2] * xyz[2];
        rgba[i * 4 + 3] = 1;
    }
}

template <typename T> void TiffPixelDecoder::lookUp(const T* numbers, float* rgba, std::size_t count) const
{
    const std::uint64_t colorCount = std::uint64_t(m_palette->count());
    for (std::size_t i = 0; i < count; ++i) {
        const T* const number = numbers + i * m_pickedCount;
        const Color color = *number < colorCount ? (*m_palette)[int(*number)] : Color { 0, 0, 0 };
        const float pixel[4]
            = { color.r, color.g, color.b, m_pickedCount == 2 ? float(number[1]) * m_scale : 1 };
        std::memcpy(rgba + i * 4, pixel, sizeof pixel);
    }
}

void TiffPixelDecoder::lookUpAny(const std::uint8_t* numbers, float* rgba, std::size_t count) const
{
    const void* const any = numbers;
    switch (m_numberBytes) {
    case 1: lookUp(numbers, rgba, count); break;
    case 2: lookUp(static_cast<const std::uint16_t*>(any), rgba, count); break;
    case 4: lookUp(static_cast<const std::uint32_t*>(any), rgba, count); break;
    default: lookUp(static_cast<const std::uint64_t*>(any), rgba, count); break;
    }
}

void TiffPixelDecoder::toPixels(const std::uint8_t* numbers, float* rgba, std::size_t count)
{
    switch (m_meaning) {
    case Meaning::Table:
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(rgba + i * 4, m_table[numbers[i]], sizeof m_table[0]);
        break;
    case Meaning::Index: lookUpAny(numbers, rgba, count); break;
    case Meaning::Samples: composeSamples(numbers, rgba, count); break;
    case Meaning::Inks: composeInks(numbers, rgba, count); break;
    case Meaning::LogL:
    case Meaning::LogLuv: composeLog(numbers, rgba, count); break;
    }
}

void TiffPixelDecoder::decode(
    const TiffDecodedBytes& from, std::uint64_t firstBit, float* rgba, std::size_t count)
{
    for (std::size_t done = 0; done < count; done += blockPixels) {
        const std::size_t block = std::min(blockPixels, count - done);
        toPixels(numbers(from, firstBit + done * m_pixelBits, block), rgba + done * 4, block);
    }
}

void TiffPixelDecoder::decode(
    const TiffDecodedBytes& from, std::uint64_t firstBit, unsigned int* argb, std::size_t count)
{
    for (std::size_t done = 0; done < count; done += blockPixels) {
        const std::size_t block = std::min(blockPixels, count - done);
        const std::uint8_t* const numbersOfBlock = numbers(from, firstBit + done * m_pixelBits, block);
        if (m_isPlainGrey) {
            m_kernels->greyToPacked(numbersOfBlock, argb + done, block);
        } else if (m_meaning == Meaning::Table) {
            for (std::size_t i = 0; i < block; ++i)
                argb[done + i] = m_packedTable[numbersOfBlock[i]];
        } else {
            m_kernels->arrange(
                m_arrangement, numbersOfBlock, reinterpret_cast<std::uint8_t*>(argb + done), block);
        }
    }
}

} // namespace QUtils
