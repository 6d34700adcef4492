// test_redirect_tempfile.cpp - kernel temporary files (positioned I/O, size,
// delete-on-close, a bad folder, the size limit as a full disk, mapping,
// files through a caller's redirect table and their failures, threads,
// allocation failure), the built-in temporary-file table, unique temporary
// names and the temporary folder.
#include <gtest/gtest.h>

#include <algorithm>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "krn/common/memory.h"
#include "krn/common/tempfile.h"
#include "ombrix.h"
#include "redirect_memfs.h"
#include "redirect_scratch.h"

namespace {

using krn::TempFile;
using testfs::MemFs;
using testfs::ScratchDir;
using testfs::StateGuard;
using Owned = std::unique_ptr<TempFile, krn::TempFileCloser>;

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}
void setOptions(uint32_t flags, uint32_t maxMiB = 0) {
    TEMPFILEOPTIONS o{};
    K_GetTempFileOptions(&o, TEMPFILEOPTIONS_SIZE);
    o.uFlags = flags;
    o.uMaxFileMiB = maxMiB;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
}
Owned create() {
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    return Owned(f);
}

class TempFileBoth : public ::testing::TestWithParam<bool> {};

// Anonymous and named files: writes at scattered offsets (out of order,
// overlapping) against a plain model, reads past the end, sparse growth past
// 4 and 8 GiB, shrinking, and a mapped window that agrees with positioned I/O;
// the file leaves no name in the folder, open or closed.
TEST_P(TempFileBoth, PositionedIoSizeAndMappingAgreeWithAModel) {
    StateGuard guard;
    ScratchDir dir;
    setOptions(GetParam() ? TEMPFILE_OPT_NAMED : 0);
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    Owned own = create();
    TempFile* f = own.get();
    ASSERT_NE(f, nullptr);
    EXPECT_FALSE(krn::tempIsRedirected(f));
    EXPECT_TRUE(dir.entries().empty());
    std::vector<uint8_t> model(300000, 0), back(model.size());
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        const size_t off = rng() % 290000, n = std::min<size_t>(1 + rng() % 10000, model.size() - off);
        auto bytes = randomBytes(n, uint32_t(i));
        ASSERT_EQ(krn::tempWrite(f, off, bytes.data(), n), KS_SUCCESS);
        std::memcpy(model.data() + off, bytes.data(), n);
    }
    ASSERT_EQ(krn::tempSetSize(f, model.size()), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f), int64_t(model.size()));
    ASSERT_EQ(krn::tempRead(f, 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_EQ(back, model);
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
    ASSERT_EQ(krn::tempRead(f, off, back.data(), n), KS_SUCCESS);
    EXPECT_EQ(0, std::memcmp(back.data(), a.data(), n));
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
    uint8_t z[16], hi[4] = {9, 8, 7, 6}, h4[4];
    ASSERT_EQ(krn::tempSetSize(f, g8), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f), int64_t(g8));
    std::memset(z, 0xEE, sizeof z);
    ASSERT_EQ(krn::tempRead(f, g8 - 16, z, 16), KS_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(z, z + 16), std::vector<uint8_t>(16, 0));
    ASSERT_EQ(krn::tempWrite(f, g4 + 5, hi, 4), KS_SUCCESS);
    ASSERT_EQ(krn::tempRead(f, g4 + 5, h4, 4), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(h4, hi, 4), 0);
    ASSERT_EQ(krn::tempSetSize(f, 2), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f), 2);
    EXPECT_EQ(krn::tempRead(f, 0, h4, 2), KS_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(h4, h4 + 2), std::vector<uint8_t>(model.begin(), model.begin() + 2));
    own.reset();
    EXPECT_TRUE(dir.entries().empty());
}
INSTANTIATE_TEST_SUITE_P(AnonymousAndNamed, TempFileBoth, ::testing::Values(false, true));

