#include "bench/codec_rows.h"

#include "bench/files.h"
#include "bench/floor.h"
#include "rastkit/buffers.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace bench {

namespace {

/// The images that rows load into are shared: only one row runs at a time, and all of them touch all pixels.
QUtils::Image8& packedImage()
{
    static QUtils::Image8 image;
    return image;
}

QUtils::ImageF& floatImage()
{
    static QUtils::ImageF image;
    return image;
}

QUtils::RowImage& imageOf(const Codec& codec)
{
    if (codec.isFloat)
        return floatImage();
    return packedImage();
}

bool isFrameLoaded(const Codec& codec)
{
    const QUtils::RowImage& image = imageOf(codec);
    if (image.width() != frameWidth || image.height() != frameHeight)
        return false;
    return codec.isFloat ? isFrame(codec, floatImage().data()) : isFrame(codec, packedImage().data());
}

Floor& floorOf(const Codec& codec)
{
    if (codec.isFloat) {
        static Floor floor(floatBytes);
        return floor;
    }
    static Floor floor(packedBytes);
    return floor;
}

const void* pixelsOf(const Codec& codec)
{
    if (codec.isFloat)
        return floatPixels();
    return packedPixels();
}

/// The sink of a program that knows nothing of rows.
class PixelSink : public ImgBuffer {
public:
    void init(int width, int height) override
    {
        m_width = width;
        m_height = height;
        m_valid = width == frameWidth && height == frameHeight;
    }
    int isValid() override { return m_valid; }
    void freeMem() override { m_valid = 0; }
    void setPixelF(int, int, const float*) override { }
    void setPixel(int x, int y, unsigned int argb) override
    {
        if (x >= 0 && x < m_width && y >= 0 && y < m_height)
            m_pixels.as<unsigned int>()[std::size_t(y) * std::size_t(m_width) + std::size_t(x)] = argb;
    }

    const unsigned int* pixels() const { return m_pixels.as<unsigned int>(); }
    void clear() { std::fill_n(m_pixels.get(), packedBytes, std::uint8_t(0)); }

private:
    Memory m_pixels { packedBytes };
    int m_width = 0, m_height = 0, m_valid = 0;
};

PixelSink& pixelSink()
{
    static PixelSink sink;
    return sink;
}

bool succeeded(const ImgError& error)
{
    return error.code() == IMGERR_NONE;
}

std::string fileName(const Codec& codec, const std::string& suffix)
{
    std::string name = codec.name + suffix + codec.extension;
    std::replace(name.begin(), name.end(), '/', '-');
    return filePath(name);
}

/// Result of `run` with the sink of single pixels, which is cleared so that an earlier row's pixels do not
/// pass for this one's.
Row pixelSinkRow(const Codec& codec, const std::string& name, const std::function<bool(PixelSink&)>& run)
{
    Row row;
    row.name = name;
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [] { pixelSink().clear(); };
    row.run = [run] { return run(pixelSink()); };
    row.verify = [codec] { return isFrame(codec, pixelSink().pixels()); };
    return row;
}

} // namespace

std::string inputPath(const Codec& codec)
{
    return fileName(codec, "");
}

std::string outputPath(const Codec& codec, const std::string& row)
{
    return fileName(codec, "-" + row);
}

std::string makeInput(const Codec& codec)
{
    const std::string path = inputPath(codec);
    if (fileBytes(path) != 0)
        return {};
    return succeeded(codec.save(path.c_str())) ? "" : "its input cannot be made";
}

bool isFrame(const Codec& codec, const unsigned int* argb)
{
    if (!argb)
        return false;
    const std::uint32_t* const expected = codec.hasAlpha ? packedPixels() : opaquePixels();
    if (codec.tolerance == 0)
        return checksum(argb, framePixels) == checksum(expected, framePixels);
    std::uint64_t difference = 0;
    for (std::size_t i = 0; i < framePixels; ++i)
        for (int shift = 0; shift < 32; shift += 8)
            difference
                += std::uint64_t(std::abs(int(argb[i] >> shift & 0xFF) - int(expected[i] >> shift & 0xFF)));
    return double(difference) / 255 <= codec.tolerance * 4 * double(framePixels);
}

