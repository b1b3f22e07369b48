#include "qutils/formats/dds/block_levels.h"
#include "qutils/formats/dds/bptc_tables.h"
#include "qutils/formats/dds/half_float.h"

#include <array>
#include <string_view>

// Source: ARB_texture_compression_bptc, the float format.

namespace QUtils {

namespace {

// --- The fields of the modes -----------------------------------------------------------------------------

/// Variable (channel, then endpoint): r0 is 0, g0 1, b0 2, r1 3 ...
constexpr std::size_t variableCount = 12;

/// A run of bits that belong together. Those of reversed runs come with the highest one first.
struct Field {
    std::uint8_t variable, lowest, count;
    bool isReversed;
};

struct Mode {
    std::uint8_t number;
    bool isTransformed, hasPartition;
    std::uint8_t endpointBits;
    std::uint8_t deltaBits[3];
    std::string_view fields; ///< Behind the mode's own bits: "v[a:b]" in the order of the block.
};

// clang-format off
constexpr Mode modes[] = {
    { 0, true, true, 10, { 5, 5, 5 },
        "g2[4],b2[4],b3[4],r0[9:0],g0[9:0],b0[9:0],r1[4:0],g3[4],g2[3:0],"
        "g1[4:0],b3[0],g3[3:0],b1[4:0],b3[1],b2[3:0],r2[4:0],b3[2],r3[4:0],b3[3]" },
    { 1, true, true, 7, { 6, 6, 6 },
        "g2[5],g3[4],g3[5],r0[6:0],b3[0],b3[1],b2[4],g0[6:0],b2[5],b3[2],"
        "g2[4],b0[6:0],b3[3],b3[5],b3[4],r1[5:0],g2[3:0],g1[5:0],g3[3:0],b1[5:0],"
        "b2[3:0],r2[5:0],r3[5:0]" },
    { 2, true, true, 11, { 5, 4, 4 },
        "r0[9:0],g0[9:0],b0[9:0],r1[4:0],r0[10],g2[3:0],g1[3:0],g0[10],"
        "b3[0],g3[3:0],b1[3:0],b0[10],b3[1],b2[3:0],r2[4:0],b3[2],r3[4:0],b3[3]" },
    { 6, true, true, 11, { 4, 5, 4 },
        "r0[9:0],g0[9:0],b0[9:0],r1[3:0],r0[10],g3[4],g2[3:0],g1[4:0],"
        "g0[10],g3[3:0],b1[3:0],b0[10],b3[1],b2[3:0],r2[3:0],b3[0],b3[2],r3[3:0],"
        "g2[4],b3[3]" },
    { 10, true, true, 11, { 4, 4, 5 },
        "r0[9:0],g0[9:0],b0[9:0],r1[3:0],r0[10],b2[4],g2[3:0],g1[3:0],"
        "g0[10],b3[0],g3[3:0],b1[4:0],b0[10],b2[3:0],r2[3:0],b3[1],b3[2],r3[3:0],"
        "b3[4],b3[3]" },
    { 14, true, true, 9, { 5, 5, 5 },
        "r0[8:0],b2[4],g0[8:0],g2[4],b0[8:0],b3[4],r1[4:0],g3[4],g2[3:0],"
        "g1[4:0],b3[0],g3[3:0],b1[4:0],b3[1],b2[3:0],r2[4:0],b3[2],r3[4:0],b3[3]" },
    { 18, true, true, 8, { 6, 5, 5 },
        "r0[7:0],g3[4],b2[4],g0[7:0],b3[2],g2[4],b0[7:0],b3[3],b3[4],"
        "r1[5:0],g2[3:0],g1[4:0],b3[0],g3[3:0],b1[4:0],b3[1],b2[3:0],r2[5:0],"
        "r3[5:0]" },
    { 22, true, true, 8, { 5, 6, 5 },
        "r0[7:0],b3[0],b2[4],g0[7:0],g2[5],g2[4],b0[7:0],g3[5],b3[4],"
        "r1[4:0],g3[4],g2[3:0],g1[5:0],g3[3:0],b1[4:0],b3[1],b2[3:0],r2[4:0],"
        "b3[2],r3[4:0],b3[3]" },
    { 26, true, true, 8, { 5, 5, 6 },
        "r0[7:0],b3[1],b2[4],g0[7:0],b2[5],g2[4],b0[7:0],b3[5],b3[4],"
        "r1[4:0],g3[4],g2[3:0],g1[4:0],b3[0],g3[3:0],b1[5:0],b2[3:0],r2[4:0],"
        "b3[2],r3[4:0],b3[3]" },
    { 30, false, true, 6, { 6, 6, 6 },
        "r0[5:0],g3[4],b3[0],b3[1],b2[4],g0[5:0],g2[5],b2[5],b3[2],"
        "g2[4],b0[5:0],g3[5],b3[3],b3[5],b3[4],r1[5:0],g2[3:0],g1[5:0],g3[3:0],"
        "b1[5:0],b2[3:0],r2[5:0],r3[5:0]" },
    { 3, false, false, 10, { 10, 10, 10 },
        "r0[9:0],g0[9:0],b0[9:0],r1[9:0],g1[9:0],b1[9:0]" },
    { 7, true, false, 11, { 9, 9, 9 },
        "r0[9:0],g0[9:0],b0[9:0],r1[8:0],r0[10],g1[8:0],g0[10],b1[8:0],"
        "b0[10]" },
    { 11, true, false, 12, { 8, 8, 8 },
        "r0[9:0],g0[9:0],b0[9:0],r1[7:0],r0[10:11],g1[7:0],g0[10:11],"
        "b1[7:0],b0[10:11]" },
    { 15, true, false, 16, { 4, 4, 4 },
        "r0[9:0],g0[9:0],b0[9:0],r1[3:0],r0[10:15],g1[3:0],g0[10:15],"
        "b1[3:0],b0[10:15]" },
};
// clang-format on

struct Fields {
    std::array<Field, 28> list {};
    std::size_t count = 0;
    int bits = 0;
};

constexpr std::uint8_t parseNumber(std::string_view text, std::size_t& pos)
{
    int number = 0;
    while (text[pos] >= '0' && text[pos] <= '9')
        number = number * 10 + (text[pos++] - '0');
    return std::uint8_t(number);
}

constexpr Fields parseFields(std::string_view text)
{
    Fields fields;
    for (std::size_t pos = 0; pos < text.size(); ++pos) { // Over the comma.
        const int channel = text[pos] == 'r' ? 0 : text[pos] == 'g' ? 1 : 2;
        const int endpoint = text[pos + 1] - '0';
        pos += 3;
        const std::uint8_t first = parseNumber(text, pos);
        std::uint8_t last = first;
        if (text[pos] == ':')
            last = parseNumber(text, ++pos);
        ++pos; // The bracket.
        const bool isReversed = first < last;
        const std::uint8_t lowest = isReversed ? first : last;
        const std::uint8_t count = std::uint8_t((isReversed ? last : first) - lowest + 1);
        fields.list[fields.count++] = { std::uint8_t(endpoint * 3 + channel), lowest, count, isReversed };
        fields.bits += count;
    }
    return fields;
}

constexpr std::size_t modeCount = std::size(modes);

constexpr std::array<Fields, modeCount> parseModes()
{
    std::array<Fields, modeCount> all {};
    for (std::size_t i = 0; i < modeCount; ++i)
        all[i] = parseFields(modes[i].fields);
    return all;
}

constexpr auto modeFields = parseModes();

/// The position in the table of each number of 5 bits, of which modes 0 and 1 use 2; past its end for others.
constexpr std::array<std::uint8_t, 32> makeModeIndex()
{
    std::array<std::uint8_t, 32> index {};
    for (std::size_t bits = 0; bits < 32; ++bits) {
        index[bits] = std::uint8_t(modeCount);
        for (std::size_t i = 0; i < modeCount; ++i)
            if (modes[i].number == ((bits & 3) < 2 ? bits & 3 : bits))
                index[bits] = std::uint8_t(i);
    }
    return index;
}

constexpr auto modeIndex = makeModeIndex();

// --- Endpoints -------------------------------------------------------------------------------------------

/// Takes bits from the lowest on.
class BitReader {
public:
    explicit BitReader(const std::uint8_t* block) : m_low(loadLong(block)), m_high(loadLong(block + 8)) { }

