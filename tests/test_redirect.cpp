// test_redirect.cpp - redirect tables (thread, process-wide, merged),
// redirected file handles, the ReadBig / WriteBig chunking, handle checks,
// and files on the default layer with non-ASCII names.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "ombrix.h"
#include "redirect_memfs.h"
#include "redirect_scratch.h"

namespace {

using testfs::CountingSink;
using testfs::MemFs;
using testfs::ScratchDir;
using testfs::StateGuard;

REDIRECTRECORD get(int mode, int processWide = 0) {
    REDIRECTRECORD r{};
    EXPECT_EQ(K_GetRedirectFunctions(&r, REDIRECTRECORD_SIZE, mode, processWide), KS_SUCCESS);
    return r;
}

bool sameFunctions(const REDIRECTRECORD& a, const REDIRECTRECORD& b) {
    return a.pfnOpen == b.pfnOpen && a.pfnRead == b.pfnRead && a.pfnWrite == b.pfnWrite &&
           a.pfnSeek == b.pfnSeek && a.pfnClose == b.pfnClose && a.pfnSize == b.pfnSize &&
           a.pfnSetSize == b.pfnSetSize;
}

HREDIRECTFILE invalid() { return reinterpret_cast<HREDIRECTFILE>(OMBRIX_INVALID_FILE); }

int32_t myRead(void*, void*, uint32_t, void*) { return -1; }

// ---------------------------------------------------------------- tables
// A table installed on this thread is in force here and nowhere else: a
// fresh thread sees the default tables.
TEST(RedirectTables, ThreadTableStaysOnItsThreadAndFreshThreadsSeeDefaults) {
    StateGuard guard;
    MemFs fs;
    REDIRECTRECORD mine = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&mine, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    EXPECT_TRUE(sameFunctions(mine, fs.table()));  // written back: the table now in force
    EXPECT_EQ(K_UsesRedirectIO(), 1);
    std::thread([] {
        REDIRECTRECORD d = get(REDIRECT_GET_DEFAULT);
        EXPECT_EQ(d.uStructSize, REDIRECTRECORD_SIZE);
        EXPECT_EQ(d.uFlags, 0u);
        EXPECT_EQ(d.pfnOpen, &K_OsOpen);
        EXPECT_EQ(d.pfnRead, &K_OsRead);
        EXPECT_EQ(d.pfnWrite, &K_OsWrite);
        EXPECT_EQ(d.pfnSeek, &K_OsSeek);
        EXPECT_EQ(d.pfnClose, &K_OsClose);
        EXPECT_TRUE(sameFunctions(get(REDIRECT_GET_IN_FORCE), d));
        EXPECT_TRUE(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), d));
        REDIRECTRECORD t = get(REDIRECT_GET_THREAD);
        EXPECT_EQ(t.pfnOpen, nullptr);
        EXPECT_EQ(t.pfnClose, nullptr);
        REDIRECTRECORD tmp = get(REDIRECT_GET_TEMPFILE);
        EXPECT_EQ(tmp.pfnOpen, &K_RedirectedTempFileOpen);
        EXPECT_EQ(tmp.pfnRead, &K_RedirectedTempFileRead);
        EXPECT_EQ(tmp.pfnClose, &K_RedirectedTempFileClose);
        EXPECT_EQ(tmp.uFlags, 0u);
        EXPECT_EQ(K_UsesRedirectIO(), 0);
    }).join();
}

