#include "rastkit/tiles/cache_core.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace QUtils {

namespace {

// --- Coordinates -----------------------------------------------------------------------------------------

/// A coordinate of the texture, brought to where the pixels are: 0 to 1, but for Black a bit more on both
/// sides. NaN becomes 0.
float wrapped(float coordinate, TextureWrap wrap)
{
    if (!(std::abs(coordinate) <= 1e30f)) { // Infinite, or as good as that; NaN.
        const bool isPeriod = wrap == TextureWrap::Periodic || wrap == TextureWrap::Mirror;
        coordinate = std::isnan(coordinate) || isPeriod ? 0.0f : std::copysign(2.0f, coordinate);
    }
    switch (wrap) {
    case TextureWrap::Clamp: return std::clamp(coordinate, 0.0f, 1.0f);
    case TextureWrap::Periodic: return coordinate - std::floor(coordinate);
    case TextureWrap::Mirror: {
        const float fold = coordinate - 2 * std::floor(coordinate / 2); // 0 to 2.
        return fold > 1 ? 2 - fold : fold;
    }
    case TextureWrap::Black: break;
    }
    return std::clamp(coordinate, -1.0f, 2.0f);
}

/// The number of a pixel of a level that is `size` pixels wide; `index` is at most one beyond its edges, but
/// for Black, where -1 stands for none.
int wrappedIndex(std::int64_t index, int size, TextureWrap wrap)
{
    if (index >= 0 && index < size)
        return int(index);
    if (wrap == TextureWrap::Black)
        return -1;
    if (wrap == TextureWrap::Periodic)
        return index < 0 ? size - 1 : 0;
    return index < 0 ? 0 : size - 1;
}

/// Two levels and how much of the second one: by the binary logarithm of the sizes of their pixels.
struct LevelBlend {
    int level;
    float second; ///< 0: the first one alone.
};

LevelBlend levelsFor(const TextureDescription& description, float width)
{
    const TextureDescription::Level* const levels = description.levels;
    const int last = description.levelCount - 1;
    const float size = width > 0 ? std::log2(width) : -INFINITY; // NaN: as sharp as can be.
    if (size <= levels[0].logSize)
        return { 0, 0 };
    int level = 0;
    while (level < last && size >= levels[level + 1].logSize)
        ++level;
    if (level == last)
        return { last, 0 };
    const float span = levels[level + 1].logSize - levels[level].logSize;
    return { level, std::clamp((size - levels[level].logSize) / span, 0.0f, 1.0f) };
}

/// The two pixels in one direction between whose centres a place lies.
struct Neighbours {
    int first, second; ///< -1: black.
    float weight; ///< Of the second one.

    Neighbours(float coordinate, int size, TextureWrap wrap)
    {
        const double place = double(coordinate) * size - 0.5;
        auto whole = std::int64_t(place);
        if (place < double(whole))
            --whole;
        weight = float(place - double(whole));
        first = wrappedIndex(whole, size, wrap);
        second = weight == 0 ? first : wrappedIndex(whole + 1, size, wrap);
    }

    bool areAdjacent() const { return second == first + 1 && first >= 0; }
};

float mixed(float a, float b, float weight)
{
    return a + (b - a) * weight;
}

/// Also of what is not finite: a pixel with no weight does not count, and infinity stays what it is.
float mixedInfinite(float a, float b, float weight)
{
    if (weight == 0 || a == b)
        return a;
    return weight == 1 ? b : a * (1 - weight) + b * weight;
}

bool hasNaN(const float* rgba)
{
    return std::isnan(rgba[0] + rgba[1] + rgba[2] + rgba[3]);
}

/// Two pixels.
void mix(const float* a, const float* b, float weight, float* rgba)
{
    for (int i = 0; i < 4; ++i)
        rgba[i] = mixed(a[i], b[i], weight);
    if (hasNaN(rgba)) [[unlikely]]
        for (int i = 0; i < 4; ++i)
            rgba[i] = mixedInfinite(a[i], b[i], weight);
}

/// Four pixels, in rows of two.
template <typename Mixed>
void mixRows(const float* upper, const float* lower, float x, float y, Mixed mixedOf, float* rgba)
{
    for (int i = 0; i < 4; ++i)
        rgba[i] = mixedOf(mixedOf(upper[i], upper[i + 4], x), mixedOf(lower[i], lower[i + 4], x), y);
}

std::size_t sampleNumber(const TileEntry& tile, int x, int y)
{
    return (std::size_t(y) * std::size_t(tile.width) + std::size_t(x)) * 4;
}

} // namespace

/// The pixels of one level around a place, from the tiles that they are in.
class LevelSampler {
public:
    LevelSampler(CacheCore& cache, TextureRecord& texture, const TextureDescription& description, int level)
        : m_cache(cache), m_texture(texture), m_description(description), m_level(level)
    {
    }
    LevelSampler(const LevelSampler&) = delete;
    LevelSampler& operator=(const LevelSampler&) = delete;
    ~LevelSampler() { unpin(); }

    struct Answer {
        ImgErrorCode error = IMGERR_NONE;
        bool isOutdated = false; ///< As in CacheCore::Pinned.

        bool isGood() const { return error == IMGERR_NONE && !isOutdated; }
    };

