#include "rastkit/codecs/pic.h"

#include "rastkit/codecs/block_reader.h"
#include "rastkit/codecs/pic_format.h"
#include "rastkit/codecs/unbuffered_file.h"
#include "rastkit/load.h"
#include "rastkit/model/byte_reader.h"
#include "rastkit/model/pixel_kernels.h"
#include "rastkit/model/result.h"
#include "rastkit/model/row_sink.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <vector>

namespace QUtils {

namespace {

using Packets = Table<PICChannel, 100>;

// --- Header ----------------------------------------------------------------------------------------------

/// What to answer when the reader has fewer bytes than are needed.
ImgErrorCode shortRead(const BlockReader& in)
{
    return in.isValid() ? IMGERR_READ : IMGERR_MEMORY;
}

ImgErrorCode readSize(BlockReader& in, IMGINFO& info)
{
    const std::size_t ready = in.ready(picHeaderBytes);
    ByteReader header(in.data(), ready);
    const std::uint32_t magic = header.u32be();
    if (!header.ok())
        return shortRead(in);
    if (magic != picMagic)
        return IMGERR_FORMAT;
    header.skip(picIdOffset - sizeof magic); // Version and comment.
    const std::uint32_t id = header.u32be();
    if (!header.ok())
        return shortRead(in);
    if (id != picId)
        return IMGERR_FORMAT;
    const int width = header.u16be(), height = header.u16be();
    if (!header.ok())
        return shortRead(in);
    info.width = width;
    info.height = height;
    in.skip(std::min(ready, picHeaderBytes)); // Pixel ratio, fields and padding mean nothing here.
    return IMGERR_NONE;
}

/// Of twice as many each time, since a chain may be as long as the file.
bool append(Packets& packets, const PICChannel& packet)
{
    const int count = packets.count();
    const bool isFull = count >= 100 && (count & (count - 1)) == 0;
    if (isFull && (count > INT_MAX / 2 || !packets.reserve(count * 2)))
        return false;
    packets.add(packet);
    return packets.count() == count + 1;
}

ImgErrorCode readPackets(BlockReader& in, Packets& packets, unsigned int& mask)
{
    for (bool isChained = true; isChained;) {
        if (in.ready(picPacketBytes) < picPacketBytes)
            return shortRead(in);
        ByteReader bytes(in.data(), picPacketBytes);
        in.skip(picPacketBytes);
        isChained = bytes.u8() != 0;
        PICChannel packet;
        packet.bitsPerChannel = bytes.u8();
        packet.compressionType = bytes.u8();
        packet.channelMask = bytes.u8();
        if (packet.compressionType >> 4 != 0 || packet.bitsPerChannel != 8)
            return IMGERR_UNSUPPORTED;
        if (!append(packets, packet))
            return IMGERR_MEMORY;
        mask |= packet.channelMask;
    }
    return IMGERR_NONE;
}

ImgErrorCode readHeader(BlockReader& in, IMGINFO& info, Packets& packets)
{
    if (!in.isValid())
        return IMGERR_MEMORY;
    RASTKIT_TRY(readSize(in, info));
    unsigned int mask = 0;
    RASTKIT_TRY(readPackets(in, packets, mask));
    if ((mask & picUnknownMask) != 0)
        return IMGERR_UNSUPPORTED;
    info.numChannels = __builtin_popcount(mask);
    info.bitsPerPixel = info.numChannels * 8;
    info.bytesPerPixel = info.numChannels;
    return IMGERR_NONE;
}

/// The standard conventions know no empty pictures and none without channels, and take a cut header for none.
ImgErrorCode readHeader(BlockReader& in, Conventions conventions, IMGINFO& info, Packets& packets)
{
    const ImgErrorCode code = readHeader(in, info, packets);
    if (conventions == Conventions::Renderer)
        return code;
    const bool isEmpty = info.width == 0 || info.height == 0 || info.numChannels == 0;
    if (code == IMGERR_READ || (code == IMGERR_NONE && isEmpty))
        return IMGERR_FORMAT;
    return code;
}

void copySizes(const IMGINFO& from, IMGINFO* to)
{
    if (!to)
        return;
    to->width = from.width;
    to->height = from.height;
    to->numChannels = from.numChannels;
    to->bitsPerPixel = from.bitsPerPixel;
    to->bytesPerPixel = from.bytesPerPixel;
}

// --- Packets ---------------------------------------------------------------------------------------------

/// How a packet's rows are decoded.
struct PacketCoding {
    std::uint8_t compression = 0;
    unsigned int channels = 0;
    unsigned int shifts[4] = {};

