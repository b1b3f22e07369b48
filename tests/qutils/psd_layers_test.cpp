#include "qutils/formats/psd/psd.h"
#include "support/psd_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace {

using namespace testing_support;
using QUtils::PSD_ERROR_FORMAT;
using QUtils::PSD_ERROR_NONE;
using QUtils::PSD_ERROR_READ;
using QUtils::PSD_ERROR_UNSUPPORTED;
using testing::HasSubstr;
using Pixel = std::array<float, 4>;
using Layer = PsdLayerBytes;

UTF32String text(const char* utf8)
{
    UTF32String result;
    result.setFromUTF8(utf8);
    return result;
}

class PsdLayers : public testing::Test {
protected:
    PSD_Error load(const Bytes& bytes, const char* layer = nullptr, const char* alphaChannel = "")
    {
        const std::string name = m_folder / "a.psd";
        writeFile(name, bytes);
        return layer ? PSD_LoadFile(name.c_str(), text(layer), text(alphaChannel), m_image)
                     : PSD_ComposeFile(name.c_str(), text(alphaChannel), m_image);
    }
    /// A canvas of 4 x 2.
    PSD_Error load(const std::vector<Layer>& layers, const char* layer = nullptr)
    {
        return load(file(layers).bytes(), layer);
    }
    static PsdBytes file(const std::vector<Layer>& layers)
    {
        PsdBytes result { .width = 4, .height = 2 };
        result.layerSection = layerSection(layers);
        result.picture = Bytes(24, 7);
        return result;
    }

    Pixel at(int x, int y)
    {
        Pixel pixel;
        m_image.getComponent(y, x, pixel.data());
        return pixel;
    }
    void expectAt(int x, int y, const Pixel& expected)
    {
        const Pixel pixel = at(x, y);
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_NEAR(pixel[c], expected[c], 1e-5f) << x << ' ' << y << ' ' << c;
    }

    TempDir m_folder;
    PSD_Image m_image;
};

const Bytes red = { 255, 0, 0, 255 }, green = { 0, 255, 0, 255 }, blue = { 0, 0, 255, 255 };
const Pixel nothing = { 0, 0, 0, 0 }, redPixel = { 1, 0, 0, 1 }, greenPixel = { 0, 1, 0, 1 },
            bluePixel = { 0, 0, 1, 1 };

Layer whole(const std::string& name, const Bytes& color)
{
    return Layer::filled(name, 0, 0, 4, 2, color);
}

// --- Names and places ------------------------------------------------------------------------------------

TEST_F(PsdLayers, LayerStandsAtItsPlaceOverTransparency)
{
    const std::vector<Layer> layers = { whole("Back", red), Layer::filled("Top", 1, 1, 3, 2, green) };
    ASSERT_EQ(load(layers, "Top"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 1), nothing);
    EXPECT_EQ(at(1, 1), greenPixel);
    EXPECT_EQ(at(2, 1), greenPixel);
    EXPECT_EQ(at(3, 1), nothing);
    EXPECT_EQ(at(1, 0), nothing);
    EXPECT_TRUE(m_image.hasAlpha());
    ASSERT_EQ(load(layers, "Back"), PSD_ERROR_NONE);
    EXPECT_EQ(at(1, 1), redPixel);
    ASSERT_EQ(load(layers), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), redPixel);
    EXPECT_EQ(at(1, 1), greenPixel);
}

TEST_F(PsdLayers, PartOutsideOfTheCanvasIsCut)
{
    Layer layer = Layer::filled("L", -2, -1, 2, 1, green);
    for (std::size_t c = 0; c < 3; ++c) // Pixels count on from 0; the canvas begins with 6 and 7.
        for (std::size_t i = 0; i < 8; ++i)
            layer.channels[c].second[2 + i] = std::uint8_t(i);
    ASSERT_EQ(load({ layer, Layer::filled("Far", 100, 100, 101, 101, red) }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0)[0], 6 / 255.0f);
    EXPECT_EQ(at(1, 0)[0], 7 / 255.0f);
    EXPECT_EQ(at(2, 0), nothing);
    EXPECT_EQ(at(0, 1), nothing);
    ASSERT_EQ(load({ Layer::filled("Far", 100, 100, 101, 101, red) }, "Far"), PSD_ERROR_NONE);
    EXPECT_EQ(at(3, 1), nothing);
}

