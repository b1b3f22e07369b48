#include "rastkit/exr/exr_core.h"
#include "rastkit/exr/extra_attributes.h"
#include "rastkit/formats.h"
#include "rastkit/save.h"
#include "rastkit/writer/settings.h"
#include "support/frame_double.h"
#include "support/ignore_leaks.h"
#include "support/open_files.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

#include <ImfHeader.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using testing::AnyOf;

class ExrWriterMemory : public testing::Test {
protected:
    ~ExrWriterMemory() override { QUtils::exrExtraAttributes = QUtils::CharString(); }

    /// Each request is refused in turn. An attribute that has no memory is left out; all else is an error.
    template <typename Save> void expectErrors(Save save)
    {
        ASSERT_EQ(save().code(), IMGERR_NONE); // What OpenEXR takes once for good.
        testing::internal::CaptureStderr();
        const int files = openFiles();
        const IgnoreLeaks ignore; // OpenEXR's copies of headers forget what they had when memory ran out.
        const int refusals = refuseEachInTurn(save, [&](const ImgError& error, int position) {
            if (position < 0)
                EXPECT_EQ(error.code(), IMGERR_NONE);
            else
                EXPECT_THAT(error.code(), AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_WRITE)) << position;
            EXPECT_EQ(openFiles(), files) << position;
        });
        testing::internal::GetCapturedStderr();
        EXPECT_GT(refusals, 5);
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "a.exr";
};

/// A frame that takes no memory of its own.
class ZeroFrame : public FrameDouble {
public:
    using FrameDouble::FrameDouble;
    int getPixels(
        int, int, const QUtils::PixelBufferRegion&, int, int rowBytes, void* dest, int, int, int) override
    {
        std::memset(dest, 0, std::size_t(rowBytes));
        return 1;
    }
};

TEST_F(ExrWriterMemory, RefusedMemoryOfFramesIsAnErrorAndNotACrash)
{
    QUtils::exrExtraAttributes
        = QUtils::CharString("a=1; list=(1,2,3); text='of some length, so that it is kept apart'");
    ZeroFrame frame(40, 33);
    expectErrors([&] { return SaveEXRFile_pb(m_name.c_str(), frame, 0, 0, 0); });
}

TEST_F(ExrWriterMemory, RefusedMemoryIsAnErrorWithThreadsToo)
{
    setThreadCount(2);
    ZeroFrame frame(3, 600); // Several batches.
    expectErrors([&] { return SaveEXRFile_pb(m_name.c_str(), frame, 0, 0, 0); });
    setThreadCount(0);
}

TEST_F(ExrWriterMemory, RefusedMemoryOfArraysIsAnErrorAndNotACrash)
{
    IMGINFO info {};
    info.width = 40, info.height = 33;
    std::vector<unsigned int> packed(40 * 33);
    std::vector<float> floats(40 * 33 * 4);
    expectErrors([&] { return SaveEXRFile(m_name.c_str(), &info, packed.data()); });
    expectErrors([&] { return SaveEXRFile(m_name.c_str(), &info, floats.data()); });
}

TEST_F(ExrWriterMemory, RefusedRowsAreAMemoryError)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "the sanitizers own malloc";
    constexpr int width = 100000;
    IMGINFO info {};
    info.width = width, info.height = 1;
    std::vector<unsigned int> packed(width);
    std::vector<float> floats(std::size_t(width) * 4);
    ZeroFrame frame(width, 1);
    std::vector<int> codes;
    {
        const RefuseMemory refuse({ .minBytes = width });
        codes.push_back(SaveEXRFile(m_name.c_str(), &info, packed.data()).code());
        codes.push_back(SaveEXRFile(m_name.c_str(), &info, floats.data()).code());
        codes.push_back(SaveEXRFile_pb(m_name.c_str(), frame, 0, 0, 0).code());
    }
    EXPECT_EQ(codes, std::vector<int>(3, IMGERR_MEMORY));
    EXPECT_FALSE(std::filesystem::exists(m_name));
}

TEST_F(ExrWriterMemory, AFrameTakesOneRowWhateverItsHeight)
{
    if (!canRefuseMalloc())
        GTEST_SKIP() << "the sanitizers own malloc";
    constexpr int width = 1000;
    ImgError error;
    {
        // Two chunks of 16 rows of halfs and what compresses them would fit, the picture would not.
        const RefuseMemory refuse({ .minBytes = width * 8 * 100 });
        ZeroFrame frame(width, 2000);
        QUtils::ExrSaveOptions options;
        options.bitsPerChannel = 16;
        error = QUtils::saveExr(m_name.c_str(), frame, 0, 0, 0, options, Conventions::Standard);
    }
    EXPECT_EQ(error.code(), IMGERR_NONE);
}

TEST_F(ExrWriterMemory, StandardSaysThatMemoryIsMissing)
{
    ZeroFrame frame(40, 33);
    const auto save
        = [&] { return QUtils::saveExr(m_name.c_str(), frame, 0, 0, 0, {}, Conventions::Standard).code(); };
    ASSERT_EQ(save(), IMGERR_NONE);
    int memoryErrors = 0;
    const IgnoreLeaks ignore;
    refuseEachInTurn(save, [&](int code, int) { memoryErrors += code == IMGERR_MEMORY; });
    EXPECT_GT(memoryErrors, 5);
}

TEST_F(ExrWriterMemory, AttributesWithoutMemoryAreLeftOut)
{
    std::vector<Imf::Header> headers(100);
    std::size_t next = 0;
    testing::internal::CaptureStderr();
    const IgnoreLeaks ignore;
    refuseEachInTurn(
        [&] {
            ExrHeaderWrapper wrapper(headers.at(next++));
            char text[] = "a=1; l=(1,2.5); t=a text of some length, so that it takes memory; b=(1,2,3)";
            return WriteEXRExtraAttributes(wrapper, text).code();
        },
        [](int code, int) { EXPECT_EQ(code, 0); });
    testing::internal::GetCapturedStderr();
}

} // namespace
