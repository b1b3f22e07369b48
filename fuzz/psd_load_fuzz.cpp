// The Photoshop reader with both conventions: the header, single pixels, whole rows; layers by name, and all
// of them composed.

#include "fuzz_support.h"
#include "qutils/formats/psd/psd.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/psd_core.h"

#include <bit>
#include <cstring>

using namespace fuzz_support;
using QUtils::Conventions;

namespace {

bool isCodeOfALoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY
        || code == IMGERR_UNSUPPORTED || code == IMGERR_LIBRARY;
}

bool isSmall(const char* name)
{
    IMGINFO info {};
    return QUtils::loadPsdHeader(name, &info, Conventions::Renderer).code() == IMGERR_NONE
        && std::size_t(info.width) * std::size_t(info.height) <= CheckedSink::mostPixels;
}

void load(const char* name, Conventions conventions)
{
    CheckedSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadPsdHeader(name, &described, conventions).code();
    const int code = QUtils::loadPsd(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code) && isCodeOfALoader(headerCode), "a code that no loader has");
    if (code != IMGERR_NONE)
        return;
    require(headerCode == IMGERR_NONE && std::memcmp(&info, &described, sizeof info) == 0,
        "the header is described differently from the image");
}

/// Packed rows, where there are any, are the floats in bytes.
void compareRows(const PSD_Image& image)
{
    const std::size_t width = std::size_t(image.width());
    std::vector<float> row(width * 4);
    std::vector<unsigned int> packed(width);
    for (int y = 0; y < image.height(); ++y) {
        image.getRow(y, row.data());
        float pixel[4];
        image.getComponent(y, int(width) - 1, pixel);
        const float* const last = row.data() + (width - 1) * 4;
        for (int i = 0; i < 4; ++i)
            require(std::bit_cast<std::uint32_t>(pixel[i]) == std::bit_cast<std::uint32_t>(last[i]),
                "a pixel differs from its row");
        if (!image.hasPackedRows())
            continue;
        image.getPackedRow(y, packed.data());
        for (std::size_t x = 0; x < width; ++x)
            require(row[x * 4] == float(packed[x] >> 16 & 0xFF) / 255, "packed pixels differ");
    }
}

void compose(const char* name)
{
    PSD_Image image;
    for (const char* layer : { "", "L", "G/L", "G" })
        for (const char* alpha : { "", "M" }) {
            UTF32String layerText, alphaText;
            layerText.setFromUTF8(layer);
            alphaText.setFromUTF8(alpha);
            if (PSD_LoadFile(name, layerText, alphaText, image) == QUtils::PSD_ERROR_NONE)
                compareRows(image);
        }
    if (PSD_ComposeFile(name, UTF32String(), image) == QUtils::PSD_ERROR_NONE)
        compareRows(image);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    if (isSmall(file.name()))
        compose(file.name());
    return 0;
}
