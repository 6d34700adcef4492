// test_redirect_tempfile.cpp - kernel temporary files (positioned I/O, size, delete-on-close, the size
// limit as a full disk, mapping, files through a caller's table and their failures, threads, allocation
// failure), the built-in temporary-file table, unique temporary names and the temporary folder.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "check_list.h"
#include "krn/common/memory.h"
#include "krn/common/tempfile.h"
#include "ombrix.h"
#include "redirect_memfs.h"

namespace {

using checklist::expectAll;
using krn::TempFile;
using testfs::MemFs;
using testfs::ScratchDir;
using testfs::StateGuard;
using Owned = std::unique_ptr<TempFile, krn::TempFileCloser>;
using Bytes = std::vector<uint8_t>;

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

// Anonymous and named files: scattered overlapping writes against a plain model, reads past the end, sparse
// growth past 4 and 8 GiB, shrinking, and a mapped window that agrees with positioned I/O; no name in the folder.
TEST_P(TempFileBoth, PositionedIoSizeAndMappingAgreeWithAModel) {
    StateGuard guard;
    ScratchDir dir;
    setOptions(GetParam() ? TEMPFILE_OPT_NAMED : 0);
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    Owned own = create();
    TempFile* f = own.get();
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(!krn::tempIsRedirected(f) && dir.entries().empty());
    Bytes model(300000, 0), back(model.size());
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        const size_t off = rng() % 290000, n = std::min<size_t>(1 + rng() % 10000, model.size() - off);
        auto bytes = randomBytes(n, uint32_t(i));
        ASSERT_EQ(krn::tempWrite(f, off, bytes.data(), n), KS_SUCCESS);
        std::memcpy(model.data() + off, bytes.data(), n);
    }
    ASSERT_EQ(krn::tempSetSize(f, model.size()), KS_SUCCESS);
    EXPECT_TRUE(krn::tempSize(f) == int64_t(model.size()) && readBack(f, 0, model.size()) == model);
    EXPECT_EQ(krn::tempRead(f, 0, back.data(), model.size() + 1), KS_FILE_READ);  // one byte beyond the end
    EXPECT_EQ(krn::tempRead(f, model.size(), back.data(), 1), KS_FILE_READ);
    // A mapped window (not page aligned, growing the file) and positioned I/O see the same bytes.
    const uint64_t off = 3 * 4096 + 123 + model.size();
    const size_t n = 50000;
    krn::TempMapping m, r;
    ASSERT_EQ(krn::tempMap(f, off, n, true, &m), KS_SUCCESS);
    EXPECT_GE(krn::tempSize(f), int64_t(off + n));
    auto a = randomBytes(n, 11), b = randomBytes(1000, 12);
    std::memcpy(m.data, a.data(), n);
    EXPECT_EQ(readBack(f, off, n), a);
    ASSERT_EQ(krn::tempWrite(f, off + 777, b.data(), b.size()), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(m.data + 777, b.data(), b.size()), 0);
    krn::tempUnmap(&m);
    EXPECT_EQ(m.data, nullptr);
    krn::tempUnmap(&m);  // twice is harmless
    ASSERT_EQ(krn::tempMap(f, off + 777, b.size(), false, &r), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(r.data, b.data(), b.size()), 0);
    krn::tempUnmap(&r);
    EXPECT_EQ(krn::tempMap(f, uint64_t(krn::tempSize(f)) - 10, 11, false, &r), KS_FILE_READ);
    EXPECT_EQ(krn::tempMap(f, 0, 0, false, &r), KS_INVALID_PARAMETER);
    // Sparse growth reads zeros; above 4 GiB; shrinking keeps the head.
    const uint64_t g4 = uint64_t(1) << 32, g8 = uint64_t(1) << 33;
    const Bytes hi = {9, 8, 7, 6};
    ASSERT_EQ(krn::tempSetSize(f, g8), KS_SUCCESS);
    EXPECT_TRUE(krn::tempSize(f) == int64_t(g8) && readBack(f, g8 - 16, 16) == Bytes(16, 0));
    ASSERT_EQ(krn::tempWrite(f, g4 + 5, hi.data(), 4), KS_SUCCESS);
    EXPECT_EQ(readBack(f, g4 + 5, 4), hi);
    ASSERT_EQ(krn::tempSetSize(f, 2), KS_SUCCESS);
    EXPECT_TRUE(krn::tempSize(f) == 2 && readBack(f, 0, 2) == Bytes(model.begin(), model.begin() + 2));
    own.reset();
    EXPECT_TRUE(dir.entries().empty());
}
INSTANTIATE_TEST_SUITE_P(AnonymousAndNamed, TempFileBoth, ::testing::Values(false, true));

