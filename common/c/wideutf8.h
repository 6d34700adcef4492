// wideutf8.h - strict conversion between UTF-8, UTF-16, UTF-32 and wchar_t.
//
// The one place where the kernel turns names and texts from one encoding into
// another. Malformed input is refused, never repaired or guessed:
//   UTF-8:  overlong forms, encoded surrogates (U+D800..U+DFFF), code points
//           above U+10FFFF, stray continuation bytes, lead bytes C0, C1,
//           F5..FF and sequences cut short are errors;
//   UTF-16: an unpaired high or low surrogate is an error;
//   UTF-32 / wchar_t of 4 bytes: surrogate values and values above U+10FFFF
//           are errors.
// wchar_t is UTF-32 where it is 4 bytes wide (Linux) and UTF-16 where it is
// 2 bytes wide.
//
// Conversions take a source of n code units (no terminator needed; a zero
// unit is a character like any other) and write at most `cap` units into
// `dst` without a terminator. They return the number of units the whole
// output needs (whether or not it fitted) in *needed and a status:
//   kUtfOk        the whole source was converted and fitted
//   kUtfMalformed the source is malformed (*errorAt: index of the first bad unit)
//   kUtfTooSmall  well-formed, but the output did not fit (the first `cap`
//                 units hold a prefix that ends on a whole character)
// A null dst only measures: kUtfOk (or kUtfMalformed) with *needed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kalloc.h"

namespace krn::utf {

enum UtfStatus : int32_t { kUtfOk = 0, kUtfMalformed = 1, kUtfTooSmall = 2 };

struct UtfResult {
    UtfStatus status = kUtfOk;
    size_t needed = 0;   // output units for the whole source (valid unless malformed)
    size_t written = 0;  // units written into dst
    size_t errorAt = 0;  // with kUtfMalformed: index of the first bad source unit
};

// Decodes one character at s[0..n): returns the number of units used (>= 1)
// and the code point, or 0 for malformed or cut-short input (n == 0 included).
size_t decodeUtf8(const unsigned char* s, size_t n, char32_t* cp) noexcept;
size_t decodeUtf16(const char16_t* s, size_t n, char32_t* cp) noexcept;
// Encodes one valid code point; returns units written (1..4 / 1..2).
size_t encodeUtf8(char32_t cp, unsigned char out[4]) noexcept;
size_t encodeUtf16(char32_t cp, char16_t out[2]) noexcept;
constexpr bool validScalar(char32_t cp) noexcept {
    return cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
}

UtfResult utf8ToUtf16(const char* src, size_t n, char16_t* dst, size_t cap) noexcept;
UtfResult utf16ToUtf8(const char16_t* src, size_t n, char* dst, size_t cap) noexcept;
UtfResult utf8ToUtf32(const char* src, size_t n, char32_t* dst, size_t cap) noexcept;
UtfResult utf32ToUtf8(const char32_t* src, size_t n, char* dst, size_t cap) noexcept;
UtfResult utf16ToUtf32(const char16_t* src, size_t n, char32_t* dst, size_t cap) noexcept;
UtfResult utf32ToUtf16(const char32_t* src, size_t n, char16_t* dst, size_t cap) noexcept;
UtfResult utf8ToWide(const char* src, size_t n, wchar_t* dst, size_t cap) noexcept;
UtfResult wideToUtf8(const wchar_t* src, size_t n, char* dst, size_t cap) noexcept;

// Whole-string helpers for the file layer: convert a terminated string into
// a terminated kernel-allocated string. False for malformed input or when
// memory runs out (*noMemory tells which, when not null).
bool wideToUtf8(const wchar_t* src, kvector<char>& out, bool* noMemory = nullptr) noexcept;
bool utf8ToWide(const char* src, kvector<wchar_t>& out, bool* noMemory = nullptr) noexcept;

// Length of a terminated string, in code units.
size_t wideLength(const wchar_t* s) noexcept;

}  // namespace krn::utf
