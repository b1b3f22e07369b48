#include "qutils/raw/exr_compression.h"
#include "rastkit/exr/exr_channels.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/exr/exr_header.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/exr/exr_open.h"
#include "rastkit/load.h"
#include "rastkit/model/content_tag.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <IexBaseExc.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfInputFile.h>
#include <ImfRgbaFile.h>
#include <ImfStringAttribute.h>
#include <ImfThreading.h>
#include <ImfTiledRgbaFile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <string>

namespace QUtils {

namespace {

// What the strip of rows that is read at once may take. Colours count as four floats, grey as two.
constexpr std::uint64_t mostStripBytes = 209715200;
// What it takes, if a chunk is not larger: it stays in the cache until it is handed on.
constexpr std::uint64_t usualStripBytes = std::uint64_t(1) << 20;
// With threads it is large enough to keep them busy, up to here.
constexpr std::uint64_t threadStripBytes = std::uint64_t(64) << 20;
constexpr std::uint64_t chunksPerThread = 4;

// --- The fence around OpenEXR ----------------------------------------------------------------------------

/// Where the text of an exception goes.
enum class Report { StandardError, Result };

/// Tells the renderer on standard error, as it always did, since a code alone says little; by the standard
/// conventions the text is in the result.
Report reportOf(Conventions conventions)
{
    return conventions == Conventions::Renderer ? Report::StandardError : Report::Result;
}

/// Runs `work()`, an ImgError, which calls OpenEXR: its exceptions, and those of the caller's own sink, end
/// here.
template <typename Work> ImgError fenced(Report report, const Work& work) noexcept
{
    try {
        startExrLibrary();
        return work();
    } catch (const std::exception& exception) {
        if (report == Report::Result && dynamic_cast<const std::bad_alloc*>(&exception))
            return IMGERR_MEMORY;
        if (report == Report::Result)
            return ImgError("loadExr", IMGERR_READ, "%s", exception.what());
        std::fprintf(stderr, "%s\n", exception.what());
    } catch (...) { // NOLINT(bugprone-empty-catch): only the sink's, and without a text.
    }
    return IMGERR_READ;
}

// --- Strips ----------------------------------------------------------------------------------------------

/// How many rows OpenEXR decodes at once, whatever is asked of it.
std::uint64_t chunkRows(const Imf::Header& header)
{
    if (header.hasTileDescription())
        return header.tileDescription().ySize;
    return std::uint64_t(exrLinesPerChunk(header.compression()));
}

/// The pixels of a picture, cut into strips of whole chunks, or of parts of one.
struct Strips {
    Strips(const Imf::Header& header, std::uint64_t pixelBytes, std::uint64_t budgetPixelBytes)
    {
        const Imath::Box2i& window = header.dataWindow();
        x = window.min.x;
        y = window.min.y;
        width = std::int64_t(window.max.x) - x + 1;
        height = std::int64_t(window.max.y) - y + 1;
        rowBytes = std::uint64_t(width) * pixelBytes;
        chunk = std::clamp<std::uint64_t>(chunkRows(header), 1, std::uint64_t(height));

        const auto threads = std::uint64_t(std::max(Imf::globalThreadCount(), 0));
        const std::uint64_t usual = usualStripBytes / rowBytes / chunk;
        const std::uint64_t busy = std::min(threads * chunksPerThread, threadStripBytes / rowBytes / chunk);
        const std::uint64_t chunks = std::max<std::uint64_t>({ usual, busy, 1 });
        std::uint64_t most
            = std::max<std::uint64_t>(mostStripBytes / (std::uint64_t(width) * budgetPixelBytes), 1);
        if (most > chunk)
            most -= most % chunk;
        rows = std::int64_t(std::min({ chunks * chunk, most, std::uint64_t(height) }));
    }

    /// How many rows the strip has that begins with `row`. Where a chunk is too large for one strip, its
    /// strips end with it: damage in the next one must not cost its rows.
    std::int64_t rowsFrom(std::int64_t row) const
    {
        const std::int64_t count = std::min(rows, height - row), chunkHeight = std::int64_t(chunk);
        return rows < chunkHeight ? std::min(count, chunkHeight - row % chunkHeight) : count;
    }

