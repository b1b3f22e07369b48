#pragma once

#include "rastkit/types.h"

#include <csetjmp>
#include <cstdio> // Before jpeglib.h, which uses FILE.
#include <jpeglib.h>

#include <jerror.h> // Numbers its messages by the version that jpeglib.h says.

namespace QUtils {

/// libjpeg's error record, which prints nothing, and the place where an error goes on.
struct SilentJpegErrors : jpeg_error_mgr {
    SilentJpegErrors();

    std::jmp_buf recovery;
    bool hasLostData = false; ///< Data of the picture was missing or broken.
    bool hasMetEnd = false; ///< The file ended before its end marker.
};

/// Ends the present step with an error of libjpeg's numbering. Does not come back: the callers, up to the
/// step, own nothing with a destructor.
void raiseJpegError(j_common_ptr coder, int code);

/// The one place where libjpeg's errors arrive. Runs a part of the work on a coder (a record with `cinfo` and
/// `errors`), which owns nothing with a destructor; an error inside destroys `cinfo` and becomes
/// `coder.failure()`. Exceptions of sinks and frames pass through, since the step meets them between two
/// calls of libjpeg.
template <typename Coder> ImgErrorCode fenceJpeg(Coder& coder, ImgErrorCode (*step)(Coder&))
{
    if (setjmp(coder.errors.recovery) != 0)
        return coder.failure();
    return step(coder);
}

} // namespace QUtils
