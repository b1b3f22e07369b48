// The DirectDraw Surface reader with both conventions: the header, single pixels, whole rows, other surfaces.

#include "fuzz_support.h"
#include "qutils/formats/dds/dds_reader.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/dds_core.h"

using namespace fuzz_support;
using QUtils::Conventions;

/// An image that takes rows ends up like a sink of single pixels.
static void loadRows(const char* name, Conventions conventions, int code, const CheckedSink& sink)
{
    QUtils::Image8 image;
    image.setMaxBytes(sizeof(unsigned int) * CheckedSink::mostPixels);
    const int rowCode = QUtils::loadDds(name, image, nullptr, conventions).code();
    if (rowCode == IMGERR_MEMORY || rowCode == IMGERR_LIBRARY) // Larger than the image may become.
        return;
    require(rowCode == code, "rows and pixels end differently");
    IMGINFO info {};
    const bool isPacked
        = QUtils::loadDdsHeader(name, &info, conventions).code() == IMGERR_NONE && info.bytesPerPixel == 4;
    for (int y = 0; isPacked && y < image.height() && !sink.pixels().empty(); ++y)
        require(std::equal(image.row(y), image.row(y) + image.width(),
                    sink.pixels().data() + std::size_t(y) * std::size_t(image.width())),
            "rows and pixels differ");
}

static void load(const char* name, Conventions conventions)
{
    CheckedSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadDdsHeader(name, &described, conventions).code();
    const int code = QUtils::loadDds(name, sink, &info, conventions).code();
    require(code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_UNSUPPORTED,
        "a code that no loader has");
    if (code == IMGERR_NONE)
        require(headerCode == IMGERR_NONE && described.width == info.width && described.height == info.height
                && described.bitsPerPixel == info.bitsPerPixel,
            "the header is described differently from the image");
    loadRows(name, conventions, code, sink);
}

/// Takes pixels only where a row begins and ends.
class Edges : public QUtils::DdsRows {
public:
    bool begin(int width, int height, bool) override
    {
        m_width = width;
        m_height = height;
        return true;
    }
    void put(int y, const unsigned int* argb, int count) override
    {
        check(y, count);
        m_sum += argb[0] + argb[count - 1];
    }
    void putF(int y, const float* rgba, int count) override
    {
        check(y, count);
        m_sum += rgba[0] == rgba[4 * std::size_t(count) - 1];
    }

private:
    void check(int y, int count) const
    {
        require(y >= 0 && y < m_height && count > 0 && count <= m_width, "a row outside the picture");
    }

    int m_width = 0, m_height = 0;
    unsigned int m_sum = 0;
};

static void readLast(const char* name)
{
    const QUtils::FilePtr file(std::fopen(name, "rb"));
    QUtils::DdsDescription picture {};
    if (!file || QUtils::DDS_ReadDescription(file, picture) != 0 || std::fseek(file, 0, SEEK_SET) != 0)
        return;
    require(
        picture.levels >= 1 && picture.levels <= 31 && picture.faces >= 1 && picture.faces <= 6, "counts");
    Edges rows;
    QUtils::DDS_ReadSurface(
        file, { picture.elements - 1, picture.faces - 1, picture.levels - 1, 0 }, rows, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    readLast(file.name());
    return 0;
}
