// A program that knows rastkit only as installed: it writes a frame through the writer plug-in, reads it
// back, and crosses the border of the library with everything that can go wrong there.

#include <rastkit/rastkit.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

constexpr int width = 7, height = 4;

int failures = 0;

void expect(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "consumer: not so: %s\n", what);
        ++failures;
    }
}

unsigned int pixelAt(int x, int y)
{
    return 0xFF000000u | unsigned(x * 30) << 16 | unsigned(y * 60) << 8 | unsigned(x + y);
}

QUtils::FrameBuffer makeFrame()
{
    QUtils::FrameBuffer frame(width, height);
    const int color = frame.addChannel("color", QUtils::PIXELCHANNEL_COLOR, 4, QUtils::FrameSample::Packed8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            frame.rowPacked(color, y)[x] = pixelAt(x, y);
    return frame;
}

/// A caller's own sink, whose exception must come through the library to the caller.
class RefusingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { freed = true; }
    void setPixelF(int, int, const float*) override { throw QUtils::ExceptionMsg("refused"); }
    void setPixel(int, int, unsigned int) override { throw QUtils::ExceptionMsg("refused"); }

    bool freed = false;
};

void writeAndReadBack(const std::string& name)
{
    QUtils::FrameBuffer frame = makeFrame();
    QUtils::ImageWriterInterface* writer = QUtils::newDefaultImageWriter();
    expect(writer != nullptr, "there is a writer");
    expect(writer->getPlugin()->newInterface(QUtils::TgaSettingsInterface::interfaceId) != nullptr,
        "the writer has Targa settings");
    expect(writer->writeImage(name.c_str(), -1, &frame, 0, 0).code() == IMGERR_NONE, "the frame is written");
    QUtils::deleteDefaultImageWriter(writer);

    QUtils::Image8 image;
    IMGINFO info;
    expect(LoadImageFile(name.c_str(), image, &info).code() == IMGERR_NONE, "the frame is read");
    expect(info.width == width && info.height == height, "the frame has its size");
    expect(image.width() == width && image.height() == height, "the image has the frame's size");
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            expect(image.pixel(x, y) == pixelAt(x, y), "a pixel comes back as it was written");
}

void throwThroughTheLibrary(const std::string& name)
{
    RefusingSink sink;
    bool caught = false;
    try {
        const ImgError result = LoadImageFile(name.c_str(), sink, nullptr);
        expect(result.code() == IMGERR_NONE, "the sink throws");
    } catch (const QUtils::ExceptionMsg&) {
        caught = true;
    }
    expect(caught && sink.freed, "the sink's exception arrives as what it is, after freeMem");
}

void readNothing()
{
    QUtils::ImageF image;
    const ImgError result = LoadImageFile("there/is/no/such.tga", image, nullptr);
    expect(result.code() == IMGERR_OPEN && result.message()[0] != '\0', "a missing file is reported");
}

void useQutilsDirectly()
{
    QUtils::CharString text("shared");
    const QUtils::CharString copy = text;
    expect(copy.length() == 6, "a copied text has its length");

    QUtils::Table<const QUtils::FileFormatInfo*, 100> formats;
    expect(getSupportedFormatsList(formats) == formats.count(), "the formats are listed");
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount != 2) {
        std::fprintf(stderr, "usage: consumer FOLDER\n");
        return 2;
    }
    const std::string name = (std::filesystem::path(arguments[1]) / "frame.tga").string();
    writeAndReadBack(name);
    throwThroughTheLibrary(name);
    readNothing();
    useQutilsDirectly();
    return failures ? 1 : 0;
}
