#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

// What a renderer hands over besides the picture: the frame of frame.h as a colour channel, with a depth, a
// normal, a position and an object's number for each pixel. Twelve floats in all.

struct RawChannel {
    const char* name;
    int id, components, kind;
    const char* componentNames[4]; ///< As OpenEXR files name them.
};

constexpr int rawChannelCount = 5;
constexpr int rawComponents = 12;
extern const RawChannel rawChannels[rawChannelCount];

/// The samples of a channel, its components side by side. Made at the first call and kept.
const float* rawPixels(int channel);
/// Bytes of all channels.
std::uint64_t rawBytes();

} // namespace bench
