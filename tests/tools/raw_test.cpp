#include "support/raw_frame.h"
#include "support/run_program.h"

#include "qutils/raw/ri_file.h"
#include "rastkit/buffers.h"
#include "rastkit/load.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace testing_support;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr int width = 20, height = 10; // 3 x 3 regions.

/// A quimg of 3 x 3 regions, of which one may be missing.
class ToolRaw : public testing::Test {
protected:
    ToolRaw()
    {
        channels.add("beauty", 1, QUtils::RISAMPLE_FLOAT, 3);
        channels.add("alpha", 2, QUtils::RISAMPLE_FLOAT, 1);
        channels.add("normals", 10, QUtils::RISAMPLE_HALF, 3, 2);
        channels.add("object", 12, QUtils::RISAMPLE_UINT, 1);
    }

    std::string make(bool isComplete)
    {
        const std::string name = m_dir / "frame.quimg";
        RawFrameDouble frame(channels, { 0, 0, width, rows });
        RawFrameDouble part(channels, { 0, 0, width, 8 });
        char text[] = "a red ball";
        RISceneInfo scene { 17, text };
        RIFile file;
        EXPECT_EQ(file.Create(name.c_str(), nullptr).code(), 0);
        EXPECT_EQ(file.WriteHeader(0).code(), 0);
        EXPECT_EQ(file.WTResolution(width, rows, 1).code(), 0);
        EXPECT_EQ(file.WTRenderRegion({}).code(), 0);
        EXPECT_EQ(file.WTRegionsInfo(8, 4, 0).code(), 0);
        EXPECT_EQ(file.WTChannelInfo(channels.table()).code(), 0);
        EXPECT_EQ(file.WTSceneInfo(scene).code(), 0);
        EXPECT_EQ(file.WTRegion(isComplete ? &frame : &part, -1, 0, 0).code(), 0);
        EXPECT_EQ(file.Close().code(), 0);
        return name;
    }

    RawChannels channels;
    int rows = height;
    TempDir m_dir;
};

/// One channel of an OpenEXR file as floats.
std::vector<float> readExr(const std::string& name, const char* channel)
{
    Imf::InputFile input(name.c_str());
    const Imath::Box2i window = input.header().dataWindow();
    std::vector<float> samples(
        std::size_t(window.max.x - window.min.x + 1) * std::size_t(window.max.y - window.min.y + 1));
    Imf::FrameBuffer buffer;
    buffer.insert(channel, Imf::Slice::Make(Imf::FLOAT, samples.data(), window));
    input.setFrameBuffer(buffer);
    input.readPixels(window.min.y, window.max.y);
    return samples;
}

} // namespace

TEST_F(ToolRaw, InfoTellsFrameRegionsAndChannels)
{
    const std::string name = make(true);
    const ProgramResult result = runTool({ "raw", "info", name });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out,
        name
            + ": quimg, 20 x 10, rendered (0, 0) to (20, 10), 9 of 9 regions done\n"
              "  scene 17: a red ball\n"
              "  beauty: 3 x float, colour, id 1\n"
              "  alpha: 1 x float, data, id 2\n"
              "  normals: 3 x half, vector, id 10\n"
              "  object: 1 x uint, data, id 12\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(ToolRaw, InfoAsJsonHoldsTheSame)
{
    const std::string name = make(false);
    const ProgramResult result = runTool({ "raw", "info", "--json", name });
    EXPECT_EQ(result.exitCode, 0);
    const json list = json::parse(result.out);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["width"], width);
    EXPECT_EQ(list[0]["regions"],
        json({ { "width", 8 }, { "height", 4 }, { "type", 0 }, { "count", 9 }, { "missing", 3 } }));
    EXPECT_EQ(list[0]["channels"][2],
        json({ { "name", "normals" }, { "id", 10 }, { "samples", "half" }, { "components", 3 },
            { "kind", "vector" } }));
    EXPECT_EQ(list[0]["description"], "a red ball");
    EXPECT_EQ(list[0]["closed"], true);
}

TEST_F(ToolRaw, WhatIsNoQuimgIsAnErrorAndTheOthersAreStillShown)
{
    const std::string bad = m_dir / "bad.quimg";
    writeFile(bad, Bytes(100, 7));
    const ProgramResult result = runTool({ "raw", "info", bad, m_dir / "missing.quimg", make(true) });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.err.find("bad.quimg: cannot be read"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("missing.quimg: cannot be read"), std::string::npos) << result.err;
    EXPECT_NE(result.out.find("9 of 9"), std::string::npos);
    EXPECT_EQ(runTool({ "raw", "resume-map", bad }).exitCode, 3);
    EXPECT_EQ(runTool({ "raw", "convert", bad, m_dir / "a.exr" }).exitCode, 3);
    EXPECT_FALSE(fs::exists(m_dir / "a.exr"));
    EXPECT_EQ(runTool({ "raw", "convert", make(true), m_dir / "a.xyz" }).exitCode, 2);
    EXPECT_EQ(runTool({ "raw" }).exitCode, 2);
}

