#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/codecs/jpeg_fence.h"
#include "rastkit/codecs/jpeg_source.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace QUtils {

namespace {

// Files of several scans have the coefficients of the whole picture in memory, 128 bytes for each block of a
// component. The first scan of a block takes a Huffman code, a bit or more: this is what a file can fill.
// Arithmetic codes can do with less; flat pictures of that kind are refused above what is granted below.
constexpr std::uint64_t memoryPerFileByte = CHAR_BIT * sizeof(JBLOCK);
// What is granted in any case: pictures of 22 megapixels, of 11 where the chroma is not of half the size,
// keep their rows wherever the file is cut.
constexpr std::uint64_t leastMemory = std::uint64_t(64) << 20;

// A scan takes a dozen bytes of the file, and goes through all blocks of its components. Encoders make ten
// scans of a picture; a file of thousands of empty ones would keep a reader busy for hours. It ends when it
// has more scans than any encoder makes and has taken a second of work besides.
constexpr int mostScans = 20;
constexpr std::uint64_t mostBlockVisits = std::uint64_t(1) << 26;

/// Counts the work of a file's scans.
struct ScanWatch : jpeg_progress_mgr {
    ScanWatch();

    int scan = 0; ///< The last one that was counted.
    std::uint64_t blockVisits = 0;
};

/// Called for every row of blocks.
void countScan(j_common_ptr coder)
{
    const jpeg_decompress_struct& decoder = *reinterpret_cast<j_decompress_ptr>(coder);
    ScanWatch& watch = *static_cast<ScanWatch*>(coder->progress);
    if (decoder.input_scan_number == watch.scan)
        return;
    watch.scan = decoder.input_scan_number;
    for (int i = 0; i < decoder.comps_in_scan; ++i) {
        const jpeg_component_info& component = *decoder.cur_comp_info[i];
        watch.blockVisits += std::uint64_t(component.width_in_blocks) * component.height_in_blocks;
    }
    if (watch.scan > mostScans && watch.blockVisits > mostBlockVisits)
        raiseJpegError(coder, JERR_BAD_PROGRESSION);
}

ScanWatch::ScanWatch() : jpeg_progress_mgr()
{
    progress_monitor = countScan;
}

/// libjpeg's decompressor and all that must outlive an error in it.
struct JpegReader {
    JpegReader(JpegSource& in, Conventions which) : source(in), conventions(which) { cinfo.err = &errors; }
    JpegReader(const JpegReader&) = delete;
    JpegReader& operator=(const JpegReader&) = delete;
    ~JpegReader() { jpeg_destroy_decompress(&cinfo); }

    /// What an error of libjpeg means to the caller.
    ImgErrorCode failure() const;

    int width() const { return int(cinfo.image_width); }
    int height() const { return int(cinfo.image_height); }
    /// Cyan, magenta, yellow and black.
    bool isFourInks() const { return cinfo.num_components == 4; }

