#include "qutils/plugin/pixel_buffer.h"

namespace QUtils {

unsigned long PixelBufferInterface::getInterfaceID()
{
    return 0;
}

PluginBase* PixelBufferInterface::getPlugin()
{
    return nullptr;
}

unsigned long ColorCorrectedPixelsInterface::getInterfaceID()
{
    return interfaceId;
}

} // namespace QUtils
