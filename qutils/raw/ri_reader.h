#pragma once

#include "qutils/core/error_code.h"
#include "qutils/export.h"
#include "qutils/raw/records.h"
#include "qutils/raw/ri_records.h"

#include <cstddef>

namespace QUtils {

/// Reads a quimg (docs/quimg.md), also one that was cut, damaged or is still being written: every region that
/// is there in full is delivered exactly, and the map says which are not.
///
/// Each call answers an error, or an ErrorCode of code 0; the codes are those of RIErrorCode. Nothing is
/// thrown. One thread at a time for one reader.
class QUTILS_API RIReader {
public:
    RIReader() noexcept;
    RIReader(const RIReader&) = delete;
    RIReader& operator=(const RIReader&) = delete;
    ~RIReader();

    /// Opens a file. It must be a quimg and have its headers up to the channels; regions may be missing,
    /// damaged or cut.
    ErrorCode Open(const char* name) noexcept;
    void Close() noexcept;

    /// What the file says of the frame; a camera or scene that it has not is empty.
    const RIHeader& header() const noexcept;

    int getNumChannels() const noexcept;
    /// An empty description for an index that there is not.
    const RIChannelInfo& getChannel(int index) const noexcept;
    /// The first channel of that name, or -1.
    int findChannel(const char* name) const noexcept;

    /// The cells of the grid, row by row.
    int getNumRegions() const noexcept;
    RIRegionInfo getRegion(int index) const noexcept;
    /// Whether the region's pixels are in the file. Where the file has no valid index they were verified when
    /// it was opened, else they are when they are read, or by `verify`.
    bool isRegionDone(int index) const noexcept;
    int countMissingRegions() const noexcept;
    /// Whether the file ends with a valid index, as `RIFile::Close` writes it.
    bool isClosed() const noexcept;

    /// Reads every region that is done and compares its checksum. Those that are damaged are not done from
    /// then on, which is no error. Takes as long as reading the whole file; `Open` does not do it where the
    /// file has a valid index.
    /// Errors: RIERR_READ when the system could not read some; they are not done either. RIERR_MEMORY.
    ErrorCode verify() noexcept;

    /// Stores the pixels of a rectangle (image coordinates, inside the render region): packed samples of the
    /// type that the file has, rows `rowBytes` bytes apart. What lies in missing regions is 0.
    /// Errors: RIERR_READ when a region turns out to be damaged; its pixels are 0, it is not done from then
    /// on, and all others are delivered.
    ErrorCode readPixels(int channel, const RIRegionInfo& rect, void* dest, std::size_t rowBytes) noexcept;
    /// The same as floats; whole numbers are rounded to the nearest float. `rowBytes` need be no multiple
    /// of the size of a float.
    ErrorCode readPixelsFloat(
        int channel, const RIRegionInfo& rect, float* dest, std::size_t rowBytes) noexcept;

private:
    struct State;
    State* m_state; // Null without an open file.
};

} // namespace QUtils

using QUtils::RIReader;
