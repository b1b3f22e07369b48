#pragma once

#include "qutils/core/critical_section.h"

#include <atomic>

namespace QUtils {

/// Guards the one-time start of the OpenEXR library.
extern CriticalSection exr_csect;
/// 1 once that has happened.
extern std::atomic<int> exrInited;

/// Makes OpenEXR set up its pool of threads, once in the process and under a lock: its own set-up must not
/// be met by two threads at once. For every function that reads or writes OpenEXR files.
void startExrLibrary();

} // namespace QUtils
