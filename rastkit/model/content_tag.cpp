#include "rastkit/model/content_tag.h"

#include "qutils/core/paths.h"

#include <string_view>

namespace QUtils {

int extractContentTag(const char* text, char* out, int outSize)
{
    constexpr std::string_view marker = "SHA-1=";

    if (!text || !hasRoomForContentTag(out, outSize))
        return 0;
    const std::size_t found = std::string_view(text).rfind(marker);
    if (found == std::string_view::npos)
        return 0;
    copyBounded(text + found + marker.size(), out, contentTagLength + 1);
    return 1;
}

} // namespace QUtils
