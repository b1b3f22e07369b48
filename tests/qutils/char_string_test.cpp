#include "qutils/core/char_string.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

namespace {

using namespace testing_support;

TEST(CharString, EmptyTextHasACharacterPointer)
{
    for (const CharString& text : { CharString(), CharString(nullptr), CharString(""), CharString("abc", 0),
             CharString("abc", -1), CharString(nullptr, 3) }) {
        EXPECT_STREQ(text.c_str(), "");
        EXPECT_EQ(text.length(), 0);
        EXPECT_TRUE(text.empty());
    }
}

TEST(CharString, HoldsACopyOfTheText)
{
    char source[] = "beauty";
    const CharString text(source);
    source[0] = 'X';
    EXPECT_STREQ(text.c_str(), "beauty");
    EXPECT_EQ(text.length(), 6);
    EXPECT_FALSE(text.empty());
}

TEST(CharString, TakesAPartOfALongerText)
{
    const CharString text("beauty.exr", 6);
    EXPECT_STREQ(text.c_str(), "beauty");
    EXPECT_EQ(text.length(), 6);
}

TEST(CharString, ZeroByteWithinTheLengthEndsTheText)
{
    const CharString text("ab\0cd", 5);
    EXPECT_STREQ(text.c_str(), "ab");
    EXPECT_EQ(text.length(), 2);
}

TEST(CharString, CopiesShareOneStorage)
{
    const CharString text("x"); // Short texts too: there is no room for text in the object itself.
    const CharString copy(text);
    CharString assigned("other");
    assigned = text;
    EXPECT_TRUE(copy.sharesStorageWith(text));
    EXPECT_TRUE(assigned.sharesStorageWith(text));
    EXPECT_EQ(copy.c_str(), text.c_str());
    EXPECT_EQ(sizeof(CharString), sizeof(void*));
}

TEST(CharString, EqualTextsMadeApartDoNotShareStorage)
{
    const CharString a("same"), b("same");
    EXPECT_FALSE(a.sharesStorageWith(b));
    EXPECT_EQ(a, b);
}

TEST(CharString, CopyOutlivesItsOriginal)
{
    CharString copy;
    {
        const CharString original("kept");
        copy = original;
    }
    EXPECT_STREQ(copy.c_str(), "kept");
}

TEST(CharString, MoveLeavesAnEmptyText)
{
    CharString source("moved");
    const CharString target(std::move(source));
    EXPECT_STREQ(target.c_str(), "moved");
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move): the state is the subject.

    CharString assigned("old");
    CharString second("new");
    assigned = std::move(second);
    EXPECT_STREQ(assigned.c_str(), "new");
    EXPECT_TRUE(second.empty()); // NOLINT(bugprone-use-after-move)
}

TEST(CharString, AssignmentToItselfKeepsTheText)
{
    CharString text("self");
    CharString& alias = text;
    text = alias;
    EXPECT_STREQ(text.c_str(), "self");
    text = std::move(alias);
    EXPECT_STREQ(text.c_str(), "self");
}

TEST(CharString, ComparesByCharactersAndLength)
{
    EXPECT_EQ(CharString("abc"), CharString("abcd", 3));
    EXPECT_NE(CharString("abc"), CharString("abd"));
    EXPECT_NE(CharString("abc"), CharString("abcd"));
    EXPECT_NE(CharString("abc"), CharString());
    EXPECT_EQ(CharString(), CharString(""));
}

TEST(CharString, HoldsLongTextsWhole)
{
    const std::string longText(1000000, 'q');
    const CharString text(longText.c_str());
    EXPECT_EQ(text.length(), 1000000);
    EXPECT_EQ(text.c_str(), longText);
}

TEST(CharString, ThrowsNothing)
{
    EXPECT_TRUE((std::is_nothrow_constructible_v<CharString, const char*>));
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CharString>);
    EXPECT_TRUE(std::is_nothrow_copy_assignable_v<CharString>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<CharString>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<CharString>);
}

// A lost count shows as a text that is gone too early here, and as a race or a leak under the sanitizers.
TEST(CharString, OwnersOnSeveralThreadsAreCounted)
{
    const CharString text("shared by all");
    inThreads(4, [&text](int) {
        for (int i = 0; i < 20000; ++i) {
            CharString copy(text), second;
            second = copy;
            copy = CharString("own");
            ASSERT_TRUE(second.sharesStorageWith(text));
        }
    });
    EXPECT_STREQ(text.c_str(), "shared by all");
}

TEST(CharString, LastOwnerMayBeOnAnotherThread)
{
    for (int round = 0; round < 200; ++round) {
        CharString copies[4];
        {
            const CharString text("handed over");
            for (CharString& copy : copies)
                copy = text;
        }
        inThreads(4, [&copies](int number) {
            ASSERT_STREQ(copies[number].c_str(), "handed over");
            copies[number] = CharString();
        });
    }
}

} // namespace
