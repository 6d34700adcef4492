// osys.cpp - the kernel's default file layer (POSIX).
//
// Handles are the file descriptor plus one (OMBRIX_OS_HANDLE), so that no
// valid handle is null. Names arrive as wchar_t and reach the system as
// UTF-8 through the one conversion module; a malformed name fails.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "kernel.h"
#include "wideutf8.h"

namespace {

int fdOf(void* h) noexcept {
    if (!h || h == OMBRIX_INVALID_FILE) return -1;
    intptr_t v = reinterpret_cast<intptr_t>(h);
    if (v <= 0 || v > INT_MAX) return -1;
    return int(v - 1);
}

}  // namespace

namespace krn {

// Opens a UTF-8 name with the kernel's open modes; -1 and errno on failure.
// New files get `perm` (less the umask).
int osOpenUtf8(const char* name, uint32_t mode, unsigned perm) noexcept {
    int flags = O_CLOEXEC;
    switch (mode & REDIRECT_OPEN_READWRITE) {
        case REDIRECT_OPEN_READ: flags |= O_RDONLY; break;
        case REDIRECT_OPEN_WRITE: flags |= O_WRONLY; break;
        case REDIRECT_OPEN_READWRITE: flags |= O_RDWR; break;
        default: errno = EINVAL; return -1;
    }
    if (mode & REDIRECT_OPEN_CREATE) flags |= O_CREAT;
    if (mode & REDIRECT_OPEN_TRUNCATE) flags |= O_TRUNC;
    if (mode & REDIRECT_OPEN_EXCLUSIVE) flags |= O_EXCL;
    if (mode & REDIRECT_OPEN_APPEND) flags |= O_APPEND;
    int fd;
    do {
        fd = ::open(name, flags, perm);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0 && (mode & REDIRECT_OPEN_TEMPORARY)) {
        // Delete-on-close: the name goes now, the data when the last
        // descriptor is closed.
        ::unlink(name);
    }
    return fd;
}

}  // namespace krn

KAPI void* K_OsOpen(const wchar_t* name, uint32_t mode, uint32_t /*share*/, void* /*user*/) {
    if (!name) return OMBRIX_INVALID_FILE;
    krn::kvector<char> utf8;
    if (!krn::utf::wideToUtf8(name, utf8)) return OMBRIX_INVALID_FILE;  // malformed or no memory
    int fd = krn::osOpenUtf8(utf8.data(), mode, 0666);
    if (fd < 0) return OMBRIX_INVALID_FILE;
    if (fd == INT_MAX) {
        ::close(fd);
        return OMBRIX_INVALID_FILE;
    }
    return OMBRIX_OS_HANDLE(fd);
}

KAPI int32_t K_OsRead(void* h, void* buf, uint32_t n, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0 || (!buf && n)) return -1;
    if (n > 0x7FFFF000u) n = 0x7FFFF000u;  // the most one system call moves
    for (;;) {
        ssize_t r = ::read(fd, buf, n);
        if (r >= 0) return int32_t(r);
        if (errno != EINTR) return -1;
    }
}

KAPI int32_t K_OsWrite(void* h, const void* buf, uint32_t n, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0 || (!buf && n)) return -1;
    if (n > 0x7FFFF000u) n = 0x7FFFF000u;
    // Keep writing until all is written or the medium refuses: a partial
    // result means the disk is full.
    uint32_t done = 0;
    while (done < n) {
        ssize_t r = ::write(fd, static_cast<const char*>(buf) + done, n - done);
        if (r > 0) {
            done += uint32_t(r);
            continue;
        }
        if (r < 0 && errno == EINTR) continue;
        if (done == 0 && r < 0 && errno != ENOSPC && errno != EFBIG) return -1;
        break;
    }
    return int32_t(done);
}

KAPI int64_t K_OsSeek(void* h, int64_t off, int32_t origin, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0) return -1;
    int whence;
    switch (origin) {
        case REDIRECT_SEEK_SET: whence = SEEK_SET; break;
        case REDIRECT_SEEK_CUR: whence = SEEK_CUR; break;
        case REDIRECT_SEEK_END: whence = SEEK_END; break;
        default: return -1;
    }
    off_t r = ::lseek(fd, off_t(off), whence);
    return r < 0 ? -1 : int64_t(r);
}

KAPI int32_t K_OsClose(void* h, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0) return -1;
    // POSIX leaves the descriptor closed even when close reports EINTR.
    return ::close(fd) == 0 || errno == EINTR ? 0 : -1;
}

KAPI int64_t K_OsSize(void* h, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0) return -1;
    struct stat st;
    if (::fstat(fd, &st) != 0) return -1;
    return int64_t(st.st_size);
}

KAPI int32_t K_OsSetSize(void* h, int64_t size, void* /*user*/) {
    int fd = fdOf(h);
    if (fd < 0 || size < 0) return -1;
    int r;
    do {
        r = ::ftruncate(fd, off_t(size));
    } while (r != 0 && errno == EINTR);
    return r == 0 ? 0 : -1;
}
