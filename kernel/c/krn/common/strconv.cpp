// strconv.cpp - exported string conversion (UTF-8, UTF-16, wchar_t) on top
// of the one conversion module.
#include <cstring>
#include <cwchar>

#include "kernel.h"
#include "wideutf8.h"

namespace {

template <class S>
size_t unitLength(const S* s) noexcept {
    size_t n = 0;
    while (s[n]) ++n;
    return n;
}

// Runs a conversion with the exported conventions: -1 length means up to
// the terminator; the output is always terminated; null output with
// capacity 0 measures.
template <class S, class D, class Fn>
int32_t run(const S* src, int32_t srcLen, D* dst, uint32_t cap, uint32_t* written, Fn fn) noexcept {
    if (written) *written = 0;
    if (!src || srcLen < -1) return KS_INVALID_PARAMETER;
    if (!dst && cap) return KS_INVALID_PARAMETER;
    size_t n = srcLen == -1 ? unitLength(src) : size_t(srcLen);
    if (!dst) {
        krn::utf::UtfResult m = fn(src, n, nullptr, 0);
        if (m.status == krn::utf::kUtfMalformed) return KS_INVALID_PARAMETER;
        if (written) *written = uint32_t(m.needed);
        return KS_SUCCESS;
    }
    krn::utf::UtfResult r = fn(src, n, dst, cap - 1);
    if (r.status == krn::utf::kUtfMalformed) {
        dst[0] = D(0);
        return KS_INVALID_PARAMETER;
    }
    dst[r.written] = D(0);
    if (written) *written = uint32_t(r.written);
    return r.status == krn::utf::kUtfOk ? KS_SUCCESS : KS_BUFFER_TOO_SMALL;
}

}  // namespace

KAPI int32_t K_Utf8ToWide(const char* src, int32_t n, wchar_t* dst, uint32_t cap, uint32_t* written) {
    return run(src, n, dst, cap, written, [](const char* s, size_t k, wchar_t* d, size_t c) {
        return krn::utf::utf8ToWide(s, k, d, c);
    });
}

KAPI int32_t K_WideToUtf8(const wchar_t* src, int32_t n, char* dst, uint32_t cap, uint32_t* written) {
    return run(src, n, dst, cap, written, [](const wchar_t* s, size_t k, char* d, size_t c) {
        return krn::utf::wideToUtf8(s, k, d, c);
    });
}

KAPI int32_t K_Utf8ToUtf16(const char* src, int32_t n, uint16_t* dst, uint32_t cap, uint32_t* written) {
    return run(src, n, dst, cap, written, [](const char* s, size_t k, uint16_t* d, size_t c) {
        return krn::utf::utf8ToUtf16(s, k, reinterpret_cast<char16_t*>(d), c);
    });
}

KAPI int32_t K_Utf16ToUtf8(const uint16_t* src, int32_t n, char* dst, uint32_t cap, uint32_t* written) {
    return run(src, n, dst, cap, written, [](const uint16_t* s, size_t k, char* d, size_t c) {
        return krn::utf::utf16ToUtf8(reinterpret_cast<const char16_t*>(s), k, d, c);
    });
}
