#include "qutils/formats/rgbe.h"

#include "qutils/formats/rgbe_codec.h"

#include <charconv>
#include <climits>
#include <memory>
#include <new>

namespace QUtils {

namespace {

constexpr std::string_view magic = "#?",
                           formatName = "FORMAT=", gammaName = "GAMMA=", exposureName = "EXPOSURE=";
constexpr std::string_view rgbeFormat = "32-bit_rle_rgbe", xyzeFormat = "32-bit_rle_xyze";

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

std::string_view withoutSpaces(std::string_view text)
{
    constexpr std::string_view spaces = " \t\r";
    const std::size_t begin = text.find_first_not_of(spaces);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(spaces) - begin + 1);
}

/// A number at the beginning of a text; no number leaves `number` alone.
bool parse(std::string_view text, float& number)
{
    text = withoutSpaces(text);
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
}

/// "+X 640" and the like, which is cut off `text`.
struct Axis {
    bool isNegative = false, isX = false;
    int size = 0;
};

bool takeAxis(std::string_view& text, Axis& axis)
{
    text = withoutSpaces(text);
    if (text.size() < 2 || (text[0] != '+' && text[0] != '-') || (text[1] != 'X' && text[1] != 'Y'))
        return false;
    axis.isNegative = text[0] == '-';
    axis.isX = text[1] == 'X';
    text = withoutSpaces(text.substr(2));
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), axis.size);
    if (parsed.ec != std::errc() || axis.size < 1)
        return false;
    text.remove_prefix(std::size_t(parsed.ptr - text.data()));
    return true;
}

/// "%g", whatever the locale.
std::string toText(float number)
{
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, number, std::chars_format::general, 6).ptr;
    return { text, end };
}

/// Bytes of a stream, no more than are needed.
class StreamSource {
public:
    explicit StreamSource(std::FILE* file) : m_file(file) { }

    const std::uint8_t* take(std::size_t count)
    {
        return std::fread(m_bytes, 1, count, m_file) == count ? m_bytes : nullptr;
    }
    bool hasSlack() const { return false; }

private:
    std::FILE* m_file;
    std::uint8_t m_bytes[128];
};

/// One line of a stream, without its end, which may hold any bytes; false when there is none of a sensible
/// length.
bool readLine(std::FILE* file, std::string& line)
{
    line.clear();
    for (std::size_t count = 0; count < RgbeHeaderParser::longestLineBytes; ++count) {
        const int c = std::getc(file);
        if (c == EOF)
            return false;
        if (c == '\n')
            return true;
        if (line.size() < RgbeHeaderParser::mostLineBytes)
            line += char(c);
    }
    return false;
}

} // namespace

// --- Header ----------------------------------------------------------------------------------------------

RgbeHeaderParser::State RgbeHeaderParser::take(std::string_view line)
{
    line = line.substr(0, mostLineBytes);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    if (m_wantsResolution)
        return takeResolution(line) ? State::Done : State::Broken;
    if (!m_hasBegun) {
        if (!startsWith(line, magic))
            return State::Broken;
        m_hasBegun = true;
        m_info.valid |= RGBE_VALID_PROGRAMTYPE;
        const std::string_view type = line.substr(magic.size(), line.find_first_of(" \t") - magic.size());
        type.copy(m_info.programtype, sizeof m_info.programtype - 1);
        return State::WantsLine;
    }
    if (line.empty()) {
        m_wantsResolution = true;
        return State::WantsLine;
    }
    return takeVariable(line);
}

RgbeHeaderParser::State RgbeHeaderParser::takeVariable(std::string_view line)
{
    if (startsWith(line, formatName)) {
        const std::string_view format = withoutSpaces(line.substr(formatName.size()));
        m_isXyz = format == xyzeFormat;
        return m_isXyz || format == rgbeFormat ? State::WantsLine : State::Broken;
    }
    if (startsWith(line, gammaName) && parse(line.substr(gammaName.size()), m_info.gamma))
        m_info.valid |= RGBE_VALID_GAMMA;
    if (startsWith(line, exposureName) && parse(line.substr(exposureName.size()), m_info.exposure))
        m_info.valid |= RGBE_VALID_EXPOSURE;
    return State::WantsLine; // Whatever else programs note there.
}

