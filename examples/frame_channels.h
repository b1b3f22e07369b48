#pragma once

// What the raw writers, which put all channels into one file, ask of a renderer.

#include "scene.h"

#include "rastkit/rastkit.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace example {

/// One channel, as the raw writers ask for it.
class Channel : public QUtils::RegionChannelCallback {
public:
    Channel(const char* name, int id, int sampleType, int components, int kind)
        : m_name(name), m_id(id), m_sampleType(sampleType), m_components(components), m_kind(kind)
    {
    }
    const char* getName() override { return m_name; }
    int getChannelId() override { return m_id; }
    int getSampleType() override { return m_sampleType; }
    int getNumComponents() override { return m_components; }
    int getKind() override { return m_kind; }

private:
    const char* m_name;
    int m_id, m_sampleType, m_components, m_kind;
};

enum Kind { Color = 1, Vector, Depth, Data };

/// The channels of the scene as it is computed, in linear light, in the order of their positions. The ids say
/// which is the picture and which its alpha; other numbers are free. The kind decides how other programs see
/// a channel.
class ChannelList {
public:
    enum Position { Beauty, Alpha, Distance, Normals, Diffuse, Reflection, ObjectId, Count };

    ChannelList()
    {
        for (Channel& channel : m_channels)
            m_table.add(&channel);
    }
    QUtils::RegionChannelTable* table() { return &m_table; }
    Channel& operator[](int position) { return m_channels[position]; }

private:
    Channel m_channels[Count] {
        { "beauty", 1, QUtils::RISAMPLE_FLOAT, 3, Color },
        { "alpha", 2, QUtils::RISAMPLE_FLOAT, 1, Data },
        { "depth", 10, QUtils::RISAMPLE_FLOAT, 1, Depth },
        { "normals", 11, QUtils::RISAMPLE_FLOAT, 3, Vector },
        { "diffuse", 12, QUtils::RISAMPLE_FLOAT, 3, Color },
        { "reflection", 13, QUtils::RISAMPLE_FLOAT, 3, Color },
        { "object", 14, QUtils::RISAMPLE_UINT, 1, Data },
    };
    QUtils::RegionChannelTable m_table;
};

/// The pixels of one bucket, or of a whole frame.
class Bucket : public QUtils::QURegionData {
public:
    /// Renders a rectangle of an image of `width` x `height` pixels.
    Bucket(ChannelList& channels, QUtils::RIRegionInfo region, int width, int height)
        : m_channels(channels), m_region(region)
    {
        for (int i = 0; i < ChannelList::Count; ++i)
            m_samples[i].resize(rowSamples(i) * std::size_t(region.bottom - region.top));
        for (int y = region.top; y < region.bottom; ++y)
            for (int x = region.left; x < region.right; ++x)
                store(x, y, scene::renderPixel(x, y, width, height));
    }

    QUtils::RIRegionInfo getRegion() override { return m_region; }
    const void* getRow(int channel, int y) override
    {
        return &m_samples[channel][rowSamples(channel) * std::size_t(y - m_region.top)];
    }

private:
    std::size_t rowSamples(int channel) const
    {
        return std::size_t(m_region.right - m_region.left)
            * std::size_t(m_channels[channel].getNumComponents());
    }
    /// The first sample of a pixel.
    std::uint32_t* at(int channel, int x, int y)
    {
        return &m_samples[channel][rowSamples(channel) * std::size_t(y - m_region.top)
            + std::size_t(x - m_region.left) * std::size_t(m_channels[channel].getNumComponents())];
    }
    void store(int x, int y, const scene::Pixel& pixel)
    {
        const scene::Vec beauty = pixel.diffuse + pixel.reflection;
        std::memcpy(at(ChannelList::Beauty, x, y), &beauty, sizeof beauty);
        std::memcpy(at(ChannelList::Alpha, x, y), &pixel.alpha, sizeof pixel.alpha);
        std::memcpy(at(ChannelList::Distance, x, y), &pixel.hit.distance, sizeof pixel.hit.distance);
        std::memcpy(at(ChannelList::Normals, x, y), &pixel.hit.normal, sizeof pixel.hit.normal);
        std::memcpy(at(ChannelList::Diffuse, x, y), &pixel.diffuse, sizeof pixel.diffuse);
        std::memcpy(at(ChannelList::Reflection, x, y), &pixel.reflection, sizeof pixel.reflection);
        *at(ChannelList::ObjectId, x, y) = std::uint32_t(pixel.hit.object);
    }

    ChannelList& m_channels;
    QUtils::RIRegionInfo m_region;
    std::vector<std::uint32_t> m_samples[ChannelList::Count]; // All samples have four bytes.
};

} // namespace example
