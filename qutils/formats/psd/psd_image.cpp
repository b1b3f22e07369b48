#include "qutils/formats/psd/psd_image.h"

#include <algorithm>
#include <new>

namespace QUtils {

namespace {

using State = PSD_Image::State;

constexpr int mostWarnings = 32;

/// Whether each sample is a byte of the file that needs no arithmetic.
bool isPlain(const State& state)
{
    const PsdHeader& header = state.document.header;
    if (state.maker || state.transparency || !state.hasPixels)
        return false;
    if (header.mode == PsdMode::Bitmap)
        return !state.alpha;
    return header.depth == 8 && (header.colorChannels() == 3 || header.colorChannels() == 1)
        && header.mode != PsdMode::Lab;
}

// --- Pixels that are indices or bits ---------------------------------------------------------------------

std::uint32_t packedIndex(const State& state, std::size_t y, std::size_t x)
{
    const PsdDocument& document = state.document;
    const std::size_t index = state.colors[0].row(y)[x];
    const std::uint32_t alpha = state.alpha       ? state.alpha.row(y)[x]
        : int(index) == document.transparentIndex ? 0
                                                  : 0xFF;
    return alpha << 24 | std::uint32_t(document.palette[0][index]) << 16
        | std::uint32_t(document.palette[1][index]) << 8 | document.palette[2][index];
}

std::uint32_t packedBit(const State& state, std::size_t y, std::size_t x)
{
    return (state.colors[0].row(y)[x / 8] >> (7 - x % 8) & 1) != 0 ? 0xFF000000u : 0xFFFFFFFFu;
}

bool isLookedUp(const State& state)
{
    const PsdMode mode = state.document.header.mode;
    return mode == PsdMode::Indexed || (mode == PsdMode::Bitmap && isPlain(state));
}

std::uint32_t packedLookUp(const State& state, std::size_t y, std::size_t x)
{
    return state.document.header.mode == PsdMode::Indexed ? packedIndex(state, y, x) : packedBit(state, y, x);
}

/// Planes of bytes as R, G, B, A from pixel (x, y) on.
void planesFrom(const State& state, std::size_t y, std::size_t x, const std::uint8_t* (&planes)[4])
{
    for (std::size_t c = 0; c < 3; ++c)
        planes[c] = state.colors[state.colors.size() == 1 ? 0 : c].row(y) + x;
    planes[3] = state.alpha ? state.alpha.row(y) + x : nullptr;
}

// --- All others ------------------------------------------------------------------------------------------

void fillAlpha(const State& state, std::size_t y, std::size_t x, std::size_t count, float* alpha)
{
    const unsigned depth = state.document.header.depth;
    if (state.alpha)
        psdSamplesToFloat(depth, state.alpha.row(y), x, count, alpha);
    else if (!state.maker && !state.transparency)
        std::fill_n(alpha, count, 1.0f);
}

void readComponents(
    const State& state, std::size_t y, std::size_t x, std::size_t count, const PsdComponents& to)
{
    const PsdHeader& header = state.document.header;
    for (std::size_t c = 0; c < state.colors.size(); ++c)
        psdSamplesToFloat(header.depth, state.colors[c].row(y), x, count, to.color[c]);
    if (!state.transparency)
        return;
    psdSamplesToFloat(header.depth, state.transparency.row(y), x, count, to.alpha);
    for (std::size_t c = 0; c < state.colors.size(); ++c)
        freeFromWhite(
            to.color[c], to.alpha, psdWhite(header.mode, header.depth, c), header.depth != 32, count);
}

void makePixels(State& state, std::size_t y, std::size_t x, std::size_t count, float* rgba)
{
    const PsdComponents row = state.roomFrom(x);
    if (!state.maker) {
        readComponents(state, y, x, count, row);
        fillAlpha(state, y, x, count, row.alpha);
    } else if (state.madeRow != std::int64_t(y)) {
        state.maker->makeRow(std::int64_t(y), state.roomFrom(0));
        fillAlpha(state, y, 0, state.width(), state.roomFrom(0).alpha);
        state.madeRow = std::int64_t(y);
    }
    psdComponentsToRgba(state.document.header, row, rgba, count);
}

/// `count` pixels from (x, y) on, all of them inside the image.
void getPixels(State& state, std::size_t y, std::size_t x, std::size_t count, float* rgba)
{
    if (isLookedUp(state)) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint32_t argb = packedLookUp(state, y, x + i);
            for (std::size_t c = 0; c < 4; ++c)
                rgba[i * 4 + c] = float(argb >> (c == 3 ? 24 : 16 - 8 * c) & 0xFF) / 255.0f;
        }
        return;
    }
    if (isPlain(state)) {
        const std::uint8_t* planes[4];
        planesFrom(state, y, x, planes);
        psdBytesToRgba(planes, rgba, count);
        return;
    }
    makePixels(state, y, x, count, rgba);
}

