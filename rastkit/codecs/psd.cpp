#include "rastkit/codecs/psd.h"

#include "qutils/core/paths.h"
#include "rastkit/codecs/psd_core.h"
#include "rastkit/load.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>

namespace QUtils {

namespace {

ImgError toImgError(PSD_Error error, Conventions conventions)
{
    if (conventions == Conventions::Renderer)
        return psdToImgError(error);
    switch (error) {
    case PSD_ERROR_NONE: return IMGERR_NONE;
    case PSD_ERROR_OPEN: return makeOpenError();
    case PSD_ERROR_READ: return IMGERR_READ;
    case PSD_ERROR_FORMAT: return IMGERR_FORMAT;
    case PSD_ERROR_UNSUPPORTED: return IMGERR_UNSUPPORTED;
    case PSD_ERROR_MEMORY: return IMGERR_MEMORY;
    default: return IMGERR_LIBRARY;
    }
}

/// The renderer is told four bytes a pixel, although the pixels are floats: deliberately, for every file.
void describeForRenderer(int width, int height, IMGINFO* info)
{
    if (!info)
        return;
    info->width = width;
    info->height = height;
    info->bitsPerPixel = 32;
    info->numChannels = 4;
    info->bytesPerPixel = 4;
}

/// What the file stores of each pixel; bits count as bytes, since they are delivered so.
void describe(const PSD_Image& image, IMGINFO* info)
{
    if (!info)
        return;
    const int sampleBits = std::max(image.bitsPerSample(), 8);
    info->width = image.width();
    info->height = image.height();
    info->numChannels = (image.isGrey() ? 1 : 3) + (image.hasAlpha() ? 1 : 0);
    info->bitsPerPixel = info->numChannels * sampleBits;
    info->bytesPerPixel = info->bitsPerPixel / 8;
}

/// PSD_ERROR_MEMORY where the text is lost: an empty one would ask for something else.
PSD_Error toUtf32(const char* text, UTF32String& result)
{
    result.setFromUTF8(text);
    return text && *text && result.empty() ? PSD_ERROR_MEMORY : PSD_ERROR_NONE;
}

PSD_Error loadImage(const char* fileName, const char* layer, const char* alphaChannel, PSD_Image& image)
{
    UTF32String layerText, alphaText;
    if (const PSD_Error error = toUtf32(layer, layerText))
        return error;
    if (const PSD_Error error = toUtf32(alphaChannel, alphaText))
        return error;
    return PSD_LoadFile(fileName, layerText, alphaText, image);
}

/// Sizes the sink. Deliberately, the renderer goes on with a sink that says that it has no storage.
ImgErrorCode initSink(const PSD_Image& image, RowSink& sink, Conventions conventions)
{
    const ImgErrorCode code = sink.init(image.width(), image.height());
    if (code == IMGERR_NONE || conventions == Conventions::Standard)
        return code;
    sink.adopt(image.width(), image.height());
    return IMGERR_NONE;
}

/// Hands over floats, and to a sink that makes bytes of them the bytes that they come from.
ImgErrorCode storeRows(const PSD_Image& image, RowSink& sink)
{
    const bool isPacked = sink.roundsToBytes() && image.hasPackedRows();
    for (int y = 0; y < image.height(); ++y) {
        if (isPacked) {
            unsigned int* const row = sink.beginRow(y);
            if (!row)
                return IMGERR_MEMORY;
            image.getPackedRow(y, row);
            sink.endRow(y, row);
            continue;
        }
        float* const row = sink.beginRowF(y);
        if (!row)
            return IMGERR_MEMORY;
        image.getRow(y, row);
        sink.endRowF(y, row);
    }
    return IMGERR_NONE;
}

} // namespace

ImgError loadPsdHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    if (conventions == Conventions::Standard) {
        PSD_Image image;
        const PSD_Error error = PSD_LoadDescription(fileName, image);
        if (error == PSD_ERROR_NONE)
            describe(image, info);
        return toImgError(error, conventions);
    }
    const FilePtr file(qutils_fopen(fileName, "rb"));
    int width = 0, height = 0;
    const PSD_Error error = PSD_LoadHeader(file, width, height); // Which has its own answer for no file.
    if (error == PSD_ERROR_NONE)
        describeForRenderer(width, height, info);
    return toImgError(error, conventions);
}

ImgError loadPsd(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    return loadPsd(fileName, nullptr, nullptr, buffer, info, conventions);
}

ImgError loadPsd(const char* fileName, const char* layer, const char* alphaChannel, ImgBuffer& buffer,
    IMGINFO* info, Conventions conventions)
{
    PSD_Image image;
    const PSD_Error error = loadImage(fileName, layer, alphaChannel, image);
    if (error != PSD_ERROR_NONE)
        return toImgError(error, conventions);

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    RASTKIT_TRY(initSink(image, sink, conventions));
    RASTKIT_TRY(storeRows(image, sink));
    if (conventions == Conventions::Renderer)
        describeForRenderer(image.width(), image.height(), info);
    else
        describe(image, info);
    return IMGERR_NONE;
}

} // namespace QUtils

ImgErrorCode psdToImgError(QUtils::PSD_Error error)
{
    switch (int(error)) {
    case QUtils::PSD_ERROR_OPEN: return IMGERR_OPEN;
    case QUtils::PSD_ERROR_READ: return IMGERR_READ;
    case QUtils::PSD_ERROR_WRITE: return IMGERR_WRITE;
    case QUtils::PSD_ERROR_FORMAT: return IMGERR_FORMAT;
    case QUtils::PSD_ERROR_UNSUPPORTED: return IMGERR_UNSUPPORTED;
    case QUtils::PSD_ERROR_MEMORY: return IMGERR_LIBRARY;
    default: return IMGERR_NONE;
    }
}

ImgError LoadPSDHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadPsdHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadPSDFile(const char* fileName, const char* psdLayerArg1, const char* psdLayerArg2,
    ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadPsd(fileName, psdLayerArg1, psdLayerArg2, buffer, info, QUtils::Conventions::Renderer);
}
