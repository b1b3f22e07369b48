#include "bench/files.h"
#include "bench/floor.h"
#include "bench/frame.h"
#include "bench/rows.h"
#include "qutils/formats/dds/block_kernels.h"
#include "rastkit/rastkit.h"

#include <cstring>
#include <random>
#include <vector>

namespace bench {

namespace {

// Files of random blocks, each of them valid. Nothing here writes this format, so there is no frame to
// compare with: what is loaded must be what the plain decoder makes of the same blocks.

constexpr std::size_t blocksAcross = frameWidth / 4, blocksDown = frameHeight / 4,
                      blockCount = blocksAcross * blocksDown;
constexpr int mixedModes = -1;

struct Variant {
    const char* name;
    std::uint32_t dxgiFormat;
    std::size_t blockBytes;
    QUtils::PackedBlocks QUtils::BlockKernels::*plain; ///< Null for floats, of which there is one decoder.
    int mode; ///< Of BC7.
    double goalMegabytes;
};

/// The mode of a block as encoders choose it for pictures: mostly a single subset or two.
int pickMode(std::mt19937_64& random)
{
    constexpr int modes[16] = { 6, 6, 6, 6, 6, 1, 1, 1, 1, 3, 3, 0, 2, 4, 5, 7 };
    return modes[random() % 16];
}

std::vector<std::uint64_t> makeBlocks(const Variant& variant)
{
    std::mt19937_64 random(variant.dxgiFormat);
    std::vector<std::uint64_t> words(blockCount * variant.blockBytes / 8);
    for (std::uint64_t& word : words)
        word = random();
    if (variant.dxgiFormat == 98)
        for (std::size_t i = 0; i < blockCount; ++i) {
            const int mode = variant.mode == mixedModes ? pickMode(random) : variant.mode;
            std::uint64_t& first = words[2 * i];
            first = (first & ~((std::uint64_t(2) << mode) - 1)) | std::uint64_t(1) << mode;
        }
    return words;
}

std::string pathOf(const Variant& variant)
{
    return filePath(std::string(variant.name).substr(4).append(".dds"));
}

std::string makeFile(const Variant& variant)
{
    std::uint32_t header[37] = { 0x20534444, 124, 0x1007, frameHeight, frameWidth };
    header[19] = 32;
    header[20] = 4;
    header[21] = 0x30315844; // DX10
    header[27] = 0x1000;
    header[32] = variant.dxgiFormat;
    header[33] = 3;
    header[35] = 1;
    const std::vector<std::uint64_t> blocks = makeBlocks(variant);
    const QUtils::FilePtr file(my_fopen(pathOf(variant).c_str(), "wb"));
    const bool written = file && std::fwrite(header, sizeof header, 1, file) == 1
        && std::fwrite(blocks.data(), 8, blocks.size(), file) == blocks.size();
    return written ? "" : "cannot write the input";
}

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

/// Whether the picture is that of the plain decoder.
bool isLoaded(const Variant& variant)
{
    const std::vector<std::uint64_t> blocks = makeBlocks(variant);
    std::vector<std::uint32_t> expected(4 * std::size_t(frameWidth));
    std::uint32_t* rows[4];
    for (std::size_t y = 0; y < 4; ++y)
        rows[y] = expected.data() + y * frameWidth;
    const QUtils::BlockKernels& plain = *QUtils::blockKernels(QUtils::DdsSimd::Scalar);
    for (std::size_t down = 0; down < blocksDown; ++down) {
        (plain.*variant.plain)(
            reinterpret_cast<const std::uint8_t*>(blocks.data()) + down * blocksAcross * variant.blockBytes,
            blocksAcross, rows);
        for (int y = 0; y < 4; ++y)
            if (std::memcmp(rows[y], packedImage().row(int(down) * 4 + y), 4 * std::size_t(frameWidth)) != 0)
                return false;
    }
    return true;
}

void addVariant(const Variant& variant)
{
    const bool isFloat = variant.plain == nullptr;
    const std::size_t pixelBytes = isFloat ? floatBytes : packedBytes;
    const std::string path = pathOf(variant);

    Row floor;
    floor.name = std::string(variant.name).append("/read/floor");
    floor.pixelBytes = pixelBytes;
    floor.prepare = [variant] { return makeFile(variant); };
    floor.run = [path, pixelBytes] {
        static Floor shared(floatBytes);
        return shared.read(path, pixelBytes);
    };
    addRow(floor);

    Row row;
    row.name = std::string(variant.name).append("/read");
    row.beside = floor.name;
    row.pixelBytes = pixelBytes;
    if (variant.goalMegabytes > 0)
        row.goal = { Goal::Kind::Megabytes, variant.goalMegabytes };
    row.prepare = floor.prepare;
    row.run = [path, isFloat] {
        ImgBuffer& image = isFloat ? static_cast<ImgBuffer&>(floatImage()) : packedImage();
        return LoadDDSFile(path.c_str(), image, nullptr).code() == IMGERR_NONE;
    };
    if (!isFloat)
        row.verify = [variant] { return isLoaded(variant); };
    addRow(row);
}

} // namespace

void addDdsRows()
{
    using QUtils::BlockKernels;
    // 400 and 100 million pixels a second.
    constexpr double fast = 1600, bc7Goal = 400;
    addVariant({ "dds/bc1", 71, 8, &BlockKernels::bc1, 0, fast });
    addVariant({ "dds/bc2", 74, 16, &BlockKernels::bc2, 0, fast });
    addVariant({ "dds/bc3", 77, 16, &BlockKernels::bc3, 0, fast });
    addVariant({ "dds/bc4", 80, 8, &BlockKernels::bc4, 0, fast });
    addVariant({ "dds/bc5", 83, 16, &BlockKernels::bc5, 0, fast });
    addVariant({ "dds/bc6h", 95, 16, nullptr, 0, 0 });
    addVariant({ "dds/bc7-mixed", 98, 16, &BlockKernels::bc7, mixedModes, bc7Goal });
    constexpr const char* names[8] = { "dds/bc7-0", "dds/bc7-1", "dds/bc7-2", "dds/bc7-3", "dds/bc7-4",
        "dds/bc7-5", "dds/bc7-6", "dds/bc7-7" };
    for (int mode = 0; mode < 8; ++mode)
        addVariant({ names[mode], 98, 16, &BlockKernels::bc7, mode, bc7Goal });
}

} // namespace bench