    explicit PacketCoding(const PICChannel& packet) : compression(packet.compressionType & 0x0F)
    {
        for (const PicChannelBit& bit : picChannels)
            if ((packet.channelMask & bit.mask) != 0)
                shifts[channels++] = bit.shift;
    }
    /// False for one that has neither bytes nor pixels.
    bool doesAnything() const { return compression != PIC_UNCOMPRESSED || channels != 0; }
};

/// Decodes the rows of packets. Bytes of channels are added to the bits that pixels have already.
class RowDecoder {
public:
    RowDecoder(BlockReader& in, std::uint32_t* row, std::size_t width) : m_in(in), m_row(row), m_width(width)
    {
    }

    /// One packet's row. IMGERR_READ when it is cut or does not fit, IMGERR_UNSUPPORTED, IMGERR_MEMORY.
    ImgErrorCode decode(const PacketCoding& packet)
    {
        m_x = 0;
        switch (packet.channels) {
        case 0: return decodeOf<0>(packet);
        case 1: return decodeOf<1>(packet);
        case 2: return decodeOf<2>(packet);
        case 3: return decodeOf<3>(packet);
        default: return decodeOf<4>(packet);
        }
    }
    /// How many pixels the packet that was decoded last has stored.
    std::size_t done() const { return m_x; }

private:
    template <unsigned int channels>
    static std::uint32_t pixelAt(const std::uint8_t* bytes, const unsigned int* shifts)
    {
        std::uint32_t pixel = 0;
        for (unsigned int c = 0; c < channels; ++c)
            pixel |= std::uint32_t(bytes[c]) << shifts[c];
        return pixel;
    }

    template <unsigned int channels> ImgErrorCode decodeOf(const PacketCoding& packet)
    {
        switch (packet.compression) {
        case PIC_UNCOMPRESSED: return literals<channels>(packet, m_width);
        case PIC_PURE_RUNS: return pureRuns<channels>(packet);
        case PIC_MIXED_RUNS: return mixedRuns<channels>(packet);
        default: return IMGERR_UNSUPPORTED;
        }
    }

    template <unsigned int channels> ImgErrorCode literals(const PacketCoding& packet, std::size_t count)
    {
        const std::size_t there = m_in.ready(count * channels);
        const std::size_t got = channels == 0 ? count : std::min(count, there / channels);
        const std::uint8_t* const bytes = m_in.data();
        std::uint32_t* const row = m_row + m_x;
        for (std::size_t i = 0; i < got; ++i)
            row[i] |= pixelAt<channels>(bytes + i * channels, packet.shifts);
        m_x += got;
        m_in.skip(got * channels);
        return got == count ? IMGERR_NONE : shortRead(m_in);
    }

    /// A pixel whose bytes stand behind `controlBytes` others, which are ready, `count` times.
    template <unsigned int channels>
    ImgErrorCode run(const PacketCoding& packet, std::size_t controlBytes, std::size_t count)
    {
        if (m_in.ready(controlBytes + channels) < controlBytes + channels)
            return shortRead(m_in);
        const std::uint32_t pixel = pixelAt<channels>(m_in.data() + controlBytes, packet.shifts);
        std::uint32_t* const row = m_row + m_x;
        for (std::size_t i = 0; i < count; ++i)
            row[i] |= pixel;
        m_x += count;
        m_in.skip(controlBytes + channels);
        return IMGERR_NONE;
    }

