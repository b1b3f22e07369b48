#pragma once

#include "qutils/raw/records.h"

#include <ImfPixelType.h>

#include <string>
#include <vector>

namespace QUtils {

/// What a channel of raw output holds; see RegionChannelCallback::getKind.
enum class RawKind { ByComponents = 0, Color = 1, Vector = 2, Depth = 3, Data = 4 };

/// A channel as the renderer describes it, asked once.
struct RawChannel {
    std::string name;
    int id = 0;
    int sampleType = RISAMPLE_FLOAT;
    int components = 1;
    RawKind kind = RawKind::ByComponents;
};

/// Bytes of one sample.
constexpr int rawSampleBytes(int sampleType)
{
    return sampleType == RISAMPLE_HALF ? 2 : 4;
}

/// One channel of an OpenEXR file: one component of a renderer's channel.
struct ExrChannel {
    std::string name;
    Imf::PixelType type;
    int source; ///< Position in the renderer's list; -1: black.
    int component;
    bool isPicture; ///< A colour or its alpha, where a little loss is not seen.
};

/// The channels of the file for the renderer's list.
///
/// The picture is channel 1, or else 126, and becomes R, G, B and A; channel 2, or else 125, is its alpha if
/// it has none. All others are layers by their names: R, G, B, A for colours, X, Y, Z, W for vectors, Z for
/// depth, the bare name for single values, numbers for several. A name that is taken gets "_2", "_3" ...,
/// an empty one is "channel". An empty list is a black picture of half floats.
///
/// `bitsPerChannel` 16 makes colours half floats, 32 floats; integers stay what they are.
std::vector<ExrChannel> planExrChannels(const std::vector<RawChannel>& channels, int bitsPerChannel);

/// Whether a lossy compression may be used: only when all is picture, and no integers. Lossy compressions go
/// by the ends of names, and data that happens to be called like a colour must not be spoilt.
bool toleratesLoss(const std::vector<ExrChannel>& channels);

} // namespace QUtils
