// The OpenEXR reader with both conventions: the header, single pixels, whole rows, packed pixels, a level,
// the hash in the comments.

#include "fuzz_support.h"
#include "rastkit/buffers.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/load.h"

#include <algorithm>
#include <cstring>

using namespace fuzz_support;
using QUtils::Conventions;

static bool isCodeOfTheLoader(int code)
{
    return code == IMGERR_NONE || code == IMGERR_READ || code == IMGERR_MEMORY;
}

/// A sink of single pixels of a small image, as floats; lets nothing pass that lies outside.
class FloatSink : public ImgBuffer {
public:
    static constexpr std::size_t mostPixels = 1 << 18;

    FloatSink() { m_image.setMaxBytes(mostPixels * 16); }

    void init(int width, int height) override { m_image.init(width, height); }
    int isValid() override { return m_image.isValid(); }
    void freeMem() override { }
    void setPixelF(int x, int y, const float* rgba) override
    {
        require(x >= 0 && x < m_image.width() && y >= 0 && y < m_image.height(), "a pixel outside the image");
        m_image.setPixelF(x, y, rgba);
    }
    void setPixel(int, int, unsigned int) override { require(false, "a packed pixel"); }

    const QUtils::ImageF& image() const { return m_image; }

private:
    QUtils::ImageF m_image;
};

/// What a chunk lacks after it was unpacked is whatever OpenEXR's memory held: of compressed files two loads
/// may differ. Those without compression are held to the size of their chunks.
static bool isUncompressed(const std::uint8_t* data, std::size_t size)
{
    static constexpr char text[] = "compression\0compression\0\1\0\0"; // Its own end is the last 0.
    const auto* const end = data + size;
    bool isFound = false;
    for (const std::uint8_t* at = data;;) {
        at = std::search(at, end, text, text + sizeof text);
        if (end - at <= std::ptrdiff_t(sizeof text))
            return isFound;
        at += sizeof text;
        if (*at != 0)
            return false;
        isFound = true;
    }
}

static void loadPixels(const char* name, Conventions conventions, bool comparesPixels)
{
    FloatSink sink;
    QUtils::ImageF rows;
    rows.setMaxBytes(FloatSink::mostPixels * 16);
    IMGINFO described {}, info {};
    const int headerCode = QUtils::loadExrHeader(name, &described, conventions).code();
    const int code = QUtils::loadExr(name, sink, &info, conventions).code();
    require(isCodeOfTheLoader(headerCode) && isCodeOfTheLoader(code), "a code that no loader has");
    require(
        QUtils::loadExr(name, rows, nullptr, conventions).code() == code, "rows and pixels end differently");
    if (headerCode == IMGERR_NONE)
        require(std::memcmp(&described, &info, sizeof info) == 0, "the header is described differently");
    if (code == IMGERR_NONE) {
        require(headerCode == IMGERR_NONE, "pixels without a header");
        require(rows.width() == sink.image().width() && rows.height() == sink.image().height(),
            "rows and pixels have different sizes");
        for (int y = 0; y < rows.height() && comparesPixels; ++y)
            require(std::memcmp(rows.row(y), sink.image().row(y), std::size_t(rows.width()) * 16) == 0,
                "rows and pixels differ");
    }

    const std::uint64_t count = std::uint64_t(described.width) * std::uint64_t(described.height);
    if (headerCode == IMGERR_NONE && count <= FloatSink::mostPixels) {
        std::vector<unsigned int> packed(static_cast<std::size_t>(count));
        require(isCodeOfTheLoader(QUtils::loadExrPacked(name, packed.data(), nullptr, conventions).code()),
            "a code that no loader has");
    }
    for (const int level : { 0, 1 })
        require(isCodeOfTheLoader(QUtils::loadExrLevel(name, rows, nullptr, level, conventions).code()),
            "a code that no loader has");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // What the loader says of each file would bury what the fuzzer says, which has its own way out.
    static const bool isSilent = (stderr = std::fopen("/dev/null", "w")) != nullptr;
    require(isSilent, "no way to be silent");
    const InputFile file(data, size);
    const bool comparesPixels = isUncompressed(data, size);
    loadPixels(file.name(), Conventions::Renderer, comparesPixels);
    loadPixels(file.name(), Conventions::Standard, comparesPixels);
    char tag[64];
    require(
        LoadEXRSHA(file.name(), tag, sizeof tag) == 0 || std::strlen(tag) <= 39, "a hash that is too long");
    return 0;
}
