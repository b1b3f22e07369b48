#include "support/run_program.h"
#include "support/tga_bytes.h"

#include "rastkit/buffers.h"
#include "rastkit/load.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>

namespace {

using namespace testing_support;
namespace fs = std::filesystem;

const Bytes oldBytes { 'o', 'l', 'd' };

Bytes tgaOf(int width, int height, int pixelBits, const Bytes& pixel)
{
    TgaBytes tga;
    tga.width = width;
    tga.height = height;
    tga.pixelBits = pixelBits;
    tga.descriptor = pixelBits == 32 ? 0x28 : 0x20;
    for (int i = 0; i < width * height; ++i)
        tga.pixels.insert(tga.pixels.end(), pixel.begin(), pixel.end());
    return tga.bytes();
}

class ToolConvert : public testing::Test {
protected:
    using Names = std::vector<std::string>;

    std::string make(const std::string& name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return m_dir / name;
    }
    ProgramResult convert(const std::string& in, const std::string& out, rlim_t limit = RLIM_INFINITY)
    {
        return runTool({ "convert", in, out }, limit);
    }
    Names names() const
    {
        Names list;
        for (const auto& entry : fs::directory_iterator(m_dir.path()))
            list.push_back(entry.path().filename().string());
        std::sort(list.begin(), list.end());
        return list;
    }
    /// Expects a failure that names the file, leaves the old target and nothing else.
    void expectOldTarget(const ProgramResult& result, const std::string& message)
    {
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_EQ(result.err, "rastkit: " + message + "\n");
        EXPECT_EQ(readFile(m_out), oldBytes);
        EXPECT_EQ(names(), (Names { "in.tga", "out.tga" }));
    }

