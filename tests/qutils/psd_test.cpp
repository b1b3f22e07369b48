#include "qutils/formats/psd/psd.h"

#include "qutils/core/file_ptr.h"
#include "qutils/core/paths.h"
#include "support/psd_bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

using namespace testing_support;
using QUtils::PSD_ERROR_FORMAT;
using QUtils::PSD_ERROR_NONE;
using QUtils::PSD_ERROR_OPEN;
using QUtils::PSD_ERROR_READ;
using QUtils::PSD_ERROR_UNSUPPORTED;
using Pixel = std::array<float, 4>;

constexpr int bitmap = 0, grey = 1, indexed = 2, rgb = 3, cmyk = 4, multichannel = 7, duotone = 8, lab = 9;

UTF32String text(const char* utf8)
{
    UTF32String result;
    result.setFromUTF8(utf8);
    return result;
}

class Psd : public testing::Test {
protected:
    PSD_Error load(const Bytes& bytes, const char* alphaChannel = "")
    {
        const std::string name = m_folder / "a.psd";
        writeFile(name, bytes);
        return PSD_LoadFile(name.c_str(), UTF32String(), text(alphaChannel), m_image);
    }
    PSD_Error load(const PsdBytes& file, const char* alphaChannel = "")
    {
        return load(file.bytes(), alphaChannel);
    }

    /// The pixel, which must be the same in its row and alone.
    Pixel at(int x, int y)
    {
        Pixel alone;
        m_image.getComponent(y, x, alone.data());
        std::vector<float> row(std::size_t(m_image.width()) * 4);
        m_image.getRow(y, row.data());
        EXPECT_EQ(std::memcmp(row.data() + x * 4, alone.data(), sizeof alone), 0);
        if (m_image.hasPackedRows()) {
            std::vector<unsigned int> packed(std::size_t(m_image.width()));
            m_image.getPackedRow(y, packed.data());
            for (unsigned c = 0; c < 4; ++c)
                EXPECT_EQ(
                    float(packed[std::size_t(x)] >> (c == 3 ? 24 : 16 - 8 * c) & 0xFF) / 255.0f, alone[c]);
        }
        return alone;
    }

    void expectNear(int x, int y, const Pixel& expected, float tolerance)
    {
        const Pixel pixel = at(x, y);
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_NEAR(pixel[c], expected[c], tolerance) << x << ' ' << y << ' ' << c;
    }

    TempDir m_folder;
    PSD_Image m_image;
};

float b(int byte)
{
    return float(byte) / 255.0f;
}

float w(int word)
{
    return float(word) / 65535.0f;
}

/// A picture of 2 x 2 whose planes count on from 1.
PsdBytes counted(int channels)
{
    PsdBytes file { .channels = channels, .width = 2, .height = 2 };
    for (int i = 1; i <= 4 * channels; ++i)
        file.picture.push_back(std::uint8_t(i));
    return file;
}

// --- Header ----------------------------------------------------------------------------------------------

TEST_F(Psd, HeaderIsReadFromAnOpenFile)
{
    const std::string name = m_folder / "a.psd";
    writeFile(name, PsdBytes { .width = 300, .height = 20000 }.bytes());
    const FilePtr file(qutils_fopen(name.c_str(), "rb"));
    int width = 0, height = 0;
    EXPECT_EQ(PSD_LoadHeader(file, width, height), PSD_ERROR_NONE);
    EXPECT_EQ(width, 300);
    EXPECT_EQ(height, 20000);
    EXPECT_EQ(PSD_LoadHeader(nullptr, width, height), PSD_ERROR_OPEN);
}

PSD_Error headerError(const PsdBytes& file)
{
    const Bytes bytes = file.bytes();
    const FilePtr stream(fmemopen(const_cast<std::uint8_t*>(bytes.data()), bytes.size(), "rb"));
    int width = 0, height = 0;
    return PSD_LoadHeader(stream, width, height);
}

