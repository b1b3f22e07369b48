#include "support/refuse_memory.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

// Clang announces its sanitizers by feature tests, GCC by macros.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define MALLOC_BELONGS_TO_SANITIZER
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MALLOC_BELONGS_TO_SANITIZER
#endif

#if defined(__GLIBC__) && !defined(MALLOC_BELONGS_TO_SANITIZER)
#define REPLACE_MALLOC
#endif

namespace testing_support {

namespace {

/// The refusal in force and its counters; atomic for the one that all threads share.
struct Plan {
    std::atomic<bool> active { false };
    std::atomic<std::size_t> requests { 0 }, refusals { 0 };
    std::size_t granted = 0, refused = 0, minBytes = 0;

    void start(const Refusal& refusal) noexcept
    {
        granted = refusal.granted;
        refused = refusal.refused;
        minBytes = refusal.minBytes;
        requests = 0;
        refusals = 0;
        active = true;
    }
    bool refuses(std::size_t bytes) noexcept
    {
        if (!active || bytes < minBytes)
            return false;
        const std::size_t earlier = requests++;
        const bool refuse = earlier >= granted && earlier - granted < refused;
        if (refuse)
            ++refusals;
        return refuse;
    }
};

constinit thread_local Plan ownPlan;
constinit Plan sharedPlan;
constinit thread_local MemoryLog* currentLog = nullptr;

Plan& planOf(bool everyThread) noexcept
{
    return everyThread ? sharedPlan : ownPlan;
}

bool isRefused(std::size_t bytes) noexcept
{
    return ownPlan.refuses(bytes) || sharedPlan.refuses(bytes);
}

} // namespace

bool canRefuseMalloc() noexcept
{
#if defined(REPLACE_MALLOC)
    return true;
#else
    return false;
#endif
}

RefuseMemory::RefuseMemory(const Refusal& refusal) noexcept : m_everyThread(refusal.everyThread)
{
    planOf(m_everyThread).start(refusal);
}

RefuseMemory::~RefuseMemory()
{
    planOf(m_everyThread).active = false;
}

std::size_t RefuseMemory::requests() const noexcept
{
    return planOf(m_everyThread).requests;
}

std::size_t RefuseMemory::refusals() const noexcept
{
    return planOf(m_everyThread).refusals;
}

MemoryLog::MemoryLog() noexcept
{
    currentLog = this;
}

MemoryLog::~MemoryLog()
{
    currentLog = nullptr;
}

} // namespace testing_support

using testing_support::currentLog;
using testing_support::isRefused;

#if defined(REPLACE_MALLOC)

// glibc's own functions under the names that stay reachable when the usual ones are replaced. `free` stays
// as it is: all memory still comes from glibc.
extern "C" {
void* __libc_malloc(std::size_t bytes) noexcept;
void* __libc_calloc(std::size_t count, std::size_t bytes) noexcept;
void* __libc_realloc(void* block, std::size_t bytes) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t bytes) noexcept;
}

static bool isRefusedWithErrno(std::size_t bytes) noexcept
{
    if (!isRefused(bytes))
        return false;
    errno = ENOMEM;
    return true;
}

// Visible, so that the C library and the codec libraries come here too.
#pragma GCC visibility push(default)
extern "C" {
void* malloc(std::size_t bytes) noexcept
{
    return isRefusedWithErrno(bytes) ? nullptr : __libc_malloc(bytes);
}
void* calloc(std::size_t count, std::size_t bytes) noexcept
{
    std::size_t total = 0;
    if (__builtin_mul_overflow(count, bytes, &total))
        total = SIZE_MAX;
    return isRefusedWithErrno(total) ? nullptr : __libc_calloc(count, bytes);
}
void* realloc(void* block, std::size_t bytes) noexcept
{
    // A request for no bytes releases the block, which is never refused.
    return bytes != 0 && isRefusedWithErrno(bytes) ? nullptr : __libc_realloc(block, bytes);
}
void* memalign(std::size_t alignment, std::size_t bytes) noexcept
{
    return isRefusedWithErrno(bytes) ? nullptr : __libc_memalign(alignment, bytes);
}
void* aligned_alloc(std::size_t alignment, std::size_t bytes) noexcept
{
    return isRefusedWithErrno(bytes) ? nullptr : __libc_memalign(alignment, bytes);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t bytes) noexcept
{
    void* const taken = isRefused(bytes) ? nullptr : __libc_memalign(alignment, bytes);
    if (!taken)
        return ENOMEM;
    *block = taken;
    return 0;
}
}
#pragma GCC visibility pop

// The operators go past the replaced functions, so that no request is counted twice.
static void* takeBlock(std::size_t bytes) noexcept
{
    return __libc_malloc(bytes);
}
static void* takeAligned(std::size_t alignment, std::size_t bytes) noexcept
{
    return __libc_memalign(alignment, bytes);
}

#else

static void* takeBlock(std::size_t bytes) noexcept
{
    return std::malloc(bytes);
}
static void* takeAligned(std::size_t alignment, std::size_t bytes) noexcept
{
    void* block = nullptr;
    return posix_memalign(&block, alignment, bytes) == 0 ? block : nullptr;
}

#endif

static void* noted(void* block) noexcept
{
    if (block && currentLog)
        currentLog->noteTaken(block);
    return block;
}

static void* takeOrNull(std::size_t bytes) noexcept
{
    return isRefused(bytes) ? nullptr : noted(takeBlock(bytes != 0 ? bytes : 1));
}

static void* takeOrNull(std::size_t bytes, std::align_val_t alignment) noexcept
{
    return isRefused(bytes) ? nullptr
                            : noted(takeAligned(static_cast<std::size_t>(alignment), bytes != 0 ? bytes : 1));
}

template <typename... Alignment> static void* takeOrThrow(std::size_t bytes, Alignment... alignment)
{
    void* const block = takeOrNull(bytes, alignment...);
    if (!block)
        throw std::bad_alloc();
    return block;
}

static void releaseBlock(void* block) noexcept
{
    if (block && currentLog)
        currentLog->noteReleased(block);
    std::free(block);
}

// Every form is replaced: a sanitizer brings its own for those that are missing, and they must not be mixed.
// clang-format off
void* operator new(std::size_t bytes) { return takeOrThrow(bytes); }
void* operator new[](std::size_t bytes) { return takeOrThrow(bytes); }
void* operator new(std::size_t bytes, std::align_val_t alignment) { return takeOrThrow(bytes, alignment); }
void* operator new[](std::size_t bytes, std::align_val_t alignment) { return takeOrThrow(bytes, alignment); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return takeOrNull(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return takeOrNull(bytes); }
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept { return takeOrNull(bytes, alignment); }
void* operator new[](std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept { return takeOrNull(bytes, alignment); }

void operator delete(void* block) noexcept { releaseBlock(block); }
void operator delete[](void* block) noexcept { releaseBlock(block); }
void operator delete(void* block, std::size_t) noexcept { releaseBlock(block); }
void operator delete[](void* block, std::size_t) noexcept { releaseBlock(block); }
void operator delete(void* block, std::align_val_t) noexcept { releaseBlock(block); }
void operator delete[](void* block, std::align_val_t) noexcept { releaseBlock(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { releaseBlock(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { releaseBlock(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { releaseBlock(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { releaseBlock(block); }
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept { releaseBlock(block); }
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept { releaseBlock(block); }
// clang-format on
