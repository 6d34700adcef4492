// test_wideutf8.cpp - strict UTF-8 / UTF-16 / UTF-32 / wchar_t conversion:
// every scalar value round trips and matches a plain reference encoder;
// every 1-, 2- and 3-byte sequence is accepted exactly when the reference
// says it is canonical; overlongs, surrogates, truncation and out-of-range
// values are refused; short outputs keep whole characters.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ombrix.h"
#include "wideutf8.h"

namespace {

using namespace krn::utf;

// ---------------------------------------------------------------- reference
// Textbook encoder, written independently of the module.
std::string refUtf8(char32_t c) {
    if (c <= 0x7F) return std::string(1, char(c));
    const int n = c <= 0x7FF ? 2 : c <= 0xFFFF ? 3 : 4;  // bytes
    std::string s(size_t(n), '\0');
    for (int i = n - 1; i > 0; --i, c >>= 6) s[size_t(i)] = char(0x80 | (c & 0x3F));
    s[0] = char((0xF00 >> n) | c);  // lead: n ones, a zero, the high bits
    return s;
}
bool refScalar(uint32_t c) { return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF); }

// Reference validity of a byte sequence as one character: decode loosely
// (any lead pattern, any continuation), then require that re-encoding the
// value gives the same bytes and the value is a scalar.
bool refValidOne(const unsigned char* b, size_t n) {
    if (n == 0) return false;
    size_t len;
    uint32_t c;
    if (b[0] < 0x80) { len = 1; c = b[0]; }
    else if ((b[0] & 0xE0) == 0xC0) { len = 2; c = b[0] & 0x1F; }
    else if ((b[0] & 0xF0) == 0xE0) { len = 3; c = b[0] & 0x0F; }
    else if ((b[0] & 0xF8) == 0xF0) { len = 4; c = b[0] & 0x07; }
    else return false;
    if (len != n) return false;
    for (size_t i = 1; i < n; ++i) {
        if ((b[i] & 0xC0) != 0x80) return false;
        c = (c << 6) | (b[i] & 0x3F);
    }
    if (!refScalar(c)) return false;
    std::string again = refUtf8(c);
    return again.size() == n && std::memcmp(again.data(), b, n) == 0;
}

// ---------------------------------------------------------------- tests
TEST(WideUtf8Scalars, EveryScalarRoundTripsAndMatchesReference) {
    std::u32string all;
    std::string ref8;
    for (uint32_t c = 0; c <= 0x10FFFF; ++c) {
        if (!refScalar(c)) continue;
        all += char32_t(c);
        ref8 += refUtf8(c);
    }
    UtfResult m = utf32ToUtf8(all.data(), all.size(), nullptr, 0);
    ASSERT_EQ(m.status, kUtfOk);
    ASSERT_EQ(m.needed, ref8.size());
    std::string out(m.needed, '\0');
    ASSERT_EQ(utf32ToUtf8(all.data(), all.size(), out.data(), out.size()).status, kUtfOk);
    EXPECT_TRUE(out == ref8);

    std::u32string back(all.size(), U'\0');
    UtfResult r = utf8ToUtf32(out.data(), out.size(), back.data(), back.size());
    ASSERT_EQ(r.status, kUtfOk);
    EXPECT_TRUE(back == all);

    // Through UTF-16 both ways; the length follows from the pair rule.
    size_t supp = 0;
    for (char32_t c : all) supp += c > 0xFFFF;
    std::u16string u16(all.size() + supp, u'\0');
    r = utf8ToUtf16(out.data(), out.size(), u16.data(), u16.size());
    ASSERT_EQ(r.status, kUtfOk);
    ASSERT_EQ(r.written, all.size() + supp);
    std::string out2(out.size(), '\0');
    ASSERT_EQ(utf16ToUtf8(u16.data(), u16.size(), out2.data(), out2.size()).status, kUtfOk);
    EXPECT_TRUE(out2 == out);
    std::u32string back2(all.size(), U'\0');
    ASSERT_EQ(utf16ToUtf32(u16.data(), u16.size(), back2.data(), back2.size()).status, kUtfOk);
    EXPECT_TRUE(back2 == all);
    std::u16string u16b(u16.size(), u'\0');
    ASSERT_EQ(utf32ToUtf16(all.data(), all.size(), u16b.data(), u16b.size()).status, kUtfOk);
    EXPECT_TRUE(u16b == u16);

    // wchar_t, whatever its width.
    std::wstring w(all.size() + supp, L'\0');
    r = utf8ToWide(out.data(), out.size(), w.data(), w.size());
    ASSERT_EQ(r.status, kUtfOk);
    std::string out3(out.size(), '\0');
    ASSERT_EQ(wideToUtf8(w.data(), r.written, out3.data(), out3.size()).status, kUtfOk);
    EXPECT_TRUE(out3 == out);
}

