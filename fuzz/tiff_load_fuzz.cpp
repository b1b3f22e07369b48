// The TIFF reader with both conventions: the header, single pixels, whole rows, the hash in the description.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/load.h"

#include <cmath>
#include <cstring>

using namespace fuzz_support;
using QUtils::Conventions;

static bool isCodeOfALoader(int code)
{
    return code >= IMGERR_NONE && code <= IMGERR_UNSUPPORTED;
}

/// A sink of single pixels of a small image, as floats; lets nothing pass that lies outside.
class FloatSink : public ImgBuffer {
public:
    static constexpr std::size_t mostPixels = 1 << 20;

    void init(int width, int height) override
    {
        require(width > 0 && height > 0, "an image without pixels");
        m_width = width;
        m_height = height;
        const std::size_t count = std::size_t(width) * std::size_t(height);
        m_isValid = count <= mostPixels;
        m_image.setMaxBytes(mostPixels * 16);
        m_image.init(m_isValid ? width : 0, m_isValid ? height : 0);
    }
    int isValid() override { return m_isValid; }
    void freeMem() override { m_isFreed = true; }
    void setPixelF(int x, int y, const float* rgba) override
    {
        check(x, y);
        m_image.setPixelF(x, y, rgba);
    }
    void setPixel(int x, int y, unsigned int argb) override
    {
        check(x, y);
        m_image.setPixel(x, y, argb);
    }

    const QUtils::ImageF& image() const { return m_image; }
    bool isFreed() const { return m_isFreed; }

private:
    void check(int x, int y) const
    {
        require(x >= 0 && x < m_width && y >= 0 && y < m_height, "a pixel outside the image");
    }

    QUtils::ImageF m_image;
    int m_width = 0, m_height = 0;
    bool m_isValid = false, m_isFreed = false;
};

/// Images that take rows end up like a sink of single pixels.
static void loadRows(const char* name, Conventions conventions, int code, const FloatSink& sink)
{
    QUtils::ImageF floats;
    QUtils::Image8 bytes;
    floats.setMaxBytes(FloatSink::mostPixels * 16);
    bytes.setMaxBytes(FloatSink::mostPixels * 4);
    require(QUtils::loadTiff(name, floats, nullptr, conventions).code() == code
            && QUtils::loadTiff(name, bytes, nullptr, conventions).code() == code,
        "rows and pixels end differently");
    if (code != IMGERR_NONE)
        return;
    for (int y = 0; y < floats.height(); ++y) {
        const float* const row = sink.image().row(y);
        require(
            std::memcmp(floats.row(y), row, std::size_t(floats.width()) * 16) == 0, "rows and pixels differ");
        for (int x = 0; x < floats.width(); ++x)
            for (int c = 0; c < 4; ++c) {
                const float value = row[x * 4 + c];
                const float clamped = value > 0 ? std::fmin(value, 1.0f) : 0.0f;
                const unsigned int byte = bytes.pixel(x, y) >> (c == 3 ? 24 : 16 - 8 * c) & 0xFF;
                require(byte == unsigned(std::nearbyint(clamped * 255)), "bytes and floats differ");
            }
    }
}

static void load(const char* name, Conventions conventions)
{
    FloatSink sink;
    IMGINFO info {}, described {};
    const int headerCode = QUtils::loadTiffHeader(name, &described, conventions).code();
    const int code = QUtils::loadTiff(name, sink, &info, conventions).code();
    require(isCodeOfALoader(code) && isCodeOfALoader(headerCode), "a code that no loader has");
    require(std::memcmp(&info, &described, sizeof info) == 0,
        "the header is described differently from the image");
    require(!sink.isFreed() || code == IMGERR_READ || code == IMGERR_FORMAT || code == IMGERR_MEMORY,
        "freeMem without a failed strip");
    loadRows(name, conventions, code, sink);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    load(file.name(), Conventions::Renderer);
    load(file.name(), Conventions::Standard);
    char tag[41];
    if (LoadTIFSHA(file.name(), tag, sizeof tag))
        require(std::strlen(tag) <= 39, "a hash that is too long");
    return 0;
}
