#include "qutils/formats/dds/dds_header.h"
#include "qutils/formats/dds/dds_reader.h"
#include "rastkit/buffers.h"
#include "rastkit/codecs/dds.h"
#include "rastkit/codecs/dds_core.h"
#include "rastkit/load.h"
#include "support/dds_bytes.h"
#include "support/open_files.h"
#include "support/recording_buffer.h"
#include "support/throwing_sink.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::DdsDescription;
using QUtils::fourCc;

class DdsLoad : public testing::Test {
protected:
    std::string make(const Bytes& bytes)
    {
        writeFile(m_dir / "image.dds", bytes);
        return m_dir / "image.dds";
    }
    int load(const DdsBytes& file) { return loadBytes(file.bytes()); }
    int loadBytes(const Bytes& bytes)
    {
        m_info = IMGINFO {};
        return codeOf(LoadDDSFile(make(bytes).c_str(), m_sink, &m_info));
    }
    /// The first pixel of a file of packed pixels.
    unsigned int firstOf(const DdsBytes& file)
    {
        EXPECT_EQ(load(file), IMGERR_NONE);
        EXPECT_EQ(m_info.bytesPerPixel, 4);
        return m_sink.at(0, 0);
    }
    /// The first pixel of a file of floats.
    std::array<float, 4> firstFloatsOf(const DdsBytes& file)
    {
        EXPECT_EQ(load(file), IMGERR_NONE);
        EXPECT_EQ(m_info.bytesPerPixel, 16);
        return m_sink.pixelsF[{ 0, 0 }];
    }

    TempDir m_dir;
    RecordingBuffer m_sink;
    IMGINFO m_info {};
};

using Floats = std::array<float, 4>;

// --- Header ----------------------------------------------------------------------------------------------

TEST_F(DdsLoad, DescribesPackedPixelsAsFourBytesAndFloatsAsSixteen)
{
    DdsBytes file { .height = 2, .width = 3 };
    file.data = Bytes(24, 0x11);
    for (const bool headerOnly : { false, true }) {
        EXPECT_EQ(headerOnly ? codeOf(LoadDDSHeader((m_dir / "image.dds").c_str(), &m_info)) : load(file),
            IMGERR_NONE);
        EXPECT_EQ(m_info.width, 3);
        EXPECT_EQ(m_info.height, 2);
        EXPECT_EQ(m_info.bitsPerPixel, 32);
        EXPECT_EQ(m_info.numChannels, 4);
        EXPECT_EQ(m_info.bytesPerPixel, 4);
        m_info = IMGINFO {};
    }
    EXPECT_EQ(m_sink.order.size(), 6u);

    EXPECT_EQ(load(DdsBytes::ofNumber(114, 1, 1, Bytes(4))), IMGERR_NONE);
    EXPECT_EQ(m_info.bitsPerPixel, 128);
    EXPECT_EQ(m_info.numChannels, 4);
    EXPECT_EQ(m_info.bytesPerPixel, 16);
}

TEST_F(DdsLoad, MissingFileIsAnOpenError)
{
    EXPECT_EQ(codeOf(LoadDDSFile((m_dir / "none.dds").c_str(), m_sink, nullptr)), IMGERR_OPEN);
    EXPECT_EQ(codeOf(LoadDDSHeader((m_dir / "none.dds").c_str(), &m_info)), IMGERR_OPEN);
    EXPECT_STREQ(LoadDDSHeader((m_dir / "none.dds").c_str(), &m_info).function(), "makeOpenError");
}

TEST_F(DdsLoad, HeaderOrSizeThatCannotBeIsAFormatError)
{
    const Bytes data(64);
    Bytes wrongMagic = DdsBytes { .data = data }.bytes();
    wrongMagic[3] = '!';
    EXPECT_EQ(loadBytes(wrongMagic), IMGERR_FORMAT);
    EXPECT_EQ(load({ .size = 0, .data = data }), IMGERR_FORMAT);
    EXPECT_EQ(load({ .formatSize = 24, .data = data }), IMGERR_FORMAT);
    for (const std::uint32_t size : { 0u, 0x80000000u, 0xFFFFFFFFu }) {
        EXPECT_EQ(load({ .width = size, .data = data }), IMGERR_FORMAT) << size;
        EXPECT_EQ(load({ .height = size, .data = data }), IMGERR_FORMAT) << size;
    }
    EXPECT_EQ(load({ .depth = 0x80000000u, .caps2 = 0x200000, .data = data }), IMGERR_FORMAT);
    DdsBytes elements = DdsBytes::ofDxgi(28, 1, 1, data);
    elements.elements = 0xFFFFFFFFu;
    EXPECT_EQ(load(elements), IMGERR_FORMAT);
    EXPECT_EQ(m_sink.initCalls, 0);
}

TEST_F(DdsLoad, UnknownFormatsAreUnsupportedAndTheFileIsClosed)
{
    const int before = openFiles();
    for (const DdsBytes& file :
        { DdsBytes::ofCode("ABCD", 1, 1, Bytes(64)), DdsBytes::ofNumber(99, 1, 1, Bytes(64)),
            DdsBytes::ofDxgi(0, 1, 1, Bytes(64)), DdsBytes::ofDxgi(103, 1, 1, Bytes(64)),
            DdsBytes::ofMasks(0x8, 8, {}, 1, Bytes(64)), DdsBytes::ofMasks(0x40, 0, {}, 1, Bytes(64)),
            DdsBytes::ofMasks(0x40, 12, {}, 1, Bytes(64)), DdsBytes::ofMasks(0x40, 64, {}, 1, Bytes(64)) }) {
        EXPECT_EQ(load(file), IMGERR_UNSUPPORTED);
        EXPECT_EQ(codeOf(LoadDDSHeader((m_dir / "image.dds").c_str(), &m_info)), IMGERR_UNSUPPORTED);
    }
    EXPECT_EQ(m_sink.initCalls, 0);
    EXPECT_EQ(openFiles(), before);
}

