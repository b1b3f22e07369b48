#include "rastkit/tiles.h"
#include "support/exr_files.h"
#include "support/ignore_leaks.h"
#include "support/open_files.h"
#include "support/refuse_memory.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tiffio.h>

#include <string>
#include <vector>

namespace {

using namespace testing_support;
using testing::AnyOf;

/// A sink that takes no memory of its own.
class CountingSink : public ImgBuffer {
public:
    void init(int, int) override { }
    int isValid() override { return 1; }
    void freeMem() override { }
    void setPixelF(int, int, const float*) override { ++pixels; }
    void setPixel(int, int, unsigned int) override { }

    std::size_t pixels = 0;
};

class TileLoaderMemory : public testing::Test {
protected:
    /// Describes a texture and loads a tile of its second level, each request refused in turn that is not
    /// below `minBytes`.
    template <typename Params, typename Describe>
    void expectErrors(Describe describe, std::size_t minBytes = 0)
    {
        const auto load = [&]() -> ImgError {
            Params params;
            if (const ImgError error = describe(m_name.c_str(), params); error.code() != IMGERR_NONE)
                return error;
            params.fileName = m_name.c_str();
            return params.loadTile(0, 0, 1, m_sink);
        };
        testing::internal::CaptureStderr();
        ASSERT_EQ(load().code(), IMGERR_NONE); // What the libraries take once for good.
        const int files = openFiles();
        const IgnoreLeaks ignore; // OpenEXR forgets what it had when memory ran out.
        const int refusals = refuseEachInTurn(
            load,
            [&](const ImgError& error, int position) {
                if (position < 0)
                    EXPECT_EQ(error.code(), IMGERR_NONE);
                else
                    EXPECT_THAT(error.code(),
                        AnyOf(IMGERR_NONE, IMGERR_MEMORY, IMGERR_READ, IMGERR_FORMAT, IMGERR_OPEN))
                        << position;
                EXPECT_EQ(openFiles(), files) << position;
            },
            minBytes);
        testing::internal::GetCapturedStderr();
        EXPECT_GT(refusals, 4);
    }

    TempDir m_dir;
    const std::string m_name = m_dir / "texture";
    CountingSink m_sink;
};

TEST_F(TileLoaderMemory, RefusedMemoryOfOpenExrIsAnErrorAndNotACrash)
{
    ExrFileFacts file;
    file.isTiled = true;
    file.compression = Imf::ZIP_COMPRESSION;
    file.tiles = Imf::TileDescription(4, 4, Imf::MIPMAP_LEVELS);
    file.write(m_name);
    expectErrors<EXRTileLoaderParams>(LoadEXRHeaderEx);
}

TEST_F(TileLoaderMemory, RefusedMemoryOfTiffIsAnErrorAndNotACrash)
{
    for (const int photometric : { PHOTOMETRIC_MINISBLACK, PHOTOMETRIC_PALETTE, PHOTOMETRIC_SEPARATED }) {
        TIFF* const tiff = TIFFOpen(m_name.c_str(), "w");
        const int samples = photometric == PHOTOMETRIC_SEPARATED ? 4 : 1;
        std::vector<std::uint8_t> blank(256 * 4, 7);
        std::vector<std::uint16_t> map(256, 500);
        for (const std::uint32_t size : { 3u, 1u }) {
            TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, size);
            TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, size);
            TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16u);
            TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16u);
            TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
            TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
            TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
            if (photometric == PHOTOMETRIC_PALETTE)
                TIFFSetField(tiff, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
            TIFFSetField(tiff, TIFFTAG_PIXAR_TEXTUREFORMAT, "Plain Texture");
            TIFFWriteTile(tiff, blank.data(), 0, 0, 0, 0);
            TIFFWriteDirectory(tiff);
        }
        TIFFClose(tiff);
        // libtiff 4.5 counts a tag of its list before it has the 24 bytes for it, and crashes when it closes
        // the file; nothing that a caller can do.
        constexpr std::size_t listEntryBytes = 24;
        expectErrors<TIFTileLoaderParams>(LoadTIFHeaderEx, listEntryBytes + 1);
    }
}

} // namespace
