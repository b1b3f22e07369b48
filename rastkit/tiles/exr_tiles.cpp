#include "qutils/core/critical_section.h"
#include "rastkit/exr/exr_channels.h"
#include "rastkit/exr/exr_header.h"
#include "rastkit/exr/exr_library.h"
#include "rastkit/exr/exr_open.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/pixel_memory.h"
#include "rastkit/model/row_sink.h"
#include "rastkit/model/type_information.h"
#include "rastkit/tiles.h"
#include "rastkit/tiles/tile_sink.h"

#include <Iex.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfInputFile.h>
#include <ImfTiledInputFile.h>
#include <ImfVecAttribute.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <new>

namespace QUtils {

namespace {

using TiledExr = OpenExr<Imf::TiledInputFile>;

/// The cache's own sink takes halfs as they are.
TileSink* asTileSink(ImgBuffer& buffer)
{
    return hasTypeInformation(buffer) ? dynamic_cast<TileSink*>(&buffer) : nullptr;
}

/// The open file, and memory for one tile of it.
class ExrTiles {
public:
    /// Throws whatever is wrong, a file that is not as described among it.
    explicit ExrTiles(const MipMapTileLoaderParams& params) : m_file(openName(params), ExrInput::smallBlock)
    {
        const Imf::Header& header = m_file->header();
        const ExrChannels channels = pickExrChannels(header, Conventions::Renderer);
        m_isGrey = channels.kind == ExrChannels::Kind::Grey;
        m_isHalf = channels.isHalf && !m_isGrey; // OpenEXR makes floats of grey halfs.
        m_width = header.tileDescription().xSize;
        m_height = header.tileDescription().ySize;
        if (!isAs(params) || header.tileDescription().mode != Imf::MIPMAP_LEVELS)
            throw Iex::InputExc("The texture is not as it was described.");
        takeMemory();
        attach(channels);
    }

    bool isAs(const MipMapTileLoaderParams& params) const
    {
        return m_isGrey == (params.numChannels < 3) && std::int64_t(m_width) == params.tileWidth
            && std::int64_t(m_height) == params.tileHeight;
    }

    /// Throws whatever is wrong with the tile.
    void load(int tx, int ty, int level, ImgBuffer& buffer)
    {
        m_file->dataWindowForTile(tx, ty, level); // Throws for a tile that is not there.
        const std::int64_t x = std::int64_t(tx) * m_width, y = std::int64_t(ty) * m_height;
        if (x + m_width > INT_MAX || y + m_height > INT_MAX)
            throw Iex::InputExc("The tile lies too far out.");
        m_isSpoilt = true;
        m_file->readTile(tx, ty, level);
        m_isSpoilt = false;
        if (TileSink* const tile = m_isHalf ? asTileSink(buffer) : nullptr) {
            for (std::int64_t row = 0; row < m_height; ++row)
                tile->setRowHalf(int(x), int(y + row), int(m_width),
                    reinterpret_cast<const std::uint16_t*>(m_tile.get() + std::size_t(row) * rowBytes()));
            return;
        }
        RowSink sink(buffer);
        sink.adopt(INT_MAX, INT_MAX); // The buffer has the size of the level, which it alone knows.
        for (std::int64_t row = 0; row < m_height; ++row)
            sink.putF(int(x), int(y + row), floatsOf(row), int(m_width));
    }

    /// Whether a tile could not be read. OpenEXR 3.1 then takes the file for standing where it does not, and
    /// would read the wrong bytes for the next tile.
    bool isSpoilt() const { return m_isSpoilt; }

private:
    static const char* openName(const MipMapTileLoaderParams& params)
    {
        if (!params.fileName)
            throw Iex::ArgExc("The texture has no file name.");
        return params.fileName;
    }

    std::size_t samples() const { return m_isGrey ? 2 : 4; }
    std::size_t sampleBytes() const { return m_isHalf ? sizeof(std::uint16_t) : sizeof(float); }
    std::size_t rowBytes() const { return std::size_t(m_width) * samples() * sampleBytes(); }

    /// All 0: pixels beyond the edge of a level must not show what the memory held before.
    void takeMemory()
    {
        const std::uint64_t pixels = std::uint64_t(m_width) * std::uint64_t(m_height);
        const std::uint64_t most = mostExrPixelBytes(m_file.bytes(), m_file->header().compression());
        if (pixels > most / sizeof(std::uint16_t)) // No sample is smaller.
            throw Iex::InputExc("The file is too small for its tiles.");
        m_tile = allocateZeroPixels(std::size_t(pixels) * samples() * sampleBytes());
        m_row = allocateZeroPixels(std::size_t(m_width) * 4 * sizeof(float));
        if (!m_tile || !m_row)
            throw std::bad_alloc();
    }

    /// Every tile is stored at the beginning of the memory, wherever it lies in the picture.
    void attach(const ExrChannels& channels)
    {
        Imf::FrameBuffer slices;
        const std::size_t pixelBytes = samples() * sampleBytes();
        for (std::size_t i = 0; i < samples(); ++i) {
            const bool isAlpha = i + 1 == samples();
            slices.insert(channels.names[i],
                Imf::Slice(m_isHalf ? Imf::HALF : Imf::FLOAT,
                    reinterpret_cast<char*>(m_tile.get() + i * sampleBytes()), pixelBytes, rowBytes(), 1, 1,
                    isAlpha ? 1.0 : 0.0, true, true));
        }
        m_file->setFrameBuffer(slices);
    }

