#pragma once

/// Marks what a shared build of rastkit exports; everything else stays hidden.
#if defined(RASTKIT_STATIC)
#define RASTKIT_API
#elif defined(__GNUC__)
#define RASTKIT_API [[gnu::visibility("default")]]
#else
#define RASTKIT_API
#endif

/// The version of the binary interface of the classes that callers hold by value or derive from. It is
/// part of their linker names, so that a program built against another version fails to link instead of
/// failing to run.
#define RASTKIT_ABI abi1