    jpeg_decompress_struct cinfo {};
    SilentJpegErrors errors;
    ScanWatch watch;
    JpegSource& source;
    const Conventions conventions;
    bool mayEndUnnoticed = false; ///< See `hasLostData`.
    RowSink* sink = nullptr; ///< Set when it is sized.
    unsigned int* openRow = nullptr; ///< Of the sink, between its begin and its end.
};

/// The standard conventions tell a picture that broke off from what never was one, and what is valid but not
/// supported from both.
ImgErrorCode JpegReader::failure() const
{
    if (errors.msg_code == JERR_OUT_OF_MEMORY)
        return IMGERR_MEMORY;
    if (conventions == Conventions::Renderer)
        return IMGERR_FORMAT;
    switch (errors.msg_code) {
    case JERR_ARITH_NOTIMPL:
    case JERR_BAD_PRECISION:
    case JERR_SOF_UNSUPPORTED: return IMGERR_UNSUPPORTED;
    default: return sink ? IMGERR_READ : IMGERR_FORMAT;
    }
}

// --- Steps behind the fence --------------------------------------------------------------------------------

long memoryLimit(std::uint64_t fileBytes)
{
    constexpr std::uint64_t most = (std::uint64_t(LONG_MAX) - leastMemory) / memoryPerFileByte;
    return long(std::min(fileBytes, most) * memoryPerFileByte + leastMemory);
}

ImgErrorCode readHeader(JpegReader& jpeg)
{
    jpeg_decompress_struct& cinfo = jpeg.cinfo;
    jpeg_create_decompress(&cinfo);
    cinfo.src = &jpeg.source;
    cinfo.progress = &jpeg.watch;
    cinfo.mem->max_memory_to_use = memoryLimit(jpeg.source.byteCount);
    jpeg_read_header(&cinfo, TRUE);
    // A renderer is content with a last field that is made up of end markers.
    const bool isCut = jpeg.errors.hasMetEnd && jpeg.conventions == Conventions::Standard;
    return isCut ? IMGERR_FORMAT : IMGERR_NONE;
}

/// Grey, three components or four; libjpeg delivers any number.
ImgErrorCode checkComponents(const JpegReader& jpeg)
{
    const int count = jpeg.cinfo.num_components;
    return count == 1 || count == 3 || count == 4 ? IMGERR_NONE : IMGERR_FORMAT;
}

ImgErrorCode startDecoding(JpegReader& jpeg)
{
    // Where grey or red, green and blue would come out, libjpeg can as well store them as opaque packed
    // pixels: the same samples, without another pass over the row.
    if (!jpeg.isFourInks())
        jpeg.cinfo.out_color_space = JCS_EXT_BGRA;
    jpeg.mayEndUnnoticed = jpeg.cinfo.arith_code || jpeg_has_multiple_scans(&jpeg.cinfo);
    jpeg_start_decompress(&jpeg.cinfo);
    return IMGERR_NONE;
}

ImgErrorCode readPackedRows(JpegReader& jpeg)
{
    jpeg_decompress_struct& cinfo = jpeg.cinfo;
    while (cinfo.output_scanline < cinfo.output_height) {
        const int y = int(cinfo.output_scanline);
        jpeg.openRow = jpeg.sink->beginRow(y);
        if (!jpeg.openRow)
            return IMGERR_MEMORY;
        JSAMPROW samples = reinterpret_cast<JSAMPROW>(jpeg.openRow);
        jpeg_read_scanlines(&cinfo, &samples, 1);
        jpeg.sink->endRow(y, jpeg.openRow);
        jpeg.openRow = nullptr;
    }
    jpeg_finish_decompress(&cinfo);
    return IMGERR_NONE;
}

/// The first three inks to red, green and blue, the fourth to alpha. Deliberately without any conversion of
/// colours: renderers' scenes rely on the inks as they are stored.
constexpr PixelArrangement inksAsStored { { 2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15 }, {}, 4, 4,
    4 };

/// a * b / 255, rounded to nearest.
unsigned int multiplyBytes(unsigned int a, unsigned int b)
{
    const unsigned int product = a * b + 128;
    return (product + (product >> 8)) >> 8;
}

/// What the inks leave of white light, without a profile. `inverted` is 0 where 255 means no ink, else 0xFF.
void inksToColors(const JSAMPLE* inks, unsigned int inverted, unsigned int* argb, int count)
{
    for (int x = 0; x < count; ++x, inks += 4) {
        const unsigned int black = inks[3] ^ inverted;
        argb[x] = 0xFF000000u | multiplyBytes(inks[0] ^ inverted, black) << 16
            | multiplyBytes(inks[1] ^ inverted, black) << 8 | multiplyBytes(inks[2] ^ inverted, black);
    }
}

ImgErrorCode readInkRows(JpegReader& jpeg)
{
    jpeg_decompress_struct& cinfo = jpeg.cinfo;
    const auto coder = reinterpret_cast<j_common_ptr>(&cinfo);
    // Adobe's programs store inks inverted, and all others follow.
    const unsigned int inverted = cinfo.saw_Adobe_marker ? 0 : 0xFF;
    JSAMPROW* const row = cinfo.mem->alloc_sarray(coder, JPOOL_IMAGE, cinfo.output_width * 4, 1);
    while (cinfo.output_scanline < cinfo.output_height) {
        const int y = int(cinfo.output_scanline);
        jpeg_read_scanlines(&cinfo, row, 1);
        unsigned int* const argb = jpeg.sink->beginRow(y);
        if (!argb)
            return IMGERR_MEMORY;
        if (jpeg.conventions == Conventions::Standard)
            inksToColors(row[0], inverted, argb, jpeg.width());
        else
            pixelKernels().arrange(
                inksAsStored, row[0], reinterpret_cast<std::uint8_t*>(argb), cinfo.output_width);
        jpeg.sink->endRow(y, argb);
    }
    jpeg_finish_decompress(&cinfo);
    return IMGERR_NONE;
}

// --- Descriptions ------------------------------------------------------------------------------------------

void describe(const JpegReader& jpeg, int channels, int bits, int bytes, IMGINFO* info)
{
    if (!info)
        return;
    info->width = jpeg.width();
    info->height = jpeg.height();
    info->numChannels = channels;
    info->bitsPerPixel = bits;
    info->bytesPerPixel = bytes;
}

/// What is handed back: inks come as colours.
void describeStandard(const JpegReader& jpeg, IMGINFO* info)
{
    const int channels = std::min(jpeg.cinfo.num_components, 3);
    describe(jpeg, channels, channels * 8, channels, info);
}

void describePixels(const JpegReader& jpeg, IMGINFO* info)
{
    const int components = jpeg.cinfo.num_components;
    if (jpeg.conventions == Conventions::Standard)
        describeStandard(jpeg, info);
    else
        // Deliberately four bytes for each component, although its samples are bytes: renderers reckon so.
        describe(jpeg, components, components * 8, components * 4, info);
}

// --- Files and memory --------------------------------------------------------------------------------------

ImgErrorCode loadHeaderFrom(JpegSource& source, IMGINFO* info, Conventions conventions)
{
    JpegReader jpeg(source, conventions);
    RASTKIT_TRY(fenceJpeg(jpeg, readHeader));
    if (conventions == Conventions::Standard) {
        RASTKIT_TRY(checkComponents(jpeg));
        describeStandard(jpeg, info);
    } else {
        // Deliberately a picture of four floats, whatever the components are: renderers reckon with it.
        describe(jpeg, 4, 128, 16, info);
    }
    return IMGERR_NONE;
}

ImgErrorCode readRows(JpegReader& jpeg)
{
    const ImgErrorCode result = fenceJpeg(jpeg, jpeg.isFourInks() ? readInkRows : readPackedRows);
    // A row that the sink lent and an error left out must not show what was there before.
    if (result != IMGERR_NONE && jpeg.openRow)
        std::fill_n(jpeg.openRow, jpeg.sink->width(), 0u);
    return result;
}

/// Whether data was missing, of which libjpeg only warns. When the file ends early, a picture of several
/// scans may lack whole ones, and arithmetic codes go on with zeros as the format has it. All others have
/// their data then, or there was a warning about it.
bool hasLostData(const JpegReader& jpeg)
{
    return jpeg.errors.hasLostData || (jpeg.errors.hasMetEnd && jpeg.mayEndUnnoticed);
}

ImgErrorCode loadFrom(JpegSource& source, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    JpegReader jpeg(source, conventions);
    RASTKIT_TRY(fenceJpeg(jpeg, readHeader));
    // Renderers get the description also of pictures that are refused, deliberately: they ask for it then.
    IMGINFO* const infoOfRefused = conventions == Conventions::Renderer ? info : nullptr;
    const ImgErrorCode components = checkComponents(jpeg);
    if (components != IMGERR_NONE) {
        describePixels(jpeg, infoOfRefused);
        return components;
    }
    RASTKIT_TRY(fenceJpeg(jpeg, startDecoding));

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    const ImgErrorCode sized = sink.init(jpeg.width(), jpeg.height());
    if (sized != IMGERR_NONE) {
        describePixels(jpeg, infoOfRefused);
        return sized;
    }
    jpeg.sink = &sink;
    RASTKIT_TRY(readRows(jpeg));
    if (conventions == Conventions::Standard && hasLostData(jpeg))
        return IMGERR_READ; // A renderer is content with what libjpeg makes of the rest.
    describePixels(jpeg, info);
    return IMGERR_NONE;
}

JpegMemorySource::AtEnd atEndOfMemory(Conventions conventions)
{
    // Deliberately not what renderers get from a file that is cut.
    return conventions == Conventions::Renderer ? JpegMemorySource::AtEnd::Error
                                                : JpegMemorySource::AtEnd::EndMarker;
}

ImgError makeNullDataError(const char* function)
{
    return ImgError(function, IMGERR_MEMORY, "Can't read NULL JPEG data");
}

} // namespace

