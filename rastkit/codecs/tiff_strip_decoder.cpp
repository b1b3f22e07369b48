#include "rastkit/codecs/tiff_strip_decoder.h"

#include "rastkit/codecs/byte_order.h"
#include "rastkit/codecs/tiff_rows.h"
#include "rastkit/codecs/tiff_samples.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace QUtils {

namespace {

constexpr int byteBits = 8;

/// The byte at `cur` counts up to the last one, which repeats.
void advance(BitStreamReader& reader)
{
    if (reader.cur - reader.start < reader.size - 1)
        reader.curByte = *++reader.cur;
}

/// The first byte is the least significant one where integers are stored that way, else the most significant.
std::uint32_t nextBytes(BitStreamReader& reader, int count)
{
    const bool leastFirst = detect_endianines() == 1;
    std::uint32_t number = 0;
    for (int i = 0; i < count; ++i) {
        const std::uint32_t byte = reader.curByte & 0xFF;
        if (!leastFirst)
            number = number << byteBits | byte;
        else if (i < 4)
            number |= byte << (byteBits * i);
        advance(reader);
    }
    return number;
}

std::uint32_t lowBits(int count)
{
    return count >= 32 ? 0xFFFFFFFFu : (1u << count) - 1;
}

} // namespace

// --- Single numbers --------------------------------------------------------------------------------------

unsigned int BitStreamReader::nextBits(int n)
{
    if (n % byteBits == 0)
        return nextBytes(*this, n / byteBits);
    std::uint32_t number = 0;
    while (n > bitsLeft) {
        const int position = n - bitsLeft;
        if (position < 32)
            number |= (curByte & lowBits(bitsLeft)) << position;
        n -= bitsLeft;
        bitsLeft = byteBits;
        advance(*this);
    }
    if (n <= 0)
        return number;
    bitsLeft -= n;
    return number | (curByte >> bitsLeft & lowBits(n));
}

float BitStreamReader::nextFloatDetermineSize(int bits)
{
    if (bits == 32) {
        const std::uint32_t word = nextBits(32);
        float number = 0;
        std::memcpy(&number, &word, sizeof number);
        return number;
    }
    if (bits != 64)
        throw IMGERR_UNSUPPORTED;
    const std::uint64_t first = nextBits(32), second = nextBits(32);
    const std::uint64_t word = detect_endianines() == 1 ? second << 32 | first : first << 32 | second;
    double number = 0;
    std::memcpy(&number, &word, sizeof number);
    return float(number);
}

// --- Whole chunks ----------------------------------------------------------------------------------------

namespace {

constexpr unsigned fourthSample = 3;

TiffPixelLayout layoutOf(
    unsigned sampleFormat, unsigned planarConfig, unsigned photometric, const IMGINFO& info)
{
    TiffPixelLayout layout;
    layout.photometric = photometric;
    layout.sampleFormat = sampleFormat;
    layout.samples = unsigned(info.numChannels);
    layout.bits = unsigned(info.bitsPerPixel) / layout.samples;
    layout.isPlanar = planarConfig == PLANARCONFIG_SEPARATE;
    if (photometric == PHOTOMETRIC_RGB && layout.samples > fourthSample)
        layout.alphaSample = int(fourthSample);
    return layout;
}

bool isKnown(unsigned photometric)
{
    return photometric <= PHOTOMETRIC_PALETTE || photometric == PHOTOMETRIC_LOGL
        || photometric == PHOTOMETRIC_LOGLUV;
}

/// The decoder knows 16-bit floats too; files with them take another way here, which scenes rely on.
bool hasKnownFloats(const TiffPixelLayout& layout)
{
    return layout.sampleFormat != SAMPLEFORMAT_IEEEFP || layout.photometric > PHOTOMETRIC_RGB
        || layout.bits == 32 || layout.bits == 64;
}

/// The decoded bytes of one chunk, and where in them the reader stands.
struct ChunkBytes {
    TiffDecodedBytes bytes;
    std::uint64_t firstBit;
    std::uint8_t onlyByte; // What there is without any bytes.
};

void findBytes(const BitStreamReader& reader, const TiffPixelLayout& layout, ChunkBytes& chunk)
{
    std::size_t size = reader.size > 0 && reader.start ? std::size_t(reader.size) : 0;
    chunk.bytes.planeDistance = layout.isPlanar ? size / layout.samples : 0;
    if (layout.isPlanar)
        size = chunk.bytes.planeDistance;
    chunk.onlyByte = std::uint8_t(reader.curByte);
    const std::ptrdiff_t offset = size != 0 ? reader.cur - reader.start : 0;
    const int consumed
        = layout.bits % unsigned(byteBits) == 0 ? 0 : byteBits - std::clamp(reader.bitsLeft, 0, byteBits);
    chunk.firstBit = std::uint64_t(std::max<std::ptrdiff_t>(offset, 0)) * byteBits + unsigned(consumed);
    chunk.bytes.bytes = size != 0 ? reader.start : &chunk.onlyByte;
    chunk.bytes.size = std::max<std::size_t>(size, 1);
    if (size == 0)
        chunk.bytes.planeDistance = 0;
}

/// Leaves the reader as if it had read `bits` bits, number by number.
void skipBits(BitStreamReader& reader, std::uint64_t bits, bool wholeBytes)
{
    std::uint64_t bytes = bits / byteBits;
    if (!wholeBytes) {
        const auto left = std::uint64_t(std::clamp(reader.bitsLeft, 0, byteBits));
        bytes = bits <= left ? 0 : (bits - left + byteBits - 1) / byteBits;
        reader.bitsLeft = int(left + bytes * byteBits - bits);
    }
    const std::ptrdiff_t most = std::ptrdiff_t(reader.size) - 1 - (reader.cur - reader.start);
    const std::uint64_t steps = std::min(bytes, std::uint64_t(std::max<std::ptrdiff_t>(most, 0)));
    if (steps == 0)
        return;
    reader.cur += steps;
    reader.curByte = *reader.cur;
}

/// The runs of a chunk: as many rows as it has, or the part of one, `width` pixels each.
struct ChunkRuns {
    std::int64_t width, pixels;

