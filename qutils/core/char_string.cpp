#include "qutils/core/char_string.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace QUtils {

/// Stands at the front of one block of memory; the characters and their terminator follow it.
struct CharString::Storage {
    std::atomic<std::size_t> owners { 1 };
    int length = 0;

    char* text() noexcept { return reinterpret_cast<char*>(this + 1); }

    /// A block with a copy of `length` bytes, or null when there are none or memory is refused.
    static Storage* make(const char* text, std::size_t length) noexcept
    {
        if (length == 0 || length > INT_MAX)
            return nullptr;
        void* const memory = ::operator new(sizeof(Storage) + length + 1, std::nothrow);
        if (!memory)
            return nullptr;
        Storage* const storage = new (memory) Storage;
        storage->length = static_cast<int>(length);
        std::memcpy(storage->text(), text, length);
        storage->text()[length] = '\0';
        return storage;
    }
};

CharString::CharString(const char* text) noexcept
    : m_storage(text ? Storage::make(text, std::strlen(text)) : nullptr)
{
}

CharString::CharString(const char* text, int length) noexcept
{
    // A zero byte among the characters ends the text, so that length() and c_str() never disagree.
    if (text && length > 0)
        m_storage = Storage::make(text, strnlen(text, static_cast<std::size_t>(length)));
}

CharString::CharString(const CharString& other) noexcept : m_storage(other.m_storage)
{
    if (m_storage)
        m_storage->owners.fetch_add(1, std::memory_order_relaxed);
}

CharString::CharString(CharString&& other) noexcept : m_storage(std::exchange(other.m_storage, nullptr)) { }

CharString& CharString::operator=(const CharString& other) noexcept
{
    CharString copy(other);
    std::swap(m_storage, copy.m_storage);
    return *this;
}

CharString& CharString::operator=(CharString&& other) noexcept
{
    CharString taken(std::move(other));
    std::swap(m_storage, taken.m_storage);
    return *this;
}

CharString::~CharString()
{
    release();
}

const char* CharString::c_str() const noexcept
{
    return m_storage ? m_storage->text() : "";
}

int CharString::length() const noexcept
{
    return m_storage ? m_storage->length : 0;
}

bool CharString::equals(const CharString& other) const noexcept
{
    if (m_storage == other.m_storage)
        return true;
    return length() == other.length()
        && std::memcmp(c_str(), other.c_str(), static_cast<std::size_t>(length())) == 0;
}

void CharString::release() noexcept
{
    Storage* const storage = std::exchange(m_storage, nullptr);
    if (storage && storage->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        storage->~Storage();
        ::operator delete(storage);
    }
}

} // namespace QUtils
