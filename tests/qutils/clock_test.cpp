#include "qutils/core/clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <thread>

namespace {

using QUtils::getTickCount;

std::uint32_t monotonicMilliseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint32_t>(
        std::uint64_t(now.tv_sec) * 1000 + std::uint64_t(now.tv_nsec) / 1000000);
}

TEST(TickCount, IsTheMonotonicClockInMilliseconds)
{
    const std::uint32_t before = monotonicMilliseconds();
    const std::uint32_t ticks = getTickCount();
    const std::uint32_t after = monotonicMilliseconds();
    EXPECT_LE(ticks - before, after - before); // Differences hold across the wrap.
}

TEST(TickCount, AdvancesWithTime)
{
    const std::uint32_t before = getTickCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::uint32_t passed = getTickCount() - before;
    EXPECT_GE(passed, 29u); // Each reading drops its fraction.
    EXPECT_LT(passed, 30000u);
}

} // namespace
