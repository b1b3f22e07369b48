#include "rastkit/image/standard_save.h"

#include "rastkit/codecs/tga_core.h"
#include "rastkit/codecs/tga_format.h"
#include "rastkit/model/format_tables.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

namespace QUtils {

namespace {

constexpr int colorChannel = 0, noAlpha = -1;

/// An image as a frame of one channel, for the writers, without a copy of more than a row.
class ImageFrame : public PixelBufferInterface {
public:
    explicit ImageFrame(const Image8& image) : m_image(image), m_row(image.width(), 1)
    {
        m_row.addChannel("color", PIXELCHANNEL_COLOR, 4, FrameSample::Packed8);
    }

    int getWidth() override { return m_image.width(); }
    int getHeight() override { return m_image.height(); }
    int getPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format, int rowBytes,
        void* dest, int argument0, int argument1, int argument2) override
    {
        for (int y = region.top; y < region.bottom; ++y) {
            const unsigned int* const row = m_image.row(y);
            std::uint32_t* const copy = m_row.rowPacked(colorChannel, 0);
            if (!row || !copy)
                return 0;
            std::memcpy(copy, row, sizeof *row * std::size_t(m_image.width()));
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
    const Image8& m_image;
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

ImgError saveTgaImage(const char* fileName, PixelBufferInterface& frame, int alphaChannel)
{
    return saveTga(fileName, frame, colorChannel, alphaChannel, 0, TGA_TRUE_COLOR, Conventions::Standard);
}

/// One format, by its first extension.
struct StandardWriter {
    using Save = ImgError (*)(const char* fileName, PixelBufferInterface& frame, int alphaChannel);

    std::string_view extension;
    Save save;
};

// clang-format off
constexpr StandardWriter tableStandardWriters[] = {
    { "tga", saveTgaImage },
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

} // namespace

ImgError saveStandard(const char* fileName, int formatIndex, const Image8& image)
{
    const StandardWriter* const writer = findWriter(formatIndex);
    if (!writer)
        return IMGERR_UNSUPPORTED;
    ImageFrame frame(image);
    return writer->save(fileName, frame, isOpaque(image) ? noAlpha : colorChannel);
}

bool writesStandard(int formatIndex)
{
    return findWriter(formatIndex) != nullptr;
}

} // namespace QUtils
