#include "qutils/raw/exr_file.h"

#include "qutils/raw/exr_channel_plan.h"
#include "qutils/raw/exr_compression.h"
#include "qutils/raw/exr_output_stream.h"

#include <ImfBoxAttribute.h>
#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfOutputFile.h>
#include <ImfStringAttribute.h>
#include <ImfThreading.h>
#include <ImfVecAttribute.h>
#include <half.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace QUtils {

namespace {

constexpr int failure = -1; // The texts say what it was.

/// Runs one call of the interface: exceptions of OpenEXR, of the renderer's objects and of refused memory
/// become errors.
template <typename Step> ErrorCode guarded(const char* function, Step step) noexcept
{
    try {
        return step();
    } catch (const std::exception& exception) {
        return ErrorCode(function, failure, "%s", exception.what());
    } catch (...) {
        return ErrorCode(function, failure, "an exception of the renderer");
    }
}

bool isAllZero(const RIRegionInfo& region)
{
    return region.left == 0 && region.top == 0 && region.right == 0 && region.bottom == 0;
}

/// Copies one component out of packed pixels.
template <typename From, typename To>
void copyComponent(const void* row, int components, int component, int count, void* dest)
{
    const auto* const samples = static_cast<const std::uint8_t*>(row);
    auto* const copies = static_cast<std::uint8_t*>(dest);
    const std::size_t pixelBytes = sizeof(From) * std::size_t(components);
    const std::size_t offset = sizeof(From) * std::size_t(component);
    for (std::size_t i = 0; i < std::size_t(count); ++i) {
        From sample;
        std::memcpy(&sample, samples + i * pixelBytes + offset, sizeof sample); // The row may lie anyhow.
        const To copy(sample);
        std::memcpy(copies + i * sizeof copy, &copy, sizeof copy);
    }
}

using ComponentCopy = void (*)(const void* row, int components, int component, int count, void* dest);

/// Integers are never converted: 4 bytes are copied.
ComponentCopy componentCopy(int sampleType, Imf::PixelType type)
{
    const bool fromHalf = sampleType == RISAMPLE_HALF;
    if (type == Imf::HALF)
        return fromHalf ? copyComponent<std::uint16_t, std::uint16_t> : copyComponent<float, half>;
    return fromHalf ? copyComponent<half, float> : copyComponent<std::uint32_t, std::uint32_t>;
}

std::size_t fileSampleBytes(Imf::PixelType type)
{
    return type == Imf::HALF ? 2 : 4;
}

RawChannel describe(RegionChannelCallback& callback)
{
    RawChannel channel;
    const char* const name = callback.getName();
    channel.name = name ? name : "";
    channel.id = callback.getChannelId();
    channel.sampleType = callback.getSampleType();
    channel.components = callback.getNumComponents();
    const int kind = callback.getKind();
    const bool isKnown = kind >= int(RawKind::Color) && kind <= int(RawKind::Data);
    channel.kind = isKnown ? RawKind(kind) : RawKind::ByComponents;
    return channel;
}

/// The part of a region's rows that lies in the data window.
struct Overlap {
    int left, top, right, bottom; ///< Right and bottom exclusive.

    bool holds(int y) const { return left < right && y >= top && y < bottom; }
};

Overlap overlap(const RIRegionInfo& region, const Imath::Box2i& window)
{
    return { std::max(region.left, window.min.x), std::max(region.top, window.min.y),
        std::min(region.right, window.max.x + 1), std::min(region.bottom, window.max.y + 1) };
}

/// Some lines of all channels of the file, one plane for each.
class LineBatch {
public:
    LineBatch(const std::vector<ExrChannel>& channels, const Imath::Box2i& window, int lines)
        : m_channels(channels), m_window(window), m_lines(lines)
    {
        for (const ExrChannel& channel : channels)
            m_planes.emplace_back(fileSampleBytes(channel.type) * std::size_t(width()) * std::size_t(lines));
    }

    int lines() const { return m_lines; }

    /// The sample of column `x` (of the image) in line `line` of the batch.
    std::uint8_t* at(std::size_t channel, int line, int x)
    {
        const std::size_t bytes = fileSampleBytes(m_channels[channel].type);
        return m_planes[channel].data()
            + (std::size_t(line) * std::size_t(width()) + std::size_t(x - m_window.min.x)) * bytes;
    }

    void clearLine(int line)
    {
        for (std::size_t i = 0; i < m_channels.size(); ++i)
            std::memset(
                at(i, line, m_window.min.x), 0, fileSampleBytes(m_channels[i].type) * std::size_t(width()));
    }

