#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"
#include "rastkit/rastkit.h"

#include <ImfChannelList.h>
#include <ImfCompression.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfThreading.h>

#include <half.h>
#include <vector>

namespace bench {

namespace {

constexpr const char* channelNames[] = { "R", "G", "B", "A" };

/// The pool is of the whole process: each row that is timed sees to it first.
void useThreads(int count)
{
    if (Imf::globalThreadCount() != count)
        QUtils::setThreadCount(count);
}

Imf::FrameBuffer slicesOf(Imf::PixelType type, const void* pixels)
{
    const std::size_t sampleBytes = type == Imf::HALF ? 2 : 4;
    Imf::FrameBuffer frame;
    std::size_t offset = 0;
    for (const char* const name : channelNames) {
        char* const first = const_cast<char*>(static_cast<const char*>(pixels)) + offset;
        frame.insert(name, Imf::Slice(type, first, 4 * sampleBytes, 4 * sampleBytes * frameWidth));
        offset += sampleBytes;
    }
    return frame;
}

/// Has OpenEXR write the frame, since what is read must not depend on a writer of ours.
ImgError saveFrame(const char* path, Imf::PixelType type, Imf::Compression compression)
{
    Imf::Header header(frameWidth, frameHeight);
    header.compression() = compression;
    for (const char* const name : channelNames)
        header.channels().insert(name, Imf::Channel(type));
    std::vector<half> halves;
    if (type == Imf::HALF)
        halves.assign(floatPixels(), floatPixels() + framePixels * 4);
    Imf::OutputFile file(path, header);
    file.setFrameBuffer(slicesOf(type,
        type == Imf::HALF ? static_cast<const void*>(halves.data())
                          : static_cast<const void*>(floatPixels())));
    file.writePixels(frameHeight);
    return IMGERR_NONE;
}

const Memory& bareMemory()
{
    static const Memory memory(floatBytes);
    return memory;
}

/// What a program does that uses nothing but OpenEXR: all rows at once into an array of floats.
bool readBare(const std::string& path)
{
    Imf::InputFile file(path.c_str());
    file.setFrameBuffer(slicesOf(Imf::FLOAT, bareMemory().get()));
    file.readPixels(0, frameHeight - 1);
    return true;
}

void addBareRow(const Codec& codec, const std::string& name, int threads)
{
    Row row;
    row.name = name;
    row.pixelBytes = codec.pixelBytes();
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [threads] { useThreads(threads); };
    row.run = [path = inputPath(codec)] { return readBare(path); };
    row.verify = [codec] { return isFrame(codec, bareMemory().as<float>()); };
    row.usesThreads = threads > 0;
    addRow(row);
}

void addThreadsRow(const Codec& codec, const std::string& beside, int threads, Goal goal)
{
    Row row;
    row.name = codec.name + "/read/threads";
    row.beside = beside;
    row.pixelBytes = codec.pixelBytes();
    row.goal = goal;
    row.prepare = [codec] { return makeInput(codec); };
    row.reset = [threads] { useThreads(threads); };
    row.run = [path = inputPath(codec)] {
        static QUtils::ImageF image;
        return LoadEXRFile(path.c_str(), image, nullptr).code() == IMGERR_NONE;
    };
    row.usesThreads = true;
    addRow(row);
}

void addVariant(const char* name, Imf::PixelType type, Imf::Compression compression, double tolerance)
{
    const Goal nearBare { Goal::Kind::TimesBeside, 1.1 };
    constexpr int threads = 2;

    Codec codec;
    codec.name = name;
    codec.extension = ".exr";
    codec.hasAlpha = true;
    codec.isFloat = true;
    codec.tolerance = tolerance;
    codec.save = [type, compression](const char* path) { return saveFrame(path, type, compression); };
    codec.load = [](const char* path, ImgBuffer& sink) {
        useThreads(0);
        return LoadEXRFile(path, sink, nullptr);
    };
    const std::string bare = codec.name + "/read/openexr", bareThreads = bare + "-threads";
    addBareRow(codec, bare, 0);
    addReadRows(codec, nearBare, bare);
    addBareRow(codec, bareThreads, threads);
    addThreadsRow(codec, bareThreads, threads, nearBare);
    addOpenImageIoReadRow(codec);
}

} // namespace

void addExrReadRows()
{
    constexpr double halfTolerance = 0.001, dwaTolerance = 0.02;
    addVariant("exr/half-none", Imf::HALF, Imf::NO_COMPRESSION, halfTolerance);
    addVariant("exr/half-zip", Imf::HALF, Imf::ZIP_COMPRESSION, halfTolerance);
    addVariant("exr/half-piz", Imf::HALF, Imf::PIZ_COMPRESSION, halfTolerance);
    addVariant("exr/half-dwaa", Imf::HALF, Imf::DWAA_COMPRESSION, dwaTolerance);
    addVariant("exr/float-none", Imf::FLOAT, Imf::NO_COMPRESSION, 0);
    addVariant("exr/float-zip", Imf::FLOAT, Imf::ZIP_COMPRESSION, 0);
    addVariant("exr/float-piz", Imf::FLOAT, Imf::PIZ_COMPRESSION, 0);
    addVariant("exr/float-dwaa", Imf::FLOAT, Imf::DWAA_COMPRESSION, dwaTolerance);
}

} // namespace bench
