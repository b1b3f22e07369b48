// The SGI reader with both conventions: the header, single pixels, whole rows.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/sgi.h"
#include "rastkit/codecs/sgi_core.h"

using namespace fuzz_support;
using QUtils::Conventions;

static bool isCodeOfALoader(int code, Conventions conventions)
{
    if (conventions == Conventions::Standard && (code == IMGERR_READ || code == IMGERR_UNSUPPORTED))
        return true;
    return code == IMGERR_NONE || code == IMGERR_FORMAT || code == IMGERR_MEMORY;
}

/// An image that takes rows ends up like a sink of single pixels. Floats are rounded in it.
static void loadRows(const char* name, Conventions conventions, int code, const CheckedSink& sink)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * SmallSink::mostPixels);
    IMGINFO info {};
    const int rowCode = QUtils::loadSgi(name, image, &info, conventions).code();
    if (rowCode == IMGERR_MEMORY) // Larger than the image may become.
        return;
    require(rowCode == code, "rows and pixels end differently");
    if (info.bytesPerPixel != info.numChannels && conventions == Conventions::Standard)
        return;
    for (int y = 0; y < image.height() && !sink.pixels().empty(); ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

static void load(const char* name, Conventions conventions)
{
    SmallSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadSgiHeader(name, &described, conventions).code();
    const int code = QUtils::loadSgi(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code, conventions) && isCodeOfALoader(headerCode, conventions),
        "a code that no loader has");
    if (code == IMGERR_NONE)
        require(headerCode == IMGERR_NONE && (described.width & 0xFFFF) == (info.width & 0xFFFF)
                && (described.height & 0xFFFF) == (info.height & 0xFFFF)
                && described.bitsPerPixel == info.bitsPerPixel && described.numChannels == info.numChannels,
            "the header is described differently from the image");
    if (code != IMGERR_MEMORY)
        loadRows(name, conventions, code, sink);
}

/// The functions for single rows never store more than a row.
static void readRows(const char* name)
{
    const QUtils::FilePtr file(my_fopen(name, "rb"));
    sgi_header_info header;
    if (!file || !readSGIHeaderInfo(file, header) || header.xsize > 4096)
        return;
    std::vector<unsigned int> samples(header.xsize);
    const auto areBytes
        = [&] { return std::all_of(samples.begin(), samples.end(), [](unsigned s) { return s < 256; }); };
    for (const int offset : { -1, 0, 512, 520, 100000 }) {
        readSGIrow(file, header, offset, samples.data());
        require(areBytes(), "a sample of more than a byte");
        readSGIrowCompressed(file, header, offset, samples.data());
        require(areBytes(), "a sample of more than a byte");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    readRows(file.name());
    return 0;
}
