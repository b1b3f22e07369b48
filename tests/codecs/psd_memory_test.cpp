#include "rastkit/codecs/psd_core.h"
#include "rastkit/load.h"
#include "support/psd_bytes.h"
#include "support/recording_buffer.h"
#include "support/refuse_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { ++freeCalls; }
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
    int freeCalls = 0;
};

PsdBytes transparentPicture(int compression)
{
    PsdBytes file { .channels = 4, .width = 4, .height = 2, .compression = compression };
    file.layerSection = file.transparentSection();
    file.resources = PsdBytes::resource(1006, { 1, 'M' });
    file.picture = Bytes(32, 100);
    if (compression == 1) {
        file.picture.clear();
        for (int i = 0; i < 8; ++i)
            putBig(file.picture, 2, 2);
        for (int i = 0; i < 8; ++i)
            file.picture.insert(file.picture.end(), { 0xFD, 9 });
    }
    if (compression > 1)
        file.picture = deflated(file.picture);
    return file;
}

TEST(PsdMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "a.psd";
    for (const int compression : { 0, 1, 2, 3 }) {
        writeFile(name, transparentPicture(compression).bytes());
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            CountingSink sink;
            const int refusals = refuseEachInTurn(
                [&] { return QUtils::loadPsd(name.c_str(), "", "M", sink, nullptr, conventions); },
                [&](const ImgError& error, int position) {
                    if (position < 0)
                        EXPECT_EQ(error.code(), IMGERR_NONE);
                    else
                        EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_LIBRARY, IMGERR_OPEN))
                            << position;
                });
            EXPECT_GE(refusals, 8);
            EXPECT_EQ(sink.freeCalls, 0);
        }
    }
}

TEST(PsdMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "a.psd";
    for (const int compression : { 0, 1, 2, 3 })
        for (const int version : { 1, 2 })
            for (const int depth : { 1, 8, 16, 32 }) {
                const std::uint32_t size = version == 1 ? 30000 : 300000;
                PsdBytes file { .version = version,
                    .channels = 56,
                    .width = size,
                    .height = size,
                    .depth = depth,
                    .compression = compression };
                file.picture = Bytes(100, 1);
                writeFile(name, file.bytes());
                CountingSink sink;
                std::size_t requests = 0;
                int code = 0;
                {
                    const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
                    code = codeOf(LoadPSDFile(name.c_str(), nullptr, nullptr, sink, nullptr));
                    requests = watch.requests();
                }
                EXPECT_EQ(requests, 0u) << compression << ' ' << size;
                EXPECT_EQ(code, IMGERR_READ);
                EXPECT_EQ(sink.pixels, 0u);
            }
}

PsdBytes layeredPicture()
{
    PsdLayerBytes layer = PsdLayerBytes::filled("L", 0, 0, 4, 2, { 1, 2, 3, 4 });
    layer.masked(0, 0, 2, 2, 9, 255);
    layer.channels[0].second = joined({ big(2, 2), deflated(Bytes(8, 7)) });
    layer.blocks = PsdLayerBytes::block("lfx2", {});
    PsdBytes file { .width = 4, .height = 2 };
    file.layerSection = layerSection({ PsdLayerBytes::groupEnd(), layer, PsdLayerBytes::folder("G") });
    file.picture = Bytes(24, 7);
    return file;
}

TEST(PsdMemory, RefusedMemoryOfLayersIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "a.psd";
    writeFile(name, layeredPicture().bytes());
    CountingSink sink;
    const int refusals
        = refuseEachInTurn([&] { return LoadPSDFile(name.c_str(), "G/L", nullptr, sink, nullptr); },
            [&](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_NONE);
                else
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_LIBRARY, IMGERR_OPEN)) << position;
            });
    EXPECT_GE(refusals, 20);
    EXPECT_EQ(sink.freeCalls, 0);
}

