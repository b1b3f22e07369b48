// The Radiance reader with both conventions: the header, single pixels, whole rows; and the routines for
// streams.

#include "fuzz_support.h"
#include "qutils/formats/rgbe.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/hdr_core.h"

#include <algorithm>

using namespace fuzz_support;
using QUtils::Conventions;

namespace {

bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY;
}

/// What the routines read is what the loader stores with the renderer's conventions.
void readStream(const char* name, int loadCode, const QUtils::ImageF& image)
{
    const QUtils::FilePtr file(std::fopen(name, "rb"));
    require(file, "the input cannot be opened");
    int width = 0, height = 0;
    if (RGBE_ReadHeader(file, &width, &height, nullptr) != 0 || loadCode == IMGERR_MEMORY
        || loadCode == IMGERR_FORMAT || width > 4096)
        return;
    std::vector<float> row(3 * static_cast<std::size_t>(width));
    for (int y = 0; y < image.height(); ++y) {
        if (RGBE_ReadPixels_RLE(file, row.data(), width, 1, 0) != 0) {
            require(loadCode == IMGERR_READ, "the stream ends before the picture");
            return;
        }
        for (std::size_t x = 0; x < std::size_t(width); ++x)
            require(std::equal(row.data() + 3 * x, row.data() + 3 * x + 3, image.row(y) + 4 * x),
                "the stream has other pixels");
    }
    require(loadCode == IMGERR_NONE, "the picture ends before the stream");
}

void load(const char* name, Conventions conventions)
{
    QUtils::ImageF image;
    image.setMaxBytes(4 * sizeof(float) * CheckedSink::mostPixels);
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadHdrHeader(name, &described, conventions).code();
    const int code = QUtils::loadHdr(name, image, &info, conventions).code();
    require(isCodeOfALoader(code) && isCodeOfALoader(headerCode), "a code that no loader has");
    if (code != IMGERR_FORMAT && code != IMGERR_MEMORY)
        require(headerCode == IMGERR_NONE && described.width == info.width && described.height == info.height,
            "the header is described differently from the image");
    if (code != IMGERR_MEMORY) {
        CheckedSink sink;
        require(QUtils::loadHdr(name, sink, nullptr, conventions).code() == code,
            "rows and pixels end differently");
    }
    if (conventions == Conventions::Renderer)
        readStream(name, code, image);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    return 0;
}
