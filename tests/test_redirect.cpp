// test_redirect.cpp - redirect tables, redirected file handles, big transfers, the default layer, redirect names,
// the buffer file; kernel temporary files (positioned I/O, size, mapping, size limit, tables), names and folder.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <random>
#include <set>
#include <thread>

#include "check_list.h"
#include "krn/common/memory.h"
#include "krn/common/tempfile.h"
#include "ombrix.h"
#include "redirect_memfs.h"
#include "run_threads.h"

namespace {

using checklist::expectAll;
using krn::TempFile;
using testfs::MemFs;
const auto blank = testfs::blankTable;
using testfs::ScratchDir;
using testfs::StateGuard;
using Owned = std::unique_ptr<TempFile, krn::TempFileCloser>;
using Bytes = std::vector<uint8_t>;
namespace fi = krn::faultinject;
const uint32_t RW_CREATE = REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE;

REDIRECTRECORD get(int mode, int processWide = 0) {
    REDIRECTRECORD r{};
    EXPECT_EQ(K_GetRedirectFunctions(&r, REDIRECTRECORD_SIZE, mode, processWide), KS_SUCCESS);
    return r;
}
using Slots = std::array<const void*, 7>;  // the seven function slots, to compare tables whole
Slots slots(const REDIRECTRECORD& r) {
    return {(const void*)r.pfnOpen, (const void*)r.pfnRead,  (const void*)r.pfnWrite,  (const void*)r.pfnSeek,
            (const void*)r.pfnClose, (const void*)r.pfnSize, (const void*)r.pfnSetSize};
}
bool sameFunctions(const REDIRECTRECORD& a, const REDIRECTRECORD& b) { return slots(a) == slots(b); }
HREDIRECTFILE invalid() { return reinterpret_cast<HREDIRECTFILE>(OMBRIX_INVALID_FILE); }
int32_t myRead(void*, void*, uint32_t, void*) { return -1; }
std::wstring makeName(const REDIRECTRECORD& t, const wchar_t* inner) {
    wchar_t buf[1024];
    EXPECT_EQ(K_MakeRedirectName(&t, inner, buf, 1024), KS_SUCCESS);
    return buf;
}
int32_t install(REDIRECTRECORD t, int processWide = 0) { return MemFs::set(t, REDIRECT_SET_INSTALL, processWide); }
std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// A table installed on this thread is in force here and nowhere else; a fresh thread sees the defaults.
TEST(RedirectTables, ThreadTableDefaultsAndRedirectIOSlots) {
    StateGuard guard;
    MemFs fs;
    REDIRECTRECORD mine = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&mine, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    EXPECT_TRUE(sameFunctions(mine, fs.table()) && K_UsesRedirectIO() == 1);  // written back: the table in force
    std::thread([] {
        const REDIRECTRECORD d = get(REDIRECT_GET_DEFAULT), tmp = get(REDIRECT_GET_TEMPFILE);
        const Slots os = slots(d);
        EXPECT_EQ(Slots({os[0], os[1], os[2], os[3], os[4]}),
                  Slots({(const void*)&K_OsOpen, (const void*)&K_OsRead, (const void*)&K_OsWrite,
                         (const void*)&K_OsSeek, (const void*)&K_OsClose}));
        expectAll({IS(d.uStructSize, REDIRECTRECORD_SIZE), IS(d.uFlags | tmp.uFlags, 0),
                   IS(sameFunctions(get(REDIRECT_GET_IN_FORCE), d), 1),
                   IS(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), d), 1),
                   IS(slots(get(REDIRECT_GET_THREAD)) == Slots{}, 1), IS(tmp.pfnOpen == &K_RedirectedTempFileOpen, 1),
                   IS(tmp.pfnRead == &K_RedirectedTempFileRead, 1), IS(tmp.pfnClose == &K_RedirectedTempFileClose, 1),
                   IS(K_UsesRedirectIO(), 0)});
    }).join();
    MemFs procFs;
    ASSERT_EQ(install(procFs.table(), 1), KS_SUCCESS);
    int token;
    // open empty (process-wide), read given, write default, seek and close empty.
    ASSERT_EQ(K_RedirectIO(REDIRECT_EMPTY, (void*)&myRead, nullptr, REDIRECT_EMPTY, REDIRECT_EMPTY, &token), 1);
    const REDIRECTRECORD t = get(REDIRECT_GET_THREAD), f = get(REDIRECT_GET_IN_FORCE);
    EXPECT_EQ(slots(t), Slots({nullptr, (const void*)&myRead, (const void*)&K_OsWrite, nullptr, nullptr}));
    // In force: the process-wide slots under the thread's given ones (size slots follow the open function).
    EXPECT_EQ(slots(f), Slots({(const void*)&MemFs::open, (const void*)&myRead, (const void*)&K_OsWrite,
                               (const void*)&MemFs::seek, (const void*)&MemFs::close, (const void*)&MemFs::size,
                               (const void*)&MemFs::setSize}));
    expectAll({IS(t.pReadUserData == &token && t.pWriteUserData == &token, 1),
               IS(f.pOpenUserData == &procFs && f.pSeekUserData == &procFs, 1),
               IS(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), procFs.table()), 1), IS(K_UsesRedirectIO(), 1),
               // All zero: the default file layer for this thread, over any process-wide table.
               IS(K_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), KS_SUCCESS),
               IS(sameFunctions(get(REDIRECT_GET_IN_FORCE), get(REDIRECT_GET_DEFAULT)), 1), IS(K_UsesRedirectIO(), 0)});
}