bool RgbeHeaderParser::takeResolution(std::string_view line)
{
    Axis first, second;
    if (!takeAxis(line, first) || !takeAxis(line, second) || first.isX == second.isX)
        return false;
    const Axis& x = first.isX ? first : second;
    const Axis& y = first.isX ? second : first;
    m_isXFirst = first.isX;
    m_isRightToLeft = x.isNegative;
    m_isBottomUp = !y.isNegative;
    m_width = x.size;
    m_height = y.size;
    return true;
}

std::string rgbeHeaderText(int width, int height, const rgbe_header_info* info)
{
    const auto has = [&](int bit) { return info && (info->valid & bit) != 0; };
    std::string text(magic);
    if (has(RGBE_VALID_PROGRAMTYPE))
        text.append(info->programtype, strnlen(info->programtype, sizeof info->programtype));
    else
        text += "RGBE";
    text += '\n';
    if (has(RGBE_VALID_GAMMA))
        text.append(gammaName).append(toText(info->gamma)).append("\n");
    if (has(RGBE_VALID_EXPOSURE))
        text.append(exposureName).append(toText(info->exposure)).append("\n");
    text.append(formatName).append(rgbeFormat).append("\n\n-Y ");
    text.append(std::to_string(height)).append(" +X ").append(std::to_string(width)).append("\n");
    return text;
}

// --- Routines --------------------------------------------------------------------------------------------

int RGBE_ReadHeader(std::FILE* file, int* width, int* height, rgbe_header_info* info)
try {
    RgbeHeaderParser parser;
    std::string line;
    RgbeHeaderParser::State state = RgbeHeaderParser::State::WantsLine;
    while (state == RgbeHeaderParser::State::WantsLine) {
        if (!readLine(file, line))
            return -1;
        state = parser.take(line);
    }
    if (state == RgbeHeaderParser::State::Broken || parser.isXFirst())
        return -1;
    *width = parser.width();
    *height = parser.height();
    if (info)
        *info = parser.info();
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}

int RGBE_WriteHeader(std::FILE* file, int width, int height, rgbe_header_info* info)
try {
    const std::string text = rgbeHeaderText(width, height, info);
    return std::fwrite(text.data(), 1, text.size(), file) == text.size() ? 0 : -1;
} catch (const std::bad_alloc&) {
    return -1;
}

int RGBE_ReadPixels_RLE(std::FILE* file, float* data, int scanlineWidth, int numScanlines, int)
{
    if (scanlineWidth < 1)
        return 0;
    const std::size_t width = std::size_t(scanlineWidth);
    const std::unique_ptr<std::uint8_t[]> bytes(
        new (std::nothrow) std::uint8_t[RgbePlanes::byteCount(width)]);
    if (!bytes)
        return -1;
    const RgbePlanes planes { bytes.get(), width };
    StreamSource in(file);
    constexpr std::size_t mostPixels = 64;
    float rgba[4 * mostPixels];
    for (; numScanlines > 0; --numScanlines) {
        if (!decodeRgbeScanline(in, planes))
            return -1;
        for (std::size_t x = 0; x < width; x += mostPixels) {
            const std::size_t count = std::min(mostPixels, width - x);
            rgbeKernels().toRgba(planes, x, rgba, count);
            for (std::size_t i = 0; i < count; ++i)
                data = std::copy_n(rgba + 4 * i, 3, data);
        }
    }
    return 0;
}

int RGBE_WritePixels(std::FILE* file, float* data, int numPixels)
{
    constexpr std::size_t mostPixels = 1024;
    std::uint8_t bytes[rgbePixelBytes * mostPixels];
    for (std::size_t left = std::size_t(std::max(numPixels, 0)); left != 0;) {
        const std::size_t count = std::min(left, mostPixels);
        rgbeKernels().fromRgb(data, bytes, count);
        if (std::fwrite(bytes, rgbePixelBytes, count, file) != count)
            return -1;
        data += 3 * count;
        left -= count;
    }
    return 0;
}

} // namespace QUtils
