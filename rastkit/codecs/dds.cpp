#include "rastkit/codecs/dds.h"

#include "qutils/formats/dds/dds_reader.h"
#include "rastkit/codecs/dds_core.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

namespace QUtils {

namespace {

/// The reader's rows on their way to the caller's sink.
class SinkRows : public DdsRows {
public:
    explicit SinkRows(ImgBuffer& buffer) : m_sink(buffer) { }

    bool begin(int width, int height, bool) override { return m_sink.init(width, height) == IMGERR_NONE; }
    unsigned int* storage(int y) override { return m_sink.storage(y); }
    float* storageF(int y) override { return m_sink.storageF(y); }
    void put(int y, const unsigned int* argb, int count) override { m_sink.put(0, y, argb, count); }
    void putF(int y, const float* rgba, int count) override { m_sink.putF(0, y, rgba, count); }

private:
    RowSink m_sink;
};

void describe(const DdsDescription& picture, IMGINFO* info)
{
    if (!info)
        return;
    info->width = picture.width;
    info->height = picture.height;
    info->bitsPerPixel = picture.isFloat ? 128 : 32;
    info->numChannels = 4;
    info->bytesPerPixel = picture.isFloat ? 16 : 4;
}

ImgErrorCode toImgError(int result, Conventions conventions)
{
    switch (result) {
    case DDS_ERR_NONE: return IMGERR_NONE;
    case DDS_ERR_READ: return IMGERR_READ;
    case DDS_ERR_FORMAT: return IMGERR_FORMAT;
    case DDS_ERR_UNSUPPORTED: return IMGERR_UNSUPPORTED;
    default:
        // The renderer does not tell refused memory, or a sink that has none, from any other failure.
        return conventions == Conventions::Renderer ? IMGERR_LIBRARY : IMGERR_MEMORY;
    }
}

ImgError load(const char* fileName, ImgBuffer* buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    return toImgError(DDS_LoadFile(file, buffer, info), conventions);
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgError loadDdsHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    return load(fileName, nullptr, info, conventions);
}

ImgError loadDds(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    return load(fileName, &buffer, info, conventions);
}

} // namespace QUtils

int DDS_LoadFile(std::FILE* file, ImgBuffer* buffer, IMGINFO* info)
{
    QUtils::DdsDescription picture {};
    int result = QUtils::DDS_ERR_NONE;
    if (buffer) {
        const QUtils::FreeOnThrow guard(*buffer);
        QUtils::SinkRows rows(*buffer);
        result = QUtils::DDS_ReadSurface(file, QUtils::DdsSurface {}, rows, &picture);
    } else {
        result = QUtils::DDS_ReadDescription(file, picture);
    }
    if (result == QUtils::DDS_ERR_NONE)
        QUtils::describe(picture, info);
    return result;
}

ImgError LoadDDSHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadDdsHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadDDSFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadDds(fileName, buffer, info, QUtils::Conventions::Renderer);
}
