#pragma once

#include "qutils/raw/quimg_format.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>
#include <zstd.h>

namespace QUtils::quimg {

/// The pixels of a block.
struct BlockShape {
    int width = 0, rows = 0, components = 0;
    int sampleType = 0; ///< As stored.

    std::size_t samplesInRow() const { return std::size_t(width) * std::size_t(components); }
    std::size_t rowBytes() const { return samplesInRow() * sampleBytes(sampleType); }
    std::size_t bytes() const { return rowBytes() * std::size_t(rows); }
};

/// A block as it goes into the file.
struct PackedBlock {
    Block entry;
    Bytes bytes; ///< At least `entry.length`; kept from block to block.
    bool failed = false; ///< Memory was refused.
};

/// Turns pixels into blocks. One for each thread.
class BlockEncoder {
public:
    BlockEncoder();
    /// `pixels`: packed samples of `givenType`, rows `rowBytes` apart.
    void encode(const std::uint8_t* pixels, std::size_t rowBytes, int givenType, const BlockShape& shape,
        PackedBlock& out);

private:
    struct FreeContext {
        void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    };
    std::unique_ptr<ZSTD_CCtx, FreeContext> m_context;
    Bytes m_planes, m_row, m_scratch;
};

/// Turns blocks into pixels. One for each thread.
class BlockDecoder {
public:
    BlockDecoder();
    /// Takes `count` bytes of a block and unpacks its planes. False when they are damaged.
    bool decode(const std::uint8_t* bytes, std::size_t count, const Block& entry, const BlockShape& shape);
    /// The pixels of the next row of that block; valid until the next call.
    const std::uint8_t* nextRow();
    /// Passes over it.
    void skipRow();

private:
    struct FreeContext {
        void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<ZSTD_DCtx, FreeContext> m_context;
    Bytes m_unpacked, m_row, m_scratch;
    Bytes m_firsts; // The first byte of the row before, in each plane.
    const std::uint8_t* m_planes = nullptr;
    BlockShape m_shape;
    bool m_predicted = false;
    int m_nextRow = 0;
};

/// Encoders or decoders that threads borrow.
template <typename Coder> class CoderPool {
public:
    std::unique_ptr<Coder> take()
    {
        const std::lock_guard lock(m_mutex);
        if (m_idle.empty())
            return std::make_unique<Coder>();
        std::unique_ptr<Coder> coder = std::move(m_idle.back());
        m_idle.pop_back();
        return coder;
    }
    void giveBack(std::unique_ptr<Coder> coder)
    {
        const std::lock_guard lock(m_mutex);
        m_idle.push_back(std::move(coder));
    }

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Coder>> m_idle;
};

/// Packed samples from one type to another, where a block can ask for it: half to float and back. Equal types
/// are copied.
void convertSamples(const std::uint8_t* from, int fromType, std::uint8_t* to, int toType, std::size_t count);
/// Samples of any type as floats, which may stand at any address.
void toFloats(const std::uint8_t* from, int fromType, std::uint8_t* to, std::size_t count);

} // namespace QUtils::quimg
