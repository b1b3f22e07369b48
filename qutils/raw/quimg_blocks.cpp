#include "qutils/raw/quimg_blocks.h"

#include <half.h>

#include <cstring>
#include <emmintrin.h>
#include <new>
#include <zstd_errors.h>

namespace QUtils::quimg {

namespace {

/// Measured on colours with and without grain, depths, normals, positions and numbers: higher levels gain two
/// parts in a hundred and take up to twice the time.
constexpr int compressionLevel = 1;

template <typename T> T load(const std::uint8_t* from, std::size_t index)
{
    T value;
    std::memcpy(&value, from + index * sizeof(T), sizeof(T));
    return value;
}

template <typename T> void store(std::uint8_t* to, std::size_t index, T value)
{
    std::memcpy(to + index * sizeof(T), &value, sizeof(T));
}

/// Makes room without keeping what was there; a buffer is used for blocks of about the same size.
void makeRoom(Bytes& bytes, std::size_t size)
{
    if (bytes.size() < size)
        bytes.resize(size);
}

/// One component of a row to its byte planes, `planeBytes` apart, each byte less its left neighbour.
/// `before`: the first sample of the row above.
template <typename Sample>
void splitRow(
    const std::uint8_t* samples, int width, std::uint8_t* planes, std::size_t planeBytes, Sample before)
{
    for (std::size_t byte = 0; byte < sizeof(Sample); ++byte, planes += planeBytes) {
        const auto part = [byte](Sample sample) { return std::uint8_t(sample >> (8 * byte)); };
        planes[0] = std::uint8_t(part(load<Sample>(samples, 0)) - part(before));
        for (std::size_t x = 1; x < std::size_t(width); ++x)
            planes[x] = std::uint8_t(part(load<Sample>(samples, x)) - part(load<Sample>(samples, x - 1)));
    }
}

/// The samples of one component, side by side.
template <typename Sample>
void takeComponent(const std::uint8_t* row, std::size_t components, int width, std::uint8_t* out)
{
    for (std::size_t x = 0; x < std::size_t(width); ++x)
        store(out, x, load<Sample>(row, x * components));
}

/// A whole row, whose planes begin `planeBytes` apart. `firsts` are the first samples of the row above.
template <typename Sample>
void splitPixels(const std::uint8_t* row, const BlockShape& shape, std::uint8_t* planes,
    std::size_t planeBytes, Sample (&firsts)[4], std::uint8_t* scratch)
{
    const auto components = std::size_t(shape.components);
    for (std::size_t c = 0; c < components; ++c, planes += planeBytes * sizeof(Sample)) {
        const std::uint8_t* samples = row;
        if (components > 1) {
            takeComponent<Sample>(row + c * sizeof(Sample), components, shape.width, scratch);
            samples = scratch;
        }
        splitRow<Sample>(samples, shape.width, planes, planeBytes, firsts[c]);
        firsts[c] = load<Sample>(samples, 0);
    }
}

/// Undoes the differences along a row: each byte is the sum of all up to it.
void addUp(const std::uint8_t* in, int width, std::uint8_t before, std::uint8_t* out)
{
    int x = 0;
    __m128i sum = _mm_set1_epi8(char(before));
    for (; x + 16 <= width; x += 16) {
        __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + x));
        bytes = _mm_add_epi8(bytes, _mm_slli_si128(bytes, 1));
        bytes = _mm_add_epi8(bytes, _mm_slli_si128(bytes, 2));
        bytes = _mm_add_epi8(bytes, _mm_slli_si128(bytes, 4));
        bytes = _mm_add_epi8(bytes, _mm_slli_si128(bytes, 8));
        bytes = _mm_add_epi8(bytes, sum);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), bytes);
        sum = _mm_set1_epi8(char(out[x + 15]));
    }
    auto last = std::uint8_t(x == 0 ? before : out[x - 1]);
    for (; x < width; ++x)
        out[x] = last = std::uint8_t(last + in[x]);
}

/// Puts a component together from the bytes of its samples, and to its place in the row.
template <typename Sample>
void joinComponent(const std::uint8_t* bytes, int width, std::size_t components, std::uint8_t* row)
{
    const auto stride = std::size_t(width);
    for (std::size_t x = 0; x < stride; ++x) {
        Sample sample = 0;
        for (std::size_t byte = 0; byte < sizeof(Sample); ++byte)
            sample = Sample(sample | Sample(bytes[byte * stride + x]) << (8 * byte));
        store(row, x * components, sample);
    }
}

/// The same with the number of components known to the compiler.
template <typename Sample>
void joinRow(const std::uint8_t* bytes, int width, std::size_t components, std::uint8_t* row)
{
    switch (components) {
    case 1: joinComponent<Sample>(bytes, width, 1, row); break;
    case 2: joinComponent<Sample>(bytes, width, 2, row); break;
    case 3: joinComponent<Sample>(bytes, width, 3, row); break;
    default: joinComponent<Sample>(bytes, width, 4, row); break;
    }
}

} // namespace

// --- Encoder ---------------------------------------------------------------------------------------------

BlockEncoder::BlockEncoder() : m_context(ZSTD_createCCtx())
{
    if (!m_context
        || ZSTD_isError(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_compressionLevel, compressionLevel)))
        throw std::bad_alloc();
}

