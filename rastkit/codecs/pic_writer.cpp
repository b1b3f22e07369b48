#include "rastkit/codecs/block_writer.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/codecs/pic_format.h"
#include "rastkit/codecs/pixel_runs.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/model/byte_writer.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/planar_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_source.h"
#include "rastkit/save.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <memory>
#include <string_view>

namespace QUtils {

namespace {

constexpr std::string_view comment = "File written by rastkit/Quor 1.5";
constexpr std::size_t commentBytes = 80;
constexpr std::uint16_t fullFrame = 3;
constexpr std::size_t shortestRun = 3;
constexpr std::size_t mostCount = UINT16_MAX; // Of a long run.

// --- Runs ------------------------------------------------------------------------------------------------

/// Most bytes that a packet's row takes: a control byte for each pixel.
std::size_t mostRowBytes(std::size_t pixelBytes, std::size_t width)
{
    return (1 + pixelBytes) * width;
}

std::uint8_t* putRun(std::uint8_t* out, const std::uint8_t* pixel, std::size_t pixelBytes, std::size_t count)
{
    if (count <= picMostShortRun) {
        *out++ = std::uint8_t(count + 127);
    } else {
        *out++ = std::uint8_t(picLongRun);
        *out++ = std::uint8_t(count >> 8);
        *out++ = std::uint8_t(count);
    }
    std::memcpy(out, pixel, pixelBytes);
    return out + pixelBytes;
}

std::uint8_t* putLiteral(
    std::uint8_t* out, const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t count)
{
    while (count != 0) {
        const std::size_t piece = std::min(count, picMostLiteral);
        *out = std::uint8_t(piece - 1);
        std::memcpy(out + 1, pixels, piece * pixelBytes);
        out += 1 + piece * pixelBytes;
        pixels += piece * pixelBytes;
        count -= piece;
    }
    return out;
}

/// Stores a row of pixels, which have only the bytes that go to the file, at `out` and returns the end. A
/// pair of equal pixels stays literal.
std::uint8_t* encodeRow(
    const std::uint8_t* pixels, std::size_t pixelBytes, std::size_t width, std::uint8_t* out)
{
    for (std::size_t x = 0; x < width;) {
        const std::uint8_t* const rest = pixels + x * pixelBytes;
        const std::size_t left = width - x;
        std::size_t count = runLength(rest, pixelBytes, std::min(left, mostCount));
        if (count >= shortestRun) {
            out = putRun(out, rest, pixelBytes, count);
        } else {
            count = rawLength(rest, pixelBytes, left);
            out = putLiteral(out, rest, pixelBytes, count);
        }
        x += count;
    }
    return out;
}

// --- Packets ---------------------------------------------------------------------------------------------

/// The colours of packed pixels, in the order of the file's bytes.
constexpr PixelArrangement colorBytes(std::size_t first, std::size_t second, std::size_t third)
{
    PixelArrangement arrangement {};
    std::fill_n(arrangement.source, 16, PixelArrangement::none);
    for (std::size_t i = 0; i < 4; ++i) {
        arrangement.source[3 * i] = std::uint8_t(4 * i + first);
        arrangement.source[3 * i + 1] = std::uint8_t(4 * i + second);
        arrangement.source[3 * i + 2] = std::uint8_t(4 * i + third);
    }
    arrangement.pixels = 4;
    arrangement.sourceBytes = 4;
    arrangement.resultBytes = 3;
    return arrangement;
}

/// Deliberately begins with blue: the files that renderers know have red and blue exchanged.
constexpr PixelArrangement rendererColors = colorBytes(0, 1, 2);
constexpr PixelArrangement standardColors = colorBytes(2, 1, 0);

/// Writes rows of packed pixels as the file's packets.
class PicOutput {
public:
    PicOutput(std::FILE* file, int width, Conventions conventions, bool hasAlpha)
        : m_out(file), m_width(std::size_t(std::max(width, 0))),
          m_colors(conventions == Conventions::Renderer ? rendererColors : standardColors),
          m_hasAlpha(hasAlpha)
    {
    }

    ImgErrorCode writeHeader(int width, int height);
    /// IMGERR_MEMORY. Before the first row.
    ImgErrorCode setUp()
    {
        m_pixels = newBytes(m_width * colorPixelBytes);
        return m_pixels ? IMGERR_NONE : IMGERR_MEMORY;
    }
    ImgErrorCode writeRow(const void* packed)
    {
        const auto* const bytes = static_cast<const std::uint8_t*>(packed);
        pixelKernels().arrange(m_colors, bytes, m_pixels.get(), m_width);
        RASTKIT_TRY(put(colorPixelBytes));
        if (!m_hasAlpha)
            return IMGERR_NONE;
        planarKernels().oneOfFour(bytes, 3, m_pixels.get(), m_width);
        return put(1);
    }
    ImgErrorCode flush() { return m_out.flush(); }

private:
    static constexpr std::size_t colorPixelBytes = 3;

    ImgErrorCode put(std::size_t pixelBytes)
    {
        RASTKIT_TRY(m_out.reserve(mostRowBytes(pixelBytes, m_width)));
        const std::uint8_t* const end = encodeRow(m_pixels.get(), pixelBytes, m_width, m_out.next());
        m_out.advance(std::size_t(end - m_out.next()));
        return IMGERR_NONE;
    }

