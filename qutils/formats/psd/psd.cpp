#include "qutils/formats/psd/psd.h"

#include "qutils/core/paths.h"
#include "qutils/formats/psd/psd_compose.h"
#include "qutils/formats/psd/psd_image.h"

#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace QUtils {

namespace {

using State = PSD_Image::State;

constexpr int noChannel = -1;

/// Channel number of what is alpha by itself: the transparency, else the first extra channel. The extra
/// channels of multichannel pictures are inks.
int ownAlpha(const PsdDocument& document)
{
    const PsdHeader& header = document.header;
    if (document.extraChannels() == 0 || header.mode == PsdMode::Multichannel)
        return noChannel;
    return int(header.colorChannels());
}

bool isFreedFromWhite(const PsdDocument& document)
{
    const PsdMode mode = document.header.mode;
    return document.mergedIsTransparent && mode != PsdMode::Multichannel && mode != PsdMode::Indexed
        && mode != PsdMode::Bitmap;
}

PsdPlaneLayout layoutOf(const PsdSource& source, const PsdHeader& header)
{
    PsdPlaneLayout layout;
    layout.width = header.width;
    layout.rows = header.height;
    layout.depth = header.depth;
    layout.isLarge = header.isLarge();
    layout.end = source.size();
    return layout;
}

/// Reads those channels of the merged picture that are wanted.
PSD_Error readChannels(PsdSource& source, const PsdDocument& document, const std::vector<char>& wanted,
    std::vector<PsdPlane>& planes)
{
    source.seek(document.pictureData);
    return readPsdPlanes(source, layoutOf(source, document.header), wanted, planes);
}

PSD_Error readMergedPicture(PsdSource& source, int alphaChannel, State& state)
{
    const PsdDocument& document = state.document;
    const std::size_t colors = document.header.colorChannels();
    const bool isFreed = isFreedFromWhite(document);
    const int alpha = alphaChannel != noChannel ? alphaChannel : ownAlpha(document);

    std::vector<char> wanted(document.header.channels, 0);
    std::fill_n(wanted.begin(), colors, char(1));
    if (isFreed)
        wanted[colors] = 1;
    if (alpha != noChannel)
        wanted[std::size_t(alpha)] = 1;
    std::vector<PsdPlane> planes;
    PSD_TRY(readChannels(source, document, wanted, planes));

    if (isFreed)
        state.transparency = std::move(planes[colors]);
    if (alpha != noChannel && !(isFreed && std::size_t(alpha) == colors))
        state.alpha = std::move(planes[std::size_t(alpha)]);
    planes.resize(colors);
    state.colors = std::move(planes);
    if (!document.hasRealMergedPicture)
        state.warn("the file says that it was saved without its merged picture");
    return PSD_ERROR_NONE;
}

/// One extra channel of the merged picture instead of what is composed.
PSD_Error readAlphaAlone(PsdSource& source, int channel, State& state)
{
    if (channel == noChannel)
        return PSD_ERROR_NONE;
    std::vector<char> wanted(state.document.header.channels, 0);
    wanted[std::size_t(channel)] = 1;
    std::vector<PsdPlane> planes;
    PSD_TRY(readChannels(source, state.document, wanted, planes));
    state.alpha = std::move(planes[std::size_t(channel)]);
    return PSD_ERROR_NONE;
}

/// Whether the merged picture can be there. Layers may be small on a canvas of any size, all of which is
/// composed: what the file holds of its merged picture bounds that.
PSD_Error checkCanvas(PsdSource& source, const PsdDocument& document)
{
    source.seek(document.pictureData);
    return checkPsdPlanes(
        source, layoutOf(source, document.header), document.header.channels, document.header.colorChannels());
}

/// `name` empty: all layers.
PSD_Error composeLayers(PsdSource& source, const UTF32String& name, int alphaChannel, State& state)
{
    std::vector<PsdLayer> layers;
    std::vector<PsdNode> nodes;
    PSD_TRY(readPsdLayers(source, state.document, layers));
    PSD_TRY(buildPsdTree(layers, nodes));
    const int node = name.empty() ? 0 : findPsdNode(nodes, layers, name);
    if (node < 0)
        return PSD_ERROR_FORMAT;
    const PsdMode mode = state.document.header.mode;
    if (mode == PsdMode::Indexed || mode == PsdMode::Bitmap || mode == PsdMode::Multichannel)
        return PSD_ERROR_UNSUPPORTED; // Their colours cannot be mixed.
    PSD_TRY(checkCanvas(source, state.document));
    PSD_TRY(makePsdComposition(source, std::move(layers), std::move(nodes), node, state));
    PSD_TRY(readAlphaAlone(source, alphaChannel, state));
    state.hasAlpha = true;
    return PSD_ERROR_NONE;
}

/// Number of the channel that is to be alpha, `noChannel` for none of its own.
PSD_Error findAlpha(const PsdDocument& document, const UTF32String& name, int& channel)
{
    channel = name.empty() ? noChannel : document.findExtraChannel(name);
    return name.empty() || channel != noChannel ? PSD_ERROR_NONE : PSD_ERROR_FORMAT;
}

PSD_Error openDocument(const char* fileName, std::unique_ptr<PsdSource>& source, State& state)
{
    FilePtr file(qutils_fopen(fileName, "rb"));
    if (!file)
        return PSD_ERROR_OPEN;
    source = std::make_unique<PsdSource>(std::move(file));
    return source->isSeekable() ? readPsdDocument(*source, state.document) : PSD_ERROR_UNSUPPORTED;
}

bool mayBeTransparent(const State& state)
{
    const PsdDocument& document = state.document;
    return ownAlpha(document) != noChannel
        || (document.header.mode == PsdMode::Indexed && document.transparentIndex >= 0
            && document.transparentIndex < 256);
}

/// Runs `fill(state)` and makes its result the image, or leaves the image empty.
template <typename Fill> PSD_Error fillImage(PSD_Image& image, Fill fill) noexcept
{
    image.clear();
    try {
        auto state = std::make_unique<State>();
        PSD_TRY(fill(*state));
        PSD_Access::stateOf(image) = state.release();
        return PSD_ERROR_NONE;
    } catch (const std::bad_alloc&) {
        return PSD_ERROR_MEMORY;
    } catch (const std::length_error&) {
        return PSD_ERROR_MEMORY;
    }
}

} // namespace

