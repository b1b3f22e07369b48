#pragma once

#include "qutils/formats/psd/psd_blend.h"
#include "qutils/formats/psd/psd_image.h"
#include "qutils/formats/psd/psd_layers.h"

#include <memory>
#include <vector>

namespace QUtils {

/// A layer, or a group with what is in it; the first one of a tree is the whole document.
struct PsdNode {
    int layer = -1; ///< -1: the document.
    int parent = -1;
    std::vector<int> children; ///< Bottom first. Only of groups.
    bool isGroup = true;
    PsdRect bounds; ///< Inside the canvas; nothing of it shows outside.
};

/// Groups of the list of layers. Those that lack their end or their beginning take what is there.
/// Errors: PSD_ERROR_UNSUPPORTED groups nested too deep. Throws std::bad_alloc.
PSD_Error buildPsdTree(const std::vector<PsdLayer>& layers, std::vector<PsdNode>& nodes);

/// The node of that name, `Name` or `Group/Name`; -1 when there is none. Not the document.
int findPsdNode(
    const std::vector<PsdNode>& nodes, const std::vector<PsdLayer>& layers, const UTF32String& name);

/// Reads what is needed to show one node alone over transparency, the document for 0, and makes what composes
/// its rows. Tells the image what cannot be shown.
/// Errors: PSD_ERROR_READ, PSD_ERROR_FORMAT: data of a layer that is needed; PSD_ERROR_UNSUPPORTED more to
/// mix than files of this size have. Throws std::bad_alloc.
PSD_Error makePsdComposition(PsdSource& source, std::vector<PsdLayer> layers, std::vector<PsdNode> nodes,
    int node, PSD_Image::State& state);

} // namespace QUtils
