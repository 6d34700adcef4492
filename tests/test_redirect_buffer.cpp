// test_redirect_buffer.cpp - "ORVARedirect://" names, the memory-buffer
// file, the built-in temporary-file table, unique temporary names and the
// temporary folder.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"
#include "redirect_memfs.h"
#include "redirect_scratch.h"

namespace {

using testfs::MemFs;
using testfs::ScratchDir;
using testfs::StateGuard;

HREDIRECTFILE invalid() { return reinterpret_cast<HREDIRECTFILE>(OMBRIX_INVALID_FILE); }

std::wstring makeName(const REDIRECTRECORD& t, const wchar_t* inner) {
    wchar_t buf[1024];
    EXPECT_EQ(K_MakeRedirectName(&t, inner, buf, 1024), KS_SUCCESS);
    return buf;
}

// ---------------------------------------------------------------- names
TEST(RedirectNames, NameCarriesTheTableAndTheInnerName) {
    StateGuard guard;
    MemFs fs;
    REDIRECTRECORD t = fs.table();
    t.uFlags = 0xA5;
    std::wstring name = makeName(t, L"dir/page 1.tif");
    ASSERT_EQ(name.rfind(REDIRECT_NAME_PREFIX, 0), 0u);
    std::vector<wchar_t> exact(name.size() + 1);  // room for the terminator, and one less
    EXPECT_EQ(K_MakeRedirectName(&t, L"dir/page 1.tif", exact.data(), uint32_t(exact.size())), KS_SUCCESS);
    EXPECT_EQ(K_MakeRedirectName(&t, L"dir/page 1.tif", exact.data(), uint32_t(name.size())),
              KS_BUFFER_TOO_SMALL);
    REDIRECTRECORD d{};
    uint32_t start = 0;
    ASSERT_EQ(K_DecodeRedirectName(name.c_str(), &d, &start), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(&d, &t, sizeof t), 0);
    EXPECT_EQ(name.substr(start), L"dir/page 1.tif");
    // The thread's table is the default layer; the name alone routes the file.
    HREDIRECTFILE h = K_RedirectedOpen(name.c_str(), REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(fs.openNames.back(), L"dir/page 1.tif");
    EXPECT_EQ(K_RedirectedWrite(h, "data", 4), 4);
    EXPECT_EQ(K_RedirectedClose(h), 0);
    EXPECT_EQ(fs.files[L"dir/page 1.tif"].size(), 4u);
    // The UTF-8 entry point too; an empty inner name is allowed.
    std::wstring empty = makeName(t, nullptr);
    char u8[1024];
    ASSERT_EQ(K_WideToUtf8(empty.c_str(), -1, u8, sizeof u8, nullptr), KS_SUCCESS);
    h = K_RedirectedOpenUtf8(u8, REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(fs.openNames.back(), L"");
    K_RedirectedClose(h);
}

TEST(RedirectNames, DamagedNamesDoNotDecodeAndCallNothing) {
    MemFs fs;
    REDIRECTRECORD t = fs.table();
    std::wstring name = makeName(t, L"x");
    size_t slash = name.find(L'/', 15);
    ASSERT_NE(slash, std::wstring::npos);
    REDIRECTRECORD d{};
    // Every single-character change of the encoded part is caught.
    const wchar_t repl[] = {L'0', L'1', L'f', L'F', L'.', L'/', L'g', L'x'};
    long changed = 0;
    for (size_t i = 15; i <= slash; ++i) {
        for (wchar_t c : repl) {
            std::wstring m = name;
            if (m[i] == c) continue;
            // Upper/lower case of the same hex digit decodes to the same value.
            if (towlower(m[i]) == towlower(c) && iswxdigit(c)) continue;
            m[i] = c;
            if (K_DecodeRedirectName(m.c_str(), &d, nullptr) == KS_SUCCESS) {
                // Only a change inside the inner name can still decode.
                ADD_FAILURE() << "decoded after change at " << i;
            }
            ++changed;
        }
    }
    EXPECT_GT(changed, 300);
    // Every cut-short prefix fails, and opening it reaches no table.
    for (size_t n = 0; n <= slash; ++n) {
        std::wstring cut = name.substr(0, n);
        EXPECT_NE(K_DecodeRedirectName(cut.c_str(), &d, nullptr), KS_SUCCESS) << n;
    }
    EXPECT_EQ(K_RedirectedOpen(name.substr(0, slash).c_str(), REDIRECT_OPEN_READ, 0), invalid());
    EXPECT_EQ(fs.opens, 0);
    // The prefix is compared exactly: another case is an ordinary name.
    std::wstring lower = name;
    lower[0] = L'o';
    EXPECT_NE(K_DecodeRedirectName(lower.c_str(), &d, nullptr), KS_SUCCESS);
    // Hand-made names with plausible fields are refused (no check).
    std::wstring forged = L"ORVARedirect://1.0.1.0.1.0.1.0.1.0.1.0.0.0.0.0.0123456789abcdef/a";
    EXPECT_EQ(K_DecodeRedirectName(forged.c_str(), &d, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_RedirectedOpen(forged.c_str(), REDIRECT_OPEN_READ, 0), invalid());
}

// ---------------------------------------------------------------- buffer file
// Reads, writes, seeks and the content against a model: the buffer fuzz
// target. Here: the big transfer on a fixed buffer, names, arguments.
TEST(RedirectBuffer, FixedBufferGivesShortBigWrites) {
    HREDIRECTBUFFER b = nullptr;
    HREDIRECTFILE f = nullptr;
    ASSERT_EQ(K_StartRedirectToBuffer(&b, &f, REDIRECTBUF_FIXED, nullptr, 100, 0), KS_SUCCESS);
    std::vector<char> d(250, 'q');
    EXPECT_EQ(K_RedirectedWrite(f, d.data(), 60), 60);
    EXPECT_EQ(K_RedirectedWriteBig(f, d.data(), 250), 40);
    EXPECT_EQ(K_RedirectedSeek(f, -1, REDIRECT_SEEK_SET), -1);
    K_RedirectedClose(f);
    uint64_t size = 0;
    ASSERT_EQ(K_StopRedirectToBuffer(b, nullptr, &size), KS_SUCCESS);
    EXPECT_EQ(size, 100u);
}

TEST(RedirectBuffer, TableInANameAndInstalledSendsOutputToTheBuffer) {
    StateGuard guard;
    HREDIRECTBUFFER b = nullptr;
    ASSERT_EQ(K_StartRedirectToBuffer(&b, nullptr, 0, nullptr, 0, 0), KS_SUCCESS);
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    ASSERT_EQ(K_GetRedirectBufferTable(b, &t), KS_SUCCESS);
    std::wstring name = makeName(t, L"out.bin");
    HREDIRECTFILE f = K_RedirectedOpen(name.c_str(), REDIRECT_OPEN_WRITE | REDIRECT_OPEN_CREATE, 0);
    ASSERT_NE(f, invalid());
    EXPECT_EQ(K_RedirectedWrite(f, "first", 5), 5);
    EXPECT_EQ(K_RedirectedClose(f), 0);
    // Installed for the thread: any open lands in the buffer; truncate empties it.
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    f = K_RedirectedOpen(L"anything", REDIRECT_OPEN_READWRITE, 0);
    char r[8] = {};
    EXPECT_EQ(K_RedirectedRead(f, r, 8), 5);
    EXPECT_STREQ(r, "first");
    K_RedirectedClose(f);
    f = K_RedirectedOpen(L"anything", REDIRECT_OPEN_WRITE | REDIRECT_OPEN_TRUNCATE, 0);
    EXPECT_EQ(K_RedirectedSeek(f, 3, REDIRECT_SEEK_SET), 3);
    EXPECT_EQ(K_RedirectedWrite(f, "Z", 1), 1);  // the gap reads as zeros
    K_RedirectedClose(f);
    const void* data;
    uint64_t size;
    ASSERT_EQ(K_GetRedirectBufferData(b, &data, &size), KS_SUCCESS);
    ASSERT_EQ(size, 4u);
    EXPECT_EQ(std::memcmp(data, "\0\0\0Z", 4), 0);
    HGLOBAL out = nullptr;
    ASSERT_EQ(K_StopRedirectToBuffer(b, &out, nullptr), KS_SUCCESS);
    K_GlobalFree(out);
    // The stopped buffer's functions refuse to work (the table outlives it).
    EXPECT_EQ(K_RedirectedOpen(L"anything", REDIRECT_OPEN_READ, 0), invalid());
}

TEST(RedirectBuffer, ArgumentsAndEmptyContent) {
    HREDIRECTBUFFER b = nullptr;
    EXPECT_EQ(K_StartRedirectToBuffer(nullptr, nullptr, 0, nullptr, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StartRedirectToBuffer(&b, nullptr, 0x80, nullptr, 0, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(b, nullptr);
    ASSERT_EQ(K_StartRedirectToBuffer(&b, nullptr, 0, nullptr, 0, 0), KS_SUCCESS);
    REDIRECTRECORD t{};
    EXPECT_EQ(K_GetRedirectBufferTable(b, &t), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetRedirectBufferTable(b, nullptr), KS_NULL_POINTER);
    HGLOBAL out = reinterpret_cast<HGLOBAL>(1);
    uint64_t size = 7;
    ASSERT_EQ(K_StopRedirectToBuffer(b, &out, &size), KS_SUCCESS);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(K_StopRedirectToBuffer(b, nullptr, nullptr), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_StopRedirectToBuffer(nullptr, nullptr, nullptr), KS_INVALID_PARAMETER);
}

TEST(RedirectBuffer, AllocationFailureAtEveryStep) {
    // Warm up the registries and the settings block.
    HREDIRECTBUFFER b = nullptr;
    HREDIRECTFILE f = nullptr;
    ASSERT_EQ(K_StartRedirectToBuffer(&b, &f, 0, nullptr, 64, 0), KS_SUCCESS);
    K_RedirectedClose(f);
    K_StopRedirectToBuffer(b, nullptr, nullptr);
    long base = krn::faultinject::liveBlocks();
    int failures = 0;
    for (long n = 0; n < 20; ++n) {
        b = nullptr;
        f = nullptr;
        krn::faultinject::arm(n, 1);
        int32_t rc = K_StartRedirectToBuffer(&b, &f, 0, nullptr, 64, 0);
        bool injected = krn::faultinject::injected() > 0;
        krn::faultinject::disarm();
        if (rc == KS_SUCCESS) {
            EXPECT_FALSE(injected);
            EXPECT_EQ(K_RedirectedWrite(f, "abc", 3), 3);
            EXPECT_EQ(K_RedirectedClose(f), 0);
            EXPECT_EQ(K_StopRedirectToBuffer(b, nullptr, nullptr), KS_SUCCESS);
            break;
        }
        ++failures;
        EXPECT_EQ(rc, KS_NO_MEMORY);
        EXPECT_EQ(b, nullptr);
        EXPECT_EQ(krn::faultinject::liveBlocks(), base) << "step " << n;
    }
    EXPECT_GE(failures, 2);
    EXPECT_EQ(krn::faultinject::liveBlocks(), base);
}

// ---------------------------------------------------------------- temporary-file table
TEST(RedirectTempTable, PositionedFileThroughTheTable) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    REDIRECTRECORD t{};
    ASSERT_EQ(K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, REDIRECT_GET_TEMPFILE, 0), KS_SUCCESS);
    HREDIRECTFILE h = nullptr;
    void* native = t.pfnOpen(L"IMG", 0, 0, nullptr);
    ASSERT_NE(native, OMBRIX_INVALID_FILE);
    EXPECT_TRUE(dir.entries().empty());  // deleted on close: no name in the folder
    ASSERT_EQ(K_CreateRedirectedFileHandle(&h, native, &t), KS_SUCCESS);
    EXPECT_EQ(K_RedirectedWrite(h, "0123456789", 10), 10);
    EXPECT_EQ(K_RedirectedSeek(h, 2, REDIRECT_SEEK_SET), 2);
    char b[4] = {};
    EXPECT_EQ(K_RedirectedRead(h, b, 3), 3);
    EXPECT_STREQ(b, "234");
    EXPECT_EQ(K_RedirectedSeek(h, -1, REDIRECT_SEEK_END), 9);
    EXPECT_EQ(K_RedirectedSeek(h, -20, REDIRECT_SEEK_CUR), -1);
    EXPECT_EQ(K_RedirectedRead(h, b, 3), 1);
    EXPECT_EQ(K_RedirectedRead(h, b, 3), 0);  // end of file
    EXPECT_EQ(K_RedirectedTempFileWriteBig(native, "abcdef", 6, nullptr), 6);
    EXPECT_EQ(K_RedirectedGetSize(h), 16);
    EXPECT_EQ(K_RedirectedTempFileSetSize(native, 4, nullptr), 0);
    EXPECT_EQ(K_RedirectedTempFileSize(native, nullptr), 4);
    EXPECT_EQ(K_RedirectedClose(h), 0);
    // Closed: the handle is dead for every function of the table.
    EXPECT_EQ(K_RedirectedTempFileRead(native, b, 1, nullptr), -1);
    EXPECT_EQ(K_RedirectedTempFileClose(native, nullptr), -1);
    int junk[8] = {};
    EXPECT_EQ(K_RedirectedTempFileWrite(junk, b, 1, nullptr), -1);
    EXPECT_EQ(K_RedirectedTempFileSeek(nullptr, 0, 0, nullptr), -1);
}

TEST(RedirectTempTable, SizeLimitMakesWritesShort) {
    StateGuard guard;
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 2, 0, 1, {0, 0}};
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    void* h = K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr);
    ASSERT_NE(h, OMBRIX_INVALID_FILE);
    std::vector<char> d(1 << 20, 'a');
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), uint32_t(d.size() - 10), nullptr), int32_t(d.size() - 10));
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 10);
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 0);
    EXPECT_EQ(K_RedirectedTempFileClose(h, nullptr), 0);
}

