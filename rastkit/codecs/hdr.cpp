#include "rastkit/codecs/hdr.h"

#include "qutils/formats/rgbe_codec.h"
#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/hdr_core.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace QUtils {

namespace {

/// Wider pictures must bring at least a byte for so many pixels of a scanline before memory is taken for it.
constexpr std::size_t mostPixelsOfAByte = 64;

// --- Header ----------------------------------------------------------------------------------------------

/// The next line, without its end; false when there is none of a sensible length.
bool takeLine(BlockReader& in, std::string_view& line)
{
    for (std::size_t looked = 0;;) {
        const std::size_t ready = std::min(in.ready(looked + 1), RgbeHeaderParser::longestLineBytes);
        if (ready <= looked)
            return false;
        const char* const text = reinterpret_cast<const char*>(in.data());
        if (const void* const end = std::memchr(text + looked, '\n', ready - looked)) {
            line = { text, std::size_t(static_cast<const char*>(end) - text) };
            in.skip(line.size() + 1);
            return true;
        }
        looked = ready;
    }
}

ImgErrorCode readHeader(BlockReader& in, Conventions conventions, RgbeHeaderParser& header)
{
    if (!in.isValid())
        return IMGERR_MEMORY;
    using State = RgbeHeaderParser::State;
    std::string_view line;
    for (State state = State::WantsLine; state != State::Done;) {
        if (!takeLine(in, line))
            return in.isValid() ? IMGERR_FORMAT : IMGERR_MEMORY;
        state = header.take(line);
        if (state == State::Broken)
            return IMGERR_FORMAT;
    }
    // The renderer knows no pictures whose scanlines are columns.
    return conventions == Conventions::Renderer && header.isXFirst() ? IMGERR_FORMAT : IMGERR_NONE;
}

/// The renderer is told the bits of the file, and by the standard conventions those that are delivered: who
/// takes 32 bits in 4 channels for bytes would lose all light above 1.
void describe(const RgbeHeaderParser& header, IMGINFO* info, Conventions conventions)
{
    if (!info)
        return;
    info->width = header.width();
    info->height = header.height();
    info->numChannels = 4;
    info->bytesPerPixel = 4 * int(sizeof(float));
    info->bitsPerPixel = conventions == Conventions::Renderer ? 32 : 8 * info->bytesPerPixel;
}

// --- Pixels ----------------------------------------------------------------------------------------------

/// XYZ to RGB of the primaries and the white that Radiance takes for granted. XYZ is in lumens, of which
/// Radiance counts 179 for each watt of RGB.
void xyzToRgb(float* rgba, std::size_t count)
{
    constexpr float m[3][3] = { { 2.56531284f, -1.16684962f, -0.398463227f },
        { -1.02210817f, 1.97828662f, 0.0438215555f }, { 0.0747243773f, -0.251939567f, 1.17721519f } };
    constexpr float watts = 1.0f / 179;
    for (; count > 0; --count, rgba += 4) {
        const float x = rgba[0] * watts, y = rgba[1] * watts, z = rgba[2] * watts;
        for (int i = 0; i < 3; ++i)
            rgba[i] = m[i][0] * x + m[i][1] * y + m[i][2] * z;
    }
}

void reversePixels(float* rgba, std::size_t count)
{
    for (std::size_t left = 0, right = count; left + 1 < right; ++left)
        std::swap_ranges(rgba + 4 * left, rgba + 4 * left + 4, rgba + 4 * --right);
}

/// Reads scanlines and puts them at their place.
class ScanlineReader {
public:
    ScanlineReader(BlockReader& in, const RgbeHeaderParser& header, Conventions conventions, RowSink& sink)
        : m_in(in), m_sink(sink), m_length(std::size_t(header.isXFirst() ? header.height() : header.width())),
          m_count(header.isXFirst() ? header.width() : header.height())
    {
        // The renderer takes every file for one that goes from the top left to the right, and XYZ for RGB.
        if (conventions == Conventions::Renderer)
            return;
        m_isXyz = header.isXyz();
        m_isXFirst = header.isXFirst();
        m_isBottomUp = header.isBottomUp();
        m_isRightToLeft = header.isRightToLeft();
    }

