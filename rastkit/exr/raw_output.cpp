#include "rastkit/exr/raw_output.h"

#include "qutils/raw/exr_file.h"
#include "qutils/raw/ri_file.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/save.h"

using QUtils::RawImageSettingsInterface;

ImgError SaveEXRFile(const char* fileName, RawImageSettingsInterface* settings)
{
    QUtils::startExrLibrary();
    QUtils::ExrFile file(0);
    return QUtils::saveRawOutput(file, "SaveEXRFile", fileName, *settings);
}

ImgError SaveQUIMGFile(const char* fileName, RawImageSettingsInterface* settings)
{
    QUtils::RIFile file;
    return QUtils::saveRawOutput(file, "SaveQUIMGFile", fileName, *settings);
}
