#pragma once

#include "rastkit/codecs/sgi.h"
#include "rastkit/model/conventions.h"
#include "rastkit/types.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace QUtils {

// --- What a header means ---------------------------------------------------------------------------------

/// What the channels make together.
enum class SgiPixels { Nothing, Grey, GreyAlpha, Dithered, Rgb, Rgba };

/// How samples lie in the file.
struct SgiCoding {
    std::size_t sampleBytes = 1; ///< 1 or 2, the most significant first.
    std::size_t controlBytes = 0; ///< Of a run-length packet: 1 or 2; 0 for verbatim samples.

    bool isRunLength() const { return controlBytes != 0; }
    /// Most bytes that a row takes: each sample in a packet of its own.
    std::size_t mostBytes(std::size_t width) const { return width * (controlBytes + sampleBytes); }
};

/// What the readers go by, the conventions applied.
struct SgiLayout {
    int width = 0, height = 0;
    SgiPixels pixels = SgiPixels::Nothing;
    int channels = 0; ///< The first so many of the file's are decoded.
    SgiCoding coding;
    int stepBytes = 1; ///< What a sample counts for in the place of a verbatim row.
    bool keepsNumbers = false; ///< 16-bit samples are not cut to bytes.
    bool missingIsFull = false; ///< Bytes past the end of the file are 0xFF, and no failure.
};

/// Whether the standard conventions know what to do with the file: IMGERR_FORMAT, IMGERR_UNSUPPORTED.
ImgErrorCode checkSgiHeader(const sgi_header_info& header, Conventions conventions);
SgiLayout layOutSgi(const sgi_header_info& header, Conventions conventions);

// --- Packets -------------------------------------------------------------------------------------------

/// What a row's packets came to.
struct SgiPacketRow {
    std::size_t samples = 0, bytes = 0; ///< Stored, and used.
    bool isEnded = false; ///< By a packet of no samples.
    bool isOverrun = false; ///< A packet went past the row's end and was cut.
};

/// Room behind a row's samples that the packet decoder may store into.
constexpr std::size_t sgiRowSlack = 16;

/// Decodes the packets of one row of `width` samples from `size` bytes. Fewer samples come out of fewer
/// bytes. `samples` has room for them as they are stored, and `sgiRowSlack` bytes more.
SgiPacketRow decodeSgiPackets(const SgiCoding& coding, const std::uint8_t* bytes, std::size_t size,
    std::uint8_t* samples, std::size_t width);

// --- The rows of a file ----------------------------------------------------------------------------------

/// A file whose rows lie anywhere.
class SgiFile {
public:
    explicit SgiFile(std::FILE* file);

    std::uint64_t size() const { return m_size; }
    /// Reads up to `count` bytes from `offset` on; fewer only at the end of the file.
    std::size_t read(std::uint64_t offset, std::uint8_t* bytes, std::size_t count);
    /// How many of `wanted` bytes may be read that nobody has asked for yet. In all, as many as four passes
    /// through the file take: rows in disorder must not cost a block each.
    std::size_t grantAhead(std::size_t wanted);

private:
    std::FILE* m_file;
    std::uint64_t m_size, m_position, m_aheadLeft;
};

/// A block of the file that moves along with the rows that are asked for.
class SgiWindow {
public:
    /// For rows of at most `mostBytes` bytes. IMGERR_MEMORY.
    ImgErrorCode setUp(std::size_t mostBytes, std::uint64_t fileSize);
    /// Room for `wanted` bytes, the first `got` of which are the file's from `offset` on: fewer only at its
    /// end. They stay where they are until the next call.
    std::uint8_t* at(SgiFile& file, std::uint64_t offset, std::size_t wanted, std::size_t& got);

private:
    void move(SgiFile& file, std::uint64_t offset, std::size_t wanted);

    std::unique_ptr<std::uint8_t[]> m_block;
    std::size_t m_capacity = 0;
    std::uint64_t m_begin = 0, m_end = 0; // Offsets in the file.
};

/// One row of one channel: samples as they are stored.
struct SgiRow {
    const std::uint8_t* samples = nullptr;
    std::size_t count = 0;
    bool isIntact = false; ///< All samples are there, and nothing but them.
};

/// Reads single rows of single channels, in any order, but fast only along the file.
class SgiRowReader {
public:
    static constexpr int mostChannels = 4;

    SgiRowReader(std::FILE* file, const SgiLayout& layout) : m_file(file), m_layout(layout) { }

    /// Reads the table of offsets, as far as the file has it. IMGERR_MEMORY.
    ImgErrorCode setUp();
    /// Row `stored`, counted from the bottom. Its samples stay until the channel's next row is read.
    SgiRow row(int channel, int stored);

private:
    ImgErrorCode readTable();
    std::uint64_t packetOffset(int channel, int stored) const;
    std::uint64_t offset(int channel, int stored) const;
    bool areRowsTogether() const;

    SgiFile m_file;
    const SgiLayout& m_layout;
    SgiWindow m_windows[mostChannels];
    bool m_sharesWindow = false;
    std::unique_ptr<std::uint8_t[]> m_table;
    std::size_t m_tableBytes = 0;
    std::unique_ptr<std::uint8_t[]> m_rows[mostChannels]; // Decoded packets.
};

} // namespace QUtils
