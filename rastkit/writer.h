#pragma once

#include "qutils/core/char_string.h"
#include "qutils/core/table.h"
#include "qutils/plugin/pixel_buffer.h"
#include "qutils/plugin/plugin.h"
#include "qutils/raw/records.h"
#include "rastkit/formats.h"
#include "rastkit/types.h"

// The image writer plug-in. One object with ten interfaces; ask any of them for another one with
// `getPlugin()->newInterface(id)`.
//
// The settings of the formats are process-wide: a value set through one writer object holds for all of
// them, and outlives them. Set them before frames are written; no lock is taken. File naming and colour
// correction belong to the object.

namespace QUtils {

/// Writes frames and lists formats.
class RASTKIT_API ImageWriterInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x7783b786;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    /// Writes a frame: to one file with all raw channels when the name is a quimg (or OpenEXR with flag
    /// 0x100), else one file per channel. `formatIndex` is a row of the format list, or -1 for the name's
    /// own. The environment variable QUOR_WRITE_COLOR_CORRECTIONS, when it begins with 0, clears flag
    /// 0x200; it is read on every call.
    virtual ImgError writeImage(
        const char* fileName, int formatIndex, PixelBufferInterface* buffer, int flags, int frame)
        = 0;
    /// Builds the name under which the colour channel is written: `fileName`, with the frame number when
    /// flag 4 is set. `channel` is not used.
    virtual int getImageFileName(
        const char* fileName, int channel, int flags, int frame, char* out, int outSize)
        = 0;
    /// Rows of the format list: 11.
    virtual int getNumFileFormats() = 0;
    /// Copies a row of the format list. 1, or 0 when there is no such row.
    virtual int getFileFormatInfo(int index, FileFormatInfo& out) = 0;
};

/// OpenEXR output.
class RASTKIT_API ExrSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77a0b501;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setExrCompressionType(int type) = 0;
    virtual void setExrBitsPerChannel(int bits) = 0;
    virtual void setExrExtraAttributes(CharString& text) = 0; ///< The setting shares the caller's text.
    virtual void setCameraInfo(const CameraInfo& camera) = 0;
    virtual int getExrCompressionType() = 0;
    virtual int getExrBitsPerChannel() = 0;
    virtual CharString getExrExtraAttributes() = 0;
    virtual CameraInfo getCameraInfo() = 0;
};

/// How output files are named. These settings belong to the writer object.
class RASTKIT_API FileNameFormatInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77a1f105;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setChanDivider(char divider) = 0; ///< Between name and channel; "." at first.
    virtual void setNumFrameDigits(int digits) = 0; ///< 4 at first.
    virtual void setRenderElementSeparateFolder(bool separate) = 0; ///< A folder per channel; false at first.
    virtual void setRenderElementSeparateRGBA(bool separate) = 0; ///< The colour channel too, as "rgba".
};

/// PNG output.
class RASTKIT_API PngSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77a2174d;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setPngCompressionLevel(int level) = 0; ///< 5 at first.
    virtual void setPngBitsPerChannel(int bits) = 0; ///< 8 at first.
    virtual int getPngCompressionLevel() = 0;
    virtual int getPngBitsPerChannel() = 0;
};

/// JPEG output.
class RASTKIT_API JpegSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77a21751;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setJpegQuality(int quality) = 0; ///< 85 at first.
    virtual int getJpegQuality() = 0;
};

/// TIFF output.
class RASTKIT_API TiffSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77afd612;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setTiffBitsPerChannel(int bits) = 0; ///< 8 at first.
    virtual int getTiffBitsPerChannel() = 0;
    virtual void setTiffInterleaved(int interleaved) = 0; ///< 0 at first.
    virtual int getTiffInterleaved() = 0;
};

/// SGI output.
class RASTKIT_API SgiSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77cef08e;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setSgiBitsPerChannel(int bits) = 0; ///< 8 at first.
    virtual int getSgiBitsPerChannel() = 0;
};

/// Raw render output: everything that goes into a multi-channel file.
class RASTKIT_API RawImageSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77cf6a09;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setRawImageBitsPerChannel(int bits) = 0;
    virtual void setRawImageWidth(int width) = 0;
    virtual void setRawImageHeight(int height) = 0;
    virtual void setRawImagePixelAspect(float aspect) = 0;
    virtual void setRawImageRegionInfo(RIRegionInfo& region) = 0;
    virtual void setRawImageRegWidth(int width) = 0;
    virtual void setRawImageRegHeight(int height) = 0;
    virtual void setRawImageRegType(int type) = 0;
    /// Copies the entries of `list`, the pointers, not what they point to; null empties the setting.
    virtual void setRawImageChannelList(RegionChannelTable* list) = 0;
    virtual void setRawImageCameraInfo(RICameraInfo& camera) = 0;
    virtual void setRawImageRegionData(QURegionData* data) = 0;
    virtual int getRawImageBitsPerChannel() = 0;
    virtual int getRawImageWidth() = 0;
    virtual int getRawImageHeight() = 0;
    virtual float getRawImagePixelAspect() = 0;
    virtual RIRegionInfo& getRawImageRegionInfo() = 0;
    virtual int getRawImageRegWidth() = 0;
    virtual int getRawImageRegHeight() = 0;
    virtual int getRawImageRegType() = 0;
    virtual RegionChannelTable* getRawImageChannelList() = 0;
    virtual RICameraInfo& getRawImageCameraInfo() = 0;
    virtual QURegionData* getRawImageRegionData() = 0;
    virtual void setRawImageSceneInfo(RISceneInfo& scene) = 0; ///< Copies the text.
    virtual RISceneInfo& getRawImageSceneInfo() = 0; ///< The text is the setting's own: only read it.
};