TEST_F(DdsLoad, FilesCutAnywhereAreAReadErrorAndKeepWholePixels)
{
    for (const DdsBytes& file :
        { DdsBytes::ofDxgi(28, 3, 2, Bytes(24, 7)), DdsBytes::ofCode("DXT1", 5, 5, Bytes(32, 7)),
            DdsBytes::ofDxgi(2, 1, 2, Bytes(32, 7)), DdsBytes::ofCode("YUY2", 3, 2, Bytes(16, 7)),
            DdsBytes::ofMasks(0x20, 8, {}, 3, Bytes(1027, 7)) }) {
        const Bytes whole = file.bytes();
        EXPECT_EQ(loadBytes(whole), IMGERR_NONE);
        const std::size_t pixels = m_sink.order.size();
        std::size_t last = 0;
        for (std::size_t length = 0; length < whole.size(); ++length) {
            m_sink.order.clear();
            EXPECT_EQ(loadBytes(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length))), IMGERR_READ)
                << length;
            EXPECT_LT(m_sink.order.size(), pixels) << length;
            EXPECT_GE(m_sink.order.size(), last) << length;
            last = m_sink.order.size();
        }
    }
}

TEST_F(DdsLoad, BlocksBeforeTheCutAreStored)
{
    EXPECT_EQ(load(DdsBytes::ofCode("DXT1", 8, 4, Bytes(15, 0))), IMGERR_READ);
    EXPECT_TRUE(m_sink.has(3, 3));
    EXPECT_FALSE(m_sink.has(4, 0));
}

TEST_F(DdsLoad, SinkThatIsNotValidIsALibraryErrorForTheRendererOnly)
{
    const std::string name = make(DdsBytes { .data = Bytes(4) }.bytes());
    m_sink.refuse = true;
    EXPECT_EQ(codeOf(LoadDDSFile(name.c_str(), m_sink, &m_info)), IMGERR_LIBRARY);
    EXPECT_EQ(codeOf(QUtils::loadDds(name.c_str(), m_sink, &m_info, Conventions::Standard)), IMGERR_MEMORY);
    EXPECT_EQ(m_info.width, 0);
    EXPECT_EQ(m_sink.freeCalls, 0);
    const QUtils::FilePtr file(std::fopen(name.c_str(), "rb"));
    EXPECT_EQ(DDS_LoadFile(file, &m_sink, nullptr), 4);
}

TEST_F(DdsLoad, ExceptionOfTheSinkPassesThroughAndReleasesIt)
{
    const std::string name = make(DdsBytes::ofCode("DXT1", 4, 4, Bytes(8)).bytes());
    const int before = openFiles();
    ThrowingSink sink;
    sink.throwAtPixel = 3;
    EXPECT_THROW(static_cast<void>(LoadDDSFile(name.c_str(), sink, nullptr)), std::runtime_error);
    EXPECT_EQ(sink.freeCalls, 1);
    EXPECT_EQ(openFiles(), before);
}

// --- Words and masks -------------------------------------------------------------------------------------

TEST_F(DdsLoad, MasksOfEveryWidthAreScaledAndRounded)
{
    using M = std::array<std::uint32_t, 4>;
    EXPECT_EQ(firstOf({ .data = { 1, 2, 3, 4 } }), 0x04030201u);
    EXPECT_EQ(
        firstOf(DdsBytes::ofMasks(0x40, 32, M { 0xFF0000, 0xFF00, 0xFF, 0xFF000000 }, 1, { 1, 2, 3, 4 })),
        0xFF030201u)
        << "an alpha mask without its flag";
    EXPECT_EQ(
        firstOf(DdsBytes::ofMasks(0x40, 24, M { 0xFF, 0xFF00, 0xFF0000, 0 }, 1, { 1, 2, 3 })), 0xFF010203u);
    EXPECT_EQ(
        firstOf(DdsBytes::ofMasks(0x40, 16, M { 0xF800, 0x7E0, 0x1F, 0 }, 1, { 0x21, 0x08 })), 0xFF080408u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x41, 16, M { 0x7C00, 0x3E0, 0x1F, 0x8000 }, 1, { 0x1F, 0x7C })),
        0x00FF00FFu);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x40, 8, M { 0xE0, 0x1C, 0x03, 0 }, 1, { 0x25 })), 0xFF242455u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x40, 24, M {}, 1, { 1, 2, 3 })), 0xFF000000u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20000, 8, M { 0xFF, 0, 0, 0 }, 1, { 9 })), 0xFF090909u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20000, 8, M { 0xFF000000, 0, 0, 0 }, 1, { 9 })), 0xFF090909u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20001, 16, M { 0xFF, 0, 0, 0xFF00 }, 1, { 9, 8 })), 0x08090909u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20001, 8, M { 0x0F, 0, 0, 0xF0 }, 1, { 0x21 })), 0x22111111u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x2, 8, M { 0, 0, 0, 0xFF }, 1, { 9 })), 0x09000000u);
}

TEST_F(DdsLoad, MasksOutsideOfThePixelAreMissingOnes)
{
    using M = std::array<std::uint32_t, 4>;
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x41, 24, M { 0xFF, 0xFF00, 0xFF0000, 0xFF000000 }, 1, { 1, 2, 3 })),
        0xFF010203u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x41, 16, M { 0xFF, 0xFF00, 0xFF0000, 0xFF000000 }, 1, { 1, 2 })),
        0xFF010200u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(
                  0x41, 16, M { 0x1F001F, 0x3E003E0, 0x7C007C00, 0x80000000 }, 1, { 0x1F, 0x7C })),
        0xFFFF00FFu)
        << "the bits inside count";
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20001, 8, M { 0xFF, 0, 0, 0xFF00 }, 1, { 9 })), 0xFF090909u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x20001, 8, M { 0xFF00, 0, 0, 0xFF00 }, 1, { 9 })), 0xFF090909u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x2, 8, M { 0, 0, 0, 0xFF00 }, 1, { 9 })), 0xFF000000u);
    EXPECT_EQ(
        firstOf(DdsBytes::ofMasks(0x201, 24, { 0xFF, 0xFF00, 0xFF0000, 0xFF000000 }, 1, { 81, 90, 240 })),
        0xFFFF0000u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x80000, 16, M { 0xFF, 0xFF00, 0xFF0000, 0xFF000000 }, 1, { 0, 1 })),
        0xFF808180u);
}

