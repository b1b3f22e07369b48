#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"

#include <OpenImageIO/imageio.h>
#include <algorithm>
#include <cstring>
#include <vector>

namespace bench {

namespace {

/// Bytes R, G, B, A, as OpenImageIO has them, from and to packed pixels.
std::uint32_t exchangeRedAndBlue(std::uint32_t pixel)
{
    return (pixel & 0xFF00FF00u) | (pixel >> 16 & 0xFF) | (pixel & 0xFF) << 16;
}

const std::uint32_t* rgbaPixels()
{
    static const std::vector<std::uint32_t> pixels = [] {
        std::vector<std::uint32_t> result(packedPixels(), packedPixels() + framePixels);
        for (std::uint32_t& pixel : result)
            pixel = exchangeRedAndBlue(pixel);
        return result;
    }();
    return pixels.data();
}

const void* pixelsOf(const Codec& codec)
{
    if (codec.isFloat)
        return floatPixels();
    return rgbaPixels();
}

/// Where it reads to.
const Memory& readMemory(const Codec& codec)
{
    if (codec.isFloat) {
        static const Memory memory(floatBytes);
        return memory;
    }
    static const Memory memory(packedBytes);
    return memory;
}

/// An earlier row's pixels must not pass for this one's, and alpha is there already for files without.
void clearReadMemory(const Codec& codec)
{
    const Memory& memory = readMemory(codec);
    if (codec.isFloat)
        std::fill_n(memory.as<float>(), framePixels * 4, 1.0f);
    else
        std::memset(memory.get(), 0xFF, packedBytes);
}

OIIO::TypeDesc typeOf(const Codec& codec)
{
    return codec.isFloat ? OIIO::TypeDesc::FLOAT : OIIO::TypeDesc::UINT8;
}

OIIO::stride_t strideOf(const Codec& codec)
{
    return OIIO::stride_t(codec.pixelBytes() / framePixels);
}

bool readFile(const Codec& codec, const std::string& path)
{
    // Alpha as it stands: to multiply it in, which is the default, is work that nobody else does here.
    OIIO::ImageSpec config;
    config["oiio:UnassociatedAlpha"] = 1;
    const auto in = OIIO::ImageInput::open(path, &config);
    return in
        && in->read_image(
            0, 0, 0, in->spec().nchannels, typeOf(codec), readMemory(codec).get(), strideOf(codec));
}

bool isFrameRead(const Codec& codec)
{
    if (codec.isFloat)
        return isFrame(codec, readMemory(codec).as<float>());
    const auto* const read = readMemory(codec).as<std::uint32_t>();
    std::vector<std::uint32_t> pixels(read, read + framePixels);
    for (std::uint32_t& pixel : pixels)
        pixel = exchangeRedAndBlue(pixel);
    return isFrame(codec, pixels.data());
}

bool writeFile(const Codec& codec, const std::string& compression, const std::string& path)
{
    // Whole numbers of more than a byte have two.
    const OIIO::TypeDesc stored = codec.isClamped ? OIIO::TypeDesc::UINT16
        : codec.isHalf                            ? OIIO::TypeDesc::HALF
                                                  : typeOf(codec);
    OIIO::ImageSpec spec(frameWidth, frameHeight, codec.hasAlpha ? 4 : 3, stored);
    spec["compression"] = compression;
    spec["png:compressionLevel"] = 5; // As this library's own writer has it; for PNG files only.
    spec["oiio:UnassociatedAlpha"] = 1;
    const auto out = OIIO::ImageOutput::create(path);
    return out && out->open(path, spec) && out->write_image(typeOf(codec), pixelsOf(codec), strideOf(codec))
        && out->close();
}

} // namespace

namespace {

void useOneThread()
{
    OIIO::attribute("threads", 1);
    OIIO::attribute("exr_threads", -1);
}

} // namespace

void addOpenImageIoReadRow(const Codec& codec)
{
    useOneThread();

    Row read;
    read.name = codec.name + "/read/openimageio";
    read.beside = codec.name + "/read/floor";
    read.pixelBytes = codec.pixelBytes();
    read.prepare = [codec] { return makeInput(codec); };
    read.reset = [codec] { clearReadMemory(codec); };
    read.run = [codec, path = inputPath(codec)] { return readFile(codec, path); };
    read.verify = [codec] { return isFrameRead(codec); };
    addRow(read);
}

void addOpenImageIoRows(const Codec& codec, const std::string& compression)
{
    addOpenImageIoReadRow(codec);
    addOpenImageIoWriteRow(codec, compression);
}

void addOpenImageIoWriteRow(const Codec& codec, const std::string& compression)
{
    useOneThread();

    Row write;
    const std::string path = outputPath(codec, "openimageio");
    write.name = codec.name + "/write/openimageio";
    write.beside = codec.name + "/write/floor";
    write.pixelBytes = codec.pixelBytes();
    write.prepare = [codec] { return pixelsOf(codec) ? "" : "no pixels"; };
    write.reset = [path] { removeFile(path); };
    write.run = [codec, compression, path] { return writeFile(codec, compression, path); };
    write.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(write);
}

} // namespace bench
