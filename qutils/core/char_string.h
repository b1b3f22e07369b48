#pragma once

#include "qutils/export.h"

namespace QUtils {

/// Owned, zero-terminated text. Copies share one storage block whose owners are counted, so that a copy
/// never allocates; the count is atomic, so that copies may live on different threads. The text never
/// changes after construction.
///
/// Errors: when memory is refused, or the text is longer than an `int` counts, the text is empty; nothing
/// is thrown.
class QUTILS_API CharString {
public:
    CharString() noexcept = default;
    /// Copies `text`; null gives an empty text.
    CharString(const char* text) noexcept;
    /// Copies `length` bytes of `text`, or those before its first zero byte.
    CharString(const char* text, int length) noexcept;
    CharString(const CharString& other) noexcept;
    CharString(CharString&& other) noexcept;
    CharString& operator=(const CharString& other) noexcept;
    CharString& operator=(CharString&& other) noexcept;
    ~CharString();

    /// The text; never null, an empty text has "".
    const char* c_str() const noexcept;
    /// Bytes without the terminator.
    int length() const noexcept;
    bool empty() const noexcept { return length() == 0; }

    /// True when both share one storage block (or are both empty): a copy was made, not a duplicate.
    bool sharesStorageWith(const CharString& other) const noexcept { return m_storage == other.m_storage; }

    friend bool operator==(const CharString& a, const CharString& b) noexcept { return a.equals(b); }
    friend bool operator!=(const CharString& a, const CharString& b) noexcept { return !a.equals(b); }

private:
    struct Storage;

    bool equals(const CharString& other) const noexcept;
    void release() noexcept;

    Storage* m_storage = nullptr; // Null for an empty text.
};

/// Two texts that belong together, such as a library's name and its version.
struct CharStringPair {
    CharString first, second;
};

} // namespace QUtils

using QUtils::CharString;
using QUtils::CharStringPair;