    /// 0 to 63 bits.
    std::uint64_t bits(int count)
    {
        const std::uint64_t value = m_low & ((std::uint64_t(1) << count) - 1);
        m_low = count == 0 ? m_low : m_low >> count | m_high << (64 - count);
        m_high >>= count;
        return value;
    }

private:
    std::uint64_t m_low, m_high;
};

std::uint32_t reversed(std::uint32_t bits, int count)
{
    std::uint32_t result = 0;
    for (int i = 0; i < count; ++i)
        result |= (bits >> i & 1) << (count - 1 - i);
    return result;
}

int extendSign(std::uint32_t bits, int count)
{
    const std::uint32_t sign = 1u << (count - 1);
    return int((bits & (2 * sign - 1)) ^ sign) - int(sign);
}

using Endpoints = std::array<int, variableCount>;

Endpoints readEndpoints(BitReader& in, const Fields& fields)
{
    Endpoints values {};
    for (std::size_t i = 0; i < fields.count; ++i) {
        const Field& field = fields.list[i];
        std::uint32_t bits = std::uint32_t(in.bits(field.count));
        if (field.isReversed)
            bits = reversed(bits, field.count);
        values[field.variable] |= int(bits << field.lowest);
    }
    return values;
}

/// Undoes signs and differences.
void resolve(Endpoints& values, const Mode& mode, bool isSigned)
{
    const std::size_t used = mode.hasPartition ? variableCount : 6;
    const std::uint32_t mask = (1u << mode.endpointBits) - 1;
    for (std::size_t c = 0; isSigned && c < 3; ++c)
        values[c] = extendSign(std::uint32_t(values[c]), mode.endpointBits);
    for (std::size_t i = 3; i < used; ++i) {
        if (isSigned || mode.isTransformed)
            values[i] = extendSign(std::uint32_t(values[i]), mode.deltaBits[i % 3]);
        if (!mode.isTransformed)
            continue;
        const std::uint32_t sum = std::uint32_t(values[i % 3] + values[i]) & mask;
        values[i] = isSigned ? extendSign(sum, mode.endpointBits) : int(sum);
    }
}

/// Stretches a number of `bits` bits to 16, so that both ends of the range are reached.
int unquantize(int value, int bits)
{
    if (bits >= 15 || value == 0)
        return value;
    return value == (1 << bits) - 1 ? 0xFFFF : ((value << 15) + 0x4000) >> (bits - 1);
}

int unquantizeSigned(int value, int bits)
{
    if (bits >= 16 || value == 0)
        return value;
    const int magnitude = value < 0 ? -value : value;
    const int result
        = magnitude >= (1 << (bits - 1)) - 1 ? 0x7FFF : ((magnitude << 15) + 0x4000) >> (bits - 1);
    return value < 0 ? -result : result;
}

/// From an interpolated number to the bits of a half.
float finish(int value, bool isSigned)
{
    if (!isSigned)
        return halfToFloat(std::uint32_t(value * 31 >> 6));
    return value < 0 ? halfToFloat(std::uint32_t(-value * 31 >> 5) | 0x8000)
                     : halfToFloat(std::uint32_t(value * 31 >> 5));
}

// --- Blocks ----------------------------------------------------------------------------------------------

struct Color {
    float rgba[4];
};

/// All colours that the pixels of a subset choose from.
void fillPalette(Color* colors, const int* first, const int* second, int indexBits, bool isSigned)
{
    const std::uint8_t* const weights = indexWeights(indexBits);
    for (int i = 0; i < 1 << indexBits; ++i) {
        for (int c = 0; c < 3; ++c) {
            const int sum = first[c] * (64 - weights[i]) + second[c] * weights[i] + 32;
            colors[i].rgba[c] = finish(sum >> 6, isSigned);
        }
        colors[i].rgba[3] = 1.0f;
    }
}

void storeColor(float* const* rows, std::size_t block, std::size_t pixel, const Color& color)
{
    std::memcpy(rows[pixel / 4] + (block * 4 + pixel % 4) * 4, color.rgba, sizeof color.rgba);
}

void decodeBlock(const std::uint8_t* bytes, std::size_t block, float* const* rows, bool isSigned)
{
    const std::size_t index = modeIndex[bytes[0] & 31];
    if (index == modeCount) { // Reserved: opaque black.
        for (std::size_t i = 0; i < 16; ++i)
            storeColor(rows, block, i, { { 0, 0, 0, 1 } });
        return;
    }
    const Mode& mode = modes[index];
    BitReader in(bytes);
    in.bits(mode.number < 2 ? 2 : 5);
    Endpoints values = readEndpoints(in, modeFields[index]);
    resolve(values, mode, isSigned);
    for (int& value : values)
        value = isSigned ? unquantizeSigned(value, mode.endpointBits) : unquantize(value, mode.endpointBits);

    Color palette[16];
    const int indexBits = mode.hasPartition ? 3 : 4;
    fillPalette(palette, &values[0], &values[3], indexBits, isSigned);
    std::uint32_t subsets = 0;
    std::uint64_t indices = 0;
    if (mode.hasPartition) {
        const std::size_t partition = std::size_t(in.bits(5));
        fillPalette(palette + 8, &values[6], &values[9], indexBits, isSigned);
        subsets = twoSubsets[partition];
        indices = completeIndex(completeIndex(in.bits(46), 0, 3), anchorOfTwo[partition], 3);
    } else {
        indices = completeIndex(in.bits(63), 0, 4);
    }
    for (std::size_t i = 0; i < 16; ++i) {
        const std::size_t number
            = std::size_t(indices >> (i * std::size_t(indexBits))) & ((1u << indexBits) - 1);
        storeColor(rows, block, i, palette[number + ((subsets >> (2 * i) & 1) != 0 ? 8 : 0)]);
    }
}

void decodeBlocks(const std::uint8_t* blocks, std::size_t count, float* const* rows, bool isSigned)
{
    for (std::size_t n = 0; n < count; ++n, blocks += 16)
        decodeBlock(blocks, n, rows, isSigned);
}

} // namespace

void decodeBc6(const std::uint8_t* blocks, std::size_t count, float* const* rows)
{
    decodeBlocks(blocks, count, rows, false);
}

void decodeBc6Signed(const std::uint8_t* blocks, std::size_t count, float* const* rows)
{
    decodeBlocks(blocks, count, rows, true);
}

} // namespace QUtils
