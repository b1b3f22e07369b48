#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

namespace QUtils {

// The SGI codec with the conventions said. LoadSGIHeader, LoadSGIFile and SaveSGIFile_pb are these with
// Conventions::Renderer, the last one with the depth of the process-wide settings.

struct SgiSaveOptions {
    int bitsPerChannel = 8; ///< 16, else 8.
    bool runLength = false; ///< Packets, where the file can be gone back in and 32 bits count its bytes.
};

ImgError loadSgiHeader(const char* fileName, IMGINFO* info, Conventions conventions);
ImgError loadSgi(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions);
/// The standard conventions answer IMGERR_UNSUPPORTED, before the file is touched, to sizes that the format
/// has no place for. The renderer's write no packets, and do not tell when a file cannot be written to.
ImgError saveSgi(const char* fileName, PixelBufferInterface& frame, int channel, int alphaChannel, int flags,
    const SgiSaveOptions& options, Conventions conventions);

} // namespace QUtils
