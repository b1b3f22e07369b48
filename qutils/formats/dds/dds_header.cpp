#include "qutils/formats/dds/dds_header.h"

namespace QUtils {

namespace {

/// Takes 32-bit words, least significant byte first, from a block that is known to be long enough.
class WordReader {
public:
    explicit WordReader(const std::uint8_t* bytes) : m_pos(bytes) { }

    std::uint32_t word()
    {
        const std::uint32_t value = std::uint32_t(m_pos[0]) | std::uint32_t(m_pos[1]) << 8
            | std::uint32_t(m_pos[2]) << 16 | std::uint32_t(m_pos[3]) << 24;
        m_pos += 4;
        return value;
    }
    void skip(std::size_t words) { m_pos += 4 * words; }

private:
    const std::uint8_t* m_pos;
};

} // namespace

DdsHeader parseDdsHeader(const std::uint8_t (&bytes)[DdsHeader::byteSize])
{
    WordReader in(bytes);
    DdsHeader header {};
    header.magic = in.word();
    header.size = in.word();
    header.flags = in.word();
    header.height = in.word();
    header.width = in.word();
    in.skip(1); // Pitch or size: often wrong, so that readers compute it.
    header.depth = in.word();
    header.mipMapCount = in.word();
    in.skip(11); // Reserved.
    header.pixelFormat.size = in.word();
    header.pixelFormat.flags = in.word();
    header.pixelFormat.code = in.word();
    header.pixelFormat.bitCount = in.word();
    for (std::uint32_t& mask : header.pixelFormat.masks)
        mask = in.word();
    in.skip(1); // Caps: complex, mipmap, texture.
    header.caps2 = in.word();
    return header;
}

void parseDdsExtension(const std::uint8_t (&bytes)[DdsHeader::extensionBytes], DdsHeader& header)
{
    WordReader in(bytes);
    header.dxgiFormat = in.word();
    header.resourceDimension = in.word();
    header.miscFlag = in.word();
    header.arraySize = in.word();
    header.miscFlags2 = in.word();
}

} // namespace QUtils
