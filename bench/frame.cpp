#include "bench/frame.h"

#include "bench/memory.h"

#include <algorithm>
#include <cstring>

namespace bench {

namespace {

constexpr int horizon = frameHeight * 5 / 9;

struct Color {
    int r, g, b, a;
};

struct Disc {
    int x, y, radius;
    Color color;
    bool shaded;
};

// clang-format off
constexpr Disc discs[] = {
    {  620,  840, 520, { 190,  60,  50, 255 }, true  },
    { 1660,  560, 300, { 240, 220, 120, 255 }, false },
    { 2240, 1180, 640, {  70, 110, 190, 255 }, true  },
    { 3280,  760, 420, {  60, 160,  90, 255 }, true  },
    { 3060, 1760, 240, { 235, 235, 235, 255 }, false },
    { 1240, 1700, 280, {  90,  40, 130, 255 }, true  },
};
// clang-format on

/// An even spread of bits, the same for the same pixel.
std::uint32_t hash(int x, int y)
{
    std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y) * 0x85EBCA77u;
    h = (h ^ h >> 15) * 0x2C1B3C6Du;
    h = (h ^ h >> 12) * 0x297A2D39u;
    return h ^ h >> 15;
}

/// `amount` from 0 to 255.
Color scaled(const Color& color, int amount)
{
    return { color.r * amount / 255, color.g * amount / 255, color.b * amount / 255, color.a };
}

Color mixed(const Color& a, const Color& b, int amountOfB)
{
    const auto mix
        = [amountOfB](int from, int to) { return (from * (255 - amountOfB) + to * amountOfB) / 255; };
    return { mix(a.r, b.r), mix(a.g, b.g), mix(a.b, b.b), mix(a.a, b.a) };
}

/// Rows of one colour: the longest runs. Its alpha grows towards the ground.
Color sky(int y)
{
    const int down = y * 255 / horizon;
    return { 40 + down * 140 / 255, 90 + down * 120 / 255, 200 + down * 40 / 255, down };
}

/// Chequered in perspective: dark squares with a grain that leaves no runs, light ones of threads four pixels
/// long.
Color ground(int x, int y)
{
    constexpr int far = 1 << 20; // Keeps the division of what lies to the left from rounding towards zero.
    const int depth = y - horizon + 40;
    const int across = (x - frameWidth / 2) * 1000 / depth + far, along = 1000 * 1000 / depth;
    const bool light = (across / 300 + along / 300) % 2 != 0;
    const Color tile = light ? Color { 200, 196, 188, 255 } : Color { 62, 58, 54, 255 };
    return scaled(tile, 255 - int((light ? hash(x / 4, y) : hash(x, y)) % 48));
}

/// Brightest where it faces the upper left, with the noise of a renderer that takes few samples: two pixels
/// side by side are often equal, three seldom.
Color shade(const Disc& disc, int x, int y)
{
    if (!disc.shaded)
        return disc.color;
    const int dx = x - (disc.x - disc.radius / 3), dy = y - (disc.y - disc.radius / 3);
    const std::int64_t reach = std::int64_t(disc.radius) * disc.radius * 2;
    const auto dark = int((std::int64_t(dx) * dx + std::int64_t(dy) * dy) * 200 / reach);
    const auto noise = int(hash(x, y) % 3);
    return scaled(disc.color, 255 - std::min(dark, 220) - noise * noise);
}

/// How much of the pixel the disc covers, 0 to 255, with an edge of about two pixels.
int coverage(const Disc& disc, int x, int y)
{
    const std::int64_t dx = x - disc.x, dy = y - disc.y;
    const std::int64_t inside = std::int64_t(disc.radius) * disc.radius - dx * dx - dy * dy;
    return int(std::clamp<std::int64_t>(inside * 64 / disc.radius, 0, 255));
}

std::uint32_t pixelAt(int x, int y)
{
    Color color = y < horizon ? sky(y) : ground(x, y);
    for (const Disc& disc : discs) {
        if (const int covered = coverage(disc, x, y))
            color = mixed(color, shade(disc, x, y), covered);
    }
    const auto byte = [](int value) { return std::uint32_t(std::clamp(value, 0, 255)); };
    return byte(color.a) << 24 | byte(color.r) << 16 | byte(color.g) << 8 | byte(color.b);
}

Memory makePacked()
{
    Memory memory(packedBytes);
    std::uint32_t* pixel = memory.as<std::uint32_t>();
    for (int y = 0; y < frameHeight; ++y)
        for (int x = 0; x < frameWidth; ++x)
            *pixel++ = pixelAt(x, y);
    return memory;
}

Memory makeOpaque()
{
    Memory memory(packedBytes);
    std::transform(packedPixels(), packedPixels() + framePixels, memory.as<std::uint32_t>(),
        [](std::uint32_t argb) { return argb | 0xFF000000u; });
    return memory;
}

Memory makeFloats()
{
    Memory memory(floatBytes);
    float* rgba = memory.as<float>();
    for (std::size_t i = 0; i < framePixels; ++i, rgba += 4) {
        const std::uint32_t argb = packedPixels()[i];
        rgba[0] = float(argb >> 16 & 0xFF) * 2 / 255;
        rgba[1] = float(argb >> 8 & 0xFF) * 2 / 255;
        rgba[2] = float(argb & 0xFF) * 2 / 255;
        rgba[3] = float(argb >> 24) / 255;
    }
    return memory;
}

QUtils::FrameBuffer makeFrameBuffer(QUtils::FrameSample sample, const void* pixels, std::size_t rowBytes)
{
    QUtils::FrameBuffer frame(frameWidth, frameHeight);
    frame.addChannel("rgba", QUtils::PIXELCHANNEL_COLOR, 4, sample);
    for (int y = 0; y < frameHeight; ++y)
        std::memcpy(frame.row(colorChannel, y),
            static_cast<const std::uint8_t*>(pixels) + std::size_t(y) * rowBytes, rowBytes);
    return frame;
}

} // namespace

const std::uint32_t* packedPixels()
{
    static const Memory memory = makePacked();
    return memory.as<std::uint32_t>();
}

const std::uint32_t* opaquePixels()
{
    static const Memory memory = makeOpaque();
    return memory.as<std::uint32_t>();
}

const float* floatPixels()
{
    static const Memory memory = makeFloats();
    return memory.as<float>();
}

QUtils::FrameBuffer& frameBuffer()
{
    static QUtils::FrameBuffer frame
        = makeFrameBuffer(QUtils::FrameSample::Packed8, packedPixels(), packedBytes / frameHeight);
    return frame;
}

QUtils::FrameBuffer& floatFrameBuffer()
{
    static QUtils::FrameBuffer frame
        = makeFrameBuffer(QUtils::FrameSample::Float, floatPixels(), floatBytes / frameHeight);
    return frame;
}

std::uint64_t checksum(const std::uint32_t* words, std::size_t count)
{
    std::uint64_t sum = 0xCBF29CE484222325u;
    for (std::size_t i = 0; i < count; ++i)
        sum = (sum ^ words[i]) * 0x100000001B3u; // FNV-1a over words instead of bytes.
    return sum;
}

} // namespace bench