    /// Bilinear.
    Answer sample(float s, float t, TextureWrap wrap, float* rgba)
    {
        const MipLevel& shape = m_description.levels[m_level].shape;
        const Neighbours x(s, shape.width, wrap), y(t, shape.height, wrap);
        float upper[8], lower[8]; // Two pixels each.
        if (!fetchPair(x, y.first, upper) || !fetchPair(x, y.second, lower))
            return m_answer;
        mixRows(
            upper, lower, x.weight, y.weight, [](auto... each) { return mixed(each...); }, rgba);
        if (hasNaN(rgba)) [[unlikely]]
            mixRows(
                upper, lower, x.weight, y.weight, [](auto... each) { return mixedInfinite(each...); }, rgba);
        return {};
    }

private:
    bool fetchPair(const Neighbours& x, int y, float* pixels)
    {
        if (x.areAdjacent() && y >= 0) {
            const int tileX = x.first / m_description.tileWidth;
            const int inTile = x.first - tileX * m_description.tileWidth;
            if (inTile + 1 < m_description.tileWidth) {
                const int tileY = y / m_description.tileHeight;
                if (!pin(tileX, tileY))
                    return false;
                const std::size_t first = sampleNumber(*m_tile, inTile, y - tileY * m_description.tileHeight);
                decodeSamples(m_tile->encoding, m_tile->data, first, pixels, 8);
                return true;
            }
        }
        return fetch(x.first, y, pixels) && fetch(x.second, y, pixels + 4);
    }

    bool fetch(int x, int y, float* pixel)
    {
        if (x < 0 || y < 0) {
            std::fill_n(pixel, 4, 0.0f);
            return true;
        }
        const int tileX = x / m_description.tileWidth, tileY = y / m_description.tileHeight;
        if (!pin(tileX, tileY))
            return false;
        const std::size_t first = sampleNumber(
            *m_tile, x - tileX * m_description.tileWidth, y - tileY * m_description.tileHeight);
        decodeSamples(m_tile->encoding, m_tile->data, first, pixel, 4);
        return true;
    }

    bool pin(int tileX, int tileY)
    {
        if (m_tile && tileX == m_tileX && tileY == m_tileY)
            return true;
        unpin();
        const CacheCore::Pinned pinned = m_cache.pin(m_texture, m_description, tileX, tileY, m_level);
        m_tile = pinned.entry;
        m_answer = { pinned.error, pinned.isOutdated };
        m_tileX = tileX;
        m_tileY = tileY;
        return m_tile != nullptr;
    }

    void unpin()
    {
        if (m_tile)
            CacheCore::unpin(*m_tile);
        m_tile = nullptr;
    }

    CacheCore& m_cache;
    TextureRecord& m_texture;
    const TextureDescription& m_description;
    const int m_level;
    TileEntry* m_tile = nullptr;
    int m_tileX = 0, m_tileY = 0;
    Answer m_answer;
};

inline namespace RASTKIT_ABI {

PinnedTile TileCache::tileAt(
    const Texture& texture, float s, float t, float width, TextureWrap wrap, int* x, int* y)
{
    *x = *y = 0;
    TextureRecord* const record = texture.m_record;
    if (!record || !m_state)
        return { nullptr, texture.error() };
    s = std::isnan(s) ? 0 : s;
    t = std::isnan(t) ? 0 : t;
    for (;;) {
        const TextureDescription& description = *record->description.load(std::memory_order_acquire);
        if (description.error != IMGERR_NONE) // Of this description: there may be another by now.
            return { nullptr, m_state->pin(*record, description, 0, 0, 0).error };
        if (wrap == TextureWrap::Black && !(s >= 0 && s <= 1 && t >= 0 && t <= 1))
            return { nullptr, IMGERR_NONE };
        const LevelBlend blend = levelsFor(description, width);
        const int level = blend.level + (blend.second > 0.5f ? 1 : 0);
        const MipLevel& shape = description.levels[level].shape;
        const auto pixel = [wrap](float coordinate, int size) {
            return std::min(int(double(wrapped(coordinate, wrap)) * size), size - 1);
        };
        const int px = pixel(s, shape.width), py = pixel(t, shape.height);
        const int tx = px / description.tileWidth, ty = py / description.tileHeight;
        const CacheCore::Pinned pinned = m_state->pin(*record, description, tx, ty, level);
        if (pinned.isOutdated)
            continue;
        *x = px - tx * description.tileWidth;
        *y = py - ty * description.tileHeight;
        return { pinned.entry, pinned.error };
    }
}

ImgErrorCode TileCache::sample(
    const Texture& texture, float s, float t, float width, TextureWrap wrap, float* rgba)
{
    std::fill_n(rgba, 4, 0.0f);
    TextureRecord* const record = texture.m_record;
    if (!record || !m_state)
        return texture.error();
    s = wrapped(s, wrap);
    t = wrapped(t, wrap);
    for (;;) {
        const TextureDescription& description = *record->description.load(std::memory_order_acquire);
        if (description.error != IMGERR_NONE)
            return m_state->pin(*record, description, 0, 0, 0).error;
        const LevelBlend blend = levelsFor(description, width);
        const auto sampleLevel = [&](int level, float* values) {
            // Ends here: no tile stays pinned while one of the other level may have to be decoded.
            LevelSampler sampler(*m_state, *record, description, level);
            return sampler.sample(s, t, wrap, values);
        };
        float fine[4], coarse[4];
        LevelSampler::Answer answer = sampleLevel(blend.level, fine);
        if (answer.isGood() && blend.second != 0)
            answer = sampleLevel(blend.level + 1, coarse);
        if (answer.isOutdated)
            continue;
        if (answer.error != IMGERR_NONE)
            return answer.error;
        if (blend.second == 0)
            std::copy_n(fine, 4, rgba);
        else
            mix(fine, coarse, blend.second, rgba);
        return IMGERR_NONE;
    }
}

} // namespace RASTKIT_ABI

} // namespace QUtils
