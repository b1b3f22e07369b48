#include "bench/codec_rows.h"
#include "bench/files.h"
#include "bench/floor.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/rastkit.h"

#include <memory>
#include <vector>

namespace bench {

namespace {

/// The depth is a setting of the whole process, which the writer plug-in's interface makes.
void setBits(int bits)
{
    static const std::unique_ptr<QUtils::ImageWriterInterface> writer(QUtils::newDefaultImageWriter());
    QUtils::PluginInterface* const settings
        = writer->getPlugin()->newInterface(QUtils::SgiSettingsInterface::interfaceId);
    static_cast<QUtils::SgiSettingsInterface*>(settings)->setSgiBitsPerChannel(bits);
}

Codec codecOf(const char* name, int bits, bool alpha)
{
    Codec codec;
    codec.name = name;
    codec.extension = ".sgi";
    codec.hasAlpha = alpha;
    codec.save = [bits, alpha](const char* path) {
        setBits(bits);
        return SaveSGIFile_pb(path, frameBuffer(), colorChannel, alpha ? colorChannel : -1, 0);
    };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadSGIFile(path, sink, nullptr); };
    return codec;
}

/// Packets come from the writer of the tool: the renderer's makes none.
Codec packetsOf(const char* name, bool alpha)
{
    Codec codec = codecOf(name, 8, alpha);
    codec.save = [alpha](const char* path) {
        return QUtils::saveSgi(path, frameBuffer(), colorChannel, alpha ? colorChannel : -1, 0, { 8, true },
            QUtils::Conventions::Standard);
    };
    return codec;
}

/// A floor of this writer's own: the frame is asked for each row once for each plane, as it has to be, and
/// nothing is done with the rows.
void addWriteRowsOf(const Codec& codec, Goal goal, int format)
{
    const std::string path = outputPath(codec, "rows-floor");
    const int planes = codec.hasAlpha ? 4 : 3;
    Row floor;
    floor.name = codec.name + "/write/rows-floor";
    floor.pixelBytes = packedBytes;
    floor.prepare = [codec] { return makeInput(codec); };
    floor.reset = [path] { removeFile(path); };
    floor.run = [codec, path, planes, format] {
        static Floor sharedFloor(packedBytes);
        const std::size_t rowBytes
            = fileBytes(inputPath(codec)) / std::size_t(planes * frameHeight) * std::size_t(planes);
        std::vector<unsigned char> row(rowBytes);
        for (int plane = 0; plane < planes; ++plane)
            for (int y = frameHeight - 1; y >= 0; --y) {
                const QUtils::PixelBufferRegion region { 0, y, frameWidth, y + 1, frameWidth, 1, 0, 0 };
                if (!frameBuffer().getPixels(colorChannel, codec.hasAlpha ? colorChannel : -1, region, format,
                        int(rowBytes), row.data(), 1, 0, 0))
                    return false;
            }
        // The bytes of the file come from memory that is warm.
        return sharedFloor.write(path, row.data(), 0, fileBytes(inputPath(codec)));
    };
    addRow(floor);
    addWriteRows(codec, goal, floor.name);
}

} // namespace

void addSgiRows()
{
    const Goal nearFloor { Goal::Kind::TimesBeside, 1.5 };
    const Goal fastPackets { Goal::Kind::Megabytes, 800 };

    const Codec rgb8 = codecOf("sgi/rgb8", 8, false), rgba8 = codecOf("sgi/rgba8", 8, true);
    const Codec rgba16 = codecOf("sgi/rgba16", 16, true);
    const Codec rle24 = packetsOf("sgi/rle24", false), rle32 = packetsOf("sgi/rle32", true);

    for (const Codec& verbatim : { rgb8, rgba8, rgba16 })
        addReadRows(verbatim, nearFloor);
    addWriteRowsOf(rgb8, nearFloor, QUtils::PIXELFORMAT_BGR_UINT8);
    addWriteRowsOf(rgba8, nearFloor, QUtils::PIXELFORMAT_BGRA_UINT8);
    addWriteRowsOf(rgba16, nearFloor, QUtils::PIXELFORMAT_BGRA_UINT16);
    addOpenImageIoRows(rgb8, "none");
    addOpenImageIoRows(rgba8, "none");
    for (const Codec& packets : { rle24, rle32 }) {
        addReadRows(packets, fastPackets);
        addWriteRows(packets, Goal());
        addOpenImageIoRows(packets, "rle");
    }
}

} // namespace bench
