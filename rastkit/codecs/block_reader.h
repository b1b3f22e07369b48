#pragma once

// The codecs' way to their files. It lives with the utilities, whose own readers use it as well.
#include "qutils/core/block_reader.h"
