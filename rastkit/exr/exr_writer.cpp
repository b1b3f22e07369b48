#include "qutils/raw/exr_compression.h"
#include "qutils/raw/exr_output_stream.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/exr/extra_attributes.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <IexBaseExc.h>
#include <IexMacros.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <ImfThreading.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <string>

namespace QUtils {

namespace {

// --- OpenEXR's exceptions --------------------------------------------------------------------------------

/// Where the text of an exception goes.
enum class Report { Nowhere, StandardError, Result };

/// Does a part of the work whose exceptions, OpenEXR's and the frame's alike, become results.
template <typename Work> ImgError fenced(Report report, Work work)
{
    try {
        return work();
    } catch (const std::exception& exception) {
        if (report == Report::StandardError)
            std::fprintf(stderr, "%s\n", exception.what());
        if (report == Report::Result && dynamic_cast<const std::bad_alloc*>(&exception))
            return IMGERR_MEMORY;
        if (report == Report::Result)
            return ImgError("saveExr", IMGERR_WRITE, "%s", exception.what());
    } catch (...) { // NOLINT(bugprone-empty-catch): it says nothing that could be told.
    }
    return IMGERR_WRITE;
}

// --- Header ----------------------------------------------------------------------------------------------

void addCamera(ExrHeaderWrapper& header, const CameraInfo& camera)
{
    float transform[16];
    std::memcpy(transform, camera.transform, sizeof transform); // Row by row.
    header.addvec("cameraTransform", 16, transform);
    header.add("cameraProjection", camera.projection);
    header.add("cameraAperture", camera.aperture);
    header.add("cameraFov", camera.fov);
    header.add("cameraTargetDistance", camera.targetDistance);
    header.add("cameraNearRange", camera.nearRange);
    header.add("cameraFarRange", camera.farRange);
    header.add("cameraNearClip", camera.nearClip);
    header.add("cameraFarClip", camera.farClip);
    header.add("cameraFocalLength", camera.focalLength);
    header.add("cameraFNumber", camera.fNumber);
}

/// The user's attributes, then the camera's, which replace those of the same name and type.
void addAttributes(Imf::Header& header, const ExrSaveOptions& options)
{
    ExrHeaderWrapper wrapper(header);
    if (!options.extraAttributes.empty()) {
        std::string text(options.extraAttributes.c_str()); // A copy: the parser changes it.
        WriteEXRExtraAttributes(wrapper, text.data());
    }
    if (options.camera.valid)
        addCamera(wrapper, options.camera);
}

// --- Rows ------------------------------------------------------------------------------------------------

/// How a row lies in memory, pixel by pixel, and which channels of the file it makes.
struct RowLayout {
    struct Channel {
        std::string name;
        std::size_t offset; ///< Of its sample in a pixel.
    };

    Imf::PixelType type = Imf::HALF;
    std::size_t pixelBytes = 0;
    std::array<Channel, 4> channels {};
    std::size_t channelCount = 0;

    void add(const std::string& name)
    {
        channels[channelCount] = { name, channelCount * sampleBytes() };
        ++channelCount;
    }
    std::size_t sampleBytes() const { return type == Imf::HALF ? sizeof(std::uint16_t) : sizeof(float); }
};

/// Display and data window are both (0, 0) to (width - 1, height - 1). Throws when no file can have such a
/// header: an empty picture ends here.
Imf::Header headerOf(int width, int height, Imf::Compression compression, const RowLayout& layout)
{
    Imf::Header header(width, height, 1.0f, Imath::V2f(0, 0), 1.0f, Imf::INCREASING_Y, compression);
    for (std::size_t i = 0; i < layout.channelCount; ++i)
        header.channels().insert(layout.channels[i].name, Imf::Channel(layout.type));
    header.sanityCheck();
    return header;
}

/// Whatever has the rows of a picture, from the top.
class PictureRows {
public:
    virtual ~PictureRows() = default;
    /// Stores row `y` as the layout says.
    virtual ImgError fetch(int y, std::uint8_t* row) = 0;
};

/// Memory for the rows that are written at once.
class RowBatch {
public:
    /// Fewer rows where memory for so many is refused. False when there is none for a single one.
    bool allocate(std::size_t rowBytes, int rows)
    {
        m_rowBytes = rowBytes;
        for (m_rows = std::size_t(rows); m_rows != 0; m_rows /= 2) {
            std::size_t bytes = 0;
            if (multiply(rowBytes, m_rows, 1, bytes) && bytes <= PTRDIFF_MAX)
                m_memory = allocatePixels(bytes);
            if (m_memory)
                return true;
        }
        return false;
    }