    BlockWriter m_out;
    std::size_t m_width;
    const PixelArrangement& m_colors;
    bool m_hasAlpha;
    std::unique_ptr<std::uint8_t[]> m_pixels; // Of one packet.
};

/// The format has 16 bits for each size; of larger ones the low bits are written.
ImgErrorCode PicOutput::writeHeader(int width, int height)
{
    constexpr std::size_t mostBytes = picHeaderBytes + 2 * picPacketBytes;
    RASTKIT_TRY(m_out.reserve(mostBytes));
    const std::size_t bytes = mostBytes - (m_hasAlpha ? 0 : picPacketBytes);
    ByteWriter header(m_out.next(), bytes);
    header.u32be(picMagic);
    header.u32be(0); // Version.
    for (const char c : comment)
        header.u8(std::uint8_t(c));
    header.zeros(commentBytes - comment.size());
    header.u32be(picId);
    header.u16be(std::uint16_t(width));
    header.u16be(std::uint16_t(height));
    header.u32be(std::bit_cast<std::uint32_t>(1.0f)); // Pixel ratio.
    header.u16be(fullFrame);
    header.u16be(0);
    const auto putPacket = [&](bool isChained, std::uint8_t mask) {
        header.u8(isChained ? 1 : 0);
        header.u8(8);
        header.u8(PIC_MIXED_RUNS);
        header.u8(mask);
    };
    putPacket(m_hasAlpha, picColorMask);
    if (m_hasAlpha)
        putPacket(false, picAlphaMask);
    assert(header.ok() && header.atEnd());
    m_out.advance(bytes);
    return IMGERR_NONE;
}

ImgErrorCode writeFrame(PicOutput& out, RowSource& rows)
{
    RASTKIT_TRY(out.writeHeader(rows.width(), rows.height()));
    const auto row = rows.isAskable() ? newBytes(rows.rowBytes()) : nullptr;
    ImgErrorCode code = row ? out.setUp() : IMGERR_MEMORY;
    for (int y = 0; y < rows.height() && code == IMGERR_NONE; ++y)
        code = rows.fetch(y, row.get()) ? out.writeRow(row.get()) : IMGERR_WRITE;
    // What was complete before a failure goes to the file.
    const ImgErrorCode flushed = out.flush();
    return code != IMGERR_NONE ? code : flushed;
}

ImgErrorCode writeArray(PicOutput& out, const IMGINFO& info, const unsigned int* pixels)
{
    RASTKIT_TRY(out.writeHeader(info.width, info.height));
    if (info.height > 0 && info.width > 0) {
        RASTKIT_TRY(out.setUp());
        for (std::size_t y = 0; y < std::size_t(info.height); ++y)
            RASTKIT_TRY(out.writeRow(pixels + y * std::size_t(info.width)));
    }
    return out.flush();
}

/// What the format has no place for.
ImgErrorCode checkWritable(int width, int height)
{
    const bool fits = width >= 1 && width <= UINT16_MAX && height >= 1 && height <= UINT16_MAX;
    return fits ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

void write_pic_line_mixed_rle(std::FILE* file, unsigned int* row, int width, int* shifts, int numShifts)
{
    if (width < 1 || numShifts < 1)
        return;
    const std::size_t count = std::size_t(width), pixelBytes = std::size_t(numShifts);
    const auto pixels = newBytes(count * pixelBytes), out = newBytes(mostRowBytes(pixelBytes, count));
    if (!pixels || !out)
        throw IMGERR_MEMORY;
    for (std::size_t x = 0; x < count; ++x)
        for (std::size_t i = 0; i < pixelBytes; ++i)
            pixels[x * pixelBytes + i] = std::uint8_t(row[x] >> shifts[i]);
    const std::uint8_t* const end = encodeRow(pixels.get(), pixelBytes, count, out.get());
    const std::size_t bytes = std::size_t(end - out.get());
    if (std::fwrite(out.get(), 1, bytes, file) != bytes)
        throw IMGERR_WRITE;
}

ImgError savePic(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    Conventions conventions)
{
    const RowQuery query { channel, alphaChannel, PIXELFORMAT_BGRA_UINT8, 0, 0, 0 };
    try {
        RowSource rows(frame, query, findCorrectedPixels(frame), getIntent(flags));
        if (conventions == Conventions::Standard)
            RASTKIT_TRY(checkWritable(rows.width(), rows.height()));
        FilePtr file = openUnbuffered(fileName, "wb");
        if (!file)
            return makeOpenError();
        const bool hasAlpha = conventions == Conventions::Renderer || alphaChannel >= 0;
        PicOutput out(file, rows.width(), conventions, hasAlpha);
        RASTKIT_TRY(writeFrame(out, rows));
        return closeWritten(file);
    } catch (const ImgErrorCode code) { // A frame's own.
        return code;
    }
}

} // namespace QUtils

ImgError SavePICFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    using namespace QUtils;
    FilePtr file = openUnbuffered(fileName, "wb");
    if (!file)
        return makeOpenError();
    PicOutput out(file, info->width, Conventions::Renderer, true);
    RASTKIT_TRY(writeArray(out, *info, pixels));
    return closeWritten(file);
}

ImgError SavePICFile_pb(
    const char* fileName, PixelBufferInterface& pixels, int channel, int alphaChannel, int flags)
{
    return QUtils::savePic(fileName, pixels, channel, alphaChannel, flags, QUtils::Conventions::Renderer);
}