// The size limit: exact at the edge, a mapping stops there too; the built-in table's files get a short
// write; through a caller's table there is no mapping.
TEST(TempFile, SizeLimitActsAsFullDisk) {
    StateGuard guard;
    setOptions(0, 1);
    Owned f = create();
    Bytes data(4096, 0x5A);
    krn::TempMapping m, m2;
    expectAll({IS(krn::tempMaxFileBytes(), 1 << 20), IS(krn::tempWrite(f.get(), (1 << 20) - 4096, data.data(), 4096), KS_SUCCESS),
               IS(krn::tempWrite(f.get(), (1 << 20) - 4095, data.data(), 4096), KS_FILE_WRITE),
               IS(krn::tempWrite(f.get(), uint64_t(1) << 40, data.data(), 1), KS_FILE_WRITE),
               IS(krn::tempSetSize(f.get(), (1 << 20) + 1), KS_FILE_WRITE), IS(krn::tempSetSize(f.get(), 1 << 20), KS_SUCCESS),
               IS(krn::tempMap(f.get(), 1 << 20, 1, true, &m), KS_FILE_WRITE), IS(m.data == nullptr, 1),
               IS(krn::tempMap(f.get(), 0, 1 << 20, true, &m2), KS_SUCCESS)});
    krn::tempUnmap(&m2);
    void* h = K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr);
    ASSERT_NE(h, OMBRIX_INVALID_FILE);
    std::vector<char> d(1 << 20, 'a');
    MemFs fs;
    expectAll({IS(K_RedirectedTempFileWrite(h, d.data(), uint32_t(d.size() - 10), nullptr), d.size() - 10),
               IS(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 10), IS(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 0),
               IS(K_RedirectedTempFileClose(h, nullptr), 0), IS(fs.install(), KS_SUCCESS),
               IS(krn::tempMap(create().get(), 0, 10, true, &m), KS_NOT_SUPPORTED)});
}

// A real short write from the system: the file-size resource limit stops writes part way, as a full disk
// does (EFBIG instead of ENOSPC).
TEST(TempFile, SystemShortWriteIsReported) {
    StateGuard guard;
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldSig)(int) = signal(SIGXFSZ, SIG_IGN);
    Owned f = create();
    struct rlimit lim = old;
    lim.rlim_cur = 65536;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    Bytes d(100000, 0x33);
    krn::TempMapping m;
    const int64_t partial = krn::tempWrite(f.get(), 0, d.data(), d.size()), within = krn::tempWrite(f.get(), 0, d.data(), 65536),
                  grow = krn::tempSetSize(f.get(), 1 << 20), map = krn::tempMap(f.get(), 60000, 10000, true, &m);
    HREDIRECTFILE h = K_RedirectedOpen(L"/tmp/ombrix_fsize_probe",
                                       REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_TEMPORARY, 0);
    const int64_t big = K_RedirectedWriteBig(h, d.data(), d.size());  // the bytes that fitted, then the loop stops
    K_RedirectedClose(h);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, oldSig);
    expectAll({IS(partial, KS_FILE_WRITE), IS(within, KS_SUCCESS), IS(grow, KS_FILE_WRITE), IS(map, KS_FILE_WRITE), IS(big, 65536)});
    krn::tempUnmap(&m);
}