// ---------------------------------------------------------------- names and folder
bool isHexName(const std::string& leaf, const std::string& prefix) {
    if (leaf.size() != prefix.size() + 12 || leaf.rfind(prefix, 0) != 0) return false;
    if (leaf.substr(leaf.size() - 4) != ".tmp") return false;
    for (size_t i = prefix.size(); i < prefix.size() + 8; ++i)
        if (!isxdigit(static_cast<unsigned char>(leaf[i]))) return false;
    return true;
}

TEST(RedirectTempNames, UniqueNamesAreCreatedAndDistinct) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8((dir.path + "/").c_str()), KS_SUCCESS);  // trailing slash dropped
    std::set<std::string> names;
    for (int i = 0; i < 200; ++i) {
        char n[OMBRIX_TEMP_NAME_CHARS];
        ASSERT_EQ(K_GetTempFileNameUtf8(n, nullptr), KS_SUCCESS);
        std::string s = n;
        ASSERT_EQ(s.rfind(dir.path + "/", 0), 0u) << s;
        EXPECT_TRUE(isHexName(s.substr(dir.path.size() + 1), "QX")) << s;
        struct stat st;
        ASSERT_EQ(::stat(n, &st), 0);  // the name is taken, by a private file
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        names.insert(s);
    }
    EXPECT_EQ(names.size(), 200u);
    EXPECT_EQ(dir.entries().size(), 200u);
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    ASSERT_EQ(K_GetTempFileName(w, L"AB"), KS_SUCCESS);
    char u8[OMBRIX_TEMP_NAME_CHARS * 4];
    ASSERT_EQ(K_WideToUtf8(w, -1, u8, sizeof u8, nullptr), KS_SUCCESS);
    std::string s = u8;
    EXPECT_TRUE(isHexName(s.substr(dir.path.size() + 1), "AB")) << s;
    EXPECT_EQ(K_DeleteTempFile(w), KS_SUCCESS);
    EXPECT_EQ(K_DeleteTempFile(w), KS_FILE_NOT_FOUND);
    EXPECT_EQ(K_DeleteTempFileUtf8(names.begin()->c_str()), KS_SUCCESS);
    EXPECT_EQ(K_DeleteTempFile(nullptr), KS_INVALID_PARAMETER);
}

