#include "qutils/formats/psd/psd_compose.h"

#include <algorithm>
#include <utility>

namespace QUtils {

namespace {

/// The samples of a layer, as far as it is shown.
struct LayerPixels {
    PsdPlane colors[psdMostComponents], transparency, mask;
};

/// A stretch of a row.
struct Span {
    std::int64_t begin = 0, end = 0;

    bool isEmpty() const { return begin >= end; }
    std::size_t count() const { return std::size_t(end - begin); }
    Span cut(std::int64_t from, std::int64_t to) const
    {
        return { std::max(begin, from), std::min(end, to) };
    }
};

/// Rows that are lent and given back in turn.
class RowStack {
public:
    void reserve(std::size_t rows, std::size_t width, std::size_t colors)
    {
        m_width = width;
        m_colors = colors;
        for (std::size_t i = 0; i < rows; ++i)
            m_rows.push_back(std::unique_ptr<float[]>(new float[(colors + 1) * width]));
    }
    PsdComponents take()
    {
        float* const row = m_rows[m_taken++].get();
        PsdComponents components;
        for (std::size_t c = 0; c < m_colors; ++c)
            components.color[c] = row + c * m_width;
        components.alpha = row + m_colors * m_width;
        return components;
    }
    void giveBack(std::size_t count) { m_taken -= count; }

private:
    std::vector<std::unique_ptr<float[]>> m_rows;
    std::size_t m_width = 0, m_colors = 0, m_taken = 0;
};

/// Nodes that show, bottom first. Of very many small ones only those near a row are walked through.
class NodesByRow {
public:
    /// Leaves out what shows nowhere. `bounds` lie inside the canvas.
    void add(int node, const PsdRect& bounds)
    {
        if (!bounds.isEmpty())
            m_all.push_back({ node, bounds.top, bounds.bottom });
    }
    /// Takes the memory that `near` uses.
    void finish() { m_near.reserve(m_all.size()); }

    std::size_t count() const { return m_all.size(); }
    int operator[](std::size_t i) const { return m_all[i].node; }

    /// Those that may have row y: all that touch the band of rows around it.
    const std::vector<int>& near(std::int64_t y) noexcept
    {
        const std::int64_t begin = y - y % bandRows, end = begin + bandRows;
        if (begin == m_bandBegin)
            return m_near;
        m_bandBegin = begin;
        m_near.clear();
        for (const Entry& entry : m_all)
            if (entry.top < end && entry.bottom > begin)
                m_near.push_back(entry.node);
        return m_near;
    }

private:
    static constexpr std::int64_t bandRows = 64;

    struct Entry {
        int node;
        std::int64_t top, bottom;
    };

    std::vector<Entry> m_all;
    std::vector<int> m_near;
    std::int64_t m_bandBegin = -1;
};

/// What of a node's surroundings shows.
struct NodeParts {
    NodesByRow bases; ///< Of a group: its children, without those that are clipped to others.
    NodesByRow clipped; ///< To this node.
    bool isBase = false; ///< There is one clipped to it, if only an empty one.
};

/// What it takes to show a node.
struct Cost {
    std::uint64_t pixels = 0; ///< To be mixed.
    std::size_t rows = 0; ///< Lent at the same time.
};

class Composition : public PsdRowMaker {
public:
    Composition(std::vector<PsdLayer> layers, std::vector<PsdNode> nodes, const PsdHeader& header)
        : m_layers(std::move(layers)), m_nodes(std::move(nodes)), m_pixels(m_layers.size()),
          m_parts(m_nodes.size()), m_header(header), m_canvas { 0, 0, header.height, header.width }
    {
    }

    PSD_Error load(PsdSource& source, int node, PSD_Image::State& state);
    void makeRow(std::int64_t y, const PsdComponents& row) noexcept override;

private:
    using Children = std::pair<const int*, const int*>;

