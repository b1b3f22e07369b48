// What RIFile and RIReader do when memory is refused, or the system cannot read.

#include "support/open_files.h"
#include "support/quimg_frame.h"
#include "support/refuse_memory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// Reads that touch this byte of any file fail while it is not negative.
off_t unreadableByte = -1;

} // namespace

/// Takes the place of the C library's pread, also for a shared library.
extern "C" __attribute__((visibility("default"))) ssize_t preadUnlessUnreadable(
    int file, void* out, size_t count, off_t offset) __asm__("pread");

ssize_t preadUnlessUnreadable(int file, void* out, size_t count, off_t offset)
{
    if (unreadableByte >= offset && unreadableByte - offset < off_t(count)) {
        errno = EIO;
        return -1;
    }
    return syscall(SYS_pread64, file, out, count, offset);
}

namespace {

using namespace testing_support;
using QUtils::RIFile;
using QUtils::RIReader;

TEST(RIFileMemory, EveryRefusalIsAnErrorOfTheCallAndLosesNothing)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    const std::string path = dir / "a.quimg";
    const int before = openFiles();
    struct Outcome {
        int code = 0;
    };
    class Rows : public QUtils::QURegionData {
    public:
        RIRegionInfo getRegion() override { return {}; }
        const void* getRow(int, int) override { return row; }
        float row[23 * 3] = {};
    } rows;
    QUtils::RegionChannelTable list = frame.table();
    char text[] = "a scene's text";
    RISceneInfo scene { 1, text };
    const RICameraInfo camera = testCamera();
    const int refusals = refuseEachInTurn(
        [&] {
            RIFile file;
            Outcome outcome;
            const auto step = [&](const ErrorCode& error) {
                if (outcome.code == 0)
                    outcome.code = error.code();
            };
            step(file.Create(path.c_str(), nullptr));
            step(file.WriteHeader(32));
            step(file.WTResolution(23, 14, 1));
            step(file.WTRenderRegion({}));
            step(file.WTRegionsInfo(8, 6, 0));
            step(file.WTChannelInfo(&list));
            step(file.WTCameraInfo(camera));
            step(file.WTSceneInfo(scene));
            step(file.WTRegion(&rows, -1, 0, 0));
            step(file.Close());
            return outcome;
        },
        [&](const Outcome& outcome, int position) {
            if (position < 0) {
                EXPECT_EQ(outcome.code, 0);
            } else {
                EXPECT_TRUE(outcome.code == QUtils::RIERR_MEMORY || outcome.code == QUtils::RIERR_OPEN)
                    << outcome.code << " " << position;
            }
            EXPECT_EQ(openFiles(), before);
        });
    EXPECT_GT(refusals, 20);
}

TEST(RIFileMemory, ReaderSaysSoAndReadsWhenThereIsMemoryAgain)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    const std::string path = dir / "a.quimg";
    writeWhole(path, frame);
    const int before = openFiles();
    std::vector<std::uint32_t> ids(23 * 14);
    const int refusals = refuseEachInTurn(
        [&] {
            RIReader reader;
            ErrorCode error = reader.Open(path.c_str());
            if (error.code() == 0)
                error = reader.verify();
            return error.code() != 0 ? error : reader.readPixels(1, { 0, 0, 23, 14 }, ids.data(), 23 * 4);
        },
        [&](const ErrorCode& error, int position) {
            if (position < 0) {
                EXPECT_EQ(error.code(), 0);
            } else {
                EXPECT_TRUE(error.code() == QUtils::RIERR_MEMORY || error.code() == QUtils::RIERR_OPEN)
                    << error.code() << " " << position;
            }
            EXPECT_EQ(openFiles(), before);
        });
    EXPECT_GT(refusals, 10);
    RIReader reader;
    ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
    EXPECT_EQ(countWrongCells(reader, frame), 0);
}

