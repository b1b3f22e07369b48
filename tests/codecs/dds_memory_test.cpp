#include "rastkit/codecs/dds_core.h"
#include "rastkit/load.h"
#include "support/dds_bytes.h"
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

TEST(DdsMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    const std::string name = folder / "image.dds";
    for (const std::uint32_t format : { 28u, 24u, 71u, 95u }) {
        writeFile(name, DdsBytes::ofDxgi(format, 5, 5, Bytes(400)).bytes());
        CountingSink sink;
        const int refusals = refuseEachInTurn(
            [&] { return QUtils::loadDds(name.c_str(), sink, nullptr, Conventions::Standard); },
            [](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_NONE);
                else
                    EXPECT_THAT(error.code(), AnyOf(IMGERR_MEMORY, IMGERR_OPEN)) << position;
            });
        EXPECT_GE(refusals, 3); // Decoder, block, rows.
        EXPECT_EQ(sink.freeCalls, 0);
    }
}

TEST(DdsMemory, AbsurdSizesOfATinyFileTakeLittleMemory)
{
    const TempDir folder;
    const std::string name = folder / "image.dds";
    for (const std::uint32_t format : { 2u, 24u, 28u, 68u, 71u, 95u, 98u }) {
        writeFile(name, DdsBytes::ofDxgi(format, 0x7FFFFFFF, 0x7FFFFFFF, Bytes(100, 0xFF)).bytes());
        CountingSink sink;
        std::size_t requests = 0;
        int code = 0;
        {
            const RefuseMemory watch({ .granted = SIZE_MAX, .minBytes = 6000 });
            code = codeOf(LoadDDSFile(name.c_str(), sink, nullptr));
            requests = watch.requests();
        }
        EXPECT_EQ(code, IMGERR_READ);
        EXPECT_EQ(requests, 0u) << format;
        EXPECT_LE(sink.pixels, 200u);
    }
}

} // namespace
