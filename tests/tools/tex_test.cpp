#include "rastkit/load.h"
#include "support/run_program.h"
#include "support/sgi_bytes.h"
#include "support/texture_reading.h"
#include "support/tga_bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <sys/stat.h>

namespace {

using namespace testing_support;
namespace fs = std::filesystem;
using nlohmann::json;
using Arguments = Program::Arguments;

/// A picture of 24 bits from the top, or from the bottom.
TgaBytes pictureOf(int width, int height, bool isFromTheTop = true)
{
    TgaBytes tga;
    tga.width = width;
    tga.height = height;
    tga.descriptor = isFromTheTop ? 0x20 : 0;
    for (int i = 0; i < height; ++i) {
        const int y = isFromTheTop ? i : height - 1 - i;
        for (int x = 0; x < width; ++x)
            for (int c = 2; c >= 0; --c)
                tga.pixels.push_back(std::uint8_t(x * 31 + y * 17 + c * 83));
    }
    return tga;
}

double toLinear(double value)
{
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

class ToolTex : public testing::Test {
protected:
    std::string make(const std::string& name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return m_dir / name;
    }
    ProgramResult tex(const std::string& in, const std::string& out, const Arguments& more = {},
        rlim_t limit = RLIM_INFINITY)
    {
        Arguments arguments { "tex", in, "-o", out };
        arguments.insert(arguments.end(), more.begin(), more.end());
        return runTool(arguments, limit);
    }
    std::size_t countFiles() const
    {
        const auto files = fs::directory_iterator(m_dir.path());
        return std::size_t(std::distance(begin(files), end(files)));
    }

    TempDir m_dir;
    const std::string m_tif = m_dir / "out.tif", m_exr = m_dir / "out.exr";
};

TEST_F(ToolTex, BytesStayBytesInTiffAndAreFilteredInLinearLight)
{
    const std::string in = make("in.tga", pictureOf(40, 21).bytes());
    const ProgramResult result = tex(in, m_tif, { "--tile", "16x32" });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out + result.err, "");
    const auto params = describeTexture(m_tif);
    EXPECT_EQ(params->numChannels, 3);
    EXPECT_EQ(params->bitsPerPixel, 24);
    EXPECT_EQ(params->tileWidth, 16);
    EXPECT_EQ(params->tileHeight, 32);
    const std::vector<Plane> levels = readLevels(m_tif);
    ASSERT_EQ(levels.size(), 6u);
    Plane light(40, 21, 1);
    for (int y = 0; y < 21; ++y)
        for (int x = 0; x < 40; ++x)
            for (int c = 0; c < 3; ++c) {
                const int byte = (x * 31 + y * 17 + c * 83) & 0xFF;
                ASSERT_EQ(std::lround(levels[0].at(x, y, c) * 255), byte);
                light.at(x, y, 0) = c == 0 ? toLinear(byte / 255.0) : light.at(x, y, 0);
            }
    light = MipReference().shrink(light);
    for (int y = 0; y < light.height; ++y)
        for (int x = 0; x < light.width; ++x)
            ASSERT_NEAR(toLinear(levels[1].at(x, y, 0)), light.at(x, y, 0), 0.005);
}

TEST_F(ToolTex, OptionsDecideHowItIsMade)
{
    const std::string in = make("in.tga", pictureOf(9, 7).bytes());
    const Arguments options { "--filter", "lanczos3", "--wrap", "periodic,mirror", "--colour", "linear",
        "--sample", "float", "--compression", "piz" };
    ASSERT_EQ(tex(in, m_exr, options).exitCode, 0);
    const std::vector<Plane> levels = readLevels(m_exr);
    Plane picture(9, 7, 4);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x)
            for (int c = 0; c < 4; ++c)
                picture.at(x, y, c) = c == 3 ? 1 : ((x * 31 + y * 17 + c * 83) & 0xFF) / 255.0;
    const Plane expected = MipReference { QUtils::MipFilter::Lanczos3, QUtils::TextureWrap::Periodic,
        QUtils::TextureWrap::Mirror }
                               .shrink(picture);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 3; ++c)
                ASSERT_NEAR(levels[1].at(x, y, c), expected.at(x, y, c), 1e-5);
    EXPECT_EQ(describeTexture(m_exr)->bitsPerPixel, 96);

    ASSERT_EQ(tex(in, m_exr, { "--to-linear" }).exitCode, 0);
    EXPECT_NEAR(readLevels(m_exr)[0].at(1, 0, 1), toLinear(114 / 255.0), 1e-3);
    EXPECT_EQ(describeTexture(m_exr)->bitsPerPixel, 48);
}

