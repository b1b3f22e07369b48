#pragma once

#include "rastkit/codecs/tiff_strip_decoder.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>
#include <tiff.h>

namespace QUtils {

/// What the samples of a pixel are, in the values of the tags, and how they lie in a decoded strip or tile.
struct TiffPixelLayout {
    unsigned photometric = PHOTOMETRIC_MINISBLACK;
    unsigned sampleFormat = SAMPLEFORMAT_UINT;
    unsigned bits = 8; ///< Of a sample.
    unsigned samples = 1; ///< Of a pixel.
    int alphaSample = -1; ///< The number of the sample that is alpha; negative for none.
    bool isPlanar = false; ///< Each sample in a plane of its own.

    bool isLog() const { return photometric == PHOTOMETRIC_LOGL || photometric == PHOTOMETRIC_LOGLUV; }
    /// How many samples of each pixel make its colour, the first ones.
    unsigned colorSamples() const
    {
        if (photometric == PHOTOMETRIC_SEPARATED)
            return 4;
        return (photometric == PHOTOMETRIC_RGB && samples >= 3) || photometric == PHOTOMETRIC_LOGLUV ? 3 : 1;
    }
};

/// Decoded bytes.
struct TiffDecodedBytes {
    const std::uint8_t* bytes; ///< Of the first plane, or of all samples when they are not in planes.
    std::size_t size; ///< Of that plane, at least 1. Behind them the last byte repeats.
    std::size_t planeDistance; ///< From the beginning of a plane to that of the next one.
};

/// Turns runs of pixels of decoded bytes into floats R, G, B, A, or, where that is the same, into packed
/// ones. The way is chosen once per image; nothing is allocated.
///
/// Two steps: the samples that count are brought together as whole numbers ("gathered"), unless they are
/// just that already; then these become pixels. Both go in blocks that stay in the first-level cache.
class TiffPixelDecoder {
public:
    /// `palette` must live as long as this object. IMGERR_UNSUPPORTED: sizes of samples that are not
    /// decoded. Known are integers of 1 to 32 and of 64 bits, floats of 16, 32 and 64 bits.
    ImgErrorCode setUp(const TiffPixelLayout& layout, const Table<Color, 100>& palette);

    /// Whether packed pixels are what the floats would be rounded to.
    bool isPackable() const { return m_packs; }
    /// From a pixel to the next one, in the plane if there are planes.
    std::uint64_t pixelBits() const { return m_pixelBits; }

    /// Decodes `count` pixels, the first of them `firstBit` bits from the beginning of `from` (and in other
    /// planes as far from theirs). `firstBit` is a multiple of 8 where samples are whole bytes.
    void decode(const TiffDecodedBytes& from, std::uint64_t firstBit, float* rgba, std::size_t count);
    void decode(const TiffDecodedBytes& from, std::uint64_t firstBit, unsigned int* argb, std::size_t count);

private:
    static constexpr std::size_t blockPixels = 256;
    static constexpr unsigned mostPicked = 5;

    /// The types of gathered numbers.
    enum class Number { UInt8, Int8, UInt16, Int16, UInt32, Int32, UInt64, Int64, Half, Float, Double };
    enum class Meaning {
        Table, ///< One number of at most 8 bits, which has only so many values.
        Index, ///< The number of a palette's colour, and perhaps alpha.
        Samples, ///< Grey or RGB, and perhaps alpha.
        Inks, ///< Cyan, magenta, yellow, black, and perhaps alpha.
        LogL,
        LogLuv,
    };

    bool chooseNumber(const TiffPixelLayout& layout);
    void choosePicked(const TiffPixelLayout& layout);
    void fillTable(bool isSigned);
    void fillArrangement();

    const std::uint8_t* numbers(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count);
    bool liesReady(const TiffDecodedBytes& from, std::uint64_t firstBit, std::uint64_t endBit) const;
    void gather(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count, bool inside);
    void gatherBytes(const TiffDecodedBytes& from, std::uint64_t firstByte, std::size_t count);
    void gatherBytesToTheEnd(const TiffDecodedBytes& from, std::uint64_t firstByte, std::size_t count);
    void gatherBits(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count);
    void gatherSmall(const TiffDecodedBytes& from, std::uint64_t firstBit, std::size_t count);

    void toSamples(const std::uint8_t* numbers, float* samples, std::size_t count) const;
    void toPixels(const std::uint8_t* numbers, float* rgba, std::size_t count);
    void composeSamples(const std::uint8_t* numbers, float* rgba, std::size_t count);
    void composeInks(const std::uint8_t* numbers, float* rgba, std::size_t count);
    void composeLog(const std::uint8_t* numbers, float* rgba, std::size_t count) const;
    template <typename T> void lookUp(const T* numbers, float* rgba, std::size_t count) const;
    void lookUpAny(const std::uint8_t* numbers, float* rgba, std::size_t count) const;

    const PixelKernels* m_kernels = nullptr;
    const Table<Color, 100>* m_palette = nullptr;
    Meaning m_meaning = Meaning::Samples;
    Number m_number = Number::UInt8;
    unsigned m_photometric = 0, m_bits = 0, m_samples = 0;
    unsigned m_numberBytes = 1; // Of a gathered number.
    unsigned m_picked[mostPicked] = {}, m_pickedCount = 0; // The samples that count, alpha last.
    std::uint64_t m_pixelBits = 0;
    bool m_isPlanar = false, m_isWhiteZero = false, m_packs = false, m_isPlainGrey = false;
    float m_scale = 1;

    PixelArrangement m_arrangement {};
    alignas(16) float m_table[256][4];
    unsigned int m_packedTable[256];
    alignas(16) std::uint8_t m_numbers[blockPixels * mostPicked * sizeof(std::uint64_t)];
    alignas(16) float m_floats[blockPixels * mostPicked];
};

} // namespace QUtils
