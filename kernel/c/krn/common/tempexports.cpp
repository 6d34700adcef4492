// tempexports.cpp - exported temporary-folder, temporary-name and
// temporary-file functions, and the built-in temporary-file table.
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>

#include "kernel.h"
#include "memory.h"
#include "redirect.h"
#include "settings.h"
#include "tempfile.h"
#include "wideutf8.h"

namespace krn {
int32_t tempReserveName(char* out, size_t cap, const char* prefix) noexcept;
int32_t tempNumberedName(char* out, size_t cap, const char* prefix, uint32_t number) noexcept;
int32_t tempSetOptions(const TEMPFILEOPTIONS& in) noexcept;
TEMPFILEOPTIONS tempGetOptions() noexcept;
int32_t tempCreateDirect(TempFile** out, const char* prefix) noexcept;
int64_t tempPosRead(TempFile* h, void* buf, uint32_t n) noexcept;
int64_t tempPosWrite(TempFile* h, const void* buf, uint32_t n) noexcept;
int64_t tempPosSeek(TempFile* h, int64_t off, int32_t origin) noexcept;

namespace {

constexpr HandleRegistry kTempHandles(kObjTempFileHandle);
const HandleRegistry& tempHandles() noexcept { return kTempHandles; }

TempFile* liveTemp(void* h) noexcept {
    return tempHandles().contains(h) ? static_cast<TempFile*>(h) : nullptr;
}

int32_t setDirUtf8(const char* dir) noexcept {
    char* slot = settings().tempDir;
    constexpr size_t cap = sizeof(ThreadSettings::tempDir);
    if (!dir || !dir[0]) {
        slot[0] = '\0';
        return KS_SUCCESS;
    }
    size_t n = std::strlen(dir);
    if (n >= cap) return KS_INVALID_PARAMETER;
    utf::UtfResult r = utf::utf8ToUtf32(dir, n, nullptr, 0);
    if (r.status == utf::kUtfMalformed) return KS_INVALID_PARAMETER;
    std::memcpy(slot, dir, n + 1);
    return KS_SUCCESS;
}

// UTF-8 text into a wide buffer of nChars (with terminator).
int32_t toWideOut(const char* s, wchar_t* out, uint32_t nChars) noexcept {
    utf::UtfResult r = utf::utf8ToWide(s, std::strlen(s), out, nChars ? nChars - 1 : 0);
    if (r.status == utf::kUtfMalformed) return KS_INVALID_PARAMETER;
    if (r.status == utf::kUtfTooSmall || nChars == 0) return KS_BUFFER_TOO_SMALL;
    out[r.written] = L'\0';
    return KS_SUCCESS;
}

int32_t toUtf8Out(const char* s, char* out, uint32_t nChars) noexcept {
    size_t n = std::strlen(s);
    if (n + 1 > nChars) return KS_BUFFER_TOO_SMALL;
    std::memcpy(out, s, n + 1);
    return KS_SUCCESS;
}

// Wide prefix (null allowed) into UTF-8; false when malformed or too long.
bool prefixToUtf8(const wchar_t* p, char (&out)[16]) noexcept {
    if (!p) {
        std::strcpy(out, "QX");
        return true;
    }
    utf::UtfResult r = utf::wideToUtf8(p, std::wcslen(p), out, sizeof out - 1);
    if (r.status != utf::kUtfOk) return false;
    out[r.written] = '\0';
    return true;
}

}  // namespace
}  // namespace krn

using namespace krn;

// ---------------------------------------------------------------- folder
KAPI int32_t K_SetTempDirectoryUtf8(const char* dir) { return setDirUtf8(dir); }

KAPI int32_t K_SetTempDirectory(const wchar_t* dir) {
    if (!dir || !dir[0]) return setDirUtf8(nullptr);
    char buf[sizeof(ThreadSettings::tempDir)];
    utf::UtfResult r = utf::wideToUtf8(dir, std::wcslen(dir), buf, sizeof buf - 1);
    if (r.status != utf::kUtfOk) return KS_INVALID_PARAMETER;
    buf[r.written] = '\0';
    return setDirUtf8(buf);
}

