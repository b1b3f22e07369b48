// The Softimage PIC reader with both conventions: the header, single pixels, whole rows.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/pic.h"

using namespace fuzz_support;
using QUtils::Conventions;

static bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY
        || code == IMGERR_UNSUPPORTED;
}

/// An image that takes rows ends up like a sink of single pixels.
static void loadRows(const char* name, Conventions conventions, int code, const CheckedSink& sink)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * SmallSink::mostPixels);
    require(
        QUtils::loadPic(name, image, nullptr, conventions).code() == code, "rows and pixels end differently");
    for (int y = 0; y < image.height() && !sink.pixels().empty(); ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

static void load(const char* name, Conventions conventions)
{
    SmallSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadPicHeader(name, &described, conventions).code();
    const int code = QUtils::loadPic(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code) && isCodeOfALoader(headerCode), "a code that no loader has");
    if (code == IMGERR_NONE)
        require(headerCode == IMGERR_NONE && described.width == info.width && described.height == info.height
                && described.bitsPerPixel == info.bitsPerPixel && described.numChannels == info.numChannels,
            "the header is described differently from the image");
    loadRows(name, conventions, code, sink);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    return 0;
}
