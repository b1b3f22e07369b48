#pragma once

#include "rastkit/model/pixel_memory.h"
#include "rastkit/tiles/texture_file.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace QUtils {

/// Encodes rows of tiles on threads of its own and adds them to the file in the order in which they came, so
/// that the file is the same however many threads there are. With none, on the caller's thread.
class TileQueue {
public:
    /// File and layout are the caller's and outlive this object. Where the system has no more threads, those
    /// that are there do the work.
    TileQueue(TextureFile& file, const TextureLayout& layout, int threads);
    TileQueue(const TileQueue&) = delete;
    TileQueue& operator=(const TileQueue&) = delete;
    /// Drops what is not written yet.
    ~TileQueue();

    /// Memory for a row of tiles of that level, with any contents; null when it is refused.
    PixelMemory takeMemory(int level);
    /// Writes row `ty` of tiles. Waits while there is much to do. Throws std::bad_alloc.
    void submit(int level, int ty, PixelMemory memory);
    /// Waits until everything is in the file. The first error that there was.
    ImgErrorCode finish();
    /// The same without waiting.
    ImgErrorCode error() const;

private:
    struct Tile {
        std::vector<std::uint8_t> bytes;
        bool isReady = false;
    };
    /// A row of tiles on its way.
    struct Row {
        int level, ty;
        PixelMemory memory;
        std::vector<Tile> tiles;
        std::size_t taken = 0, written = 0; ///< Tiles.
    };

    TilePixels pixelsOf(const Row& row, std::size_t tile) const;
    ImgErrorCode encode(std::unique_ptr<TileEncoder>& encoder, const Row& row, std::size_t tile,
        std::vector<std::uint8_t>& bytes);
    void encodeHere(const Row& row);
    void work() noexcept;
    Row* findWork();
    void writeReady(std::unique_lock<std::mutex>& lock);
    void fail(ImgErrorCode code);
    void recycle(int level, PixelMemory memory);
    bool hasRoomFor(std::size_t bytes) const;

    TextureFile& m_file;
    const TextureLayout& m_layout;
    mutable std::mutex m_mutex; // For all below.
    std::condition_variable m_hasWork, m_hasRoom;
    std::deque<std::unique_ptr<Row>> m_rows; // In the order of the file.
    std::vector<std::vector<PixelMemory>> m_memory; // For each level, what is free.
    std::size_t m_waitingBytes = 0;
    ImgErrorCode m_error = IMGERR_NONE;
    bool m_isWriting = false, m_isEnding = false;
    std::unique_ptr<TileEncoder> m_encoder; // Of the caller's thread.
    std::vector<std::uint8_t> m_bytes; // The same.
    std::vector<std::thread> m_threads;
};

} // namespace QUtils
