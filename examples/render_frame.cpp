// Renders one frame with several channels and writes it in every format that this build can write: each
// channel to a file of its own, and all of them together as quimg and OpenEXR.

#include "frame_channels.h"
#include "scene.h"

#include "rastkit/rastkit.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

constexpr char divider = '_'; // Between a file's name and its channel.
constexpr int frameDigits = 4;

enum Channel { Beauty, Alpha, Depth, Normals, Diffuse, Reflection, ObjectId, ChannelCount };

QUtils::FrameBuffer makeFrame(int width, int height)
{
    using QUtils::FrameSample;
    QUtils::FrameBuffer frame(width, height);
    // The ids tell the writers which channel is the picture and which its alpha; other numbers are free.
    frame.addChannel("beauty", QUtils::PIXELCHANNEL_COLOR, 4, FrameSample::Float);
    frame.addChannel("alpha", QUtils::PIXELCHANNEL_ALPHA, 1, FrameSample::Float);
    frame.addChannel("depth", 10, 1, FrameSample::Float);
    frame.addChannel("normals", 11, 3, FrameSample::Float);
    frame.addChannel("diffuse", 12, 3, FrameSample::Float);
    frame.addChannel("reflection", 13, 3, FrameSample::Float);
    frame.addChannel("object", 14, 1, FrameSample::Int32);
    if (frame.getNumChannels() != ChannelCount)
        throw std::runtime_error("no memory for the frame");
    return frame;
}

/// Light as a screen shows it: rolled off into 0..1, with a square root for the screen's gamma. Writers
/// store samples as they are, so a frame that is meant for 8-bit files holds values like these.
scene::Vec display(scene::Vec light)
{
    const auto curve = [](float v) {
        const float shown = std::sqrt(std::min(1.25f * v / (v + 0.85f), 1.f));
        return 0.65f * shown + 0.35f * scene::smooth(shown);
    };
    return { curve(light.x), curve(light.y), curve(light.z) };
}

void renderRow(QUtils::FrameBuffer& frame, int y)
{
    float *beauty = frame.rowF(Beauty, y), *alpha = frame.rowF(Alpha, y), *depth = frame.rowF(Depth, y),
          *normals = frame.rowF(Normals, y), *diffuse = frame.rowF(Diffuse, y),
          *reflection = frame.rowF(Reflection, y);
    std::int32_t* object = frame.rowInt(ObjectId, y);
    const int width = frame.getWidth(), height = frame.getHeight();

    for (int x = 0; x < width; ++x) {
        const scene::Pixel pixel = scene::renderPixel(x, y, width, height);
        display(pixel.diffuse + pixel.reflection).appendTo(beauty);
        display(pixel.diffuse).appendTo(diffuse);
        display(pixel.reflection).appendTo(reflection);
        *beauty++ = *alpha++ = pixel.alpha; // Straight: colours are not multiplied by it.
        *depth++ = 4 / pixel.hit.distance; // Near is white, the sky black.
        (pixel.hit.normal * 0.5f + scene::Vec { 0.5f, 0.5f, 0.5f }).appendTo(normals); // -1..1 shown as 0..1.
        *object++ = pixel.hit.object * 25; // Far enough apart to be told apart as greys.
    }
}

/// All channels of the frame for the formats that keep them in one file.
class RawFrame : public QUtils::QURegionData {
public:
    explicit RawFrame(QUtils::FrameBuffer& frame) : m_frame(frame)
    {
        for (example::Channel& channel : m_channels)
            m_table.add(&channel);
    }
    QUtils::RegionChannelTable* channels() { return &m_table; }
    QUtils::RIRegionInfo getRegion() override { return { 0, 0, m_frame.getWidth(), m_frame.getHeight() }; }
    const void* getRow(int channel, int y) override { return m_frame.row(channel, y); }

private:
    QUtils::FrameBuffer& m_frame;
    example::Channel m_channels[ChannelCount] {
        { "beauty", QUtils::PIXELCHANNEL_COLOR, QUtils::RISAMPLE_FLOAT, 4, example::Color },
        { "alpha", QUtils::PIXELCHANNEL_ALPHA, QUtils::RISAMPLE_FLOAT, 1, example::Data },
        { "depth", 10, QUtils::RISAMPLE_FLOAT, 1, example::Depth },
        { "normals", 11, QUtils::RISAMPLE_FLOAT, 3, example::Vector },
        { "diffuse", 12, QUtils::RISAMPLE_FLOAT, 3, example::Color },
        { "reflection", 13, QUtils::RISAMPLE_FLOAT, 3, example::Color },
        { "object", 14, QUtils::RISAMPLE_UINT, 1, example::Data },
    };
    QUtils::RegionChannelTable m_table;
};

/// One of the writer's other interfaces: how files are named, how a format is written.
template <class Interface> Interface& settings(QUtils::ImageWriterInterface& writer)
{
    return static_cast<Interface&>(*writer.getPlugin()->newInterface(Interface::interfaceId));
}