TEST(PsdHeader, FieldsEndWhereTheFormatEnds)
{
    EXPECT_EQ(headerError({}), PSD_ERROR_NONE);
    EXPECT_EQ(headerError({ .signature = "8BPT" }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .version = 0 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .version = 3 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 0 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 56 }), PSD_ERROR_NONE);
    EXPECT_EQ(headerError({ .channels = 57 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 0xFFFF }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .width = 0 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .height = 0 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .width = 30000, .height = 30000 }), PSD_ERROR_NONE);
    EXPECT_EQ(headerError({ .width = 30001 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .height = 30001 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .version = 2, .width = 300000, .height = 300000 }), PSD_ERROR_NONE);
    EXPECT_EQ(headerError({ .version = 2, .width = 300001 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .width = 0xFFFFFFFF }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .depth = 0 }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .depth = 64 }), PSD_ERROR_FORMAT);
    for (int mode = 0; mode < 12; ++mode) {
        const bool known = mode < 5 || (mode > 6 && mode < 10);
        const int depth = mode == bitmap ? 1 : 8;
        EXPECT_EQ(headerError({ .channels = 4, .depth = depth, .mode = mode }),
            known ? PSD_ERROR_NONE : PSD_ERROR_FORMAT)
            << mode;
    }
    EXPECT_EQ(headerError({ .mode = 0xFFFF }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .depth = 8, .mode = bitmap }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .depth = 16, .mode = indexed }), PSD_ERROR_FORMAT);
}

TEST(PsdHeader, ColoursNeedTheirChannels)
{
    EXPECT_EQ(headerError({ .channels = 2, .mode = rgb }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 2, .mode = lab }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 3, .mode = cmyk }), PSD_ERROR_FORMAT);
    EXPECT_EQ(headerError({ .channels = 1, .mode = multichannel }), PSD_ERROR_NONE);
    EXPECT_EQ(headerError({ .channels = 1, .mode = duotone }), PSD_ERROR_NONE);
}

// --- Depths ----------------------------------------------------------------------------------------------

TEST_F(Psd, BytesAreDividedBy255)
{
    ASSERT_EQ(load(counted(3)), PSD_ERROR_NONE);
    EXPECT_EQ(m_image.width(), 2);
    EXPECT_EQ(m_image.height(), 2);
    EXPECT_EQ(at(0, 0), (Pixel { b(1), b(5), b(9), 1 }));
    EXPECT_EQ(at(1, 0), (Pixel { b(2), b(6), b(10), 1 }));
    EXPECT_EQ(at(0, 1), (Pixel { b(3), b(7), b(11), 1 }));
    EXPECT_EQ(at(1, 1), (Pixel { b(4), b(8), b(12), 1 }));
    EXPECT_TRUE(m_image.hasPackedRows());
    EXPECT_FALSE(m_image.hasAlpha());
    EXPECT_FALSE(m_image.isGrey());
    EXPECT_TRUE(m_image.warnings().empty());
}

TEST_F(Psd, WideRowsOfBytesAreTheSameToTheLastPixel)
{
    for (const int channels : { 1, 3, 4 }) {
        PsdBytes file { .channels = channels, .width = 37, .mode = channels == 1 ? grey : rgb };
        for (int i = 0; i < 37 * channels; ++i)
            file.picture.push_back(std::uint8_t(i * 7));
        ASSERT_EQ(load(file), PSD_ERROR_NONE);
        for (int x = 0; x < 37; ++x) {
            const auto sample = [&](int c) { return b(std::uint8_t((c * 37 + x) * 7)); };
            const Pixel expected = channels == 1
                ? Pixel { sample(0), sample(0), sample(0), 1 }
                : Pixel { sample(0), sample(1), sample(2), channels == 4 ? sample(3) : 1 };
            EXPECT_EQ(at(x, 0), expected) << x;
        }
    }
}

TEST_F(Psd, WordsAreDividedBy65535)
{
    PsdBytes file { .depth = 16 };
    file.picture = { 0xFF, 0xFF, 0x80, 0x00, 0x00, 0x01 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 1, w(0x8000), w(1), 1 }));
    EXPECT_FALSE(m_image.hasPackedRows());
    EXPECT_EQ(m_image.bitsPerSample(), 16);
}

TEST_F(Psd, FloatsArePassedOnAsTheyAre)
{
    PsdBytes file { .depth = 32 };
    file.picture = { 0x40, 0x20, 0, 0, 0xBF, 0x80, 0, 0, 0x7F, 0x80, 0, 0 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 2.5f, -1, std::numeric_limits<float>::infinity(), 1 }));
}

