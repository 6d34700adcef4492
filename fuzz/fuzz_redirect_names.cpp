// fuzz_redirect_names.cpp - untrusted names and texts; byte 0 selects what the rest is:
//   0: UTF-8 text, converted to UTF-16, UTF-32 and wchar_t: accepted text comes back byte for byte, refused
//      text names a position inside it;  1: UTF-16 text (little-endian pairs), the other direction;
//   2: a name after "ORVARedirect://" (bytes as wide characters): never decodes unless made here, opens safely;
//   3: edits (position, character) to a name made here: a name that still decodes carries the same table.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "ombrix.h"
#include "wideutf8.h"

namespace {

int g_opens = 0;
void* fzOpen(const wchar_t*, uint32_t, uint32_t, void*) { return ++g_opens, OMBRIX_INVALID_FILE; }  // (counts only)

void utf8Case(const uint8_t* d, size_t n) {
    using namespace krn::utf;
    const char* s = reinterpret_cast<const char*>(d);
    const UtfResult m16 = utf8ToUtf16(s, n, nullptr, 0), m32 = utf8ToUtf32(s, n, nullptr, 0);
    FUZZ_CHECK(m16.status == m32.status);
    if (m16.status == kUtfMalformed)  // at the same place in both, the part before it well formed; exports refuse
        return FUZZ_CHECK(m16.errorAt < n && m16.errorAt == m32.errorAt &&
                          utf8ToUtf32(s, m16.errorAt, nullptr, 0).status == kUtfOk &&
                          K_Utf8ToUtf16(s, int32_t(n), nullptr, 0, nullptr) == KS_INVALID_PARAMETER);
    std::u16string u16(m16.needed, u'\0');
    FUZZ_CHECK(utf8ToUtf16(s, n, u16.data(), u16.size()).status == kUtfOk);
    std::string back(n, '\0');
    UtfResult r = utf16ToUtf8(u16.data(), u16.size(), back.data(), back.size());
    FUZZ_CHECK(r.status == kUtfOk && r.written == n && std::memcmp(back.data(), s, n) == 0);
    std::wstring w(m16.needed, L'\0');  // UTF-32 never needs more units than UTF-16
    FUZZ_CHECK((r = utf8ToWide(s, n, w.data(), w.size())).status == kUtfOk);
    if (n < 0x10000) {  // the exported forms agree, terminated
        std::string pub(n + 1, '\x55'), pub16 = pub;
        std::wstring wide(r.written + 1, L'\x55');
        std::u16string narrow(u16.size() + 1, u'\x55');
        uint32_t wrote = 0, wrote16 = 0;
        auto* p16 = reinterpret_cast<uint16_t*>(narrow.data());
        FUZZ_CHECK(K_Utf8ToWide(s, int32_t(n), wide.data(), uint32_t(wide.size()), &wrote) == 1 && wrote == r.written);
        FUZZ_CHECK(K_Utf8ToUtf16(s, int32_t(n), p16, uint32_t(narrow.size()), &wrote16) == 1 && wrote16 == u16.size());
        FUZZ_CHECK(!wide.back() && !narrow.back() && !wide.compare(0, wrote, w, 0, wrote));
        FUZZ_CHECK(!narrow.compare(0, wrote16, u16));
        FUZZ_CHECK(K_WideToUtf8(w.data(), int32_t(r.written), pub.data(), uint32_t(n + 1), &wrote) == 1);
        FUZZ_CHECK(K_Utf16ToUtf8(p16, int32_t(u16.size()), pub16.data(), uint32_t(n + 1), &wrote16) == 1);
        FUZZ_CHECK(wrote == n && wrote16 == n && pub == pub16 && pub[n] == 0 && std::memcmp(pub.data(), s, n) == 0);
        FUZZ_CHECK(!n || K_Utf8ToUtf16(s, int32_t(n), p16, uint32_t(u16.size()), nullptr) == KS_BUFFER_TOO_SMALL);
    }
    r = wideToUtf8(w.data(), r.written, back.data(), back.size());
    FUZZ_CHECK(r.status == kUtfOk && r.written == n && std::memcmp(back.data(), s, n) == 0);
    if (std::string half(n / 2, '\0'); n > 1) {  // a too-small output keeps a prefix of whole characters
        r = utf16ToUtf8(u16.data(), u16.size(), half.data(), half.size());
        FUZZ_CHECK(r.status == kUtfTooSmall || r.written == n);
        FUZZ_CHECK(r.written <= half.size() && std::memcmp(half.data(), s, r.written) == 0);
    }
}

void utf16Case(const uint8_t* d, size_t n) {
    using namespace krn::utf;
    std::u16string s(n / 2, u'\0');
    for (size_t i = 0; i < s.size(); ++i) s[i] = char16_t(d[2 * i] | (d[2 * i + 1] << 8));
    UtfResult m = utf16ToUtf8(s.data(), s.size(), nullptr, 0);
    if (m.status == kUtfMalformed) return FUZZ_CHECK(m.errorAt < s.size());
    std::string u8(m.needed, '\0');
    FUZZ_CHECK(utf16ToUtf8(s.data(), s.size(), u8.data(), u8.size()).status == kUtfOk);
    std::u16string back(s.size(), u'\0');
    FUZZ_CHECK(utf8ToUtf16(u8.data(), u8.size(), back.data(), back.size()).status == kUtfOk && back == s);
}

void rawNameCase(const uint8_t* d, size_t n) {
    std::wstring name = REDIRECT_NAME_PREFIX;
    for (size_t i = 0; i < n; ++i) name += wchar_t(d[i]);
    REDIRECTRECORD t{};
    uint32_t start = 0;
    // Without the process's check no table can come out of arbitrary text.
    FUZZ_CHECK(K_DecodeRedirectName(name.c_str(), &t, &start) != KS_SUCCESS);
    const int before = g_opens;
    FUZZ_CHECK(reinterpret_cast<void*>(K_RedirectedOpen(name.c_str(), REDIRECT_OPEN_READ, 0)) == OMBRIX_INVALID_FILE);
    FUZZ_CHECK(g_opens == before);
}

void editCase(const uint8_t* d, size_t n) {
    REDIRECTRECORD t{REDIRECTRECORD_SIZE, 0x1234, &fzOpen, reinterpret_cast<void*>(0xABCDEF), &K_OsRead};
    t.pfnClose = &K_OsClose;
    wchar_t buf[512];
    FUZZ_CHECK(K_MakeRedirectName(&t, L"inner", buf, 512) == KS_SUCCESS);
    std::wstring name = buf;
    for (size_t i = 0; i + 1 < n; i += 2) {
        const size_t pos = d[i] % (name.size() + 1);
        const wchar_t c = wchar_t(d[i + 1]);  // 0 erases, past the end appends, else replaces
        if (c == 0 && pos < name.size()) name.erase(pos, 1);
        else if (c != 0 && pos == name.size()) name += c;
        else if (c != 0) name[pos] = c;
    }
    REDIRECTRECORD got{};
    uint32_t start = 0;
    if (K_DecodeRedirectName(name.c_str(), &got, &start) != KS_SUCCESS) return;
    FUZZ_CHECK(std::memcmp(&got, &t, sizeof t) == 0 && start <= name.size());
    const int before = g_opens;
    K_RedirectedOpen(name.c_str(), REDIRECT_OPEN_READ, 0), FUZZ_CHECK(g_opens == before + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static void (*const cases[])(const uint8_t*, size_t) = {utf8Case, utf16Case, rawNameCase, editCase};
    cases[data[0] & 3](data + 1, size - 1);
    return 0;
}
