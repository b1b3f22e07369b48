#include "qutils/core/utf32_string.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace QUtils {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isSurrogate(char32_t c)
{
    return c >= 0xD800 && c < 0xE000;
}

/// How many bytes a sequence has that begins with `first`; 0 when none does.
int sequenceLength(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first < 0xC2)
        return 0;
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
}

/// The character at `text`, which it moves on. A sequence that is cut, longer than need be, or stands for no
/// character is a replacement for its first byte.
char32_t nextOfUTF8(const unsigned char*& text)
{
    static constexpr char32_t smallest[] = { 0, 0, 0x80, 0x800, 0x10000 };
    const unsigned char first = *text++;
    const int length = sequenceLength(first);
    if (length < 2)
        return length == 1 ? char32_t(first) : replacement;
    char32_t value = first & (0x7Fu >> length);
    for (int i = 0; i < length - 1; ++i) {
        if ((text[i] & 0xC0) != 0x80) // Also the zero at the end.
            return replacement;
        value = value << 6 | (text[i] & 0x3Fu);
    }
    if (value < smallest[length] || value > 0x10FFFF || isSurrogate(value))
        return replacement;
    text += length - 1;
    return value;
}

char32_t unitOfUTF16(const unsigned char* bytes, int index)
{
    return char32_t(bytes[std::size_t(index) * 2]) << 8 | bytes[std::size_t(index) * 2 + 1];
}

/// The character at unit `index`, which it moves on.
char32_t nextOfUTF16(const unsigned char* bytes, int length, int& index)
{
    const char32_t unit = unitOfUTF16(bytes, index++);
    if (!isSurrogate(unit))
        return unit;
    const char32_t next = index < length ? unitOfUTF16(bytes, index) : 0;
    if (unit >= 0xDC00 || next < 0xDC00 || next >= 0xE000)
        return replacement;
    ++index;
    return 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00);
}

} // namespace

/// Stands at the front of one block of memory; the characters and a zero follow it.
struct UTF32String::Storage {
    std::atomic<std::size_t> owners { 1 };
    int length = 0;

    char32_t* text() noexcept { return reinterpret_cast<char32_t*>(this + 1); }

    /// Room for `length` characters, or null when there are none or memory is refused.
    static Storage* make(std::size_t length) noexcept
    {
        if (length == 0 || length > INT_MAX)
            return nullptr;
        void* const memory = ::operator new(sizeof(Storage) + (length + 1) * sizeof(char32_t), std::nothrow);
        if (!memory)
            return nullptr;
        Storage* const storage = new (memory) Storage;
        storage->length = int(length);
        storage->text()[length] = 0;
        return storage;
    }
};

UTF32String::UTF32String(const UTF32String& other) noexcept : m_storage(other.m_storage)
{
    if (m_storage)
        m_storage->owners.fetch_add(1, std::memory_order_relaxed);
}

UTF32String::UTF32String(UTF32String&& other) noexcept
    : m_storage(std::exchange(other.m_storage, nullptr)) { }

UTF32String& UTF32String::operator=(const UTF32String& other) noexcept
{
    UTF32String copy(other);
    std::swap(m_storage, copy.m_storage);
    return *this;
}

UTF32String& UTF32String::operator=(UTF32String&& other) noexcept
{
    UTF32String taken(std::move(other));
    std::swap(m_storage, taken.m_storage);
    return *this;
}

UTF32String::~UTF32String()
{
    take(nullptr);
}

void UTF32String::setFromUTF8(const char* text) noexcept
{
    const auto* const begin = reinterpret_cast<const unsigned char*>(text ? text : "");
    std::size_t count = 0;
    for (const unsigned char* pos = begin; *pos; ++count)
        nextOfUTF8(pos);
    Storage* const storage = Storage::make(count);
    const unsigned char* pos = begin;
    for (std::size_t i = 0; storage && i < count; ++i)
        storage->text()[i] = nextOfUTF8(pos);
    take(storage);
}

void UTF32String::setFromUTF16BE(const unsigned char* bytes, int length) noexcept
{
    while (length > 0 && unitOfUTF16(bytes, length - 1) == 0)
        --length;
    std::size_t count = 0;
    for (int index = 0; index < length; ++count)
        nextOfUTF16(bytes, length, index);
    Storage* const storage = Storage::make(count);
    int index = 0;
    for (std::size_t i = 0; storage && i < count; ++i)
        storage->text()[i] = nextOfUTF16(bytes, length, index);
    take(storage);
}

const char32_t* UTF32String::c_str() const noexcept
{
    return m_storage ? m_storage->text() : U"";
}

int UTF32String::length() const noexcept
{
    return m_storage ? m_storage->length : 0;
}

bool UTF32String::equals(const UTF32String& other) const noexcept
{
    if (m_storage == other.m_storage)
        return true;
    return length() == other.length()
        && std::memcmp(c_str(), other.c_str(), std::size_t(length()) * sizeof(char32_t)) == 0;
}

/// Owns `storage` from now on, and what there was no more.
void UTF32String::take(Storage* storage) noexcept
{
    Storage* const old = std::exchange(m_storage, storage);
    if (old && old->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        old->~Storage();
        ::operator delete(old);
    }
}

} // namespace QUtils