TEST(TempFile, SizeLimitActsAsFullDisk) {
    StateGuard guard;
    setOptions(0, 1);
    EXPECT_EQ(krn::tempMaxFileBytes(), uint64_t(1) << 20);
    Owned f = create();
    std::vector<uint8_t> data(4096, 0x5A);
    EXPECT_EQ(krn::tempWrite(f.get(), (1 << 20) - 4096, data.data(), 4096), KS_SUCCESS);  // ends at the limit
    EXPECT_EQ(krn::tempWrite(f.get(), (1 << 20) - 4095, data.data(), 4096), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempWrite(f.get(), uint64_t(1) << 40, data.data(), 1), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempSetSize(f.get(), (1 << 20) + 1), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempSetSize(f.get(), 1 << 20), KS_SUCCESS);
    // A mapping stops at the limit too.
    krn::TempMapping m;
    EXPECT_EQ(krn::tempMap(f.get(), 1 << 20, 1, true, &m), KS_FILE_WRITE);
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(krn::tempMap(f.get(), 0, 1 << 20, true, &m), KS_SUCCESS);
    krn::tempUnmap(&m);
    // The built-in table's files: a write that passes the limit is short. Through a caller's table: no mapping.
    void* h = K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr);
    ASSERT_NE(h, OMBRIX_INVALID_FILE);
    std::vector<char> d(1 << 20, 'a');
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), uint32_t(d.size() - 10), nullptr), int32_t(d.size() - 10));
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 10);
    EXPECT_EQ(K_RedirectedTempFileWrite(h, d.data(), 100, nullptr), 0);
    EXPECT_EQ(K_RedirectedTempFileClose(h, nullptr), 0);
    MemFs fs;
    REDIRECTRECORD t = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    EXPECT_EQ(krn::tempMap(create().get(), 0, 10, true, &m), KS_NOT_SUPPORTED);
}

// A real short write from the system: the file-size resource limit stops
// writes part way, as a full disk does (EFBIG instead of ENOSPC).
TEST(TempFile, SystemShortWriteIsReported) {
    StateGuard guard;
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldSig)(int) = signal(SIGXFSZ, SIG_IGN);
    Owned f = create();
    struct rlimit lim = old;
    lim.rlim_cur = 65536;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    std::vector<uint8_t> d(100000, 0x33);
    const int32_t partial = krn::tempWrite(f.get(), 0, d.data(), d.size());  // 64 KiB go, then EFBIG
    const int32_t within = krn::tempWrite(f.get(), 0, d.data(), 65536);
    const int32_t grow = krn::tempSetSize(f.get(), 1 << 20);
    krn::TempMapping m;
    const int32_t map = krn::tempMap(f.get(), 60000, 10000, true, &m);
    HREDIRECTFILE h = K_RedirectedOpen(L"/tmp/ombrix_fsize_probe",
                                       REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_TEMPORARY, 0);
    const int64_t big = K_RedirectedWriteBig(h, d.data(), d.size());
    K_RedirectedClose(h);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, oldSig);
    EXPECT_EQ(std::vector<int32_t>({partial, within, grow, map}),
              std::vector<int32_t>({KS_FILE_WRITE, KS_SUCCESS, KS_FILE_WRITE, KS_FILE_WRITE}));
    EXPECT_EQ(big, 65536);  // the bytes that fitted, then the loop stops
    krn::tempUnmap(&m);
}

TEST(TempFile, ModeOptionsAndMode3) {
    StateGuard guard;
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 0, 0, 0, {11, 22}}, back{};
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    EXPECT_EQ(K_GetTempFileMode(), 2);  // 0 is stored as 2
    EXPECT_TRUE(krn::tempDiskAllowed());
    o.nMode = 3;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    EXPECT_EQ(krn::tempFileMode(), 3);
    EXPECT_FALSE(krn::tempDiskAllowed());
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_NOT_SUPPORTED);  // nothing on disk in mode 3
    EXPECT_EQ(K_RedirectedTempFileOpen(nullptr, 0, 0, nullptr), OMBRIX_INVALID_FILE);
    {
        MemFs fs;  // a caller's table decides for itself
        REDIRECTRECORD t = fs.table();
        ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
        EXPECT_TRUE(create());
        t.uStructSize = REDIRECTRECORD_SIZE;
        K_SetRedirectFunctions(&t, REDIRECT_SET_RESET, 0);
    }
    o.nMode = -1;  // keeps the mode, replaces the other words
    o.uReserved[0] = 33;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    ASSERT_EQ(K_GetTempFileOptions(&back, TEMPFILEOPTIONS_SIZE), KS_SUCCESS);
    EXPECT_EQ(back.nMode, 3);
    EXPECT_EQ(back.uReserved[0], 33u);
    EXPECT_EQ(back.uReserved[1], 22u);
    EXPECT_EQ(back.uStructSize, TEMPFILEOPTIONS_SIZE);
    o.nMode = 4;
    EXPECT_EQ(K_SetTempFileOptions(&o), KS_INVALID_PARAMETER);
    o.nMode = 1;
    o.uStructSize = 20;
    EXPECT_EQ(K_SetTempFileOptions(&o), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetTempFileOptions(&back, 28), KS_INVALID_STRUCT_SIZE);
    EXPECT_EQ(K_GetTempFileMode(), 3);  // failed calls changed nothing
}

