#include "rastkit/model/content_tag.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Tag {
    int found;
    std::string text;
};

Tag extract(const char* comment, int outSize = 64)
{
    char out[64] = "untouched";
    const int found = QUtils::extractContentTag(comment, out, outSize);
    return { found, out };
}

TEST(ContentTag, LastOccurrenceWins)
{
    const Tag tag = extract("SHA-1=first SHA-1=second");
    EXPECT_EQ(tag.found, 1);
    EXPECT_EQ(tag.text, "second");
}

TEST(ContentTag, FortiethDigitIsNeverCopiedOnPurpose)
{
    const Tag tag = extract("made by tex; SHA-1=0123456789012345678901234567890123456789");
    EXPECT_EQ(tag.found, 1);
    EXPECT_EQ(tag.text, "012345678901234567890123456789012345678");
}

TEST(ContentTag, ShortTextsHaveNone)
{
    EXPECT_EQ(extract("").found, 0);
    EXPECT_EQ(extract("SHA-1").found, 0);
    EXPECT_EQ(extract(nullptr).found, 0);
    EXPECT_EQ(extract("sha-1=0123").found, 0);
    EXPECT_EQ(extract("nothing here").text, "untouched");
}

TEST(ContentTag, MarkerAloneGivesAnEmptyTag)
{
    const Tag tag = extract("SHA-1=");
    EXPECT_EQ(tag.found, 1);
    EXPECT_EQ(tag.text, "");
}

TEST(ContentTag, RoomForFortyBytesIsNotEnough)
{
    EXPECT_EQ(extract("SHA-1=01", 40).found, 0);
    EXPECT_EQ(extract("SHA-1=01", 41).found, 1);
    EXPECT_EQ(QUtils::extractContentTag("SHA-1=01", nullptr, 64), 0);
}

} // namespace