    TempDir m_dir;
    const std::string m_in = m_dir / "in.tga", m_out = m_dir / "out.tga";
};

TEST_F(ToolConvert, OpaqueImageBecomesAFileOf24Bits)
{
    make("in.tga", tgaOf(3, 2, 32, { 1, 2, 3, 0xFF }));
    const ProgramResult result = convert(m_in, m_out);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(readFile(m_out), tgaOf(3, 2, 24, { 1, 2, 3 }));
}

TEST_F(ToolConvert, ImageWithAlphaKeepsIt)
{
    make("in.tga", tgaOf(3, 2, 32, { 1, 2, 3, 0x80 }));
    EXPECT_EQ(convert(m_in, m_out).exitCode, 0);
    EXPECT_EQ(readFile(m_out), readFile(m_in));
}

TEST_F(ToolConvert, ColoursOf16BitsAreTheTrueOnes)
{
    make("in.tga", tgaOf(1, 1, 16, { 0x1F, 0x7C }));
    EXPECT_EQ(convert(m_in, m_out).exitCode, 0);
    EXPECT_EQ(readFile(m_out), tgaOf(1, 1, 24, { 0xFF, 0, 0xFF }));
}

TEST_F(ToolConvert, LightAboveOneAndFaintLightAreKept)
{
    const std::string header = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n";
    Bytes bytes(header.begin(), header.end());
    const Bytes pixels { 128, 64, 32, 140, 128, 64, 32, 100 }; // 2048, 1024, 512, and as far below 1.
    bytes.insert(bytes.end(), pixels.begin(), pixels.end());
    make("in.hdr", bytes);
    const std::string exr = m_dir / "a.exr", back = m_dir / "back.hdr";
    EXPECT_EQ(convert(m_dir / "in.hdr", back).exitCode, 0);
    Bytes written = readFile(back);
    ASSERT_GT(written.size(), 8u);
    EXPECT_EQ(Bytes(written.end() - 8, written.end()), pixels);
    EXPECT_EQ(convert(m_dir / "in.hdr", exr).exitCode, 0);
    EXPECT_EQ(convert(exr, back).exitCode, 0);
    written = readFile(back);
    EXPECT_EQ(Bytes(written.end() - 8, written.end()), pixels);
}

TEST_F(ToolConvert, FileIsConvertedOntoItself)
{
    make("in.tga", tgaOf(300, 200, 32, { 1, 2, 3, 0xFF }));
    EXPECT_EQ(convert(m_in, m_in).exitCode, 0);
    EXPECT_EQ(readFile(m_in), tgaOf(300, 200, 24, { 1, 2, 3 }));
    EXPECT_EQ(names(), Names { "in.tga" });
}

TEST_F(ToolConvert, SyncGivesTheSameFile)
{
    make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
    EXPECT_EQ(runTool({ "convert", "--sync", m_in, m_out }).exitCode, 0);
    EXPECT_EQ(readFile(m_out), readFile(m_in));
}

TEST_F(ToolConvert, ExtensionThatIsNoneOfOursIsWrongUsageBeforeAnythingIsRead)
{
    for (const char* const name : { "out", "out.xyz", "out.tg", "out.", "tga", ".tga" }) {
        const ProgramResult result = convert(m_dir / "missing.tga", m_dir / name);
        EXPECT_EQ(result.exitCode, 2) << name;
        EXPECT_EQ(result.err,
            "rastkit: " + (m_dir / name)
                + ": cannot be written: its extension names no known format (see `rastkit formats`)\n");
    }
    EXPECT_EQ(names(), Names {});
}

TEST_F(ToolConvert, FormatThatIsNeverWrittenIsWrongUsage)
{
    const ProgramResult result = convert(m_dir / "missing.tga", m_dir / "out.dds");
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_NE(result.err.find("does not write the format dds"), std::string::npos) << result.err;
}

TEST_F(ToolConvert, DamagedInputLeavesTheOldTarget)
{
    Bytes cut = tgaOf(30, 20, 24, { 1, 2, 3 });
    cut.pop_back();
    make("in.tga", cut);
    make("out.tga", oldBytes);
    expectOldTarget(convert(m_in, m_out), m_in + ": cannot be read: its pixels are cut short or damaged");
}

TEST_F(ToolConvert, InputOfGarbageLeavesTheOldTarget)
{
    make("in.tga", Bytes(40, 0xEE));
    make("out.tga", oldBytes);
    expectOldTarget(convert(m_in, m_out),
        m_in + ": cannot be read: not an image of a known format, or its header is damaged");
}

TEST_F(ToolConvert, DamagedInputThatIsItsOwnTargetStays)
{
    Bytes cut = tgaOf(30, 20, 24, { 1, 2, 3 });
    cut.pop_back();
    make("in.tga", cut);
    EXPECT_EQ(convert(m_in, m_in).exitCode, 3);
    EXPECT_EQ(readFile(m_in), cut);
}

TEST_F(ToolConvert, DiskThatFillsUpLeavesTheOldTargetAndNoLitter)
{
    make("in.tga", tgaOf(300, 200, 24, { 1, 2, 3 }));
    make("out.tga", oldBytes);
    // The user's limit on the size of a file stands for the end of the disk.
    expectOldTarget(convert(m_in, m_out, 100000), m_out + ": cannot be written: File too large");
}

TEST_F(ToolConvert, FullDeviceIsReportedInTheSystemsWords)
{
    make("in.tga", tgaOf(300, 200, 24, { 1, 2, 3 }));
    fs::create_symlink("/dev/full", m_out);
    const ProgramResult result = convert(m_in, m_out);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "rastkit: " + m_out + ": cannot be written: No space left on device\n");
    EXPECT_EQ(names(), (Names { "in.tga", "out.tga" }));
}

TEST_F(ToolConvert, DeviceIsWrittenInPlace)
{
    make("in.tga", tgaOf(300, 200, 24, { 1, 2, 3 }));
    fs::create_symlink("/dev/null", m_out);
    EXPECT_EQ(convert(m_in, m_out).exitCode, 0);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(ToolConvert, TargetInAMissingFolderIsReported)
{
    make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
    const std::string out = m_dir / "none/out.tga";
    const ProgramResult result = convert(m_in, out);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "rastkit: " + out + ": cannot be written: No such file or directory\n");
}

TEST_F(ToolConvert, TargetInAFolderThatIsNotWritableIsReported)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root may write everywhere";
    make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
    fs::create_directory(m_dir / "locked");
    fs::permissions(m_dir / "locked", fs::perms(0555));
    const std::string out = m_dir / "locked/out.tga";
    const ProgramResult result = convert(m_in, out);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err, "rastkit: " + out + ": cannot be written: Permission denied\n");
}

