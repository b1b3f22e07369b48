#include "qutils/raw/exr_channel_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace QUtils;

namespace {

std::vector<std::string> namesOf(const std::vector<RawChannel>& channels, int bits = 0)
{
    std::vector<std::string> names;
    for (const ExrChannel& channel : planExrChannels(channels, bits))
        names.push_back(channel.name);
    return names;
}

using Names = std::vector<std::string>;

RawChannel channel(const std::string& name, int id, int components, RawKind kind = RawKind::ByComponents,
    int sampleType = RISAMPLE_FLOAT)
{
    return { name, id, sampleType, components, kind };
}

} // namespace

TEST(ExrChannels, ThePictureHasPlainNames)
{
    EXPECT_EQ(namesOf({ channel("beauty", 1, 4) }), (Names { "R", "G", "B", "A" }));
    EXPECT_EQ(namesOf({ channel("beauty", 1, 3) }), (Names { "R", "G", "B" }));
    EXPECT_EQ(namesOf({ channel("beauty", 1, 1) }), (Names { "Y" }));
    EXPECT_EQ(namesOf({ channel("beauty", 1, 2) }), (Names { "Y", "A" }));
    EXPECT_EQ(namesOf({ channel("beauty", 126, 3) }), (Names { "R", "G", "B" }));
}

TEST(ExrChannels, ThePictureIsChannel1BeforeChannel126)
{
    EXPECT_EQ(namesOf({ channel("second", 126, 3), channel("first", 1, 3) }),
        (Names { "R", "G", "B", "second.R", "second.G", "second.B" }));
}

TEST(ExrChannels, AnAlphaChannelCompletesAPictureWithoutOne)
{
    EXPECT_EQ(namesOf({ channel("alpha", 2, 1), channel("beauty", 1, 3) }), (Names { "R", "G", "B", "A" }));
    EXPECT_EQ(namesOf({ channel("beauty", 1, 3), channel("alpha", 125, 1) }), (Names { "R", "G", "B", "A" }));
    EXPECT_EQ(namesOf({ channel("grey", 1, 1), channel("alpha", 2, 1) }), (Names { "Y", "A" }));
    const std::vector<ExrChannel> plan
        = planExrChannels({ channel("alpha", 2, 1), channel("beauty", 1, 3) }, 16);
    EXPECT_EQ(plan[3].source, 0);
    EXPECT_EQ(plan[0].source, 1);
    EXPECT_EQ(plan[3].type, Imf::HALF);
}

TEST(ExrChannels, AnAlphaChannelThatIsNotNeededKeepsItsName)
{
    EXPECT_EQ(namesOf({ channel("beauty", 1, 4), channel("alpha", 2, 1) }),
        (Names { "R", "G", "B", "A", "alpha" }));
    EXPECT_EQ(namesOf({ channel("beauty", 1, 3), channel("alpha", 2, 3) }),
        (Names { "R", "G", "B", "alpha.R", "alpha.G", "alpha.B" }));
    EXPECT_EQ(namesOf({ channel("alpha", 2, 1) }), (Names { "alpha" }));
}

TEST(ExrChannels, TheKindDecidesTheNamesOfALayer)
{
    EXPECT_EQ(namesOf({ channel("d", 10, 3, RawKind::Color) }), (Names { "d.R", "d.G", "d.B" }));
    EXPECT_EQ(namesOf({ channel("d", 10, 4, RawKind::Color) }), (Names { "d.R", "d.G", "d.B", "d.A" }));
    EXPECT_EQ(namesOf({ channel("d", 10, 1, RawKind::Color) }), (Names { "d.Y" }));
    EXPECT_EQ(namesOf({ channel("n", 10, 3, RawKind::Vector) }), (Names { "n.X", "n.Y", "n.Z" }));
    EXPECT_EQ(namesOf({ channel("n", 10, 2, RawKind::Vector) }), (Names { "n.X", "n.Y" }));
    EXPECT_EQ(namesOf({ channel("z", 10, 1, RawKind::Depth) }), (Names { "z.Z" }));
    EXPECT_EQ(namesOf({ channel("id", 10, 1, RawKind::Data) }), (Names { "id" }));
    EXPECT_EQ(namesOf({ channel("id", 10, 3, RawKind::Data) }), (Names { "id.0", "id.1", "id.2" }));
}