// Refused arguments install nothing; a swap hands back the table it replaced, a reset puts back the defaults.
TEST(RedirectTables, FrameChecksSelectorsSwapResetAndNeverTorn) {
    StateGuard guard;
    MemFs a, b;
    REDIRECTRECORD ta = a.table(), tb = b.table(), r = blank(), partial = blank(), partial2 = blank(), big = blank();
    partial.pfnRead = &myRead, partial2.pfnWrite = &MemFs::write, big.uStructSize = 128;
    expectAll({IS(K_GetRedirectFunctions(nullptr, 64, 0, 0), KS_NULL_POINTER),
               IS(K_GetRedirectFunctions(&big, 60, 0, 0), KS_INVALID_STRUCT_SIZE),
               IS(K_GetRedirectFunctions(&big, 64, 4, 0), KS_INVALID_PARAMETER),
               IS(K_GetRedirectFunctions(&big, 64, -1, 0), KS_INVALID_PARAMETER),
               IS(K_SetRedirectFunctions(nullptr, 0, 0), KS_NULL_POINTER),
               IS(K_SetRedirectFunctions(&big, 0, 0), KS_INVALID_STRUCT_SIZE),
               IS(K_SetRedirectFunctions(&partial, 3, 0), KS_INVALID_PARAMETER),
               IS(K_SetRedirectFunctions(&partial, -1, 0), KS_INVALID_PARAMETER),
               IS(get(REDIRECT_GET_THREAD).pfnRead == nullptr, 1) /* nothing installed by the failures */,
               IS(K_SetRedirectFunctions(&ta, REDIRECT_SET_INSTALL, 1), 1),
               IS(K_SetRedirectFunctions(&tb, REDIRECT_SET_SWAP, 1), 1),
               IS(tb.pOpenUserData == &a, 1) /* got back what it replaced */,
               IS(get(REDIRECT_GET_IN_FORCE, 1).pOpenUserData == &b, 1),
               IS(K_SetRedirectFunctions(&r, REDIRECT_SET_RESET, 1), 1), IS(r.pOpenUserData == &b, 1),
               IS(sameFunctions(get(REDIRECT_GET_IN_FORCE, 1), get(REDIRECT_GET_DEFAULT)), 1),
               // Process-wide: null slots get the defaults; thread: they stay empty.
               IS(K_SetRedirectFunctions(&partial, REDIRECT_SET_INSTALL, 1), 1), IS(partial.pfnOpen == &K_OsOpen, 1),
               IS(partial.pfnRead == &myRead, 1), IS(K_SetRedirectFunctions(&partial2, REDIRECT_SET_INSTALL, 0), 1),
               IS(get(REDIRECT_GET_THREAD).pfnRead == nullptr, 1),
               IS(partial2.pfnRead == &myRead, 1) /* from the process table */,
               IS(partial2.pfnWrite == &MemFs::write, 1)});
    // Readers of the process-wide table never see half of one table and half of another while writers replace it.
    std::atomic<long> torn{0}, seen{0}, readersDone{0};
    ASSERT_EQ(install(a.table(), 1), KS_SUCCESS);
    onThreads(4, [&](int w) {  // two writers until the two readers are done
        for (int i = 0; w < 2 && readersDone.load() < 2; ++i) install(((i + w) & 1) ? a.table() : b.table(), 1);
        for (int i = 0; w >= 2 && i < 5000; ++i, ++seen) {
            const REDIRECTRECORD t = get(REDIRECT_GET_IN_FORCE, 1);
            for (void* v : {t.pOpenUserData, t.pReadUserData, t.pWriteUserData, t.pSeekUserData, t.pCloseUserData,
                            t.pSizeUserData, t.pSetSizeUserData}) torn += (v != &a && v != &b) || v != t.pOpenUserData;
        }
        readersDone += w >= 2;
    });
    EXPECT_TRUE(torn.load() == 0 && seen.load() == 10000);
}

// An open file keeps its table when the tables change; once closed, calls fail. Failed opens give the invalid
// handle; an allocation failure while wrapping closes what the table opened.
TEST(RedirectFiles, HandleKeepsItsTableAndOpenFailuresGiveInvalidHandle) {
    StateGuard guard;
    MemFs fs;
    REDIRECTRECORD x = blank();
    ASSERT_EQ(install(fs.table()), KS_SUCCESS);
    HREDIRECTFILE h = K_RedirectedOpen(L"img.bin", RW_CREATE, 0);
    ASSERT_TRUE(h != invalid() && fs.openNames.back() == L"img.bin");
    char b[8] = {};
    expectAll({IS(K_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), KS_SUCCESS),
               IS(K_RedirectedWrite(h, "hello", 5), 5), IS(K_RedirectedSeek(h, 1, REDIRECT_SEEK_SET), 1),
               IS(K_RedirectedRead(h, b, 8), 4), IS(std::string(b) == "ello", 1), IS(K_RedirectedGetSize(h), 5),
               IS(K_ExtractRedirectFunctions(h, &x), KS_SUCCESS), IS(sameFunctions(x, fs.table()), 1),
               IS(K_RedirectedClose(h), 0), IS(text(fs.files[L"img.bin"]) == "hello", 1),
               IS(K_RedirectedWrite(h, "x", 1), -1), IS(K_RedirectedClose(h), -1), IS(fs.writes, 1), IS(fs.closes, 1),
               IS(install(fs.table()), KS_SUCCESS)});
    fs.failOpenAt = fs.opens + 1;
    for (HREDIRECTFILE f :
         {K_RedirectedOpen(L"a", RW_CREATE, 0), K_RedirectedOpen(L"missing", REDIRECT_OPEN_READ, 0),
          K_RedirectedOpen(nullptr, REDIRECT_OPEN_READ, 0), K_RedirectedOpenUtf8("\xC0\x80", REDIRECT_OPEN_READ, 0)})
        EXPECT_EQ(f, invalid());
    const long before = fi::liveBlocks();
    EXPECT_EQ((fi::arm(0, 1), K_RedirectedOpen(L"b", RW_CREATE, 0)), invalid());
    fi::disarm();
    EXPECT_TRUE(fs.openHandles() == 0u && fi::liveBlocks() == before);
}

