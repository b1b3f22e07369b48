#include "qutils/raw/exr_file.h"

#include "support/raw_frame.h"
#include "support/run_program.h"
#include "support/temp_file.h"

#include <ImfBoxAttribute.h>
#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfStringAttribute.h>
#include <ImfThreading.h>
#include <ImfVecAttribute.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testing_support;
using QUtils::ErrorCode;
using QUtils::ExrFile;
using QUtils::RICameraInfo;
using QUtils::RIRegionInfo;
using QUtils::RISAMPLE_FLOAT;
using QUtils::RISAMPLE_HALF;
using QUtils::RISAMPLE_UINT;
using QUtils::RISceneInfo;

namespace {

constexpr int width = 37, height = 45;

/// A frame with one channel of each kind.
struct Scene {
    Scene()
    {
        channels.add("beauty", 1, RISAMPLE_FLOAT, 3);
        channels.add("alpha", 2, RISAMPLE_FLOAT, 1);
        channels.add("normals", 10, RISAMPLE_HALF, 3, 2);
        channels.add("depth", 11, RISAMPLE_FLOAT, 1, 3);
        channels.add("object", 12, RISAMPLE_UINT, 1);
        camera.valid = 1;
        camera.transform[3][1] = 2.5f;
        camera.projection = 3;
        camera.fNumber = 5.6f;
    }

    ErrorCode writeHeaders(ExrFile& file, const std::string& name)
    {
        char text[] = "a red ball";
        RISceneInfo scene { 17, text };
        EXPECT_EQ(file.Create(name.c_str(), nullptr).code(), 0);
        EXPECT_EQ(file.WriteHeader(bits).code(), 0);
        EXPECT_EQ(file.WTResolution(width, height, 2).code(), 0);
        EXPECT_EQ(file.WTRenderRegion(rendered).code(), 0);
        EXPECT_EQ(file.WTRegionsInfo(16, 8, 2).code(), 0);
        EXPECT_EQ(file.WTChannelInfo(channels.table()).code(), 0);
        EXPECT_EQ(file.WTCameraInfo(camera).code(), 0);
        return file.WTSceneInfo(scene);
    }

    RawChannels channels;
    RICameraInfo camera {};
    RIRegionInfo rendered {};
    int bits = 0;
};

/// One channel of a file, read by OpenEXR, as floats (or as integers' bits).
template <typename Sample>
std::vector<Sample> read(const std::string& file, const std::string& channel, Imf::PixelType type)
{
    Imf::InputFile input(file.c_str());
    const Imath::Box2i window = input.header().dataWindow();
    const int columns = window.max.x - window.min.x + 1, rows = window.max.y - window.min.y + 1;
    std::vector<Sample> samples(std::size_t(columns) * std::size_t(rows));
    Imf::FrameBuffer buffer;
    buffer.insert(channel, Imf::Slice::Make(type, samples.data(), window));
    input.setFrameBuffer(buffer);
    input.readPixels(window.min.y, window.max.y);
    return samples;
}

void expectNumbers(
    const std::string& file, const std::string& name, int channel, int component, const RIRegionInfo& region)
{
    const std::vector<float> samples = read<float>(file, name, Imf::FLOAT);
    std::size_t next = 0;
    for (int y = region.top; y < region.bottom; ++y)
        for (int x = region.left; x < region.right; ++x)
            ASSERT_EQ(samples.at(next++), RawFrameDouble::number(channel, x, y, component))
                << name << " at " << x << ", " << y;
    EXPECT_EQ(next, samples.size());
}

} // namespace

