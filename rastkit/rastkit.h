#pragma once

// Everything that a user of the library needs.

#include "qutils/core/char_string.h"
#include "qutils/core/clock.h"
#include "qutils/core/critical_section.h"
#include "qutils/core/error_code.h"
#include "qutils/core/exception_msg.h"
#include "qutils/core/file_ptr.h"
#include "qutils/core/paths.h"
#include "qutils/core/ptr_array.h"
#include "qutils/core/table.h"
#include "qutils/plugin/pixel_buffer.h"
#include "qutils/plugin/plugin.h"
#include "qutils/raw/records.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/binary_io.h"
#include "rastkit/codecs/tga.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "rastkit/types.h"
#include "rastkit/writer.h"
