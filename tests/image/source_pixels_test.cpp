#include "rastkit/image/source_pixels.h"

#include "support/exr_files.h"
#include "support/png_bytes.h"
#include "support/sgi_bytes.h"
#include "support/tga_bytes.h"
#include "support/tiff_bytes.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using QUtils::SourcePixels;
using QUtils::SourceSample;

class SourcePixelsOf : public testing::Test {
protected:
    SourcePixels pixelsOf(const std::string& name)
    {
        SourcePixels pixels;
        EXPECT_EQ(describeSourcePixels(name.c_str(), pixels).code(), IMGERR_NONE);
        return pixels;
    }
    SourcePixels pixelsOf(const char* name, const Bytes& bytes)
    {
        writeFile(m_dir / name, bytes);
        return pixelsOf(m_dir / name);
    }
    void expect(const SourcePixels& pixels, SourceSample sample, int channels)
    {
        EXPECT_EQ(int(pixels.sample), int(sample));
        EXPECT_EQ(pixels.channels, channels);
    }

    TempDir m_dir;
};

TEST_F(SourcePixelsOf, TiffFilesHaveWhatTheirTagsSay)
{
    TiffBytes tiff { .chunks = { Bytes(64) } };
    const auto look = [&](int bits, int samples, int photometric, int format) {
        tiff.bits = bits;
        tiff.samples = samples;
        tiff.photometric = photometric;
        tiff.sampleFormat = format;
        return pixelsOf("a.tif", tiff.bytes());
    };
    expect(look(8, 1, 1, 1), SourceSample::Byte, 1);
    expect(look(1, 1, 0, 1), SourceSample::Byte, 1);
    expect(look(16, 3, 2, 1), SourceSample::Short, 3);
    expect(look(16, 3, 2, 3), SourceSample::Half, 3);
    expect(look(32, 1, 1, 3), SourceSample::Float, 1);
    expect(look(32, 3, 2, 1), SourceSample::Float, 3); // More than the smaller ones hold.
    expect(look(8, 3, 2, 2), SourceSample::Float, 3); // Below 0 too.
    expect(look(8, 4, 5, 1), SourceSample::Byte, 3);
    expect(look(8, 4, 2, 1), SourceSample::Byte, 4);
    tiff.extraSamples = { 2 };
    expect(look(8, 2, 1, 1), SourceSample::Byte, 2);
    tiff.extraSamples = { 0 };
    expect(look(8, 2, 1, 1), SourceSample::Byte, 1);
    tiff.extraSamples = {};
    tiff.colorMap = std::vector<std::uint64_t>(768, 500);
    expect(look(8, 1, 3, 1), SourceSample::Byte, 3);
}

TEST_F(SourcePixelsOf, OtherFormatsHaveWhatTheirHeadersSay)
{
    PngBytes png;
    png.samples = { 1, 2, 3, 4 };
    png.colorType = PngBytes::greyAlpha;
    png.bitDepth = 16;
    expect(pixelsOf("a.png", png.bytes()), SourceSample::Short, 2);
    expect(pixelsOf("a.tga", TgaBytes { .pixels = { 1, 2, 3 } }.bytes()), SourceSample::Byte, 3);
    expect(pixelsOf("a.tga", TgaBytes { .imageType = 3, .pixelBits = 8, .pixels = { 1 } }.bytes()),
        SourceSample::Byte, 1);
    expect(pixelsOf("a.sgi", SgiBytes { .bytesPerChannel = 2, .data = { 0, 0 } }.bytes()),
        SourceSample::Short, 1);
    const std::string radiance = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\nabcd";
    expect(pixelsOf("a.hdr", Bytes(radiance.begin(), radiance.end())), SourceSample::Float, 3);
}

TEST_F(SourcePixelsOf, OpenExrFilesHaveTheirChannels)
{
    ExrFileFacts exr;
    exr.write(m_dir / "a.exr");
    expect(pixelsOf(m_dir / "a.exr"), SourceSample::Half, 4);
    exr.channels = { { "Y", Imf::FLOAT } };
    exr.write(m_dir / "a.exr");
    expect(pixelsOf(m_dir / "a.exr"), SourceSample::Float, 1);
}

TEST_F(SourcePixelsOf, OnlySmallWholeNumbersAreIntegers)
{
    EXPECT_TRUE((SourcePixels { SourceSample::Byte, 1 }.isInteger()));
    EXPECT_TRUE((SourcePixels { SourceSample::Short, 1 }.isInteger()));
    EXPECT_FALSE((SourcePixels { SourceSample::Half, 1 }.isInteger()));
    EXPECT_FALSE((SourcePixels { SourceSample::Float, 1 }.isInteger()));
}

TEST_F(SourcePixelsOf, AFileThatIsNoImageIsAnError)
{
    writeFile(m_dir / "a.tif", { 'n', 'o' });
    SourcePixels pixels;
    EXPECT_EQ(describeSourcePixels((m_dir / "a.tif").c_str(), pixels).code(), IMGERR_FORMAT);
    EXPECT_EQ(describeSourcePixels((m_dir / "b.tif").c_str(), pixels).code(), IMGERR_OPEN);
}

} // namespace