// ---------------------------------------------------------------- through a table
struct TableTemp : ::testing::Test {  // a memory file system as the thread's table; the folder is its business
    StateGuard guard;
    MemFs fs;
    void SetUp() override {
        REDIRECTRECORD t = fs.table();
        ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
        ASSERT_EQ(K_SetTempDirectoryUtf8("/nowhere/at/all"), KS_SUCCESS);
    }
};

TEST_F(TableTemp, RoundTripGoesThroughTableAndDeletesOnClose) {
    Owned f = create();
    EXPECT_TRUE(krn::tempIsRedirected(f.get()));
    ASSERT_EQ(fs.opens, 1);
    const uint32_t want = REDIRECT_OPEN_TEMPORARY | REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE;
    EXPECT_EQ(fs.openModes[0] & want, want);
    const std::wstring& name = fs.openNames[0];  // the folder, QX, 8 hex digits, .tmp
    ASSERT_EQ(name.rfind(L"/nowhere/at/all/QX", 0), 0u);
    EXPECT_EQ(name.size(), std::wstring(L"/nowhere/at/all/QX").size() + 8 + 4);
    EXPECT_EQ(name.substr(name.size() - 4), L".tmp");
    auto a = randomBytes(70000, 1);
    ASSERT_EQ(krn::tempSetSize(f.get(), 100000), KS_SUCCESS);
    ASSERT_EQ(krn::tempWrite(f.get(), 20000, a.data(), a.size()), KS_SUCCESS);
    std::vector<uint8_t> back(100000), want2(100000, 0);
    std::copy(a.begin(), a.end(), want2.begin() + 20000);
    ASSERT_EQ(krn::tempRead(f.get(), 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_EQ(back, want2);
    EXPECT_EQ(krn::tempSize(f.get()), 100000);
    EXPECT_EQ(fs.files.size(), 1u);
    f.reset();
    EXPECT_EQ(fs.closes, 1);
    EXPECT_TRUE(fs.files.empty());
    EXPECT_EQ(fs.openHandles(), 0u);
}

TEST_F(TableTemp, FailuresMapToTheirCodes) {
    fs.failOpenAt = 1;
    TempFile* raw = nullptr;
    EXPECT_EQ(krn::tempCreate(&raw), KS_FILE_OPEN);
    EXPECT_EQ(raw, nullptr);
    Owned own = create();
    TempFile* f = own.get();
    uint8_t b[64] = {};
    fs.failWriteAt = fs.writes + 1;
    EXPECT_EQ(krn::tempWrite(f, 0, b, sizeof b), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempWrite(f, 0, b, sizeof b), KS_SUCCESS);
    fs.failReadAt = fs.reads + 1;
    EXPECT_EQ(krn::tempRead(f, 0, b, sizeof b), KS_FILE_READ);
    EXPECT_EQ(krn::tempRead(f, 0, b, sizeof b), KS_SUCCESS);
    fs.failSeekAt = fs.seeks + 1;
    EXPECT_EQ(krn::tempRead(f, 0, b, sizeof b), KS_FILE_SEEK);
    fs.failSeekAt = fs.seeks + 1;
    EXPECT_EQ(krn::tempWrite(f, 0, b, sizeof b), KS_FILE_SEEK);
    EXPECT_EQ(krn::tempRead(f, 0, b, sizeof b), KS_SUCCESS);
    // A short write (the medium is full) is an error, not silence.
    fs.capacity = 1000;
    std::vector<uint8_t> d(600, 1);
    EXPECT_EQ(krn::tempWrite(f, 0, d.data(), 600), KS_SUCCESS);
    EXPECT_EQ(krn::tempWrite(f, 600, d.data(), 600), KS_FILE_WRITE);  // 400 fit
    EXPECT_EQ(krn::tempSetSize(f, 5000), KS_FILE_WRITE);
}

TEST_F(TableTemp, PartialReadsAreCompletedAndNoSizeSlotsExtendByOneByte) {
    fs.readLimitPerCall = 7;
    Owned f = create();
    auto a = randomBytes(1000, 3);
    ASSERT_EQ(krn::tempWrite(f.get(), 0, a.data(), a.size()), KS_SUCCESS);
    std::vector<uint8_t> back(1000);
    ASSERT_EQ(krn::tempRead(f.get(), 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_EQ(back, a);
    EXPECT_GE(fs.reads, 1000 / 7);
    REDIRECTRECORD t = fs.table();
    t.pfnSize = nullptr;
    t.pfnSetSize = nullptr;
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    f = create();
    ASSERT_EQ(krn::tempSetSize(f.get(), 12345), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f.get()), 12345);
    EXPECT_EQ(fs.writeAsks.back(), 1u);
    EXPECT_EQ(krn::tempSetSize(f.get(), 100), KS_FILE_WRITE);  // cannot cut through this table
    EXPECT_EQ(krn::tempSetSize(f.get(), 12345), KS_SUCCESS);
}

// The built-in temporary-file table in force must not lead the kernel's own
// temporary files round in a circle; through a handle it is a positioned file.
TEST(TempFile, BuiltInTableDoesNotRecurseAndIsAPositionedFile) {
    StateGuard guard;
    ScratchDir dir;
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    REDIRECTRECORD t{};
    ASSERT_EQ(K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, REDIRECT_GET_TEMPFILE, 0), KS_SUCCESS);
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    Owned f = create();
    uint8_t x[3] = {1, 2, 3}, y[3] = {};
    EXPECT_EQ(krn::tempWrite(f.get(), 10, x, 3), KS_SUCCESS);
    EXPECT_EQ(krn::tempRead(f.get(), 10, y, 3), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(x, y, 3), 0);
    void* native = t.pfnOpen(L"IMG", 0, 0, nullptr);
    ASSERT_NE(native, OMBRIX_INVALID_FILE);
    EXPECT_TRUE(dir.entries().empty());  // deleted on close: no name in the folder
    HREDIRECTFILE h = nullptr;
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

TEST(TempFile, ThreadsWriteDisjointRangesOfOneFile) {
    StateGuard guard;
    Owned own = create();
    TempFile* f = own.get();
    constexpr int kThreads = 4, kBlocks = 64, kBlock = 4096;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([=] {
            std::vector<uint8_t> b(kBlock);
            for (int i = t; i < kBlocks; i += kThreads) {
                std::fill(b.begin(), b.end(), uint8_t(i * 3 + 1));
                EXPECT_EQ(krn::tempWrite(f, uint64_t(i) * kBlock, b.data(), kBlock), KS_SUCCESS);
            }
        });
    for (auto& t : ts) t.join();
    std::vector<uint8_t> all(size_t(kBlocks) * kBlock);
    ASSERT_EQ(krn::tempRead(f, 0, all.data(), all.size()), KS_SUCCESS);
    for (int i = 0; i < kBlocks; ++i)
        for (int k = 0; k < kBlock; k += 511) ASSERT_EQ(all[size_t(i) * kBlock + k], uint8_t(i * 3 + 1));
}

TEST(TempFile, AllocationFailureLeavesNothingBehind) {
    StateGuard guard;
    create();  // warm
    const long blocks = krn::faultinject::liveBlocks();
    const int fds = testfs::openFdCount();
    krn::faultinject::arm(0, 1);
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), blocks);
    EXPECT_EQ(testfs::openFdCount(), fds);
}

// ---------------------------------------------------------------- names and folder
bool isHexName(const std::string& leaf, const std::string& prefix) {
    if (leaf.size() != prefix.size() + 12 || leaf.rfind(prefix, 0) != 0 || leaf.substr(leaf.size() - 4) != ".tmp")
        return false;
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
    EXPECT_EQ(names.size(), 200u);
    EXPECT_EQ(dir.entries().size(), 200u);
    wchar_t w[OMBRIX_TEMP_NAME_CHARS];
    char u8[OMBRIX_TEMP_NAME_CHARS * 4];
    ASSERT_EQ(K_GetTempFileName(w, L"AB"), KS_SUCCESS);
    ASSERT_EQ(K_WideToUtf8(w, -1, u8, sizeof u8, nullptr), KS_SUCCESS);
    EXPECT_TRUE(isHexName(std::string(u8).substr(dir.path.size() + 1), "AB")) << u8;
    EXPECT_EQ(K_DeleteTempFile(w), KS_SUCCESS);
    EXPECT_EQ(K_DeleteTempFile(w), KS_FILE_NOT_FOUND);
    EXPECT_EQ(K_DeleteTempFileUtf8(names.begin()->c_str()), KS_SUCCESS);
    EXPECT_EQ(K_DeleteTempFile(nullptr), KS_INVALID_PARAMETER);
}

TEST(RedirectTempNames, NumberedNamesCreateNothingAndBadFolders) {
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
    const std::wstring ws = w;
    EXPECT_EQ(ws.substr(ws.size() - 14), L"/Z00000001.tmp");
    EXPECT_EQ(std::vector<int64_t>({K_GetTempFileNameNumberedUtf8(a, "QX", 0),
                                    K_GetTempFileNameNumberedUtf8(a, "ABCD", 5),
                                    K_GetTempFileNameNumberedUtf8(a, "a.b", 5), K_GetTempFileName(w, L"\u00E9")}),
              std::vector<int64_t>(4, KS_INVALID_PARAMETER));
    ASSERT_EQ(K_SetTempDirectoryUtf8("/nonexistent-ombrix-folder"), KS_SUCCESS);
    EXPECT_EQ(K_GetTempFileNameUtf8(a, nullptr), KS_FILE_OPEN);
    ASSERT_EQ(K_SetTempDirectoryUtf8(("/tmp/" + std::string(300, 'd')).c_str()), KS_SUCCESS);
    EXPECT_EQ(K_GetTempFileNameUtf8(a, nullptr), KS_BUFFER_TOO_SMALL);
    EXPECT_EQ(K_GetTempFileNameNumberedUtf8(a, nullptr, 3), KS_BUFFER_TOO_SMALL);
}

TEST(RedirectTempFolder, PerThreadRoundTripAndLimits) {
    StateGuard guard;
    const wchar_t* dirW = L"/tmp/\u5199\u771F/images";
    const char* dirU8 = "/tmp/\xE5\x86\x99\xE7\x9C\x9F/images";
    wchar_t back[64];
    char u8[64];
    ASSERT_EQ(K_SetTempDirectory(dirW), KS_SUCCESS);
    ASSERT_EQ(K_GetTempDirectory(back, 64), KS_SUCCESS);
    EXPECT_EQ(std::wstring(back), dirW);
    ASSERT_EQ(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS);
    EXPECT_STREQ(u8, dirU8);
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
        const wchar_t bad[] = {L'/', wchar_t(0xD800), 0};
        EXPECT_EQ(K_SetTempDirectory(bad), KS_INVALID_PARAMETER);
    }
    ASSERT_EQ(K_GetTempDirectory(back, 64), KS_SUCCESS);
    EXPECT_EQ(std::wstring(back), dirW);
    ASSERT_EQ(K_SetTempDirectory(nullptr), KS_SUCCESS);
    ASSERT_EQ(K_GetTempDirectoryUtf8(u8, 64), KS_SUCCESS);
    EXPECT_STRNE(u8, dirU8);
}

}  // namespace