PSD_Error PSD_LoadHeader(std::FILE* file, int& width, int& height) noexcept
{
    if (!file)
        return PSD_ERROR_OPEN;
    std::uint8_t bytes[PsdHeader::byteSize];
    if (std::fread(bytes, sizeof bytes, 1, file) != 1)
        return PSD_ERROR_FORMAT;
    const PsdHeader header = parsePsdHeader(bytes);
    PSD_TRY(checkPsdHeader(header));
    width = int(header.width);
    height = int(header.height);
    return PSD_ERROR_NONE;
}

PSD_Error PSD_LoadDescription(const char* fileName, PSD_Image& image) noexcept
{
    return fillImage(image, [&](State& state) {
        std::unique_ptr<PsdSource> source;
        PSD_TRY(openDocument(fileName, source, state));
        state.hasAlpha = mayBeTransparent(state);
        return PSD_ERROR_NONE;
    });
}

namespace {

/// `composes`: all layers, where there are any and none is named.
PSD_Error loadImage(const char* fileName, const UTF32String& layer, const UTF32String& alphaChannel,
    bool composes, State& state)
{
    std::unique_ptr<PsdSource> source;
    PSD_TRY(openDocument(fileName, source, state));
    int alpha = noChannel;
    PSD_TRY(findAlpha(state.document, alphaChannel, alpha));
    if (!layer.empty() || (composes && state.document.layerInfo != 0)) {
        PSD_TRY(composeLayers(*source, layer, alpha, state));
    } else {
        PSD_TRY(readMergedPicture(*source, alpha, state));
        state.hasAlpha = alpha != noChannel || mayBeTransparent(state);
    }
    state.hasPixels = true;
    state.makeRoom();
    return PSD_ERROR_NONE;
}

} // namespace

PSD_Error PSD_LoadFile(
    const char* fileName, UTF32String layer, UTF32String alphaChannel, PSD_Image& image) noexcept
{
    return fillImage(
        image, [&](State& state) { return loadImage(fileName, layer, alphaChannel, false, state); });
}

PSD_Error PSD_ComposeFile(const char* fileName, UTF32String alphaChannel, PSD_Image& image) noexcept
{
    return fillImage(
        image, [&](State& state) { return loadImage(fileName, UTF32String(), alphaChannel, true, state); });
}

} // namespace QUtils
