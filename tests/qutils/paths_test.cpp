#include "qutils/core/paths.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>

namespace {

using namespace testing_support;
namespace fs = std::filesystem;

using QUtils::matchIntToString;
using QUtils::uniMakeDir;
using QUtils::uniPathOrFileExists;

std::string withText(const char* fileName, const char* text)
{
    char out[512];
    QUtils::appendFileName(fileName, text, out, sizeof out, false);
    return out;
}

std::string withFrame(const char* name, int digits, int frame, bool replaceHashes = false)
{
    char out[512];
    QUtils::appendFrameNumber(name, digits, frame, out, sizeof out, replaceHashes);
    return out;
}

std::string valid(const char* name)
{
    char out[512];
    QUtils::makeValidName(name, out);
    return out;
}

/// Calls `write(buffer, size)` with every size up to one more than `full` needs, and with useless ones, and
/// checks that what arrives is `full`, cut at the end, and that no byte behind the size is touched.
template <typename Write> void expectCutAtTheEnd(const std::string& full, Write write)
{
    for (int size = -1; size <= static_cast<int>(full.size()) + 2; ++size) {
        std::string buffer(full.size() + 8, '\x5A');
        write(buffer.data(), size);
        std::size_t written = 0;
        if (size > 0) {
            const std::string expected = full.substr(0, static_cast<std::size_t>(size) - 1);
            EXPECT_STREQ(buffer.c_str(), expected.c_str()) << size;
            written = expected.size() + 1;
        }
        EXPECT_EQ(buffer.find_first_not_of('\x5A', written), buffer.npos) << size;
    }
    write(nullptr, 100);
}

TEST(CopyBounded, CutsAtTheEnd)
{
    expectCutAtTheEnd("beauty", [](char* out, int size) { QUtils::copyBounded("beauty", out, size); });
    expectCutAtTheEnd("", [](char* out, int size) { QUtils::copyBounded("", out, size); });
    expectCutAtTheEnd("", [](char* out, int size) { QUtils::copyBounded(nullptr, out, size); });
}

TEST(CopyBounded, CutsATextInItsOwnBuffer)
{
    char text[] = "beauty.exr";
    QUtils::copyBounded(text, text, 7);
    EXPECT_STREQ(text, "beauty");
}

TEST(MakeValidName, ReplacesWhatFileNamesCannotHold)
{
    EXPECT_EQ(valid("a/b\\c:d*e?f\"g<h>i|j"), "a_b_c_d_e_f_g_h_i_j");
    EXPECT_EQ(valid("tab\tline\nbell\x07 esc\x1B del\x7F."), "tab_line_bell_ esc_ del_.");
    EXPECT_EQ(valid("/"), "_");
}

TEST(MakeValidName, KeepsEverythingElse)
{
    const char* const plain = " light 1.diffuse-#%&'()+,;=@[]^`{}~$!_";
    EXPECT_EQ(valid(plain), plain);
    EXPECT_EQ(valid("Gr\xC3\xBC\xC3\x9F \xE5\x85\x89"), "Gr\xC3\xBC\xC3\x9F \xE5\x85\x89");
    EXPECT_EQ(valid(""), "");
    EXPECT_EQ(valid(nullptr), "");
}

TEST(MakeValidName, EachControlCharacterIsReplaced)
{
    for (int character = 1; character < 128; ++character) {
        const char name[] = { 'a', static_cast<char>(character), 'b', '\0' };
        const bool bad = character < 32 || character == 127 || std::strchr("/\\:*?\"<>|", character);
        EXPECT_EQ(valid(name), bad ? "a_b" : name) << character;
    }
}

TEST(MakeValidName, BoundedFormCutsAtTheEnd)
{
    expectCutAtTheEnd("a_b_c_d", [](char* out, int size) { QUtils::makeValidName("a/b:c/d", out, size); });
    expectCutAtTheEnd("", [](char* out, int size) { QUtils::makeValidName(nullptr, out, size); });
    QUtils::makeValidName("a", nullptr);
}

TEST(AppendFileName, TextStandsBeforeTheLastExtension)
{
    EXPECT_EQ(withText("beauty.exr", ".diffuse"), "beauty.diffuse.exr");
    EXPECT_EQ(withText("shot.v2.exr", "_z"), "shot.v2_z.exr");
    EXPECT_EQ(withText("dir/beauty.exr", ".z"), "dir/beauty.z.exr");
    EXPECT_EQ(withText("/a.b/c.exr", ".z"), "/a.b/c.z.exr");
    EXPECT_EQ(withText("beauty.exr", ""), "beauty.exr");
    EXPECT_EQ(withText("beauty.exr", nullptr), "beauty.exr");
}

TEST(AppendFileName, TextStandsAtTheEndWithoutAnExtension)
{
    EXPECT_EQ(withText("beauty", ".z"), "beauty.z");
    EXPECT_EQ(withText("", ".z"), ".z");
    EXPECT_EQ(withText(nullptr, ".z"), ".z");
    EXPECT_EQ(withText("dir/", ".z"), "dir/.z");
}

TEST(AppendFileName, LeadingDotIsNoExtension)
{
    EXPECT_EQ(withText(".hidden", ".z"), ".hidden.z");
    EXPECT_EQ(withText("dir/.hidden", ".z"), "dir/.hidden.z");
    EXPECT_EQ(withText(".hidden.exr", ".z"), ".hidden.z.exr");
}

TEST(AppendFileName, DotsInFoldersAreNoExtension)
{
    EXPECT_EQ(withText("shot.v2/beauty", ".z"), "shot.v2/beauty.z");
    EXPECT_EQ(withText("../beauty", ".z"), "../beauty.z");
    EXPECT_EQ(withText("C:\\shot.v2\\beauty", ".z"), "C:\\shot.v2\\beauty.z");
}

TEST(AppendFileName, DotAtTheEndIsAnEmptyExtension)
{
    EXPECT_EQ(withText("beauty.", "_z"), "beauty_z.");
}

TEST(AppendFileName, CutsAtTheEnd)
{
    expectCutAtTheEnd("dir/beauty.z.exr",
        [](char* out, int size) { QUtils::appendFileName("dir/beauty.exr", ".z", out, size, false); });
}

TEST(AppendFileName, NamesOfAnyLengthPass)
{
    const std::string stem(100000, 's'), text(100000, 't'),
        extension = std::string(".") + std::string(100000, 'e');
    std::string out(400000, '\0');
    QUtils::appendFileName((stem + extension).c_str(), text.c_str(), out.data(), int(out.size()), false);
    EXPECT_EQ(out.c_str(), stem + text + extension);
}

TEST(AppendFrameNumber, NumberStandsBeforeTheLastExtension)
{
    EXPECT_EQ(withFrame("beauty.exr", 4, 7), "beauty.0007.exr");
    EXPECT_EQ(withFrame("dir.x/beauty.diffuse.exr", 4, 7), "dir.x/beauty.diffuse.0007.exr");
    EXPECT_EQ(withFrame("beauty", 4, 7), "beauty.0007");
    EXPECT_EQ(withFrame("dir.x/beauty", 4, 7), "dir.x/beauty.0007");
    EXPECT_EQ(withFrame(".hidden", 4, 7), ".hidden.0007");
    EXPECT_EQ(withFrame("", 4, 7), ".0007");
    EXPECT_EQ(withFrame(nullptr, 4, 7), ".0007");
    EXPECT_EQ(withFrame("dir/", 4, 7), "dir/.0007");
}

TEST(AppendFrameNumber, NumberIsPaddedToItsDigits)
{
    EXPECT_EQ(withFrame("a.exr", 1, 0), "a.0.exr");
    EXPECT_EQ(withFrame("a.exr", 4, 0), "a.0000.exr");
    EXPECT_EQ(withFrame("a.exr", 3, 12), "a.012.exr");
    EXPECT_EQ(withFrame("a.exr", 3, 123), "a.123.exr");
    EXPECT_EQ(withFrame("a.exr", 3, 12345), "a.12345.exr");
    EXPECT_EQ(withFrame("a.exr", 12, INT_MAX), "a.002147483647.exr");
}

TEST(AppendFrameNumber, NoDigitsPadNothing)
{
    EXPECT_EQ(withFrame("a.exr", 0, 7), "a.7.exr");
    EXPECT_EQ(withFrame("a.exr", -3, 7), "a.7.exr");
    EXPECT_EQ(withFrame("a.exr", INT_MIN, 0), "a.0.exr");
}

TEST(AppendFrameNumber, MinusSignStandsBeforeTheZeros)
{
    EXPECT_EQ(withFrame("a.exr", 4, -7), "a.-0007.exr");
    EXPECT_EQ(withFrame("a.exr", 0, -7), "a.-7.exr");
    EXPECT_EQ(withFrame("a.exr", 4, INT_MIN), "a.-2147483648.exr");
    EXPECT_EQ(withFrame("a.exr", 11, INT_MIN), "a.-02147483648.exr");
    EXPECT_EQ(withFrame("a.####.exr", 0, -7, true), "a.-0007.exr");
}

TEST(AppendFrameNumber, DividerThatEndsTheNameIsNotDoubled)
{
    EXPECT_EQ(withFrame("a..exr", 4, 7), "a.0007.exr");
    EXPECT_EQ(withFrame("a_.exr", 4, 7), "a_0007.exr");
    EXPECT_EQ(withFrame("a-.exr", 4, 7), "a-0007.exr");
    EXPECT_EQ(withFrame("a-.exr", 4, -7), "a--0007.exr");
    EXPECT_EQ(withFrame("a__.exr", 4, 7), "a__0007.exr");
    EXPECT_EQ(withFrame("a_", 4, 7), "a_0007");
    EXPECT_EQ(withFrame("a_b.exr", 4, 7), "a_b.0007.exr");
    EXPECT_EQ(withFrame("a+.exr", 4, 7), "a+.0007.exr");
}

TEST(AppendFrameNumber, LastRunOfHashesIsReplaced)
{
    EXPECT_EQ(withFrame("shot.####.exr", 2, 7, true), "shot.0007.exr");
    EXPECT_EQ(withFrame("shot.#.exr", 4, 12345, true), "shot.12345.exr");
    EXPECT_EQ(withFrame("#a##b###.exr", 1, 7, true), "#a##b007.exr");
    EXPECT_EQ(withFrame("##", 1, 7, true), "07");
    EXPECT_EQ(withFrame("dir/##shot.exr", 1, 7, true), "dir/07shot.exr");
    EXPECT_EQ(withFrame("shot.###", 1, 7, true), "shot.007");
}

TEST(AppendFrameNumber, HashesInFoldersStay)
{
    EXPECT_EQ(withFrame("v##/shot.exr", 4, 7, true), "v##/shot.0007.exr");
    EXPECT_EQ(withFrame("v##/shot_###.exr", 4, 7, true), "v##/shot_007.exr");
    EXPECT_EQ(withFrame("v##/##.exr", 4, 7, true), "v##/07.exr");
    EXPECT_EQ(withFrame("v##\\shot.exr", 4, 7, true), "v##\\shot.0007.exr");
}

TEST(AppendFrameNumber, HashesStayWhenTheyAreNotAskedFor)
{
    EXPECT_EQ(withFrame("shot.####.exr", 2, 7, false), "shot.####.07.exr");
}

TEST(AppendFrameNumber, CutsAtTheEnd)
{
    expectCutAtTheEnd("dir/a.-0007.exr",
        [](char* out, int size) { QUtils::appendFrameNumber("dir/a.exr", 4, -7, out, size, true); });
    expectCutAtTheEnd("dir/-00007b.exr",
        [](char* out, int size) { QUtils::appendFrameNumber("dir/#####b.exr", 4, -7, out, size, true); });
}

TEST(AppendFrameNumber, DigitsBeyondTheBufferAreCut)
{
    std::string out(64, '\x5A');
    QUtils::appendFrameNumber("a.exr", INT_MAX, -7, out.data(), 32, true);
    EXPECT_STREQ(out.c_str(), std::string("a.-").append(28, '0').c_str());
    EXPECT_EQ(out[32], '\x5A');
}

TEST(AppendFrameNumber, NamesOfAnyLengthPass)
{
    const std::string stem(100000, 's'), hashes(100000, '#');
    std::string out(400000, '\0');
    QUtils::appendFrameNumber((stem + hashes + ".exr").c_str(), 4, 5, out.data(), int(out.size()), true);
    EXPECT_EQ(out.c_str(), stem + std::string(99999, '0') + "5.exr");
}

TEST(MatchIntToString, ZeroWhenTheFourBytesMatch)
{
    int value = 0;
    std::memcpy(&value, "8BPS", 4);
    EXPECT_EQ(matchIntToString(value, "8BPS"), 0);
    EXPECT_EQ(matchIntToString(value, "8BPS and more"), 0);
    for (const char* other : { "8BPs", "7BPS", "8bPS", "8B S", "SPB8" })
        EXPECT_NE(matchIntToString(value, other), 0) << other;
}

TEST(MatchIntToString, ShorterTextMatchesNothing)
{
    int value = 0;
    std::memcpy(&value, "8B\0\0", 4);
    EXPECT_NE(matchIntToString(value, "8B"), 0);
    EXPECT_NE(matchIntToString(0, ""), 0);
    EXPECT_NE(matchIntToString(0, nullptr), 0);
    std::memcpy(&value, "II*\0", 4);
    EXPECT_EQ(matchIntToString(value, "II*"), 0); // The terminator is its fourth character.
}

TEST(OpenFile, DescriptorIsClosedOnExec)
{
    const TempDir dir;
    const std::string name = dir / "file";
    for (const char* mode : { "wb", "rb", "r", "r+b", "rb+", "w", "w+", "a", "ab+" }) {
        FILE* const file = qutils_fopen(name.c_str(), mode);
        ASSERT_NE(file, nullptr) << mode;
        EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0) << mode;
        fclose(file);
    }
}

