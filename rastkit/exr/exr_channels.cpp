#include "rastkit/exr/exr_channels.h"

#include "rastkit/exr/exr_header.h"
#include "rastkit/exr/exr_library.h"

#include <ImfChannelList.h>

#include <initializer_list>
#include <string_view>
#include <strings.h>

namespace QUtils {

namespace {

bool isNamed(const char* name, const char* wanted)
{
    return strcasecmp(name, wanted) == 0;
}

/// The sizes of a window, low 32 bits: what a file may have fits.
int extent(int low, int high)
{
    return int(unsigned(high) - unsigned(low) + 1u);
}

void describeWindows(const Imf::Header& header, IMGINFO& info)
{
    const Imath::Box2i& data = header.dataWindow();
    const Imath::Box2i& display = header.displayWindow();
    info.dataWindowX = data.min.x;
    info.dataWindowY = data.min.y;
    info.width = info.dataWindowWidth = extent(data.min.x, data.max.x);
    info.height = info.dataWindowHeight = extent(data.min.y, data.max.y);
    info.displayWindowX = display.min.x;
    info.displayWindowY = display.min.y;
    info.displayWindowWidth = extent(display.min.x, display.max.x);
    info.displayWindowHeight = extent(display.min.y, display.max.y);
}

int bitsOf(bool isHalf)
{
    return isHalf ? 16 : 32;
}

} // namespace

void loadExrHeader_common(const Imf::Header& header, IMGINFO* info)
{
    startExrLibrary();
    if (!info)
        return;
    bool hasColor = false, hasLuminance = false, hasAlpha = false;
    Imf::PixelType colorType = Imf::HALF, luminanceType = Imf::HALF;
    const Imf::ChannelList& channels = header.channels();
    for (auto channel = channels.begin(); channel != channels.end(); ++channel) {
        const char* const name = channel.name();
        if (isNamed(name, "R") || isNamed(name, "G") || isNamed(name, "B")) {
            hasColor = true;
            colorType = channel.channel().type; // Of the last one in the order of names.
        } else if (isNamed(name, "A")) {
            hasAlpha = true;
        } else if (isNamed(name, "Y")) {
            hasLuminance = true;
            luminanceType = channel.channel().type;
        }
    }

    *info = IMGINFO {};
    const bool isGrey = hasLuminance && !hasColor;
    info->numChannels = (isGrey ? 1 : 3) + (hasAlpha ? 1 : 0);
    info->bitsPerPixel = info->numChannels * bitsOf((isGrey ? luminanceType : colorType) == Imf::HALF);
    describeWindows(header, *info);
}

// --- Picking the channels --------------------------------------------------------------------------------

namespace {

/// The names of a file's channels, and questions about them.
class ChannelNames {
public:
    explicit ChannelNames(const Imf::ChannelList& list) : m_list(list) { }

    /// The channel's name as the file writes it, preferably as it is asked for; empty when there is none.
    std::string find(const std::string& wanted) const
    {
        if (m_list.findChannel(wanted))
            return wanted;
        for (auto channel = m_list.begin(); channel != m_list.end(); ++channel)
            if (isNamed(channel.name(), wanted.c_str()))
                return channel.name();
        return {};
    }
    std::string findOr(const std::string& wanted) const
    {
        const std::string found = find(wanted);
        return found.empty() ? wanted : found;
    }
    bool has(const std::string& wanted) const { return !find(wanted).empty(); }

    bool areHalf(const ExrChannels& picked) const
    {
        for (const std::string& name : picked.names) {
            const Imf::Channel* const channel = name.empty() ? nullptr : m_list.findChannel(name);
            if (channel && channel->type != Imf::HALF)
                return false;
        }
        return true;
    }

