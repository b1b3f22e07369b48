#include "rastkit/buffers.h"

#include "rastkit/model/clip.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/sample_conversion.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace QUtils {

namespace {

/// Pixels that are converted at once, in memory on the stack.
constexpr std::size_t chunkPixels = 512;
constexpr std::size_t maxPixelBytes = 16;

/// One channel: how its samples are stored, and they themselves.
struct FrameChannel {
    CharString name;
    int id;
    int components;
    FrameSample sample;
    std::size_t samples; ///< Of one pixel as stored: four in a packed one, whatever they count for.
    std::size_t pixelBytes;
    PixelMemory memory;

    /// The place of a component (0 to 3: red, green, blue, alpha) among the samples of a pixel.
    int placeOf(int component) const
    {
        // The bytes of a packed word lie in memory as blue, green, red, alpha.
        return sample == FrameSample::Packed8 && component < 3 ? 2 - component : component;
    }
    /// The place of what the channel shows as `component`; -1 for zero.
    int colorPlace(int component) const
    {
        if (components == 1)
            return 0;
        return component < components ? placeOf(component) : -1;
    }
    /// The place of what the channel gives as another's alpha.
    int alphaPlace() const { return placeOf(components == 4 ? 3 : 0); }
};

/// What a PixelFormatCode asks for.
struct QueryFormat {
    std::size_t components; ///< 1, 3 or 4
    QuerySample sample;

    std::size_t sampleSize() const { return sampleBytes(sample); }
    std::size_t pixelBytes() const { return components * sampleSize(); }
    /// The component, red to alpha, that is delivered at that place of a pixel.
    int componentAt(int place) const
    {
        const bool blueFirst = sample == QuerySample::UInt8 || sample == QuerySample::UInt16;
        return blueFirst && components >= 3 && place < 3 ? 2 - place : place;
    }
    /// The bits of an opaque alpha sample.
    std::uint32_t opaque() const
    {
        switch (sample) {
        case QuerySample::UInt8: return 0xFF;
        case QuerySample::UInt16: return 0xFFFF;
        case QuerySample::Int32: return 1;
        case QuerySample::Float: break;
        }
        return std::bit_cast<std::uint32_t>(1.0f);
    }
};

bool parseFormat(int code, QueryFormat& format)
{
    const int channels = code / 100, sample = code % 100;
    if (code < 0 || channels < 1 || channels > 3 || sample > int(QuerySample::Float))
        return false;
    format = { channels == 1 ? 1u : std::size_t(channels) + 1, QuerySample(sample) };
    return true;
}

/// Builds an arrangement of samples of `bytes` bytes, `samples` in a pixel.
class ArrangementBuilder {
public:
    ArrangementBuilder(std::size_t bytes, std::size_t samples, std::size_t resultSamples) : m_bytes(bytes)
    {
        m_result.sourceBytes = std::uint8_t(samples * bytes);
        m_result.resultBytes = std::uint8_t(resultSamples * bytes);
        m_result.pixels = std::uint8_t(16 / std::max(m_result.sourceBytes, m_result.resultBytes));
        std::fill(std::begin(m_result.source), std::end(m_result.source), PixelArrangement::none);
    }

    void take(int resultPlace, int sourcePlace)
    {
        for (std::size_t pixel = 0; pixel < m_result.pixels; ++pixel) {
            const std::size_t from = pixel * m_result.sourceBytes + std::size_t(sourcePlace) * m_bytes;
            std::uint8_t* const to = m_result.source + resultByte(pixel, resultPlace);
            for (std::size_t i = 0; i < m_bytes; ++i)
                to[i] = std::uint8_t(from + i);
        }
    }
    void set(int resultPlace, std::uint32_t bits)
    {
        for (std::size_t pixel = 0; pixel < m_result.pixels; ++pixel)
            std::memcpy(m_result.fill + resultByte(pixel, resultPlace), &bits, m_bytes);
    }
    const PixelArrangement& result() const { return m_result; }

private:
    std::size_t resultByte(std::size_t pixel, int place) const
    {
        return pixel * m_result.resultBytes + std::size_t(place) * m_bytes;
    }

