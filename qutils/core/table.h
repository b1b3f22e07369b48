#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace QUtils {

/// Growable array that takes room for `Growth` more entries at a time.
/// Counts and positions are `int`, from 0 on; positions are not checked.
///
/// Errors: when memory is refused `add` leaves the table as it was, `reserve` answers false and a copy is
/// empty; nothing is thrown by the table itself.
template <typename T, int Growth> class Table {
    static_assert(Growth > 0, "a table grows by at least one entry");

public:
    Table() noexcept = default;
    Table(const Table& other) { append(other); }
    Table(Table&& other) noexcept { swap(other); }
    Table& operator=(const Table& other)
    {
        if (this != &other) {
            clear();
            append(other);
        }
        return *this;
    }
    Table& operator=(Table&& other) noexcept
    {
        swap(other);
        return *this;
    }

    int count() const noexcept { return m_count; }
    /// Entries that fit before the table must grow.
    int capacity() const noexcept { return m_capacity; }
    bool empty() const noexcept { return m_count == 0; }

    T& operator[](int index) { return begin()[index]; }
    const T& operator[](int index) const { return begin()[index]; }

    /// Appends a copy of `entry`, which may be one of the table's own.
    void add(const T& entry)
    {
        if (m_count < m_capacity) {
            *end() = entry;
            ++m_count;
            return;
        }
        if (m_count > std::numeric_limits<int>::max() - Growth)
            return;
        T copy(entry); // Growing moves the entries, and `entry` may be among them.
        if (reserve(m_count + Growth - m_count % Growth)) {
            *end() = std::move(copy);
            ++m_count;
        }
    }

    /// Makes room for `capacity` entries exactly, unless there is that much. False when memory is refused.
    bool reserve(int capacity)
    {
        if (capacity <= 0 || capacity <= m_capacity)
            return true;
        // Half of what pointers can span: close to it even the non-throwing form may throw.
        if (static_cast<std::size_t>(capacity) > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(T) / 2)
            return false;
        std::unique_ptr<T[]> grown(new (std::nothrow) T[static_cast<std::size_t>(capacity)]());
        if (!grown)
            return false;
        for (int i = 0; i < m_count; ++i)
            grown.get()[i] = std::move(begin()[i]);
        m_entries = std::move(grown);
        m_capacity = capacity;
        return true;
    }

    /// Empties the table and keeps its room.
    void clear()
    {
        for (T& entry : *this)
            entry = T();
        m_count = 0;
    }

    void swap(Table& other) noexcept
    {
        std::swap(m_entries, other.m_entries);
        std::swap(m_count, other.m_count);
        std::swap(m_capacity, other.m_capacity);
    }

    T* begin() noexcept { return m_entries.get(); }
    T* end() noexcept { return begin() + m_count; }
    const T* begin() const noexcept { return m_entries.get(); }
    const T* end() const noexcept { return begin() + m_count; }

private:
    void append(const Table& other)
    {
        if (!reserve(other.m_count))
            return;
        for (const T& entry : other)
            add(entry);
    }

    std::unique_ptr<T[]> m_entries;
    int m_count = 0, m_capacity = 0;
};

} // namespace QUtils
