#pragma once

// What render_frame renders: spheres of stone, metal and glaze on a chequered floor, in the evening sun.
// Every machine gets the same bits: besides + - * / there is only sqrt, which is rounded as exactly as they
// are. Colours are linear light, y points up, and the camera looks against z.

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace scene {

struct Vec {
    float x, y, z;

    void appendTo(float*& samples) const { *samples++ = x, *samples++ = y, *samples++ = z; }
    Vec unit() const { return *this * (1 / std::sqrt(dot(*this, *this))); }
    friend constexpr Vec operator+(Vec a, Vec b) { return { a.x + b.x, a.y + b.y, a.z + b.z }; }
    friend constexpr Vec operator-(Vec a, Vec b) { return { a.x - b.x, a.y - b.y, a.z - b.z }; }
    friend constexpr Vec operator*(Vec a, Vec b) { return { a.x * b.x, a.y * b.y, a.z * b.z }; }
    friend constexpr Vec operator*(Vec a, float s) { return { a.x * s, a.y * s, a.z * s }; }
    friend constexpr float dot(Vec a, Vec b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
    friend constexpr Vec mix(Vec a, Vec b, float t) { return a + (b - a) * t; }
};

/// 0 up to 0, 1 from 1 on, an even ramp with soft ends in between.
constexpr float smooth(float t)
{
    t = std::clamp(t, 0.f, 1.f);
    return t * t * (3 - 2 * t);
}

constexpr float power4(float v)
{
    return v * v * (v * v);
}

struct Material {
    enum Pattern { Plain, Tiles, Veins, Bands } pattern;
    Vec color, second; ///< What it scatters, and the pattern's other colour.
    Vec gloss; ///< What it mirrors, seen straight on; at grazing angles all things mirror.
};

struct Sphere {
    Vec center;
    float radius;
    Material material;
};

// clang-format off
constexpr Vec black {}, glaze { 0.05f, 0.05f, 0.05f };
constexpr Material floorTiles { Material::Tiles, { 0.09f, 0.09f, 0.11f }, { 0.52f, 0.47f, 0.40f }, glaze };
constexpr Sphere spheres[] {
    { { -0.30f, 1.25f, -1.60f }, 1.25f, { Material::Plain, black, black, { 0.93f, 0.93f, 0.95f } } },
    { { -1.75f, 0.75f,  0.10f }, 0.75f, { Material::Veins, { 0.10f, 0.16f, 0.20f }, { 0.80f, 0.77f, 0.72f }, glaze } },
    { {  1.45f, 0.85f, -0.30f }, 0.85f, { Material::Bands, { 0.74f, 0.13f, 0.06f }, { 0.88f, 0.64f, 0.36f }, glaze } },
    { {  0.05f, 0.50f,  0.75f }, 0.50f, { Material::Plain, black, black, { 1.00f, 0.72f, 0.29f } } },
    { { -0.75f, 0.25f,  1.55f }, 0.25f, { Material::Plain, { 0.02f, 0.30f, 0.33f }, black, glaze } },
    { {  0.80f, 0.28f,  1.30f }, 0.28f, { Material::Plain, { 0.60f, 0.62f, 0.65f }, black, glaze } },
    { {  2.60f, 0.40f,  0.75f }, 0.40f, { Material::Plain, { 0.05f, 0.22f, 0.55f }, black, glaze } },
    { { -3.30f, 0.55f, -1.60f }, 0.55f, { Material::Plain, { 0.80f, 0.45f, 0.05f }, black, glaze } },
    { {  3.60f, 0.90f, -3.20f }, 0.90f, { Material::Plain, black, black, { 0.95f, 0.60f, 0.48f } } },
};
// clang-format on

inline const Vec sunDirection = Vec { -0.80f, 0.50f, 0.30f }.unit();
constexpr Vec sunColor { 3.0f, 2.3f, 1.55f };
constexpr float sunRadius = 0.09f; // Radians: far larger than the real one, for soft shadows.

inline Vec sky(Vec direction)
{
    const float low = power4(1 - std::max(direction.y, 0.f)),
                sun = std::max(dot(direction, sunDirection), 0.f);
    return mix(Vec { 0.07f, 0.22f, 0.52f }, Vec { 1.00f, 0.74f, 0.54f }, low * low)
        + sunColor * (0.15f * power4(sun) + 8 * smooth((sun - 0.994f) / 0.004f));
}

constexpr int wholePart(float v)
{
    return int(v) - (v < float(int(v)));
}

/// Noise in 0..1: a random number at every corner of a grid, blended in between.
inline float noise(Vec p)
{
    const int x = wholePart(p.x), y = wholePart(p.y), z = wholePart(p.z);
    const float u = smooth(p.x - float(x)), v = smooth(p.y - float(y)), w = smooth(p.z - float(z));
    float sum = 0;
    for (int corner = 0; corner < 8; ++corner) {
        const int dx = corner & 1, dy = corner >> 1 & 1, dz = corner >> 2;
        std::uint32_t random = std::uint32_t(x + dx) * 0x9c4f2a6bu ^ std::uint32_t(y + dy) * 0x6d35e8c1u
            ^ std::uint32_t(z + dz) * 0xe1b75c37u;
        random = (random ^ random >> 15) * 0x3f9ad645u >> 8;
        sum += float(random) / float(1 << 24) * (dx ? u : 1 - u) * (dy ? v : 1 - v) * (dz ? w : 1 - w);
    }
    return sum;
}

inline float clouds(Vec p)
{
    return noise(p) * 0.5f + noise(p * 2) * 0.25f + noise(p * 4) * 0.13f + noise(p * 8) * 0.06f;
}

/// How much of the second colour shows at a point.
inline float patternAt(Material::Pattern pattern, Vec p)
{
    switch (pattern) {
    case Material::Tiles: return 0.9f * float((wholePart(p.x) + wholePart(p.z)) & 1) + 0.2f * clouds(p * 3);
    case Material::Veins: return smooth(7 * std::abs(clouds(p * 3.3f) - 0.46f));
    case Material::Bands: return smooth(3 * noise({ 0, p.y * 7 + 2 * clouds(p * 1.5f), 0 }) - 1);
    case Material::Plain: break;
    }
    return 0;
}

/// What a ray meets first.
struct Hit {
    float distance = 1e9f;
    int object = 0; ///< 0 the sky, 1 the floor, 2 and up the spheres.
    Vec point {}, normal {};
    const Material* material = nullptr;
};

inline Hit findHit(Vec origin, Vec direction)
{
    Hit hit;
    if (direction.y < -1e-3f)
        hit = { -origin.y / direction.y, 1, {}, { 0, 1, 0 }, &floorTiles };
    for (const Sphere& sphere : spheres) {
        const Vec toCenter = sphere.center - origin;
        const float along = dot(toCenter, direction);
        const float inside = sphere.radius * sphere.radius - dot(toCenter, toCenter) + along * along;
        if (along > 0 && inside > 0 && along - std::sqrt(inside) < hit.distance)
            hit = { along - std::sqrt(inside), 2 + int(&sphere - spheres), {}, {}, &sphere.material };
    }
    hit.point = origin + direction * hit.distance;
    if (hit.object >= 2)
        hit.normal = (hit.point - spheres[hit.object - 2].center).unit();
    return hit;
}

/// The light of sun and sky that falls on a point, less what the spheres around it cover.
inline Vec incomingLight(Vec point, Vec normal)
{
    float sun = std::max(dot(normal, sunDirection), 0.f), open = 1;
    for (const Sphere& sphere : spheres) {
        const Vec toCenter = sphere.center - point;
        const float squared = dot(toCenter, toCenter), along = dot(toCenter, sunDirection);
        const float miss = std::sqrt(std::max(squared - along * along, 0.f)) - sphere.radius;
        if (along > 0)
            sun *= smooth(0.5f + 0.5f * miss / (sunRadius * along));
        const float facing = std::max(dot(normal, toCenter), 0.f) / std::sqrt(squared);
        open *= 1 - facing * std::min(sphere.radius * sphere.radius / squared, 1.f);
    }
    const Vec fromAround
        = mix(Vec { 0.16f, 0.13f, 0.11f }, Vec { 0.26f, 0.36f, 0.54f }, 0.5f + 0.5f * normal.y);
    return sunColor * sun + fromAround * open;
}

/// What comes back along a ray. Diffuse and reflection make the whole picture: the sky counts as diffuse.
struct Sample {
    Vec diffuse {}, reflection {};
    Hit hit {};
};

inline Sample trace(Vec origin, Vec direction, int bounces)
{
    const Hit hit = findHit(origin, direction);
    if (hit.object == 0)
        return { sky(direction), {}, hit };

    const Material& material = *hit.material;
    const float facing = std::clamp(-dot(direction, hit.normal), 0.f, 1.f);
    const Vec mirrored = mix(material.gloss, Vec { 1, 1, 1 }, power4(1 - facing) * (1 - facing));
    const Vec color = mix(material.color, material.second, patternAt(material.pattern, hit.point));
    Sample sample { color * (Vec { 1, 1, 1 } - mirrored) * incomingLight(hit.point, hit.normal), {}, hit };
    if (bounces > 0) {
        const Vec away = direction + hit.normal * (2 * facing);
        const Sample seen = trace(hit.point + hit.normal * 1e-3f, away, bounces - 1);
        sample.reflection = mirrored * (seen.diffuse + seen.reflection);
    }
    // The far floor, where tiles are smaller than a pixel, fades into the horizon.
    const float haze = hit.object == 1 ? smooth(hit.distance / 60) : 0.f;
    sample.diffuse = mix(sample.diffuse, sky(direction), haze);
    sample.reflection = sample.reflection * (1 - haze);
    return sample;
}

/// A pixel of the picture: the mean of 3 x 3 rays, the part of them that met an object, and what the middle
/// one met, since the mean of two depths, normals or object numbers would be none of the scene.
struct Pixel {
    Vec diffuse {}, reflection {};
    float alpha = 0;
    Hit hit {};
};

inline Pixel renderPixel(int x, int y, int width, int height)
{
    const Vec camera { 0.3f, 2.2f, 6.4f };
    const float scale = 0.72f / float(height);
    Pixel pixel;
    for (int i = 0; i < 9; ++i) {
        const int column = i % 3, row = i / 3;
        const float right = float(x) + (float(column) + 0.5f) / 3 - 0.5f * float(width);
        const float down = float(y) + (float(row) + 0.5f) / 3 - 0.5f * float(height);
        const Sample sample
            = trace(camera, Vec { right * scale - 0.04f, -down * scale - 0.22f, -1 }.unit(), 3);
        pixel.diffuse = pixel.diffuse + sample.diffuse * (1 / 9.f);
        pixel.reflection = pixel.reflection + sample.reflection * (1 / 9.f);
        pixel.alpha += sample.hit.object == 0 ? 0 : 1 / 9.f;
        if (i == 4)
            pixel.hit = sample.hit;
    }
    return pixel;
}

} // namespace scene