TEST_F(ToolConvert, ReplacedFileKeepsItsPermissions)
{
    make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
    make("out.tga", oldBytes);
    fs::permissions(m_out, fs::perms(0604));
    EXPECT_EQ(convert(m_in, m_out).exitCode, 0);
    EXPECT_EQ(fs::status(m_out).permissions(), fs::perms(0604));
    EXPECT_EQ(readFile(m_out), readFile(m_in));
}

TEST_F(ToolConvert, SymbolicLinkStaysALink)
{
    make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
    make("real.bin", oldBytes);
    fs::create_symlink("real.bin", m_out);
    EXPECT_EQ(convert(m_in, m_out).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(m_out));
    EXPECT_EQ(readFile(m_dir / "real.bin"), readFile(m_in));
}

TEST_F(ToolConvert, OddNamesWork)
{
    for (const char* const name :
        { "with space.tga", "-dash.tga", "\xC3\xA4\xE6\x97\xA5.tga", "'\"$HOME`.tga" }) {
        make("in.tga", tgaOf(3, 2, 24, { 1, 2, 3 }));
        const std::string command
            = "cd '" + m_dir.path().string() + "' && exec " RASTKIT_PROGRAM " convert -- in.tga \"$1\"";
        const ProgramResult result = Program("/bin/sh", { "-c", command, "sh", name }).wait();
        EXPECT_EQ(result.exitCode, 0) << name << result.err;
        EXPECT_EQ(readFile(m_dir / name), readFile(m_in)) << name;
    }
}

// --- Signals ---------------------------------------------------------------------------------------------

class ToolConvertLarge : public ToolConvert {
protected:
    /// A file whose writing takes long enough to be interrupted. Its pixels are a hole, so it needs no disk.
    void makeLargeInput()
    {
        TgaBytes tga;
        tga.width = tga.height = 6000;
        tga.pixelBits = 32;
        tga.descriptor = 0x28;
        make("in.tga", tga.bytes());
        fs::resize_file(m_in, 18 + std::uintmax_t(6000) * 6000 * 4);
    }
};

class ToolConvertSignal : public ToolConvertLarge, public testing::WithParamInterface<int> {
protected:
    /// Ends the program with a signal while it writes; false when it was done before.
    bool interrupt(ProgramResult& result)
    {
        Program program(RASTKIT_PROGRAM, { "convert", m_in, m_out });
        while (program.isRunning())
            if (names().size() > 2) {
                program.sendSignal(GetParam());
                break;
            }
        result = program.wait();
        return result.signal != 0;
    }
};

TEST_P(ToolConvertSignal, LeavesTheOldTargetAndNoLitterAndEndsTheProgram)
{
    makeLargeInput();
    ProgramResult result;
    bool wasInterrupted = false;
    for (int attempt = 0; attempt < 20 && !wasInterrupted; ++attempt) {
        make("out.tga", oldBytes);
        wasInterrupted = interrupt(result);
    }
    ASSERT_TRUE(wasInterrupted);
    EXPECT_EQ(result.signal, GetParam());
    EXPECT_EQ(names(), (Names { "in.tga", "out.tga" }));
    EXPECT_EQ(readFile(m_out), oldBytes);
}

INSTANTIATE_TEST_SUITE_P(EndingSignals, ToolConvertSignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
    testing::PrintToStringParamName());

TEST_F(ToolConvertLarge, IgnoredHangUpStaysIgnored)
{
    makeLargeInput();
    const std::string command = "trap '' HUP; exec " RASTKIT_PROGRAM " convert \"$1\" \"$2\"";
    Program program("/bin/sh", { "-c", command, "sh", m_in, m_out });
    while (program.isRunning() && names().size() < 2)
        continue;
    program.sendSignal(SIGHUP);
    EXPECT_EQ(program.wait().exitCode, 0);
    EXPECT_EQ(names(), (Names { "in.tga", "out.tga" }));
}

} // namespace
