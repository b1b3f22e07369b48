#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/pixel_runs.h"
#include "rastkit/codecs/sgi.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/codecs/sgi_format.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/planar_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace QUtils {

namespace {

// --- Planes ----------------------------------------------------------------------------------------------

/// The components of pixels whose order is blue, green, red, alpha, in the order of the planes.
constexpr int planeComponents[] = { 2, 1, 0, 3 };

/// Takes one component out of rows of pixels: bytes, or 16-bit numbers whose bytes it exchanges.
class PlanePicker {
public:
    PlanePicker(int components, int component, std::size_t sampleBytes)
        : m_component(component), m_ofFour(components != 4   ? nullptr
                                          : sampleBytes == 1 ? planarKernels().oneOfFour
                                                             : planarKernels().swappedOneOfFour16)
    {
        const std::size_t pixelBytes = std::size_t(components) * sampleBytes;
        const std::size_t pixels = 16 / pixelBytes, first = std::size_t(component) * sampleBytes;
        std::fill_n(m_arrangement.source, 16, PixelArrangement::none);
        for (std::size_t i = 0; i < pixels; ++i)
            for (std::size_t b = 0; b < sampleBytes; ++b)
                m_arrangement.source[i * sampleBytes + b]
                    = std::uint8_t(i * pixelBytes + first + (sampleBytes - 1 - b));
        m_arrangement.pixels = std::uint8_t(pixels);
        m_arrangement.sourceBytes = std::uint8_t(pixelBytes);
        m_arrangement.resultBytes = std::uint8_t(sampleBytes);
    }

    void pick(const void* pixels, std::uint8_t* plane, std::size_t count) const
    {
        const auto* const bytes = static_cast<const std::uint8_t*>(pixels);
        if (m_ofFour)
            m_ofFour(bytes, unsigned(m_component), plane, count);
        else
            pixelKernels().arrange(m_arrangement, bytes, plane, count);
    }

private:
    int m_component;
    void (*m_ofFour)(
        const std::uint8_t*, unsigned int, std::uint8_t*, std::size_t); // Null for three components.
    PixelArrangement m_arrangement {};
};

/// Asks for every row of the picture: none is kept from one plane to the next, and hosts count on it.
ImgErrorCode writePlane(
    BlockWriter& out, RowSource& rows, const PlanePicker& picker, std::size_t planeBytes, std::uint8_t* row)
{
    for (int y = rows.height() - 1; y >= 0; --y) {
        if (!rows.fetch(y, row)) {
            RASTKIT_TRY(out.flush());
            return IMGERR_WRITE;
        }
        RASTKIT_TRY(out.reserve(planeBytes));
        picker.pick(row, out.next(), std::size_t(rows.width()));
        out.advance(planeBytes);
    }
    return IMGERR_NONE;
}

ImgErrorCode writePlanes(BlockWriter& out, RowSource& rows, int components, std::size_t sampleBytes)
{
    const auto row = newBytes(rows.rowBytes());
    if (!row)
        return IMGERR_MEMORY;
    const std::size_t planeBytes = std::size_t(rows.width()) * sampleBytes;
    for (int plane = 0; plane < components; ++plane) {
        const PlanePicker picker(components, planeComponents[plane], sampleBytes);
        RASTKIT_TRY(writePlane(out, rows, picker, planeBytes, row.get()));
    }
    return out.flush();
}

// --- Run-length packets ----------------------------------------------------------------------------------

constexpr std::size_t shortestRun = 3;

/// Most bytes that a row takes: the packets of so many literal samples, with the one that ends it.
std::uint64_t mostPacketBytes(std::uint64_t width, std::size_t sampleBytes)
{
    return (width + (width + sgiPacketCount - 1) / sgiPacketCount * 2 + 1) * sampleBytes;
}

std::uint8_t* putControl(std::uint8_t* out, std::size_t sampleBytes, std::size_t control)
{
    if (sampleBytes == 2)
        *out++ = 0;
    *out++ = std::uint8_t(control);
    return out;
}

std::uint8_t* putLiteral(
    std::uint8_t* out, const std::uint8_t* samples, std::size_t sampleBytes, std::size_t count)
{
    while (count != 0) {
        const std::size_t piece = std::min<std::size_t>(count, sgiPacketCount);
        out = putControl(out, sampleBytes, sgiLiteralPacket | piece);
        std::memcpy(out, samples, piece * sampleBytes);
        out += piece * sampleBytes;
        samples += piece * sampleBytes;
        count -= piece;
    }
    return out;
}

/// Stores the packets of a row of one plane at `out` and returns their end.
std::uint8_t* encodeRow(
    const std::uint8_t* samples, std::size_t sampleBytes, std::size_t width, std::uint8_t* out)
{
    for (std::size_t x = 0; x < width;) {
        const std::uint8_t* const rest = samples + x * sampleBytes;
        const std::size_t left = width - x;
        std::size_t count = runLength(rest, sampleBytes, std::min<std::size_t>(left, sgiPacketCount));
        if (count >= shortestRun) {
            out = putControl(out, sampleBytes, count);
            std::memcpy(out, rest, sampleBytes);
            out += sampleBytes;
        } else {
            count = rawLength(rest, sampleBytes, left);
            out = putLiteral(out, rest, sampleBytes, count);
        }
        x += count;
    }
    return putControl(out, sampleBytes, 0);
}

/// The two tables: where the packets of each row of each plane begin, and how many bytes they are.
class PacketTables {
public:
    PacketTables(int planes, int height)
        : m_height(std::size_t(height)), m_entries(std::size_t(planes) * m_height)
    {
        m_bytes = newBytes(byteCount());
    }