TEST(ExrFile, AllChannelsAreReadBackByTheirNames)
{
    for (const int bits : { 0, 16, 32 }) {
        const TempDir dir;
        const std::string name = dir / "a.exr";
        Scene scene;
        scene.bits = bits;
        const RIRegionInfo whole { 0, 0, width, height };
        RawFrameDouble frame(scene.channels, whole);
        ExrFile file(0);
        ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
        ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
        ASSERT_EQ(file.Close().code(), 0);

        expectNumbers(name, "R", 0, 0, whole);
        expectNumbers(name, "G", 0, 1, whole);
        expectNumbers(name, "B", 0, 2, whole);
        expectNumbers(name, "A", 1, 0, whole);
        expectNumbers(name, "normals.X", 2, 0, whole);
        expectNumbers(name, "normals.Z", 2, 2, whole);
        expectNumbers(name, "depth.Z", 3, 0, whole);
        const std::vector<unsigned> objects = read<unsigned>(name, "object", Imf::UINT);
        EXPECT_EQ(objects.at(5 * width + 7), RawFrameDouble::integer(4, 7, 5, 0));

        const Imf::InputFile input(name.c_str());
        const Imf::ChannelList& list = input.header().channels();
        EXPECT_EQ(list["R"].type, bits == 16 ? Imf::HALF : Imf::FLOAT);
        EXPECT_EQ(list["normals.X"].type, Imf::HALF);
        EXPECT_EQ(list["depth.Z"].type, Imf::FLOAT);
        EXPECT_EQ(list["object"].type, Imf::UINT);
        EXPECT_EQ(input.header().compression(), Imf::ZIP_COMPRESSION);
    }
}

TEST(ExrFile, TheHeaderHoldsWindowsCameraSceneAndRegions)
{
    const TempDir dir;
    const std::string name = dir / "a.exr";
    Scene scene;
    scene.rendered = { 5, 6, 30, 40 };
    RawFrameDouble frame(scene.channels, scene.rendered);
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
    ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);

    const Imf::InputFile input(name.c_str());
    const Imf::Header& header = input.header();
    EXPECT_EQ(header.displayWindow(), Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(width - 1, height - 1)));
    EXPECT_EQ(header.dataWindow(), Imath::Box2i(Imath::V2i(5, 6), Imath::V2i(29, 39)));
    EXPECT_EQ(header.pixelAspectRatio(), 2);
    EXPECT_EQ(header.typedAttribute<Imf::M44fAttribute>("cameraTransform").value()[3][1], 2.5f);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("cameraProjection").value(), 3);
    EXPECT_EQ(header.typedAttribute<Imf::FloatAttribute>("cameraFNumber").value(), 5.6f);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("sceneNumber").value(), 17);
    EXPECT_EQ(header.typedAttribute<Imf::StringAttribute>("sceneDescription").value(), "a red ball");
    EXPECT_EQ(header.typedAttribute<Imf::V2iAttribute>("regionSize").value(), Imath::V2i(16, 8));
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("regionType").value(), 2);
    expectNumbers(name, "B", 0, 2, scene.rendered);
}

TEST(ExrFile, WhatTheRegionDoesNotCoverIsZero)
{
    const TempDir dir;
    const std::string name = dir / "a.exr";
    Scene scene;
    RawFrameDouble frame(scene.channels, { -3, 10, 20, 30 });
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
    ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);
    const std::vector<float> red = read<float>(name, "R", Imf::FLOAT);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            ASSERT_EQ(red[std::size_t(y * width + x)],
                x < 20 && y >= 10 && y < 30 ? RawFrameDouble::number(0, x, y, 0) : 0)
                << x << ", " << y;
}

TEST(ExrFile, WithoutARegionEveryReaderStillFindsAllLines)
{
    const TempDir dir;
    const std::string name = dir / "a.exr";
    Scene scene;
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);
    EXPECT_TRUE(Imf::InputFile(name.c_str()).isComplete());
    for (const float sample : read<float>(name, "R", Imf::FLOAT))
        ASSERT_EQ(sample, 0);
}

TEST(ExrFile, AnEmptyChannelListIsABlackPicture)
{
    const TempDir dir;
    const std::string name = dir / "a.exr";
    Scene scene;
    scene.channels = RawChannels();
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
    ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    ASSERT_EQ(file.Close().code(), 0);
    const Imf::InputFile input(name.c_str());
    EXPECT_TRUE(input.isComplete());
    EXPECT_EQ(input.header().channels()["A"].type, Imf::HALF);
    for (const float sample : read<float>(name, "A", Imf::FLOAT))
        ASSERT_EQ(sample, 0);
}

TEST(ExrFile, EveryCompressionNumberIsUnderstood)
{
    for (int number = -1; number <= 12; ++number) {
        const TempDir dir;
        const std::string name = dir / "a.exr";
        Scene scene;
        scene.channels = RawChannels();
        scene.channels.add("beauty", 1, RISAMPLE_FLOAT, 4);
        RawFrameDouble frame(scene.channels, { 0, 0, width, height });
        ExrFile file(number);
        ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
        ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
        const Imf::InputFile input(name.c_str());
        EXPECT_EQ(int(input.header().compression()), number >= 1 && number <= 10 ? number - 1 : 3) << number;
        EXPECT_TRUE(input.isComplete());
    }
}

