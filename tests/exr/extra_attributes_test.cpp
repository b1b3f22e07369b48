#include "rastkit/exr/extra_attributes.h"

#include "support/comma_locale.h"
#include "support/in_threads.h"

#include <ImfBoxAttribute.h>
#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfHeader.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfOutputFile.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <set>

namespace {

using namespace testing_support;
using QUtils::ErrorCode;

class ExtraAttributes : public testing::Test {
protected:
    ErrorCode parse(std::string text)
    {
        testing::internal::CaptureStderr();
        ExrHeaderWrapper wrapper(m_header);
        const ErrorCode error = WriteEXRExtraAttributes(wrapper, text.data());
        m_printed = testing::internal::GetCapturedStderr();
        return error;
    }
    /// Parses a text that is right, and nothing is printed.
    void add(const std::string& text)
    {
        EXPECT_EQ(parse(text).code(), 0) << text;
        EXPECT_EQ(m_printed, "") << text;
    }
    void expectError(const std::string& text, int code, const std::string& message)
    {
        const ErrorCode error = parse(text);
        EXPECT_EQ(error.code(), code) << text;
        EXPECT_STREQ(error.message(), message.c_str()) << text;
        EXPECT_STREQ(error.function(), "WriteEXRExtraAttributes");
        EXPECT_EQ(m_printed, message + "\n") << text;
    }

