#pragma once

#include "rastkit/buffers.h"
#include "rastkit/types.h"

#include <memory>

namespace QUtils {

/// The way of a codec's rows to the caller's sink: whole rows where the sink takes them, else pixel by
/// pixel from left to right. Made once per image; no allocation per row.
///
/// A codec either decodes a row it has completely into `beginRow` and ends it with `endRow`, or hands over
/// any part of a row with `put`. Nothing outside the image is ever stored.
class RowSink {
public:
    explicit RowSink(ImgBuffer& buffer);
    RowSink(const RowSink&) = delete;
    RowSink& operator=(const RowSink&) = delete;
    ~RowSink();

    /// Sizes the sink. IMGERR_MEMORY when it has no storage afterwards.
    ImgErrorCode init(int width, int height);
    /// For a sink that is sized already: stores there without sizing it. Since the sink may have another
    /// size than is said here, its storage is not handed out.
    void adopt(int width, int height);

    int width() const { return m_width; }
    int height() const { return m_height; }

    /// True when the sink is an Image8, which rounds floats to bytes. A codec whose floats come from bytes
    /// (s / 255, or s times the float nearest to 1 / 255) can then hand over the bytes themselves, packed:
    /// the stored pixels are the same.
    bool roundsToBytes() const { return m_roundsToBytes; }

    /// Room for the `width` packed pixels of row `y`: the sink's own storage when it offers it, else a row
    /// of this object's. All of it must be stored, then `endRow` called. Null when `y` is outside the
    /// image or memory for the row is refused.
    unsigned int* beginRow(int y);
    void endRow(int y, const unsigned int* row);
    /// The same for rows of four floats a pixel.
    float* beginRowF(int y);
    void endRowF(int y, const float* row);

    /// The sink's own storage of row `y`, or null when it offers none. For codecs that come with several rows
    /// at a time; what is stored there needs no `endRow`.
    unsigned int* storage(int y);
    float* storageF(int y);

    /// Stores `count` pixels from (x, y) on, cut to the image.
    void put(int x, int y, const unsigned int* argb, int count);
    void putF(int x, int y, const float* rgba, int count);

private:
    bool handsOut(int y) const;
    bool clip(int& x, int y, int& count, int& skipped) const;
    void setSize(int width, int height);

    ImgBuffer& m_buffer;
    ImgRowBuffer* m_rows; // Null when the sink takes single pixels only.
    std::unique_ptr<unsigned int[]> m_row;
    std::unique_ptr<float[]> m_rowF;
    bool m_roundsToBytes, m_handsOutStorage = true;
    int m_width = 0, m_height = 0;
};

} // namespace QUtils