    int rows() const { return int(m_rows); }
    std::uint8_t* row(int number) const { return m_memory.get() + std::size_t(number) * m_rowBytes; }

    /// Says that the batch begins with row `first` of the picture. A batch of a single row is any of them.
    void attach(Imf::OutputFile& file, const RowLayout& layout, int first) const
    {
        const std::size_t yStride = m_rows == 1 ? 0 : m_rowBytes;
        // OpenEXR counts from row 0, which lies in front of the memory. As a number, since no pointer may
        // point there.
        const std::uintptr_t base
            = reinterpret_cast<std::uintptr_t>(m_memory.get()) - yStride * std::size_t(first);
        Imf::FrameBuffer slices;
        for (std::size_t i = 0; i < layout.channelCount; ++i) {
            // NOLINTNEXTLINE(performance-no-int-to-ptr): as said.
            char* const channelBase = reinterpret_cast<char*>(base + layout.channels[i].offset);
            slices.insert(
                layout.channels[i].name, Imf::Slice(layout.type, channelBase, layout.pixelBytes, yStride));
        }
        file.setFrameBuffer(slices);
    }

private:
    PixelMemory m_memory;
    std::size_t m_rowBytes = 0, m_rows = 0;
};

/// How many rows keep OpenEXR's threads busy: several chunks for each, since at the end of a batch all but
/// the last of them wait. Without threads one row is enough.
int batchRows(Imf::Compression compression, int height)
{
    constexpr int rowsPerThread = 128, fewestChunks = 2;
    const std::int64_t threads = Imf::globalThreadCount();
    if (threads == 0)
        return 1;
    const int rows = std::max(rowsPerThread, fewestChunks * exrLinesPerChunk(compression));
    return int(std::min<std::int64_t>(rows * threads, height));
}

/// Writes batch after batch. Where there is a second one, it returns at once, so that its caller fetches that
/// while OpenEXR's threads compress the first.
class BatchWriter {
public:
    BatchWriter(Imf::OutputFile& file, const RowLayout& layout, bool hasTwoBatches)
        : m_file(file), m_layout(layout), m_returnsAtOnce(hasTwoBatches)
    {
    }

    /// Writes `count` rows from row `first` of the picture. The batch must be left alone until the next call
    /// of `write` or `finish`. Throws what went wrong with the batch before.
    void write(const RowBatch& batch, int first, int count)
    {
        finish();
        if (batch.rows() != 1 || &batch != m_attached)
            batch.attach(m_file, m_layout, first);
        m_attached = &batch;
        if (!m_returnsAtOnce || !startWriting(count))
            m_file.writePixels(count);
    }

    /// Ends when everything is written. Throws what went wrong.
    void finish()
    {
        if (m_writing.valid())
            m_writing.get();
    }

private:
    /// False when the system has no thread to spare. It waits for OpenEXR's threads nearly all the time, and
    /// cannot be one of them: they would wait for each other.
    bool startWriting(int count)
    {
        try {
            m_writing = std::async(std::launch::async, [this, count] { m_file.writePixels(count); });
        } catch (const std::exception&) {
            return false;
        }
        return true;
    }

