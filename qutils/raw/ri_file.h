#pragma once

#include "qutils/core/error_code.h"
#include "qutils/core/table.h"
#include "qutils/export.h"
#include "qutils/raw/pstream.h"
#include "qutils/raw/records.h"
#include "qutils/raw/ri_records.h"

namespace QUtils {

/// Writes raw render output as a quimg (docs/quimg.md) while it is rendered. Whatever ends the writing, a
/// kill or a full disk included: every region that was written is read back exactly, and `Open` goes on with
/// those that are missing.
///
///     RIFile file;
///     file.Create("frame.quimg", nullptr);
///     file.WriteHeader(32);
///     file.WTResolution(1920, 1080, 1);
///     file.WTRenderRegion({});           // All zero: the whole image.
///     file.WTRegionsInfo(64, 64, 0);     // The cells ("buckets") of the map.
///     file.WTChannelInfo(&channels);
///     file.WTCameraInfo(camera);         // This one and the next may be left out.
///     file.WTSceneInfo(scene);
///     file.WTRegion(&bucket, -1, 0, 0);  // In any order, as often as there are buckets.
///     file.Close();
///
/// Each call answers an error, or an ErrorCode of code 0. The codes are those of RIErrorCode. Nothing is
/// thrown; what the caller's own objects throw is an error of the call. One thread at a time; the pixels
/// are compressed with OpenEXR's pool of threads where the process has set it.
class QUTILS_API RIFile {
public:
    RIFile() noexcept;
    RIFile(const RIFile&) = delete;
    RIFile& operator=(const RIFile&) = delete;
    /// Closes the file without its index: it can be read, and opened again.
    ~RIFile();

    /// Makes the file, empty; not where another writer has it open. With a stream the bytes go there instead,
    /// from front to back; the name only serves the messages then. A file that is open already is let go of
    /// as the destructor does it.
    ErrorCode Create(const char* name, PStream* stream) noexcept;
    /// Opens a file that was written before, whole, cut, or left behind by a process that died; cuts off what
    /// is not complete at its end; and goes on behind it with `WTRegion`. The missing ones among camera
    /// and scene may be written first, as long as no region is there. All of the file is read: a region whose
    /// bytes are damaged is missing, also in a file that was closed.
    /// Errors: RIERR_FORMAT when nothing can be resumed, since the channels were not yet written.
    ErrorCode Open(const char* name) noexcept;

    /// 16: colours are stored as half floats. 32: as floats. Else, and for all other kinds of channels: as
    /// the channel says. Whole numbers stay what they are.
    ErrorCode WriteHeader(int bitsPerChannel) noexcept;
    ErrorCode WTResolution(int width, int height, float pixelAspect) noexcept;
    /// The rectangle that is rendered; it must lie inside the image.
    ErrorCode WTRenderRegion(const RIRegionInfo& region) noexcept;
    /// The rectangle is divided into cells of this size from its upper left corner on; those at the right and
    /// at the bottom may be smaller. 0: one cell over the whole width or height. The type is kept as it is.
    ErrorCode WTRegionsInfo(int regWidth, int regHeight, int regType) noexcept;
    /// The list, and what it points to, is only used during the call.
    ErrorCode WTChannelInfo(Table<RegionChannelCallback*, 100>* channels) noexcept;
    ErrorCode WTCameraInfo(const RICameraInfo& camera) noexcept;
    ErrorCode WTSceneInfo(RISceneInfo& scene) noexcept;

    /// Writes the cells that `data->getRegion()` covers (all zero: the whole render region), whole ones, one
    /// chunk each. A cell that was written before is replaced. Rows are asked for from top to bottom; a row
    /// is used before the next one is asked for. The integers are -1 (the region is what the data says), 0,
    /// 0.
    ///
    /// Errors: RIERR_INCOMPLETE when a row was refused or a cell is only covered in part: those cells are not
    /// written, all others are. RIERR_WRITE: the file is cut back to the last complete chunk where
    /// that is possible, and a later call may succeed.
    ErrorCode WTRegion(QURegionData* data, int index, int, int) noexcept;

    /// Writes the index and closes the file. Missing regions are no error.
    ErrorCode Close() noexcept;

    /// What is known of the frame so far.
    const RIHeader& header() const noexcept;
    /// The channels, once they are written.
    int getNumChannels() const noexcept;
    const RIChannelInfo& getChannel(int index) const noexcept;
    /// The cells, row by row, once the grid and what stands before it is written; 0 before.
    int getNumRegions() const noexcept;
    RIRegionInfo getRegion(int index) const noexcept;
    bool isRegionDone(int index) const noexcept;
    int countMissingRegions() const noexcept;

private:
    struct State;
    State* m_state; // Null without an open file.
};

} // namespace QUtils

using QUtils::RIFile;
