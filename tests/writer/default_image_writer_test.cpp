#include "rastkit/writer.h"

#include "rastkit/formats.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

using namespace testing_support;
using namespace QUtils;
namespace fs = std::filesystem;

struct DeleteWriter {
    void operator()(ImageWriterInterface* writer) const { deleteDefaultImageWriter(writer); }
};
using Writer = std::unique_ptr<ImageWriterInterface, DeleteWriter>;

Writer newWriter()
{
    return Writer(newDefaultImageWriter());
}

template <typename Interface> Interface* ask(const Writer& writer)
{
    return static_cast<Interface*>(writer->getPlugin()->newInterface(Interface::interfaceId));
}

/// Sets an environment variable for one test; null unsets it.
class Environment {
public:
    explicit Environment(const char* value)
    {
        if (value)
            setenv("QUOR_WRITE_COLOR_CORRECTIONS", value, 1);
        else
            unsetenv("QUOR_WRITE_COLOR_CORRECTIONS");
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { unsetenv("QUOR_WRITE_COLOR_CORRECTIONS"); }
};

TEST(ImageWriter, EachOfTheTenInterfacesAnswersToItsNumber)
{
    const struct {
        unsigned long id;
        const char* name;
    } expected[] = {
        { 0x7783b786, "EXT_IMAGE_WRITER_INTERFACE" },
        { 0x77a0b501, "EXT_EXRSETTINGS" },
        { 0x77a1f105, "EXT_IMAGE_WRITER_FILENAME_FORMAT" },
        { 0x77a2174d, "EXT_PNGSETTINGS" },
        { 0x77a21751, "EXT_JPEGSETTINGS" },
        { 0x77afd612, "EXT_TIFFSETTINGS" },
        { 0x77cef08e, "EXT_SGISETTINGS" },
        { 0x77cf6a09, "EXT_RAW_IMAGE_SETTINGS" },
        { 0x77cfdbb5, "EXT_TGASETTINGS" },
        { 0x780cbda5, "EXT_COLOR_CORRECTION_SETTINGS" },
    };
    const Writer writer = newWriter();
    PluginBase* const plugin = writer->getPlugin();
    for (const auto& row : expected) {
        PluginInterface* const found = plugin->newInterface(row.id);
        ASSERT_NE(found, nullptr) << row.name;
        EXPECT_EQ(found->getInterfaceID(), row.id);
        EXPECT_STREQ(found->getInterfaceName(), row.name);
        EXPECT_EQ(found->getPlugin(), plugin);
    }
    EXPECT_EQ(plugin->newInterface(0x12345678), nullptr);
}

TEST(ImageWriter, OtherNumbersGoToTheRegisteredInterfaces)
{
    FrameDouble frame(1, 1);
    CorrectingPlugin extension(frame);
    const Writer writer = newWriter();
    PluginBase* const plugin = writer->getPlugin();
    plugin->addInterface(static_cast<ColorCorrectedPixelsInterface*>(&extension), 0);
    EXPECT_EQ(plugin->newInterface(ColorCorrectedPixelsInterface::interfaceId),
        static_cast<ColorCorrectedPixelsInterface*>(&extension));
}

TEST(ImageWriter, HandingBackAnInterfaceLeavesTheWriterAlone)
{
    const Writer writer = newWriter();
    JpegSettingsInterface* const jpeg = ask<JpegSettingsInterface>(writer);
    jpeg->deleteInterface();
    EXPECT_EQ(ask<JpegSettingsInterface>(writer), jpeg);
}

/// Tells when it is deleted.
class WatchedInterface : public PluginInterface {
public:
    explicit WatchedInterface(bool& deleted) : m_deleted(deleted) { }
    ~WatchedInterface() override { m_deleted = true; }
    unsigned long getInterfaceID() override { return 1; }
    PluginBase* getPlugin() override { return nullptr; }

private:
    bool& m_deleted;
};

TEST(ImageWriter, DeletingAnyInterfaceDeletesTheWholeObject)
{
    // Seen through an owned interface of the object, which dies with it.
    bool deleted = false;
    ImageWriterInterface* const writer = newDefaultImageWriter();
    writer->getPlugin()->addInterface(new WatchedInterface(deleted), 1);
    PluginInterface* const late = writer->getPlugin()->newInterface(SgiSettingsInterface::interfaceId);
    EXPECT_FALSE(deleted);
    delete late;
    EXPECT_TRUE(deleted);
    deleteDefaultImageWriter(nullptr);
}

TEST(ImageWriter, ListsTheElevenFormats)
{
    const Writer writer = newWriter();
    EXPECT_EQ(writer->getNumFileFormats(), 11);
    FileFormatInfo info {};
    ASSERT_EQ(writer->getFileFormatInfo(4, info), 1);
    EXPECT_STREQ(info.extensions, "sgi;rgb;rgba");
    EXPECT_STREQ(info.description, "Silicon Graphics (*.sgi *.rgb *.rgba)");
    EXPECT_EQ(writer->getFileFormatInfo(11, info), 0);
    EXPECT_EQ(writer->getFileFormatInfo(-1, info), 0);
    EXPECT_STREQ(info.extensions, "sgi;rgb;rgba");
}

TEST(ImageWriter, SettingsOfFormatsAreProcessWideAndOutliveTheWriter)
{
    {
        const Writer first = newWriter();
        ask<JpegSettingsInterface>(first)->setJpegQuality(40);
        ask<PngSettingsInterface>(first)->setPngBitsPerChannel(-3); // Kept as given: no range is checked.
    }
    const Writer second = newWriter();
    EXPECT_EQ(ask<JpegSettingsInterface>(second)->getJpegQuality(), 40);
    EXPECT_EQ(ask<PngSettingsInterface>(second)->getPngBitsPerChannel(), -3);
    ask<JpegSettingsInterface>(second)->setJpegQuality(85);
    ask<PngSettingsInterface>(second)->setPngBitsPerChannel(8);
}

TEST(ImageWriter, SettingsStartWithTheirDefaults)
{
    const Writer writer = newWriter();
    EXPECT_EQ(ask<PngSettingsInterface>(writer)->getPngCompressionLevel(), 5);
    EXPECT_EQ(ask<PngSettingsInterface>(writer)->getPngBitsPerChannel(), 8);
    EXPECT_EQ(ask<JpegSettingsInterface>(writer)->getJpegQuality(), 85);
    EXPECT_EQ(ask<TiffSettingsInterface>(writer)->getTiffBitsPerChannel(), 8);
    EXPECT_EQ(ask<TiffSettingsInterface>(writer)->getTiffInterleaved(), 0);
    EXPECT_EQ(ask<SgiSettingsInterface>(writer)->getSgiBitsPerChannel(), 8);
    EXPECT_EQ(tgaCompression, 2);
    ExrSettingsInterface* const exr = ask<ExrSettingsInterface>(writer);
    EXPECT_EQ(exr->getExrCompressionType(), 0);
    EXPECT_EQ(exr->getExrBitsPerChannel(), 32);
    EXPECT_TRUE(exr->getExrExtraAttributes().empty());
    EXPECT_EQ(exr->getCameraInfo().valid, 0);
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    EXPECT_EQ(raw->getRawImageWidth(), 0);
    EXPECT_EQ(raw->getRawImagePixelAspect(), 0.0f);
    EXPECT_EQ(raw->getRawImageRegionData(), nullptr);
    EXPECT_EQ(raw->getRawImageChannelList()->count(), 0);
    EXPECT_EQ(raw->getRawImageSceneInfo().text, nullptr);
}

TEST(ImageWriter, EverySimpleSettingReachesItsVariable)
{
    const Writer writer = newWriter();
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    const struct {
        void (RawImageSettingsInterface::*set)(int);
        int (RawImageSettingsInterface::*get)();
        int* variable;
    } raws[] = {
        { &RawImageSettingsInterface::setRawImageBitsPerChannel,
            &RawImageSettingsInterface::getRawImageBitsPerChannel, &rawImageBitsPerChannel },
        { &RawImageSettingsInterface::setRawImageWidth, &RawImageSettingsInterface::getRawImageWidth,
            &rawImageWidth },
        { &RawImageSettingsInterface::setRawImageHeight, &RawImageSettingsInterface::getRawImageHeight,
            &rawImageHeight },
        { &RawImageSettingsInterface::setRawImageRegWidth, &RawImageSettingsInterface::getRawImageRegWidth,
            &rawImageRegWidth },
        { &RawImageSettingsInterface::setRawImageRegHeight, &RawImageSettingsInterface::getRawImageRegHeight,
            &rawImageRegHeight },
        { &RawImageSettingsInterface::setRawImageRegType, &RawImageSettingsInterface::getRawImageRegType,
            &rawImageRegType },
    };
    int value = 1000;
    for (const auto& row : raws)
        (raw->*row.set)(++value);
    value = 1000;
    for (const auto& row : raws) {
        EXPECT_EQ((raw->*row.get)(), ++value);
        EXPECT_EQ(*row.variable, value);
        *row.variable = 0;
    }
    raw->setRawImagePixelAspect(1.5f);
    EXPECT_EQ(raw->getRawImagePixelAspect(), 1.5f);
    raw->setRawImagePixelAspect(0);
}

TEST(ImageWriter, EachFormatSettingReachesItsVariableAlone)
{
    const Writer writer = newWriter();
    ExrSettingsInterface* const exr = ask<ExrSettingsInterface>(writer);
    PngSettingsInterface* const png = ask<PngSettingsInterface>(writer);
    TiffSettingsInterface* const tiff = ask<TiffSettingsInterface>(writer);
    exr->setExrCompressionType(11);
    exr->setExrBitsPerChannel(12);
    png->setPngCompressionLevel(13);
    png->setPngBitsPerChannel(14);
    ask<JpegSettingsInterface>(writer)->setJpegQuality(15);
    tiff->setTiffBitsPerChannel(16);
    tiff->setTiffInterleaved(17);
    ask<SgiSettingsInterface>(writer)->setSgiBitsPerChannel(18);
    ask<TgaSettingsInterface>(writer)->setTgaCompression(19);
    const std::vector<int> variables { exrCompressionType, exrBitsPerChannel, pngCompression,
        pngBitsPerChannel, jpegQuality, tiffBitsPerChannel, tiffInterleaved, sgiBitsPerChannel,
        tgaCompression };
    EXPECT_EQ(variables, (std::vector { 11, 12, 13, 14, 15, 16, 17, 18, 19 }));
    const std::vector<int> answers { exr->getExrCompressionType(), exr->getExrBitsPerChannel(),
        png->getPngCompressionLevel(), png->getPngBitsPerChannel(),
        ask<JpegSettingsInterface>(writer)->getJpegQuality(), tiff->getTiffBitsPerChannel(),
        tiff->getTiffInterleaved(), ask<SgiSettingsInterface>(writer)->getSgiBitsPerChannel() };
    EXPECT_EQ(answers, (std::vector { 11, 12, 13, 14, 15, 16, 17, 18 }));

    exrCompressionType = 0, exrBitsPerChannel = 32, pngCompression = 5, pngBitsPerChannel = 8;
    jpegQuality = 85, tiffBitsPerChannel = 8, tiffInterleaved = 0, sgiBitsPerChannel = 8, tgaCompression = 2;
}

class NoRegions : public QURegionData {
public:
    RIRegionInfo getRegion() override { return {}; }
    const void* getRow(int, int) override { return nullptr; }
};

TEST(ImageWriter, RecordsAreReadInPlace)
{
    const Writer writer = newWriter();
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    EXPECT_EQ(&raw->getRawImageRegionInfo(), &rawImageRegionInfo);
    EXPECT_EQ(&raw->getRawImageCameraInfo(), &rawImageCameraInfo);
    EXPECT_EQ(&raw->getRawImageSceneInfo(), &rawImageSceneInfo);
    EXPECT_EQ(raw->getRawImageChannelList(), &rawImageChannelList);
    NoRegions regions;
    raw->setRawImageRegionData(&regions);
    EXPECT_EQ(raw->getRawImageRegionData(), &regions);
    raw->setRawImageRegionData(nullptr);
    EXPECT_EQ(raw->getRawImageRegionData(), nullptr);
}

TEST(ImageWriter, ExtraAttributesShareTheCallersText)
{
    const Writer writer = newWriter();
    ExrSettingsInterface* const exr = ask<ExrSettingsInterface>(writer);
    CharString text("owner=me");
    exr->setExrExtraAttributes(text);
    EXPECT_TRUE(exr->getExrExtraAttributes().sharesStorageWith(text));
    CharString none;
    exr->setExrExtraAttributes(none);
    EXPECT_TRUE(exr->getExrExtraAttributes().empty());
    EXPECT_STREQ(text.c_str(), "owner=me");
}

TEST(ImageWriter, RecordsAreCopiedWhole)
{
    const Writer writer = newWriter();
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    ExrSettingsInterface* const exr = ask<ExrSettingsInterface>(writer);
    CameraInfo camera {};
    camera.valid = 1;
    camera.fNumber = 2.8f;
    exr->setCameraInfo(camera);
    camera.fNumber = 0;
    EXPECT_EQ(exr->getCameraInfo().fNumber, 2.8f);
    exr->setCameraInfo(CameraInfo {});

    RIRegionInfo region { 1, 2, 3, 4 };
    raw->setRawImageRegionInfo(region);
    EXPECT_EQ(raw->getRawImageRegionInfo().bottom, 4);
    EXPECT_EQ(&raw->getRawImageRegionInfo(), &rawImageRegionInfo);
    RIRegionInfo noRegion {};
    raw->setRawImageRegionInfo(noRegion);

    RICameraInfo rawCamera {};
    rawCamera.transform[3][2] = 5;
    raw->setRawImageCameraInfo(rawCamera);
    EXPECT_EQ(raw->getRawImageCameraInfo().transform[3][2], 5.0f);
    RICameraInfo noCamera {};
    raw->setRawImageCameraInfo(noCamera);
}

TEST(ImageWriter, SceneTextIsCopiedAndReplaced)
{
    const Writer writer = newWriter();
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    char text[] = "a scene";
    RISceneInfo scene { 7, text };
    raw->setRawImageSceneInfo(scene);
    text[0] = 'X';
    EXPECT_STREQ(raw->getRawImageSceneInfo().text, "a scene");
    EXPECT_EQ(raw->getRawImageSceneInfo().number, 7);
    raw->setRawImageSceneInfo(raw->getRawImageSceneInfo()); // Handing it its own record loses nothing.
    EXPECT_STREQ(raw->getRawImageSceneInfo().text, "a scene");
    RISceneInfo none {};
    raw->setRawImageSceneInfo(none);
    EXPECT_EQ(raw->getRawImageSceneInfo().text, nullptr);
}

class NamedChannel : public RegionChannelCallback {
public:
    const char* getName() override { return "channel"; }
    int getChannelId() override { return 1; }
    int getSampleType() override { return RISAMPLE_FLOAT; }
    int getNumComponents() override { return 4; }
};

TEST(ImageWriter, ChannelListCopiesThePointersAndGrowsByHundreds)
{
    const Writer writer = newWriter();
    RawImageSettingsInterface* const raw = ask<RawImageSettingsInterface>(writer);
    NamedChannel a, b;
    EXPECT_EQ(a.getKind(), 0);
    RegionChannelTable list;
    for (int i = 0; i < 130; ++i)
        list.add(i % 2 ? &a : &b);
    raw->setRawImageChannelList(&list);
    ASSERT_EQ(raw->getRawImageChannelList()->count(), 130);
    EXPECT_EQ(raw->getRawImageChannelList()->capacity(), 200);
    EXPECT_EQ((*raw->getRawImageChannelList())[129], &a);
    raw->setRawImageChannelList(raw->getRawImageChannelList());
    EXPECT_EQ(raw->getRawImageChannelList()->count(), 130);
    raw->setRawImageChannelList(nullptr);
    EXPECT_EQ(raw->getRawImageChannelList()->count(), 0);
}

/// What `writeImage` does with flag 0x200, seen from the frame.
int correctionModeAskedFor(ImageWriterInterface& writer, int flags)
{
    const TempDir dir;
    FrameDouble frame(1, 1);
    CorrectingPlugin plugin(frame);
    EXPECT_EQ(writer.writeImage((dir / "f.tga").c_str(), -1, &frame, flags, 1).code(), IMGERR_NONE);
    return frame.queries.empty() ? -2 : frame.queries[0].mode;
}

TEST(ImageWriter, ColorCorrectionFlagComesFromTheSettingTheCallerAndTheEnvironment)
{
    const Writer writer = newWriter();
    ColorCorrectionSettingsInterface* const correction = ask<ColorCorrectionSettingsInterface>(writer);
    const struct {
        const char* environment;
        int withSetting, withoutSetting, withoutSettingButFlag;
    } rows[] = {
        // Mode 0 means that the flag is set, mode 3 that it is not.
        { nullptr, 0, 3, 0 },
        { "", 0, 3, 0 },
        { "1", 0, 3, 0 },
        { "10", 0, 3, 0 },
        { "0", 3, 3, 3 },
        { "00", 3, 3, 3 },
        { "0x", 3, 3, 3 },
    };
    for (const auto& row : rows) {
        const Environment environment(row.environment);
        correction->setApplyColorCorrection(1);
        EXPECT_EQ(correctionModeAskedFor(*writer, 0), row.withSetting);
        correction->setApplyColorCorrection(0);
        EXPECT_EQ(correctionModeAskedFor(*writer, 0), row.withoutSetting);
        EXPECT_EQ(correctionModeAskedFor(*writer, 0x200), row.withoutSettingButFlag);
    }
}

TEST(ImageWriter, ColorCorrectionBelongsToTheObject)
{
    const Writer first = newWriter(), second = newWriter();
    ask<ColorCorrectionSettingsInterface>(first)->setApplyColorCorrection(0);
    EXPECT_EQ(correctionModeAskedFor(*first, 0), 3);
    EXPECT_EQ(correctionModeAskedFor(*second, 0), 0);
}

TEST(ImageWriter, NamesFilesByItsOwnSettings)
{
    const TempDir dir;
    FrameDouble frame(1, 1, { { "rgba", 1 }, { "depth", 100 } });
    const Writer writer = newWriter();
    FileNameFormatInterface* const names = ask<FileNameFormatInterface>(writer);
    EXPECT_EQ(writer->writeImage((dir / "f.tga").c_str(), -1, &frame, 4, 7).code(), IMGERR_NONE);
    EXPECT_TRUE(fs::exists(dir / "f.0007.tga"));
    EXPECT_TRUE(fs::exists(dir / "f.depth.0007.tga"));

    names->setChanDivider('_');
    names->setNumFrameDigits(2);
    names->setRenderElementSeparateFolder(true);
    names->setRenderElementSeparateRGBA(true);
    EXPECT_EQ(writer->writeImage((dir / "g.tga").c_str(), -1, &frame, 4, 7).code(), IMGERR_NONE);
    EXPECT_TRUE(fs::exists(dir / "rgba/g_rgba.07.tga"));
    EXPECT_TRUE(fs::exists(dir / "depth/g_depth.07.tga"));
}

TEST(ImageWriter, FileNameOfTheColorChannelIgnoresDividerAndFolder)
{
    const Writer writer = newWriter();
    FileNameFormatInterface* const names = ask<FileNameFormatInterface>(writer);
    names->setRenderElementSeparateFolder(true);
    names->setRenderElementSeparateRGBA(true);
    char out[64];
    EXPECT_EQ(writer->getImageFileName("dir/f.tga", 3, 4, 12, out, 64), 0);
    EXPECT_STREQ(out, "dir/f.0012.tga");
    EXPECT_EQ(writer->getImageFileName("dir/f.tga", 3, 0, 12, out, 64), 0);
    EXPECT_STREQ(out, "dir/f.tga");
}

TEST(ImageWriter, NameOfAMultiChannelFormatOverrulesTheIndex)
{
    const TempDir dir;
    FrameDouble frame(1, 1);
    const Writer writer = newWriter();
    // The raw settings are as they are at first, without a resolution.
    for (const char* const name : { "f.quimg", "f.exr" }) {
        const ImgError error = writer->writeImage((dir / name).c_str(), 2, &frame, 0x100, 1);
        EXPECT_EQ(error.code(), -3) << name;
        EXPECT_STREQ(error.message(), "Error writing resolution.") << name;
    }
    EXPECT_EQ(writer->writeImage((dir / "f.exr").c_str(), 2, &frame, 0, 1).code(), IMGERR_NONE);
    EXPECT_EQ(DetectImageType((dir / "f.exr").c_str()), IMGTYPE_TGA);
}

TEST(ImageWriter, FrameThatIsMissingIsAWriteError)
{
    const Writer writer = newWriter();
    EXPECT_EQ(writer->writeImage("f.tga", -1, nullptr, 0, 1).code(), IMGERR_WRITE);
}

} // namespace
