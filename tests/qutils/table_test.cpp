#include "qutils/core/table.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using QUtils::Table;

template <typename T, int Growth> std::vector<T> contents(const Table<T, Growth>& table)
{
    return std::vector<T>(table.begin(), table.end());
}

TEST(Table, IsEmptyAndWithoutStorageAtFirst)
{
    const Table<int, 100> table;
    EXPECT_EQ(table.count(), 0);
    EXPECT_EQ(table.capacity(), 0);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.begin(), table.end());
}

TEST(Table, KeepsEntriesInTheOrderOfAdding)
{
    Table<std::string, 2> table;
    for (const char* word : { "one", "two", "three", "four", "five" })
        table.add(word);
    EXPECT_EQ(contents(table), (std::vector<std::string> { "one", "two", "three", "four", "five" }));
    EXPECT_EQ(table[2], "three");
    table[2] = "drei";
    EXPECT_EQ(std::as_const(table)[2], "drei");
}

TEST(Table, GrowsByItsStep)
{
    Table<int, 100> table;
    for (int i = 0; i < 250; ++i) {
        table.add(i);
        EXPECT_EQ(table.capacity(), (i / 100 + 1) * 100) << i;
    }
    EXPECT_EQ(table.count(), 250);
    EXPECT_EQ(table[249], 249);
}

TEST(Table, FullTableGrowsToTheNextMultipleOfItsStep)
{
    for (const int full : { 1, 11, 99, 100, 101, 150, 200 }) {
        Table<int, 100> table;
        ASSERT_TRUE(table.reserve(full));
        for (int i = 0; i < full; ++i)
            table.add(i);
        ASSERT_EQ(table.capacity(), full);
        table.add(-1);
        EXPECT_EQ(table.capacity(), full + 100 - full % 100) << full;
        EXPECT_EQ(table[full], -1);
        EXPECT_EQ(table[full - 1], full - 1);
    }
}

TEST(Table, ReserveIsExactAndNeverShrinks)
{
    Table<int, 100> table;
    EXPECT_TRUE(table.reserve(11));
    EXPECT_EQ(table.capacity(), 11);
    EXPECT_EQ(table.count(), 0);
    EXPECT_TRUE(table.reserve(7));
    EXPECT_TRUE(table.reserve(0));
    EXPECT_TRUE(table.reserve(-5));
    EXPECT_EQ(table.capacity(), 11);
}

TEST(Table, ReserveKeepsTheEntries)
{
    Table<std::string, 3> table;
    table.add("a");
    table.add("b");
    ASSERT_TRUE(table.reserve(40));
    EXPECT_EQ(contents(table), (std::vector<std::string> { "a", "b" }));
}

struct Large {
    char bytes[std::size_t(1) << 40];
};

TEST(Table, ReserveRefusesWhatNoMemoryHolds)
{
    Table<Large, 1> table;
    EXPECT_FALSE(table.reserve(std::numeric_limits<int>::max()));
    EXPECT_EQ(table.capacity(), 0);
}

TEST(Table, TakesAnEntryOfItsOwnWhileItGrows)
{
    Table<std::string, 1> table; // Full at every turn.
    table.add("a text that is too long for the string object itself");
    for (int i = 0; i < 20; ++i)
        table.add(table[0]);
    for (const std::string& entry : table)
        EXPECT_EQ(entry, "a text that is too long for the string object itself");
}

TEST(Table, ClearReleasesTheEntriesAndKeepsTheRoom)
{
    const auto shared = std::make_shared<int>(7);
    Table<std::shared_ptr<int>, 4> table;
    table.add(shared);
    table.add(shared);
    EXPECT_EQ(shared.use_count(), 3);
    table.clear();
    EXPECT_EQ(shared.use_count(), 1);
    EXPECT_EQ(table.count(), 0);
    EXPECT_EQ(table.capacity(), 4);
}

TEST(Table, CopyIsIndependent)
{
    Table<std::string, 2> table;
    table.add("a");
    table.add("b");
    Table<std::string, 2> copy(table);
    copy[0] = "changed";
    copy.add("c");
    EXPECT_EQ(contents(table), (std::vector<std::string> { "a", "b" }));
    EXPECT_EQ(contents(copy), (std::vector<std::string> { "changed", "b", "c" }));

    copy = table;
    EXPECT_EQ(contents(copy), contents(table));
    Table<std::string, 2>& alias = copy;
    copy = alias;
    EXPECT_EQ(contents(copy), contents(table));
}

TEST(Table, MoveTakesTheStorage)
{
    Table<int, 2> table;
    table.add(5);
    const int* const storage = table.begin();
    Table<int, 2> moved(std::move(table));
    EXPECT_EQ(moved.begin(), storage);
    Table<int, 2> assigned;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.begin(), storage);
    EXPECT_EQ(assigned[0], 5);
}

/// Copies while `copiesLeft` lasts, then throws.
struct Reluctant {
    static int alive, copiesLeft;

    Reluctant() { ++alive; }
    Reluctant(const Reluctant&)
    {
        spend();
        ++alive;
    }
    Reluctant& operator=(const Reluctant&)
    {
        spend();
        return *this;
    }
    ~Reluctant() { --alive; }

    static void spend()
    {
        if (copiesLeft-- == 0)
            throw std::runtime_error("no more copies");
    }
};
int Reluctant::alive = 0;
int Reluctant::copiesLeft = 0;

TEST(Table, EntryThatThrowsIsNotCountedAndLeaksNothing)
{
    for (int copies = 0; copies < 12; ++copies) {
        {
            Table<Reluctant, 2> table;
            Reluctant::copiesLeft = copies;
            int added = 0;
            try {
                for (; added < 5; ++added)
                    table.add(Reluctant());
                const Table<Reluctant, 2> copy(table);
                EXPECT_EQ(copy.count(), 5);
            } catch (const std::runtime_error&) {
            }
            EXPECT_EQ(table.count(), added);
        }
        EXPECT_EQ(Reluctant::alive, 0) << copies;
    }
}

} // namespace
