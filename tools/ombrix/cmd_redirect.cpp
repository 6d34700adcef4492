// cmd_redirect.cpp - `ombrix redirect`: file copies through the redirected
// file layer, temporary names, and the memory-buffer file; plus an info
// section and a demo section for redirected I/O.
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace {

std::wstring widen(const std::string& s) {
    uint32_t n = 0;
    if (K_Utf8ToWide(s.c_str(), -1, nullptr, 0, &n) != KS_SUCCESS) return L"";
    std::vector<wchar_t> w(n + 1);
    K_Utf8ToWide(s.c_str(), -1, w.data(), n + 1, nullptr);
    return w.data();
}

bool valid(HREDIRECTFILE h) { return reinterpret_cast<void*>(h) != OMBRIX_INVALID_FILE; }

// Copies src to dst through the table in force; returns bytes or -1.
int64_t copyFile(const std::wstring& src, const std::wstring& dst) {
    HREDIRECTFILE in = K_RedirectedOpen(src.c_str(), REDIRECT_OPEN_READ, REDIRECT_SHARE_READ);
    if (!valid(in)) return -1;
    HREDIRECTFILE out = K_RedirectedOpen(dst.c_str(),
                                         REDIRECT_OPEN_WRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_TRUNCATE, 0);
    if (!valid(out)) {
        K_RedirectedClose(in);
        return -1;
    }
    std::vector<char> buf(1 << 20);
    int64_t total = 0;
    for (;;) {
        int64_t r = K_RedirectedReadBig(in, buf.data(), buf.size());
        if (r < 0) {
            total = -1;
            break;
        }
        if (r == 0) break;
        if (K_RedirectedWriteBig(out, buf.data(), uint64_t(r)) != r) {
            total = -1;  // a short write: the medium is full
            break;
        }
        total += r;
    }
    K_RedirectedClose(in);
    if (K_RedirectedClose(out) != 0) total = -1;
    return total;
}

int run(const cli::Call& call) {
    const cli::Args& a = call.args;
    if (a.size() == 3 && a[0] == "copy") {
        int64_t n = copyFile(widen(a[1]), widen(a[2]));
        if (n < 0) {
            std::fprintf(stderr, "redirect copy: failed\n");
            return 1;
        }
        std::printf("%lld bytes copied\n", static_cast<long long>(n));
        return 0;
    }
    if ((a.size() == 1 || a.size() == 2) && a[0] == "tempname") {
        char name[OMBRIX_TEMP_NAME_CHARS];
        int32_t rc = K_GetTempFileNameUtf8(name, a.size() == 2 ? a[1].c_str() : nullptr);
        if (rc != KS_SUCCESS) {
            std::fprintf(stderr, "redirect tempname: %s (%d)\n", cli::statusText(rc).c_str(), rc);
            return 1;
        }
        std::printf("%s\n", name);  // created empty: the caller owns it now
        return 0;
    }
    if (a.size() == 2 && a[0] == "name") {
        // Copies a file into a memory buffer through an "ORVARedirect://"
        // name and prints the name and the captured size.
        HREDIRECTBUFFER b = nullptr;
        if (K_StartRedirectToBuffer(&b, nullptr, 0, nullptr, 4096, 0) != KS_SUCCESS) return 1;
        REDIRECTRECORD t{};
        t.uStructSize = REDIRECTRECORD_SIZE;
        K_GetRedirectBufferTable(b, &t);
        wchar_t name[1024];
        K_MakeRedirectName(&t, L"capture", name, 1024);
        int64_t n = copyFile(widen(a[1]), name);
        char u8[4096];
        K_WideToUtf8(name, -1, u8, sizeof u8, nullptr);
        uint64_t size = 0;
        K_StopRedirectToBuffer(b, nullptr, &size);
        std::printf("name: %s\ncopied %lld bytes, buffer holds %llu\n", u8, static_cast<long long>(n),
                    static_cast<unsigned long long>(size));
        return n < 0 ? 1 : 0;
    }
    std::fprintf(stderr, "usage: ombrix redirect copy SRC DST | tempname [PREFIX] | name SRC\n");
    return 2;
}

void info() {
    char dir[1024];
    if (K_GetTempDirectoryUtf8(dir, sizeof dir) != KS_SUCCESS) std::strcpy(dir, "?");
    std::printf("redirected I/O:\n");
    std::printf("  temporary folder      %s\n", dir);
    std::printf("  temporary-file mode   %d%s\n", K_GetTempFileMode(),
                K_GetTempFileMode() == TEMPFILE_MODE_NO_DISK ? " (no files on disk)" : "");
    std::printf("  redirection in force  %s\n", K_UsesRedirectIO() ? "yes" : "no (POSIX file layer)");
    std::printf("  big-transfer piece    0x%X bytes\n", REDIRECT_CHUNK_BYTES);
}

bool demo(cli::Report& r, const BITMAPRECORD&) {
    // 1. Output captured in memory through a name.
    HREDIRECTBUFFER b = nullptr;
    r.check(K_StartRedirectToBuffer(&b, nullptr, 0, nullptr, 16, 16) == KS_SUCCESS, "memory buffer file created");
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    K_GetRedirectBufferTable(b, &t);
    wchar_t name[1024];
    K_MakeRedirectName(&t, L"page.bin", name, 1024);
    HREDIRECTFILE f = K_RedirectedOpen(name, REDIRECT_OPEN_WRITE | REDIRECT_OPEN_CREATE, 0);
    std::string text(1000, 'k');
    r.check(valid(f) && K_RedirectedWriteBig(f, text.data(), text.size()) == int64_t(text.size()),
            "1000 bytes written through an ORVARedirect:// name");
    K_RedirectedClose(f);
    uint64_t size = 0;
    HGLOBAL data = nullptr;
    r.check(K_StopRedirectToBuffer(b, &data, &size) == KS_SUCCESS && size == 1000 &&
                std::memcmp(data, text.data(), 1000) == 0,
            "buffer holds exactly what was written");
    K_GlobalFree(data);
    // 2. A kernel temporary file through the built-in table.
    K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, REDIRECT_GET_TEMPFILE, 0);
    void* h = t.pfnOpen(L"QX", 0, 0, nullptr);
    bool ok = h != OMBRIX_INVALID_FILE && t.pfnWrite(h, "abc", 3, nullptr) == 3 &&
              t.pfnSeek(h, 0, REDIRECT_SEEK_SET, nullptr) == 0;
    char back[4] = {};
    ok = ok && t.pfnRead(h, back, 3, nullptr) == 3 && std::strcmp(back, "abc") == 0;
    if (h != OMBRIX_INVALID_FILE) t.pfnClose(h, nullptr);
    r.check(ok, "temporary file (deleted on close) written and read back");
    // 3. A forged name is refused.
    r.check(!valid(K_RedirectedOpen(L"ORVARedirect://1.0.1.0.0.0.0.0.0.0.0.0.0.0.0.0.0000000000000000/x",
                                    REDIRECT_OPEN_READ, 0)),
            "forged ORVARedirect:// name refused");
    return r.failures == 0;
}

cli::RegisterCommand reg({"redirect", "copy SRC DST | tempname [P] | name SRC",
                          "copy through redirected I/O, make temporary names", run, {}, 1, 3});
cli::RegisterInfo infoReg({"redirect", 60, info});
cli::RegisterDemo demoReg({"redirect", 60, demo});

}  // namespace
