// status.cpp - per-thread progress callbacks and library information.
#include <thread>

#include "kernel.h"
#include "settings.h"

using namespace krn;

namespace {
int32_t setCallback(STATUSCALLBACK& slot, void*& user, STATUSCALLBACK fn, void* data, STATUSCALLBACK* oldFn,
                    void** oldData) {
    if (oldFn) *oldFn = slot;
    if (oldData) *oldData = user;
    slot = fn;
    user = data;
    return KS_SUCCESS;
}
int32_t getCallback(STATUSCALLBACK slot, void* user, STATUSCALLBACK* fn, void** data) {
    if (fn) *fn = slot;
    if (data) *data = user;
    return KS_SUCCESS;
}
}  // namespace

KAPI int32_t K_SetStatusCallBack(STATUSCALLBACK pfnCallback, void* pUserData, STATUSCALLBACK* ppfnOld,
                                 void** ppOldUserData) {
    ThreadSettings& ts = settings();
    return setCallback(ts.pfnStatus, ts.pStatusUser, pfnCallback, pUserData, ppfnOld, ppOldUserData);
}
KAPI int32_t K_GetStatusCallBack(STATUSCALLBACK* ppfnCallback, void** ppUserData) {
    ThreadSettings& ts = settings();
    return getCallback(ts.pfnStatus, ts.pStatusUser, ppfnCallback, ppUserData);
}
KAPI int32_t K_SetCopyStatusCallBack(STATUSCALLBACK pfnCallback, void* pUserData, STATUSCALLBACK* ppfnOld,
                                     void** ppOldUserData) {
    ThreadSettings& ts = settings();
    return setCallback(ts.pfnCopyStatus, ts.pCopyStatusUser, pfnCallback, pUserData, ppfnOld, ppOldUserData);
}
KAPI int32_t K_GetCopyStatusCallBack(STATUSCALLBACK* ppfnCallback, void** ppUserData) {
    ThreadSettings& ts = settings();
    return getCallback(ts.pfnCopyStatus, ts.pCopyStatusUser, ppfnCallback, ppUserData);
}

KAPI const char* K_GetVersionString(void) {
    return "Ombrix " OMBRIX_VERSION_STRING
#if defined(__OPTIMIZE__)
           " (optimised"
#else
           " (debug"
#endif
#if defined(__SANITIZE_ADDRESS__)
           ", address sanitizer"
#endif
#if defined(__SANITIZE_THREAD__)
           ", thread sanitizer"
#endif
           ", " __VERSION__ ")";
}

KAPI uint32_t K_GetCpuFeatures(void) {
    uint32_t f = 0;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("sse2")) f |= 1;
    if (__builtin_cpu_supports("ssse3")) f |= 2;
    if (__builtin_cpu_supports("sse4.1")) f |= 4;
    if (__builtin_cpu_supports("avx2")) f |= 8;
#endif
    return f;
}

KAPI int32_t K_GetProcessorCount(void) {
    unsigned n = std::thread::hardware_concurrency();
    return n ? int32_t(n) : 1;
}
