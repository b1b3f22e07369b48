#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace QUtils {

/// An array of `T` beside the count of its owners. `PtrArray` is the handle that users hold.
template <typename T> class RefCounter {
public:
    RefCounter() noexcept = default;
    RefCounter(const RefCounter&) = delete;
    RefCounter& operator=(const RefCounter&) = delete;
    ~RefCounter() { freeMem(); }

    /// Replaces the array by one of `count` elements, left uninitialised for arithmetic types.
    /// Null when memory is refused or `count` elements exceed the address space; nothing is thrown.
    T* allocMem(std::size_t count) noexcept
    {
        freeMem();
        // Half of what pointers can span: close to it even the non-throwing form may throw, and compilers
        // draw the line differently.
        if (count <= PTRDIFF_MAX / sizeof(T) / 2)
            m_memory = new (std::nothrow) T[count];
        return m_memory;
    }
    void freeMem() noexcept
    {
        delete[] m_memory;
        m_memory = nullptr;
    }

    T* memory() const noexcept { return m_memory; }

    void addReference() noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }
    /// True when the last reference was dropped.
    bool dropReference() noexcept { return m_references.fetch_sub(1, std::memory_order_acq_rel) == 1; }

private:
    T* m_memory = nullptr;
    std::atomic<int> m_references { 1 };
};

/// A shared array of temporary pixel memory. Copies own the same array; the last one releases it.
template <typename T> class PtrArray {
public:
    PtrArray() noexcept = default;
    PtrArray(const PtrArray& other) noexcept : m_counter(other.m_counter)
    {
        if (m_counter)
            m_counter->addReference();
    }
    PtrArray(PtrArray&& other) noexcept : m_counter(std::exchange(other.m_counter, nullptr)) { }
    PtrArray& operator=(PtrArray other) noexcept
    {
        std::swap(m_counter, other.m_counter);
        return *this;
    }
    ~PtrArray() { freeMem(); }

    /// Lets go of the present array and takes a new one of `count` elements.
    /// Null when memory is refused; nothing is thrown.
    T* allocMem(std::size_t count) noexcept
    {
        freeMem();
        m_counter = new (std::nothrow) RefCounter<T>;
        if (m_counter && !m_counter->allocMem(count))
            freeMem();
        return get();
    }
    /// Drops this handle's reference; the array is released when it was the last one.
    void freeMem() noexcept
    {
        if (m_counter && m_counter->dropReference())
            delete m_counter;
        m_counter = nullptr;
    }

    /// The first element, or null without an array.
    T* get() const noexcept { return m_counter ? m_counter->memory() : nullptr; }
    T& operator[](std::size_t index) const noexcept { return get()[index]; }
    explicit operator bool() const noexcept { return get() != nullptr; }

private:
    RefCounter<T>* m_counter = nullptr;
};

} // namespace QUtils
