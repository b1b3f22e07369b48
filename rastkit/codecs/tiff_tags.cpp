#include "rastkit/codecs/tiff_tags.h"

#include "rastkit/codecs/tiff_rows.h"

#include <algorithm>
#include <climits>
#include <tiffio.h>
#include <utility>

namespace QUtils {

namespace {

unsigned shortTag(TIFF* tiff, std::uint32_t tag, unsigned absent)
{
    std::uint16_t value = 0;
    return TIFFGetField(tiff, tag, &value) ? value : absent;
}

bool sizeTag(TIFF* tiff, std::uint32_t tag, int& size)
{
    std::uint32_t value = 0;
    if (!TIFFGetField(tiff, tag, &value) || value == 0 || value > std::uint32_t(INT_MAX))
        return false;
    size = int(value);
    return true;
}

/// The number of the sample that is alpha by TIFF's own rules. The last extra sample that the file calls
/// alpha is it. Files with a single extra sample of no declared meaning behind RGB are so common that every
/// program takes it for alpha.
int findAlpha(TIFF* tiff, const TiffTags& tags)
{
    const unsigned colors = tags.photometric == PHOTOMETRIC_SEPARATED ? 4
        : tags.photometric == PHOTOMETRIC_RGB                         ? 3
                                                                      : 1;
    if (tags.samples <= colors)
        return -1;
    std::uint16_t count = 0;
    const std::uint16_t* kinds = nullptr;
    if (!TIFFGetFieldDefaulted(tiff, TIFFTAG_EXTRASAMPLES, &count, &kinds) || !kinds)
        count = 0;
    const unsigned known = std::min<unsigned>(count, tags.samples - colors);
    for (unsigned i = known; i-- > 0;)
        if (kinds[i] == EXTRASAMPLE_ASSOCALPHA || kinds[i] == EXTRASAMPLE_UNASSALPHA)
            return int(colors + i);
    const bool isOnlyExtra = colors == 3 && tags.samples == 4 && (known == 0 || kinds[0] == 0);
    return isOnlyExtra ? 3 : -1;
}

bool hasLogCompression(const TiffTags& tags)
{
    return tags.compression == COMPRESSION_SGILOG || tags.compression == COMPRESSION_SGILOG24;
}

bool isIntegerFormat(const TiffTags& tags)
{
    return tags.sampleFormat == SAMPLEFORMAT_UINT || tags.sampleFormat == SAMPLEFORMAT_INT;
}

bool rendererDecodes(const TiffTags& tags)
{
    const bool hasSamples = tags.samples == 1 || tags.samples == 3 || tags.samples == 4;
    const bool hasPlanes = tags.planarConfig == PLANARCONFIG_SEPARATE;
    const bool isFloat = tags.sampleFormat == SAMPLEFORMAT_IEEEFP && (tags.bits == 32 || tags.bits == 64);
    return hasSamples
        && (tags.photometric <= PHOTOMETRIC_PALETTE || (tags.isLog() && hasLogCompression(tags)))
        && (!hasPlanes || tags.samples == 1 || tags.photometric == PHOTOMETRIC_RGB)
        && (isIntegerFormat(tags) || isFloat);
}

bool standardDecodes(const TiffTags& tags)
{
    if (tags.isLog())
        return hasLogCompression(tags);
    if (tags.photometric == PHOTOMETRIC_SEPARATED && (tags.samples < 4 || !tags.hasFourInks))
        return false;
    if (tags.photometric > PHOTOMETRIC_PALETTE && tags.photometric != PHOTOMETRIC_SEPARATED)
        return false;
    if ((tags.photometric == PHOTOMETRIC_RGB && tags.samples < 3))
        return false;
    if (tags.photometric == PHOTOMETRIC_PALETTE && tags.bits > 16)
        return false;
    if (tags.sampleFormat == SAMPLEFORMAT_IEEEFP)
        return tags.bits == 16 || tags.bits == 32 || tags.bits == 64;
    return isIntegerFormat(tags) && ((tags.bits >= 1 && tags.bits <= 32) || tags.bits == 64);
}

} // namespace

ImgErrorCode readTiffTags(TIFF* tiff, Conventions conventions, TiffTags& tags)
{
    // Files without these two tags have one bit and one sample by the format's rules; that the renderer takes
    // other numbers is deliberate.
    const bool isStandard = conventions == Conventions::Standard;
    if (!sizeTag(tiff, TIFFTAG_IMAGEWIDTH, tags.width) || !sizeTag(tiff, TIFFTAG_IMAGELENGTH, tags.height))
        return IMGERR_FORMAT;
    tags.bits = shortTag(tiff, TIFFTAG_BITSPERSAMPLE, isStandard ? 1 : 8);
    tags.samples = shortTag(tiff, TIFFTAG_SAMPLESPERPIXEL, isStandard ? 1 : 4);
    if (tags.bits == 0 || tags.samples == 0)
        return IMGERR_FORMAT;

    tags.orientation = int(shortTag(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT));
    tags.sampleFormat = shortTag(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    if (tags.sampleFormat == SAMPLEFORMAT_VOID)
        tags.sampleFormat = SAMPLEFORMAT_UINT;
    tags.planarConfig = shortTag(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    tags.compression = shortTag(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    std::uint16_t photometric = 0;
    tags.hasPhotometric = TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric) != 0;
    tags.photometric = photometric;
    tags.hasFourInks = shortTag(tiff, TIFFTAG_INKSET, INKSET_CMYK) == INKSET_CMYK;
    if (isStandard)
        tags.alphaSample = findAlpha(tiff, tags);
    else if (tags.photometric == PHOTOMETRIC_RGB && tags.samples == 4)
        tags.alphaSample = 3;
    return IMGERR_NONE;
}

bool isDecodedHere(const TiffTags& tags, Conventions conventions)
{
    if (!tags.hasPhotometric)
        return false;
    return conventions == Conventions::Standard ? standardDecodes(tags) : rendererDecodes(tags);
}

void describeTiff(const TiffTags& tags, Conventions conventions, IMGINFO* info)
{
    if (!info)
        return;
    info->width = tags.width;
    info->height = tags.height;
    if (TiffOrientation::of(tags.orientation, conventions).swapsAxes)
        std::swap(info->width, info->height);
    info->bitsPerPixel = int(std::min<std::uint64_t>(std::uint64_t(tags.bits) * tags.samples, INT_MAX));
    info->numChannels = int(tags.samples);
    info->bytesPerPixel = info->bitsPerPixel >> 3;
}

} // namespace QUtils
