#include "rastkit/load.h"
#include "support/exr_files.h"
#include "support/ignore_leaks.h"
#include "support/open_files.h"
#include "support/refuse_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace testing_support;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { }
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { ++pixels; }

    std::size_t pixels = 0;
};

class ExrReaderMemory : public testing::Test {
protected:
    /// Each request is refused in turn: what OpenEXR misses is a failed read, what we miss is memory.
    template <typename Load> void expectErrors(Load load)
    {
        testing::internal::CaptureStderr();
        ASSERT_EQ(load().code(), IMGERR_NONE); // What OpenEXR takes once for good.
        const int files = openFiles();
        const IgnoreLeaks ignore; // OpenEXR forgets what it had when memory ran out.
        const int refusals = refuseEachInTurn(load, [&](const ImgError& error, int position) {
            if (position < 0)
                EXPECT_EQ(error.code(), IMGERR_NONE);
            else
                EXPECT_THAT(error.code(), AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_READ)) << position;
            EXPECT_EQ(openFiles(), files) << position;
        });
        testing::internal::GetCapturedStderr();
        EXPECT_GT(refusals, 5);
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "a.exr";
    CountingSink m_sink;
};

TEST_F(ExrReaderMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const ExrFileFacts::PixelTypes floats = { { "R", Imf::FLOAT }, { "G", Imf::FLOAT }, { "B", Imf::FLOAT } };
    const ExrFileFacts::PixelTypes grey = { { "Y", Imf::HALF } };
    for (const auto& channels : { ExrFileFacts().channels, floats, grey }) {
        ExrFileFacts file;
        file.channels = channels;
        file.compression = Imf::ZIP_COMPRESSION;
        file.write(m_name);
        expectErrors([&] { return LoadEXRFile(m_name.c_str(), m_sink, nullptr); });
        std::vector<unsigned int> packed(std::size_t(file.width) * std::size_t(file.height));
        expectErrors([&] { return LoadEXRFile(m_name.c_str(), packed.data(), nullptr); });
        expectErrors([&] { return LoadEXRHeader(m_name.c_str(), nullptr); });
    }
}

TEST_F(ExrReaderMemory, RefusedMemoryOfALevelIsAnErrorAndNotACrash)
{
    ExrFileFacts file;
    file.isTiled = true;
    file.width = file.height = 8;
    file.tiles = Imf::TileDescription(4, 4, Imf::MIPMAP_LEVELS);
    file.write(m_name);
    expectErrors([&] { return LoadEXRLevel(m_name.c_str(), m_sink, nullptr, 1); });
}

TEST_F(ExrReaderMemory, AStripTakesFarLessThanThePicture)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "the sanitizers own malloc";
    ExrFileFacts file;
    file.width = 500;
    file.height = 4000;
    file.compression = Imf::ZIP_COMPRESSION;
    file.write(m_name);
    ImgError error;
    {
        const RefuseMemory refuse({ .minBytes = 4 << 20 }); // The picture has 16 MB of halfs.
        error = LoadEXRFile(m_name.c_str(), m_sink, nullptr);
    }
    EXPECT_EQ(error.code(), IMGERR_NONE);
    EXPECT_EQ(m_sink.pixels, 500u * 4000u);
}

TEST_F(ExrReaderMemory, NothingIsReadBehindARowThatIsRefused)
{
    for (const auto& channels : { ExrFileFacts().channels, ExrFileFacts::PixelTypes { { "Y", Imf::HALF } },
             ExrFileFacts::PixelTypes { { "R", Imf::FLOAT } } }) {
        ExrFileFacts file;
        file.channels = channels;
        file.width = 100000;
        file.height = 3;
        file.write(m_name);
        Bytes bytes = readFile(m_name);
        bytes.resize(bytes.size() - 1); // Whoever reads the last row meets damage instead.
        writeFile(m_name, bytes);
        ImgError error;
        {
            const RefuseMemory refuse({ .minBytes = 100000 * 4 * sizeof(float) }); // A row of the sink's.
            error = LoadEXRFile(m_name.c_str(), m_sink, nullptr);
        }
        EXPECT_EQ(error.code(), IMGERR_MEMORY);
    }
}

TEST_F(ExrReaderMemory, AHeaderOfManyPixelsInASmallFileTakesNone)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "the sanitizers own malloc";
    ExrFileFacts file;
    file.compression = Imf::DWAB_COMPRESSION;
    file.write(m_name);
    Bytes bytes = readFile(m_name);
    const std::string marker("dataWindow\0box2i\0\x10\0\0\0", 21);
    const std::string text(bytes.begin(), bytes.end());
    const std::size_t at = text.find(marker);
    ASSERT_NE(at, std::string::npos);
    for (const std::size_t corner : { 8u, 12u }) // The right and the lower edge: 2^28 pixels each.
        bytes[at + marker.size() + corner + 3] = 0x10;
    writeFile(m_name, bytes);
    testing::internal::CaptureStderr();
    ImgError error;
    {
        const RefuseMemory refuse({ .minBytes = 64 << 20 });
        error = LoadEXRFile(m_name.c_str(), m_sink, nullptr);
    }
    EXPECT_EQ(error.code(), IMGERR_READ);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("too small for the pixels"), std::string::npos);
    EXPECT_EQ(m_sink.pixels, 0u);
}

} // namespace