TEST_F(DdsLoad, SignedBytesAreMovedUp)
{
    using M = std::array<std::uint32_t, 4>;
    EXPECT_EQ(
        firstOf(DdsBytes::ofMasks(0x80000, 16, M { 0xFF, 0xFF00, 0, 0 }, 1, { 0x80, 0x7F })), 0xFF00FF80u);
    EXPECT_EQ(firstOf(DdsBytes::ofNumber(117, 1, 1, { 0, 0 })), 0xFF8080FFu);
    EXPECT_EQ(firstOf(DdsBytes::ofDxgi(31, 1, 1, { 0, 1, 0xFF, 0x7F })), 0xFF80817Fu);
}

TEST_F(DdsLoad, MissingChannelsOfSignedPairsAreInTheMiddle)
{
    const Bytes zeros(16);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x80000, 16, { 0xFF, 0xFF00, 0, 0 }, 1, zeros)), 0xFF808080u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x80000, 16, { 0, 0, 0, 0 }, 1, zeros)), 0xFF808080u);
    EXPECT_EQ(firstOf(DdsBytes::ofNumber(60, 1, 1, zeros)), 0xFF808080u);
    for (const std::uint32_t pair : { 51u, 52u, 84u })
        EXPECT_EQ(firstOf(DdsBytes::ofDxgi(pair, 1, 1, zeros)), 0xFF808080u) << pair;
    for (const std::uint32_t pair : { 49u, 50u, 83u })
        EXPECT_EQ(firstOf(DdsBytes::ofDxgi(pair, 1, 1, zeros)), 0xFF000000u) << pair;
}

TEST_F(DdsLoad, NarrowSignedChannelsHaveTheirMiddleAt128)
{
    // L6V5U5: two numbers from -16 to 15; luminance has no sign.
    const auto bump = [&](int u, int v) {
        const int word = (u & 0x1F) | (v & 0x1F) << 5 | 0xFC00;
        return firstOf(DdsBytes::ofMasks(
            0x40000, 16, { 0x1F, 0x3E0, 0xFC00, 0 }, 1, { std::uint8_t(word), std::uint8_t(word >> 8) }));
    };
    EXPECT_EQ(bump(0, 15), 0xFF80FFFFu);
    EXPECT_EQ(bump(-15, -16), 0xFF0100FFu);
    EXPECT_EQ(bump(1, -1), 0xFF8878FFu) << "the same distance from the middle";
    // Single bits are 0 and -1; two bits are -2 to 1.
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x80000, 8, { 1, 6, 0x18, 0 }, 1, { 0x03 })), 0xFF01FF80u);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x80000, 8, { 1, 6, 0x18, 0 }, 1, { 0x1C })), 0xFF800001u);
}

TEST_F(DdsLoad, PaletteHasRedFirstAndIsOpaqueWhereItHoldsFlags)
{
    Bytes data(1024 + 2);
    data[4 * 5] = 1, data[4 * 5 + 1] = 2, data[4 * 5 + 2] = 3, data[4 * 5 + 3] = 4;
    data[1025] = 5;
    for (const bool isAlphaSaid : { false, true }) {
        EXPECT_EQ(load(DdsBytes::ofMasks(isAlphaSaid ? 0x21 : 0x20, 8, {}, 2, data)), IMGERR_NONE);
        EXPECT_EQ(m_sink.at(0, 0), isAlphaSaid ? 0u : 0xFF000000u);
        EXPECT_EQ(m_sink.at(1, 0), isAlphaSaid ? 0x04010203u : 0xFF010203u);
    }
    EXPECT_EQ(load(DdsBytes::ofMasks(0x60, 8, {}, 2, data)), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(1, 0), 0xFF010203u);
}

TEST_F(DdsLoad, PaletteWithAnOpaqueEntryHasAlphaThatNobodySaid)
{
    Bytes data(1024 + 2);
    data[3] = 0x80, data[4 * 5] = 1, data[1023] = 0xFF;
    data[1025] = 5;
    EXPECT_EQ(load(DdsBytes::ofMasks(0x20, 8, {}, 2, data)), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0x80000000u);
    EXPECT_EQ(m_sink.at(1, 0), 0x00010000u);
    data[1023] = 0xFE;
    EXPECT_EQ(load(DdsBytes::ofMasks(0x20, 8, {}, 2, data)), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF000000u);
}

TEST_F(DdsLoad, PairsShareTwoBytes)
{
    EXPECT_EQ(load(DdsBytes::ofCode("RGBG", 2, 1, { 1, 2, 3, 4 })), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF010203u);
    EXPECT_EQ(m_sink.at(1, 0), 0xFF010403u);
    EXPECT_EQ(load(DdsBytes::ofCode("GRGB", 3, 1, { 1, 2, 3, 4, 5, 6, 7, 8 })), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF020104u);
    EXPECT_EQ(m_sink.at(1, 0), 0xFF020304u);
    EXPECT_EQ(m_sink.at(2, 0), 0xFF060508u);
    EXPECT_EQ(load(DdsBytes::ofCode("YUY2", 2, 1, { 16, 128, 235, 128 })), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF000000u);
    EXPECT_EQ(m_sink.at(1, 0), 0xFFFFFFFFu);
    EXPECT_EQ(firstOf(DdsBytes::ofCode("UYVY", 1, 1, { 128, 235, 128, 16 })), 0xFFFFFFFFu);
    EXPECT_EQ(firstOf(DdsBytes::ofMasks(0x200, 24, { 0xFF, 0xFF00, 0xFF0000, 0 }, 1, { 81, 90, 240 })),
        0xFFFF0000u);
}

// --- Floats ----------------------------------------------------------------------------------------------

