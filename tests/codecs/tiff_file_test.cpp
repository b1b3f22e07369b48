#include "rastkit/codecs/tiff_file.h"

#include "support/temp_file.h"
#include "support/tiff_reading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace testing_support;
using QUtils::TiffFile;

constexpr int width = 700, height = 800;

Bytes noise(unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(width);
    for (std::uint8_t& byte : bytes)
        byte = std::uint8_t(random() % 7);
    return bytes;
}

void setTags(TIFF* tiff, int compression, int rowsPerStrip)
{
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
}

void writeRows(TIFF* tiff)
{
    for (unsigned y = 0; y < height; ++y) {
        Bytes row = noise(y);
        ASSERT_EQ(TIFFWriteScanline(tiff, row.data(), y, 0), 1);
    }
}

TEST(TiffFile, WritesTheFileThatLibtiffAloneWrites)
{
    const TempDir folder;
    for (const int compression : { COMPRESSION_NONE, COMPRESSION_LZW })
        for (const int rowsPerStrip : { 1, 3, 400, height }) {
            TIFF* const other = TIFFOpen((folder / "other.tif").c_str(), "w");
            setTags(other, compression, rowsPerStrip);
            writeRows(other);
            TIFFClose(other);

            TiffFile tiff((folder / "a.tif").c_str(), "w");
            ASSERT_TRUE(tiff);
            setTags(tiff, compression, rowsPerStrip);
            writeRows(tiff);
            EXPECT_TRUE(tiff.close());
            EXPECT_TRUE(tiff.close()) << "a second time";
            EXPECT_EQ(readFile(folder / "a.tif"), readFile(folder / "other.tif"));
        }
}

TEST(TiffFile, ReadsRowsInAnyOrder)
{
    const TempDir folder;
    for (const int rowsPerStrip : { 1, 64, height }) {
        TIFF* const other = TIFFOpen((folder / "a.tif").c_str(), "w");
        setTags(other, COMPRESSION_NONE, rowsPerStrip);
        writeRows(other);
        TIFFClose(other);

        const TiffFile tiff((folder / "a.tif").c_str(), "r");
        ASSERT_TRUE(tiff);
        EXPECT_EQ(QUtils::tiffFileBytes(tiff), std::filesystem::file_size(folder / "a.tif"));
        std::mt19937 random(5);
        for (int i = 0; i < 300; ++i) {
            const unsigned y = i < 100 ? unsigned(i) : unsigned(random() % height);
            Bytes row(width);
            ASSERT_EQ(TIFFReadScanline(tiff, row.data(), y, 0), 1);
            ASSERT_EQ(row, noise(y)) << y;
        }
    }
}

TEST(TiffFile, IsReadAgainWhileItIsWritten)
{
    const TempDir folder;
    TiffFile tiff((folder / "a.tif").c_str(), "w");
    for (int page = 0; page < 3; ++page) {
        setTags(tiff, COMPRESSION_NONE, 10);
        writeRows(tiff);
        ASSERT_EQ(TIFFWriteDirectory(tiff), 1); // Stores its place in the directory before.
    }
    EXPECT_TRUE(tiff.close());
    const OpenTiff other(folder / "a.tif");
    ASSERT_TRUE(other);
    const TiffFile again((folder / "a.tif").c_str(), "r");
    EXPECT_GE(TIFFNumberOfDirectories(again), 3);

    TiffFile more((folder / "a.tif").c_str(), "a");
    ASSERT_TRUE(more);
    setTags(more, COMPRESSION_NONE, 10);
    writeRows(more);
    EXPECT_TRUE(more.close());
    const TiffFile last((folder / "a.tif").c_str(), "r");
    EXPECT_GE(TIFFNumberOfDirectories(last), 4);
}

/// A file as a plain array, to compare with.
struct Model {
    Bytes bytes;
    std::size_t position = 0;

    void write(const Bytes& added)
    {
        bytes.resize(std::max(bytes.size(), position + added.size()));
        std::copy(added.begin(), added.end(), bytes.begin() + std::ptrdiff_t(position));
        position += added.size();
    }
    Bytes read(std::size_t count)
    {
        const std::size_t first = std::min(position, bytes.size());
        const std::size_t got = std::min(count, bytes.size() - first);
        position += got;
        return Bytes(bytes.begin() + std::ptrdiff_t(first), bytes.begin() + std::ptrdiff_t(first + got));
    }
};

/// The functions that libtiff would call.
class Stream {
public:
    explicit Stream(TIFF* tiff)
        : m_handle(TIFFClientdata(tiff)), m_read(TIFFGetReadProc(tiff)), m_write(TIFFGetWriteProc(tiff)),
          m_seek(TIFFGetSeekProc(tiff)), m_size(TIFFGetSizeProc(tiff))
    {
    }

    Bytes read(std::size_t count)
    {
        Bytes bytes(count);
        const tmsize_t got = m_read(m_handle, bytes.data(), tmsize_t(count));
        bytes.resize(got < 0 ? 0 : std::size_t(got));
        return bytes;
    }
    bool write(void* bytes, std::size_t count)
    {
        return m_write(m_handle, bytes, tmsize_t(count)) == tmsize_t(count);
    }
    toff_t seek(std::uint64_t offset, int whence) { return m_seek(m_handle, offset, whence); }
    toff_t size() { return m_size(m_handle); }

private:
    thandle_t m_handle;
    TIFFReadWriteProc m_read, m_write;
    TIFFSeekProc m_seek;
    TIFFSizeProc m_size;
};

