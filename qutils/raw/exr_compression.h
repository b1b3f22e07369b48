#pragma once

#include <ImfCompression.h>

namespace QUtils {

/// The compression that a setting stands for: 0 and what is unknown is ZIP, 1 none, 2 RLE, 3 ZIPS, 4 ZIP, 5
/// PIZ, 6 PXR24, 7 B44, 8 B44A, 9 DWAA, 10 DWAB.
inline Imf::Compression exrCompression(int setting)
{
    return setting >= 1 && setting <= 10 ? Imf::Compression(setting - 1) : Imf::ZIP_COMPRESSION;
}

inline bool isLossy(Imf::Compression compression)
{
    return compression >= Imf::PXR24_COMPRESSION;
}

/// Lines that are compressed together.
inline int exrLinesPerChunk(Imf::Compression compression)
{
    switch (compression) {
    case Imf::ZIP_COMPRESSION:
    case Imf::PXR24_COMPRESSION: return 16;
    case Imf::PIZ_COMPRESSION:
    case Imf::B44_COMPRESSION:
    case Imf::B44A_COMPRESSION:
    case Imf::DWAA_COMPRESSION: return 32;
    case Imf::DWAB_COMPRESSION: return 256;
    default: return 1;
    }
}

} // namespace QUtils
