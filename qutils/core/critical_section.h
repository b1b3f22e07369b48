#pragma once

#include "qutils/export.h"

#include <pthread.h>

namespace QUtils {

/// A recursive mutex: the thread that holds it may lock it again and unlocks it as often.
/// Works with std::lock_guard.
class QUTILS_API CriticalSection {
public:
    CriticalSection() noexcept;
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    ~CriticalSection();

    void lock() noexcept;
    bool try_lock() noexcept;
    void unlock() noexcept;

private:
    pthread_mutexattr_t m_attributes;
    pthread_mutex_t m_mutex;
};

/// The same lock under the name that callers use where it is held for a few instructions only.
class QUTILS_API FastCriticalSection : public CriticalSection { };

} // namespace QUtils
