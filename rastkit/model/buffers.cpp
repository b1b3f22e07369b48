#include "rastkit/buffers.h"

#include "rastkit/model/clip.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/pixel_memory.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

ImgBuffer::~ImgBuffer() = default;

namespace QUtils {
inline namespace RASTKIT_ABI {

ImgRowBuffer::~ImgRowBuffer() = default;

unsigned int* ImgRowBuffer::rowData(int)
{
    return nullptr;
}

float* ImgRowBuffer::rowDataF(int)
{
    return nullptr;
}

/// The rows of one image. They are not cleared when the image is made: `stored` says for each whether it
/// has pixels of this image yet. That saves a pass over the memory, and what an earlier owner left in it
/// still never shows.
struct RowImage::Storage {
    PixelMemory rows;
    PixelMemory stored; ///< A byte a row, so that different rows may be stored from different threads.
    PixelMemory zeroRow; ///< What rows without pixels read as.
    std::size_t rowBytes, rowCount;

    static std::unique_ptr<Storage> make(std::size_t rowBytes, std::size_t rowCount);

    std::uint8_t* row(int y) { return rows.get() + std::size_t(y) * rowBytes; }
    void forgetRows() { std::memset(stored.get(), 0, rowCount); }
    void storeZeros(int y);
};

std::unique_ptr<RowImage::Storage> RowImage::Storage::make(std::size_t rowBytes, std::size_t rowCount)
{
    std::unique_ptr<Storage> storage(new (std::nothrow) Storage);
    if (!storage)
        return nullptr;
    storage->rowBytes = rowBytes;
    storage->rowCount = rowCount;
    storage->rows = allocatePixels(rowBytes * rowCount);
    storage->stored = allocateZeroPixels(rowCount);
    storage->zeroRow = allocateZeroPixels(rowBytes);
    return storage->rows && storage->stored && storage->zeroRow ? std::move(storage) : nullptr;
}

void RowImage::Storage::storeZeros(int y)
{
    std::memset(row(y), 0, rowBytes);
    stored[std::size_t(y)] = 1;
}

RowImage::RowImage(std::size_t pixelBytes) : m_pixelBytes(pixelBytes) { }

RowImage::RowImage(RowImage&& other) noexcept
    : m_storage(std::move(other.m_storage)), m_maxBytes(other.m_maxBytes), m_pixelBytes(other.m_pixelBytes),
      m_width(std::exchange(other.m_width, 0)), m_height(std::exchange(other.m_height, 0)),
      m_valid(std::exchange(other.m_valid, 0))
{
}

RowImage& RowImage::operator=(RowImage&& other) noexcept
{
    if (this != &other) {
        m_storage = std::move(other.m_storage);
        m_maxBytes = other.m_maxBytes;
        m_width = std::exchange(other.m_width, 0);
        m_height = std::exchange(other.m_height, 0);
        m_valid = std::exchange(other.m_valid, 0);
    }
    return *this;
}

RowImage::~RowImage() = default;

void RowImage::freeMem()
{
    m_storage.reset();
    m_width = m_height = m_valid = 0;
}

void RowImage::init(int width, int height)
{
    width = std::max(width, 0);
    height = std::max(height, 0);
    const std::uint64_t rowBytes = std::uint64_t(width) * m_pixelBytes;
    const bool withinLimit = height == 0 || rowBytes <= m_maxBytes / std::uint64_t(height);
    if (m_storage && withinLimit && width == m_width && height == m_height) {
        m_storage->forgetRows();
        return;
    }

    // The old memory goes first: the two images need not fit beside each other.
    freeMem();
    if (!withinLimit)
        return;
    if (width > 0 && height > 0) {
        m_storage = Storage::make(rowBytes, std::size_t(height));
        if (!m_storage)
            return;
    }
    m_width = width;
    m_height = height;
    m_valid = 1;
}

bool RowImage::clip(int& x, int y, int& count, int& skipped) const
{
    return m_storage && y >= 0 && y < m_height && clipRun(m_width, x, count, skipped);
}

void* RowImage::writableRow(int y, bool wholeRow)
{
    if (!m_storage || y < 0 || y >= m_height)
        return nullptr;
    std::uint8_t& stored = m_storage->stored[std::size_t(y)];
    if (!stored && !wholeRow)
        m_storage->storeZeros(y);
    stored = 1;
    return m_storage->row(y);
}

const void* RowImage::readableRow(int y) const
{
    if (!m_storage || y < 0 || y >= m_height)
        return nullptr;
    return m_storage->stored[std::size_t(y)] ? m_storage->row(y) : m_storage->zeroRow.get();
}

void* RowImage::wholeImage()
{
    if (!m_storage)
        return nullptr;
    for (int y = 0; y < m_height; ++y) {
        if (!m_storage->stored[std::size_t(y)])
            m_storage->storeZeros(y);
    }
    return m_storage->row(0);
}

Image8::Image8() : RowImage(sizeof(unsigned int)) { }

Image8::~Image8() = default;

unsigned int Image8::pixel(int x, int y) const
{
    const unsigned int* const pixels = row(y);
    return pixels && x >= 0 && x < width() ? pixels[x] : 0;
}

const unsigned int* Image8::row(int y) const
{
    return static_cast<const unsigned int*>(readableRow(y));
}

unsigned int* Image8::data()
{
    return static_cast<unsigned int*>(wholeImage());
}

void Image8::setPixelF(int x, int y, const float* rgba)
{
    setRowF(x, y, 1, rgba);
}

void Image8::setPixel(int x, int y, unsigned int argb)
{
    setRow(x, y, 1, &argb);
}

void Image8::setRow(int x, int y, int count, const unsigned int* argb)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    auto* const pixels = static_cast<unsigned int*>(writableRow(y, count == width()));
    std::memcpy(pixels + x, argb + skipped, std::size_t(count) * sizeof(unsigned int));
}

void Image8::setRowF(int x, int y, int count, const float* rgba)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    auto* const pixels = static_cast<unsigned int*>(writableRow(y, count == width()));
    pixelKernels().packRounded(rgba + std::size_t(skipped) * 4, pixels + x, std::size_t(count));
}

unsigned int* Image8::rowData(int y)
{
    return static_cast<unsigned int*>(writableRow(y, true));
}

ImageF::ImageF() : RowImage(4 * sizeof(float)) { }

ImageF::~ImageF() = default;

const float* ImageF::row(int y) const
{
    return static_cast<const float*>(readableRow(y));
}

float* ImageF::data()
{
    return static_cast<float*>(wholeImage());
}

void ImageF::setPixelF(int x, int y, const float* rgba)
{
    setRowF(x, y, 1, rgba);
}

void ImageF::setPixel(int x, int y, unsigned int argb)
{
    setRow(x, y, 1, &argb);
}

void ImageF::setRow(int x, int y, int count, const unsigned int* argb)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    auto* const samples = static_cast<float*>(writableRow(y, count == width())) + std::size_t(x) * 4;
    pixelKernels().unpackToFloat(argb + skipped, samples, std::size_t(count));
}

void ImageF::setRowF(int x, int y, int count, const float* rgba)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    auto* const samples = static_cast<float*>(writableRow(y, count == width())) + std::size_t(x) * 4;
    std::memcpy(samples, rgba + std::size_t(skipped) * 4, std::size_t(count) * 4 * sizeof(float));
}

float* ImageF::rowDataF(int y)
{
    return static_cast<float*>(writableRow(y, true));
}

} // namespace RASTKIT_ABI
} // namespace QUtils
