#include "tools/interrupt.h"

#include <atomic>
#include <cerrno>
#include <unistd.h>

namespace tool {

namespace {

/// The signals by which users, terminals and batch systems end a program.
constexpr int endingSignals[] = { SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU };

std::atomic<const char*> watchedName { nullptr };
static_assert(std::atomic<const char*>::is_always_lock_free, "read by a signal handler");

/// Calls nothing but what a signal handler may call.
extern "C" void removeAndEnd(int number)
{
    if (const char* const name = watchedName.load())
        ::unlink(name);
    // The default action was restored when the handler was called, and waits for the handler's end.
    ::raise(number);
}

/// A signal that is ignored, as under nohup, stays so.
void handle(int number)
{
    struct sigaction present;
    if (::sigaction(number, nullptr, &present) != 0 || present.sa_handler == SIG_IGN)
        return;
    struct sigaction action { };
    action.sa_handler = removeAndEnd;
    action.sa_flags = int(SA_RESETHAND);
    ::sigfillset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

} // namespace

SignalBlock::SignalBlock()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : endingSignals)
        ::sigaddset(&signals, number);
    ::pthread_sigmask(SIG_BLOCK, &signals, &m_before);
}

SignalBlock::~SignalBlock()
{
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

RemoveOnSignal::~RemoveOnSignal()
{
    watchedName = nullptr;
}

void RemoveOnSignal::watch(const std::string& name)
{
    m_name = name;
    watchedName = m_name.c_str();
    for (const int number : endingSignals)
        handle(number);
}

} // namespace tool
