#include "qutils/formats/psd/psd_blend.h"

#include <algorithm>
#include <cmath>

namespace QUtils {

namespace {

// --- Modes that take each component alone ----------------------------------------------------------------
// b is what is below, s the layer. Those that take a fill weaken themselves by it.

float colorBurn(float b, float s)
{
    return b >= 1 ? 1 : s <= 0 ? 0 : 1 - std::min(1.0f, (1 - b) / s);
}

float colorDodge(float b, float s)
{
    return b <= 0 ? 0 : s >= 1 ? 1 : std::min(1.0f, b / (1 - s));
}

float hardLight(float b, float s)
{
    return s <= 0.5f ? 2 * b * s : 1 - 2 * (1 - b) * (1 - s);
}

float softLight(float b, float s)
{
    return s <= 0.5f ? 2 * b * s + b * b * (1 - 2 * s)
                     : std::sqrt(std::max(b, 0.0f)) * (2 * s - 1) + 2 * b * (1 - s);
}

float vividLight(float b, float s)
{
    return s <= 0.5f ? colorBurn(b, 2 * s) : colorDodge(b, 2 * s - 1);
}

float pinLight(float b, float s)
{
    return s <= 0.5f ? std::min(b, 2 * s) : std::max(b, 2 * s - 1);
}

float hardMix(float b, float s, float fill)
{
    if (fill >= 1)
        return b + s >= 1 ? 1 : 0;
    return std::clamp((b - fill * (1 - s)) / (1 - fill), 0.0f, 1.0f);
}

float divide(float b, float s)
{
    return b <= 0 ? 0 : s <= 0 ? 1 : std::min(1.0f, b / s);
}

/// s as much nearer to what changes nothing as the fill leaves of it.
float weakened(float s, float neutral, float fill)
{
    return neutral + fill * (s - neutral);
}

// --- The loop --------------------------------------------------------------------------------------------

/// What of the layer, of the backdrop, and of both mixed goes into a pixel. `fill` counts where there is no
/// backdrop whose colour it could weaken the effect on.
struct Weights {
    Weights(float sourceAlpha, float backdropAlpha, float fill)
    {
        const float alone = sourceAlpha * (1 - backdropAlpha) * fill;
        alpha = backdropAlpha + alone;
        const float scale = alpha > 0 ? 1 / alpha : 0;
        source = alone * scale;
        backdrop = backdropAlpha * (1 - sourceAlpha) * scale;
        mixed = sourceAlpha * backdropAlpha * scale;
    }

