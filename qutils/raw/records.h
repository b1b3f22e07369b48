#pragma once

#include "qutils/core/table.h"
#include "qutils/export.h"

namespace QUtils {

/// The camera that a frame was rendered with, as the renderer describes it.
struct CameraInfo {
    unsigned char valid; ///< 0: the record is empty.
    float transform[4][4]; ///< Camera to world, row vectors.
    int projection;
    float aperture, fov, targetDistance, nearRange, farRange, nearClip, farClip, focalLength, fNumber;
};

/// The camera of a raw frame; the same form as CameraInfo.
struct RICameraInfo {
    unsigned char valid;
    float transform[4][4];
    int projection;
    float aperture, fov, targetDistance, nearRange, farRange, nearClip, farClip, focalLength, fNumber;
};

/// The rendered rectangle of the image; right and bottom exclusive, all zero means the whole image.
struct RIRegionInfo {
    int left, top, right, bottom;
};

/// Frame number and a description of the scene (may be null).
struct RISceneInfo {
    int number;
    char* text;
};

/// Sample types of a raw channel.
enum RISampleType {
    RISAMPLE_HALF = 0,
    RISAMPLE_FLOAT = 1,
    RISAMPLE_UINT = 2,
};

/// Describes one channel of raw render output.
class QUTILS_API RegionChannelCallback {
public:
    virtual ~RegionChannelCallback();
    virtual const char* getName() = 0;
    virtual int getChannelId() = 0;
    virtual int getSampleType() = 0; ///< A RISampleType.
    virtual int getNumComponents() = 0; ///< 1 to 4.
    /// 1 colour, 2 vector, 3 depth, 4 data; 0 (the default) = by components: 3 or 4 colour, 1 data, 2 X/Y.
    virtual int getKind();
};

/// The pixels of a finished region of raw render output.
class QUTILS_API QURegionData {
public:
    virtual ~QURegionData();
    virtual RIRegionInfo getRegion() = 0;
    /// The region's row `y` (image coordinates) of the channel at position `channel` in the channel list,
    /// packed samples; null = refused.
    virtual const void* getRow(int channel, int y) = 0;
};

/// The list of raw channels that a renderer hands over.
using RegionChannelTable = Table<RegionChannelCallback*, 100>;

} // namespace QUtils

using QUtils::CameraInfo;
using QUtils::QURegionData;
using QUtils::RegionChannelCallback;
using QUtils::RICameraInfo;
using QUtils::RIRegionInfo;
using QUtils::RISceneInfo;