    std::int64_t x, y; ///< Of the data window.
    std::int64_t width, height;
    std::uint64_t rowBytes;
    std::uint64_t chunk; ///< Rows of a chunk.
    std::int64_t rows; ///< Of a strip; the last one may have less.
};

/// The address that a data window's (0, 0) would have when the pixel (x, y) is at `memory`. It may lie
/// anywhere: nothing is stored there.
char* originOf(void* memory, std::int64_t x, std::int64_t y, std::uint64_t pixelBytes, std::uint64_t rowBytes)
{
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer may not be moved out of its memory.
    return reinterpret_cast<char*>(address - std::uint64_t(x) * pixelBytes - std::uint64_t(y) * rowBytes);
}

/// Delivers the chunks of a damaged strip that are in front of the damage.
template <typename Read, typename Deliver>
void deliverIntactChunks(
    const Strips& strips, std::int64_t row, std::int64_t count, const Read& read, const Deliver& deliver)
{
    const auto chunk = std::int64_t(strips.chunk);
    const auto isRead = [&](std::int64_t part) {
        try {
            read(row + part, std::min(chunk, count - part));
            return true;
        } catch (const Iex::BaseExc&) {
            return false;
        }
    };
    // OpenEXR may keep the strip's failure in mind and give it to whoever reads next.
    static_cast<void>(isRead(0));
    for (std::int64_t part = 0; part < count && isRead(part); part += chunk)
        deliver(row + part, std::min(chunk, count - part));
}

/// Reads the rows of a picture strip by strip with `read(firstRow, rowCount)`, counted from the top of the
/// data window, and hands each strip on to `deliver(firstRow, rowCount)`.
template <typename Read, typename Deliver>
void eachStrip(const Strips& strips, const Read& read, const Deliver& deliver)
{
    for (std::int64_t row = 0, count = 0; row < strips.height; row += count) {
        count = strips.rowsFrom(row);
        try {
            read(row, count);
        } catch (const Iex::BaseExc&) {
            if (count > std::int64_t(strips.chunk)) // Several of them, from the first row of one.
                deliverIntactChunks(strips, row, count, read, deliver);
            throw;
        }
        deliver(row, count);
    }
}

/// All 0: whatever OpenEXR leaves out, nobody sees what the memory held before.
template <typename Sample> std::unique_ptr<Sample[]> newSamples(std::uint64_t count)
{
    return std::unique_ptr<Sample[]>(
        count <= SIZE_MAX / sizeof(Sample) ? new (std::nothrow) Sample[std::size_t(count)]() : nullptr);
}

// --- Float pixels ----------------------------------------------------------------------------------------

/// Has OpenEXR read `count` rows of samples of one type that lie at `memory` pixel by pixel.
void readSamples(Imf::InputFile& file, const ExrChannels& channels, Imf::PixelType type, const Strips& strips,
    std::int64_t row, std::int64_t count, void* memory, std::uint64_t rowBytes)
{
    const std::size_t samples = channels.kind == ExrChannels::Kind::Grey ? 2 : 4;
    const std::size_t sampleBytes = type == Imf::HALF ? sizeof(std::uint16_t) : sizeof(float);
    const std::size_t pixelBytes = samples * sampleBytes;
    const std::int64_t y = strips.y + row;
    char* const origin = originOf(memory, strips.x, y, pixelBytes, rowBytes);
    Imf::FrameBuffer frame;
    for (std::size_t i = 0; i < samples; ++i) {
        const double fill = i + 1 == samples ? 1.0 : 0.0; // Opaque black where the file has no such channel.
        frame.insert(channels.names[i],
            Imf::Slice(type, origin + i * sampleBytes, pixelBytes, std::size_t(rowBytes), 1, 1, fill));
    }
    file.setFrameBuffer(frame);
    file.readPixels(int(y), int(y + count - 1));
}

/// Has OpenEXR store samples in memory of this function's, from which `convert(samples, rgba)` makes each row
/// of the sink.
template <typename Sample, typename Convert>
ImgErrorCode readThroughScratch(Imf::InputFile& file, const ExrChannels& channels, RowSink& sink,
    Imf::PixelType type, std::size_t pixelSamples, const Convert& convert)
{
    const Strips strips(file.header(), pixelSamples * sizeof(Sample), pixelSamples * sizeof(float));
    const std::size_t rowSamples = std::size_t(strips.width) * pixelSamples;
    const auto scratch = newSamples<Sample>(rowSamples * std::uint64_t(strips.rows));
    if (!scratch)
        return IMGERR_MEMORY;
    ImgErrorCode result = IMGERR_NONE;
    eachStrip(
        strips,
        [&](std::int64_t row, std::int64_t count) {
            if (result == IMGERR_NONE)
                readSamples(file, channels, type, strips, row, count, scratch.get(), strips.rowBytes);
        },
        [&](std::int64_t row, std::int64_t count) {
            for (std::int64_t i = 0; i < count && result == IMGERR_NONE; ++i) {
                float* const stored = sink.beginRowF(int(row + i));
                if (!stored) {
                    result = IMGERR_MEMORY;
                    return;
                }
                convert(scratch.get() + std::size_t(i) * rowSamples, stored);
                sink.endRowF(int(row + i), stored);
            }
        });
    return result;
}

/// Colours of 16 bits: OpenEXR is fastest with whole pixels of them, and the kernel with whole rows.
ImgErrorCode readHalfColors(Imf::InputFile& file, const ExrChannels& channels, RowSink& sink)
{
    const std::size_t rowSamples = std::size_t(sink.width()) * 4;
    return readThroughScratch<std::uint16_t>(
        file, channels, sink, Imf::HALF, 4, [rowSamples](const std::uint16_t* halves, float* rgba) {
            pixelKernels().halfToFloat(halves, rgba, rowSamples);
        });
}

/// Grey and alpha as floats; of a picture in 16 bits OpenEXR makes them.
ImgErrorCode readGrey(Imf::InputFile& file, const ExrChannels& channels, RowSink& sink)
{
    const std::size_t width = std::size_t(sink.width());
    return readThroughScratch<float>(
        file, channels, sink, Imf::FLOAT, 2, [width](const float* greyAlpha, float* rgba) {
            pixelKernels().greyAlphaToRgba(greyAlpha, rgba, width);
        });
}

/// Where OpenEXR stores a strip of float pixels: in the sink's own rows when they lie at equal distances,
/// else in memory of this object's, from which they are handed on.
class FloatStrip {
public:
    FloatStrip(RowSink& sink, const Strips& strips) : m_sink(sink), m_strips(strips) { }

