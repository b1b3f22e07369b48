#pragma once

#include <thread>
#include <vector>

namespace testing_support {

/// Runs `work(number)` on `count` threads at once and waits for them all.
template <typename Work> void inThreads(int count, Work work)
{
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number)
        threads.emplace_back(work, number);
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace testing_support