// Mode 0 is stored as 2; mode 3 keeps everything off the disk unless a caller's table decides; -1 keeps the
// mode and replaces the other words; refusals change nothing.
TEST(TempFile, ModeOptionsAndMode3) {
    StateGuard guard;
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 0, 0, 0, {11, 22}}, back{};
    TempFile* f = nullptr;
    MemFs fs;
    expectAll({IS(K_SetTempFileOptions(&o), KS_SUCCESS), IS(K_GetTempFileMode(), 2), IS(krn::tempDiskAllowed(), 1),
               IS((o.nMode = 3, K_SetTempFileOptions(&o)), KS_SUCCESS), IS(krn::tempFileMode(), 3), IS(krn::tempDiskAllowed(), 0),
               IS(krn::tempCreate(&f), KS_NOT_SUPPORTED), IS(K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr) == OMBRIX_INVALID_FILE, 1),
               IS(fs.install(), KS_SUCCESS), IS(bool(create()), 1), IS(fs.uninstall(), KS_SUCCESS),
               IS((o.nMode = -1, o.uReserved[0] = 33, K_SetTempFileOptions(&o)), KS_SUCCESS),
               IS(K_GetTempFileOptions(&back, TEMPFILEOPTIONS_SIZE), KS_SUCCESS), IS(back.nMode, 3), IS(back.uReserved[0], 33),
               IS(back.uReserved[1], 22), IS(back.uStructSize, TEMPFILEOPTIONS_SIZE),
               IS((o.nMode = 4, K_SetTempFileOptions(&o)), KS_INVALID_PARAMETER),
               IS((o.nMode = 1, o.uStructSize = 20, K_SetTempFileOptions(&o)), KS_INVALID_STRUCT_SIZE),
               IS(K_GetTempFileOptions(&back, 28), KS_INVALID_STRUCT_SIZE), IS(K_GetTempFileMode(), 3)});
}

// ---------------------------------------------------------------- through a table
struct TableTemp : ::testing::Test {  // a memory file system as the thread's table; the folder is its business
    StateGuard guard;
    MemFs fs;
    void SetUp() override {
        ASSERT_EQ(fs.install(), KS_SUCCESS);
        ASSERT_EQ(K_SetTempDirectoryUtf8("/nowhere/at/all"), KS_SUCCESS);
    }
};

TEST_F(TableTemp, RoundTripGoesThroughTableAndDeletesOnClose) {
    Owned f = create();
    ASSERT_EQ(fs.opens, 1);
    const uint32_t want = REDIRECT_OPEN_TEMPORARY | REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE;
    const std::wstring& name = fs.openNames[0], prefix = L"/nowhere/at/all/QX";  // the folder, QX, 8 hex digits, .tmp
    auto a = randomBytes(70000, 1);
    Bytes want2(100000, 0);
    std::copy(a.begin(), a.end(), want2.begin() + 20000);
    expectAll({IS(krn::tempIsRedirected(f.get()), 1), IS(fs.openModes[0] & want, want), IS(name.rfind(prefix, 0), 0),
               IS(name.size(), prefix.size() + 8 + 4), IS(name.substr(name.size() - 4) == L".tmp", 1),
               IS(krn::tempSetSize(f.get(), 100000), KS_SUCCESS), IS(krn::tempWrite(f.get(), 20000, a.data(), a.size()), KS_SUCCESS),
               IS(readBack(f.get(), 0, 100000) == want2, 1), IS(krn::tempSize(f.get()), 100000), IS(fs.files.size(), 1),
               IS((f.reset(), fs.closes), 1), IS(fs.files.empty(), 1), IS(fs.openHandles(), 0)});
}

