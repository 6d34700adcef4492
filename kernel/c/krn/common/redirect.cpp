// redirect.cpp - redirect tables, redirected file handles, "ORVARedirect://"
// names and the memory-buffer file.
#include "redirect.h"

#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <new>

#include "kernel.h"
#include "memory.h"
#include "settings.h"
#include "wideutf8.h"
#include "../windowsemul/globalmem.h"
#include "../windowsemul/objects.h"

namespace krn {

// ====================================================================== registry
bool HandleRegistry::add(const void* p) const noexcept { return objCreateKeyed(p, kind_, nullptr) != nullptr; }
bool HandleRegistry::remove(const void* p) const noexcept { return objDestroy(const_cast<void*>(p), kind_); }
bool HandleRegistry::contains(const void* p) const noexcept { return objKind(p) == kind_; }

// ====================================================================== tables
namespace {

std::recursive_mutex& processLock() noexcept {
    static std::recursive_mutex m;
    return m;
}
REDIRECTRECORD g_process{};
bool g_processReady = false;

// Both under processLock().
REDIRECTRECORD& processTableLocked() noexcept {
    if (!g_processReady) {
        redirectDefaults(&g_process);
        g_processReady = true;
    }
    return g_process;
}

void fillEmptyWithDefaults(REDIRECTRECORD& t) noexcept {
    REDIRECTRECORD d;
    redirectDefaults(&d);
    if (!t.pfnOpen) t.pfnOpen = d.pfnOpen;
    if (!t.pfnRead) t.pfnRead = d.pfnRead;
    if (!t.pfnWrite) t.pfnWrite = d.pfnWrite;
    if (!t.pfnSeek) t.pfnSeek = d.pfnSeek;
    if (!t.pfnClose) t.pfnClose = d.pfnClose;
    if (!t.pfnSize) t.pfnSize = d.pfnSize;
    if (!t.pfnSetSize) t.pfnSetSize = d.pfnSetSize;
}

}  // namespace

void redirectDefaults(REDIRECTRECORD* out) noexcept {
    *out = REDIRECTRECORD{};
    out->uStructSize = REDIRECTRECORD_SIZE;
    out->pfnOpen = &K_OsOpen;
    out->pfnRead = &K_OsRead;
    out->pfnWrite = &K_OsWrite;
    out->pfnSeek = &K_OsSeek;
    out->pfnClose = &K_OsClose;
    out->pfnSize = &K_OsSize;
    out->pfnSetSize = &K_OsSetSize;
}

void redirectTempTable(REDIRECTRECORD* out) noexcept {
    *out = REDIRECTRECORD{};
    out->uStructSize = REDIRECTRECORD_SIZE;
    out->pfnOpen = &K_RedirectedTempFileOpen;
    out->pfnRead = &K_RedirectedTempFileRead;
    out->pfnWrite = &K_RedirectedTempFileWrite;
    out->pfnSeek = &K_RedirectedTempFileSeek;
    out->pfnClose = &K_RedirectedTempFileClose;
    out->pfnSize = &K_RedirectedTempFileSize;
    out->pfnSetSize = &K_RedirectedTempFileSetSize;
}

bool redirectIsDefault(const REDIRECTRECORD& t) noexcept {
    return t.pfnOpen == &K_OsOpen && t.pfnRead == &K_OsRead && t.pfnWrite == &K_OsWrite &&
           t.pfnSeek == &K_OsSeek && t.pfnClose == &K_OsClose && t.pfnSize == &K_OsSize &&
           t.pfnSetSize == &K_OsSetSize;
}

void redirectInForce(REDIRECTRECORD* out) noexcept {
    REDIRECTRECORD p;
    {
        std::lock_guard<std::recursive_mutex> g(processLock());
        p = processTableLocked();
    }
    const REDIRECTRECORD& t = settings().redirect;
    if (t.pfnOpen) {
        // The size slots belong with the open function that made the handle.
        p.pfnOpen = t.pfnOpen;
        p.pOpenUserData = t.pOpenUserData;
        p.pfnSize = t.pfnSize;
        p.pSizeUserData = t.pSizeUserData;
        p.pfnSetSize = t.pfnSetSize;
        p.pSetSizeUserData = t.pSetSizeUserData;
    }
    if (t.pfnRead) {
        p.pfnRead = t.pfnRead;
        p.pReadUserData = t.pReadUserData;
    }
    if (t.pfnWrite) {
        p.pfnWrite = t.pfnWrite;
        p.pWriteUserData = t.pWriteUserData;
    }
    if (t.pfnSeek) {
        p.pfnSeek = t.pfnSeek;
        p.pSeekUserData = t.pSeekUserData;
    }
    if (t.pfnClose) {
        p.pfnClose = t.pfnClose;
        p.pCloseUserData = t.pCloseUserData;
    }
    p.uStructSize = REDIRECTRECORD_SIZE;
    *out = p;
}

int64_t tableReadAll(const REDIRECTRECORD& t, void* h, void* buf, uint64_t n) noexcept {
    if (n == 0) return 0;
    if (!t.pfnRead || !buf) return -1;
    uint64_t done = 0;
    while (done < n) {
        uint64_t left = n - done;
        uint32_t ask = left > REDIRECT_CHUNK_BYTES ? REDIRECT_CHUNK_BYTES : uint32_t(left);
        int32_t r = t.pfnRead(h, static_cast<char*>(buf) + done, ask, t.pReadUserData);
        if (r < 0 || uint32_t(r) > ask) return -1;
        if (r == 0) break;
        done += uint32_t(r);
    }
    return int64_t(done);
}

int64_t tableWriteAll(const REDIRECTRECORD& t, void* h, const void* buf, uint64_t n) noexcept {
    if (n == 0) return 0;
    if (!t.pfnWrite || !buf) return -1;
    uint64_t done = 0;
    while (done < n) {
        uint64_t left = n - done;
        uint32_t ask = left > REDIRECT_CHUNK_BYTES ? REDIRECT_CHUNK_BYTES : uint32_t(left);
        int32_t r = t.pfnWrite(h, static_cast<const char*>(buf) + done, ask, t.pWriteUserData);
        if (r < 0 || uint32_t(r) > ask) return -1;
        if (r == 0) break;
        done += uint32_t(r);
    }
    return int64_t(done);
}

int64_t tableSize(const REDIRECTRECORD& t, void* h) noexcept {
    if (t.pfnSize) return t.pfnSize(h, t.pSizeUserData);
    if (!t.pfnSeek) return -1;
    int64_t cur = t.pfnSeek(h, 0, REDIRECT_SEEK_CUR, t.pSeekUserData);
    if (cur < 0) return -1;
    int64_t end = t.pfnSeek(h, 0, REDIRECT_SEEK_END, t.pSeekUserData);
    if (t.pfnSeek(h, cur, REDIRECT_SEEK_SET, t.pSeekUserData) != cur) return -1;
    return end;
}

// ====================================================================== file handles
namespace {

constexpr uint32_t kFileMagic = 0x4C494652u;  // "RFIL"
enum : uint32_t { kMarkerTable = 0, kMarkerName = 4, kMarkerWrapped = 8 };

struct RedirectedFile {
    uint32_t magic = kFileMagic;
    uint32_t marker = kMarkerTable;
    REDIRECTRECORD table{};
    void* native = nullptr;
};

constexpr HandleRegistry kFiles(kObjRedirectedFile);
const HandleRegistry& files() noexcept { return kFiles; }

bool nativeValid(void* h) noexcept { return h && h != OMBRIX_INVALID_FILE; }

RedirectedFile* liveFile(HREDIRECTFILE h) noexcept {
    if (!h || reinterpret_cast<void*>(h) == OMBRIX_INVALID_FILE) return nullptr;
    if (!files().contains(h)) return nullptr;
    return reinterpret_cast<RedirectedFile*>(h);
}

// Wraps; on failure closes the native handle (when asked) and returns -1.
HREDIRECTFILE wrap(void* native, const REDIRECTRECORD& t, uint32_t marker, bool closeOnFail) noexcept {
    void* mem = memAlloc(sizeof(RedirectedFile));
    RedirectedFile* f = mem ? new (mem) RedirectedFile() : nullptr;
    if (f) {
        f->marker = marker;
        f->table = t;
        f->native = native;
        if (files().add(f)) return reinterpret_cast<HREDIRECTFILE>(f);
        memFree(f);
    }
    if (closeOnFail && t.pfnClose) t.pfnClose(native, t.pCloseUserData);
    return reinterpret_cast<HREDIRECTFILE>(OMBRIX_INVALID_FILE);
}

HREDIRECTFILE invalidFile() noexcept { return reinterpret_cast<HREDIRECTFILE>(OMBRIX_INVALID_FILE); }

}  // namespace

// ====================================================================== names
namespace {

constexpr wchar_t kPrefix[] = L"ORVARedirect://";
constexpr size_t kPrefixLen = 15;
constexpr int kFields = 15;  // flags + 7 x (function, user data)

struct NameKey {
    uint64_t k0, k1;
};

const NameKey& nameKey() noexcept {
    static const NameKey key = [] {
        NameKey k{0, 0};
        if (::getentropy(&k, sizeof k) != 0) {
            struct timespec ts;
            clock_gettime(CLOCK_MONOTONIC, &ts);
            k.k0 = uint64_t(ts.tv_nsec) * 0x9E3779B97F4A7C15ull ^ uint64_t(::getpid());
            k.k1 = uint64_t(reinterpret_cast<uintptr_t>(&ts)) ^ uint64_t(ts.tv_sec) << 32;
        }
        return k;
    }();
    return key;
}

uint64_t mix64(uint64_t z) noexcept {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Keyed check over the fields: ties a name to this process. It stops names
// that were not made here (typed by hand, made by another process, damaged)
// from making the kernel call an arbitrary address; it is not a defence
// against code that can read this process's memory.
uint64_t nameCheck(const uint64_t (&v)[kFields]) noexcept {
    const NameKey& k = nameKey();
    uint64_t h = k.k0;
    for (int i = 0; i < kFields; ++i) h = mix64(h ^ v[i] ^ (uint64_t(i) << 56)) + k.k1;
    return mix64(h ^ k.k1);
}

void toFields(const REDIRECTRECORD& t, uint64_t (&v)[kFields]) noexcept {
    auto P = [](const void* p) { return uint64_t(reinterpret_cast<uintptr_t>(p)); };
    auto F = [](auto fn) { return uint64_t(reinterpret_cast<uintptr_t>(fn)); };
    v[0] = t.uFlags;
    v[1] = F(t.pfnOpen);    v[2] = P(t.pOpenUserData);
    v[3] = F(t.pfnRead);    v[4] = P(t.pReadUserData);
    v[5] = F(t.pfnWrite);   v[6] = P(t.pWriteUserData);
    v[7] = F(t.pfnSeek);    v[8] = P(t.pSeekUserData);
    v[9] = F(t.pfnClose);   v[10] = P(t.pCloseUserData);
    v[11] = F(t.pfnSize);   v[12] = P(t.pSizeUserData);
    v[13] = F(t.pfnSetSize); v[14] = P(t.pSetSizeUserData);
}

void fromFields(const uint64_t (&v)[kFields], REDIRECTRECORD& t) noexcept {
    auto P = [](uint64_t x) { return reinterpret_cast<void*>(uintptr_t(x)); };
    t = REDIRECTRECORD{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    t.uFlags = uint32_t(v[0]);
    t.pfnOpen = reinterpret_cast<PFN_REDIRECTOPEN>(uintptr_t(v[1]));       t.pOpenUserData = P(v[2]);
    t.pfnRead = reinterpret_cast<PFN_REDIRECTREAD>(uintptr_t(v[3]));       t.pReadUserData = P(v[4]);
    t.pfnWrite = reinterpret_cast<PFN_REDIRECTWRITE>(uintptr_t(v[5]));     t.pWriteUserData = P(v[6]);
    t.pfnSeek = reinterpret_cast<PFN_REDIRECTSEEK>(uintptr_t(v[7]));       t.pSeekUserData = P(v[8]);
    t.pfnClose = reinterpret_cast<PFN_REDIRECTCLOSE>(uintptr_t(v[9]));     t.pCloseUserData = P(v[10]);
    t.pfnSize = reinterpret_cast<PFN_REDIRECTSIZE>(uintptr_t(v[11]));      t.pSizeUserData = P(v[12]);
    t.pfnSetSize = reinterpret_cast<PFN_REDIRECTSETSIZE>(uintptr_t(v[13])); t.pSetSizeUserData = P(v[14]);
}

size_t putHex(wchar_t* out, uint64_t v, int minDigits) noexcept {
    static const wchar_t hex[] = L"0123456789abcdef";
    wchar_t tmp[16];
    int n = 0;
    do {
        tmp[n++] = hex[v & 15];
        v >>= 4;
    } while (v && n < 16);
    while (n < minDigits) tmp[n++] = L'0';
    for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
    return size_t(n);
}

int hexVal(wchar_t c) noexcept {
    if (c >= L'0' && c <= L'9') return int(c - L'0');
    if (c >= L'a' && c <= L'f') return int(c - L'a') + 10;
    if (c >= L'A' && c <= L'F') return int(c - L'A') + 10;
    return -1;
}

// Reads 1..16 hex digits up to `stop`; exact16 demands exactly 16.
bool getHex(const wchar_t* s, size_t n, size_t& i, wchar_t stop, bool exact16, uint64_t& v) noexcept {
    v = 0;
    size_t start = i;
    while (i < n && s[i] != stop) {
        int d = hexVal(s[i]);
        if (d < 0 || i - start >= 16) return false;
        v = (v << 4) | uint64_t(d);
        ++i;
    }
    size_t digits = i - start;
    if (i >= n || digits == 0 || (exact16 && digits != 16)) return false;
    ++i;  // the stop character
    return true;
}

}  // namespace

bool startsWithRedirectPrefix(const wchar_t* s, size_t n) noexcept {
    return n >= kPrefixLen && std::wmemcmp(s, kPrefix, kPrefixLen) == 0;
}

// Decodes s[0..n) (which need not be terminated). On success fills t and
// the index of the inner name.
bool decodeRedirectName(const wchar_t* s, size_t n, REDIRECTRECORD* t, size_t* nameStart) noexcept {
    if (!s || !startsWithRedirectPrefix(s, n)) return false;
    size_t i = kPrefixLen;
    if (n - i < 2 || s[i] != L'1' || s[i + 1] != L'.') return false;
    i += 2;
    uint64_t v[kFields];
    for (int k = 0; k < kFields; ++k)
        if (!getHex(s, n, i, L'.', false, v[k])) return false;
    uint64_t check;
    if (!getHex(s, n, i, L'/', true, check)) return false;
    if (v[0] > 0xFFFFFFFFull || v[1] == 0) return false;
    if (sizeof(void*) < 8)
        for (int k = 1; k < kFields; ++k)
            if (v[k] > uint64_t(UINTPTR_MAX)) return false;
    if (check != nameCheck(v)) return false;
    fromFields(v, *t);
    if (nameStart) *nameStart = i;
    return true;
}

// Encodes; returns the characters needed without the terminator.
size_t encodeRedirectName(const REDIRECTRECORD& t, const wchar_t* name, size_t nameLen, wchar_t* out,
                          size_t cap) noexcept {
    uint64_t v[kFields];
    toFields(t, v);
    // 15 prefix + "1." + 15 x (<=16 + '.') + 16 + '/' = 305 characters at most.
    wchar_t head[320];
    size_t k = 0;
    std::wmemcpy(head, kPrefix, kPrefixLen);
    k = kPrefixLen;
    head[k++] = L'1';
    head[k++] = L'.';
    for (int f = 0; f < kFields; ++f) {
        k += putHex(head + k, v[f], 1);
        head[k++] = L'.';
    }
    k += putHex(head + k, nameCheck(v), 16);
    head[k++] = L'/';
    size_t total = k + nameLen;
    if (out && total + 1 <= cap) {
        std::wmemcpy(out, head, k);
        if (nameLen) std::wmemcpy(out + k, name, nameLen);
        out[total] = L'\0';
    }
    return total;
}

// ====================================================================== buffer file
namespace {

struct RedirectBuffer {
    char tag[4] = {'K', 'B', 'U', 'F'};
    void* user = nullptr;
    uint64_t pos = 0;
    uint32_t initial = 0;
    uint32_t grow = 0;
    uint32_t flags = 0;
    REDIRECTRECORD table{};
    // beyond the described fields
    uint8_t* data = nullptr;
    uint64_t size = 0;
    uint64_t cap = 0;
    int32_t opens = 0;
    std::mutex lock;
};

constexpr HandleRegistry kBuffers(kObjRedirectBuffer);
const HandleRegistry& buffers() noexcept { return kBuffers; }

RedirectBuffer* liveBuffer(const void* p) noexcept {
    if (!p || !buffers().contains(p)) return nullptr;
    return static_cast<RedirectBuffer*>(const_cast<void*>(p));
}

// Makes room for `need` bytes (under the buffer's lock). False when the
// buffer is fixed or memory runs out.
bool ensureCap(RedirectBuffer* b, uint64_t need) noexcept {
    if (need <= b->cap) return true;
    if (b->flags & REDIRECTBUF_FIXED) return false;
    uint64_t step = b->grow ? b->grow : 65536;
    uint64_t steps = (need - b->cap + step - 1) / step;
    if (steps > (UINT64_MAX - b->cap) / step) return false;
    uint64_t newCap = b->cap + steps * step;
    if (newCap > SIZE_MAX) return false;
    void* p = memRealloc(b->data, size_t(newCap));
    if (!p) return false;
    b->data = static_cast<uint8_t*>(p);
    b->cap = newCap;
    return true;
}

void* bufOpen(const wchar_t*, uint32_t mode, uint32_t, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b) return OMBRIX_INVALID_FILE;
    std::lock_guard<std::mutex> g(b->lock);
    if (mode & REDIRECT_OPEN_TRUNCATE) b->size = 0;
    b->pos = 0;
    ++b->opens;
    return b;
}

int32_t bufRead(void* h, void* buf, uint32_t n, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user || (!buf && n)) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    if (n > 0x7FFFFFFFu) n = 0x7FFFFFFFu;
    uint64_t avail = b->pos < b->size ? b->size - b->pos : 0;
    uint32_t k = avail < n ? uint32_t(avail) : n;
    if (k) std::memcpy(buf, b->data + b->pos, k);
    b->pos += k;
    return int32_t(k);
}

int32_t bufWrite(void* h, const void* buf, uint32_t n, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user || (!buf && n)) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    if (n > 0x7FFFFFFFu) n = 0x7FFFFFFFu;
    if (n == 0) return 0;
    uint64_t end = b->pos + n;
    if (!ensureCap(b, end)) {
        if (!(b->flags & REDIRECTBUF_FIXED)) return -1;  // out of memory
        end = b->cap > b->pos ? b->cap : b->pos;         // fixed: a short write
    }
    uint32_t k = uint32_t(end - b->pos);
    if (k == 0) return 0;
    if (b->pos > b->size) std::memset(b->data + b->size, 0, size_t(b->pos - b->size));
    std::memcpy(b->data + b->pos, buf, k);
    b->pos = end;
    if (end > b->size) b->size = end;
    return int32_t(k);
}

int64_t bufSeek(void* h, int64_t off, int32_t origin, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    int64_t base;
    switch (origin) {
        case REDIRECT_SEEK_SET: base = 0; break;
        case REDIRECT_SEEK_CUR: base = int64_t(b->pos); break;
        case REDIRECT_SEEK_END: base = int64_t(b->size); break;
        default: return -1;
    }
    if ((off > 0 && base > INT64_MAX - off) || base + off < 0) return -1;
    b->pos = uint64_t(base + off);
    return int64_t(b->pos);
}

int32_t bufClose(void* h, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    if (b->opens <= 0) return -1;
    --b->opens;
    return 0;
}

int64_t bufSize(void* h, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    return int64_t(b->size);
}

int32_t bufSetSize(void* h, int64_t size, void* user) {
    RedirectBuffer* b = liveBuffer(user);
    if (!b || h != user || size < 0) return -1;
    std::lock_guard<std::mutex> g(b->lock);
    uint64_t s = uint64_t(size);
    if (!ensureCap(b, s)) return -1;
    if (s > b->size) std::memset(b->data + b->size, 0, size_t(s - b->size));
    b->size = s;
    return 0;
}

}  // namespace

}  // namespace krn