TEST_F(ToolTex, GreyStaysGreyAndSixteenBitsStaySixteen)
{
    SgiBytes sgi;
    sgi.bytesPerChannel = 2;
    sgi.width = 3;
    sgi.data = { 0x12, 0x34, 0xFF, 0xFE, 0x00, 0x01 };
    const std::string in = make("in.sgi", sgi.bytes());
    ASSERT_EQ(tex(in, m_tif).exitCode, 0);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 1);
    EXPECT_EQ(describeTexture(m_tif)->bitsPerPixel, 16);
    const std::vector<Plane> levels = readLevels(m_tif);
    EXPECT_EQ(std::lround(levels[0].at(0, 0, 0) * 65535), 0x1234);
    EXPECT_EQ(std::lround(levels[0].at(1, 0, 2) * 65535), 0xFFFE);
    EXPECT_EQ(std::lround(levels[0].at(2, 0, 1) * 65535), 1);
}

TEST_F(ToolTex, AlphaIsThereWhenTheSourceHasIt)
{
    TgaBytes tga;
    tga.pixelBits = 32;
    tga.descriptor = 0x28;
    tga.pixels = { 1, 2, 3, 0x80 };
    ASSERT_EQ(tex(make("in.tga", tga.bytes()), m_tif).exitCode, 0);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 4);
    EXPECT_EQ(std::lround(readLevels(m_tif)[0].at(0, 0, 3) * 255), 0x80);
}

TEST_F(ToolTex, StraightAlphaIsMultipliedIntoColour)
{
    TgaBytes tga;
    tga.width = 2;
    tga.pixelBits = 32;
    tga.descriptor = 0x28;
    tga.pixels = { 0, 255, 0, 0, 255, 255, 255, 255 }; // Green that cannot be seen, and white.
    const std::string in = make("in.tga", tga.bytes());
    const auto greenOf = [&](const Arguments& options) {
        EXPECT_EQ(tex(in, m_tif, options).exitCode, 0);
        return std::lround(readLevels(m_tif)[1].at(0, 0, 1) * 255);
    };
    EXPECT_EQ(greenOf({}), 188);
    EXPECT_EQ(greenOf({ "--alpha", "straight" }), 188);
    EXPECT_EQ(greenOf({ "--alpha", "premultiplied" }), 255);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 4);
    EXPECT_EQ(tex(in, m_tif, { "--update", "--alpha", "straight" }).out, m_tif + ": written\n");
    EXPECT_EQ(tex(in, m_tif, { "--update" }).out, m_tif + ": up to date\n");
    EXPECT_EQ(greenOf({ "--alpha", "ignore" }), 255);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 3);

    SgiBytes sgi; // Of others colour is multiplied already.
    sgi.channels = 2;
    sgi.data = { 100, 50 };
    ASSERT_EQ(tex(make("in.sgi", sgi.bytes()), m_tif).exitCode, 0);
    EXPECT_EQ(std::lround(readLevels(m_tif)[0].at(0, 0, 0) * 255), 100);
    ASSERT_EQ(tex(m_dir / "in.sgi", m_tif, { "--alpha", "ignore" }).exitCode, 0);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 1);
}

