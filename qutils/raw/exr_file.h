#pragma once

#include "qutils/core/error_code.h"
#include "qutils/raw/pstream.h"
#include "qutils/raw/records.h"

#include <memory>

namespace QUtils {

/// Writes raw render output as one multi-channel OpenEXR file, which every program that reads the format
/// opens with its layers: the picture as R, G, B, A, the other channels by their names.
///
/// The calls come in the order in which they stand here, each once; those for camera and scene may be left
/// out. The file is complete after `Close`. Every call returns an error whose text says what failed, and
/// lets no exception out, the caller's own included.
///
/// A renderer that writes bucket by bucket, in any order, takes RIFile: the lines of an OpenEXR file are
/// stored from the top, all channels together, so `WTRegion` takes the whole frame at once.
class QUTILS_API ExrFile {
public:
    /// `compressionType` counts as ExrSettingsInterface does it: 0 and what is unknown is ZIP, 1 none, 2 RLE,
    /// 3 ZIPS, 4 ZIP, 5 PIZ, 6 PXR24, 7 B44, 8 B44A, 9 DWAA, 10 DWAB. Where a channel holds anything but a
    /// picture, data or integers, ZIP takes the place of a lossy one.
    explicit ExrFile(int compressionType = 0);
    ExrFile(const ExrFile&) = delete;
    ExrFile& operator=(const ExrFile&) = delete;
    /// Without `Close` a file stays that is not complete.
    ~ExrFile();

    /// Makes the file, empty. `stream` is null: this format is not written from front to back.
    ErrorCode Create(const char* name, PStream* stream);
    /// 16: colours as half floats; 32: as floats; anything else: every channel by its own sample type.
    ErrorCode WriteHeader(int bitsPerChannel);
    /// The display window, at least 1 x 1. An aspect ratio that is none, as 0 is, means square pixels.
    ErrorCode WTResolution(int width, int height, float pixelAspect);
    /// The data window: a rectangle within the image that is not empty, or all zero for the whole image.
    ErrorCode WTRenderRegion(const RIRegionInfo& region);
    /// The renderer's buckets, kept as attributes.
    ErrorCode WTRegionsInfo(int regWidth, int regHeight, int regType);
    /// The channels, asked for what they are within this call. Null and an empty list give a black picture.
    ErrorCode WTChannelInfo(Table<RegionChannelCallback*, 100>* channels);
    ErrorCode WTCameraInfo(const RICameraInfo& camera);
    ErrorCode WTSceneInfo(RISceneInfo& scene);
    /// All lines of the image, from the top; what the region does not cover is 0. Of a row that is refused
    /// the lines above it stay in the file. Afterwards everything is on disk. The numbers are the host's own.
    ErrorCode WTRegion(QURegionData* data, int index, int argument1, int argument2);
    /// Ends the file, with lines of zeros where no region came.
    ErrorCode Close();

private:
    class Writer;
    template <typename Step> ErrorCode run(const char* function, Step step) noexcept;

    std::unique_ptr<Writer> m_writer;
};

} // namespace QUtils

using QUtils::ExrFile;