    Imf::OutputFile& m_file;
    const RowLayout& m_layout;
    bool m_returnsAtOnce;
    const RowBatch* m_attached = nullptr;
    std::future<void> m_writing; // Its destructor waits.
};

/// Memory for the rows: what is fetched, and with threads what is written meanwhile.
class RowBatches {
public:
    bool allocate(std::size_t rowBytes, int rows)
    {
        if (!m_batches[0].allocate(rowBytes, rows))
            return false;
        if (rows > 1 && m_batches[1].allocate(rowBytes, rows))
            m_count = 2;
        return true;
    }
    bool areTwo() const { return m_count == 2; }
    const RowBatch& next() { return m_batches[m_next++ % m_count]; }

private:
    std::array<RowBatch, 2> m_batches;
    std::size_t m_count = 1, m_next = 0;
};

/// Fetches row after row, in order, and writes whole batches of them. When a row cannot be fetched those
/// before it are still written, so that all complete chunks of them are in the file.
ImgError writeRows(
    Imf::OutputFile& file, const RowLayout& layout, PictureRows& picture, RowBatches& batches, int height)
{
    BatchWriter writer(file, layout, batches.areTwo());
    ImgError result;
    for (int first = 0; first < height && result.code() == IMGERR_NONE;) {
        const RowBatch& batch = batches.next();
        int count = 0;
        for (const int most = std::min(batch.rows(), height - first); count < most; ++count) {
            result = picture.fetch(first + count, batch.row(count));
            if (result.code() != IMGERR_NONE)
                break;
        }
        if (count != 0)
            writer.write(batch, first, count);
        first += count;
    }
    writer.finish();
    return result;
}

/// Makes the file, empty. What OpenEXR says of a failure does not name it.
ImgError openStream(std::unique_ptr<ExrOutputStream>& stream, const char* name, Conventions conventions)
{
    try {
        stream = std::make_unique<ExrOutputStream>(name);
    } catch (Iex::BaseExc& exception) {
        if (conventions == Conventions::Standard)
            return makeOpenError();
        REPLACE_EXC(
            exception, "Cannot open image file \"" << (name ? name : "") << "\". " << exception.what());
        throw;
    }
    return IMGERR_NONE;
}

/// Writes a whole file, of the header's width and height.
ImgError writeFile(const char* name, const Imf::Header& header, const RowLayout& layout, PictureRows& picture,
    Conventions conventions)
{
    const Imath::V2i last = header.dataWindow().max;
    const int height = last.y + 1;
    RowBatches batches;
    if (!batches.allocate(
            (std::size_t(last.x) + 1) * layout.pixelBytes, batchRows(header.compression(), height)))
        return IMGERR_MEMORY;

    std::unique_ptr<ExrOutputStream> stream;
    if (ImgError error = openStream(stream, name, conventions); error.code() != IMGERR_NONE)
        return error;
    ImgError result;
    {
        Imf::OutputFile file(*stream, header, Imf::globalThreadCount());
        result = writeRows(file, layout, picture, batches, height);
    } // The end of the file's table is written here.
    if (!stream->close() && result.code() == IMGERR_NONE)
        return IMGERR_WRITE;
    return result;
}

PixelMemory allocateFloats(int width)
{
    return allocatePixels(std::size_t(std::max(width, 0)) * 4 * sizeof(float));
}

// --- Pixels of arrays ------------------------------------------------------------------------------------

constexpr std::size_t halfPixelBytes = 4 * sizeof(std::uint16_t);

/// Four halfs a pixel, in the order of a packed word's bytes, as the processors have it that we are built
/// for.
RowLayout arrayLayout()
{
    RowLayout layout;
    layout.pixelBytes = halfPixelBytes;
    for (const char* const name : { "B", "G", "R", "A" })
        layout.add(name);
    return layout;
}

class PackedRows : public PictureRows {
public:
    PackedRows(const unsigned int* pixels, int width)
        : m_pixels(pixels), m_samples(std::size_t(width) * 4), m_floats(allocateFloats(width))
    {
    }

