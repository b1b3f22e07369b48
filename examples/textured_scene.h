#pragma once

// What textured_render renders: a street of pictures on a floor of textured slabs, and three globes. Each
// object says where a ray meets it and which point of which texture is there.

#include "scene.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace textured {

using scene::Vec;

constexpr float farAway = 1e9f;

constexpr Vec cross(Vec a, Vec b)
{
    return { a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x };
}

/// A place in a texture, 0 to 1 from its top left corner.
struct Place {
    float s, t;

    friend constexpr Place operator-(Place a, Place b) { return { a.s - b.s, a.t - b.t }; }
};

/// A number of its own for each slab, picture or globe, by which it has its texture.
constexpr std::uint32_t shuffled(int a, int b)
{
    std::uint32_t number = std::uint32_t(a) * 0x9c4f2a6bu ^ std::uint32_t(b) * 0x6d35e8c1u;
    number = (number ^ number >> 15) * 0x3f9ad645u;
    return number ^ number >> 13;
}

/// Something with a texture on it.
class Object {
public:
    virtual ~Object() = default;
    /// How far a ray goes until it meets the object; farAway when it does not.
    virtual float distance(Vec origin, Vec direction) const = 0;
    virtual Vec normalAt(Vec point) const = 0;
    /// Goes on evenly around any point near which the texture is the same, also beyond 0 and 1.
    virtual Place placeAt(Vec point) const = 0;
    virtual std::uint32_t textureAt(Vec point) const = 0;
    virtual bool isRound() const { return false; }
};

/// Slabs that are two units wide, to the horizon.
class Floor : public Object {
public:
    float distance(Vec origin, Vec direction) const override
    {
        return direction.y < -1e-4f ? -origin.y / direction.y : farAway;
    }
    Vec normalAt(Vec) const override { return { 0, 1, 0 }; }
    Place placeAt(Vec point) const override { return { point.x / slab, point.z / slab }; }
    std::uint32_t textureAt(Vec point) const override
    {
        return shuffled(scene::wholePart(point.x / slab), scene::wholePart(point.z / slab));
    }

private:
    static constexpr float slab = 2;
};

/// A picture that stands upright.
class Picture : public Object {
public:
    constexpr Picture(int number, Vec corner, Vec right, float height)
        : m_number(number), m_corner(corner), m_right(right), m_height(height)
    {
    }
    float distance(Vec origin, Vec direction) const override
    {
        const Vec normal = normalAt({});
        const float towards = dot(direction, normal), far = dot(m_corner - origin, normal) / towards;
        if (std::abs(towards) < 1e-6f || far < 1e-3f)
            return farAway;
        const Place place = placeAt(origin + direction * far);
        const bool isInside = place.s >= 0 && place.s <= 1 && place.t >= 0 && place.t <= 1;
        return isInside ? far : farAway;
    }
    Vec normalAt(Vec) const override { return cross(m_right, { 0, 1, 0 }).unit(); }
    Place placeAt(Vec point) const override
    {
        const Vec inside = point - m_corner;
        return { dot(inside, m_right) / dot(m_right, m_right), -inside.y / m_height };
    }
    std::uint32_t textureAt(Vec) const override { return shuffled(m_number, 7); }

private:
    int m_number;
    Vec m_corner, m_right; ///< The top left corner, and the way from there to the top right one.
    float m_height;
};

class Globe : public Object {
public:
    constexpr Globe(int number, Vec center, float radius)
        : m_number(number), m_center(center), m_radius(radius)
    {
    }
    float distance(Vec origin, Vec direction) const override
    {
        const Vec toCenter = m_center - origin;
        const float along = dot(toCenter, direction);
        const float inside = m_radius * m_radius - dot(toCenter, toCenter) + along * along;
        return along > 0 && inside > 0 ? along - std::sqrt(inside) : farAway;
    }
    Vec normalAt(Vec point) const override { return (point - m_center).unit(); }
    Place placeAt(Vec point) const override
    {
        constexpr float pi = 3.14159265f;
        const Vec normal = normalAt(point);
        const float round = std::atan2(normal.x, normal.z) / pi; // -1 to 1: the texture goes round twice.
        return { round, std::acos(std::clamp(normal.y, -1.f, 1.f)) / pi };
    }
    std::uint32_t textureAt(Vec) const override { return shuffled(m_number, 3); }
    bool isRound() const override { return true; }

private:
    int m_number;
    Vec m_center;
    float m_radius;
};

