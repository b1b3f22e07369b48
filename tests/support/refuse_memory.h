#pragma once

#include <cstddef>
#include <cstdint>

/// Refused allocations on demand. refuse_memory.cpp replaces the global `operator new` and, where it can,
/// the C allocation functions of the executable it is linked into, so it belongs to one test executable
/// of its own (`rastkit_memory_tests`) and tests that need it are listed there.
///
///     ImgError error;
///     {
///         const RefuseMemory refuse({ .granted = 3 });
///         error = LoadTGAFile(name, sink, nullptr);
///     }
///     EXPECT_EQ(error.code(), IMGERR_MEMORY);
///
/// Checks belong behind the scope: the report of a failing one takes memory. A thrown exception is a request
/// too, which the C++ runtime meets from its reserve when it is refused. To refuse each request of an
/// operation in turn, use `refuseEachInTurn`.
namespace testing_support {

/// False when only `operator new` can be refused: the sanitizers must own malloc and its kin, and a C
/// library other than glibc offers no way to the replaced functions. A test that depends on malloc (through
/// libpng, libjpeg, libtiff, fopen …) asks first and calls GTEST_SKIP.
bool canRefuseMalloc() noexcept;

/// Which requests are refused. The defaults refuse all of the present thread.
struct Refusal {
    std::size_t granted = 0; ///< This many requests pass first.
    std::size_t refused = SIZE_MAX; ///< Then this many are refused; what follows passes again.
    std::size_t minBytes = 0; ///< Smaller requests pass and are not counted.
    bool everyThread = false; ///< Also requests of other threads, such as those of a library's pool.
};

/// Refuses memory while it lives: `new` throws std::bad_alloc, `new (std::nothrow)` and malloc give null.
/// One at a time for each thread, and one at a time with `everyThread`.
class RefuseMemory {
public:
    explicit RefuseMemory(const Refusal& refusal = {}) noexcept;
    RefuseMemory(const RefuseMemory&) = delete;
    RefuseMemory& operator=(const RefuseMemory&) = delete;
    ~RefuseMemory();

    /// Requests counted so far, refused or not.
    std::size_t requests() const noexcept;
    std::size_t refusals() const noexcept;

private:
    bool m_everyThread;
};

/// Notes, in order, the first blocks that the present thread takes and releases through `operator new` and
/// `operator delete` while it lives. One at a time for each thread.
class MemoryLog {
public:
    static constexpr std::size_t capacity = 256;

    MemoryLog() noexcept;
    MemoryLog(const MemoryLog&) = delete;
    MemoryLog& operator=(const MemoryLog&) = delete;
    ~MemoryLog();

    /// Counts go on past `capacity`.
    std::size_t takenCount() const noexcept { return m_takenCount; }
    std::size_t releasedCount() const noexcept { return m_releasedCount; }
    /// The block of position `index` (below the count and `capacity`).
    const void* taken(std::size_t index) const noexcept { return m_taken[index]; }
    const void* released(std::size_t index) const noexcept { return m_released[index]; }

    /// For the replaced operators.
    void noteTaken(const void* block) noexcept { note(block, m_taken, m_takenCount); }
    void noteReleased(const void* block) noexcept { note(block, m_released, m_releasedCount); }

private:
    static void note(const void* block, const void** blocks, std::size_t& count) noexcept
    {
        if (count < capacity)
            blocks[count] = block;
        ++count;
    }

    const void *m_taken[capacity] = {}, *m_released[capacity] = {};
    std::size_t m_takenCount = 0, m_releasedCount = 0;
};

/// Runs `run()` again and again: first with its first request refused, then with its second alone, and so on
/// until a run meets no refusal. Hands each result to `check(result, position)` with memory back in supply;
/// the last run, which had all it wanted, gets `position` -1. Requests below `minBytes` always pass. Answers
/// how many runs met a refusal.
template <typename Run, typename Check> int refuseEachInTurn(Run run, Check check, std::size_t minBytes = 0)
{
    for (int position = 0;; ++position) {
        std::size_t refusals = 0;
        auto result = [&] {
            const RefuseMemory refuse(
                { .granted = static_cast<std::size_t>(position), .refused = 1, .minBytes = minBytes });
            auto outcome = run();
            refusals = refuse.refusals();
            return outcome;
        }();
        check(result, refusals != 0 ? position : -1);
        if (refusals == 0)
            return position;
    }
}

} // namespace testing_support
