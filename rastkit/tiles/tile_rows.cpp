#include "rastkit/tiles/tile_rows.h"

#include <algorithm>
#include <new>
#include <utility>

namespace QUtils {

TileRows::TileRows(const TextureLayout& layout, TileQueue& queue)
    : m_layout(layout), m_queue(queue), m_open(layout.levels.size())
{
    for (std::size_t k = 0; k < m_open.size(); ++k)
        m_open[k].resize(std::size_t(layout.levels[k].tilesY()));
}

std::uint8_t* TileRows::row(int level, int y)
{
    const int tileHeight = m_layout.levels[std::size_t(level)].tileHeight;
    Open& open = m_open[std::size_t(level)][std::size_t(y / tileHeight)];
    if (!open.memory)
        open.memory = m_queue.takeMemory(level);
    if (!open.memory)
        throw std::bad_alloc();
    return open.memory.get() + std::size_t(y % tileHeight) * m_layout.rowBytes(level);
}

void TileRows::complete(int level, int y)
{
    const TextureLevel& shape = m_layout.levels[std::size_t(level)];
    const int ty = y / shape.tileHeight;
    Open& open = m_open[std::size_t(level)][std::size_t(ty)];
    if (++open.completeRows == shape.rowsOf(ty))
        m_queue.submit(level, ty, std::move(open.memory));
}

bool RowParts::add(int y, int x, int count)
{
    if (count == m_width && m_parts.empty()) { // As a rule.
        m_isComplete[std::size_t(y)] = true;
        return true;
    }
    if (m_lastRow != y) {
        m_last = &m_parts[y];
        m_lastRow = y;
    }
    insert(*m_last, { x, x + count });
    if (m_last->front().begin != 0 || m_last->front().end != m_width)
        return false;
    takeMissing(y);
    return true;
}

void RowParts::insert(Parts& parts, Part part)
{
    if (!parts.empty() && parts.back().end == part.begin) { // As a rule.
        parts.back().end = part.end;
        return;
    }
    const auto touches
        = [&part](const Part& other) { return other.begin <= part.end && part.begin <= other.end; };
    const auto first = std::find_if(
        parts.begin(), parts.end(), [&part](const Part& other) { return other.end >= part.begin; });
    auto end = first;
    for (; end != parts.end() && touches(*end); ++end) {
        part.begin = std::min(part.begin, end->begin);
        part.end = std::max(part.end, end->end);
    }
    parts.insert(parts.erase(first, end), part);
}

std::vector<RowParts::Part> RowParts::takeMissing(int y)
{
    m_isComplete[std::size_t(y)] = true;
    const auto found = m_parts.find(y);
    std::vector<Part> missing;
    int end = 0;
    if (found != m_parts.end()) {
        for (const Part& part : found->second) {
            if (part.begin > end)
                missing.push_back({ end, part.begin });
            end = part.end;
        }
        m_parts.erase(found);
        m_lastRow = -1;
    }
    if (end < m_width)
        missing.push_back({ end, m_width });
    return missing;
}

} // namespace QUtils