TEST_F(Psd, BitsOfABitmapAreBlack)
{
    PsdBytes file { .channels = 1, .width = 10, .height = 2, .depth = 1, .mode = bitmap };
    file.picture = { 0x80, 0x40, 0x01, 0x00 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_TRUE(m_image.hasPackedRows());
    EXPECT_TRUE(m_image.isGrey());
    EXPECT_EQ(at(0, 0), (Pixel { 0, 0, 0, 1 }));
    EXPECT_EQ(at(1, 0), (Pixel { 1, 1, 1, 1 }));
    EXPECT_EQ(at(9, 0), (Pixel { 0, 0, 0, 1 }));
    EXPECT_EQ(at(7, 1), (Pixel { 0, 0, 0, 1 }));
}

TEST_F(Psd, BitsOfABitmapHaveAnAlphaBesides)
{
    PsdBytes file { .channels = 2, .width = 2, .height = 1, .depth = 1, .mode = bitmap };
    file.picture = { 0x80, 0x40 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 0, 0, 0, 0 }));
    EXPECT_EQ(at(1, 0), (Pixel { 1, 1, 1, 1 }));
}

// --- Colour modes ----------------------------------------------------------------------------------------

TEST_F(Psd, GreyAndDuotoneAreGrey)
{
    for (const int mode : { grey, duotone, multichannel }) {
        PsdBytes file { .channels = 1, .mode = mode };
        file.picture = { 51 };
        ASSERT_EQ(load(file), PSD_ERROR_NONE) << mode;
        EXPECT_EQ(at(0, 0), (Pixel { b(51), b(51), b(51), 1 }));
        EXPECT_TRUE(m_image.isGrey());
    }
}

TEST_F(Psd, IndicesTakeColoursAndOneOfThemMayBeTransparent)
{
    PsdBytes file { .channels = 1, .width = 2, .mode = indexed };
    file.colorData = Bytes(768, 0);
    file.colorData[7] = 10, file.colorData[256 + 7] = 20, file.colorData[512 + 7] = 30;
    file.picture = { 7, 255 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { b(10), b(20), b(30), 1 }));
    EXPECT_EQ(at(1, 0), (Pixel { 0, 0, 0, 1 }));
    EXPECT_FALSE(m_image.hasAlpha());

    file.resources = PsdBytes::resource(1047, big(7, 2), "odd");
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { b(10), b(20), b(30), 0 }));
    EXPECT_EQ(at(1, 0)[3], 1);
    EXPECT_TRUE(m_image.hasAlpha());

    file.colorData.pop_back(); // A table that is not whole counts as none.
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 0, 0, 0, 0 }));
}

TEST_F(Psd, InksTakeTheirPartOfWhiteLight)
{
    for (const int mode : { cmyk, multichannel }) {
        PsdBytes file { .channels = 4, .mode = mode };
        file.picture = { 255, 128, 0, 51 };
        ASSERT_EQ(load(file), PSD_ERROR_NONE) << mode;
        expectNear(0, 0, { 0.2f, 0.2f * 128 / 255, 0, 1 }, 1e-6f);
    }
    PsdBytes file { .channels = 5, .mode = cmyk };
    file.picture = { 255, 255, 255, 255, 77 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 1, 1, 1, b(77) }));
}

TEST_F(Psd, ThreeInksAreWhatRedGreenAndBlueBecame)
{
    PsdBytes file { .channels = 3, .mode = multichannel };
    file.picture = { 10, 20, 30 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { b(10), b(20), b(30), 1 }));
}

TEST_F(Psd, ExtraInksAreNoAlpha)
{
    PsdBytes file { .channels = 2, .mode = multichannel };
    file.picture = { 10, 20 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0)[3], 1);
    ASSERT_EQ(load(file, "Alpha 1"), PSD_ERROR_NONE) << "unless it is asked for";
    EXPECT_EQ(at(0, 0)[3], b(20));
}

