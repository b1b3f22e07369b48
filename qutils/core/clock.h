#pragma once

#include "qutils/export.h"

#include <cstdint>

namespace QUtils {

/// Milliseconds of the monotonic clock, low 32 bits: wraps every 49.7 days.
QUTILS_API std::uint32_t getTickCount() noexcept;

} // namespace QUtils

using QUtils::getTickCount;
