#include "rastkit/tiles/mip_pyramid.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace QUtils {

namespace {

struct FreeFloats {
    void operator()(float* memory) const { std::free(memory); }
};
using Floats = std::unique_ptr<float[], FreeFloats>;

Floats takeFloats(std::size_t count)
{
    PixelMemory memory = allocatePixels(count * sizeof(float));
    if (!memory)
        throw std::bad_alloc();
    return Floats(reinterpret_cast<float*>(memory.release()));
}

// --- Along a row -----------------------------------------------------------------------------------------

template <std::size_t Channels> void halveRow(const float* from, float* to, int count)
{
    for (std::size_t i = 0; i < std::size_t(count); ++i)
        for (std::size_t c = 0; c < Channels; ++c)
            to[i * Channels + c] = (from[2 * i * Channels + c] + from[(2 * i + 1) * Channels + c]) * 0.5f;
}

/// `from` is the pixel at position 0.
template <std::size_t Channels> void filterRow(const MipWeights& weights, const float* from, float* to)
{
    for (int i = 0; i < weights.to; ++i) {
        const float* const w = weights.of(i);
        const float* pixel = from + std::ptrdiff_t(weights.first[std::size_t(i)]) * std::ptrdiff_t(Channels);
        float sums[Channels] = {};
        const std::size_t count = weights.counts[std::size_t(i)];
        for (std::size_t t = 0; t < count; ++t, pixel += Channels)
            for (std::size_t c = 0; c < Channels; ++c)
                sums[c] += w[t] * pixel[c];
        for (std::size_t c = 0; c < Channels; ++c)
            to[std::size_t(i) * Channels + c] = sums[c];
    }
}

template <std::size_t Channels> void shrinkRow(const MipWeights& weights, const float* from, float* to)
{
    if (weights.halves())
        halveRow<Channels>(from, to, weights.to);
    else
        filterRow<Channels>(weights, from, to);
}

using ShrinkRow = void (*)(const MipWeights& weights, const float* from, float* to);
constexpr ShrinkRow tableShrinkRow[] = { shrinkRow<1>, shrinkRow<2>, shrinkRow<3>, shrinkRow<4> };

// --- Down the rows ---------------------------------------------------------------------------------------

/// A row and its weight.
struct Weighted {
    const float* row;
    float weight;
};

void mixRows(const std::vector<Weighted>& rows, float* to, std::size_t count)
{
    if (rows.size() == 2) {
        const auto [first, firstWeight] = rows[0];
        const auto [second, secondWeight] = rows[1];
        for (std::size_t i = 0; i < count; ++i)
            to[i] = first[i] * firstWeight + second[i] * secondWeight;
        return;
    }
    std::fill_n(to, count, 0.0f);
    for (const auto& [row, weight] : rows)
        for (std::size_t i = 0; i < count; ++i)
            to[i] += row[i] * weight;
}

} // namespace

// --- A level and the next --------------------------------------------------------------------------------

class MipPyramid::Step {
public:
    Step(int width, int height, int channels, MipFilter filter, TextureWrap wrapX, TextureWrap wrapY)
        : m_x(width, sizeAt(1, width), filter), m_wrapX(wrapX), m_channels(std::size_t(channels)),
          m_rowFloats(std::size_t(m_x.to) * m_channels), m_rows(std::size_t(height)),
          m_made(takeFloats(m_rowFloats))
    {
        if (m_x.overhang != 0)
            m_extended = takeFloats((std::size_t(width) + 2 * std::size_t(m_x.overhang)) * m_channels);
        const MipWeights y(height, sizeAt(1, height), filter);
        findSources(y, wrapY);
        findUsers(y.to);
        m_mixed.reserve(y.taps);
    }

    /// Keeps what others need of row `y`.
    void put(int y, const float* row)
    {
        Kept& kept = m_rows[std::size_t(y)];
        kept.users = m_firstUser[std::size_t(y) + 1] - m_firstUser[std::size_t(y)];
        if (kept.users == 0)
            return;
        if (!m_free.empty()) {
            kept.row = std::move(m_free.back());
            m_free.pop_back();
        } else
            kept.row = takeFloats(m_rowFloats);
        ++m_keptCount;
        tableShrinkRow[m_channels - 1](m_x, extend(row), kept.row.get());
    }

    /// Calls `take(j, row)` for each row of the next level that row `y` was the last to make complete.
    template <typename Take> void makeRows(int y, const Take& take)
    {
        for (std::size_t u = m_firstUser[std::size_t(y)]; u < m_firstUser[std::size_t(y) + 1]; ++u) {
            const std::size_t j = std::size_t(m_users[u]);
            if (--m_missing[j] != 0)
                continue;
            mix(j);
            take(int(j), m_made.get());
        }
    }

    std::size_t keptCount() const { return m_keptCount; }

private:
    /// A row, already as narrow as in the next level.
    struct Kept {
        Floats row;
        std::size_t users = 0; ///< Rows of the next level that still need it.
    };
    struct Source {
        int row;
        float weight;
    };