void BlockEncoder::encode(const std::uint8_t* pixels, std::size_t rowBytes, int givenType,
    const BlockShape& shape, PackedBlock& out)
{
    const std::size_t size = shape.bytes();
    const std::size_t planeBytes = std::size_t(shape.width) * std::size_t(shape.rows);
    makeRoom(m_planes, size);
    makeRoom(m_row, shape.rowBytes());
    makeRoom(m_scratch, shape.rowBytes());
    makeRoom(out.bytes, ZSTD_compressBound(size));

    std::uint16_t firsts16[4] = {};
    std::uint32_t firsts32[4] = {};
    for (int y = 0; y < shape.rows; ++y, pixels += rowBytes) {
        const std::uint8_t* row = pixels;
        if (givenType != shape.sampleType) {
            convertSamples(pixels, givenType, m_row.data(), shape.sampleType, shape.samplesInRow());
            row = m_row.data();
        }
        std::uint8_t* const planes = m_planes.data() + std::size_t(y) * std::size_t(shape.width);
        if (sampleBytes(shape.sampleType) == 2)
            splitPixels(row, shape, planes, planeBytes, firsts16, m_scratch.data());
        else
            splitPixels(row, shape, planes, planeBytes, firsts32, m_scratch.data());
    }

    out.entry.predictor = PREDICTOR_LEFT;
    out.entry.coding = CODING_ZSTD;
    std::size_t packed
        = ZSTD_compress2(m_context.get(), out.bytes.data(), out.bytes.size(), m_planes.data(), size);
    if (ZSTD_isError(packed) && ZSTD_getErrorCode(packed) == ZSTD_error_memory_allocation)
        throw std::bad_alloc();
    if (ZSTD_isError(packed) || packed >= size) {
        std::memcpy(out.bytes.data(), m_planes.data(), size);
        out.entry.coding = CODING_STORED;
        packed = size;
    }
    out.entry.length = std::uint32_t(packed);
    out.entry.checksum = checksum(out.bytes.data(), packed);
}

// --- Decoder ---------------------------------------------------------------------------------------------

BlockDecoder::BlockDecoder() : m_context(ZSTD_createDCtx())
{
    if (!m_context)
        throw std::bad_alloc();
}

bool BlockDecoder::decode(
    const std::uint8_t* bytes, std::size_t count, const Block& entry, const BlockShape& shape)
{
    const std::size_t size = shape.bytes();
    if (checksum(bytes, count) != entry.checksum)
        return false;
    if (entry.coding == CODING_STORED) {
        if (count != size)
            return false;
        m_planes = bytes;
    } else {
        makeRoom(m_unpacked, size);
        const std::size_t unpacked
            = ZSTD_decompressDCtx(m_context.get(), m_unpacked.data(), size, bytes, count);
        if (unpacked != size)
            return false;
        m_planes = m_unpacked.data();
    }
    makeRoom(m_row, shape.rowBytes());
    makeRoom(m_scratch, shape.rowBytes());
    m_firsts.assign(std::size_t(shape.components) * sampleBytes(shape.sampleType), 0);
    m_shape = shape;
    m_predicted = entry.predictor == PREDICTOR_LEFT;
    m_nextRow = 0;
    return true;
}

const std::uint8_t* BlockDecoder::nextRow()
{
    const auto width = std::size_t(m_shape.width), components = std::size_t(m_shape.components);
    const std::size_t planeBytes = width * std::size_t(m_shape.rows), bytes = sampleBytes(m_shape.sampleType);
    const std::uint8_t* in = m_planes + width * std::size_t(m_nextRow++);
    for (std::size_t c = 0; c < components; ++c) {
        for (std::size_t byte = 0; byte < bytes; ++byte, in += planeBytes) {
            std::uint8_t* const out = m_scratch.data() + byte * width;
            std::uint8_t& first = m_firsts[c * bytes + byte];
            if (m_predicted)
                addUp(in, m_shape.width, first, out);
            else
                std::memcpy(out, in, width);
            first = out[0];
        }
        if (bytes == 2)
            joinRow<std::uint16_t>(m_scratch.data(), m_shape.width, components, m_row.data() + c * bytes);
        else
            joinRow<std::uint32_t>(m_scratch.data(), m_shape.width, components, m_row.data() + c * bytes);
    }
    return m_row.data();
}

void BlockDecoder::skipRow()
{
    const std::size_t planeBytes = std::size_t(m_shape.width) * std::size_t(m_shape.rows);
    const std::uint8_t* in = m_planes + std::size_t(m_shape.width) * std::size_t(m_nextRow++);
    for (std::uint8_t& first : m_firsts) {
        first = std::uint8_t(*in + (m_predicted ? first : 0));
        in += planeBytes;
    }
}

// --- Sample types ----------------------------------------------------------------------------------------

void convertSamples(const std::uint8_t* from, int fromType, std::uint8_t* to, int toType, std::size_t count)
{
    if (fromType == toType) {
        std::memcpy(to, from, count * sampleBytes(fromType));
    } else if (fromType == RISAMPLE_FLOAT && toType == RISAMPLE_HALF) {
        for (std::size_t i = 0; i < count; ++i)
            store(to, i, imath_float_to_half(load<float>(from, i)));
    } else {
        for (std::size_t i = 0; i < count; ++i)
            store(to, i, imath_half_to_float(load<std::uint16_t>(from, i)));
    }
}

void toFloats(const std::uint8_t* from, int fromType, std::uint8_t* to, std::size_t count)
{
    if (fromType != RISAMPLE_UINT) {
        convertSamples(from, fromType, to, RISAMPLE_FLOAT, count);
        return;
    }
    for (std::size_t i = 0; i < count; ++i)
        store(to, i, float(load<std::uint32_t>(from, i)));
}

} // namespace QUtils::quimg
