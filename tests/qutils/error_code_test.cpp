#include "qutils/core/error_code.h"

#include "support/in_threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using namespace testing_support;
using QUtils::ErrorCode;

/// Gives a test the operations that are meant for derived classes.
class CodeOnly : public ErrorCode {
public:
    explicit CodeOnly(int code) noexcept { setCode(code); }
    using ErrorCode::setCode;
};

TEST(ErrorCode, NoErrorIsCodeZeroWithEmptyTexts)
{
    const ErrorCode none;
    EXPECT_EQ(none.code(), 0);
    EXPECT_STREQ(none.function(), "");
    EXPECT_STREQ(none.message(), "");
    EXPECT_EQ(none.cause().code(), 0);
    EXPECT_EQ(sizeof(ErrorCode), sizeof(void*));
}

TEST(ErrorCode, HoldsFunctionCodeAndFormattedText)
{
    char function[] = "LoadImageFile";
    const ErrorCode error(function, 1, "Failed to open file: %i %s", 2, "now");
    function[0] = 'X';
    EXPECT_EQ(error.code(), 1);
    EXPECT_STREQ(error.function(), "LoadImageFile");
    EXPECT_STREQ(error.message(), "Failed to open file: 2 now");
}

TEST(ErrorCode, AnyCodeIsKept)
{
    for (const int code : { 1, -1, 7, 16, 17, -16, -17, 99999, INT_MAX, INT_MIN }) {
        EXPECT_EQ(CodeOnly(code).code(), code);
        EXPECT_STREQ(CodeOnly(code).message(), "");
        EXPECT_STREQ(CodeOnly(code).function(), "");
        EXPECT_EQ(ErrorCode("f", code, "text").code(), code);
        EXPECT_EQ(ErrorCode(nullptr, code, "%s", "").code(), code);
    }
}

TEST(ErrorCode, CodeZeroIsNoErrorWhateverTheText)
{
    const ErrorCode none("f", 0, "text");
    EXPECT_EQ(none.code(), 0);
    EXPECT_STREQ(none.function(), "");
    EXPECT_STREQ(none.message(), "");
}

TEST(ErrorCode, NullTextsAreEmpty)
{
    const ErrorCode noFunction(nullptr, 3, "text");
    EXPECT_STREQ(noFunction.function(), "");
    EXPECT_STREQ(noFunction.message(), "text");
    const char* volatile format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    const ErrorCode noText("f", 3, format);
#pragma GCC diagnostic pop
    EXPECT_STREQ(noText.function(), "f");
    EXPECT_STREQ(noText.message(), "");
    EXPECT_EQ(noText.code(), 3);
}

TEST(ErrorCode, SettingACodeReplacesTheTexts)
{
    CodeOnly error(5);
    error = CodeOnly(6);
    EXPECT_EQ(error.code(), 6);
    static_cast<ErrorCode&>(error) = ErrorCode("f", 4, "text");
    error.setCode(2);
    EXPECT_EQ(error.code(), 2);
    EXPECT_STREQ(error.function(), "");
    EXPECT_STREQ(error.message(), "");
    error.setCode(0);
    EXPECT_EQ(error.code(), 0);
}

TEST(ErrorCode, TextIsCutAt1023Bytes)
{
    for (const std::size_t length : { 1022u, 1023u, 1024u, 5000u }) {
        const std::string text(length, 'm');
        const ErrorCode error("f", 1, "%s", text.c_str());
        EXPECT_EQ(error.message(), text.substr(0, 1023)) << length;
    }
}

TEST(ErrorCode, FunctionNameOfAnyLengthIsKept)
{
    const std::string function(3000, 'f');
    EXPECT_EQ(ErrorCode(function.c_str(), 1, "text").function(), function);
}

TEST(ErrorCode, ErrorStringFitsItsBuffer)
{
    const ErrorCode error("f", 1, "abcdef");
    const std::string full = "abcdef";
    for (int size = -2; size <= 10; ++size) {
        char buffer[12];
        std::fill(std::begin(buffer), std::end(buffer), '#');
        error.getErrorString(buffer, size);
        if (size < 1) {
            EXPECT_EQ(buffer[0], '#') << size;
            continue;
        }
        const std::string expected = full.substr(0, static_cast<std::size_t>(size) - 1);
        EXPECT_EQ(buffer, expected) << size;
        EXPECT_EQ(buffer[expected.size() + 1], '#') << size;
    }
}

TEST(ErrorCode, ErrorStringWithoutErrorIsEmpty)
{
    char buffer[4] = "abc";
    ErrorCode().getErrorString(buffer, 4);
    EXPECT_STREQ(buffer, "");
    ErrorCode("f", 1, "text").getErrorString(nullptr, 4);
}

TEST(ErrorCode, CopiesShareTheRecord)
{
    const ErrorCode error("f", 9, "text");
    const ErrorCode copy(error);
    ErrorCode assigned;
    assigned = error;
    EXPECT_EQ(copy.message(), error.message()); // The same characters in memory.
    EXPECT_EQ(assigned.message(), error.message());
}

TEST(ErrorCode, CopyOutlivesItsOriginal)
{
    ErrorCode copy("old", 1, "old");
    {
        const ErrorCode error("f", 9, "kept");
        copy = error;
    }
    EXPECT_STREQ(copy.message(), "kept");
    EXPECT_EQ(copy.code(), 9);
}