    /// Which rows make each row of the next level: each of them once, from the top, so that the sums do not
    /// depend on the order in which rows come.
    void findSources(const MipWeights& y, TextureWrap wrap)
    {
        m_firstSource.reserve(std::size_t(y.to) + 1);
        m_missing.resize(std::size_t(y.to));
        m_sources.reserve(std::size_t(y.to) * y.taps);
        for (int j = 0; j < y.to; ++j) {
            m_firstSource.push_back(m_sources.size());
            for (std::size_t t = 0; t < y.counts[std::size_t(j)]; ++t) {
                const int row = wrapPosition(y.first[std::size_t(j)] + std::int64_t(t), y.from, wrap);
                if (row >= 0)
                    addSource(row, y.of(j)[t]);
            }
            const auto begin = m_sources.begin() + std::ptrdiff_t(m_firstSource.back());
            std::sort(begin, m_sources.end(), [](Source a, Source b) { return a.row < b.row; });
            m_missing[std::size_t(j)] = m_sources.size() - m_firstSource.back();
        }
        m_firstSource.push_back(m_sources.size());
    }

    void addSource(int row, float weight)
    {
        const auto begin = m_sources.begin() + std::ptrdiff_t(m_firstSource.back());
        const auto found = std::find_if(begin, m_sources.end(), [row](Source s) { return s.row == row; });
        if (found == m_sources.end())
            m_sources.push_back({ row, weight });
        else
            found->weight += weight;
    }

    /// The other way round: which rows of the next level each row is needed for.
    void findUsers(int rows)
    {
        m_firstUser.resize(m_rows.size() + 1);
        for (const Source& source : m_sources)
            ++m_firstUser[std::size_t(source.row) + 1];
        for (std::size_t i = 1; i < m_firstUser.size(); ++i)
            m_firstUser[i] += m_firstUser[i - 1];
        m_users.resize(m_sources.size());
        std::vector<std::size_t> next(m_firstUser.begin(), m_firstUser.end() - 1);
        for (int j = 0; j < rows; ++j)
            for (std::size_t s = m_firstSource[std::size_t(j)]; s < m_firstSource[std::size_t(j) + 1]; ++s)
                m_users[next[std::size_t(m_sources[s].row)]++] = j;
    }

    /// The row with the pixels beyond its ends that the filter reaches.
    const float* extend(const float* row)
    {
        if (!m_extended)
            return row;
        const std::size_t pixelBytes = m_channels * sizeof(float);
        float* const origin = m_extended.get() + std::size_t(m_x.overhang) * m_channels;
        std::memcpy(origin, row, std::size_t(m_x.from) * pixelBytes);
        const auto fill = [&](int position) {
            float* const to = origin + std::ptrdiff_t(position) * std::ptrdiff_t(m_channels);
            const int from = wrapPosition(position, m_x.from, m_wrapX);
            if (from < 0)
                std::memset(to, 0, pixelBytes);
            else
                std::memcpy(to, row + std::size_t(from) * m_channels, pixelBytes);
        };
        for (int i = 0; i < m_x.overhang; ++i) {
            fill(-1 - i);
            fill(m_x.from + i);
        }
        return origin;
    }

    /// Makes row `j` of the next level, and gives back what no other needs.
    void mix(std::size_t j)
    {
        m_mixed.clear();
        for (std::size_t s = m_firstSource[j]; s < m_firstSource[j + 1]; ++s)
            m_mixed.push_back({ m_rows[std::size_t(m_sources[s].row)].row.get(), m_sources[s].weight });
        mixRows(m_mixed, m_made.get(), m_rowFloats);
        for (std::size_t s = m_firstSource[j]; s < m_firstSource[j + 1]; ++s) {
            Kept& kept = m_rows[std::size_t(m_sources[s].row)];
            if (--kept.users != 0)
                continue;
            m_free.push_back(std::move(kept.row));
            --m_keptCount;
        }
    }

    MipWeights m_x;
    TextureWrap m_wrapX;
    std::size_t m_channels, m_rowFloats; // Of a row of the next level.
    std::vector<Kept> m_rows;
    std::vector<Source> m_sources; // Of row j from m_firstSource[j] on.
    std::vector<std::size_t> m_firstSource, m_missing;
    std::vector<int> m_users; // Of row i from m_firstUser[i] on.
    std::vector<std::size_t> m_firstUser;
    std::vector<Floats> m_free;
    std::vector<Weighted> m_mixed;
    Floats m_made, m_extended;
    std::size_t m_keptCount = 0;
};

// --- All levels ------------------------------------------------------------------------------------------

int MipPyramid::levelCount(int width, int height)
{
    int count = 1;
    for (int size = std::max(width, height); size > 1; size /= 2)
        ++count;
    return count;
}

MipPyramid::MipPyramid(int width, int height, int channels, MipFilter filter, TextureWrap wrapX,
    TextureWrap wrapY, Receiver& receiver)
    : m_receiver(receiver)
{
    const int levels = levelCount(width, height);
    for (int k = 0; k + 1 < levels; ++k)
        m_steps.push_back(
            std::make_unique<Step>(sizeAt(k, width), sizeAt(k, height), channels, filter, wrapX, wrapY));
}

MipPyramid::~MipPyramid() = default;

void MipPyramid::putRow(int y, const float* row)
{
    put(0, y, row);
}

/// As deep as there are levels.
void MipPyramid::put(std::size_t level, int y, const float* row)
{
    if (level == m_steps.size())
        return;
    Step& step = *m_steps[level];
    step.put(y, row);
    step.makeRows(y, [&](int made, const float* floats) {
        m_receiver.takeRow(int(level) + 1, made, floats);
        put(level + 1, made, floats);
    });
}

std::size_t MipPyramid::keptRows() const
{
    std::size_t count = 0;
    for (const auto& step : m_steps)
        count += step->keptCount();
    return count;
}

} // namespace QUtils
