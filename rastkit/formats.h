#pragma once

#include "qutils/core/char_string.h"
#include "qutils/core/table.h"
#include "rastkit/types.h"

namespace QUtils {

/// One row of the list of file formats offered to users.
struct FileFormatInfo {
    char extensions[64]; ///< Lower case, no dots, alternatives separated by ";".
    char description[128]; ///< For a file dialog.
};

/// Replaces `list` by pointers to the 11 rows of the format list, in order of their index, and returns 11.
/// The rows live as long as the program. When memory is refused the table stays empty.
RASTKIT_API int getSupportedFormatsList(Table<const FileFormatInfo*, 100>& list);

/// The format index (0 to 10) that a file name's extension, or a bare extension, stands for; -1 when there
/// is none. An extension that is the beginning of a known one counts as it: "jp" is JPEG, and a name that
/// ends in a dot is PNG. On a match `firstExtension` (null, or at least 64 bytes) gets the row's first
/// extension.
RASTKIT_API int getFileFormatIndex(const char* nameOrExtension, char* firstExtension);

/// True when `getFileFormatIndex` knows the name.
RASTKIT_API bool IsImgFormatSupported(const char* name);

/// True when all channels of a frame go into one file of this name: a quimg, or an OpenEXR file when bit
/// 0x100 of `flags` is set.
RASTKIT_API bool fileFormatIsMultiChannel(const char* name, int flags);

/// The type (an ImgType) of a file by its first bytes; -1 when it cannot be read or matches nothing.
/// DDS files are not recognised by contents.
RASTKIT_API int DetectImageType(const char* fileName);

/// Lets the library use `count` threads besides the caller's; a count below 0 means 0, the default, with
/// which everything runs on the caller's thread. The threads are OpenEXR's, which all of the process shares:
/// set them once, while no image is read or written. When the system refuses threads the old number stays.
RASTKIT_API void setThreadCount(int count);

/// Replaces `rows` by a (library, version) pair for each codec library of this build.
RASTKIT_API void rastkit_getImageLibVersions(Table<CharStringPair, 100>& rows);

} // namespace QUtils

using QUtils::DetectImageType;
using QUtils::FileFormatInfo;
using QUtils::fileFormatIsMultiChannel;
using QUtils::getFileFormatIndex;
using QUtils::getSupportedFormatsList;
using QUtils::IsImgFormatSupported;
using QUtils::rastkit_getImageLibVersions;
using QUtils::setThreadCount;