TEST_F(PsdLayers, NamesMayHaveTheirGroupsInFront)
{
    const std::vector<Layer> layers
        = { whole("A", red), Layer::groupEnd(), Layer::groupEnd(), whole("A", green), Layer::folder("Inner"),
              Layer::folder("Outer"), Layer::groupEnd(), whole("A", blue), Layer::folder("Inner") };
    ASSERT_EQ(load(layers, "A"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), redPixel) << "a name with all its groups goes first";
    ASSERT_EQ(load(layers, "Inner/A"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), bluePixel) << "also before one that is a part of another";
    ASSERT_EQ(load(layers, "Outer/Inner/A"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
    ASSERT_EQ(load(layers, "Outer"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel) << "a group";
    for (const char* name : { "B", "a", "Outer/A", "/A", "A/", "nner/A", "</group>" })
        EXPECT_EQ(load(layers, name), PSD_ERROR_FORMAT) << name;
}

TEST_F(PsdLayers, TopmostOfSeveralIsShown)
{
    const std::vector<Layer> layers = { whole("A", red), whole("A", green) };
    ASSERT_EQ(load(layers, "A"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
    const std::vector<Layer> inGroups
        = { Layer::groupEnd(), whole("A", red), whole("A", blue), Layer::folder("G") };
    ASSERT_EQ(load(inGroups, "A"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), bluePixel);
}

TEST_F(PsdLayers, UnicodeNameGoesBeforeTheOlderOne)
{
    Layer layer = whole("old", red);
    layer.blocks = Layer::block("luni", joined({ big(2, 4), { 0x20, 0xAC, 0, '/' } }));
    EXPECT_EQ(load({ layer }, "\u20ac/"), PSD_ERROR_NONE);
    EXPECT_EQ(load({ layer }, "old"), PSD_ERROR_FORMAT);
}

TEST_F(PsdLayers, HiddenLayersShowOnlyWhenTheyAreNamed)
{
    Layer hidden = whole("H", green);
    hidden.flags = 2;
    const std::vector<Layer> layers = { whole("Back", red), hidden };
    ASSERT_EQ(load(layers), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), redPixel);
    ASSERT_EQ(load(layers, "H"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
    Layer group = Layer::folder("G");
    group.flags = 2;
    ASSERT_EQ(load({ Layer::groupEnd(), hidden, whole("V", blue), group }, "G"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), bluePixel) << "inside of a group that is named, hidden ones stay hidden";
}

TEST_F(PsdLayers, FileWithoutLayersHasNoneByName)
{
    PsdBytes picture { .width = 4, .height = 2 };
    picture.picture = Bytes(24, 51);
    EXPECT_EQ(load(picture.bytes(), "L"), PSD_ERROR_FORMAT);
    ASSERT_EQ(load(picture.bytes()), PSD_ERROR_NONE) << "composed, it is the merged picture";
    EXPECT_EQ(at(0, 0), (Pixel { 0.2f, 0.2f, 0.2f, 1 }));
}

TEST_F(PsdLayers, NamedChannelReplacesAlphaOfALayer)
{
    PsdBytes psd = file({ Layer::filled("L", 0, 0, 1, 1, green) });
    psd.channels = 4;
    psd.picture = joined({ Bytes(24, 7), Bytes(8, 51) });
    ASSERT_EQ(load(psd.bytes(), "L", "Alpha 1"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.2f });
    expectAt(3, 1, { 0, 0, 0, 0.2f });
}

// --- Opacity, masks, clipping ----------------------------------------------------------------------------

TEST_F(PsdLayers, OpacityAndFillAreOfTheLayer)
{
    Layer layer = whole("L", green);
    layer.opacity = 51;
    ASSERT_EQ(load({ whole("Back", red), layer }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.8f, 0.2f, 0, 1 });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.2f });
    layer.blocks = Layer::block("iOpa", { 51, 0, 0, 0 });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.04f });
}

TEST_F(PsdLayers, HalfTransparentLayersMix)
{
    ASSERT_EQ(load({ whole("A", { 255, 0, 0, 51 }), whole("B", { 0, 255, 0, 51 }) }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.16f / 0.36f, 0.2f / 0.36f, 0, 0.36f });
}

TEST_F(PsdLayers, MaskHidesInsideAndOutsideOfItsRectangle)
{
    ASSERT_EQ(load({ whole("L", green).masked(1, 0, 3, 1, 51, 0) }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), nothing);
    expectAt(1, 0, { 0, 1, 0, 0.2f });
    EXPECT_EQ(at(1, 1)[3], 0);
    ASSERT_EQ(load({ whole("L", green).masked(1, 0, 3, 1, 51, 255) }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0)[3], 1);
    expectAt(2, 0, { 0, 1, 0, 0.2f });
    EXPECT_EQ(at(2, 1)[3], 1);
    ASSERT_EQ(load({ whole("L", green).masked(-2, -5, 9, 9, 51, 255) }, "L"), PSD_ERROR_NONE);
    expectAt(3, 1, { 0, 1, 0, 0.2f });
}

TEST_F(PsdLayers, DisabledMaskHidesNothing)
{
    ASSERT_EQ(load({ whole("L", green).masked(0, 0, 4, 2, 0, 0, 2) }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
}

TEST_F(PsdLayers, DensityWeakensAMask)
{
    Layer layer = whole("L", green).masked(0, 0, 4, 2, 0, 0, 16);
    layer.mask.resize(18);
    layer.mask.insert(layer.mask.end(), { 1, 51 });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.8f });
    layer.mask.resize(18); // With the rectangle of a mask of the layer's own in between.
    layer.mask.resize(36);
    layer.mask.insert(layer.mask.end(), { 1, 51 });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.8f });
    EXPECT_TRUE(m_image.warnings().empty());
}

TEST_F(PsdLayers, FeatherIsWarnedOf)
{
    Layer layer = whole("L", green).masked(0, 0, 4, 2, 0, 0, 16);
    layer.mask.resize(18);
    layer.mask = joined({ layer.mask, { 2 }, big(0x3FF0000000000000, 8) });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    ASSERT_EQ(m_image.warnings().count(), 1);
    EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr("feathered"));
}

TEST_F(PsdLayers, VectorMasksOfLittleDensityOrFeatheredAreWarnedOf)
{
    const Bytes none = big(0, 8), one = big(0x3FF0000000000000, 8);
    const struct {
        Bytes parameters;
        const char* words;
    } masks[] = { { { 4, 255 }, nullptr }, { { 4, 254 }, "density" }, { joined({ { 8 }, none }), nullptr },
        { joined({ { 8 }, one }), "feathered" }, { joined({ { 15, 255 }, none, { 0 }, none }), "density" },
        { joined({ { 15, 255 }, none, { 255 }, one }), "feathered" } };
    for (const auto& mask : masks)
        for (const int flags : { 16, 16 | 2 }) {
            Layer layer = whole("L", green).masked(0, 0, 4, 2, 255, 0, flags);
            layer.maskedAlone(0, 0, 4, 2, 255, 0, flags & 2);
            layer.mask = joined({ layer.mask, mask.parameters });
            ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
            const bool isWarnedOf = mask.words && flags == 16;
            ASSERT_EQ(m_image.warnings().count(), isWarnedOf ? 1 : 0);
            if (isWarnedOf) {
                EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr(mask.words));
            }
        }
}

TEST_F(PsdLayers, OwnMaskCountsAloneWhenTheVectorMaskIsSwitchedOff)
{
    Layer layer = whole("L", green).masked(0, 0, 1, 1, 255, 255, 2);
    layer.maskedAlone(1, 0, 3, 1, 51, 0);
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), nothing);
    expectAt(1, 0, { 0, 1, 0, 0.2f });
    EXPECT_EQ(at(1, 1), nothing);
    EXPECT_TRUE(m_image.warnings().empty());

    Layer both = whole("L", green).masked(0, 0, 4, 2, 102, 0);
    both.maskedAlone(0, 0, 4, 2, 51, 0);
    ASSERT_EQ(load({ both }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.4f });
    EXPECT_TRUE(m_image.warnings().empty()) << "the first one is made of both";

    Layer neither = whole("L", green).masked(0, 0, 4, 2, 102, 0, 2);
    neither.maskedAlone(0, 0, 4, 2, 51, 0, 2);
    ASSERT_EQ(load({ neither }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
    EXPECT_TRUE(m_image.warnings().empty());
}

TEST_F(PsdLayers, OwnMaskThatIsSwitchedOffBesideAVectorMaskIsWarnedOf)
{
    Layer layer = whole("L", green).masked(0, 0, 4, 2, 102, 0);
    layer.maskedAlone(0, 0, 4, 2, 51, 0, 2);
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.4f });
    ASSERT_EQ(m_image.warnings().count(), 1);
    EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr("switched off"));
}

