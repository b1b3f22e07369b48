#include "bench/raw_frame.h"

#include "bench/frame.h"
#include "bench/memory.h"

#include <array>
#include <cmath>
#include <cstring>
#include <iterator>

namespace bench {

// clang-format off
const RawChannel rawChannels[rawChannelCount] = {
    { "beauty",     1, 4, 1, { "R", "G", "B", "A" } },
    { "depth",      3, 1, 3, { "depth.Z" } },
    { "normal",     4, 3, 2, { "normal.X", "normal.Y", "normal.Z" } },
    { "position",   5, 3, 2, { "position.X", "position.Y", "position.Z" } },
    { "objectId",   6, 1, 4, { "objectId" } },
};
// clang-format on

namespace {

struct Vector {
    float x, y, z;
};

struct Sphere {
    Vector center;
    float radius;
};

/// About where the discs of the picture stand, in a world with the eye at its origin that looks along z.
constexpr Sphere spheres[] = {
    { { -3.4f, 0.6f, 10 }, 1.4f },
    { { -0.8f, 1.6f, 12 }, 0.9f },
    { { 0.8f, -0.3f, 9 }, 1.5f },
    { { 5.0f, 1.2f, 14 }, 1.5f },
    { { 2.6f, -1.2f, 8 }, 0.5f },
    { { -1.6f, -1.5f, 9 }, 0.7f },
};
constexpr float groundHeight = -2, farthest = 1000;

/// What the ray through a pixel meets.
struct Hit {
    float depth = farthest;
    Vector position {}, normal {};
    float object = 0;
};

float dot(const Vector& a, const Vector& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

void meet(const Sphere& sphere, float number, const Vector& ray, Hit& hit)
{
    const float along = dot(ray, sphere.center);
    const float root = along * along - dot(sphere.center, sphere.center) + sphere.radius * sphere.radius;
    if (root < 0 || along - std::sqrt(root) >= hit.depth)
        return;
    hit.depth = along - std::sqrt(root);
    hit.position = { ray.x * hit.depth, ray.y * hit.depth, ray.z * hit.depth };
    hit.normal = { (hit.position.x - sphere.center.x) / sphere.radius,
        (hit.position.y - sphere.center.y) / sphere.radius,
        (hit.position.z - sphere.center.z) / sphere.radius };
    hit.object = number;
}

Hit trace(int x, int y)
{
    Vector ray { (float(x) + 0.5f - frameWidth / 2.0f) / frameHeight,
        (frameHeight / 2.0f - float(y) - 0.5f) / frameHeight, 1 };
    const float length = std::sqrt(dot(ray, ray));
    ray = { ray.x / length, ray.y / length, ray.z / length };
    Hit hit;
    if (ray.y < 0 && groundHeight / ray.y < farthest) {
        hit.depth = groundHeight / ray.y;
        hit.position = { ray.x * hit.depth, groundHeight, ray.z * hit.depth };
        hit.normal = { 0, 1, 0 };
        hit.object = 1;
    }
    float number = 2;
    for (const Sphere& sphere : spheres)
        meet(sphere, number++, ray, hit);
    return hit;
}

std::array<Memory, rawChannelCount> makeChannels()
{
    const auto memory = [](int channel) {
        return Memory(framePixels * std::size_t(rawChannels[channel].components) * sizeof(float));
    };
    std::array<Memory, rawChannelCount> all { memory(0), memory(1), memory(2), memory(3), memory(4) };
    std::memcpy(all[0].get(), floatPixels(), floatBytes);
    float* const depth = all[1].as<float>();
    Vector* const normal = all[2].as<Vector>();
    Vector* const position = all[3].as<Vector>();
    float* const object = all[4].as<float>();
    for (std::size_t i = 0; i < framePixels; ++i) {
        const Hit hit = trace(int(i % frameWidth), int(i / frameWidth));
        depth[i] = hit.depth;
        normal[i] = hit.normal;
        position[i] = hit.position;
        object[i] = hit.object;
    }
    return all;
}

} // namespace

const float* rawPixels(int channel)
{
    static const std::array<Memory, rawChannelCount> all = makeChannels();
    return all[std::size_t(channel)].as<float>();
}

std::uint64_t rawBytes()
{
    return framePixels * rawComponents * sizeof(float);
}

} // namespace bench
