// test_wideutf8.cpp - strict UTF-8 / UTF-16 / UTF-32 / wchar_t conversion against a plain reference encoder;
// every short sequence accepted exactly when canonical; malformed input refused; short outputs keep characters.
#include <gtest/gtest.h>

#include <bit>

#include "check_list.h"
#include "ombrix.h"
#include "wideutf8.h"

namespace {

using namespace krn::utf;
using checklist::expectAll;

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

// Reference validity: decode loosely, then require a scalar whose re-encoding gives the same bytes.
bool refValidOne(const unsigned char* b, size_t n) {
    const int ones = n ? std::countl_one(b[0]) : -1;  // the lead's leading 1 bits give the length
    const size_t len = ones == 0 ? 1 : ones >= 2 && ones <= 4 ? size_t(ones) : 0;
    if (len == 0 || len != n) return false;
    uint32_t c = b[0] & (0xFF >> (len + (len > 1)));  // the lead's payload bits
    for (size_t i = 1; i < n; ++i) {
        if ((b[i] & 0xC0) != 0x80) return false;
        c = (c << 6) | (b[i] & 0x3F);
    }
    return refScalar(c) && refUtf8(c) == std::string(reinterpret_cast<const char*>(b), n);
}

// Every scalar value, all at once, through every pair of encodings.
TEST(WideUtf8Scalars, EveryScalarAndEveryShortSequenceAgreeWithReference) {
    std::u32string all;
    std::string ref8;
    size_t supp = 0;  // the UTF-16 length follows from the pair rule
    for (uint32_t c = 0; c <= 0x10FFFF; ++c)
        if (refScalar(c)) all += char32_t(c), ref8 += refUtf8(c), supp += c > 0xFFFF;
    UtfResult m = utf32ToUtf8(all.data(), all.size(), nullptr, 0);
    ASSERT_TRUE(m.status == kUtfOk && m.needed == ref8.size());
    std::string out(m.needed, '\0'), out2(out), out3(out);
    std::u32string back(all.size(), U'\0'), back2(back);
    std::u16string u16(all.size() + supp, u'\0'), u16b(u16);
    std::wstring w(all.size() + supp, L'\0');
    const UtfResult r16 = utf8ToUtf16(ref8.data(), ref8.size(), u16.data(), u16.size());
    const UtfResult rw = utf8ToWide(ref8.data(), ref8.size(), w.data(), w.size());
    const UtfResult results[] = {
        utf32ToUtf8(all.data(), all.size(), out.data(), out.size()),
        utf8ToUtf32(ref8.data(), ref8.size(), back.data(), back.size()), r16,
        utf16ToUtf8(u16.data(), u16.size(), out2.data(), out2.size()),
        utf16ToUtf32(u16.data(), u16.size(), back2.data(), back2.size()),
        utf32ToUtf16(all.data(), all.size(), u16b.data(), u16b.size()), rw,
        wideToUtf8(w.data(), rw.written, out3.data(), out3.size()),  // wchar_t, whatever its width
    };
    for (const UtfResult& r : results) EXPECT_EQ(r.status, kUtfOk);
    EXPECT_TRUE(r16.written == all.size() + supp && out == ref8 && out2 == ref8 && out3 == ref8 && back == all &&
                back2 == all && u16b == u16);
    // Every 1- and 2-byte sequence and every 3-byte one with a 3-byte lead.
    long accepted = 0;
    for (uint32_t len = 1; len <= 3; ++len)
        for (uint32_t v = 0; v < (1u << (8 * len)); ++v) {
            unsigned char b[3];
            for (uint32_t i = 0; i < len; ++i) b[i] = uint8_t(v >> (8 * (len - 1 - i)));
            if (len == 3 && (b[0] < 0xE0 || b[0] > 0xEF)) continue;
            char32_t cp;
            const bool ok = decodeUtf8(b, len, &cp) == len;
            accepted += len == 3 && ok;
            ASSERT_EQ(ok, refValidOne(b, len)) << std::hex << v << " of length " << len;
        }
    EXPECT_EQ(accepted, 0x10000 - 0x800 - 0x800);  // 0x800..0xFFFF minus the 2048 surrogates
}

// Malformed input (beyond the single short sequences swept above) is refused with the position of the first bad
// byte; the exported form writes nothing but the terminator. Valid input: the scalar round trip.
TEST(WideUtf8Malformed, RefusedWithPositionTooSmallOutputsKeepWholeCharacters) {
    const struct { std::string bytes; size_t errorAt; const char* what; } cases[] = {
        {"a\xC1\xBF", 1, "overlong 2-byte"}, {"ab\xE0\x80\x80", 2, "overlong 3-byte"},
        {"\xF0\x80\x80\x80", 0, "overlong 4-byte"}, {"\xF0\x8F\xBF\xBF", 0, "overlong just below U+10000"},
        {"x\xED\xBF\xBF", 1, "low surrogate"}, {"\xED\xA0\xBD\xED\xB8\x80", 0, "CESU pair"},
        {"\xF4\x90\x80\x80", 0, "above U+10FFFF"}, {"\xF5\x80\x80\x80", 0, "lead F5"},
        {"abc\xBF", 3, "stray continuation late"}, {"ok\xF0\x9F\x98", 2, "cut short 4-byte"},
        {"\xF8\x88\x80\x80\x80", 0, "5-byte form"}};
    for (const auto& c : cases) {
        const UtfResult r = utf8ToUtf16(c.bytes.data(), c.bytes.size(), nullptr, 0);
        wchar_t w[16];
        uint32_t n = 99;
        const bool wide = utf8ToWide(c.bytes.data(), c.bytes.size(), w, 16).status == kUtfMalformed;
        EXPECT_TRUE(r.status == kUtfMalformed && r.errorAt == c.errorAt && wide &&
                    K_Utf8ToWide(c.bytes.data(), int32_t(c.bytes.size()), w, 16, &n) == KS_INVALID_PARAMETER &&
                    n == 0u && w[0] == L'\0')
            << c.what << " at " << r.errorAt;
    }
    // UTF-16 and UTF-32 refusals: lone and reversed surrogates, values past U+10FFFF.
    for (const std::u16string& s : {std::u16string(u"\xD800"), std::u16string(u"a\xDC00"),
                                    std::u16string(u"\xD800") + u"b", std::u16string(u"\xDBFF\xDBFF\xDC00")})
        EXPECT_EQ(utf16ToUtf8(s.data(), s.size(), nullptr, 0).status, kUtfMalformed);
    for (char32_t c : {char32_t(0xD800), char32_t(0xDFFF), char32_t(0x110000), char32_t(0xFFFFFFFF)})
        EXPECT_EQ(utf32ToUtf8(&c, 1, nullptr, 0).status, kUtfMalformed);
    const uint16_t lone[2] = {0xDC00, 0};
    const wchar_t wlone[2] = {wchar_t(0xD800), 0};
    char o[8];
    EXPECT_TRUE(K_Utf16ToUtf8(lone, -1, o, 8, nullptr) == KS_INVALID_PARAMETER &&
                (sizeof(wchar_t) != 4 || K_WideToUtf8(wlone, -1, o, 8, nullptr) == KS_INVALID_PARAMETER));
    // Measuring, outputs too small mid-character (whole characters kept, terminated), embedded zeros, arguments.
    const std::string s = "a\xC3\xA9\xE6\xBC\xA2\xF0\x9F\x98\x80z";  // a é 漢 😀 z
    uint16_t u[8];
    uint32_t n = 0;
    char back[32];
    expectAll({IS(K_Utf8ToUtf16(s.c_str(), -1, nullptr, 0, &n), KS_SUCCESS), IS(n, 6) /* a, é, 漢, two for 😀, z */,
               IS(K_Utf8ToUtf16(s.c_str(), -1, u, 5, &n), KS_BUFFER_TOO_SMALL) /* the pair does not split */, IS(n, 3),
               IS(u[3], 0), IS(K_Utf8ToUtf16(s.c_str(), -1, u, 7, &n), KS_SUCCESS), IS(n, 6), IS(u[3], 0xD83D),
               IS(u[4], 0xDE00), IS(K_Utf16ToUtf8(u, int32_t(n), back, sizeof back, &n), KS_SUCCESS),
               IS(std::string(back) == s, 1), IS(K_Utf16ToUtf8(u, 6, back, 9, &n), KS_BUFFER_TOO_SMALL),
               IS(n, 6) /* a(1) é(2) 漢(3); 😀 does not fit */, IS(back[6], '\0')});
    const std::u16string pair = u"\xD83D\xDE00";  // U+1F600
    const UtfResult r = utf16ToUtf8(pair.data(), pair.size(), back, sizeof back);
    const char withNul[] = {'a', '\0', 'b'};
    wchar_t w[4];
    krn::kvector<char> k8;
    krn::kvector<wchar_t> kw;
    bool noMem = true;
    expectAll({IS(r.status == kUtfOk && std::string(back, r.written) == "\xF0\x9F\x98\x80", 1),
               IS(K_Utf8ToWide(withNul, 3, w, 4, &n), KS_SUCCESS), IS(n, 3), IS(w[1], L'\0'), IS(w[2], L'b'),
               IS(K_Utf8ToWide(nullptr, -1, w, 4, &n), KS_INVALID_PARAMETER),
               IS(K_Utf8ToWide("x", -2, w, 4, &n), KS_INVALID_PARAMETER),
               IS(K_Utf8ToWide("x", -1, nullptr, 4, &n), KS_INVALID_PARAMETER),
               IS(K_Utf8ToWide("x", -1, w, 1, &n), KS_BUFFER_TOO_SMALL), IS(w[0], L'\0'),
               IS(wideToUtf8(L"caf\u00E9/\u6F22", k8), 1), IS(std::string(k8.data()) == "caf\xC3\xA9/\xE6\xBC\xA2", 1),
               IS(utf8ToWide(k8.data(), kw), 1), IS(std::wstring(kw.data()) == L"caf\u00E9/\u6F22", 1),
               IS(utf8ToWide("\xC0\x80", kw), 0), IS(utf8ToWide(nullptr, kw, &noMem), 0), IS(noMem, 0)});
}

}  // namespace
