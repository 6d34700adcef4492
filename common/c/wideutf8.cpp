// wideutf8.cpp - strict UTF-8 / UTF-16 / UTF-32 / wchar_t conversion.
#include "wideutf8.h"

#include <cstring>
#include <cwchar>

namespace krn::utf {

size_t decodeUtf8(const unsigned char* s, size_t n, char32_t* cp) noexcept {
    if (n == 0) return 0;
    unsigned char b0 = s[0];
    if (b0 < 0x80) {
        *cp = b0;
        return 1;
    }
    size_t len;
    char32_t c;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
        c = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        c = b0 & 0x0F;
        if (b0 == 0xE0) lo = 0xA0;       // overlong below U+0800
        else if (b0 == 0xED) hi = 0x9F;  // surrogates U+D800..U+DFFF
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        c = b0 & 0x07;
        if (b0 == 0xF0) lo = 0x90;       // overlong below U+10000
        else if (b0 == 0xF4) hi = 0x8F;  // above U+10FFFF
    } else {
        return 0;  // continuation byte, C0, C1, F5..FF
    }
    if (n < len) return 0;
    if (s[1] < lo || s[1] > hi) return 0;
    c = (c << 6) | (s[1] & 0x3F);
    for (size_t i = 2; i < len; ++i) {
        if ((s[i] & 0xC0) != 0x80) return 0;
        c = (c << 6) | (s[i] & 0x3F);
    }
    *cp = c;
    return len;
}

size_t decodeUtf16(const char16_t* s, size_t n, char32_t* cp) noexcept {
    if (n == 0) return 0;
    char32_t u = s[0];
    if (u < 0xD800 || u > 0xDFFF) {
        *cp = u;
        return 1;
    }
    if (u > 0xDBFF || n < 2) return 0;  // lone low surrogate, or high at the end
    char32_t v = s[1];
    if (v < 0xDC00 || v > 0xDFFF) return 0;
    *cp = 0x10000 + ((u - 0xD800) << 10) + (v - 0xDC00);
    return 2;
}

