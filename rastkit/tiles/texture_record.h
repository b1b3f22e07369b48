#pragma once

#include "rastkit/tile_cache.h"
#include "rastkit/tiles/tile_samples.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>

namespace QUtils {

class CacheCore;
struct TextureDescription;

/// A file as the system knows it. Two that are alike have the same contents, unless somebody hides it.
struct FileIdentity {
    bool exists = false, isRegular = false;
    std::uint64_t device = 0, number = 0, size = 0;
    std::int64_t seconds = 0, nanoseconds = 0;

    static FileIdentity of(const char* fileName);
    /// Opening a pipe would wait for its other end, perhaps for ever; devices may do worse.
    bool mayBeOpened() const { return !exists || isRegular; }
    bool operator==(const FileIdentity&) const = default;
};

/// What a look at the attributes of a file tells about the memory that it takes to read it.
struct FileNeeds {
    std::uint64_t describingBytes = 0; ///< What is counted while its headers are read.
    std::uint64_t decompressorBytes = 0; ///< Beyond what follows from the tiles.
    // Of an OpenEXR file:
    std::uint64_t headerBytes = 0; ///< What is kept of attributes and channels, beyond the usual ones.
    std::uint64_t pixelBytes = 0; ///< With the channels that nobody asks for.
    std::uint64_t buffers = 0; ///< As large as a tile.
    // Of a TIFF file:
    std::uint64_t planes = 1; ///< Of each tile, each with a place of its own.

    static constexpr std::uint64_t lookBytes = 8192; ///< What is counted for the look itself.
    static FileNeeds of(const char* fileName);
    bool operator==(const FileNeeds&) const = default;
};

struct FreeDescription {
    void operator()(TextureDescription* description) const;
};
using DescriptionPointer = std::unique_ptr<TextureDescription, FreeDescription>;

/// What a texture's file was found to hold. Never changes once others see it; threads may look at it as
/// long as the texture's record lives.
struct TextureDescription {
    struct Level {
        MipLevel shape;
        float logSize; ///< The binary logarithm of a pixel's size, 0 that of the whole texture.
    };

    std::uint64_t number = 0; ///< Which one among those of all caches.
    ImgErrorCode error = IMGERR_NONE;
    bool isExr = false;
    FileNeeds needs;
    IMGINFO info {};
    int tileWidth = 0, tileHeight = 0, levelCount = 0;
    Level* levels = nullptr; ///< In the same block of memory.
    DescriptionPointer older; ///< One that was valid before.

    /// Bytes of a copy for a file as described; memory for it, or null.
    static std::uint64_t bytesFor(int levelCount);
    static DescriptionPointer make(const MipMapTileLoaderParams& params, bool isExr, const FileNeeds& needs);
    /// One that tells nothing but an error; lives for ever.
    static const TextureDescription* failed(ImgErrorCode error);

    bool isLike(const TextureDescription& other) const;
    bool isLike(const MipMapTileLoaderParams& params) const;
    bool hasTile(int tx, int ty, int level) const;
    /// What is counted for a loader that is open, all that its libraries take among it.
    std::uint64_t loaderBytes() const;
};

/// The loader that describes a file; its error, or that there is no mip-mapped texture in it.
struct DescribedFile {
    std::unique_ptr<MipMapTileLoaderParams> params; ///< Null with an error.
    bool isExr = false;
    ImgErrorCode error = IMGERR_NONE;
};

/// Reads a file's headers: as the format that its name says, else as the one that its first bytes say.
DescribedFile describeFile(const char* fileName);

/// A loader of a file that was described before. An OpenEXR file is opened by the first tile. Null, with an
/// error: refused memory, or a TIFF file that is gone or another.
std::unique_ptr<MipMapTileLoaderParams> newLoader(
    const char* fileName, const TextureDescription& description, ImgErrorCode& error);

struct TileLoader;

inline namespace RASTKIT_ABI {

/// A texture that the cache knows by its name.
struct TextureRecord {
    std::atomic<const TextureDescription*> description { nullptr };
    /// Texture objects; only the lock lets it become 0, or 1 from it.
    std::atomic<std::int64_t> holders { 0 };
    std::atomic<TileEncoding> encoding { TileEncoding::Float }; ///< What tiles are tried in first.
    CacheCore* cache = nullptr; ///< Null: stands for no file.
    std::unique_ptr<char[]> fileName;

    // Under the cache's lock.
    TextureRecord* nextOfName = nullptr; ///< In its chain of the names.
    TextureRecord *before = nullptr, *after = nullptr; ///< Among all.
    TextureRecord *older = nullptr, *newer = nullptr; ///< Among those that nobody uses.
    std::size_t hash = 0;
    std::uint64_t bytes = 0, unusedSince = 0;
    TileEntry* tiles = nullptr;
    TileLoader* idle = nullptr;
    DescriptionPointer descriptions; ///< The newest first.
    FileIdentity identity;
    std::uint64_t version = 0; ///< Counts changes of the file.
    int loaders = 0; ///< Open ones, and those that are being closed.
    bool isDescribing = false, isUnused = false;
    bool isDoubtful = false; ///< A loader found another file than was described: counts as changed.
};

} // namespace RASTKIT_ABI

} // namespace QUtils
