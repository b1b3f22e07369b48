#include "rastkit/model/load_dispatch.h"

#include "qutils/core/clock.h"
#include "rastkit/load.h"

using QUtils::dispatchLoad;
using QUtils::ImageLoader;

ImgError LoadImageHeader(const char* fileName, IMGINFO* info)
{
    *info = IMGINFO {};
    return dispatchLoad("LoadImageHeader", fileName,
        [&](const ImageLoader& loader) { return loader.loadHeader(fileName, info); });
}

ImgError LoadImageFile(
    const char* fileName, const char* psdLayer, const char* psdAlpha, ImgBuffer& buffer, IMGINFO* info)
{
    if (info)
        *info = IMGINFO {};
    return dispatchLoad("LoadImageFile", fileName, [&](const ImageLoader& loader) -> ImgError {
        if (loader.type == IMGTYPE_PSD)
            return LoadPSDFile(fileName, psdLayer, psdAlpha, buffer, info);
        return loader.loadFile(fileName, buffer, info);
    });
}

ImgError LoadImageFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return LoadImageFile(fileName, nullptr, nullptr, buffer, info);
}

int getImageSHATag(const char* fileName, char* out, int outSize)
{
    if (!fileName || !out || !QUtils::uniPathOrFileExists(fileName))
        return 0;
    const auto read = [&](const ImageLoader& loader) {
        return loader.loadTag ? loader.loadTag(fileName, out, outSize) : 0;
    };

    const ImageLoader* const byName = QUtils::findLoaderByExtension(fileName);
    const int found = byName ? read(*byName) : 0;
    if (found != 0)
        return found;
    const ImageLoader* const byContents = QUtils::findLoaderByContents(fileName);
    return byContents && byContents != byName ? read(*byContents) : 0;
}

int QUtils::textureWaitAt(std::uint32_t tickCount)
{
    const int part = int(tickCount % 1000);
    return ((1000 - part) * 5000 + part * 300) / 1000;
}

int getTextureWait()
{
    return QUtils::textureWaitAt(QUtils::getTickCount());
}