    ImgErrorCode run()
    {
        if (!mayHaveRuns(m_length) && m_in.ready(m_length / mostPixelsOfAByte) < m_length / mostPixelsOfAByte)
            return m_in.isValid() ? IMGERR_READ : IMGERR_MEMORY;
        m_bytes.reset(new (std::nothrow) std::uint8_t[RgbePlanes::byteCount(m_length)]);
        if (m_isXFirst)
            m_column.reset(new (std::nothrow) float[4 * m_length]);
        if (!m_bytes || (m_isXFirst && !m_column))
            return IMGERR_MEMORY;
        for (int i = 0; i < m_count; ++i)
            RASTKIT_TRY(step(i));
        return IMGERR_NONE;
    }

private:
    ImgErrorCode step(int index)
    {
        const RgbePlanes planes { m_bytes.get(), m_length };
        const std::size_t ready = m_in.ready(std::size_t(mostScanlineBytes(m_length)));
        RgbeMemory memory(m_in.data(), m_in.data() + ready);
        if (!decodeRgbeScanline(memory, planes))
            return m_in.isValid() ? IMGERR_READ : IMGERR_MEMORY;
        m_in.skip(std::size_t(memory.position() - m_in.data()));
        return m_isXFirst ? storeColumn(index, planes) : storeRow(index, planes);
    }

    void convert(const RgbePlanes& planes, float* rgba)
    {
        rgbeKernels().toRgba(planes, 0, rgba, m_length);
        if (m_isXyz)
            xyzToRgb(rgba, m_length);
    }

    ImgErrorCode storeRow(int index, const RgbePlanes& planes)
    {
        const int y = m_isBottomUp ? m_count - 1 - index : index;
        float* const row = m_sink.beginRowF(y);
        if (!row)
            return IMGERR_MEMORY;
        convert(planes, row);
        if (m_isRightToLeft)
            reversePixels(row, m_length);
        m_sink.endRowF(y, row);
        return IMGERR_NONE;
    }

    ImgErrorCode storeColumn(int index, const RgbePlanes& planes)
    {
        const int x = m_isRightToLeft ? m_count - 1 - index : index;
        convert(planes, m_column.get());
        for (std::size_t i = 0; i < m_length; ++i) {
            const std::size_t y = m_isBottomUp ? m_length - 1 - i : i;
            m_sink.putF(x, int(y), m_column.get() + 4 * i, 1);
        }
        return IMGERR_NONE;
    }

    BlockReader& m_in;
    RowSink& m_sink;
    std::size_t m_length;
    int m_count;
    bool m_isXyz = false, m_isXFirst = false, m_isBottomUp = false, m_isRightToLeft = false;
    std::unique_ptr<std::uint8_t[]> m_bytes;
    std::unique_ptr<float[]> m_column;
};

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError loadHdrHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    BlockReader in(file);
    RgbeHeaderParser header;
    const ImgErrorCode code = readHeader(in, conventions, header);
    // The renderer's header reader has another code for a bad header than its loader.
    if (code == IMGERR_FORMAT && conventions == Conventions::Renderer)
        return IMGERR_READ;
    RASTKIT_TRY(code);
    describe(header, info, conventions);
    return IMGERR_NONE;
}

ImgError loadHdr(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    BlockReader in(file);
    RgbeHeaderParser header;
    RASTKIT_TRY(readHeader(in, conventions, header));
    describe(header, info, conventions);

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(sink.init(header.width(), header.height()));
    return ScanlineReader(in, header, conventions, sink).run();
}

} // namespace QUtils

ImgError LoadHDRHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadHdrHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadHDRFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadHdr(fileName, buffer, info, QUtils::Conventions::Renderer);
}
