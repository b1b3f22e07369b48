#pragma once

#include "qutils/formats/psd/psd.h"
#include "rastkit/export.h"
#include "rastkit/types.h"

/// The code that the loaders answer for a number of the Photoshop reader: the one of the same meaning, and
/// IMGERR_LIBRARY for refused memory. Deliberately success for numbers that the reader has not.
RASTKIT_API ImgErrorCode psdToImgError(QUtils::PSD_Error error);
