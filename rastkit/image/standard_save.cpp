#include "rastkit/image/standard_save.h"

#include "rastkit/codecs/bmp_core.h"
#include "rastkit/codecs/hdr_core.h"
#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/codecs/tga_format.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/model/format_tables.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string_view>
#include <type_traits>

namespace QUtils {

namespace {

constexpr int colorChannel = 0, noAlpha = -1;

/// The smallest of the kinds of samples that hold all samples of an image.
enum class SampleDepth { Byte, Number16, Float };

/// An image as a frame of one channel, for the writers, without a copy of more than a row.
template <typename Image> class ImageFrame : public PixelBufferInterface {
public:
    explicit ImageFrame(const Image& image) : m_image(image), m_row(image.width(), 1)
    {
        m_row.addChannel(
            "color", PIXELCHANNEL_COLOR, 4, isPacked ? FrameSample::Packed8 : FrameSample::Float);
    }

    int getWidth() override { return m_image.width(); }
    int getHeight() override { return m_image.height(); }
    int getPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format, int rowBytes,
        void* dest, int argument0, int argument1, int argument2) override
    {
        for (int y = region.top; y < region.bottom; ++y) {
            const auto* const row = m_image.row(y);
            void* const copy = m_row.row(colorChannel, 0);
            if (!row || !copy)
                return 0;
            std::memcpy(copy, row, pixelBytes * std::size_t(m_image.width()));
            const PixelBufferRegion part { region.left, 0, region.right, 1, region.width, 1, 0, 0 };
            if (!m_row.getPixels(
                    channel, alphaChannel, part, format, rowBytes, dest, argument0, argument1, argument2))
                return 0;
            dest = static_cast<std::uint8_t*>(dest) + rowBytes;
        }
        return 1;
    }
    int getNumChannels() override { return m_row.getNumChannels(); }
    int getChannelInfo(int index, PixelBufferChannelInfo& info) override
    {
        return m_row.getChannelInfo(index, info);
    }

private:
    static constexpr bool isPacked = std::is_same_v<Image, Image8>;
    static constexpr std::size_t pixelBytes = isPacked ? sizeof(std::uint32_t) : 4 * sizeof(float);

    const Image& m_image;
    FrameBuffer m_row; // Converts one row to whatever a writer asks for.
};

bool isOpaque(const Image8& image)
{
    unsigned int common = 0xFF000000u;
    for (int y = 0; y < image.height() && common == 0xFF000000u; ++y) {
        const unsigned int* const row = image.row(y);
        for (int x = 0; x < image.width(); ++x)
            common &= row[x];
    }
    return common == 0xFF000000u;
}

/// False also for NaN.
bool isOpaque(const ImageF& image)
{
    bool opaque = true;
    for (int y = 0; y < image.height() && opaque; ++y) {
        const float* const row = image.row(y);
        for (int x = 0; x < image.width(); ++x)
            opaque = opaque && row[4 * x + 3] == 1.0f;
    }
    return opaque;
}

SampleDepth depthOf(const Image8&)
{
    return SampleDepth::Byte;
}

/// Loaders divide or multiply 16-bit numbers, so a sample may be off by the last bit of its float.
bool holdsNumbers16(const float* samples, std::size_t count)
{
    constexpr float most = 65535.0f, tolerance = 1.0f / 32;
    bool holds = true;
    for (std::size_t i = 0; i < count; ++i) {
        const float number = samples[i] * most;
        holds = holds && number >= 0 && number <= most
            && std::fabs(number - std::nearbyint(number)) <= tolerance;
    }
    return holds;
}

SampleDepth depthOf(const ImageF& image)
{
    for (int y = 0; y < image.height(); ++y)
        if (!holdsNumbers16(image.row(y), std::size_t(image.width()) * 4))
            return SampleDepth::Float;
    return SampleDepth::Number16;
}

/// Of more than 8 bits the format has 16.
ImgError savePngImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth depth)
{
    constexpr int compression = 5;
    const int bits = depth == SampleDepth::Byte ? 8 : 16;
    return savePng(fileName, frame, colorChannel, alphaChannel, 0, compression, bits, Conventions::Standard);
}