TEST_F(DdsLoad, WideSamplesBecomeFloats)
{
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(36, 1, 1, { 0xFF, 0xFF, 0, 0, 0x33, 0x33, 0xFF, 0xFF })),
        (Floats { 1, 0, 0.2f, 1 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(110, 1, 1, { 0xFF, 0x7F, 0x01, 0x80, 0, 0x80, 0, 0 })),
        (Floats { 1, -1, -1, 0 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(111, 1, 1, { 0, 0x3C })), (Floats { 1, 1, 1, 1 }));
    EXPECT_EQ(
        firstFloatsOf(DdsBytes::ofNumber(112, 1, 1, { 0, 0xC0, 1, 0 })), (Floats { -2, 0x1p-24f, 0, 1 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(113, 1, 1, { 0, 0x7C, 0, 0xFC, 0, 0, 0, 0x38 })),
        (Floats { INFINITY, -INFINITY, 0, 0.5f }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(115, 1, 1, { 0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0 })),
        (Floats { 1, -2, 0, 1 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(3, 1, 1, { 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0 })),
        (Floats { 1, 2, 3, 4 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(59, 1, 1, { 0xFE, 0xFF })), (Floats { -2, -2, -2, 1 }));
    EXPECT_EQ(
        firstFloatsOf(DdsBytes::ofDxgi(20, 1, 1, { 0, 0, 0x80, 0x3F, 9, 9, 9, 9 })), (Floats { 1, 1, 1, 1 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(45, 1, 1, { 0xFF, 0xFF, 0xFF, 9 })), (Floats { 1, 1, 1, 1 }));
    EXPECT_TRUE(std::isnan(firstFloatsOf(DdsBytes::ofNumber(111, 1, 1, { 1, 0x7C }))[0]));
}

TEST_F(DdsLoad, PackedFloatsAreTakenApart)
{
    // Red 3FF, green 0, blue 200, alpha 1 of 3.
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(24, 1, 1, { 0xFF, 0x03, 0x00, 0x60 })),
        (Floats { 1, 0, 512.0f / 1023, 1.0f / 3 }));
    EXPECT_EQ(
        firstFloatsOf(DdsBytes::ofDxgi(25, 1, 1, { 0xFF, 0x03, 0x00, 0x60 })), (Floats { 1023, 0, 512, 1 }));
    // 1.0 has exponent 15 and no fraction.
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(26, 1, 1, { 0xC0, 0x03, 0x1E, 0x78 })), (Floats { 1, 1, 1, 1 }));
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(26, 1, 1, { 0x01, 0x08, 0x40, 0x00 })),
        (Floats { 0x1p-20f, 0x1p-20f, 0x1p-19f, 1 }));
    // 256 / 512 x 2^(16 - 15).
    EXPECT_EQ(
        firstFloatsOf(DdsBytes::ofDxgi(67, 1, 1, { 0x00, 0x01, 0x01, 0x80 })), (Floats { 1, 0.5f, 0, 1 }));
    // 384 is 0, 894 is 1.
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(89, 1, 1, { 0x80, 0xF9, 0x0D, 0xC0 })),
        (Floats { 0, 1, (0x00u - 384.0f) / 510.0f, 1 }));
    EXPECT_EQ(
        firstFloatsOf(DdsBytes::ofMasks(0x40, 32, { 0xFFFF, 0xFFFF0000, 0, 0 }, 1, { 0xFF, 0xFF, 0, 0 })),
        (Floats { 1, 0, 0, 1 }));
}

// --- The lists of formats --------------------------------------------------------------------------------

constexpr int mayHaveAlpha = QUtils::DDS_ALPHA_UNKNOWN, isOpaque = QUtils::DDS_ALPHA_OPAQUE;

/// What a format makes of the bytes of DdsFormats.
template <typename Pixel> struct ListedFormat {
    std::uint32_t number;
    Pixel pixel;
    int alphaMode = mayHaveAlpha;
    bool isSrgb = false;
};

