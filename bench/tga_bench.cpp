#include "bench/codec_rows.h"
#include "bench/files.h"
#include "rastkit/rastkit.h"

#include <cstdio>
#include <memory>
#include <vector>

namespace bench {

namespace {

constexpr int typeRaw = 2, typeRunLength = 10;
constexpr long headerBytes = 18;

/// The image type is a setting of the whole process, which the writer plug-in's interface makes.
void setImageType(int type)
{
    static const std::unique_ptr<QUtils::ImageWriterInterface> writer(QUtils::newDefaultImageWriter());
    QUtils::PluginInterface* const settings
        = writer->getPlugin()->newInterface(QUtils::TgaSettingsInterface::interfaceId);
    static_cast<QUtils::TgaSettingsInterface*>(settings)->setTgaCompression(type);
}

Codec codecOf(const char* name, int type, bool alpha)
{
    Codec codec;
    codec.name = name;
    codec.extension = ".tga";
    codec.hasAlpha = alpha;
    codec.save = [type, alpha](const char* path) {
        setImageType(type);
        return SaveTGAFile_pb(path, frameBuffer(), colorChannel, alpha ? colorChannel : -1, 0);
    };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadTGAFile(path, sink, nullptr); };
    return codec;
}

/// How one would read the file without a thought for speed: one call of the C library and one virtual call
/// for each pixel. Knows only what SaveTGAFile_pb writes uncompressed, top row first.
template <int pixelBytes> bool readPixelByPixel(const char* path, ImgBuffer& sink)
{
    const QUtils::FilePtr file(my_fopen(path, "rb"));
    if (!file || std::fseek(file, headerBytes, SEEK_SET) != 0)
        return false;
    sink.init(frameWidth, frameHeight);
    for (int y = 0; y < frameHeight; ++y) {
        for (int x = 0; x < frameWidth; ++x) {
            unsigned char bytes[4] = { 0, 0, 0, 0xFF };
            if (std::fread(bytes, pixelBytes, 1, file) != 1)
                return false;
            sink.setPixel(x, y,
                unsigned(bytes[3]) << 24 | unsigned(bytes[2]) << 16 | unsigned(bytes[1]) << 8 | bytes[0]);
        }
    }
    return true;
}

/// Packed pixels that lie in memory as the file has them.
void addPackedWriteRow(const Codec& raw32, Goal goal)
{
    const std::string path = outputPath(raw32, "packed");
    Row row;
    row.name = raw32.name + "/write/packed";
    row.beside = raw32.name + "/write/floor";
    row.pixelBytes = packedBytes;
    row.goal = goal;
    row.reset = [path] { removeFile(path); };
    row.run = [path] {
        // The function takes pixels that it could change, but does not.
        static std::vector<unsigned int> pixels(packedPixels(), packedPixels() + framePixels);
        IMGINFO info {};
        info.width = frameWidth;
        info.height = frameHeight;
        info.bitsPerPixel = 32;
        info.numChannels = 4;
        info.bytesPerPixel = 4;
        return SaveTGAFile(path.c_str(), &info, pixels.data()).code() == IMGERR_NONE;
    };
    row.verify = [raw32, path] { return holdsFrame(raw32, path); };
    addRow(row);
}

} // namespace

void addTgaRows()
{
    const Goal nearFloor { Goal::Kind::TimesBeside, 1.5 };
    const Goal fastPackets { Goal::Kind::Megabytes, 600 };
    const Goal fasterThanNaive { Goal::Kind::TimesFaster, 5 };

    const Codec raw24 = codecOf("tga/raw24", typeRaw, false), raw32 = codecOf("tga/raw32", typeRaw, true);
    const Codec rle24 = codecOf("tga/rle24", typeRunLength, false),
                rle32 = codecOf("tga/rle32", typeRunLength, true);

    for (const Codec& raw : { raw24, raw32 }) {
        addReadRows(raw, nearFloor);
        addWriteRows(raw, nearFloor);
        addOpenImageIoRows(raw, "none");
    }
    for (const Codec& packets : { rle24, rle32 }) {
        addReadRows(packets, fastPackets);
        addWriteRows(packets, Goal());
        addOpenImageIoRows(packets, "rle");
    }
    addPixelSinkRows(raw24, fasterThanNaive, readPixelByPixel<3>);
    addPixelSinkRows(raw32, fasterThanNaive, readPixelByPixel<4>);
    addPackedWriteRow(raw32, nearFloor);
}

} // namespace bench
