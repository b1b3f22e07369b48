#include "qutils/formats/psd/psd_planes.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <zlib.h>

namespace QUtils {

namespace {

/// How many bytes a byte of the file can become.
constexpr std::uint64_t mostOfRunLength = 64, mostOfZip = psdMostExpansion;
constexpr std::size_t zipOutputBytes = std::size_t(1) << 16;

bool multiplies(std::uint64_t a, std::uint64_t b, std::uint64_t& product)
{
    return !__builtin_mul_overflow(a, b, &product);
}

/// Whether `stored` bytes can become `planes` planes of that layout.
bool canFill(const PsdPlaneLayout& layout, std::uint64_t planes, std::uint64_t stored, std::uint64_t most)
{
    std::uint64_t needed = 0, possible = 0;
    if (!multiplies(layout.rowBytes(), layout.rows, needed) || !multiplies(needed, planes, needed))
        return false;
    return !multiplies(stored, most, possible) || needed <= possible;
}

void makePlane(const PsdPlaneLayout& layout, PsdPlane& plane)
{
    plane.rowBytes = layout.rowBytes();
    plane.rows = layout.rows;
    plane.bytes.reset(new std::uint8_t[std::size_t(plane.rowBytes * plane.rows)]);
}

/// Planes behind the last one that is wanted need not be read.
std::size_t countNeeded(const std::vector<char>& wanted)
{
    std::size_t count = wanted.size();
    while (count > 0 && !wanted[count - 1])
        --count;
    return count;
}

std::uint64_t bytesTo(const PsdSource& source, std::uint64_t end)
{
    return end > source.position() ? end - source.position() : 0;
}

/// All rows have their run-length sizes in front, also those of planes that nobody asks for.
std::uint64_t sizesBytes(const PsdPlaneLayout& layout, std::uint64_t planes)
{
    return planes * layout.rows * (layout.isLarge ? 4 : 2);
}

bool canFillRunLength(
    const PsdPlaneLayout& layout, std::uint64_t all, std::uint64_t count, std::uint64_t stored)
{
    const std::uint64_t table = sizesBytes(layout, all);
    return table <= stored && canFill(layout, count, stored - table, mostOfRunLength);
}

// --- Raw -------------------------------------------------------------------------------------------------

PSD_Error readRaw(PsdSource& source, const PsdPlaneLayout& layout, const std::vector<char>& wanted,
    std::vector<PsdPlane>& planes)
{
    const std::size_t count = countNeeded(wanted);
    if (!canFill(layout, count, bytesTo(source, layout.end), 1))
        return PSD_ERROR_READ;
    const std::uint64_t planeBytes = layout.rowBytes() * layout.rows;
    for (std::size_t i = 0; i < count; ++i) {
        if (!wanted[i]) {
            source.skip(planeBytes);
            continue;
        }
        makePlane(layout, planes[i]);
        if (!source.read(planes[i].bytes.get(), std::size_t(planeBytes)))
            return PSD_ERROR_READ;
    }
    return PSD_ERROR_NONE;
}

// --- Run lengths -----------------------------------------------------------------------------------------

/// The packed sizes of all rows, which stand in front of them.
class RowSizes {
public:
    RowSizes(bool isLarge, std::unique_ptr<std::uint8_t[]> bytes)
        : m_isLarge(isLarge), m_bytes(std::move(bytes))
    {
    }

