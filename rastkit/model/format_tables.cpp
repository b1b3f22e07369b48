#include "rastkit/model/format_tables.h"

#include "rastkit/load.h"
#include "rastkit/save.h"

#include <cstring>
#include <iterator>
#include <strings.h>

namespace QUtils {

// clang-format off
const FileFormatInfo supported[supportedCount] = {
    { "png",          "Portable Network Graphics (*.png)" },
    { "bmp",          "Windows bitmap (*.bmp)" },
    { "tga",          "Targa image file (*.tga)" },
    { "hdr",          "Radiance High-Dynamic Range image (*.hdr)" },
    { "sgi;rgb;rgba", "Silicon Graphics (*.sgi *.rgb *.rgba)" },
    { "jpg;jpeg",     "JPEG image file (*.jpg *.jpeg)" },
    { "exr",          "OpenEXR image file (*.exr)" },
    { "pic",          "Softimage PICT file (*.pic)" },
    { "tif;tiff",     "Tagged image file format (*.tif *.tiff)" },
    { "psd",          "Photoshop (*.psd)" },
    { "quimg",        "Quor image file (*.quimg)" },
};

const ImageLoader tableImageLoaders[imageLoaderCount] = {
    // extensions         pixels       header         content tag  type
    { ".PNG",             LoadPNGFile, LoadPNGHeader, nullptr,     IMGTYPE_PNG },
    { ".TGA",             LoadTGAFile, LoadTGAHeader, nullptr,     IMGTYPE_TGA },
    { ".JPG|.JPEG|.JPE",  LoadJPGFile, LoadJPGHeader, nullptr,     IMGTYPE_JPEG },
    { ".BMP",             LoadBMPFile, LoadBMPHeader, nullptr,     IMGTYPE_BMP },
    { ".EXR",             LoadEXRFile, LoadEXRHeader, LoadEXRSHA,  IMGTYPE_EXR },
    { ".HDR",             LoadHDRFile, LoadHDRHeader, nullptr,     IMGTYPE_HDR },
    { ".SGI|.RGB|.RGBA",  LoadSGIFile, LoadSGIHeader, nullptr,     IMGTYPE_SGI },
    { ".PIC",             LoadPICFile, LoadPICHeader, nullptr,     IMGTYPE_PIC },
    { ".TIF|.TIFF",       LoadTIFFile, LoadTIFHeader, LoadTIFSHA,  IMGTYPE_TIFF },
    { ".PSD",             nullptr,     LoadPSDHeader, nullptr,     IMGTYPE_PSD },
    { ".DDS",             LoadDDSFile, LoadDDSHeader, nullptr,     IMGTYPE_DDS },
};
// clang-format on

int getSupportedFormatsList(Table<const FileFormatInfo*, 100>& list)
{
    list.clear();
    if (list.reserve(supportedCount)) {
        for (const FileFormatInfo& format : supported)
            list.add(&format);
    }
    return supportedCount;
}

namespace {

/// The extension of a file name, or the whole of a bare one. Every dot after the first character ends the
/// name, also one in a folder; there is no other separator.
const char* findExtension(const char* name)
{
    const std::size_t length = std::strlen(name);
    if (length == 0)
        return name;
    if (name[length - 1] == '.')
        return name + length;
    for (std::size_t i = length - 1; i > 1; --i) {
        if (name[i - 1] == '.')
            return name + i;
    }
    return name[0] == '.' ? name + 1 : name;
}

/// Deliberately compares no more than the extension's own length, so that the beginning of an extension
/// stands for it ("jp" for "jpg") and an empty one for the first row: renderers' scenes rely on it.
bool matchesBeginning(const FileFormatInfo& format, const char* extension)
{
    const std::size_t length = std::strlen(extension);
    return anyAlternative(format.extensions, ';', [&](const char* alternative, std::size_t) {
        return strncasecmp(alternative, extension, length) == 0;
    });
}

} // namespace

int getFileFormatIndex(const char* nameOrExtension, char* firstExtension)
{
    if (!nameOrExtension)
        return -1;
    const char* const extension = findExtension(nameOrExtension);
    for (int i = 0; i < supportedCount; ++i) {
        if (!matchesBeginning(supported[i], extension))
            continue;
        if (firstExtension) {
            const std::size_t length = std::strcspn(supported[i].extensions, ";");
            std::memcpy(firstExtension, supported[i].extensions, length);
            firstExtension[length] = '\0';
        }
        return i;
    }
    return -1;
}

bool IsImgFormatSupported(const char* name)
{
    return getFileFormatIndex(name, nullptr) != -1;
}

bool fileFormatIsMultiChannel(const char* name, int flags)
{
    char extension[64];
    if (getFileFormatIndex(name, extension) == -1)
        return false;
    return strcasecmp(extension, "quimg") == 0
        || ((flags & SAVE_EXR_MULTI_CHANNEL) != 0 && strcasecmp(extension, "exr") == 0);
}

const ImageLoader* findLoaderByExtension(const char* fileName)
{
    const std::size_t nameLength = std::strlen(fileName);
    for (const ImageLoader& loader : tableImageLoaders) {
        const bool matches
            = anyAlternative(loader.extensions, '|', [&](const char* alternative, std::size_t length) {
                  return nameLength > length
                      && strncasecmp(fileName + nameLength - length, alternative, length) == 0;
              });
        if (matches)
            return &loader;
    }
    return nullptr;
}

} // namespace QUtils
