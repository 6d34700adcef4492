// fuzz_pnm.cpp - the ombrix tool's PNM/PAM reader on untrusted files: any
// input is refused with a negative status or read into a bitmap that can be
// written again and expanded to 24 bits.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "ombrix.h"
#include "../tools/ombrix/pnm.cpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Cap the work: headers that announce more than a megapixel are cut short
    // by the raster check anyway, but keep the files small.
    if (size > (1u << 20)) return 0;
    // Files in memory where the system has a RAM file system: the reader is
    // what is under test, not the disk.
    static const std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    static const std::string in = dir + "/ombrix_fuzz_pnm_" + std::to_string(getpid()) + ".pnm";
    static const std::string out = dir + "/ombrix_fuzz_pnm_" + std::to_string(getpid()) + "_out.pam";
    std::FILE* f = std::fopen(in.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    BITMAPRECORD bm;
    std::string why;
    const int32_t rc = pnm::read(in, bm, &why);
    if (rc == KS_SUCCESS) {
        if (pnm::write(out, bm) != KS_SUCCESS) std::abort();
        BITMAPRECORD wide;
        if (pnm::toBgr24(bm, wide) != KS_SUCCESS) std::abort();
        K_FreeBitmap(&wide);
        K_FreeBitmap(&bm);
    } else if (rc > 0 || why.empty()) {
        std::abort();
    }
    unlink(in.c_str());
    unlink(out.c_str());
    return 0;
}