// The pixels follow from what the names of the formats say.
// clang-format off
constexpr ListedFormat<unsigned int> packedDxgiFormats[] = {
    { 27, 0xA481C2C3u }, { 28, 0xA481C2C3u }, { 29, 0xA481C2C3u, mayHaveAlpha, true }, { 30, 0xA481C2C3u },
    { 31, 0x24014243u }, { 32, 0x24014243u }, { 48, 0xFF81C200u, isOpaque }, { 49, 0xFF81C200u, isOpaque },
    { 50, 0xFF81C200u, isOpaque }, { 51, 0xFF014280u, isOpaque }, { 52, 0xFF014280u, isOpaque },
    { 60, 0xFF818181u, isOpaque }, { 61, 0xFF818181u, isOpaque }, { 62, 0xFF818181u, isOpaque },
    { 63, 0xFF010101u, isOpaque }, { 64, 0xFF010101u, isOpaque }, { 65, 0x81000000u },
    { 68, 0xFF81C2C3u, isOpaque }, { 69, 0xFFC281A4u, isOpaque }, { 70, 0xFFA59A19u }, { 71, 0xFFA59A19u },
    { 72, 0xFFA59A19u, mayHaveAlpha, true }, { 73, 0x119C86D6u }, { 74, 0x119C86D6u },
    { 75, 0x119C86D6u, mayHaveAlpha, true }, { 76, 0x9B9C86D6u }, { 77, 0x9B9C86D6u },
    { 78, 0x9B9C86D6u, mayHaveAlpha, true }, { 79, 0xFF9B9B9Bu, isOpaque }, { 80, 0xFF9B9B9Bu, isOpaque },
    { 81, 0xFF1B1B1Bu, isOpaque }, { 82, 0xFF9B4E00u, isOpaque }, { 83, 0xFF9B4E00u, isOpaque },
    { 84, 0xFF1BA380u, isOpaque }, { 85, 0xFFC55108u, isOpaque }, { 86, 0xFF84A508u }, { 87, 0xA4C3C281u },
    { 88, 0xFFC3C281u, isOpaque }, { 90, 0xA4C3C281u }, { 91, 0xA4C3C281u, mayHaveAlpha, true },
    { 92, 0xFFC3C281u, isOpaque }, { 93, 0xFFC3C281u, isOpaque, true }, { 97, 0xFF3BCF26u },
    { 98, 0xFF3BCF26u }, { 99, 0xFF3BCF26u, mayHaveAlpha, true }, { 107, 0xFFBD4DFFu, isOpaque },
    { 115, 0xCC228811u }, { 191, 0x11CC2288u },
};
constexpr ListedFormat<Floats> floatDxgiFormats[] = {
    { 1, { -8.48972719e-17f, -4.07467046e+24f, 4.30910993e-38f, -3.46080583e-29f } },
    { 2, { -8.48972719e-17f, -4.07467046e+24f, 4.30910993e-38f, -3.46080583e-29f } },
    { 3, { 2.76429286e+09f, 3.89806234e+09f, 23764026.0f, 2.41903104e+09f } },
    { 4, { -1.53067456e+09f, -396904928.0f, 23764026.0f, -1.87593626e+09f } },
    { 5, { -8.48972719e-17f, -4.07467046e+24f, 4.30910993e-38f, 1 }, isOpaque },
    { 6, { -8.48972719e-17f, -4.07467046e+24f, 4.30910993e-38f, 1 }, isOpaque },
    { 7, { 2.76429286e+09f, 3.89806234e+09f, 23764026.0f, 1 }, isOpaque },
    { 8, { -1.53067456e+09f, -396904928.0f, 23764026.0f, 1 }, isOpaque },
    { 9, { 0.759792507f, 0.643610299f, 0.711268783f, 0.907591343f } },
    { 10, { -3.25195312f, -0.0186004639f, -0.380126953f, -2222 } },
    { 11, { 0.759792507f, 0.643610299f, 0.711268783f, 0.907591343f } },
    { 12, { 49793, 42179, 46613, 59479 } },
    { 13, { -0.480452895f, -0.712820828f, -0.577501774f, -0.184850618f } },
    { 14, { -15743, -23357, -18923, -6057 } }, { 15, { -8.48972719e-17f, -4.07467046e+24f, 0, 1 }, isOpaque },
    { 16, { -8.48972719e-17f, -4.07467046e+24f, 0, 1 }, isOpaque },
    { 17, { 2.76429286e+09f, 3.89806234e+09f, 0, 1 }, isOpaque },
    { 18, { -1.53067456e+09f, -396904928.0f, 0, 1 }, isOpaque },
    { 19, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 20, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 21, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 23, { 0.626588464f, 0.234604105f, 0.574780047f, 0.666666687f } },
    { 24, { 0.626588464f, 0.234604105f, 0.574780047f, 0.666666687f } }, { 25, { 641, 240, 588, 2 } },
    { 26, { 0.0317382812f, 0.000114440918f, 51, 1 }, isOpaque },
    { 33, { 0.759792507f, 0.643610299f, 0, 1 }, isOpaque },
    { 34, { -3.25195312f, -0.0186004639f, 0, 1 }, isOpaque },
    { 35, { 0.759792507f, 0.643610299f, 0, 1 }, isOpaque }, { 36, { 49793, 42179, 0, 1 }, isOpaque },
    { 37, { -0.480452895f, -0.712820828f, 0, 1 }, isOpaque }, { 38, { -15743, -23357, 0, 1 }, isOpaque },
    { 39, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 40, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 41, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 }, isOpaque },
    { 42, { 2.76429286e+09f, 2.76429286e+09f, 2.76429286e+09f, 1 }, isOpaque },
    { 43, { -1.53067456e+09f, -1.53067456e+09f, -1.53067456e+09f, 1 }, isOpaque },
    { 44, { 0.764686704f, 0.764686704f, 0.764686704f, 1 }, isOpaque },
    { 45, { 0.764686704f, 0.764686704f, 0.764686704f, 1 }, isOpaque },
    { 46, { 0.764686704f, 0.764686704f, 0.764686704f, 1 }, isOpaque },
    { 53, { 0.759792507f, 0.759792507f, 0.759792507f, 1 }, isOpaque },
    { 54, { -3.25195312f, -3.25195312f, -3.25195312f, 1 }, isOpaque },
    { 55, { 0.759792507f, 0.759792507f, 0.759792507f, 1 }, isOpaque },
    { 56, { 0.759792507f, 0.759792507f, 0.759792507f, 1 }, isOpaque },
    { 57, { 49793, 49793, 49793, 1 }, isOpaque },
    { 58, { -0.480452895f, -0.480452895f, -0.480452895f, 1 }, isOpaque },
    { 59, { -15743, -15743, -15743, 1 }, isOpaque }, { 67, { 8.0625f, 30.0625f, 19, 1 }, isOpaque },
    { 89, { 0.503921568f, -0.282352954f, 0.400000006f, 0.666666687f } },
    { 94, { 0.00107479095f, 9.83476639e-05f, 68.5f, 1 }, isOpaque },
    { 95, { 0.00107479095f, 9.83476639e-05f, 68.5f, 1 }, isOpaque },
    { 96, { 0.0375671387f, 0.00029873848f, -43, 1 }, isOpaque },
};
constexpr ListedFormat<unsigned int> packedCodeFormats[] = {
    { fourCc("DXT1"), 0xFFA59A19u }, { fourCc("DXT2"), 0x119C86D6u }, { fourCc("DXT3"), 0x119C86D6u },
    { fourCc("DXT4"), 0x9B9C86D6u }, { fourCc("DXT5"), 0x9B9C86D6u }, { fourCc("RXGB"), 0xFF9B86D6u },
    { fourCc("ATI1"), 0xFF9B9B9Bu }, { fourCc("BC4U"), 0xFF9B9B9Bu }, { fourCc("BC4S"), 0xFF1B1B1Bu },
    { fourCc("ATI2"), 0xFF9B4E00u }, { fourCc("BC5U"), 0xFF9B4E00u }, { fourCc("BC5S"), 0xFF1BA380u },
    { fourCc("BC7L"), 0xFF3BCF26u }, { fourCc("RGBG"), 0xFF81C2C3u }, { fourCc("GRGB"), 0xFFC281A4u },
    { fourCc("YUY2"), 0xFFBD4DFFu }, { fourCc("UYVY"), 0xFFFF98D1u }, { 20, 0xFFC3C281u },
    { 21, 0xA4C3C281u }, { 22, 0xFFC3C281u }, { 23, 0xFFC55108u }, { 24, 0xFF84A508u }, { 25, 0xFF84A508u },
    { 26, 0xCC228811u }, { 27, 0xFF920055u }, { 28, 0x81000000u }, { 29, 0xC2920055u }, { 30, 0xFF228811u },
    { 32, 0xA481C2C3u }, { 33, 0xFF81C2C3u }, { 50, 0xFF818181u }, { 51, 0xC2818181u }, { 52, 0x88111111u },
    { 60, 0xFF014280u }, { 63, 0x24014243u }, { 117, 0xFF014280u },
};
constexpr ListedFormat<Floats> floatCodeFormats[] = {
    { fourCc("BC6H"), { 0.00107479095f, 9.83476639e-05f, 68.5f, 1 } },
    { 31, { 0.626588464f, 0.234604105f, 0.574780047f, 0.666666687f } },
    { 34, { 0.759792507f, 0.643610299f, 0, 1 } },
    { 35, { 0.574780047f, 0.234604105f, 0.626588464f, 0.666666687f } },
    { 36, { 0.759792507f, 0.643610299f, 0.711268783f, 0.907591343f } },
    { 64, { -0.480452895f, -0.712820828f, 0, 1 } }, { 81, { 0.759792507f, 0.759792507f, 0.759792507f, 1 } },
    { 110, { -0.480452895f, -0.712820828f, -0.577501774f, -0.184850618f } },
    { 111, { -3.25195312f, -3.25195312f, -3.25195312f, 1 } }, { 112, { -3.25195312f, -0.0186004639f, 0, 1 } },
    { 113, { -3.25195312f, -0.0186004639f, -0.380126953f, -2222 } },
    { 114, { -8.48972719e-17f, -8.48972719e-17f, -8.48972719e-17f, 1 } },
    { 115, { -8.48972719e-17f, -4.07467046e+24f, 0, 1 } },
    { 116, { -8.48972719e-17f, -4.07467046e+24f, 4.30910993e-38f, -3.46080583e-29f } },
};
// clang-format on

