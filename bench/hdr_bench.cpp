#include "bench/codec_rows.h"
#include "rastkit/rastkit.h"

#include <cstdint>
#include <cstdio>
#include <vector>

namespace bench {

namespace {

using Bytes = std::vector<std::uint8_t>;

Codec flat()
{
    Codec codec;
    codec.name = "hdr/flat";
    codec.extension = ".hdr";
    codec.isFloat = true;
    codec.tolerance = 1.0 / 128; // Mantissas of eight bits, truncated.
    codec.save
        = [](const char* path) { return SaveHDRFile_pb(path, floatFrameBuffer(), colorChannel, -1, 0); };
    codec.load = [](const char* path, ImgBuffer& sink) { return LoadHDRFile(path, sink, nullptr); };
    return codec;
}

/// One plane of a scanline in runs of four and more, as other programs write it.
void appendRuns(const std::uint8_t* pixels, Bytes& out)
{
    constexpr std::size_t most = 127, shortest = 4, width = frameWidth;
    const auto runAt = [&](std::size_t x) {
        std::size_t count = 1;
        while (x + count < width && count < most && pixels[4 * (x + count)] == pixels[4 * x])
            ++count;
        return count;
    };
    for (std::size_t x = 0; x < width;) {
        const std::size_t run = runAt(x);
        if (run >= shortest) {
            out.push_back(std::uint8_t(128 + run));
            out.push_back(pixels[4 * x]);
            x += run;
            continue;
        }
        const std::size_t begin = x;
        while (x < width && x - begin < most && runAt(x) < shortest)
            ++x;
        out.push_back(std::uint8_t(x - begin));
        for (std::size_t i = begin; i < x; ++i)
            out.push_back(pixels[4 * i]);
    }
}

/// The flat file in the new run-length form.
ImgError saveRuns(const char* path)
{
    ImgError saved = flat().save(path);
    if (saved.code() != IMGERR_NONE)
        return saved;
    QUtils::FilePtr file(my_fopen(path, "r+b"));
    int width = 0, height = 0;
    rgbe_header_info info {};
    if (!file || RGBE_ReadHeader(file, &width, &height, &info) != 0)
        return IMGERR_READ;
    const long begin = std::ftell(file);
    Bytes pixels(4 * framePixels), out;
    if (std::fread(pixels.data(), 4, framePixels, file) != framePixels)
        return IMGERR_READ;
    for (std::size_t y = 0; y < frameHeight; ++y) {
        out.insert(out.end(), { 2, 2, frameWidth >> 8, frameWidth & 0xFF });
        for (std::size_t plane = 0; plane < 4; ++plane)
            appendRuns(pixels.data() + y * 4 * frameWidth + plane, out);
    }
    // What is left of the flat pixels behind it is not looked at.
    if (std::fseek(file, begin, SEEK_SET) != 0 || std::fwrite(out.data(), 1, out.size(), file) != out.size())
        return IMGERR_WRITE;
    return file.close() == 0 ? IMGERR_NONE : IMGERR_WRITE;
}

} // namespace

void addHdrRows()
{
    Codec runs = flat();
    runs.name = "hdr/runs";
    runs.save = saveRuns;
    addReadRows(runs, { Goal::Kind::Megabytes, 1000 });
    addOpenImageIoReadRow(runs);
    addReadRows(flat(), { Goal::Kind::Megabytes, 1000 });
    addWriteRows(flat(), Goal());
    addOpenImageIoReadRow(flat());
}

} // namespace bench