TEST(RedirectTempNames, NumberedNamesCreateNothing) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    char a[OMBRIX_TEMP_NAME_CHARS], b[OMBRIX_TEMP_NAME_CHARS];
    ASSERT_EQ(K_GetTempFileNameNumberedUtf8(a, "QX", 0xBEEF), KS_SUCCESS);
    ASSERT_EQ(K_GetTempFileNameNumberedUtf8(b, "QX", 0xBEEF), KS_SUCCESS);
    EXPECT_STREQ(a, b);
    EXPECT_EQ(std::string(a), dir.path + "/QX0000BEEF.tmp");
    EXPECT_TRUE(dir.entries().empty());
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    ASSERT_EQ(K_GetTempFileNameNumbered(w, L"Z", 1), KS_SUCCESS);
    std::wstring ws = w;
    EXPECT_EQ(ws.substr(ws.size() - 14), L"/Z00000001.tmp");
    EXPECT_EQ(K_GetTempFileNameNumberedUtf8(a, "QX", 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTempFileNameNumberedUtf8(a, "ABCD", 5), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTempFileNameNumberedUtf8(a, "a.b", 5), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetTempFileName(w, L"\u00E9"), KS_INVALID_PARAMETER);
}

TEST(RedirectTempNames, BadFolderAndLongFolder) {
    StateGuard guard;
    char n[OMBRIX_TEMP_NAME_CHARS];
    ASSERT_EQ(K_SetTempDirectoryUtf8("/nonexistent-ombrix-folder"), KS_SUCCESS);
    EXPECT_EQ(K_GetTempFileNameUtf8(n, nullptr), KS_FILE_OPEN);
    std::string longDir = "/tmp/" + std::string(300, 'd');
    ASSERT_EQ(K_SetTempDirectoryUtf8(longDir.c_str()), KS_SUCCESS);
    EXPECT_EQ(K_GetTempFileNameUtf8(n, nullptr), KS_BUFFER_TOO_SMALL);
    EXPECT_EQ(K_GetTempFileNameNumberedUtf8(n, nullptr, 3), KS_BUFFER_TOO_SMALL);
}

