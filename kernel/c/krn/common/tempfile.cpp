// tempfile.cpp - kernel temporary files, the temporary folder, unique
// temporary names, the temporary-file options and the built-in
// temporary-file table (K_RedirectedTempFile...).
#include "tempfile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "kernel.h"
#include "memory.h"
#include "redirect.h"
#include "settings.h"
#include "wideutf8.h"

namespace krn {
int osOpenUtf8(const char* name, uint32_t mode, unsigned perm) noexcept;  // osys.cpp

struct TempFile {
    int fd = -1;                // default file layer
    void* native = nullptr;     // through a table
    REDIRECTRECORD table{};     // copy taken at creation
    bool redirected = false;
    uint64_t limit = 0;         // bytes; 0: none
    std::mutex lock;            // serialises seek + read/write through a table
    int64_t pos = 0;            // position of the K_RedirectedTempFile functions
};

namespace {

// ---------------------------------------------------------------- options
std::mutex g_optLock;
TEMPFILEOPTIONS g_opt = {TEMPFILEOPTIONS_SIZE, TEMPFILE_MODE_DISK, 0, 0, {0, 0}};

TEMPFILEOPTIONS options() noexcept {
    std::lock_guard<std::mutex> g(g_optLock);
    return g_opt;
}

// ---------------------------------------------------------------- names
// Unique part: 32 bits from a per-process counter mixed with the process id,
// the time and an address, so that names do not repeat across processes
// that start at the same moment. Collisions are still handled by O_EXCL.
uint32_t nextUnique() noexcept {
    static std::atomic<uint64_t> counter{0};
    static const uint64_t seed = [] {
        uint64_t s = uint64_t(::getpid()) * 0x9E3779B97F4A7C15ull;
        s ^= uint64_t(reinterpret_cast<uintptr_t>(&counter));
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        s ^= uint64_t(ts.tv_nsec) << 20 ^ uint64_t(ts.tv_sec);
        return s;
    }();
    uint64_t z = seed + counter.fetch_add(1, std::memory_order_relaxed) * 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    uint32_t u = uint32_t(z);
    return u ? u : 1;
}

bool prefixValid(const char* p) noexcept {
    size_t n = std::strlen(p);
    if (n > 3) return false;
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
                  c == '-';
        if (!ok) return false;
    }
    return true;
}

// <dir>/<prefix><8 hex>.tmp into out (cap bytes). False when it does not fit.
bool composeName(char* out, size_t cap, const char* dir, const char* prefix, uint32_t number) noexcept {
    static const char hex[] = "0123456789ABCDEF";
    size_t dl = std::strlen(dir), pl = std::strlen(prefix);
    size_t need = dl + 1 + pl + 8 + 4 + 1;
    if (need > cap) return false;
    char* p = out;
    std::memcpy(p, dir, dl);
    p += dl;
    *p++ = '/';
    std::memcpy(p, prefix, pl);
    p += pl;
    for (int i = 7; i >= 0; --i) *p++ = hex[(number >> (4 * i)) & 15];
    std::memcpy(p, ".tmp", 5);
    return true;
}

// Which errors mean "O_TMPFILE is not available here" rather than "the
// folder is no good".
bool tmpfileUnsupported(int e) noexcept { return e == EOPNOTSUPP || e == EISDIR || e == EINVAL; }

thread_local int t_createDepth = 0;

}  // namespace

// ---------------------------------------------------------------- settings
int32_t tempFileMode() noexcept { return options().nMode; }
bool tempDiskAllowed() noexcept { return tempFileMode() != TEMPFILE_MODE_NO_DISK; }
uint64_t tempMaxFileBytes() noexcept { return uint64_t(options().uMaxFileMiB) << 20; }

int32_t tempDirectory(char* buf, size_t cap) noexcept {
    if (!buf || cap == 0) return KS_INVALID_PARAMETER;
    const char* dir = settings().tempDir;
    if (!dir[0]) {
        const char* env = std::getenv("TMPDIR");
        dir = (env && env[0] && std::strlen(env) < sizeof(settings().tempDir)) ? env : "/tmp";
    }
    size_t n = std::strlen(dir);
    while (n > 1 && dir[n - 1] == '/') --n;  // no trailing slash (but keep "/")
    if (n + 1 > cap) return KS_BUFFER_TOO_SMALL;
    std::memcpy(buf, dir, n);
    buf[n] = '\0';
    return KS_SUCCESS;
}

