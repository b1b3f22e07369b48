#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"
#include "rastkit/rastkit.h"

#include <cstdio>
#include <vector>

#include <jpeglib.h>

namespace bench {

namespace {

constexpr int quality = 85; // That of a renderer's files, unless it says otherwise.

Codec makeCodec()
{
    Codec codec;
    codec.name = "jpeg/q85";
    codec.extension = ".jpg";
    codec.tolerance = 0.01; // Of the grain of film, half of it in colour, not much stays.
    codec.save = [](const char* path) { return SaveJPGFile_pb(path, frameBuffer(), colorChannel, -1, 0); };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadJPGFile(path, sink, nullptr); };
    return codec;
}

/// Where the floor and our readers store; one each.
const Memory& floorMemory()
{
    static const Memory memory(packedBytes);
    return memory;
}

QUtils::Image8& image()
{
    static QUtils::Image8 made;
    return made;
}

// --- Floors: plain loops around libjpeg, which ends the program when something is wrong
// ---------------------

bool readWithLibjpeg(const std::string& path)
{
    const QUtils::FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file)
        return false;
    jpeg_decompress_struct coder {};
    jpeg_error_mgr errors;
    coder.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&coder);
    jpeg_stdio_src(&coder, file);
    jpeg_read_header(&coder, TRUE);
    coder.out_color_space = JCS_EXT_BGRA;
    jpeg_start_decompress(&coder);
    while (coder.output_scanline < coder.output_height) {
        JSAMPROW row = floorMemory().get() + std::size_t(coder.output_scanline) * frameWidth * 4;
        jpeg_read_scanlines(&coder, &row, 1);
    }
    jpeg_finish_decompress(&coder);
    jpeg_destroy_decompress(&coder);
    return true;
}

bool writeWithLibjpeg(const std::string& path)
{
    const QUtils::FilePtr file(std::fopen(path.c_str(), "wb"));
    if (!file)
        return false;
    jpeg_compress_struct coder {};
    jpeg_error_mgr errors;
    coder.err = jpeg_std_error(&errors);
    jpeg_create_compress(&coder);
    jpeg_stdio_dest(&coder, file);
    coder.image_width = frameWidth;
    coder.image_height = frameHeight;
    coder.input_components = 3;
    coder.in_color_space = JCS_EXT_BGR;
    jpeg_set_defaults(&coder);
    jpeg_set_quality(&coder, quality, TRUE);
    jpeg_start_compress(&coder, TRUE);
    std::vector<JSAMPLE> samples(std::size_t(frameWidth) * 3);
    while (coder.next_scanline < coder.image_height) {
        const int y = int(coder.next_scanline);
        const QUtils::PixelBufferRegion region { 0, y, frameWidth, y + 1, frameWidth, 1, 0, 0 };
        if (!frameBuffer().getPixels(colorChannel, -1, region, QUtils::PIXELFORMAT_BGR_UINT8,
                int(samples.size()), samples.data(), 1, 0, 0))
            std::abort();
        JSAMPROW row = samples.data();
        jpeg_write_scanlines(&coder, &row, 1);
    }
    jpeg_finish_compress(&coder);
    jpeg_destroy_compress(&coder);
    return true;
}

Row makeRow(const Codec& codec, const char* name)
{
    Row row;
    row.name = codec.name + name;
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    return row;
}

// --- Reading -----------------------------------------------------------------------------------------------

/// The picture of the floor, to the bit.
bool isImageOfFloor()
{
    return image().width() == frameWidth && image().height() == frameHeight
        && checksum(image().data(), framePixels) == checksum(floorMemory().as<std::uint32_t>(), framePixels);
}

void addReading(const Codec& codec, Goal goal)
{
    const std::string path = inputPath(codec);
    Row floor = makeRow(codec, "/read/floor");
    floor.run = [path] { return readWithLibjpeg(path); };
    floor.verify = [codec] { return isFrame(codec, floorMemory().as<std::uint32_t>()); };
    addRow(floor);

    Row row = makeRow(codec, "/read");
    row.beside = floor.name;
    row.goal = goal;
    row.run = [path] { return LoadJPGFile(path.c_str(), image(), nullptr).code() == IMGERR_NONE; };
    row.verify = [path] { return readWithLibjpeg(path) && isImageOfFloor(); };
    addRow(row);
}

/// The file's bytes, read once.
const std::vector<unsigned char>& bytesOf(const std::string& path)
{
    static const std::vector<unsigned char> bytes = [&path] {
        std::vector<unsigned char> content(fileBytes(path));
        const QUtils::FilePtr file(std::fopen(path.c_str(), "rb"));
        content.resize(file ? std::fread(content.data(), 1, content.size(), file) : 0);
        return content;
    }();
    return bytes;
}

void addMemoryReading(const Codec& codec, Goal goal)
{
    const std::string path = inputPath(codec);
    Row row = makeRow(codec, "/read/memory");
    row.beside = codec.name + "/read/floor";
    row.goal = goal;
    row.reset = [path] { bytesOf(path); };
    row.run = [path] {
        const std::vector<unsigned char>& bytes = bytesOf(path);
        return LoadJPGArray(bytes.data(), bytes.size(), image(), nullptr).code() == IMGERR_NONE;
    };
    row.verify = [path] { return readWithLibjpeg(path) && isImageOfFloor(); };
    addRow(row);
}

// --- Writing -----------------------------------------------------------------------------------------------

void addWriting(const Codec& codec, Goal goal)
{
    const std::string floorPath = outputPath(codec, "floor"), path = outputPath(codec, "written");
    Row floor = makeRow(codec, "/write/floor");
    floor.reset = [floorPath] { removeFile(floorPath); };
    floor.run = [floorPath] { return writeWithLibjpeg(floorPath); };
    floor.verify = [codec, floorPath] { return holdsFrame(codec, floorPath); };
    addRow(floor);

    Row row = makeRow(codec, "/write");
    row.beside = floor.name;
    row.goal = goal;
    row.reset = [path] { removeFile(path); };
    row.run = [codec, path] { return codec.save(path.c_str()).code() == IMGERR_NONE; };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(row);
}

} // namespace

void addJpegRows()
{
    const Goal nearLibjpeg { Goal::Kind::TimesBeside, 1.10 };
    const Codec codec = makeCodec();
    addReading(codec, nearLibjpeg);
    addMemoryReading(codec, nearLibjpeg);
    addWriting(codec, nearLibjpeg);
    addOpenImageIoRows(codec, "jpeg:85");
}

} // namespace bench