    /// False when memory is refused.
    [[nodiscard]] bool begin(std::int64_t row, std::int64_t count)
    {
        m_isDirect = findRows(row, count);
        if (m_isDirect)
            return true;
        if (!m_scratch)
            m_scratch = newSamples<float>(std::uint64_t(m_strips.width) * 4 * std::uint64_t(m_strips.rows));
        m_pixels = m_scratch.get();
        m_rowBytes = m_strips.rowBytes;
        return m_scratch != nullptr;
    }
    void end(std::int64_t row, std::int64_t count)
    {
        for (std::int64_t i = 0; i < count; ++i) {
            float* const pixels = m_pixels + std::size_t(i) * (m_rowBytes / sizeof(float));
            if (m_isDirect)
                m_sink.endRowF(int(row + i), pixels);
            else
                m_sink.putF(0, int(row + i), pixels, int(m_strips.width));
        }
    }

    float* pixels() const { return m_pixels; }
    std::uint64_t rowBytes() const { return m_rowBytes; }

private:
    bool findRows(std::int64_t row, std::int64_t count)
    {
        if (!m_mayBeDirect)
            return false;
        m_pixels = m_sink.beginRowF(int(row));
        m_rowBytes = m_strips.rowBytes;
        for (std::int64_t i = 1; i < count && m_pixels; ++i) {
            const float* const next = m_sink.beginRowF(int(row + i));
            const std::uintptr_t distance
                = reinterpret_cast<std::uintptr_t>(next) - reinterpret_cast<std::uintptr_t>(m_pixels);
            if (i == 1)
                m_rowBytes = distance;
            // A row that stands for all of them has no distance.
            m_mayBeDirect = next && distance == m_rowBytes * std::uint64_t(i)
                && m_rowBytes >= m_strips.rowBytes && m_rowBytes <= mostRowBytes
                && m_rowBytes % sizeof(float) == 0;
            if (!m_mayBeDirect)
                return false;
        }
        return m_pixels != nullptr;
    }