TEST_F(ToolTex, GreyWithAlphaIsWhatTheLoadersReadExactly)
{
    SgiBytes sgi;
    sgi.bytesPerChannel = 2;
    sgi.channels = 2;
    sgi.data = { 0x12, 0x34, 0x56, 0x78 };
    const std::string in = make("in.sgi", sgi.bytes());
    ASSERT_EQ(tex(in, m_exr, { "--sample", "float" }).exitCode, 0);
    EXPECT_EQ(describeTexture(m_exr)->numChannels, 2);
    ASSERT_EQ(tex(in, m_tif).exitCode, 0);
    EXPECT_EQ(describeTexture(m_tif)->numChannels, 4);
    for (const std::string& out : { m_exr, m_tif }) {
        const Plane level = readLevels(out)[0];
        EXPECT_EQ(std::lround(level.at(0, 0, 1) * 65535), 0x1234);
        EXPECT_EQ(std::lround(level.at(0, 0, 3) * 65535), 0x5678);
    }
}

TEST_F(ToolTex, RowsFromTheBottomMakeTheSamePixels)
{
    ASSERT_EQ(tex(make("a.tga", pictureOf(70, 50).bytes()), m_dir / "a.exr").exitCode, 0);
    ASSERT_EQ(tex(make("b.tga", pictureOf(70, 50, false).bytes()), m_dir / "b.exr").exitCode, 0);
    const std::vector<Plane> top = readLevels(m_dir / "a.exr"), bottom = readLevels(m_dir / "b.exr");
    ASSERT_EQ(top.size(), bottom.size());
    for (std::size_t k = 0; k < top.size(); ++k)
        EXPECT_EQ(top[k].samples, bottom[k].samples) << k;
}

TEST_F(ToolTex, ThreadsDoNotChangeTheFile)
{
    const std::string in = make("in.tga", pictureOf(300, 200).bytes());
    for (const char* end : { "exr", "tif" }) {
        const std::string one = m_dir / (std::string("one.") + end),
                          many = m_dir / (std::string("many.") + end);
        ASSERT_EQ(tex(in, one, { "--threads", "1" }).exitCode, 0);
        ASSERT_EQ(tex(in, many, { "--threads", "3" }).exitCode, 0);
        EXPECT_TRUE(readFile(one) == readFile(many)) << end;
    }
}

TEST_F(ToolTex, TheSourcesHashIsInTheFile)
{
    const std::string in = make("in.tga", TgaBytes { .pixels = { 1, 2, 3 } }.bytes());
    for (const std::string& out : { m_tif, m_exr }) {
        ASSERT_EQ(tex(in, out).exitCode, 0);
        char text[64] = {};
        EXPECT_EQ(getImageSHATag(out.c_str(), text, sizeof text), 1);
        EXPECT_STREQ(
            text, "a8f078eebb757fe9e59a61cc1e11c7944ddeb48"); // As sha1sum says it, without the last digit.
    }
}

TEST_F(ToolTex, UpdateMakesOnlyWhatHasChanged)
{
    const std::string in = make("in.tga", pictureOf(8, 8).bytes());
    for (const std::string& out : { m_tif, m_exr }) {
        writeFile(in, pictureOf(8, 8).bytes());
        EXPECT_EQ(tex(in, out, { "--update" }).out, out + ": written\n");
        const auto inode = [&] {
            struct stat status { };
            EXPECT_EQ(stat(out.c_str(), &status), 0);
            return status.st_ino;
        };
        const auto first = inode();
        const ProgramResult again = tex(in, out, { "--update" });
        EXPECT_EQ(again.exitCode, 0);
        EXPECT_EQ(again.out, out + ": up to date\n");
        EXPECT_EQ(inode(), first);
        EXPECT_EQ(tex(in, out, { "--update", "--filter", "mitchell" }).out, out + ": written\n");
        EXPECT_EQ(tex(in, out, { "--update" }).out, out + ": written\n");
        writeFile(in, pictureOf(8, 9).bytes());
        EXPECT_EQ(tex(in, out, { "--update" }).out, out + ": written\n");
        writeFile(out, { 'n', 'o' });
        EXPECT_EQ(tex(in, out, { "--update" }).out, out + ": written\n");
    }
}