TEST(RedirectFiles, GarbageHandlesWrapExtractUpdateAndBigTransfers) {
    alignas(16) unsigned char junk[128];
    std::memset(junk, 0x5A, sizeof junk);
    HGLOBAL g = K_GlobalAlloc(GMEM_MOVEABLE, 64);  // a live handle of another kind
    ASSERT_NE(g, nullptr);
    char b[4];
    for (HREDIRECTFILE h : {HREDIRECTFILE(nullptr), invalid(), HREDIRECTFILE(junk), HREDIRECTFILE(g)}) {
        void* n;
        REDIRECTRECORD r = blank();
        expectAll({IS(K_RedirectedRead(h, b, 4), -1), IS(K_RedirectedWrite(h, b, 4), -1),
                   IS(K_RedirectedSeek(h, 0, 0), -1), IS(K_RedirectedClose(h), -1),
                   IS(K_RedirectedReadBig(h, b, 4), -1), IS(K_RedirectedWriteBig(h, b, 4), -1),
                   IS(K_RedirectedReadBig(h, b, 0), 0) /* a count of 0 returns 0 at once */,
                   IS(K_ExtractRedirectedFileHandle(h, &n, 0), KS_INVALID_PARAMETER),
                   IS(K_ExtractRedirectFunctions(h, &r), KS_INVALID_PARAMETER),
                   IS(K_UpdateRedirectFunctions(h, &r), KS_INVALID_PARAMETER)});
    }
    EXPECT_EQ(K_GlobalFree(g), nullptr);  // untouched by the refused calls
    StateGuard guard;
    MemFs fs, other;
    REDIRECTRECORD t = fs.table(), badSize = t, upd = blank();
    void* native = MemFs::open(L"w", RW_CREATE, 0, &fs);
    void* out = nullptr;
    HREDIRECTFILE h = nullptr;
    badSize.uStructSize = 63;
    upd.pfnWrite = &MemFs::write, upd.pWriteUserData = &other;  // only the write slot: `other` does not know the handle
    expectAll({IS(K_CreateRedirectedFileHandle(nullptr, native, &t), KS_INVALID_PARAMETER),
               IS(K_CreateRedirectedFileHandle(&h, nullptr, &t), KS_INVALID_PARAMETER),
               IS(K_CreateRedirectedFileHandle(&h, OMBRIX_INVALID_FILE, &t), KS_INVALID_PARAMETER),
               IS(K_CreateRedirectedFileHandle(&h, native, &badSize), KS_INVALID_STRUCT_SIZE), IS(h == nullptr, 1),
               IS(K_CreateRedirectedFileHandle(&h, native, &t), KS_SUCCESS), IS(K_RedirectedWrite(h, "abc", 3), 3),
               IS(K_UpdateRedirectFunctions(h, &upd), KS_SUCCESS), IS(K_RedirectedWrite(h, "d", 1), -1),
               IS(other.writes, 1), IS(K_RedirectedSeek(h, 0, REDIRECT_SEEK_END), 3) /* seek slot kept */,
               IS(K_ExtractRedirectedFileHandle(h, &out, 0), KS_SUCCESS), IS(out == native, 1),
               IS(K_ExtractRedirectedFileHandle(h, &out, 1), KS_SUCCESS) /* release the wrapper */,
               IS(K_RedirectedSeek(h, 0, 0), -1), IS(fs.openHandles(), 1) /* native not closed */,
               IS(MemFs::close(native, &fs), 0)});
    // The sink moves no bytes: it records each chunk asked for.
    testfs::CountingSink sink;
    REDIRECTRECORD sinkTable = sink.table();
    ASSERT_EQ(K_CreateRedirectedFileHandle(&h, reinterpret_cast<void*>(0x10), &sinkTable), KS_SUCCESS);
    char buf[1] = {0};  // never touched by the sink
    const uint32_t c = 0x7FFFFFFu;
    const uint64_t big = 5ull << 30;  // beyond 4 GiB: counted in 64 bits
    using Asks = std::vector<uint32_t>;
    const struct { bool write; uint64_t n, eof; long failAt; int64_t result; Asks asks; size_t chunks; } cases[] = {
        {false, 268435456ull, UINT64_MAX, 0, 268435456ll, {c, c, 2u}, 3}, {false, 1000, 0, 0, 0, {1000u}, 1},
        {true, big, UINT64_MAX, 0, int64_t(big), {} /* only counted */, (big - 1) / REDIRECT_CHUNK_BYTES + 1},
        {false, 1ull << 30, c + 10ull, 0, int64_t(c + 10ull), {c, c, c}, 3},
        {false, 1ull << 30, UINT64_MAX, 2, -1, {c, c}, 2}, {false, 0, UINT64_MAX, 0, 0, {}, 0}};
    for (const auto& k : cases) {
        sink = testfs::CountingSink();
        sink.eofAfter = k.eof, sink.failAt = k.failAt;
        EXPECT_EQ(k.write ? K_RedirectedWriteBig(h, buf, k.n) : K_RedirectedReadBig(h, buf, k.n), k.result) << k.n;
        ASSERT_EQ(sink.asks.size(), k.chunks) << k.n;
        uint64_t sum = 0, largest = 0;
        for (uint32_t a : sink.asks) sum += a, largest = std::max<uint64_t>(largest, a);
        EXPECT_TRUE((k.asks.empty() || sink.asks == k.asks) && largest <= REDIRECT_CHUNK_BYTES &&
                    (k.result != int64_t(k.n) || sum == k.n)) << k.n << ": " << largest << " " << sum;
    }
    void* n;
    K_ExtractRedirectedFileHandle(h, &n, 1);
}

