#include "rastkit/buffers.h"
#include "rastkit/load.h"
#include "support/run_program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace {

using namespace testing_support;

constexpr int width = 96, height = 54;

class TexturedRender : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<TempDir>();
        const ProgramResult result = Program(
            TEXTURED_RENDER_PROGRAM, { folder(), "--make-textures", "--count", "9", "--size", "96" })
                                         .wait();
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    static std::string folder() { return *s_dir / "textures"; }

    static ProgramResult render(const std::string& picture, int threads, int bytes)
    {
        return Program(TEXTURED_RENDER_PROGRAM,
            { folder(), picture, "--width", std::to_string(width), "--height", std::to_string(height),
                "--threads", std::to_string(threads), "--bytes", std::to_string(bytes), "--statistics" })
            .wait();
    }

    static inline std::unique_ptr<TempDir> s_dir;
};

} // namespace

TEST_F(TexturedRender, ThePictureIsTheSameWithAnyNumberOfThreads)
{
    const std::string one = *s_dir / "one.exr", four = *s_dir / "four.exr";
    ASSERT_EQ(render(one, 1, 4 << 20).exitCode, 0);
    ASSERT_EQ(render(four, 4, 4 << 20).exitCode, 0);
    EXPECT_EQ(readFile(one), readFile(four));

    QUtils::Image8 image;
    ASSERT_EQ(LoadEXRFile(one.c_str(), image, nullptr).code(), IMGERR_NONE);
    ASSERT_EQ(image.width(), width);
    ASSERT_EQ(image.height(), height);
    const std::set<unsigned int> colors(image.data(), image.data() + width * height);
    EXPECT_GT(colors.size(), 500u); // Slabs, pictures, globes and sky, in light and shadow.
}

TEST_F(TexturedRender, TexturesStayWithinTheBoundWhateverTheThreadsAskFor)
{
    constexpr int bound = 1 << 20;
    const std::string small = *s_dir / "small.png", large = *s_dir / "large.png";
    const ProgramResult result = render(small, 4, bound);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto statistics = nlohmann::json::parse(result.out);
    EXPECT_LE(statistics["peakBytes"], bound);
    EXPECT_EQ(statistics["redundantDecodes"], 0);
    EXPECT_EQ(statistics["errors"], 0);
    EXPECT_GT(statistics["evictions"], 0);
    EXPECT_EQ(statistics["textures"], 9);
    ASSERT_EQ(render(large, 4, 64 << 20).exitCode, 0);
    EXPECT_EQ(readFile(small), readFile(large));
}

TEST_F(TexturedRender, WhatCannotBeDoneIsAnErrorWithATextAndNoPicture)
{
    const std::string empty = *s_dir / "empty", picture = *s_dir / "none.png";
    std::filesystem::create_directory(empty);
    for (const Program::Arguments& arguments : { Program::Arguments { empty, picture },
             { *s_dir / "missing", picture }, { folder() }, { folder(), picture, "--bytes", "1000" } }) {
        const ProgramResult result = Program(TEXTURED_RENDER_PROGRAM, arguments).wait();
        EXPECT_EQ(result.exitCode, 1) << arguments.back();
        EXPECT_NE(result.err.find("textured_render: "), std::string::npos) << arguments.back();
        EXPECT_FALSE(std::filesystem::exists(picture));
    }
}
