#include "rastkit/exr/raw_output.h"

#include "qutils/raw/pstream.h"
#include "qutils/raw/ri_reader.h"
#include "rastkit/buffers.h"
#include "rastkit/load.h"
#include "rastkit/save.h"
#include "support/raw_frame.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace testing_support;
using QUtils::ErrorCode;

namespace {

/// A raw writer that notes the calls and fails at one of them.
class WriterDouble {
public:
    explicit WriterDouble(std::string failing = {}) : m_failing(std::move(failing)) { }

    ErrorCode Create(const char* name, QUtils::PStream* stream)
    {
        return note("Create", std::string(name) + (stream ? " stream" : ""));
    }
    ErrorCode WriteHeader(int bits) { return note("WriteHeader", std::to_string(bits)); }
    ErrorCode WTResolution(int width, int height, float aspect)
    {
        return note("WTResolution",
            std::to_string(width) + " " + std::to_string(height) + " " + std::to_string(int(aspect)));
    }
    ErrorCode WTRenderRegion(const QUtils::RIRegionInfo& region)
    {
        return note("WTRenderRegion", std::to_string(region.right));
    }
    ErrorCode WTRegionsInfo(int width, int height, int type)
    {
        return note("WTRegionsInfo",
            std::to_string(width) + " " + std::to_string(height) + " " + std::to_string(type));
    }
    ErrorCode WTChannelInfo(QUtils::RegionChannelTable* channels)
    {
        return note("WTChannelInfo", std::to_string(channels->count()));
    }
    ErrorCode WTCameraInfo(const QUtils::RICameraInfo& camera)
    {
        return note("WTCameraInfo", std::to_string(camera.projection));
    }
    ErrorCode WTSceneInfo(QUtils::RISceneInfo& scene) { return note("WTSceneInfo", scene.text); }
    ErrorCode WTRegion(QUtils::QURegionData* data, int index, int argument1, int argument2)
    {
        EXPECT_NE(data, nullptr);
        return note("WTRegion",
            std::to_string(index) + " " + std::to_string(argument1) + " " + std::to_string(argument2));
    }
    ErrorCode Close() { return note("Close", {}); }

    std::vector<std::string> calls;

private:
    ErrorCode note(const std::string& name, const std::string& arguments)
    {
        calls.push_back(arguments.empty() ? name : name + " " + arguments);
        return name == m_failing ? ErrorCode("WriterDouble", 99, "its own text") : ErrorCode();
    }

    std::string m_failing;
};

/// A writer plug-in whose raw settings describe a frame.
class RawOutput : public testing::Test {
protected:
    RawOutput()
    {
        channels.add("beauty", 1, QUtils::RISAMPLE_FLOAT, 4);
        channels.add("depth", 10, QUtils::RISAMPLE_FLOAT, 1, 3);
        char text[] = "scene";
        QUtils::RISceneInfo scene { 3, text };
        QUtils::RIRegionInfo region { 0, 0, 20, 10 };
        QUtils::RICameraInfo camera {};
        camera.projection = 7;
        settings().setRawImageBitsPerChannel(32);
        settings().setRawImageWidth(20);
        settings().setRawImageHeight(10);
        settings().setRawImagePixelAspect(1);
        settings().setRawImageRegionInfo(region);
        settings().setRawImageRegWidth(8);
        settings().setRawImageRegHeight(4);
        settings().setRawImageRegType(2);
        settings().setRawImageChannelList(channels.table());
        settings().setRawImageCameraInfo(camera);
        settings().setRawImageSceneInfo(scene);
        settings().setRawImageRegionData(&frame);
    }
    ~RawOutput() override
    {
        // The settings belong to the process.
        QUtils::RISceneInfo noScene {};
        QUtils::RIRegionInfo noRegion {};
        QUtils::RICameraInfo noCamera {};
        settings().setRawImageBitsPerChannel(0);
        settings().setRawImageWidth(0);
        settings().setRawImageHeight(0);
        settings().setRawImagePixelAspect(0);
        settings().setRawImageRegionInfo(noRegion);
        settings().setRawImageRegWidth(0);
        settings().setRawImageRegHeight(0);
        settings().setRawImageRegType(0);
        settings().setRawImageChannelList(nullptr);
        settings().setRawImageCameraInfo(noCamera);
        settings().setRawImageSceneInfo(noScene);
        settings().setRawImageRegionData(nullptr);
    }

