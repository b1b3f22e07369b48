// What the sanitizers ask the test executables for when they start; nothing without them. Tests ask for
// absurd sizes on purpose, and such a request is to be a null pointer, as it is without a sanitizer.
extern "C" {
[[gnu::used, gnu::visibility("default")]] const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

[[gnu::used, gnu::visibility("default")]] const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}
}