/// Without alpha, as most programs write bitmaps: few would read it back.
ImgError saveBmpImage(const char* fileName, PixelBufferInterface& frame, int, SampleDepth)
{
    return saveBmp(fileName, frame, colorChannel, 0, Conventions::Standard);
}

ImgError saveTgaImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth)
{
    return saveTga(fileName, frame, colorChannel, alphaChannel, 0, TGA_TRUE_COLOR, Conventions::Standard);
}

/// The format has no alpha.
ImgError saveHdrImage(const char* fileName, PixelBufferInterface& frame, int, SampleDepth)
{
    return saveHdr(fileName, frame, colorChannel, Conventions::Standard);
}

/// Of so high a quality that a picture which is converted once shows nothing of it.
constexpr int jpegImageQuality = 95;

ImgError saveJpegImage(const char* fileName, PixelBufferInterface& frame, int, SampleDepth)
{
    return saveJpeg(fileName, frame, colorChannel, 0, jpegImageQuality, Conventions::Standard);
}

ImgError saveTiffImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth depth)
{
    TiffSaveOptions options;
    options.bitsPerChannel = depth == SampleDepth::Byte ? 8 : depth == SampleDepth::Number16 ? 16 : 32;
    return saveTiff(fileName, frame, colorChannel, alphaChannel, 0, options, Conventions::Standard);
}

/// Of more than 8 bits the format has 16.
ImgError saveSgiImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth depth)
{
    SgiSaveOptions options;
    options.bitsPerChannel = depth == SampleDepth::Byte ? 8 : 16;
    options.runLength = true;
    return saveSgi(fileName, frame, colorChannel, alphaChannel, 0, options, Conventions::Standard);
}

ImgError savePicImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth)
{
    return savePic(fileName, frame, colorChannel, alphaChannel, 0, Conventions::Standard);
}

/// Halfs hold every byte, but not every 16-bit number.
ImgError saveExrImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth depth)
{
    ExrSaveOptions options;
    options.bitsPerChannel = depth == SampleDepth::Byte ? 16 : 32;
    return saveExr(fileName, frame, colorChannel, alphaChannel, 0, options, Conventions::Standard);
}

/// One format, by its first extension.
struct StandardWriter {
    using Save = ImgError (*)(
        const char* fileName, PixelBufferInterface& frame, int alphaChannel, SampleDepth depth);

    std::string_view extension;
    Save save;
};

// clang-format off
constexpr StandardWriter tableStandardWriters[] = {
    { "png", savePngImage },
    { "bmp", saveBmpImage },
    { "tga", saveTgaImage },
    { "hdr", saveHdrImage },
    { "jpg", saveJpegImage },
    { "exr", saveExrImage },
    { "sgi", saveSgiImage },
    { "pic", savePicImage },
    { "tif", saveTiffImage },
};
// clang-format on

const StandardWriter* findWriter(int formatIndex)
{
    if (formatIndex < 0 || formatIndex >= supportedCount)
        return nullptr;
    const char* const extensions = supported[formatIndex].extensions;
    const std::string_view first(extensions, std::strcspn(extensions, ";"));
    const auto found = std::find_if(std::begin(tableStandardWriters), std::end(tableStandardWriters),
        [&](const StandardWriter& writer) { return writer.extension == first; });
    return found == std::end(tableStandardWriters) ? nullptr : found;
}

template <typename Image> ImgError save(const char* fileName, int formatIndex, const Image& image)
{
    const StandardWriter* const writer = findWriter(formatIndex);
    if (!writer)
        return IMGERR_UNSUPPORTED;
    ImageFrame<Image> frame(image);
    return writer->save(fileName, frame, isOpaque(image) ? noAlpha : colorChannel, depthOf(image));
}

} // namespace

ImgError saveStandard(const char* fileName, int formatIndex, const Image8& image)
{
    return save(fileName, formatIndex, image);
}

ImgError saveStandard(const char* fileName, int formatIndex, const ImageF& image)
{
    return save(fileName, formatIndex, image);
}

bool writesStandard(int formatIndex)
{
    return findWriter(formatIndex) != nullptr;
}

} // namespace QUtils