/// L, a, b and the sRGB colour: computed by the definitions of CIE Lab (D50), Bradford adaptation and sRGB.
TEST_F(Psd, LabBecomesSrgb)
{
    PsdBytes file { .width = 4, .mode = lab };
    file.picture = { 255, 0, 128, 138, 128, 128, 128, 209, 128, 128, 128, 198 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    expectNear(0, 0, { 1, 1, 1, 1 }, 2e-3f);
    expectNear(1, 0, { 0, 0, 0, 1 }, 1e-4f);
    expectNear(2, 0, { 0.4664f, 0.4664f, 0.4664f, 1 }, 2e-3f);
    const Pixel red = at(3, 0); // Close to sRGB's red: L 54.3, a 80.8, b 69.9.
    EXPECT_NEAR(red[0], 1, 0.01f);
    EXPECT_NEAR(red[1], 0, 0.08f);
    EXPECT_NEAR(red[2], 0, 0.08f);
}

TEST_F(Psd, LabOf16BitsHasItsOwnZero)
{
    PsdBytes file { .depth = 16, .mode = lab };
    file.picture = { 0x80, 0x00, 0x80, 0x00, 0x80, 0x00 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    const Pixel pixel = at(0, 0);
    EXPECT_NEAR(pixel[0], 0.4663f, 1e-3f);
    EXPECT_NEAR(pixel[0], pixel[1], 1e-4f);
    EXPECT_NEAR(pixel[0], pixel[2], 1e-4f);
}

// --- Alpha -----------------------------------------------------------------------------------------------

TEST_F(Psd, FirstExtraChannelIsAlpha)
{
    ASSERT_EQ(load(counted(5)), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 1), (Pixel { b(4), b(8), b(12), b(16) }));
    EXPECT_TRUE(m_image.hasAlpha());
    EXPECT_TRUE(m_image.hasPackedRows());
}

TEST_F(Psd, TransparentPictureIsFreedFromWhite)
{
    PsdBytes file { .channels = 4, .width = 4 };
    file.layerSection = file.transparentSection();
    // Half of red 51, nothing, all of it, a colour that white cannot have been mixed with.
    file.picture = { 153, 255, 51, 10, 153, 255, 51, 10, 255, 255, 51, 10, 128, 0, 255, 51 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    expectNear(0, 0, { 51.8f / 255, 51.8f / 255, 1, b(128) }, 1e-3f);
    EXPECT_EQ(at(1, 0), (Pixel { 1, 1, 1, 0 }));
    EXPECT_EQ(at(2, 0), (Pixel { b(51), b(51), b(51), 1 }));
    EXPECT_EQ(at(3, 0), (Pixel { 0, 0, 0, b(51) }));
    EXPECT_FALSE(m_image.hasPackedRows());
}

TEST_F(Psd, FloatsAreFreedFromWhiteWithoutBounds)
{
    PsdBytes file { .channels = 4, .depth = 32 };
    file.layerSection = file.transparentSection();
    file.picture = { 0x40, 0, 0, 0, 0, 0, 0, 0, 0x3F, 0x80, 0, 0, 0x3F, 0, 0, 0 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { 3, -1, 1, 0.5f }));
}

TEST_F(Psd, InkIsFreedFromWhitePaper)
{
    PsdBytes file { .channels = 5, .mode = cmyk };
    file.layerSection = file.transparentSection();
    file.picture = { 204, 255, 255, 255, 51 };
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    expectNear(0, 0, { 0, 1, 1, 0.2f }, 1e-6f);
}

TEST_F(Psd, NamedChannelReplacesAlpha)
{
    PsdBytes file = counted(6);
    file.resources
        = PsdBytes::resource(1006, joined({ { 4 }, textBytes("Mask"), { 5 }, textBytes("Depth") }));
    ASSERT_EQ(load(file, "Depth"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0)[3], b(21));
    ASSERT_EQ(load(file, "Mask"), PSD_ERROR_NONE) << "names belong to the last channels";
    EXPECT_EQ(at(0, 0)[3], b(17));
    ASSERT_EQ(load(file, "Alpha 1"), PSD_ERROR_NONE) << "a channel without a name has the usual one";
    EXPECT_EQ(at(0, 0)[3], b(13));
    EXPECT_EQ(load(file, "mask"), PSD_ERROR_FORMAT);
    EXPECT_EQ(load(file, "Alpha 2"), PSD_ERROR_FORMAT);
    EXPECT_EQ(m_image.width(), 0) << "a failed load leaves an empty image";
}

TEST_F(Psd, UnicodeNamesGoBeforeOthers)
{
    PsdBytes file = counted(4);
    const Bytes unicode = PsdBytes::resource(1045, joined({ big(3, 4), { 0x20, 0xAC, 0, 'x', 0, 0 } }));
    const Bytes plain = PsdBytes::resource(1006, joined({ { 3 }, textBytes("Old") }));
    for (const Bytes& resources : { joined({ unicode, plain }), joined({ plain, unicode }) }) {
        file.resources = resources;
        EXPECT_EQ(load(file, "\u20acx"), PSD_ERROR_NONE);
        EXPECT_EQ(load(file, "Old"), PSD_ERROR_FORMAT);
    }
}

TEST_F(Psd, ReplacedAlphaLeavesTheColoursFreed)
{
    PsdBytes file { .channels = 5 };
    file.layerSection = file.transparentSection();
    file.resources = PsdBytes::resource(1006, joined({ { 1 }, textBytes("M") }));
    file.picture = { 204, 204, 204, 51, 99 };
    ASSERT_EQ(load(file, "M"), PSD_ERROR_NONE);
    expectNear(0, 0, { 0, 0, 0, b(99) }, 1e-6f);
}

// --- Compressions ----------------------------------------------------------------------------------------

TEST_F(Psd, RunsAndLiteralsFillTheRows)
{
    PsdBytes file { .width = 3, .height = 2, .compression = 1 };
    const Bytes run = { 0xFE, 9 }, literals = { 2, 1, 2, 3 }, mixed = { 0x80, 0xFF, 7, 0, 8 };
    file.picture = joined({ big(2, 2), big(4, 2), big(5, 2), big(2, 2), big(2, 2), big(2, 2), run, literals,
        mixed, run, run, run });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), (Pixel { b(9), b(7), b(9), 1 }));
    EXPECT_EQ(at(2, 0), (Pixel { b(9), b(8), b(9), 1 }));
    EXPECT_EQ(at(2, 1), (Pixel { b(3), b(9), b(9), 1 }));
}

