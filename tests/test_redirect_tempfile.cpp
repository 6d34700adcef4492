// test_redirect_tempfile.cpp - kernel temporary files: positioned I/O, size,
// delete-on-close, a bad temporary folder, the size limit as a full disk,
// files through a caller's redirect table and their failures, concurrency,
// allocation failure.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include <cstring>
#include <random>
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

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

void setNamed(bool named) {
    TEMPFILEOPTIONS o{};
    K_GetTempFileOptions(&o, TEMPFILEOPTIONS_SIZE);
    o.uFlags = named ? TEMPFILE_OPT_NAMED : 0;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
}

class TempFileBoth : public ::testing::TestWithParam<bool> {};

// Writes at scattered offsets (out of order, overlapping), checks against a
// plain model; the file leaves no name in the folder, open or closed.
TEST_P(TempFileBoth, ScatteredWritesMatchModelAndLeaveNoName) {
    StateGuard guard;
    ScratchDir dir;
    setNamed(GetParam());
    ASSERT_EQ(K_SetTempDirectoryUtf8(dir.path.c_str()), KS_SUCCESS);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    EXPECT_FALSE(krn::tempIsRedirected(f));
    EXPECT_TRUE(dir.entries().empty());
    std::vector<uint8_t> model(300000, 0);
    std::mt19937 rng(7);
    for (int i = 0; i < 200; ++i) {
        size_t off = rng() % 290000, n = 1 + rng() % 10000;
        if (off + n > model.size()) n = model.size() - off;
        auto bytes = randomBytes(n, uint32_t(i));
        ASSERT_EQ(krn::tempWrite(f, off, bytes.data(), n), KS_SUCCESS);
        std::memcpy(model.data() + off, bytes.data(), n);
    }
    ASSERT_EQ(krn::tempSetSize(f, model.size()), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f), int64_t(model.size()));
    std::vector<uint8_t> back(model.size());
    ASSERT_EQ(krn::tempRead(f, 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_EQ(back, model);
    krn::tempClose(f);
    EXPECT_TRUE(dir.entries().empty());
}
INSTANTIATE_TEST_SUITE_P(AnonymousAndNamed, TempFileBoth, ::testing::Values(false, true));

TEST(TempFile, ReadPastEndFailsAndExtensionReadsZeros) {
    StateGuard guard;
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
    uint8_t b[16] = {1, 2, 3};
    ASSERT_EQ(krn::tempWrite(f, 0, b, 3), KS_SUCCESS);
    EXPECT_EQ(krn::tempRead(f, 0, b, 4), KS_FILE_READ);  // one byte beyond the end
    EXPECT_EQ(krn::tempRead(f, 3, b, 1), KS_FILE_READ);
    ASSERT_EQ(krn::tempSetSize(f, uint64_t(1) << 33), KS_SUCCESS);  // 8 GiB, sparse
    EXPECT_EQ(krn::tempSize(f), int64_t(1) << 33);
    std::memset(b, 0xEE, sizeof b);
    ASSERT_EQ(krn::tempRead(f, (uint64_t(1) << 33) - 16, b, 16), KS_SUCCESS);
    for (uint8_t v : b) EXPECT_EQ(v, 0);
    uint8_t hi[4] = {9, 8, 7, 6};
    ASSERT_EQ(krn::tempWrite(f, (uint64_t(1) << 32) + 5, hi, 4), KS_SUCCESS);  // above 4 GiB
    uint8_t back[4];
    ASSERT_EQ(krn::tempRead(f, (uint64_t(1) << 32) + 5, back, 4), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(back, hi, 4), 0);
    ASSERT_EQ(krn::tempSetSize(f, 2), KS_SUCCESS);  // shrink
    EXPECT_EQ(krn::tempSize(f), 2);
    EXPECT_EQ(krn::tempRead(f, 0, back, 2), KS_SUCCESS);
    EXPECT_EQ(back[0], 1);
    EXPECT_EQ(back[1], 2);
}

TEST(TempFile, BadFolderGivesFileOpen) {
    StateGuard guard;
    ScratchDir dir;
    std::string regular = dir.path + "/plain";
    int fd = ::open(regular.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
    const std::string bad[] = {dir.path + "/missing", dir.path + "/missing/deeper", regular,
                               regular + "/under"};
    for (bool named : {false, true}) {
        setNamed(named);
        for (const auto& d : bad) {
            ASSERT_EQ(K_SetTempDirectoryUtf8(d.c_str()), KS_SUCCESS);
            TempFile* f = reinterpret_cast<TempFile*>(0x1);
            EXPECT_EQ(krn::tempCreate(&f), KS_FILE_OPEN) << d << " named=" << named;
            EXPECT_EQ(f, nullptr);
        }
    }
}

TEST(TempFile, SizeLimitActsAsFullDisk) {
    StateGuard guard;
    TEMPFILEOPTIONS o{};
    K_GetTempFileOptions(&o, TEMPFILEOPTIONS_SIZE);
    o.uMaxFileMiB = 1;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    EXPECT_EQ(krn::tempMaxFileBytes(), uint64_t(1) << 20);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
    std::vector<uint8_t> data(4096, 0x5A);
    EXPECT_EQ(krn::tempWrite(f, (1 << 20) - 4096, data.data(), 4096), KS_SUCCESS);  // ends exactly at the limit
    EXPECT_EQ(krn::tempWrite(f, (1 << 20) - 4095, data.data(), 4096), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempWrite(f, uint64_t(1) << 40, data.data(), 1), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempSetSize(f, (1 << 20) + 1), KS_FILE_WRITE);
    EXPECT_EQ(krn::tempSetSize(f, 1 << 20), KS_SUCCESS);
}

// A real short write from the system: the file-size resource limit stops
// writes part way, as a full disk does (EFBIG instead of ENOSPC).
TEST(TempFile, SystemShortWriteIsReported) {
    StateGuard guard;
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    void (*oldSig)(int) = signal(SIGXFSZ, SIG_IGN);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    struct rlimit lim = old;
    lim.rlim_cur = 65536;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    std::vector<uint8_t> d(100000, 0x33);
    int32_t partial = krn::tempWrite(f, 0, d.data(), d.size());  // 64 KiB go, then EFBIG
    int32_t within = krn::tempWrite(f, 0, d.data(), 65536);
    int32_t grow = krn::tempSetSize(f, 1 << 20);
    krn::TempMapping m;
    int32_t map = krn::tempMap(f, 60000, 10000, true, &m);
    HREDIRECTFILE h = K_RedirectedOpen(L"/tmp/ombrix_fsize_probe", REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE |
                                                                       REDIRECT_OPEN_TEMPORARY, 0);
    int64_t big = K_RedirectedWriteBig(h, d.data(), d.size());
    K_RedirectedClose(h);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, oldSig);
    EXPECT_EQ(partial, KS_FILE_WRITE);
    EXPECT_EQ(within, KS_SUCCESS);
    EXPECT_EQ(grow, KS_FILE_WRITE);
    EXPECT_EQ(map, KS_FILE_WRITE);
    EXPECT_EQ(big, 65536);  // the bytes that fitted, then the loop stops
    krn::tempUnmap(&m);
    krn::tempClose(f);
}

TEST(TempFile, ModeOptionsAndMode3) {
    StateGuard guard;
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 0, 0, 0, {11, 22}};
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
        ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
        krn::tempClose(f);
        t.uStructSize = REDIRECTRECORD_SIZE;
        K_SetRedirectFunctions(&t, REDIRECT_SET_RESET, 0);
    }
    o.nMode = -1;  // keeps the mode, replaces the other words
    o.uReserved[0] = 33;
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    TEMPFILEOPTIONS back{};
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
struct TableTemp : ::testing::Test {
    StateGuard guard;
    MemFs fs;
    void SetUp() override {
        REDIRECTRECORD t = fs.table();
        ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
        ASSERT_EQ(K_SetTempDirectoryUtf8("/nowhere/at/all"), KS_SUCCESS);  // the table decides
    }
};