bool isInside(int value, int size)
{
    return value >= 0 && value < size;
}

} // namespace

// --- State -----------------------------------------------------------------------------------------------

PsdComponents State::roomFrom(std::size_t x) const
{
    PsdComponents row;
    for (std::size_t c = 0; c < psdMostComponents; ++c)
        row.color[c] = room.get() + c * width();
    row.alpha = room.get() + psdMostComponents * width();
    return row.from(x);
}

void State::makeRoom()
{
    if (!isPlain(*this) && !isLookedUp(*this))
        room.reset(new float[(psdMostComponents + 1) * width()]);
}

void State::warn(const std::string& line)
{
    const bool isKnown = std::any_of(
        warnings.begin(), warnings.end(), [&](const CharString& known) { return line == known.c_str(); });
    if (isKnown || warnings.count() >= mostWarnings)
        return;
    const CharString text(line.c_str());
    const int before = warnings.count();
    warnings.add(text);
    if (text.empty() || warnings.count() == before)
        throw std::bad_alloc();
}

// --- PSD_Image -------------------------------------------------------------------------------------------

PSD_Image::PSD_Image() noexcept : m_state(nullptr) { }

PSD_Image::~PSD_Image()
{
    clear();
}

void PSD_Image::clear() noexcept
{
    delete m_state;
    m_state = nullptr;
}

int PSD_Image::width() const noexcept
{
    return m_state ? int(m_state->document.header.width) : 0;
}

int PSD_Image::height() const noexcept
{
    return m_state ? int(m_state->document.header.height) : 0;
}

void PSD_Image::getComponent(int row, int column, float* rgba) const noexcept
{
    if (isInside(row, height()) && isInside(column, width()) && m_state->hasPixels)
        getPixels(*m_state, std::size_t(row), std::size_t(column), 1, rgba);
    else
        std::fill_n(rgba, 4, 0.0f);
}

void PSD_Image::getRow(int row, float* rgba) const noexcept
{
    if (isInside(row, height()) && m_state->hasPixels)
        getPixels(*m_state, std::size_t(row), 0, m_state->width(), rgba);
    else
        std::fill_n(rgba, std::size_t(width()) * 4, 0.0f);
}

bool PSD_Image::hasPackedRows() const noexcept
{
    return m_state && isPlain(*m_state);
}

void PSD_Image::getPackedRow(int row, unsigned int* argb) const noexcept
{
    if (!hasPackedRows() || !isInside(row, height()))
        return;
    const std::size_t y = std::size_t(row), count = m_state->width();
    if (isLookedUp(*m_state)) {
        for (std::size_t x = 0; x < count; ++x)
            argb[x] = packedLookUp(*m_state, y, x);
        return;
    }
    const std::uint8_t* planes[4];
    planesFrom(*m_state, y, 0, planes);
    psdBytesToPacked(planes, argb, count);
}

int PSD_Image::bitsPerSample() const noexcept
{
    return m_state ? m_state->document.header.depth : 0;
}

bool PSD_Image::isGrey() const noexcept
{
    return m_state && m_state->document.header.isGrey();
}

bool PSD_Image::hasAlpha() const noexcept
{
    return m_state && m_state->hasAlpha;
}

const Table<CharString, 8>& PSD_Image::warnings() const noexcept
{
    static const Table<CharString, 8> none;
    return m_state ? m_state->warnings : none;
}

} // namespace QUtils