TEST(RedirectOs, NonAsciiNamesReachTheSystemAndRedirectNamesRouteFiles) {
    StateGuard guard;
    ScratchDir dir;
    const std::wstring wdir(dir.path.begin(), dir.path.end()), wname = wdir + L"/caf\u00E9-\u6F22\U0001D11E.bin";
    HREDIRECTFILE h = K_RedirectedOpen(wname.c_str(), RW_CREATE, 0);
    ASSERT_NE(h, invalid());
    expectAll({IS(K_RedirectedWrite(h, "pixels", 6), 6), IS(K_RedirectedGetSize(h), 6), IS(K_RedirectedClose(h), 0)});
    // Independent check through the system with the UTF-8 spelling: an ordinary file, not a private one.
    const std::string u8 = dir.path + "/caf\xC3\xA9-\xE6\xBC\xA2\xF0\x9D\x84\x9E.bin";
    struct stat st;
    ASSERT_EQ(::stat(u8.c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    const int fd = ::open(u8.c_str(), O_RDONLY);
    char b[8] = {};
    EXPECT_TRUE((st.st_mode & 0777) == (0666u & ~mask) && ::read(fd, b, 8) == 6 && std::string(b) == "pixels");
    ::close(fd);
    h = K_RedirectedOpenUtf8(u8.c_str(), REDIRECT_OPEN_READ, 0);  // the UTF-8 entry point opens the same file
    // Malformed wide names fail before reaching the system; exclusive create of an existing file fails.
    const std::wstring bad = wdir + L"/x" + wchar_t(0xDC00);
    expectAll({IS(K_RedirectedSeek(h, -2, REDIRECT_SEEK_END), 4), IS(K_RedirectedRead(h, b, 8), 2),
               IS(K_RedirectedClose(h), 0),
               IS(sizeof(wchar_t) != 4 || K_RedirectedOpen(bad.c_str(), RW_CREATE, 0) == invalid(), 1),
               IS(K_RedirectedOpen(wname.c_str(), RW_CREATE | REDIRECT_OPEN_EXCLUSIVE, 0) == invalid(), 1)});
    h = K_RedirectedOpen(wname.c_str(), REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_TRUNCATE, 0);
    expectAll({IS(K_RedirectedGetSize(h), 0), IS(K_RedirectedClose(h), 0)});
    h = K_RedirectedOpen((wdir + L"/gone.tmp").c_str(), RW_CREATE | REDIRECT_OPEN_TEMPORARY, 0);  // deleted at once
    expectAll({IS(h != invalid(), 1), IS(::access((dir.path + "/gone.tmp").c_str(), F_OK), -1),
               IS(K_RedirectedWrite(h, "abc", 3), 3) /* still usable */, IS(K_RedirectedClose(h), 0),
               IS(K_OsOpen(wname.c_str(), 0, 0, nullptr) == OMBRIX_INVALID_FILE, 1) /* no access bits */,
               IS(K_OsRead(nullptr, b, 1, nullptr), -1), IS(K_OsSeek(OMBRIX_INVALID_FILE, 0, 0, nullptr), -1),
               IS(K_OsSeek(OMBRIX_OS_HANDLE(0), 0, 7, nullptr), -1)});
    const int full = ::open("/dev/full", O_WRONLY);  // a full disk is a short write
    EXPECT_TRUE(full < 0 || K_OsWrite(OMBRIX_OS_HANDLE(full), b, sizeof b, nullptr) <= 0);
    ::close(full);
    MemFs fs;
    REDIRECTRECORD t = fs.table(), d{};
    t.uFlags = 0xA5;
    const std::wstring name = makeName(t, L"dir/page 1.tif");
    std::vector<wchar_t> exact(name.size() + 1);  // room for the terminator, and one less
    uint32_t start = 0;
    expectAll({IS(name.rfind(REDIRECT_NAME_PREFIX, 0), 0),
               IS(K_MakeRedirectName(&t, L"dir/page 1.tif", exact.data(), uint32_t(exact.size())), KS_SUCCESS),
               IS(K_MakeRedirectName(&t, L"dir/page 1.tif", exact.data(), uint32_t(name.size())), KS_BUFFER_TOO_SMALL),
               IS(K_DecodeRedirectName(name.c_str(), &d, &start), KS_SUCCESS), IS(std::memcmp(&d, &t, sizeof t), 0),
               IS(name.substr(start) == L"dir/page 1.tif", 1)});
    // The thread's table is the default layer; the name alone routes the file.
    h = K_RedirectedOpen(name.c_str(), RW_CREATE, 0);
    ASSERT_NE(h, invalid());
    expectAll({IS(fs.openNames.back() == L"dir/page 1.tif", 1), IS(K_RedirectedWrite(h, "data", 4), 4),
               IS(K_RedirectedClose(h), 0), IS(fs.files[L"dir/page 1.tif"].size(), 4)});
    char routed[1024];  // the UTF-8 entry point too; an empty inner name is allowed
    ASSERT_EQ(K_WideToUtf8(makeName(t, nullptr).c_str(), -1, routed, sizeof routed, nullptr), KS_SUCCESS);
    h = K_RedirectedOpenUtf8(routed, RW_CREATE, 0);
    EXPECT_TRUE(h != invalid() && fs.openNames.back() == L"");
    K_RedirectedClose(h);
    // A forged name with plausible fields is refused and reaches no table (the names fuzz target: random edits).
    const wchar_t* forged = L"ORVARedirect://1.0.1.0.1.0.1.0.1.0.1.0.0.0.0.0.0123456789abcdef/a";
    const long opens = fs.opens;
    expectAll({IS(K_DecodeRedirectName(forged, &d, nullptr), KS_INVALID_PARAMETER),
               IS(K_RedirectedOpen(forged, REDIRECT_OPEN_READ, 0) == invalid(), 1), IS(fs.opens, opens)});
}

// Reads, writes, seeks, fixed and growing buffers and the content against a model: the buffer fuzz target. Here:
// refused arguments, an empty buffer, a stopped buffer's table refuses to open, every allocation failing in turn.
TEST(RedirectBuffer, ArgumentsEmptyContentAndAllocationFailures) {
    HREDIRECTBUFFER b = nullptr;
    HREDIRECTFILE f = nullptr;
    REDIRECTRECORD t{}, own = blank();
    HGLOBAL out = reinterpret_cast<HGLOBAL>(1);
    uint64_t size = 7;
    expectAll({IS(K_StartRedirectToBuffer(nullptr, nullptr, 0, nullptr, 0, 0), KS_INVALID_PARAMETER),
               IS(K_StartRedirectToBuffer(&b, nullptr, 0x80, nullptr, 0, 0), KS_INVALID_PARAMETER), IS(b == nullptr, 1),
               IS(K_StartRedirectToBuffer(&b, &f, 0, nullptr, 0, 0), KS_SUCCESS), IS(K_RedirectedClose(f), 0),
               IS(K_GetRedirectBufferTable(b, &t), KS_INVALID_STRUCT_SIZE),
               IS(K_GetRedirectBufferTable(b, nullptr), KS_NULL_POINTER), IS(K_GetRedirectBufferTable(b, &own), 1),
               IS(K_StopRedirectToBuffer(b, &out, &size), KS_SUCCESS), IS(out == nullptr, 1), IS(size, 0),
               IS(own.pfnOpen(L"x", RW_CREATE, 0, own.pOpenUserData) == OMBRIX_INVALID_FILE, 1),
               IS(K_StopRedirectToBuffer(b, nullptr, nullptr), KS_INVALID_PARAMETER),
               IS(K_StopRedirectToBuffer(nullptr, nullptr, nullptr), KS_INVALID_PARAMETER)});
    // Every allocation of the start fails in turn (the registries are warm from above).
    const long base = fi::liveBlocks();
    int failures = 0;
    for (long n = 0; n < 20; ++n, ++failures) {
        b = nullptr;
        fi::arm(n, 1);
        const int32_t rc = K_StartRedirectToBuffer(&b, &f, 0, nullptr, 64, 0);
        const bool injected = fi::injected() > 0;
        fi::disarm();
        if (rc == KS_SUCCESS) {
            expectAll({IS(injected, 0), IS(K_RedirectedWrite(f, "abc", 3), 3), IS(K_RedirectedClose(f), 0),
                       IS(K_StopRedirectToBuffer(b, nullptr, nullptr), KS_SUCCESS)});
            break;
        }
        EXPECT_TRUE(rc == KS_NO_MEMORY && b == nullptr && fi::liveBlocks() == base) << "step " << n;
    }
    EXPECT_TRUE(failures >= 2 && fi::liveBlocks() == base);
}

Bytes randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}
void setOptions(uint32_t flags, uint32_t maxMiB = 0) {
    TEMPFILEOPTIONS o{};
    K_GetTempFileOptions(&o, TEMPFILEOPTIONS_SIZE);
    o.uFlags = flags, o.uMaxFileMiB = maxMiB;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
}
Owned create() {
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    return Owned(f);
}
Bytes readBack(TempFile* f, uint64_t off, size_t n) {
    Bytes b(n, 0xEE);
    EXPECT_EQ(krn::tempRead(f, off, b.data(), n), KS_SUCCESS);
    return b;
}

class TempFileBoth : public ::testing::TestWithParam<bool> {};

// Anonymous and named files against a plain model: scattered writes, reads past the end, sparse growth past 4 and
// 8 GiB, shrinking, a mapped window agreeing with positioned I/O; no name left in the folder.
TEST_P(TempFileBoth, PositionedIoSizeAndMappingAgreeWithAModel) {
    StateGuard guard;
    ScratchDir dir;
    setOptions(GetParam() ? TEMPFILE_OPT_NAMED : 0);
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    Owned own = create();
    TempFile* f = own.get();
    ASSERT_TRUE(f && !krn::tempIsRedirected(f) && dir.entries().empty());
    Bytes model(300000, 0), back(model.size());
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        const size_t off = rng() % 290000, n = std::min<size_t>(1 + rng() % 10000, model.size() - off);
        auto bytes = randomBytes(n, uint32_t(i));
        ASSERT_EQ(krn::tempWrite(f, off, bytes.data(), n), KS_SUCCESS);
        std::memcpy(model.data() + off, bytes.data(), n);
    }
    expectAll({IS(krn::tempSetSize(f, model.size()), KS_SUCCESS), IS(krn::tempSize(f), model.size()),
               IS(readBack(f, 0, model.size()) == model, 1),
               IS(krn::tempRead(f, 0, back.data(), model.size() + 1), KS_FILE_READ) /* one byte beyond the end */,
               IS(krn::tempRead(f, model.size(), back.data(), 1), KS_FILE_READ)});
    // A mapped window (not page aligned, growing the file) and positioned I/O see the same bytes.
    const uint64_t off = 3 * 4096 + 123 + model.size();
    const size_t n = 50000;
    krn::TempMapping m, r;
    ASSERT_TRUE(krn::tempMap(f, off, n, true, &m) == KS_SUCCESS && krn::tempSize(f) >= int64_t(off + n));
    auto a = randomBytes(n, 11), b = randomBytes(1000, 12);
    std::memcpy(m.data, a.data(), n);
    expectAll({IS(readBack(f, off, n) == a, 1), IS(krn::tempWrite(f, off + 777, b.data(), b.size()), KS_SUCCESS),
               IS(std::memcmp(m.data + 777, b.data(), b.size()), 0), IS((krn::tempUnmap(&m), m.data == nullptr), 1)});
    krn::tempUnmap(&m);  // twice is harmless
    ASSERT_EQ(krn::tempMap(f, off + 777, b.size(), false, &r), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(r.data, b.data(), b.size()), 0);
    krn::tempUnmap(&r);
    // Sparse growth reads zeros; above 4 GiB; shrinking keeps the head.
    const uint64_t g4 = uint64_t(1) << 32, g8 = uint64_t(1) << 33;
    const Bytes hi = {9, 8, 7, 6};
    expectAll({IS(krn::tempMap(f, uint64_t(krn::tempSize(f)) - 10, 11, false, &r), KS_FILE_READ),
               IS(krn::tempMap(f, 0, 0, false, &r), KS_INVALID_PARAMETER), IS(krn::tempSetSize(f, g8), KS_SUCCESS),
               IS(krn::tempSize(f), g8), IS(readBack(f, g8 - 16, 16) == Bytes(16, 0), 1),
               IS(krn::tempWrite(f, g4 + 5, hi.data(), 4), KS_SUCCESS), IS(readBack(f, g4 + 5, 4) == hi, 1),
               IS(krn::tempSetSize(f, 2), KS_SUCCESS), IS(krn::tempSize(f), 2),
               IS(readBack(f, 0, 2) == Bytes(model.begin(), model.begin() + 2), 1),
               IS((own.reset(), dir.entries().empty()), 1)});
}
INSTANTIATE_TEST_SUITE_P(AnonymousAndNamed, TempFileBoth, ::testing::Values(false, true));

