#include "support/refuse_memory.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

using namespace testing_support;

/// True when a block of `bytes` is granted; the block is released at once. The compiler may not leave out a
/// direct call of the operator, as it may a new-expression.
bool granted(std::size_t bytes = 8)
{
    void* const block = ::operator new(bytes, std::nothrow);
    ::operator delete(block);
    return block != nullptr;
}

TEST(RefuseMemory, RefusesEverythingWhileItLives)
{
    bool within = true, threw = false;
    std::size_t refusals = 0;
    {
        const RefuseMemory refuse;
        within = granted();
        try {
            ::operator delete(::operator new(8));
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        refusals = refuse.refusals();
    }
    EXPECT_GE(refusals, 2u); // The exception object may be a third.
    EXPECT_FALSE(within);
    EXPECT_TRUE(threw);
    EXPECT_TRUE(granted());
}

TEST(RefuseMemory, RefusesTheRequestsInItsWindowOnly)
{
    std::string pattern;
    pattern.reserve(64);
    {
        const RefuseMemory refuse({ .granted = 2, .refused = 3 });
        for (int i = 0; i < 7; ++i)
            pattern += granted() ? '+' : '-';
    }
    EXPECT_EQ(pattern, "++---++");
}

TEST(RefuseMemory, SmallRequestsPassUncounted)
{
    const RefuseMemory refuse({ .minBytes = 1000 });
    const bool small = granted(999), large = granted(1000);
    EXPECT_TRUE(small);
    EXPECT_FALSE(large);
    EXPECT_EQ(refuse.requests(), 1u);
}

TEST(RefuseMemory, OtherThreadsAreUnharmedUnlessAskedFor)
{
    for (const bool everyThread : { false, true }) {
        bool other = false;
        inThreads(1, [&](int) {
            // The thread exists by now: starting one takes memory.
            other = granted(5000);
        });
        EXPECT_TRUE(other);
        {
            const RefuseMemory refuse({ .minBytes = 5000, .everyThread = everyThread });
            inThreads(1, [&](int) { other = granted(5000); });
        }
        EXPECT_EQ(other, !everyThread);
    }
}

TEST(RefuseMemory, AlignedRequestsAreRefusedToo)
{
    void *refused = nullptr, *given = nullptr;
    const auto alignment = std::align_val_t(64);
    {
        const RefuseMemory refuse({ .refused = 1 });
        refused = ::operator new(64, alignment, std::nothrow);
        given = ::operator new(64, alignment, std::nothrow);
    }
    EXPECT_EQ(refused, nullptr);
    ASSERT_NE(given, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(given) % 64, 0u);
    ::operator delete(given, alignment);
}

TEST(RefuseMemory, AllocationFunctionsOfCAreRefusedToo)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "malloc belongs to a sanitizer here";
    void* volatile kept = std::malloc(16); // Volatile: unused blocks could be left out by the compiler.
    void* volatile blocks[6] = {};
    void* aligned = nullptr;
    int alignedResult = 0;
    std::size_t requests = 0;
    {
        const RefuseMemory refuse;
        blocks[0] = std::malloc(16);
        blocks[1] = std::calloc(4, 4);
        blocks[2] = std::realloc(nullptr, 16);
        blocks[3] = std::realloc(kept, 4096);
        blocks[4] = std::aligned_alloc(64, 64);
        blocks[5] = strdup("text");
        alignedResult = posix_memalign(&aligned, 64, 64);
        requests = refuse.requests();
    }
    for (void* block : blocks)
        EXPECT_EQ(block, nullptr);
    EXPECT_EQ(alignedResult, ENOMEM);
    EXPECT_EQ(requests, 7u);
    std::free(kept);
    void* volatile after = std::calloc(4, 4);
    EXPECT_NE(after, nullptr);
    std::free(after);
}

TEST(RefuseMemory, EachRequestIsRefusedInTurn)
{
    std::string outcomes;
    const int count
        = refuseEachInTurn([] { return int(granted()) + int(granted()) * 2 + int(granted()) * 4; },
            [&](int grantedMask, int position) {
                outcomes += std::to_string(position) + ":" + std::to_string(grantedMask) + " ";
            });
    EXPECT_EQ(count, 3);
    EXPECT_EQ(outcomes, "0:6 1:5 2:3 -1:7 ");
}

TEST(MemoryLog, NotesBlocksInOrder)
{
    const MemoryLog log;
    void* const first = ::operator new(8);
    void* const second = ::operator new(8);
    ::operator delete(first);
    ::operator delete(second);
    ::operator delete(nullptr);
    ASSERT_EQ(log.takenCount(), 2u);
    ASSERT_EQ(log.releasedCount(), 2u);
    EXPECT_EQ(log.taken(1), second);
    EXPECT_EQ(log.released(0), first);
}

TEST(MemoryLog, CountsOnPastItsCapacity)
{
    const MemoryLog log;
    for (std::size_t i = 0; i < MemoryLog::capacity + 10; ++i)
        granted();
    EXPECT_EQ(log.takenCount(), MemoryLog::capacity + 10);
}

} // namespace
