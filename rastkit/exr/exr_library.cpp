#include "rastkit/exr/exr_library.h"

#include "rastkit/formats.h"

#include <ImfThreading.h>

#include <algorithm>
#include <exception>
#include <mutex>

namespace QUtils {

CriticalSection exr_csect;
std::atomic<int> exrInited;

void startExrLibrary()
{
    if (exrInited.load(std::memory_order_acquire) != 0)
        return;
    const std::lock_guard lock(exr_csect);
    if (exrInited.load(std::memory_order_relaxed) != 0)
        return;
    static_cast<void>(Imf::globalThreadCount()); // Asked for its side effect.
    exrInited.store(1, std::memory_order_release);
}

void setThreadCount(int count)
{
    startExrLibrary();
    try {
        Imf::setGlobalThreadCount(std::max(count, 0));
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): said in the declaration.
        // The system has no more threads: those that are there go on.
    }
}

} // namespace QUtils
