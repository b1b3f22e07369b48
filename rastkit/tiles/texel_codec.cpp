#include "rastkit/tiles/texel_codec.h"

#include "rastkit/model/pixel_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace QUtils {

namespace {

/// Pixels that are converted at a time, so that what is in between stays in the first-level cache.
constexpr std::size_t blockPixels = 256;

template <typename T> T* as(std::uint8_t* stored)
{
    return reinterpret_cast<T*>(stored);
}
template <typename T> const T* as(const std::uint8_t* stored)
{
    return reinterpret_cast<const T*>(stored);
}

/// `work(first, count)` for each block.
template <typename Work> void inBlocks(std::size_t pixels, const Work& work)
{
    for (std::size_t first = 0; first < pixels; first += blockPixels)
        work(first, std::min(blockPixels, pixels - first));
}

template <std::size_t Channels>
void pickPacked(const unsigned int* argb, std::uint8_t* bytes, std::size_t pixels)
{
    for (std::size_t i = 0; i < pixels; ++i, bytes += Channels) {
        const unsigned int word = argb[i];
        bytes[0] = std::uint8_t(word >> 16);
        if (Channels >= 3) {
            bytes[1 % Channels] = std::uint8_t(word >> 8);
            bytes[2 % Channels] = std::uint8_t(word);
        }
        if (Channels % 2 == 0)
            bytes[Channels - 1] = std::uint8_t(word >> 24);
    }
}

using PickPacked = void (*)(const unsigned int* argb, std::uint8_t* bytes, std::size_t pixels);
constexpr PickPacked tablePickPacked[] = { pickPacked<1>, pickPacked<2>, pickPacked<3>, pickPacked<4> };

/// What halfs reach: beyond are infinities, which filters would turn into NaN. NaN stays.
float clampToHalf(float value)
{
    constexpr float most = 65504.0f;
    return value > most ? most : value < -most ? -most : value;
}

float clampToUnit(float value)
{
    return value > 0 ? std::min(value, 1.0f) : 0.0f; // NaN 0.
}

void storeHalfs(const float* samples, std::uint16_t* stored, std::size_t count)
{
    inBlocks(count, [&](std::size_t first, std::size_t block) {
        float clamped[blockPixels];
        for (std::size_t i = 0; i < block; ++i)
            clamped[i] = clampToHalf(samples[first + i]);
        pixelKernels().floatToHalf(clamped, stored + first, block);
    });
}

} // namespace

