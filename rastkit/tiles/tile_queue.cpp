#include "rastkit/tiles/tile_queue.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace QUtils {

namespace {

/// Rows of tiles of the largest level that may wait; fewer would leave threads without work.
constexpr std::size_t mostWaitingRows = 3;
constexpr std::size_t leastWaitingBytes = std::size_t(4) << 20;

} // namespace

TileQueue::TileQueue(TextureFile& file, const TextureLayout& layout, int threads)
    : m_file(file), m_layout(layout), m_memory(layout.levels.size())
{
    for (std::vector<PixelMemory>& free : m_memory)
        free.reserve(mostWaitingRows);
    m_threads.reserve(std::size_t(threads));
    try {
        for (int i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { work(); });
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): said in the declaration.
    }
}

TileQueue::~TileQueue()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
    }
    m_hasWork.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

PixelMemory TileQueue::takeMemory(int level)
{
    {
        const std::lock_guard lock(m_mutex);
        std::vector<PixelMemory>& free = m_memory[std::size_t(level)];
        if (!free.empty()) {
            PixelMemory memory = std::move(free.back());
            free.pop_back();
            return memory;
        }
    }
    return allocatePixels(m_layout.tileRowBytes(level));
}

void TileQueue::submit(int level, int ty, PixelMemory memory)
{
    auto row = std::make_unique<Row>();
    row->level = level;
    row->ty = ty;
    row->memory = std::move(memory);
    if (m_threads.empty()) {
        encodeHere(*row);
        recycle(level, std::move(row->memory));
        return;
    }
    row->tiles.resize(std::size_t(m_layout.levels[std::size_t(level)].tilesX()));
    const std::size_t bytes = m_layout.tileRowBytes(level);
    {
        std::unique_lock lock(m_mutex);
        m_hasRoom.wait(lock, [&] { return hasRoomFor(bytes); });
        m_rows.push_back(std::move(row));
        m_waitingBytes += bytes;
    }
    m_hasWork.notify_all();
}

ImgErrorCode TileQueue::finish()
{
    std::unique_lock lock(m_mutex);
    m_hasRoom.wait(lock, [&] { return m_rows.empty() && !m_isWriting; });
    return m_error;
}

ImgErrorCode TileQueue::error() const
{
    const std::lock_guard lock(m_mutex);
    return m_error;
}

bool TileQueue::hasRoomFor(std::size_t bytes) const
{
    const std::size_t most = std::max(leastWaitingBytes, mostWaitingRows * m_layout.tileRowBytes(0));
    return m_rows.empty() || m_waitingBytes + bytes <= most;
}

TilePixels TileQueue::pixelsOf(const Row& row, std::size_t tile) const
{
    const TextureLevel& level = m_layout.levels[std::size_t(row.level)];
    const int x = int(tile) * level.tileWidth;
    return { row.level, int(tile), row.ty, std::min(level.tileWidth, level.width - x), level.rowsOf(row.ty),
        row.memory.get() + std::size_t(x) * m_layout.pixelBytes(), m_layout.rowBytes(row.level) };
}

ImgErrorCode TileQueue::encode(
    std::unique_ptr<TileEncoder>& encoder, const Row& row, std::size_t tile, std::vector<std::uint8_t>& bytes)
{
    try {
        if (!encoder)
            encoder = m_file.makeEncoder();
        return encoder ? encoder->encode(pixelsOf(row, tile), bytes) : IMGERR_MEMORY;
    } catch (const std::bad_alloc&) {
        return IMGERR_MEMORY;
    } catch (...) { // A library's.
        return IMGERR_LIBRARY;
    }
}

void TileQueue::encodeHere(const Row& row)
{
    const std::size_t count = std::size_t(m_layout.levels[std::size_t(row.level)].tilesX());
    for (std::size_t tile = 0; tile < count && m_error == IMGERR_NONE; ++tile) {
        m_error = encode(m_encoder, row, tile, m_bytes);
        if (m_error == IMGERR_NONE)
            m_error = m_file.append(row.level, int(tile), row.ty, m_bytes);
    }
}

// --- On the threads --------------------------------------------------------------------------------------

/// The first row that has a tile which nobody has taken; null when there is none.
TileQueue::Row* TileQueue::findWork()
{
    const auto found = std::find_if(
        m_rows.begin(), m_rows.end(), [](const auto& row) { return row->taken < row->tiles.size(); });
    return found == m_rows.end() ? nullptr : found->get();
}

void TileQueue::work() noexcept
{
    std::unique_ptr<TileEncoder> encoder;
    std::unique_lock lock(m_mutex);
    while (true) {
        Row* row = nullptr;
        m_hasWork.wait(lock, [&] { return m_isEnding || (row = findWork()) != nullptr; });
        if (m_isEnding)
            return;
        const std::size_t tile = row->taken++;
        if (m_error == IMGERR_NONE) { // Else there is nothing to be done but to count.
            lock.unlock();
            const ImgErrorCode code = encode(encoder, *row, tile, row->tiles[tile].bytes);
            lock.lock();
            if (code != IMGERR_NONE)
                fail(code);
        }
        row->tiles[tile].isReady = true;
        writeReady(lock);
    }
}

/// Adds to the file what is next in it and ready, unless another thread is about it.
void TileQueue::writeReady(std::unique_lock<std::mutex>& lock)
{
    if (m_isWriting)
        return;
    m_isWriting = true;
    while (!m_rows.empty() && m_rows.front()->tiles[m_rows.front()->written].isReady) {
        Row& row = *m_rows.front();
        const std::size_t tile = row.written;
        if (m_error == IMGERR_NONE) {
            lock.unlock();
            const ImgErrorCode code = m_file.append(row.level, int(tile), row.ty, row.tiles[tile].bytes);
            lock.lock();
            if (code != IMGERR_NONE)
                fail(code);
        }
        row.tiles[tile].bytes = {};
        if (++row.written != row.tiles.size())
            continue;
        m_waitingBytes -= m_layout.tileRowBytes(row.level);
        PixelMemory memory = std::move(row.memory);
        const int level = row.level;
        m_rows.pop_front();
        recycle(level, std::move(memory));
        m_hasRoom.notify_all();
    }
    m_isWriting = false;
    m_hasRoom.notify_all();
}

void TileQueue::fail(ImgErrorCode code)
{
    if (m_error == IMGERR_NONE)
        m_error = code;
}

/// Keeps the memory for the next row of tiles.
void TileQueue::recycle(int level, PixelMemory memory)
{
    std::vector<PixelMemory>& free = m_memory[std::size_t(level)];
    if (free.size() < free.capacity())
        free.push_back(std::move(memory));
}

} // namespace QUtils
