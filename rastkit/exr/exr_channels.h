#pragma once

#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <ImfHeader.h>

#include <string>

namespace QUtils {

/// Which channels of a file make the picture.
struct ExrChannels {
    enum class Kind {
        Color, ///< Red, green, blue and alpha.
        Grey, ///< One channel, and alpha.
        LuminanceChroma, ///< Y, RY and BY, which OpenEXR turns into colours.
    };

    Kind kind = Kind::Color;
    /// Red, green, blue, alpha; or grey and alpha. Names that the file has not stand for 0, of alpha for 1.
    std::string names[4];
    bool hasAlpha = false;
    bool isHalf = true; ///< Every one of them that the file has is of 16 bits.

    int pixelChannels() const { return (kind == Kind::Grey ? 1 : 3) + (hasAlpha ? 1 : 0); }
};

ExrChannels pickExrChannels(const Imf::Header& header, Conventions conventions);

/// Fills `info` (null: nothing happens) as the pixels are delivered by these conventions.
void describeExr(
    const Imf::Header& header, const ExrChannels& channels, IMGINFO* info, Conventions conventions);

} // namespace QUtils