TEST(WideUtf8Sequences, EveryShortSequenceAgreesWithReference) {
    unsigned char b[3];
    long accepted = 0;
    for (uint32_t v = 0; v < 0x100; ++v) {
        b[0] = uint8_t(v);
        char32_t cp;
        ASSERT_EQ(decodeUtf8(b, 1, &cp) == 1, refValidOne(b, 1)) << v;
    }
    for (uint32_t v = 0; v < 0x10000; ++v) {
        b[0] = uint8_t(v >> 8);
        b[1] = uint8_t(v);
        char32_t cp;
        bool ok = decodeUtf8(b, 2, &cp) == 2;
        ASSERT_EQ(ok, refValidOne(b, 2)) << std::hex << v;
    }
    for (uint32_t v = 0; v < 0x1000000; ++v) {
        b[0] = uint8_t(v >> 16);
        if (b[0] < 0xE0 || b[0] > 0xEF) continue;  // only 3-byte leads form 3-byte characters
        b[1] = uint8_t(v >> 8);
        b[2] = uint8_t(v);
        char32_t cp;
        bool ok = decodeUtf8(b, 3, &cp) == 3;
        accepted += ok;
        ASSERT_EQ(ok, refValidOne(b, 3)) << std::hex << v;
    }
    // 0x800..0xFFFF minus the 2048 surrogates.
    EXPECT_EQ(accepted, 0x10000 - 0x800 - 0x800);
}

struct Bad {
    std::string bytes;
    size_t errorAt;
    const char* what;
};

TEST(WideUtf8Malformed, RefusedWithPosition) {
    const Bad cases[] = {
        {"\xC0\x80", 0, "overlong NUL"},
        {"a\xC1\xBF", 1, "overlong 2-byte"},
        {"ab\xE0\x80\x80", 2, "overlong 3-byte"},
        {"\xE0\x9F\xBF", 0, "overlong just below U+0800"},
        {"\xF0\x80\x80\x80", 0, "overlong 4-byte"},
        {"\xF0\x8F\xBF\xBF", 0, "overlong just below U+10000"},
        {"\xED\xA0\x80", 0, "high surrogate"},
        {"x\xED\xBF\xBF", 1, "low surrogate"},
        {"\xED\xA0\xBD\xED\xB8\x80", 0, "surrogate pair encoded as CESU"},
        {"\xF4\x90\x80\x80", 0, "above U+10FFFF"},
        {"\xF5\x80\x80\x80", 0, "lead F5"},
        {"\xFE", 0, "FE"},
        {"\xFF", 0, "FF"},
        {"\x80", 0, "stray continuation"},
        {"abc\xBF", 3, "stray continuation late"},
        {"\xE2\x82", 0, "cut short 3-byte"},
        {"ok\xF0\x9F\x98", 2, "cut short 4-byte"},
        {"\xC3", 0, "cut short 2-byte"},
        {"\xE2\x28\xA1", 0, "bad continuation"},
        {"\xF8\x88\x80\x80\x80", 0, "5-byte form"},
    };
    for (const Bad& c : cases) {
        UtfResult r = utf8ToUtf16(c.bytes.data(), c.bytes.size(), nullptr, 0);
        EXPECT_EQ(r.status, kUtfMalformed) << c.what;
        EXPECT_EQ(r.errorAt, c.errorAt) << c.what;
        wchar_t w[16];
        EXPECT_EQ(utf8ToWide(c.bytes.data(), c.bytes.size(), w, 16).status, kUtfMalformed) << c.what;
        uint32_t n = 99;
        EXPECT_EQ(K_Utf8ToWide(c.bytes.data(), int32_t(c.bytes.size()), w, 16, &n), KS_INVALID_PARAMETER)
            << c.what;
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(w[0], L'\0');
    }
    // Edges that are valid.
    const std::string good[] = {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                                "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"};
    for (const auto& g : good) EXPECT_EQ(utf8ToUtf32(g.data(), g.size(), nullptr, 0).status, kUtfOk);
    // UTF-16 and UTF-32 refusals: lone and reversed surrogates, values past U+10FFFF.
    const std::u16string bad16[] = {u"\xD800", u"a\xDC00", std::u16string(u"\xD800") + u"b",
                                    std::u16string(u"\xDBFF\xDBFF\xDC00")};
    for (const auto& s : bad16) EXPECT_EQ(utf16ToUtf8(s.data(), s.size(), nullptr, 0).status, kUtfMalformed);
    const std::u16string pair = u"\xD83D\xDE00";  // U+1F600
    char out[8];
    UtfResult r = utf16ToUtf8(pair.data(), pair.size(), out, sizeof out);
    ASSERT_EQ(r.status, kUtfOk);
    EXPECT_EQ(std::string(out, r.written), "\xF0\x9F\x98\x80");
    const char32_t bad32[] = {0xD800, 0xDFFF, 0x110000, 0xFFFFFFFF};
    for (char32_t c : bad32) EXPECT_EQ(utf32ToUtf8(&c, 1, nullptr, 0).status, kUtfMalformed);
    if (sizeof(wchar_t) == 4) {
        wchar_t w[2] = {wchar_t(0xD800), 0};
        char o[8];
        EXPECT_EQ(K_WideToUtf8(w, -1, o, 8, nullptr), KS_INVALID_PARAMETER);
    }
    uint16_t lone[2] = {0xDC00, 0};
    char o[8];
    EXPECT_EQ(K_Utf16ToUtf8(lone, -1, o, 8, nullptr), KS_INVALID_PARAMETER);
}