TEST(ExrChannels, WithoutAKindTheComponentsDecide)
{
    EXPECT_EQ(namesOf({ channel("a", 10, 1), channel("b", 11, 2), channel("c", 12, 3), channel("d", 13, 4) }),
        (Names { "a", "b.X", "b.Y", "c.R", "c.G", "c.B", "d.R", "d.G", "d.B", "d.A" }));
}

TEST(ExrChannels, ARepeatedNameGetsANumberAndAnEmptyOneIsChannel)
{
    EXPECT_EQ(namesOf({ channel("z", 10, 1), channel("z", 11, 1), channel("z", 12, 1) }),
        (Names { "z", "z_2", "z_3" }));
    EXPECT_EQ(
        namesOf({ channel("", 10, 1), channel("", 11, 2) }), (Names { "channel", "channel.X", "channel.Y" }));
    EXPECT_EQ(namesOf({ channel("R", 10, 1), channel("beauty", 1, 3) }), (Names { "R", "G", "B", "R_2" }));
    EXPECT_EQ(namesOf({ channel("d", 10, 3), channel("d", 11, 3) }),
        (Names { "d.R", "d.G", "d.B", "d_2.R", "d_2.G", "d_2.B" }));
}

TEST(ExrChannels, LongNamesAreCutBetweenCharacters)
{
    std::string name = "x";
    for (int i = 0; i < 200; ++i)
        name.append("\xC3\xA4");
    const Names names = namesOf({ channel(name, 10, 1), channel(name, 11, 1) });
    EXPECT_EQ(names[0], name.substr(0, 219));
    EXPECT_EQ(names[1], names[0] + "_2");
}

TEST(ExrChannels, BitsCountForColoursOnly)
{
    const std::vector<RawChannel> channels { channel("beauty", 1, 3), channel("z", 10, 1, RawKind::Depth),
        channel("h", 11, 3, RawKind::Color, RISAMPLE_HALF),
        channel("v", 12, 3, RawKind::Vector, RISAMPLE_HALF),
        channel("u", 13, 3, RawKind::Color, RISAMPLE_UINT) };
    const auto types = [&](int bits) {
        std::string text;
        for (const ExrChannel& each : planExrChannels(channels, bits))
            if (each.component == 0)
                text += each.type == Imf::HALF ? 'h' : each.type == Imf::FLOAT ? 'f' : 'u';
        return text;
    };
    EXPECT_EQ(types(16), "hfhhu");
    EXPECT_EQ(types(32), "fffhu");
    EXPECT_EQ(types(0), "ffhhu");
}

TEST(ExrChannels, AnEmptyListIsABlackPictureOfHalfFloats)
{
    EXPECT_EQ(namesOf({}, 32), (Names { "R", "G", "B", "A" }));
    for (const ExrChannel& each : planExrChannels({}, 32)) {
        EXPECT_EQ(each.type, Imf::HALF);
        EXPECT_EQ(each.source, -1);
    }
}

TEST(ExrChannels, LossIsForPicturesOnly)
{
    EXPECT_TRUE(toleratesLoss(planExrChannels({ channel("beauty", 1, 4), channel("d", 10, 3) }, 0)));
    EXPECT_TRUE(toleratesLoss(planExrChannels({ channel("beauty", 1, 3), channel("alpha", 2, 1) }, 0)));
    EXPECT_FALSE(toleratesLoss(planExrChannels({ channel("beauty", 1, 4), channel("z.R", 10, 1) }, 0)));
    EXPECT_FALSE(toleratesLoss(planExrChannels({ channel("n", 10, 3, RawKind::Vector) }, 0)));
    EXPECT_FALSE(toleratesLoss(planExrChannels({ channel("d", 10, 3, RawKind::Color, RISAMPLE_UINT) }, 0)));
}