    /// A run of no pixels stores none and is passed over.
    template <unsigned int channels> ImgErrorCode pureRuns(const PacketCoding& packet)
    {
        while (m_x < m_width) {
            if (m_in.ready(1) < 1)
                return shortRead(m_in);
            const std::size_t count = m_in.data()[0];
            if (count > m_width - m_x)
                return IMGERR_READ;
            RASTKIT_TRY(run<channels>(packet, 1, count));
        }
        return IMGERR_NONE;
    }

    template <unsigned int channels> ImgErrorCode mixedRuns(const PacketCoding& packet)
    {
        while (m_x < m_width) {
            if (m_in.ready(1) < 1)
                return shortRead(m_in);
            const unsigned int control = m_in.data()[0];
            const bool isLong = control == picLongRun;
            if (isLong && m_in.ready(3) < 3)
                return shortRead(m_in);
            const std::uint8_t* const bytes = m_in.data();
            const std::size_t count = isLong ? std::size_t(bytes[1] << 8 | bytes[2])
                : control > picLongRun       ? control - 127
                                             : control + 1;
            if (count > m_width - m_x)
                return IMGERR_READ;
            if (control >= picLongRun) {
                RASTKIT_TRY(run<channels>(packet, isLong ? 3 : 1, count));
            } else {
                m_in.skip(1);
                RASTKIT_TRY(literals<channels>(packet, count));
            }
        }
        return IMGERR_NONE;
    }