class DdsFormats : public DdsLoad {
protected:
    template <typename Pixel>
    void expectDescription(const ListedFormat<Pixel>& format, int dxgiFormat, bool isFloat)
    {
        const QUtils::FilePtr file(std::fopen((m_dir / "image.dds").c_str(), "rb"));
        DdsDescription description {};
        EXPECT_EQ(QUtils::DDS_ReadDescription(file, description), QUtils::DDS_ERR_NONE);
        EXPECT_EQ(description.isFloat, isFloat) << format.number;
        EXPECT_EQ(description.dxgiFormat, dxgiFormat) << format.number;
        EXPECT_EQ(description.alphaMode, format.alphaMode) << format.number;
        EXPECT_EQ(description.isSrgb, format.isSrgb) << format.number;
    }

    /// The first pixel, pair or block. Its first number is negative in all sizes, if it has a sign.
    const Bytes m_bytes
        = { 0x81, 0xC2, 0xC3, 0xA4, 0x15, 0xB6, 0x57, 0xE8, 0x3A, 0x9C, 0x6A, 0x01, 0xD4, 0x7B, 0x2F, 0x90 };
};

TEST_F(DdsFormats, EveryDxgiNumberHasItsPixel)
{
    std::set<std::uint32_t> listed;
    for (const auto& format : packedDxgiFormats) {
        EXPECT_EQ(firstOf(DdsBytes::ofDxgi(format.number, 1, 1, m_bytes)), format.pixel) << format.number;
        expectDescription(format, int(format.number), false);
        listed.insert(format.number);
    }
    for (const auto& format : floatDxgiFormats) {
        EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(format.number, 1, 1, m_bytes)), format.pixel)
            << format.number;
        expectDescription(format, int(format.number), true);
        listed.insert(format.number);
    }
    EXPECT_EQ(listed.size(), 99u);
    for (std::uint32_t number = 0; number < 300; ++number)
        if (listed.count(number) == 0) {
            EXPECT_EQ(load(DdsBytes::ofDxgi(number, 1, 1, m_bytes)), IMGERR_UNSUPPORTED) << number;
        }
}

TEST_F(DdsFormats, EveryCodeHasItsPixel)
{
    std::set<std::uint32_t> listed;
    for (const auto& format : packedCodeFormats) {
        EXPECT_EQ(firstOf(DdsBytes::ofNumber(format.number, 1, 1, m_bytes)), format.pixel)
            << std::hex << format.number;
        listed.insert(format.number);
    }
    for (const auto& format : floatCodeFormats) {
        EXPECT_EQ(firstFloatsOf(DdsBytes::ofNumber(format.number, 1, 1, m_bytes)), format.pixel)
            << std::hex << format.number;
        listed.insert(format.number);
    }
    EXPECT_EQ(listed.size(), 50u);
    for (std::uint32_t number = 1; number < 300; ++number)
        if (listed.count(number) == 0) {
            EXPECT_EQ(load(DdsBytes::ofNumber(number, 1, 1, m_bytes)), IMGERR_UNSUPPORTED) << number;
        }
}

TEST_F(DdsFormats, UnitsOfEveryFormatFillOddSizes)
{
    for (const auto& format : packedDxgiFormats) {
        EXPECT_EQ(load(DdsBytes::ofDxgi(format.number, 5, 5, Bytes(400))), IMGERR_NONE) << format.number;
        EXPECT_EQ(m_sink.order.size(), 25u) << format.number;
    }
    for (const auto& format : floatDxgiFormats) {
        EXPECT_EQ(load(DdsBytes::ofDxgi(format.number, 5, 5, Bytes(400))), IMGERR_NONE) << format.number;
        EXPECT_EQ(m_sink.order.size(), 25u) << format.number;
    }
}

// --- Blocks ----------------------------------------------------------------------------------------------

TEST_F(DdsLoad, Bc1StepsAreExactThirdsAndTheFourthOfThreeIsTransparent)
{
    // Red 31 and blue 31; indices 0, 1, 2, 3 in the first row.
    EXPECT_EQ(load(DdsBytes::ofCode("DXT1", 4, 4, { 0x00, 0xF8, 0x1F, 0x00, 0xE4, 0, 0, 0 })), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0xFFFF0000u);
    EXPECT_EQ(m_sink.at(1, 0), 0xFF0000FFu);
    EXPECT_EQ(m_sink.at(2, 0), 0xFFAA0055u);
    EXPECT_EQ(m_sink.at(3, 0), 0xFF5500AAu);
    EXPECT_EQ(m_sink.at(0, 1), 0xFFFF0000u);
    EXPECT_EQ(load(DdsBytes::ofCode("DXT1", 4, 4, { 0x1F, 0x00, 0x00, 0xF8, 0xE4, 0, 0, 0 })), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(2, 0), 0xFF800080u);
    EXPECT_EQ(m_sink.at(3, 0), 0x00000000u);
}