TEST(RedirectTables, FrameChecks) {
    REDIRECTRECORD r{};
    r.uStructSize = REDIRECTRECORD_SIZE;
    EXPECT_EQ(K_GetRedirectFunctions(nullptr, 64, 0, 0), KS_NULL_POINTER);
    EXPECT_EQ(K_GetRedirectFunctions(&r, 60, 0, 0), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetRedirectFunctions(&r, 64, 4, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_GetRedirectFunctions(&r, 64, -1, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetRedirectFunctions(nullptr, 0, 0), KS_NULL_POINTER);
    r.uStructSize = 128;
    EXPECT_EQ(K_SetRedirectFunctions(&r, 0, 0), KS_INVALID_STRUCT_SIZE);
    r.uStructSize = REDIRECTRECORD_SIZE;
    r.pfnRead = &myRead;
    EXPECT_EQ(K_SetRedirectFunctions(&r, 3, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_SetRedirectFunctions(&r, -1, 0), KS_INVALID_PARAMETER);
    EXPECT_EQ(get(REDIRECT_GET_THREAD).pfnRead, nullptr);  // nothing installed by the failures
}

TEST(RedirectTables, RedirectIOSlotsDefaultsEmptyAndGiven) {
    StateGuard guard;
    MemFs procFs;
    REDIRECTRECORD p = procFs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&p, REDIRECT_SET_INSTALL, 1), KS_SUCCESS);
    int token;
    // open empty (process-wide), read given, write default, seek and close empty.
    ASSERT_EQ(K_RedirectIO(REDIRECT_EMPTY, reinterpret_cast<void*>(&myRead), nullptr, REDIRECT_EMPTY,
                           REDIRECT_EMPTY, &token),
              KS_SUCCESS);
    REDIRECTRECORD t = get(REDIRECT_GET_THREAD);
    EXPECT_EQ(t.pfnOpen, nullptr);
    EXPECT_EQ(t.pfnRead, &myRead);
    EXPECT_EQ(t.pReadUserData, &token);
    EXPECT_EQ(t.pfnWrite, &K_OsWrite);
    EXPECT_EQ(t.pWriteUserData, &token);
    EXPECT_EQ(t.pfnSeek, nullptr);
    REDIRECTRECORD f = get(REDIRECT_GET_IN_FORCE);
    EXPECT_EQ(f.pfnOpen, &MemFs::open);
    EXPECT_EQ(f.pOpenUserData, &procFs);
    EXPECT_EQ(f.pfnSize, &MemFs::size);  // size slots follow the open function
    EXPECT_EQ(f.pfnRead, &myRead);
    EXPECT_EQ(f.pfnWrite, &K_OsWrite);
    EXPECT_EQ(f.pfnSeek, &MemFs::seek);
    EXPECT_EQ(f.pSeekUserData, &procFs);
    EXPECT_EQ(f.pfnClose, &MemFs::close);
    EXPECT_TRUE(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), procFs.table()));
    EXPECT_EQ(K_UsesRedirectIO(), 1);
    // All zero: the default file layer for this thread, over any process-wide table.
    ASSERT_EQ(K_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), KS_SUCCESS);
    EXPECT_TRUE(sameFunctions(get(REDIRECT_GET_IN_FORCE), get(REDIRECT_GET_DEFAULT)));
    EXPECT_EQ(K_UsesRedirectIO(), 0);
}

