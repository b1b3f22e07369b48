#pragma once

#include "qutils/core/file_ptr.h"
#include "rastkit/tiles/texture_layout.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace QUtils {

/// A tile that is to be written, cut to its level. The pixels lie in the rows of the whole level.
struct TilePixels {
    int level, tx, ty;
    int width, height; ///< Pixels.
    const std::uint8_t* pixels;
    std::size_t rowBytes; ///< From one row to the next.
};

/// Makes the bytes of tiles, for one thread at a time.
class TileEncoder {
public:
    virtual ~TileEncoder() = default;
    /// Replaces `bytes` by what the file holds of the tile. IMGERR_MEMORY, IMGERR_LIBRARY.
    virtual ImgErrorCode encode(const TilePixels& tile, std::vector<std::uint8_t>& bytes) = 0;
};

/// The bytes of a file that is made: mostly one after the other, at last some of the first ones anew. Every
/// operation answers whether all went well since the beginning.
class TextureOutput {
public:
    /// ESPIPE for pipes and the like, in which nothing can be written anew.
    [[nodiscard]] bool open(const char* name);
    [[nodiscard]] bool append(const void* bytes, std::size_t count);
    /// Replaces bytes that are there.
    [[nodiscard]] bool replace(std::uint64_t offset, const void* bytes, std::size_t count);
    [[nodiscard]] bool close();

    std::uint64_t size() const { return m_size; }
    /// The system's reason for the first failure; 0 when there is none.
    int systemError() const { return m_systemError; }

private:
    bool fail();

    std::unique_ptr<char[]> m_block; // The stream's buffer; outlives it.
    FilePtr m_file;
    std::uint64_t m_size = 0;
    int m_systemError = 0;
};

/// A texture file that is made: tiles of all levels in any order. Nothing is thrown.
class TextureFile {
public:
    virtual ~TextureFile() = default;
    /// Makes the file. IMGERR_OPEN, IMGERR_MEMORY, IMGERR_WRITE, IMGERR_LIBRARY.
    virtual ImgErrorCode begin(const char* name) = 0;
    /// Null when memory is refused. May be called from several threads, and encoders may outlive each other,
    /// but not this object.
    virtual std::unique_ptr<TileEncoder> makeEncoder() const = 0;
    /// Adds the bytes of a tile, which an encoder made; one call at a time.
    virtual ImgErrorCode append(int level, int tx, int ty, const std::vector<std::uint8_t>& bytes) = 0;
    /// Completes the file, all tiles of which are there.
    virtual ImgErrorCode finish(const TextureRange& range) = 0;

    int systemError() const { return m_output.systemError(); }

protected:
    TextureOutput m_output;
};

} // namespace QUtils
