#include "rastkit/model/byte_reader.h"
#include "rastkit/model/format_tables.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace QUtils {

namespace {

constexpr std::size_t tgaHeaderBytes = 18;
constexpr std::size_t psdHeaderBytes = 26;

bool beginsWith(const std::uint8_t* bytes, std::string_view magic)
{
    return std::memcmp(bytes, magic.data(), magic.size()) == 0;
}

template <typename T> bool isOneOf(T value, std::initializer_list<T> list)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

/// Targa has no magic number, so the header is asked whether it makes sense. Type 0, a file without
/// pixels, passes on purpose.
bool looksLikeTga(const std::uint8_t* bytes)
{
    ByteReader in(bytes, tgaHeaderBytes);
    in.skip(2);
    const int imageType = in.u8();
    in.skip(9); // Colour map, X and Y origin.
    const std::int16_t width = std::int16_t(in.u16le()), height = std::int16_t(in.u16le());
    const int pixelBits = in.u8();
    return isOneOf(imageType, { 0, 1, 2, 3, 9, 10, 11 }) && width >= 1 && height >= 1
        && (pixelBits <= 8 || pixelBits % 8 == 0);
}

bool looksLikePsd(const std::uint8_t* bytes)
{
    int signature;
    std::memcpy(&signature, bytes, sizeof signature);
    if (matchIntToString(signature, "8BPS") != 0)
        return false;

    ByteReader in(bytes, psdHeaderBytes);
    in.skip(4);
    const int version = in.u16be();
    in.skip(6); // Reserved.
    const int channels = in.u16be();
    const std::uint32_t height = in.u32be(), width = in.u32be();
    const int depth = in.u16be(), colorMode = in.u16be();
    return version == 1 && height >= 1 && height <= 30000 && width >= 1 && width <= 30000 && channels >= 1
        && channels <= 56 && isOneOf(depth, { 1, 8, 16, 32 })
        && isOneOf(colorMode, { 0, 1, 2, 3, 4, 7, 8, 9 });
}

/// Reads the first bytes of a file into a cleared block and says how many there were.
std::size_t readBeginning(const char* fileName, std::uint8_t (&bytes)[detectionBytes])
{
    std::memset(bytes, 0, sizeof bytes);
    const FilePtr file(qutils_fopen(fileName, "rb"));
    return file ? std::fread(bytes, 1, sizeof bytes, file) : 0;
}

} // namespace

ImgType detectType(const std::uint8_t* bytes, std::size_t count)
{
    if (beginsWith(bytes, "\x89PNG\r\n\x1a\n"))
        return IMGTYPE_PNG;
    if (beginsWith(bytes, "\xff\xd8\xff") && bytes[3] >= 0xc0)
        return IMGTYPE_JPEG;
    if (beginsWith(bytes, "BM"))
        return IMGTYPE_BMP;
    if (beginsWith(bytes, "\x76\x2f\x31\x01"))
        return IMGTYPE_EXR;
    if (beginsWith(bytes, "#?"))
        return IMGTYPE_HDR;
    if (beginsWith(bytes, "\x01\xda"))
        return IMGTYPE_SGI;
    if (beginsWith(bytes, "\x53\x80\xf6\x34"))
        return IMGTYPE_PIC;
    if (beginsWith(bytes, std::string_view("II\x2a\0", 4))
        || beginsWith(bytes, std::string_view("MM\0\x2a", 4)))
        return IMGTYPE_TIFF;
    if (count >= tgaHeaderBytes && looksLikeTga(bytes))
        return IMGTYPE_TGA;
    if (count >= psdHeaderBytes && looksLikePsd(bytes))
        return IMGTYPE_PSD;
    return IMGTYPE_UNKNOWN;
}

const ImageLoader* findLoaderByContents(const char* fileName)
{
    if (!fileName || *fileName == '\0')
        return nullptr;
    std::uint8_t bytes[detectionBytes];
    const std::size_t count = readBeginning(fileName, bytes);
    if (count == 0)
        return nullptr;
    const ImgType type = detectType(bytes, count);
    const auto end = std::end(tableImageLoaders);
    const auto row = std::find_if(
        std::begin(tableImageLoaders), end, [&](const ImageLoader& loader) { return loader.type == type; });
    return row == end ? nullptr : row;
}

int DetectImageType(const char* fileName)
{
    const ImageLoader* const loader = findLoaderByContents(fileName);
    return loader ? loader->type : IMGTYPE_UNKNOWN;
}

} // namespace QUtils