TEST(RedirectTables, SelectorsSwapAndReset) {
    StateGuard guard;
    MemFs a, b;
    REDIRECTRECORD ta = a.table(), tb = b.table();
    ASSERT_EQ(K_SetRedirectFunctions(&ta, REDIRECT_SET_INSTALL, 1), KS_SUCCESS);
    ASSERT_EQ(K_SetRedirectFunctions(&tb, REDIRECT_SET_SWAP, 1), KS_SUCCESS);
    EXPECT_EQ(tb.pOpenUserData, &a);  // got back what it replaced
    EXPECT_EQ(get(REDIRECT_GET_IN_FORCE, 1).pOpenUserData, &b);
    REDIRECTRECORD r{};
    r.uStructSize = REDIRECTRECORD_SIZE;
    ASSERT_EQ(K_SetRedirectFunctions(&r, REDIRECT_SET_RESET, 1), KS_SUCCESS);
    EXPECT_EQ(r.pOpenUserData, &b);
    EXPECT_TRUE(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), get(REDIRECT_GET_DEFAULT)));
    // Process-wide: null slots get the defaults; thread: they stay empty.
    REDIRECTRECORD partial{};
    partial.uStructSize = REDIRECTRECORD_SIZE;
    partial.pfnRead = &myRead;
    ASSERT_EQ(K_SetRedirectFunctions(&partial, REDIRECT_SET_INSTALL, 1), KS_SUCCESS);
    EXPECT_EQ(partial.pfnOpen, &K_OsOpen);
    EXPECT_EQ(partial.pfnRead, &myRead);
    REDIRECTRECORD partial2{};
    partial2.uStructSize = REDIRECTRECORD_SIZE;
    partial2.pfnWrite = &MemFs::write;
    ASSERT_EQ(K_SetRedirectFunctions(&partial2, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    EXPECT_EQ(get(REDIRECT_GET_THREAD).pfnRead, nullptr);
    EXPECT_EQ(partial2.pfnRead, &myRead);  // in force: from the process-wide table
    EXPECT_EQ(partial2.pfnWrite, &MemFs::write);
}

// Readers of the process-wide table never see half of one table and half
// of another while writers replace it.
TEST(RedirectTables, ProcessTableIsNeverTorn) {
    StateGuard guard;
    MemFs a, b;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0}, seen{0};
    REDIRECTRECORD first = a.table();
    ASSERT_EQ(K_SetRedirectFunctions(&first, REDIRECT_SET_INSTALL, 1), KS_SUCCESS);
    std::vector<std::thread> ts;
    for (int w = 0; w < 2; ++w)
        ts.emplace_back([&, w] {
            for (int i = 0; !stop; ++i) {
                REDIRECTRECORD t = ((i + w) & 1) ? a.table() : b.table();
                K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 1);
            }
        });
    for (int r = 0; r < 2; ++r)
        ts.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                REDIRECTRECORD t{};
                K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, 0, 1);
                void* u = t.pOpenUserData;
                bool ok = (u == &a || u == &b) && t.pReadUserData == u && t.pWriteUserData == u &&
                          t.pSeekUserData == u && t.pCloseUserData == u && t.pSizeUserData == u &&
                          t.pSetSizeUserData == u;
                torn += !ok;
                ++seen;
            }
        });
    ts[2].join();
    ts[3].join();
    stop = true;
    ts[0].join();
    ts[1].join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(seen.load(), 0);
}

// ---------------------------------------------------------------- files
TEST(RedirectFiles, HandleKeepsItsTable) {
    StateGuard guard;
    MemFs fs;
    REDIRECTRECORD t = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    HREDIRECTFILE h = K_RedirectedOpen(L"img.bin", REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0);
    ASSERT_NE(h, invalid());
    ASSERT_EQ(fs.openNames.back(), L"img.bin");
    // Change the tables: the open file keeps going to the memory file system.
    ASSERT_EQ(K_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), KS_SUCCESS);
    EXPECT_EQ(K_RedirectedWrite(h, "hello", 5), 5);
    EXPECT_EQ(K_RedirectedSeek(h, 1, REDIRECT_SEEK_SET), 1);
    char b[8] = {};
    EXPECT_EQ(K_RedirectedRead(h, b, 8), 4);
    EXPECT_STREQ(b, "ello");
    EXPECT_EQ(K_RedirectedGetSize(h), 5);
    REDIRECTRECORD x{};
    x.uStructSize = REDIRECTRECORD_SIZE;
    ASSERT_EQ(K_ExtractRedirectFunctions(h, &x), KS_SUCCESS);
    EXPECT_TRUE(sameFunctions(x, fs.table()));
    EXPECT_EQ(K_RedirectedClose(h), 0);
    EXPECT_EQ(fs.closes, 1);
    EXPECT_EQ(std::string(fs.files[L"img.bin"].begin(), fs.files[L"img.bin"].end()), "hello");
    // The handle is gone: every call fails without touching the table.
    EXPECT_EQ(K_RedirectedWrite(h, "x", 1), -1);
    EXPECT_EQ(K_RedirectedClose(h), -1);
    EXPECT_EQ(fs.writes, 1);
    EXPECT_EQ(fs.closes, 1);
}

