// record_sanitizer_options.cpp - sanitizer defaults for the test binary.
//
// The kernel treats a null answer from the allocator as "not enough memory"
// and the tests drive it with absurd sizes (rows of 2^28 bytes, images of
// 2^59 bytes) to prove it fails cleanly. Under AddressSanitizer and
// ThreadSanitizer such a request aborts the process unless the allocator is
// told to return null, as the plain C library does.
extern "C" {
__attribute__((used, visibility("default"))) const char* __asan_default_options();
__attribute__((used, visibility("default"))) const char* __tsan_default_options();

const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
}