    static constexpr std::uint64_t mostRowBytes = std::uint64_t(1) << 46;

    RowSink& m_sink;
    const Strips& m_strips;
    bool m_mayBeDirect = true, m_isDirect = false;
    float* m_pixels = nullptr;
    std::uint64_t m_rowBytes = 0;
    std::unique_ptr<float[]> m_scratch;
};

ImgErrorCode readFloatColors(Imf::InputFile& file, const ExrChannels& channels, RowSink& sink)
{
    const Strips strips(file.header(), 4 * sizeof(float), 4 * sizeof(float));
    FloatStrip strip(sink, strips);
    ImgErrorCode result = IMGERR_NONE;
    eachStrip(
        strips,
        [&](std::int64_t row, std::int64_t count) {
            if (result == IMGERR_NONE && !strip.begin(row, count))
                result = IMGERR_MEMORY;
            if (result == IMGERR_NONE)
                readSamples(file, channels, Imf::FLOAT, strips, row, count, strip.pixels(), strip.rowBytes());
        },
        [&](std::int64_t row, std::int64_t count) {
            if (result == IMGERR_NONE)
                strip.end(row, count);
        });
    return result;
}

ImgErrorCode loadExrFile_helper(Imf::InputFile& file, const ExrChannels& channels, ImgBuffer& buffer)
{
    const Imath::Box2i& window = file.header().dataWindow();
    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(window.max.x - window.min.x + 1, window.max.y - window.min.y + 1));
    if (channels.kind == ExrChannels::Kind::Grey)
        return readGrey(file, channels, sink);
    return channels.isHalf ? readHalfColors(file, channels, sink) : readFloatColors(file, channels, sink);
}

// --- The library's RGBA pixels ---------------------------------------------------------------------------

constexpr std::size_t rgbaSamples = 4;
static_assert(sizeof(Imf::Rgba) == rgbaSamples * sizeof(std::uint16_t));

void halvesToFloats(const Imf::Rgba* pixels, float* rgba, std::size_t count)
{
    pixelKernels().halfToFloat(reinterpret_cast<const std::uint16_t*>(pixels), rgba, count * rgbaSamples);
}

/// Reads a picture through OpenEXR's RGBA interface, which turns luminance and chroma into colours, and hands
/// each row to `store(row, pixels)`, which answers with a code.
template <typename Store> ImgErrorCode readRgba(Imf::RgbaInputFile& file, const Store& store)
{
    const Strips strips(file.header(), sizeof(Imf::Rgba), sizeof(Imf::Rgba));
    const auto scratch = newSamples<Imf::Rgba>(std::uint64_t(strips.width) * std::uint64_t(strips.rows));
    if (!scratch)
        return IMGERR_MEMORY;
    for (std::int64_t row = 0, count = 0; row < strips.height; row += count) {
        count = strips.rowsFrom(row);
        const std::int64_t y = strips.y + row;
        char* const origin = originOf(scratch.get(), strips.x, y, sizeof(Imf::Rgba), strips.rowBytes);
        file.setFrameBuffer(reinterpret_cast<Imf::Rgba*>(origin), 1, std::size_t(strips.width));
        file.readPixels(int(y), int(y + count - 1));
        for (std::int64_t i = 0; i < count; ++i)
            RASTKIT_TRY(store(row + i, scratch.get() + i * strips.width));
    }
    return IMGERR_NONE;
}

ImgErrorCode loadLuminanceChroma(Imf::RgbaInputFile& file, ImgBuffer& buffer)
{
    const Imath::Box2i& window = file.header().dataWindow();
    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(window.max.x - window.min.x + 1, window.max.y - window.min.y + 1));
    return readRgba(file, [&](std::int64_t row, const Imf::Rgba* pixels) {
        float* const stored = sink.beginRowF(int(row));
        if (!stored)
            return IMGERR_MEMORY;
        halvesToFloats(pixels, stored, std::size_t(sink.width()));
        sink.endRowF(int(row), stored);
        return IMGERR_NONE;
    });
}

