#pragma once

#include "rastkit/export.h"
#include "rastkit/types.h"

#include <string>
#include <vector>

namespace QUtils {

/// What this build can do with one format.
struct FormatSupport {
    std::vector<std::string> extensions; ///< Lower case, no dots; the first one names the format.
    std::string description;
    ImgType type; ///< IMGTYPE_UNKNOWN for a format that is only written.
    int formatIndex; ///< Of the list offered to users; -1 for a format that is only read.
    bool reads, writes;
};

// Put together from the tables of readers and writers, so that nothing is listed twice.
//
// Exported for the programs of this project; the header is not installed.

/// All formats that this library knows, also those that this build lacks: first the ones offered to users,
/// in their order, then those that are only read.
RASTKIT_API std::vector<FormatSupport> listFormats();

/// The format of a file name's extension, whole and whatever its case; null when there is none.
RASTKIT_API const FormatSupport* findFormat(const std::vector<FormatSupport>& formats, const char* fileName);

/// The format of that type; null when there is none.
RASTKIT_API const FormatSupport* findFormat(const std::vector<FormatSupport>& formats, ImgType type);

} // namespace QUtils
