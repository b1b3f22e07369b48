#include "rastkit/image/source_pixels.h"

#include "rastkit/codecs/tiff_file.h"
#include "rastkit/codecs/tiff_tags.h"
#include "rastkit/image/standard_load.h"

#include <algorithm>
#include <tiffio.h>

namespace QUtils {

namespace {

SourceSample integerOf(unsigned bits)
{
    return bits <= 8 ? SourceSample::Byte : bits <= 16 ? SourceSample::Short : SourceSample::Float;
}

SourceSample sampleOf(const TiffTags& tags)
{
    if (tags.isLog())
        return SourceSample::Float;
    if (!isDecodedHere(tags, Conventions::Standard) || tags.photometric == PHOTOMETRIC_PALETTE)
        return SourceSample::Byte;
    if (tags.sampleFormat == SAMPLEFORMAT_IEEEFP)
        return tags.bits == 16 ? SourceSample::Half : SourceSample::Float;
    return tags.sampleFormat == SAMPLEFORMAT_UINT ? integerOf(tags.bits) : SourceSample::Float;
}

SourcePixels pixelsOf(const TiffTags& tags)
{
    const bool isGrey = tags.photometric == PHOTOMETRIC_MINISWHITE
        || tags.photometric == PHOTOMETRIC_MINISBLACK || tags.photometric == PHOTOMETRIC_LOGL;
    return { sampleOf(tags), (isGrey ? 1 : 3) + (tags.alphaSample >= 0 ? 1 : 0), false };
}

bool isStraight(ImgType type)
{
    return type == IMGTYPE_PNG || type == IMGTYPE_TGA || type == IMGTYPE_BMP || type == IMGTYPE_PSD
        || type == IMGTYPE_DDS;
}

/// Formats whose description says it all, but for what is not alpha although it is a fourth channel.
SourcePixels pixelsOf(const IMGINFO& info, ImgType type)
{
    const unsigned bits = unsigned(info.bitsPerPixel / std::max(info.numChannels, 1));
    SourcePixels pixels { integerOf(bits), std::clamp(info.numChannels, 1, 4), isStraight(type) };
    const bool hasFloats = type == IMGTYPE_EXR || type == IMGTYPE_HDR;
    if (hasFloats)
        pixels.sample = bits == 16 ? SourceSample::Half : SourceSample::Float;
    if (type == IMGTYPE_HDR) { // The fourth is the exponent.
        pixels.sample = SourceSample::Float;
        pixels.channels = 3;
    }
    if (type == IMGTYPE_JPEG) // Inks become colours, without alpha.
        pixels.channels = info.numChannels == 1 ? 1 : 3;
    if (type == IMGTYPE_PIC) // What is missing is not grey.
        pixels.channels = info.numChannels == 3 ? 3 : 4;
    return pixels;
}

} // namespace

ImgError describeSourcePixels(const char* fileName, SourcePixels& pixels)
{
    IMGINFO info {};
    ImgType type = IMGTYPE_UNKNOWN;
    ImgError error = loadHeaderStandard(fileName, &info, &type);
    if (error.code() != IMGERR_NONE)
        return error;
    pixels = pixelsOf(info, type);
    if (type != IMGTYPE_TIFF)
        return error;
    TiffTags tags;
    const TiffFile file(fileName, "r");
    if (!file || readTiffTags(file, Conventions::Standard, tags) != IMGERR_NONE)
        return IMGERR_READ; // Somebody changes it.
    pixels = pixelsOf(tags);
    return error;
}

} // namespace QUtils