TEST(ErrorCode, MoveLeavesNoError)
{
    ErrorCode source("f", 9, "moved");
    ErrorCode target(std::move(source));
    EXPECT_STREQ(target.message(), "moved");
    EXPECT_EQ(source.code(), 0); // NOLINT(bugprone-use-after-move): the state is the subject.
    ErrorCode assigned("g", 2, "old");
    assigned = std::move(target);
    EXPECT_STREQ(assigned.message(), "moved");
    EXPECT_EQ(target.code(), 0); // NOLINT(bugprone-use-after-move)
}

TEST(ErrorCode, AssignmentToItselfKeepsTheError)
{
    ErrorCode error("f", 9, "self");
    ErrorCode& alias = error;
    error = alias;
    EXPECT_STREQ(error.message(), "self");
    error = std::move(alias);
    EXPECT_STREQ(error.message(), "self");
}

TEST(ErrorCode, CauseIsChainedBehindTheError)
{
    const ErrorCode chained = ErrorCode::withCause(ErrorCode("outer", 2, "read %d", 1), CodeOnly(1));
    EXPECT_EQ(chained.code(), 2);
    EXPECT_STREQ(chained.function(), "outer");
    EXPECT_STREQ(chained.message(), "read 1");
    EXPECT_EQ(chained.cause().code(), 1);
    EXPECT_EQ(chained.cause().cause().code(), 0);

    const ErrorCode deeper = ErrorCode::withCause(CodeOnly(3), chained);
    EXPECT_STREQ(deeper.cause().function(), "outer");
    EXPECT_EQ(deeper.cause().cause().code(), 1);
}

TEST(ErrorCode, ChainingLeavesBothErrorsAsTheyWere)
{
    const ErrorCode error("f", 2, "error"), cause("g", 1, "cause");
    const ErrorCode chained = ErrorCode::withCause(error, cause);
    EXPECT_EQ(error.cause().code(), 0);
    EXPECT_EQ(cause.cause().code(), 0);
    EXPECT_EQ(chained.cause().message(), cause.message()); // Shared, not copied.
}

TEST(ErrorCode, CauseReplacesTheOneBefore)
{
    const ErrorCode first = ErrorCode::withCause(CodeOnly(5), CodeOnly(6));
    const ErrorCode second = ErrorCode::withCause(first, CodeOnly(7));
    EXPECT_EQ(second.code(), 5);
    EXPECT_EQ(second.cause().code(), 7);
    EXPECT_EQ(second.cause().cause().code(), 0);
}

TEST(ErrorCode, ErrorAsItsOwnCauseMakesNoCycle)
{
    ErrorCode error("f", 2, "text");
    error = ErrorCode::withCause(error, error);
    EXPECT_EQ(error.cause().code(), 2);
    EXPECT_EQ(error.cause().cause().code(), 0);
}

TEST(ErrorCode, NoErrorIsNeitherChainedNorACause)
{
    EXPECT_EQ(ErrorCode::withCause(ErrorCode(), CodeOnly(1)).code(), 0);
    const ErrorCode error = ErrorCode::withCause(CodeOnly(2), ErrorCode());
    EXPECT_EQ(error.code(), 2);
    EXPECT_EQ(error.cause().code(), 0);
}

TEST(ErrorCode, ChainOfAMillionErrorsIsReleased)
{
    ErrorCode chain("first", 1, "the root");
    for (int i = 0; i < 1000000; ++i)
        chain = ErrorCode::withCause(CodeOnly(2), chain);
    const ErrorCode tail = chain.cause().cause();
    chain = ErrorCode();
    EXPECT_EQ(tail.cause().code(), 2);
}

TEST(ErrorCode, CauseOfTwoErrorsOutlivesOneOfThem)
{
    ErrorCode first, second;
    {
        const ErrorCode cause = ErrorCode::withCause(ErrorCode("c", 3, "shared"), ErrorCode("r", 4, "root"));
        first = ErrorCode::withCause(CodeOnly(1), cause);
        second = ErrorCode::withCause(CodeOnly(2), cause);
    }
    first = ErrorCode();
    EXPECT_STREQ(second.cause().message(), "shared");
    EXPECT_STREQ(second.cause().cause().message(), "root");
}

TEST(ErrorCode, ThrowsNothing)
{
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<ErrorCode>);
    EXPECT_TRUE(std::is_nothrow_copy_assignable_v<ErrorCode>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<ErrorCode>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<ErrorCode>);
}

TEST(ErrorCode, OwnersOnSeveralThreadsAreCounted)
{
    const ErrorCode shared = ErrorCode::withCause(ErrorCode("f", 20, "shared"), ErrorCode("g", 21, "cause"));
    inThreads(4, [&shared](int) {
        for (int i = 0; i < 20000; ++i) {
            const ErrorCode copy(shared);
            const ErrorCode cause = copy.cause();
            const ErrorCode chained = ErrorCode::withCause(copy, cause);
            ASSERT_EQ(chained.cause().code(), 21);
        }
    });
    EXPECT_STREQ(shared.message(), "shared");
    EXPECT_STREQ(shared.cause().message(), "cause");
}

} // namespace
