#include "qutils/raw/quimg_threads.h"

#include <IlmThreadPool.h>
#include <ImfThreading.h>

#include <algorithm>
#include <atomic>
#include <new>

namespace QUtils::quimg {

namespace {

/// What the threads take their numbers from.
class Queue {
public:
    Queue(Work& work, std::size_t count) : m_work(work), m_count(count) { }

    void drain() noexcept
    {
        for (std::size_t number = m_next++; number < m_count; number = m_next++)
            m_work.run(number);
    }
    void leave() noexcept { m_left.fetch_add(1, std::memory_order_release); }
    /// For the one who waited until all had left: what they stored is seen from here on. The group that is
    /// waited for sees to that already, but a thread sanitizer does not look into OpenEXR's library.
    void join() noexcept { static_cast<void>(m_left.load(std::memory_order_acquire)); }

private:
    Work& m_work;
    const std::size_t m_count;
    std::atomic<std::size_t> m_next { 0 }, m_left { 0 };
};

class DrainTask : public IlmThread::Task {
public:
    DrainTask(IlmThread::TaskGroup* group, Queue& queue) : Task(group), m_queue(queue) { }
    void execute() override
    {
        m_queue.drain();
        m_queue.leave();
    }

private:
    Queue& m_queue;
};

/// False when memory is refused: those that are there do all the work then.
bool addHelper(IlmThread::TaskGroup& group, Queue& queue)
{
    auto* const task = new (std::nothrow) DrainTask(&group, queue);
    if (!task)
        return false;
    try {
        IlmThread::ThreadPool::addGlobalTask(task);
    } catch (...) {
        // The group counts the task since it was made, and would wait for it.
        delete task;
        group.finishOneTask();
        return false;
    }
    return true; // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the pool owns the task now.
}

} // namespace

void runWork(Work& work, std::size_t count)
{
    Queue queue(work, count);
    const int threads = Imf::globalThreadCount();
    // The caller's thread is one of them: two threads are to be busy, not three.
    const std::size_t helpers = std::min(std::size_t(std::max(threads - 1, 0)), count > 0 ? count - 1 : 0);
    if (helpers == 0) {
        queue.drain();
        return;
    }
    {
        IlmThread::TaskGroup group; // Its destructor waits for its tasks.
        for (std::size_t i = 0; i < helpers && addHelper(group, queue); ++i) { }
        queue.drain();
    }
    queue.join();
}

} // namespace QUtils::quimg
