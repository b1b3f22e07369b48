#include "rastkit/image/image_comment.h"

#include "rastkit/codecs/tiff_file.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/exr/exr_open.h"

#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfStandardAttributes.h>

#include <exception>
#include <tiffio.h>

namespace QUtils {

namespace {

std::string commentOfExr(const char* fileName)
{
    try {
        startExrLibrary();
        OpenExr<Imf::InputFile> file(fileName);
        return Imf::hasComments(file->header()) ? Imf::comments(file->header()) : std::string();
    } catch (const std::exception&) { // Whatever is wrong with the file: it has no comment.
        return {};
    }
}

} // namespace

std::string readImageComment(const char* fileName)
{
    LibTIFF_StopWarnings();
    const TiffFile tiff(fileName, "r");
    if (!tiff)
        return commentOfExr(fileName);
    const char* text = nullptr;
    return TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &text) && text ? text : std::string();
}

} // namespace QUtils
