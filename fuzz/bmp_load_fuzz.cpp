// The bitmap readers: with both conventions the header, single pixels, whole rows, the same from memory; and
// the older one that stores into an array.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/bmp_core.h"
#include "rastkit/load.h"

using namespace fuzz_support;
using QUtils::Conventions;

namespace {

bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY
        || code == IMGERR_UNSUPPORTED;
}

/// An image that takes rows ends up like a sink of single pixels.
void loadRows(const char* name, Conventions conventions, int code, const CheckedSink& sink)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * SmallSink::mostPixels);
    require(
        QUtils::loadBmp(name, image, nullptr, conventions).code() == code, "rows and pixels end differently");
    for (int y = 0; y < image.height() && !sink.pixels().empty(); ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

void load(const char* name, const std::uint8_t* data, std::size_t size, Conventions conventions)
{
    SmallSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadBmpHeader(name, &described, conventions).code();
    const int code = QUtils::loadBmp(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code) && isCodeOfALoader(headerCode), "a code that no loader has");
    if (code == IMGERR_NONE && headerCode != IMGERR_UNSUPPORTED)
        require(headerCode == IMGERR_NONE && described.width == info.width && described.height == info.height
                && described.bitsPerPixel == info.bitsPerPixel && described.numChannels == info.numChannels,
            "the header is described differently from the image");
    loadRows(name, conventions, code, sink);
    if (conventions == Conventions::Renderer || size == 0)
        return;
    SmallSink fromMemory;
    require(QUtils::loadBmpArray(data, size, fromMemory, nullptr, conventions).code() == code
            && fromMemory.pixels() == sink.pixels(),
        "memory and file differ");
}

/// Of the size that the file says, as a caller would have it.
void loadArray(const char* name, const std::uint8_t* data, std::size_t size)
{
    const auto numberAt = [&](std::size_t offset) {
        std::uint32_t number = 0;
        for (std::size_t i = 0; i < 4 && offset + i < size; ++i)
            number |= std::uint32_t(data[offset + i]) << 8 * i;
        return std::max<std::int64_t>(std::int32_t(number), 0);
    };
    const std::int64_t count = numberAt(18) * numberAt(22);
    if (count > std::int64_t(SmallSink::mostPixels))
        return;
    std::vector<unsigned int> pixels(static_cast<std::size_t>(count));
    require(isCodeOfALoader(LoadBMPFile(name, pixels.data(), nullptr).code()), "a code that no loader has");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), data, size, Conventions::Renderer);
    load(file.name(), data, size, Conventions::Standard);
    loadArray(file.name(), data, size);
    return 0;
}