/// Targa output.
class RASTKIT_API TgaSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x77cfdbb5;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setTgaCompression(int imageType) = 0; ///< 2 uncompressed (at first), 10 run-length.
};

/// Whether frames are written with colour correction. Belongs to the writer object.
class RASTKIT_API ColorCorrectionSettingsInterface : public PluginInterface {
public:
    static constexpr unsigned long interfaceId = 0x780cbda5;
    unsigned long getInterfaceID() override;
    const char* getInterfaceName() override;

    virtual void setApplyColorCorrection(int apply) = 0; ///< 1 at first.
};

/// The image writer plug-in itself. Hosts reach it through its interfaces. The order of the bases and of the
/// functions is the order of the tables of virtual functions: part of the binary interface.
class RASTKIT_API DefaultImageWriter : public PluginBase,
                                       public ImageWriterInterface,
                                       public ExrSettingsInterface,
                                       public FileNameFormatInterface,
                                       public PngSettingsInterface,
                                       public JpegSettingsInterface,
                                       public TiffSettingsInterface,
                                       public SgiSettingsInterface,
                                       public RawImageSettingsInterface,
                                       public TgaSettingsInterface,
                                       public ColorCorrectionSettingsInterface {
public:
    DefaultImageWriter() noexcept = default;
    ~DefaultImageWriter() override;

    PluginInterface* newInterface(unsigned long id) override;
    PluginBase* getPlugin() override;

    ImgError writeImage(
        const char* fileName, int formatIndex, PixelBufferInterface* buffer, int flags, int frame) override;
    int getImageFileName(
        const char* fileName, int channel, int flags, int frame, char* out, int outSize) override;
    int getNumFileFormats() override;
    int getFileFormatInfo(int index, FileFormatInfo& out) override;

    void setExrCompressionType(int type) override;
    void setExrBitsPerChannel(int bits) override;
    void setExrExtraAttributes(CharString& text) override;
    void setCameraInfo(const CameraInfo& camera) override;
    int getExrCompressionType() override;
    int getExrBitsPerChannel() override;
    CharString getExrExtraAttributes() override;
    CameraInfo getCameraInfo() override;

    void setPngCompressionLevel(int level) override;
    void setPngBitsPerChannel(int bits) override;
    int getPngCompressionLevel() override;
    int getPngBitsPerChannel() override;

    void setJpegQuality(int quality) override;
    int getJpegQuality() override;

    void setTiffBitsPerChannel(int bits) override;
    int getTiffBitsPerChannel() override;
    void setTiffInterleaved(int interleaved) override;
    int getTiffInterleaved() override;

    void setChanDivider(char divider) override;
    void setNumFrameDigits(int digits) override;
    void setRenderElementSeparateFolder(bool separate) override;
    void setRenderElementSeparateRGBA(bool separate) override;

    void setSgiBitsPerChannel(int bits) override;
    int getSgiBitsPerChannel() override;

    void setTgaCompression(int imageType) override;

    void setRawImageBitsPerChannel(int bits) override;
    void setRawImageWidth(int width) override;
    void setRawImageHeight(int height) override;
    void setRawImagePixelAspect(float aspect) override;
    void setRawImageRegionInfo(RIRegionInfo& region) override;
    void setRawImageRegWidth(int width) override;
    void setRawImageRegHeight(int height) override;
    void setRawImageRegType(int type) override;
    void setRawImageChannelList(RegionChannelTable* list) override;
    void setRawImageCameraInfo(RICameraInfo& camera) override;
    void setRawImageRegionData(QURegionData* data) override;
    void setRawImageSceneInfo(RISceneInfo& scene) override;
    int getRawImageBitsPerChannel() override;
    int getRawImageWidth() override;
    int getRawImageHeight() override;
    float getRawImagePixelAspect() override;
    RIRegionInfo& getRawImageRegionInfo() override;
    int getRawImageRegWidth() override;
    int getRawImageRegHeight() override;
    int getRawImageRegType() override;
    RegionChannelTable* getRawImageChannelList() override;
    RICameraInfo& getRawImageCameraInfo() override;
    QURegionData* getRawImageRegionData() override;
    RISceneInfo& getRawImageSceneInfo() override;

    void setApplyColorCorrection(int apply) override;

private:
    char m_channelDivider = '.';
    int m_frameDigits = 4;
    bool m_separateFolder = false;
    bool m_nameColorChannel = false;
    int m_applyColorCorrection = 1;
};

/// Makes a writer object and returns its first interface; null when memory is refused.
RASTKIT_API ImageWriterInterface* newDefaultImageWriter();
/// Destroys the whole object that `writer` belongs to; null is ignored.
RASTKIT_API void deleteDefaultImageWriter(ImageWriterInterface* writer);

} // namespace QUtils

using QUtils::ColorCorrectionSettingsInterface;
using QUtils::DefaultImageWriter;
using QUtils::ExrSettingsInterface;
using QUtils::FileNameFormatInterface;
using QUtils::ImageWriterInterface;
using QUtils::JpegSettingsInterface;
using QUtils::PngSettingsInterface;
using QUtils::RawImageSettingsInterface;
using QUtils::SgiSettingsInterface;
using QUtils::TgaSettingsInterface;
using QUtils::TiffSettingsInterface;
