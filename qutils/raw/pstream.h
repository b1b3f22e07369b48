#pragma once

#include "qutils/export.h"

#include <cstddef>

namespace QUtils {

/// Where raw render output goes when it does not go to a file of its own: bytes from front to back.
class QUTILS_API PStream {
public:
    virtual ~PStream();
    /// Takes `size` bytes. False when they could not all be taken.
    virtual bool write(const void* bytes, std::size_t size) = 0;
};

} // namespace QUtils

using QUtils::PStream;