TEST_F(PsdLayers, VectorMaskIsOnlyThereInPixelsWithTheRecordOfAMask)
{
    Layer layer = whole("L", green).masked(0, 0, 4, 2, 51, 0);
    layer.blocks = Layer::block("vmsk", {});
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 0.2f });
    EXPECT_TRUE(m_image.warnings().empty());
    layer.mask.clear();
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), greenPixel);
    ASSERT_EQ(m_image.warnings().count(), 1);
    EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr("vector mask"));
}

Layer clipped(Layer layer)
{
    layer.clipping = 1;
    return layer;
}

TEST_F(PsdLayers, ClippedLayersShowWhereTheirBaseIs)
{
    Layer base = Layer::filled("Base", 1, 0, 3, 2, { 255, 0, 0, 51 });
    const Layer top = clipped(Layer::filled("Top", 2, 0, 4, 2, green));
    for (const char* name : { static_cast<const char*>(nullptr), "Base" }) {
        ASSERT_EQ(load({ base, top }, name), PSD_ERROR_NONE);
        EXPECT_EQ(at(0, 0), nothing);
        expectAt(1, 0, { 1, 0, 0, 0.2f });
        expectAt(2, 0, { 0, 1, 0, 0.2f });
        EXPECT_EQ(at(3, 0), nothing);
    }
    ASSERT_EQ(load({ base, top }, "Top"), PSD_ERROR_NONE);
    EXPECT_EQ(at(3, 0), greenPixel) << "alone, it is not clipped";
    base.flags = 2;
    ASSERT_EQ(load({ base, top }), PSD_ERROR_NONE);
    EXPECT_EQ(at(2, 0), nothing) << "a hidden base hides what is clipped to it";
}

TEST_F(PsdLayers, WhatIsClippedToAHiddenBaseIsNotEvenRead)
{
    Layer base = whole("Base", red), damaged = clipped(whole("Top", green));
    base.flags = 2;
    damaged.channels[1].second.resize(5);
    damaged.blocks = Layer::block("lfx2", {});
    ASSERT_EQ(load({ whole("Back", blue), base, damaged }), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), bluePixel);
    EXPECT_TRUE(m_image.warnings().empty());
    EXPECT_EQ(load({ base, damaged }, "Base"), PSD_ERROR_READ) << "shown by its name, it has what is clipped";
    base.flags = 0;
    EXPECT_EQ(load({ whole("Back", blue), base, damaged }), PSD_ERROR_READ);
}

TEST_F(PsdLayers, ClippedLayersThatShowNothingLeaveTheirBaseAlone)
{
    Layer hidden = clipped(whole("Hidden", green));
    hidden.flags = 2;
    const Layer far = clipped(Layer::filled("Far", 3, 0, 4, 2, green)), empty = clipped(Layer());
    const Layer base = Layer::filled("Base", 0, 0, 2, 2, red);
    for (const char* name : { static_cast<const char*>(nullptr), "Base" }) {
        ASSERT_EQ(load({ base, hidden, far, empty }, name), PSD_ERROR_NONE);
        EXPECT_EQ(at(1, 1), redPixel);
        EXPECT_EQ(at(2, 1), nothing);
        EXPECT_EQ(at(3, 1), nothing);
    }
}

TEST_F(PsdLayers, OpacityOfTheBaseIsThatOfTheWholeStack)
{
    Layer base = whole("Base", red);
    base.opacity = 51;
    ASSERT_EQ(load({ whole("Back", blue), base, clipped(whole("Top", green)) }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 0.2f, 0.8f, 1 });
}

TEST_F(PsdLayers, ClippedLayersBlendWithTheirBaseFirst)
{
    Layer top = clipped(whole("Top", { 255, 255, 0, 255 }));
    top.blend = "mul ";
    Layer base = whole("Base", { 102, 255, 255, 255 });
    const Layer back = whole("Back", { 0, 0, 255, 255 });
    ASSERT_EQ(load({ back, base, top }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.4f, 1, 0, 1 });
    base.blend = "scrn";
    ASSERT_EQ(load({ back, base, top }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.4f, 1, 1, 1 });
    base.blocks = Layer::block("clbl", { 0, 0, 0, 0 });
    ASSERT_EQ(load({ back, base, top }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.4f, 1, 0, 1 });
}

TEST_F(PsdLayers, ClippedLayersAreCutAlsoOneByOne)
{
    Layer base = Layer::filled("Base", 0, 0, 2, 2, { 255, 0, 0, 51 });
    base.blocks = Layer::block("clbl", { 0, 0, 0, 0 });
    ASSERT_EQ(load({ whole("Back", blue), base, clipped(whole("Top", green)) }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.16f, 0.2f, 0.64f, 1 });
    EXPECT_EQ(at(2, 0), bluePixel);
}

// --- Groups ----------------------------------------------------------------------------------------------

TEST_F(PsdLayers, GroupThatIsPassedThroughBlendsWithWhatIsBelow)
{
    Layer inner = whole("Inner", { 255, 255, 0, 255 });
    inner.blend = "mul ";
    const Layer back = whole("Back", { 0, 255, 255, 255 });
    ASSERT_EQ(load({ back, Layer::groupEnd(), inner, Layer::folder("G", "pass") }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0, 1 });
    ASSERT_EQ(load({ back, Layer::groupEnd(), inner, Layer::folder("G", "norm") }), PSD_ERROR_NONE);
    expectAt(0, 0, { 1, 1, 0, 1 });
    Layer folder = Layer::folder("G", "pass");
    folder.opacity = 51;
    ASSERT_EQ(load({ back, Layer::groupEnd(), inner, folder }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0.8f, 1 });
    folder.opacity = 255;
    folder.masked(0, 0, 1, 2, 51, 255);
    ASSERT_EQ(load({ back, Layer::groupEnd(), inner, folder }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0, 1, 0.8f, 1 });
    expectAt(1, 0, { 0, 1, 0, 1 });
}