    /// For `lines` of the file from `top` on.
    Imf::FrameBuffer frameBuffer(int top)
    {
        Imf::FrameBuffer buffer;
        for (std::size_t i = 0; i < m_channels.size(); ++i)
            buffer.insert(m_channels[i].name,
                Imf::Slice::Make(m_channels[i].type, m_planes[i].data(), Imath::V2i(m_window.min.x, top),
                    width(), m_lines));
        return buffer;
    }

private:
    int width() const { return m_window.max.x - m_window.min.x + 1; }

    const std::vector<ExrChannel>& m_channels;
    Imath::Box2i m_window;
    int m_lines;
    std::vector<std::vector<std::uint8_t>> m_planes;
};

} // namespace

class ExrFile::Writer {
public:
    explicit Writer(int compressionType) : m_compressionType(compressionType) { }

    ErrorCode create(const char* name);
    void setBits(int bits) { m_bits = bits; }
    ErrorCode setResolution(int width, int height, float pixelAspect);
    ErrorCode setRenderRegion(const RIRegionInfo& region);
    void setRegions(int width, int height, int type);
    ErrorCode setChannels(RegionChannelTable* channels);
    void setCamera(const RICameraInfo& camera);
    void setScene(const RISceneInfo& scene);
    /// Null: lines of zeros.
    ErrorCode writeRegion(QURegionData* data);
    ErrorCode close();

private:
    ErrorCode startFile();
    ErrorCode writeLines(QURegionData* data);
    bool fillLine(QURegionData* data, const RIRegionInfo& region, const Overlap& part, int y, int line,
        LineBatch& batch);
    ErrorCode finishFile();

    template <class Attribute, typename Value> void insert(const char* name, const Value& value)
    {
        m_header.insert(name, Attribute(value));
    }

    int m_compressionType, m_bits = 0;
    bool m_hasResolution = false, m_isWritten = false;
    Imf::Header m_header;
    std::vector<RawChannel> m_sources;
    std::vector<ExrChannel> m_channels;
    std::unique_ptr<ExrOutputStream> m_stream;
    std::unique_ptr<Imf::OutputFile> m_file; // Over the stream, so it goes first.
};

ErrorCode ExrFile::Writer::create(const char* name)
{
    if (m_stream || m_isWritten)
        return ErrorCode("Create", failure, "the file is made already");
    m_stream = std::make_unique<ExrOutputStream>(name);
    return {};
}

ErrorCode ExrFile::Writer::setResolution(int width, int height, float pixelAspect)
{
    constexpr int most = std::numeric_limits<int>::max() / 2 - 1; // OpenEXR's own bound.
    if (width < 1 || height < 1 || width > most || height > most)
        return ErrorCode("WTResolution", failure, "a size of %d x %d pixels", width, height);
    m_header.displayWindow() = m_header.dataWindow()
        = Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(width - 1, height - 1));
    const bool isRatio = std::isfinite(pixelAspect) && pixelAspect >= 1e-6f && pixelAspect <= 1e6f;
    m_header.pixelAspectRatio() = isRatio ? pixelAspect : 1.0f;
    m_hasResolution = true;
    return {};
}

ErrorCode ExrFile::Writer::setRenderRegion(const RIRegionInfo& region)
{
    if (!m_hasResolution)
        return ErrorCode("WTRenderRegion", failure, "the resolution comes first");
    if (isAllZero(region))
        return {};
    const Imath::Box2i image = m_header.displayWindow();
    if (region.left < 0 || region.top < 0 || region.right > image.max.x + 1 || region.bottom > image.max.y + 1
        || region.left >= region.right || region.top >= region.bottom)
        return ErrorCode("WTRenderRegion", failure,
            "the region (%d, %d) to (%d, %d) does not lie in the image", region.left, region.top,
            region.right, region.bottom);
    m_header.dataWindow()
        = Imath::Box2i(Imath::V2i(region.left, region.top), Imath::V2i(region.right - 1, region.bottom - 1));
    return {};
}

void ExrFile::Writer::setRegions(int width, int height, int type)
{
    insert<Imf::V2iAttribute>("regionSize", Imath::V2i(width, height));
    insert<Imf::IntAttribute>("regionType", type);
}

