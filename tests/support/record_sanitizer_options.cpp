// record_sanitizer_options.cpp - the tests ask for absurd sizes (rows of 2^28 bytes, images of 2^59) to prove a null
// answer fails cleanly; under ASan and TSan such a request aborts unless the allocator may return null.
#define EXPORTED extern "C" __attribute__((used, visibility("default")))
EXPORTED const char* __asan_default_options() { return "allocator_may_return_null=1"; }
EXPORTED const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
