#pragma once

#include "support/temp_file.h"

#include <string>
#include <zlib.h>

namespace testing_support {

/// Numbers with their most significant byte first.
inline void putBig(Bytes& bytes, std::uint64_t value, int count)
{
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
        bytes.push_back(std::uint8_t(value >> shift));
}

inline Bytes big(std::uint64_t value, int count)
{
    Bytes bytes;
    putBig(bytes, value, count);
    return bytes;
}

inline Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes bytes;
    for (const Bytes& part : parts)
        bytes.insert(bytes.end(), part.begin(), part.end());
    return bytes;
}

inline Bytes textBytes(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

inline Bytes deflated(const Bytes& bytes)
{
    Bytes packed(compressBound(uLong(bytes.size())));
    uLongf count = uLongf(packed.size());
    EXPECT_EQ(compress(packed.data(), &count, bytes.data(), uLong(bytes.size())), Z_OK);
    packed.resize(count);
    return packed;
}

/// A Photoshop file built from named fields; starts as an RGB picture of 8 bits without layers.
struct PsdBytes {
    std::string signature = "8BPS";
    int version = 1, channels = 3;
    std::uint32_t width = 1, height = 1;
    int depth = 8, mode = 3;
    Bytes colorData = {}, resources = {};
    Bytes layerSection = {}; ///< What follows its length.
    int compression = 0;
    Bytes picture = {}; ///< What follows the number of its compression.

    bool isLarge() const { return version == 2; }

    /// Bytes 0 for the whole picture, not compressed.
    Bytes blank() const
    {
        const std::size_t rowBytes = (std::size_t(width) * std::size_t(depth) + 7) / 8;
        return Bytes(rowBytes * height * std::size_t(channels), 0);
    }

    Bytes bytes() const
    {
        Bytes b = textBytes(signature);
        putBig(b, std::uint64_t(version), 2), putBig(b, 0, 6), putBig(b, std::uint64_t(channels), 2);
        putBig(b, height, 4), putBig(b, width, 4);
        putBig(b, std::uint64_t(depth), 2), putBig(b, std::uint64_t(mode), 2);
        putBig(b, colorData.size(), 4);
        b = joined({ b, colorData, big(resources.size(), 4), resources });
        putBig(b, layerSection.size(), isLarge() ? 8 : 4);
        return joined({ b, layerSection, big(std::uint64_t(compression), 2), picture });
    }

    /// One image resource.
    static Bytes resource(int id, const Bytes& data, const std::string& name = "")
    {
        Bytes b = textBytes("8BIM");
        putBig(b, std::uint64_t(id), 2);
        putBig(b, name.size(), 1);
        b = joined({ b, textBytes(name), Bytes(1 - name.size() % 2, 0), big(data.size(), 4), data });
        return joined({ b, Bytes(data.size() % 2, 0) });
    }

    /// A layer section that says that the merged picture is transparent, and has no layers.
    Bytes transparentSection() const
    {
        const int lengthBytes = isLarge() ? 8 : 4;
        return joined({ big(2, lengthBytes), big(0xFFFF, 2), big(0, 4) });
    }
};

/// One record of the list of layers with its data; starts as a layer without pixels.
struct PsdLayerBytes {
    std::string name = "Layer";
    int top = 0, left = 0, bottom = 0, right = 0;
    std::string blend = "norm";
    int opacity = 255, clipping = 0, flags = 0;
    Bytes mask = {}, ranges = {}, blocks = {}; ///< Without their lengths; blocks are as `block` makes them.
    std::vector<std::pair<int, Bytes>> channels = {}; ///< The data with the number of their compression.

    /// A tagged block.
    static Bytes block(const std::string& key, const Bytes& data)
    {
        return joined(
            { textBytes("8BIM"), textBytes(key), big(data.size(), 4), data, Bytes(data.size() % 2, 0) });
    }

    /// All pixels of one colour; a channel for each component, the last one alpha.
    static PsdLayerBytes filled(
        const std::string& name, int left, int top, int right, int bottom, const Bytes& color)
    {
        PsdLayerBytes layer;
        layer.name = name;
        layer.top = top, layer.left = left, layer.bottom = bottom, layer.right = right;
        const std::size_t count = std::size_t((right - left) * (bottom - top));
        for (std::size_t c = 0; c < color.size(); ++c)
            layer.channels.push_back(
                { c + 1 == color.size() ? -1 : int(c), joined({ { 0, 0 }, Bytes(count, color[c]) }) });
        return layer;
    }
    static PsdLayerBytes groupEnd()
    {
        PsdLayerBytes layer;
        layer.name = "</group>";
        layer.blocks = block("lsct", big(3, 4));
        return layer;
    }
    static PsdLayerBytes folder(const std::string& name, const std::string& blend = "pass")
    {
        PsdLayerBytes layer;
        layer.name = name;
        layer.blocks = block("lsct", joined({ big(1, 4), textBytes("8BIM"), textBytes(blend) }));
        return layer;
    }
    /// A mask in raw bytes, all of one value.
    PsdLayerBytes& masked(
        int maskLeft, int maskTop, int maskRight, int maskBottom, int value, int outside, int maskFlags = 0)
    {
        mask.clear();
        for (const int side : { maskTop, maskLeft, maskBottom, maskRight })
            putBig(mask, std::uint64_t(std::uint32_t(side)), 4);
        mask.insert(mask.end(), { std::uint8_t(outside), std::uint8_t(maskFlags), 0, 0 });
        const std::size_t count = std::size_t((maskRight - maskLeft) * (maskBottom - maskTop));
        channels.push_back({ -2, joined({ { 0, 0 }, Bytes(count, std::uint8_t(value)) }) });
        return *this;
    }

    /// A mask of the layer's own behind that of `masked`, in raw bytes: its flags and rectangle stand behind
    /// those of the one that is made of it and a vector mask.
    PsdLayerBytes& maskedAlone(
        int maskLeft, int maskTop, int maskRight, int maskBottom, int value, int outside, int maskFlags = 0)
    {
        mask.resize(18);
        mask.insert(mask.end(), { std::uint8_t(maskFlags), std::uint8_t(outside) });
        for (const int side : { maskTop, maskLeft, maskBottom, maskRight })
            putBig(mask, std::uint64_t(std::uint32_t(side)), 4);
        const std::size_t count = std::size_t((maskRight - maskLeft) * (maskBottom - maskTop));
        channels.push_back({ -3, joined({ { 0, 0 }, Bytes(count, std::uint8_t(value)) }) });
        return *this;
    }

    Bytes record(bool isLarge) const
    {
        Bytes b;
        for (const int side : { top, left, bottom, right })
            putBig(b, std::uint64_t(std::uint32_t(side)), 4);
        putBig(b, channels.size(), 2);
        for (const auto& [id, data] : channels)
            putBig(b, std::uint64_t(std::uint16_t(id)), 2), putBig(b, data.size(), isLarge ? 8 : 4);
        b = joined({ b, textBytes("8BIM"), textBytes(blend) });
        for (const int byte : { opacity, clipping, flags, 0 })
            b.push_back(std::uint8_t(byte));
        Bytes padded = joined({ big(name.size(), 1), textBytes(name) });
        padded.resize((padded.size() + 3) / 4 * 4);
        const Bytes extra
            = joined({ big(mask.size(), 4), mask, big(ranges.size(), 4), ranges, padded, blocks });
        return joined({ b, big(extra.size(), 4), extra });
    }
};

/// The list of layers, bottom first: their number, their records, their data.
inline Bytes layerList(
    const std::vector<PsdLayerBytes>& layers, bool isLarge = false, bool isTransparent = false)
{
    const int count = int(layers.size());
    Bytes b = big(std::uint64_t(std::uint16_t(isTransparent ? -count : count)), 2);
    const auto append = [&](const Bytes& part) { b.insert(b.end(), part.begin(), part.end()); };
    for (const PsdLayerBytes& layer : layers)
        append(layer.record(isLarge));
    for (const PsdLayerBytes& layer : layers)
        for (const auto& [id, data] : layer.channels)
            append(data);
    b.resize(b.size() + b.size() % 2);
    return b;
}

/// The section around such a list.
inline Bytes layerSection(const std::vector<PsdLayerBytes>& layers, bool isLarge = false)
{
    const Bytes list = layerList(layers, isLarge);
    return joined({ big(list.size(), isLarge ? 8 : 4), list, big(0, 4) });
}

} // namespace testing_support
