#include "rastkit/writer.h"

#include "rastkit/model/format_tables.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace QUtils {

namespace {

/// True when the environment forbids colour correction: only the first character of the variable counts,
/// so that "0", "00" and "0x" all do.
bool environmentForbidsCorrection()
{
    const char* const value = std::getenv("QUOR_WRITE_COLOR_CORRECTIONS");
    return value && value[0] == '0';
}

/// A private copy of `text`; null for null, and when memory is refused.
char* duplicate(const char* text)
{
    if (!text)
        return nullptr;
    const std::size_t bytes = std::strlen(text) + 1;
    char* const copy = new (std::nothrow) char[bytes];
    return copy ? static_cast<char*>(std::memcpy(copy, text, bytes)) : nullptr;
}

} // namespace

DefaultImageWriter::~DefaultImageWriter() = default;

PluginInterface* DefaultImageWriter::newInterface(unsigned long id)
{
    switch (id) {
    case ImageWriterInterface::interfaceId: return static_cast<ImageWriterInterface*>(this);
    case ExrSettingsInterface::interfaceId: return static_cast<ExrSettingsInterface*>(this);
    case FileNameFormatInterface::interfaceId: return static_cast<FileNameFormatInterface*>(this);
    case PngSettingsInterface::interfaceId: return static_cast<PngSettingsInterface*>(this);
    case JpegSettingsInterface::interfaceId: return static_cast<JpegSettingsInterface*>(this);
    case TiffSettingsInterface::interfaceId: return static_cast<TiffSettingsInterface*>(this);
    case SgiSettingsInterface::interfaceId: return static_cast<SgiSettingsInterface*>(this);
    case RawImageSettingsInterface::interfaceId: return static_cast<RawImageSettingsInterface*>(this);
    case TgaSettingsInterface::interfaceId: return static_cast<TgaSettingsInterface*>(this);
    case ColorCorrectionSettingsInterface::interfaceId:
        return static_cast<ColorCorrectionSettingsInterface*>(this);
    default: return PluginBase::newInterface(id);
    }
}

PluginBase* DefaultImageWriter::getPlugin()
{
    return this;
}

ImgError DefaultImageWriter::writeImage(
    const char* fileName, int formatIndex, PixelBufferInterface* buffer, int flags, int frame)
{
    if (m_applyColorCorrection)
        flags |= SAVE_CORRECTION_MODE_0;
    if (environmentForbidsCorrection())
        flags &= ~SAVE_CORRECTION_MODE_0;

    // The name decides, also when formatIndex names another format.
    if (fileFormatIsMultiChannel(fileName, flags))
        return SaveImageFile_multiChannel(
            fileName, this, buffer, (flags & SAVE_ADD_FRAME_NUMBER) != 0, frame, m_frameDigits);
    if (!buffer)
        return IMGERR_WRITE;
    return SaveImageFile_allChannels(fileName, *buffer, formatIndex, frame, m_channelDivider, m_frameDigits,
        m_separateFolder, flags, m_nameColorChannel);
}

int DefaultImageWriter::getImageFileName(
    const char* fileName, int /*channel*/, int flags, int frame, char* out, int outSize)
{
    // Always the colour channel, and never named: divider and folder have no effect here, on purpose.
    const PixelBufferChannelInfo colorChannel { PIXELKIND_COLOR, "rgba", PIXELCHANNEL_COLOR };
    return SaveImageFile_getFilename(fileName, colorChannel, m_channelDivider,
        (flags & SAVE_ADD_FRAME_NUMBER) != 0, frame, m_frameDigits, out, outSize, m_separateFolder, false);
}

int DefaultImageWriter::getNumFileFormats()
{
    return supportedCount;
}

int DefaultImageWriter::getFileFormatInfo(int index, FileFormatInfo& out)
{
    if (index < 0 || index >= getNumFileFormats())
        return 0;
    out = supported[index];
    return 1;
}

void DefaultImageWriter::setExrCompressionType(int type)
{
    exrCompressionType = type;
}
void DefaultImageWriter::setExrBitsPerChannel(int bits)
{
    exrBitsPerChannel = bits;
}
void DefaultImageWriter::setExrExtraAttributes(CharString& text)
{
    exrExtraAttributes = text;
}
void DefaultImageWriter::setCameraInfo(const CameraInfo& camera)
{
    exrCameraInfo = camera;
}
int DefaultImageWriter::getExrCompressionType()
{
    return exrCompressionType;
}
int DefaultImageWriter::getExrBitsPerChannel()
{
    return exrBitsPerChannel;
}
CharString DefaultImageWriter::getExrExtraAttributes()
{
    return exrExtraAttributes;
}
CameraInfo DefaultImageWriter::getCameraInfo()
{
    return exrCameraInfo;
}

void DefaultImageWriter::setPngCompressionLevel(int level)
{
    pngCompression = level;
}
void DefaultImageWriter::setPngBitsPerChannel(int bits)
{
    pngBitsPerChannel = bits;
}
int DefaultImageWriter::getPngCompressionLevel()
{
    return pngCompression;
}
int DefaultImageWriter::getPngBitsPerChannel()
{
    return pngBitsPerChannel;
}