bool isFrame(const Codec& codec, const float* rgba)
{
    if (!rgba)
        return false;
    const float* const expected = floatPixels();
    double difference = 0;
    for (std::size_t i = 0; i < framePixels * 4; ++i) {
        const bool isAlpha = i % 4 == 3;
        const double sample = codec.isClamped ? std::min(double(expected[i]), 1.0) : double(expected[i]);
        difference += std::abs(double(rgba[i]) - (isAlpha && !codec.hasAlpha ? 1.0 : sample));
    }
    return difference <= codec.tolerance * 4 * double(framePixels); // Not so for NaN.
}

bool holdsFrame(const Codec& codec, const std::string& path)
{
    return succeeded(codec.load(path.c_str(), imageOf(codec))) && isFrameLoaded(codec);
}

void addReadRows(const Codec& codec, Goal goal, const std::string& beside)
{
    const std::string path = inputPath(codec);
    Row floor;
    floor.name = codec.name + "/read/floor";
    floor.pixelBytes = codec.pixelBytes();
    floor.prepare = [codec] { return makeInput(codec); };
    floor.run = [codec, path] { return floorOf(codec).read(path, codec.pixelBytes()); };
    addRow(floor);

    Row row;
    row.name = codec.name + "/read";
    row.beside = beside.empty() ? floor.name : beside;
    row.pixelBytes = codec.pixelBytes();
    row.goal = goal;
    row.prepare = floor.prepare;
    row.run = [codec, path] { return succeeded(codec.load(path.c_str(), imageOf(codec))); };
    row.verify = [codec] { return isFrameLoaded(codec); };
    addRow(row);
}

void addWriteRows(const Codec& codec, Goal goal, const std::string& beside)
{
    const std::string floorPath = outputPath(codec, "floor"), path = outputPath(codec, "written");
    Row floor;
    floor.name = codec.name + "/write/floor";
    floor.pixelBytes = codec.pixelBytes();
    floor.prepare = [codec] { return makeInput(codec); };
    floor.reset = [floorPath] { removeFile(floorPath); };
    floor.run = [codec, floorPath] {
        return floorOf(codec).write(
            floorPath, pixelsOf(codec), codec.pixelBytes(), fileBytes(inputPath(codec)));
    };
    addRow(floor);

    Row row;
    row.name = codec.name + "/write";
    row.beside = beside.empty() ? floor.name : beside;
    row.pixelBytes = codec.pixelBytes();
    row.goal = goal;
    row.reset = [path] { removeFile(path); };
    row.run = [codec, path] { return succeeded(codec.save(path.c_str())); };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(row);
}

void addPixelSinkRows(
    const Codec& codec, Goal goal, const std::function<bool(const char* path, ImgBuffer& sink)>& naiveReader)
{
    const std::string path = inputPath(codec);
    const std::string naive = codec.name + "/read/naive";
    addRow(pixelSinkRow(
        codec, naive, [path, naiveReader](PixelSink& sink) { return naiveReader(path.c_str(), sink); }));

    Row row = pixelSinkRow(codec, codec.name + "/read/pixels",
        [codec, path](PixelSink& sink) { return succeeded(codec.load(path.c_str(), sink)); });
    row.beside = naive;
    row.goal = goal;
    addRow(row);
}

#ifndef RASTKIT_BENCH_OPENIMAGEIO
void addOpenImageIoRows(const Codec&, const std::string&) { }
void addOpenImageIoReadRow(const Codec&) { }
void addOpenImageIoWriteRow(const Codec&, const std::string&) { }
#endif

} // namespace bench
