#include "rastkit/image/atomic_file.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>

namespace {

using namespace testing_support;
using QUtils::AtomicFile;
namespace fs = std::filesystem;

const Bytes oldBytes { 1, 2, 3 }, newBytes { 4, 5 };
constexpr uid_t nobody = 65534;

mode_t modeOf(const std::string& name)
{
    struct stat status { };
    EXPECT_EQ(stat(name.c_str(), &status), 0) << name;
    return status.st_mode & 07777;
}

std::errc reasonOf(const std::error_code& error)
{
    return std::errc(error.default_error_condition().value());
}

/// Sets the file mode creation mask for a test.
class Umask {
public:
    explicit Umask(mode_t mask) : m_before(umask(mask)) { }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { umask(m_before); }

private:
    mode_t m_before;
};

class AtomicFileTest : public testing::Test {
protected:
    /// Writes the new bytes and puts the file in its place.
    void replace(const std::string& target, AtomicFile::Sync sync = AtomicFile::Sync::No)
    {
        AtomicFile file;
        ASSERT_FALSE(file.begin(target.c_str()));
        writeFile(file.name(), newBytes);
        ASSERT_FALSE(file.commit(sync));
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> list;
        for (const auto& entry : fs::directory_iterator(m_dir.path()))
            list.push_back(entry.path().filename().string());
        std::sort(list.begin(), list.end());
        return list;
    }