TEST_F(PsdLayers, GroupHasOpacityBlendModeAndMaskOfItsOwn)
{
    Layer folder = Layer::folder("G", "mul ");
    folder.opacity = 51;
    folder.masked(0, 0, 2, 2, 255, 0);
    const std::vector<Layer> layers
        = { whole("Back", { 255, 255, 255, 255 }), Layer::groupEnd(), whole("A", red), folder };
    ASSERT_EQ(load(layers), PSD_ERROR_NONE);
    expectAt(0, 0, { 1, 0.8f, 0.8f, 1 });
    expectAt(2, 0, { 1, 1, 1, 1 });
    ASSERT_EQ(load(layers, "G"), PSD_ERROR_NONE);
    expectAt(0, 0, { 1, 0, 0, 0.2f });
    ASSERT_EQ(load(layers, "G/A"), PSD_ERROR_NONE);
    expectAt(0, 0, { 1, 0, 0, 1 });
}

TEST_F(PsdLayers, LayersAreClippedToGroups)
{
    const std::vector<Layer> layers = { Layer::groupEnd(), Layer::filled("A", 0, 0, 2, 2, red),
        Layer::folder("G"), clipped(whole("Top", green)) };
    for (const char* name : { static_cast<const char*>(nullptr), "G" }) {
        ASSERT_EQ(load(layers, name), PSD_ERROR_NONE);
        EXPECT_EQ(at(0, 0), greenPixel);
        EXPECT_EQ(at(2, 0), nothing);
    }
}

TEST_F(PsdLayers, GroupsWithoutBeginningOrEndKeepTheirLayers)
{
    ASSERT_EQ(load({ Layer::groupEnd(), whole("A", red) }), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), redPixel);
    ASSERT_EQ(load({ whole("A", red), Layer::folder("G") }), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), redPixel);
}

TEST_F(PsdLayers, GroupsMayNotBeNestedWithoutEnd)
{
    for (const std::size_t depth : { 32u, 33u }) {
        std::vector<Layer> layers(depth, Layer::groupEnd());
        layers.push_back(whole("A", red));
        layers.insert(layers.end(), depth, Layer::folder("G", "norm"));
        EXPECT_EQ(load(layers), depth == 32 ? PSD_ERROR_NONE : PSD_ERROR_UNSUPPORTED);
        EXPECT_EQ(at(0, 0), depth == 32 ? redPixel : nothing);
    }
}

// --- Blend modes -----------------------------------------------------------------------------------------

/// b below, s above, and what becomes of them: by the formulas of PDF 32000, section 11.3.5, and for those
/// that it has not by their usual definition.
TEST_F(PsdLayers, BlendModesMixColours)
{
    const float b = 102 / 255.0f, s = 204 / 255.0f; // 0.4 and 0.8
    const struct {
        const char* key;
        float both, exchanged;
    } modes[] = { { "norm", s, b }, { "dark", b, b }, { "lite", s, s }, { "mul ", 0.32f, 0.32f },
        { "scrn", 0.88f, 0.88f }, { "idiv", 0.25f, 0.5f }, { "div ", 1, 1 }, { "lbrn", 0.2f, 0.2f },
        { "lddg", 1, 1 }, { "over", 0.64f, 0.76f }, { "hLit", 0.76f, 0.64f },
        { "sLit", std::sqrt(0.4f) * 0.6f + 2 * 0.4f * 0.2f, 2 * 0.8f * 0.4f + 0.64f * 0.2f },
        { "vLit", 1, 0.75f }, { "lLit", 1, 0.6f }, { "pLit", 0.6f, 0.8f }, { "hMix", 1, 1 },
        { "diff", 0.4f, 0.4f }, { "smud", 0.56f, 0.56f }, { "fsub", 0, 0.4f }, { "fdiv", 0.5f, 1 },
        { "hue ", b, s }, { "sat ", b, s }, { "colr", b, s }, { "lum ", s, b }, { "dkCl", b, b },
        { "lgCl", s, s }, { "????", s, b } };
    for (const auto& mode : modes)
        for (const bool isExchanged : { false, true }) {
            const std::uint8_t below = isExchanged ? 204 : 102, above = isExchanged ? 102 : 204;
            Layer top = whole("Top", { above, above, above, 255 });
            top.blend = mode.key;
            ASSERT_EQ(load({ whole("Back", { below, below, below, 255 }), top }), PSD_ERROR_NONE);
            const float expected = isExchanged ? mode.exchanged : mode.both;
            EXPECT_NEAR(at(0, 0)[0], expected, 1e-5f) << mode.key << isExchanged;
            EXPECT_EQ(at(0, 0)[3], 1);
            EXPECT_EQ(m_image.warnings().count(), mode.key[0] == '?');
        }
}

TEST_F(PsdLayers, BlendModesStayInRangeAtTheEnds)
{
    for (const char* key :
        { "idiv", "div ", "vLit", "fdiv", "hMix", "lLit", "sLit", "hue ", "sat ", "colr", "lum " })
        for (const std::uint8_t below : Bytes { 0, 128, 255 })
            for (const std::uint8_t above : Bytes { 0, 128, 255 }) {
                Layer top = whole("Top", { above, 0, 255, 255 });
                top.blend = key;
                ASSERT_EQ(load({ whole("Back", { below, 255, 0, 255 }), top }), PSD_ERROR_NONE);
                for (const float value : at(0, 0)) {
                    EXPECT_GE(value, -1e-5f) << key;
                    EXPECT_LE(value, 1 + 1e-5f) << key;
                }
            }
}

TEST_F(PsdLayers, ColourModesTakeHueSaturationOrLuminosity)
{
    const auto luminosity = [](const Pixel& p) { return 0.3f * p[0] + 0.59f * p[1] + 0.11f * p[2]; };
    const auto compose = [&](const char* key) {
        Layer top = whole("Top", { 51, 102, 204, 255 });
        top.blend = key;
        EXPECT_EQ(load({ whole("Back", { 153, 102, 51, 255 }), top }), PSD_ERROR_NONE);
        return at(0, 0);
    };
    const float below = 0.3f * 0.6f + 0.59f * 0.4f + 0.11f * 0.2f,
                above = 0.3f * 0.2f + 0.59f * 0.4f + 0.11f * 0.8f;
    for (const char* key : { "hue ", "sat ", "colr" })
        EXPECT_NEAR(luminosity(compose(key)), below, 1e-5f) << key;
    EXPECT_NEAR(luminosity(compose("lum ")), above, 1e-5f);
    const Pixel hue = compose("hue ");
    EXPECT_NEAR(hue[2] - hue[0], 0.4f, 1e-5f) << "the hue of the layer, as saturated as what is below";
    const Pixel saturated = compose("sat ");
    EXPECT_NEAR(saturated[0] - saturated[2], 0.6f, 1e-5f);
    expectAt(0, 0, { saturated[0], saturated[1], saturated[2], 1 });
    compose("dkCl");
    expectAt(0, 0, above < below ? Pixel { 0.2f, 0.4f, 0.8f, 1 } : Pixel { 0.6f, 0.4f, 0.2f, 1 });
}