    std::uint64_t operator[](std::uint64_t index) const
    {
        if (!m_isLarge) {
            const std::uint8_t* const b = m_bytes.get() + index * 2;
            return std::uint64_t(b[0]) << 8 | b[1];
        }
        const std::uint8_t* const b = m_bytes.get() + index * 4;
        return std::uint64_t(b[0]) << 24 | std::uint64_t(b[1]) << 16 | std::uint64_t(b[2]) << 8 | b[3];
    }

private:
    bool m_isLarge;
    std::unique_ptr<std::uint8_t[]> m_bytes;
};

PSD_Error unpackPlane(PsdSource& source, const PsdPlaneLayout& layout, const RowSizes& sizes,
    std::uint64_t firstRow, PsdPlane& plane)
{
    for (std::uint64_t y = 0; y < plane.rows; ++y) {
        const std::uint64_t packedBytes = sizes[firstRow + y];
        if (packedBytes > bytesTo(source, layout.end))
            return PSD_ERROR_READ;
        const std::uint8_t* const packed = source.take(std::size_t(packedBytes));
        if (!packed
            || !unpackPsdRow(packed, std::size_t(packedBytes), plane.bytes.get() + y * plane.rowBytes,
                std::size_t(plane.rowBytes)))
            return PSD_ERROR_READ;
    }
    return PSD_ERROR_NONE;
}

PSD_Error readRunLength(PsdSource& source, const PsdPlaneLayout& layout, const std::vector<char>& wanted,
    std::vector<PsdPlane>& planes)
{
    const std::size_t count = countNeeded(wanted);
    if (!canFillRunLength(layout, wanted.size(), count, bytesTo(source, layout.end)))
        return PSD_ERROR_READ;
    const std::uint64_t tableBytes = sizesBytes(layout, wanted.size());
    std::unique_ptr<std::uint8_t[]> table(new std::uint8_t[std::size_t(tableBytes)]);
    if (!source.read(table.get(), std::size_t(tableBytes)))
        return PSD_ERROR_READ;
    const RowSizes sizes(layout.isLarge, std::move(table));

    for (std::size_t i = 0; i < count; ++i) {
        if (wanted[i]) {
            makePlane(layout, planes[i]);
            PSD_TRY(unpackPlane(source, layout, sizes, i * layout.rows, planes[i]));
            continue;
        }
        for (std::uint64_t y = 0; y < layout.rows; ++y)
            source.skip(sizes[i * layout.rows + y]);
    }
    return PSD_ERROR_NONE;
}

// --- ZIP -------------------------------------------------------------------------------------------------

/// Inflates a stream piece by piece from the file.
class Inflater {
public:
    Inflater(PsdSource& source, std::uint64_t end) : m_source(source), m_end(end)
    {
        m_isValid = inflateInit(&m_stream) == Z_OK;
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater()
    {
        if (m_isValid)
            inflateEnd(&m_stream);
    }

    bool isValid() const { return m_isValid; }

    /// Fills `count` bytes; false when the stream ends or breaks before.
    bool read(std::uint8_t* bytes, std::uint64_t count)
    {
        while (count != 0) {
            const std::uint64_t piece = std::min<std::uint64_t>(count, std::uint64_t(1) << 30);
            m_stream.next_out = bytes;
            m_stream.avail_out = uInt(piece);
            if (!fill())
                return false;
            bytes += piece;
            count -= piece;
        }
        return true;
    }

private:
    bool fill()
    {
        while (m_stream.avail_out != 0) {
            if (m_stream.avail_in == 0) {
                std::size_t got = 0;
                const std::size_t wanted
                    = std::size_t(std::min<std::uint64_t>(bytesTo(m_source, m_end), zipOutputBytes));
                // The block stays where it is: nothing else reads meanwhile.
                m_stream.next_in = const_cast<Bytef*>(m_source.takeSome(wanted, got));
                m_stream.avail_in = uInt(got);
                if (got == 0)
                    return false;
            }
            const int result = inflate(&m_stream, Z_NO_FLUSH);
            if (result == Z_MEM_ERROR)
                throw std::bad_alloc();
            if (m_stream.avail_out != 0 && result != Z_OK)
                return false;
        }
        return true;
    }

    PsdSource& m_source;
    std::uint64_t m_end;
    z_stream m_stream {};
    bool m_isValid = false;
};

/// Passes over a plane's bytes, which only inflating tells.
bool skipInflated(Inflater& in, std::uint64_t bytes)
{
    const std::unique_ptr<std::uint8_t[]> unused(new std::uint8_t[zipOutputBytes]);
    while (bytes != 0) {
        const std::uint64_t piece = std::min<std::uint64_t>(bytes, zipOutputBytes);
        if (!in.read(unused.get(), piece))
            return false;
        bytes -= piece;
    }
    return true;
}

PSD_Error readZip(PsdSource& source, const PsdPlaneLayout& layout, const std::vector<char>& wanted,
    bool isPredicted, std::vector<PsdPlane>& planes)
{
    const std::size_t count = countNeeded(wanted);
    if (!canFill(layout, count, bytesTo(source, layout.end), mostOfZip))
        return PSD_ERROR_READ;
    Inflater in(source, layout.end);
    if (!in.isValid())
        return PSD_ERROR_MEMORY;
    const std::size_t rowBytes = std::size_t(layout.rowBytes());
    const std::unique_ptr<std::uint8_t[]> scratch(isPredicted ? new std::uint8_t[rowBytes] : nullptr);
    for (std::size_t i = 0; i < count; ++i) {
        if (!wanted[i]) {
            if (!skipInflated(in, layout.rowBytes() * layout.rows))
                return PSD_ERROR_READ;
            continue;
        }
        makePlane(layout, planes[i]);
        for (std::uint64_t y = 0; y < layout.rows; ++y) {
            std::uint8_t* const row = planes[i].bytes.get() + y * rowBytes;
            if (!in.read(row, rowBytes))
                return PSD_ERROR_READ;
            if (isPredicted)
                undoPsdPrediction(row, rowBytes, layout.depth, scratch.get());
        }
    }
    return PSD_ERROR_NONE;
}

} // namespace

// --- What a row is made of -------------------------------------------------------------------------------

bool unpackPsdRow(
    const std::uint8_t* packed, std::size_t packedBytes, std::uint8_t* row, std::size_t rowBytes)
{
    // Short runs are copied as sixteen bytes where there is room: what is too much is overwritten later.
    constexpr std::size_t wide = 16;
    const std::uint8_t* const packedEnd = packed + packedBytes;
    std::uint8_t* const rowEnd = row + rowBytes;
    while (row != rowEnd && packedEnd - packed >= 2) {
        const std::size_t code = *packed++;
        if (code == 128)
            continue;
        const bool isRun = code > 128;
        const std::size_t given = isRun ? 257 - code : std::min(code + 1, std::size_t(packedEnd - packed));
        const std::size_t count = std::min(given, std::size_t(rowEnd - row));
        const bool hasRoom = count <= wide && std::size_t(rowEnd - row) >= wide;
        if (isRun && hasRoom)
            std::memset(row, *packed, wide);
        else if (isRun)
            std::memset(row, *packed, count);
        else if (hasRoom && std::size_t(packedEnd - packed) >= wide)
            std::memcpy(row, packed, wide);
        else
            std::memcpy(row, packed, count);
        packed += isRun ? 1 : given;
        row += count;
    }
    return row == rowEnd;
}

void undoPsdPrediction(std::uint8_t* row, std::size_t rowBytes, unsigned depth, std::uint8_t* scratch)
{
    if (depth == 16) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i + 1 < rowBytes; i += 2) {
            value += std::uint32_t(row[i]) << 8 | row[i + 1];
            row[i] = std::uint8_t(value >> 8);
            row[i + 1] = std::uint8_t(value);
        }
        return;
    }
    if (depth == 1)
        return;
    for (std::size_t i = 1; i < rowBytes; ++i)
        row[i] = std::uint8_t(row[i] + row[i - 1]);
    if (depth != 32)
        return;
    // Floats: the first bytes of all samples stand in front, then all second ones, and so on.
    const std::size_t count = rowBytes / 4;
    std::memcpy(scratch, row, rowBytes);
    for (std::size_t i = 0; i < count; ++i)
        for (std::size_t byte = 0; byte < 4; ++byte)
            row[i * 4 + byte] = scratch[byte * count + i];
}