// The size limit is exact at the edge, for mappings too; the built-in table's files get a short write; a caller's
// table has no mapping. A file-size resource limit stops system writes part way, as a full disk does.
TEST(TempFile, SizeLimitFullDiskModeOptionsAndThroughATable) {
    StateGuard guard;
    setOptions(0, 1);
    Owned f = create();
    Bytes data(4096, 0x5A);
    krn::TempMapping m, m2;
    expectAll({IS(krn::tempMaxFileBytes(), 1 << 20),
               IS(krn::tempWrite(f.get(), (1 << 20) - 4096, data.data(), 4096), KS_SUCCESS),
               IS(krn::tempWrite(f.get(), (1 << 20) - 4095, data.data(), 4096), KS_FILE_WRITE),
               IS(krn::tempWrite(f.get(), uint64_t(1) << 40, data.data(), 1), KS_FILE_WRITE),
               IS(krn::tempSetSize(f.get(), (1 << 20) + 1), KS_FILE_WRITE),
               IS(krn::tempSetSize(f.get(), 1 << 20), KS_SUCCESS),
               IS(krn::tempMap(f.get(), 1 << 20, 1, true, &m), KS_FILE_WRITE), IS(m.data == nullptr, 1),
               IS(krn::tempMap(f.get(), 0, 1 << 20, true, &m2), KS_SUCCESS)});
    krn::tempUnmap(&m2);
    void* h = K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr);
    std::vector<char> d(1 << 20, 'a');
    MemFs fs;
    expectAll({IS(h != OMBRIX_INVALID_FILE, 1),
               IS(K_RedirectedTempFileWrite(h, d.data(), uint32_t(d.size() - 10), nullptr), d.size() - 10),
               IS(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 10),
               IS(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 0),
               IS(K_RedirectedTempFileClose(h, nullptr), 0), IS(fs.install(), KS_SUCCESS),
               IS(krn::tempMap(create().get(), 0, 10, true, &m), KS_NOT_SUPPORTED), IS(fs.uninstall(), KS_SUCCESS)});
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldSig)(int) = signal(SIGXFSZ, SIG_IGN);
    setOptions(0, 0);
    f = create();
    struct rlimit lim = old;
    lim.rlim_cur = 65536;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    const int64_t partial = krn::tempWrite(f.get(), 0, d.data(), d.size()),
                  within = krn::tempWrite(f.get(), 0, d.data(), 65536), grow = krn::tempSetSize(f.get(), 1 << 20),
                  map = krn::tempMap(f.get(), 60000, 10000, true, &m);
    HREDIRECTFILE probe = K_RedirectedOpen(L"/tmp/ombrix_fsize_probe", RW_CREATE | REDIRECT_OPEN_TEMPORARY, 0);
    const int64_t big = K_RedirectedWriteBig(probe, d.data(), d.size());  // the bytes that fitted, then it stops
    K_RedirectedClose(probe);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, oldSig);
    expectAll({IS(partial, KS_FILE_WRITE), IS(within, KS_SUCCESS), IS(grow, KS_FILE_WRITE), IS(map, KS_FILE_WRITE),
               IS(big, 65536)});
    krn::tempUnmap(&m);
    // Mode 0 is stored as 2; mode 3 keeps all off the disk unless a caller's table decides; -1 keeps the mode.
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 0, 0, 0, {11, 22}}, back{};
    TempFile* raw = nullptr;
    expectAll({IS(K_SetTempFileOptions(&o), KS_SUCCESS), IS(K_GetTempFileMode(), 2), IS(krn::tempDiskAllowed(), 1),
               IS((o.nMode = 3, K_SetTempFileOptions(&o)), KS_SUCCESS), IS(krn::tempFileMode(), 3),
               IS(krn::tempDiskAllowed(), 0), IS(krn::tempCreate(&raw), KS_NOT_SUPPORTED),
               IS(K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr) == OMBRIX_INVALID_FILE, 1),
               IS(fs.install(), KS_SUCCESS), IS(bool(create()), 1), IS(fs.uninstall(), KS_SUCCESS),
               IS((o.nMode = -1, K_SetTempFileOptions(&o)), KS_SUCCESS),
               IS(K_GetTempFileOptions(&back, TEMPFILEOPTIONS_SIZE), KS_SUCCESS), IS(back.nMode, 3),
               IS((o.nMode = 4, K_SetTempFileOptions(&o)), KS_INVALID_PARAMETER),
               IS((o.nMode = 1, o.uStructSize = 20, K_SetTempFileOptions(&o)), KS_INVALID_STRUCT_SIZE),
               IS(K_GetTempFileOptions(&back, 28), KS_INVALID_STRUCT_SIZE), IS(K_GetTempFileMode(), 3)});
    // Through a table (a memory file system; the folder is its business): round trip, deleted on close; each failing
    // call gives its code, a short write is an error, short reads are completed; without size slots the file grows by
    // its last byte and cannot be cut.
    MemFs tfs;
    ASSERT_TRUE(tfs.install() == KS_SUCCESS && K_SetTempDirectoryUtf8("/nowhere/at/all") == KS_SUCCESS);
    f = create();
    ASSERT_EQ(tfs.opens, 1);
    const uint32_t want = REDIRECT_OPEN_TEMPORARY | RW_CREATE;
    const std::wstring& name = tfs.openNames[0], prefix = L"/nowhere/at/all/QX";  // the folder, QX, 8 hex digits, .tmp
    auto a = randomBytes(70000, 1);
    Bytes want2(100000, 0);
    std::copy(a.begin(), a.end(), want2.begin() + 20000);
    expectAll({IS(krn::tempIsRedirected(f.get()), 1), IS(tfs.openModes[0] & want, want), IS(name.rfind(prefix, 0), 0),
               IS(name.size(), prefix.size() + 8 + 4), IS(name.substr(name.size() - 4) == L".tmp", 1),
               IS(krn::tempSetSize(f.get(), 100000), KS_SUCCESS),
               IS(krn::tempWrite(f.get(), 20000, a.data(), a.size()), KS_SUCCESS),
               IS(readBack(f.get(), 0, 100000) == want2, 1), IS(krn::tempSize(f.get()), 100000),
               IS(tfs.files.size(), 1), IS((f.reset(), tfs.closes), 1), IS(tfs.files.empty(), 1),
               IS(tfs.openHandles(), 0)});
    tfs.failOpenAt = tfs.opens + 1;
    raw = nullptr;
    EXPECT_TRUE(krn::tempCreate(&raw) == KS_FILE_OPEN && raw == nullptr);
    f = create();
    uint8_t b[64] = {};
    expectAll({IS((tfs.failWriteAt = tfs.writes + 1, krn::tempWrite(f.get(), 0, b, sizeof b)), KS_FILE_WRITE),
               IS(krn::tempWrite(f.get(), 0, b, sizeof b), KS_SUCCESS),
               IS((tfs.failReadAt = tfs.reads + 1, krn::tempRead(f.get(), 0, b, sizeof b)), KS_FILE_READ),
               IS(krn::tempRead(f.get(), 0, b, sizeof b), KS_SUCCESS),
               IS((tfs.failSeekAt = tfs.seeks + 1, krn::tempRead(f.get(), 0, b, sizeof b)), KS_FILE_SEEK),
               IS((tfs.failSeekAt = tfs.seeks + 1, krn::tempWrite(f.get(), 0, b, sizeof b)), KS_FILE_SEEK),
               IS(krn::tempRead(f.get(), 0, b, sizeof b), KS_SUCCESS),
               IS((tfs.capacity = 1000, krn::tempWrite(f.get(), 0, d.data(), 600)), KS_SUCCESS),
               IS(krn::tempWrite(f.get(), 600, d.data(), 600), KS_FILE_WRITE) /* 400 fit */,
               IS(krn::tempSetSize(f.get(), 5000), KS_FILE_WRITE)});
    tfs.capacity = UINT64_MAX, tfs.readLimitPerCall = 7;
    f = create();
    const long reads = tfs.reads;
    ASSERT_EQ(krn::tempWrite(f.get(), 0, a.data(), 1000), KS_SUCCESS);
    EXPECT_TRUE(readBack(f.get(), 0, 1000) == Bytes(a.begin(), a.begin() + 1000) && tfs.reads - reads >= 1000 / 7);
    REDIRECTRECORD t = tfs.table();
    t.pfnSize = nullptr, t.pfnSetSize = nullptr;
    ASSERT_EQ(install(t), KS_SUCCESS);
    f = create();
    expectAll({IS(krn::tempSetSize(f.get(), 12345), KS_SUCCESS), IS(krn::tempSize(f.get()), 12345),
               IS(tfs.writeAsks.back(), 1), IS(krn::tempSetSize(f.get(), 100), KS_FILE_WRITE),
               IS(krn::tempSetSize(f.get(), 12345), KS_SUCCESS)});
    f.reset();  // closed through tfs, which goes first
}

