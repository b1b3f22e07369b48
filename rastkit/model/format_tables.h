#pragma once

#include "rastkit/formats.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>

namespace QUtils {

/// The formats offered to users, by format index.
inline constexpr int supportedCount = 11;
extern const FileFormatInfo supported[supportedCount];

/// One readable format.
struct ImageLoader {
    using FileLoader = ImgError (*)(const char* name, ImgBuffer& buffer, IMGINFO* info);
    using HeaderLoader = ImgError (*)(const char* name, IMGINFO* info);
    using TagLoader = int (*)(const char* name, char* out, int size);

    char extensions[32]; ///< Upper case, each with its dot, alternatives separated by "|".
    FileLoader loadFile; ///< Null for Photoshop files, which are loaded with two texts more.
    HeaderLoader loadHeader;
    TagLoader loadTag; ///< Null where the format keeps no content hash.
    ImgType type;
};

/// The readable formats, in the order in which extensions are searched.
inline constexpr int imageLoaderCount = 11;
extern const ImageLoader tableImageLoaders[imageLoaderCount];

/// The first row with an extension that `fileName` ends in, whatever its case; null when there is none.
/// A name that is nothing but an extension has none.
const ImageLoader* findLoaderByExtension(const char* fileName);

/// The row for a file's first bytes; null when it cannot be read or matches nothing.
const ImageLoader* findLoaderByContents(const char* fileName);

/// Most bytes that `detectType` looks at.
inline constexpr std::size_t detectionBytes = 1024;

/// The type of a file that begins with these bytes. `bytes` holds detectionBytes bytes, of which `count`
/// came from the file and the others are zero.
ImgType detectType(const std::uint8_t* bytes, std::size_t count);

/// Calls `visit(alternative, length)` for each of the alternatives in `list`, which `separator` divides,
/// until it answers true. True when it did.
template <typename Visit> bool anyAlternative(const char* list, char separator, Visit visit)
{
    for (const char* begin = list; *begin != '\0';) {
        std::size_t length = 0;
        while (begin[length] != '\0' && begin[length] != separator)
            ++length;
        if (visit(begin, length))
            return true;
        begin += length + (begin[length] == separator ? 1 : 0);
    }
    return false;
}

} // namespace QUtils
