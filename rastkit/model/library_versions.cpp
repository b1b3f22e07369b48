#include "rastkit/formats.h"

#include <cstdio>
#include <png.h>

namespace QUtils {

namespace {

CharStringPair pngVersion()
{
    const unsigned int number = png_access_version_number();
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u.%u", number / 10000, number % 10000 / 100, number % 100);
    return { "libpng", text };
}

} // namespace

// One row per codec library.
void rastkit_getImageLibVersions(Table<CharStringPair, 100>& rows)
{
    rows.clear();
    // Of the interface, not of the library behind it: version 62 is that of release 6b.
    rows.add({ "libjpeg", "6b" });
    rows.add(pngVersion());
}

} // namespace QUtils