    // Loading.
    PSD_Error loadNode(PsdSource& source, int index, PSD_Image::State& state);
    PSD_Error loadChildren(PsdSource& source, int group, PSD_Image::State& state);
    PSD_Error loadClipped(PsdSource& source, int base, Children clipped, PSD_Image::State& state);
    PSD_Error loadLayer(PsdSource& source, std::size_t index);
    PSD_Error loadChannel(
        PsdSource& source, const PsdLayerChannel& channel, const PsdRect& rect, PsdPlane& plane);
    void warn(const PsdLayer& layer, PSD_Image::State& state) const;
    const int* endOfClipped(const int* first, const int* end) const;
    Children clippedTo(int base) const;
    PsdRect boundsOf(std::size_t index) const;
    Cost costOf(int index, const PsdRect& within) const;
    bool isFreePass(int index) const;

    // Composing.
    void composeChildren(int group, std::int64_t y, Span span, const PsdComponents& to);
    void composeNode(
        int index, std::int64_t y, Span span, const PsdComponents& to, const float* shape = nullptr);
    void passThrough(int index, std::int64_t y, Span span, const PsdComponents& to);
    void fillFromLayer(std::size_t index, std::int64_t y, Span span, const PsdComponents& to);
    void fillFromGroup(int index, std::int64_t y, Span span, const PsdComponents& to);
    void composeClipped(int base, std::int64_t y, Span span, const PsdComponents& to);
    void blendOneByOne(
        int base, std::int64_t y, Span span, const PsdComponents& own, const PsdComponents& to);
    void blend(const PsdLayer& layer, float opacity, std::int64_t y, Span span, const PsdComponents& from,
        const PsdComponents& to);
    void applyMask(std::size_t index, std::int64_t y, Span span, float* alpha);
    void clear(Span span, const PsdComponents& row) const;

    bool isMasked(std::size_t index) const
    {
        return m_layers[index].mask.exists && !m_layers[index].mask.isDisabled;
    }
    const PsdNode& nodeAt(int index) const { return m_nodes[std::size_t(index)]; }
    NodeParts& partsOf(int index) { return m_parts[std::size_t(index)]; }
    const NodeParts& partsOf(int index) const { return m_parts[std::size_t(index)]; }
    const PsdLayer& layerOf(const PsdNode& node) const { return m_layers[std::size_t(node.layer)]; }