    BlockReader& m_in;
    std::uint32_t* m_row;
    std::size_t m_width, m_x = 0;
};

// --- Rows ------------------------------------------------------------------------------------------------

/// What all rows are decoded by.
struct Picture {
    std::vector<PacketCoding> packets; // Those that do anything.
    std::uint32_t firstBits = 0; // Bits that every pixel has.
};

ImgErrorCode layOut(const Packets& channels, Conventions conventions, Picture& picture)
{
    bool hasAlpha = false;
    try {
        for (const PICChannel& channel : channels) {
            hasAlpha = hasAlpha || (channel.channelMask & picAlphaMask) != 0;
            const PacketCoding packet(channel);
            if (packet.doesAnything())
                picture.packets.push_back(packet);
        }
    } catch (const std::bad_alloc&) {
        return IMGERR_MEMORY;
    }
    // Deliberately none for the renderer: its scenes know files without alpha as transparent.
    if (!hasAlpha && conventions == Conventions::Standard)
        picture.firstBits = 0xFF000000u;
    return IMGERR_NONE;
}

/// Files have a packet or two. A long chain of packets of long runs would take any time, for pixels that are
/// stored again and again: past the first packets their number follows the size of the file. A picture
/// without any takes nothing from the file, and may be as large as pictures are.
bool isInProportion(std::FILE* file, std::size_t packetCount, const RowSink& sink)
{
    constexpr std::size_t freePackets = 16, pixelsOfByte = 1024;
    constexpr double mostFreePixels = 1 << 26;
    const double pixels = double(sink.width()) * double(sink.height());
    if (packetCount == 0)
        return pixels <= mostFreePixels;
    if (packetCount <= freePackets)
        return true;
    struct stat status;
    if (fstat(fileno(file), &status) != 0 || status.st_size <= 0)
        return false;
    return pixels * double(packetCount - freePackets) <= double(status.st_size) * pixelsOfByte;
}

/// Rows without pixels take nothing from the file, but a packet of another kind is found.
ImgErrorCode checkPackets(const Picture& picture)
{
    const bool known = std::all_of(picture.packets.begin(), picture.packets.end(),
        [](const PacketCoding& packet) { return packet.compression <= PIC_MIXED_RUNS; });
    return known ? IMGERR_NONE : IMGERR_UNSUPPORTED;
}

/// A row that is cut is not stored by the renderer's conventions, by the standard ones as far as it has all
/// packets.
ImgErrorCode readRows(BlockReader& in, const Picture& picture, Conventions conventions, RowSink& sink)
{
    const std::size_t width = std::size_t(sink.width());
    if (width == 0)
        return sink.height() == 0 ? IMGERR_NONE : checkPackets(picture);
    const std::unique_ptr<std::uint32_t[]> row(new (std::nothrow) std::uint32_t[width]);
    if (!row)
        return IMGERR_MEMORY;
    RowDecoder decoder(in, row.get(), width);
    for (int y = 0; y < sink.height(); ++y) {
        std::fill_n(row.get(), width, picture.firstBits);
        for (const PacketCoding& packet : picture.packets) {
            const ImgErrorCode code = decoder.decode(packet);
            if (code == IMGERR_READ && conventions == Conventions::Standard
                && &packet == &picture.packets.back())
                sink.put(0, y, row.get(), int(decoder.done()));
            RASTKIT_TRY(code);
        }
        sink.put(0, y, row.get(), int(width));
    }
    return IMGERR_NONE;
}

ImgErrorCode readImage(std::FILE* file, Conventions conventions, ImgBuffer& buffer, IMGINFO* info)
{
    BlockReader in(file);
    IMGINFO sizes {};
    Packets channels;
    RASTKIT_TRY(readHeader(in, conventions, sizes, channels));
    copySizes(sizes, info);
    Picture picture;
    RASTKIT_TRY(layOut(channels, conventions, picture));

    const FreeOnThrow guard(buffer);
    RowSink sink(buffer);
    const ImgErrorCode sized = sink.init(sizes.width, sizes.height);
    if (conventions == Conventions::Standard)
        RASTKIT_TRY(sized);
    else if (sized != IMGERR_NONE)
        sink.adopt(
            sizes.width, sizes.height); // Deliberately goes on with a sink that says it has no storage.
    if (!isInProportion(file, picture.packets.size(), sink))
        return IMGERR_READ;
    return readRows(in, picture, conventions, sink);
}

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

ImgErrorCode LoadPICHeader_common(std::FILE* file, IMGINFO* info, Packets& channels)
{
    const off_t begin = ftello(file);
    BlockReader in(file);
    channels.clear();
    RASTKIT_TRY(readHeader(in, *info, channels));
    const std::size_t bytes = picHeaderBytes + std::size_t(channels.count()) * picPacketBytes;
    return fseeko(file, begin + off_t(bytes), SEEK_SET) == 0 ? IMGERR_NONE : IMGERR_READ;
}

ImgError loadPicHeader(const char* fileName, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    BlockReader in(file);
    IMGINFO sizes {};
    Packets channels;
    const ImgErrorCode code = readHeader(in, conventions, sizes, channels);
    if (code == IMGERR_NONE) {
        copySizes(sizes, info);
    } else if (info && conventions == Conventions::Renderer && (sizes.width != 0 || sizes.height != 0)) {
        info->width = sizes.width; // The renderer is told the size before the packets are looked at.
        info->height = sizes.height;
    }
    return code;
}

ImgError loadPic(const char* fileName, ImgBuffer& buffer, IMGINFO* info, Conventions conventions)
{
    const FilePtr file = openUnbuffered(fileName, "rb");
    if (!file)
        return makeOpenError();
    try {
        return readImage(file, conventions, buffer, info);
    } catch (const ImgErrorCode code) { // A sink's own.
        return code;
    }
}

} // namespace QUtils

ImgError LoadPICHeader(const char* fileName, IMGINFO* info)
{
    return QUtils::loadPicHeader(fileName, info, QUtils::Conventions::Renderer);
}

ImgError LoadPICFile(const char* fileName, ImgBuffer& buffer, IMGINFO* info)
{
    return QUtils::loadPic(fileName, buffer, info, QUtils::Conventions::Renderer);
}