    bool isValid() const { return m_floats != nullptr; }
    ImgError fetch(int y, std::uint8_t* row) override
    {
        const auto* const bytes
            = reinterpret_cast<const std::uint8_t*>(m_pixels) + std::size_t(y) * m_samples;
        auto* const floats = reinterpret_cast<float*>(m_floats.get());
        pixelKernels().scaledByteToFloat(bytes, 1.0f / 255, floats, m_samples);
        pixelKernels().floatToHalf(floats, reinterpret_cast<std::uint16_t*>(row), m_samples);
        return IMGERR_NONE;
    }

private:
    const unsigned int* m_pixels;
    std::size_t m_samples;
    PixelMemory m_floats;
};

/// Float pixels are taken as blue, green, red, alpha, deliberately, as if each were a packed word made of
/// floats: renderers' tools hand them over so. The dispatcher, which all others call, has red first; a
/// picture that goes through it comes out with red and blue exchanged.
class FloatRows : public PictureRows {
public:
    FloatRows(const float* pixels, int width) : m_pixels(pixels), m_samples(std::size_t(width) * 4) { }

    static bool isValid() { return true; }
    ImgError fetch(int y, std::uint8_t* row) override
    {
        pixelKernels().floatToHalf(
            m_pixels + std::size_t(y) * m_samples, reinterpret_cast<std::uint16_t*>(row), m_samples);
        return IMGERR_NONE;
    }

private:
    const float* m_pixels;
    std::size_t m_samples;
};

/// Always four halfs and PIZ: the settings of OpenEXR are for frames.
template <typename Rows, typename Pixel>
ImgError saveArray(const char* fileName, const IMGINFO& info, const Pixel* pixels)
{
    return fenced(Report::Nowhere, [&]() -> ImgError {
        startExrLibrary();
        const RowLayout layout = arrayLayout();
        const Imf::Header header = headerOf(info.width, info.height, Imf::PIZ_COMPRESSION, layout);
        Rows rows(pixels, info.width);
        if (!rows.isValid())
            return IMGERR_MEMORY;
        return writeFile(fileName, header, layout, rows, Conventions::Renderer);
    });
}

// --- Pixels of frames ------------------------------------------------------------------------------------

/// What is written of a frame, and what it is asked for.
struct FramePlan {
    RowLayout layout;
    int format = PIXELFORMAT_RGBA_FLOAT;
    ColorCorrectedPixelsInterface* corrected = nullptr;
};

constexpr int correctableChannel = 113; // The one type of channel that is taken colour-corrected.
constexpr int correctionMode = 2;
constexpr std::size_t mostChannelNameBytes = 255;

/// A name that OpenEXR takes: not empty, and short enough. Letters of several bytes stay whole.
std::string channelNameOf(const char* name)
{
    std::string result(name, strnlen(name, mostChannelNameBytes + 1));
    if (result.size() > mostChannelNameBytes) {
        std::size_t end = mostChannelNameBytes;
        while (end != 0 && (result[end] & 0xC0) == 0x80)
            --end;
        result.resize(end != 0 ? end : mostChannelNameBytes);
    }
    return result.empty() ? "channel" : result;
}

/// Whole numbers in a channel of the name that the frame has for it.
void planInteger(FramePlan& plan, const char* name)
{
    plan.layout.type = Imf::UINT;
    plan.layout.pixelBytes = sizeof(std::int32_t);
    plan.layout.add(channelNameOf(name));
    plan.format = PIXELFORMAT_1_INT32;
}

void planColors(FramePlan& plan, bool isFloat, bool hasAlpha)
{
    plan.layout.type = isFloat ? Imf::FLOAT : Imf::HALF;
    plan.layout.pixelBytes = 4 * plan.layout.sampleBytes();
    for (const char* const name : { "R", "G", "B" })
        plan.layout.add(name);
    if (hasAlpha)
        plan.layout.add("A");
}

FramePlan planOf(
    PixelBufferInterface& frame, int channel, int alphaChannel, int flags, const ExrSaveOptions& options)
{
    FramePlan plan;
    PixelBufferChannelInfo info;
    const bool isDescribed = frame.getChannelInfo(channel, info) != 0;
    if ((flags & SAVE_EXR_INTEGER) && isDescribed && info.dataKind == PIXELKIND_INTEGER)
        planInteger(plan, info.name.c_str());
    else
        planColors(plan, options.bitsPerChannel == 32, alphaChannel >= 0);
    if ((flags & SAVE_EXR_CORRECTED) && isDescribed && info.channelId == correctableChannel)
        plan.corrected = findCorrectedPixels(frame);
    return plan;
}

/// Rows of a frame, turned into halfs where the file has these. What the frame throws ends the picture as a
/// refused row does.
class FrameRows : public PictureRows {
public:
    FrameRows(RowSource& rows, Imf::PixelType type, Report report)
        : m_rows(rows), m_report(report), m_makesHalfs(type == Imf::HALF),
          m_floats(m_makesHalfs ? allocateFloats(rows.width()) : nullptr)
    {
    }

