#pragma once

#include "rastkit/codecs/tiff.h"
#include "rastkit/codecs/tiff_samples.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <cstdint>

namespace QUtils {

/// What a file says of its first image, in the values of the tags. For a tag that is absent stands what the
/// conventions take then.
struct TiffTags {
    int width = 0, height = 0; ///< As stored, at least 1.
    unsigned bits = 0, samples = 0; ///< Of a sample, of a pixel.
    bool hasPhotometric = false;
    unsigned photometric = 0, sampleFormat = 1, planarConfig = 1, compression = 1;
    bool hasFourInks = true; ///< Whether inks are cyan, magenta, yellow and black.
    int orientation = 1;
    int alphaSample = -1; ///< The number of the sample that is alpha; negative for none.

    bool isPlanar() const { return planarConfig == PLANARCONFIG_SEPARATE && samples > 1; }
    bool isLog() const { return photometric == PHOTOMETRIC_LOGL || photometric == PHOTOMETRIC_LOGLUV; }
};

/// IMGERR_FORMAT: no width or height, sizes that no image has, no samples.
ImgErrorCode readTiffTags(TIFF* tiff, Conventions conventions, TiffTags& tags);

/// Whether TiffPixelDecoder reads the image. libtiff's own conversion to 8 bits gets all others.
bool isDecodedHere(const TiffTags& tags, Conventions conventions);

/// Sets the five fields that TIFF files have; `info` may be null.
void describeTiff(const TiffTags& tags, Conventions conventions, IMGINFO* info);

} // namespace QUtils