TEST_F(ToolTex, JsonSaysWhatWasMade)
{
    const std::string in = make("in.tga", pictureOf(8, 6).bytes());
    const json made = json::parse(tex(in, m_exr, { "--json", "--update" }).out);
    EXPECT_EQ(made["written"], true);
    EXPECT_EQ(made["width"], 8);
    EXPECT_EQ(made["height"], 6);
    EXPECT_EQ(made["channels"], 3);
    EXPECT_EQ(made["sample"], "half");
    EXPECT_EQ(made["sha1"].get<std::string>().size(), 40u);
    EXPECT_EQ(json::parse(tex(in, m_exr, { "--json", "--update" }).out)["written"], false);
}

TEST_F(ToolTex, FailuresNameTheFileAndLeaveTheOldOne)
{
    const Bytes old { 'o', 'l', 'd' };
    const std::string out = make("out.tif", old);
    Bytes cut = pictureOf(300, 200).bytes();
    const std::string whole = make("whole.tga", cut);
    cut.resize(cut.size() / 2);
    const std::string in = make("in.tga", cut);
    const struct {
        std::string in, message;
        rlim_t limit;
    } cases[] = {
        { in, in + ": cannot be read: its pixels are cut short or damaged", RLIM_INFINITY },
        { m_dir / "none.tga", (m_dir / "none.tga") + ": cannot be read: No such file or directory",
            RLIM_INFINITY },
        { whole, out + ": cannot be written: File too large", 4096 },
    };
    for (const auto& [name, message, limit] : cases)
        for (const char* threads : { "1", "2" }) {
            const ProgramResult result = tex(name, out, { "--threads", threads }, limit);
            EXPECT_EQ(result.exitCode, 3);
            EXPECT_EQ(result.err, "rastkit: " + message + "\n");
            EXPECT_EQ(readFile(out), old);
            EXPECT_EQ(countFiles(), 3u);
        }
}

TEST_F(ToolTex, WhatTheFormatDoesNotHaveIsWrongUsage)
{
    const std::string in = make("in.tga", pictureOf(3, 2).bytes());
    const std::pair<std::string, Arguments> cases[] = { { "a.png", {} }, { "a", {} },
        { "a.tif", { "--sample", "half" } }, { "a.exr", { "--sample", "8" } },
        { "a.exr", { "--sample", "9" } }, { "a.tif", { "--tile", "24" } }, { "a.exr", { "--tile", "0" } },
        { "a.exr", { "--tile", "64x" } }, { "a.exr", { "--tile", "4097" } },
        { "a.tif", { "--compression", "dwaa" } }, { "a.exr", { "--compression", "lzw" } },
        { "a.exr", { "--compression", "gzip" } }, { "a.exr", { "--filter", "sinc" } },
        { "a.exr", { "--wrap", "clamp,never" } }, { "a.exr", { "--colour", "adobe" } },
        { "a.exr", { "--alpha", "maybe" } }, { "a.exr", { "--dwa-level", "-1" } },
        { "a.exr", { "--dwa-level", "nan" } }, { "a.exr", { "--dwa-level", "inf" } },
        { "a.exr", { "--threads", "0" } } };
    for (const auto& [out, options] : cases)
        for (const std::string& source : { in, m_dir / "none.tga" }) { // It is seen before the source is.
            const ProgramResult result = tex(source, m_dir / out, options);
            EXPECT_EQ(result.exitCode, 2) << out << " " << result.err;
            EXPECT_NE(result.err, "");
        }
    EXPECT_EQ(countFiles(), 1u);
    EXPECT_EQ(tex(in, m_exr, { "--filter", "sinc" }).err,
        "rastkit: --filter takes one of box, triangle, lanczos3, mitchell\n");
}