/// An empty text would ask for the merged picture, or for its own alpha.
TEST(PsdMemory, NameThatIsRefusedAsksForNothingElse)
{
    const TempDir folder;
    const std::string name = folder / "a.psd";
    writeFile(name, layeredPicture().bytes());
    CountingSink sink;
    for (const bool isLayer : { true, false })
        refuseEachInTurn(
            [&] {
                return LoadPSDFile(
                    name.c_str(), isLayer ? "None" : nullptr, isLayer ? nullptr : "None", sink, nullptr);
            },
            [&](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_FORMAT);
                else
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_LIBRARY, IMGERR_OPEN)) << position;
            });
    EXPECT_EQ(sink.pixels, 0u);
}

TEST(PsdMemory, AbsurdLayersTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "a.psd";
    for (const std::uint8_t compression : Bytes { 0, 1, 2, 3 }) {
        PsdLayerBytes layer;
        layer.top = layer.left = -0x7FFFFFFF - 1;
        layer.bottom = layer.right = 0x7FFFFFFF;
        for (int channel = -2; channel < 3; ++channel)
            layer.channels.push_back({ channel, joined({ { 0, compression }, Bytes(50, 1) }) });
        PsdBytes file { .width = 4, .height = 2 };
        file.layerSection = layerSection({ layer });
        file.picture = file.blank();
        writeFile(name, file.bytes());
        CountingSink sink;
        std::size_t requests = 0;
        int code = 0;
        {
            const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 300 << 10 });
            code = codeOf(LoadPSDFile(name.c_str(), "Layer", nullptr, sink, nullptr));
            requests = watch.requests();
        }
        EXPECT_EQ(requests, 0u) << int(compression);
        EXPECT_EQ(code, IMGERR_READ);
    }
}

/// How many blocks of that size or more are taken for a layer.
std::size_t requestsFor(const PsdBytes& file, const char* layer, std::size_t minBytes)
{
    const TempDir folder;
    const std::string name = folder / "a.psb";
    writeFile(name, file.bytes());
    CountingSink sink;
    int code = 0;
    std::size_t requests = 0;
    {
        const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = minBytes });
        code = codeOf(LoadPSDFile(name.c_str(), layer, nullptr, sink, nullptr));
        requests = watch.requests();
    }
    EXPECT_EQ(code, IMGERR_NONE);
    return requests;
}

TEST(PsdMemory, LongKeysOfDescriptorsAreNotKept)
{
    constexpr std::uint32_t keyBytes = 50000, count = 4000;
    Bytes list = joined({ big(16, 4), big(0, 4), big(0, 4), textBytes("null"), big(1, 4), big(keyBytes, 4),
        Bytes(keyBytes, 'k'), textBytes("VlLs"), big(count, 4) });
    for (std::uint32_t i = 0; i < count; ++i)
        list.insert(list.end(), { 'b', 'o', 'o', 'l', 1 });
    PsdLayerBytes layer = PsdLayerBytes::filled("L", 0, 0, 4, 2, { 1, 2, 3, 4 });
    layer.blocks = PsdLayerBytes::block("SoCo", list);
    PsdBytes file { .width = 4, .height = 2 };
    file.layerSection = layerSection({ layer });
    file.picture = file.blank();
    EXPECT_LE(requestsFor(file, "L", keyBytes), 4u);
}

TEST(PsdMemory, RowsAreTakenForWhatIsShownAlone)
{
    constexpr int width = 100000, depth = 30;
    std::vector<PsdLayerBytes> layers(depth, PsdLayerBytes::groupEnd());
    layers.push_back(PsdLayerBytes::filled("Deep", 0, 0, 1, 1, { 1, 2, 3, 4 }));
    layers.insert(layers.end(), depth, PsdLayerBytes::folder("G", "norm"));
    layers.push_back(PsdLayerBytes::filled("Top", 0, 0, 1, 1, { 1, 2, 3, 4 }));
    PsdBytes file { .version = 2, .width = width };
    file.layerSection = layerSection(layers, true);
    file.picture = file.blank();
    // One to mix, one to be delivered, and the sink's: three colours and alpha.
    EXPECT_EQ(requestsFor(file, "Top", width * 4 * sizeof(float)), 3u);
    EXPECT_EQ(requestsFor(file, "Top", width * 4 * sizeof(float) + 100), 1u) << "with room for black ink";
    EXPECT_EQ(requestsFor(file, "Deep", width * 4 * sizeof(float)), 3u);
}

} // namespace
