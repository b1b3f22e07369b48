#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"
#include "rastkit/rastkit.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <tiffio.h>
#include <vector>

namespace bench {

namespace {

struct Variant {
    int bits, samples;
    bool isInterleaved;
    int compression = COMPRESSION_NONE;
};

/// The bits and planes are settings of the whole process, which the writer plug-in's interface makes.
void choose(const Variant& variant)
{
    static const std::unique_ptr<QUtils::ImageWriterInterface> writer(QUtils::newDefaultImageWriter());
    auto* const settings = static_cast<QUtils::TiffSettingsInterface*>(
        writer->getPlugin()->newInterface(QUtils::TiffSettingsInterface::interfaceId));
    settings->setTiffBitsPerChannel(variant.bits);
    settings->setTiffInterleaved(variant.isInterleaved);
}

// --- libtiff alone ---------------------------------------------------------------------------------------

// What a program does that uses nothing but libtiff: its own way to open files, and a plain loop over each
// row's samples. The files are known to be good.

struct Close {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using Tiff = std::unique_ptr<TIFF, Close>;

/// Where it reads to.
const Memory& pixelMemory()
{
    static const Memory memory(floatBytes);
    return memory;
}

void toPacked(const std::uint8_t* samples, int channels, std::uint32_t* argb)
{
    for (int x = 0; x < frameWidth; ++x, samples += channels)
        argb[x] = (channels == 4 ? std::uint32_t(samples[3]) << 24 : 0xFF000000u)
            | std::uint32_t(samples[0]) << 16 | std::uint32_t(samples[1]) << 8 | samples[2];
}

template <typename Sample> void toFloats(const Sample* samples, int channels, float scale, float* rgba)
{
    for (int x = 0; x < frameWidth; ++x, samples += channels, rgba += 4) {
        for (int c = 0; c < 3; ++c)
            rgba[c] = float(samples[c]) * scale;
        rgba[3] = channels == 4 ? float(samples[3]) * scale : 1.0f;
    }
}

void convertRow(const Variant& variant, const std::uint8_t* row, int y)
{
    const std::size_t first = std::size_t(y) * frameWidth;
    float* const rgba = pixelMemory().as<float>() + first * 4;
    switch (variant.bits) {
    case 8: toPacked(row, variant.samples, pixelMemory().as<std::uint32_t>() + first); break;
    case 16:
        toFloats(reinterpret_cast<const std::uint16_t*>(row), variant.samples, 1.0f / 65535, rgba);
        break;
    default: toFloats(reinterpret_cast<const float*>(row), variant.samples, 1.0f, rgba); break;
    }
}

/// Interleaved files, strip by strip.
bool readStrips(const Variant& variant, bool converts, const std::string& path)
{
    const Tiff tiff(TIFFOpen(path.c_str(), "r"));
    if (!tiff)
        return false;
    std::uint32_t rowsPerStrip = 0;
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    const std::size_t rowBytes = std::size_t(TIFFScanlineSize(tiff.get()));
    std::vector<std::uint8_t> strip(std::size_t(TIFFStripSize(tiff.get())));
    int y = 0;
    for (std::uint32_t i = 0; i < TIFFNumberOfStrips(tiff.get()); ++i) {
        if (TIFFReadEncodedStrip(tiff.get(), i, strip.data(), tmsize_t(strip.size())) < 0)
            return false;
        for (std::uint32_t row = 0; row < rowsPerStrip && y < frameHeight; ++row, ++y)
            if (converts)
                convertRow(variant, strip.data() + row * rowBytes, y);
    }
    return true;
}

void storeRow(const Variant& variant, int y, std::uint8_t* row)
{
    const std::size_t first = std::size_t(y) * frameWidth;
    if (variant.bits == 8) {
        const std::uint32_t* const argb = packedPixels() + first;
        for (int x = 0; x < frameWidth; ++x)
            for (int c = 0; c < variant.samples; ++c)
                *row++ = std::uint8_t(argb[x] >> (c == 3 ? 24 : 16 - 8 * c));
        return;
    }
    const float* const rgba = floatPixels() + first * 4;
    for (int x = 0; x < frameWidth; ++x)
        for (int c = 0; c < variant.samples; ++c) {
            const float sample = rgba[4 * x + c];
            const std::size_t i = std::size_t(x) * std::size_t(variant.samples) + std::size_t(c);
            if (variant.bits == 16)
                reinterpret_cast<std::uint16_t*>(row)[i]
                    = std::uint16_t(std::lrintf(std::clamp(sample, 0.0f, 1.0f) * 65535));
            else
                reinterpret_cast<float*>(row)[i] = sample;
        }
}

/// Interleaved files, in strips of one row where they are not compressed, as the library's writer makes them.
bool writeScanlines(const Variant& variant, const std::string& path)
{
    const Tiff tiff(TIFFOpen(path.c_str(), "w"));
    if (!tiff)
        return false;
    TIFFSetField(tiff.get(), TIFFTAG_IMAGEWIDTH, frameWidth);
    TIFFSetField(tiff.get(), TIFFTAG_IMAGELENGTH, frameHeight);
    TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(
        tiff.get(), TIFFTAG_SAMPLEFORMAT, variant.bits == 32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, variant.bits);
    TIFFSetField(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, variant.samples);
    TIFFSetField(tiff.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff.get(), TIFFTAG_COMPRESSION, variant.compression);
    if (variant.compression != COMPRESSION_NONE)
        TIFFSetField(tiff.get(), TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    TIFFSetField(tiff.get(), TIFFTAG_ROWSPERSTRIP, variant.compression == COMPRESSION_NONE ? 1 : 16);
    std::vector<std::uint8_t> row(std::size_t(frameWidth * variant.samples * variant.bits / 8));
    for (int y = 0; y < frameHeight; ++y) {
        storeRow(variant, y, row.data());
        if (TIFFWriteScanline(tiff.get(), row.data(), std::uint32_t(y), 0) < 0)
            return false;
    }
    return true;
}

// --- Rows ------------------------------------------------------------------------------------------------

Codec codecOf(const char* name, const Variant& variant)
{
    Codec codec;
    codec.name = name;
    codec.extension = ".tif";
    codec.hasAlpha = variant.samples == 4;
    codec.isFloat = variant.bits > 8;
    codec.isClamped = variant.bits == 16;
    codec.tolerance = variant.bits == 16 ? 1.0 / 65535 : 0;
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadTIFFile(path, sink, nullptr); };
    codec.save = [variant](const char* path) -> ImgError {
        if (variant.compression != COMPRESSION_NONE)
            return writeScanlines(variant, path) ? IMGERR_NONE : IMGERR_WRITE;
        choose(variant);
        return SaveTIFFile_pb(path, variant.bits == 8 ? frameBuffer() : floatFrameBuffer(), colorChannel,
            variant.samples == 4 ? colorChannel : -1, 0);
    };
    return codec;
}

void addLibraryReadRows(const Codec& codec, const Variant& variant)
{
    Row row;
    row.name = codec.name + "/read/libtiff";
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [] { pixelMemory(); };
    row.run = [variant, path = inputPath(codec)] { return readStrips(variant, true, path); };
    row.verify = [codec] {
        return codec.isFloat ? isFrame(codec, pixelMemory().as<float>())
                             : isFrame(codec, pixelMemory().as<std::uint32_t>());
    };
    addRow(row);

    row.name += "/unconverted";
    row.run = [variant, path = inputPath(codec)] { return readStrips(variant, false, path); };
    row.verify = {};
    addRow(row);
}

void addLibraryWriteRow(const Codec& codec, const Variant& variant)
{
    const std::string path = outputPath(codec, "libtiff");
    Row row;
    row.name = codec.name + "/write/libtiff";
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] {
        return codec.isFloat ? (floatPixels() ? "" : "no pixels") : (packedPixels() ? "" : "no pixels");
    };
    row.reset = [path] { removeFile(path); };
    row.run = [variant, path] { return writeScanlines(variant, path); };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(row);
}

/// Packed pixels that lie in memory as the file has them.
void addPackedWriteRow(const Codec& rgba8)
{
    const std::string path = outputPath(rgba8, "packed");
    Row row;
    row.name = rgba8.name + "/write/packed";
    row.beside = rgba8.name + "/write/floor";
    row.pixelBytes = packedBytes;
    row.reset = [path] { removeFile(path); };
    row.run = [path] {
        // The function takes pixels that it could change, but does not.
        static std::vector<unsigned int> pixels(packedPixels(), packedPixels() + framePixels);
        IMGINFO info {};
        info.width = frameWidth;
        info.height = frameHeight;
        return SaveTIFFile(path.c_str(), &info, pixels.data()).code() == IMGERR_NONE;
    };
    addRow(row);
}

} // namespace

void addTiffRows()
{
    const Goal likeLibrary { Goal::Kind::TimesBeside, 1.10 };
    const struct {
        const char* name;
        Variant variant;
    } interleaved[] = {
        { "tif/rgb8", { 8, 3, true } },
        { "tif/rgba8", { 8, 4, true } },
        { "tif/rgb16", { 16, 3, true } },
        { "tif/rgba16", { 16, 4, true } },
        { "tif/rgb32f", { 32, 3, true } },
    };
    for (const auto& [name, variant] : interleaved) {
        const Codec codec = codecOf(name, variant);
        addReadRows(codec, likeLibrary, codec.name + "/read/libtiff");
        addLibraryReadRows(codec, variant);
        addWriteRows(codec, likeLibrary, codec.name + "/write/libtiff");
        addLibraryWriteRow(codec, variant);
        addOpenImageIoRows(codec, "none");
    }
    addPackedWriteRow(codecOf("tif/rgba8", { 8, 4, true }));

    // How frames are written unless they are told otherwise.
    const Codec planes = codecOf("tif/planes8", { 8, 3, false });
    addReadRows(planes, Goal());
    addWriteRows(planes, Goal());

    for (const auto& [name, compression] :
        { std::pair("tif/rgb8_lzw", COMPRESSION_LZW), { "tif/rgb8_zip", COMPRESSION_ADOBE_DEFLATE } }) {
        const Variant variant { 8, 3, true, compression };
        const Codec codec = codecOf(name, variant);
        addReadRows(codec, likeLibrary, codec.name + "/read/libtiff");
        addLibraryReadRows(codec, variant);
        addOpenImageIoReadRow(codec);
    }
}

} // namespace bench