TEST(RIFileMemory, RefusedResumeLeavesTheFileAsItIs)
{
    const TempDir dir;
    RawTestFrame frame = smallFrame();
    const std::string path = dir / "a.quimg";
    writeWhole(path, frame);
    Bytes cut = readFile(path);
    cut.resize(cut.size() / 2);
    writeFile(path, cut);
    RIReader reader;
    ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
    const int missing = reader.countMissingRegions();
    refuseEachInTurn(
        [&] {
            RIFile file;
            return file.Open(path.c_str());
        },
        [&](const ErrorCode& error, int position) {
            EXPECT_EQ(error.code() == 0, position < 0);
            EXPECT_TRUE(
                position < 0 || error.code() == QUtils::RIERR_MEMORY || error.code() == QUtils::RIERR_OPEN)
                << error.code() << " " << position;
            ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
            EXPECT_EQ(reader.countMissingRegions(), missing);
        });
}

// --- Bytes that the system cannot read -------------------------------------------------------------------

/// Makes a byte of all files unreadable while it lives.
class UnreadableByte {
public:
    explicit UnreadableByte(std::size_t place) { unreadableByte = off_t(place); }
    UnreadableByte(const UnreadableByte&) = delete;
    UnreadableByte& operator=(const UnreadableByte&) = delete;
    ~UnreadableByte() { unreadableByte = -1; }
};

TEST(RIFileReadErrors, NoByteThatCannotBeReadCountsAsDamage)
{
    const TempDir dir;
    RawTestFrame frame { 600, 500, 32, {}, 100, 100, { { "a", 1, QUtils::RISAMPLE_FLOAT, 4 } } };
    const std::string path = dir / "a.quimg";
    writeWhole(path, frame);
    Bytes bytes = readFile(path);
    ASSERT_GT(bytes.size(), std::size_t(3) << 19); // More than is read at once.
    bytes.resize(bytes.size() - 1); // No index.
    writeFile(path, bytes);
    RIReader reader;
    std::vector<std::size_t> places;
    for (std::size_t at = 0; at < 1024; at += 16)
        places.push_back(at);
    for (std::size_t at = 1024; at < bytes.size(); at += 131071)
        places.push_back(at);
    for (const std::size_t at : places) {
        const UnreadableByte unreadable(at);
        const ErrorCode error = reader.Open(path.c_str());
        EXPECT_EQ(error.code(), QUtils::RIERR_READ) << at;
        EXPECT_NE(std::string(error.message()).find("Input/output error"), std::string::npos)
            << error.message();
        RIFile file;
        EXPECT_EQ(file.Open(path.c_str()).code(), QUtils::RIERR_READ) << at;
    }
    EXPECT_EQ(readFile(path), bytes);
}

TEST(RIFileReadErrors, ClosedFileIsNotResumedWhenARegionCannotBeRead)
{
    const TempDir dir;
    RawTestFrame frame { 600, 500, 32, {}, 100, 100, { { "a", 1, QUtils::RISAMPLE_FLOAT, 4 } } };
    const std::string path = dir / "a.quimg";
    writeWhole(path, frame);
    const Bytes bytes = readFile(path);
    {
        ASSERT_GT(bytes.size(), std::size_t(3) << 19);
        const UnreadableByte unreadable(bytes.size() - bytes.size() / 8); // Behind what Open looks at.
        RIReader reader;
        ASSERT_EQ(reader.Open(path.c_str()).code(), 0);
        ASSERT_TRUE(reader.isClosed());
        const ErrorCode error = reader.verify();
        EXPECT_EQ(error.code(), QUtils::RIERR_READ);
        EXPECT_STREQ(error.function(), "RIReader::verify");
        EXPECT_EQ(reader.countMissingRegions(), 1);
        RIFile file;
        EXPECT_EQ(file.Open(path.c_str()).code(), QUtils::RIERR_READ);
    }
    EXPECT_EQ(readFile(path), bytes);
}

} // namespace
