#include "qutils/core/file_ptr.h"

#include "qutils/core/paths.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdexcept>
#include <utility>

namespace {

using namespace testing_support;

bool isOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

class FilePtrTest : public testing::Test {
protected:
    FILE* open() { return qutils_fopen((m_dir / "file").c_str(), "wb"); }

private:
    TempDir m_dir;
};

TEST_F(FilePtrTest, ClosesItsFileWhenAnExceptionPasses)
{
    int descriptor = -1;
    try {
        const FilePtr file(open());
        ASSERT_TRUE(file);
        descriptor = fileno(file);
        ASSERT_TRUE(isOpen(descriptor));
        throw std::runtime_error("from a codec");
    } catch (const std::runtime_error&) {
    }
    EXPECT_FALSE(isOpen(descriptor));
}

TEST_F(FilePtrTest, EmptyGuardHasNothingToClose)
{
    FilePtr none;
    EXPECT_FALSE(none);
    EXPECT_EQ(static_cast<FILE*>(none), nullptr);
    EXPECT_EQ(none.release(), nullptr);
    EXPECT_EQ(none.close(), 0);
}

TEST_F(FilePtrTest, ReleasedFileStaysOpen)
{
    FILE* file = nullptr;
    {
        FilePtr guard(open());
        ASSERT_TRUE(guard);
        file = guard.release();
        EXPECT_FALSE(guard);
    }
    ASSERT_TRUE(isOpen(fileno(file)));
    EXPECT_EQ(fclose(file), 0);
}

TEST_F(FilePtrTest, CloseClosesOnce)
{
    FilePtr file(open());
    ASSERT_TRUE(file);
    const int descriptor = fileno(file);
    EXPECT_EQ(file.close(), 0);
    EXPECT_FALSE(file);
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_EQ(file.close(), 0);
}

TEST_F(FilePtrTest, CloseReportsAFullDisk)
{
    FilePtr full(qutils_fopen("/dev/full", "wb"));
    if (!full)
        GTEST_SKIP() << "no /dev/full here";
    ASSERT_EQ(fputc('x', full), 'x'); // Buffered: the failure shows at the flush.
    EXPECT_EQ(full.close(), EOF);
}

TEST_F(FilePtrTest, MoveHandsTheFileOver)
{
    FilePtr source(open());
    ASSERT_TRUE(source);
    const int descriptor = fileno(source);
    FilePtr target(std::move(source));
    EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): the state is the subject.
    EXPECT_EQ(fileno(target), descriptor);
    EXPECT_TRUE(isOpen(descriptor));
}

TEST_F(FilePtrTest, TakingAnotherFileClosesTheOldOneAtOnce)
{
    FilePtr first(open()), second(open());
    ASSERT_TRUE(first && second);
    const int oldDescriptor = fileno(first), newDescriptor = fileno(second);
    first = std::move(second);
    EXPECT_FALSE(isOpen(oldDescriptor));
    EXPECT_TRUE(isOpen(newDescriptor));
    EXPECT_EQ(fileno(first), newDescriptor);
    FilePtr& alias = first;
    first = std::move(alias);
    EXPECT_TRUE(isOpen(newDescriptor));
}

} // namespace
