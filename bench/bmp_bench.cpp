#include "bench/codec_rows.h"
#include "bench/files.h"
#include "rastkit/rastkit.h"

#include <cstdint>
#include <cstdio>
#include <vector>

namespace bench {

namespace {

Codec raw24()
{
    Codec codec;
    codec.name = "bmp/raw24";
    codec.extension = ".bmp";
    codec.save = [](const char* path) { return SaveBMPFile_pb(path, frameBuffer(), colorChannel, -1, 0); };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadBMPFile(path, sink, nullptr); };
    return codec;
}

/// Makes the headers of 24 bits say 32, and follows them with the frame's words, the lowest row first.
ImgError save32(const char* path)
{
    ImgError saved = raw24().save(path);
    if (saved.code() != IMGERR_NONE)
        return saved;
    constexpr std::size_t headersBytes = 54, bitsOffset = 28;
    const QUtils::FilePtr file(my_fopen(path, "r+b"));
    const std::uint8_t bits = 32;
    if (!file || std::fseek(file, bitsOffset, SEEK_SET) != 0 || std::fwrite(&bits, 1, 1, file) != 1
        || std::fseek(file, headersBytes, SEEK_SET) != 0)
        return IMGERR_WRITE;
    for (int y = frameHeight - 1; y >= 0; --y)
        if (std::fwrite(packedPixels() + std::size_t(y) * frameWidth, 4, frameWidth, file) != frameWidth)
            return IMGERR_WRITE;
    return IMGERR_NONE;
}

Codec raw32()
{
    Codec codec = raw24();
    codec.name = "bmp/raw32";
    codec.hasAlpha = true;
    codec.save = save32;
    return codec;
}

/// Packed pixels that lie in memory.
void addPackedWriteRow(const Codec& codec, Goal goal)
{
    const std::string path = outputPath(codec, "packed");
    Row row;
    row.name = codec.name + "/write/packed";
    row.beside = codec.name + "/write/floor";
    row.pixelBytes = packedBytes;
    row.goal = goal;
    row.reset = [path] { removeFile(path); };
    row.run = [path] {
        // The function takes pixels that it could change, but does not.
        static std::vector<unsigned int> pixels(packedPixels(), packedPixels() + framePixels);
        IMGINFO info {};
        info.width = frameWidth;
        info.height = frameHeight;
        return SaveBMPFile(path.c_str(), &info, pixels.data()).code() == IMGERR_NONE;
    };
    row.verify = [codec, path] { return holdsFrame(codec, path); };
    addRow(row);
}

} // namespace

void addBmpRows()
{
    const Goal nearFloor { Goal::Kind::TimesBeside, 1.5 };
    addReadRows(raw24(), nearFloor);
    addWriteRows(raw24(), nearFloor);
    addPackedWriteRow(raw24(), nearFloor);
    addOpenImageIoRows(raw24(), "none");
    addReadRows(raw32(), nearFloor);
}

} // namespace bench
