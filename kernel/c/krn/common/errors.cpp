// errors.cpp - status code messages.
//
// Codes -1931 to 104 form the message table. The kernel's own codes have a
// text here; codes that belong to the toolkit's other libraries (file
// formats, dialogs, annotations, colour management) name that library; every
// other code reads "Internal or Unrecognized Error!".
#include <algorithm>
#include <iterator>
#include <cstdio>
#include <cstring>

#include "kernel.h"

namespace {

struct Message {
    int32_t code;
    const char* text;
};

// Sorted by code.
constexpr Message kMessages[] = {
    {-1927, "Conversion of floating data is not supported"},
    {-1906, "The bitmap is too big. Try loading it at a lower resolution"},
    {-1905, "You have exceeded the amount of memory allowed for allocations in this application"},
    {-1852, "(Internal error) Invalid file handle"},
    {-1491, "The DIB is invalid"},
    {-1486, "The LUT length is invalid. LUTLength should be 1 << (HighBit - LowBit + 1)"},
    {-815, "The overlay does not exist"},
    {-814, "A NULL pointer was passed"},
    {-794, "Unsupported conversion"},
    {-789, "The structure size is invalid"},
    {-404, "Tag not found"},
    {-351, "There is nothing to do.  No items were found"},
    {-290, "The buffer size is too small"},
    {-261, "Invalid handle"},
    {-144, "Image is empty"},
    {-100, "User has aborted operation"},
    {-74, "Internal error"},
    {-27, "Invalid bits per pixel"},
    {-23, "Invalid compression format"},
    {-16, "Feature not supported.\nThe requested command or option is not available in this build of the "
          "library.\nCheck the arguments, or use a build that includes the feature."},
    {-15, "Unknown compression format"},
    {-14, "Not able to open file"},
    {-13, "Invalid parameter passed"},
    {-11, "Invalid width or height"},
    {-10, "File not found"},
    {-8, "Invalid filename specified"},
    {-7, "Error reading file"},
    {-6, "File not present - abort"},
    {-5, "Error writing file"},
    {-4, "Error seeking to position"},
    {-3, "Not enough memory available"},
    {-2, "Invalid image"},
    {-1, "Not enough memory available"},
    {0, "Function not successful"},
    {1, "Success"},
    {2, "Successful. You can quit now"},
    {3, "Function successful. Delete file before quitting"},
    {4, "Function successful. Retry the failed operation"},
};

struct LibraryRange {
    int32_t first, last;  // inclusive, first <= last
    int32_t id;
    const char* name;
};
constexpr LibraryRange kLibraries[] = {
    {-1199, -1100, OMBRIX_LIB_FILEIO, "Ombrix File Formats"},
    {-1299, -1200, OMBRIX_LIB_DIALOGS, "Ombrix Dialogs"},
    {-1399, -1300, OMBRIX_LIB_ANNOTATION, "Ombrix Annotations"},
    {-1479, -1400, OMBRIX_LIB_COLOR, "Ombrix Color Management"},
};
constexpr const char* kKernelName = "Ombrix Kernel";
constexpr const char* kUnknown = "Internal or Unrecognized Error!";
constexpr int32_t kFirstCode = -1931, kLastCode = 104;
constexpr uint32_t kMaxChars = 1024;

const Message* findMessage(int32_t code) {
    auto it = std::lower_bound(std::begin(kMessages), std::end(kMessages), code,
                               [](const Message& m, int32_t c) { return m.code < c; });
    return (it != std::end(kMessages) && it->code == code) ? it : nullptr;
}
const LibraryRange* findLibrary(int32_t code) {
    for (const auto& l : kLibraries)
        if (code >= l.first && code <= l.last) return &l;
    return nullptr;
}

void writeWide(wchar_t* dst, uint32_t cap, const char* src) {
    if (cap == 0) return;
    uint32_t i = 0;
    for (; i + 1 < cap && src[i]; ++i) dst[i] = wchar_t(static_cast<unsigned char>(src[i]));
    dst[i] = L'\0';
}

}  // namespace

KAPI int32_t K_GetLibIdFromErrorCode(int32_t nCode, int32_t* pnLibId, int32_t* pbKnown) {
    int32_t id = OMBRIX_LIB_UNKNOWN, known = 0;
    if (nCode >= kFirstCode && nCode <= kLastCode) {
        if (findMessage(nCode)) {
            id = OMBRIX_LIB_KERNEL;
            known = 1;
        } else if (const LibraryRange* l = findLibrary(nCode)) {
            id = l->id;
            known = 1;
        }
    }
    if (pnLibId) *pnLibId = id;
    if (pbKnown) *pbKnown = known;
    return KS_SUCCESS;
}

KAPI int32_t K_GetFriendlyErrorMessage(int32_t nCode, wchar_t* pszBuffer, uint32_t nBufferChars,
                                       wchar_t* pszLibName) {
    if (!pszBuffer) return KS_INVALID_PARAMETER;
    const uint32_t cap = std::min(nBufferChars, kMaxChars);
    const char* lib = nullptr;
    char formatted[128];
    const char* text = kUnknown;
    if (nCode >= kFirstCode && nCode <= kLastCode) {
        if (const Message* m = findMessage(nCode)) {
            text = m->text;
            lib = kKernelName;
        } else if (const LibraryRange* l = findLibrary(nCode)) {
            std::snprintf(formatted, sizeof formatted, "The %s library is missing.", l->name);
            text = formatted;
            lib = l->name;
        }
    }
    writeWide(pszBuffer, cap, text);
    if (pszLibName) writeWide(pszLibName, cap, lib ? lib : "");
    return KS_SUCCESS;
}