    std::int64_t rows() const { return width > 0 ? (pixels + width - 1) / width : 0; }
};

ChunkRuns runsOf(const OrientedPixelBuffer& target)
{
    const std::int64_t width = std::max(target.chunkWidth, 0);
    if (target.isTile)
        return { width, width * std::max(target.chunkHeight, 0) };
    // A row without a width of its own is as wide as the image.
    return { width > 0 ? width : target.width, std::max(target.width, 0) };
}

template <typename Pixel>
ImgErrorCode storeRuns(
    RowSink& sink, TiffPixelDecoder& decoder, const ChunkBytes& chunk, const OrientedPixelBuffer& target)
{
    const ChunkRuns runs = runsOf(target);
    TiffRows<Pixel> rows(sink, TiffOrientation::of(target.orientation, Conventions::Renderer), target.width,
        target.height, int(runs.width));
    // Rows below the image need not be gone through.
    const std::int64_t last = std::min(runs.rows(), std::int64_t(target.height) - target.originY);
    for (std::int64_t row = std::max<std::int64_t>(0, -std::int64_t(target.originY)); row < last; ++row) {
        const std::int64_t first = row * runs.width;
        std::uint64_t bit = 0;
        if (__builtin_mul_overflow(std::uint64_t(first), decoder.pixelBits(), &bit) || bit >> 62 != 0)
            return IMGERR_NONE; // No chunk in memory has so many.
        RASTKIT_TRY(rows.store(decoder, chunk.bytes, chunk.firstBit + bit,
            { target.originX, int(target.originY + row), int(std::min(runs.width, runs.pixels - first)) }));
    }
    rows.finish();
    return IMGERR_NONE;
}

} // namespace

void tiff_read_data_chunk(BitStreamReader* reader, unsigned short sampleFormat, unsigned short planarConfig,
    unsigned short photometric, bool /*hasPalette*/, const Table<Color, 100>& palette, IMGINFO& info,
    OrientedPixelBuffer& target)
{
    if (!isKnown(photometric))
        return;
    if (info.numChannels <= 0 || info.bitsPerPixel <= 0)
        throw IMGERR_FORMAT;
    const TiffPixelLayout layout = layoutOf(sampleFormat, planarConfig, photometric, info);
    if (layout.bits == 0 && !layout.isLog())
        throw IMGERR_FORMAT;
    TiffPixelDecoder decoder;
    if (!hasKnownFloats(layout) || decoder.setUp(layout, palette) != IMGERR_NONE)
        throw IMGERR_UNSUPPORTED;

    ChunkBytes chunk;
    findBytes(*reader, layout, chunk);
    RowSink sink(*target.buffer);
    sink.adopt(target.width, target.height);
    const bool packs = decoder.isPackable() && sink.roundsToBytes();
    const ImgErrorCode code = packs ? storeRuns<unsigned int>(sink, decoder, chunk, target)
                                    : storeRuns<float>(sink, decoder, chunk, target);
    if (code != IMGERR_NONE)
        throw code;

    const ChunkRuns runs = runsOf(target);
    std::uint64_t bits = 0;
    if (__builtin_mul_overflow(std::uint64_t(runs.pixels), decoder.pixelBits(), &bits))
        bits = UINT64_MAX / 2;
    skipBits(*reader, bits, layout.isLog() || layout.bits % unsigned(byteBits) == 0);
}

} // namespace QUtils