using namespace krn;

// ====================================================================== exports: tables
KAPI int32_t K_RedirectIO(void* pfnOpen, void* pfnRead, void* pfnWrite, void* pfnSeek, void* pfnClose,
                          void* user) {
    REDIRECTRECORD d;
    redirectDefaults(&d);
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    auto pick = [](void* given, auto def) -> decltype(def) {
        if (!given) return def;
        if (given == REDIRECT_EMPTY) return nullptr;
        return reinterpret_cast<decltype(def)>(given);
    };
    t.pfnOpen = pick(pfnOpen, d.pfnOpen);
    t.pfnRead = pick(pfnRead, d.pfnRead);
    t.pfnWrite = pick(pfnWrite, d.pfnWrite);
    t.pfnSeek = pick(pfnSeek, d.pfnSeek);
    t.pfnClose = pick(pfnClose, d.pfnClose);
    if (!pfnOpen) {
        t.pfnSize = d.pfnSize;
        t.pfnSetSize = d.pfnSetSize;
    }
    t.pOpenUserData = t.pReadUserData = t.pWriteUserData = t.pSeekUserData = t.pCloseUserData = user;
    t.pSizeUserData = t.pSetSizeUserData = user;
    settings().redirect = t;
    return KS_SUCCESS;
}

KAPI int32_t K_SetRedirectFunctions(REDIRECTRECORD* rec, int32_t selector, int32_t processWide) {
    if (!rec) return KS_NULL_POINTER;
    if (rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    if (selector < REDIRECT_SET_INSTALL || selector > REDIRECT_SET_RESET) return KS_INVALID_PARAMETER;
    REDIRECTRECORD next{};
    if (selector != REDIRECT_SET_RESET) next = *rec;
    next.uStructSize = REDIRECTRECORD_SIZE;
    REDIRECTRECORD old;
    if (processWide) {
        if (selector == REDIRECT_SET_RESET) redirectDefaults(&next);
        fillEmptyWithDefaults(next);
        std::lock_guard<std::recursive_mutex> g(processLock());
        REDIRECTRECORD& p = processTableLocked();
        old = p;
        p = next;
    } else {
        REDIRECTRECORD& t = settings().redirect;
        old = t;
        t = next;
        if (selector == REDIRECT_SET_RESET) t.uStructSize = 0;
    }
    old.uStructSize = REDIRECTRECORD_SIZE;
    if (selector == REDIRECT_SET_INSTALL) {
        if (processWide) {
            std::lock_guard<std::recursive_mutex> g(processLock());
            *rec = processTableLocked();
        } else {
            redirectInForce(rec);
        }
    } else {
        *rec = old;
    }
    rec->uStructSize = REDIRECTRECORD_SIZE;
    return KS_SUCCESS;
}

KAPI int32_t K_GetRedirectFunctions(REDIRECTRECORD* rec, uint32_t size, int32_t mode, int32_t processWide) {
    if (!rec) return KS_NULL_POINTER;
    if (size != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    REDIRECTRECORD out;
    switch (mode) {
        case REDIRECT_GET_IN_FORCE:
            if (processWide) {
                std::lock_guard<std::recursive_mutex> g(processLock());
                out = processTableLocked();
            } else {
                redirectInForce(&out);
            }
            break;
        case REDIRECT_GET_THREAD: out = settings().redirect; break;
        case REDIRECT_GET_TEMPFILE: redirectTempTable(&out); break;
        case REDIRECT_GET_DEFAULT: redirectDefaults(&out); break;
        default: return KS_INVALID_PARAMETER;
    }
    out.uStructSize = REDIRECTRECORD_SIZE;
    *rec = out;
    return KS_SUCCESS;
}

KAPI int32_t K_UsesRedirectIO(void) {
    REDIRECTRECORD t;
    redirectInForce(&t);
    return redirectIsDefault(t) ? 0 : 1;
}

// ====================================================================== exports: files
static HREDIRECTFILE openWide(const wchar_t* name, size_t n, uint32_t mode, uint32_t share) noexcept {
    if (startsWithRedirectPrefix(name, n)) {
        REDIRECTRECORD t;
        size_t start = 0;
        if (!decodeRedirectName(name, n, &t, &start)) return invalidFile();
        void* h = t.pfnOpen(name + start, mode, share, t.pOpenUserData);
        if (!nativeValid(h)) return invalidFile();
        return wrap(h, t, kMarkerName, true);
    }
    REDIRECTRECORD t;
    redirectInForce(&t);
    if (!t.pfnOpen) return invalidFile();
    void* h = t.pfnOpen(name, mode, share, t.pOpenUserData);
    if (!nativeValid(h)) return invalidFile();
    return wrap(h, t, kMarkerTable, true);
}

KAPI HREDIRECTFILE K_RedirectedOpen(const wchar_t* name, uint32_t mode, uint32_t share) {
    if (!name) return invalidFile();
    return openWide(name, std::wcslen(name), mode, share);
}

KAPI HREDIRECTFILE K_RedirectedOpenUtf8(const char* name, uint32_t mode, uint32_t share) {
    if (!name) return invalidFile();
    kvector<wchar_t> w;
    if (!utf::utf8ToWide(name, w)) return invalidFile();
    return openWide(w.data(), w.size() - 1, mode, share);
}

KAPI int32_t K_RedirectedRead(HREDIRECTFILE h, void* buf, uint32_t n) {
    RedirectedFile* f = liveFile(h);
    if (!f || !f->table.pfnRead) return -1;
    return f->table.pfnRead(f->native, buf, n, f->table.pReadUserData);
}

KAPI int32_t K_RedirectedWrite(HREDIRECTFILE h, const void* buf, uint32_t n) {
    RedirectedFile* f = liveFile(h);
    if (!f || !f->table.pfnWrite) return -1;
    return f->table.pfnWrite(f->native, buf, n, f->table.pWriteUserData);
}

KAPI int64_t K_RedirectedSeek(HREDIRECTFILE h, int64_t off, int32_t origin) {
    RedirectedFile* f = liveFile(h);
    if (!f || !f->table.pfnSeek) return -1;
    return f->table.pfnSeek(f->native, off, origin, f->table.pSeekUserData);
}

KAPI int32_t K_RedirectedClose(HREDIRECTFILE h) {
    if (!h || reinterpret_cast<void*>(h) == OMBRIX_INVALID_FILE) return -1;
    if (!files().remove(h)) return -1;  // not live: nothing to free
    RedirectedFile* f = reinterpret_cast<RedirectedFile*>(h);
    int32_t r = f->table.pfnClose ? f->table.pfnClose(f->native, f->table.pCloseUserData) : -1;
    f->~RedirectedFile();
    memFree(f);
    return r < 0 ? -1 : 0;
}

KAPI int64_t K_RedirectedReadBig(HREDIRECTFILE h, void* buf, uint64_t n) {
    if (n == 0) return 0;
    RedirectedFile* f = liveFile(h);
    if (!f) return -1;
    return tableReadAll(f->table, f->native, buf, n);
}

KAPI int64_t K_RedirectedWriteBig(HREDIRECTFILE h, const void* buf, uint64_t n) {
    if (n == 0) return 0;
    RedirectedFile* f = liveFile(h);
    if (!f) return -1;
    return tableWriteAll(f->table, f->native, buf, n);
}

KAPI int64_t K_RedirectedGetSize(HREDIRECTFILE h) {
    RedirectedFile* f = liveFile(h);
    if (!f) return -1;
    return tableSize(f->table, f->native);
}

KAPI int32_t K_CreateRedirectedFileHandle(HREDIRECTFILE* ph, void* native, const REDIRECTRECORD* rec) {
    if (!ph) return KS_INVALID_PARAMETER;
    if (rec && rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    if (!nativeValid(native)) return KS_INVALID_PARAMETER;
    REDIRECTRECORD t;
    if (rec) t = *rec;
    else redirectInForce(&t);
    t.uStructSize = REDIRECTRECORD_SIZE;
    HREDIRECTFILE h = wrap(native, t, kMarkerWrapped, false);
    if (reinterpret_cast<void*>(h) == OMBRIX_INVALID_FILE) return KS_NO_MEMORY;
    *ph = h;
    return KS_SUCCESS;
}

KAPI int32_t K_ExtractRedirectedFileHandle(HREDIRECTFILE h, void** pNative, int32_t release) {
    if (!pNative) return KS_INVALID_PARAMETER;
    RedirectedFile* f = liveFile(h);
    if (!f) return KS_INVALID_PARAMETER;
    void* native = f->native;
    if (release) {
        if (!files().remove(f)) return KS_INVALID_PARAMETER;
        f->~RedirectedFile();
        memFree(f);
    }
    *pNative = native;
    return KS_SUCCESS;
}

KAPI int32_t K_ExtractRedirectFunctions(HREDIRECTFILE h, REDIRECTRECORD* rec) {
    if (!rec) return KS_NULL_POINTER;
    if (rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    RedirectedFile* f = liveFile(h);
    if (!f) return KS_INVALID_PARAMETER;
    *rec = f->table;
    rec->uStructSize = REDIRECTRECORD_SIZE;
    return KS_SUCCESS;
}

KAPI int32_t K_UpdateRedirectFunctions(HREDIRECTFILE h, const REDIRECTRECORD* rec) {
    if (!rec) return KS_NULL_POINTER;
    if (rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    RedirectedFile* f = liveFile(h);
    if (!f) return KS_INVALID_PARAMETER;
    REDIRECTRECORD& t = f->table;
    const REDIRECTRECORD& r = *rec;
    if (r.pfnOpen) { t.pfnOpen = r.pfnOpen; t.pOpenUserData = r.pOpenUserData; }
    if (r.pfnRead) { t.pfnRead = r.pfnRead; t.pReadUserData = r.pReadUserData; }
    if (r.pfnWrite) { t.pfnWrite = r.pfnWrite; t.pWriteUserData = r.pWriteUserData; }
    if (r.pfnSeek) { t.pfnSeek = r.pfnSeek; t.pSeekUserData = r.pSeekUserData; }
    if (r.pfnClose) { t.pfnClose = r.pfnClose; t.pCloseUserData = r.pCloseUserData; }
    if (r.pfnSize) { t.pfnSize = r.pfnSize; t.pSizeUserData = r.pSizeUserData; }
    if (r.pfnSetSize) { t.pfnSetSize = r.pfnSetSize; t.pSetSizeUserData = r.pSetSizeUserData; }
    t.uFlags = r.uFlags;
    return KS_SUCCESS;
}

// ====================================================================== exports: names
KAPI int32_t K_MakeRedirectName(const REDIRECTRECORD* rec, const wchar_t* name, wchar_t* out, uint32_t nChars) {
    if (!rec) return KS_NULL_POINTER;
    if (rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    if (!out || !rec->pfnOpen) return KS_INVALID_PARAMETER;
    size_t nameLen = name ? std::wcslen(name) : 0;
    size_t need = encodeRedirectName(*rec, name, nameLen, nullptr, 0);
    if (need + 1 > nChars) return KS_BUFFER_TOO_SMALL;
    encodeRedirectName(*rec, name, nameLen, out, nChars);
    return KS_SUCCESS;
}

KAPI int32_t K_DecodeRedirectName(const wchar_t* name, REDIRECTRECORD* rec, uint32_t* pStart) {
    if (!rec) return KS_NULL_POINTER;
    if (!name) return KS_INVALID_PARAMETER;
    REDIRECTRECORD t;
    size_t start = 0;
    if (!decodeRedirectName(name, std::wcslen(name), &t, &start)) return KS_INVALID_PARAMETER;
    *rec = t;
    if (pStart) *pStart = uint32_t(start);
    return KS_SUCCESS;
}

// ====================================================================== exports: buffer
KAPI int32_t K_StartRedirectToBuffer(HREDIRECTBUFFER* phBuffer, HREDIRECTFILE* phFile, uint32_t flags,
                                     void* user, uint32_t initial, uint32_t grow) {
    if (!phBuffer) return KS_INVALID_PARAMETER;
    if (flags & ~REDIRECTBUF_FIXED) return KS_INVALID_PARAMETER;
    void* mem = memAlloc(sizeof(RedirectBuffer));
    if (!mem) return KS_NO_MEMORY;
    RedirectBuffer* b = new (mem) RedirectBuffer();
    b->user = user;
    b->initial = initial;
    b->grow = grow > initial ? grow : initial;
    b->flags = flags;
    auto fail = [&] {
        memFree(b->data);
        b->~RedirectBuffer();
        memFree(b);
        return KS_NO_MEMORY;
    };
    if (initial) {
        b->data = static_cast<uint8_t*>(memAlloc(initial));
        if (!b->data) return fail();
        b->cap = initial;
    }
    REDIRECTRECORD& t = b->table;
    t.uStructSize = REDIRECTRECORD_SIZE;
    t.pfnOpen = &bufOpen;
    t.pfnRead = &bufRead;
    t.pfnWrite = &bufWrite;
    t.pfnSeek = &bufSeek;
    t.pfnClose = &bufClose;
    t.pfnSize = &bufSize;
    t.pfnSetSize = &bufSetSize;
    t.pOpenUserData = t.pReadUserData = t.pWriteUserData = t.pSeekUserData = t.pCloseUserData = b;
    t.pSizeUserData = t.pSetSizeUserData = b;
    if (!buffers().add(b)) return fail();
    if (phFile) {
        void* h = bufOpen(nullptr, REDIRECT_OPEN_READWRITE, 0, b);
        HREDIRECTFILE f = wrap(h, t, kMarkerTable, true);
        if (reinterpret_cast<void*>(f) == OMBRIX_INVALID_FILE) {
            buffers().remove(b);
            return fail();
        }
        *phFile = f;
    }
    *phBuffer = reinterpret_cast<HREDIRECTBUFFER>(b);
    return KS_SUCCESS;
}

KAPI int32_t K_GetRedirectBufferTable(HREDIRECTBUFFER h, REDIRECTRECORD* rec) {
    if (!rec) return KS_NULL_POINTER;
    if (rec->uStructSize != REDIRECTRECORD_SIZE) return KS_INVALID_STRUCT_SIZE;
    RedirectBuffer* b = liveBuffer(h);
    if (!b) return KS_INVALID_PARAMETER;
    *rec = b->table;
    return KS_SUCCESS;
}

KAPI int32_t K_GetRedirectBufferData(HREDIRECTBUFFER h, const void** ppData, uint64_t* puSize) {
    RedirectBuffer* b = liveBuffer(h);
    if (!b) return KS_INVALID_PARAMETER;
    std::lock_guard<std::mutex> g(b->lock);
    if (ppData) *ppData = b->data;
    if (puSize) *puSize = b->size;
    return KS_SUCCESS;
}

KAPI int32_t K_StopRedirectToBuffer(HREDIRECTBUFFER h, HGLOBAL* phData, uint64_t* puSize) {
    RedirectBuffer* b = liveBuffer(h);
    if (!b) return KS_INVALID_PARAMETER;
    {
        std::lock_guard<std::mutex> g(b->lock);
        if (b->opens > 0) return KS_INVALID_PARAMETER;
        if (phData) {
            HGLOBAL out = nullptr;
            if (b->size) {
                if (b->size > SIZE_MAX) return KS_NO_MEMORY;
                out = globalAlloc(GMEM_FIXED, size_t(b->size));
                if (!out) return KS_NO_MEMORY;
                std::memcpy(out, b->data, size_t(b->size));
            }
            *phData = out;
        }
        if (puSize) *puSize = b->size;
    }
    if (!buffers().remove(b)) return KS_INVALID_PARAMETER;
    memFree(b->data);
    b->~RedirectBuffer();
    memFree(b);
    return KS_SUCCESS;
}
