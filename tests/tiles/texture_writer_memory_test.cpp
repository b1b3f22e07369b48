#include "rastkit/texture_writer.h"
#include "support/ignore_leaks.h"
#include "support/open_files.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <exception>
#include <string>

namespace {

using namespace testing_support;
using QUtils::TextureSample;
using QUtils::TextureSettings;
using QUtils::TextureWriter;
using testing::AnyOf;

/// Writes a texture of a few tiles, each request for memory refused in turn.
void expectErrors(const std::string& name, TextureSample sample, int threads, bool isEveryThread)
{
    TextureSettings settings;
    settings.sample = sample;
    const bool isTiff = sample == TextureSample::Byte;
    // Of OpenEXR each size of tiles has a file of its own: a few of them will do.
    const int width = isTiff ? 20 : 4, height = isTiff ? 18 : 2, part = width / 2;
    settings.tileWidth = settings.tileHeight = isTiff ? 16 : 2;
    settings.channels = 3;
    settings.isSrgb = isTiff; // Of halfs, a table of all of them is made each time.
    settings.threads = threads;
    settings.filter = QUtils::MipFilter::Triangle;
    std::array<float, 10 * 4> row {};
    const auto write = [&]() -> int {
        try {
            TextureWriter writer(name.c_str(), settings);
            writer.init(width, height);
            for (int y = height - 1; y >= 0; --y) {
                writer.setRowF(part, y, part, row.data());
                writer.setRowF(0, y, part, row.data());
            }
            return writer.finish().code();
        } catch (const std::bad_alloc&) { // The constructor's.
            return IMGERR_MEMORY;
        }
    };
    ASSERT_EQ(write(), IMGERR_NONE); // What the libraries take once for good.
    const int files = openFiles();
    const IgnoreLeaks ignore; // OpenEXR forgets what it had when memory ran out.
    int refusals = 0;
    for (std::size_t position = 0;; ++position) {
        int code = 0;
        std::size_t refused = 0;
        {
            const RefuseMemory refuse({ .granted = position, .refused = 1, .everyThread = isEveryThread });
            code = write();
            refused = refuse.refusals();
        }
        EXPECT_EQ(openFiles(), files) << position;
        if (refused == 0) {
            EXPECT_EQ(code, IMGERR_NONE);
            break;
        }
        ++refusals;
        EXPECT_THAT(code, AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_OPEN, IMGERR_WRITE, IMGERR_LIBRARY))
            << position;
    }
    EXPECT_GT(refusals, 30);
}

TEST(TextureWriterMemory, RefusedMemoryIsAnErrorAndNotACrash)
{
    const TempDir folder;
    expectErrors(folder / "a.exr", TextureSample::Half, -1, false);
    expectErrors(folder / "a.tif", TextureSample::Byte, -1, false);
}

TEST(TextureWriterMemory, RefusedMemoryOnThreadsIsAnErrorToo)
{
    const TempDir folder;
    expectErrors(folder / "a.tif", TextureSample::Byte, 2, true);
    if (!findsLeaks) // What OpenEXR forgets on the writer's own threads cannot be ignored.
        expectErrors(folder / "a.exr", TextureSample::Half, 2, true);
}

} // namespace