TEST(ExrFile, DataIsNeverCompressedWithLoss)
{
    const TempDir dir;
    const std::string name = dir / "a.exr";
    Scene scene;
    scene.channels.add("ids.R", 20, RISAMPLE_FLOAT, 1); // Called as a colour is, and not one.
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    ExrFile file(9); // DWAA
    ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
    ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_EQ(Imf::InputFile(name.c_str()).header().compression(), Imf::ZIP_COMPRESSION);
    expectNumbers(name, "ids.R", 5, 0, { 0, 0, width, height });
}

TEST(ExrFile, TheLinesAboveARefusedRowStay)
{
    for (const int threads : { 0, 2 }) {
        Imf::setGlobalThreadCount(threads);
        const TempDir dir;
        const std::string name = dir / "a.exr";
        Scene scene;
        RawFrameDouble frame(scene.channels, { 0, 0, width, height });
        frame.onRow = [](int channel, int y) { return channel != 3 || y != 35; };
        ExrFile file(2); // RLE: chunks of one line.
        ASSERT_EQ(scene.writeHeaders(file, name).code(), 0);
        const ErrorCode error = file.WTRegion(&frame, -1, 0, 0);
        EXPECT_NE(error.code(), 0);
        EXPECT_STREQ(error.message(), "row 35 was refused");

        Imf::InputFile input(name.c_str());
        EXPECT_FALSE(input.isComplete());
        std::vector<float> red(std::size_t(width) * 35);
        Imf::FrameBuffer buffer;
        buffer.insert("R", Imf::Slice::Make(Imf::FLOAT, red.data(), Imath::V2i(0, 0), width, 35));
        input.setFrameBuffer(buffer);
        input.readPixels(0, 34);
        EXPECT_EQ(red.back(), RawFrameDouble::number(0, width - 1, 34, 0));
    }
    Imf::setGlobalThreadCount(0);
}

TEST(ExrFile, ThreadsChangeNothing)
{
    const TempDir dir;
    Scene scene;
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    for (const int threads : { 0, 2 }) {
        Imf::setGlobalThreadCount(threads);
        ExrFile file(0);
        ASSERT_EQ(scene.writeHeaders(file, dir / std::to_string(threads)).code(), 0);
        ASSERT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
        ASSERT_EQ(file.Close().code(), 0);
    }
    Imf::setGlobalThreadCount(0);
    EXPECT_EQ(readFile(dir / "0"), readFile(dir / "2"));
}

