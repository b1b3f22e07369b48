#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"
#include "rastkit/rastkit.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <memory>
#include <png.h>
#include <vector>
#include <zlib.h>

namespace bench {

namespace {

constexpr int level = 5;

/// The bits are a setting of the whole process, which the writer plug-in's interface makes.
void setBits(int bits)
{
    static const std::unique_ptr<QUtils::ImageWriterInterface> writer(QUtils::newDefaultImageWriter());
    QUtils::PluginInterface* const settings
        = writer->getPlugin()->newInterface(QUtils::PngSettingsInterface::interfaceId);
    static_cast<QUtils::PngSettingsInterface*>(settings)->setPngBitsPerChannel(bits);
    static_cast<QUtils::PngSettingsInterface*>(settings)->setPngCompressionLevel(level);
}

Codec codecOf(const char* name, int bits, bool alpha)
{
    Codec codec;
    codec.name = name;
    codec.extension = ".png";
    codec.hasAlpha = alpha;
    codec.isFloat = codec.isClamped = bits == 16;
    codec.tolerance = bits == 16 ? 1.0 / 65535 : 0;
    codec.save = [bits, alpha](const char* path) {
        setBits(bits);
        return SavePNGFile_pb(path, bits == 16 ? floatFrameBuffer() : frameBuffer(), colorChannel,
            alpha ? colorChannel : -1, 0);
    };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadPNGFile(path, sink, nullptr); };
    return codec;
}

// --- libpng alone ----------------------------------------------------------------------------------------

// What a program does that uses nothing but libpng: its own streams, and its own conversions where it has
// them. An error ends the program, as libpng does by itself; the files are known to be good.

constexpr int rowSamples = frameWidth * 4;

/// Where it reads to and, for 16 bits, writes from.
const Memory& pixelMemory()
{
    static const Memory memory(floatBytes);
    return memory;
}

template <typename ReadRow> bool readRows(const std::string& path, bool toPacked, ReadRow readRow)
{
    const QUtils::FilePtr file(my_fopen(path.c_str(), "rb"));
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_read_info(png, info);
    if (toPacked) {
        png_set_bgr(png);
        png_set_filler(png, 0xFF, PNG_FILLER_AFTER);
    }
    png_read_update_info(png, info);
    for (int y = 0; y < frameHeight; ++y)
        readRow(png, y);
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

bool readPacked(const std::string& path)
{
    return readRows(path, true, [](png_structp png, int y) {
        png_read_row(png, pixelMemory().get() + std::size_t(y) * rowSamples, nullptr);
    });
}

/// Into memory that stays in the cache, as the file has them.
bool readUnconverted(const std::string& path)
{
    return readRows(
        path, false, [](png_structp png, int) { png_read_row(png, pixelMemory().get(), nullptr); });
}

bool readFloats(const std::string& path)
{
    std::vector<std::uint8_t> row(std::size_t(frameWidth) * 6);
    return readRows(path, false, [&row](png_structp png, int y) {
        png_read_row(png, row.data(), nullptr);
        float* rgba = pixelMemory().as<float>() + std::size_t(y) * rowSamples;
        const std::uint8_t* bytes = row.data();
        for (int x = 0; x < frameWidth; ++x, rgba += 4, bytes += 6) {
            for (std::size_t c = 0; c < 3; ++c)
                rgba[c] = float(bytes[2 * c] << 8 | bytes[2 * c + 1]) * (1.0f / 65535);
            rgba[3] = 1.0f;
        }
    });
}

bool isFrameRead(const Codec& codec)
{
    return codec.isFloat ? isFrame(codec, pixelMemory().as<float>())
                         : isFrame(codec, pixelMemory().as<std::uint32_t>());
}

void addLibraryReadRows(const Codec& codec)
{
    Row row;
    row.name = codec.name + "/read/libpng";
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [] { pixelMemory(); };
    row.run
        = [codec, path = inputPath(codec)] { return codec.isFloat ? readFloats(path) : readPacked(path); };
    row.verify = [codec] { return isFrameRead(codec); };
    addRow(row);

    row.name += "/unconverted";
    row.run = [path = inputPath(codec)] { return readUnconverted(path); };
    row.verify = {};
    addRow(row);
}

/// What libpng picks is Z_FILTERED.
enum class Strategy { Default, Libpngs };

void writeRows(png_structp png, const Codec& codec)
{
    if (!codec.isFloat) {
        for (int y = 0; y < frameHeight; ++y)
            png_write_row(
                png, reinterpret_cast<png_const_bytep>(packedPixels() + std::size_t(y) * frameWidth));
        return;
    }
    std::vector<std::uint16_t> row(rowSamples);
    for (int y = 0; y < frameHeight; ++y) {
        const float* const samples = floatPixels() + std::size_t(y) * rowSamples;
        for (int i = 0; i < rowSamples; ++i)
            row[std::size_t(i)] = std::uint16_t(std::lrint(std::clamp(samples[i], 0.0f, 1.0f) * 65535));
        png_write_row(png, reinterpret_cast<png_const_bytep>(row.data()));
    }
}

bool writeFile(const Codec& codec, Strategy strategy, const std::string& path)
{
    QUtils::FilePtr file(my_fopen(path.c_str(), "wb"));
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_set_compression_level(png, level);
    if (strategy == Strategy::Default)
        png_set_compression_strategy(png, Z_DEFAULT_STRATEGY);
    png_set_IHDR(png, info, frameWidth, frameHeight, codec.isFloat ? 16 : 8,
        codec.hasAlpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
        PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (codec.isFloat)
        png_set_swap(png);
    else
        png_set_bgr(png);
    if (!codec.hasAlpha)
        png_set_filler(png, 0, PNG_FILLER_AFTER);
    writeRows(png, codec);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return file.close() == 0;
}

void addLibraryWriteRow(const Codec& codec, const std::string& name, Strategy strategy)
{
    const std::string path = outputPath(codec, name);
    Row row;
    row.name = codec.name + "/write/" + name;
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [path] {
        packedPixels();
        floatPixels();
        removeFile(path);
    };
    row.run = [codec, strategy, path] { return writeFile(codec, strategy, path); };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(row);
}

// --- The library -----------------------------------------------------------------------------------------

void addMemoryReadRow(const Codec& codec, Goal goal)
{
    static std::vector<unsigned char> bytes;
    static QUtils::Image8 image;
    Row row;
    row.name = codec.name + "/read/memory";
    row.beside = codec.name + "/read/libpng";
    row.pixelBytes = codec.pixelBytes();
    row.goal = goal;
    row.prepare = [codec] {
        std::string problem = makeInput(codec);
        std::ifstream in(inputPath(codec), std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
        return problem;
    };
    row.run = [] { return LoadPNGArray(bytes.data(), bytes.size(), image, nullptr).code() == IMGERR_NONE; };
    row.verify = [codec] { return isFrame(codec, image.data()); };
    addRow(row);
}

} // namespace

void addPngRows()
{
    const Goal nearLibrary { Goal::Kind::TimesBeside, 1.10 };
    const Codec rgb8 = codecOf("png/rgb8", 8, false), rgba8 = codecOf("png/rgba8", 8, true);
    const Codec rgb16 = codecOf("png/rgb16", 16, false), rgba16 = codecOf("png/rgba16", 16, true);

    for (const Codec& codec : { rgb8, rgba8, rgb16 }) {
        addLibraryReadRows(codec);
        addReadRows(codec, nearLibrary, codec.name + "/read/libpng");
    }
    addMemoryReadRow(rgb8, nearLibrary);
    for (const Codec& codec : { rgb8, rgba8, rgba16 }) {
        addLibraryWriteRow(codec, "libpng", Strategy::Default);
        addWriteRows(codec, nearLibrary, codec.name + "/write/libpng");
    }
    addLibraryWriteRow(rgba8, "libpng-filtered", Strategy::Libpngs);
    for (const Codec& codec : { rgb8, rgba8, rgb16, rgba16 })
        addOpenImageIoRows(codec, "default");
}

} // namespace bench
