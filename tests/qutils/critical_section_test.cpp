#include "qutils/core/critical_section.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace {

using namespace testing_support;
using QUtils::CriticalSection;
using QUtils::FastCriticalSection;

template <typename Lock> bool anotherThreadGets(Lock& lock)
{
    bool got = false;
    std::thread([&] {
        got = lock.try_lock();
        if (got)
            lock.unlock();
    }).join();
    return got;
}

template <typename T> class CriticalSectionKind : public testing::Test {
};
using Kinds = testing::Types<CriticalSection, FastCriticalSection>;
TYPED_TEST_SUITE(CriticalSectionKind, Kinds);

TYPED_TEST(CriticalSectionKind, HolderMayLockAgainAndUnlocksAsOften)
{
    TypeParam section;
    section.lock();
    section.lock();
    EXPECT_TRUE(section.try_lock());
    section.unlock();
    section.unlock();
    EXPECT_FALSE(anotherThreadGets(section));
    section.unlock();
    EXPECT_TRUE(anotherThreadGets(section));
}

TYPED_TEST(CriticalSectionKind, AdmitsOneThreadAtATime)
{
    TypeParam section;
    long count = 0;
    inThreads(4, [&](int) {
        for (int i = 0; i < 10000; ++i) {
            const std::lock_guard<TypeParam> outer(section);
            const std::lock_guard<TypeParam> inner(section);
            ++count;
        }
    });
    EXPECT_EQ(count, 40000);
}

} // namespace
