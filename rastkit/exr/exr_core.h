#pragma once

#include "qutils/core/char_string.h"
#include "qutils/plugin/pixel_buffer.h"
#include "qutils/raw/records.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

/// `LoadEXRFile` and `LoadEXRHeader` by either conventions.
ImgError loadExr(const char* name, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
ImgError loadExrHeader(const char* name, IMGINFO* info, Conventions conventions);
/// The packed form of `LoadEXRFile`, and `LoadEXRLevel`. By the standard conventions alpha is scaled like the
/// colours, and a level has its own height.
ImgError loadExrPacked(const char* name, unsigned int* pixels, IMGINFO* info, Conventions conventions);
ImgError loadExrLevel(const char* name, ImgBuffer& buffer, IMGINFO* info, int level, Conventions conventions);

/// How an OpenEXR file is written.
struct ExrSaveOptions {
    int compressionType = 0; ///< As `ExrSettingsInterface::setExrCompressionType` takes it; 0 is ZIP.
    int bitsPerChannel = 32; ///< 32: floats; anything else: half floats.
    CharString extraAttributes {}; ///< See `WriteEXRExtraAttributes`; empty: none.
    CameraInfo camera {}; ///< Written when it is valid.
};

/// `SaveEXRFile_pb` by either conventions.
ImgError saveExr(const char* name, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const ExrSaveOptions& options, Conventions conventions);

} // namespace QUtils