KAPI int32_t K_GetTempDirectoryUtf8(char* out, uint32_t nChars) {
    if (!out) return KS_INVALID_PARAMETER;
    char dir[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempDirectory(dir, sizeof dir);
    if (rc != KS_SUCCESS) return rc;
    return toUtf8Out(dir, out, nChars);
}

KAPI int32_t K_GetTempDirectory(wchar_t* out, uint32_t nChars) {
    if (!out) return KS_INVALID_PARAMETER;
    char dir[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempDirectory(dir, sizeof dir);
    if (rc != KS_SUCCESS) return rc;
    return toWideOut(dir, out, nChars);
}

// ---------------------------------------------------------------- names
KAPI int32_t K_GetTempFileNameUtf8(char* out, const char* prefix) {
    if (!out) return KS_INVALID_PARAMETER;
    return tempReserveName(out, OMBRIX_TEMP_NAME_CHARS, prefix);
}

KAPI int32_t K_GetTempFileNameNumberedUtf8(char* out, const char* prefix, uint32_t number) {
    if (!out) return KS_INVALID_PARAMETER;
    return tempNumberedName(out, OMBRIX_TEMP_NAME_CHARS, prefix, number);
}

KAPI int32_t K_GetTempFileName(wchar_t* out, const wchar_t* prefix) {
    if (!out) return KS_INVALID_PARAMETER;
    char p[16];
    if (!prefixToUtf8(prefix, p)) return KS_INVALID_PARAMETER;
    // The name is made in UTF-8 with room for the longest wide form.
    char name[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempReserveName(name, sizeof name, p);
    if (rc != KS_SUCCESS) return rc;
    rc = toWideOut(name, out, OMBRIX_TEMP_NAME_CHARS);
    if (rc != KS_SUCCESS) std::remove(name);  // a name we cannot hand back is not kept
    return rc;
}

KAPI int32_t K_GetTempFileNameNumbered(wchar_t* out, const wchar_t* prefix, uint32_t number) {
    if (!out) return KS_INVALID_PARAMETER;
    char p[16];
    if (!prefixToUtf8(prefix, p)) return KS_INVALID_PARAMETER;
    char name[OMBRIX_TEMP_PATH_MAX];
    int32_t rc = tempNumberedName(name, sizeof name, p, number);
    if (rc != KS_SUCCESS) return rc;
    return toWideOut(name, out, OMBRIX_TEMP_NAME_CHARS);
}

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

KAPI int32_t K_DeleteTempFileUtf8(const char* name) {
    if (!name) return KS_INVALID_PARAMETER;
    if (utf::utf8ToUtf32(name, std::strlen(name), nullptr, 0).status == utf::kUtfMalformed)
        return KS_INVALID_PARAMETER;
    if (::unlink(name) == 0) return KS_SUCCESS;
    return errno == ENOENT ? KS_FILE_NOT_FOUND : KS_FILE_GONE;
}

KAPI int32_t K_DeleteTempFile(const wchar_t* name) {
    if (!name) return KS_INVALID_PARAMETER;
    kvector<char> u;
    bool noMem = false;
    if (!utf::wideToUtf8(name, u, &noMem)) return noMem ? KS_NO_MEMORY : KS_INVALID_PARAMETER;
    return K_DeleteTempFileUtf8(u.data());
}

// ---------------------------------------------------------------- options
KAPI int32_t K_SetTempFileOptions(const TEMPFILEOPTIONS* opt) {
    if (!opt) return KS_NULL_POINTER;
    if (opt->uStructSize != TEMPFILEOPTIONS_SIZE) return KS_INVALID_STRUCT_SIZE;
    if (opt->nMode < -1 || opt->nMode > TEMPFILE_MODE_NO_DISK) return KS_INVALID_PARAMETER;
    return tempSetOptions(*opt);
}

KAPI int32_t K_GetTempFileOptions(TEMPFILEOPTIONS* opt, uint32_t size) {
    if (!opt) return KS_NULL_POINTER;
    if (size != TEMPFILEOPTIONS_SIZE) return KS_INVALID_STRUCT_SIZE;
    *opt = tempGetOptions();
    return KS_SUCCESS;
}

KAPI int32_t K_GetTempFileMode(void) { return tempFileMode(); }

// ---------------------------------------------------------------- the built-in table
KAPI void* K_RedirectedTempFileOpen(const wchar_t* name, uint32_t, uint32_t, void*) {
    {
        // The name is a hint: the first up to three letters, digits, '_' or
        // '-' of its last component become the prefix ("QX" when none).
        char prefix[4] = {0, 0, 0, 0};
        if (name) {
            const wchar_t* leaf = name;
            for (const wchar_t* p = name; *p; ++p)
                if (*p == L'/') leaf = p + 1;
            int k = 0;
            for (const wchar_t* p = leaf; *p && k < 3; ++p) {
                wchar_t c = *p;
                bool ok = (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') ||
                          c == L'_' || c == L'-';
                if (!ok) break;
                prefix[k++] = char(c);
            }
        }
        TempFile* tf = nullptr;
        if (tempCreateDirect(&tf, prefix[0] ? prefix : "QX") != KS_SUCCESS) return OMBRIX_INVALID_FILE;
        if (!tempHandles().add(tf)) {
            tempClose(tf);
            return OMBRIX_INVALID_FILE;
        }
        return tf;
    }
}

KAPI int32_t K_RedirectedTempFileRead(void* h, void* buf, uint32_t n, void*) {
    TempFile* tf = liveTemp(h);
    if (!tf || (!buf && n)) return -1;
    return int32_t(tempPosRead(tf, buf, n));
}

KAPI int32_t K_RedirectedTempFileWrite(void* h, const void* buf, uint32_t n, void*) {
    TempFile* tf = liveTemp(h);
    if (!tf || (!buf && n)) return -1;
    return int32_t(tempPosWrite(tf, buf, n));
}

KAPI int64_t K_RedirectedTempFileWriteBig(void* h, const void* buf, uint64_t n, void*) {
    if (n == 0) return 0;
    if (!liveTemp(h)) return -1;
    REDIRECTRECORD t;
    redirectTempTable(&t);
    return tableWriteAll(t, h, buf, n);
}

KAPI int64_t K_RedirectedTempFileSeek(void* h, int64_t off, int32_t origin, void*) {
    TempFile* tf = liveTemp(h);
    if (!tf) return -1;
    return tempPosSeek(tf, off, origin);
}

KAPI int32_t K_RedirectedTempFileClose(void* h, void*) {
    if (!h || !tempHandles().remove(h)) return -1;
    tempClose(static_cast<TempFile*>(h));
    return 0;
}

KAPI int64_t K_RedirectedTempFileSize(void* h, void*) {
    TempFile* tf = liveTemp(h);
    if (!tf) return -1;
    return tempSize(tf);
}

KAPI int32_t K_RedirectedTempFileSetSize(void* h, int64_t size, void*) {
    TempFile* tf = liveTemp(h);
    if (!tf || size < 0) return -1;
    return tempSetSize(tf, uint64_t(size)) == KS_SUCCESS ? 0 : -1;
}
