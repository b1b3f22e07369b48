#include "bench/files.h"
#include "bench/frame.h"
#include "bench/memory.h"
#include "bench/raw_frame.h"
#include "bench/rows.h"
#include "qutils/raw/ri_file.h"
#include "qutils/raw/ri_reader.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfThreading.h>

#include <cstring>
#include <string>

namespace bench {

namespace {

constexpr std::size_t sampleBytes = sizeof(float);

// --- quimg -----------------------------------------------------------------------------------------------

class Channel : public QUtils::RegionChannelCallback {
public:
    explicit Channel(const RawChannel& channel) : m_channel(channel) { }
    const char* getName() override { return m_channel.name; }
    int getChannelId() override { return m_channel.id; }
    int getSampleType() override { return QUtils::RISAMPLE_FLOAT; }
    int getNumComponents() override { return m_channel.components; }
    int getKind() override { return m_channel.kind; }

private:
    const RawChannel& m_channel;
};

/// The whole frame at once, as the save functions hand it over.
class WholeFrame : public QUtils::QURegionData {
public:
    RIRegionInfo getRegion() override { return {}; }
    const void* getRow(int channel, int y) override
    {
        return rawPixels(channel)
            + std::size_t(y) * frameWidth * std::size_t(rawChannels[channel].components);
    }
};

bool writeQuimg(const std::string& path, int bucket)
{
    static Channel channels[] = { Channel(rawChannels[0]), Channel(rawChannels[1]), Channel(rawChannels[2]),
        Channel(rawChannels[3]), Channel(rawChannels[4]) };
    QUtils::RegionChannelTable list;
    for (Channel& channel : channels)
        list.add(&channel);
    QUtils::RIFile file;
    WholeFrame frame;
    return file.Create(path.c_str(), nullptr).code() == 0 && file.WriteHeader(32).code() == 0
        && file.WTResolution(frameWidth, frameHeight, 1).code() == 0 && file.WTRenderRegion({}).code() == 0
        && file.WTRegionsInfo(bucket, bucket, 0).code() == 0 && file.WTChannelInfo(&list).code() == 0
        && file.WTRegion(&frame, -1, 0, 0).code() == 0 && file.Close().code() == 0;
}

/// Where both formats are read to: the memory of one channel, used for each in turn would favour the caches,
/// so all channels have their own.
float* readMemory(int channel)
{
    static const Memory memory { std::size_t(rawBytes()) };
    std::size_t before = 0;
    for (int i = 0; i < channel; ++i)
        before += framePixels * std::size_t(rawChannels[i].components);
    return memory.as<float>() + before;
}

bool readQuimg(const std::string& path)
{
    QUtils::RIReader reader;
    if (reader.Open(path.c_str()).code() != 0)
        return false;
    for (int i = 0; i < rawChannelCount; ++i) {
        const std::size_t rowBytes = frameWidth * std::size_t(rawChannels[i].components) * sampleBytes;
        if (reader.readPixels(i, { 0, 0, frameWidth, frameHeight }, readMemory(i), rowBytes).code() != 0)
            return false;
    }
    return true;
}

// --- OpenEXR alone ---------------------------------------------------------------------------------------

Imf::FrameBuffer slices(bool reads)
{
    Imf::FrameBuffer slices;
    for (int i = 0; i < rawChannelCount; ++i) {
        const RawChannel& channel = rawChannels[i];
        const std::size_t pixel = std::size_t(channel.components) * sampleBytes;
        float* const pixels = reads ? readMemory(i) : const_cast<float*>(rawPixels(i));
        for (int c = 0; c < channel.components; ++c)
            slices.insert(channel.componentNames[c],
                Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(pixels + c), pixel, pixel * frameWidth));
    }
    return slices;
}

bool writeExr(const std::string& path)
{
    Imf::Header header(frameWidth, frameHeight);
    header.compression() = Imf::ZIP_COMPRESSION;
    for (const RawChannel& channel : rawChannels)
        for (int c = 0; c < channel.components; ++c)
            header.channels().insert(channel.componentNames[c], Imf::Channel(Imf::FLOAT));
    Imf::OutputFile file(path.c_str(), header);
    file.setFrameBuffer(slices(false));
    file.writePixels(frameHeight);
    return true;
}

bool readExr(const std::string& path)
{
    Imf::InputFile file(path.c_str());
    file.setFrameBuffer(slices(true));
    file.readPixels(0, frameHeight - 1);
    return true;
}

// --- Rows ------------------------------------------------------------------------------------------------

bool holdsRawFrame()
{
    for (int i = 0; i < rawChannelCount; ++i) {
        const std::size_t bytes = framePixels * std::size_t(rawChannels[i].components) * sampleBytes;
        if (std::memcmp(readMemory(i), rawPixels(i), bytes) != 0)
            return false;
    }
    return true;
}

struct Variant {
    std::string name;
    int bucket; ///< 0: OpenEXR.
    int threads;
};

bool writeVariant(const Variant& variant, const std::string& path)
{
    return variant.bucket == 0 ? writeExr(path) : writeQuimg(path, variant.bucket);
}

bool readVariant(const Variant& variant, const std::string& path)
{
    return variant.bucket == 0 ? readExr(path) : readQuimg(path);
}

void addRows(const Variant& variant, const std::string& exrName)
{
    const bool isBeside = variant.bucket == 0;
    const std::string path = filePath("raw-" + std::to_string(variant.bucket));
    const std::string exrPath = filePath("raw-0");
    const auto prepare = [=]() -> std::string {
        Imf::setGlobalThreadCount(0);
        const bool made = (fileBytes(exrPath) != 0 || writeExr(exrPath))
            && (fileBytes(path) != 0 || writeVariant(variant, path));
        return made ? "" : "the file cannot be written";
    };
    const auto reset = [=] { Imf::setGlobalThreadCount(variant.threads > 1 ? variant.threads : 0); };

    Row read { .name = variant.name + "/read",
        .beside = isBeside ? "" : exrName + "/read",
        .pixelBytes = rawBytes(),
        .goal = isBeside ? Goal {} : Goal { Goal::Kind::TimesFaster, 2 } };
    read.prepare = prepare;
    read.reset = reset;
    read.run = [=] { return readVariant(variant, path); };
    read.verify = [=] { return holdsRawFrame(); };
    read.usesThreads = variant.threads > 1;
    addRow(read);

    const std::string written = filePath("raw-written-" + std::to_string(variant.bucket));
    Row write { .name = variant.name + "/write",
        .beside = isBeside ? "" : exrName + "/write",
        .pixelBytes = rawBytes(),
        .goal = isBeside ? Goal {} : Goal { Goal::Kind::TimesFaster, 3 } };
    write.prepare = prepare;
    write.reset = [=] {
        reset();
        removeFile(written);
    };
    write.run = [=] { return writeVariant(variant, written); };
    write.verify = [=] { return readVariant(variant, written) && holdsRawFrame(); };
    if (!isBeside)
        write.sizeRatio = [=] { return double(fileBytes(path)) / double(fileBytes(exrPath)); };
    write.usesThreads = variant.threads > 1;
    addRow(write);
}

} // namespace

void addQuimgRows()
{
    for (const int threads : { 1, 2 }) {
        const std::string end = threads == 1 ? "" : "/threads2";
        const std::string exr = "quimg/openexr" + end;
        addRows({ exr, 0, threads }, exr);
        addRows({ "quimg/buckets64" + end, 64, threads }, exr);
        addRows({ "quimg/buckets256" + end, 256, threads }, exr);
    }
}

} // namespace bench