    std::size_t m_bytes;
    PixelArrangement m_result {};
};

template <std::size_t sampleSize>
void copySamples(
    const std::uint8_t* from, std::size_t fromStep, std::uint8_t* to, std::size_t toStep, std::size_t count)
{
    for (; count > 0; --count, from += fromStep, to += toStep)
        std::memcpy(to, from, sampleSize);
}

/// One query, prepared once: samples are converted to the type that is asked for, then put in order; the
/// alpha of another channel is converted by itself and put over the place left for it.
class Delivery {
public:
    /// `alpha` may be null (opaque) and is not used by formats without alpha.
    Delivery(const FrameChannel& channel, const FrameChannel* alpha, const QueryFormat& format);

    /// `pixels` and `alphaPixels` (of the alpha channel) point to the samples of `count` pixels.
    void row(const std::uint8_t* pixels, const std::uint8_t* alphaPixels, std::uint8_t* dest,
        std::size_t count) const;

private:
    void arrangeComponents();
    void convertChunk(const std::uint8_t* pixels, std::uint8_t* dest, std::size_t count) const;
    void convertAlphaChunk(const std::uint8_t* pixels, std::uint8_t* dest, std::size_t count) const;

    const FrameChannel& m_channel;
    const FrameChannel* m_alpha; // Null: opaque.
    const FrameChannel* m_otherAlpha = nullptr; // Null when alpha needs no chunk of its own.
    QueryFormat m_format;
    SampleConverter m_convert, m_convertAlpha = nullptr;
    PixelArrangement m_arrangement;
    bool m_inOrder = true; // Samples are stored in the order of the query.
};

Delivery::Delivery(const FrameChannel& channel, const FrameChannel* alpha, const QueryFormat& format)
    : m_channel(channel), m_alpha(alpha), m_format(format),
      m_convert(sampleConverter(channel.sample, format.sample))
{
    if (format.components == 4 && alpha && alpha != &channel) {
        m_otherAlpha = alpha;
        m_convertAlpha = sampleConverter(alpha->sample, format.sample);
    }
    arrangeComponents();
}

void Delivery::arrangeComponents()
{
    ArrangementBuilder builder(m_format.sampleSize(), m_channel.samples, m_format.components);
    m_inOrder = m_channel.samples == m_format.components;
    for (int place = 0; place < int(m_format.components); ++place) {
        const int component = m_format.componentAt(place);
        int from = component < 3 ? m_channel.colorPlace(component) : -1;
        if (component == 3 && m_alpha == &m_channel)
            from = m_channel.alphaPlace();
        if (from >= 0)
            builder.take(place, from);
        else if (component == 3 && !m_alpha)
            builder.set(place, m_format.opaque());
        m_inOrder = m_inOrder && from == place;
    }
    m_arrangement = builder.result();
}

void Delivery::row(
    const std::uint8_t* pixels, const std::uint8_t* alphaPixels, std::uint8_t* dest, std::size_t count) const
{
    while (count > 0) {
        const std::size_t n = std::min(count, chunkPixels);
        convertChunk(pixels, dest, n);
        pixels += n * m_channel.pixelBytes;
        if (m_otherAlpha) {
            convertAlphaChunk(alphaPixels, dest, n);
            alphaPixels += n * m_otherAlpha->pixelBytes;
        }
        dest += n * m_format.pixelBytes();
        count -= n;
    }
}

void Delivery::convertChunk(const std::uint8_t* pixels, std::uint8_t* dest, std::size_t count) const
{
    alignas(16) std::uint8_t converted[chunkPixels * maxPixelBytes];
    if (m_convert) {
        m_convert(pixels, converted, count * m_channel.samples);
        pixels = converted;
    }
    if (m_inOrder)
        std::memcpy(dest, pixels, count * m_format.pixelBytes());
    else
        pixelKernels().arrange(m_arrangement, pixels, dest, count);
}

void Delivery::convertAlphaChunk(const std::uint8_t* pixels, std::uint8_t* dest, std::size_t count) const
{
    alignas(16) std::uint8_t converted[chunkPixels * maxPixelBytes];
    if (m_convertAlpha) {
        m_convertAlpha(pixels, converted, count * m_otherAlpha->samples);
        pixels = converted;
    }
    const std::size_t size = m_format.sampleSize();
    const std::uint8_t* const from = pixels + std::size_t(m_otherAlpha->alphaPlace()) * size;
    const std::size_t fromStep = m_otherAlpha->samples * size, toStep = m_format.pixelBytes();
    switch (size) {
    case 1: copySamples<1>(from, fromStep, dest + 3, toStep, count); break;
    case 2: copySamples<2>(from, fromStep, dest + 6, toStep, count); break;
    default: copySamples<4>(from, fromStep, dest + 12, toStep, count); break;
    }
}

/// Floats of `components` components to packed words.
void storePacked(const float* samples, int components, std::uint8_t* pixels, std::size_t count)
{
    ArrangementBuilder builder(1, std::size_t(components), 4);
    for (int component = 0; component < 3; ++component)
        builder.take(2 - component, component);
    if (components == 4)
        builder.take(3, 3);
    else
        builder.set(3, 0xFF);

    std::uint8_t bytes[chunkPixels * 4];
    while (count > 0) {
        const std::size_t n = std::min(count, chunkPixels);
        pixelKernels().floatToByte(samples, bytes, n * std::size_t(components));
        pixelKernels().arrange(builder.result(), bytes, pixels, n);
        samples += n * std::size_t(components);
        pixels += n * 4;
        count -= n;
    }
}

bool isKnown(FrameSample sample)
{
    return sample >= FrameSample::Packed8 && sample <= FrameSample::Int32;
}

/// Memory for a channel of that size, all zero; null when it is refused.
PixelMemory allocateChannel(int width, int height, std::size_t pixelBytes)
{
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(std::size_t(width) * std::size_t(height), pixelBytes, &bytes)
        || bytes > PTRDIFF_MAX)
        return nullptr;
    return allocateZeroPixels(bytes);
}