    /// The value of an attribute; one of that type's own when there is none of that name and type.
    template <typename Value> Value valueOf(const std::string& name)
    {
        const auto* const found = m_header.findTypedAttribute<Imf::TypedAttribute<Value>>(name);
        EXPECT_TRUE(found) << name;
        return found ? found->value() : Value();
    }
    std::string text(const std::string& name) { return valueOf<std::string>(name); }
    /// Whether OpenEXR would write the header, as soon as it has a channel.
    bool isSound()
    {
        Imf::Header header(m_header);
        header.channels().insert("R", Imf::Channel());
        try {
            header.sanityCheck();
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
    /// The names that a plain header does not have.
    std::set<std::string> added()
    {
        const Imf::Header plain(4, 3);
        std::set<std::string> names;
        for (auto it = m_header.begin(); it != m_header.end(); ++it)
            if (plain.find(it.name()) == plain.end())
                names.insert(it.name());
        return names;
    }

    Imf::Header m_header { 4, 3 };
    std::string m_printed;
};

using Names = std::set<std::string>;

// --- Values ----------------------------------------------------------------------------------------------

TEST_F(ExtraAttributes, NumbersAndTextsGetTheirTypes)
{
    add("  a=1; b = 2.5 ;c=hello");
    EXPECT_EQ(valueOf<int>("a"), 1);
    EXPECT_EQ(valueOf<float>("b"), 2.5f);
    EXPECT_EQ(text("c"), "hello");
    EXPECT_EQ(added(), (Names { "a", "b", "c" }));
}

TEST_F(ExtraAttributes, ListsOfWholeNumbersAreIntegerVectors)
{
    add("u=(7);v=(1, 2);t=( -1 ,\t+2\n, 3 ); w=(0,0,1919,1079)");
    EXPECT_EQ(valueOf<int>("u"), 7);
    EXPECT_EQ(valueOf<Imath::V2i>("v"), Imath::V2i(1, 2));
    EXPECT_EQ(valueOf<Imath::V3i>("t"), Imath::V3i(-1, 2, 3));
    EXPECT_EQ(valueOf<Imath::Box2i>("w"), Imath::Box2i({ 0, 0 }, { 1919, 1079 }));
}

TEST_F(ExtraAttributes, OneFractionMakesAListOneOfFloats)
{
    add("u=(7.5);v=(1, 2.5);t=(1,2,3e2);w=(0,0,0.5,1)");
    EXPECT_EQ(valueOf<float>("u"), 7.5f);
    EXPECT_EQ(valueOf<Imath::V2f>("v"), Imath::V2f(1, 2.5f));
    EXPECT_EQ(valueOf<Imath::V3f>("t"), Imath::V3f(1, 2, 300));
    EXPECT_EQ(valueOf<Imath::Box2f>("w"), Imath::Box2f({ 0, 0 }, { 0.5f, 1 }));
}

TEST_F(ExtraAttributes, MatricesAreFloatsAlsoOfWholeNumbers)
{
    add("m=(1,0,0,0,1,0,0,0,1); n=(1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16); o=(1,2,3,4,5,6,7,8,9.5)");
    EXPECT_EQ(valueOf<Imath::M33f>("m"), Imath::M33f());
    EXPECT_EQ(valueOf<Imath::M44f>("n"), Imath::M44f(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
    EXPECT_EQ(valueOf<Imath::M33f>("o"), Imath::M33f(1, 2, 3, 4, 5, 6, 7, 8, 9.5f));
}

TEST_F(ExtraAttributes, WhatIsNoListIsAText)
{
    add("x=(1,2,3,4,5); y=(1,2; z=(1,2) k; n=(1,a); m=(1,0,0,0,1,0,0,0,x)");
    EXPECT_EQ(text("x"), "(1,2,3,4,5)");
    EXPECT_EQ(text("y"), "(1,2");
    EXPECT_EQ(text("z"), "(1,2) k");
    EXPECT_EQ(text("n"), "(1,a)");
    EXPECT_EQ(text("m"), "(1,0,0,0,1,0,0,0,x)");
    add("p=(1,2)) ; q=(1,(2) ; v=(1,2) \t; ten=(1,2,3,4,5,6,7,8,9,10)");
    EXPECT_EQ(text("p"), "(1,2))");
    EXPECT_EQ(text("q"), "(1,(2)");
    EXPECT_EQ(valueOf<Imath::V2i>("v"), Imath::V2i(1, 2));
    EXPECT_EQ(text("ten"), "(1,2,3,4,5,6,7,8,9,10)");
}

TEST_F(ExtraAttributes, ListsWithEmptyElementsAreTexts)
{
    add("a=(); b=(,); c=(1,,3); d=( , , ); e=(1,2,); f=(,,,,,,,,); g=( )");
    for (const auto& [name, value] : { std::pair("a", "()"), { "b", "(,)" }, { "c", "(1,,3)" },
             { "d", "( , , )" }, { "e", "(1,2,)" }, { "f", "(,,,,,,,,)" }, { "g", "( )" } })
        EXPECT_EQ(text(name), value);
}

TEST_F(ExtraAttributes, PairsOfQuotesAreDropped)
{
    add("s='it works'; t=\"it's 5\"; e=''; n='7'; l='(1,2)'; p=' a '");
    EXPECT_EQ(text("s"), "it works");
    EXPECT_EQ(text("t"), "it's 5");
    EXPECT_EQ(text("e"), "");
    EXPECT_EQ(text("n"), "7");
    EXPECT_EQ(text("l"), "(1,2)");
    EXPECT_EQ(text("p"), " a ");
}

TEST_F(ExtraAttributes, QuotesWithoutAPartnerStay)
{
    add("s='open; t=\"open'; u=close'; l='; m=\"");
    EXPECT_EQ(text("s"), "'open");
    EXPECT_EQ(text("t"), "\"open'");
    EXPECT_EQ(text("u"), "close'");
    EXPECT_EQ(text("l"), "'");
    EXPECT_EQ(text("m"), "\"");
}

TEST_F(ExtraAttributes, SignsAloneAreZero)
{
    add("a=-; b=+; c=(-,+); d=-.; e=+e; f=(-.)");
    EXPECT_EQ(valueOf<int>("a"), 0);
    EXPECT_EQ(valueOf<int>("b"), 0);
    EXPECT_EQ(valueOf<Imath::V2i>("c"), Imath::V2i(0, 0));
    EXPECT_EQ(valueOf<float>("d"), 0.0f);
    EXPECT_EQ(valueOf<float>("e"), 0.0f);
    EXPECT_EQ(valueOf<float>("f"), 0.0f);
}

TEST_F(ExtraAttributes, FloatsEndWhereTheirTextStopsMakingSense)
{
    add("a=1.2.3; b=1-2; c=1e2; d=-1.5e-2; e=1e; f=2+3.5");
    EXPECT_EQ(valueOf<float>("a"), 1.2f);
    EXPECT_EQ(valueOf<float>("b"), 1.0f);
    EXPECT_EQ(valueOf<float>("c"), 100.0f);
    EXPECT_EQ(valueOf<float>("d"), -0.015f);
    EXPECT_EQ(valueOf<float>("e"), 1.0f);
    EXPECT_EQ(valueOf<float>("f"), 2.0f);
}

TEST_F(ExtraAttributes, NumbersThatBeginOrGoOnOtherwiseAreTexts)
{
    add("a=.5; b=1E5; c=0x10; d=1 2; e=1,5; f=inf; g=e5; h=1f");
    for (const auto& [name, value] : { std::pair("a", ".5"), { "b", "1E5" }, { "c", "0x10" }, { "d", "1 2" },
             { "e", "1,5" }, { "f", "inf" }, { "g", "e5" }, { "h", "1f" } })
        EXPECT_EQ(text(name), value);
}

TEST_F(ExtraAttributes, NumbersPastTheRangeBecomeItsEnds)
{
    add("a=2147483648; b=-2147483649; c=99999999999999999999; d=(-99999999999999999999,1); e=1e39; f=-1e999;"
        "g=1e-60; h=2147483647");
    EXPECT_EQ(valueOf<int>("a"), INT_MAX);
    EXPECT_EQ(valueOf<int>("b"), INT_MIN);
    EXPECT_EQ(valueOf<int>("c"), INT_MAX);
    EXPECT_EQ(valueOf<Imath::V2i>("d"), Imath::V2i(INT_MIN, 1));
    EXPECT_EQ(valueOf<float>("e"), HUGE_VALF);
    EXPECT_EQ(valueOf<float>("f"), -HUGE_VALF);
    EXPECT_EQ(valueOf<float>("g"), 0.0f);
    EXPECT_EQ(valueOf<int>("h"), INT_MAX);
}

TEST_F(ExtraAttributes, LeadingZerosMakeNoOctalNumber)
{
    add("a=010");
    EXPECT_EQ(valueOf<int>("a"), 10);
}

TEST_F(ExtraAttributes, NamesKeepTheSpaceInside)
{
    add("my name \t= 1");
    EXPECT_EQ(valueOf<int>("my name"), 1);
}

TEST_F(ExtraAttributes, SeparatorsMayBeRepeated)
{
    add("a=1;;; b=2;");
    add("c=3 ; ;\n;\t; d=4 ;; ");
    EXPECT_EQ(added(), (Names { "a", "b", "c", "d" }));
    EXPECT_EQ(valueOf<int>("b"), 2);
    EXPECT_EQ(valueOf<int>("d"), 4);
}

TEST_F(ExtraAttributes, LaterValuesReplaceEarlierOnesOfTheirType)
{
    add("a=1; a=2; pixelAspectRatio=2.0; displayWindow=(0,0,99,49)");
    EXPECT_EQ(valueOf<int>("a"), 2);
    EXPECT_EQ(m_header.pixelAspectRatio(), 2.0f);
    EXPECT_EQ(m_header.displayWindow(), Imath::Box2i({ 0, 0 }, { 99, 49 }));
}

// --- Errors ----------------------------------------------------------------------------------------------

TEST_F(ExtraAttributes, NamesAreExpected)
{
    expectError("=5", -1, "attribute name expected at position 0");
    expectError("  \n =5", -1, "attribute name expected at position 0");
    EXPECT_EQ(added(), Names());
    expectError("a=1; =5", -1, "attribute name expected at position 5");
    EXPECT_EQ(added(), (Names { "a" }));
}

TEST_F(ExtraAttributes, ValuesAreExpected)
{
    expectError("a=", -2, "attribute value expected at position 2");
    expectError("a=  ", -2, "attribute value expected at position 4");
    expectError("\ta= ;b=1", -2, "attribute value expected at position 3");
    EXPECT_EQ(added(), Names());
}

TEST_F(ExtraAttributes, TextsMustNotEndInAName)
{
    expectError("abc", -3, "Unexpected end of stream at position 3");
    expectError(" abc ", -3, "Unexpected end of stream at position 4");
    expectError("", -3, "Unexpected end of stream at position 0");
    expectError(" \t ", -3, "Unexpected end of stream at position 0");
    EXPECT_EQ(added(), Names());
}

TEST_F(ExtraAttributes, SeparatorsInTheWrongPlaceAreNamed)
{
    expectError("abc;", -4, "Unexpected token ';' at position 3");
    expectError("; a=1", -4, "Unexpected token ';' at position 0");
    expectError("a=b=c", -4, "Unexpected token '=' at position 3");
    expectError("a==c", -4, "Unexpected token '=' at position 2");
    expectError("s='a=b'", -4, "Unexpected token '=' at position 4");
    EXPECT_EQ(added(), Names());
}

TEST_F(ExtraAttributes, WhatStandsBeforeAnErrorIsAdded)
{
    expectError("a=1; b=2; c", -3, "Unexpected end of stream at position 11");
    EXPECT_EQ(added(), (Names { "a", "b" }));
}

// --- Attributes that a file cannot have ------------------------------------------------------------------

TEST_F(ExtraAttributes, WhatTheFileIsMadeOfIsLeftOut)
{
    const Imf::Header plain = m_header;
    for (const char* name : { "dataWindow", "channels", "compression", "lineOrder", "tiles", "type",
             "version", "name", "chunkCount" })
        for (const char* value : { "(0,0,9,9)", "1", "x" }) {
            EXPECT_EQ(parse(std::string("a=1;") + name + "=" + value + "; b=2").code(), 0);
            EXPECT_NE(m_printed.find(std::string("\"") + name + "\""), std::string::npos) << m_printed;
            EXPECT_EQ(added(), (Names { "a", "b" })) << name;
        }
    EXPECT_EQ(m_header.dataWindow(), plain.dataWindow());
    EXPECT_EQ(m_header.compression(), plain.compression());
}

TEST_F(ExtraAttributes, AnotherTypeUnderAnExistingNameIsLeftOut)
{
    EXPECT_EQ(parse("a=1; a=x; pixelAspectRatio=2; b=2").code(), 0);
    EXPECT_NE(m_printed.find("\"a\""), std::string::npos);
    EXPECT_NE(m_printed.find("\"pixelAspectRatio\""), std::string::npos);
    EXPECT_EQ(valueOf<int>("a"), 1);
    EXPECT_EQ(valueOf<int>("b"), 2);
    EXPECT_EQ(m_header.pixelAspectRatio(), 1.0f);
}

TEST_F(ExtraAttributes, ValuesThatNoFileMayHaveAreTakenBack)
{
    for (const char* text :
        { "displayWindow=(9,9,0,0)", "pixelAspectRatio=-1.0", "pixelAspectRatio=1e39", "pixelAspectRatio=0.0",
            "screenWindowWidth=-1.0", "displayWindow=(-2147483648,-2147483648,2147483647,2147483647)" }) {
        EXPECT_EQ(parse(text).code(), 0);
        EXPECT_NE(m_printed, "") << text;
        EXPECT_TRUE(isSound()) << text;
        EXPECT_EQ(m_header.displayWindow(), Imath::Box2i({ 0, 0 }, { 3, 2 }));
        EXPECT_EQ(m_header.pixelAspectRatio(), 1.0f);
        EXPECT_EQ(m_header.screenWindowWidth(), 1.0f);
    }
}

TEST_F(ExtraAttributes, ChannelsOfTheHeaderStayAsTheyAre)
{
    static_cast<void>(parse("a=1; pixelAspectRatio=-1.0"));
    EXPECT_TRUE(m_header.channels().begin() == m_header.channels().end());
    m_header.channels().insert("Z", Imf::Channel(Imf::FLOAT));
    const Imf::ChannelList before = m_header.channels();
    static_cast<void>(parse("b=1; pixelAspectRatio=-1.0"));
    EXPECT_TRUE(m_header.channels() == before);
    EXPECT_EQ(m_header.pixelAspectRatio(), 1.0f);
}

TEST_F(ExtraAttributes, AHeaderThatWasBrokenBeforeGetsItsAttributes)
{
    m_header.pixelAspectRatio() = -1;
    add("a=1; s=text");
    EXPECT_EQ(added(), (Names { "a", "s" }));
    add("pixelAspectRatio=1.0");
    EXPECT_TRUE(isSound());
}

TEST_F(ExtraAttributes, NamesOfMoreThan255BytesAreLeftOut)
{
    const std::string longest(255, 'n');
    add(longest + "=1");
    EXPECT_EQ(valueOf<int>(longest), 1);
    EXPECT_EQ(parse(longest + "n=2; b=3").code(), 0);
    EXPECT_NE(m_printed.find("too long"), std::string::npos);
    EXPECT_EQ(valueOf<int>(longest), 1);
    EXPECT_EQ(added(), (Names { longest, "b" }));
}

// --- Lists on their own ----------------------------------------------------------------------------------

TEST_F(ExtraAttributes, TokensAreCheckedBeforeAnythingIsAdded)
{
    ExrHeaderWrapper wrapper(m_header);
    char one[] = "1", fraction[] = "2.5", empty[] = "", word[] = "x";
    char* whole[] = { one, one };
    EXPECT_TRUE(writeVec<int>(2, wrapper, "a", whole));
    EXPECT_TRUE(writeVec<float>(2, wrapper, "b", whole));
    EXPECT_EQ(valueOf<Imath::V2i>("a"), Imath::V2i(1, 1));
    EXPECT_EQ(valueOf<Imath::V2f>("b"), Imath::V2f(1, 1));
    for (char* second : { fraction, empty, word, static_cast<char*>(nullptr) }) {
        char* tokens[] = { one, second };
        EXPECT_FALSE(writeVec<int>(2, wrapper, "c", tokens));
        EXPECT_EQ(writeVec<float>(2, wrapper, "d", tokens), second == fraction);
    }
    EXPECT_EQ(added(), (Names { "a", "b", "d" }));
}

TEST_F(ExtraAttributes, CountsThatMakeNoTypeAddNothing)
{
    ExrHeaderWrapper wrapper(m_header);
    const int whole[20] = {};
    const float floats[20] = {};
    for (const int count : { -1, 0, 5, 8, 10, 15, 17, 20, INT_MAX }) {
        wrapper.addvec("a", count, whole);
        wrapper.addvec("b", count, floats);
    }
    char zero[] = "0";
    std::vector<char*> tokens(40, zero);
    EXPECT_TRUE(writeVec<int>(40, wrapper, "c", tokens.data()));
    EXPECT_TRUE(writeVec<float>(-3, wrapper, "d", tokens.data()));
    EXPECT_EQ(added(), Names());
}

TEST_F(ExtraAttributes, MatricesOfIntegersAreDoubles)
{
    ExrHeaderWrapper wrapper(m_header);
    const int numbers[16] = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16 };
    wrapper.addvec("m", 9, numbers);
    wrapper.addvec("n", 16, numbers);
    EXPECT_EQ(valueOf<Imath::M33d>("m"), Imath::M33d(1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ(valueOf<Imath::M44d>("n"), Imath::M44d(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
}

// --- Locale ----------------------------------------------------------------------------------------------

std::string formatted(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", number);
    return text;
}

TEST_F(ExtraAttributes, DecimalCommasOfTheLocaleDoNotCount)
{
    const CommaLocale comma;
    if (!comma.get())
        GTEST_SKIP() << "no locale from a file";
    const locale_t before = uselocale(comma.get());
    ASSERT_EQ(formatted(0.5), "0,5");
    for (const char* text : { "a=0.5; v=(0.5,1)", "=5", "a=1;x", "a=0.5; pixelAspectRatio=0.0" }) {
        static_cast<void>(parse(text));
        EXPECT_EQ(uselocale(locale_t(nullptr)), comma.get()) << text;
        EXPECT_EQ(formatted(0.5), "0,5") << text;
    }
    uselocale(before);
    EXPECT_EQ(valueOf<float>("a"), 0.5f);
    EXPECT_EQ(valueOf<Imath::V2f>("v"), Imath::V2f(0.5f, 1));
}

TEST_F(ExtraAttributes, OtherThreadsKeepTheirLocale)
{
    const CommaLocale comma;
    const IgnoreLeaks ignore;
    if (!comma.get() || !std::setlocale(LC_NUMERIC, CommaLocale::name))
        GTEST_SKIP() << "no locale from a file";
    std::atomic<bool> ended = false;
    std::atomic<int> seen = 0, wrong = 0;
    const std::string pairs = "a=0.5;b=(0.25,1.5);";
    inThreads(2, [&](int number) {
        if (number == 0) {
            for (int i = 0; i < 300 || seen == 0; ++i) { // On a busy machine the other thread comes late.
                Imf::Header header(4, 3);
                ExrHeaderWrapper wrapper(header);
                std::string text = pairs + pairs + pairs;
                WriteEXRExtraAttributes(wrapper, text.data());
                const auto* const a = header.findTypedAttribute<Imf::FloatAttribute>("a");
                if (!a || a->value() != 0.5f)
                    ++wrong;
            }
            ended = true;
        } else {
            while (!ended) {
                ++seen;
                if (formatted(0.5) != "0,5")
                    ++wrong;
            }
        }
    });
    std::setlocale(LC_NUMERIC, "C");
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(seen, 0);
}

// --- Length ----------------------------------------------------------------------------------------------

int countAttributes(const Imf::Header& header)
{
    int count = 0;
    for (auto attribute = header.begin(); attribute != header.end(); ++attribute)
        ++count;
    return count;
}

TEST(ExtraAttributesLength, ALongTextIsReadToItsEnd)
{
    constexpr int count = 20000;
    std::string text = "list=(" + std::string(count, '1') + "," + std::string(count, ' ') + "2); ";
    for (int i = 0; i < count; ++i)
        text.append("a").append(std::to_string(i)).append("=(1, 2.5, 3);");
    Imf::Header header(4, 3);
    const int before = countAttributes(header);
    ExrHeaderWrapper wrapper(header);
    EXPECT_EQ(WriteEXRExtraAttributes(wrapper, text.data()).code(), 0);
    EXPECT_EQ(countAttributes(header), before + 1 + count);
}

} // namespace