TEST_F(DdsLoad, AlphaBlocksAlwaysHaveFourColors)
{
    Bytes block = { 0x10, 0, 0, 0, 0, 0, 0, 0xF0, 0x1F, 0x00, 0x00, 0xF8, 0xE4, 0, 0, 0 };
    for (const char* code : { "DXT2", "DXT3" }) {
        EXPECT_EQ(load(DdsBytes::ofCode(code, 4, 4, block)), IMGERR_NONE);
        EXPECT_EQ(m_sink.at(0, 0), 0x000000FFu);
        EXPECT_EQ(m_sink.at(1, 0), 0x11FF0000u);
        EXPECT_EQ(m_sink.at(2, 0), 0x005500AAu);
        EXPECT_EQ(m_sink.at(3, 3), 0xFF0000FFu) << "premultiplied colours stay as they are stored";
    }
}

TEST_F(DdsLoad, SingleChannelsHaveEightOrSixSteps)
{
    // Indices 0 to 7 in the first eight pixels.
    const Bytes indices = { 0x88, 0xC6, 0xFA, 0, 0, 0 };
    Bytes eight = { 70, 0 }, six = { 0, 50 };
    eight.insert(eight.end(), indices.begin(), indices.end());
    six.insert(six.end(), indices.begin(), indices.end());
    const unsigned eights[] = { 70, 0, 60, 50, 40, 30, 20, 10 }, sixes[] = { 0, 50, 10, 20, 30, 40, 0, 255 };
    for (const char* code : { "ATI1", "BC4U" }) {
        EXPECT_EQ(load(DdsBytes::ofCode(code, 4, 4, eight)), IMGERR_NONE);
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(m_sink.at(i % 4, i / 4), 0xFF000000u | eights[i] * 0x010101u) << i;
        EXPECT_EQ(load(DdsBytes::ofCode(code, 4, 4, six)), IMGERR_NONE);
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(m_sink.at(i % 4, i / 4), 0xFF000000u | sixes[i] * 0x010101u) << i;
    }
    Bytes two = eight;
    two.insert(two.end(), six.begin(), six.end());
    EXPECT_EQ(load(DdsBytes::ofCode("ATI2", 4, 4, two)), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(1, 0), 0xFF003200u);
    EXPECT_EQ(m_sink.at(0, 0), 0xFF460000u);
    Bytes color = eight;
    for (const int byte : { 0x00, 0xF8, 0x1F, 0x00, 0, 0, 0, 0 })
        color.push_back(std::uint8_t(byte));
    EXPECT_EQ(firstOf(DdsBytes::ofCode("DXT5", 4, 4, color)), 0x46FF0000u);
    EXPECT_EQ(firstOf(DdsBytes::ofCode("RXGB", 4, 4, color)), 0xFF460000u);
}

TEST_F(DdsLoad, SignedChannelsHaveTheirMiddleAt128)
{
    const Bytes block = { 0x80, 0x7F, 0x88, 0xC6, 0xFA, 0, 0, 0 }; // -1, 1 and four between; -1; 1.
    EXPECT_EQ(load(DdsBytes::ofCode("BC4S", 4, 4, block)), IMGERR_NONE);
    const unsigned values[] = { 1, 255, 52, 103, 153, 204, 1, 255 };
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(m_sink.at(i % 4, i / 4) & 0xFF, values[i]) << i;
    Bytes two = block;
    two.insert(two.end(), 8, 0);
    EXPECT_EQ(firstOf(DdsBytes::ofCode("BC5S", 4, 4, two)), 0xFF018080u);
}

TEST_F(DdsLoad, Bc7ReservedModeIsTransparentBlackAndBc6OnesAreOpaque)
{
    EXPECT_EQ(firstOf(DdsBytes::ofDxgi(98, 4, 4, Bytes(16))), 0u);
    Bytes block(16, 0xFF);
    block[0] = 0x13;
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(95, 4, 4, block)), (Floats { 0, 0, 0, 1 }));
}

TEST_F(DdsLoad, Bc7ModeSixInterpolatesByItsWeights)
{
    // Bits: mode 1000000, then red, green, blue, alpha from 0 to 127 twice, lowest bits 0 and 1.
    Bytes block(16, 0);
    const auto set = [&](int first, int count) {
        for (int bit = first; bit < first + count; ++bit)
            block[std::size_t(bit / 8)] |= std::uint8_t(1 << bit % 8);
    };
    set(6, 1);
    for (int channel = 0; channel < 4; ++channel)
        set(14 + 14 * channel, 7);
    set(64, 1);
    set(68, 4); // The second pixel's index is 15.
    set(75, 1); // The third one's 8.
    EXPECT_EQ(load(DdsBytes::ofDxgi(99, 4, 4, block)), IMGERR_NONE);
    EXPECT_EQ(m_sink.at(0, 0), 0x00000000u);
    EXPECT_EQ(m_sink.at(1, 0), 0xFFFFFFFFu);
    EXPECT_EQ(m_sink.at(2, 0), 0x87878787u); // (255 x 34 + 32) / 64
}

TEST_F(DdsLoad, Bc6ModeElevenHoldsTenBitsOfEachEndpoint)
{
    Bytes block(16, 0);
    block[0] = 0x03; // Mode 3.
    block[0] |= 0xE0; // Red 0 from bit 5 on: 0x1FF.
    block[1] = 0x3F;
    EXPECT_EQ(firstFloatsOf(DdsBytes::ofDxgi(95, 4, 4, block)),
        (Floats { 1.484375f, 0, 0, 1 })); // 0x1FF -> 0x7FE0 -> x 31 / 64 -> half 0x3DF0
}

// --- Sizes and surfaces ----------------------------------------------------------------------------------

