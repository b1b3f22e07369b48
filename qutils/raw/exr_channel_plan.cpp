#include "qutils/raw/exr_channel_plan.h"

#include <algorithm>
#include <map>
#include <set>

namespace QUtils {

namespace {

constexpr int pictureId = 1, pictureId2 = 126, alphaId = 2, alphaId2 = 125;

/// OpenEXR keeps 255 bytes of a name; the rest of this is for suffixes.
constexpr std::size_t mostNameBytes = 220;

RawKind resolvedKind(const RawChannel& channel)
{
    if (channel.kind != RawKind::ByComponents)
        return channel.kind;
    return channel.components >= 3 ? RawKind::Color
        : channel.components == 2  ? RawKind::Vector
                                   : RawKind::Data;
}

Imf::PixelType fileType(int sampleType, bool isPicture, int bitsPerChannel)
{
    if (sampleType == RISAMPLE_UINT)
        return Imf::UINT;
    if (isPicture && bitsPerChannel == 16)
        return Imf::HALF;
    if (isPicture && bitsPerChannel == 32)
        return Imf::FLOAT;
    return sampleType == RISAMPLE_HALF ? Imf::HALF : Imf::FLOAT;
}

/// The names of a channel's components within its layer. An empty name stands for the layer's own.
std::vector<std::string> componentNames(RawKind kind, int components)
{
    static const char* const grey[] = { "Y", "A" };
    static const char* const colors[] = { "R", "G", "B", "A" };
    static const char* const axes[] = { "X", "Y", "Z", "W" };
    static const char* const depths[] = { "Z", "ZBack" };
    static const char* const numbers[] = { "0", "1", "2", "3" };
    const char* const* names = numbers;
    if (kind == RawKind::Color)
        names = components < 3 ? grey : colors;
    else if (kind == RawKind::Vector)
        names = axes;
    else if (kind == RawKind::Depth && components <= 2)
        names = depths;
    else if (components == 1)
        return { std::string() };
    return { names, names + components };
}

/// Whole characters of UTF-8 only.
std::string cutName(const std::string& name)
{
    std::size_t length = std::min(name.size(), mostNameBytes);
    while (length < name.size() && length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
        --length;
    return name.substr(0, length);
}

std::string joined(const std::string& layer, const std::string& component)
{
    return layer.empty() || component.empty() ? layer + component : layer + "." + component;
}

/// Picks names that no channel of the file has yet.
class NameList {
public:
    /// `layer` for all components of a channel, with a number behind it when any of its names is taken.
    std::string claim(const std::string& layer, const std::vector<std::string>& components)
    {
        std::string tried = layer;
        for (int& number = m_numbers.try_emplace(layer, 2).first->second; isTaken(tried, components);
             ++number)
            tried = layer + "_" + std::to_string(number);
        for (const std::string& component : components)
            m_taken.insert(joined(tried, component));
        return tried;
    }

private:
    bool isTaken(const std::string& layer, const std::vector<std::string>& components) const
    {
        return std::any_of(components.begin(), components.end(),
            [&](const std::string& component) { return m_taken.count(joined(layer, component)) != 0; });
    }

    std::set<std::string> m_taken;
    std::map<std::string, int> m_numbers; // The first that a repeated name has not tried yet.
};

/// The position of the first channel with the first of the ids that any channel has; -1 for none.
int findById(const std::vector<RawChannel>& channels, int id, int otherId)
{
    for (const int wanted : { id, otherId })
        for (std::size_t i = 0; i < channels.size(); ++i)
            if (channels[i].id == wanted)
                return int(i);
    return -1;
}

/// Collects the channels of a file.
class ExrChannelPlan {
public:
    ExrChannelPlan(const std::vector<RawChannel>& channels, int bitsPerChannel)
        : m_channels(channels), m_bits(bitsPerChannel), m_picture(findById(channels, pictureId, pictureId2)),
          m_alpha(findAlpha())
    {
    }

    std::vector<ExrChannel> make()
    {
        if (m_channels.empty())
            return { { "R", Imf::HALF, -1, 0, true }, { "G", Imf::HALF, -1, 0, true },
                { "B", Imf::HALF, -1, 0, true }, { "A", Imf::HALF, -1, 0, true } };
        if (m_picture >= 0)
            addPicture(); // First, so that no layer takes its names.
        for (int i = 0; i < int(m_channels.size()); ++i)
            if (i != m_picture && i != m_alpha)
                addLayer(i);
        return std::move(m_plan);
    }

private:
    const RawChannel& channel(int index) const { return m_channels[std::size_t(index)]; }

    /// The channel that becomes the picture's alpha; -1 when the picture has its own, or there is none.
    int findAlpha() const
    {
        if (m_picture < 0 || channel(m_picture).components == 2 || channel(m_picture).components == 4)
            return -1;
        const int alpha = findById(m_channels, alphaId, alphaId2);
        return alpha >= 0 && channel(alpha).components == 1 ? alpha : -1;
    }

    void addPicture()
    {
        std::vector<std::string> names = componentNames(RawKind::Color, channel(m_picture).components);
        if (m_alpha >= 0)
            names.push_back("A");
        m_names.claim(std::string(), names);
        for (int i = 0; i < channel(m_picture).components; ++i)
            add(names[std::size_t(i)], m_picture, i, true);
        if (m_alpha >= 0)
            add("A", m_alpha, 0, true);
    }

    void addLayer(int index)
    {
        const RawKind kind = resolvedKind(channel(index));
        const std::vector<std::string> components = componentNames(kind, channel(index).components);
        const std::string wanted = cutName(channel(index).name);
        const std::string layer = m_names.claim(wanted.empty() ? "channel" : wanted, components);
        for (int i = 0; i < channel(index).components; ++i)
            add(joined(layer, components[std::size_t(i)]), index, i, kind == RawKind::Color);
    }

    void add(const std::string& name, int source, int component, bool isPicture)
    {
        m_plan.push_back(
            { name, fileType(channel(source).sampleType, isPicture, m_bits), source, component, isPicture });
    }

    const std::vector<RawChannel>& m_channels;
    int m_bits, m_picture, m_alpha;
    NameList m_names;
    std::vector<ExrChannel> m_plan;
};

} // namespace

std::vector<ExrChannel> planExrChannels(const std::vector<RawChannel>& channels, int bitsPerChannel)
{
    return ExrChannelPlan(channels, bitsPerChannel).make();
}

bool toleratesLoss(const std::vector<ExrChannel>& channels)
{
    return std::all_of(channels.begin(), channels.end(),
        [](const ExrChannel& channel) { return channel.isPicture && channel.type != Imf::UINT; });
}

} // namespace QUtils