ErrorCode ExrFile::Writer::setChannels(RegionChannelTable* channels)
{
    m_sources.clear();
    for (int i = 0; channels && i < channels->count(); ++i) {
        RegionChannelCallback* const callback = (*channels)[i];
        if (!callback)
            return ErrorCode("WTChannelInfo", failure, "channel %d of the list is null", i);
        m_sources.push_back(describe(*callback));
        const RawChannel& channel = m_sources.back();
        if (channel.components < 1 || channel.components > 4)
            return ErrorCode("WTChannelInfo", failure, "channel %d, \"%s\", has %d components", i,
                channel.name.c_str(), channel.components);
        if (channel.sampleType < RISAMPLE_HALF || channel.sampleType > RISAMPLE_UINT)
            return ErrorCode("WTChannelInfo", failure, "channel %d, \"%s\", has the unknown sample type %d",
                i, channel.name.c_str(), channel.sampleType);
    }
    return {};
}

void ExrFile::Writer::setCamera(const RICameraInfo& camera)
{
    if (!camera.valid)
        return;
    insert<Imf::M44fAttribute>("cameraTransform", Imath::M44f(camera.transform));
    insert<Imf::IntAttribute>("cameraProjection", camera.projection);
    insert<Imf::FloatAttribute>("cameraAperture", camera.aperture);
    insert<Imf::FloatAttribute>("cameraFov", camera.fov);
    insert<Imf::FloatAttribute>("cameraTargetDistance", camera.targetDistance);
    insert<Imf::FloatAttribute>("cameraNearRange", camera.nearRange);
    insert<Imf::FloatAttribute>("cameraFarRange", camera.farRange);
    insert<Imf::FloatAttribute>("cameraNearClip", camera.nearClip);
    insert<Imf::FloatAttribute>("cameraFarClip", camera.farClip);
    insert<Imf::FloatAttribute>("cameraFocalLength", camera.focalLength);
    insert<Imf::FloatAttribute>("cameraFNumber", camera.fNumber);
}

void ExrFile::Writer::setScene(const RISceneInfo& scene)
{
    insert<Imf::IntAttribute>("sceneNumber", scene.number);
    if (scene.text)
        insert<Imf::StringAttribute>("sceneDescription", std::string(scene.text));
}

ErrorCode ExrFile::Writer::startFile()
{
    if (!m_stream)
        return ErrorCode("ExrFile", failure, "the file is not made yet");
    if (!m_hasResolution)
        return ErrorCode("ExrFile", failure, "the resolution is missing");
    m_channels = planExrChannels(m_sources, m_bits);
    for (const ExrChannel& channel : m_channels)
        m_header.channels().insert(channel.name, Imf::Channel(channel.type));
    const Imf::Compression compression = exrCompression(m_compressionType);
    m_header.compression()
        = isLossy(compression) && !toleratesLoss(m_channels) ? Imf::ZIP_COMPRESSION : compression;
    m_file = std::make_unique<Imf::OutputFile>(*m_stream, m_header, Imf::globalThreadCount());
    return {};
}

/// False when the row is refused.
bool ExrFile::Writer::fillLine(
    QURegionData* data, const RIRegionInfo& region, const Overlap& part, int y, int line, LineBatch& batch)
{
    if (!data || !part.holds(y)) {
        batch.clearLine(line);
        return true;
    }
    int fetched = -1;
    const std::uint8_t* row = nullptr;
    for (std::size_t i = 0; i < m_channels.size(); ++i) {
        const ExrChannel& channel = m_channels[i];
        if (channel.source < 0)
            continue;
        const RawChannel& source = m_sources[std::size_t(channel.source)];
        if (channel.source != fetched) {
            row = static_cast<const std::uint8_t*>(data->getRow(channel.source, y));
            fetched = channel.source;
        }
        if (!row)
            return false;
        const std::size_t skipped = std::size_t(std::int64_t(part.left) - region.left)
            * std::size_t(source.components) * std::size_t(rawSampleBytes(source.sampleType));
        componentCopy(source.sampleType, channel.type)(row + skipped, source.components, channel.component,
            part.right - part.left, batch.at(i, line, part.left));
    }
    return true;
}

