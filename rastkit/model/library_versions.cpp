#include "rastkit/formats.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <png.h>
#include <tiffio.h>

namespace QUtils {

namespace {

CharStringPair pngVersion()
{
    const unsigned int number = png_access_version_number();
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u.%u", number / 10000, number % 10000 / 100, number % 100);
    return { "libpng", text };
}

/// Adds what libtiff says of itself behind the word "Version", up to the next blank.
void addTiffVersion(Table<CharStringPair, 100>& rows)
{
    constexpr std::size_t mostCharacters = 127;
    const char* const said = TIFFGetVersion();
    const char* const word = said ? std::strstr(said, "Version") : nullptr;
    if (!word)
        return;
    const char* begin = word + std::strlen("Version");
    begin += *begin != '\0' ? 1 : 0;
    const std::size_t length = std::min(std::strcspn(begin, " \t\n\v\f\r"), mostCharacters);
    char text[mostCharacters + 1] = {};
    std::memcpy(text, begin, length);
    rows.add({ "libtiff", text });
}

} // namespace

// One row per codec library.
void rastkit_getImageLibVersions(Table<CharStringPair, 100>& rows)
{
    rows.clear();
    // Of the interface, not of the library behind it: version 62 is that of release 6b.
    rows.add({ "libjpeg", "6b" });
    rows.add(pngVersion());
    addTiffVersion(rows);
    // Not a release: the version of the file format, with the name of the constant that has it.
    rows.add({ "OpenEXR", "EXR_VERSION 2" });
}

} // namespace QUtils
