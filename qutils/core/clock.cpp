#include "qutils/core/clock.h"

#include <chrono>

namespace QUtils {

std::uint32_t getTickCount() noexcept
{
    using namespace std::chrono;
    return static_cast<std::uint32_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

} // namespace QUtils