TEST_F(ToolRaw, ResumeMapShowsWhatIsMissingAndAnswersNoThen)
{
    const std::string name = make(false);
    const ProgramResult part = runTool({ "raw", "resume-map", name });
    EXPECT_EQ(part.exitCode, 1);
    EXPECT_EQ(part.out, name + ": 6 of 9 regions done\n###\n###\n...\n");
    const json map = json::parse(runTool({ "raw", "resume-map", "--json", name }).out);
    EXPECT_EQ(map["columns"], 3);
    EXPECT_EQ(map["missing"][0], json({ { "left", 0 }, { "top", 8 }, { "right", 8 }, { "bottom", 10 } }));
    EXPECT_EQ(map["missing"].size(), 3u);

    const ProgramResult whole = runTool({ "raw", "resume-map", make(true) });
    EXPECT_EQ(whole.exitCode, 0);
    EXPECT_EQ(whole.out, name + ": 9 of 9 regions done\n###\n###\n###\n");
}

TEST_F(ToolRaw, ConvertsToOneOpenExrFileWithAllChannels)
{
    const std::string out = m_dir / "frame.exr";
    const ProgramResult result = runTool({ "raw", "convert", make(true), out });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::vector<float> green = readExr(out, "G"), normals = readExr(out, "normals.Y"),
                             alpha = readExr(out, "A");
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const std::size_t i = std::size_t(y * width + x);
            ASSERT_EQ(green[i], RawFrameDouble::number(0, x, y, 1));
            ASSERT_EQ(alpha[i], RawFrameDouble::number(1, x, y, 0));
            ASSERT_EQ(normals[i], RawFrameDouble::number(2, x, y, 1));
        }
    EXPECT_EQ(Imf::InputFile(out.c_str()).header().channels()["object"].type, Imf::UINT);
}

TEST_F(ToolRaw, MissingRegionsAreZeroAndTheAnswerIsNo)
{
    const std::string out = m_dir / "frame.exr";
    const ProgramResult result = runTool({ "raw", "convert", make(false), out });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("6 of 9 regions are there; the others are zero"), std::string::npos)
        << result.err;
    const std::vector<float> red = readExr(out, "R");
    EXPECT_EQ(red[7 * width + 3], RawFrameDouble::number(0, 3, 7, 0));
    EXPECT_EQ(red[8 * width + 3], 0);
}

TEST_F(ToolRaw, OtherFormatsGetAFileForEachChannel)
{
    ASSERT_EQ(runTool({ "raw", "convert", make(true), m_dir / "out.tif" }).exitCode, 0);
    for (const char* name : { "out.tif", "out_alpha.tif", "out_normals.tif", "out_object.tif" })
        EXPECT_TRUE(fs::exists(m_dir / name)) << name;
    QUtils::ImageF picture, objects;
    ASSERT_EQ(LoadImageFile((m_dir / "out.tif").c_str(), picture, nullptr).code(), 0);
    const float* const pixel = picture.row(3) + 5 * 4;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(pixel[i], RawFrameDouble::number(0, 5, 3, i));
    EXPECT_EQ(pixel[3], RawFrameDouble::number(1, 5, 3, 0)); // The alpha channel's.
    ASSERT_EQ(LoadImageFile((m_dir / "out_object.tif").c_str(), objects, nullptr).code(), 0);
    EXPECT_EQ(objects.row(3)[5 * 4], float(RawFrameDouble::integer(3, 5, 3, 0)));
}

TEST_F(ToolRaw, FoldersAreMadeWhereTheyAreAskedFor)
{
    ASSERT_EQ(runTool({ "raw", "convert", "--folders", make(true), m_dir / "out.png" }).exitCode, 0);
    for (const char* name : { "out.png", "alpha/out_alpha.png", "object/out_object.png" })
        EXPECT_TRUE(fs::exists(m_dir / name)) << name;
}

