#include "qutils/core/ptr_array.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace {

using namespace testing_support;
using QUtils::PtrArray;
using QUtils::RefCounter;

/// Counts the elements that exist.
struct Counted {
    static int alive;
    Counted() { ++alive; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --alive; }
};
int Counted::alive = 0;

template <typename T> class PtrArrayOf : public testing::Test {
};
using ElementTypes = testing::Types<float, unsigned char, unsigned short, int, char>;
TYPED_TEST_SUITE(PtrArrayOf, ElementTypes);

TYPED_TEST(PtrArrayOf, HoldsAsManyElementsAsAskedFor)
{
    PtrArray<TypeParam> array;
    EXPECT_FALSE(array);
    TypeParam* const memory = array.allocMem(1000);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(array.get(), memory);
    for (std::size_t i = 0; i < 1000; ++i)
        array[i] = static_cast<TypeParam>(i % 100);
    EXPECT_EQ(memory[999], static_cast<TypeParam>(99));
}

TYPED_TEST(PtrArrayOf, AbsurdSizesAreNull)
{
    PtrArray<TypeParam> array;
    volatile std::size_t count = SIZE_MAX; // Volatile: the compiler would object to the constants.
    EXPECT_EQ(array.allocMem(count), nullptr);
    EXPECT_FALSE(array);
    count = std::size_t(PTRDIFF_MAX) / sizeof(TypeParam);
    EXPECT_EQ(array.allocMem(count), nullptr);
    count = SIZE_MAX / sizeof(TypeParam) - 1;
    EXPECT_EQ(array.allocMem(count), nullptr);
    if (sizeof(TypeParam) > 1) {
        count = SIZE_MAX / sizeof(TypeParam) + 2; // The byte count would wrap to a small one.
        EXPECT_EQ(array.allocMem(count), nullptr);
    }
    EXPECT_NE(array.allocMem(4), nullptr);
}

TEST(PtrArray, CopiesOwnOneArrayAndTheLastReleasesIt)
{
    PtrArray<Counted> first;
    ASSERT_NE(first.allocMem(3), nullptr);
    {
        PtrArray<Counted> second(first), third;
        third = second;
        EXPECT_EQ(third.get(), first.get());
        first.freeMem();
        EXPECT_FALSE(first);
        EXPECT_EQ(Counted::alive, 3);
        second.freeMem();
        second.freeMem();
        EXPECT_EQ(Counted::alive, 3);
        EXPECT_TRUE(third);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(PtrArray, NewArrayLeavesTheOneOfTheOtherOwners)
{
    PtrArray<int> first;
    first.allocMem(1)[0] = 11;
    PtrArray<int> second(first);
    second.allocMem(1)[0] = 22;
    EXPECT_EQ(first[0], 11);
    EXPECT_EQ(second[0], 22);
}

TEST(PtrArray, MoveAndAssignmentToItselfKeepTheArray)
{
    PtrArray<Counted> array;
    array.allocMem(2);
    PtrArray<Counted> moved(std::move(array));
    EXPECT_TRUE(moved);
    EXPECT_FALSE(array); // NOLINT(bugprone-use-after-move): the state is the subject.
    PtrArray<Counted>& alias = moved;
    moved = alias;
    moved = std::move(alias);
    EXPECT_TRUE(moved);
    EXPECT_EQ(Counted::alive, 2);
    moved = PtrArray<Counted>();
    EXPECT_EQ(Counted::alive, 0);
}

TEST(PtrArray, ArrayOfNoElementsIsNotNull)
{
    PtrArray<float> array;
    EXPECT_NE(array.allocMem(0), nullptr);
}

TEST(PtrArray, OwnersOnSeveralThreadsAreCounted)
{
    PtrArray<Counted> array;
    ASSERT_NE(array.allocMem(2), nullptr);
    inThreads(4, [&array](int) {
        for (int i = 0; i < 20000; ++i) {
            const PtrArray<Counted> copy(array);
            PtrArray<Counted> second;
            second = copy;
            ASSERT_EQ(second.get(), copy.get());
        }
    });
    EXPECT_EQ(Counted::alive, 2);
    array.freeMem();
    EXPECT_EQ(Counted::alive, 0);
}

TEST(RefCounter, ReplacesAndReleasesItsArray)
{
    {
        RefCounter<Counted> counter;
        EXPECT_EQ(counter.memory(), nullptr);
        EXPECT_NE(counter.allocMem(5), nullptr);
        EXPECT_NE(counter.allocMem(2), nullptr);
        EXPECT_EQ(Counted::alive, 2);
        counter.freeMem();
        EXPECT_EQ(counter.memory(), nullptr);
        EXPECT_NE(counter.allocMem(4), nullptr);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(RefCounter, TellsTheLastReference)
{
    RefCounter<int> counter;
    counter.addReference();
    EXPECT_FALSE(counter.dropReference());
    EXPECT_TRUE(counter.dropReference());
}

} // namespace
