#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RASTKIT_TESTS_FIND_LEAKS
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define RASTKIT_TESTS_FIND_LEAKS
#endif

#ifdef RASTKIT_TESTS_FIND_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

namespace testing_support {

/// Whether the test fails for memory that nobody gives back.
#ifdef RASTKIT_TESTS_FIND_LEAKS
inline constexpr bool findsLeaks = true;
#else
inline constexpr bool findsLeaks = false;
#endif

/// What the present thread takes while it lives may leak: for libraries that do, under circumstances that a
/// test makes on purpose.
class IgnoreLeaks {
public:
    IgnoreLeaks()
    {
#ifdef RASTKIT_TESTS_FIND_LEAKS
        __lsan_disable();
#endif
    }
    IgnoreLeaks(const IgnoreLeaks&) = delete;
    IgnoreLeaks& operator=(const IgnoreLeaks&) = delete;
    ~IgnoreLeaks()
    {
#ifdef RASTKIT_TESTS_FIND_LEAKS
        __lsan_enable();
#endif
    }
};

} // namespace testing_support