TexelCodec::TexelCodec(const TextureLayout& layout, const TextureSettings& settings)
    : m_channels(std::size_t(layout.channels)), m_colours(std::size_t(layout.colours())),
      m_sample(layout.sample), m_isCurved(settings.isSrgb && !settings.makeLinear),
      m_decodes(settings.isSrgb && settings.makeLinear),
      m_multiplies(settings.multiplyAlpha && layout.hasAlpha())
{
    if (settings.isSrgb)
        for (int byte = 0; byte < 256; ++byte)
            m_byteLight.push_back(float(decodeSrgb(byte / 255.0)));
    if (!m_isCurved)
        return;
    if (m_sample == TextureSample::Byte || m_sample == TextureSample::Short)
        m_numbers = std::make_unique<SrgbNumbers>(m_sample == TextureSample::Byte ? 255 : 65535);
    if (m_sample != TextureSample::Short && m_sample != TextureSample::Half)
        return;
    std::vector<std::uint16_t> all(65536);
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = std::uint16_t(i);
    m_light.resize(all.size());
    if (m_sample == TextureSample::Half)
        pixelKernels().halfToFloat(all.data(), m_light.data(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i)
        m_light[i]
            = float(decodeSrgb(m_sample == TextureSample::Half ? double(m_light[i]) : double(i) / 65535));
}

// --- From loaders ----------------------------------------------------------------------------------------

void TexelCodec::store(const unsigned int* argb, std::uint8_t* stored, std::size_t pixels) const
{
    if (m_sample == TextureSample::Byte && !m_decodes && !m_multiplies) {
        tablePickPacked[m_channels - 1](argb, stored, pixels);
        return;
    }
    inBlocks(pixels, [&](std::size_t first, std::size_t count) {
        std::uint8_t bytes[blockPixels * 4];
        float samples[blockPixels * 4];
        tablePickPacked[m_channels - 1](argb + first, bytes, count);
        pixelKernels().byteToFloat(bytes, samples, count * m_channels);
        if (m_decodes)
            for (std::size_t i = 0; i < count * m_channels; ++i)
                if (i % m_channels < m_colours)
                    samples[i] = m_byteLight[bytes[i]];
        if (m_multiplies)
            multiply(samples, count);
        storeSamples(samples, stored + first * m_channels * bytesOf(m_sample), count * m_channels);
    });
}

void TexelCodec::store(const float* rgba, std::uint8_t* stored, std::size_t pixels) const
{
    inBlocks(pixels, [&](std::size_t first, std::size_t count) {
        float samples[blockPixels * 4];
        pick(rgba + first * 4, samples, count);
        if (m_decodes)
            bend(samples, count, decodeSrgb);
        if (m_multiplies)
            multiply(samples, count);
        storeSamples(samples, stored + first * m_channels * bytesOf(m_sample), count * m_channels);
    });
}

void TexelCodec::pick(const float* rgba, float* samples, std::size_t pixels) const
{
    switch (m_channels) {
    case 1:
        for (std::size_t i = 0; i < pixels; ++i)
            samples[i] = rgba[i * 4];
        break;
    case 2:
        for (std::size_t i = 0; i < pixels; ++i) {
            samples[i * 2] = rgba[i * 4];
            samples[i * 2 + 1] = rgba[i * 4 + 3];
        }
        break;
    case 3:
        for (std::size_t i = 0; i < pixels; ++i)
            for (std::size_t c = 0; c < 3; ++c)
                samples[i * 3 + c] = rgba[i * 4 + c];
        break;
    default: std::copy_n(rgba, pixels * 4, samples); break;
    }
}

/// Multiplies colours by alpha. Opaque pixels stay as they are, to the bit.
void TexelCodec::multiply(float* samples, std::size_t pixels) const
{
    for (std::size_t i = 0; i < pixels; ++i, samples += m_channels) {
        const float alpha = samples[m_colours];
        if (alpha == 1)
            continue;
        for (std::size_t c = 0; c < m_colours; ++c)
            samples[c] = m_isCurved && alpha != 0
                ? float(encodeSrgb(decodeSrgb(double(samples[c])) * double(alpha)))
                : samples[c] * alpha;
    }
}

void TexelCodec::storeSamples(const float* samples, std::uint8_t* stored, std::size_t count) const
{
    const PixelKernels& kernels = pixelKernels();
    switch (m_sample) {
    case TextureSample::Byte: kernels.floatToByte(samples, stored, count); break;
    case TextureSample::Short: kernels.floatToUInt16(samples, as<std::uint16_t>(stored), count); break;
    case TextureSample::Half: storeHalfs(samples, as<std::uint16_t>(stored), count); break;
    case TextureSample::Float: std::memcpy(stored, samples, count * sizeof(float)); break;
    }
}

// --- To and from what is filtered ------------------------------------------------------------------------

/// Puts the colours, not alpha, through a curve.
template <typename Curve> void TexelCodec::bend(float* samples, std::size_t pixels, const Curve& curve) const
{
    for (std::size_t i = 0; i < pixels; ++i)
        for (std::size_t c = 0; c < m_colours; ++c)
            samples[i * m_channels + c] = float(curve(double(samples[i * m_channels + c])));
}

void TexelCodec::toFloats(const std::uint8_t* stored, float* samples, std::size_t pixels) const
{
    const PixelKernels& kernels = pixelKernels();
    const std::size_t count = pixels * m_channels;
    switch (m_sample) {
    case TextureSample::Byte: kernels.byteToFloat(stored, samples, count); break;
    case TextureSample::Short:
        kernels.uint16ToFloat(as<std::uint16_t>(stored), 1.0f / 65535, samples, count);
        break;
    case TextureSample::Half: kernels.halfToFloat(as<std::uint16_t>(stored), samples, count); break;
    case TextureSample::Float: std::memcpy(samples, stored, count * sizeof(float)); break;
    }
}

/// `linear` has alpha already.
template <typename T> void TexelCodec::lookUp(const T* stored, float* linear, std::size_t pixels) const
{
    const float* const light = sizeof(T) == 1 ? m_byteLight.data() : m_light.data();
    const std::size_t count = pixels * m_channels;
    if (m_colours == m_channels) {
        for (std::size_t i = 0; i < count; ++i)
            linear[i] = light[stored[i]];
        return;
    }
    for (std::size_t i = 0; i < count; i += m_channels)
        for (std::size_t c = 0; c < m_colours; ++c)
            linear[i + c] = light[stored[i + c]];
}

void TexelCodec::toLinear(const std::uint8_t* stored, float* linear, std::size_t pixels) const
{
    if (!m_isCurved || m_colours != m_channels || m_sample == TextureSample::Float)
        toFloats(stored, linear, pixels);
    if (!m_isCurved)
        return;
    if (m_sample == TextureSample::Float)
        bend(linear, pixels, decodeSrgb);
    else if (m_sample == TextureSample::Byte)
        lookUp(stored, linear, pixels);
    else
        lookUp(as<std::uint16_t>(stored), linear, pixels);
}

template <typename T> void TexelCodec::encode(const float* linear, T* stored, std::size_t pixels) const
{
    constexpr float most = sizeof(T) == 1 ? 255.0f : 65535.0f;
    const SrgbNumbers& numbers = *m_numbers;
    for (std::size_t i = 0; i < pixels * m_channels; i += m_channels) {
        for (std::size_t c = 0; c < m_colours; ++c)
            stored[i + c] = T(numbers(linear[i + c]));
        if (m_colours != m_channels)
            stored[i + m_colours] = T(std::lrint(clampToUnit(linear[i + m_colours]) * most));
    }
}

void TexelCodec::fromLinear(const float* linear, std::uint8_t* stored, std::size_t pixels) const
{
    if (!m_isCurved)
        storeSamples(linear, stored, pixels * m_channels);
    else if (m_sample == TextureSample::Byte)
        encode(linear, stored, pixels);
    else if (m_sample == TextureSample::Short)
        encode(linear, as<std::uint16_t>(stored), pixels);
    else
        inBlocks(pixels, [&](std::size_t first, std::size_t count) {
            float samples[blockPixels * 4];
            std::copy_n(linear + first * m_channels, count * m_channels, samples);
            bend(samples, count, encodeSrgb);
            storeSamples(samples, stored + first * m_channels * bytesOf(m_sample), count * m_channels);
        });
}

} // namespace QUtils