TEST_F(PsdLayers, EightModesAreWeakenedByTheFill)
{
    const struct {
        const char* key;
        float expected; // Of 0.8 upon 0.4 with half a fill.
    } modes[] = { { "idiv", 1 - 0.6f / 0.9f }, { "lbrn", 0.3f }, { "div ", 0.4f / 0.6f }, { "lddg", 0.8f },
        { "vLit", 0.4f / 0.7f }, { "lLit", 0.7f }, { "hMix", 0.6f }, { "diff", 0 }, { "norm", 0.6f } };
    for (const auto& mode : modes) {
        Layer top = whole("Top", { 204, 204, 204, 255 });
        top.blend = mode.key;
        top.blocks = Layer::block("iOpa", { 128, 0, 0, 0 });
        ASSERT_EQ(load({ whole("Back", { 102, 102, 102, 255 }), top }), PSD_ERROR_NONE);
        EXPECT_NEAR(at(0, 0)[0], mode.expected, 5e-3f) << mode.key;
        ASSERT_EQ(load({ top }, "Top"), PSD_ERROR_NONE);
        EXPECT_NEAR(at(0, 0)[0], 0.8f, 1e-5f) << mode.key;
        EXPECT_NEAR(at(0, 0)[3], 128 / 255.0f, 1e-5f) << mode.key;
    }
}

TEST_F(PsdLayers, DissolveStrewsWholePixels)
{
    PsdBytes psd { .width = 100, .height = 100 };
    psd.picture = psd.blank();
    Layer layer = Layer::filled("L", 0, 0, 100, 100, green);
    layer.blend = "diss";
    layer.opacity = 51;
    psd.layerSection = layerSection({ layer });
    ASSERT_EQ(load(psd.bytes(), "L"), PSD_ERROR_NONE);
    int shown = 0;
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 100; ++x) {
            const Pixel pixel = at(x, y);
            EXPECT_TRUE(pixel == greenPixel || pixel == nothing);
            shown += pixel == greenPixel;
        }
    EXPECT_NEAR(shown, 2000, 200);
}

// --- Other documents -------------------------------------------------------------------------------------

TEST_F(PsdLayers, GreyDocumentsAreComposedInGrey)
{
    for (const char* key : { "mul ", "colr", "hue ", "sat ", "lum ", "dkCl", "lgCl" }) {
        PsdBytes psd { .channels = 1, .width = 4, .height = 2, .mode = 1 };
        psd.picture = psd.blank();
        Layer top = whole("Top", { 204, 255 });
        top.blend = key;
        psd.layerSection = layerSection({ whole("Back", { 102, 255 }), top });
        ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
        const std::string mode = key;
        const float expected = mode == "mul " ? 0.32f : mode == "lum " || mode == "lgCl" ? 0.8f : 0.4f;
        expectAt(0, 0, { expected, expected, expected, 1 });
    }
}

TEST_F(PsdLayers, InksAreComposedAsInks)
{
    PsdBytes psd { .channels = 4, .width = 4, .height = 2, .mode = 4 };
    psd.picture = psd.blank();
    Layer top = whole("Top", { 255, 0, 255, 255, 51 });
    psd.layerSection = layerSection({ whole("Back", { 0, 255, 255, 255, 255 }), top });
    ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.2f, 0.8f, 1, 1 });
}

/// 0.8, 0.6, 0.4 of luminosity 0.638 and saturation 0.4 below 0.2, 0.4, 1 of 0.406 and 0.8, as light: mixed
/// by the formulas of PDF 32000, section 11.3.5, and taken as much of as the black ink leaves.
TEST_F(PsdLayers, BlackInkStaysWithWhatGivesTheBrightness)
{
    const float outOfRange = (1 - 0.638f) / (1.232f - 0.638f); // By which a blue of 1.232 comes down to 1.
    const struct {
        const char* key;
        float red, green, blue, black;
    } modes[] = { { "lum ", 0.568f, 0.368f, 0.168f, 0.6f }, { "hue ", 0.535f, 0.635f, 0.935f, 0.8f },
        { "sat ", 0.962f, 0.562f, 0.162f, 0.8f },
        { "colr", 0.638f - 0.206f * outOfRange, 0.638f - 0.006f * outOfRange, 1, 0.8f } };
    for (const auto& mode : modes) {
        PsdBytes psd { .channels = 4, .width = 4, .height = 2, .mode = 4 };
        psd.picture = psd.blank();
        Layer top = whole("Top", { 51, 102, 255, 153, 255 });
        top.blend = mode.key;
        psd.layerSection = layerSection({ whole("Back", { 204, 153, 102, 204, 255 }), top });
        ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
        SCOPED_TRACE(mode.key);
        expectAt(3, 1, { mode.red * mode.black, mode.green * mode.black, mode.blue * mode.black, 1 });
    }
}

TEST_F(PsdLayers, LayersOf16BitsStandBehindTheOthers)
{
    for (const int version : { 1, 2 })
        for (const char* key : { "Lr16", "Lr32", "Layr" }) {
            const bool isLarge = version == 2;
            const int lengthBytes = isLarge ? 8 : 4, depth = key[2] == '3' ? 32 : 16;
            Layer layer;
            layer.bottom = layer.right = 1;
            const Bytes half = depth == 32 ? Bytes { 0x3F, 0, 0, 0 } : Bytes { 0x80, 0 };
            for (int c = -1; c < 3; ++c)
                layer.channels.push_back({ c, joined({ { 0, 0 }, half }) });
            const Bytes list = layerList({ layer }, isLarge);
            PsdBytes psd { .version = version, .depth = depth };
            psd.picture = psd.blank();
            psd.layerSection = joined({ big(0, lengthBytes), big(0, 4), textBytes("8BIM"), textBytes(key),
                big(list.size(), lengthBytes), list });
            ASSERT_EQ(load(psd.bytes(), "Layer"), PSD_ERROR_NONE) << key << version;
            EXPECT_NEAR(at(0, 0)[0], 0.5f, 1e-5f);
            EXPECT_NEAR(at(0, 0)[3], 0.5f, 1e-5f);
        }
}