TEST(RedirectFiles, GarbageHandlesAreRefused) {
    alignas(16) unsigned char junk[128];
    std::memset(junk, 0x5A, sizeof junk);
    HGLOBAL g = K_GlobalAlloc(GMEM_MOVEABLE, 64);  // a live handle of another kind
    ASSERT_NE(g, nullptr);
    HREDIRECTFILE bad[] = {nullptr, invalid(), reinterpret_cast<HREDIRECTFILE>(junk),
                           reinterpret_cast<HREDIRECTFILE>(g)};
    char b[4];
    for (HREDIRECTFILE h : bad) {
        EXPECT_EQ(K_RedirectedRead(h, b, 4), -1);
        EXPECT_EQ(K_RedirectedWrite(h, b, 4), -1);
        EXPECT_EQ(K_RedirectedSeek(h, 0, 0), -1);
        EXPECT_EQ(K_RedirectedClose(h), -1);
        EXPECT_EQ(K_RedirectedReadBig(h, b, 4), -1);
        EXPECT_EQ(K_RedirectedWriteBig(h, b, 4), -1);
        EXPECT_EQ(K_RedirectedReadBig(h, b, 0), 0);  // a count of 0 returns 0 at once
        void* n;
        EXPECT_EQ(K_ExtractRedirectedFileHandle(h, &n, 0), KS_INVALID_PARAMETER);
        REDIRECTRECORD r{};
        r.uStructSize = REDIRECTRECORD_SIZE;
        EXPECT_EQ(K_ExtractRedirectFunctions(h, &r), KS_INVALID_PARAMETER);
        EXPECT_EQ(K_UpdateRedirectFunctions(h, &r), KS_INVALID_PARAMETER);
    }
    EXPECT_EQ(K_GlobalFree(g), nullptr);  // untouched by the refused calls
}

TEST(RedirectFiles, OpenFailuresGiveInvalidHandle) {
    StateGuard guard;
    MemFs fs;
    fs.failOpenAt = 1;
    REDIRECTRECORD t = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    EXPECT_EQ(K_RedirectedOpen(L"a", REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0), invalid());
    EXPECT_EQ(K_RedirectedOpen(L"missing", REDIRECT_OPEN_READ, 0), invalid());
    EXPECT_EQ(K_RedirectedOpen(nullptr, REDIRECT_OPEN_READ, 0), invalid());
    EXPECT_EQ(K_RedirectedOpenUtf8("\xC0\x80", REDIRECT_OPEN_READ, 0), invalid());
    // An allocation failure while wrapping closes what the table opened.
    long before = krn::faultinject::liveBlocks();
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(K_RedirectedOpen(L"b", REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0), invalid());
    krn::faultinject::disarm();
    EXPECT_EQ(fs.openHandles(), 0u);
    EXPECT_EQ(krn::faultinject::liveBlocks(), before);
}

