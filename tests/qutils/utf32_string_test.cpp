#include "qutils/core/utf32_string.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::u32string fromUTF8(const char* text)
{
    UTF32String string;
    string.setFromUTF8(text);
    const std::u32string result(string.c_str());
    EXPECT_EQ(result.size(), std::size_t(string.length()));
    return result;
}

std::u32string fromUTF16(std::initializer_list<unsigned> units)
{
    std::string bytes;
    for (const unsigned unit : units)
        bytes += { char(unit >> 8), char(unit) };
    UTF32String string;
    string.setFromUTF16BE(reinterpret_cast<const unsigned char*>(bytes.data()), int(units.size()));
    return string.c_str();
}

TEST(Utf32String, ReadsSequencesOfOneToFourBytes)
{
    EXPECT_EQ(fromUTF8("a\u00e9\u20ac\U0001F600z"), U"a\u00e9\u20ac\U0001F600z");
    EXPECT_EQ(fromUTF8(""), U"");
    EXPECT_EQ(fromUTF8(nullptr), U"");
}

TEST(Utf32String, ReplacesEachByteOfAnInvalidSequence)
{
    EXPECT_EQ(fromUTF8("\x80"), U"\uFFFD");
    EXPECT_EQ(fromUTF8("\xC3"), U"\uFFFD") << "cut";
    EXPECT_EQ(fromUTF8("\xC0\x80"), U"\uFFFD\uFFFD") << "longer than need be";
    EXPECT_EQ(fromUTF8("\xE0\x80\x80"), U"\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(fromUTF8("\xED\xA0\x80"), U"\uFFFD\uFFFD\uFFFD") << "half of a pair";
    EXPECT_EQ(fromUTF8("\xF4\x90\x80\x80"), U"\uFFFD\uFFFD\uFFFD\uFFFD") << "past the last character";
    EXPECT_EQ(fromUTF8("\xF5"), U"\uFFFD");
    EXPECT_EQ(fromUTF8("\xE2\x82"
                       "a"),
        U"\uFFFD\uFFFDa");
}

TEST(Utf32String, ReadsPairsOfUTF16AndDropsZerosAtTheEnd)
{
    EXPECT_EQ(fromUTF16({ 'a', 0xD83D, 0xDE00, 'b', 0, 0 }), U"a\U0001F600b");
    EXPECT_EQ(fromUTF16({ 0xD83D }), U"\uFFFD");
    EXPECT_EQ(fromUTF16({ 0xD83D, 'a' }), U"\uFFFDa");
    EXPECT_EQ(fromUTF16({ 0xDE00, 0xDE00 }), U"\uFFFD\uFFFD");
    EXPECT_EQ(fromUTF16({ 0, 0 }), U"");
}

TEST(Utf32String, CopiesShareOneStorage)
{
    UTF32String a;
    a.setFromUTF8("layer");
    const UTF32String b = a;
    EXPECT_TRUE(a.sharesStorageWith(b));
    UTF32String c;
    c.setFromUTF8("layer");
    EXPECT_FALSE(a.sharesStorageWith(c));
    EXPECT_TRUE(a == c);
    c.setFromUTF8("player");
    EXPECT_TRUE(a != c);
    c = b;
    EXPECT_TRUE(c.sharesStorageWith(a));
    c.setFromUTF8("");
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(std::u32string(b.c_str()), U"layer") << "other owners keep theirs";
}

TEST(Utf32String, MovesAndAssignsItself)
{
    UTF32String a;
    a.setFromUTF8("x");
    UTF32String& same = a;
    a = same;
    UTF32String b = std::move(a);
    EXPECT_EQ(b.length(), 1);
    UTF32String c;
    c = std::move(b);
    EXPECT_EQ(c.length(), 1);
}

} // namespace