TEST_F(TableTemp, RoundTripGoesThroughTableAndDeletesOnClose) {
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    EXPECT_TRUE(krn::tempIsRedirected(f));
    ASSERT_EQ(fs.opens, 1);
    EXPECT_EQ(fs.openModes[0] & (REDIRECT_OPEN_TEMPORARY | REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE),
              REDIRECT_OPEN_TEMPORARY | REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE);
    const std::wstring& name = fs.openNames[0];
    ASSERT_EQ(name.rfind(L"/nowhere/at/all/QX", 0), 0u);
    EXPECT_EQ(name.size(), std::wstring(L"/nowhere/at/all/QX").size() + 8 + 4);
    EXPECT_EQ(name.substr(name.size() - 4), L".tmp");

    auto a = randomBytes(70000, 1);
    ASSERT_EQ(krn::tempSetSize(f, 100000), KS_SUCCESS);
    ASSERT_EQ(krn::tempWrite(f, 20000, a.data(), a.size()), KS_SUCCESS);
    std::vector<uint8_t> back(100000);
    ASSERT_EQ(krn::tempRead(f, 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_TRUE(std::all_of(back.begin(), back.begin() + 20000, [](uint8_t v) { return v == 0; }));
    EXPECT_TRUE(std::equal(a.begin(), a.end(), back.begin() + 20000));
    EXPECT_EQ(krn::tempSize(f), 100000);
    EXPECT_EQ(fs.files.size(), 1u);
    krn::tempClose(f);
    EXPECT_EQ(fs.closes, 1);
    EXPECT_TRUE(fs.files.empty());
    EXPECT_EQ(fs.openHandles(), 0u);
}

TEST_F(TableTemp, FailuresMapToTheirCodes) {
    fs.failOpenAt = 1;
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_FILE_OPEN);
    EXPECT_EQ(f, nullptr);
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
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

TEST_F(TableTemp, PartialReadsAreCompleted) {
    fs.readLimitPerCall = 7;
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
    auto a = randomBytes(1000, 3);
    ASSERT_EQ(krn::tempWrite(f, 0, a.data(), a.size()), KS_SUCCESS);
    std::vector<uint8_t> back(1000);
    ASSERT_EQ(krn::tempRead(f, 0, back.data(), back.size()), KS_SUCCESS);
    EXPECT_EQ(back, a);
    EXPECT_GE(fs.reads, 1000 / 7);
}

TEST_F(TableTemp, TableWithoutSizeSlotsExtendsByOneByte) {
    REDIRECTRECORD t = fs.table();
    t.pfnSize = nullptr;
    t.pfnSetSize = nullptr;
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
    ASSERT_EQ(krn::tempSetSize(f, 12345), KS_SUCCESS);
    EXPECT_EQ(krn::tempSize(f), 12345);
    EXPECT_EQ(fs.writeAsks.back(), 1u);
    EXPECT_EQ(krn::tempSetSize(f, 100), KS_FILE_WRITE);  // cannot cut through this table
    EXPECT_EQ(krn::tempSetSize(f, 12345), KS_SUCCESS);
}

// The built-in temporary-file table installed as the redirect table must
// not lead the kernel's own temporary files round in a circle.
TEST(TempFile, TempTableInForceDoesNotRecurse) {
    StateGuard guard;
    REDIRECTRECORD t{};
    ASSERT_EQ(K_GetRedirectFunctions(&t, REDIRECTRECORD_SIZE, REDIRECT_GET_TEMPFILE, 0), KS_SUCCESS);
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    uint8_t b[3] = {1, 2, 3}, c[3] = {};
    EXPECT_EQ(krn::tempWrite(f, 10, b, 3), KS_SUCCESS);
    EXPECT_EQ(krn::tempRead(f, 10, c, 3), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(b, c, 3), 0);
    krn::tempClose(f);
}

TEST(TempFile, ThreadsWriteDisjointRangesOfOneFile) {
    StateGuard guard;
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
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
    TempFile* warm = nullptr;
    ASSERT_EQ(krn::tempCreate(&warm), KS_SUCCESS);
    krn::tempClose(warm);
    long blocks = krn::faultinject::liveBlocks();
    int fds = testfs::openFdCount();
    krn::faultinject::arm(0, 1);
    TempFile* f = nullptr;
    EXPECT_EQ(krn::tempCreate(&f), KS_NO_MEMORY);
    krn::faultinject::disarm();
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(krn::faultinject::liveBlocks(), blocks);
    EXPECT_EQ(testfs::openFdCount(), fds);
}

TEST(TempFile, MappedWindowAgreesWithPositionedIo) {
    StateGuard guard;
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    std::unique_ptr<TempFile, krn::TempFileCloser> own(f);
    const uint64_t off = 3 * 4096 + 123;  // not page aligned
    const size_t n = 50000;
    krn::TempMapping m;
    ASSERT_EQ(krn::tempMap(f, off, n, true, &m), KS_SUCCESS);  // grows the file
    EXPECT_GE(krn::tempSize(f), int64_t(off + n));
    auto a = randomBytes(n, 11);
    std::memcpy(m.data, a.data(), n);
    std::vector<uint8_t> back(n);
    ASSERT_EQ(krn::tempRead(f, off, back.data(), n), KS_SUCCESS);
    EXPECT_EQ(back, a);
    auto b = randomBytes(1000, 12);
    ASSERT_EQ(krn::tempWrite(f, off + 777, b.data(), b.size()), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(m.data + 777, b.data(), b.size()), 0);
    krn::tempUnmap(&m);
    EXPECT_EQ(m.data, nullptr);
    krn::tempUnmap(&m);  // twice is harmless
    krn::TempMapping r;
    ASSERT_EQ(krn::tempMap(f, off + 777, b.size(), false, &r), KS_SUCCESS);
    EXPECT_EQ(std::memcmp(r.data, b.data(), b.size()), 0);
    krn::tempUnmap(&r);
    int64_t size = krn::tempSize(f);
    EXPECT_EQ(krn::tempMap(f, uint64_t(size) - 10, 11, false, &r), KS_FILE_READ);
    EXPECT_EQ(krn::tempMap(f, 0, 0, false, &r), KS_INVALID_PARAMETER);
}

TEST(TempFile, MappingRespectsLimitAndRedirection) {
    StateGuard guard;
    TEMPFILEOPTIONS o{TEMPFILEOPTIONS_SIZE, 2, 0, 1, {0, 0}};
    ASSERT_EQ(K_SetTempFileOptions(&o), KS_SUCCESS);
    TempFile* f = nullptr;
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    krn::TempMapping m;
    EXPECT_EQ(krn::tempMap(f, 1 << 20, 1, true, &m), KS_FILE_WRITE);
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(krn::tempMap(f, 0, 1 << 20, true, &m), KS_SUCCESS);
    krn::tempUnmap(&m);
    krn::tempClose(f);
    MemFs fs;
    REDIRECTRECORD t = fs.table();
    ASSERT_EQ(K_SetRedirectFunctions(&t, REDIRECT_SET_INSTALL, 0), KS_SUCCESS);
    ASSERT_EQ(krn::tempCreate(&f), KS_SUCCESS);
    EXPECT_EQ(krn::tempMap(f, 0, 10, true, &m), KS_NOT_SUPPORTED);
    krn::tempClose(f);
}

}  // namespace
