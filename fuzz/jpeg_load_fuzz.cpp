// The JPEG reader with both conventions: from files and from memory, the header, single pixels, whole rows.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/jpeg_core.h"

using namespace fuzz_support;
using QUtils::Conventions;

namespace {

struct Result {
    int code = 0;
    IMGINFO info {};
    SmallSink sink;
};

bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY
        || code == IMGERR_UNSUPPORTED;
}

/// An image that takes rows ends up like a sink of single pixels.
void loadRows(const char* name, Conventions conventions, const Result& pixels)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * SmallSink::mostPixels);
    require(QUtils::loadJpeg(name, image, nullptr, conventions).code() == pixels.code,
        "rows and pixels end differently");
    for (int y = 0; y < image.height() && pixels.code != IMGERR_MEMORY; ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    pixels.sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

void checkHeader(const Result& loaded, int headerCode, const IMGINFO& header, Conventions conventions)
{
    require(isCodeOfALoader(loaded.code) && isCodeOfALoader(headerCode), "a code that no loader has");
    if (loaded.code != IMGERR_NONE)
        return;
    require(
        headerCode == IMGERR_NONE && header.width == loaded.info.width && header.height == loaded.info.height,
        "the header is described differently from the image");
    if (conventions == Conventions::Standard)
        require(
            header.bitsPerPixel == loaded.info.bitsPerPixel && header.numChannels == loaded.info.numChannels,
            "the header is described differently from the image");
}

void load(const char* name, const std::uint8_t* data, std::size_t size, Conventions conventions)
{
    Result file, memory;
    IMGINFO header {};
    file.code = QUtils::loadJpeg(name, file.sink, &file.info, conventions).code();
    checkHeader(file, QUtils::loadJpegHeader(name, &header, conventions).code(), header, conventions);
    loadRows(name, conventions, file);
    if (size == 0)
        return;

    memory.code = QUtils::loadJpegArray(data, size, memory.sink, &memory.info, conventions).code();
    checkHeader(
        memory, QUtils::loadJpegArrayHeader(data, size, &header, conventions).code(), header, conventions);
    // What memory gives, a file gives as well; a renderer gets more of a file that is cut.
    if (memory.code == IMGERR_NONE || conventions == Conventions::Standard)
        require(
            memory.code == file.code && memory.sink.pixels() == file.sink.pixels(), "file and memory differ");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), data, size, Conventions::Renderer);
    load(file.name(), data, size, Conventions::Standard);
    return 0;
}