TEST(RedirectFiles, WrapExtractAndUpdate) {
    StateGuard guard;
    MemFs fs, other;
    REDIRECTRECORD t = fs.table();
    void* native = MemFs::open(L"w", REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0, &fs);
    HREDIRECTFILE h = nullptr;
    EXPECT_EQ(K_CreateRedirectedFileHandle(nullptr, native, &t), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreateRedirectedFileHandle(&h, nullptr, &t), KS_INVALID_PARAMETER);
    EXPECT_EQ(K_CreateRedirectedFileHandle(&h, OMBRIX_INVALID_FILE, &t), KS_INVALID_PARAMETER);
    REDIRECTRECORD badSize = t;
    badSize.uStructSize = 63;
    EXPECT_EQ(K_CreateRedirectedFileHandle(&h, native, &badSize), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(h, nullptr);
    ASSERT_EQ(K_CreateRedirectedFileHandle(&h, native, &t), KS_SUCCESS);
    EXPECT_EQ(K_RedirectedWrite(h, "abc", 3), 3);
    // Update: only the write slot changes; the write then goes to `other`,
    // which does not know the handle and fails.
    REDIRECTRECORD upd{};
    upd.uStructSize = REDIRECTRECORD_SIZE;
    upd.pfnWrite = &MemFs::write;
    upd.pWriteUserData = &other;
    ASSERT_EQ(K_UpdateRedirectFunctions(h, &upd), KS_SUCCESS);
    EXPECT_EQ(K_RedirectedWrite(h, "d", 1), -1);
    EXPECT_EQ(other.writes, 1);
    EXPECT_EQ(K_RedirectedSeek(h, 0, REDIRECT_SEEK_END), 3);  // seek slot kept
    void* out = nullptr;
    ASSERT_EQ(K_ExtractRedirectedFileHandle(h, &out, 0), KS_SUCCESS);
    EXPECT_EQ(out, native);
    ASSERT_EQ(K_ExtractRedirectedFileHandle(h, &out, 1), KS_SUCCESS);  // release the wrapper
    EXPECT_EQ(K_RedirectedSeek(h, 0, 0), -1);
    EXPECT_EQ(fs.openHandles(), 1u);  // native not closed
    EXPECT_EQ(MemFs::close(native, &fs), 0);
}

// ---------------------------------------------------------------- big transfers
// The sink moves no bytes: it records each chunk asked for.
TEST(RedirectBig, ChunkingEndOfFileAndFailure) {
    CountingSink sink;
    REDIRECTRECORD t = sink.table();
    HREDIRECTFILE h = nullptr;
    ASSERT_EQ(K_CreateRedirectedFileHandle(&h, reinterpret_cast<void*>(0x10), &t), KS_SUCCESS);
    char buf[1] = {0};  // never touched by the sink
    struct Case {
        bool write;
        uint64_t n, eofAfter;
        long failAt;
        int64_t result;
        std::vector<uint32_t> asks;  // empty with `chunks`: only counted
        size_t chunks;
    };
    const uint64_t big = 5ull << 30;  // beyond 4 GiB: counted in 64 bits
    const Case cases[] = {
        {false, 268435456ull, UINT64_MAX, 0, 268435456ll, {0x7FFFFFFu, 0x7FFFFFFu, 2u}, 3},
        {true, big, UINT64_MAX, 0, int64_t(big), {}, size_t((big + REDIRECT_CHUNK_BYTES - 1) / REDIRECT_CHUNK_BYTES)},
        {false, 1000, 0, 0, 0, {1000u}, 1},  // end of file at once
        {false, 1ull << 30, 0x7FFFFFFull + 10, 0, int64_t(0x7FFFFFFull + 10), {0x7FFFFFFu, 0x7FFFFFFu, 0x7FFFFFFu}, 3},
        {false, 1ull << 30, UINT64_MAX, 2, -1, {0x7FFFFFFu, 0x7FFFFFFu}, 2},
        {false, 0, UINT64_MAX, 0, 0, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.n);
        sink = CountingSink();
        sink.eofAfter = c.eofAfter, sink.failAt = c.failAt;
        EXPECT_EQ(c.write ? K_RedirectedWriteBig(h, buf, c.n) : K_RedirectedReadBig(h, buf, c.n), c.result);
        ASSERT_EQ(sink.asks.size(), c.chunks);
        EXPECT_TRUE(c.asks.empty() || sink.asks == c.asks);
        uint64_t sum = 0;
        for (uint32_t a : sink.asks) {
            EXPECT_LE(a, REDIRECT_CHUNK_BYTES);
            sum += a;
        }
        EXPECT_TRUE(c.result != int64_t(c.n) || sum == c.n);
    }
    void* n;
    K_ExtractRedirectedFileHandle(h, &n, 1);
}

// ---------------------------------------------------------------- default layer
TEST(RedirectOs, NonAsciiNamesReachTheSystemAsUtf8) {
    StateGuard guard;
    ScratchDir dir;
    std::string dirUtf8 = dir.path;
    std::wstring wdir(dirUtf8.begin(), dirUtf8.end());
    std::wstring wname = wdir + L"/caf\u00E9-\u6F22\U0001D11E.bin";
    HREDIRECTFILE h = K_RedirectedOpen(wname.c_str(), REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(K_RedirectedWrite(h, "pixels", 6), 6);
    EXPECT_EQ(K_RedirectedGetSize(h), 6);
    EXPECT_EQ(K_RedirectedClose(h), 0);
    // Independent check through the system with the UTF-8 spelling.
    std::string u8 = dirUtf8 + "/caf\xC3\xA9-\xE6\xBC\xA2\xF0\x9D\x84\x9E.bin";
    struct stat st;
    ASSERT_EQ(::stat(u8.c_str(), &st), 0);
    mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);  // an ordinary file, not a private one
    int fd = ::open(u8.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char b[8] = {};
    EXPECT_EQ(::read(fd, b, 8), 6);
    ::close(fd);
    EXPECT_STREQ(b, "pixels");
    // The UTF-8 entry point opens the same file.
    h = K_RedirectedOpenUtf8(u8.c_str(), REDIRECT_OPEN_READ, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(K_RedirectedSeek(h, -2, REDIRECT_SEEK_END), 4);
    EXPECT_EQ(K_RedirectedRead(h, b, 8), 2);
    EXPECT_EQ(K_RedirectedClose(h), 0);
    // Malformed wide names fail before reaching the system.
    if (sizeof(wchar_t) == 4) {
        std::wstring bad = wdir + L"/x";
        bad += wchar_t(0xDC00);
        EXPECT_EQ(K_RedirectedOpen(bad.c_str(), REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE, 0), invalid());
    }
    // Exclusive create, temporary (deleted at once) and truncate modes.
    EXPECT_EQ(K_RedirectedOpen(wname.c_str(), REDIRECT_OPEN_WRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_EXCLUSIVE,
                               0),
              invalid());
    h = K_RedirectedOpen(wname.c_str(), REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_TRUNCATE, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(K_RedirectedGetSize(h), 0);
    K_RedirectedClose(h);
    std::wstring tname = wdir + L"/gone.tmp";
    h = K_RedirectedOpen(tname.c_str(),
                         REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_TEMPORARY, 0);
    ASSERT_NE(h, invalid());
    EXPECT_EQ(::access((dirUtf8 + "/gone.tmp").c_str(), F_OK), -1);
    EXPECT_EQ(K_RedirectedWrite(h, "abc", 3), 3);  // still usable
    K_RedirectedClose(h);
    EXPECT_EQ(K_OsOpen(wname.c_str(), 0, 0, nullptr), OMBRIX_INVALID_FILE);  // no access bits
    EXPECT_EQ(K_OsRead(nullptr, b, 1, nullptr), -1);
    EXPECT_EQ(K_OsSeek(OMBRIX_INVALID_FILE, 0, 0, nullptr), -1);
    EXPECT_EQ(K_OsSeek(OMBRIX_OS_HANDLE(0), 0, 7, nullptr), -1);
}

TEST(RedirectOs, DiskFullIsAShortWrite) {
    int fd = ::open("/dev/full", O_WRONLY);
    if (fd < 0) GTEST_SKIP() << "no /dev/full";
    char b[64] = {};
    EXPECT_LE(K_OsWrite(OMBRIX_OS_HANDLE(fd), b, sizeof b, nullptr), 0);
    ::close(fd);
}

}  // namespace
