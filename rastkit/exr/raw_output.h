#pragma once

#include "rastkit/types.h"
#include "rastkit/writer.h"

namespace QUtils {

/// Drives one of the raw-output writers, ExrFile or RIFile, with everything that the settings hold: the same
/// calls in the same order, up to the first that fails. The codes are negative to tell them from the
/// ImgErrorCode values. The writer's own error is dropped for these; a file stays as far as it was written.
template <class RawWriter>
ImgError saveRawOutput(
    RawWriter& file, const char* function, const char* fileName, RawImageSettingsInterface& settings)
{
    constexpr int fileFailed = -3, channelsFailed = -4, cameraFailed = -5, regionFailed = -4;
    constexpr int wholeFrame = -1;

    if (file.Create(fileName, nullptr).code() != 0)
        return ImgError(function, fileFailed, "Error creating image file \"%s\".", fileName);
    if (file.WriteHeader(settings.getRawImageBitsPerChannel()).code() != 0)
        return ImgError(function, fileFailed, "Error writing header.");
    if (file.WTResolution(
                settings.getRawImageWidth(), settings.getRawImageHeight(), settings.getRawImagePixelAspect())
            .code()
        != 0)
        return ImgError(function, fileFailed, "Error writing resolution.");
    if (file.WTRenderRegion(settings.getRawImageRegionInfo()).code() != 0)
        return ImgError(function, fileFailed, "Error writing render region info.");
    if (file.WTRegionsInfo(settings.getRawImageRegWidth(), settings.getRawImageRegHeight(),
                settings.getRawImageRegType())
            .code()
        != 0)
        return ImgError(function, fileFailed, "Error writing tile info.");
    if (file.WTChannelInfo(settings.getRawImageChannelList()).code() != 0)
        return ImgError(function, channelsFailed, "Error writing channel list.");
    if (file.WTCameraInfo(settings.getRawImageCameraInfo()).code() != 0)
        return ImgError(function, cameraFailed, "Error writing camera information.");
    if (file.WTSceneInfo(settings.getRawImageSceneInfo()).code() != 0)
        return ImgError(function, fileFailed, "Error writing scene info.");
    if (QURegionData* const data = settings.getRawImageRegionData())
        if (file.WTRegion(data, wholeFrame, 0, 0).code() != 0)
            return ImgError(function, regionFailed, "Error writing render region to raw image file.");
    static_cast<void>(file.Close()); // Everything is on disk by now.
    return IMGERR_NONE;
}

} // namespace QUtils
