#include "bench/codec_rows.h"
#include "rastkit/load.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

namespace bench {

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Rounding to bytes, and colours that were mixed with white before it.
constexpr double loss = 0.004;

void putBig(Bytes& bytes, std::uint32_t value, int count)
{
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
        bytes.push_back(std::uint8_t(value >> shift));
}

int sampleOf(const Codec& codec, std::size_t pixel, int component)
{
    if (codec.isFloat)
        return int(std::lround(std::min(floatPixels()[pixel * 4 + std::size_t(component)], 1.0f) * 255));
    const std::uint32_t argb = (codec.hasAlpha ? packedPixels() : opaquePixels())[pixel];
    return int(argb >> (component == 3 ? 24 : 16 - 8 * component) & 0xFF);
}

/// As a program stores it whose picture is transparent: over white.
std::uint8_t storedSample(const Codec& codec, std::size_t pixel, int component)
{
    const int sample = sampleOf(codec, pixel, component);
    if (!codec.hasAlpha || component == 3)
        return std::uint8_t(sample);
    const int alpha = sampleOf(codec, pixel, 3);
    return std::uint8_t((sample * alpha + 255 * (255 - alpha) + 127) / 255);
}

/// Runs of three and more, all else as it is.
void packRow(const Bytes& row, Bytes& packed)
{
    for (std::size_t i = 0; i < row.size();) {
        const auto runAt = [&](std::size_t at) {
            std::size_t end = at + 1;
            while (end < row.size() && end - at < 128 && row[end] == row[at])
                ++end;
            return end - at;
        };
        std::size_t count = runAt(i);
        if (count >= 3) {
            packed.insert(packed.end(), { std::uint8_t(257 - count), row[i] });
            i += count;
            continue;
        }
        for (count = 1; i + count < row.size() && count < 128 && runAt(i + count) < 3;)
            ++count;
        packed.push_back(std::uint8_t(count - 1));
        packed.insert(packed.end(), row.begin() + std::ptrdiff_t(i), row.begin() + std::ptrdiff_t(i + count));
        i += count;
    }
}

/// The layer section. A negative number of layers says that the picture is transparent; there is one, without
/// pixels.
void putLayers(Bytes& file, bool isTransparent)
{
    if (!isTransparent) {
        putBig(file, 0, 4);
        return;
    }
    constexpr std::uint32_t recordBytes = 46;
    putBig(file, 4 + 2 + recordBytes + 4, 4), putBig(file, 2 + recordBytes, 4), putBig(file, 0xFFFF, 2);
    file.insert(file.end(), 18, 0); // Its rectangle, no channels.
    for (const char letter : std::string_view("8BIMnorm"))
        file.push_back(std::uint8_t(letter));
    putBig(file, 0xFF000000, 4), putBig(file, 12, 4);
    file.insert(file.end(), 12 + 4, 0); // No mask, no ranges, no name; no global mask.
}

Bytes fileBytes(const Codec& codec)
{
    const int channels = codec.hasAlpha ? 4 : 3;
    Bytes file = { '8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, 0, std::uint8_t(channels) };
    putBig(file, frameHeight, 4), putBig(file, frameWidth, 4), putBig(file, 8, 2), putBig(file, 3, 2);
    putBig(file, 0, 4), putBig(file, 0, 4);
    putLayers(file, codec.hasAlpha);
    putBig(file, 1, 2);

    Bytes packed, row(frameWidth);
    for (int channel = 0; channel < channels; ++channel)
        for (int y = 0; y < frameHeight; ++y) {
            const std::size_t before = packed.size(), first = std::size_t(y) * frameWidth;
            for (std::size_t x = 0; x < row.size(); ++x)
                row[x] = storedSample(codec, first + x, channel);
            packRow(row, packed);
            putBig(file, std::uint32_t(packed.size() - before), 2);
        }
    file.insert(file.end(), packed.begin(), packed.end());
    return file;
}

ImgError save(const Codec& codec, const char* path)
{
    const Bytes bytes = fileBytes(codec);
    const QUtils::FilePtr file(my_fopen(path, "wb"));
    return file && std::fwrite(bytes.data(), bytes.size(), 1, file) == 1 ? IMGERR_NONE : IMGERR_WRITE;
}

Codec codecOf(const char* name, bool isFloat, bool hasAlpha)
{
    Codec codec;
    codec.name = name;
    codec.extension = ".psd";
    codec.hasAlpha = hasAlpha;
    codec.isFloat = codec.isClamped = isFloat;
    codec.tolerance = isFloat || hasAlpha ? loss : 0;
    codec.save = [codec](const char* path) { return save(codec, path); };
    codec.load = [](const char* path, ImgBuffer& sink) {
        return LoadPSDFile(path, nullptr, nullptr, sink, nullptr);
    };
    return codec;
}

} // namespace

void addPsdRows()
{
    for (const Codec& codec : { codecOf("psd/rle24", false, false), codecOf("psd/rle32", false, true),
             codecOf("psd/rle24/float", true, false), codecOf("psd/rle32/float", true, true) }) {
        addOpenImageIoReadRow(codec);
#ifdef RASTKIT_BENCH_OPENIMAGEIO
        addReadRows(codec, { Goal::Kind::TimesBeside, 1 }, codec.name + "/read/openimageio");
#else
        addReadRows(codec, Goal());
#endif
    }
}

} // namespace bench