inline const Floor ground;
inline const Globe globes[] { { 0, { -1.5f, 1.1f, -2.5f }, 1.1f }, { 1, { 1.3f, 0.8f, -0.6f }, 0.8f },
    { 2, { 0.4f, 0.45f, 1.6f }, 0.45f } };

/// Number `number` from the front, on either side of the street.
inline Picture pictureAt(int number, bool isLeft)
{
    const int row = number / 2;
    const float z = 1.5f - 4 * float(row);
    const Vec corner = isLeft ? Vec { -4, 3.4f, z } : Vec { 4, 3.4f, z - 3 };
    return { number, corner, isLeft ? Vec { 0, 0, -3 } : Vec { 0, 0, 3 }, 3 };
}

constexpr int pictureCount = 30;
inline const std::vector<Picture> pictures = [] {
    std::vector<Picture> all;
    all.reserve(pictureCount);
    for (int i = 0; i < pictureCount; ++i)
        all.push_back(pictureAt(i, i % 2 == 0));
    return all;
}();

/// What a ray meets first; no object is the sky.
struct Hit {
    float distance = farAway;
    const Object* object = nullptr;

    void meet(const Object& other, Vec origin, Vec direction)
    {
        const float met = other.distance(origin, direction);
        if (met < distance)
            *this = { met, &other };
    }
};

inline Hit findHit(Vec origin, Vec direction)
{
    Hit hit;
    hit.meet(ground, origin, direction);
    for (const Picture& picture : pictures)
        hit.meet(picture, origin, direction);
    for (const Globe& globe : globes)
        hit.meet(globe, origin, direction);
    return hit;
}

/// The part of a texture that a ray sees: its middle, and what one ray further right and further down is away
/// from it.
struct Footprint {
    Place middle, right, down;
};

/// Rays are compared where they meet the plane that touches the object at the point.
inline Footprint footprintAt(const Hit& hit, Vec origin, Vec direction, Vec toRight, Vec below)
{
    const Vec point = origin + direction * hit.distance, normal = hit.object->normalAt(point);
    const auto meet = [&](Vec other) {
        const float towards = dot(other, normal);
        const float far = std::abs(towards) < 1e-6f ? hit.distance : dot(point - origin, normal) / towards;
        return hit.object->placeAt(origin + other * std::clamp(far, 0.f, 2 * hit.distance));
    };
    const auto nearest = [&](Place step) -> Place { // Around the seam of a globe.
        return hit.object->isRound() ? Place { step.s - std::round(step.s / 2) * 2, step.t } : step;
    };
    const Place middle = hit.object->placeAt(point);
    return { middle, nearest(meet(toRight) - middle), nearest(meet(below) - middle) };
}

/// The light of sun and sky on a point, less what the globes cover.
inline Vec lightAt(Vec point, Vec normal)
{
    const Vec sun = Vec { 0.35f, 0.8f, 0.45f }.unit(), start = point + normal * 1e-3f;
    float direct = std::max(dot(normal, sun), 0.f);
    for (const Globe& globe : globes)
        if (globe.distance(start, sun) < farAway)
            direct = 0;
    return Vec { 0.42f, 0.45f, 0.5f } + Vec { 0.75f, 0.7f, 0.6f } * direct;
}

inline Vec skyAt(Vec direction)
{
    return mix(Vec { 0.75f, 0.82f, 0.9f }, Vec { 0.25f, 0.45f, 0.8f },
        scene::smooth(std::max(direction.y, 0.f) * 2.2f));
}

} // namespace textured