    const Imf::ChannelList& list() const { return m_list; }

private:
    const Imf::ChannelList& m_list;
};

/// Takes the channels `layer` + `letters`, when the file has one of them.
bool pickColors(const ChannelNames& names, const std::string& layer,
    std::initializer_list<const char*> letters, ExrChannels& picked)
{
    std::size_t index = 0;
    bool found = false;
    for (const char* const letter : letters) {
        found = found || names.has(layer + letter);
        picked.names[index++] = names.findOr(layer + letter);
    }
    if (!found)
        return false;
    picked.kind = ExrChannels::Kind::Color;
    picked.names[3] = names.findOr(layer + "A");
    picked.hasAlpha = names.has(layer + "A");
    return true;
}

ExrChannels greyOf(const ChannelNames& names, const std::string& grey, const std::string& alpha)
{
    ExrChannels picked;
    picked.kind = ExrChannels::Kind::Grey;
    picked.names[0] = grey;
    picked.names[1] = names.findOr(alpha);
    picked.hasAlpha = names.has(alpha);
    return picked;
}

/// The layer of a channel with its dot; empty when it is in none.
std::string layerOf(const std::string& name)
{
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(0, dot + 1);
}

/// The colours of the first layer that has some, or else the coordinates of the first that has all three.
bool pickLayer(const ChannelNames& names, ExrChannels& picked)
{
    const Imf::ChannelList& list = names.list();
    for (auto channel = list.begin(); channel != list.end(); ++channel) {
        const std::string layer = layerOf(channel.name());
        if (!layer.empty() && pickColors(names, layer, { "R", "G", "B" }, picked))
            return true;
    }
    for (auto channel = list.begin(); channel != list.end(); ++channel) {
        const std::string layer = layerOf(channel.name());
        if (!layer.empty() && names.has(layer + "X") && names.has(layer + "Y") && names.has(layer + "Z"))
            return pickColors(names, layer, { "X", "Y", "Z" }, picked);
    }
    return false;
}

/// The first channel that is not alpha, as grey; alpha itself when there is nothing else.
ExrChannels pickAny(const ChannelNames& names)
{
    const Imf::ChannelList& list = names.list();
    for (auto channel = list.begin(); channel != list.end(); ++channel) {
        const std::string alpha = layerOf(channel.name()) + "A";
        if (!isNamed(channel.name(), alpha.c_str()))
            return greyOf(names, channel.name(), alpha);
    }
    const std::string only = list.begin() != list.end() ? list.begin().name() : "Y";
    return greyOf(names, only, only + ".A");
}

/// What every other program shows.
ExrChannels pickStandard(const ChannelNames& names)
{
    ExrChannels picked;
    if (pickColors(names, "", { "R", "G", "B" }, picked))
        return picked;
    if (names.list().findChannel("Y") && names.list().findChannel("RY") && names.list().findChannel("BY")) {
        picked.kind = ExrChannels::Kind::LuminanceChroma;
        picked.hasAlpha = names.list().findChannel("A") != nullptr;
        return picked;
    }
    if (names.has("Y"))
        return greyOf(names, names.find("Y"), "A");
    return pickLayer(names, picked) ? picked : pickAny(names);
}

/// What the renderer reads: upper-case names only. Lower-case ones count when it is decided whether there
/// are colours, but their pixels are not read, on purpose.
ExrChannels pickRenderer(const Imf::Header& header)
{
    IMGINFO info {};
    loadExrHeader_common(header, &info);
    ExrChannels picked;
    const bool isGrey = info.numChannels < 3;
    if (isGrey)
        picked.kind = ExrChannels::Kind::Grey;
    std::size_t index = 0;
    for (const char letter : std::string_view(isGrey ? "YA" : "RGBA"))
        picked.names[index++].assign(1, letter);
    return picked;
}

} // namespace

ExrChannels pickExrChannels(const Imf::Header& header, Conventions conventions)
{
    const ChannelNames names(header.channels());
    ExrChannels picked = conventions == Conventions::Renderer ? pickRenderer(header) : pickStandard(names);
    picked.isHalf = names.areHalf(picked);
    return picked;
}

void describeExr(
    const Imf::Header& header, const ExrChannels& channels, IMGINFO* info, Conventions conventions)
{
    if (conventions == Conventions::Renderer) {
        loadExrHeader_common(header, info);
        return;
    }
    if (!info)
        return;
    *info = IMGINFO {};
    info->numChannels = channels.pixelChannels();
    info->bitsPerPixel = info->numChannels * bitsOf(channels.isHalf);
    info->bytesPerPixel = 4 * int(sizeof(float));
    describeWindows(header, *info);
}

} // namespace QUtils
