#pragma once

#include "qutils/export.h"

namespace QUtils {

/// Owned text of Unicode characters, for comparing names of files that store them in different ways. Copies
/// share one storage block whose owners are counted, as those of CharString do.
///
/// Errors: when memory is refused, or the text is longer than an `int` counts, the text is empty; nothing
/// is thrown.
class QUTILS_API UTF32String {
public:
    UTF32String() noexcept = default;
    UTF32String(const UTF32String& other) noexcept;
    UTF32String(UTF32String&& other) noexcept;
    UTF32String& operator=(const UTF32String& other) noexcept;
    UTF32String& operator=(UTF32String&& other) noexcept;
    ~UTF32String();

    /// Takes a zero-terminated UTF-8 text; null gives an empty one. Each byte that does not belong to a valid
    /// sequence becomes U+FFFD.
    void setFromUTF8(const char* text) noexcept;
    /// Takes `length` UTF-16 units, most significant byte first, as file formats store them. Zeros at the end
    /// are no part of the text; a unit of a pair without the other one becomes U+FFFD.
    void setFromUTF16BE(const unsigned char* bytes, int length) noexcept;

    /// The characters with a zero behind them; never null.
    const char32_t* c_str() const noexcept;
    /// Characters without the zero.
    int length() const noexcept;
    bool empty() const noexcept { return length() == 0; }

    /// True when both share one storage block (or are both empty): a copy was made, not a duplicate.
    bool sharesStorageWith(const UTF32String& other) const noexcept { return m_storage == other.m_storage; }

    friend bool operator==(const UTF32String& a, const UTF32String& b) noexcept { return a.equals(b); }
    friend bool operator!=(const UTF32String& a, const UTF32String& b) noexcept { return !a.equals(b); }

private:
    struct Storage;

    bool equals(const UTF32String& other) const noexcept;
    void take(Storage* storage) noexcept;

    Storage* m_storage = nullptr; // Null for an empty text.
};

} // namespace QUtils

using QUtils::UTF32String;