TEST_F(Psd, CountsOfLargeFilesHaveFourBytes)
{
    PsdBytes file { .version = 2, .channels = 1, .width = 2, .mode = grey, .compression = 1 };
    file.picture = joined({ big(2, 4), { 0xFF, 9 } });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 0)[0], b(9));
}

TEST_F(Psd, RunPastTheEndOfItsRowIsCut)
{
    PsdBytes file { .channels = 1, .width = 2, .height = 2, .mode = grey, .compression = 1 };
    file.picture = joined({ big(2, 2), big(4, 2), { 0x81, 9, 2, 1, 2, 3 } });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 0)[0], b(9));
    EXPECT_EQ(at(1, 1)[0], b(2));
}

TEST_F(Psd, RowThatIsNotFilledIsDamaged)
{
    PsdBytes file { .channels = 1, .width = 3, .mode = grey, .compression = 1 };
    file.picture = joined({ big(2, 2), { 0xFF, 9 }, Bytes(8, 0) });
    EXPECT_EQ(load(file), PSD_ERROR_READ);
    file.picture = joined({ big(3, 2), { 2, 9, 9 }, Bytes(8, 0) });
    EXPECT_EQ(load(file), PSD_ERROR_READ) << "literals past the end of the packed row";
    file.picture = joined({ big(0, 2), Bytes(8, 0) });
    EXPECT_EQ(load(file), PSD_ERROR_READ);
}

TEST_F(Psd, LongRunsAndLiteralsAreExact)
{
    PsdBytes file { .channels = 1, .width = 300, .mode = grey, .compression = 1 };
    Bytes packed = { 0x81, 5, 99 }; // 128 times 5, a hundred literals, 72 times 6.
    for (int i = 0; i < 100; ++i)
        packed.push_back(std::uint8_t(i));
    packed.insert(packed.end(), { std::uint8_t(257 - 72), 6 });
    file.picture = joined({ big(packed.size(), 2), packed });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    for (int x = 0; x < 300; ++x)
        EXPECT_EQ(at(x, 0)[0], b(x < 128 ? 5 : x < 228 ? x - 128 : 6)) << x;
}

