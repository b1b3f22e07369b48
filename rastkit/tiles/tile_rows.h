#pragma once

#include "rastkit/tiles/tile_queue.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace QUtils {

/// The rows of tiles of all levels that are not complete yet.
class TileRows {
public:
    /// Both are the caller's and outlive this object. Throws std::bad_alloc.
    TileRows(const TextureLayout& layout, TileQueue& queue);

    /// Memory of row `y` of a level. Throws std::bad_alloc.
    std::uint8_t* row(int level, int y);
    /// Row `y` is complete; with the last one of a row of tiles that is on its way.
    void complete(int level, int y);

private:
    struct Open {
        PixelMemory memory; ///< Null until the first of its rows comes.
        int completeRows = 0;
    };

    const TextureLayout& m_layout;
    TileQueue& m_queue;
    std::vector<std::vector<Open>> m_open; ///< Level by level, all rows of tiles.
};

/// Which pixels of an image there are, as rows come in any order, whole or in parts.
class RowParts {
public:
    struct Part {
        int begin, end; ///< Columns, the last one not included.
    };

    /// Throws std::bad_alloc.
    RowParts(int width, int height) : m_width(width), m_isComplete(std::size_t(height)) { }

    bool isComplete(int y) const { return m_isComplete[std::size_t(y)]; }
    /// Adds pixels of a row that is not complete; true when it is now. Throws std::bad_alloc.
    bool add(int y, int x, int count);
    /// Makes a row complete. Answers what was missing.
    std::vector<Part> takeMissing(int y);

private:
    using Parts = std::vector<Part>; // From the left, none touches the next.

    static void insert(Parts& parts, Part part);

    int m_width;
    std::vector<bool> m_isComplete;
    std::unordered_map<int, Parts> m_parts; // Of rows that are not complete.
    Parts* m_last = nullptr; // Those of row m_lastRow: pixels mostly come one after the other.
    int m_lastRow = -1;
};

} // namespace QUtils
