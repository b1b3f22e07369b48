#pragma once

#include "qutils/core/char_string.h"
#include "qutils/raw/records.h"

namespace QUtils {

// The process-wide output settings: set through the writer plug-in, read by the file writers, without a
// lock. Values are kept as given; what they mean is each writer's business.

extern int pngCompression;
extern int pngBitsPerChannel;
extern int jpegQuality;
extern int tiffBitsPerChannel;
extern int tiffInterleaved;
extern int sgiBitsPerChannel;
extern int tgaCompression; ///< The Targa image type: 2 uncompressed, 10 run-length.

extern int exrCompressionType;
extern int exrBitsPerChannel;
extern CharString exrExtraAttributes;
extern CameraInfo exrCameraInfo;

extern int rawImageBitsPerChannel;
extern int rawImageWidth, rawImageHeight;
extern int rawImageRegWidth, rawImageRegHeight, rawImageRegType;
extern float rawImagePixelAspect;
extern RIRegionInfo rawImageRegionInfo;
extern RICameraInfo rawImageCameraInfo;
extern QURegionData* rawImageRegionData;
extern RegionChannelTable rawImageChannelList;
/// A scene record that owns its text.
struct OwnedSceneInfo : RISceneInfo {
    constexpr OwnedSceneInfo() : RISceneInfo {} { }
    OwnedSceneInfo(const OwnedSceneInfo&) = delete;
    OwnedSceneInfo& operator=(const OwnedSceneInfo&) = delete;
    ~OwnedSceneInfo() { delete[] text; }
};
extern OwnedSceneInfo rawImageSceneInfo;

} // namespace QUtils