TEST_F(Psd, ZipHoldsAllChannelsBehindEachOther)
{
    PsdBytes file = counted(4);
    file.picture = deflated(file.picture);
    file.compression = 2;
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 1), (Pixel { b(4), b(8), b(12), b(16) }));
}

TEST_F(Psd, PredictedBytesAndWordsCountOnFromTheirNeighbour)
{
    PsdBytes file { .channels = 1, .width = 3, .height = 2, .mode = grey, .compression = 3 };
    file.picture = deflated({ 10, 1, 255, 20, 0, 1 });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 0)[0], b(11));
    EXPECT_EQ(at(2, 0)[0], b(10));
    EXPECT_EQ(at(2, 1)[0], b(21));

    file.depth = 16;
    file.picture = deflated({ 0x10, 0xFF, 0, 1, 0xFF, 0xFF, 0, 1, 0, 1, 0, 1 });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 0)[0], w(0x1100));
    EXPECT_EQ(at(2, 0)[0], w(0x10FF));
    EXPECT_EQ(at(2, 1)[0], w(3));
}

TEST_F(Psd, PredictedFloatsAreSplitIntoTheirBytes)
{
    PsdBytes file { .channels = 1, .width = 2, .depth = 32, .mode = grey, .compression = 3 };
    // 1.0 is 3F 80 00 00, 2.5 is 40 20 00 00: first bytes, second bytes, and so on, each less its neighbour.
    file.picture = deflated({ 0x3F, 0x01, 0x40, 0xA0, 0xE0, 0, 0, 0 });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0)[0], 1.0f);
    EXPECT_EQ(at(1, 0)[0], 2.5f);
}

TEST_F(Psd, BrokenZipIsDamaged)
{
    PsdBytes file = counted(3);
    file.compression = 2;
    const Bytes whole = deflated(file.picture);
    for (std::size_t length = 0; length < whole.size() - 5;
         ++length) { // Its end and checksum are not waited for.
        file.picture = Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length));
        EXPECT_EQ(load(file), PSD_ERROR_READ) << length;
    }
    file.picture = Bytes(20, 0xFF);
    EXPECT_EQ(load(file), PSD_ERROR_READ);
}

TEST_F(Psd, OtherCompressionsAreNone)
{
    PsdBytes file = counted(3);
    for (const int compression : { 4, 256, 0xFFFF }) {
        file.compression = compression;
        EXPECT_EQ(load(file), PSD_ERROR_FORMAT);
    }
}

// --- Sections --------------------------------------------------------------------------------------------

TEST_F(Psd, FileThatIsNotThereCannotBeOpened)
{
    EXPECT_EQ(PSD_LoadFile((m_folder / "none.psd").c_str(), {}, {}, m_image), PSD_ERROR_OPEN);
    EXPECT_EQ(PSD_LoadFile(nullptr, {}, {}, m_image), PSD_ERROR_OPEN);
    EXPECT_EQ(PSD_LoadFile("/dev/null", {}, {}, m_image), PSD_ERROR_UNSUPPORTED);
}