// --- Planes ----------------------------------------------------------------------------------------------

PSD_Error checkPsdPlanes(PsdSource& source, const PsdPlaneLayout& layout, std::size_t all, std::size_t count)
{
    if (bytesTo(source, layout.end) < 2)
        return PSD_ERROR_READ;
    const auto compression = PsdCompression(source.u16());
    const std::uint64_t stored = bytesTo(source, layout.end);
    bool isEnough = false;
    switch (compression) {
    case PsdCompression::Raw: isEnough = canFill(layout, count, stored, 1); break;
    case PsdCompression::RunLength: isEnough = canFillRunLength(layout, all, count, stored); break;
    case PsdCompression::Zip:
    case PsdCompression::ZipPrediction: isEnough = canFill(layout, count, stored, mostOfZip); break;
    default: return PSD_ERROR_FORMAT;
    }
    return isEnough ? PSD_ERROR_NONE : PSD_ERROR_READ;
}

PSD_Error readPsdPlanes(PsdSource& source, const PsdPlaneLayout& layout, const std::vector<char>& wanted,
    std::vector<PsdPlane>& planes)
{
    planes.clear();
    planes.resize(wanted.size());
    if (bytesTo(source, layout.end) < 2)
        return PSD_ERROR_READ;
    const auto compression = PsdCompression(source.u16());
    switch (compression) {
    case PsdCompression::Raw: return readRaw(source, layout, wanted, planes);
    case PsdCompression::RunLength: return readRunLength(source, layout, wanted, planes);
    case PsdCompression::Zip:
    case PsdCompression::ZipPrediction:
        return readZip(source, layout, wanted, compression == PsdCompression::ZipPrediction, planes);
    }
    return PSD_ERROR_FORMAT;
}

} // namespace QUtils
