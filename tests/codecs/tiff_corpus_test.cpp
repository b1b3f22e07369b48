#include "rastkit/buffers.h"
#include "rastkit/codecs/tiff_core.h"
#include "rastkit/load.h"
#include "support/corpus.h"
#include "support/recording_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace testing_support;
using QUtils::Conventions;
using QUtils::ImageF;
using testing::AnyOf;

/// Where the other decoders' figures do not hold, and why this one is right.
const std::map<std::string, std::string> deviations = {
    { "tiff/image-tiff/int16_zstd.tif", "signed numbers: OpenImageIO divides by 32767, Pillow by 2^31" },
    { "tiff/image-tiff/seq-1c-12b-miniswhite-47c39b31.tiff", "OpenImageIO takes white for black" },
    { "tiff/image-tiff/seq-1c-14b-miniswhite-e883657f.tiff", "the same" },
    { "tiff/image-tiff/seq-1c-24b-072a9dc9.tiff",
        "24 bits in the order of the file; OpenImageIO takes the other" },
    { "tiff/image-tiff/seq-3c-24b-contig-27b9f8ce.tiff", "the same" },
    { "tiff/image-tiff/seq-3c-24b-planar-6296c0c9.tiff", "the same" },
    { "tiff/image-tiff/tiled-oversize-gray-i8.tif", "signed numbers: OpenImageIO divides by 127" },
    { "tiff/imagemagick/input_256_matte.tiff",
        "OpenImageIO multiplies by alpha, Pillow takes indices for grey" },
    { "tiff/serenity/rgb_palette_alpha.tiff", "the same" },
    { "tiff/openimageio-images/off_l16.tif",
        "luminance of its own range; OpenImageIO has libtiff make bytes of it" },
    { "tiff/openimageio-images/off_luv24.tif", "the same" },
    { "tiff/pillow/crash-0da013a13571cc8eb457a39fee8db18f8a3c7127.tif", "fax data of a wrong depth" },
    { "tiff/openimageio/crash-cmyk-1bit.tif", "inks of one bit; OpenImageIO takes eight of them for one" },
    { "tiff/twelvemonkeys/flower-separated-planar-08.tif", "it does not say that its samples are inks" },
};

/// Where only the colours are compared.
const std::map<std::string, std::string> alphaDeviations = {
    { "tiff/image-tiff/extra_bits_gray_8b.tiff", "the second sample is not called alpha" },
};

/// What another decoder reads, and why it is refused here.
const std::map<std::string, std::string> refusedByUs = {
    { "tiff/pillow/crash-2020-10-test.tif", "its data are damaged" },
};

/// What the other decoders give up on, and what of it can be read all the same.
const std::map<std::string, std::string> readByUsOnly = {
    { "tiff/image-tiff/gradient-3c-64b.tiff", "integers of 64 bits" },
};

class TiffCorpus : public CorpusTest { };

TEST_F(TiffCorpus, EveryFileIsReadOrRefusedInOrder)
{
    const auto files = corpusFiles("tiff");
    ASSERT_FALSE(files.empty());
    for (const std::string& file : files)
        for (const Conventions conventions : { Conventions::Renderer, Conventions::Standard }) {
            ImageF image;
            IMGINFO info {}, described {};
            const int code = codeOf(QUtils::loadTiff(path(file).c_str(), image, &info, conventions));
            EXPECT_THAT(code,
                AnyOf(
                    IMGERR_NONE, IMGERR_OPEN, IMGERR_READ, IMGERR_FORMAT, IMGERR_MEMORY, IMGERR_UNSUPPORTED))
                << file;
            const int headerCode
                = codeOf(QUtils::loadTiffHeader(path(file).c_str(), &described, conventions));
            EXPECT_EQ(described.width, info.width) << file;
            EXPECT_EQ(described.height, info.height) << file;
            EXPECT_EQ(described.bitsPerPixel, info.bitsPerPixel) << file;
            if (code == IMGERR_NONE) {
                EXPECT_EQ(headerCode, IMGERR_NONE) << file;
                EXPECT_EQ(image.width(), info.width) << file;
            }
        }
}

TEST_F(TiffCorpus, PicturesAgreeWithAnotherDecoder)
{
    const auto allFigures = corpusFigures();
    int compared = 0;
    for (const std::string& file : corpusFiles("tiff")) {
        const auto [begin, end] = allFigures.equal_range(file);
        if (begin == end || deviations.count(file))
            continue;
        ImageF image;
        const int code = codeOf(QUtils::loadTiff(path(file).c_str(), image, nullptr, Conventions::Standard));
        EXPECT_EQ(code == IMGERR_NONE, refusedByUs.count(file) == 0) << file;
        if (code != IMGERR_NONE)
            continue;

        // Others convert to 8 bits, some with other roundings.
        constexpr double tolerance = 1.01 / 255;
        EXPECT_TRUE(agreesWithOne(begin, end, [&](const PixelFigures& theirs, PixelFigures& ours) {
            // Five channels and more are four, and data.
            const std::size_t channels = std::min<std::size_t>(theirs.channels(), 4);
            const bool hasAlpha = channels == 2 || channels == 4;
            ours = figuresOf(image, channels);
            return agree(ours, theirs, channels - (hasAlpha && alphaDeviations.count(file)), tolerance);
        })) << file;
        ++compared;
    }
    EXPECT_GE(compared, 150);
}

TEST_F(TiffCorpus, FilesThatNobodyReadsAreAnError)
{
    const std::set<std::string> readable = filesReadByOthers();
    for (const std::string& file : corpusFiles("tiff")) {
        if (readable.count(file) || readByUsOnly.count(file))
            continue;
        ImageF image;
        EXPECT_NE(
            codeOf(QUtils::loadTiff(path(file).c_str(), image, nullptr, Conventions::Standard)), IMGERR_NONE)
            << file;
    }
}

} // namespace