TEST_F(Psd, EveryCutOfAFileIsAnError)
{
    for (const int compression : { 0, 1, 2 }) {
        PsdBytes file = counted(4);
        file.resources = PsdBytes::resource(1006, { 1, 'M' });
        file.layerSection = file.transparentSection();
        file.compression = compression;
        if (compression == 1) {
            Bytes sizes, rows;
            for (int i = 0; i < 8; ++i) {
                putBig(sizes, 2, 2);
                rows.insert(rows.end(), { 0xFF, 3 });
            }
            file.picture = joined({ sizes, rows });
        }
        if (compression == 2)
            file.picture = deflated(file.picture);
        const Bytes whole = file.bytes();
        ASSERT_EQ(load(whole), PSD_ERROR_NONE);
        const std::size_t end = whole.size() - (compression == 2 ? 5 : 0);
        for (std::size_t length = 0; length < end; ++length) {
            const PSD_Error error = load(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
            EXPECT_EQ(error, length < 26 ? PSD_ERROR_FORMAT : PSD_ERROR_READ) << compression << ' ' << length;
        }
    }
}

TEST_F(Psd, SectionsPastTheEndAreAnError)
{
    const Bytes whole = counted(3).bytes();
    for (const std::size_t section : { 26u, 30u, 34u }) {
        Bytes bytes = whole;
        for (std::size_t i = 0; i < 4; ++i)
            bytes[section + i] = 0xFF;
        EXPECT_EQ(load(bytes), PSD_ERROR_READ) << section;
    }
}

TEST_F(Psd, DamagedResourcesDoNoHarm)
{
    PsdBytes file = counted(3);
    const Bytes good = joined({ PsdBytes::resource(1006, { 200, 'M' }), PsdBytes::resource(1045, big(999, 4)),
        PsdBytes::resource(1047, {}), PsdBytes::resource(1057, {}), PsdBytes::resource(1, {}, "long name") });
    for (std::size_t length = 0; length <= good.size(); ++length) {
        file.resources = Bytes(good.begin(), good.begin() + std::ptrdiff_t(length));
        EXPECT_EQ(load(file), PSD_ERROR_NONE) << length;
    }
    file.resources = joined({ PsdBytes::resource(1, {}), big(0xFFFFFFFF, 4), Bytes(8, 0xFF) });
    EXPECT_EQ(load(file), PSD_ERROR_NONE);
}

TEST_F(Psd, FileWithoutItsMergedPictureIsWarnedOf)
{
    PsdBytes file = counted(3);
    file.resources = PsdBytes::resource(1057, { 0, 0, 0, 1, 0 });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    ASSERT_EQ(m_image.warnings().count(), 1);
    file.resources = PsdBytes::resource(1057, { 0, 0, 0, 1, 1 });
    ASSERT_EQ(load(file), PSD_ERROR_NONE);
    EXPECT_TRUE(m_image.warnings().empty());
}

TEST_F(Psd, TransparencyIsAlsoToldBehindTheLayers)
{
    for (const int version : { 1, 2 })
        for (const char* key : { "Mtrn", "Mt16", "Mt32", "Lr16", "Lr32" }) {
            PsdBytes file { .version = version, .channels = 4 };
            const int lengthBytes = version == 2 ? 8 : 4;
            const bool isList = key[0] == 'L';
            const Bytes other = joined({ textBytes("8BIMPatt"), big(1, 4), { 1, 0, 0, 0 } });
            const Bytes block = joined({ textBytes("8B64"), textBytes(key), big(isList ? 2 : 0, lengthBytes),
                isList ? Bytes { 0xFF, 0xFF, 0, 0 } : Bytes() });
            file.layerSection = joined({ big(0, lengthBytes), big(0, 4), other, block });
            file.picture = { 204, 204, 204, 51 };
            ASSERT_EQ(load(file), PSD_ERROR_NONE);
            expectNear(0, 0, { 0, 0, 0, 0.2f }, 1e-6f);
        }
}

TEST_F(Psd, DescriptionNeedsNoPixels)
{
    PsdBytes file { .channels = 4, .width = 7, .height = 5, .depth = 16 };
    const std::string name = m_folder / "a.psd";
    writeFile(name, file.bytes());
    EXPECT_EQ(PSD_LoadDescription(name.c_str(), m_image), PSD_ERROR_NONE);
    EXPECT_EQ(m_image.width(), 7);
    EXPECT_EQ(m_image.bitsPerSample(), 16);
    EXPECT_TRUE(m_image.hasAlpha());
    Pixel pixel = { 1, 1, 1, 1 };
    m_image.getComponent(0, 0, pixel.data());
    EXPECT_EQ(pixel, Pixel());
    EXPECT_EQ(load(file), PSD_ERROR_READ);
}

TEST_F(Psd, PixelsOutsideAreTransparentBlack)
{
    ASSERT_EQ(load(counted(3)), PSD_ERROR_NONE);
    for (const auto& [row, column] : { std::pair(-1, 0), { 0, -1 }, { 2, 0 }, { 0, 2 } }) {
        Pixel pixel = { 1, 1, 1, 1 };
        m_image.getComponent(row, column, pixel.data());
        EXPECT_EQ(pixel, Pixel());
    }
    PSD_Image empty;
    Pixel pixel = { 1, 1, 1, 1 };
    empty.getComponent(0, 0, pixel.data());
    EXPECT_EQ(pixel, Pixel());
    EXPECT_TRUE(empty.warnings().empty());
}

} // namespace
