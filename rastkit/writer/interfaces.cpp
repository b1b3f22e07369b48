#include "rastkit/writer.h"

namespace QUtils {

unsigned long ImageWriterInterface::getInterfaceID()
{
    return interfaceId;
}
const char* ImageWriterInterface::getInterfaceName()
{
    return "EXT_IMAGE_WRITER_INTERFACE";
}

unsigned long ExrSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* ExrSettingsInterface::getInterfaceName()
{
    return "EXT_EXRSETTINGS";
}

unsigned long FileNameFormatInterface::getInterfaceID()
{
    return interfaceId;
}
const char* FileNameFormatInterface::getInterfaceName()
{
    return "EXT_IMAGE_WRITER_FILENAME_FORMAT";
}

unsigned long PngSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* PngSettingsInterface::getInterfaceName()
{
    return "EXT_PNGSETTINGS";
}

unsigned long JpegSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* JpegSettingsInterface::getInterfaceName()
{
    return "EXT_JPEGSETTINGS";
}

unsigned long TiffSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* TiffSettingsInterface::getInterfaceName()
{
    return "EXT_TIFFSETTINGS";
}

unsigned long SgiSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* SgiSettingsInterface::getInterfaceName()
{
    return "EXT_SGISETTINGS";
}

unsigned long RawImageSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* RawImageSettingsInterface::getInterfaceName()
{
    return "EXT_RAW_IMAGE_SETTINGS";
}

unsigned long TgaSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* TgaSettingsInterface::getInterfaceName()
{
    return "EXT_TGASETTINGS";
}

unsigned long ColorCorrectionSettingsInterface::getInterfaceID()
{
    return interfaceId;
}
const char* ColorCorrectionSettingsInterface::getInterfaceName()
{
    return "EXT_COLOR_CORRECTION_SETTINGS";
}

} // namespace QUtils
