#include "rastkit/writer/settings.h"

namespace QUtils {

int pngCompression = 5;
int pngBitsPerChannel = 8;
int jpegQuality = 85;
int tiffBitsPerChannel = 8;
int tiffInterleaved = 0;
int sgiBitsPerChannel = 8;
int tgaCompression = 2;

int exrCompressionType = 0;
int exrBitsPerChannel = 32;
CharString exrExtraAttributes;
CameraInfo exrCameraInfo {};

int rawImageBitsPerChannel = 0;
int rawImageWidth = 0, rawImageHeight = 0;
int rawImageRegWidth = 0, rawImageRegHeight = 0, rawImageRegType = 0;
float rawImagePixelAspect = 0;
RIRegionInfo rawImageRegionInfo {};
RICameraInfo rawImageCameraInfo {};
QURegionData* rawImageRegionData = nullptr;
RegionChannelTable rawImageChannelList;
// Hosts may set it from their own initialisers, which must not be undone.
constinit OwnedSceneInfo rawImageSceneInfo;

} // namespace QUtils