void DefaultImageWriter::setJpegQuality(int quality)
{
    jpegQuality = quality;
}
int DefaultImageWriter::getJpegQuality()
{
    return jpegQuality;
}

void DefaultImageWriter::setTiffBitsPerChannel(int bits)
{
    tiffBitsPerChannel = bits;
}
int DefaultImageWriter::getTiffBitsPerChannel()
{
    return tiffBitsPerChannel;
}
void DefaultImageWriter::setTiffInterleaved(int interleaved)
{
    tiffInterleaved = interleaved;
}
int DefaultImageWriter::getTiffInterleaved()
{
    return tiffInterleaved;
}

void DefaultImageWriter::setChanDivider(char divider)
{
    m_channelDivider = divider;
}
void DefaultImageWriter::setNumFrameDigits(int digits)
{
    m_frameDigits = digits;
}
void DefaultImageWriter::setRenderElementSeparateFolder(bool separate)
{
    m_separateFolder = separate;
}
void DefaultImageWriter::setRenderElementSeparateRGBA(bool separate)
{
    m_nameColorChannel = separate;
}

void DefaultImageWriter::setSgiBitsPerChannel(int bits)
{
    sgiBitsPerChannel = bits;
}
int DefaultImageWriter::getSgiBitsPerChannel()
{
    return sgiBitsPerChannel;
}

void DefaultImageWriter::setTgaCompression(int imageType)
{
    tgaCompression = imageType;
}

void DefaultImageWriter::setRawImageBitsPerChannel(int bits)
{
    rawImageBitsPerChannel = bits;
}
void DefaultImageWriter::setRawImageWidth(int width)
{
    rawImageWidth = width;
}
void DefaultImageWriter::setRawImageHeight(int height)
{
    rawImageHeight = height;
}
void DefaultImageWriter::setRawImagePixelAspect(float aspect)
{
    rawImagePixelAspect = aspect;
}
void DefaultImageWriter::setRawImageRegionInfo(RIRegionInfo& region)
{
    rawImageRegionInfo = region;
}
void DefaultImageWriter::setRawImageRegWidth(int width)
{
    rawImageRegWidth = width;
}
void DefaultImageWriter::setRawImageRegHeight(int height)
{
    rawImageRegHeight = height;
}
void DefaultImageWriter::setRawImageRegType(int type)
{
    rawImageRegType = type;
}

void DefaultImageWriter::setRawImageChannelList(RegionChannelTable* list)
{
    if (list == &rawImageChannelList)
        return; // Hosts may hand back what getRawImageChannelList gave them.
    constexpr int growth = 100;
    rawImageChannelList.clear();
    if (!list)
        return;
    const int count = list->count();
    if (count > rawImageChannelList.capacity()
        && !rawImageChannelList.reserve(count + growth - count % growth))
        return;
    for (RegionChannelCallback* channel : *list)
        rawImageChannelList.add(channel);
}

void DefaultImageWriter::setRawImageCameraInfo(RICameraInfo& camera)
{
    rawImageCameraInfo = camera;
}
void DefaultImageWriter::setRawImageRegionData(QURegionData* data)
{
    rawImageRegionData = data;
}

void DefaultImageWriter::setRawImageSceneInfo(RISceneInfo& scene)
{
    char* const text = duplicate(scene.text); // Before the old text goes: `scene` may be the setting itself.
    delete[] rawImageSceneInfo.text;
    rawImageSceneInfo.number = scene.number;
    rawImageSceneInfo.text = text;
}

int DefaultImageWriter::getRawImageBitsPerChannel()
{
    return rawImageBitsPerChannel;
}
int DefaultImageWriter::getRawImageWidth()
{
    return rawImageWidth;
}
int DefaultImageWriter::getRawImageHeight()
{
    return rawImageHeight;
}
float DefaultImageWriter::getRawImagePixelAspect()
{
    return rawImagePixelAspect;
}
RIRegionInfo& DefaultImageWriter::getRawImageRegionInfo()
{
    return rawImageRegionInfo;
}
int DefaultImageWriter::getRawImageRegWidth()
{
    return rawImageRegWidth;
}
int DefaultImageWriter::getRawImageRegHeight()
{
    return rawImageRegHeight;
}
int DefaultImageWriter::getRawImageRegType()
{
    return rawImageRegType;
}
RegionChannelTable* DefaultImageWriter::getRawImageChannelList()
{
    return &rawImageChannelList;
}
RICameraInfo& DefaultImageWriter::getRawImageCameraInfo()
{
    return rawImageCameraInfo;
}
QURegionData* DefaultImageWriter::getRawImageRegionData()
{
    return rawImageRegionData;
}
RISceneInfo& DefaultImageWriter::getRawImageSceneInfo()
{
    return rawImageSceneInfo;
}

void DefaultImageWriter::setApplyColorCorrection(int apply)
{
    m_applyColorCorrection = apply;
}

ImageWriterInterface* newDefaultImageWriter()
{
    return new (std::nothrow) DefaultImageWriter;
}

void deleteDefaultImageWriter(ImageWriterInterface* writer)
{
    delete writer;
}

} // namespace QUtils
