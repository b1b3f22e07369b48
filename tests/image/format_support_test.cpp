#include "rastkit/image/format_support.h"

#include "rastkit/image/standard_load.h"
#include "rastkit/image/standard_save.h"
#include "rastkit/model/format_tables.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using QUtils::findFormat;
using QUtils::FormatSupport;
using Extensions = std::vector<std::string>;

class Formats : public testing::Test {
protected:
    const std::vector<FormatSupport> m_formats = QUtils::listFormats();
};

TEST_F(Formats, EachReaderAndEachOfferedFormatIsListedOnce)
{
    std::multiset<int> types, indices;
    for (const FormatSupport& format : m_formats) {
        types.insert(format.type);
        indices.insert(format.formatIndex);
        EXPECT_FALSE(format.description.empty());
    }
    for (const QUtils::ImageLoader& loader : QUtils::tableImageLoaders)
        EXPECT_EQ(types.count(loader.type), 1u) << loader.extensions;
    for (int i = 0; i < QUtils::supportedCount; ++i)
        EXPECT_EQ(indices.count(i), 1u) << i;
    // DDS files are read only, quimg files are written only.
    EXPECT_EQ(m_formats.size(), 12u);
    EXPECT_EQ(types.count(IMGTYPE_UNKNOWN), 1u);
    EXPECT_EQ(indices.count(-1), 1u);
}

TEST_F(Formats, AnswersComeFromTheTablesOfReadersAndWriters)
{
    for (const FormatSupport& format : m_formats) {
        EXPECT_EQ(format.reads, QUtils::readsStandard(format.type)) << format.description;
        EXPECT_EQ(format.writes, QUtils::writesStandard(format.formatIndex)) << format.description;
    }
    const FormatSupport* const tga = findFormat(m_formats, IMGTYPE_TGA);
    ASSERT_TRUE(tga);
    EXPECT_TRUE(tga->reads);
    EXPECT_TRUE(tga->writes);
    EXPECT_EQ(tga->description, "Targa image file");
}

TEST_F(Formats, ExtensionsAreThoseOfTheReaderAndOfTheWriter)
{
    EXPECT_EQ(findFormat(m_formats, IMGTYPE_JPEG)->extensions, (Extensions { "jpg", "jpeg", "jpe" }));
    EXPECT_EQ(findFormat(m_formats, IMGTYPE_DDS)->extensions, Extensions { "dds" });
}

TEST_F(Formats, NameIsFoundByItsWholeExtensionWhateverItsCase)
{
    for (const char* const name : { "a.tga", "b.tif/a.b.TGA", "/x y/.a.Tga" }) {
        const FormatSupport* const format = findFormat(m_formats, name);
        ASSERT_TRUE(format) << name;
        EXPECT_EQ(format->type, IMGTYPE_TGA) << name;
    }
    for (const char* const name : { "", "tga", ".tga", "a.", "a.tg", "a.tgax", "a.tga/b", "a.tga ", "." })
        EXPECT_FALSE(findFormat(m_formats, name)) << name;
}

TEST_F(Formats, UnknownTypeIsNoFormatAlthoughOneIsOnlyWritten)
{
    EXPECT_FALSE(findFormat(m_formats, IMGTYPE_UNKNOWN));
}

} // namespace
