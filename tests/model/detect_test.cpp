#include "rastkit/model/format_tables.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

using namespace testing_support;

int typeOf(const Bytes& bytes)
{
    const TempDir dir;
    const std::string name = dir / "file";
    writeFile(name, bytes);
    return DetectImageType(name.c_str());
}

Bytes text(const char* characters, std::size_t length)
{
    return Bytes(characters, characters + length);
}

struct TgaFields {
    int imageType = 2, width = 1, height = 1, pixelBits = 24;

    Bytes bytes(std::size_t length = 18) const
    {
        Bytes b(length, 0);
        b[2] = std::uint8_t(imageType);
        b[12] = std::uint8_t(width), b[13] = std::uint8_t(width >> 8);
        b[14] = std::uint8_t(height), b[15] = std::uint8_t(height >> 8);
        b[16] = std::uint8_t(pixelBits);
        return b;
    }
};

struct PsdFields {
    int version = 1, channels = 3, depth = 8, colorMode = 3;
    unsigned height = 1, width = 1;

    Bytes bytes() const
    {
        Bytes b { '8', 'B', 'P', 'S', 0, std::uint8_t(version), 0, 0, 0, 0, 0, 0 };
        const auto append = [&b](unsigned value, int byteCount) {
            for (int shift = 8 * (byteCount - 1); shift >= 0; shift -= 8)
                b.push_back(std::uint8_t(value >> shift));
        };
        append(unsigned(channels), 2);
        append(height, 4);
        append(width, 4);
        append(unsigned(depth), 2);
        append(unsigned(colorMode), 2);
        return b;
    }
};

TEST(DetectImageType, MagicNumbersDecide)
{
    EXPECT_EQ(typeOf(text("\x89PNG\r\n\x1a\n", 8)), IMGTYPE_PNG);
    EXPECT_EQ(typeOf(text("\xff\xd8\xff\xe0", 4)), IMGTYPE_JPEG);
    EXPECT_EQ(typeOf(text("\xff\xd8\xff\xc0", 4)), IMGTYPE_JPEG);
    EXPECT_EQ(typeOf(text("BM", 2)), IMGTYPE_BMP);
    EXPECT_EQ(typeOf(text("\x76\x2f\x31\x01", 4)), IMGTYPE_EXR);
    EXPECT_EQ(typeOf(text("#?", 2)), IMGTYPE_HDR);
    EXPECT_EQ(typeOf(text("\x01\xda", 2)), IMGTYPE_SGI);
    EXPECT_EQ(typeOf(text("\x53\x80\xf6\x34", 4)), IMGTYPE_PIC);
    EXPECT_EQ(typeOf(text("II\x2a\0", 4)), IMGTYPE_TIFF);
    EXPECT_EQ(typeOf(text("MM\0\x2a", 4)), IMGTYPE_TIFF);
}

TEST(DetectImageType, MagicNumberWinsOverASensibleTargaHeader)
{
    // Bytes 0 and 1 are Targa's id length and colour-map type, so that the first bytes of others fit in.
    Bytes bmp = TgaFields {}.bytes(), sgi = bmp, hdr = bmp;
    bmp[0] = 'B', bmp[1] = 'M';
    sgi[0] = 0x01, sgi[1] = 0xda;
    hdr[0] = '#', hdr[1] = '?';
    EXPECT_EQ(typeOf(bmp), IMGTYPE_BMP);
    EXPECT_EQ(typeOf(sgi), IMGTYPE_SGI);
    EXPECT_EQ(typeOf(hdr), IMGTYPE_HDR);
}

TEST(DetectImageType, MagicNumbersMustBeComplete)
{
    EXPECT_EQ(typeOf(text("\x89PNG\r\n\x1a", 7)), -1);
    EXPECT_EQ(typeOf(text("\xff\xd8\xff", 3)), -1);
    EXPECT_EQ(typeOf(text("B", 1)), -1);
    EXPECT_EQ(typeOf(text("#", 1)), -1);
    EXPECT_EQ(typeOf(text("MM\0", 3)), -1);
}

TEST(DetectImageType, JpegNeedsAFourthByteOfAtLeastC0)
{
    EXPECT_EQ(typeOf(text("\xff\xd8\xff\xbf", 4)), -1);
}