TEST_F(ToolRaw, ChannelsOfOneNameDoNotReplaceEachOther)
{
    channels.add("normals", 20, QUtils::RISAMPLE_FLOAT, 3, 2);
    channels.add("second", 126, QUtils::RISAMPLE_FLOAT, 3);
    channels.add("normals", 21, QUtils::RISAMPLE_FLOAT, 3, 2);
    ASSERT_EQ(runTool({ "raw", "convert", make(true), m_dir / "out.png" }).exitCode, 0);
    for (const char* name :
        { "out.png", "out_second.png", "out_normals.png", "out_normals_2.png", "out_normals_3.png" })
        EXPECT_TRUE(fs::exists(m_dir / name)) << name;
}

TEST_F(ToolRaw, NamesOfAFileNeverLeadOutOfTheFolder)
{
    channels.add("../../escaped/x", 20, QUtils::RISAMPLE_FLOAT, 1);
    channels.add("..", 21, QUtils::RISAMPLE_FLOAT, 1);
    const std::string long_ = std::string(300, 'a') + "/";
    channels.add(long_, 22, QUtils::RISAMPLE_FLOAT, 1);
    channels.add(long_, 23, QUtils::RISAMPLE_FLOAT, 1);
    fs::create_directories(m_dir / "o/p");
    ASSERT_EQ(runTool({ "raw", "convert", "--folders", make(true), m_dir / "o/p/out.png" }).exitCode, 0);
    int files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(m_dir.path()))
        if (entry.is_regular_file() && entry.path().extension() == ".png") {
            EXPECT_EQ(entry.path().string().find(m_dir / "o/p/"), 0u) << entry.path();
            ++files;
        }
    EXPECT_EQ(files, 8);
}

TEST_F(ToolRaw, ADamagedRegionDoesNotHideTheOthers)
{
    channels.add("depth", 20, QUtils::RISAMPLE_FLOAT, 1, 3);
    const std::string name = make(true);
    Bytes bytes = readFile(name);
    const std::string text(bytes.begin(), bytes.end());
    const std::size_t second = text.find("REGN", text.find("REGN") + 1);
    bytes[second - 30] ^= 0xFF; // The last bytes of the first region.
    writeFile(name, bytes);
    EXPECT_EQ(runTool({ "raw", "resume-map", name }).out, name + ": 8 of 9 regions done\n.##\n###\n###\n");
    for (const char* const out : { "out.tif", "out.exr" }) {
        const ProgramResult result = runTool({ "raw", "convert", name, m_dir / out });
        EXPECT_EQ(result.exitCode, 1) << out;
        EXPECT_NE(result.err.find("is damaged"), std::string::npos) << result.err;
    }
    QUtils::ImageF depth;
    ASSERT_EQ(LoadImageFile((m_dir / "out_depth.tif").c_str(), depth, nullptr).code(), 0);
    EXPECT_EQ(depth.row(0)[0], 0);
    EXPECT_EQ(depth.row(9)[19 * 4], RawFrameDouble::number(4, 19, 9, 0));
    EXPECT_EQ(readExr(m_dir / "out.exr", "depth.Z")[9 * width + 19], RawFrameDouble::number(4, 19, 9, 0));
}

TEST_F(ToolRaw, ControlCharactersOfAFileDoNotReachTheTerminal)
{
    channels.add("a\x1B[31mb", 20, QUtils::RISAMPLE_FLOAT, 1);
    const ProgramResult result = runTool({ "raw", "info", make(true) });
    EXPECT_NE(result.out.find("a?[31mb"), std::string::npos) << result.out;
}

TEST_F(ToolRaw, AFailedConversionLeavesTheOldFile)
{
    const std::string out = m_dir / "frame.exr";
    writeFile(out, Bytes(10, 1));
    const std::string name = make(true);
    constexpr rlim_t mostBytes = 1000;
    const ProgramResult result = Program(RASTKIT_PROGRAM, { "raw", "convert", name, out }, mostBytes).wait();
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(readFile(out), Bytes(10, 1));
    int files = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(m_dir.path()))
        ++files;
    EXPECT_EQ(files, 2); // The quimg and the old file: no litter.
}

TEST_F(ToolRaw, ThreadsChangeNothing)
{
    rows = 200; // Work for several.
    const std::string name = make(true);
    setenv("RASTKIT_THREADS", "1", 1);
    ASSERT_EQ(runTool({ "raw", "convert", name, m_dir / "1.exr" }).exitCode, 0);
    setenv("RASTKIT_THREADS", "3", 1);
    ASSERT_EQ(runTool({ "raw", "convert", name, m_dir / "3.exr" }).exitCode, 0);
    unsetenv("RASTKIT_THREADS");
    EXPECT_EQ(readFile(m_dir / "1.exr"), readFile(m_dir / "3.exr"));
}