// Each failing call maps to its code; a short write (the medium is full) is an error, not silence.
TEST_F(TableTemp, FailuresMapToTheirCodes) {
    fs.failOpenAt = 1;
    TempFile* raw = nullptr;
    EXPECT_TRUE(krn::tempCreate(&raw) == KS_FILE_OPEN && raw == nullptr);
    Owned own = create();
    TempFile* f = own.get();
    uint8_t b[64] = {};
    Bytes d(600, 1);
    expectAll({IS((fs.failWriteAt = fs.writes + 1, krn::tempWrite(f, 0, b, sizeof b)), KS_FILE_WRITE),
               IS(krn::tempWrite(f, 0, b, sizeof b), KS_SUCCESS),
               IS((fs.failReadAt = fs.reads + 1, krn::tempRead(f, 0, b, sizeof b)), KS_FILE_READ),
               IS(krn::tempRead(f, 0, b, sizeof b), KS_SUCCESS),
               IS((fs.failSeekAt = fs.seeks + 1, krn::tempRead(f, 0, b, sizeof b)), KS_FILE_SEEK),
               IS((fs.failSeekAt = fs.seeks + 1, krn::tempWrite(f, 0, b, sizeof b)), KS_FILE_SEEK),
               IS(krn::tempRead(f, 0, b, sizeof b), KS_SUCCESS), IS((fs.capacity = 1000, krn::tempWrite(f, 0, d.data(), 600)), KS_SUCCESS),
               IS(krn::tempWrite(f, 600, d.data(), 600), KS_FILE_WRITE) /* 400 fit */, IS(krn::tempSetSize(f, 5000), KS_FILE_WRITE)});
}

// Short reads are completed; a table without size slots grows the file by writing its last byte and cannot cut it.
TEST_F(TableTemp, PartialReadsAreCompletedAndNoSizeSlotsExtendByOneByte) {
    fs.readLimitPerCall = 7;
    Owned f = create();
    auto a = randomBytes(1000, 3);
    ASSERT_EQ(krn::tempWrite(f.get(), 0, a.data(), a.size()), KS_SUCCESS);
    EXPECT_TRUE(readBack(f.get(), 0, 1000) == a && fs.reads >= 1000 / 7);
    REDIRECTRECORD t = fs.table();
    t.pfnSize = nullptr, t.pfnSetSize = nullptr;
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    f = create();
    expectAll({IS(krn::tempSetSize(f.get(), 12345), KS_SUCCESS), IS(krn::tempSize(f.get()), 12345), IS(fs.writeAsks.back(), 1),
               IS(krn::tempSetSize(f.get(), 100), KS_FILE_WRITE), IS(krn::tempSetSize(f.get(), 12345), KS_SUCCESS)});
}

// The built-in temporary-file table in force must not lead the kernel's own temporary files round in a
// circle; through a handle it is a positioned file, deleted on close, dead afterwards for every function.
TEST(TempFile, BuiltInTableDoesNotRecurseAndIsAPositionedFile) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    REDIRECTRECORD t{};
    ASSERT_EQ(K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, REDIRECT_GET_TEMPFILE, 0), KS_SUCCESS);
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    Owned f = create();
    const Bytes x = {1, 2, 3};
    EXPECT_EQ(krn::tempWrite(f.get(), 10, x.data(), 3), KS_SUCCESS);
    EXPECT_EQ(readBack(f.get(), 10, 3), x);
    void* native = t.pfnOpen(L"IMG", 0, 0, nullptr);
    ASSERT_NE(native, OMBRIX_INVALID_FILE);
    EXPECT_TRUE(dir.entries().empty());
    HREDIRECTFILE h = nullptr;
    char b[4] = {};
    int junk[8] = {};
    expectAll({IS(K_CreateRedirectedFileHandle(&h, native, &t), KS_SUCCESS), IS(K_RedirectedWrite(h, "0123456789", 10), 10),
               IS(K_RedirectedSeek(h, 2, REDIRECT_SEEK_SET), 2), IS(K_RedirectedRead(h, b, 3), 3), IS(std::string(b) == "234", 1),
               IS(K_RedirectedSeek(h, -1, REDIRECT_SEEK_END), 9), IS(K_RedirectedSeek(h, -20, REDIRECT_SEEK_CUR), -1),
               IS(K_RedirectedRead(h, b, 3), 1), IS(K_RedirectedRead(h, b, 3), 0) /* end of file */,
               IS(K_RedirectedTempFileWriteBig(native, "abcdef", 6, nullptr), 6), IS(K_RedirectedGetSize(h), 16),
               IS(K_RedirectedTempFileSetSize(native, 4, nullptr), 0), IS(K_RedirectedTempFileSize(native, nullptr), 4),
               IS(K_RedirectedClose(h), 0), IS(K_RedirectedTempFileRead(native, b, 1, nullptr), -1),
               IS(K_RedirectedTempFileClose(native, nullptr), -1), IS(K_RedirectedTempFileWrite(junk, b, 1, nullptr), -1),
               IS(K_RedirectedTempFileSeek(nullptr, 0, 0, nullptr), -1)});
}