/// With threads, several chunks at once, so that all of them have work; else one line.
ErrorCode ExrFile::Writer::writeLines(QURegionData* data)
{
    const Imath::Box2i window = m_header.dataWindow();
    RIRegionInfo region = data ? data->getRegion() : RIRegionInfo {};
    if (isAllZero(region))
        region = { window.min.x, window.min.y, window.max.x + 1, window.max.y + 1 };
    const Overlap part = overlap(region, window);

    const int threads = Imf::globalThreadCount();
    const int most = threads > 0 ? 2 * threads * exrLinesPerChunk(m_header.compression()) : 1;
    LineBatch batch(m_channels, window, std::min(most, window.max.y - window.min.y + 1));
    for (int top = window.min.y; top <= window.max.y; top += batch.lines()) {
        const int count = std::min(batch.lines(), window.max.y + 1 - top);
        int filled = 0;
        while (filled < count && fillLine(data, region, part, top + filled, filled, batch))
            ++filled;
        if (filled > 0) {
            m_file->setFrameBuffer(batch.frameBuffer(top));
            m_file->writePixels(filled);
        }
        if (filled < count)
            return ErrorCode("WTRegion", failure, "row %d was refused", top + filled);
    }
    return {};
}

/// OpenEXR writes the table of lines when its object goes; the stream knows whether that worked.
ErrorCode ExrFile::Writer::finishFile()
{
    m_file.reset();
    const std::unique_ptr<ExrOutputStream> stream = std::move(m_stream);
    return stream->close() ? ErrorCode()
                           : ErrorCode("ExrFile", failure, "the file was not written completely");
}

ErrorCode ExrFile::Writer::writeRegion(QURegionData* data)
{
    if (m_isWritten)
        return ErrorCode("WTRegion", failure, "an OpenEXR file takes one region, the whole frame");
    if (ErrorCode error = startFile(); error.code() != 0)
        return error;
    m_isWritten = true;
    ErrorCode error = writeLines(data);
    ErrorCode lateError = finishFile();
    return error.code() != 0 ? error : lateError;
}

ErrorCode ExrFile::Writer::close()
{
    if (!m_stream)
        return {}; // Nothing was made, or all is on disk already.
    if (m_isWritten)
        return ErrorCode("Close", failure, "the file was not written completely");
    return writeRegion(nullptr);
}

ExrFile::ExrFile(int compressionType) : m_writer(new (std::nothrow) Writer(compressionType)) { }

ExrFile::~ExrFile() = default;

/// One call of the interface: `step(writer)`, which returns an error or nothing.
template <typename Step> ErrorCode ExrFile::run(const char* function, Step step) noexcept
{
    if (!m_writer)
        return ErrorCode(function, failure, "no memory");
    return guarded(function, [&]() -> ErrorCode {
        if constexpr (std::is_void_v<decltype(step(*m_writer))>)
            return step(*m_writer), ErrorCode();
        else
            return step(*m_writer);
    });
}

ErrorCode ExrFile::Create(const char* name, PStream* stream)
{
    if (stream)
        return ErrorCode("Create", failure, "OpenEXR files are not written to streams");
    return run("Create", [&](Writer& writer) { return writer.create(name); });
}

ErrorCode ExrFile::WriteHeader(int bitsPerChannel)
{
    return run("WriteHeader", [&](Writer& writer) { writer.setBits(bitsPerChannel); });
}

ErrorCode ExrFile::WTResolution(int width, int height, float pixelAspect)
{
    return run(
        "WTResolution", [&](Writer& writer) { return writer.setResolution(width, height, pixelAspect); });
}

ErrorCode ExrFile::WTRenderRegion(const RIRegionInfo& region)
{
    return run("WTRenderRegion", [&](Writer& writer) { return writer.setRenderRegion(region); });
}

ErrorCode ExrFile::WTRegionsInfo(int regWidth, int regHeight, int regType)
{
    return run("WTRegionsInfo", [&](Writer& writer) { writer.setRegions(regWidth, regHeight, regType); });
}

ErrorCode ExrFile::WTChannelInfo(RegionChannelTable* channels)
{
    return run("WTChannelInfo", [&](Writer& writer) { return writer.setChannels(channels); });
}

ErrorCode ExrFile::WTCameraInfo(const RICameraInfo& camera)
{
    return run("WTCameraInfo", [&](Writer& writer) { writer.setCamera(camera); });
}

ErrorCode ExrFile::WTSceneInfo(RISceneInfo& scene)
{
    return run("WTSceneInfo", [&](Writer& writer) { writer.setScene(scene); });
}

ErrorCode ExrFile::WTRegion(QURegionData* data, int, int, int)
{
    if (!data)
        return ErrorCode("WTRegion", failure, "no region");
    return run("WTRegion", [&](Writer& writer) { return writer.writeRegion(data); });
}

ErrorCode ExrFile::Close()
{
    return run("Close", [](Writer& writer) { return writer.close(); });
}

} // namespace QUtils
