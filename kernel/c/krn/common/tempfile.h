// tempfile.h - the kernel's own temporary files (disk bitmaps, file-backed tiles).
//
// A kernel temporary file lives in the temporary folder (K_SetTempDirectory,
// else $TMPDIR, else /tmp), is opened for reading and writing and is deleted
// when it is closed: on the default file layer it is made with O_TMPFILE where
// the file system offers it, otherwise created with a unique name
// (prefix "QX") and unlinked straight away, so nothing is left behind even if
// the process dies. When a redirect table other than the default file layer
// is in force for the calling thread (K_RedirectIO / K_SetRedirectFunctions),
// the file is opened through that table instead, with a unique "QX" name in
// the temporary folder and the mode REDIRECT_OPEN_TEMPORARY, and every later
// read and write goes through the copy of the table taken at creation.
//
// All calls are noexcept, return KS_ status codes and are safe to call from
// several threads on distinct files. One file may be read and written from
// several threads at once on the default file layer (positioned I/O, no
// shared file position); through a redirect table the calls on one file are
// serialised by a lock of their own.
//
//   tempCreate(&h)                    KS_SUCCESS, KS_FILE_OPEN (-14: folder missing,
//                                     not writable, open failed), KS_NO_MEMORY,
//                                     KS_NOT_SUPPORTED (-16) in temporary-file mode 3
//                                     unless a caller's redirect table is in force
//   tempWrite(h, offset, buf, n)      KS_SUCCESS; KS_FILE_WRITE (-5) for any failure,
//                                     including a short write (disk full, size limit);
//                                     KS_FILE_SEEK (-4) when a redirect table cannot
//                                     position the file
//   tempRead(h, offset, buf, n)       KS_SUCCESS; KS_FILE_READ (-7) for any failure,
//                                     including reading past the end of the file
//                                     (use tempSetSize first: extended bytes read as 0)
//   tempSetSize(h, size)              KS_SUCCESS; KS_FILE_WRITE when the file cannot
//                                     grow (or shrink), KS_FILE_SEEK through a table
//   tempSize(h)                       current size in bytes, or -1
//   tempClose(h)                      closes (and so deletes) the file; null is ignored
//
//   tempFileMode()                    the process-wide temporary-file mode (1..3;
//                                     never 0: an unset mode reads as 2)
//   tempDiskAllowed()                 tempFileMode() != 3. Mode 3 means temporary files
//                                     may not be kept on a physical disk: the storage
//                                     family refuses disk bitmaps and file-backed tiles
//                                     (and tempCreate refuses too, as a second guard,
//                                     unless a caller's redirect table is in force)
//   tempMaxFileBytes()                the per-file size limit from the temporary-file
//                                     options (0: none), taken by each file when it is
//                                     created; tempWrite / tempSetSize past it fail with
//                                     KS_FILE_WRITE, as on a full disk
//   tempDirectory(buf, cap)           the calling thread's temporary folder as UTF-8
//                                     (no trailing slash), KS_SUCCESS or
//                                     KS_BUFFER_TOO_SMALL; cap of OMBRIX_TEMP_PATH_MAX
//                                     always suffices
//
// Mapping (default file layer only): a window of the file in memory, for
// storage that wants memcpy speed on a warm page cache.
//   tempMap(h, offset, n, writable, &m)  KS_SUCCESS and m.data -> byte `offset`;
//                                     KS_NOT_SUPPORTED (-16) for a file that goes
//                                     through a redirect table; KS_FILE_WRITE when a
//                                     writable window cannot be backed (disk full: the
//                                     blocks are reserved with posix_fallocate first, so
//                                     a later store cannot fault; or past the size
//                                     limit); KS_FILE_READ for a read-only window past
//                                     the end of the file; KS_NO_MEMORY when the
//                                     address space is exhausted
//   tempUnmap(&m)                     releases the window (stores are already in the
//                                     file); an empty mapping is ignored
//
// Sizes and offsets are 64-bit; a single call may move any number of bytes
// (larger transfers are split internally).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ombrix.h"

#ifndef OMBRIX_TEMP_PATH_MAX
#define OMBRIX_TEMP_PATH_MAX 4096
#endif

namespace krn {

struct TempFile;  // opaque

int32_t tempCreate(TempFile** out, const char* prefix = "QX") noexcept;
int32_t tempWrite(TempFile* h, uint64_t offset, const void* buf, size_t n) noexcept;
int32_t tempRead(TempFile* h, uint64_t offset, void* buf, size_t n) noexcept;
int32_t tempSetSize(TempFile* h, uint64_t size) noexcept;
int64_t tempSize(TempFile* h) noexcept;
void tempClose(TempFile* h) noexcept;

// True when the file goes through a caller's redirect table rather than the
// default file layer (for diagnostics and tests).
bool tempIsRedirected(const TempFile* h) noexcept;

struct TempMapping {
    uint8_t* data = nullptr;  // the requested offset
    void* base = nullptr;     // page-aligned start (internal)
    size_t length = 0;        // mapped bytes from base (internal)
};
int32_t tempMap(TempFile* h, uint64_t offset, size_t n, bool writable, TempMapping* out) noexcept;
void tempUnmap(TempMapping* m) noexcept;

int32_t tempFileMode() noexcept;
bool tempDiskAllowed() noexcept;
uint64_t tempMaxFileBytes() noexcept;
int32_t tempDirectory(char* buf, size_t cap) noexcept;
// Bytes free for the kernel's temporary files in the calling thread's
// temporary folder; UINT64_MAX when unknown (a caller's redirect table is in
// force, or the folder cannot be examined).
uint64_t tempFreeBytes() noexcept;

// Owning handle for C++ callers.
struct TempFileCloser {
    void operator()(TempFile* h) const noexcept { tempClose(h); }
};

}  // namespace krn
