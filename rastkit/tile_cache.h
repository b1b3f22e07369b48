#pragma once

#include "rastkit/tiles.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QUtils {
inline namespace RASTKIT_ABI {

/// How a cached tile keeps its samples: as small as its file has them, since each is a float again without
/// loss. Byte b stands for the float that the loader delivers for it.
enum class TileSample : std::uint8_t { Byte, Half, Float };

/// What is beyond the edges of a texture that is sampled.
enum class TextureWrap : std::uint8_t {
    Clamp, ///< The pixels at the edge, again and again.
    Periodic, ///< The texture, again and again.
    Mirror, ///< The same, every second one reversed.
    Black, ///< 0, alpha too.
};

class TileCache;
struct TextureRecord;
struct TileEntry;

/// A texture that a TileCache knows by its name. Copies stand for the same texture; it must not be used
/// after the cache has ended. Reading from several threads is safe.
class RASTKIT_API Texture {
public:
    Texture() noexcept = default; ///< None: IMGERR_OPEN.
    Texture(const Texture& other) noexcept;
    Texture(Texture&& other) noexcept;
    Texture& operator=(Texture other) noexcept;
    ~Texture();

    /// IMGERR_NONE, or why no tile can be had: what LoadEXRHeaderEx or LoadTIFHeaderEx answered;
    /// IMGERR_FORMAT a file that is no mip-mapped texture; IMGERR_OPEN what is no regular file;
    /// IMGERR_MEMORY.
    ImgErrorCode error() const;
    explicit operator bool() const { return error() == IMGERR_NONE; }

    const char* fileName() const; ///< Never null.
    int width() const; ///< Of the largest level, pixels. 0 when there is an error, as all below.
    int height() const;
    int channels() const; ///< Of the file; tiles always have four.
    int tileWidth() const;
    int tileHeight() const;
    int levelCount() const;
    MipLevel level(int number) const; ///< 0 the largest. All 0 for one that is not there.

private:
    friend class TileCache;
    explicit Texture(TextureRecord* record) noexcept : m_record(record) { }
    TextureRecord* m_record = nullptr;
};

/// A tile that stays in the cache as long as this object lives, or why there is none. May be handed to
/// another thread; ends before the cache does.
class RASTKIT_API PinnedTile {
public:
    PinnedTile() noexcept = default; ///< None: IMGERR_READ.
    PinnedTile(PinnedTile&& other) noexcept;
    PinnedTile& operator=(PinnedTile&& other) noexcept;
    ~PinnedTile();

    /// IMGERR_NONE; that of the texture; what loadTile answered; IMGERR_READ a tile or level that is not
    /// there, or memory refused to OpenEXR; IMGERR_MEMORY no room within the bound, since all of it is
    /// pinned, or refused memory; IMGERR_OPEN a texture of another cache; IMGERR_UNSUPPORTED one of several
    /// tiles of a TIFF texture that is stored mirrored.
    ImgErrorCode error() const { return m_error; }
    explicit operator bool() const { return m_entry != nullptr; }

    int width() const; ///< Pixels of the tile that lie in its level: less than a whole tile at its edges.
    int height() const;
    TileSample sample() const;
    /// Rows from the top one down, width() * 4 samples each, R, G, B, A; null when there is an error.
    const void* data() const;
    /// The 256 floats that bytes stand for; null for other samples.
    const float* byteValues() const;
    /// The floats R, G, B, A of one pixel, counted from the tile's own top left corner, which must lie in it.
    void getPixelF(int x, int y, float* rgba) const;
    /// The floats of row y, width() * 4 of them.
    void getRowF(int y, float* rgba) const;

private:
    friend class TileCache;
    PinnedTile(TileEntry* entry, ImgErrorCode error) noexcept : m_entry(entry), m_error(error) { }
    TileEntry* m_entry = nullptr;
    ImgErrorCode m_error = IMGERR_READ;
};

struct TileCacheSettings {
    /// Most bytes of memory: tiles, open files with all that their readers hold (about 0.5 MiB each and
    /// more for large tiles), descriptions of textures, and the cache's own tables. What is pinned counts
    /// too. A bound that is too small for a tile at all gives IMGERR_MEMORY for it.
    std::uint64_t maxBytes = std::uint64_t(256) << 20;
    int maxOpenFiles = 100; ///< At least 1. Files are closed when others are wanted more.
    int maxLoadersPerFile = 0; ///< Threads that decode tiles of one file at once; 0: as many as come.
};

/// What a cache has done since it was made. Byte counts are of now.
struct RASTKIT_API TileCacheStatistics {
    std::uint64_t hits = 0; ///< Tiles that were there.
    std::uint64_t misses = 0; ///< Tiles that had to be decoded.
    std::uint64_t waits = 0; ///< Tiles that another thread was decoding already.
    std::uint64_t redundantDecodes = 0; ///< Decoded while another thread decoded them, or had done so.
    std::uint64_t evictions = 0;
    std::uint64_t errors = 0; ///< Tiles that could not be had.
    std::uint64_t bytes = 0, peakBytes = 0; ///< All that the bound counts.
    std::uint64_t tileBytes = 0, fileBytes = 0; ///< Of these: tiles; open files.
    std::uint64_t tiles = 0, textures = 0; ///< How many there are.
    std::uint64_t openFiles = 0, peakOpenFiles = 0, opens = 0;
    double decodeSeconds = 0; ///< Of all threads together.

    /// All of it as one JSON object, a line.
    std::string toJson() const;
};

/// Tiles of mip-mapped textures for a renderer's threads, within a hard bound on memory and open files.
///
/// Textures are opened by name when they are asked for; what is least recently used makes room. A tile that
/// is there is had without a lock. One that is not is decoded by the thread that asks first; others that want
/// the same one wait for it, and all others go on. All operations are safe from several threads at once; the
/// cache ends after all its textures and tiles.
class RASTKIT_API TileCache {
public:
    explicit TileCache(const TileCacheSettings& settings = {});
    TileCache(const TileCache&) = delete;
    TileCache& operator=(const TileCache&) = delete;
    ~TileCache();

    /// The texture of that name, an OpenEXR or TIFF file, which is looked at unless the cache knows it.
    /// Errors are the texture's own, and are kept until `findChanges`.
    Texture open(const char* fileName);

    /// Tile (tx, ty) of a level.
    PinnedTile tile(const Texture& texture, int tx, int ty, int level);

    /// The tile that holds the pixel at (s, t), 0 to 1 from the top left corner, in the level whose pixels
    /// are nearest in size to `width` (1: the larger side of the texture); coordinates outside are wrapped,
    /// NaN is 0. `x` and `y` become the pixel's place in the tile. No tile, and no error, for what is Black.
    PinnedTile tileAt(
        const Texture& texture, float s, float t, float width, TextureWrap wrap, int* x, int* y);

    /// The floats R, G, B, A of the texture at (s, t), filtered over `width`: bilinear in the two levels
    /// nearest to it, blended. Pixel (0, 0) has its centre at half a pixel. A texture or tile that cannot be
    /// had leaves `rgba` 0 and is the answer, as in `tile`.
    ImgErrorCode sample(const Texture& texture, float s, float t, float width, TextureWrap wrap, float* rgba);

    /// Looks whether the files have changed (time, size or identity), and forgets all of those that have.
    /// Tiles that are pinned keep the old pixels; textures describe the new file from then on, those with an
    /// error also when it is the same. How many have changed; their names are added to `names` (may be null).
    int findChanges(std::vector<std::string>* names = nullptr);

    TileCacheStatistics statistics() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace RASTKIT_ABI
} // namespace QUtils
