#pragma once

#include "rastkit/types.h"

#include <memory>
#include <vector>

namespace testing_support {

/// A sink of a class that was compiled without run-time type information, as renderers are built.
struct SinkWithoutRtti {
    std::vector<unsigned int> pixels; ///< Row after row.
    std::unique_ptr<ImgBuffer> buffer; ///< Stores there.
};

std::unique_ptr<SinkWithoutRtti> newSinkWithoutRtti();

} // namespace testing_support