TEST(TempFile, ThreadsWriteDisjointRangesOfOneFile) {
    StateGuard guard;
    Owned own = create();
    TempFile* f = own.get();
    constexpr int kThreads = 4, kBlocks = 64, kBlock = 4096;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([=] {
            for (int i = t; i < kBlocks; i += kThreads) {
                const Bytes b(kBlock, uint8_t(i * 3 + 1));
                EXPECT_EQ(krn::tempWrite(f, uint64_t(i) * kBlock, b.data(), kBlock), KS_SUCCESS);
            }
        });
    for (auto& t : ts) t.join();
    const Bytes all = readBack(f, 0, size_t(kBlocks) * kBlock);
    for (int i = 0; i < kBlocks; ++i)
        for (int k = 0; k < kBlock; k += 511) ASSERT_EQ(all[size_t(i) * kBlock + k], uint8_t(i * 3 + 1));
}

TEST(TempFile, AllocationFailureLeavesNothingBehind) {
    StateGuard guard;
    create();  // warm
    const long blocks = krn::faultinject::liveBlocks();
    const int fds = testfs::openFdCount();
    TempFile* f = nullptr;
    krn::faultinject::arm(0, 1);
    EXPECT_EQ(krn::tempCreate(&f), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_TRUE(f == nullptr && krn::faultinject::liveBlocks() == blocks && testfs::openFdCount() == fds);
}

// ---------------------------------------------------------------- names and folder
bool isHexName(const std::string& leaf, const std::string& prefix) {
    if (leaf.size() != prefix.size() + 12 || leaf.rfind(prefix, 0) != 0 || leaf.substr(leaf.size() - 4) != ".tmp") return false;
    return std::all_of(leaf.begin() + long(prefix.size()), leaf.end() - 4, [](unsigned char c) { return isxdigit(c) != 0; });
}

TEST(RedirectTempNames, UniqueNamesAreCreatedAndDistinct) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8((dir.path + "/").c_str()), KS_SUCCESS);  // trailing slash dropped
    std::set<std::string> names;
    for (int i = 0; i < 200; ++i) {
        char n[OMBRIX_TEMP_NAME_CHARS];
        ASSERT_EQ(K_GetTempFileNameUtf8(n, nullptr), KS_SUCCESS);
        const std::string s = n;
        ASSERT_EQ(s.rfind(dir.path + "/", 0), 0u) << s;
        EXPECT_TRUE(isHexName(s.substr(dir.path.size() + 1), "QX")) << s;
        struct stat st;
        ASSERT_EQ(::stat(n, &st), 0);  // the name is taken, by a private file
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        names.insert(s);
    }
    EXPECT_TRUE(names.size() == 200u && dir.entries().size() == 200u);
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    char u8[OMBRIX_TEMP_NAME_CHARS * 4];
    ASSERT_EQ(K_GetTempFileName(w, L"AB"), KS_SUCCESS);
    ASSERT_EQ(K_WideToUtf8(w, -1, u8, sizeof u8, nullptr), KS_SUCCESS);
    EXPECT_TRUE(isHexName(std::string(u8).substr(dir.path.size() + 1), "AB")) << u8;
    expectAll({IS(K_DeleteTempFile(w), KS_SUCCESS), IS(K_DeleteTempFile(w), KS_FILE_NOT_FOUND),
               IS(K_DeleteTempFileUtf8(names.begin()->c_str()), KS_SUCCESS), IS(K_DeleteTempFile(nullptr), KS_INVALID_PARAMETER)});
}

