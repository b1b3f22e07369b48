// The PNG reader with both conventions, from a file and from memory: the header, single pixels, whole rows.
// Each input is read as it is, and once more with the right sums in its chunks, which chance never finds.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/png_core.h"

#include <zlib.h>

using namespace fuzz_support;
using QUtils::Conventions;

using Bytes = std::vector<std::uint8_t>;

static bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY;
}

static std::uint32_t numberAt(const Bytes& bytes, std::size_t at)
{
    return std::uint32_t(bytes[at] << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3]);
}

static Bytes withRightSums(Bytes bytes)
{
    constexpr std::size_t signature = 8, lengthAndType = 8, sumBytes = 4;
    for (std::size_t at = signature; bytes.size() >= at + lengthAndType + sumBytes;) {
        const std::size_t length = numberAt(bytes, at);
        if (length > bytes.size() - at - lengthAndType - sumBytes)
            break;
        const std::uint32_t sum = std::uint32_t(crc32(0, &bytes[at + 4], uInt(length + 4)));
        for (std::size_t i = 0; i < sumBytes; ++i)
            bytes[at + lengthAndType + length + i] = std::uint8_t(sum >> (24 - 8 * i));
        at += lengthAndType + length + sumBytes;
    }
    return bytes;
}

/// An image that takes rows ends up like a sink of single pixels.
static void loadRows(const char* name, int code, const CheckedSink& sink)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * CheckedSink::mostPixels);
    IMGINFO info {};
    const int rowCode = QUtils::loadPng(name, image, &info, Conventions::Standard).code();
    if (rowCode == IMGERR_MEMORY) // Larger than the image may become.
        return;
    require(rowCode == code, "rows and pixels end differently");
    const bool isPacked = code == IMGERR_NONE && info.bytesPerPixel == info.numChannels;
    for (int y = 0; isPacked && y < image.height() && !sink.pixels().empty(); ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

/// Memory is read like a file; the renderer's reader may make rows of bytes that are missing, but never
/// more than that.
static void loadArray(const Bytes& bytes, Conventions conventions, int code, const CheckedSink& sink)
{
    CheckedSink arraySink;
    const int arrayCode
        = QUtils::loadPngArray(bytes.data(), bytes.size(), arraySink, nullptr, conventions).code();
    require(bytes.empty() || arrayCode == code, "memory and file end differently");
    if (code == IMGERR_NONE || conventions == Conventions::Standard)
        require(arraySink.pixels() == sink.pixels(), "memory and file differ");
}

static void load(const char* name, const Bytes& bytes, Conventions conventions)
{
    CheckedSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadPngHeader(name, &described, conventions).code();
    const int code = QUtils::loadPng(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code), "a code that no loader has");
    const bool isPalette = headerCode == IMGERR_UNSUPPORTED && conventions == Conventions::Renderer;
    require(isPalette || isCodeOfALoader(headerCode), "a code that no header has");
    if (code == IMGERR_NONE && !isPalette)
        require(headerCode == IMGERR_NONE && described.width == info.width && described.height == info.height,
            "the header is described differently from the image");
    if (code == IMGERR_NONE && conventions == Conventions::Standard)
        require(described.bitsPerPixel == info.bitsPerPixel && described.numChannels == info.numChannels,
            "the header is described differently from the image");
    loadArray(bytes, conventions, code, sink);
    if (conventions == Conventions::Standard)
        loadRows(name, code, sink);
}

static void loadAll(const Bytes& bytes)
{
    const InputFile file(bytes.data(), bytes.size());
    load(file.name(), bytes, Conventions::Renderer);
    load(file.name(), bytes, Conventions::Standard);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Bytes bytes(data, data + size);
    loadAll(bytes);
    const Bytes righted = withRightSums(bytes);
    if (righted != bytes)
        loadAll(righted);
    return 0;
}