TEST(DetectImageType, NothingToReadIsUnknown)
{
    EXPECT_EQ(typeOf({}), -1);
    EXPECT_EQ(DetectImageType(nullptr), -1);
    EXPECT_EQ(DetectImageType(""), -1);
    EXPECT_EQ(DetectImageType("/no/such/file"), -1);
    EXPECT_EQ(DetectImageType("/"), -1);
}

TEST(DetectImageType, TargaGoesByASensibleHeader)
{
    for (int imageType = 0; imageType < 256; ++imageType) {
        const bool known = imageType <= 3 || (imageType >= 9 && imageType <= 11);
        EXPECT_EQ(typeOf(TgaFields { .imageType = imageType }.bytes()), known ? IMGTYPE_TGA : -1)
            << imageType;
    }
    for (const int bits : { 0, 1, 5, 8, 16, 24, 32, 64 })
        EXPECT_EQ(typeOf(TgaFields { .pixelBits = bits }.bytes()), IMGTYPE_TGA) << bits;
    for (const int bits : { 9, 15, 23, 255 })
        EXPECT_EQ(typeOf(TgaFields { .pixelBits = bits }.bytes()), -1) << bits;
    EXPECT_EQ(typeOf(TgaFields { .width = 0 }.bytes()), -1);
    EXPECT_EQ(typeOf(TgaFields { .height = 0 }.bytes()), -1);
    EXPECT_EQ(typeOf(TgaFields { .width = 0x7FFF, .height = 0x7FFF }.bytes()), IMGTYPE_TGA);
}

TEST(DetectImageType, TargaSizesAreSigned)
{
    EXPECT_EQ(typeOf(TgaFields { .width = 0x8000 }.bytes()), -1);
    EXPECT_EQ(typeOf(TgaFields { .height = 0xFFFF }.bytes()), -1);
}

TEST(DetectImageType, TargaNeedsAllEighteenBytes)
{
    Bytes bytes = TgaFields {}.bytes();
    bytes.pop_back();
    EXPECT_EQ(typeOf(bytes), -1);
}

TEST(DetectImageType, PhotoshopHeaderIsCheckedFieldByField)
{
    EXPECT_EQ(typeOf(PsdFields {}.bytes()), IMGTYPE_PSD);
    EXPECT_EQ(typeOf(PsdFields { .version = 2 }.bytes()), -1);
    EXPECT_EQ(typeOf(PsdFields { .channels = 0 }.bytes()), -1);
    EXPECT_EQ(typeOf(PsdFields { .channels = 56 }.bytes()), IMGTYPE_PSD);
    EXPECT_EQ(typeOf(PsdFields { .channels = 57 }.bytes()), -1);
    EXPECT_EQ(typeOf(PsdFields { .height = 0 }.bytes()), -1);
    EXPECT_EQ(typeOf(PsdFields { .height = 30001 }.bytes()), -1);
    EXPECT_EQ(typeOf(PsdFields { .height = 30000, .width = 30000 }.bytes()), IMGTYPE_PSD);
    EXPECT_EQ(typeOf(PsdFields { .width = 0xFFFFFFFF }.bytes()), -1);
    for (int depth = 0; depth <= 64; ++depth) {
        const bool known = depth == 1 || depth == 8 || depth == 16 || depth == 32;
        EXPECT_EQ(typeOf(PsdFields { .depth = depth }.bytes()), known ? IMGTYPE_PSD : -1) << depth;
    }
    for (int mode = 0; mode <= 16; ++mode) {
        const bool known = mode <= 9 && mode != 5 && mode != 6;
        EXPECT_EQ(typeOf(PsdFields { .colorMode = mode }.bytes()), known ? IMGTYPE_PSD : -1) << mode;
    }
}

TEST(DetectImageType, PhotoshopNeedsAllTwentySixBytes)
{
    Bytes bytes = PsdFields {}.bytes();
    bytes.pop_back();
    EXPECT_EQ(typeOf(bytes), -1);
}

TEST(DetectImageType, EveryTypeButDdsIsTheTypeOfItsRow)
{
    for (int type = IMGTYPE_BMP; type <= IMGTYPE_DDS; ++type) {
        int rows = 0;
        for (const QUtils::ImageLoader& row : QUtils::tableImageLoaders)
            rows += row.type == type;
        EXPECT_EQ(rows, 1) << type;
    }
    EXPECT_EQ(typeOf(text("DDS \x7c\0\0\0", 8)), -1);
}

} // namespace
