#include "rastkit/model/format_tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <png.h>
#include <set>
#include <string>
#include <tiffio.h>

namespace {

using QUtils::FileFormatInfo;
using QUtils::Table;

int indexOf(const char* name)
{
    return getFileFormatIndex(name, nullptr);
}

std::string firstExtensionOf(const char* name)
{
    char extension[64] = "untouched";
    getFileFormatIndex(name, extension);
    return extension;
}

TEST(SupportedFormats, ListHasElevenRowsInOrder)
{
    Table<const FileFormatInfo*, 100> list;
    list.add(nullptr);
    EXPECT_EQ(getSupportedFormatsList(list), 11);
    ASSERT_EQ(list.count(), 11);
    const char* const extensions[] = { "png", "bmp", "tga", "hdr", "sgi;rgb;rgba", "jpg;jpeg", "exr", "pic",
        "tif;tiff", "psd", "quimg" };
    for (int i = 0; i < 11; ++i)
        EXPECT_STREQ(list[i]->extensions, extensions[i]);
    const char* const descriptions[]
        = { "Portable Network Graphics (*.png)", "Windows bitmap (*.bmp)", "Targa image file (*.tga)",
              "Radiance High-Dynamic Range image (*.hdr)", "Silicon Graphics (*.sgi *.rgb *.rgba)",
              "JPEG image file (*.jpg *.jpeg)", "OpenEXR image file (*.exr)", "Softimage PICT file (*.pic)",
              "Tagged image file format (*.tif *.tiff)", "Photoshop (*.psd)", "Quor image file (*.quimg)" };
    for (int i = 0; i < 11; ++i)
        EXPECT_STREQ(list[i]->description, descriptions[i]);
}

TEST(SupportedFormats, ListGrowsToElevenAndKeepsALargerCapacity)
{
    Table<const FileFormatInfo*, 100> fresh, large;
    getSupportedFormatsList(fresh);
    EXPECT_EQ(fresh.capacity(), 11);
    large.reserve(50);
    getSupportedFormatsList(large);
    EXPECT_EQ(large.capacity(), 50);
}

TEST(FileFormatIndex, EveryExtensionOfEveryRowFindsItsRow)
{
    for (int i = 0; i < QUtils::supportedCount; ++i) {
        const char* const list = QUtils::supported[i].extensions;
        QUtils::anyAlternative(list, ';', [&](const char* begin, std::size_t length) {
            std::string extension(begin, length);
            EXPECT_EQ(indexOf(extension.c_str()), i) << extension;
            EXPECT_EQ(indexOf(("dir.x/name." + extension).c_str()), i) << extension;
            for (char& c : extension)
                c = char(std::toupper(c));
            EXPECT_EQ(indexOf(("name." + extension).c_str()), i) << extension;
            return false;
        });
    }
}

TEST(FileFormatIndex, FirstExtensionIsTheRowsFirst)
{
    EXPECT_EQ(indexOf("image.RGB"), 4);
    EXPECT_EQ(firstExtensionOf("image.RGB"), "sgi");
    EXPECT_EQ(indexOf("x.JpEg"), 5);
    EXPECT_EQ(firstExtensionOf("x.JpEg"), "jpg");
    EXPECT_EQ(indexOf("exr"), 6);
    EXPECT_EQ(indexOf(".tif"), 8);
    EXPECT_EQ(firstExtensionOf("x.tiff"), "tif");
}

TEST(FileFormatIndex, BeginningOfAnExtensionCountsAsItOnPurpose)
{
    EXPECT_EQ(indexOf("jp"), 5);
    EXPECT_EQ(indexOf("a.ti"), 8);
    EXPECT_EQ(indexOf("a.p"), 0);
    EXPECT_EQ(indexOf("a.ps"), 9);
    EXPECT_EQ(indexOf("rgba"), 4);
    EXPECT_EQ(indexOf("a.rgbaa"), -1);
}

TEST(FileFormatIndex, NameThatEndsInADotIsPng)
{
    EXPECT_EQ(indexOf("name."), 0);
    EXPECT_EQ(firstExtensionOf("name."), "png");
    EXPECT_EQ(indexOf("."), 0);
    EXPECT_EQ(indexOf(""), 0);
}

TEST(FileFormatIndex, DotInAFolderDividesTheNameToo)
{
    EXPECT_EQ(indexOf("dir.tga/name"), -1);
}

TEST(FileFormatIndex, UnknownExtensionLeavesTheTextUntouched)
{
    EXPECT_EQ(indexOf("a.xyz"), -1);
    EXPECT_EQ(indexOf(nullptr), -1);
    EXPECT_EQ(indexOf("x"), -1);
    EXPECT_EQ(firstExtensionOf("a.xyz"), "untouched");
    EXPECT_FALSE(IsImgFormatSupported("a.dds"));
    EXPECT_TRUE(IsImgFormatSupported("a.quimg"));
}

TEST(MultiChannel, QuimgAlwaysAndExrByFlag)
{
    EXPECT_FALSE(fileFormatIsMultiChannel("a.exr", 0));
    EXPECT_FALSE(fileFormatIsMultiChannel("a.exr", ~0x100));
    EXPECT_TRUE(fileFormatIsMultiChannel("a.EXR", 0x100));
    EXPECT_TRUE(fileFormatIsMultiChannel("a.quimg", 0));
    EXPECT_FALSE(fileFormatIsMultiChannel("a.tga", 0x100));
    EXPECT_FALSE(fileFormatIsMultiChannel("a.xyz", 0x100));
}

TEST(LoaderTable, EveryExtensionFindsItsRowWhateverItsCase)
{
    for (const QUtils::ImageLoader& row : QUtils::tableImageLoaders) {
        QUtils::anyAlternative(row.extensions, '|', [&](const char* begin, std::size_t length) {
            std::string name = "name" + std::string(begin, length);
            EXPECT_EQ(QUtils::findLoaderByExtension(name.c_str()), &row) << name;
            for (char& c : name)
                c = char(std::tolower(c));
            EXPECT_EQ(QUtils::findLoaderByExtension(name.c_str()), &row) << name;
            return false;
        });
    }
}

TEST(LoaderTable, HasARowForEachTypeInTheOrderOfTheSearch)
{
    const int expected[] = { 5, 7, 3, 0, 1, 2, 6, 4, 8, 9, 10 };
    const char* const extensions[] = { ".PNG", ".TGA", ".JPG|.JPEG|.JPE", ".BMP", ".EXR", ".HDR",
        ".SGI|.RGB|.RGBA", ".PIC", ".TIF|.TIFF", ".PSD", ".DDS" };
    for (int i = 0; i < QUtils::imageLoaderCount; ++i) {
        EXPECT_STREQ(QUtils::tableImageLoaders[i].extensions, extensions[i]);
        EXPECT_EQ(QUtils::tableImageLoaders[i].type, expected[i]);
        EXPECT_NE(QUtils::tableImageLoaders[i].loadHeader, nullptr);
        EXPECT_EQ(QUtils::tableImageLoaders[i].loadFile == nullptr, expected[i] == IMGTYPE_PSD);
    }
}

TEST(LoaderTable, NameThatIsOnlyAnExtensionMatchesNothing)
{
    EXPECT_EQ(QUtils::findLoaderByExtension(".tga"), nullptr);
    EXPECT_EQ(QUtils::findLoaderByExtension(""), nullptr);
    EXPECT_NE(QUtils::findLoaderByExtension("a.tga"), nullptr);
    EXPECT_EQ(QUtils::findLoaderByExtension("a.tga.bak"), nullptr);
}

TEST(LibraryVersions, ReportNamesLibpng)
{
    Table<CharStringPair, 100> rows;
    rastkit_getImageLibVersions(rows);
    const auto* const libpng = std::find_if(
        rows.begin(), rows.end(), [](const CharStringPair& row) { return row.first == "libpng"; });
    ASSERT_NE(libpng, rows.end());
    EXPECT_STREQ(libpng->second.c_str(), png_get_libpng_ver(nullptr));
}

TEST(LibraryVersions, ReportReplacesWhatTheTableHeld)
{
    Table<CharStringPair, 100> rows;
    rows.add({ "stale", "1.0" });
    rastkit_getImageLibVersions(rows);
    for (const CharStringPair& row : rows) {
        EXPECT_STRNE(row.first.c_str(), "stale");
        EXPECT_FALSE(row.second.empty());
    }
}

TEST(LibraryVersions, LibtiffIsNamedByItsNumber)
{
    Table<CharStringPair, 100> rows;
    rastkit_getImageLibVersions(rows);
    const auto* const row = std::find_if(rows.begin(), rows.end(),
        [](const CharStringPair& pair) { return pair.first.c_str() == std::string("libtiff"); });
    ASSERT_NE(row, rows.end());
    EXPECT_EQ("LIBTIFF, Version " + std::string(row->second.c_str()),
        std::string(TIFFGetVersion()).substr(0, 17 + std::size_t(row->second.length())));
    EXPECT_THAT(row->second.c_str(), testing::MatchesRegex("[0-9]+[.][0-9.]+"));
}

TEST(LibraryVersions, OpenExrIsTheVersionOfTheFormatOnPurpose)
{
    Table<CharStringPair, 100> rows;
    rastkit_getImageLibVersions(rows);
    ASSERT_GT(rows.count(), 0);
    const CharStringPair& row = rows[rows.count() - 1];
    EXPECT_STREQ(row.first.c_str(), "OpenEXR");
    EXPECT_STREQ(row.second.c_str(), "EXR_VERSION 2");
}

} // namespace