TEST_F(ToolTex, UpdateMakesAnewWhatIsCutShortOrOfAnotherFormat)
{
    const std::string in = make("in.tga", pictureOf(80, 80).bytes());
    for (const std::string& out : { m_tif, m_exr }) {
        ASSERT_EQ(tex(in, out, { "--compression", "none" }).exitCode, 0);
        const Bytes whole = readFile(out);
        for (const std::size_t bytes : { whole.size() - 20, whole.size() / 2, std::size_t(6000) }) {
            fs::resize_file(out, bytes);
            EXPECT_EQ(tex(in, out, { "--update", "--compression", "none" }).out, out + ": written\n")
                << bytes;
            EXPECT_TRUE(readFile(out) == whole);
        }
        EXPECT_EQ(tex(in, out, { "--update", "--compression", "none" }).out, out + ": up to date\n");
    }
    const Arguments options { "--update", "--sample", "float" };
    ASSERT_EQ(tex(in, m_tif, options).exitCode, 0);
    fs::copy_file(m_tif, m_exr, fs::copy_options::overwrite_existing);
    EXPECT_EQ(tex(in, m_exr, options).out, m_exr + ": written\n");
}

TEST_F(ToolTex, TheSourceIsNotOverwritten)
{
    const std::string in = make("in.tga", pictureOf(8, 8).bytes()), linked = m_dir / "linked.exr",
                      hard = m_dir / "hard.exr";
    ASSERT_EQ(tex(in, m_tif).exitCode, 0);
    fs::create_symlink(m_tif, linked);
    fs::create_hard_link(m_tif, hard);
    const Bytes before = readFile(m_tif);
    for (const std::string& out : { m_tif, linked, hard }) {
        const ProgramResult result = tex(m_tif, out);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.err, "rastkit: " + out + " is the source itself\n");
        EXPECT_TRUE(readFile(out) == before);
    }
}

TEST_F(ToolTex, AFullDiskEndsTheReading)
{
    // The source is damaged further on than it is read.
    Bytes cut = pictureOf(700, 400).bytes();
    cut.resize(cut.size() - 1000);
    const std::string in = make("in.tga", cut);
    const Arguments options { "--threads", "1", "--compression", "none" };
    EXPECT_EQ(
        tex(in, m_tif, options, 4096).err, "rastkit: " + m_tif + ": cannot be written: File too large\n");
    EXPECT_EQ(tex(in, m_tif, options).err,
        "rastkit: " + in + ": cannot be read: its pixels are cut short or damaged\n");
    EXPECT_EQ(countFiles(), 1u);
}

TEST_F(ToolTex, APipeIsNoTarget)
{
    const std::string in = make("in.tga", pictureOf(8, 8).bytes());
    ASSERT_EQ(mkfifo(m_exr.c_str(), 0600), 0);
    const int reader = open(m_exr.c_str(), O_RDONLY | O_NONBLOCK); // Else the tool might wait for one.
    const ProgramResult result = tex(in, m_exr);
    close(reader);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err,
        "rastkit: " + m_exr
            + ": cannot be written: a texture is not written from its beginning to its end, as a pipe needs "
              "it\n");
}

TEST_F(ToolTex, ThatOpenExrKeepsTheCurveIsSaidUnlessItIsMeant)
{
    const std::string in = make("in.tga", pictureOf(8, 8).bytes());
    EXPECT_NE(tex(in, m_exr).err.find("--to-linear"), std::string::npos);
    for (const Arguments& options :
        { Arguments { "--to-linear" }, Arguments { "--colour", "srgb" }, Arguments { "--colour", "linear" } })
        EXPECT_EQ(tex(in, m_exr, options).err, "");
    EXPECT_EQ(tex(m_exr, m_dir / "again.exr").err, "");
}

} // namespace