    bool isValid() const { return !m_makesHalfs || m_floats; }
    ImgError fetch(int y, std::uint8_t* row) override
    {
        void* const fetched = m_makesHalfs ? m_floats.get() : row;
        ImgError result
            = fenced(m_report, [&] { return m_rows.fetch(y, fetched) ? IMGERR_NONE : IMGERR_WRITE; });
        if (m_makesHalfs && result.code() == IMGERR_NONE)
            pixelKernels().floatToHalf(reinterpret_cast<const float*>(m_floats.get()),
                reinterpret_cast<std::uint16_t*>(row), std::size_t(m_rows.width()) * 4);
        return result;
    }

private:
    RowSource& m_rows;
    Report m_report;
    bool m_makesHalfs;
    PixelMemory m_floats;
};

/// What the format, or this writer, has no place for.
ImgErrorCode checkWritable(const RowSource& rows, const ExrSaveOptions& options)
{
    if (rows.width() < 1 || rows.height() < 1 || !rows.isAskable())
        return IMGERR_UNSUPPORTED;
    if (options.bitsPerChannel != 16 && options.bitsPerChannel != 32)
        return IMGERR_UNSUPPORTED;
    if (options.compressionType < 0 || options.compressionType > Imf::DWAB_COMPRESSION + 1)
        return IMGERR_UNSUPPORTED;
    return IMGERR_NONE;
}

ImgError saveFrame(const char* name, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const ExrSaveOptions& options, Conventions conventions, Report report)
{
    const FramePlan plan = planOf(frame, channel, alphaChannel, flags, options);
    // Other writers' first argument of a row query is 1; frames may tell OpenEXR by the 0.
    const RowQuery query { channel, alphaChannel, plan.format, 0 };
    RowSource source(frame, query, plan.corrected, correctionMode);
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(checkWritable(source, options));
    Imf::Header header
        = headerOf(source.width(), source.height(), exrCompression(options.compressionType), plan.layout);
    if (!source.isAskable())
        return IMGERR_MEMORY;
    FrameRows rows(source, plan.layout.type, report);
    if (!rows.isValid())
        return IMGERR_MEMORY;
    addAttributes(header, options);
    return writeFile(name, header, plan.layout, rows, conventions);
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError saveExr(const char* name, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const ExrSaveOptions& options, Conventions conventions)
{
    const Report report = conventions == Conventions::Renderer ? Report::StandardError : Report::Result;
    return fenced(report, [&] {
        startExrLibrary();
        return saveFrame(name, frame, channel, alphaChannel, flags, options, conventions, report);
    });
}

} // namespace QUtils

ImgError SaveEXRFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    return QUtils::saveArray<QUtils::PackedRows>(fileName, *info, pixels);
}

ImgError SaveEXRFile(const char* fileName, IMGINFO* info, float* pixels)
{
    return QUtils::saveArray<QUtils::FloatRows>(fileName, *info, pixels);
}

ImgError SaveEXRFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int channel, int alphaChannel, int flags)
{
    const QUtils::ExrSaveOptions options { QUtils::exrCompressionType, QUtils::exrBitsPerChannel,
        QUtils::exrExtraAttributes, QUtils::exrCameraInfo };
    return QUtils::saveExr(
        fileName, pixels, channel, alphaChannel, flags, options, QUtils::Conventions::Renderer);
}
