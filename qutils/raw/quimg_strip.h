#pragma once

#include "qutils/raw/quimg_blocks.h"
#include "qutils/raw/quimg_format.h"
#include "qutils/raw/quimg_threads.h"
#include "qutils/raw/records.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QUtils::quimg {

/// Memory that a writer keeps from region to region: it only grows.
struct StripBuffers {
    CoderPool<BlockEncoder> encoders;
    std::vector<Bytes> pixels; ///< Of a band by channel, as they were handed over.
    std::vector<PackedBlock> packed; ///< By cell, in it by channel.
    std::vector<Bytes> chunks; ///< By cell.
    std::vector<RegionHead> heads;
};

/// A row of cells on its way into the file. Its rows of pixels are fetched band by band, so that each is
/// asked for once and tall cells need no memory for all of their pixels.
class Strip final : public Work {
public:
    Strip(const Frame& frame, StripBuffers& buffers, QURegionData& data, const RIRegionInfo& rect)
        : m_frame(frame), m_buffers(buffers), m_data(data), m_rect(rect)
    {
    }

    /// Begins with cells `first` to `end` (columns) of a row of the grid.
    void begin(int row, int firstColumn, int endColumn);
    /// All bands. False when a row was refused.
    bool encode();
    int cellCount() const { return m_endColumn - m_firstColumn; }
    int cellAt(int number) const { return m_row * m_frame.grid.columns + m_firstColumn + number; }
    /// The chunk of a cell, with room for its header, and the checksum of its payload.
    Bytes& chunk(int number) { return m_buffers.chunks[std::size_t(number)]; }
    std::uint32_t finishChunk(int number);

    void run(std::size_t number) noexcept override;

private:
    std::size_t blockCount() const { return std::size_t(cellCount()) * m_frame.channels.size(); }
    bool fetchBand();
    void encodeBand();
    void appendBlocks();

    const Frame& m_frame;
    StripBuffers& m_buffers;
    QURegionData& m_data;
    const RIRegionInfo m_rect;

    int m_row = 0, m_firstColumn = 0, m_endColumn = 0;
    RIRegionInfo m_strip = {}, m_band = {};
    int m_bandRows = 0;
};

} // namespace QUtils::quimg
