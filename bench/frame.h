#pragma once

#include "rastkit/buffers.h"

#include <cstddef>
#include <cstdint>

namespace bench {

// The frame that every format saves and loads: 3840 x 2160 pixels of a scene with a smooth sky, flat and
// shaded discs, a chequered ground and film grain, so that run-length coders meet long runs, short ones and
// none at all. It is made with whole numbers only: every machine gets the same pixels. All of it is made
// at the first call and kept.

constexpr int frameWidth = 3840;
constexpr int frameHeight = 2160;
constexpr std::size_t framePixels = std::size_t(frameWidth) * frameHeight;
constexpr std::size_t packedBytes = framePixels * sizeof(std::uint32_t);
constexpr std::size_t floatBytes = framePixels * 4 * sizeof(float);

/// The first (and only) channel of the two frames. As an alpha channel it gives its fourth component.
constexpr int colorChannel = 0;

/// One word 0xAARRGGBB per pixel, row 0 at the top. Alpha is 0xFF but for the sky and the edges of discs.
const std::uint32_t* packedPixels();
/// The same pixels with alpha 0xFF: what a file without alpha gives back.
const std::uint32_t* opaquePixels();
/// Four floats R, G, B, A per pixel: the packed pixels divided by 255, the colours twice as bright.
const float* floatPixels();
/// The packed pixels as a frame of one channel of 8-bit samples.
QUtils::FrameBuffer& frameBuffer();
/// The float pixels as a frame of one channel of 32-bit floats.
QUtils::FrameBuffer& floatFrameBuffer();

/// A number that differs when any bit of the words differs.
std::uint64_t checksum(const std::uint32_t* words, std::size_t count);

} // namespace bench