size_t encodeUtf8(char32_t cp, unsigned char out[4]) noexcept {
    if (cp < 0x80) {
        out[0] = static_cast<unsigned char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
        out[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
        out[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
    out[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 4;
}

size_t encodeUtf16(char32_t cp, char16_t out[2]) noexcept {
    if (cp < 0x10000) {
        out[0] = static_cast<char16_t>(cp);
        return 1;
    }
    cp -= 0x10000;
    out[0] = static_cast<char16_t>(0xD800 + (cp >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    return 2;
}

namespace {

// Source readers: decode one character; 0 units = malformed.
struct Utf8In {
    using unit = char;
    static size_t next(const char* s, size_t n, char32_t* cp) noexcept {
        return decodeUtf8(reinterpret_cast<const unsigned char*>(s), n, cp);
    }
};
struct Utf16In {
    using unit = char16_t;
    static size_t next(const char16_t* s, size_t n, char32_t* cp) noexcept { return decodeUtf16(s, n, cp); }
};
struct Utf32In {
    using unit = char32_t;
    static size_t next(const char32_t* s, size_t n, char32_t* cp) noexcept {
        if (n == 0 || !validScalar(s[0])) return 0;
        *cp = s[0];
        return 1;
    }
};
// Output writers.
struct Utf8Out {
    using unit = char;
    static size_t put(char32_t cp, char* out) noexcept {
        unsigned char b[4];
        size_t k = encodeUtf8(cp, b);
        std::memcpy(out, b, k);
        return k;
    }
};
struct Utf16Out {
    using unit = char16_t;
    static size_t put(char32_t cp, char16_t* out) noexcept { return encodeUtf16(cp, out); }
};
struct Utf32Out {
    using unit = char32_t;
    static size_t put(char32_t cp, char32_t* out) noexcept {
        out[0] = cp;
        return 1;
    }
};

template <class In, class Out>
UtfResult convert(const typename In::unit* src, size_t n, typename Out::unit* dst, size_t cap) noexcept {
    UtfResult r;
    const bool measuring = !dst;
    if (measuring) cap = 0;
    size_t i = 0;
    bool full = false;
    while (i < n) {
        char32_t cp;
        size_t used = In::next(src + i, n - i, &cp);
        if (used == 0) {
            r.status = kUtfMalformed;
            r.errorAt = i;
            return r;
        }
        typename Out::unit tmp[4];
        size_t k = Out::put(cp, tmp);
        if (!full && r.written + k <= cap) {
            for (size_t j = 0; j < k; ++j) dst[r.written + j] = tmp[j];
            r.written += k;
        } else {
            full = true;  // keep the prefix whole: nothing after the first miss
        }
        r.needed += k;
        i += used;
    }
    r.status = (full && !measuring) ? kUtfTooSmall : kUtfOk;
    return r;
}

}  // namespace

UtfResult utf8ToUtf16(const char* s, size_t n, char16_t* d, size_t cap) noexcept {
    return convert<Utf8In, Utf16Out>(s, n, d, cap);
}
UtfResult utf16ToUtf8(const char16_t* s, size_t n, char* d, size_t cap) noexcept {
    return convert<Utf16In, Utf8Out>(s, n, d, cap);
}
UtfResult utf8ToUtf32(const char* s, size_t n, char32_t* d, size_t cap) noexcept {
    return convert<Utf8In, Utf32Out>(s, n, d, cap);
}
UtfResult utf32ToUtf8(const char32_t* s, size_t n, char* d, size_t cap) noexcept {
    return convert<Utf32In, Utf8Out>(s, n, d, cap);
}
UtfResult utf16ToUtf32(const char16_t* s, size_t n, char32_t* d, size_t cap) noexcept {
    return convert<Utf16In, Utf32Out>(s, n, d, cap);
}
UtfResult utf32ToUtf16(const char32_t* s, size_t n, char16_t* d, size_t cap) noexcept {
    return convert<Utf32In, Utf16Out>(s, n, d, cap);
}

UtfResult utf8ToWide(const char* s, size_t n, wchar_t* d, size_t cap) noexcept {
    if constexpr (sizeof(wchar_t) == 4)
        return convert<Utf8In, Utf32Out>(s, n, reinterpret_cast<char32_t*>(d), cap);
    else
        return convert<Utf8In, Utf16Out>(s, n, reinterpret_cast<char16_t*>(d), cap);
}
UtfResult wideToUtf8(const wchar_t* s, size_t n, char* d, size_t cap) noexcept {
    if constexpr (sizeof(wchar_t) == 4)
        return convert<Utf32In, Utf8Out>(reinterpret_cast<const char32_t*>(s), n, d, cap);
    else
        return convert<Utf16In, Utf8Out>(reinterpret_cast<const char16_t*>(s), n, d, cap);
}

size_t wideLength(const wchar_t* s) noexcept { return std::wcslen(s); }

template <class T>
static bool growTo(kvector<T>& v, size_t n, bool* noMemory) noexcept {
    try {
        v.assign(n, T{});
        return true;
    } catch (...) {
        if (noMemory) *noMemory = true;
        return false;
    }
}

bool wideToUtf8(const wchar_t* src, kvector<char>& out, bool* noMemory) noexcept {
    if (noMemory) *noMemory = false;
    if (!src) return false;
    size_t n = std::wcslen(src);
    UtfResult m = wideToUtf8(src, n, nullptr, 0);
    if (m.status == kUtfMalformed) return false;
    if (!growTo(out, m.needed + 1, noMemory)) return false;
    wideToUtf8(src, n, out.data(), m.needed);
    out[m.needed] = '\0';
    return true;
}

bool utf8ToWide(const char* src, kvector<wchar_t>& out, bool* noMemory) noexcept {
    if (noMemory) *noMemory = false;
    if (!src) return false;
    size_t n = std::strlen(src);
    UtfResult m = utf8ToWide(src, n, nullptr, 0);
    if (m.status == kUtfMalformed) return false;
    if (!growTo(out, m.needed + 1, noMemory)) return false;
    utf8ToWide(src, n, out.data(), m.needed);
    out[m.needed] = L'\0';
    return true;
}

}  // namespace krn::utf