TEST(RedirectTempNames, NumberedNamesCreateNothingAndBadFolders) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    char a[OMBRIX_TEMP_NAME_CHARS], b[OMBRIX_TEMP_NAME_CHARS];
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    expectAll({IS(K_GetTempFileNameNumberedUtf8(a, "QX", 0xBEEF), KS_SUCCESS), IS(K_GetTempFileNameNumberedUtf8(b, "QX", 0xBEEF), KS_SUCCESS),
               IS(std::string(a) == b, 1), IS(std::string(a) == dir.path + "/QX0000BEEF.tmp", 1), IS(dir.entries().empty(), 1),
               IS(K_GetTempFileNameNumbered(w, L"Z", 1), KS_SUCCESS), IS(std::wstring(w).find(L"/Z00000001.tmp"), wcslen(w) - 14),
               IS(K_GetTempFileNameNumberedUtf8(a, "QX", 0), KS_INVALID_PARAMETER),
               IS(K_GetTempFileNameNumberedUtf8(a, "ABCD", 5), KS_INVALID_PARAMETER),
               IS(K_GetTempFileNameNumberedUtf8(a, "a.b", 5), KS_INVALID_PARAMETER), IS(K_GetTempFileName(w, L"\u00E9"), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8("/nonexistent-ombrix-folder"), KS_SUCCESS), IS(K_GetTempFileNameUtf8(a, nullptr), KS_FILE_OPEN),
               IS(K_SetTempDirectoryUtf8(("/tmp/" + std::string(300, 'd')).c_str()), KS_SUCCESS),
               IS(K_GetTempFileNameUtf8(a, nullptr), KS_BUFFER_TOO_SMALL),
               IS(K_GetTempFileNameNumberedUtf8(a, nullptr, 3), KS_BUFFER_TOO_SMALL)});
}

// Per thread, round trips in both encodings, a fresh thread sees TMPDIR or /tmp; refused values keep the folder.
TEST(RedirectTempFolder, PerThreadRoundTripAndLimits) {
    StateGuard guard;
    const wchar_t* dirW = L"/tmp/\u5199\u771F/images";
    const char* dirU8 = "/tmp/\xE5\x86\x99\xE7\x9C\x9F/images";
    wchar_t back[64];
    char u8[64];
    expectAll({IS(K_SetTempDirectory(dirW), KS_SUCCESS), IS(K_GetTempDirectory(back, 64), KS_SUCCESS), IS(std::wstring(back) == dirW, 1),
               IS(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS), IS(std::string(u8) == dirU8, 1),
               IS(K_GetTempDirectory(back, 5), KS_BUFFER_TOO_SMALL)});
    std::thread([] {
        char d[512];
        ASSERT_EQ(K_GetTempDirectoryUtf8(d, sizeof d), KS_SUCCESS);
        const char* env = getenv("TMPDIR");
        std::string expect = (env && *env) ? env : "/tmp";
        while (expect.size() > 1 && expect.back() == '/') expect.pop_back();
        EXPECT_EQ(std::string(d), expect);
    }).join();
    const wchar_t bad[] = {L'/', wchar_t(0xD800), 0};
    expectAll({IS(K_SetTempDirectoryUtf8("/tmp/\xC0\x80"), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8(std::string(1024, 'a').c_str()), KS_INVALID_PARAMETER),
               IS(K_SetTempDirectoryUtf8(std::string(1023, 'a').c_str()), KS_SUCCESS), IS(K_SetTempDirectory(dirW), KS_SUCCESS),
               IS(sizeof(wchar_t) != 4 || K_SetTempDirectory(bad) == KS_INVALID_PARAMETER, 1),
               IS(K_GetTempDirectory(back, 64), KS_SUCCESS), IS(std::wstring(back) == dirW, 1),
               IS(K_SetTempDirectory(nullptr), KS_SUCCESS), IS(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS), IS(std::string(u8) != dirU8, 1)});
}

}  // namespace
