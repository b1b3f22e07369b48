#include "qutils/core/critical_section.h"

namespace QUtils {

CriticalSection::CriticalSection() noexcept
{
    pthread_mutexattr_init(&m_attributes);
    pthread_mutexattr_settype(&m_attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &m_attributes);
}

CriticalSection::~CriticalSection()
{
    pthread_mutex_destroy(&m_mutex);
    pthread_mutexattr_destroy(&m_attributes);
}

void CriticalSection::lock() noexcept
{
    pthread_mutex_lock(&m_mutex);
}

bool CriticalSection::try_lock() noexcept
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void CriticalSection::unlock() noexcept
{
    pthread_mutex_unlock(&m_mutex);
}

} // namespace QUtils