    /// A row of the tile as R, G, B, A.
    const float* floatsOf(std::int64_t number)
    {
        const std::uint8_t* const row = m_tile.get() + std::size_t(number) * rowBytes();
        auto* const rgba = reinterpret_cast<float*>(m_row.get());
        const auto width = std::size_t(m_width);
        if (!m_isGrey && !m_isHalf)
            return reinterpret_cast<const float*>(row);
        if (m_isGrey)
            pixelKernels().greyAlphaToRgba(reinterpret_cast<const float*>(row), rgba, width);
        else
            pixelKernels().halfToFloat(reinterpret_cast<const std::uint16_t*>(row), rgba, width * 4);
        return rgba;
    }

    TiledExr m_file;
    bool m_isGrey = false, m_isHalf = false, m_isSpoilt = false;
    std::int64_t m_width = 0, m_height = 0; ///< Of a tile.
    PixelMemory m_tile, m_row;
};

// --- Header ----------------------------------------------------------------------------------------------

void readRange(const Imf::Header& header, const char* scalarName, const char* vectorName, float* range)
{
    if (const auto* const scalar = header.findTypedAttribute<Imf::FloatAttribute>(scalarName))
        std::fill_n(range, 3, scalar->value());
    if (const auto* const vector = header.findTypedAttribute<Imf::V3fAttribute>(vectorName))
        for (int i = 0; i < 3; ++i)
            range[i] = vector->value()[i];
}

void readTileLayout(const Imf::Header& header, MipMapTileLoaderParams& params)
{
    params.isMipmapped = 0;
    if (!header.hasTileDescription())
        return;
    const Imf::TileDescription& tiles = header.tileDescription();
    if (tiles.mode != Imf::MIPMAP_LEVELS || tiles.xSize > unsigned(INT_MAX)
        || tiles.ySize > unsigned(INT_MAX))
        return;
    params.tileWidth = int(tiles.xSize);
    params.tileHeight = int(tiles.ySize);
    params.roundUp = tiles.roundingMode == Imf::ROUND_UP ? 1 : 0;
    params.isMipmapped = 1;
}

void readLevels(TiledExr& file, MipLevel* levels)
{
    for (int l = 0; l < file->numLevels(); ++l)
        levels[l] = { file->numXTiles(l), file->numYTiles(l), file->levelWidth(l), file->levelHeight(l) };
}

} // namespace

} // namespace QUtils

struct EXRTileLoaderParams::State {
    QUtils::CriticalSection mutex;
    std::unique_ptr<QUtils::ExrTiles> tiles; ///< Null until the first tile is asked for.
};

EXRTileLoaderParams::EXRTileLoaderParams() : m_state(new (std::nothrow) State) { }

EXRTileLoaderParams::~EXRTileLoaderParams()
{
    EXRTileLoaderParams::freeMem();
}

void EXRTileLoaderParams::freeMem()
{
    m_state.reset();
}

ImgError EXRTileLoaderParams::loadTile(int tx, int ty, int level, ImgBuffer& buffer)
{
    if (!m_state)
        return IMGERR_READ;
    const std::lock_guard lock(m_state->mutex);
    try {
        QUtils::startExrLibrary();
        if (!m_state->tiles)
            m_state->tiles = std::make_unique<QUtils::ExrTiles>(*this);
        if (!m_state->tiles->isAs(*this))
            throw Iex::InputExc("The texture is not as it was described.");
        m_state->tiles->load(tx, ty, level, buffer);
        return IMGERR_NONE;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
    } catch (...) { // NOLINT(bugprone-empty-catch): only the buffer's, and without a text.
    }
    if (m_state->tiles && m_state->tiles->isSpoilt())
        m_state->tiles.reset(); // The next call opens it anew.
    return IMGERR_READ;
}

ImgError LoadEXRHeaderEx(const char* fileName, EXRTileLoaderParams& params)
{
    try {
        QUtils::startExrLibrary();
        {
            QUtils::OpenExr<Imf::InputFile> file(fileName, QUtils::ExrInput::smallBlock);
            const Imf::Header& header = file->header();
            QUtils::loadExrHeader_common(header, &params);
            QUtils::readTileLayout(header, params);
            QUtils::readRange(header, "minValue", "minValueVec", params.minValue);
            QUtils::readRange(header, "maxValue", "maxValueVec", params.maxValue);
        }
        if (params.isMipmapped) {
            QUtils::TiledExr file(fileName, QUtils::ExrInput::smallBlock);
            MipLevel* const levels = params.replaceLevels(file->numLevels());
            if (!levels)
                return IMGERR_READ;
            QUtils::readLevels(file, levels);
        }
        return IMGERR_NONE;
    } catch (...) { // Whatever is wrong with the file: it cannot be read.
        return IMGERR_READ;
    }
}
