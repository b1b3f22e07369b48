#pragma once

#include "qutils/plugin/pixel_buffer.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace QUtils {
inline namespace RASTKIT_ABI {

/// What Image8 and ImageF share: storage of whole rows, sized by `init`, which keeps its memory for a
/// next image of the same size. Rows that nothing was stored to read as zero.
///
/// Sizes past the limit, and refused memory, show as `isValid() == 0`; every store is dropped then. An
/// empty size (zero or negative) is valid and holds nothing. Stores outside the image are dropped.
///
/// Different rows may be stored from different threads. An image that was moved from is like one that
/// `init` was not called for yet: it has no size, is not valid, and drops every store.
class RASTKIT_API RowImage : public ImgRowBuffer {
public:
    static constexpr std::uint64_t defaultMaxBytes = std::uint64_t(2) << 30;

    ~RowImage() override;

    int width() const { return m_width; }
    int height() const { return m_height; }
    /// Most bytes of pixels that `init` will take; counts from the next `init` on.
    void setMaxBytes(std::uint64_t bytes) { m_maxBytes = bytes; }

    void init(int width, int height) override;
    int isValid() override { return m_valid; }
    void freeMem() override;

protected:
    explicit RowImage(std::size_t pixelBytes);
    RowImage(RowImage&& other) noexcept;
    RowImage& operator=(RowImage&& other) noexcept;

    /// Cuts a run of pixels to the image: false when nothing is left. `skipped` counts what was cut in
    /// front.
    bool clip(int& x, int y, int& count, int& skipped) const;
    /// Row `y` for storing into; rows that are new are cleared first, unless all of it will be stored.
    void* writableRow(int y, bool wholeRow);
    /// Row `y` for reading; a row of zeros for one that nothing was stored to.
    const void* readableRow(int y) const;
    /// Clears the rows that nothing was stored to, so that all of the image can be read as one block.
    void* wholeImage();

private:
    struct Storage;

    std::unique_ptr<Storage> m_storage;
    std::uint64_t m_maxBytes = defaultMaxBytes;
    std::size_t m_pixelBytes;
    int m_width = 0, m_height = 0, m_valid = 0;
};

/// A sink of packed 8-bit pixels, one word 0xAARRGGBB each. Floats are clamped to 0..1 (NaN is 0), scaled
/// by 255 and rounded to nearest.
class RASTKIT_API Image8 : public RowImage {
public:
    Image8();
    ~Image8() override;
    Image8(Image8&&) noexcept = default;
    Image8& operator=(Image8&&) noexcept = default;

    /// 0 outside the image.
    unsigned int pixel(int x, int y) const;
    /// Row `y` (0 to height - 1), `width` words; null outside the image. Stays in place until the row is
    /// stored to for the first time.
    const unsigned int* row(int y) const;
    /// All rows, one after the other; null for an empty image.
    unsigned int* data();

    void setPixelF(int x, int y, const float* rgba) override;
    void setPixel(int x, int y, unsigned int argb) override;
    void setRow(int x, int y, int count, const unsigned int* argb) override;
    void setRowF(int x, int y, int count, const float* rgba) override;
    unsigned int* rowData(int y) override;
};

/// A sink of pixels of four floats R, G, B, A. Packed pixels are divided by 255.
class RASTKIT_API ImageF : public RowImage {
public:
    ImageF();
    ~ImageF() override;
    ImageF(ImageF&&) noexcept = default;
    ImageF& operator=(ImageF&&) noexcept = default;

    /// Row `y` (0 to height - 1), four floats R, G, B, A for each of `width` pixels. As in Image8.
    const float* row(int y) const;
    /// All rows, one after the other; null for an empty image.
    float* data();

    void setPixelF(int x, int y, const float* rgba) override;
    void setPixel(int x, int y, unsigned int argb) override;
    void setRow(int x, int y, int count, const unsigned int* argb) override;
    void setRowF(int x, int y, int count, const float* rgba) override;
    float* rowDataF(int y) override;
};

/// How a FrameBuffer stores the samples of a channel.
enum class FrameSample {
    Packed8, ///< One word 0xAARRGGBB per pixel: 3 or 4 components of 8 bits (with 3, alpha is ignored).
    Half, ///< 16-bit floats, components interleaved in the order R, G, B, A.
    Float, ///< 32-bit floats, interleaved in the same way.
    Int32, ///< Signed 32-bit integers, interleaved in the same way.
};

/// A ready-made frame: any number of named channels of one size, which every writer takes.
///
/// Queries convert as follows. Floats become 8- and 16-bit samples by clamping to 0..1 (NaN is 0),
/// scaling and rounding to nearest, and 32-bit integers by rounding to nearest within their range (NaN is
/// 0). Integers become 8- and 16-bit samples by clamping to the range of those, and floats by value.
/// Packed8 samples are divided by 255 for floats, multiplied by 257 for 16 bits and kept as numbers for
/// integers. One-component channels fill R, G and B; two components fill R and G, with B zero; a code of
/// one component takes the first. A negative alpha channel is opaque (1.0, 255, 65535; integers 1), also
/// for a channel with an alpha of its own. An alpha channel, of any sample type, gives its fourth component
/// where it has four, else its first. Codes without alpha do not look at it.
///
/// Reading from several threads is safe while nothing is written. A frame that was moved from has size 0.
class RASTKIT_API FrameBuffer : public PixelBufferInterface {
public:
    /// Width and height are at least 1; others give a frame of size 0 that takes no channels.
    FrameBuffer(int width, int height);
    ~FrameBuffer() override;
    FrameBuffer(FrameBuffer&&) noexcept;
    FrameBuffer& operator=(FrameBuffer&&) noexcept;

    /// Adds a channel of 1 to 4 components (Packed8: 3 or 4), all zero, and returns its position; -1 when
    /// memory is refused or a value is out of range. `channelId` says what it is to the writers: 1
    /// colour, 2 alpha, others data (PixelChannelId). The data kind that the channel is described with
    /// follows from the samples: Int32 is integer, else one component is scalar, two are a vector, three
    /// and four a colour.
    int addChannel(const char* name, int channelId, int components, FrameSample sample);

    /// Samples of row `y` of a channel as stored, or null when there is no such row.
    void* row(int channel, int y);
    const void* row(int channel, int y) const;
    /// The same for a channel of that sample type; null for a channel of another.
    float* rowF(int channel, int y);
    std::uint32_t* rowPacked(int channel, int y);
    std::int32_t* rowInt(int channel, int y);
    /// Stores `count` pixels at (x, y) from floats, as many per pixel as the channel has components,
    /// converted as in queries. Nothing outside the frame is stored.
    void setRowF(int channel, int x, int y, int count, const float* samples);

    int getWidth() override;
    int getHeight() override;
    /// Any region inside the frame, an empty one too, and any pixel-format code; `dest` needs no
    /// alignment. 0, with `dest` untouched, for another region, channel or code, a null `dest`, or a
    /// `rowBytes` shorter than a row, which for a single row is the room at `dest`.
    int getPixels(int channel, int alphaChannel, const PixelBufferRegion& region, int format, int rowBytes,
        void* dest, int argument0, int argument1, int argument2) override;
    int getNumChannels() override;
    int getChannelInfo(int index, PixelBufferChannelInfo& info) override;

    /// The plug-in that frames answer with: null unless set. It may offer colour-corrected pixels.
    PluginBase* getPlugin() override;
    void setPlugin(PluginBase* plugin);

private:
    struct Channels;

    std::unique_ptr<Channels> m_channels;
};

} // namespace RASTKIT_ABI
} // namespace QUtils