    QUtils::RawImageSettingsInterface& settings()
    {
        return *static_cast<QUtils::RawImageSettingsInterface*>(
            writer->getPlugin()->newInterface(QUtils::RawImageSettingsInterface::interfaceId));
    }

    const std::unique_ptr<QUtils::ImageWriterInterface, void (*)(QUtils::ImageWriterInterface*)> writer {
        QUtils::newDefaultImageWriter(), QUtils::deleteDefaultImageWriter
    };
    RawChannels channels;
    RawFrameDouble frame { channels, { 0, 0, 20, 10 } };
    TempDir dir;
};

const std::vector<std::string> allCalls { "Create a.x", "WriteHeader 32", "WTResolution 20 10 1",
    "WTRenderRegion 20", "WTRegionsInfo 8 4 2", "WTChannelInfo 2", "WTCameraInfo 7", "WTSceneInfo scene",
    "WTRegion -1 0 0", "Close" };

} // namespace

TEST_F(RawOutput, TheWriterIsCalledInOrderWithTheSettings)
{
    WriterDouble file;
    EXPECT_EQ(QUtils::saveRawOutput(file, "SaveX", "a.x", settings()).code(), 0);
    EXPECT_EQ(file.calls, allCalls);
}

TEST_F(RawOutput, WithoutRegionDataOnlyTheHeadersAreWritten)
{
    settings().setRawImageRegionData(nullptr);
    WriterDouble file;
    EXPECT_EQ(QUtils::saveRawOutput(file, "SaveX", "a.x", settings()).code(), 0);
    std::vector<std::string> calls = allCalls;
    calls.erase(calls.end() - 2);
    EXPECT_EQ(file.calls, calls);
}

TEST_F(RawOutput, AFailingCallEndsItWithItsOwnCodeAndText)
{
    const struct {
        const char* call;
        int code;
        const char* text;
        std::size_t calls;
    } rows[] = {
        { "Create", -3, "Error creating image file \"a.x\".", 1 },
        { "WriteHeader", -3, "Error writing header.", 2 },
        { "WTResolution", -3, "Error writing resolution.", 3 },
        { "WTRenderRegion", -3, "Error writing render region info.", 4 },
        { "WTRegionsInfo", -3, "Error writing tile info.", 5 },
        { "WTChannelInfo", -4, "Error writing channel list.", 6 },
        { "WTCameraInfo", -5, "Error writing camera information.", 7 },
        { "WTSceneInfo", -3, "Error writing scene info.", 8 },
        { "WTRegion", -4, "Error writing render region to raw image file.", 9 },
    };
    for (const auto& row : rows) {
        WriterDouble file(row.call);
        const ImgError error = QUtils::saveRawOutput(file, "SaveX", "a.x", settings());
        EXPECT_EQ(error.code(), row.code) << row.call;
        EXPECT_STREQ(error.message(), row.text);
        EXPECT_STREQ(error.function(), "SaveX");
        EXPECT_EQ(file.calls.size(), row.calls) << row.call;
    }
}

TEST_F(RawOutput, AFailingCloseIsIgnored)
{
    WriterDouble file("Close");
    EXPECT_EQ(QUtils::saveRawOutput(file, "SaveX", "a.x", settings()).code(), 0);
}

TEST_F(RawOutput, AQuimgHoldsEverySample)
{
    const std::string name = dir / "a.quimg";
    ASSERT_EQ(SaveQUIMGFile(name.c_str(), &settings()).code(), 0);
    QUtils::RIReader reader;
    ASSERT_EQ(reader.Open(name.c_str()).code(), 0);
    EXPECT_TRUE(reader.isClosed());
    EXPECT_EQ(reader.countMissingRegions(), 0);
    EXPECT_EQ(reader.getNumRegions(), 9);
    EXPECT_EQ(reader.header().camera.valid, 0);
    EXPECT_STREQ(reader.header().sceneText.c_str(), "scene");
    std::vector<float> depth(20 * 10);
    ASSERT_EQ(reader.readPixels(1, { 0, 0, 20, 10 }, depth.data(), 20 * sizeof(float)).code(), 0);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 20; ++x)
            ASSERT_EQ(depth[std::size_t(y * 20 + x)], RawFrameDouble::number(1, x, y, 0));
}