int dataKindOf(const FrameChannel& channel)
{
    if (channel.sample == FrameSample::Int32)
        return PIXELKIND_INTEGER;
    if (channel.components == 1)
        return PIXELKIND_SCALAR;
    return channel.components == 2 ? PIXELKIND_VECTOR : PIXELKIND_COLOR;
}

} // namespace

inline namespace RASTKIT_ABI {

struct FrameBuffer::Channels {
    int width, height;
    std::vector<FrameChannel> list;
    PluginBase* plugin = nullptr;

    Channels(int frameWidth, int frameHeight) : width(frameWidth), height(frameHeight) { }

    FrameChannel* find(int index)
    {
        return index >= 0 && std::size_t(index) < list.size() ? &list[std::size_t(index)] : nullptr;
    }
    /// The pixel (x, y), which is inside the frame.
    std::uint8_t* pixel(const FrameChannel& channel, int x, int y) const
    {
        const std::size_t index = std::size_t(y) * std::size_t(width) + std::size_t(x);
        return channel.memory.get() + index * channel.pixelBytes;
    }
    std::uint8_t* row(int index, int y)
    {
        const FrameChannel* const channel = find(index);
        return channel && y >= 0 && y < height ? pixel(*channel, 0, y) : nullptr;
    }
    /// The row of a channel of one sample type.
    template <typename Sample> Sample* rowOf(FrameSample sample, int index, int y)
    {
        const FrameChannel* const channel = find(index);
        return channel && channel->sample == sample ? reinterpret_cast<Sample*>(row(index, y)) : nullptr;
    }
    bool contains(const PixelBufferRegion& region) const
    {
        return region.left >= 0 && region.left <= region.right && region.right <= width && region.top >= 0
            && region.top <= region.bottom && region.bottom <= height
            && region.width == region.right - region.left && region.height == region.bottom - region.top;
    }
};

FrameBuffer::FrameBuffer(int width, int height)
{
    const bool isFrame = width >= 1 && height >= 1;
    m_channels.reset(new (std::nothrow) Channels(isFrame ? width : 0, isFrame ? height : 0));
}

FrameBuffer::~FrameBuffer() = default;
FrameBuffer::FrameBuffer(FrameBuffer&&) noexcept = default;
FrameBuffer& FrameBuffer::operator=(FrameBuffer&&) noexcept = default;

int FrameBuffer::addChannel(const char* name, int channelId, int components, FrameSample sample)
{
    const bool isPacked = sample == FrameSample::Packed8;
    if (!isKnown(sample) || components < (isPacked ? 3 : 1) || components > 4)
        return -1;
    if (!m_channels || m_channels->width == 0 || m_channels->list.size() == INT_MAX)
        return -1;

    const std::size_t samples = isPacked ? 4 : std::size_t(components);
    const std::size_t pixelBytes = samples * sampleBytes(sample);
    PixelMemory memory = allocateChannel(m_channels->width, m_channels->height, pixelBytes);
    const CharString ownName(name);
    const bool nameWasRefused = ownName.empty() && name && *name;
    if (!memory || nameWasRefused)
        return -1;
    try {
        m_channels->list.push_back(
            { ownName, channelId, components, sample, samples, pixelBytes, std::move(memory) });
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return int(m_channels->list.size()) - 1;
}

void* FrameBuffer::row(int channel, int y)
{
    return m_channels ? m_channels->row(channel, y) : nullptr;
}

const void* FrameBuffer::row(int channel, int y) const
{
    return m_channels ? m_channels->row(channel, y) : nullptr;
}

float* FrameBuffer::rowF(int channel, int y)
{
    return m_channels ? m_channels->rowOf<float>(FrameSample::Float, channel, y) : nullptr;
}

std::uint32_t* FrameBuffer::rowPacked(int channel, int y)
{
    return m_channels ? m_channels->rowOf<std::uint32_t>(FrameSample::Packed8, channel, y) : nullptr;
}

std::int32_t* FrameBuffer::rowInt(int channel, int y)
{
    return m_channels ? m_channels->rowOf<std::int32_t>(FrameSample::Int32, channel, y) : nullptr;
}

void FrameBuffer::setRowF(int channel, int x, int y, int count, const float* samples)
{
    const FrameChannel* const to = m_channels ? m_channels->find(channel) : nullptr;
    if (!to || y < 0 || y >= m_channels->height)
        return;
    int skipped = 0;
    if (!clipRun(m_channels->width, x, count, skipped))
        return;

    samples += std::size_t(skipped) * std::size_t(to->components);
    std::uint8_t* const pixels = m_channels->pixel(*to, x, y);
    const auto pixelCount = std::size_t(count);
    if (to->sample == FrameSample::Packed8)
        storePacked(samples, to->components, pixels, pixelCount);
    else if (const SampleConverter convert = storingConverter(to->sample))
        convert(samples, pixels, pixelCount * to->samples);
    else
        std::memcpy(pixels, samples, pixelCount * to->pixelBytes);
}

int FrameBuffer::getWidth()
{
    return m_channels ? m_channels->width : 0;
}

int FrameBuffer::getHeight()
{
    return m_channels ? m_channels->height : 0;
}

int FrameBuffer::getPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format,
    int rowBytes, void* dest, int, int, int)
{
    QueryFormat query;
    const FrameChannel* const source = m_channels ? m_channels->find(channel) : nullptr;
    if (!source || !dest || !parseFormat(format, query) || !m_channels->contains(region))
        return 0;
    if (rowBytes < std::int64_t(region.width) * std::int64_t(query.pixelBytes()))
        return 0;
    const FrameChannel* const alpha = query.components == 4 ? m_channels->find(alphaChannel) : nullptr;
    if (query.components == 4 && alphaChannel >= 0 && !alpha)
        return 0;

    const Delivery delivery(*source, alpha, query);
    auto* to = static_cast<std::uint8_t*>(dest);
    for (int y = region.top; y < region.bottom; ++y) {
        const std::uint8_t* const alphaPixels = alpha ? m_channels->pixel(*alpha, region.left, y) : nullptr;
        delivery.row(m_channels->pixel(*source, region.left, y), alphaPixels, to, std::size_t(region.width));
        if (y + 1 < region.bottom)
            to += rowBytes;
    }
    return 1;
}

int FrameBuffer::getNumChannels()
{
    return m_channels ? int(m_channels->list.size()) : 0;
}

int FrameBuffer::getChannelInfo(int index, PixelBufferChannelInfo& info)
{
    const FrameChannel* const channel = m_channels ? m_channels->find(index) : nullptr;
    if (!channel)
        return 0;
    info = { dataKindOf(*channel), channel->name, channel->id };
    return 1;
}

PluginBase* FrameBuffer::getPlugin()
{
    return m_channels ? m_channels->plugin : nullptr;
}

void FrameBuffer::setPlugin(PluginBase* plugin)
{
    if (m_channels)
        m_channels->plugin = plugin;
}

} // namespace RASTKIT_ABI
} // namespace QUtils