    using Names = std::vector<std::string>;
    TempDir m_dir;
    const std::string m_target = m_dir / "a.tga";
};

TEST_F(AtomicFileTest, OldFileStaysUntilCommit)
{
    writeFile(m_target, oldBytes);
    AtomicFile file;
    ASSERT_FALSE(file.begin(m_target.c_str()));
    writeFile(file.name(), newBytes);
    EXPECT_EQ(readFile(m_target), oldBytes);
    ASSERT_FALSE(file.commit(AtomicFile::Sync::No));
    EXPECT_EQ(readFile(m_target), newBytes);
    EXPECT_EQ(names(), Names { "a.tga" });
}

TEST_F(AtomicFileTest, WithoutCommitNothingStays)
{
    writeFile(m_target, oldBytes);
    {
        AtomicFile file;
        ASSERT_FALSE(file.begin(m_target.c_str()));
        EXPECT_TRUE(file.isTemporary());
        writeFile(file.name(), newBytes);
        EXPECT_EQ(names().size(), 2u);
    }
    EXPECT_EQ(readFile(m_target), oldBytes);
    EXPECT_EQ(names(), Names { "a.tga" });
}

TEST_F(AtomicFileTest, TemporaryNameIsBesideTheTargetWithItsExtensionAndUnique)
{
    AtomicFile one, other;
    ASSERT_FALSE(one.begin(m_target.c_str()));
    ASSERT_FALSE(other.begin(m_target.c_str()));
    EXPECT_NE(one.name(), other.name());
    EXPECT_EQ(fs::path(one.name()).parent_path(), m_dir.path());
    EXPECT_EQ(fs::path(one.name()).extension(), ".tga");
}

TEST_F(AtomicFileTest, TargetWithAVeryLongNameIsWritten)
{
    const std::string name = m_dir / (std::string(250, 'n') + ".tga");
    replace(name);
    EXPECT_EQ(readFile(name), newBytes);
}

TEST_F(AtomicFileTest, SyncedFileIsInPlace)
{
    replace(m_target, AtomicFile::Sync::Yes);
    EXPECT_EQ(readFile(m_target), newBytes);
}

TEST_F(AtomicFileTest, NewFileGetsThePermissionsOfAnyNewFile)
{
    const Umask mask(027);
    replace(m_target);
    EXPECT_EQ(modeOf(m_target), 0640u);
}

TEST_F(AtomicFileTest, ReplacedFileKeepsItsPermissionsAlsoWhileItIsWritten)
{
    for (const mode_t mode : { 0600u, 0666u, 0755u }) {
        writeFile(m_target, oldBytes);
        ASSERT_EQ(chmod(m_target.c_str(), mode), 0);
        AtomicFile file;
        ASSERT_FALSE(file.begin(m_target.c_str()));
        EXPECT_EQ(modeOf(file.name()), mode);
        ASSERT_FALSE(file.commit(AtomicFile::Sync::No));
        EXPECT_EQ(modeOf(m_target), mode);
    }
}

TEST_F(AtomicFileTest, RootKeepsTheOwnerOfAReplacedFile)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    writeFile(m_target, oldBytes);
    ASSERT_EQ(chown(m_target.c_str(), nobody, nobody), 0);
    replace(m_target);
    struct stat status { };
    ASSERT_EQ(stat(m_target.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);
    EXPECT_EQ(status.st_gid, nobody);
}

TEST_F(AtomicFileTest, SymbolicLinkStaysAndWhatItPointsToIsReplaced)
{
    fs::create_directory(m_dir / "sub");
    writeFile(m_dir / "sub/real.bin", oldBytes);
    fs::create_symlink("real.bin", m_dir / "sub/second");
    fs::create_symlink("sub/second", m_target);
    replace(m_target);
    EXPECT_TRUE(fs::is_symlink(m_target));
    EXPECT_TRUE(fs::is_symlink(m_dir / "sub/second"));
    EXPECT_EQ(readFile(m_dir / "sub/real.bin"), newBytes);
}

TEST_F(AtomicFileTest, SymbolicLinkToNothingMakesTheFileThatItPointsTo)
{
    fs::create_symlink(m_dir / "later.bin", m_target);
    replace(m_target);
    EXPECT_TRUE(fs::is_symlink(m_target));
    EXPECT_EQ(readFile(m_dir / "later.bin"), newBytes);
}

TEST_F(AtomicFileTest, CircleOfSymbolicLinksIsAnError)
{
    fs::create_symlink("b.tga", m_target);
    fs::create_symlink("a.tga", m_dir / "b.tga");
    AtomicFile file;
    EXPECT_EQ(reasonOf(file.begin(m_target.c_str())), std::errc::too_many_symbolic_link_levels);
}

TEST_F(AtomicFileTest, DeviceIsWrittenInPlace)
{
    fs::create_symlink("/dev/null", m_target);
    for (const std::string& name : { m_target, std::string("/dev/null") }) {
        AtomicFile file;
        ASSERT_FALSE(file.begin(name.c_str()));
        EXPECT_FALSE(file.isTemporary());
        EXPECT_EQ(file.name(), name);
        EXPECT_FALSE(file.commit(AtomicFile::Sync::Yes));
    }
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(AtomicFileTest, DescriptorsLinkIsWrittenInPlaceWhenItsTextIsNoName)
{
    // The text of such a link is the file's former name and " (deleted)".
    writeFile(m_target, oldBytes);
    const int descriptor = open(m_target.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    fs::remove(m_target);
    const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    AtomicFile file;
    EXPECT_FALSE(file.begin(name.c_str()));
    EXPECT_EQ(file.name(), name);
    EXPECT_EQ(names(), Names {});
    close(descriptor);
}

TEST_F(AtomicFileTest, TargetsThatCannotBeWrittenFailAtOnceWithTheSystemsReason)
{
    fs::create_directory(m_dir / "folder.tga");
    writeFile(m_dir / "file", oldBytes);
    const std::pair<std::string, std::errc> cases[] = {
        { "", std::errc::no_such_file_or_directory },
        { m_dir / "none/a.tga", std::errc::no_such_file_or_directory },
        { m_dir / "file/a.tga", std::errc::not_a_directory },
        { m_dir / "folder.tga", std::errc::is_a_directory },
    };
    for (const auto& [name, reason] : cases) {
        AtomicFile file;
        EXPECT_EQ(reasonOf(file.begin(name.c_str())), reason) << name;
        EXPECT_FALSE(file.isTemporary()) << name;
    }
    EXPECT_EQ(names(), (Names { "file", "folder.tga" }));
}

/// What `begin` answers to a user without root's rights, as the exit code of a child process.
[[noreturn]] void exitWithAnswerToOrdinaryUser(const std::string& target)
{
    if (geteuid() == 0 && setresuid(nobody, nobody, nobody) != 0)
        std::_Exit(255);
    AtomicFile file;
    std::_Exit(file.begin(target.c_str()).value());
}

/// Ends with 0 when the new file has exactly those permissions, made by a user who is not the old one's.
[[noreturn]] void exitWithComparedMode(const std::string& target, mode_t expected)
{
    if (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0
        || setresuid(nobody, nobody, nobody) != 0)
        std::_Exit(255);
    AtomicFile file;
    if (file.begin(target.c_str()))
        std::_Exit(254);
    std::_Exit(modeOf(file.name()) == expected ? 0 : 1);
}

TEST_F(AtomicFileTest, GroupThatCannotBeKeptLeavesNothingToAnotherGroup)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be somebody else";
    fs::permissions(m_dir.path(), fs::perms(0777));
    writeFile(m_target, oldBytes);
    ASSERT_EQ(chmod(m_target.c_str(), 0666), 0);
    EXPECT_EXIT(exitWithComparedMode(m_target, 0606), testing::ExitedWithCode(0), "");
}

TEST_F(AtomicFileTest, FolderThatIsNotWritableFails)
{
    fs::permissions(m_dir.path(), fs::perms(0555));
    EXPECT_EXIT(exitWithAnswerToOrdinaryUser(m_target), testing::ExitedWithCode(EACCES), "");
    fs::permissions(m_dir.path(), fs::perms(0755));
}

TEST_F(AtomicFileTest, FileThatIsProtectedFromWritingIsNotReplaced)
{
    fs::permissions(m_dir.path(), fs::perms(0777));
    writeFile(m_target, oldBytes);
    fs::permissions(m_target, fs::perms(0444));
    EXPECT_EXIT(exitWithAnswerToOrdinaryUser(m_target), testing::ExitedWithCode(EACCES), "");
    EXPECT_EQ(readFile(m_target), oldBytes);
}

TEST_F(AtomicFileTest, FailedCommitLeavesNoLitter)
{
    {
        AtomicFile file;
        ASSERT_FALSE(file.begin(m_target.c_str()));
        fs::create_directory(m_target); // In the meantime.
        EXPECT_EQ(reasonOf(file.commit(AtomicFile::Sync::No)), std::errc::is_a_directory);
    }
    EXPECT_EQ(names(), Names { "a.tga" });
}

} // namespace