TEST(RedirectTempFolder, PerThreadRoundTripAndLimits) {
    StateGuard guard;
    const wchar_t* dirW = L"/tmp/\u5199\u771F/images";
    ASSERT_EQ(K_SetTempDirectory(dirW), KS_SUCCESS);
    wchar_t back[64];
    ASSERT_EQ(K_GetTempDirectory(back, 64), KS_SUCCESS);
    EXPECT_EQ(std::wstring(back), dirW);
    char u8[64];
    ASSERT_EQ(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS);
    EXPECT_STREQ(u8, "/tmp/\xE5\x86\x99\xE7\x9C\x9F/images");
    EXPECT_EQ(K_GetTempDirectory(back, 5), KS_BUFFER_TOO_SMALL);
    std::thread([] {
        char d[512];
        ASSERT_EQ(K_GetTempDirectoryUtf8(d, sizeof d), KS_SUCCESS);
        const char* env = getenv("TMPDIR");
        std::string expect = (env && *env) ? env : "/tmp";
        while (expect.size() > 1 && expect.back() == '/') expect.pop_back();
        EXPECT_EQ(std::string(d), expect);
    }).join();
    // Refused values leave the folder as it was.
    EXPECT_EQ(K_SetTempDirectoryUtf8("/tmp/\xC0\x80"), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetTempDirectoryUtf8(std::string(1024, 'a').c_str()), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetTempDirectoryUtf8(std::string(1023, 'a').c_str()), KS_SUCCESS);
    EXPECT_EQ(K_SetTempDirectory(dirW), KS_SUCCESS);
    if (sizeof(wchar_t) == 4) {
        wchar_t bad[] = {L'/', wchar_t(0xD800), 0};
        EXPECT_EQ(K_SetTempDirectory(bad), KS_INVALID_PARAMETER);
    }
    ASSERT_EQ(K_GetTempDirectory(back, 64), KS_SUCCESS);
    EXPECT_EQ(std::wstring(back), dirW);
    ASSERT_EQ(K_SetTempDirectory(nullptr), KS_SUCCESS);
    ASSERT_EQ(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS);
    EXPECT_NE(std::string(u8), "/tmp/\xE5\x86\x99\xE7\x9C\x9F/images");
}

}  // namespace