    bool isValid() const { return m_bytes != nullptr; }
    std::size_t byteCount() const { return m_entries * 2 * entryBytes; }
    const std::uint8_t* bytes() const { return m_bytes.get(); }

    void enter(int plane, std::size_t stored, std::uint64_t offset, std::size_t length)
    {
        const std::size_t entry = std::size_t(plane) * m_height + stored;
        ByteWriter(m_bytes.get() + entry * entryBytes, entryBytes).u32be(std::uint32_t(offset));
        ByteWriter(m_bytes.get() + (m_entries + entry) * entryBytes, entryBytes).u32be(std::uint32_t(length));
    }

private:
    static constexpr std::size_t entryBytes = 4;

    std::size_t m_height, m_entries;
    std::unique_ptr<std::uint8_t[]> m_bytes;
};

/// Asks for each row once and writes its planes one after the other; the tables come last, to the room that
/// is left for them.
ImgErrorCode writePacketRows(std::FILE* file, RowSource& rows, int components, std::size_t sampleBytes)
{
    const std::size_t width = std::size_t(rows.width());
    PacketTables tables(components, rows.height());
    const auto row = newBytes(rows.rowBytes()), plane = newBytes(width * sampleBytes);
    if (!tables.isValid() || !row || !plane)
        return IMGERR_MEMORY;

    std::uint64_t offset = sgiHeaderBytes + tables.byteCount();
    if (fseeko(file, off_t(offset), SEEK_SET) != 0)
        return IMGERR_WRITE;
    BlockWriter out(file);
    const std::size_t mostBytes = std::size_t(mostPacketBytes(width, sampleBytes));
    for (int y = rows.height() - 1; y >= 0; --y) {
        if (!rows.fetch(y, row.get()))
            return IMGERR_WRITE;
        const std::size_t stored = std::size_t(rows.height() - 1 - y);
        for (int p = 0; p < components; ++p) {
            PlanePicker(components, planeComponents[p], sampleBytes).pick(row.get(), plane.get(), width);
            RASTKIT_TRY(out.reserve(mostBytes));
            const std::uint8_t* const end = encodeRow(plane.get(), sampleBytes, width, out.next());
            const std::size_t length = std::size_t(end - out.next());
            out.advance(length);
            tables.enter(p, stored, offset, length);
            offset += length;
        }
    }
    RASTKIT_TRY(out.flush());
    const bool written = fseeko(file, off_t(sgiHeaderBytes), SEEK_SET) == 0
        && std::fwrite(tables.bytes(), 1, tables.byteCount(), file) == tables.byteCount();
    return written ? IMGERR_NONE : IMGERR_WRITE;
}

/// Offsets have 32 bits, and the tables are written last.
bool canHoldPackets(std::FILE* file, const RowSource& rows, int components, std::size_t sampleBytes)
{
    constexpr std::uint64_t tableBytes = 8;
    const std::uint64_t planeRows = std::uint64_t(rows.height()) * std::uint64_t(components);
    const std::uint64_t most = mostPacketBytes(std::uint64_t(rows.width()), sampleBytes) + tableBytes;
    return sgiHeaderBytes + planeRows * most <= UINT32_MAX && fseeko(file, 0, SEEK_CUR) == 0;
}

// --- Files -----------------------------------------------------------------------------------------------

int formatOf(int components, std::size_t sampleBytes)
{
    if (sampleBytes == 2)
        return components == 4 ? PIXELFORMAT_BGRA_UINT16 : PIXELFORMAT_BGR_UINT16;
    return components == 4 ? PIXELFORMAT_BGRA_UINT8 : PIXELFORMAT_BGR_UINT8;
}

/// What the format has no place for.
ImgErrorCode checkWritable(int width, int height)
{
    const bool fits = width >= 1 && width <= UINT16_MAX && height >= 1 && height <= UINT16_MAX;
    return fits ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

bool putHeader(std::FILE* file, const sgi_header_info& header)
{
    std::uint8_t bytes[sgiHeaderBytes];
    storeSgiHeader(header, bytes);
    return std::fwrite(bytes, sizeof bytes, 1, file) == 1;
}

/// All of the array's planes, rows from the bottom up.
ImgErrorCode writeArray(BlockWriter& out, const IMGINFO& info, const unsigned int* pixels)
{
    constexpr int components = 4;
    const std::size_t width = std::size_t(std::max(info.width, 0));
    for (int plane = 0; plane < components; ++plane) {
        const PlanePicker picker(components, planeComponents[plane], 1);
        for (int y = info.height - 1; y >= 0 && width != 0; --y) {
            RASTKIT_TRY(out.reserve(width));
            picker.pick(pixels + std::size_t(y) * width, out.next(), width);
            out.advance(width);
        }
    }
    return out.flush();
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

int writeSGIHeaderInfo(std::FILE* file, const sgi_header_info& header)
{
    if (!file || std::feof(file))
        return 0;
    static_cast<void>(putHeader(file, header)); // Short writes are not told, as those of pixels are not.
    return 1;
}

ImgError saveSgi(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const SgiSaveOptions& options, Conventions conventions)
{
    const bool isStandard = conventions == Conventions::Standard;
    const int components = alphaChannel >= 0 ? 4 : 3;
    const std::size_t sampleBytes = options.bitsPerChannel == 16 ? 2 : 1;
    const RowQuery query { channel, alphaChannel, formatOf(components, sampleBytes) };
    RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
    if (isStandard)
        RASTKIT_TRY(checkWritable(rows.width(), rows.height()));
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();

    // A name would tell of the temporary file that pictures are written to, and make equal ones different.
    sgi_header_info header;
    initSGIHeaderInfo(header, rows.width(), rows.height(), isStandard ? nullptr : fileName);
    header.zsize = static_cast<unsigned short>(components);
    header.bytesPerChannel = char(sampleBytes);
    header.maxValue = sampleBytes == 2 ? 65535 : 255;
    const bool usesPackets
        = isStandard && options.runLength && canHoldPackets(file, rows, components, sampleBytes);
    header.storage = char(usesPackets ? SGI_RUN_LENGTH : SGI_VERBATIM);
    if (isStandard ? !putHeader(file, header) : !writeSGIHeaderInfo(file, header))
        return isStandard ? IMGERR_WRITE : IMGERR_OPEN;
    if (!rows.isAskable())
        return IMGERR_MEMORY;

    if (usesPackets) {
        RASTKIT_TRY(writePacketRows(file, rows, components, sampleBytes));
    } else {
        BlockWriter out(file, lossOf(conventions));
        RASTKIT_TRY(writePlanes(out, rows, components, sampleBytes));
    }
    const ImgErrorCode closed = closeWritten(file);
    return isStandard ? closed : IMGERR_NONE;
}

} // namespace QUtils

ImgError SaveSGIFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    const FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    sgi_header_info header;
    initSGIHeaderInfo(header, info->width, info->height, fileName);
    if (!writeSGIHeaderInfo(file, header))
        return IMGERR_OPEN;
    BlockWriter out(file, BlockWriter::Loss::IsIgnored);
    return writeArray(out, *info, pixels);
}

ImgError SaveSGIFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int channel, int alphaChannel, int flags)
{
    using namespace QUtils;
    const SgiSaveOptions options { sgiBitsPerChannel, false };
    return saveSgi(fileName, pixels, channel, alphaChannel, flags, options, Conventions::Renderer);
}
