#include "rastkit/codecs/jpeg_fence.h"

namespace QUtils {

namespace {

SilentJpegErrors& errorsOf(j_common_ptr coder)
{
    return *static_cast<SilentJpegErrors*>(coder->err);
}

void silentJpegErrorExit(j_common_ptr coder)
{
    SilentJpegErrors& errors = errorsOf(coder);
    jpeg_destroy(coder);
    std::longjmp(errors.recovery, 1);
}

/// Warnings below level 0 say that something is wrong with the file. Most of it harms no pixel.
void noteWarning(j_common_ptr coder, int level)
{
    if (level >= 0)
        return;
    SilentJpegErrors& errors = errorsOf(coder);
    switch (errors.msg_code) {
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_ARITH_BAD_CODE:
    case JWRN_MUST_RESYNC: errors.hasLostData = true; break;
    case JWRN_JPEG_EOF: errors.hasMetEnd = true; break;
    default: break;
    }
}

void printNothing(j_common_ptr) { }

} // namespace

SilentJpegErrors::SilentJpegErrors() : jpeg_error_mgr()
{
    jpeg_std_error(this);
    error_exit = silentJpegErrorExit;
    emit_message = noteWarning;
    output_message = printNothing;
}

void raiseJpegError(j_common_ptr coder, int code)
{
    coder->err->msg_code = code;
    coder->err->error_exit(coder);
}

} // namespace QUtils