/// A few bytes, about a block, or more.
std::size_t anyCount(std::mt19937& random)
{
    constexpr std::size_t most[] = { 10, 3000, 70000, 300000 };
    return 1 + random() % most[random() % 4];
}

Bytes anyBytes(std::mt19937& random)
{
    Bytes bytes(anyCount(random));
    for (std::uint8_t& byte : bytes)
        byte = std::uint8_t(random());
    return bytes;
}

/// One operation on both. Bytes that are made in the room of the stream may end up in another place.
void operate(TIFF* tiff, Stream& stream, Model& model, std::mt19937& random)
{
    const auto seekTo = [&](std::size_t position) {
        const int whence = int(random() % 3);
        const std::size_t base = whence == SEEK_SET ? 0
            : whence == SEEK_CUR                    ? model.position
                                                    : model.bytes.size();
        ASSERT_EQ(stream.seek(position - base, whence), position);
        model.position = position;
    };
    switch (random() % 5) {
    case 0: {
        const std::size_t count = anyCount(random);
        ASSERT_EQ(stream.read(count), model.read(count));
        break;
    }
    case 1: {
        Bytes bytes = anyBytes(random);
        ASSERT_TRUE(stream.write(bytes.data(), bytes.size()));
        model.write(bytes);
        break;
    }
    case 2: seekTo(random() % (model.bytes.size() + 1000)); break;
    case 3: ASSERT_EQ(stream.size(), model.bytes.size()); break;
    default: {
        const Bytes bytes = anyBytes(random);
        void* const room = QUtils::tiffRoom(tiff, bytes.size());
        if (!room)
            break;
        std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(room));
        if (random() % 2)
            seekTo(random() % 2 ? model.bytes.size() : random() % (model.bytes.size() + 1));
        ASSERT_TRUE(stream.write(room, bytes.size()));
        model.write(bytes);
    }
    }
}

TEST(TiffFile, ReadsWritesAndJumpsInAnyOrderAreThoseOfAPlainFile)
{
    const TempDir folder;
    LibTIFF_StopWarnings();
    for (unsigned seed = 0; seed < 30; ++seed) {
        std::mt19937 random(seed);
        Model model;
        {
            const TiffFile tiff((folder / "a.tif").c_str(), "w");
            Stream stream(tiff);
            ASSERT_EQ(stream.seek(0, SEEK_SET), 0u);
            model.bytes = stream.read(100); // The header that libtiff has written.
            model.position = model.bytes.size();
            for (int i = 0; i < 100 && !testing::Test::HasFatalFailure(); ++i)
                operate(tiff, stream, model, random);
            ASSERT_FALSE(testing::Test::HasFatalFailure()) << seed;
            ASSERT_EQ(stream.seek(0, SEEK_SET), 0u);
            ASSERT_EQ(stream.read(model.bytes.size() + 1), model.bytes) << seed;
        }
    }
}

TEST(TiffFile, CutFileReadsToItsEndOnly)
{
    const TempDir folder;
    TIFF* const other = TIFFOpen((folder / "a.tif").c_str(), "w");
    setTags(other, COMPRESSION_NONE, 1);
    TIFFWriteCheck(other, 0, "test");
    writeRows(other);
    TIFFRewriteDirectory(other);
    TIFFClose(other);
    const TiffFile tiff((folder / "a.tif").c_str(), "r");
    ASSERT_TRUE(tiff);
    // Somebody cuts the file while it is open: an error, where a mapping would end the process.
    std::filesystem::resize_file(folder / "a.tif", 600);
    Bytes row(width);
    EXPECT_EQ(TIFFReadEncodedStrip(tiff, height - 1, row.data(), width), -1);
}

TEST(TiffFile, RefusesWhatIsNoTiff)
{
    const TempDir folder;
    writeFile(folder / "text", { 't', 'e', 'x', 't', ' ', 'o', 'f', ' ', 's', 'o', 'r', 't', 's' });
    errno = 0;
    EXPECT_FALSE(TiffFile((folder / "text").c_str(), "r"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(TiffFile((folder / "none").c_str(), "r"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(TiffFile((folder / "text").c_str(), "x"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(TiffFile(nullptr, "r"));
    EXPECT_FALSE(TiffFile(folder.path().c_str(), "r"));
}

TEST(TiffFile, FullDeviceShowsAtTheLatestWhenItIsClosed)
{
    TiffFile tiff("/dev/full", "w");
    ASSERT_TRUE(tiff);
    setTags(tiff, COMPRESSION_NONE, 1);
    Bytes row = noise(1);
    TIFFWriteScanline(tiff, row.data(), 0, 0);
    EXPECT_FALSE(tiff.close());
}

TEST(TiffFile, HandleIsClosedByLibtiffToo)
{
    const TempDir folder;
    TIFF* const tiff = my_TIFFOpen((folder / "a.tif").c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    setTags(tiff, COMPRESSION_NONE, 10);
    writeRows(tiff);
    TIFFClose(tiff);
    EXPECT_EQ(OpenTiff(folder / "a.tif").number(TIFFTAG_IMAGEWIDTH), unsigned(width));
}

TEST(TiffFile, MessagesAreSilencedForTheWholeProcess)
{
    const TempDir folder;
    writeFile(folder / "bad.tif", { 'I', 'I', 42, 0, 200, 0, 0, 0 });
    LibTIFF_StopWarnings();
    LibTIFF_StopWarnings();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(TiffFile((folder / "bad.tif").c_str(), "r"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(TIFFSetErrorHandler(nullptr), nullptr);
    EXPECT_EQ(TIFFSetWarningHandler(nullptr), nullptr);
}

} // namespace