TEST(OpenFile, ModesMeanWhatTheyMeanToFopen)
{
    const TempDir dir;
    const std::string name = dir / "file";
    writeFile(name, { 'a', 'b', 'c' });

    FILE* file = qutils_fopen(name.c_str(), "r+b");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fputc('X', file), 'X');
    fclose(file);
    EXPECT_EQ(readFile(name), (Bytes { 'X', 'b', 'c' }));

    file = qutils_fopen(name.c_str(), "ab");
    ASSERT_NE(file, nullptr);
    fputc('d', file);
    fclose(file);
    EXPECT_EQ(readFile(name), (Bytes { 'X', 'b', 'c', 'd' }));

    file = qutils_fopen(name.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fgetc(file), 'X');
    EXPECT_EQ(fputc('Y', file), EOF);
    fclose(file);

    EXPECT_EQ(qutils_fopen(name.c_str(), "wbx"), nullptr);
    EXPECT_EQ(errno, EEXIST);
    file = qutils_fopen(name.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    fclose(file);
    EXPECT_TRUE(readFile(name).empty());
}

TEST(OpenFile, FailuresLeaveTheReasonInErrno)
{
    const TempDir dir;
    errno = 0;
    EXPECT_EQ(qutils_fopen((dir / "missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    for (const char* mode : { static_cast<const char*>(nullptr), "", "q",
             "r, a mode with more characters than any mode that there is" }) {
        errno = 0;
        EXPECT_EQ(qutils_fopen((dir / "file").c_str(), mode), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(qutils_fopen(nullptr, "rb"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(OpenFile, NamesReachTheSystemUnchanged)
{
    const TempDir dir;
    const std::string name = "Gr\xC3\xBC\xC3\x9F \xFF\xFE*?.exr"; // Not even valid UTF-8.
    FILE* const file = qutils_fopen((dir / name).c_str(), "wb");
    ASSERT_NE(file, nullptr);
    fclose(file);
    EXPECT_EQ(fs::directory_iterator(dir.path())->path().filename().string(), name);
}

TEST(PathExists, HoldsForFilesFoldersAndDevices)
{
    const TempDir dir;
    writeFile(dir / "file", {});
    EXPECT_TRUE(uniPathOrFileExists((dir / "file").c_str()));
    EXPECT_TRUE(uniPathOrFileExists(dir.path().c_str()));
    EXPECT_TRUE(uniPathOrFileExists("/dev/null"));
}

TEST(PathExists, FailsForWhatIsNotThere)
{
    const TempDir dir;
    writeFile(dir / "file", {});
    fs::create_symlink("nowhere", dir.path() / "dangling");
    EXPECT_FALSE(uniPathOrFileExists((dir / "missing").c_str()));
    EXPECT_FALSE(uniPathOrFileExists((dir / "file/below").c_str()));
    EXPECT_FALSE(uniPathOrFileExists((dir / "dangling").c_str()));
    EXPECT_FALSE(uniPathOrFileExists(""));
    EXPECT_FALSE(uniPathOrFileExists(nullptr));
}

TEST(MakeDir, MakesAFolderAndItsParents)
{
    const TempDir dir;
    EXPECT_TRUE(uniMakeDir((dir / "a").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a"));
    EXPECT_TRUE(uniMakeDir((dir / "b/c/d").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "b/c/d"));
    EXPECT_TRUE(uniMakeDir((dir / "b/c/e").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "b/c/e"));
}

TEST(MakeDir, ExistingFolderIsASuccess)
{
    const TempDir dir;
    EXPECT_TRUE(uniMakeDir(dir.path().c_str()));
    EXPECT_TRUE(uniMakeDir("/"));
    EXPECT_TRUE(uniMakeDir("."));
    fs::create_directory_symlink(dir.path(), dir.path() / "link");
    EXPECT_TRUE(uniMakeDir((dir / "link").c_str()));
    EXPECT_TRUE(uniMakeDir((dir / "link/inside").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "inside"));
}

TEST(MakeDir, SlashesMayBeRepeatedAndTrail)
{
    const TempDir dir;
    EXPECT_TRUE(uniMakeDir((dir / "a//b///").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a/b"));
    EXPECT_TRUE(uniMakeDir((dir / "a/b/").c_str()));
    EXPECT_TRUE(uniMakeDir((dir / "a/./c/../d/").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a/d"));
}

/// Goes to another folder and comes back.
class WorkingFolder {
public:
    explicit WorkingFolder(const fs::path& path) : m_before(fs::current_path()) { fs::current_path(path); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;
    ~WorkingFolder()
    {
        std::error_code ignored;
        fs::current_path(m_before, ignored);
    }

private:
    fs::path m_before;
};

TEST(MakeDir, RelativePathsCountFromTheWorkingFolder)
{
    const TempDir dir;
    const WorkingFolder here(dir.path());
    EXPECT_TRUE(uniMakeDir("a"));
    EXPECT_TRUE(uniMakeDir("b/c/"));
    EXPECT_TRUE(uniMakeDir("./d/e"));
    for (const char* made : { "a", "b/c", "d/e" })
        EXPECT_TRUE(fs::is_directory(dir / made)) << made;
}

TEST(MakeDir, FileInTheWayIsAFailure)
{
    const TempDir dir;
    writeFile(dir / "file", { 1 });
    for (const char* path : { "file", "file/", "file/below", "file/below/deeper" }) {
        errno = 0;
        EXPECT_FALSE(uniMakeDir((dir / path).c_str())) << path;
        EXPECT_NE(errno, 0) << path;
    }
    EXPECT_EQ(readFile(dir / "file"), Bytes { 1 });
}

TEST(MakeDir, EmptyNullAndTooLongPathsFail)
{
    EXPECT_FALSE(uniMakeDir(""));
    EXPECT_FALSE(uniMakeDir(nullptr));
    const TempDir dir;
    std::string path = dir.path().string();
    for (int i = 0; i < 5000; ++i)
        path += "/a";
    EXPECT_FALSE(uniMakeDir(path.c_str()));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_TRUE(fs::is_empty(dir.path()));
    EXPECT_FALSE(uniMakeDir((dir / std::string(300, 'n')).c_str()));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(MakeDir, LongestPathOfTheSystemPasses)
{
    const TempDir dir;
    std::string path = dir.path().string();
    while (path.size() + 201 < PATH_MAX)
        path.append(1, '/').append(199, 'n');
    path.append(1, '/').append(PATH_MAX - 1 - path.size(), 'l');
    ASSERT_EQ(path.size(), std::size_t(PATH_MAX - 1));
    EXPECT_TRUE(uniMakeDir(path.c_str()));
    EXPECT_TRUE(uniPathOrFileExists(path.c_str()));
}

TEST(MakeDir, FolderThatMayNotBeWrittenIsAFailure)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root writes everywhere";
    const TempDir dir;
    ASSERT_TRUE(uniMakeDir((dir / "closed/inside").c_str()));
    fs::permissions(dir / "closed", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_FALSE(uniMakeDir((dir / "closed/more").c_str()));
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(uniMakeDir((dir / "closed/inside").c_str()));
    fs::permissions(dir / "closed", fs::perms::owner_all);
}

} // namespace