TEST(WideUtf8Output, TooSmallKeepsWholeCharactersAndMeasures) {
    const std::string s = "a\xC3\xA9\xE6\xBC\xA2\xF0\x9F\x98\x80z";  // a é 漢 😀 z
    uint16_t u[8];
    uint32_t n = 0;
    // Measure.
    ASSERT_EQ(K_Utf8ToUtf16(s.c_str(), -1, nullptr, 0, &n), KS_SUCCESS);
    EXPECT_EQ(n, 6u);  // a, é, 漢, two for 😀, z
    // Room for 4 units + terminator: a é 漢 fit, the pair does not split.
    ASSERT_EQ(K_Utf8ToUtf16(s.c_str(), -1, u, 5, &n), KS_BUFFER_TOO_SMALL);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(u[3], 0);
    ASSERT_EQ(K_Utf8ToUtf16(s.c_str(), -1, u, 7, &n), KS_SUCCESS);
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(u[3], 0xD83D);
    EXPECT_EQ(u[4], 0xDE00);
    char back[32];
    ASSERT_EQ(K_Utf16ToUtf8(u, int32_t(n), back, sizeof back, &n), KS_SUCCESS);
    EXPECT_EQ(std::string(back), s);
    // UTF-8 output too small in the middle of a 4-byte character.
    ASSERT_EQ(K_Utf16ToUtf8(u, 6, back, 9, &n), KS_BUFFER_TOO_SMALL);
    EXPECT_EQ(n, 6u);  // a(1) é(2) 漢(3); the 4 bytes of 😀 do not fit in 8
    EXPECT_EQ(back[6], '\0');
    // An explicit length may include zero units.
    const char withNul[] = {'a', '\0', 'b'};
    wchar_t w[4];
    ASSERT_EQ(K_Utf8ToWide(withNul, 3, w, 4, &n), KS_SUCCESS);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(w[1], L'\0');
    EXPECT_EQ(w[2], L'b');
    // Argument checks.
    EXPECT_EQ(K_Utf8ToWide(nullptr, -1, w, 4, &n), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Utf8ToWide("x", -2, w, 4, &n), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Utf8ToWide("x", -1, nullptr, 4, &n), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_Utf8ToWide("x", -1, w, 1, &n), KS_BUFFER_TOO_SMALL);
    EXPECT_EQ(w[0], L'\0');
}

TEST(WideUtf8Strings, WholeStringHelpers) {
    krn::kvector<char> u;
    ASSERT_TRUE(wideToUtf8(L"caf\u00E9/\u6F22", u));
    EXPECT_STREQ(u.data(), "caf\xC3\xA9/\xE6\xBC\xA2");
    krn::kvector<wchar_t> w;
    ASSERT_TRUE(utf8ToWide(u.data(), w));
    EXPECT_EQ(std::wstring(w.data()), L"caf\u00E9/\u6F22");
    EXPECT_FALSE(utf8ToWide("\xC0\x80", w));
    bool noMem = true;
    EXPECT_FALSE(utf8ToWide(nullptr, w, &noMem));
    EXPECT_FALSE(noMem);
}

}  // namespace