TEST_F(DdsLoad, RowsOfASinkOfRowsAreThoseOfASinkOfPixels)
{
    for (const std::uint32_t width : { 1u, 3u, 4u, 7u, 9u })
        for (const std::uint32_t height : { 1u, 4u, 6u })
            for (const std::uint32_t format : { 24u, 28u, 61u, 69u, 71u, 77u, 85u, 95u, 98u }) {
                Bytes data(16 * 3 * 8 + 300);
                for (std::size_t i = 0; i < data.size(); ++i)
                    data[i] = std::uint8_t(i * 37 + width);
                const DdsBytes file = DdsBytes::ofDxgi(format, width, height, data);
                ASSERT_EQ(load(file), IMGERR_NONE);
                QUtils::Image8 image;
                QUtils::ImageF imageF;
                const std::string name = m_dir / "image.dds";
                ASSERT_EQ(codeOf(LoadDDSFile(name.c_str(), image, nullptr)), IMGERR_NONE);
                ASSERT_EQ(codeOf(LoadDDSFile(name.c_str(), imageF, nullptr)), IMGERR_NONE);
                ASSERT_EQ(m_sink.order.size(), width * height);
                for (const auto& [at, argb] : m_sink.pixels)
                    EXPECT_EQ(image.pixel(at.first, at.second), argb) << format;
                for (const auto& [at, rgba] : m_sink.pixelsF)
                    EXPECT_EQ(std::memcmp(imageF.row(at.second) + at.first * 4, rgba.data(), 16), 0)
                        << format;
            }
}

/// Keeps the first pixel and the size of a surface.
class FirstPixel : public QUtils::DdsRows {
public:
    bool begin(int newWidth, int newHeight, bool) override
    {
        width = newWidth;
        height = newHeight;
        return true;
    }
    void put(int y, const unsigned int* argb, int) override { pixel = y == 0 ? argb[0] : pixel; }
    void putF(int, const float*, int) override { }

    int width = 0, height = 0;
    unsigned int pixel = 0;
};

class DdsSurfaces : public DdsLoad {
protected:
    int read(const DdsBytes& bytes, const QUtils::DdsSurface& surface)
    {
        const QUtils::FilePtr file(std::fopen(make(bytes.bytes()).c_str(), "rb"));
        return QUtils::DDS_ReadSurface(file, surface, m_first, &m_description);
    }
    static Bytes counted(std::size_t pixels)
    {
        Bytes data;
        for (std::size_t i = 0; i < pixels; ++i)
            data.insert(data.end(), { std::uint8_t(i), 0, 0, 0 });
        return data;
    }

    FirstPixel m_first;
    DdsDescription m_description {};
};

TEST_F(DdsSurfaces, ElementsFacesAndLevelsOfACubeArrayAreReached)
{
    DdsBytes file = DdsBytes::ofDxgi(91, 4, 2, counted(2 * 6 * 11));
    file.levels = 3;
    file.misc = 4;
    file.elements = 2;
    file.misc2 = 2;
    ASSERT_EQ(read(file, { 1, 2, 1, 0 }), 0);
    EXPECT_EQ(m_first.pixel, (6u + 2) * 11 + 8);
    EXPECT_EQ(m_first.width, 2);
    EXPECT_EQ(m_first.height, 1);
    EXPECT_EQ(m_description.elements, 2);
    EXPECT_EQ(m_description.faces, 6);
    EXPECT_EQ(m_description.levels, 3);
    EXPECT_EQ(m_description.isSrgb, 1);
    EXPECT_EQ(m_description.alphaMode, QUtils::DDS_ALPHA_PREMULTIPLIED);
    EXPECT_EQ(m_description.dxgiFormat, 91);
    for (const QUtils::DdsSurface& missing : { QUtils::DdsSurface { 2, 0, 0, 0 }, { 0, 6, 0, 0 },
             { 0, 0, 3, 0 }, { 0, 0, 0, 1 }, { -1, 0, 0, 0 } })
        EXPECT_EQ(read(file, missing), QUtils::DDS_ERR_FORMAT);
}

TEST_F(DdsSurfaces, SlicesOfAVolumeHalveWithItsLevels)
{
    DdsBytes file { .height = 2, .width = 2, .depth = 4, .levels = 9, .caps2 = 0x200000 };
    file.data = counted(16 + 2 + 1);
    ASSERT_EQ(read(file, { 0, 0, 1, 1 }), 0);
    EXPECT_EQ(m_first.pixel, 17u);
    EXPECT_EQ(m_description.depth, 4);
    EXPECT_EQ(m_description.levels, 3) << "more levels than there can be";
    ASSERT_EQ(read(file, { 0, 0, 0, 3 }), 0);
    EXPECT_EQ(m_first.pixel, 12u);
    EXPECT_EQ(read(file, { 0, 0, 1, 2 }), QUtils::DDS_ERR_FORMAT);
}

TEST_F(DdsSurfaces, LegacyCubesCountTheirFacesAndSayWhatTheirCodeSays)
{
    DdsBytes file = DdsBytes::ofCode("DXT4", 1, 1, Bytes(32));
    file.caps2 = 0x200 | 0x400 | 0x8000;
    ASSERT_EQ(read(file, { 0, 1, 0, 0 }), 0);
    EXPECT_EQ(m_description.faces, 2);
    EXPECT_EQ(m_description.alphaMode, QUtils::DDS_ALPHA_PREMULTIPLIED);
    ASSERT_EQ(read(DdsBytes::ofCode("ATI1", 1, 1, Bytes(8)), {}), 0);
    EXPECT_EQ(m_description.alphaMode, QUtils::DDS_ALPHA_OPAQUE);
    EXPECT_EQ(m_description.isSrgb, 0);
}

TEST_F(DdsSurfaces, OffsetsThatNoFileReachesAreAReadError)
{
    DdsBytes file = DdsBytes::ofDxgi(2, 0x7FFFFFFF, 0x7FFFFFFF, Bytes(64));
    file.dimension = 4;
    file.depth = 0x7FFFFFFF;
    EXPECT_EQ(read(file, { 0, 0, 0, 0x7FFFFFFE }), QUtils::DDS_ERR_READ);
}

} // namespace