    float alpha, source, backdrop, mixed;
};

template <typename Mix>
void blendEach(const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop,
    std::size_t count, const Mix& mix)
{
    for (std::size_t c = 0; c < blend.components; ++c) {
        const float* const s = source.color[c];
        float* const b = backdrop.color[c];
        for (std::size_t i = 0; i < count; ++i) {
            const Weights weights(source.alpha[i], backdrop.alpha[i], blend.fill);
            b[i] = weights.backdrop * b[i] + weights.source * s[i] + weights.mixed * mix(b[i], s[i]);
        }
    }
    for (std::size_t i = 0; i < count; ++i)
        backdrop.alpha[i] = Weights(source.alpha[i], backdrop.alpha[i], blend.fill).alpha;
}

// --- Modes that take whole colours -----------------------------------------------------------------------

struct Rgb {
    float r, g, b;
};

float luminosity(const Rgb& c)
{
    return 0.3f * c.r + 0.59f * c.g + 0.11f * c.b;
}

float largest(const Rgb& c)
{
    return std::max({ c.r, c.g, c.b });
}

float smallest(const Rgb& c)
{
    return std::min({ c.r, c.g, c.b });
}

float saturation(const Rgb& c)
{
    return largest(c) - smallest(c);
}

/// The colour as bright as that, brought back between 0 and 1 towards grey.
Rgb withLuminosity(Rgb c, float wanted)
{
    const float more = wanted - luminosity(c);
    c = { c.r + more, c.g + more, c.b + more };
    const float grey = luminosity(c), low = smallest(c), high = largest(c);
    const auto towardsGrey = [&](float factor) {
        c = { grey + (c.r - grey) * factor, grey + (c.g - grey) * factor, grey + (c.b - grey) * factor };
    };
    if (low < 0 && grey > low)
        towardsGrey(grey / (grey - low));
    if (high > 1 && high > grey)
        towardsGrey((1 - grey) / (high - grey));
    return c;
}

Rgb withSaturation(const Rgb& c, float wanted)
{
    const float low = smallest(c), range = saturation(c);
    if (range <= 0)
        return { 0, 0, 0 };
    const float factor = wanted / range;
    return { (c.r - low) * factor, (c.g - low) * factor, (c.b - low) * factor };
}

/// The four modes by which of hue, saturation and luminosity they take from the layer `s`.
Rgb mixColors(std::uint32_t mode, const Rgb& b, const Rgb& s)
{
    switch (mode) {
    case psdKey("hue "): return withLuminosity(withSaturation(s, saturation(b)), luminosity(b));
    case psdKey("sat "): return withLuminosity(withSaturation(b, saturation(s)), luminosity(b));
    case psdKey("colr"): return withLuminosity(s, luminosity(b));
    case psdKey("lum "): return withLuminosity(b, luminosity(s));
    case psdKey("dkCl"): return luminosity(s) < luminosity(b) ? s : b;
    default: return luminosity(s) > luminosity(b) ? s : b; // Lighter colour.
    }
}

/// Grey has brightness only: these modes take it from one of the two.
void blendGreys(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count)
{
    switch (blend.mode) {
    case psdKey("lum "): blendEach(blend, source, backdrop, count, [](float, float s) { return s; }); break;
    case psdKey("dkCl"):
        blendEach(blend, source, backdrop, count, [](float b, float s) { return std::min(b, s); });
        break;
    case psdKey("lgCl"):
        blendEach(blend, source, backdrop, count, [](float b, float s) { return std::max(b, s); });
        break;
    default: blendEach(blend, source, backdrop, count, [](float b, float) { return b; });
    }
}

/// Black ink stays with what gives the brightness.
void blendColors(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count)
{
    if (blend.components == 1) {
        blendGreys(blend, source, backdrop, count);
        return;
    }
    const auto pixel = [](const PsdComponents& from, std::size_t i) {
        return Rgb { from.color[0][i], from.color[1][i], from.color[2][i] };
    };
    const bool hasBlack = blend.components == psdMostComponents;
    const float* const black
        = (blend.mode == psdKey("lum ") ? source : backdrop).color[psdMostComponents - 1];
    for (std::size_t i = 0; i < count; ++i) {
        const Weights weights(source.alpha[i], backdrop.alpha[i], blend.fill);
        const Rgb mixed = mixColors(blend.mode, pixel(backdrop, i), pixel(source, i));
        const float mixedColor[] = { mixed.r, mixed.g, mixed.b, hasBlack ? black[i] : 0 };
        for (std::size_t c = 0; c < blend.components; ++c) {
            float& b = backdrop.color[c][i];
            b = weights.backdrop * b + weights.source * source.color[c][i] + weights.mixed * mixedColor[c];
        }
        backdrop.alpha[i] = weights.alpha;
    }
}

// --- Dissolve --------------------------------------------------------------------------------------------

/// Between 0 and 1, the same for the same pixel.
float strewn(std::int64_t x, std::int64_t y)
{
    std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y) * 0x85EBCA77u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    h *= 0x297A2D39u;
    h ^= h >> 15;
    return float(h >> 8) / 16777216.0f;
}

void dissolve(const PsdBlend& blend, float* alpha, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        alpha[i] = alpha[i] > strewn(blend.x + std::int64_t(i), blend.y) ? 1.0f : 0.0f;
}

// --- The table -------------------------------------------------------------------------------------------

using BlendRow = void (*)(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count);

template <auto mix>
void row(const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count)
{
    blendEach(blend, source, backdrop, count, [](float b, float s) { return mix(b, s); });
}

template <auto mix>
void filledRow(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count)
{
    blendEach(
        blend, source, backdrop, count, [fill = blend.fill](float b, float s) { return mix(b, s, fill); });
}

struct Mode {
    std::uint32_t key;
    bool takesFill; ///< Otherwise the fill is a part of the alpha.
    BlendRow blend;
};

// clang-format off
constexpr Mode tableModes[] = {
    { psdKey("norm"), false, row<[](float, float s) { return s; }> },
    { psdKey("pass"), false, row<[](float, float s) { return s; }> },
    { psdKey("diss"), false, row<[](float, float s) { return s; }> },
    { psdKey("dark"), false, row<[](float b, float s) { return std::min(b, s); }> },
    { psdKey("mul "), false, row<[](float b, float s) { return b * s; }> },
    { psdKey("idiv"), true,  filledRow<[](float b, float s, float fill) { return colorBurn(b, weakened(s, 1, fill)); }> },
    { psdKey("lbrn"), true,  filledRow<[](float b, float s, float fill) { return std::max(0.0f, b + weakened(s, 1, fill) - 1); }> },
    { psdKey("lite"), false, row<[](float b, float s) { return std::max(b, s); }> },
    { psdKey("scrn"), false, row<[](float b, float s) { return b + s - b * s; }> },
    { psdKey("div "), true,  filledRow<[](float b, float s, float fill) { return colorDodge(b, fill * s); }> },
    { psdKey("lddg"), true,  filledRow<[](float b, float s, float fill) { return std::min(1.0f, b + fill * s); }> },
    { psdKey("over"), false, row<[](float b, float s) { return hardLight(s, b); }> },
    { psdKey("sLit"), false, row<softLight> },
    { psdKey("hLit"), false, row<hardLight> },
    { psdKey("vLit"), true,  filledRow<[](float b, float s, float fill) { return vividLight(b, weakened(s, 0.5f, fill)); }> },
    { psdKey("lLit"), true,  filledRow<[](float b, float s, float fill) { return std::clamp(b + 2 * weakened(s, 0.5f, fill) - 1, 0.0f, 1.0f); }> },
    { psdKey("pLit"), false, row<pinLight> },
    { psdKey("hMix"), true,  filledRow<hardMix> },
    { psdKey("diff"), true,  filledRow<[](float b, float s, float fill) { return std::abs(b - fill * s); }> },
    { psdKey("smud"), false, row<[](float b, float s) { return b + s - 2 * b * s; }> },
    { psdKey("fsub"), false, row<[](float b, float s) { return std::max(0.0f, b - s); }> },
    { psdKey("fdiv"), false, row<divide> },
    { psdKey("hue "), false, blendColors },
    { psdKey("sat "), false, blendColors },
    { psdKey("colr"), false, blendColors },
    { psdKey("lum "), false, blendColors },
    { psdKey("dkCl"), false, blendColors },
    { psdKey("lgCl"), false, blendColors },
};
// clang-format on

const Mode* findMode(std::uint32_t key)
{
    const auto found = std::find_if(
        std::begin(tableModes), std::end(tableModes), [&](const Mode& mode) { return mode.key == key; });
    return found == std::end(tableModes) ? nullptr : found;
}

} // namespace

bool isKnownPsdBlendMode(std::uint32_t mode)
{
    return findMode(mode) != nullptr;
}

void blendPsdRow(
    const PsdBlend& blend, const PsdComponents& source, const PsdComponents& backdrop, std::size_t count)
{
    const Mode* const found = findMode(blend.mode);
    const Mode& mode = found ? *found : tableModes[0];
    PsdBlend rest = blend;
    if (!mode.takesFill && blend.fill < 1) {
        for (std::size_t i = 0; i < count; ++i)
            source.alpha[i] *= blend.fill;
        rest.fill = 1;
    }
    if (mode.key == psdKey("diss"))
        dissolve(blend, source.alpha, count);
    mode.blend(rest, source, backdrop, count);
}

} // namespace QUtils
