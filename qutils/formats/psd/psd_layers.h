#pragma once

#include "qutils/formats/psd/psd_color.h"
#include "qutils/formats/psd/psd_document.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace QUtils {

/// A rectangle of the canvas; right and bottom are exclusive. It may lie outside.
struct PsdRect {
    std::int64_t top = 0, left = 0, bottom = 0, right = 0;

    std::int64_t width() const { return right > left ? right - left : 0; }
    std::int64_t height() const { return bottom > top ? bottom - top : 0; }
    bool isEmpty() const { return width() == 0 || height() == 0; }
    bool hasRow(std::int64_t y) const { return y >= top && y < bottom; }

    PsdRect cut(const PsdRect& to) const
    {
        return { std::max(top, to.top), std::max(left, to.left), std::min(bottom, to.bottom),
            std::min(right, to.right) };
    }
    /// The smallest one around both.
    PsdRect with(const PsdRect& other) const
    {
        if (isEmpty() || other.isEmpty())
            return isEmpty() ? other : *this;
        return { std::min(top, other.top), std::min(left, other.left), std::max(bottom, other.bottom),
            std::max(right, other.right) };
    }
};

/// Where the data of one of a layer's channels are. The ids below 0 are given in the format.
struct PsdLayerChannel {
    static constexpr int transparency = -1, mask = -2, ownMask = -3;

    int id = 0;
    std::uint64_t offset = 0, bytes = 0;
};

struct PsdMask {
    PsdRect rect;
    float outside = 0; ///< Its value outside of the rectangle.
    float density = 1; ///< How much of what it hides is hidden.
    bool exists = false, isDisabled = false;
    int channel = PsdLayerChannel::mask; ///< Which one has its samples.
};

/// Features that are not shown as the program that wrote the file shows them.
enum PsdOmission : unsigned {
    PSD_OMITS_STYLES = 1u << 0,
    PSD_OMITS_ADJUSTMENT = 1u << 1,
    PSD_OMITS_FILL = 1u << 2,
    PSD_OMITS_VECTOR_MASK = 1u << 3,
    PSD_OMITS_KNOCKOUT = 1u << 4,
    PSD_OMITS_BLEND_RANGES = 1u << 5,
    PSD_OMITS_CHANNEL_CHOICE = 1u << 6,
    PSD_OMITS_FEATHER = 1u << 7,
    PSD_OMITS_BLEND_MODE = 1u << 8,
    PSD_OMITS_VECTOR_DENSITY = 1u << 11,
    PSD_OMITS_DISABLED_MASK = 1u << 12,
    // Which descriptions of styles a layer has; old ones count where there are no others.
    PSD_HAS_OLD_STYLES = 1u << 9,
    PSD_HAS_STYLES = 1u << 10,
};

enum class PsdSection { None, Folder, End };

/// One record of the list of layers; groups are folders with an end below them.
struct PsdLayer {
    PsdRect rect;
    std::vector<PsdLayerChannel> channels;
    std::uint32_t blendMode = psdKey("norm");
    float opacity = 1; ///< Of everything, styles included.
    float fill = 1; ///< Of its own pixels.
    bool isClipped = false, isHidden = false;
    bool clipsAsGroup
        = true; ///< Clipped layers are blended with it first, then all of them with what is below.
    PsdMask mask;
    UTF32String name;
    PsdSection section = PsdSection::None;
    unsigned omissions = 0; ///< PsdOmission
    /// A fill layer of one colour that has no pixels in the file: the colour, in the document's components.
    bool isSolid = false;
    float solidColor[psdMostComponents] = {};

    bool isPassThrough() const { return blendMode == psdKey("pass"); }
};

/// Reads the records, bottom layer first, and finds their data. Of a document without layers: none.
/// Errors: PSD_ERROR_READ cut; PSD_ERROR_FORMAT. Throws std::bad_alloc.
PSD_Error readPsdLayers(PsdSource& source, const PsdDocument& document, std::vector<PsdLayer>& layers);

/// For messages.
std::string toUtf8(const UTF32String& text);

} // namespace QUtils
