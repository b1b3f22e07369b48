#include "rastkit/image/standard_load.h"

#include "rastkit/codecs/bmp_core.h"
#include "rastkit/codecs/dds_core.h"
#include "rastkit/codecs/hdr_core.h"
#include "rastkit/codecs/jpeg_core.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/codecs/png_core.h"
#include "rastkit/codecs/psd_core.h"
#include "rastkit/codecs/sgi_core.h"
#include "rastkit/codecs/tga_core.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/exr/exr_core.h"
#include "rastkit/model/load_dispatch.h"

#include <algorithm>
#include <iterator>

namespace QUtils {

namespace {

/// The core of one codec, which takes the conventions as an argument.
struct CodecCore {
    using Load = ImgError (*)(const char* name, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
    using LoadHeader = ImgError (*)(const char* name, IMGINFO* info, Conventions conventions);

    ImgType type;
    Load load;
    LoadHeader loadHeader;
};

// clang-format off
constexpr CodecCore tableCodecCores[] = {
    // type         pixels    header
    { IMGTYPE_PNG,  loadPng,  loadPngHeader },
    { IMGTYPE_PSD,  loadPsd,  loadPsdHeader },
    { IMGTYPE_TGA,  loadTga,  loadTgaHeader },
    { IMGTYPE_JPEG, loadJpeg, loadJpegHeader },
    { IMGTYPE_BMP,  loadBmp,  loadBmpHeader },
    { IMGTYPE_EXR,  loadExr,  loadExrHeader },
    { IMGTYPE_SGI,  loadSgi,  loadSgiHeader },
    { IMGTYPE_PIC,  loadPic,  loadPicHeader },
    { IMGTYPE_HDR,  loadHdr,  loadHdrHeader },
    { IMGTYPE_TIFF, loadTiff, loadTiffHeader },
    { IMGTYPE_DDS,  loadDds,  loadDdsHeader },
};
// clang-format on

const CodecCore* findCore(ImgType type)
{
    const auto found = std::find_if(std::begin(tableCodecCores), std::end(tableCodecCores),
        [&](const CodecCore& core) { return core.type == type; });
    return found == std::end(tableCodecCores) ? nullptr : found;
}

/// `read(core)` runs the reader of one codec.
template <typename Read> ImgError dispatchStandard(const char* function, const char* fileName, Read read)
{
    ImgError lastFailure;
    ImgError result = dispatchLoad(function, fileName, [&](const ImageLoader& loader) -> ImgError {
        const CodecCore* const core = findCore(loader.type);
        ImgError answer = core ? read(*core) : ImgError(IMGERR_UNSUPPORTED);
        lastFailure = answer;
        return answer;
    });
    const bool hasBetterAnswer = result.code() == IMGERR_FORMAT && lastFailure.code() != IMGERR_NONE;
    return hasBetterAnswer ? lastFailure : result;
}

} // namespace

ImgError loadHeaderStandard(const char* fileName, IMGINFO* info, ImgType* type)
{
    *info = IMGINFO {};
    ImgType found = IMGTYPE_UNKNOWN;
    ImgError result = dispatchStandard("loadHeaderStandard", fileName, [&](const CodecCore& core) {
        found = core.type;
        return core.loadHeader(fileName, info, Conventions::Standard);
    });
    if (type)
        *type = result.code() == IMGERR_NONE ? found : IMGTYPE_UNKNOWN;
    return result;
}

ImgError loadStandard(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    if (info)
        *info = IMGINFO {};
    return dispatchStandard("loadStandard", fileName,
        [&](const CodecCore& core) { return core.load(fileName, buffer, info, Conventions::Standard); });
}

bool readsStandard(ImgType type)
{
    return findCore(type) != nullptr;
}

} // namespace QUtils