TEST_F(PsdLayers, PackedLayersAreUnpacked)
{
    Layer layer = whole("L", green);
    layer.channels[0].second = joined({ big(1, 2), big(2, 2), big(2, 2), { 0xFD, 51, 0xFD, 102 } });
    layer.channels[1].second = joined({ big(2, 2), deflated({ 1, 2, 3, 4, 5, 6, 7, 8 }) });
    layer.channels[2].second = joined({ big(3, 2), deflated({ 1, 1, 1, 1, 5, 1, 1, 1 }) });
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    expectAt(3, 1, { 0.4f, 8 / 255.0f, 8 / 255.0f, 1 });
}

TEST_F(PsdLayers, LayerWithoutTransparencyIsOpaque)
{
    Layer layer = whole("L", green);
    layer.channels.pop_back();
    ASSERT_EQ(load({ layer }, "L"), PSD_ERROR_NONE);
    EXPECT_EQ(at(3, 1), greenPixel);
}

TEST_F(PsdLayers, ColoursThatCannotBeMixedAreUnsupported)
{
    for (const int mode : { 0, 2, 7 }) {
        PsdBytes psd { .channels = 1, .width = 4, .height = 2, .depth = mode == 0 ? 1 : 8, .mode = mode };
        psd.layerSection = layerSection({ whole("L", { 1, 255 }) });
        EXPECT_EQ(load(psd.bytes(), "L"), PSD_ERROR_UNSUPPORTED);
    }
}

// --- Fills and styles ------------------------------------------------------------------------------------

/// A key of four characters, a type and a value.
Bytes item(const std::string& key, const std::string& type, const Bytes& value)
{
    return joined({ big(0, 4), textBytes(key), textBytes(type), value });
}

Bytes number(const std::string& key, std::uint64_t doubleBits)
{
    return item(key, "doub", big(doubleBits, 8));
}

Bytes object(std::uint32_t count, const Bytes& items)
{
    return joined({ big(0, 4), big(0, 4), textBytes("null"), big(count, 4), items });
}

const std::uint64_t hundredAndTwo = 0x4059800000000000, twentyFive = 0x4039000000000000;

Bytes solidColor(const Bytes& color, std::uint32_t count)
{
    return Layer::block(
        "SoCo", joined({ big(16, 4), object(1, item("Clr ", "Objc", object(count, color))) }));
}

TEST_F(PsdLayers, SolidFillCoversTheCanvas)
{
    Layer fill;
    fill.blocks = solidColor(
        joined({ number("Rd  ", hundredAndTwo), number("Grn ", 0), number("Bl  ", hundredAndTwo) }), 3);
    ASSERT_EQ(load({ fill }, "Layer"), PSD_ERROR_NONE);
    expectAt(3, 1, { 0.4f, 0, 0.4f, 1 });
    EXPECT_TRUE(m_image.warnings().empty());
    fill.masked(0, 0, 2, 2, 51, 0);
    ASSERT_EQ(load({ Layer::groupEnd(), fill, Layer::folder("G") }, "G"), PSD_ERROR_NONE);
    expectAt(1, 1, { 0.4f, 0, 0.4f, 0.2f });
    EXPECT_EQ(at(2, 1), nothing);
}

TEST_F(PsdLayers, SolidFillOfAShapeThatIsNotThereIsNotShown)
{
    Layer fill;
    fill.blocks = joined({ solidColor(joined({ number("Rd  ", 0), number("Grn ", 0), number("Bl  ", 0) }), 3),
        Layer::block("vmsk", {}) });
    ASSERT_EQ(load({ fill }), PSD_ERROR_NONE);
    EXPECT_EQ(at(0, 0), nothing);
    EXPECT_EQ(m_image.warnings().count(), 2);
}

TEST_F(PsdLayers, SolidFillsOfInkAndGreyAreInHundredths)
{
    const struct {
        int channels, mode;
        Bytes color;
        std::uint32_t count;
        Pixel expected;
    } documents[] = { { 1, 1, number("Gry ", twentyFive), 1, { 0.75f, 0.75f, 0.75f, 1 } },
        { 4, 4,
            joined({ number("Cyn ", twentyFive), number("Mgnt", 0), number("Ylw ", 0), number("Blck", 0) }),
            4, { 0.75f, 1, 1, 1 } } };
    for (const auto& document : documents) {
        Layer fill;
        fill.blocks = solidColor(document.color, document.count);
        PsdBytes psd { .channels = document.channels, .width = 4, .height = 2, .mode = document.mode };
        psd.picture = Bytes(32, 0);
        psd.layerSection = layerSection({ fill });
        ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
        expectAt(0, 0, document.expected);
        psd.channels = 3, psd.mode = document.mode == 1 ? 3 : 9; // Colours of another kind are not converted.
        ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
        EXPECT_EQ(at(0, 0)[3], 0);
        EXPECT_EQ(m_image.warnings().count(), 1);
    }
}

TEST_F(PsdLayers, DescriptorsOfAllKindsArePassedOver)
{
    const Bytes all = joined({ item("a   ", "long", big(1, 4)), item("b   ", "comp", big(1, 8)),
        item("c   ", "UntF", joined({ textBytes("#Pxl"), big(0, 8) })), item("d   ", "bool", { 1 }),
        item("e   ", "TEXT", joined({ big(1, 4), { 0, 'x' } })),
        item("f   ", "enum", joined({ big(0, 4), textBytes("Type"), big(5, 4), textBytes("value") })),
        item("g   ", "VlLs", joined({ big(1, 4), textBytes("long"), big(7, 4) })),
        item("h   ", "tdta", joined({ big(2, 4), { 1, 2 } })),
        item("i   ", "type", joined({ big(0, 4), big(0, 4), textBytes("Clss") })),
        number("Rd  ", hundredAndTwo), number("Grn ", 0), number("Bl  ", 0) });
    Layer fill;
    fill.blocks = solidColor(all, 12);
    ASSERT_EQ(load({ fill }), PSD_ERROR_NONE);
    expectAt(0, 0, { 0.4f, 0, 0, 1 });
    for (std::size_t cut = 1; cut < all.size(); ++cut) {
        fill.blocks = solidColor(Bytes(all.begin(), all.end() - std::ptrdiff_t(cut)), 12);
        ASSERT_EQ(load({ fill }), PSD_ERROR_NONE);
        EXPECT_EQ(at(0, 0), nothing) << cut;
    }
    Bytes deep = number("Rd  ", 0);
    for (int i = 0; i < 1000; ++i)
        deep = item("Clr ", "Objc", object(1, deep));
    fill.blocks = solidColor(deep, 1);
    EXPECT_EQ(load({ fill }), PSD_ERROR_NONE);
}