// Makes a unique name and creates the file empty with O_EXCL; -14 when the
// folder cannot hold it, -290 when the path is too long.
static int32_t reserveName(char* out, size_t cap, const char* prefix, int* fdOut, uint32_t mode) noexcept {
    char dir[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempDirectory(dir, sizeof dir);
    if (rc != KS_SUCCESS) return rc;
    if (std::strcmp(dir, "/") == 0) dir[0] = '\0';
    for (int attempt = 0; attempt < 64; ++attempt) {
        if (!composeName(out, cap, dir, prefix, nextUnique())) return KS_BUFFER_TOO_SMALL;
        int fd = osOpenUtf8(out, REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_EXCLUSIVE | mode,
                            0600);
        if (fd >= 0) {
            *fdOut = fd;
            return KS_SUCCESS;
        }
        if (errno != EEXIST) return KS_FILE_OPEN;
    }
    return KS_FILE_OPEN;
}

// ---------------------------------------------------------------- files
static int32_t tempCreateImpl(TempFile** out, const char* prefix, bool allowTable) noexcept {
    if (!out) return KS_INVALID_PARAMETER;
    *out = nullptr;
    if (!prefix) prefix = "QX";
    if (!prefixValid(prefix)) return KS_INVALID_PARAMETER;
    TEMPFILEOPTIONS opt = options();

    REDIRECTRECORD table;
    redirectInForce(&table);
    // A table whose open function is the built-in temporary-file open (or a
    // nested creation from inside a table's own open) would lead straight
    // back here: those use the file layer directly.
    bool viaTable = allowTable && !redirectIsDefault(table) && t_createDepth == 0 && table.pfnOpen &&
                    table.pfnOpen != &K_RedirectedTempFileOpen;

    // Mode 3: nothing of the kernel's may be kept on a disk of its own
    // accord; a caller's redirect table decides for itself where data goes.
    if (!viaTable && opt.nMode == TEMPFILE_MODE_NO_DISK) return KS_NOT_SUPPORTED;

    void* mem = memAlloc(sizeof(TempFile));
    if (!mem) return KS_NO_MEMORY;
    TempFile* tf = new (mem) TempFile();
    tf->limit = uint64_t(opt.uMaxFileMiB) << 20;

    auto fail = [&](int32_t rc) {
        tf->~TempFile();
        memFree(mem);
        return rc;
    };

    if (viaTable) {
        char name[OMBRIX_TEMP_PATH_MAX];
        char dir[OMBRIX_TEMP_PATH_MAX];
        int32_t rc = tempDirectory(dir, sizeof dir);
        if (rc != KS_SUCCESS) return fail(KS_FILE_OPEN);
        if (!composeName(name, sizeof name, std::strcmp(dir, "/") == 0 ? "" : dir, prefix, nextUnique()))
            return fail(KS_FILE_OPEN);
        wchar_t wname[OMBRIX_TEMP_PATH_MAX];
        utf::UtfResult cr = utf::utf8ToWide(name, std::strlen(name), wname, OMBRIX_TEMP_PATH_MAX - 1);
        if (cr.status != utf::kUtfOk) return fail(KS_FILE_OPEN);
        wname[cr.written] = L'\0';
        ++t_createDepth;
        void* h = table.pfnOpen(wname,
                                REDIRECT_OPEN_READWRITE | REDIRECT_OPEN_CREATE | REDIRECT_OPEN_TRUNCATE |
                                    REDIRECT_OPEN_TEMPORARY,
                                REDIRECT_SHARE_READ | REDIRECT_SHARE_WRITE, table.pOpenUserData);
        --t_createDepth;
        if (!h || h == OMBRIX_INVALID_FILE) return fail(KS_FILE_OPEN);
        tf->native = h;
        tf->table = table;
        tf->redirected = true;
        *out = tf;
        return KS_SUCCESS;
    }

    char dir[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempDirectory(dir, sizeof dir);
    if (rc != KS_SUCCESS) return fail(KS_FILE_OPEN);
    int fd = -1;
#ifdef O_TMPFILE
    if (!(opt.uFlags & TEMPFILE_OPT_NAMED)) {
        do {
            fd = ::open(dir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        } while (fd < 0 && errno == EINTR);
        if (fd < 0 && !tmpfileUnsupported(errno)) return fail(KS_FILE_OPEN);
    }
#endif
    if (fd < 0) {
        char name[OMBRIX_TEMP_PATH_MAX];
        rc = reserveName(name, sizeof name, prefix, &fd, REDIRECT_OPEN_TEMPORARY);
        if (rc != KS_SUCCESS) return fail(KS_FILE_OPEN);
    }
    tf->fd = fd;
    *out = tf;
    return KS_SUCCESS;
}

int32_t tempCreate(TempFile** out, const char* prefix) noexcept { return tempCreateImpl(out, prefix, true); }
int32_t tempCreateDirect(TempFile** out, const char* prefix) noexcept {
    return tempCreateImpl(out, prefix, false);
}

bool tempIsRedirected(const TempFile* h) noexcept { return h && h->redirected; }

// Positions a file that goes through a table (under its lock).
static bool seekTo(TempFile* h, uint64_t offset) noexcept {
    return h->table.pfnSeek &&
           h->table.pfnSeek(h->native, int64_t(offset), REDIRECT_SEEK_SET, h->table.pSeekUserData) ==
               int64_t(offset);
}

static bool overLimit(const TempFile* h, uint64_t offset, uint64_t n) noexcept {
    if (!h->limit) return false;
    return offset > h->limit || n > h->limit - offset;
}

int32_t tempWrite(TempFile* h, uint64_t offset, const void* buf, size_t n) noexcept {
    if (!h || (!buf && n)) return KS_INVALID_PARAMETER;
    if (n == 0) return KS_SUCCESS;
    if (offset > uint64_t(INT64_MAX) || n > uint64_t(INT64_MAX) - offset) return KS_FILE_WRITE;
    if (overLimit(h, offset, n)) return KS_FILE_WRITE;
    if (h->redirected) {
        std::lock_guard<std::mutex> g(h->lock);
        if (!seekTo(h, offset)) return KS_FILE_SEEK;
        int64_t w = tableWriteAll(h->table, h->native, buf, n);
        return w == int64_t(n) ? KS_SUCCESS : KS_FILE_WRITE;
    }
    const char* p = static_cast<const char*>(buf);
    while (n) {
        size_t chunk = n > 0x40000000u ? 0x40000000u : n;
        ssize_t r = ::pwrite(h->fd, p, chunk, off_t(offset));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return KS_FILE_WRITE;  // 0 or ENOSPC / EFBIG / EIO: disk full or broken
        p += r;
        offset += uint64_t(r);
        n -= size_t(r);
    }
    return KS_SUCCESS;
}

int32_t tempRead(TempFile* h, uint64_t offset, void* buf, size_t n) noexcept {
    if (!h || (!buf && n)) return KS_INVALID_PARAMETER;
    if (n == 0) return KS_SUCCESS;
    if (offset > uint64_t(INT64_MAX) || n > uint64_t(INT64_MAX) - offset) return KS_FILE_READ;
    if (h->redirected) {
        std::lock_guard<std::mutex> g(h->lock);
        if (!seekTo(h, offset)) return KS_FILE_SEEK;
        int64_t r = tableReadAll(h->table, h->native, buf, n);
        return r == int64_t(n) ? KS_SUCCESS : KS_FILE_READ;
    }
    char* p = static_cast<char*>(buf);
    while (n) {
        size_t chunk = n > 0x40000000u ? 0x40000000u : n;
        ssize_t r = ::pread(h->fd, p, chunk, off_t(offset));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return KS_FILE_READ;  // error, or the end of the file came first
        p += r;
        offset += uint64_t(r);
        n -= size_t(r);
    }
    return KS_SUCCESS;
}

int64_t tempSize(TempFile* h) noexcept {
    if (!h) return -1;
    if (h->redirected) {
        std::lock_guard<std::mutex> g(h->lock);
        return tableSize(h->table, h->native);
    }
    struct stat st;
    if (::fstat(h->fd, &st) != 0) return -1;
    return int64_t(st.st_size);
}

uint64_t tempFreeBytes() noexcept {
    REDIRECTRECORD table;
    redirectInForce(&table);
    const bool viaTable = !redirectIsDefault(table) && t_createDepth == 0 && table.pfnOpen &&
                          table.pfnOpen != &K_RedirectedTempFileOpen;
    if (viaTable) return UINT64_MAX;  // the caller's table decides where data goes
    char dir[OMBRIX_TEMP_PATH_MAX];
    if (tempDirectory(dir, sizeof dir) != KS_SUCCESS) return UINT64_MAX;
    struct statvfs st;
    if (::statvfs(dir, &st) != 0) return UINT64_MAX;
    const uint64_t unit = st.f_frsize ? st.f_frsize : st.f_bsize;
    if (unit && uint64_t(st.f_bavail) > UINT64_MAX / unit) return UINT64_MAX;
    return uint64_t(st.f_bavail) * unit;
}

int32_t tempSetSize(TempFile* h, uint64_t size) noexcept {
    if (!h) return KS_INVALID_PARAMETER;
    if (size > uint64_t(INT64_MAX)) return KS_FILE_WRITE;
    if (h->limit && size > h->limit) return KS_FILE_WRITE;
    if (h->redirected) {
        std::lock_guard<std::mutex> g(h->lock);
        if (h->table.pfnSetSize)
            return h->table.pfnSetSize(h->native, int64_t(size), h->table.pSetSizeUserData) == 0
                       ? KS_SUCCESS
                       : KS_FILE_WRITE;
        // No set-size function: extend by writing one byte at size - 1.
        int64_t cur = tableSize(h->table, h->native);
        if (cur < 0) return KS_FILE_SEEK;
        if (uint64_t(cur) == size) return KS_SUCCESS;
        if (uint64_t(cur) > size) return KS_FILE_WRITE;  // cannot cut through this table
        if (!seekTo(h, size - 1)) return KS_FILE_SEEK;
        const char zero = 0;
        return tableWriteAll(h->table, h->native, &zero, 1) == 1 ? KS_SUCCESS : KS_FILE_WRITE;
    }
    int r;
    do {
        r = ::ftruncate(h->fd, off_t(size));
    } while (r != 0 && errno == EINTR);
    return r == 0 ? KS_SUCCESS : KS_FILE_WRITE;
}

void tempClose(TempFile* h) noexcept {
    if (!h) return;
    if (h->redirected) {
        if (h->table.pfnClose) h->table.pfnClose(h->native, h->table.pCloseUserData);
    } else if (h->fd >= 0) {
        ::close(h->fd);
    }
    h->~TempFile();
    memFree(h);
}

// ---------------------------------------------------------------- mapping
int32_t tempMap(TempFile* h, uint64_t offset, size_t n, bool writable, TempMapping* out) noexcept {
    if (!h || !out || n == 0) return KS_INVALID_PARAMETER;
    *out = TempMapping{};
    if (h->redirected) return KS_NOT_SUPPORTED;
    if (offset > uint64_t(INT64_MAX) || n > uint64_t(INT64_MAX) - offset) return KS_INVALID_PARAMETER;
    uint64_t end = offset + n;
    if (writable) {
        if (overLimit(h, offset, n)) return KS_FILE_WRITE;
        // Reserve the blocks now: a store into a mapped page that the disk
        // cannot back would otherwise kill the process with SIGBUS.
        int e = ::posix_fallocate(h->fd, off_t(offset), off_t(n));
        if (e == ENOSPC || e == EFBIG || e == EIO) return KS_FILE_WRITE;
        if (e != 0) {
            // No fallocate on this file system: at least make the range exist.
            int64_t size = tempSize(h);
            if (size < 0) return KS_FILE_WRITE;
            if (uint64_t(size) < end && tempSetSize(h, end) != KS_SUCCESS) return KS_FILE_WRITE;
        }
    } else {
        int64_t size = tempSize(h);
        if (size < 0 || uint64_t(size) < end) return KS_FILE_READ;
    }
    static const uint64_t page = uint64_t(::sysconf(_SC_PAGESIZE));
    uint64_t start = offset - offset % page;
    uint64_t len = end - start;
    if (len > SIZE_MAX) return KS_NO_MEMORY;
    void* p = ::mmap(nullptr, size_t(len), PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, h->fd,
                     off_t(start));
    if (p == MAP_FAILED) return KS_NO_MEMORY;
    out->base = p;
    out->length = size_t(len);
    out->data = static_cast<uint8_t*>(p) + (offset - start);
    return KS_SUCCESS;
}

void tempUnmap(TempMapping* m) noexcept {
    if (!m || !m->base) return;
    ::munmap(m->base, m->length);
    *m = TempMapping{};
}

// ---------------------------------------------------------------- positioned
// The K_RedirectedTempFile functions: a file position of their own; reads
// and writes may be partial, as a table's functions are.
int64_t tempPosRead(TempFile* h, void* buf, uint32_t n) noexcept {
    std::lock_guard<std::mutex> g(h->lock);
    if (n == 0) return 0;
    if (h->redirected) return -1;  // never made by the temporary-file open
    for (;;) {
        ssize_t r = ::pread(h->fd, buf, n > 0x7FFFF000u ? 0x7FFFF000u : n, off_t(h->pos));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        h->pos += r;
        return r;
    }
}

int64_t tempPosWrite(TempFile* h, const void* buf, uint32_t n) noexcept {
    std::lock_guard<std::mutex> g(h->lock);
    if (n == 0) return 0;
    if (h->redirected) return -1;
    uint64_t k = n > 0x7FFFF000u ? 0x7FFFF000u : n;
    if (h->limit) {
        uint64_t room = uint64_t(h->pos) < h->limit ? h->limit - uint64_t(h->pos) : 0;
        if (k > room) k = room;  // the size limit acts as a full disk
    }
    uint64_t done = 0;
    while (done < k) {
        ssize_t r = ::pwrite(h->fd, static_cast<const char*>(buf) + done, size_t(k - done),
                             off_t(uint64_t(h->pos) + done));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (done == 0 && r < 0 && errno != ENOSPC && errno != EFBIG) return -1;
            break;
        }
        done += uint64_t(r);
    }
    h->pos += int64_t(done);
    return int64_t(done);
}

int64_t tempPosSeek(TempFile* h, int64_t off, int32_t origin) noexcept {
    int64_t base;
    if (origin == REDIRECT_SEEK_END) {
        base = tempSize(h);
        if (base < 0) return -1;
    }
    std::lock_guard<std::mutex> g(h->lock);
    switch (origin) {
        case REDIRECT_SEEK_SET: base = 0; break;
        case REDIRECT_SEEK_CUR: base = h->pos; break;
        case REDIRECT_SEEK_END: break;
        default: return -1;
    }
    if ((off > 0 && base > INT64_MAX - off) || base + off < 0) return -1;
    h->pos = base + off;
    return h->pos;
}

// Reserves a unique name (used by K_GetTempFileName); the file is created
// empty and left in place.
int32_t tempReserveName(char* out, size_t cap, const char* prefix) noexcept {
    if (!prefix) prefix = "QX";
    if (!prefixValid(prefix)) return KS_INVALID_PARAMETER;
    int fd = -1;
    int32_t rc = reserveName(out, cap, prefix, &fd, 0);
    if (rc == KS_SUCCESS) ::close(fd);
    return rc;
}

int32_t tempNumberedName(char* out, size_t cap, const char* prefix, uint32_t number) noexcept {
    if (!prefix) prefix = "QX";
    if (!prefixValid(prefix) || number == 0) return KS_INVALID_PARAMETER;
    char dir[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempDirectory(dir, sizeof dir);
    if (rc != KS_SUCCESS) return rc;
    if (std::strcmp(dir, "/") == 0) dir[0] = '\0';
    return composeName(out, cap, dir, prefix, number) ? KS_SUCCESS : KS_BUFFER_TOO_SMALL;
}

// Options, for the exports.
int32_t tempSetOptions(const TEMPFILEOPTIONS& in) noexcept {
    std::lock_guard<std::mutex> g(g_optLock);
    int32_t mode = in.nMode;
    if (mode == -1) mode = g_opt.nMode;
    else if (mode == 0) mode = TEMPFILE_MODE_DISK;
    g_opt = in;
    g_opt.uStructSize = TEMPFILEOPTIONS_SIZE;
    g_opt.nMode = mode;
    return KS_SUCCESS;
}
TEMPFILEOPTIONS tempGetOptions() noexcept { return options(); }

}  // namespace krn