// --- Packed pixels ---------------------------------------------------------------------------------------

std::uint32_t packColor(float value)
{
    return value > 0 ? std::uint32_t(std::min(value * 256, 255.0f)) : 0;
}

/// Alpha is its whole number, neither scaled nor clamped, on purpose: an opaque pixel has 1 in the top byte,
/// and scenes count on it. What no int can hold counts as 0.
std::uint32_t packAlpha(float value)
{
    return std::isfinite(value) ? std::uint32_t(int(value)) << 24 : 0;
}

void packRendererRow(const float* rgba, std::uint32_t* argb, std::size_t count)
{
    for (std::size_t x = 0; x < count; ++x, rgba += 4)
        argb[x]
            = packAlpha(rgba[3]) | packColor(rgba[0]) << 16 | packColor(rgba[1]) << 8 | packColor(rgba[2]);
}

ImgErrorCode loadPacked(Imf::RgbaInputFile& file, unsigned int* pixels, Conventions conventions)
{
    const Imath::Box2i& window = file.header().dataWindow();
    const std::size_t width = std::size_t(std::int64_t(window.max.x) - window.min.x + 1);
    const auto floats = newSamples<float>(std::uint64_t(width) * 4);
    if (!floats)
        return IMGERR_MEMORY;
    const auto pack = conventions == Conventions::Renderer ? packRendererRow : pixelKernels().packRounded;
    return readRgba(file, [&](std::int64_t row, const Imf::Rgba* halves) {
        halvesToFloats(halves, floats.get(), width);
        pack(floats.get(), pixels + std::size_t(row) * width, width);
        return IMGERR_NONE;
    });
}

// --- Levels ----------------------------------------------------------------------------------------------

/// A level of a tiled file, in memory.
struct Level {
    int width = 0, height = 0;
    std::unique_ptr<Imf::Rgba[]> pixels;
};

[[noreturn]] void refuseLevel(const Imf::TiledRgbaInputFile& file, const char* why)
{
    throw Iex::InputExc(std::string("Cannot read image file \"") + file.fileName() + "\". " + why);
}

ImgErrorCode readLevel(Imf::TiledRgbaInputFile& file, std::uint64_t fileBytes, int level, Level& result)
{
    if (level < 0 || level >= std::min(file.numXLevels(), file.numYLevels()))
        refuseLevel(file, "It has no such level.");
    result.width = file.levelWidth(level);
    result.height = file.levelHeight(level);
    const std::uint64_t width = std::uint64_t(result.width);
    const std::uint64_t most = mostExrPixelBytes(fileBytes, file.header().compression());
    if (width * std::uint64_t(result.height) > most / sizeof(Imf::Rgba))
        refuseLevel(file, "It is too small for the pixels that it should have.");
    result.pixels = newSamples<Imf::Rgba>(width * std::uint64_t(result.height));
    if (!result.pixels)
        return IMGERR_MEMORY;
    // Levels lie where the data window begins; in memory each begins at its first pixel.
    const Imath::V2i first = file.dataWindowForLevel(level).min;
    char* const origin
        = originOf(result.pixels.get(), first.x, first.y, sizeof(Imf::Rgba), width * sizeof(Imf::Rgba));
    file.setFrameBuffer(reinterpret_cast<Imf::Rgba*>(origin), 1, std::size_t(width));
    file.readTiles(0, file.numXTiles(level) - 1, 0, file.numYTiles(level) - 1, level);
    return IMGERR_NONE;
}

void describeLevel(const Level& level, int height, IMGINFO* info, Conventions conventions)
{
    if (!info)
        return;
    *info = IMGINFO {};
    info->numChannels = 4;
    if (conventions == Conventions::Renderer) {
        // 16 bits of the size and of a packed pixel's depth, on purpose: the texture cache keeps them so.
        info->width = std::int16_t(level.width);
        info->height = std::int16_t(height);
        info->bitsPerPixel = 32;
    } else {
        info->width = level.width;
        info->height = height;
        info->bitsPerPixel = 4 * 16;
        info->bytesPerPixel = 4 * int(sizeof(float));
    }
}

