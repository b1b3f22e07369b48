#include "rastkit/tile_cache.h"

#include "rastkit/tiles/cache_core.h"

#include <array>
#include <charconv>
#include <cmath>
#include <new>
#include <string_view>
#include <utility>

namespace QUtils {

// --- Texture ---------------------------------------------------------------------------------------------

namespace {

const TextureDescription& descriptionOf(const TextureRecord* texture)
{
    return texture ? *texture->description.load(std::memory_order_acquire)
                   : *TextureDescription::failed(IMGERR_OPEN);
}

} // namespace

inline namespace RASTKIT_ABI {

Texture::Texture(const Texture& other) noexcept : m_record(other.m_record)
{
    CacheCore::hold(m_record);
}

Texture::Texture(Texture&& other) noexcept : m_record(std::exchange(other.m_record, nullptr)) { }

Texture& Texture::operator=(Texture other) noexcept
{
    std::swap(m_record, other.m_record);
    return *this;
}

Texture::~Texture()
{
    CacheCore::letGo(m_record);
}

ImgErrorCode Texture::error() const
{
    return descriptionOf(m_record).error;
}

const char* Texture::fileName() const
{
    return m_record && m_record->fileName ? m_record->fileName.get() : "";
}

int Texture::width() const
{
    return level(0).width;
}

int Texture::height() const
{
    return level(0).height;
}

int Texture::channels() const
{
    return descriptionOf(m_record).info.numChannels;
}

int Texture::tileWidth() const
{
    return descriptionOf(m_record).tileWidth;
}

int Texture::tileHeight() const
{
    return descriptionOf(m_record).tileHeight;
}

int Texture::levelCount() const
{
    return descriptionOf(m_record).levelCount;
}

MipLevel Texture::level(int number) const
{
    const TextureDescription& description = descriptionOf(m_record);
    return number >= 0 && number < description.levelCount ? description.levels[number].shape : MipLevel {};
}

// --- PinnedTile ------------------------------------------------------------------------------------------

PinnedTile::PinnedTile(PinnedTile&& other) noexcept
    : m_entry(std::exchange(other.m_entry, nullptr)), m_error(std::exchange(other.m_error, IMGERR_READ))
{
}

PinnedTile& PinnedTile::operator=(PinnedTile&& other) noexcept
{
    PinnedTile taken(std::move(other));
    std::swap(m_entry, taken.m_entry);
    std::swap(m_error, taken.m_error);
    return *this;
}

PinnedTile::~PinnedTile()
{
    if (m_entry)
        CacheCore::unpin(*m_entry);
}

int PinnedTile::width() const
{
    return m_entry ? m_entry->width : 0;
}

int PinnedTile::height() const
{
    return m_entry ? m_entry->height : 0;
}

TileSample PinnedTile::sample() const
{
    return m_entry ? sampleOf(m_entry->encoding) : TileSample::Float;
}

const void* PinnedTile::data() const
{
    return m_entry ? m_entry->data : nullptr;
}

const float* PinnedTile::byteValues() const
{
    return m_entry ? QUtils::byteValues(m_entry->encoding) : nullptr;
}

void PinnedTile::getPixelF(int x, int y, float* rgba) const
{
    const std::size_t first = (std::size_t(y) * std::size_t(m_entry->width) + std::size_t(x)) * 4;
    decodeSamples(m_entry->encoding, m_entry->data, first, rgba, 4);
}

void PinnedTile::getRowF(int y, float* rgba) const
{
    const std::size_t samples = std::size_t(m_entry->width) * 4;
    decodeSamples(m_entry->encoding, m_entry->data, std::size_t(y) * samples, rgba, samples);
}

// --- TileCache -------------------------------------------------------------------------------------------

// Without memory for itself the cache has no state, and every answer is IMGERR_MEMORY.
TileCache::TileCache(const TileCacheSettings& settings)
{
    if (settings.maxBytes >= heapBytes(sizeof(State) + alignof(State)))
        m_state.reset(new (std::nothrow) State(settings));
}

TileCache::~TileCache() = default;

Texture TileCache::open(const char* fileName)
{
    return Texture(m_state ? m_state->open(fileName) : CacheCore::withoutMemory());
}

PinnedTile TileCache::tile(const Texture& texture, int tx, int ty, int level)
{
    TextureRecord* const record = texture.m_record;
    if (!record || !m_state)
        return { nullptr, texture.error() };
    for (;;) {
        const CacheCore::Pinned pinned = m_state->pin(*record, descriptionOf(record), tx, ty, level);
        if (!pinned.isOutdated) [[likely]]
            return { pinned.entry, pinned.error };
    }
}

int TileCache::findChanges(std::vector<std::string>* names)
{
    return m_state ? m_state->findChanges(names) : 0;
}

TileCacheStatistics TileCache::statistics() const
{
    return m_state ? m_state->statistics() : TileCacheStatistics();
}

// --- TileCacheStatistics ---------------------------------------------------------------------------------

std::string TileCacheStatistics::toJson() const
{
    const std::pair<std::string_view, std::uint64_t> numbers[] = { { "hits", hits }, { "misses", misses },
        { "waits", waits }, { "redundantDecodes", redundantDecodes }, { "evictions", evictions },
        { "errors", errors }, { "bytes", bytes }, { "peakBytes", peakBytes }, { "tileBytes", tileBytes },
        { "fileBytes", fileBytes }, { "tiles", tiles }, { "textures", textures }, { "openFiles", openFiles },
        { "peakOpenFiles", peakOpenFiles }, { "opens", opens } };
    try {
        // Not by streams or printf, which write as the locale wants it.
        std::array<char, 400> digits; // As many as a double may have without an exponent.
        std::string json = "{";
        for (const auto& [name, number] : numbers) {
            json.append("\"").append(name).append("\": ");
            json.append(digits.data(), std::to_chars(digits.begin(), digits.end(), number).ptr).append(", ");
        }
        const auto seconds = std::to_chars(digits.begin(), digits.end(),
            std::isfinite(decodeSeconds) ? decodeSeconds : 0.0, std::chars_format::fixed, 9);
        json.append("\"decodeSeconds\": ").append(digits.data(), seconds.ptr).append("}");
        return json;
    } catch (const std::bad_alloc&) {
        return "{}";
    }
}

} // namespace RASTKIT_ABI

TileCacheStatistics CacheCore::statistics() const
{
    const Lock lock(m_mutex);
    TileCacheStatistics now = m_counts;
    now.hits = m_counters.hits();
    now.errors += m_counters.errors();
    now.bytes = m_bytes;
    now.peakBytes = m_peakBytes;
    now.openFiles = std::uint64_t(m_files);
    now.decodeSeconds = double(m_decodeNanoseconds.load(std::memory_order_relaxed)) / 1e9;
    return now;
}

std::uint64_t HitCounters::sum(std::atomic<std::uint64_t> Stripe::*count) const
{
    std::uint64_t total = 0;
    for (const Stripe& stripe : m_stripes)
        total += (stripe.*count).load(std::memory_order_relaxed);
    return total;
}

} // namespace QUtils