// The built-in temporary-file table in force does not recurse; through a handle it is a positioned file, dead
// after close for every function.
TEST(TempFile, BuiltInTableIsAPositionedFileAndAllocationFailureLeavesNothing) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    const REDIRECTRECORD t = get(REDIRECT_GET_TEMPFILE);
    ASSERT_EQ(install(t), KS_SUCCESS);
    Owned f = create();
    const Bytes x = {1, 2, 3};
    EXPECT_EQ(krn::tempWrite(f.get(), 10, x.data(), 3), KS_SUCCESS);
    EXPECT_EQ(readBack(f.get(), 10, 3), x);
    void* native = t.pfnOpen(L"IMG", 0, 0, nullptr);
    ASSERT_TRUE(native != OMBRIX_INVALID_FILE && dir.entries().empty());
    HREDIRECTFILE h = nullptr;
    char b[4] = {};
    int junk[8] = {};
    expectAll({IS(K_CreateRedirectedFileHandle(&h, native, &t), KS_SUCCESS),
               IS(K_RedirectedWrite(h, "0123456789", 10), 10), IS(K_RedirectedSeek(h, 2, REDIRECT_SEEK_SET), 2),
               IS(K_RedirectedRead(h, b, 3), 3), IS(std::string(b) == "234", 1),
               IS(K_RedirectedSeek(h, -1, REDIRECT_SEEK_END), 9), IS(K_RedirectedSeek(h, -20, REDIRECT_SEEK_CUR), -1),
               IS(K_RedirectedRead(h, b, 3), 1), IS(K_RedirectedRead(h, b, 3), 0) /* end of file */,
               IS(K_RedirectedTempFileWriteBig(native, "abcdef", 6, nullptr), 6), IS(K_RedirectedGetSize(h), 16),
               IS(K_RedirectedTempFileSetSize(native, 4, nullptr), 0), IS(K_RedirectedTempFileSize(native, nullptr), 4),
               IS(K_RedirectedClose(h), 0), IS(K_RedirectedTempFileRead(native, b, 1, nullptr), -1),
               IS(K_RedirectedTempFileClose(native, nullptr), -1),
               IS(K_RedirectedTempFileWrite(junk, b, 1, nullptr), -1),
               IS(K_RedirectedTempFileSeek(nullptr, 0, 0, nullptr), -1)});
    // Without a table, an allocation failure at creation leaves no block and no descriptor.
    ASSERT_EQ(MemFs::uninstall(), KS_SUCCESS);
    create().reset();  // the per-thread and process-wide state exists before the counts
    const long blocks = fi::liveBlocks();
    const int fds = testfs::openFdCount();
    TempFile* g = nullptr;
    expectAll({IS((fi::arm(0, 1), krn::tempCreate(&g)), KS_NO_MEMORY), IS((fi::disarm(), g == nullptr), 1),
               IS(fi::liveBlocks(), blocks), IS(testfs::openFdCount(), fds)});
}