TEST_F(PsdLayers, StylesThatAreSwitchedOffNeedNoWarning)
{
    const auto styles = [](const Bytes& isOn, const Bytes& isEnabled) {
        const Bytes master = joined({ big(14, 4), textBytes("masterFXSwitchbool"), isOn });
        const Bytes shadow = item("DrSh", "Objc", object(1, item("enab", "bool", isEnabled)));
        return Layer::block("lfx2", joined({ big(0, 4), big(16, 4), object(2, joined({ master, shadow })) }));
    };
    for (const std::uint8_t isOn : Bytes { 0, 1 })
        for (const std::uint8_t isEnabled : Bytes { 0, 1 }) {
            Layer layer;
            layer.blocks = styles({ isOn }, { isEnabled });
            ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
            EXPECT_EQ(m_image.warnings().count(), isOn && isEnabled ? 1 : 0);
            layer.blocks
                = joined({ Layer::block("lrFX", {}), layer.blocks }); // The older description does not count.
            ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
            EXPECT_EQ(m_image.warnings().count(), isOn && isEnabled ? 1 : 0);
        }
}

// --- Damage and warnings ---------------------------------------------------------------------------------

TEST_F(PsdLayers, DamagedLayersAreAnErrorOnlyWhereTheyAreNeeded)
{
    Layer damaged = whole("D", green);
    damaged.channels[1].second.resize(5);
    Layer other = whole("O", red);
    EXPECT_EQ(load({ damaged, other }, "D"), PSD_ERROR_READ);
    EXPECT_EQ(load({ damaged, other }, "O"), PSD_ERROR_NONE);
    EXPECT_EQ(load({ damaged, other }), PSD_ERROR_READ);
    damaged.flags = 2;
    EXPECT_EQ(load({ damaged, other }), PSD_ERROR_NONE);
    damaged.channels[1].second = { 0, 9 };
    EXPECT_EQ(load({ damaged }, "D"), PSD_ERROR_FORMAT);
    damaged.channels[1].second = {};
    EXPECT_EQ(load({ damaged }, "D"), PSD_ERROR_READ);
}

TEST_F(PsdLayers, CanvasIsComposedOnlyWhereTheFileCouldFillIt)
{
    for (const int compression : { 0, 1, 2, 3 }) {
        PsdBytes psd { .version = 2, .width = 300000, .height = 300000, .compression = compression };
        psd.layerSection = layerSection({ Layer::filled("L", 0, 0, 1, 1, green) }, true);
        EXPECT_EQ(load(psd.bytes(), "L"), PSD_ERROR_READ) << compression;
        EXPECT_EQ(load(psd.bytes()), PSD_ERROR_READ) << compression;
    }
    PsdBytes psd = file({ whole("L", green) });
    psd.channels = 4;
    EXPECT_EQ(load(psd.bytes(), "L"), PSD_ERROR_NONE) << "an extra channel may be missing";
    psd.picture.pop_back();
    EXPECT_EQ(load(psd.bytes(), "L"), PSD_ERROR_READ);
    psd.compression = 9;
    EXPECT_EQ(load(psd.bytes(), "L"), PSD_ERROR_FORMAT);
}

/// A grey canvas of a million pixels in a file of about a thousand bytes.
PsdBytes wideCanvas(const std::vector<Layer>& layers)
{
    PsdBytes psd { .channels = 1, .width = 1000, .height = 1000, .mode = 1, .compression = 2 };
    psd.layerSection = layerSection(layers);
    psd.picture = deflated(psd.blank());
    return psd;
}

Layer greyFill(const std::string& name)
{
    Layer fill;
    fill.name = name;
    const Bytes grey = joined({ big(0, 4), textBytes("Gry doub"), big(0, 8) });
    fill.blocks = Layer::block(
        "SoCo", joined({ big(16, 4), big(0, 4), big(0, 4), textBytes("null"), big(1, 4), grey }));
    return fill;
}

TEST_F(PsdLayers, FillsCoverTheCanvasNoMoreOftenThanTheFileCould)
{
    std::vector<Layer> fills(20, greyFill("Fill"));
    EXPECT_EQ(load(wideCanvas(fills).bytes()), PSD_ERROR_UNSUPPORTED);
    EXPECT_EQ(load(wideCanvas(fills).bytes(), "Fill"), PSD_ERROR_NONE) << "one of them alone";
    PsdBytes large = wideCanvas(fills);
    large.compression = 0;
    large.picture = large.blank();
    EXPECT_EQ(load(large.bytes()), PSD_ERROR_NONE) << "as many of a file that is as large as its canvas";
    for (Layer& fill : fills)
        fill.masked(0, 0, 2, 2, 255, 0);
    ASSERT_EQ(load(wideCanvas(fills).bytes()), PSD_ERROR_NONE) << "they show in four pixels";
    EXPECT_EQ(at(1, 1), (Pixel { 1, 1, 1, 1 }));
    EXPECT_EQ(at(2, 2), nothing);
    for (Layer& fill : fills)
        fill = clipped(greyFill("Fill"));
    fills.insert(fills.begin(), Layer::filled("Base", 0, 0, 2, 2, { 0, 255 }));
    EXPECT_EQ(load(wideCanvas(fills).bytes()), PSD_ERROR_NONE) << "the same, by clipping";
}

TEST_F(PsdLayers, GroupsCoverTheCanvasNoMoreOftenThanTheFileCould)
{
    for (const char* blend : { "norm", "pass" }) {
        std::vector<Layer> layers;
        for (int i = 0; i < 20; ++i)
            layers.insert(layers.end(),
                { Layer::groupEnd(), Layer::filled("A", 0, 0, 1, 1, { 51, 255 }),
                    Layer::filled("B", 999, 999, 1000, 1000, { 51, 255 }), Layer::folder("G", blend) });
        const bool isPassed = blend[0] == 'p';
        EXPECT_EQ(load(wideCanvas(layers).bytes()), isPassed ? PSD_ERROR_NONE : PSD_ERROR_UNSUPPORTED);
        if (isPassed)
            expectAt(999, 999, { 0.2f, 0.2f, 0.2f, 1 });
    }
}

