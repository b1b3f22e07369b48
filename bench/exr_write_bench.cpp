#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/memory.h"
#include "rastkit/rastkit.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfThreading.h>
#include <half.h>

#include <algorithm>
#include <exception>
#include <memory>

namespace bench {

namespace {

struct Variant {
    const char* name;
    bool isHalf;
    Imf::Compression compression;
    const char* openImageIoName;
    double tolerance; ///< Of the compression.

    Imf::PixelType type() const { return isHalf ? Imf::HALF : Imf::FLOAT; }
};

/// Bits and compression are settings of the whole process, which the writer plug-in's interface makes.
void choose(const Variant& variant)
{
    static const std::unique_ptr<QUtils::ImageWriterInterface> writer(QUtils::newDefaultImageWriter());
    auto* const settings = static_cast<QUtils::ExrSettingsInterface*>(
        writer->getPlugin()->newInterface(QUtils::ExrSettingsInterface::interfaceId));
    settings->setExrBitsPerChannel(variant.isHalf ? 16 : 32);
    settings->setExrCompressionType(int(variant.compression) + 1);
}

// --- OpenEXR alone ---------------------------------------------------------------------------------------

// What a program does that uses nothing but OpenEXR: the whole picture in one frame buffer, converted by its
// own half where the file has these.

Imf::FrameBuffer slicesOf(Imf::PixelType type, void* rgba)
{
    const std::size_t sampleBytes = type == Imf::HALF ? sizeof(half) : sizeof(float);
    Imf::FrameBuffer slices;
    for (std::size_t c = 0; c < 4; ++c)
        slices.insert(std::string(1, "RGBA"[c]),
            Imf::Slice(type, static_cast<char*>(rgba) + c * sampleBytes, 4 * sampleBytes,
                4 * sampleBytes * frameWidth));
    return slices;
}

const Memory& halfMemory()
{
    static const Memory memory(floatBytes / 2);
    return memory;
}

/// The pixels as they go to the file. OpenEXR takes them as changeable, but changes none.
void* storedPixels(const Variant& variant)
{
    if (!variant.isHalf)
        return const_cast<float*>(floatPixels());
    half* const stored = halfMemory().as<half>();
    const float* const floats = floatPixels();
    for (std::size_t i = 0; i < framePixels * 4; ++i)
        stored[i] = floats[i];
    return stored;
}

bool writeAlone(const Variant& variant, const std::string& path)
{
    try {
        Imf::Header header(
            frameWidth, frameHeight, 1, Imath::V2f(0, 0), 1, Imf::INCREASING_Y, variant.compression);
        for (const char* const name : { "R", "G", "B", "A" })
            header.channels().insert(name, Imf::Channel(variant.type()));
        Imf::OutputFile file(path.c_str(), header, Imf::globalThreadCount());
        file.setFrameBuffer(slicesOf(variant.type(), storedPixels(variant)));
        file.writePixels(frameHeight);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Reads a written file for the comparison with the frame.
ImgError readAlone(const char* path, ImgBuffer& sink)
{
    try {
        static const Memory memory(floatBytes);
        Imf::InputFile file(path);
        file.setFrameBuffer(slicesOf(Imf::FLOAT, memory.get()));
        file.readPixels(0, frameHeight - 1);
        sink.init(frameWidth, frameHeight);
        for (int y = 0; y < frameHeight; ++y)
            static_cast<QUtils::ImgRowBuffer&>(sink).setRowF(
                0, y, frameWidth, memory.as<float>() + std::size_t(y) * frameWidth * 4);
        return IMGERR_NONE;
    } catch (const std::exception&) {
        return IMGERR_READ;
    }
}

// --- Rows ------------------------------------------------------------------------------------------------

Codec codecOf(const Variant& variant)
{
    constexpr double halfRounding = 1.0 / 4096;
    Codec codec;
    codec.name = variant.name;
    codec.extension = ".exr";
    codec.hasAlpha = true;
    codec.isFloat = true;
    codec.isHalf = variant.isHalf;
    codec.tolerance = variant.tolerance + (variant.isHalf ? halfRounding : 0);
    codec.save = [variant](const char* path) {
        choose(variant);
        return SaveEXRFile_pb(path, floatFrameBuffer(), colorChannel, colorChannel, 0);
    };
    codec.load = readAlone;
    return codec;
}

Row writeRow(
    const Codec& codec, const std::string& name, const std::function<bool(const std::string&)>& write)
{
    std::string file = name.substr(codec.name.size() + 1);
    std::replace(file.begin(), file.end(), '/', '-');
    const std::string path = outputPath(codec, file);
    Row row;
    row.name = name;
    row.pixelBytes = floatBytes;
    row.prepare = [] { return floatPixels() ? "" : "no pixels"; };
    row.reset = [path] { removeFile(path); };
    row.run = [write, path] { return write(path); };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    return row;
}

void addAloneRow(const Codec& codec, const Variant& variant)
{
    halfMemory();
    addRow(writeRow(codec, codec.name + "/write/openexr",
        [variant](const std::string& path) { return writeAlone(variant, path); }));
}

/// With threads, beside the same without, both by the clock.
void addThreadRows(const Codec& codec, const Variant& variant, Goal goal)
{
    const std::string prefix = codec.name + "/write/threads";
    const auto add = [&](int threads, bool isAlone, const std::string& beside, Goal rowGoal) {
        Row row = writeRow(codec, prefix + std::to_string(threads) + (isAlone ? "/openexr" : ""),
            [codec, variant, threads, isAlone](const std::string& path) {
                setThreadCount(threads);
                const bool isWritten
                    = isAlone ? writeAlone(variant, path) : codec.save(path.c_str()).code() == IMGERR_NONE;
                setThreadCount(0); // The other rows have none.
                return isWritten;
            });
        row.usesThreads = true;
        row.beside = beside;
        row.goal = rowGoal;
        addRow(row);
    };
    add(0, false, "", Goal());
    add(2, true, prefix + "0", Goal());
    add(2, false, prefix + "0", goal);
}

} // namespace

void addExrWriteRows()
{
    const Goal likeOpenExr { Goal::Kind::TimesBeside, 1.10 };
    const Goal twoThreads { Goal::Kind::TimesFaster, 1.7 };
    const Variant variants[] = {
        { "exr/half-none", true, Imf::NO_COMPRESSION, "none", 0 },
        { "exr/half-zip", true, Imf::ZIP_COMPRESSION, "zip", 0 },
        { "exr/half-piz", true, Imf::PIZ_COMPRESSION, "piz", 0 },
        { "exr/half-dwaa", true, Imf::DWAA_COMPRESSION, "dwaa", 0.02 },
        { "exr/float-none", false, Imf::NO_COMPRESSION, "none", 0 },
        { "exr/float-zip", false, Imf::ZIP_COMPRESSION, "zip", 0 },
        { "exr/float-piz", false, Imf::PIZ_COMPRESSION, "piz", 0 },
        { "exr/float-dwaa", false, Imf::DWAA_COMPRESSION, "dwaa", 0.02 },
    };
    for (const Variant& variant : variants) {
        const Codec codec = codecOf(variant);
        addAloneRow(codec, variant);
        addWriteRows(codec, likeOpenExr, codec.name + "/write/openexr");
        addOpenImageIoWriteRow(codec, variant.openImageIoName);
    }
    for (const Variant& variant : { variants[1], variants[5] })
        addThreadRows(codecOf(variant), variant, twoThreads);
}

} // namespace bench