ImgErrorCode storeLevel(const Level& level, int height, ImgBuffer& buffer)
{
    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(level.width, height));
    const std::size_t width = std::size_t(level.width);
    for (int y = 0; y < height; ++y) {
        float* const stored = sink.beginRowF(y);
        if (!stored)
            return IMGERR_MEMORY;
        if (y < level.height)
            halvesToFloats(level.pixels.get() + std::size_t(y) * width, stored, width);
        else
            std::fill_n(stored, width * 4, 0.0f);
        sink.endRowF(y, stored);
    }
    return IMGERR_NONE;
}

} // namespace

// --- The cores -------------------------------------------------------------------------------------------

ImgError loadExrHeader(const char* name, IMGINFO* info, Conventions conventions)
{
    if (info)
        *info = IMGINFO {};
    return fenced(reportOf(conventions), [&]() -> ImgError {
        OpenExr<Imf::InputFile> file(name);
        const Imf::Header& header = file->header();
        describeExr(header, pickExrChannels(header, conventions), info, conventions);
        return IMGERR_NONE;
    });
}

ImgError loadExr(const char* name, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    return fenced(reportOf(conventions), [&]() -> ImgError {
        OpenExr<Imf::InputFile> file(name);
        const ExrChannels channels = pickExrChannels(file->header(), conventions);
        describeExr(file->header(), channels, info, conventions);
        if (channels.kind != ExrChannels::Kind::LuminanceChroma)
            return loadExrFile_helper(*file, channels, buffer);
        OpenExr<Imf::RgbaInputFile> colors(name);
        return loadLuminanceChroma(*colors, buffer);
    });
}

ImgError loadExrPacked(const char* name, unsigned int* pixels, IMGINFO* info, Conventions conventions)
{
    return fenced(reportOf(conventions), [&]() -> ImgError {
        OpenExr<Imf::RgbaInputFile> file(name);
        describeExr(file->header(), pickExrChannels(file->header(), conventions), info, conventions);
        return loadPacked(*file, pixels, conventions);
    });
}

ImgError loadExrLevel(const char* name, ImgBuffer& buffer, IMGINFO* info, int level, Conventions conventions)
{
    return fenced(reportOf(conventions), [&]() -> ImgError {
        Level pixels;
        RASTKIT_TRY([&] {
            OpenExr<Imf::TiledRgbaInputFile> file(name);
            return readLevel(*file, file.bytes(), level, pixels);
        }());
        // The renderer's levels are squares of their width, on purpose: its textures are, and what is
        // not gets cut or filled up with zeros.
        const int height = conventions == Conventions::Renderer ? pixels.width : pixels.height;
        describeLevel(pixels, height, info, conventions);
        return storeLevel(pixels, height, buffer);
    });
}

} // namespace QUtils

using QUtils::Conventions;

ImgError LoadEXRHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadExrHeader(fileName, info, Conventions::Renderer);
}

ImgError LoadEXRFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadExr(fileName, buffer, info, Conventions::Renderer);
}

ImgError LoadEXRFile(const char* fileName, unsigned int* pixels, IMGINFO* info)
{
    return QUtils::loadExrPacked(fileName, pixels, info, Conventions::Renderer);
}

ImgError LoadEXRLevel(const char* fileName, ImgBuffer& buffer, IMGINFO* info, int level)
{
    return QUtils::loadExrLevel(fileName, buffer, info, level, Conventions::Renderer);
}

int LoadEXRSHA(const char* fileName, char* out, int outSize)
{
    if (!fileName || !QUtils::hasRoomForContentTag(out, outSize))
        return 0;
    try {
        QUtils::startExrLibrary();
        QUtils::OpenExr<Imf::InputFile> file(fileName);
        const auto* const comments = file->header().findTypedAttribute<Imf::StringAttribute>("comments");
        return comments ? QUtils::extractContentTag(comments->value().c_str(), out, outSize) : 0;
    } catch (...) { // Whatever is wrong with the file: it has no hash.
        return 0;
    }
}
