// record_sanitizer_options.cpp - the tests drive the kernel with absurd sizes (rows of 2^28 bytes, images of
// 2^59 bytes) to prove a null answer from the allocator fails cleanly; under AddressSanitizer and
// ThreadSanitizer such a request aborts unless the allocator is told to return null, as the C library does.
extern "C" {
__attribute__((used, visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
__attribute__((used, visibility("default"))) const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}
}
