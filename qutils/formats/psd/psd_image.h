#pragma once

#include "qutils/formats/psd/psd_color.h"
#include "qutils/formats/psd/psd_planes.h"

#include <memory>
#include <string>

namespace QUtils {

/// Pixels that are made when they are asked for, in the components of the file's mode.
class PsdRowMaker {
public:
    PsdRowMaker() = default;
    PsdRowMaker(const PsdRowMaker&) = delete;
    PsdRowMaker& operator=(const PsdRowMaker&) = delete;
    virtual ~PsdRowMaker() = default;

    /// The canvas's row y, all of it.
    virtual void makeRow(std::int64_t y, const PsdComponents& row) noexcept = 0;
};

/// What a PSD_Image holds: either planes of the merged picture, or what makes rows.
struct PSD_Image::State {
    PsdDocument document;
    bool hasPixels = false, hasAlpha = false;

    std::vector<PsdPlane> colors; ///< Of the merged picture.
    PsdPlane transparency; ///< By which its colours are to be freed from white; mostly none.
    PsdPlane alpha; ///< What is delivered as alpha; none: `transparency`, else what the rows have, else 1.
    std::unique_ptr<PsdRowMaker> maker;

    /// Room for one row; of what is made, the row that it holds.
    std::unique_ptr<float[]> room;
    std::int64_t madeRow = -1;

    Table<CharString, 8> warnings;

    std::size_t width() const { return document.header.width; }
    PsdComponents roomFrom(std::size_t x) const;
    /// Takes what rows need.
    void makeRoom();
    /// `line` is not empty. Throws std::bad_alloc.
    void warn(const std::string& line);
};

/// The way of the reader into an image.
struct PSD_Access {
    static PSD_Image::State*& stateOf(PSD_Image& image) { return image.m_state; }
};

} // namespace QUtils
