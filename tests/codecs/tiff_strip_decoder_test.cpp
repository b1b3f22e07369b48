#include "rastkit/buffers.h"
#include "rastkit/codecs/tiff_strip_decoder.h"
#include "support/recording_buffer.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>

namespace {

using namespace testing_support;
using testing::ElementsAre;

using Rgba = std::array<float, 4>;
using Palette = QUtils::Table<Color, 100>;

constexpr unsigned short whiteIsZero = 0, blackIsZero = 1, rgb = 2, palettePhotometric = 3, logL = 32844,
                         logLuv = 32845;
constexpr unsigned short unsignedFormat = 1, signedFormat = 2, floatFormat = 3;

BitStreamReader over(const Bytes& bytes)
{
    return { bytes.data(), bytes.data(), bytes.empty() ? 0u : bytes[0], 8, int(bytes.size()) };
}

template <typename T> void append(Bytes& bytes, T value)
{
    const auto* const from = reinterpret_cast<const std::uint8_t*>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

/// What tiff_read_data_chunk is given besides the bytes.
struct Chunk {
    unsigned short photometric = blackIsZero, sampleFormat = unsignedFormat, planar = 1;
    int bits = 8, samples = 1;
    Palette palette = {};

    /// Decodes `bytes` as a row of `width` pixels; `reader` may go on from an earlier one.
    std::vector<Rgba> row(BitStreamReader& reader, int width) const
    {
        RecordingBuffer sink;
        OrientedPixelBuffer target { &sink, width, 1, 1, 0, width, 1, 0, 0 };
        decode(reader, target);
        std::vector<Rgba> pixels;
        for (int x = 0; x < width; ++x)
            pixels.push_back(sink.pixelsF.at({ x, 0 }));
        return pixels;
    }
    std::vector<Rgba> row(const Bytes& bytes, int width) const
    {
        BitStreamReader reader = over(bytes);
        return row(reader, width);
    }
    void decode(BitStreamReader& reader, OrientedPixelBuffer& target) const
    {
        IMGINFO info {};
        info.numChannels = samples;
        info.bitsPerPixel = bits * samples;
        tiff_read_data_chunk(
            &reader, sampleFormat, planar, photometric, palette.count() != 0, palette, info, target);
    }
};

/// The code that `work` throws, or -1.
int thrownBy(const std::function<void()>& work)
{
    try {
        work();
    } catch (const ImgErrorCode code) {
        return code;
    }
    return -1;
}

// --- BitStreamReader -------------------------------------------------------------------------------------

TEST(BitStreamReader, BitsComeMostSignificantFirst)
{
    const Bytes bytes { 0xA5 };
    BitStreamReader reader = over(bytes);
    EXPECT_EQ(reader.nextBits(4), 0xAu);
    EXPECT_EQ(reader.nextBits(4), 0x5u);
}

TEST(BitStreamReader, WholeBytesComeInTheComputersOrder)
{
    const Bytes bytes { 0x34, 0x12, 0x01, 0x02, 0x03, 0x78, 0x56, 0x34, 0x12 };
    BitStreamReader reader = over(bytes);
    reader.bitsLeft = 3;
    EXPECT_EQ(reader.nextBits(16), 0x1234u);
    EXPECT_EQ(reader.nextBits(24), 0x030201u);
    EXPECT_EQ(reader.nextBits(32), 0x12345678u);
    EXPECT_EQ(reader.bitsLeft, 3);
}

TEST(BitStreamReader, BitsGoAcrossBytes)
{
    const Bytes bytes { 0xAB, 0xCD };
    BitStreamReader reader = over(bytes);
    EXPECT_EQ(reader.nextBits(12), 0xABCu);
    EXPECT_EQ(reader.bitsLeft, 4);
    EXPECT_EQ(reader.nextBits(4), 0xDu);
}

TEST(BitStreamReader, LastByteRepeats)
{
    const Bytes bytes { 1, 2, 3 };
    BitStreamReader reader = over(bytes);
    std::vector<unsigned int> seen;
    for (int i = 0; i < 5; ++i)
        seen.push_back(reader.nextBits(8));
    EXPECT_THAT(seen, ElementsAre(1u, 2u, 3u, 3u, 3u));
    EXPECT_EQ(reader.cur, bytes.data() + 2);
    EXPECT_EQ(reader.nextBits(12), 0x030u);
}

TEST(BitStreamReader, NoBytesRepeatThePresentOne)
{
    for (const int size : { 0, -5 }) {
        BitStreamReader reader { nullptr, nullptr, 7, 8, size };
        EXPECT_EQ(reader.nextBits(16), 0x0707u);
        EXPECT_EQ(reader.nextBits(4), 0u);
        EXPECT_EQ(reader.nextBits(5), 0b01110u);
        EXPECT_EQ(reader.cur, nullptr);
    }
}

TEST(BitStreamReader, EveryCountOfBitsIsReadFromEveryPlace)
{
    Bytes bytes;
    for (int i = 0; i < 16; ++i)
        bytes.push_back(std::uint8_t(i * 37 + 11));
    for (int skipped = 1; skipped < 8; ++skipped)
        for (int count = 1; count <= 32; ++count) {
            if (count % 8 == 0)
                continue;
            BitStreamReader reader = over(bytes);
            reader.nextBits(skipped);
            std::uint32_t expected = 0;
            for (int bit = skipped; bit < skipped + count; ++bit)
                expected = expected << 1 | (bytes[std::size_t(bit / 8)] >> (7 - bit % 8) & 1);
            EXPECT_EQ(reader.nextBits(count), expected) << skipped << ' ' << count;
        }
}

TEST(BitStreamReader, FloatsHave32Or64Bits)
{
    Bytes bytes;
    append(bytes, 1.5f);
    append(bytes, -2.25);
    BitStreamReader reader = over(bytes);
    EXPECT_EQ(reader.nextFloatDetermineSize(32), 1.5f);
    EXPECT_EQ(reader.nextFloatDetermineSize(64), -2.25f);
    for (const int size : { 0, 8, 16, 24, 128 })
        EXPECT_EQ(thrownBy([&] { reader.nextFloatDetermineSize(size); }), IMGERR_UNSUPPORTED) << size;
}

// --- Sample layouts --------------------------------------------------------------------------------------

TEST(TiffChunk, GreyIsScaledByItsGreatestNumber)
{
    const Chunk chunk;
    EXPECT_THAT(chunk.row(Bytes { 0, 51, 255 }, 3),
        ElementsAre(Rgba { 0, 0, 0, 1 }, Rgba { 51 * (1 / 255.f), 51 * (1 / 255.f), 51 * (1 / 255.f), 1 },
            Rgba { 1, 1, 1, 1 }));
}

TEST(TiffChunk, WhiteIsZeroTurnsGreyOver)
{
    const Chunk chunk { .photometric = whiteIsZero, .bits = 1 };
    EXPECT_THAT(chunk.row(Bytes { 0b01000000 }, 2), ElementsAre(Rgba { 1, 1, 1, 1 }, Rgba { 0, 0, 0, 1 }));
    Bytes floats;
    append(floats, 0.25f);
    const Chunk floatChunk { .photometric = whiteIsZero, .sampleFormat = floatFormat, .bits = 32 };
    EXPECT_THAT(floatChunk.row(floats, 1), ElementsAre(Rgba { 0.75f, 0.75f, 0.75f, 1 }));
}

TEST(TiffChunk, NegativeSamplesStayNegative)
{
    const Chunk bytes { .sampleFormat = signedFormat };
    const float k = 1 / 255.f;
    EXPECT_THAT(bytes.row(Bytes { 0x7F, 0x80, 0xFF }, 3),
        ElementsAre(Rgba { 127 * k, 127 * k, 127 * k, 1 }, Rgba { -128 * k, -128 * k, -128 * k, 1 },
            Rgba { -k, -k, -k, 1 }));
    const Chunk nibbles { .sampleFormat = signedFormat, .bits = 4 };
    EXPECT_EQ(nibbles.row(Bytes { 0x80 }, 1)[0][0], -8 * float(1 / 15.));
}

TEST(TiffChunk, FourthRgbSampleIsAlpha)
{
    const Chunk chunk { .photometric = rgb, .samples = 4 };
    EXPECT_EQ(chunk.row(Bytes { 255, 0, 255, 0 }, 1)[0], (Rgba { 1, 0, 1, 0 }));
    const Chunk five { .photometric = rgb, .samples = 5 };
    EXPECT_EQ(five.row(Bytes { 0, 255, 0, 255, 9, 255, 0, 0, 0, 9 }, 2)[1], (Rgba { 1, 0, 0, 0 }));
}

TEST(TiffChunk, FurtherGreySamplesAreSkipped)
{
    for (const int samples : { 2, 3, 4 }) {
        const Chunk chunk { .samples = samples };
        Bytes bytes(std::size_t(samples) * 2, 77);
        bytes[0] = 255;
        bytes[std::size_t(samples)] = 0;
        EXPECT_THAT(chunk.row(bytes, 2), ElementsAre(Rgba { 1, 1, 1, 1 }, Rgba { 0, 0, 0, 1 })) << samples;
    }
}

TEST(TiffChunk, PlanesLieOneAfterTheOther)
{
    const Chunk chunk { .photometric = rgb, .planar = 2, .samples = 3 };
    EXPECT_THAT(
        chunk.row(Bytes { 255, 0, 0, 255, 0, 0 }, 2), ElementsAre(Rgba { 1, 0, 0, 1 }, Rgba { 0, 1, 0, 1 }));
    const Chunk alpha { .photometric = rgb, .planar = 2, .bits = 4, .samples = 4 };
    EXPECT_THAT(alpha.row(Bytes { 0xF0, 0x0F, 0x00, 0xF0 }, 2),
        ElementsAre(Rgba { 1, 0, 0, 1 }, Rgba { 0, 1, 0, 0 }));
}

TEST(TiffChunk, PlanesGoOnWhereTheReaderStands)
{
    const Chunk chunk { .photometric = rgb, .planar = 2, .samples = 3 };
    const Bytes bytes { 255, 0, 0, 255, 0, 0 };
    BitStreamReader reader = over(bytes);
    EXPECT_EQ(chunk.row(reader, 1)[0], (Rgba { 1, 0, 0, 1 }));
    EXPECT_EQ(reader.cur, bytes.data() + 1);
    EXPECT_EQ(chunk.row(reader, 1)[0], (Rgba { 0, 1, 0, 1 }));
}

TEST(TiffChunk, PaletteIndexWithoutAColorIsBlack)
{
    Chunk chunk { .photometric = palettePhotometric, .bits = 4 };
    chunk.palette.add({ 0.1f, 0.2f, 0.3f });
    chunk.palette.add({ 0.4f, 0.5f, 0.6f });
    EXPECT_THAT(chunk.row(Bytes { 0x10, 0xF0 }, 3),
        ElementsAre(Rgba { 0.4f, 0.5f, 0.6f, 1 }, Rgba { 0.1f, 0.2f, 0.3f, 1 }, Rgba { 0, 0, 0, 1 }));
    chunk.bits = 16;
    Bytes wide;
    append(wide, std::uint16_t(1));
    append(wide, std::uint16_t(2));
    EXPECT_THAT(chunk.row(wide, 2), ElementsAre(Rgba { 0.4f, 0.5f, 0.6f, 1 }, Rgba { 0, 0, 0, 1 }));
    chunk.bits = 32;
    EXPECT_THAT(chunk.row(Bytes(4, 0xFF), 1), ElementsAre(Rgba { 0, 0, 0, 1 }));
}

TEST(TiffChunk, LogLIsGreyXyz)
{
    Bytes bytes;
    append(bytes, 1.0f);
    const Chunk chunk { .photometric = logL, .sampleFormat = signedFormat, .bits = 16 };
    const Rgba pixel = chunk.row(bytes, 1)[0];
    EXPECT_NEAR(pixel[0], 1.000119f, 1e-6);
    EXPECT_NEAR(pixel[1], 0.999987f, 1e-6);
    EXPECT_NEAR(pixel[2], 0.999647f, 1e-6);
    EXPECT_EQ(pixel[3], 1);
}

TEST(TiffChunk, LogLuvIsXyz)
{
    Bytes bytes;
    for (const float value : { 0.25f, 0.5f, 0.75f, 1.0f, 0.0f, 0.0f })
        append(bytes, value);
    const Chunk chunk { .photometric = logLuv, .sampleFormat = signedFormat, .bits = 16, .samples = 3 };
    const auto pixels = chunk.row(bytes, 2);
    EXPECT_NEAR(pixels[0][0], 2.565619 * 0.25 - 1.166989 * 0.5 - 0.398511 * 0.75, 1e-6);
    EXPECT_NEAR(pixels[0][1], -1.022095 * 0.25 + 1.978261 * 0.5 + 0.043821 * 0.75, 1e-6);
    EXPECT_NEAR(pixels[0][2], 0.074698 * 0.25 - 0.251851 * 0.5 + 1.1768 * 0.75, 1e-6);
    EXPECT_NEAR(pixels[1][1], -1.022095, 1e-6);
}

TEST(TiffChunk, UnknownPhotometricStoresNothing)
{
    RecordingBuffer sink;
    OrientedPixelBuffer target { &sink, 2, 1, 1, 0, 2, 1, 0, 0 };
    for (const int photometric : { 4, 5, 6, 8, 32803, 65535 }) {
        const Bytes bytes(16, 1);
        BitStreamReader reader = over(bytes);
        Chunk { .photometric = std::uint16_t(photometric) }.decode(reader, target);
        EXPECT_EQ(reader.cur, bytes.data());
    }
    EXPECT_TRUE(sink.order.empty());
}

TEST(TiffChunk, SamplesOfUnknownSizesAreThrown)
{
    const Bytes bytes(64, 1);
    const auto codeOfChunk = [&](const Chunk& chunk) { return thrownBy([&] { chunk.row(bytes, 1); }); };
    for (const int bits : { 8, 16, 24, 128 })
        for (const unsigned short photometric : { whiteIsZero, blackIsZero, rgb })
            EXPECT_EQ(codeOfChunk({ .photometric = photometric, .sampleFormat = floatFormat, .bits = bits }),
                IMGERR_UNSUPPORTED)
                << bits;
    for (const int bits : { 33, 40, 63, 65, 128 })
        EXPECT_EQ(codeOfChunk({ .bits = bits }), IMGERR_UNSUPPORTED) << bits;
    EXPECT_EQ(codeOfChunk({ .bits = 0 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfChunk({ .samples = 0 }), IMGERR_FORMAT);
    EXPECT_EQ(codeOfChunk({ .samples = -1 }), IMGERR_FORMAT);
}

// --- Every layout against the plain rule -----------------------------------------------------------------

/// The plain rule, number by number through the reader's own functions.
class SlowDecoder {
public:
    SlowDecoder(const Chunk& chunk, const Bytes& bytes) : m_chunk(chunk)
    {
        const int planes = chunk.planar == 2 ? chunk.samples : 1;
        const int planeBytes = int(bytes.size()) / planes;
        for (int plane = 0; plane < planes; ++plane) {
            const std::uint8_t* const start = bytes.data() + plane * planeBytes;
            m_readers.push_back({ start, start, *start, 8, planeBytes });
        }
    }

    Rgba next()
    {
        std::vector<double> samples;
        std::vector<unsigned int> raw;
        for (int i = 0; i < m_chunk.samples; ++i) {
            BitStreamReader& reader = m_readers.at(m_chunk.planar == 2 ? std::size_t(i) : 0);
            if (m_chunk.sampleFormat == floatFormat && m_chunk.photometric != palettePhotometric) {
                samples.push_back(reader.nextFloatDetermineSize(m_chunk.bits));
                continue;
            }
            raw.push_back(reader.nextBits(m_chunk.bits));
            const float scale = float(1 / (std::pow(2.0, m_chunk.bits) - 1));
            const bool isNegative
                = m_chunk.sampleFormat == signedFormat && (raw.back() >> (m_chunk.bits - 1) & 1) != 0;
            const auto number = std::int64_t(raw.back()) - (isNegative ? std::int64_t(1) << m_chunk.bits : 0);
            samples.push_back(float(number) * scale);
        }
        if (m_chunk.photometric == palettePhotometric) {
            const bool isColor = raw[0] < unsigned(m_chunk.palette.count());
            const Color color = isColor ? m_chunk.palette[int(raw[0])] : Color { 0, 0, 0 };
            return { color.r, color.g, color.b, 1 };
        }
        if (m_chunk.photometric == rgb && m_chunk.samples >= 3)
            return { float(samples[0]), float(samples[1]), float(samples[2]),
                m_chunk.samples > 3 ? float(samples[3]) : 1 };
        const float value = m_chunk.photometric == whiteIsZero ? 1 - float(samples[0]) : float(samples[0]);
        return { value, value, value, 1 };
    }

private:
    const Chunk& m_chunk;
    std::vector<BitStreamReader> m_readers;
};

std::vector<Chunk> everyLayout()
{
    std::vector<Chunk> chunks;
    for (const unsigned short photometric : { whiteIsZero, blackIsZero, rgb, palettePhotometric })
        for (const std::uint16_t planar : { std::uint16_t(1), std::uint16_t(2) })
            for (const int samples : { 1, 2, 3, 4, 5 }) {
                for (int bits = 1; bits <= 32; ++bits)
                    for (const unsigned short format : { unsignedFormat, signedFormat, std::uint16_t(4) })
                        chunks.push_back({ photometric, format, planar, bits, samples, {} });
                for (const int bits : { 32, 64 })
                    if (photometric != palettePhotometric)
                        chunks.push_back({ photometric, floatFormat, planar, bits, samples, {} });
            }
    for (Chunk& chunk : chunks)
        if (chunk.photometric == palettePhotometric)
            for (int i = 0; i < 200; ++i)
                chunk.palette.add({ float(i) / 200, float(i) / 300, float(i) / 400 });
    return chunks;
}

std::string nameOf(const Chunk& chunk)
{
    return "photometric " + std::to_string(chunk.photometric) + " format "
        + std::to_string(chunk.sampleFormat) + " planar " + std::to_string(chunk.planar) + " bits "
        + std::to_string(chunk.bits) + " samples " + std::to_string(chunk.samples);
}

bool equal(const Rgba& a, const Rgba& b)
{
    for (std::size_t i = 0; i < 4; ++i)
        if (!(a[i] == b[i] || (std::isnan(a[i]) && std::isnan(b[i]))))
            return false;
    return true;
}

void expectPlainRule(const Chunk& chunk, const Bytes& bytes, int width)
{
    SlowDecoder slow(chunk, bytes);
    const auto pixels = chunk.row(bytes, width);
    for (int x = 0; x < width; ++x)
        ASSERT_TRUE(equal(pixels[std::size_t(x)], slow.next())) << nameOf(chunk) << " pixel " << x;
}

Bytes noise(std::size_t count)
{
    std::mt19937 random { std::uint32_t(count) };
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes)
        byte = std::uint8_t(random());
    return bytes;
}

std::size_t planeBytesOf(const Chunk& chunk, int width)
{
    const int perPlane = chunk.planar == 2 ? 1 : chunk.samples;
    return (std::size_t(chunk.bits) * std::size_t(perPlane) * std::size_t(width) + 7) / 8;
}

TEST(TiffChunk, EveryLayoutFollowsThePlainRule)
{
    for (const Chunk& chunk : everyLayout())
        for (const int width : { 1, 7, 300 }) { // More than the decoder takes at once.
            const std::size_t planes = chunk.planar == 2 ? std::size_t(chunk.samples) : 1;
            expectPlainRule(chunk, noise(planeBytesOf(chunk, width) * planes), width);
        }
}

TEST(TiffChunk, EveryLayoutRepeatsTheLastByteOfAShortChunk)
{
    for (const Chunk& chunk : everyLayout()) {
        constexpr int width = 9;
        const std::size_t planes = chunk.planar == 2 ? std::size_t(chunk.samples) : 1;
        const std::size_t whole = planeBytesOf(chunk, width);
        for (const std::size_t bytes : { std::size_t(1), whole / 2, whole - 1 })
            if (bytes != 0)
                expectPlainRule(chunk, noise(bytes * planes), width);
    }
}

TEST(TiffChunk, BytesMayLieAnywhere)
{
    for (const int bits : { 16, 32 })
        for (const int samples : { 1, 3, 4 }) {
            const Chunk chunk { .photometric = rgb, .bits = bits, .samples = samples };
            const Bytes bytes = noise(planeBytesOf(chunk, 5) + 1);
            const Bytes moved(bytes.begin() + 1, bytes.end());
            BitStreamReader reader { bytes.data() + 1, bytes.data() + 1, bytes[1], 8, int(bytes.size()) - 1 };
            EXPECT_EQ(chunk.row(reader, 5), chunk.row(moved, 5));
        }
}

TEST(TiffChunk, ReaderGoesOnBehindTheChunk)
{
    for (const Chunk& chunk : everyLayout()) {
        if (chunk.planar == 2)
            continue;
        for (const std::size_t size : { std::size_t(3), std::size_t(400) }) {
            const Bytes bytes = noise(size);
            BitStreamReader reader = over(bytes), slow = over(bytes);
            chunk.row(reader, 5);
            for (int i = 0; i < 5 * chunk.samples; ++i)
                for (int bits = chunk.bits; bits > 0; bits -= 32)
                    slow.nextBits(std::min(bits, 32));
            ASSERT_EQ(reader.cur, slow.cur) << nameOf(chunk);
            ASSERT_EQ(reader.curByte, slow.curByte) << nameOf(chunk);
            ASSERT_EQ(reader.bitsLeft, slow.bitsLeft) << nameOf(chunk);
        }
    }
}

TEST(TiffChunk, NoBytesAtAllAreThePresentByte)
{
    for (const int size : { 0, -1 }) {
        BitStreamReader reader { nullptr, nullptr, 255, 8, size };
        EXPECT_EQ(Chunk {}.row(reader, 2)[1], (Rgba { 1, 1, 1, 1 }));
        EXPECT_EQ((Chunk { .photometric = rgb, .planar = 2, .samples = 3 }.row(reader, 2)[1]),
            (Rgba { 1, 1, 1, 1 }));
    }
}

TEST(TiffChunk, ByteSinksGetTheSamePixels)
{
    for (const Chunk& chunk : everyLayout()) {
        constexpr int width = 70;
        const std::size_t planes = chunk.planar == 2 ? std::size_t(chunk.samples) : 1;
        const Bytes bytes = noise(planeBytesOf(chunk, width) * planes);
        QUtils::Image8 packed, fromFloats;
        packed.init(width, 1);
        fromFloats.init(width, 1);
        BitStreamReader reader = over(bytes);
        OrientedPixelBuffer target { &packed, width, 1, 1, 0, width, 1, 0, 0 };
        chunk.decode(reader, target);
        const auto pixels = chunk.row(bytes, width);
        for (int x = 0; x < width; ++x) {
            fromFloats.setPixelF(x, 0, pixels[std::size_t(x)].data());
            ASSERT_EQ(packed.pixel(x, 0), fromFloats.pixel(x, 0)) << nameOf(chunk) << ' ' << x;
        }
    }
}

// --- Places ----------------------------------------------------------------------------------------------

/// A tile of 2 x 2 pixels, 0 to 3, at an origin in an image.
RecordingBuffer placeTile(int orientation, int width, int height, int originX, int originY)
{
    RecordingBuffer sink;
    OrientedPixelBuffer target { &sink, width, height, orientation, 1, 2, 2, originX, originY };
    const Bytes bytes { 0, 85, 170, 255 };
    BitStreamReader reader = over(bytes);
    Chunk {}.decode(reader, target);
    return sink;
}

std::vector<int> corners(const RecordingBuffer& sink)
{
    std::vector<int> values;
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 2; ++x) {
            const auto found = sink.pixelsF.find({ x, y });
            values.push_back(found == sink.pixelsF.end() ? -1 : int(std::lround(found->second[0] * 3)));
        }
    return values;
}

TEST(TiffChunk, OrientationMirrorsAndNeverExchangesAxes)
{
    const std::map<int, std::vector<int>> expected = {
        { 1, { 0, 1, 2, 3 } },
        { 2, { 1, 0, 3, 2 } },
        { 3, { 3, 2, 1, 0 } },
        { 4, { 2, 3, 0, 1 } },
        { 5, { 0, 1, 2, 3 } },
        { 6, { 1, 0, 3, 2 } },
        { 7, { 3, 2, 1, 0 } },
        { 8, { 2, 3, 0, 1 } },
    };
    for (const auto& [orientation, values] : expected)
        EXPECT_EQ(corners(placeTile(orientation, 2, 2, 0, 0)), values) << orientation;
}

TEST(TiffChunk, UnknownOrientationPutsAllPixelsAtTheOrigin)
{
    for (const int orientation : { 0, 9, -1, 65535 }) {
        const RecordingBuffer sink = placeTile(orientation, 2, 2, 0, 0);
        EXPECT_EQ(corners(sink), (std::vector<int> { 3, -1, -1, -1 })) << orientation;
        EXPECT_EQ(sink.order.size(), 4u);
    }
}

TEST(TiffChunk, OverhangOfATileIsSkipped)
{
    EXPECT_EQ(placeTile(1, 3, 3, 2, 2).order.size(), 1u);
    EXPECT_TRUE(placeTile(1, 3, 3, 2, 2).pixelsF.count({ 2, 2 }));
    EXPECT_TRUE(placeTile(3, 3, 3, 2, 2).pixelsF.count({ 0, 0 }));
    EXPECT_EQ(placeTile(1, 3, 3, 1, 2).order.size(), 2u);
    EXPECT_TRUE(placeTile(1, 3, 3, 3, 0).order.empty());
    EXPECT_TRUE(placeTile(1, 3, 3, 0, 3).order.empty());
}

TEST(TiffChunk, PixelsOutsideTheImageAreNeverStored)
{
    EXPECT_EQ(corners(placeTile(1, 2, 2, -1, 0)), (std::vector<int> { 1, -1, 3, -1 }));
    EXPECT_EQ(corners(placeTile(1, 2, 2, 0, -1)), (std::vector<int> { 2, 3, -1, -1 }));
    for (const int far : { INT32_MIN, INT32_MAX })
        EXPECT_TRUE(placeTile(1, 2, 2, far, far).order.empty());
}

TEST(TiffChunk, RowIsAsLongAsTheImageIsWide)
{
    // Rows of a strip come one by one; a chunk's own width only says where the next row begins.
    RecordingBuffer sink;
    OrientedPixelBuffer target { &sink, 4, 4, 1, 0, 2, 9, 1, 1 };
    const Bytes bytes { 0, 85, 170, 255, 1, 1 };
    BitStreamReader reader = over(bytes);
    Chunk {}.decode(reader, target);
    EXPECT_EQ(
        sink.order, (std::vector<RecordingBuffer::Position> { { 1, 1 }, { 2, 1 }, { 1, 2 }, { 2, 2 } }));
    EXPECT_EQ(reader.cur, bytes.data() + 4);
}

TEST(TiffChunk, RowNeedsNoChunkSizeOfItsOwn)
{
    RecordingBuffer sink;
    OrientedPixelBuffer target { &sink, 2, 2, 1, 0, 0, 0, 0, 1 };
    const Bytes bytes { 0, 85 };
    BitStreamReader reader = over(bytes);
    Chunk {}.decode(reader, target);
    EXPECT_EQ(sink.order, (std::vector<RecordingBuffer::Position> { { 0, 1 }, { 1, 1 } }));
}

TEST(TiffChunk, AbsurdSizesAreBounded)
{
    RecordingBuffer sink;
    const Bytes bytes { 0, 85, 170, 255 };
    for (const int size : { 0, -1, INT32_MIN, INT32_MAX }) {
        OrientedPixelBuffer target { &sink, 2, 2, 1, 1, size, size, 0, 0 };
        BitStreamReader reader = over(bytes);
        Chunk { .photometric = rgb, .bits = 32, .samples = 65535 }.decode(reader, target);
    }
    EXPECT_LE(sink.order.size(), 4u);
}

TEST(TiffChunk, SizesThatTheSinkHasNotAreBounded)
{
    QUtils::ImageF image;
    image.init(2, 1);
    OrientedPixelBuffer target { &image, 3000, 5, 1, 1, 3000, 5, 0, 0 };
    const Bytes bytes { 255 };
    BitStreamReader reader = over(bytes);
    Chunk {}.decode(reader, target);
    EXPECT_EQ(image.width(), 2);
    EXPECT_EQ(image.row(0)[7], 1);
}

TEST(TiffChunk, CallersSinkIsNeitherSizedNorReleased)
{
    // The chunk goes to a sink that the caller has sized: nothing here sizes or frees it.
    const RecordingBuffer sink = placeTile(1, 2, 2, 0, 0);
    EXPECT_EQ(sink.initCalls, 0);
    EXPECT_EQ(sink.freeCalls, 0);
}

} // namespace
