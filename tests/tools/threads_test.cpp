#include "tools/threads.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sched.h>

namespace {

class ToolThreads : public testing::Test {
protected:
    ToolThreads()
    {
        unsetenv("RASTKIT_THREADS");
        unsetenv("SLURM_CPUS_PER_TASK");
    }
    ~ToolThreads() override
    {
        unsetenv("RASTKIT_THREADS");
        unsetenv("SLURM_CPUS_PER_TASK");
    }
};

} // namespace

TEST_F(ToolThreads, TheWishComesBeforeTheBatchSystem)
{
    setenv("SLURM_CPUS_PER_TASK", "5", 1);
    EXPECT_EQ(tool::countThreads(), 5);
    setenv("RASTKIT_THREADS", "7", 1);
    EXPECT_EQ(tool::countThreads(), 7);
}

TEST_F(ToolThreads, WhatIsNoNumberOfThreadsIsIgnored)
{
    const int usual = tool::countThreads();
    for (const char* text : { "", "0", "-3", "many", "4x" }) {
        setenv("RASTKIT_THREADS", text, 1);
        EXPECT_EQ(tool::countThreads(), usual) << text;
    }
    setenv("RASTKIT_THREADS", "99999999999999999999", 1);
    EXPECT_EQ(tool::countThreads(), 256);
}

TEST_F(ToolThreads, WithoutAWishAffinityIsTheMost)
{
    cpu_set_t before, one;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    EXPECT_GE(tool::countThreads(), 1);
    EXPECT_LE(tool::countThreads(), CPU_COUNT(&before));
    CPU_ZERO(&one);
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i)
        if (CPU_ISSET(i, &before)) {
            CPU_SET(i, &one);
            break;
        }
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_EQ(tool::countThreads(), 1);
    sched_setaffinity(0, sizeof before, &before);
}
