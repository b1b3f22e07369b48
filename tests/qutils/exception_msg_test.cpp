#include "qutils/core/exception_msg.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

TEST(ExceptionMsg, FormatsItsText)
{
    const ExceptionMsg exception("row %d of %s", 7, "beauty.exr");
    EXPECT_STREQ(exception.what(), "row 7 of beauty.exr");
}

TEST(ExceptionMsg, KeepsThe1023FirstBytes)
{
    for (const std::size_t length : { 0u, 1022u, 1023u, 1024u, 4000u }) {
        const std::string text(length, 'e');
        EXPECT_EQ(ExceptionMsg("%s", text.c_str()).what(), text.substr(0, 1023)) << length;
    }
}

TEST(ExceptionMsg, NullFormatIsAnEmptyText)
{
    const char* volatile format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_STREQ(ExceptionMsg(format).what(), "");
#pragma GCC diagnostic pop
}

TEST(ExceptionMsg, IsCaughtAsAStandardException)
{
    try {
        throw ExceptionMsg("code %i", 5);
    } catch (const std::exception& caught) {
        EXPECT_STREQ(caught.what(), "code 5");
    }
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<ExceptionMsg>);
}

} // namespace
