#pragma once

#include "rastkit/texture_writer.h"

#include <string>

namespace QUtils {

/// As renderers know it.
inline const char* nameOf(TextureWrap wrap)
{
    switch (wrap) {
    case TextureWrap::Clamp: return "clamp";
    case TextureWrap::Periodic: return "periodic";
    case TextureWrap::Mirror: return "mirror";
    case TextureWrap::Black: break;
    }
    return "black";
}

/// What texture files say of both axes, such as "clamp,periodic".
inline std::string wrapModes(const TextureSettings& settings)
{
    return std::string(nameOf(settings.wrapX)) + ',' + nameOf(settings.wrapY);
}

} // namespace QUtils