// --- Public functions --------------------------------------------------------------------------------------

ImgError loadJpegHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    JpegFileSource source(file);
    return loadHeaderFrom(source, info, conventions);
}

ImgError loadJpeg(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    JpegFileSource source(file);
    return loadFrom(source, buffer, info, conventions);
}

ImgError loadJpegArrayHeader(
    const unsigned char* data, unsigned long size, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return makeNullDataError("LoadJPGArrayHeader");
    JpegMemorySource source(data, size, atEndOfMemory(conventions));
    return loadHeaderFrom(source, info, conventions);
}

ImgError loadJpegArray(
    const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    if (!data || size == 0)
        return makeNullDataError("LoadJPGArray");
    JpegMemorySource source(data, size, atEndOfMemory(conventions));
    return loadFrom(source, buffer, info, conventions);
}

} // namespace QUtils

ImgError LoadJPGHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadJpegHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadJPGFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadJpeg(fileName, buffer, info, QUtils::Conventions::Renderer);
}

ImgError LoadJPGArrayHeader(const unsigned char* data, unsigned long size, IMGINFO* info)
{
    return QUtils::loadJpegArrayHeader(data, size, info, QUtils::Conventions::Renderer);
}

ImgError LoadJPGArray(const unsigned char* data, unsigned long size, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadJpegArray(data, size, buffer, info, QUtils::Conventions::Renderer);
}
