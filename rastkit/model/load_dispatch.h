#pragma once

#include "rastkit/model/format_tables.h"
#include "rastkit/types.h"

#include <cstdint>

namespace QUtils {

/// Picks the reader for an existing or missing file, by extension first and by contents when the reader
/// that the extension names fails or there is none. `read(row)` runs the reader of one row. `function` is
/// named in the error of a missing file.
template <typename Read> ImgError dispatchLoad(const char* function, const char* fileName, Read read)
{
    if (!uniPathOrFileExists(fileName))
        return ImgError(function, IMGERR_OPEN, "Failed to open file: no such file");

    ImgError firstError;
    const ImageLoader* const byName = findLoaderByExtension(fileName);
    if (byName) {
        firstError = read(*byName);
        if (firstError.code() == IMGERR_NONE)
            return firstError;
    }
    const ImageLoader* const byContents = findLoaderByContents(fileName);
    if (!byContents)
        return IMGERR_FORMAT; // Deliberately also when a reader failed: the file is none of ours.
    if (byContents == byName)
        return firstError; // The same reader is not run twice.
    return read(*byContents);
}

/// The wait that `getTextureWait` answers at that time of the clock, in milliseconds.
int textureWaitAt(std::uint32_t tickCount);

} // namespace QUtils