TEST_F(RawOutput, AnOpenExrFileHoldsEverySample)
{
    const std::string name = dir / "a.exr";
    ASSERT_EQ(SaveEXRFile(name.c_str(), &settings()).code(), 0);
    QUtils::ImageF image;
    ASSERT_EQ(LoadEXRFile(name.c_str(), image, nullptr).code(), 0);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 20; ++x)
            for (int i = 0; i < 4; ++i)
                ASSERT_EQ(image.row(y)[4 * x + i], RawFrameDouble::number(0, x, y, i));
}

TEST_F(RawOutput, FilesWithHeadersOnlyAreNoError)
{
    settings().setRawImageRegionData(nullptr);
    ASSERT_EQ(SaveQUIMGFile((dir / "a.quimg").c_str(), &settings()).code(), 0);
    QUtils::RIReader reader;
    ASSERT_EQ(reader.Open((dir / "a.quimg").c_str()).code(), 0);
    EXPECT_EQ(reader.countMissingRegions(), 9);
    ASSERT_EQ(SaveEXRFile((dir / "a.exr").c_str(), &settings()).code(), 0);
    QUtils::ImageF image;
    EXPECT_EQ(LoadEXRFile((dir / "a.exr").c_str(), image, nullptr).code(), 0);
}

TEST_F(RawOutput, AFolderThatIsMissingIsToldWithTheName)
{
    const std::string name = dir / "none/a.quimg";
    const ImgError error = SaveQUIMGFile(name.c_str(), &settings());
    EXPECT_EQ(error.code(), -3);
    EXPECT_EQ(error.message(), "Error creating image file \"" + name + "\".");
    EXPECT_STREQ(error.function(), "SaveQUIMGFile");
    EXPECT_EQ(SaveEXRFile((dir / "none/a.exr").c_str(), &settings()).code(), -3);
    EXPECT_STREQ(SaveEXRFile((dir / "none/a.exr").c_str(), &settings()).function(), "SaveEXRFile");
}

TEST_F(RawOutput, AFullDiskFailsWithTheRegion)
{
    const ImgError error = SaveEXRFile("/dev/full", &settings());
    EXPECT_EQ(error.code(), -4);
    EXPECT_STREQ(error.message(), "Error writing render region to raw image file.");
}

TEST_F(RawOutput, ARefusedRegionIsAnErrorAndTheOthersAreInTheFile)
{
    const std::string name = dir / "a.quimg";
    frame.onRow = [](int, int y) { return y != 5; }; // Of the second row of regions.
    EXPECT_EQ(SaveQUIMGFile(name.c_str(), &settings()).code(), -4);
    QUtils::RIReader reader;
    ASSERT_EQ(reader.Open(name.c_str()).code(), 0);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(reader.isRegionDone(i), i / 3 != 1) << i;
}

TEST_F(RawOutput, TheDispatcherPicksByTheNameAndAddsTheFrame)
{
    for (const char* name : { "a.quimg", "b.EXR" })
        ASSERT_EQ(
            SaveImageFile_multiChannel((dir / name).c_str(), &settings(), nullptr, true, 7, 4).code(), 0);
    EXPECT_TRUE(std::filesystem::exists(dir / "a.0007.quimg"));
    EXPECT_TRUE(std::filesystem::exists(dir / "b.0007.EXR"));
}

TEST_F(RawOutput, TheWriterTakesItsOwnSettings)
{
    QUtils::FrameBuffer unused(1, 1);
    ASSERT_EQ(writer->writeImage((dir / "f.quimg").c_str(), 2, &unused, 0, 1).code(), 0);
    ASSERT_EQ(writer->writeImage((dir / "f.exr").c_str(), 2, &unused, 0x100, 1).code(), 0);
    QUtils::RIReader reader;
    EXPECT_EQ(reader.Open((dir / "f.quimg").c_str()).code(), 0);
    IMGINFO info {};
    ASSERT_EQ(LoadEXRHeader((dir / "f.exr").c_str(), &info).code(), 0);
    EXPECT_EQ(info.width, 20); // The settings', not the frame's.
}
