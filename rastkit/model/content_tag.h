#pragma once

namespace QUtils {

/// Characters of a content hash that are copied: one short of a SHA-1's 40 digits, deliberately. Hosts
/// compare these 39.
inline constexpr int contentTagLength = 39;

/// True when `out` can take a content hash.
inline bool hasRoomForContentTag(const char* out, int outSize)
{
    return out && outSize > contentTagLength + 1;
}

/// Copies what follows the last "SHA-1=" of `text` (may be null) to `out`, at most contentTagLength
/// characters and a terminator. 1 when there is one and it fits, else 0.
int extractContentTag(const char* text, char* out, int outSize);

} // namespace QUtils