TEST_F(PsdLayers, RowsTakeNoMoreMemoryThanTheFileCouldFill)
{
    PsdBytes psd { .version = 2, .channels = 1, .width = 300000, .mode = 1, .compression = 2 };
    psd.layerSection = layerSection({ greyFill("Fill") }, true);
    psd.picture = deflated(psd.blank());
    EXPECT_EQ(load(psd.bytes(), "Fill"), PSD_ERROR_UNSUPPORTED);
    psd.compression = 0;
    psd.picture = psd.blank();
    EXPECT_EQ(load(psd.bytes(), "Fill"), PSD_ERROR_NONE);
}

/// Where each row would walk through all layers, this would not end in minutes.
TEST_F(PsdLayers, VeryManyLayersAreWalkedThroughOnlyWhereTheyAre)
{
    constexpr int height = 300000, step = 10;
    for (const bool isClipped : { false, true }) {
        std::vector<Layer> layers = { Layer::filled("Base", 0, 0, 1, height, { 51, 255 }) };
        for (int i = 0; i < height / step; ++i) {
            layers.push_back(Layer::filled("L", 0, i * step, 1, i * step + 1, { 255, 255 }));
            layers.back().clipping = isClipped;
        }
        layers.insert(layers.end(), 2000, Layer());
        PsdBytes psd { .version = 2, .channels = 1, .height = height, .mode = 1 };
        psd.layerSection = layerSection(layers, true);
        psd.picture = psd.blank();
        ASSERT_EQ(load(psd.bytes()), PSD_ERROR_NONE);
        int wrong = 0;
        for (int y = 0; y < height; ++y)
            wrong += at(0, y)[0] != (y % step == 0 ? 1.0f : 0.2f);
        for (int y = height - 1; y >= 0; y -= 997)
            wrong += at(0, y)[0] != (y % step == 0 ? 1.0f : 0.2f);
        EXPECT_EQ(wrong, 0) << isClipped;
    }
}

TEST_F(PsdLayers, CutListsOfLayersEndInOrder)
{
    Layer layer = whole("L", green).masked(0, 0, 2, 2, 51, 255);
    layer.blocks = joined(
        { Layer::block("luni", joined({ big(1, 4), { 0, 'L' } })), Layer::block("iOpa", { 255, 0 }) });
    layer.ranges = Bytes(8, 0);
    const Bytes list = layerList({ Layer::groupEnd(), layer, Layer::folder("G") });
    for (std::size_t length = 0; length < list.size(); ++length) {
        PsdBytes psd { .width = 4, .height = 2 };
        psd.layerSection
            = joined({ big(length, 4), Bytes(list.begin(), list.begin() + std::ptrdiff_t(length)) });
        psd.picture = Bytes(24, 7);
        const PSD_Error error = load(psd.bytes(), "G/L");
        EXPECT_THAT(error, testing::AnyOf(PSD_ERROR_READ, PSD_ERROR_FORMAT)) << length;
        EXPECT_EQ(load(psd.bytes(), ""), PSD_ERROR_NONE) << "the merged picture";
    }
}

TEST_F(PsdLayers, ChangedBytesOfAListNeverHurt)
{
    Layer layer = whole("L", green).masked(0, 0, 2, 2, 51, 255);
    layer.blocks = Layer::block("iOpa", { 255, 0 });
    const Bytes whole = file({ Layer::groupEnd(), layer, Layer::folder("G") }).bytes();
    for (std::size_t i = 26; i < whole.size(); ++i)
        for (const std::uint8_t value : Bytes { 0x00, 0x7F, 0x80, 0xFF }) {
            Bytes bytes = whole;
            bytes[i] = value;
            if (load(bytes) != PSD_ERROR_NONE)
                continue;
            std::vector<float> row(std::size_t(m_image.width()) * 4);
            for (int y = 0; y < m_image.height(); ++y)
                m_image.getRow(y, row.data());
        }
}

TEST_F(PsdLayers, WhatIsNotShownIsWarnedOf)
{
    const struct {
        const char* key;
        const char* words;
    } blocks[] = { { "lfx2", "style" }, { "lmfx", "style" }, { "lrFX", "style" }, { "levl", "adjustment" },
        { "CgEd", "adjustment" }, { "GdFl", "fill" }, { "PtFl", "fill" }, { "vmsk", "vector mask" },
        { "vsms", "vector mask" }, { "knko", "knock" }, { "brst", "channels" } };
    for (const auto& block : blocks) {
        Layer layer;
        layer.name = "Caf\xE9";
        layer.blocks = Layer::block(block.key, { 1, 0, 0, 0 });
        ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
        ASSERT_EQ(m_image.warnings().count(), 1) << block.key;
        EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr(block.words));
        EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr("Caf\u00e9"));
        layer.flags = 2;
        ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
        EXPECT_TRUE(m_image.warnings().empty()) << "a hidden layer";
    }
    Layer layer;
    layer.ranges = { 0, 0, 255, 255, 10, 20, 255, 255 };
    ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
    ASSERT_EQ(m_image.warnings().count(), 1);
    EXPECT_THAT(m_image.warnings()[0].c_str(), HasSubstr("ranges"));
}

TEST_F(PsdLayers, WarningsAreBoundedAndSaidOnce)
{
    std::vector<Layer> layers(3);
    for (Layer& layer : layers)
        layer.blocks = Layer::block("lfx2", {});
    ASSERT_EQ(load(layers), PSD_ERROR_NONE);
    EXPECT_EQ(m_image.warnings().count(), 1);
    for (int i = 0; i < 100; ++i) {
        layers.emplace_back();
        layers.back().name = std::to_string(i);
        layers.back().blocks = Layer::block("lfx2", {});
    }
    ASSERT_EQ(load(layers), PSD_ERROR_NONE);
    EXPECT_EQ(m_image.warnings().count(), 32);
}

TEST_F(PsdLayers, FillsAndShapesThatAreThereInPixelsNeedNoWarning)
{
    Layer layer = whole("L", green);
    for (const char* key : { "SoCo", "GdFl", "vscg" }) {
        layer.blocks = joined({ Layer::block(key, {}), Layer::block("vmsk", {}) });
        ASSERT_EQ(load({ layer }), PSD_ERROR_NONE);
        EXPECT_TRUE(m_image.warnings().empty()) << key;
    }
}

} // namespace