TEST(ExrFile, WrongCallsAreErrorsThatSayWhatIsWrong)
{
    const TempDir dir;
    Scene scene;
    ExrFile early(0);
    EXPECT_NE(early.WTRenderRegion({ 0, 0, 5, 5 }).code(), 0);
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    EXPECT_NE(early.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_EQ(early.Close().code(), 0);

    ExrFile file(0);
    EXPECT_NE(file.Create("/no/such/folder/a.exr", nullptr).code(), 0);
    EXPECT_NE(file.Create(nullptr, nullptr).code(), 0);
    ASSERT_EQ(file.Create((dir / "a.exr").c_str(), nullptr).code(), 0);
    EXPECT_NE(file.Create((dir / "b.exr").c_str(), nullptr).code(), 0);
    EXPECT_NE(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    for (const auto& [w, h] : { std::pair(0, 5), std::pair(5, -1), std::pair(0x7FFFFFFF, 1) })
        EXPECT_NE(file.WTResolution(w, h, 1).code(), 0) << w << " x " << h;
    EXPECT_EQ(file.WTResolution(width, height, 0).code(), 0);
    for (const RIRegionInfo& region : { RIRegionInfo { 0, 0, width + 1, 5 }, RIRegionInfo { 5, 5, 5, 6 },
             RIRegionInfo { -1, 0, 5, 5 }, RIRegionInfo { 9, 9, 3, 3 } })
        EXPECT_NE(file.WTRenderRegion(region).code(), 0);

    RawChannels broken;
    broken.add("c", 1, RISAMPLE_FLOAT, 5);
    EXPECT_STREQ(file.WTChannelInfo(broken.table()).message(), "channel 0, \"c\", has 5 components");
    RawChannels unknown;
    unknown.add("c", 1, 3, 1);
    EXPECT_NE(file.WTChannelInfo(unknown.table()).code(), 0);
    QUtils::RegionChannelTable withNull;
    withNull.add(nullptr);
    EXPECT_NE(file.WTChannelInfo(&withNull).code(), 0);

    EXPECT_EQ(file.WTChannelInfo(scene.channels.table()).code(), 0);
    EXPECT_NE(file.WTRegion(nullptr, -1, 0, 0).code(), 0);
    EXPECT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_NE(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_EQ(file.Close().code(), 0);
}

TEST(ExrFile, AFullDiskFailsWithTheRegion)
{
    Scene scene;
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, "/dev/full").code(), 0);
    EXPECT_NE(file.WTRegion(&frame, -1, 0, 0).code(), 0);
}

TEST(ExrFile, ExceptionsOfTheRendererAreErrors)
{
    const TempDir dir;
    Scene scene;
    RawFrameDouble frame(scene.channels, { 0, 0, width, height });
    frame.onRow = [](int, int y) -> bool { return y < 9 ? true : throw std::runtime_error("lost"); };
    ExrFile file(0);
    ASSERT_EQ(scene.writeHeaders(file, dir / "a.exr").code(), 0);
    EXPECT_STREQ(file.WTRegion(&frame, -1, 0, 0).message(), "lost");
    frame.onRow = [](int, int) -> bool { throw 5; };
    ExrFile second(0);
    ASSERT_EQ(scene.writeHeaders(second, dir / "b.exr").code(), 0);
    EXPECT_NE(second.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_NE(second.Close().code(), 0);
}

namespace {

/// The path of another program, or an empty text where it is not installed.
std::string findProgram(const std::string& name)
{
    const std::string path = "/usr/bin/" + name;
    return access(path.c_str(), X_OK) == 0 ? path : std::string();
}

std::string writeScene(const TempDir& dir)
{
    const std::string name = dir / "a.exr";
    Scene scene;
    scene.rendered = { 5, 6, 30, 40 };
    RawFrameDouble frame(scene.channels, scene.rendered);
    ExrFile file(0);
    EXPECT_EQ(scene.writeHeaders(file, name).code(), 0);
    EXPECT_EQ(file.WTRegion(&frame, -1, 0, 0).code(), 0);
    EXPECT_EQ(file.Close().code(), 0);
    return name;
}

} // namespace

TEST(ExrFile, ExrheaderSeesChannelsAndWindows)
{
    const std::string program = findProgram("exrheader");
    if (program.empty())
        GTEST_SKIP() << "exrheader is not installed";
    const TempDir dir;
    const ProgramResult result = Program(program, { writeScene(dir) }).wait();
    EXPECT_EQ(result.exitCode, 0);
    for (const char* const line :
        { "    R, 32-bit floating-point", "    A, 32-bit floating-point",
            "    normals.X, 16-bit floating-point", "    depth.Z, 32-bit floating-point",
            "    object, 32-bit unsigned integer", "dataWindow (type box2i): (5 6) - (29 39)",
            "displayWindow (type box2i): (0 0) - (36 44)", "sceneDescription (type string): \"a red ball\"" })
        EXPECT_NE(result.out.find(line), std::string::npos) << line << " in\n" << result.out;
}

TEST(ExrFile, OpenImageIoSeesLayersWithThePictureFirst)
{
    const std::string program = findProgram("oiiotool");
    if (program.empty())
        GTEST_SKIP() << "oiiotool is not installed";
    const TempDir dir;
    const ProgramResult result = Program(program, { "--info", "-v", "--stats", writeScene(dir) }).wait();
    EXPECT_EQ(result.exitCode, 0);
    for (const char* const line :
        { "channel list: R (float), G (float), B (float), A (float), ", "full/display size: 37 x 45",
            "pixel data origin: x=5, y=6", "normals.X (half)", "object (uint)" })
        EXPECT_NE(result.out.find(line), std::string::npos) << line << " in\n" << result.out;
}