    std::vector<PsdLayer> m_layers;
    std::vector<PsdNode> m_nodes;
    std::vector<LayerPixels> m_pixels;
    std::vector<NodeParts> m_parts; ///< Of the nodes.
    PsdHeader m_header;
    PsdRect m_canvas;
    RowStack m_rows;
    std::unique_ptr<float[]> m_maskRow;
    int m_shown = 0;
};

// --- Loading ---------------------------------------------------------------------------------------------

/// What is not shown as it should be, in words.
struct OmissionText {
    unsigned omission;
    const char* text;
};

constexpr OmissionText tableOmissions[] = {
    { PSD_OMITS_STYLES, "its layer style is not applied" },
    { PSD_OMITS_ADJUSTMENT, "an adjustment layer, which is not applied" },
    { PSD_OMITS_FILL, "its fill is not in the file as pixels, and not shown" },
    { PSD_OMITS_VECTOR_MASK, "its vector mask is not applied" },
    { PSD_OMITS_KNOCKOUT, "it does not knock out what is below" },
    { PSD_OMITS_BLEND_RANGES, "its blending ranges are not applied" },
    { PSD_OMITS_CHANNEL_CHOICE, "it is blended in all channels, not only in those chosen" },
    { PSD_OMITS_FEATHER, "its mask is not feathered" },
    { PSD_OMITS_VECTOR_DENSITY, "its vector mask is not weakened by its density" },
    { PSD_OMITS_DISABLED_MASK, "its mask is switched off, but may be a part of what cuts it" },
    { PSD_OMITS_BLEND_MODE, "its blend mode is not known; it is blended as normal" },
};

void Composition::warn(const PsdLayer& layer, PSD_Image::State& state) const
{
    const unsigned omissions
        = layer.omissions | (isKnownPsdBlendMode(layer.blendMode) ? 0u : unsigned(PSD_OMITS_BLEND_MODE));
    for (const OmissionText& known : tableOmissions)
        if ((omissions & known.omission) != 0)
            state.warn((std::string("layer \"") += toUtf8(layer.name)).append("\": ").append(known.text));
}

PSD_Error Composition::loadChannel(
    PsdSource& source, const PsdLayerChannel& channel, const PsdRect& rect, PsdPlane& plane)
{
    if (rect.isEmpty() || rect.cut(m_canvas).isEmpty())
        return PSD_ERROR_NONE;
    PsdPlaneLayout layout;
    layout.width = std::uint64_t(rect.width());
    layout.rows = std::uint64_t(rect.height());
    layout.depth = m_header.depth;
    layout.isLarge = m_header.isLarge();
    layout.end = channel.offset + channel.bytes;
    source.seek(channel.offset);
    std::vector<PsdPlane> planes;
    PSD_TRY(readPsdPlanes(source, layout, { 1 }, planes));
    plane = std::move(planes[0]);
    return PSD_ERROR_NONE;
}

PSD_Error Composition::loadLayer(PsdSource& source, std::size_t index)
{
    const PsdLayer& layer = m_layers[index];
    LayerPixels& pixels = m_pixels[index];
    for (const PsdLayerChannel& channel : layer.channels) {
        if (channel.id >= 0 && std::size_t(channel.id) < m_header.colorChannels())
            PSD_TRY(loadChannel(source, channel, layer.rect, pixels.colors[channel.id]));
        else if (channel.id == PsdLayerChannel::transparency)
            PSD_TRY(loadChannel(source, channel, layer.rect, pixels.transparency));
        else if (channel.id == layer.mask.channel && isMasked(index))
            PSD_TRY(loadChannel(source, channel, layer.mask.rect, pixels.mask));
    }
    return PSD_ERROR_NONE;
}

/// The end of the layers from `first` on that are clipped to the one below them.
const int* Composition::endOfClipped(const int* first, const int* end) const
{
    return std::find_if(first, end, [&](int node) { return !layerOf(nodeAt(node)).isClipped; });
}

/// The layers right above a base that are clipped to it.
Composition::Children Composition::clippedTo(int base) const
{
    if (base == 0 || layerOf(nodeAt(base)).isClipped)
        return { nullptr, nullptr };
    const std::vector<int>& siblings = nodeAt(nodeAt(base).parent).children;
    const int* const end = siblings.data() + siblings.size();
    const int* const first = std::find(siblings.data(), end, base) + 1;
    return { first, endOfClipped(first, end) };
}

/// Loads what is clipped to a base that is loaded; it shows nowhere else.
PSD_Error Composition::loadClipped(PsdSource& source, int base, Children clipped, PSD_Image::State& state)
{
    NodeParts& parts = partsOf(base);
    for (const int* layer = clipped.first; layer != clipped.second; ++layer) {
        if (layerOf(nodeAt(*layer)).isHidden)
            continue;
        PSD_TRY(loadNode(source, *layer, state));
        parts.isBase = true;
        parts.clipped.add(*layer, nodeAt(*layer).bounds.cut(nodeAt(base).bounds));
    }
    parts.clipped.finish();
    return PSD_ERROR_NONE;
}

/// Loads the bases, each with what is clipped to it: with a hidden one all of that is hidden.
PSD_Error Composition::loadChildren(PsdSource& source, int group, PSD_Image::State& state)
{
    PsdNode& node = m_nodes[std::size_t(group)];
    const int* const end = node.children.data() + node.children.size();
    for (const int* base = node.children.data(); base != end;) {
        const int* const next = endOfClipped(base + 1, end);
        if (!layerOf(nodeAt(*base)).isHidden) {
            PSD_TRY(loadNode(source, *base, state));
            PSD_TRY(loadClipped(source, *base, { base + 1, next }, state));
            partsOf(group).bases.add(*base, nodeAt(*base).bounds);
            node.bounds = node.bounds.with(nodeAt(*base).bounds);
        }
        base = next;
    }
    partsOf(group).bases.finish();
    return PSD_ERROR_NONE;
}

/// Where a layer that is loaded shows. Without samples it is transparent.
PsdRect Composition::boundsOf(std::size_t index) const
{
    const PsdLayer& layer = m_layers[index];
    if (layer.isSolid)
        return m_canvas;
    const bool hasPixels = m_pixels[index].transparency || m_pixels[index].colors[0];
    return hasPixels ? layer.rect.cut(m_canvas) : PsdRect();
}

/// Loads what shows of a node, and finds out where that is.
PSD_Error Composition::loadNode(PsdSource& source, int index, PSD_Image::State& state)
{
    PsdNode& node = m_nodes[std::size_t(index)];
    if (node.layer >= 0) {
        PSD_TRY(loadLayer(source, std::size_t(node.layer)));
        warn(layerOf(node), state);
    }
    if (node.isGroup)
        PSD_TRY(loadChildren(source, index, state));
    else
        node.bounds = boundsOf(std::size_t(node.layer));
    if (node.layer >= 0 && isMasked(std::size_t(node.layer))) {
        const PsdMask& mask = layerOf(node).mask;
        const bool hidesAround = mask.outside <= 0 && mask.density >= 1;
        node.bounds = hidesAround ? node.bounds.cut(mask.rect) : node.bounds;
    }
    return PSD_ERROR_NONE;
}

/// A group that takes nothing by itself: what is in it is put upon what is below.
bool Composition::isFreePass(int index) const
{
    const PsdNode& node = nodeAt(index);
    if (node.layer < 0)
        return true;
    const PsdLayer& layer = layerOf(node);
    return node.isGroup && layer.isPassThrough() && !layer.isClipped && !partsOf(index).isBase
        && index != m_shown && layer.opacity * layer.fill >= 1 && !isMasked(std::size_t(node.layer));
}

/// What showing a node takes inside of a rectangle, with what is clipped to it.
Cost Composition::costOf(int index, const PsdRect& within) const
{
    const PsdRect rect = nodeAt(index).bounds.cut(within);
    const NodeParts& parts = partsOf(index);
    Cost cost;
    for (std::size_t i = 0; i < parts.bases.count(); ++i) {
        const Cost child = costOf(parts.bases[i], rect);
        cost.pixels += child.pixels;
        cost.rows = std::max(cost.rows, child.rows);
    }
    if (isFreePass(index))
        return cost;
    if (nodeAt(index).isGroup || parts.isBase)
        cost.rows = std::max<std::size_t>(cost.rows, 1); // How much of it is passed through, or its shape.
    for (std::size_t i = 0; i < parts.clipped.count(); ++i) {
        const Cost clipped = costOf(parts.clipped[i], rect);
        cost.pixels += clipped.pixels;
        cost.rows = std::max(cost.rows, clipped.rows + 1);
    }
    constexpr std::uint64_t rowPixels = 16; // As many take as long as a row has by itself.
    cost.pixels += (std::uint64_t(rect.width()) + rowPixels) * std::uint64_t(rect.height());
    ++cost.rows;
    return cost;
}

PSD_Error Composition::load(PsdSource& source, int node, PSD_Image::State& state)
{
    m_shown = node;
    PSD_TRY(loadNode(source, node, state));
    PSD_TRY(loadClipped(source, node, clippedTo(node), state));

    // Fills and groups cover any canvas with a few bytes. What else is mixed fills its rectangle from the
    // file.
    const Cost cost = costOf(node, m_canvas);
    const std::uint64_t rowBytes
        = std::uint64_t(m_header.width) * (m_header.colorChannels() + 1) * sizeof(float);
    if (std::max(cost.pixels, cost.rows * rowBytes) / psdMostExpansion > source.size())
        return PSD_ERROR_UNSUPPORTED;
    m_rows.reserve(cost.rows, m_header.width, m_header.colorChannels());
    m_maskRow.reset(new float[m_header.width]);
    return PSD_ERROR_NONE;
}

// --- Composing -------------------------------------------------------------------------------------------

void Composition::clear(Span span, const PsdComponents& row) const
{
    for (std::size_t c = 0; c < m_header.colorChannels(); ++c)
        std::fill_n(row.color[c] + span.begin, span.count(), 0.0f);
    std::fill_n(row.alpha + span.begin, span.count(), 0.0f);
}

void Composition::applyMask(std::size_t index, std::int64_t y, Span span, float* alpha)
{
    const PsdMask& mask = m_layers[index].mask;
    const PsdPlane& plane = m_pixels[index].mask;
    if (!isMasked(index))
        return;
    std::fill_n(m_maskRow.get() + span.begin, span.count(), mask.outside);
    const Span inside = span.cut(mask.rect.left, mask.rect.right);
    if (plane && mask.rect.hasRow(y) && !inside.isEmpty())
        psdSamplesToFloat(m_header.depth, plane.row(std::uint64_t(y - mask.rect.top)),
            std::size_t(inside.begin - mask.rect.left), inside.count(), m_maskRow.get() + inside.begin);
    for (std::int64_t x = span.begin; x < span.end; ++x)
        alpha[x] *= 1 - mask.density * (1 - m_maskRow[std::size_t(x)]);
}

/// The layer's own pixels; `span` lies inside of it.
void Composition::fillFromLayer(std::size_t index, std::int64_t y, Span span, const PsdComponents& to)
{
    const PsdLayer& layer = m_layers[index];
    const LayerPixels& pixels = m_pixels[index];
    if (layer.isSolid) {
        for (std::size_t c = 0; c < m_header.colorChannels(); ++c)
            std::fill_n(to.color[c] + span.begin, span.count(), layer.solidColor[c]);
        std::fill_n(to.alpha + span.begin, span.count(), 1.0f);
        applyMask(index, y, span, to.alpha);
        return;
    }
    const std::uint64_t row = std::uint64_t(y - layer.rect.top);
    const std::size_t first = std::size_t(span.begin - layer.rect.left);
    const auto fill = [&](const PsdPlane& plane, float* samples, float without) {
        if (plane)
            psdSamplesToFloat(m_header.depth, plane.row(row), first, span.count(), samples + span.begin);
        else
            std::fill_n(samples + span.begin, span.count(), without);
    };
    for (std::size_t c = 0; c < m_header.colorChannels(); ++c)
        fill(pixels.colors[c], to.color[c], 0.0f);
    fill(pixels.transparency, to.alpha, pixels.colors[0] ? 1.0f : 0.0f);
    applyMask(index, y, span, to.alpha);
}

/// What is in a group, composed on its own.
void Composition::fillFromGroup(int index, std::int64_t y, Span span, const PsdComponents& to)
{
    clear(span, to);
    composeChildren(index, y, span, to);
    applyMask(std::size_t(nodeAt(index).layer), y, span, to.alpha);
}

void Composition::blend(const PsdLayer& layer, float opacity, std::int64_t y, Span span,
    const PsdComponents& from, const PsdComponents& to)
{
    for (std::int64_t x = span.begin; opacity < 1 && x < span.end; ++x)
        from.alpha[x] *= opacity;
    PsdBlend blend;
    blend.mode = layer.blendMode;
    blend.fill = layer.fill;
    blend.components = m_header.colorChannels();
    blend.x = span.begin;
    blend.y = y;
    blendPsdRow(blend, from.from(std::size_t(span.begin)), to.from(std::size_t(span.begin)), span.count());
}

/// Puts the layers that are clipped to a base upon it: as if the base were everywhere, then cut by its shape.
void Composition::composeClipped(int base, std::int64_t y, Span span, const PsdComponents& to)
{
    float* const shape = m_rows.take().alpha;
    std::copy_n(to.alpha + span.begin, span.count(), shape + span.begin);
    std::fill_n(to.alpha + span.begin, span.count(), layerOf(nodeAt(base)).fill);
    for (const int layer : partsOf(base).clipped.near(y))
        composeNode(layer, y, span, to);
    for (std::int64_t x = span.begin; x < span.end; ++x)
        to.alpha[x] *= shape[x];
    m_rows.giveBack(1);
}

/// Puts a base upon a row, and then each of the layers that are clipped to it.
void Composition::blendOneByOne(
    int base, std::int64_t y, Span span, const PsdComponents& own, const PsdComponents& to)
{
    const PsdLayer& layer = layerOf(nodeAt(base));
    float* const shape = m_rows.take().alpha;
    for (std::int64_t x = span.begin; x < span.end; ++x)
        shape[x] = own.alpha[x] * layer.opacity;
    blend(layer, layer.opacity, y, span, own, to);
    for (const int clipped : partsOf(base).clipped.near(y))
        composeNode(clipped, y, span, to, shape);
    m_rows.giveBack(1);
}

/// A group that is no picture of its own: what is in it is put upon what is below it, as much as its opacity
/// and its mask say.
void Composition::passThrough(int index, std::int64_t y, Span span, const PsdComponents& to)
{
    const std::size_t layer = std::size_t(nodeAt(index).layer);
    const float opacity = m_layers[layer].opacity * m_layers[layer].fill;
    const PsdComponents with = m_rows.take();
    const std::size_t count = span.count(), colors = m_header.colorChannels();
    for (std::size_t c = 0; c < colors; ++c)
        std::copy_n(to.color[c] + span.begin, count, with.color[c] + span.begin);
    std::copy_n(to.alpha + span.begin, count, with.alpha + span.begin);
    composeChildren(index, y, span, with);

    float* const part = m_rows.take().alpha;
    std::fill_n(part + span.begin, count, opacity);
    applyMask(layer, y, span, part);
    for (std::int64_t x = span.begin; x < span.end; ++x) {
        const float before = to.alpha[x] * (1 - part[x]), after = with.alpha[x] * part[x];
        to.alpha[x] = before + after;
        const float scale = to.alpha[x] > 0 ? 1 / to.alpha[x] : 0;
        for (std::size_t c = 0; c < colors; ++c)
            to.color[c][x] = (to.color[c][x] * before + with.color[c][x] * after) * scale;
    }
    m_rows.giveBack(2);
}

/// Puts one layer or group, with what is clipped to it, upon a row; cut by a shape where there is one.
void Composition::composeNode(
    int index, std::int64_t y, Span span, const PsdComponents& to, const float* shape)
{
    const PsdNode& node = nodeAt(index);
    const PsdLayer& layer = layerOf(node);
    span = span.cut(node.bounds.left, node.bounds.right);
    if (!node.bounds.hasRow(y) || span.isEmpty())
        return;
    if (isFreePass(index)) {
        composeChildren(index, y, span, to);
        return;
    }
    const bool isBase = partsOf(index).isBase;
    if (node.isGroup && layer.isPassThrough() && !isBase && !shape && index != m_shown) {
        passThrough(index, y, span, to);
        return;
    }
    const PsdComponents own = m_rows.take();
    if (node.isGroup)
        fillFromGroup(index, y, span, own);
    else
        fillFromLayer(std::size_t(node.layer), y, span, own);
    for (std::int64_t x = span.begin; shape && x < span.end; ++x)
        own.alpha[x] *= shape[x];
    if (!isBase) {
        blend(layer, layer.opacity, y, span, own, to);
    } else if (layer.clipsAsGroup) {
        composeClipped(index, y, span, own);
        PsdLayer whole;
        whole.blendMode = layer.blendMode;
        blend(whole, layer.opacity, y, span, own, to);
    } else {
        blendOneByOne(index, y, span, own, to);
    }
    m_rows.giveBack(1);
}

void Composition::composeChildren(int group, std::int64_t y, Span span, const PsdComponents& to)
{
    for (const int base : partsOf(group).bases.near(y))
        composeNode(base, y, span, to);
}

void Composition::makeRow(std::int64_t y, const PsdComponents& row) noexcept
{
    const Span all { 0, std::int64_t(m_header.width) };
    clear(all, row);
    if (m_shown == 0)
        composeChildren(0, y, all, row);
    else
        composeNode(m_shown, y, all, row);
}

} // namespace

PSD_Error makePsdComposition(PsdSource& source, std::vector<PsdLayer> layers, std::vector<PsdNode> nodes,
    int node, PSD_Image::State& state)
{
    auto composition
        = std::make_unique<Composition>(std::move(layers), std::move(nodes), state.document.header);
    PSD_TRY(composition->load(source, node, state));
    state.maker = std::move(composition);
    return PSD_ERROR_NONE;
}

} // namespace QUtils