bool isHexName(const std::string& leaf, const std::string& prefix) {
    if (leaf.size() != prefix.size() + 12 || leaf.rfind(prefix, 0) != 0 || leaf.substr(leaf.size() - 4) != ".tmp")
        return false;
    return std::all_of(leaf.begin() + long(prefix.size()), leaf.end() - 4,
                       [](unsigned char c) { return isxdigit(c) != 0; });
}

// Unique names are created (private files) and distinct; numbered names create nothing; bad prefixes and folders;
// the folder itself.
TEST(RedirectTempNames, UniqueAndNumberedNamesAndTheFolder) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8((dir.path + "/").c_str()), KS_SUCCESS);  // trailing slash dropped
    std::set<std::string> names;
    for (int i = 0; i < 200; ++i) {
        char n[OMBRIX_TEMP_NAME_CHARS];
        struct stat st;  // the name is taken, by a private file
        ASSERT_TRUE(K_GetTempFileNameUtf8(n, nullptr) == KS_SUCCESS && std::string(n).rfind(dir.path + "/", 0) == 0 &&
                    isHexName(n + dir.path.size() + 1, "QX") && ::stat(n, &st) == 0 && (st.st_mode & 0777) == 0600 &&
                    names.insert(n).second) << n;
    }
    EXPECT_EQ(dir.entries().size(), 200u);
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    char u8[OMBRIX_TEMP_NAME_CHARS * 4];
    ASSERT_EQ(K_GetTempFileName(w, L"AB"), KS_SUCCESS);
    ASSERT_EQ(K_WideToUtf8(w, -1, u8, sizeof u8, nullptr), KS_SUCCESS);
    EXPECT_TRUE(isHexName(std::string(u8).substr(dir.path.size() + 1), "AB")) << u8;
    expectAll({IS(K_DeleteTempFile(w), KS_SUCCESS), IS(K_DeleteTempFile(w), KS_FILE_NOT_FOUND),
               IS(K_DeleteTempFileUtf8(names.begin()->c_str()), KS_SUCCESS),
               IS(K_DeleteTempFile(nullptr), KS_INVALID_PARAMETER)});
    const size_t entries = dir.entries().size();
    char a[OMBRIX_TEMP_NAME_CHARS], b[OMBRIX_TEMP_NAME_CHARS];
    expectAll({IS(K_GetTempFileNameNumberedUtf8(a, "QX", 0xBEEF), KS_SUCCESS),
               IS(K_GetTempFileNameNumberedUtf8(b, "QX", 0xBEEF), KS_SUCCESS), IS(std::string(a) == b, 1),
               IS(std::string(a) == dir.path + "/QX0000BEEF.tmp", 1), IS(dir.entries().size(), entries),
               IS(K_GetTempFileNameNumbered(w, L"Z", 1), KS_SUCCESS),
               IS(std::wstring(w).find(L"/Z00000001.tmp"), wcslen(w) - 14),
               IS(K_GetTempFileNameNumberedUtf8(a, "QX", 0), KS_INVALID_PARAMETER),
               IS(K_GetTempFileNameNumberedUtf8(a, "ABCD", 5), KS_INVALID_PARAMETER),
               IS(K_GetTempFileNameNumberedUtf8(a, "a.b", 5), KS_INVALID_PARAMETER),
               IS(K_GetTempFileName(w, L"\u00E9"), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8("/nonexistent-ombrix-folder"), KS_SUCCESS),
               IS(K_GetTempFileNameUtf8(a, nullptr), KS_FILE_OPEN),
               IS(K_SetTempDirectoryUtf8(("/tmp/" + std::string(300, 'd')).c_str()), KS_SUCCESS),
               IS(K_GetTempFileNameUtf8(a, nullptr), KS_BUFFER_TOO_SMALL),
               IS(K_GetTempFileNameNumberedUtf8(a, nullptr, 3), KS_BUFFER_TOO_SMALL)});
    // The folder: round trips in both encodings; refused values keep the folder.
    const wchar_t* dirW = L"/tmp/\u5199\u771F/images";
    const char* dirU8 = "/tmp/\xE5\x86\x99\xE7\x9C\x9F/images";
    wchar_t back[64];
    expectAll({IS(K_SetTempDirectory(dirW), KS_SUCCESS), IS(K_GetTempDirectory(back, 64), KS_SUCCESS),
               IS(std::wstring(back) == dirW, 1), IS(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS),
               IS(std::string(u8) == dirU8, 1), IS(K_GetTempDirectory(back, 5), KS_BUFFER_TOO_SMALL)});
    const wchar_t bad[] = {L'/', wchar_t(0xD800), 0};
    expectAll({IS(K_SetTempDirectoryUtf8("/tmp/\xC0\x80"), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8(std::string(1024, 'a').c_str()), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8(std::string(1023, 'a').c_str()), KS_SUCCESS),
               IS(K_SetTempDirectory(dirW), KS_SUCCESS),
               IS(sizeof(wchar_t) != 4 || K_SetTempDirectory(bad) == KS_INVALID_PARAMETER, 1),
               IS(K_GetTempDirectory(back, 64), KS_SUCCESS), IS(std::wstring(back) == dirW, 1),
               IS(K_SetTempDirectory(nullptr), KS_SUCCESS), IS(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS),
               IS(std::string(u8) != dirU8, 1)});
}

}  // namespace