/// Tells the writer of all that goes into a file with all channels.
void setRawImage(QUtils::ImageWriterInterface& writer, QUtils::FrameBuffer& frame, RawFrame& rows, int number)
{
    constexpr int bucket = 64;
    auto& raw = settings<QUtils::RawImageSettingsInterface>(writer);
    raw.setRawImageBitsPerChannel(16); // Colours as half floats; data as it is.
    raw.setRawImageWidth(frame.getWidth());
    raw.setRawImageHeight(frame.getHeight());
    raw.setRawImagePixelAspect(1);
    raw.setRawImageRegWidth(bucket);
    raw.setRawImageRegHeight(bucket);
    raw.setRawImageChannelList(rows.channels());
    char description[] = "spheres on a chequered floor";
    QUtils::RISceneInfo scene { number, description };
    raw.setRawImageSceneInfo(scene);
    raw.setRawImageRegionData(&rows);
}

/// Writes all channels into one file, as a quimg or an OpenEXR file by its extension, and prints its name.
bool writeRawFrame(
    QUtils::ImageWriterInterface& writer, const std::string& name, QUtils::FrameBuffer& frame, int number)
{
    constexpr int flags = QUtils::SAVE_ADD_FRAME_NUMBER | QUtils::SAVE_EXR_MULTI_CHANNEL;
    const ImgError error = writer.writeImage(name.c_str(), -1, &frame, flags, number);
    if (error.code() != 0) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), error.message());
        return false;
    }
    char file[512];
    SaveImageFile_getFilename(name.c_str(), true, number, frameDigits, file, sizeof file);
    std::puts(file);
    return true;
}

std::string formatName(QUtils::ImageWriterInterface& writer, const std::string& folder, int format)
{
    QUtils::FileFormatInfo info;
    writer.getFileFormatInfo(format, info);
    return folder + "/frame." + std::string(info.extensions, std::strcspn(info.extensions, ";"));
}

/// Writes all channels in one format, each to a file of its own, and prints the files' names.
bool writeFrame(QUtils::ImageWriterInterface& writer, const std::string& folder, int format,
    QUtils::FrameBuffer& frame, int number)
{
    constexpr int flags = QUtils::SAVE_ADD_FRAME_NUMBER;
    QUtils::FileFormatInfo info;
    writer.getFileFormatInfo(format, info);
    const std::string name = formatName(writer, folder, format);
    char file[512];
    if (writer.writeImage(name.c_str(), format, &frame, flags, number).code() != IMGERR_NONE) {
        // One error stands for all channels. The picture on its own tells whether the format is there at all.
        writer.getImageFileName(name.c_str(), Beauty, flags, number, file, sizeof file);
        const bool absent
            = SaveImageFile(file, frame, Beauty, Alpha, format, flags).code() == IMGERR_UNSUPPORTED;
        std::fprintf(absent ? stdout : stderr, "%s: %s\n", info.description,
            absent ? "not in this build" : "not all channels were written");
        return absent;
    }
    for (int i = 0; i < frame.getNumChannels(); ++i) {
        QUtils::PixelBufferChannelInfo channel;
        frame.getChannelInfo(i, channel);
        // As main tells the writer: folders, but none for the picture itself.
        SaveImageFile_getFilename(
            name.c_str(), channel, divider, true, number, frameDigits, file, sizeof file, true, false);
        std::puts(file);
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
try {
    std::string folder;
    int width = 960, height = 540, number = 1;
    CLI::App options("Renders a frame and writes its channels in every format that this build can write.");
    options.add_option("OUTDIR", folder, "Folder for the files; made if it is missing")->required();
    options.add_option("--width", width)->check(CLI::Range(1, 16384))->capture_default_str();
    options.add_option("--height", height)->check(CLI::Range(1, 16384))->capture_default_str();
    options.add_option("--frame", number, "Frame number in the names")->capture_default_str();
    CLI11_PARSE(options, argc, argv);

    QUtils::FrameBuffer frame = makeFrame(width, height);
    for (int y = 0; y < height; ++y)
        renderRow(frame, y);

    const std::unique_ptr<QUtils::ImageWriterInterface, void (*)(QUtils::ImageWriterInterface*)> writer(
        QUtils::newDefaultImageWriter(), QUtils::deleteDefaultImageWriter);
    if (!writer || !QUtils::uniMakeDir(folder.c_str()))
        throw std::runtime_error("cannot make " + folder);
    auto& naming = settings<QUtils::FileNameFormatInterface>(*writer);
    naming.setChanDivider(divider);
    naming.setNumFrameDigits(frameDigits);
    naming.setRenderElementSeparateFolder(true);
    settings<QUtils::TgaSettingsInterface>(*writer).setTgaCompression(10); // Run-length encoded.
    settings<QUtils::JpegSettingsInterface>(*writer).setJpegQuality(95);
    auto& tiff = settings<QUtils::TiffSettingsInterface>(*writer);
    tiff.setTiffBitsPerChannel(16);
    tiff.setTiffInterleaved(1); // Every viewer reads that; the default is a plane for each component.

    RawFrame rows(frame);
    setRawImage(*writer, frame, rows, number);

    bool complete = writeRawFrame(*writer, folder + "/frame.quimg", frame, number);
    complete = writeRawFrame(*writer, folder + "/frame_all.exr", frame, number) && complete;
    for (int format = 0; format < writer->getNumFileFormats(); ++format)
        if (!fileFormatIsMultiChannel(formatName(*writer, folder, format).c_str(), 0))
            complete = writeFrame(*writer, folder, format, frame, number) && complete;
    return complete ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "render_frame: %s\n", error.what());
    return 1;
}
