#pragma once

#include "qutils/core/char_string.h"
#include "qutils/raw/records.h"

namespace QUtils {

/// Why RIFile or RIReader failed: the codes of their errors. Each error also carries a text that says what
/// failed and where.
enum RIErrorCode {
    RIERR_ARGUMENT = 1, ///< A call's arguments make no sense, or the call comes out of order.
    RIERR_OPEN = 2, ///< The file cannot be made or opened.
    RIERR_READ = 3, ///< The system could not read, or pixels that were there are damaged.
    RIERR_WRITE = 4, ///< Not all bytes reached the system.
    RIERR_FORMAT = 5, ///< No quimg, a newer version of it, or its headers are damaged or missing.
    RIERR_MEMORY = 6, ///< Memory was refused.
    RIERR_INCOMPLETE = 7, ///< Some cells were not written, since their rows were not all there.
    RIERR_CALLBACK = 8, ///< An exception ended the call: an object of the caller threw, as a rule.
};

/// Describes a channel of a quimg.
struct RIChannelInfo {
    CharString name;
    int channelId = 0;
    int sampleType = 0; ///< As stored: a RISampleType.
    int numComponents = 0; ///< 1 to 4.
    int kind = 0; ///< 1 colour, 2 vector, 3 depth, 4 data.
    int givenType = 0; ///< The type of the samples that the renderer hands over.
};

/// What a quimg says about its frame.
struct RIHeader {
    int bitsPerChannel = 0, width = 0, height = 0;
    float pixelAspect = 0;
    RIRegionInfo renderRegion = {}; ///< The rendered rectangle itself, also where it is the whole image.
    int regWidth = 0, regHeight = 0, regType = 0; ///< 0 as a size: over the whole width or height.
    RICameraInfo camera = {};
    int sceneNumber = 0;
    CharString sceneText;
};

} // namespace QUtils

using QUtils::RIChannelInfo;
using QUtils::RIHeader;
